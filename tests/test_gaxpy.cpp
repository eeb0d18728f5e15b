// Gaxpy (mv mva) in layouts S, P, L and both element types: exact bits
// against a scalar reference (the matrix-vector sum by the kernel's tree,
// then src3 added last), the order paths, the checks in their order, the
// limit table and the thread-count independence.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>

#include "operand.hpp"

using namespace orsmtest;

namespace {

// ---- the reference --------------------------------------------------------

enum class Tree { A, B, C };

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
        if (row == 4) return ((p[0] + p[2]) + p[4]) + (p[1] + p[3]);
        return ((p[0] + p[1]) + p[4]) + (p[2] + p[3]);
    }
    if (t == Tree::C) return ((p[0] + p[2]) + p[4]) + ((p[1] + p[3]) + p[5]);
    return ((p[0] + p[1]) + (p[2] + p[3])) + (p[4] + p[5]);
}
bool unrolled(int M, int K) { return M == K && M >= 3 && M <= 6; }

// Contiguous kernels (S and L) sum by tree C in 32f and B in 64f; the
// strided and pointer kernels by tree A.
Tree expected_tree(bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return Tree::A;
    return is64 ? Tree::B : Tree::C;
}

// ---- calling the library --------------------------------------------------

enum Fld { A1, A2, ASh, W, H, X0, X2, XSh, Len2, Y0, Y2, YSh, Len3, D0, D2, DSh, Cnt, NF };
struct Args {
    const void* p[4] = {};  // src1, src2, src3, dst
    std::array<int, NF> f{};
    int& operator[](Fld k) { return f[k]; }
    int operator[](Fld k) const { return f[k]; }
};

template <class T> struct Fns;
#define FNS(T, t)                                                                                \
    template <> struct Fns<T> {                                                                  \
        static constexpr auto mvS = orsmGaxpy_mv_##t;                                            \
        static constexpr auto mvP = orsmGaxpy_mv_##t##_P;                                        \
        static constexpr auto mvaS = orsmGaxpy_mva_##t;                                          \
        static constexpr auto mvaP = orsmGaxpy_mva_##t##_P;                                      \
        static constexpr auto mvaL = orsmGaxpy_mva_##t##_L;                                      \
    };
FNS(float, 32f)
FNS(double, 64f)
#undef FNS

template <class T> OrsStatus invoke(bool array, Layout l, const Args& g) {
    using Fn = Fns<T>;
    auto e = [&](int i) { return static_cast<const T*>(g.p[i]); };
    auto t = [&](int i) { return static_cast<const T* const*>(g.p[i]); };
    T* d = const_cast<T*>(e(3));
    auto dt = static_cast<T* const*>(const_cast<void*>(g.p[3]));
    if (!array) {
        if (l == Layout::S)
            return Fn::mvS(e(0), g[A1], g[A2], g[W], g[H], e(1), g[X2], g[Len2], e(2), g[Y2], g[Len3],
                           d, g[D2]);
        return Fn::mvP(t(0), g[ASh], g[W], g[H], t(1), g[XSh], g[Len2], t(2), g[YSh], g[Len3], dt,
                       g[DSh]);
    }
    if (l == Layout::S)
        return Fn::mvaS(e(0), g[A1], g[A2], g[W], g[H], e(1), g[X0], g[X2], g[Len2], e(2), g[Y0],
                        g[Y2], g[Len3], d, g[D0], g[D2], g[Cnt]);
    if (l == Layout::P)
        return Fn::mvaP(t(0), g[ASh], g[W], g[H], t(1), g[XSh], g[X0], g[Len2], t(2), g[YSh], g[Y0],
                        g[Len3], dt, g[DSh], g[D0], g[Cnt]);
    return Fn::mvaL(e(0), g[A1], g[A2], g[W], g[H], t(1), g[XSh], g[X2], g[Len2], t(2), g[YSh],
                    g[Y2], g[Len3], dt, g[DSh], g[D2], g[Cnt]);
}

