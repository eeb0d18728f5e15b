// The reference of the matrix-vector Mul and Gaxpy tests: the addition trees
// of each kernel, operands laid out for a call of any form and layout, data
// that tells the trees apart, and the checks both families share (bits by
// tree, the order paths, the checks in their order, limits, threads).
#pragma once

#include "calls.hpp"

using namespace orsmtest;

namespace {

// ---- the reference --------------------------------------------------------

enum class Tree { A, B, C, D };

// Sum of the products p of one row by a tree of the unrolled paths.
template <class T> T tree_sum(Tree t, const std::vector<T>& p, int row) {
    const int N = int(p.size());
    if (N == 3 || t == Tree::A) {
        T s = p[0];
        for (int k = 1; k < N; ++k) s = s + p[k];
        return s;
    }
    if (N == 4) return t == Tree::C ? (p[0] + p[2]) + (p[1] + p[3]) : (p[0] + p[1]) + (p[2] + p[3]);
    if (N == 5) {
        if (t == Tree::B) return ((p[0] + p[1]) + (p[2] + p[3])) + p[4];
        if (t == Tree::C && row == 4) return ((p[0] + p[2]) + p[4]) + (p[1] + p[3]);
        return ((p[0] + p[1]) + p[4]) + (p[2] + p[3]);
    }
    if (t == Tree::C) return ((p[0] + p[2]) + p[4]) + ((p[1] + p[3]) + p[5]);
    return ((p[0] + p[1]) + (p[2] + p[3])) + (p[4] + p[5]);
}
// Whether two trees are the same formula for a row of order N.
bool same_formula(Tree a, Tree b, int N, int row) {
    if (a == b || N == 3) return true;
    auto bd = [](Tree t) { return t == Tree::B || t == Tree::D; };
    if ((N == 4 || N == 6) && bd(a) && bd(b)) return true;
    auto cd = [](Tree t) { return t == Tree::C || t == Tree::D; };
    return N == 5 && row < 4 && cd(a) && cd(b);
}
bool unrolled(int M, int K) { return M == K && M >= 3 && M <= 6; }
// The general loop: ascending from +0 (`reverse` only to prove sensitivity).
template <class T> T plain_sum(const std::vector<T>& p, bool reverse = false) {
    T s = T(0);
    for (std::size_t k = 0; k < p.size(); ++k) s = s + p[reverse ? p.size() - 1 - k : k];
    return s;
}

// The tree of each Mul kernel: strided (_S2, _LS2) and pointer kernels sum
// by tree A; the contiguous ones as tabled, by form and type.
[[maybe_unused]] Tree mul_tree(const std::string& stem, bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return Tree::A;
    using enum Tree;
    static const char* forms[] = {"mv", "tv", "mav", "tav", "mva", "tva", "mava", "tava"};
    static const Tree S[8][2] = {{A, B}, {A, A}, {C, B}, {D, A}, {C, B}, {A, A}, {C, B}, {D, A}};
    static const Tree L[8][2] = {{A, A}, {A, A}, {C, B}, {D, B}, {A, B}, {A, A}, {C, B}, {D, A}};
    int f = 0;
    while (stem.substr(4) != forms[f]) ++f;
    return (l == Layout::S ? S : L)[f][is64];
}
// ---- one call --------------------------------------------------------------

// A call of Mul_<form> (mv tv mav tav mva tva mava tava) or Gaxpy_<form> (mv
// mva): src1 the matrix, src2 the vector, src3 the added vector of Gaxpy.
template <class T> struct MvCall {
    std::string stem;
    Layout lay;
    int M, K, count;
    bool gaxpy, t, ma, va;
    Call<T> c;
    Operand<T>* op[4] = {};  // src1, src2, dst, src3

    // strided: bit j makes operand j (src1, src2, dst, src3) strided in S
    // and L; soa: P tables with objects one element apart.
    MvCall(const std::string& stem_, Layout l, int M_, int K_, int count_, unsigned strided = 0,
           bool soa = false, bool packed = false)
        : stem(stem_), lay(l), M(M_), K(K_), count(count_), gaxpy(stem_[0] == 'G'),
          t(stem_[stem_.find('_') + 1] == 't'),
          c(stem_, l) {
        const auto cd = codes(stem.substr(stem.find('_') + 1));
        ma = is_array_code(cd[0]);
        va = is_array_code(cd[1]);
        auto make = [&](const char* role, bool arr, int rows, int cols, int bit) {
            Shape sh{rows, cols, count, arr, !(strided >> bit & 1), soa};
            if (packed) sh.row_gap = sh.obj_gap = 0;
            op[bit] = &c.bind(role, arr, sh, 1 + unsigned(bit));
        };
        make("src1", ma, t ? K : M, t ? M : K, 0);
        make("src2", va, 1, K, 1);
        make("dst", ma || va, 1, M, 2);
        if (gaxpy) make("src3", va, 1, M, 3), c.arg("src3Length") = M;
        c.arg("src1Width") = t ? M : K;
        c.arg("src1Height") = t ? K : M;
        c.arg("src2Length") = K;
        if (array()) c.arg("count") = count;
    }
    bool array() const { return ma || va; }
    Operand<T>& a() const { return *op[0]; }
    Operand<T>& x() const { return *op[1]; }
    Operand<T>& d() const { return *op[2]; }
    T opa(int n, int i, int k) const { return t ? a().at(ma ? n : 0, k, i) : a().at(ma ? n : 0, i, k); }
    T vx(int n, int k) const { return x().at(va ? n : 0, 0, k); }
    T yv(int n, int i) const { return op[3]->at(va ? n : 0, 0, i); }
    std::vector<T> products(int n, int i) const {
        std::vector<T> p(K);
        for (int k = 0; k < K; ++k) p[k] = opa(n, i, k) * vx(n, k);
        return p;
    }
    // Element (n, i) for a kernel summing by tree tr; Gaxpy adds src3 last,
    // in its own rounded addition.
    T expected(Tree tr, int n, int i) const {
        const auto p = products(n, i);
        const T s = unrolled(M, K) ? tree_sum(tr, p, i) : plain_sum(p);
        return gaxpy ? T(s + yv(n, i)) : s;
    }
    OrsStatus run() const { return c.run(); }
};

// Values over a wide range, with a near cancellation in odd rows, so that
// the bits of a sum depend on its order.
template <class T> void fill_sensitive(MvCall<T>& c, unsigned seed) {
    Values<T> v(seed);
    for (const char* r : {"src1", "src2", "src3", "dst"})
        if (c.c.has(r)) c.c.op(r).fill([&](int, int, int) { return v.wide(); });
    if (c.K < 2) return;
    for (int n = 0; n < (c.ma ? c.count : 1); ++n)
        for (int i = 1; i < c.M; i += 2) {
            T& last = c.t ? c.a().at(n, c.K - 1, i) : c.a().at(n, i, c.K - 1);
            last = -(c.opa(n, i, 0) * c.vx(n, 0)) / c.vx(n, c.K - 1);
        }
}

// True when the data tells tree t from every other tree, the general loop
// from a reversed one, and src3 added last from src3 added first, on at
// least one element each.
template <class T> bool sensitive(const MvCall<T>& c, Tree t) {
    const int N = c.M;
    if (c.gaxpy && c.K > 1) {
        bool told = false;
        for (int n = 0; n < c.count && !told; ++n)
            for (int i = 0; i < c.M && !told; ++i) {
                T f = c.yv(n, i);
                for (T v : c.products(n, i)) f = f + v;
                told = bits(f) != bits(c.expected(t, n, i));
            }
        if (!told) return false;
    }
    if (!unrolled(c.M, c.K)) {
        if (c.K < 3) return true;
        for (int n = 0; n < c.count; ++n)
            for (int i = 0; i < c.M; ++i) {
                const auto p = c.products(n, i);
                if (bits(plain_sum(p)) != bits(plain_sum(p, true))) return true;
            }
        return false;
    }
    for (Tree o : {Tree::A, Tree::B, Tree::C, Tree::D}) {
        bool distinct = false, told = false;
        for (int i = 0; i < N; ++i) {
            if (same_formula(o, t, N, i)) continue;
            distinct = true;
            for (int n = 0; n < c.count && !told; ++n) {
                const auto p = c.products(n, i);
                told = bits(tree_sum(o, p, i)) != bits(tree_sum(t, p, i));
            }
        }
        if (distinct && !told) return false;
    }
    return true;
}
template <class T> void fill_telling(MvCall<T>& c, Tree t, unsigned seed) {
    const unsigned last = seed + 300;
    do fill_sensitive(c, seed++);
    while (!sensitive(c, t) && seed < last);
    ASSERT_TRUE(sensitive(c, t)) << "no data found that tells the orders apart";
}

// Objects [0, upto) of dst against the reference; returns mismatches.
template <class T> int mismatches(const MvCall<T>& c, Tree t, int upto) {
    int bad = 0;
    for (int n = 0; n < upto; ++n)
        for (int i = 0; i < c.M; ++i)
            if (bits(c.d().at(n, 0, i)) != bits(c.expected(t, n, i)) && bad++ < 3)
                ADD_FAILURE() << "object " << n << " row " << i << ": got " << c.d().at(n, 0, i)
                              << " want " << c.expected(t, n, i);
    return bad;
}

// One call on data that tells the trees apart: every object of dst matches
// the reference, the sources are untouched and nothing outside dst's
// elements changed.
template <class T> void expect_exact_call(MvCall<T>& c, Tree t, unsigned seed, int count) {
    fill_telling(c, t, seed);
    c.c.snapshot();
    ASSERT_EQ(c.run(), StatusOk);
    EXPECT_EQ(mismatches(c, t, count), 0);
    EXPECT_TRUE(c.a().unchanged() && c.x().unchanged());
    EXPECT_TRUE(c.d().only_elements_changed());
}

// ---- the checks both families share ----------------------------------------

// What tells the families apart: the tree of each kernel, the work estimate
// and the limit (serial below it).
struct Family {
    Tree (*tree)(const std::string& stem, bool is64, Layout l, bool contiguous);
    int (*work)(const std::string& stem, int M, int K, int count);
    int (*limit)(bool is64, Layout l, bool contiguous);
};

struct Combo {
    std::string stem;
    Layout lay;
};
inline std::vector<Combo> combos(const std::vector<const char*>& stems, bool arrays_only = false) {
    std::vector<Combo> v;
    for (const char* s : stems) {
        const auto cd = codes(std::string(s).substr(std::string(s).find('_') + 1));
        const bool arr = is_array_code(cd[0]) || is_array_code(cd[1]);
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if ((arr || !arrays_only) && (arr || l != Layout::L)) v.push_back({s, l});
    }
    return v;
}
inline std::string combo_name(const testing::TestParamInfo<Combo>& i) {
    return i.param.stem + "_" + name(i.param.lay);
}

// Strided variants: none, all operands, and each operand alone (one gap
// sends the whole call to the strided kernel). P: plain and SoA tables.
struct Variant {
    unsigned strided;
    bool soa;
    bool packed = false;  // S: no gaps between rows and objects
};
inline std::vector<Variant> variants(Layout l, bool gaxpy) {
    if (l == Layout::P) return {{0, false}, {0, true}};
    std::vector<Variant> v{{0, false}, {gaxpy ? 15u : 7u, false}, {1, false}, {2, false}, {4, false}};
    if (gaxpy) v.push_back({8, false});
    if (l == Layout::S) v.push_back({0, false, true});
    return v;
}
inline const std::vector<std::pair<int, int>> kShapes = {
    {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8},
    {3, 4}, {4, 3}, {2, 5}, {6, 5}, {5, 6}, {1, 7}, {8, 3}, {4, 6}};

#define MV_TRACE(c, extra)                                                                      \
    SCOPED_TRACE(testing::Message() << c.c.name() << " M " << c.M << " K " << c.K << " count " \
                                    << c.count << extra)

template <class T> void check_bits(const Family& fam, const Combo& cb) {
    const bool gx = cb.stem[0] == 'G';
    for (const Variant& var : variants(cb.lay, gx))
        for (auto [M, K] : kShapes)
            for (int count : {1, 6}) {
                MvCall<T> c(cb.stem, cb.lay, M, K, count, var.strided, var.soa, var.packed);
                if (!c.array() && count > 1) continue;
                const Tree t = fam.tree(cb.stem, sizeof(T) == 8, cb.lay, var.strided == 0);
                MV_TRACE(c, " strided " << var.strided << " soa " << var.soa << " tree " << "ABCD"[int(t)]);
                expect_exact_call(c, t, 11, count);
            }
}

// Products that are all -0 (and src3 of -0): an unrolled path starts from
// the first product and keeps -0, the general loop starts from +0. So the
// sign tells, for every kernel, that exactly the square orders 3 to 6 have
// paths.
template <class T> void check_paths(const Combo& cb) {
    for (const Variant& var : variants(cb.lay, cb.stem[0] == 'G'))
        for (auto [M, K] : kShapes) {
            MvCall<T> c(cb.stem, cb.lay, M, K, 3, var.strided, var.soa, var.packed);
            c.a().fill([](int, int, int) { return -T(0); });
            c.x().fill([](int n, int, int k) { return T(n + k + 1); });
            if (c.gaxpy) c.c.op("src3").fill([](int, int, int) { return -T(0); });
            ASSERT_EQ(c.run(), StatusOk);
            for (int n = 0; n < (c.array() ? 3 : 1); ++n)
                for (int i = 0; i < M; ++i)
                    EXPECT_EQ(std::signbit(c.d().at(n, 0, i)), unrolled(M, K)) << c.c.name() << " " << M << " " << K;
        }
}

// Every argument looked at; the checks in their order, with faults behind
// each that later checks would find (all strides and shifts bad); nothing
// written after a failure.
template <class T> void check_status(const Combo& cb) {
    MvCall<T> c(cb.stem, cb.lay, 4, 3, 2, cb.lay == Layout::P ? 0 : 1);
    Values<T> v(3);
    for (const char* r : {"src1", "src2", "src3"})
        if (c.c.has(r)) c.c.op(r).fill([&](int, int, int) { return v(); });
    check_every_argument(c.c);
    const std::string bad_stride = std::to_string(sizeof(T) + 2);
    std::string later, bad_shifts;
    for (const auto& p : c.c.params())
        if (ends_with(p, "RoiShift")) bad_shifts += " " + p + "=2";
        else if (p.find("Stride") != std::string::npos) later += " " + p + "=0";
    later += bad_shifts;
    // The inner size is the stored width for m forms, the height for t
    // forms; Mul takes the outer size as it comes, Gaxpy matches it to
    // src3Length.
    const std::string inner = c.t ? "src1Height" : "src1Width", outer = c.t ? "src1Width" : "src1Height";
    std::vector<std::pair<std::string, OrsStatus>> cases = {
        {"src2Length=-3 src1Width=9", StatusBadSize},
        {"src2Length=4" + later, StatusSizeMismatch},
        {inner + "=5", StatusSizeMismatch},
        {outer + "=2", c.gaxpy ? StatusSizeMismatch : StatusOk}};
    if (c.gaxpy) cases.push_back({"src3Length=3" + later, StatusSizeMismatch});
    if (c.array()) cases.push_back({"count=0 src1Height=0" + later, StatusBadCount});
    for (const auto& p : c.c.params()) {
        if (c.c.is_pointer(p)) cases.push_back({p + "=0 count=0 src2Length=0" + later, StatusNullPointer});
        if (is_size_param(p)) cases.push_back({p + "=0" + later, StatusBadSize});
        if (p.find("Stride") != std::string::npos) cases.push_back({p + "=" + bad_stride + bad_shifts, StatusBadStride});
    }
    const gen::Bag good = c.c.bag();
    for (const auto& [edits, want] : cases) {
        c.c.snapshot();
        EXPECT_EQ(c.c.set(edits).run(), want) << c.c.name() << " " << edits;
        if (want != StatusOk) {
            EXPECT_TRUE(c.c.unchanged()) << c.c.name() << " " << edits;
        }
        c.c.bag() = good;
    }
}

// W on the serial side of the limit runs serially (all objects written even
// in a serialized region); W on the other side takes the parallel form,
// which there writes member 0's share only.
template <class T> void check_limits(const Family& fam, const Combo& cb) {
    for (const Variant& var : variants(cb.lay, cb.stem[0] == 'G')) {
        const bool contiguous = var.strided == 0;
        const int lim = fam.limit(sizeof(T) == 8, cb.lay, contiguous);
        auto work = [&](int M, int K, int n) { return fam.work(cb.stem, M, K, n); };
        for (bool parallel : {false, true}) {
            const auto g = parallel ? geometry(work, lim, 1, true) : geometry(work, lim - 1, -1, true);
            MvCall<T> c(cb.stem, cb.lay, g[0], g[1], g[2], var.strided, var.soa, var.packed);
            MV_TRACE(c, " W " << g[3] << " strided " << var.strided);
            fill_sensitive(c, 5);
            c.c.snapshot();
            OrsStatus st = StatusBadSize;
            serialized([&] { st = c.run(); });
            ASSERT_EQ(st, StatusOk);
            const int upto = parallel ? first_share(g[2], 2) : g[2];
            EXPECT_EQ(mismatches(c, fam.tree(cb.stem, sizeof(T) == 8, cb.lay, contiguous), upto), 0);
            EXPECT_TRUE(c.d().only_elements_changed(upto));
        }
    }
}

// Far above the limit (twice the work), one and two threads give the bits
// of the reference.
template <class T> void check_threads(const Family& fam, const Combo& cb) {
    for (const Variant& var : variants(cb.lay, cb.stem[0] == 'G'))
        for (int N : {2, 3, 4, 5, 6, 7}) {
            const int lim = fam.limit(sizeof(T) == 8, cb.lay, var.strided == 0);
            int count = 2;
            while (fam.work(cb.stem, N, N, count) < 2 * lim) ++count;
            MvCall<T> c(cb.stem, cb.lay, N, N, count, var.strided, var.soa, var.packed);
            for (int threads : {1, 2}) {
                fill_sensitive(c, 9 + threads);
                ThreadCount tc(threads);
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(mismatches(c, fam.tree(cb.stem, sizeof(T) == 8, cb.lay, var.strided == 0), count), 0)
                    << c.c.name() << " order " << N << " threads " << threads;
            }
        }
}

// The tests of a family, over its forms and layouts, in both types.
#define MV_BOTH(check, ...) (check<float>(__VA_ARGS__), check<double>(__VA_ARGS__))
#define MV_FAMILY_TESTS(Suite, fam, stems)                                                                 \
    class Suite : public testing::TestWithParam<Combo> {};                                                \
    class Suite##Array : public testing::TestWithParam<Combo> {};                                         \
    TEST_P(Suite, ExactBitsByKernelTree) { MV_BOTH(check_bits, fam, GetParam()); }                        \
    TEST_P(Suite, OrderPathsSquareThreeToSix) { MV_BOTH(check_paths, GetParam()); }                       \
    TEST_P(Suite, ChecksInOrderDstUntouched) { MV_BOTH(check_status, GetParam()); }                       \
    TEST_P(Suite##Array, LimitBoundary) { MV_BOTH(check_limits, fam, GetParam()); }                       \
    TEST_P(Suite##Array, SameBitsForOneAndTwoThreads) { MV_BOTH(check_threads, fam, GetParam()); }        \
    INSTANTIATE_TEST_SUITE_P(Forms, Suite, testing::ValuesIn(combos(stems)), combo_name);                 \
    INSTANTIATE_TEST_SUITE_P(Forms, Suite##Array, testing::ValuesIn(combos(stems, true)), combo_name)

}  // namespace
