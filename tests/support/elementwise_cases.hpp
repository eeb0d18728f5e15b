// Harness for the element-wise families: Add and Sub on vectors and
// matrices, Mul by a constant. A case is a function stem ("Sub_vav"), a
// layout and the order of its checks; roles, shapes and the operation follow
// from the form. The harness builds guarded operands, calls through the
// generated adapter and compares every result element with a scalar
// reference, bit for bit.
#pragma once

#include "calls.hpp"

namespace orsmtest {

struct Case {
    std::string stem;
    Layout lay;
    std::string order;  // check order: p c l s z(stride0) h(shift)

    std::string form() const { return stem.substr(stem.find('_') + 1); }
    char op() const { return stem[0] == 'A' ? '+' : stem[0] == 'S' ? '-' : '*'; }
    std::vector<std::string> srcs() const {  // operand codes but the constant
        std::vector<std::string> v;
        for (auto& c : codes(form()))
            if (c != "c") v.push_back(c);
        return v;
    }
    bool has_const() const { return srcs().size() == 1; }
    bool cfirst() const { return form()[0] == 'c'; }
    bool matrix() const { return srcs()[0][0] != 'v'; }
    bool array() const {
        for (auto& c : srcs())
            if (is_array_code(c)) return true;
        return false;
    }
    std::string role(int i) const { return has_const() ? "src" : i ? "src2" : "src1"; }
};

// Check orders of the frames: pointers, count, length/sizes, strides,
// stride0 (P), shifts.
inline std::string single_order(Layout l) { return l == Layout::S ? "pls" : "plh"; }
inline std::string array_order(Layout l) {
    return l == Layout::S ? "pcls" : l == Layout::P ? "pclzh" : "pclsh";
}
// Cases of every layout a form exists in (the single forms in S and P).
inline void add_cases(std::vector<Case>& v, const std::string& stem,
                      std::string (*order)(Layout) = nullptr) {
    const Case probe{stem, Layout::S, ""};
    const bool arr = probe.array();
    for (Layout l : {Layout::S, Layout::P, Layout::L})
        if (arr || l != Layout::L)
            v.push_back({stem, l, order ? order(l) : arr ? array_order(l) : single_order(l)});
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
    if (l == Layout::P) return {Mode{}, Mode{true, true, true, true}};
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
    const Case& cs;
    int w, h, count;
    Call<T> c;
    std::vector<std::string> srcs = cs.srcs();
    bool matrix = cs.matrix(), konst = cs.has_const(), cfirst = cs.cfirst();
    char op = cs.op();
    const Operand<T>* src_op[2] = {};
    const Operand<T>* dst = nullptr;

    Trial(const Case& cs_, Mode m, int w_, int h_, int count_, unsigned seed)
        : cs(cs_), w(w_), h(h_), count(count_), c(cs_.stem, cs_.lay) {
        const int rows = matrix ? h : 1;
        Values<T> vals(seed + 3);
        auto make = [&](const std::string& role, bool arr, bool tr, bool contig, unsigned s) {
            Shape sh{tr ? w : rows, tr ? rows : w, count, arr, contig, m.soa};
            if (m.packed) sh.row_gap = sh.obj_gap = 0;
            Operand<T>& o = c.bind(role, arr, sh, s);
            o.fill([&](int, int, int) { return vals(); });
            return &o;
        };
        for (std::size_t i = 0; i < srcs.size(); ++i)
            src_op[i] = make(cs.role(int(i)), is_array_code(srcs[i]), srcs[i][0] == 't', i ? m.cb : m.ca,
                             seed + unsigned(i));
        dst = make("dst", cs.array(), false, m.cd, seed + 2);
        if (konst) c.set_value("value", vals());
        c.arg(matrix ? "width" : "length") = w;
        if (matrix) c.arg("height") = h;
        if (cs.array()) c.arg("count") = count;
        c.snapshot();
    }
    OrsStatus call() { return c.run(); }

    // Logical element (r, k) of source i for object n.
    T src(int i, int n, int r, int k) const {
        const int obj = is_array_code(srcs[i]) ? n : 0;
        return srcs[i][0] == 't' ? src_op[i]->at(obj, k, r) : src_op[i]->at(obj, r, k);
    }

    // Every element of the first `upto` objects of dst is the reference
    // result; nothing else in any arena changed.
    testing::AssertionResult check(int upto) const {
        const T value = konst ? c.value("value") : T(0);
        for (int n = 0; n < upto; ++n)
            for (int r = 0; r < (matrix ? h : 1); ++r)
                for (int k = 0; k < w; ++k) {
                    T x = src(0, n, r, k), y = konst ? value : src(1, n, r, k);
                    if (cfirst) std::swap(x, y);
                    const T want = op == '+' ? x + y : op == '-' ? x - y : x * y;
                    const T got = dst->at(n, r, k);
                    // With two NaN operands IEEE leaves open whose payload survives.
                    if (bits(want) != bits(got) && !(std::isnan(x) && std::isnan(y) && std::isnan(got)))
                        return testing::AssertionFailure()
                               << "element (" << n << ", " << r << ", " << k << "): " << x << " " << op
                               << " " << y << " gave " << got << ", want " << want;
                }
        if (!dst->only_elements_changed(upto))
            return testing::AssertionFailure() << "dst bytes outside the written objects changed";
        for (std::size_t i = 0; i < srcs.size(); ++i)
            if (!src_op[i]->unchanged()) return testing::AssertionFailure() << "a source changed";
        return testing::AssertionSuccess();
    }
};

inline std::string where(const Case& cs, int w, int h, int count, const Mode& m) {
    return cs.stem + " " + name(cs.lay) + " w=" + std::to_string(w) + " h=" + std::to_string(h) +
           " count=" + std::to_string(count) + " mode=" + m.str();
}

// Vector lengths 1 to 8 (3 to 6 have unrolled paths) and a long one, past
// the vectorised loops' thresholds.
inline std::vector<std::pair<int, int>> vector_sizes() {
    std::vector<std::pair<int, int>> sizes;
    for (int l = 1; l <= 8; ++l) sizes.push_back({l, 1});
    sizes.push_back({41, 1});
    return sizes;
}
// Square orders 1 to 8 and rectangles whose sides have paths but which take
// the general loop.
inline std::vector<std::pair<int, int>> matrix_sizes() {
    std::vector<std::pair<int, int>> sizes;
    for (int n = 1; n <= 8; ++n) sizes.push_back({n, n});
    for (auto wh : {std::pair{3, 4}, {4, 3}, {2, 5}, {5, 6}, {6, 5}, {7, 3}}) sizes.push_back(wh);
    return sizes;
}

// Counts for the fast paths: below their threshold, and a tail after whole
// runs of every vector width; sizes with runs of one element per object and
// periods that do not divide the vector width.
inline std::vector<int> fast_counts() { return {1, 7, 17, 1000}; }
inline std::vector<std::pair<int, int>> fast_sizes(bool matrix) {
    if (matrix) return {{3, 3}, {4, 4}, {5, 5}, {6, 6}, {2, 3}, {7, 5}};
    return {{1, 1}, {3, 1}, {4, 1}, {7, 1}, {16, 1}, {41, 1}};
}

// Runs every case over its modes, sizes and counts (fast: the storage of
// the fast paths and their counts), and checks each result bit for bit.
template <class T> void check_results(const std::vector<Case>& cases, bool fast = false) {
    unsigned seed = 11;
    for (const auto& cs : cases) {
        const auto sizes = fast ? fast_sizes(cs.matrix()) : cs.matrix() ? matrix_sizes() : vector_sizes();
        const std::vector<int> counts = !cs.array() ? std::vector<int>{1} : fast ? fast_counts() : std::vector<int>{1, 5};
        for (const Mode& m : fast ? fast_modes(cs.lay) : modes(cs.lay))
            for (auto [w, h] : sizes)
                for (int count : counts) {
                    Trial<T> s(cs, m, w, h, count, seed++);
                    EXPECT_EQ(s.call(), StatusOk) << where(cs, w, h, count, m);
                    EXPECT_TRUE(s.check(count)) << where(cs, w, h, count, m);
                }
    }
}

// ---- argument faults ------------------------------------------------------------

// A fault by its letter: the edit and the status it gives.
template <class T> std::pair<std::string, OrsStatus> fault(const Trial<T>& s, char f) {
    switch (f) {
        case 'p': return {"dst=0", StatusNullPointer};
        case 'c': return {"count=0", StatusBadCount};
        case 'l': return {s.matrix ? "height=0" : "length=0", StatusBadSize};
        case 's': return {"dstStride2=" + std::to_string(sizeof(T) + 2), StatusBadStride};
        case 'z': return {"dstStride0=-" + std::to_string(sizeof(T)), StatusBadStride};
        default: return {"dstRoiShift=2", StatusBadRoiShift};
    }
}

// Each fault alone gives its status, and of any two faults the one checked
// first answers; every argument is looked at; nothing is written.
template <class T> void check_faults(const std::vector<Case>& cases) {
    for (const auto& cs : cases) {
        const std::string& o = cs.order;
        for (std::size_t i = 0; i < o.size(); ++i)
            for (std::size_t j = i; j < o.size(); ++j) {
                Trial<T> s(cs, Mode{}, 4, 3, 3, 5);
                const auto [first, want] = fault(s, o[i]);
                EXPECT_EQ(s.c.set(first + " " + fault(s, o[j]).first).run(), want)
                    << cs.stem << name(cs.lay) << " faults " << o[i] << o[j];
                EXPECT_TRUE(s.c.unchanged()) << cs.stem << " faults " << o[i] << o[j];
            }
        Trial<T> s(cs, Mode{}, 3, 4, 2, 9);
        check_every_argument(s.c);
    }
}

// ---- serial / parallel boundary ---------------------------------------------------

// Work estimate and limit of a case in a mode.
template <class T> using LimitOf = Limit (*)(const Case&, const Mode&);
using WorkOf = int (*)(bool two_arrays, int w, int h, int n);

// The largest work estimate a geometry reaches on the serial side of the
// limit, and the smallest on the parallel side, each called inside a
// serialized two-thread region: the serial call writes all objects, the
// parallel one only member 0's share.
template <class T> void check_boundary(const std::vector<Case>& cases, LimitOf<T> limit, WorkOf work) {
    for (const auto& cs : cases) {
        if (!cs.array()) continue;
        for (const Mode& m : modes(cs.lay)) {
            const Limit lim = limit(cs, m);
            const auto s = cs.srcs();
            const bool two = s.size() == 2 && is_array_code(s[0]) && is_array_code(s[1]);
            auto wk = [&](int w, int h, int n) { return work(two, w, h, n); };
            for (int side : {0, 1}) {
                const auto g = side ? geometry(wk, lim.last_serial() + 1, 1, cs.matrix())
                                    : geometry(wk, lim.last_serial(), -1, cs.matrix());
                Trial<T> s(cs, m, g[0], g[1], g[2], 21);
                OrsStatus st = StatusBadSize;
                serialized([&] { st = s.call(); });
                EXPECT_EQ(st, StatusOk) << where(cs, g[0], g[1], g[2], m);
                EXPECT_TRUE(s.check(side ? first_share(g[2], 2) : g[2]))
                    << where(cs, g[0], g[1], g[2], m) << " W=" << g[3] << (side ? " parallel" : " serial");
            }
        }
    }
}

// Results with 1 and with 2 threads, far above any limit, are the reference
// results.
template <class T> void check_threads(const std::vector<Case>& cases, int w, int h, int count) {
    for (int threads : {1, 2}) {
        ThreadCount tc(threads);
        for (const auto& cs : cases) {
            if (!cs.array()) continue;
            for (const Mode& m : modes(cs.lay)) {
                Trial<T> s(cs, m, w, cs.matrix() ? h : 1, count, 31);
                EXPECT_EQ(s.call(), StatusOk) << cs.stem;
                EXPECT_TRUE(s.check(count)) << where(cs, w, h, count, m) << " threads=" << threads;
            }
        }
    }
}

}  // namespace orsmtest

// The tests every element-wise family runs, over float and double: results
// and fast paths bit for bit, faults, and one against two threads on a
// w x h call of `count` objects.
#define ELEMENTWISE_FAMILY_TESTS(Suite, w, h, count)                                            \
    template <class T> class Suite : public ::testing::Test {};                                 \
    using Suite##Types = ::testing::Types<float, double>;                                       \
    TYPED_TEST_SUITE(Suite, Suite##Types);                                                      \
    TYPED_TEST(Suite, ResultsBitExact) { check_results<TypeParam>(cases()); }                   \
    TYPED_TEST(Suite, FastPathsBitExact) { check_results<TypeParam>(cases(), true); }           \
    TYPED_TEST(Suite, Faults) { check_faults<TypeParam>(cases()); }                             \
    TYPED_TEST(Suite, SameResultsWithOneAndTwoThreads) { check_threads<TypeParam>(cases(), w, h, count); }