// One call: matrix (always single), src2, src3 and dst (arrays in mva).
template <class T> struct Call {
    bool array;
    Layout lay;
    int M, K, count;
    std::unique_ptr<Operand<T>> op[4];  // src1, src2, src3, dst

    // strided: bit j makes operand j strided (S and L); soa: P tables.
    Call(bool array_, Layout l, int M_, int K_, int count_, unsigned strided = 0, bool soa = false,
         bool packed = false)
        : array(array_), lay(l), M(M_), K(K_), count(count_) {
        const int rows[4] = {M, 1, 1, 1}, cols[4] = {K, K, M, M};
        for (int j = 0; j < 4; ++j) {
            const bool arr = array && j > 0;
            Shape sh;
            sh.rows = rows[j];
            sh.cols = cols[j];
            sh.count = arr ? count : 1;
            sh.array = arr;
            sh.contiguous = !(strided >> j & 1);
            sh.soa = soa;
            if (packed) sh.row_gap = sh.obj_gap = 0;
            // The matrix of a layout-L call is passed as in layout S.
            op[j] = std::make_unique<Operand<T>>(l == Layout::L && !arr ? Layout::S : l, sh, 1 + j);
        }
    }
    Operand<T>& a() const { return *op[0]; }
    Operand<T>& x() const { return *op[1]; }
    Operand<T>& y() const { return *op[2]; }
    Operand<T>& d() const { return *op[3]; }
    std::vector<T> products(int n, int i) const {
        std::vector<T> p(K);
        for (int k = 0; k < K; ++k) p[k] = a().at(0, i, k) * x().at(array ? n : 0, 0, k);
        return p;
    }
    T yv(int n, int i) const { return y().at(array ? n : 0, 0, i); }
    Args args() const {
        Args g;
        const Fld s0[4] = {NF, X0, Y0, D0}, s1[4] = {A1, NF, NF, NF}, s2[4] = {A2, X2, Y2, D2},
                  sh[4] = {ASh, XSh, YSh, DSh};
        for (int j = 0; j < 4; ++j) {
            Operand<T>& o = *op[j];
            if (o.layout() == Layout::S) g.p[j] = o.ptr();
            else g.p[j] = o.table();
            if (s0[j] != NF) g[s0[j]] = o.s0();
            if (s1[j] != NF) g[s1[j]] = o.s1();
            g[s2[j]] = o.s2();
            g[sh[j]] = o.shift();
        }
        g[W] = K;
        g[H] = M;
        g[Len2] = K;
        g[Len3] = M;
        g[Cnt] = count;
        return g;
    }
    OrsStatus run() const { return invoke<T>(array, lay, args()); }
    void snapshot() const {
        for (auto& o : op) o->snapshot();
    }
    bool sources_unchanged() const { return a().unchanged() && x().unchanged() && y().unchanged(); }
    // The stride and shift arguments of this function.
    void strides_shifts(std::vector<Fld>& strides, std::vector<Fld>& shifts) const {
        if (lay == Layout::P) {
            shifts = {ASh, XSh, YSh, DSh};
            if (array) strides = {X0, Y0, D0};
        } else if (lay == Layout::S) {
            strides = {A1, A2, X2, Y2, D2};
            if (array) strides.insert(strides.end(), {X0, Y0, D0});
        } else {
            strides = {A1, A2, X2, Y2, D2};
            shifts = {XSh, YSh, DSh};
        }
    }
};

template <class T> T expected(const Call<T>& c, Tree t, int n, int i) {
    const auto p = c.products(n, i);
    T s;
    if (unrolled(c.M, c.K)) {
        s = tree_sum(t, p, i);
    } else {
        s = T(0);
        for (T v : p) s = s + v;
    }
    return s + c.yv(n, i);  // src3 last, in its own rounded addition
}

// Wide values with a near cancellation in odd rows (see the Mul tests).
template <class T> void fill_sensitive(Call<T>& c, unsigned seed) {
    Values<T> v(seed);
    for (auto& o : c.op) o->fill([&](int, int, int) { return v.wide(); });
    if (c.K < 2) return;
    for (int i = 1; i < c.M; i += 2)
        c.a().at(0, i, c.K - 1) = -(c.a().at(0, i, 0) * c.x().at(0, 0, 0)) / c.x().at(0, 0, c.K - 1);
}

