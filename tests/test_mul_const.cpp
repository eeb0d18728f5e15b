// Mul by a constant: vectors, matrices, transposed matrices and their arrays.
// Results bit for bit against a scalar reference, check orders, the limits
// of every layout, type and stride case, and overlap in the long loop.
#include "elementwise_cases.hpp"

using namespace orsmtest;

namespace {

std::vector<Case> cases() {
    std::vector<Case> v;
    for (const char* s : {"Mul_vc", "Mul_mc", "Mul_tc", "Mul_vac", "Mul_mac", "Mul_tac"}) add_cases(v, s);
    return v;
}

// Limits, parallel above, by layout, contiguity (both element strides equal
// to the element size) and type. W is 2 w h count, or 2 length count.
template <class T> Limit limit(const Case& cs, const Mode& m) {
    const bool contig = cs.lay == Layout::P || (m.ca && m.cd), is64 = sizeof(T) == 8;
    if (cs.matrix())
        return {cs.lay == Layout::P ? 1700 : cs.lay == Layout::L && !contig && !is64 ? 1500 : 3500, false};
    if (cs.lay == Layout::P || !contig) return {1440, false};
    return {cs.lay == Layout::S && !is64 ? 2500 : 3600, false};
}
int work(bool, int w, int h, int n) { return 2 * w * h * n; }

ELEMENTWISE_FAMILY_TESTS(MulConst, 5, 4, 400)
TYPED_TEST(MulConst, ParallelAboveTheLimit) { check_boundary<TypeParam>(cases(), limit<TypeParam>, work); }

// A zero constant times an infinity is NaN on every path.
TEST(MulConstEdges, ZeroTimesInfinityIsNaN) {
    const float inf = std::numeric_limits<float>::infinity();
    for (int n = 1; n <= 8; ++n) {
        std::vector<float> src(n * n * 2, inf), dst(n * n * 2, 1.0f);
        const int row = 4 * n, obj = 4 * n * n;
        ASSERT_EQ(orsmMul_mac_32f(src.data(), obj, row, 4, 0.0f, dst.data(), obj, row, 4, n, n, 2), StatusOk);
        ASSERT_EQ(orsmMul_tc_32f(src.data(), row, 4, -0.0f, dst.data() + n * n, row, 4, n, n), StatusOk);
        for (float x : dst) EXPECT_TRUE(std::isnan(x)) << n;
    }
    std::vector<double> v(50, -std::numeric_limits<double>::infinity()), d(50);
    ASSERT_EQ(orsmMul_vc_64f(v.data(), 8, 0.0, d.data(), 8, 50), StatusOk);
    for (double x : d) EXPECT_TRUE(std::isnan(x));
}

// The long vc loop steps one element at a time, ascending, when dst overlaps
// src: with dst one element above src every product feeds the next; with
// dst below src each element is read before it is overwritten.
TEST(MulConstEdges, LongLoopOverlapAscending) {
    for (int len : {11, 40, 64}) {
        std::vector<double> m(len + 1, 0.0);
        m[0] = 1.0;
        ASSERT_EQ(orsmMul_vc_64f(m.data(), 8, 2.0, m.data() + 1, 8, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(m[i + 1], std::ldexp(1.0, i + 1)) << len << " " << i;
        std::vector<float> f(len + 1);
        for (int i = 0; i <= len; ++i) f[i] = float(i);
        ASSERT_EQ(orsmMul_vc_32f(f.data() + 1, 4, 3.0f, f.data(), 4, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(f[i], 3.0f * float(i + 1));
    }
}

}  // namespace
