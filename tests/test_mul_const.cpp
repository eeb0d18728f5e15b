// Mul by a constant: vectors, matrices, transposed matrices and their arrays.
// Results bit for bit against a scalar reference, check orders, the limits
// of every layout, type and stride case, and overlap in the long loop.
#include <gtest/gtest.h>

#include "elementwise_cases.hpp"

using namespace orsmtest;

namespace {

#define FN(name, lay) pick<T>(orsm##name##_32f##lay, orsm##name##_64f##lay)

template <class T> std::vector<Case<T>> vector_cases() {
    const Layout S = Layout::S, P = Layout::P, L = Layout::L;
    return {
        make_case<T>("Mul_vc", S, 'O', '-', false, '*', false, false, single_order(S), FN(Mul_vc, )),
        make_case<T>("Mul_vc_P", P, 'O', '-', false, '*', false, false, single_order(P), FN(Mul_vc, _P)),
        make_case<T>("Mul_vac", S, 'A', '-', false, '*', false, false, array_order(S), FN(Mul_vac, )),
        make_case<T>("Mul_vac_P", P, 'A', '-', false, '*', false, false, array_order(P), FN(Mul_vac, _P)),
        make_case<T>("Mul_vac_L", L, 'A', '-', false, '*', false, false, array_order(L), FN(Mul_vac, _L)),
    };
}

template <class T> std::vector<Case<T>> matrix_cases() {
    const Layout S = Layout::S, P = Layout::P, L = Layout::L;
    std::vector<Case<T>> v;
    for (bool t : {false, true}) {
        const std::string s = t ? "Mul_tc" : "Mul_mc", a = t ? "Mul_tac" : "Mul_mac";
        auto one = [&](Layout l, auto fn, std::string n) {
            v.push_back(make_case<T>(n, l, 'O', '-', false, '*', true, t, single_order(l), fn));
        };
        auto arr = [&](Layout l, auto fn, std::string n) {
            v.push_back(make_case<T>(n, l, 'A', '-', false, '*', true, t, array_order(l), fn));
        };
        if (t) {
            one(S, FN(Mul_tc, ), s);
            one(P, FN(Mul_tc, _P), s + "_P");
            arr(S, FN(Mul_tac, ), a);
            arr(P, FN(Mul_tac, _P), a + "_P");
            arr(L, FN(Mul_tac, _L), a + "_L");
        } else {
            one(S, FN(Mul_mc, ), s);
            one(P, FN(Mul_mc, _P), s + "_P");
            arr(S, FN(Mul_mac, ), a);
            arr(P, FN(Mul_mac, _P), a + "_P");
            arr(L, FN(Mul_mac, _L), a + "_L");
        }
    }
    return v;
}

template <class T> class MulConst : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MulConst, Types);

TYPED_TEST(MulConst, VectorResultsBitExact) {
    check_results(vector_cases<TypeParam>(), vector_sizes(), {1, 5});
}

// Square orders 1 to 8 (3 to 6 have paths of their own in most kernels),
// rectangles whose sides have paths but which take the general loop, and a
// large one.
TYPED_TEST(MulConst, MatrixResultsBitExact) {
    std::vector<std::pair<int, int>> sizes;
    for (int n = 1; n <= 8; ++n) sizes.push_back({n, n});
    for (auto wh : {std::pair{3, 4}, {4, 3}, {2, 3}, {5, 6}, {7, 6}}) sizes.push_back(wh);
    check_results(matrix_cases<TypeParam>(), sizes, {1, 4});
}

// Planes of one element stride (P) and packed arrays (S) take the fast paths.
TYPED_TEST(MulConst, FastPathsBitExact) {
    check_results(vector_cases<TypeParam>(), fast_vector_sizes(), fast_counts(), fast_modes);
    check_results(matrix_cases<TypeParam>(), fast_matrix_sizes(), fast_counts(), fast_modes);
}

TYPED_TEST(MulConst, CheckOrder) {
    check_order(vector_cases<TypeParam>(), 4, 1);
    check_order(matrix_cases<TypeParam>(), 4, 3);
}

TYPED_TEST(MulConst, EveryArgumentChecked) {
    check_each_argument(vector_cases<TypeParam>(), 4, 1);
    check_each_argument(matrix_cases<TypeParam>(), 3, 4);
}

TYPED_TEST(MulConst, SameResultsWithOneAndTwoThreads) {
    check_threads(vector_cases<TypeParam>(), 5, 1, 1000);
    check_threads(matrix_cases<TypeParam>(), 4, 3, 400);
}

// Limits, parallel above, by layout, contiguity (both element strides equal
// to the element size) and type. W is 2 w h count, or 2 length count.
int mat_limit(Layout l, bool contig, bool is64) {
    if (l == Layout::P) return 1700;
    if (l == Layout::L && !contig && !is64) return 1500;
    return 3500;
}
int vec_limit(Layout l, bool contig, bool is64) {
    if (l == Layout::P || !contig) return 1440;
    return l == Layout::S && !is64 ? 2500 : 3600;
}