// The data tells tree t from the other trees, and src3 added last from src3
// added first, on at least one element each.
template <class T> bool sensitive(const Call<T>& c, Tree t) {
    bool first_told = false;
    std::array<bool, 3> told{};
    for (int n = 0; n < c.count; ++n)
        for (int i = 0; i < c.M; ++i) {
            const auto p = c.products(n, i);
            T f = c.yv(n, i);
            for (T v : p) f = f + v;
            first_told |= bits(f) != bits(expected(c, t, n, i));
            if (unrolled(c.M, c.K))
                for (Tree o : {Tree::A, Tree::B, Tree::C})
                    told[int(o)] |= bits(tree_sum(o, p, i)) != bits(tree_sum(t, p, i));
        }
    if (!first_told && c.K > 1) return false;  // with one product the two orders agree
    if (!unrolled(c.M, c.K) || c.M == 3) return true;
    for (Tree o : {Tree::A, Tree::B, Tree::C})
        if (o != t && !told[int(o)]) return false;
    return true;
}

template <class T> int mismatches(const Call<T>& c, Tree t, int upto) {
    int bad = 0;
    for (int n = 0; n < upto; ++n)
        for (int i = 0; i < c.M; ++i)
            if (bits(c.d().at(n, 0, i)) != bits(expected(c, t, n, i)) && bad++ < 3)
                ADD_FAILURE() << "object " << n << " row " << i << ": got " << c.d().at(n, 0, i)
                              << " want " << expected(c, t, n, i);
    return bad;
}

// ---- parameterisation -----------------------------------------------------

struct Combo {
    bool array;
    Layout lay;
};
const Combo kCombos[] = {{false, Layout::S}, {false, Layout::P}, {true, Layout::S},
                         {true, Layout::P},  {true, Layout::L}};
std::string combo_name(const testing::TestParamInfo<Combo>& i) {
    return std::string(i.param.array ? "mva_" : "mv_") + name(i.param.lay);
}
struct Variant {
    unsigned strided;
    bool soa;
    bool packed = false;  // S: no gaps between rows and objects
};
// None strided, all, and each of the four operands alone; P: plain and SoA.
std::vector<Variant> variants(Layout l) {
    if (l == Layout::P) return {{0, false}, {0, true}};
    if (l == Layout::S)
        return {{0, false}, {0, false, true}, {15, false}, {1, false}, {2, false}, {4, false}, {8, false}};
    return {{0, false}, {15, false}, {1, false}, {2, false}, {4, false}, {8, false}};
}
const std::vector<std::pair<int, int>> kShapes = {
    {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8},
    {4, 3}, {3, 4}, {3, 5}, {6, 5}, {5, 6}, {1, 8}, {7, 2}};

class Gaxpy : public testing::TestWithParam<Combo> {};

template <class T> void check_bits(bool array, Layout l) {
    for (const Variant& var : variants(l))
        for (auto [M, K] : kShapes)
            for (int count : array ? std::vector<int>{1, 7} : std::vector<int>{1}) {
                const Tree t = expected_tree(sizeof(T) == 8, l, var.strided == 0);
                SCOPED_TRACE(testing::Message() << sizeof(T) * 8 << "f M " << M << " K " << K
                                                << " count " << count << " strided " << var.strided
                                                << " soa " << var.soa << " tree " << "ABC"[int(t)]);
                Call<T> c(array, l, M, K, count, var.strided, var.soa, var.packed);
                unsigned seed = 21;
                do fill_sensitive(c, seed++);
                while (!sensitive(c, t) && seed < 300);
                ASSERT_TRUE(sensitive(c, t)) << "no data found that tells the orders apart";
                c.snapshot();
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(mismatches(c, t, count), 0);
                EXPECT_TRUE(c.sources_unchanged());
                EXPECT_TRUE(c.d().only_elements_changed());
            }
}

TEST_P(Gaxpy, ExactBitsByKernelTreeSrc3Last) {
    check_bits<float>(GetParam().array, GetParam().lay);
    check_bits<double>(GetParam().array, GetParam().lay);
}

