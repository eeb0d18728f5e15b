// Calls of any exported function by name, with arguments set by name. An
// operand is bound to a role (src1, dst, ...): its pointer or table and the
// strides and shift that the function takes are set from it. The adapters
// come from the generator of the public header (orsm_calls.hpp), so a test
// needs no per-prototype code.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <sstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "operand.hpp"
#include "orsm_calls.hpp"

namespace orsmtest {

// "Add_vav", "P", float -> "orsmAdd_vav_32f_P"; the layout suffix is "" for
// S, "P", "L", or a pair for Copy ("SP").
template <class T> std::string api(const std::string& stem, const std::string& lay) {
    return "orsm" + stem + (sizeof(T) == 4 ? "_32f" : "_64f") + (lay.empty() || lay == "S" ? "" : "_" + lay);
}
inline int pid(const std::string& n) {
    const int k = gen::param(n.c_str());
    if (k < 0) throw std::logic_error("no argument named " + n);
    return k;
}
// Operand codes of a form, split as in the names: "mava" -> ma, va.
inline std::vector<std::string> codes(const std::string& form) {
    std::vector<std::string> v;
    for (std::size_t i = 0; i < form.size(); ++i)
        v.push_back(i + 1 < form.size() && form[i + 1] == 'a' ? form.substr(i++, 2)
                                                              : form.substr(i, 1));
    return v;
}
inline bool is_array_code(const std::string& c) { return c.size() == 2; }

template <class T> class Call {
  public:
    Call(const std::string& stem, const std::string& lay)
        : name_(api<T>(stem, lay)), lay_(lay == "P" ? Layout::P : lay == "L" ? Layout::L : Layout::S) {
        fn_ = gen::find(name_.c_str());
        if (!fn_) throw std::logic_error("no function " + name_);
    }
    Call(const std::string& stem, Layout lay) : Call(stem, std::string(orsmtest::name(lay))) {}
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const std::string& name() const { return name_; }
    Layout layout() const { return lay_; }
    bool takes(const std::string& p) const {
        const int k = gen::param(p.c_str());
        for (int j = 0; j < fn_->arity; ++j)
            if (fn_->params[j] == k) return true;
        return false;
    }
    // Argument names in call order, and whether one is a pointer.
    std::vector<std::string> params() const {
        std::vector<std::string> v;
        for (int j = 0; j < fn_->arity; ++j) v.push_back(param_name(j));
        return v;
    }
    bool is_pointer(const std::string& p) const {
        for (int j = 0; j < fn_->arity; ++j)
            if (param_name(j) == p) return std::string(fn_->types[j]).back() == '*';
        return false;
    }
    int& arg(const std::string& p) { return bag_.i[pid(p)]; }
    void*& ptr(const std::string& p) { return bag_.ptr[pid(p)]; }
    void set_value(const std::string& p, T v) {
        if constexpr (sizeof(T) == 4) bag_.f[pid(p)] = v;
        else bag_.d[pid(p)] = v;
    }
    T value(const std::string& p) const {
        if constexpr (sizeof(T) == 4) return bag_.f[pid(p)];
        else return bag_.d[pid(p)];
    }

    // Lays out the operand of a role and sets its arguments. A single
    // operand of a layout-L function is passed as in layout S.
    Operand<T>& bind(const std::string& role, bool array, Shape sh, unsigned seed = 1) {
        return bind_as((lay_ == Layout::L && !array) ? Layout::S : lay_, role, array, sh, seed);
    }
    Operand<T>& bind_as(Layout l, const std::string& role, bool array, Shape sh, unsigned seed = 1) {
        sh.array = array;
        if (!array) sh.count = 1, sh.soa = false;
        owned_.push_back(std::make_unique<Operand<T>>(l, sh, seed));
        return attach(role, *owned_.back());
    }
    // Passes an operand the caller owns.
    Operand<T>& attach(const std::string& role, Operand<T>& o) {
        ops_[role] = &o;
        ptr(role) = o.layout() == Layout::S ? static_cast<void*>(o.ptr())
                                            : static_cast<void*>(const_cast<T**>(o.table()));
        const std::pair<const char*, int> m[] = {
            {"Stride0", o.s0()}, {"Stride1", o.s1()}, {"Stride2", o.s2()}, {"RoiShift", o.shift()}};
        for (auto [sfx, v] : m)
            if (takes(role + sfx)) arg(role + sfx) = v;
        return o;
    }
    bool has(const std::string& role) const { return ops_.count(role) != 0; }
    Operand<T>& op(const std::string& role) const { return *ops_.at(role); }

    OrsStatus run() const { return fn_->call(bag_); }
    void snapshot() {
        for (auto& [r, o] : ops_) o->snapshot();
    }
    bool unchanged() const {
        for (auto& [r, o] : ops_)
            if (!o->unchanged()) return false;
        return true;
    }
    // Edits arguments from "name=value ..." (a pointer's value 0 is null).
    Call& set(const std::string& edits) {
        std::istringstream in(edits);
        for (std::string e; in >> e;) {
            const auto eq = e.find('=');
            const std::string p = e.substr(0, eq);
            const int v = std::stoi(e.substr(eq + 1));
            if (is_pointer(p)) ptr(p) = nullptr;
            else arg(p) = v;
        }
        return *this;
    }
    // The arguments as they stand, to save, edit and restore.
    gen::Bag& bag() { return bag_; }

  private:
    std::string param_name(int j) const { return gen::param_name(fn_->params[j]); }

    std::string name_;
    Layout lay_;
    const gen::Fn* fn_ = nullptr;
    gen::Bag bag_;
    std::vector<std::unique_ptr<Operand<T>>> owned_;
    std::map<std::string, Operand<T>*> ops_;
};

}  // namespace orsmtest

