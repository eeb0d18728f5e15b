// Table-driven harness for the element-wise families with a vector or a
// constant operand (vector Add/Sub, Mul by a constant). A row names the
// exported function, its layout, the kind of each source (array, single
// vector, constant), the operation and its check order; the harness builds
// guarded operands, calls through an adapter chosen by the function's type,
// and compares every result element with a scalar reference, bit for bit.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "operand.hpp"

namespace orsmtest {

// One argument group, as passed: a base pointer (S) or a table (P, L), and
// the strides and shift. Faults are injected by editing these.
template <class T> struct Grp {
    T* ptr = nullptr;
    T* const* tbl = nullptr;
    int s0 = 0, s1 = 0, s2 = 0, shift = 0;
    // The stride that stands third in a P or L array group: stride0 in P,
    // stride2 in L.
    int x(Layout l) const { return l == Layout::P ? s0 : s2; }
};
template <class T> Grp<T> grp(Operand<T>& o) {
    Grp<T> g;
    if (o.layout() == Layout::S) g.ptr = o.ptr();
    else g.tbl = o.table();
    g.s0 = o.s0();
    g.s1 = o.s1();
    g.s2 = o.s2();
    g.shift = o.shift();
    return g;
}

template <class T> struct Args {
    Layout lay;
    bool matrix;
    Grp<T> a, b, d;  // a: src or src1, b: src2
    T value{};
    int w = 1, h = 1, count = 1;  // w is the length of a vector form
};

// Adapters, one per prototype shape; overload resolution on the function
// pointer picks the one that fits. Shapes shared by two forms (vac/mc in S,
// vac in P/L) read the fields the form means.
template <class T> using CT = const T* const*;
template <class T> using DT = T* const*;

template <class T> OrsStatus invoke(OrsStatus (*f)(const T*, int, T, T*, int, int), Args<T>& g) {
    return f(g.a.ptr, g.a.s2, g.value, g.d.ptr, g.d.s2, g.w);
}
template <class T> OrsStatus invoke(OrsStatus (*f)(CT<T>, int, T, DT<T>, int, int), Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.value, g.d.tbl, g.d.shift, g.w);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, const T*, int, T*, int, int), Args<T>& g) {
    return f(g.a.ptr, g.a.s2, g.b.ptr, g.b.s2, g.d.ptr, g.d.s2, g.w);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, CT<T>, int, DT<T>, int, int), Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.b.tbl, g.b.shift, g.d.tbl, g.d.shift, g.w);
}
// vac (src, s0, s2, value, dst, s0, s2, length, count) and
// mc (src, s1, s2, value, dst, s1, s2, width, height).
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, int, T, T*, int, int, int, int), Args<T>& g) {
    return g.matrix ? f(g.a.ptr, g.a.s1, g.a.s2, g.value, g.d.ptr, g.d.s1, g.d.s2, g.w, g.h)
                    : f(g.a.ptr, g.a.s0, g.a.s2, g.value, g.d.ptr, g.d.s0, g.d.s2, g.w, g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, int, T, DT<T>, int, int, int, int), Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.a.x(g.lay), g.value, g.d.tbl, g.d.shift, g.d.x(g.lay), g.w,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, int, const T*, int, T*, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.ptr, g.a.s0, g.a.s2, g.b.ptr, g.b.s2, g.d.ptr, g.d.s0, g.d.s2, g.w, g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, int, CT<T>, int, DT<T>, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.a.s0, g.b.tbl, g.b.shift, g.d.tbl, g.d.shift, g.d.s0, g.w,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, int, const T*, int, DT<T>, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.a.s2, g.b.ptr, g.b.s2, g.d.tbl, g.d.shift, g.d.s2, g.w,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, const T*, int, int, T*, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.ptr, g.a.s2, g.b.ptr, g.b.s0, g.b.s2, g.d.ptr, g.d.s0, g.d.s2, g.w, g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, CT<T>, int, int, DT<T>, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.b.tbl, g.b.shift, g.b.s0, g.d.tbl, g.d.shift, g.d.s0, g.w,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, CT<T>, int, int, DT<T>, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.ptr, g.a.s2, g.b.tbl, g.b.shift, g.b.s2, g.d.tbl, g.d.shift, g.d.s2, g.w,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, int, const T*, int, int, T*, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.ptr, g.a.s0, g.a.s2, g.b.ptr, g.b.s0, g.b.s2, g.d.ptr, g.d.s0, g.d.s2, g.w,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, int, CT<T>, int, int, DT<T>, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.a.x(g.lay), g.b.tbl, g.b.shift, g.b.x(g.lay), g.d.tbl,
             g.d.shift, g.d.x(g.lay), g.w, g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, T, DT<T>, int, int, int), Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.value, g.d.tbl, g.d.shift, g.w, g.h);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(const T*, int, int, int, T, T*, int, int, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.ptr, g.a.s0, g.a.s1, g.a.s2, g.value, g.d.ptr, g.d.s0, g.d.s1, g.d.s2, g.w, g.h,
             g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, int, T, DT<T>, int, int, int, int, int), Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.a.s0, g.value, g.d.tbl, g.d.shift, g.d.s0, g.w, g.h, g.count);
}
template <class T>
OrsStatus invoke(OrsStatus (*f)(CT<T>, int, int, int, T, DT<T>, int, int, int, int, int, int),
                 Args<T>& g) {
    return f(g.a.tbl, g.a.shift, g.a.s1, g.a.s2, g.value, g.d.tbl, g.d.shift, g.d.s1, g.d.s2, g.w,
             g.h, g.count);
}