// Products of -0 and src3 of -0: -0 from an unrolled path, +0 from the
// general loop, whose sum starts at +0. Only square orders 3 to 6 have paths.
template <class T> void check_paths(bool array, Layout l) {
    for (const Variant& var : variants(l))
        for (auto [M, K] : kShapes) {
            Call<T> c(array, l, M, K, array ? 3 : 1, var.strided, var.soa, var.packed);
            c.a().fill([](int, int, int) { return -T(0); });
            c.x().fill([](int n, int, int k) { return T(n + k + 1); });
            c.y().fill([](int, int, int) { return -T(0); });
            ASSERT_EQ(c.run(), StatusOk);
            for (int n = 0; n < c.count; ++n)
                for (int i = 0; i < M; ++i)
                    EXPECT_EQ(std::signbit(c.d().at(n, 0, i)), unrolled(M, K))
                        << name(l) << " M " << M << " K " << K;
        }
}

TEST_P(Gaxpy, OrderPathsSquareThreeToSix) {
    check_paths<float>(GetParam().array, GetParam().lay);
    check_paths<double>(GetParam().array, GetParam().lay);
}

template <class T> void check_status(bool array, Layout l) {
    Call<T> c(array, l, 4, 3, array ? 2 : 1, l == Layout::P ? 0 : 2);
    Values<T> v(3);
    for (int j = 0; j < 3; ++j) c.op[j]->fill([&](int, int, int) { return v(); });
    const Args good = c.args();
    std::vector<Fld> strides, shifts;
    c.strides_shifts(strides, shifts);
    const int E = sizeof(T);
    auto expect = [&](OrsStatus want, const std::function<void(Args&)>& edit, const char* what) {
        Args g = good;
        edit(g);
        c.snapshot();
        EXPECT_EQ(invoke<T>(array, l, g), want) << name(l) << " " << what;
        EXPECT_TRUE(c.d().unchanged()) << what;
        EXPECT_TRUE(c.sources_unchanged()) << what;
    };
    auto later = [&](Args& g) {
        if (!shifts.empty()) g[shifts.back()] = -E;
        if (!strides.empty()) g[strides.back()] = 0;
    };
    for (int j = 0; j < 4; ++j)
        expect(StatusNullPointer, [&](Args& g) { g.p[j] = nullptr; g[Cnt] = 0; g[Len3] = 0; }, "null");
    if (array) {
        expect(StatusBadCount, [&](Args& g) { g[Cnt] = 0; g[W] = 0; later(g); }, "count 0, size 0");
        expect(StatusBadCount, [&](Args& g) { g[Cnt] = -2; }, "count -2");
    }
    for (Fld s : {W, H, Len2, Len3}) expect(StatusBadSize, [&](Args& g) { g[s] = 0; later(g); }, "size 0");
    expect(StatusBadSize, [&](Args& g) { g[Len3] = -1; g[Len2] = 9; }, "size -1 before mismatch");
    // src3Length wrong with src2Length right, and the other way round.
    expect(StatusSizeMismatch, [&](Args& g) { g[Len3] = 3; later(g); }, "src3Length");
    expect(StatusSizeMismatch, [&](Args& g) { g[Len2] = 4; later(g); }, "src2Length");
    expect(StatusSizeMismatch, [&](Args& g) { g[W] = 4; }, "width");
    expect(StatusSizeMismatch, [&](Args& g) { g[H] = 3; }, "height");
    for (Fld s : strides)
        for (int bad : {0, -E, E + 2, E / 2})
            expect(StatusBadStride, [&](Args& g) {
                g[s] = bad;
                if (!shifts.empty()) g[shifts.front()] = 2;
            }, "bad stride");
    for (Fld s : shifts)
        for (int bad : {-E, 2, E + 1}) expect(StatusBadRoiShift, [&](Args& g) { g[s] = bad; }, "bad shift");
}

TEST_P(Gaxpy, ChecksInOrderDstUntouched) {
    check_status<float>(GetParam().array, GetParam().lay);
    check_status<double>(GetParam().array, GetParam().lay);
}

INSTANTIATE_TEST_SUITE_P(Forms, Gaxpy, testing::ValuesIn(kCombos), combo_name);

// ---- limits ----------------------------------------------------------------

