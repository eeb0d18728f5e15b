// Add and Sub on vectors: results bit for bit against a scalar reference in
// every form, layout and type; check orders with their asymmetries; the
// serial/parallel boundary; what a dst overlapping a source sees.
#include "elementwise_cases.hpp"

using namespace orsmtest;

namespace {

// vav tests count late, at a different place per layout.
std::string vav_order(Layout l) { return l == Layout::S ? "plsc" : l == Layout::P ? "plzch" : "plshc"; }

std::vector<Case> cases() {
    std::vector<Case> v;
    for (const char* s : {"Add_vc", "Sub_vc", "Sub_cv", "Add_vv", "Sub_vv", "Add_vac", "Sub_vac",
                          "Sub_cva", "Sub_vva", "Add_vava", "Sub_vava"})
        add_cases(v, s);
    add_cases(v, "Add_vav", vav_order);
    add_cases(v, "Sub_vav", vav_order);
    return v;
}

// Limits, parallel above: S 4800 (32f) and 1400 (64f), P 1500, L 2500, the
// same for contiguous and strided operands.
template <class T> Limit limit(const Case& cs, const Mode&) {
    return {cs.lay == Layout::S ? (sizeof(T) == 4 ? 4800 : 1400) : cs.lay == Layout::P ? 1500 : 2500, false};
}
int work(bool two_arrays, int len, int, int n) { return two_arrays ? 3 * len * n : len * (2 * n + 1); }

ELEMENTWISE_FAMILY_TESTS(AddSubVec, 5, 1, 1500)
TYPED_TEST(AddSubVec, ParallelAboveTheLimit) { check_boundary<TypeParam>(cases(), limit<TypeParam>, work); }

// ---- overlapping operands ----------------------------------------------------------

// Contiguous kernels of vav and vva at lengths 3 to 6 load the single vector
// before the first object is written: a dst whose object 0 lies on it still
// sees it as it was, in every object.
template <class T> void single_operand_held(Layout lay, bool vva) {
    for (int len = 3; len <= 6; ++len) {
        const int count = 4, E = sizeof(T), s0 = len * E;
        std::vector<T> mem(len * count), arr(len * count);
        for (int i = 0; i < len; ++i) mem[i] = T(100 + i);
        for (int i = 0; i < len * count; ++i) arr[i] = T(i);
        std::vector<T*> dt, at;
        for (int n = 0; n < count; ++n) dt.push_back(&mem[n * len]), at.push_back(&arr[n * len]);
        // dst object 0 is the single vector.
        Call<T> c(vva ? "Sub_vva" : "Sub_vav", lay);
        const std::string one = vva ? "src1" : "src2", many = vva ? "src2" : "src1";
        c.ptr(one) = mem.data();
        c.ptr(many) = lay == Layout::S ? static_cast<void*>(arr.data()) : at.data();
        c.ptr("dst") = lay == Layout::S ? static_cast<void*>(mem.data()) : dt.data();
        for (const char* p : {"src1Stride0", "src2Stride0", "dstStride0"})
            if (c.takes(p)) c.arg(p) = s0;
        c.arg("src1Stride2") = c.arg("src2Stride2") = c.arg("dstStride2") = E;
        c.arg("length") = len;
        c.arg("count") = count;
        ASSERT_EQ(c.run(), StatusOk);
        for (int n = 0; n < count; ++n)
            for (int i = 0; i < len; ++i) {
                const T s = T(100 + i), x = T(n * len + i);
                EXPECT_EQ(mem[n * len + i], vva ? s - x : x - s) << len << " " << n << " " << i;
            }
    }
}
TEST(AddSubVecOverlap, SingleVectorHeldAcrossObjects) {
    for (Layout l : {Layout::S, Layout::L})
        for (bool vva : {false, true}) {
            single_operand_held<float>(l, vva);
            single_operand_held<double>(l, vva);
        }
}

// At lengths 3 to 6 an object is read whole before it is written; other
// lengths run one element at a time, ascending, so a dst one element above
// the source picks up what was just written.
TEST(AddSubVecOverlap, ObjectReadWholeOnUnrolledPaths) {
    for (int len = 1; len <= 8; ++len) {
        std::vector<float> m(len + 1, 0.0f);
        ASSERT_EQ(orsmAdd_vac_32f(m.data(), 64, 4, 1.0f, m.data() + 1, 64, 4, len, 1), StatusOk);
        for (int i = 0; i < len; ++i)
            EXPECT_EQ(m[i + 1], (len >= 3 && len <= 6) ? 1.0f : float(i + 1)) << len << " " << i;
    }
}

// The long vc and vv loops fall back to one element at a time, ascending,
// when dst overlaps a source; in place is well defined too.
TEST(AddSubVecOverlap, LongLoopFallsBackToAscendingElements) {
    for (int len : {11, 12, 41, 100}) {
        std::vector<float> m(len + 1, 0.0f), q(len, 2.0f), r(len, 3.0f);
        ASSERT_EQ(orsmAdd_vc_32f(m.data(), 4, 1.0f, m.data() + 1, 4, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(m[i + 1], float(i + 1)) << len << " " << i;
        std::vector<double> p(len + 1, 0.0), one(len, 1.0);
        ASSERT_EQ(orsmSub_vv_64f(p.data(), 8, one.data(), 8, p.data() + 1, 8, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(p[i + 1], -double(i + 1)) << len << " " << i;
        const int s0 = 4 * len;
        ASSERT_EQ(orsmAdd_vava_32f(q.data(), s0, 4, r.data(), s0, 4, q.data(), s0, 4, len, 1), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(q[i], 5.0f);
    }
}

}  // namespace