// The 32f or 64f member of a pair.
template <class T, class F32, class F64> auto pick(F32 f32, F64 f64) {
    if constexpr (std::is_same_v<T, float>) return f32;
    else return f64;
}

// Kind of a source: 'A' array, 'O' one vector or matrix, '-' absent.
template <class T> struct Case {
    std::string name;
    Layout lay;
    char ka, kb;
    bool cfirst;  // the constant is the first operand of the operation (cv, cva)
    char op;      // '+', '-', '*'
    bool matrix, trans;
    std::string order;  // check order: p c l s z(stride0) h(shift)
    std::function<OrsStatus(Args<T>&)> call;

    bool has_const() const { return kb == '-'; }
    bool array() const { return ka == 'A' || kb == 'A'; }
};
template <class T, class Fn>
Case<T> make_case(std::string name, Layout lay, char ka, char kb, bool cfirst, char op, bool matrix,
                  bool trans, std::string order, Fn fn) {
    return {std::move(name), lay,   ka, kb, cfirst, op, matrix, trans, std::move(order),
            [fn](Args<T>& g) { return invoke<T>(fn, g); }};
}

// Check orders of the frames: pointers, count, length/sizes, strides,
// stride0 (P), shifts.
inline std::string single_order(Layout l) { return l == Layout::S ? "pls" : "plh"; }
inline std::string array_order(Layout l) {
    return l == Layout::S ? "pcls" : l == Layout::P ? "pclzh" : "pclsh";
}

// How the operands of a call lie: element strides per role (S, L) and the
// object stride of P tables.
struct Mode {
    bool ca = true, cb = true, cd = true;
    bool soa = false;
    bool packed = false;  // S, L: rows and objects back to back, no gaps
    std::string str() const {
        return std::string(ca ? "c" : "s") + (cb ? "c" : "s") + (cd ? "c" : "s") + (soa ? "/soa" : "") +
               (packed ? "/packed" : "");
    }
};
inline std::vector<Mode> modes(Layout l) {
    if (l == Layout::P) return {Mode{true, true, true, false}, Mode{true, true, true, true}};
    return {Mode{}, Mode{false, false, false}, Mode{true, true, false}, Mode{false, true, true}};
}
// The storage that the fast paths take: planes of one element stride in
// layout P, packed contiguous arrays in layout S (none in layout L).
inline std::vector<Mode> fast_modes(Layout l) {
    if (l == Layout::P) return {Mode{true, true, true, true}};
    if (l == Layout::S) return {Mode{true, true, true, false, true}};
    return {};
}