// Each cell of the limit table, serial below it.
int limit(bool is64, Layout l, bool contiguous) {
    switch (l) {
        case Layout::S: return contiguous ? (is64 ? 5001 : 7001) : 5001;
        case Layout::P: return is64 ? 7001 : 4501;
        default: return contiguous ? (is64 ? 6001 : 7001) : (is64 ? 5001 : 501);
    }
}
int work(int M, int K, int count) { return (K + 2 * M) * count; }
bool shape_for(int W, int& M, int& K, int& count) {
    for (M = 1; M <= 40; ++M)
        for (K = 1; K <= 40; ++K)
            if (W % (K + 2 * M) == 0 && W / (K + 2 * M) >= 2) {
                count = W / (K + 2 * M);
                return true;
            }
    return false;
}

class GaxpyArray : public testing::TestWithParam<Layout> {};

// W one below the limit: serial, every object written even inside a
// serialized region; W at the limit: parallel, member 0's share only.
template <class T> void check_limits(Layout l) {
    for (const Variant& var : variants(l)) {
        const bool contiguous = var.strided == 0;
        const int lim = limit(sizeof(T) == 8, l, contiguous);
        // 7001 is prime: no count of 2 or more reaches it, so its parallel
        // side is shown by the first W above it that a shape reaches.
        for (int W0 : {lim - 1, lim}) {
            int M, K, count, W = W0;
            while (!shape_for(W, M, K, count)) ++W;
            ASSERT_LE(W, lim + 2);
            ASSERT_EQ(work(M, K, count), W);
            SCOPED_TRACE(testing::Message() << name(l) << " " << sizeof(T) * 8 << "f W " << W
                                            << " M " << M << " K " << K << " count " << count
                                            << " strided " << var.strided);
            Call<T> c(true, l, M, K, count, var.strided, var.soa, var.packed);
            fill_sensitive(c, 5);
            c.snapshot();
            OrsStatus st = StatusBadSize;
            {
                ThreadCount tc(2);
                in_serialized_region([&] { st = c.run(); });
            }
            ASSERT_EQ(st, StatusOk);
            const int upto = W < lim ? count : first_share(count, 2);
            EXPECT_EQ(mismatches(c, expected_tree(sizeof(T) == 8, l, contiguous), upto), 0);
            EXPECT_TRUE(c.d().only_elements_changed(upto));
        }
    }
}

TEST_P(GaxpyArray, LimitBoundary) {
    check_limits<float>(GetParam());
    check_limits<double>(GetParam());
}

// The strided 32f layout-L cell: M 3, K 5, count 46 gives W 506 and goes
// parallel with one strided operand; the contiguous call stays serial.
TEST(GaxpyLimits, StridedList32fGoesParallelEarly) {
    for (unsigned strided : {0u, 4u}) {
        Call<float> c(true, Layout::L, 3, 5, 46, strided);
        fill_sensitive(c, 2);
        c.snapshot();
        ThreadCount tc(2);
        in_serialized_region([&] { ASSERT_EQ(c.run(), StatusOk); });
        EXPECT_TRUE(c.d().only_elements_changed(strided ? first_share(46, 2) : 46));
        EXPECT_EQ(mismatches(c, strided ? Tree::A : Tree::C, strided ? 23 : 46), 0);
    }
}

template <class T> void check_threads(Layout l) {
    for (const Variant& var : variants(l))
        for (int N : {3, 4, 5, 6, 2}) {
            const int count = 1201;
            Call<T> c(true, l, N, N, count, var.strided, var.soa, var.packed);
            fill_sensitive(c, 9);
            std::vector<T> one;
            {
                ThreadCount tc(1);
                ASSERT_EQ(c.run(), StatusOk);
            }
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i) one.push_back(c.d().at(n, 0, i));
            c.d().fill([](int, int, int) { return T(0); });
            {
                ThreadCount tc(2);
                ASSERT_EQ(c.run(), StatusOk);
            }
            int diff = 0;
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i) diff += bits(one[std::size_t(n) * N + i]) != bits(c.d().at(n, 0, i));
            EXPECT_EQ(diff, 0) << name(l) << " order " << N;
            EXPECT_EQ(mismatches(c, expected_tree(sizeof(T) == 8, l, var.strided == 0), count), 0);
        }
}

TEST_P(GaxpyArray, SameBitsForOneAndTwoThreads) {
    check_threads<float>(GetParam());
    check_threads<double>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Layouts, GaxpyArray, testing::Values(Layout::S, Layout::P, Layout::L),
                         [](const testing::TestParamInfo<Layout>& i) { return std::string(name(i.param)); });

}  // namespace