namespace orsmtest {

inline bool ends_with(const std::string& p, const char* s) {
    const std::size_t n = std::strlen(s);
    return p.size() >= n && p.compare(p.size() - n, n, s) == 0;
}
inline bool is_size_param(const std::string& p) {
    for (const char* s : {"length", "width", "height", "size", "Width", "Height", "Length"})
        if (ends_with(p, s)) return true;
    return false;
}

// Binds every operand a function takes, sized for w by h matrices (or
// vectors of w) and `count` objects, each in the layout its arguments show,
// and sets the sizes: a valid call to edit. Bare blocks (an Extract dst)
// come as unpadded single vectors.
template <class T> void bind_all(Call<T>& c, int w, int h, int count) {
    unsigned seed = 1;
    const bool matrix = c.takes("width") || c.takes("src1Width");
    for (const std::string& p : c.params()) {
        if (!c.is_pointer(p)) continue;
        auto has = [&](const char* m) { return c.takes(p + m); };
        const Layout l = !has("RoiShift") ? Layout::S : has("Stride2") ? Layout::L : Layout::P;
        const bool array = has("Stride0") || l == Layout::L;
        Shape sh{matrix ? h : 1, w, count, array};
        if (!has("Stride2") && l == Layout::S) sh = Shape{1, w * h * count, 1, false, true, false, 0, 0};
        c.bind_as(l, p, array, sh, seed++).fill([&](int n, int r, int k) { return T(n * 100 + r * 10 + k); });
    }
    for (const char* s : {"width", "length", "size", "src1Width", "src2Length"})
        if (c.takes(s)) c.arg(s) = w;
    for (const char* s : {"height", "src1Height"})
        if (c.takes(s)) c.arg(s) = h;
    if (c.takes("count")) c.arg("count") = count;
}

// Every argument is looked at: a null pointer, a bad stride, a bad shift, a
// size or count of 0, each alone, fails the call with its status and
// leaves every operand untouched. (Calls with a count take at least 2, as
// some object strides are looked at only then.)
template <class T> void check_every_argument(Call<T>& c) {
    const int E = sizeof(T);
    c.snapshot();
    const gen::Bag good = c.bag();
    for (const std::string& p : c.params()) {
        std::vector<int> bad{0};
        OrsStatus want = StatusBadSize;
        if (c.is_pointer(p)) want = StatusNullPointer;
        else if (p == "count") want = StatusBadCount;
        else if (ends_with(p, "RoiShift")) want = StatusBadRoiShift, bad = {-E, 2};
        else if (p.find("Stride") != std::string::npos) want = StatusBadStride, bad = {0, -E, E / 2, E + 2};
        else if (!is_size_param(p)) continue;
        for (int v : bad) {
            c.set(p + "=" + std::to_string(v));
            EXPECT_EQ(c.run(), want) << c.name() << " " << p << "=" << v;
            EXPECT_TRUE(c.unchanged()) << c.name() << " " << p << "=" << v;
            c.bag() = good;
        }
    }
}

// Faults given in the order a family checks them ("name=value", the status
// it gives): of any two, the same one twice included, the earlier decides
// and no operand changes. Faults on arguments the call does not take are
// left out.
// `untouched` says that what the call writes outside its bound operands (a
// packed dst, a buffer) is as it stood.
using Fault = std::pair<std::string, OrsStatus>;
template <class T, class Untouched>
void expect_checks_in_order(Call<T>& c, const std::vector<Fault>& faults, Untouched&& untouched) {
    std::vector<Fault> steps;
    for (const Fault& f : faults)
        if (c.takes(f.first.substr(0, f.first.find('=')))) steps.push_back(f);
    c.snapshot();
    const gen::Bag good = c.bag();
    for (std::size_t i = 0; i < steps.size(); ++i)
        for (std::size_t j = i; j < steps.size(); ++j) {
            c.bag() = good;
            EXPECT_EQ(c.set(steps[i].first + " " + steps[j].first).run(), steps[i].second)
                << c.name() << " " << steps[i].first << " " << steps[j].first;
            EXPECT_TRUE(c.unchanged() && untouched()) << c.name() << " " << steps[i].first << " " << steps[j].first;
        }
    c.bag() = good;
}
template <class T> void expect_checks_in_order(Call<T>& c, const std::vector<Fault>& faults) {
    expect_checks_in_order(c, faults, [] { return true; });
}

// The first work estimate from `target` on, stepping by `step`, that some
// geometry reaches exactly: {w, h, count, W}, count 2 or more, sides up to
// 40 tried from 3 up (orders with paths first), h 1 for vectors.
template <class Work> std::array<int, 4> geometry(Work work, int target, int step, bool matrix) {
    for (int W = target;; W += step)
        for (int i = 0; i < 40; ++i)
            for (int j = 0; j < (matrix ? 40 : 1); ++j) {
                const int w = (i + 2) % 40 + 1, h = matrix ? (j + 2) % 40 + 1 : 1;
                for (int n = 2; work(w, h, n) <= W; ++n)
                    if (work(w, h, n) == W) return {w, h, n, W};
            }
}

// The geometry of a limit's cells: at the last work below `limit` (side 0),
// or at the first from it on (side 1).
template <class Work> std::array<int, 4> limit_cell(Work work, int limit, int side, bool matrix) {
    return side ? geometry(work, limit, 1, matrix) : geometry(work, limit - 1, -1, matrix);
}

// A limit and its sense: equal work goes parallel (serial below) or stays
// serial (parallel above).
struct Limit {
    int value;
    bool equal_goes_parallel;
    int last_serial() const { return equal_goes_parallel ? value - 1 : value; }
};

// Runs fn with two threads set inside a serialized two-thread region: a
// call that goes parallel there processes only member 0's share.
template <class F> void serialized(F&& fn) {
    ThreadCount tc(2);
    in_serialized_region(fn);
}
// The status of a call run so.
template <class T> OrsStatus run_serialized(const Call<T>& c) {
    OrsStatus st = StatusBadSize;
    serialized([&] { st = c.run(); });
    return st;
}

}  // namespace orsmtest