// Operands of one call, filled with awkward values.
template <class T> struct Trial {
    const Case<T>& cs;
    int w, h, count;
    std::unique_ptr<Operand<T>> a, b, d;
    Args<T> args;

    Trial(const Case<T>& c, Mode m, int w_, int h_, int count_, unsigned seed)
        : cs(c), w(w_), h(h_), count(count_) {
        auto make = [&](char kind, int rows, int cols, bool contig, unsigned s) {
            Shape sh;
            sh.rows = rows;
            sh.cols = cols;
            sh.array = kind == 'A';
            sh.count = kind == 'A' ? count : 1;
            sh.contiguous = contig;
            sh.soa = m.soa && kind == 'A';
            if (m.packed) sh.row_gap = sh.obj_gap = 0;
            // A single operand of an L call is passed as in layout S.
            const Layout l = (kind == 'O' && cs.lay == Layout::L) ? Layout::S : cs.lay;
            return std::make_unique<Operand<T>>(l, sh, s);
        };
        const int rows = cs.matrix ? h : 1;
        const int srows = cs.trans ? w : rows, scols = cs.trans ? rows : w;
        a = make(cs.ka, srows, scols, m.ca, seed);
        if (cs.kb != '-') b = make(cs.kb, rows, w, m.cb, seed + 1);
        d = make(cs.array() ? 'A' : 'O', rows, w, m.cd, seed + 2);
        Values<T> vals(seed + 3);
        a->fill([&](int, int, int) { return vals(); });
        if (b) b->fill([&](int, int, int) { return vals(); });
        d->fill([&](int, int, int) { return vals(); });
        args.lay = cs.lay;
        args.matrix = cs.matrix;
        args.a = grp(*a);
        if (b) args.b = grp(*b);
        args.d = grp(*d);
        args.value = vals();
        args.w = w;
        args.h = h;
        args.count = count;
        snapshot();
    }
    void snapshot() {
        a->snapshot();
        if (b) b->snapshot();
        d->snapshot();
    }
    OrsStatus call() { return cs.call(args); }
    bool all_unchanged() const { return a->unchanged() && (!b || b->unchanged()) && d->unchanged(); }

    // Logical element (r, c) of each operand of object n.
    T src_a(int n, int r, int c) const {
        return cs.trans ? a->at(cs.ka == 'A' ? n : 0, c, r) : a->at(cs.ka == 'A' ? n : 0, r, c);
    }
    T src_b(int n, int r, int c) const { return b->at(cs.kb == 'A' ? n : 0, r, c); }
    static T apply(char op, T x, T y) { return op == '+' ? x + y : op == '-' ? x - y : x * y; }

    // Every element of the first `upto` objects of dst is the reference
    // result; nothing else in any arena changed.
    testing::AssertionResult check(int upto) const {
        const int rows = cs.matrix ? h : 1;
        for (int n = 0; n < upto; ++n)
            for (int r = 0; r < rows; ++r)
                for (int c = 0; c < w; ++c) {
                    const T x = cs.cfirst ? args.value : src_a(n, r, c);
                    const T y = cs.cfirst ? src_a(n, r, c) : cs.kb == '-' ? args.value : src_b(n, r, c);
                    const T want = apply(cs.op, x, y), got = d->at(n, r, c);
                    // With two NaN operands IEEE leaves open whose payload survives.
                    const bool ok = bits(want) == bits(got) ||
                                    (std::isnan(x) && std::isnan(y) && std::isnan(got));
                    if (!ok)
                        return testing::AssertionFailure()
                               << "element (" << n << ", " << r << ", " << c << "): " << x << " "
                               << cs.op << " " << y << " gave " << got << ", want " << want;
                }
        if (!d->only_elements_changed(upto)) return testing::AssertionFailure() << "dst bytes outside the written objects changed";
        if (!a->unchanged() || (b && !b->unchanged()))
            return testing::AssertionFailure() << "a source changed";
        return testing::AssertionSuccess();
    }
};