template <class T> void boundary(const std::vector<Case<T>>& cases) {
    for (const auto& cs : cases) {
        if (!cs.array()) continue;
        for (const Mode& m : modes(cs.lay)) {
            const bool contig = cs.lay == Layout::P || (m.ca && m.cd);
            const int limit = cs.matrix ? mat_limit(cs.lay, contig, sizeof(T) == 8)
                                        : vec_limit(cs.lay, contig, sizeof(T) == 8);
            // An order (or length) with W exactly the limit.
            for (int n = 3; n <= 8; ++n) {
                const int per = cs.matrix ? 2 * n * n : 2 * n;
                if (limit % per != 0) continue;
                check_boundary(cs, m, n, cs.matrix ? n : 1, limit / per, limit / per + 1);
                break;
            }
        }
    }
}
TYPED_TEST(MulConst, ParallelAboveTheLimit) {
    boundary(vector_cases<TypeParam>());
    boundary(matrix_cases<TypeParam>());
}

// The documented examples: 3 by 3, count 194 (W 3492) stays serial, 195 (W
// 3510) goes parallel; the 32f list kernel with a gap in the source has a
// limit of 1500, the 64f one 3500.
TEST(MulConstEdges, ExamplesAroundTheLimit) {
    ThreadCount tc(2);
    auto written = [](auto fn) {
        int st = -1;
        in_serialized_region([&] { st = fn(); });
        return st;
    };
    auto Sq = Layout::S;
    const auto mac = make_case<float>("Mul_mac", Sq, 'A', '-', false, '*', true, false, "",
                                      orsmMul_mac_32f);
    for (int count : {194, 195}) {
        Trial<float> s(mac, Mode{}, 3, 3, count, 3);
        EXPECT_EQ(written([&] { return s.call(); }), StatusOk);
        EXPECT_TRUE(s.check(count == 194 ? count : first_share(count, 2))) << count;
    }
    const auto l32 = make_case<float>("Mul_mac_L", Layout::L, 'A', '-', false, '*', true, false, "",
                                      orsmMul_mac_32f_L);
    const auto l64 = make_case<double>("Mul_mac_L", Layout::L, 'A', '-', false, '*', true, false,
                                       "", orsmMul_mac_64f_L);
    Trial<float> s32(l32, Mode{false, true, true}, 3, 3, 194, 4);
    EXPECT_EQ(written([&] { return s32.call(); }), StatusOk);
    EXPECT_TRUE(s32.check(first_share(194, 2)));
    Trial<double> s64(l64, Mode{false, true, true}, 3, 3, 194, 4);
    EXPECT_EQ(written([&] { return s64.call(); }), StatusOk);
    EXPECT_TRUE(s64.check(194));
}

// A zero constant times an infinity is NaN on every path.
TEST(MulConstEdges, ZeroTimesInfinityIsNaN) {
    const float inf = std::numeric_limits<float>::infinity();
    for (int n = 1; n <= 8; ++n) {
        std::vector<float> src(n * n * 2, inf), dst(n * n * 2, 1.0f);
        const int row = 4 * n, obj = 4 * n * n;
        ASSERT_EQ(orsmMul_mac_32f(src.data(), obj, row, 4, 0.0f, dst.data(), obj, row, 4, n, n, 2),
                  StatusOk);
        ASSERT_EQ(orsmMul_tc_32f(src.data(), row, 4, -0.0f, dst.data() + n * n, row, 4, n, n),
                  StatusOk);
        for (float x : dst) EXPECT_TRUE(std::isnan(x)) << n;
    }
    std::vector<double> v(50, -std::numeric_limits<double>::infinity()), d(50);
    ASSERT_EQ(orsmMul_vc_64f(v.data(), 8, 0.0, d.data(), 8, 50), StatusOk);
    for (double x : d) EXPECT_TRUE(std::isnan(x));
}

// The long vc loop steps one element at a time, ascending, when dst overlaps
// src: with dst one element above src every product feeds the next.
TEST(MulConstEdges, LongLoopOverlapAscending) {
    for (int len : {11, 40, 64}) {
        std::vector<double> m(len + 1, 0.0);
        m[0] = 1.0;
        ASSERT_EQ(orsmMul_vc_64f(m.data(), 8, 2.0, m.data() + 1, 8, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(m[i + 1], std::ldexp(1.0, i + 1)) << len << " " << i;
        // dst below src: each element is read before it is overwritten.
        std::vector<float> f(len + 1);
        for (int i = 0; i <= len; ++i) f[i] = float(i);
        ASSERT_EQ(orsmMul_vc_32f(f.data() + 1, 4, 3.0f, f.data(), 4, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(f[i], 3.0f * float(i + 1));
    }
}

}  // namespace