inline std::string where(int w, int h, int count, const Mode& m) {
    return "w=" + std::to_string(w) + " h=" + std::to_string(h) + " count=" + std::to_string(count) +
           " mode=" + m.str();
}

// Vector lengths 1 to 8 (3 to 6 have unrolled paths) and a long one, past
// the vectorised loops' thresholds.
inline std::vector<std::pair<int, int>> vector_sizes() {
    std::vector<std::pair<int, int>> sizes;
    for (int l = 1; l <= 8; ++l) sizes.push_back({l, 1});
    sizes.push_back({41, 1});
    return sizes;
}

// Counts for the fast paths: below their threshold, and a tail after whole
// runs of every vector width; sizes with runs of one element per object and
// periods that do not divide the vector width.
inline std::vector<int> fast_counts() { return {1, 7, 17, 1000}; }
inline std::vector<std::pair<int, int>> fast_vector_sizes() { return {{1, 1}, {3, 1}, {4, 1}, {7, 1}, {16, 1}, {41, 1}}; }
inline std::vector<std::pair<int, int>> fast_matrix_sizes() {
    return {{3, 3}, {4, 4}, {5, 5}, {6, 6}, {2, 3}, {7, 5}};
}

// Runs every case over its modes, the given sizes and counts, and checks
// each result bit for bit.
template <class T>
void check_results(const std::vector<Case<T>>& cases, const std::vector<std::pair<int, int>>& sizes,
                   const std::vector<int>& counts, std::vector<Mode> (*mode_list)(Layout) = modes) {
    unsigned seed = 11;
    for (const auto& cs : cases)
        for (const Mode& m : mode_list(cs.lay))
            for (auto [w, h] : sizes)
                for (int count : cs.array() ? counts : std::vector<int>{1}) {
                    Trial<T> s(cs, m, w, h, count, seed++);
                    const OrsStatus st = s.call();
                    EXPECT_EQ(st, StatusOk) << cs.name << " " << where(w, h, count, m);
                    EXPECT_TRUE(s.check(count)) << cs.name << " " << where(w, h, count, m);
                }
}

// ---- argument faults ------------------------------------------------------------

inline OrsStatus status_of(char fault) {
    switch (fault) {
        case 'p': return StatusNullPointer;
        case 'c': return StatusBadCount;
        case 'l': return StatusBadSize;
        case 's':
        case 'z': return StatusBadStride;
        default: return StatusBadRoiShift;
    }
}
template <class T> void inject(Args<T>& g, char fault) {
    switch (fault) {
        case 'p': g.d.ptr = nullptr; g.d.tbl = nullptr; break;
        case 'c': g.count = 0; break;
        case 'l': g.w = 0; break;
        case 's': g.d.s2 = int(sizeof(T)) + 2; break;
        case 'z': g.d.s0 = -int(sizeof(T)); break;
        default: g.d.shift = 2; break;
    }
}

// Each fault alone gives its status, and of any two faults the one checked
// first answers; dst and the sources stay untouched.
template <class T> void check_order(const std::vector<Case<T>>& cases, int w, int h) {
    for (const auto& cs : cases) {
        const std::string& o = cs.order;
        for (std::size_t i = 0; i < o.size(); ++i)
            for (std::size_t j = i; j < o.size(); ++j) {
                Trial<T> s(cs, Mode{}, w, h, 3, 5);
                inject(s.args, o[i]);
                inject(s.args, o[j]);
                EXPECT_EQ(s.call(), status_of(o[i]))
                    << cs.name << " faults " << o[i] << " and " << o[j];
                EXPECT_TRUE(s.all_unchanged()) << cs.name << " faults " << o[i] << o[j];
            }
    }
}

// Every pointer, stride and shift argument is looked at: one bad value in
// any group fails the call with that group's status.
template <class T> void check_each_argument(const std::vector<Case<T>>& cases, int w, int h) {
    for (const auto& cs : cases) {
        const Layout l = cs.lay;
        auto run = [&](const char* what, OrsStatus want, auto edit) {
            Trial<T> s(cs, Mode{}, w, h, 2, 9);
            edit(s.args);
            EXPECT_EQ(s.call(), want) << cs.name << " " << what;
            EXPECT_TRUE(s.all_unchanged()) << cs.name << " " << what;
        };
        struct Role {
            char kind;
            Grp<T> Args<T>::*g;
            const char* name;
        };
        const Role roles[] = {{cs.ka, &Args<T>::a, "src1"},
                              {cs.kb, &Args<T>::b, "src2"},
                              {cs.array() ? 'A' : 'O', &Args<T>::d, "dst"}};
        for (const Role& r : roles) {
            if (r.kind == '-') continue;
            const bool arr = r.kind == 'A';
            const bool s_style = l == Layout::S || (l == Layout::L && !arr);
            run(r.name, StatusNullPointer, [&](Args<T>& g) {
                (g.*r.g).ptr = nullptr;
                (g.*r.g).tbl = nullptr;
            });
            const int bad[] = {0, -int(sizeof(T)), int(sizeof(T)) / 2};
            for (int v : bad) {
                if (s_style || l == Layout::L) run(r.name, StatusBadStride, [&](Args<T>& g) { (g.*r.g).s2 = v; });
                if ((s_style || l == Layout::L) && cs.matrix)
                    run(r.name, StatusBadStride, [&](Args<T>& g) { (g.*r.g).s1 = v; });
                if (arr && l != Layout::L)
                    run(r.name, StatusBadStride, [&](Args<T>& g) { (g.*r.g).s0 = v; });
            }
            if (l == Layout::P || (l == Layout::L && arr)) {
                run(r.name, StatusBadRoiShift, [&](Args<T>& g) { (g.*r.g).shift = -int(sizeof(T)); });
                run(r.name, StatusBadRoiShift, [&](Args<T>& g) { (g.*r.g).shift = 2; });
            }
        }
    }
}

// ---- serial / parallel boundary ---------------------------------------------------

// Runs the call at a work estimate W equal to the limit and one object past
// it, inside a serialized two-thread region with a thread count of 2: a call
// that stays serial writes all objects, one that goes parallel writes only
// member 0's share.
template <class T>
void check_boundary(const Case<T>& cs, Mode m, int w, int h, int count_at, int count_past) {
    ThreadCount tc(2);
    for (int count : {count_at, count_past}) {
        Trial<T> s(cs, m, w, h, count, 21);
        OrsStatus st = StatusBadSize;
        in_serialized_region([&] { st = s.call(); });
        const int upto = count == count_at ? count : first_share(count, 2);
        EXPECT_EQ(st, StatusOk) << cs.name << " " << where(w, h, count, m);
        EXPECT_TRUE(s.check(upto)) << cs.name << " " << where(w, h, count, m)
                                   << (count == count_at ? " (at the limit: serial)" : " (past it: parallel)");
    }
}

// Results with 1 and with 2 threads, far above any limit, are the reference
// results.
template <class T> void check_threads(const std::vector<Case<T>>& cases, int w, int h, int count) {
    for (int threads : {1, 2}) {
        ThreadCount tc(threads);
        for (const auto& cs : cases) {
            if (!cs.array()) continue;
            for (const Mode& m : modes(cs.lay)) {
                Trial<T> s(cs, m, w, h, count, 31);
                EXPECT_EQ(s.call(), StatusOk) << cs.name;
                EXPECT_TRUE(s.check(count)) << cs.name << " threads=" << threads << " " << m.str();
            }
        }
    }
}

}  // namespace orsmtest
