// Add and Sub on vectors: results bit for bit against a scalar reference in
// every form, layout and type; check orders with their asymmetries; the
// serial/parallel boundary; what a dst overlapping a source sees.
#include <gtest/gtest.h>

#include "elementwise_cases.hpp"

using namespace orsmtest;

namespace {

#define FN(name, lay) pick<T>(orsm##name##_32f##lay, orsm##name##_64f##lay)

// vav tests count late, at a different place per layout.
inline std::string vav_order(Layout l) {
    return l == Layout::S ? "plsc" : l == Layout::P ? "plzch" : "plshc";
}

template <class T> std::vector<Case<T>> cases() {
    const Layout S = Layout::S, P = Layout::P, L = Layout::L;
    std::vector<Case<T>> v;
    auto add = [&](Case<T> c) { v.push_back(std::move(c)); };
#define SINGLE(Fam, form, lay, kb, cfirst, op) \
    add(make_case<T>(#Fam "_" #form #lay, lay, 'O', kb, cfirst, op, false, false, single_order(lay), FN(Fam##_##form, _##lay)))
#define SINGLE_S(Fam, form, kb, cfirst, op) \
    add(make_case<T>(#Fam "_" #form, S, 'O', kb, cfirst, op, false, false, single_order(S), FN(Fam##_##form, )))
#define ARRAY(Fam, form, lay, ka, kb, cfirst, op, order) \
    add(make_case<T>(#Fam "_" #form #lay, lay, ka, kb, cfirst, op, false, false, order(lay), FN(Fam##_##form, _##lay)))
#define ARRAY_S(Fam, form, ka, kb, cfirst, op, order) \
    add(make_case<T>(#Fam "_" #form, S, ka, kb, cfirst, op, false, false, order(S), FN(Fam##_##form, )))
#define ARRAY3(Fam, form, ka, kb, cfirst, op, order)     \
    ARRAY_S(Fam, form, ka, kb, cfirst, op, order);       \
    ARRAY(Fam, form, P, ka, kb, cfirst, op, order);      \
    ARRAY(Fam, form, L, ka, kb, cfirst, op, order)

    SINGLE_S(Add, vc, '-', false, '+');
    SINGLE(Add, vc, P, '-', false, '+');
    SINGLE_S(Sub, vc, '-', false, '-');
    SINGLE(Sub, vc, P, '-', false, '-');
    SINGLE_S(Sub, cv, '-', true, '-');
    SINGLE(Sub, cv, P, '-', true, '-');
    SINGLE_S(Add, vv, 'O', false, '+');
    SINGLE(Add, vv, P, 'O', false, '+');
    SINGLE_S(Sub, vv, 'O', false, '-');
    SINGLE(Sub, vv, P, 'O', false, '-');
    ARRAY3(Add, vac, 'A', '-', false, '+', array_order);
    ARRAY3(Sub, vac, 'A', '-', false, '-', array_order);
    ARRAY3(Sub, cva, 'A', '-', true, '-', array_order);
    ARRAY3(Add, vav, 'A', 'O', false, '+', vav_order);
    ARRAY3(Sub, vav, 'A', 'O', false, '-', vav_order);
    ARRAY3(Sub, vva, 'O', 'A', false, '-', array_order);
    ARRAY3(Add, vava, 'A', 'A', false, '+', array_order);
    ARRAY3(Sub, vava, 'A', 'A', false, '-', array_order);
    return v;
}

template <class T> class AddSubVec : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(AddSubVec, Types);

// Every length class, count 1 and several, every stride mode.
TYPED_TEST(AddSubVec, ResultsBitExact) {
    check_results(cases<TypeParam>(), vector_sizes(), {1, 5});
}

// Planes of one element stride (P) and packed arrays (S) take the fast paths.
TYPED_TEST(AddSubVec, FastPathsBitExact) {
    check_results(cases<TypeParam>(), fast_vector_sizes(), fast_counts(), fast_modes);
}

TYPED_TEST(AddSubVec, CheckOrder) { check_order(cases<TypeParam>(), 4, 1); }

TYPED_TEST(AddSubVec, EveryArgumentChecked) { check_each_argument(cases<TypeParam>(), 4, 1); }

TYPED_TEST(AddSubVec, SameResultsWithOneAndTwoThreads) {
    check_threads(cases<TypeParam>(), 5, 1, 1500);
}

// Limits, parallel above: S 4800 (32f) and 1400 (64f), P 1500, L 2500, the
// same for contiguous and strided operands. W is length * (2 count + 1),
// 3 * length * count for vava.
TYPED_TEST(AddSubVec, ParallelAboveTheLimit) {
    using T = TypeParam;
    for (const auto& cs : cases<T>()) {
        if (!cs.array()) continue;
        const bool vava = cs.ka == 'A' && cs.kb == 'A';
        const int limit = cs.lay == Layout::S ? (sizeof(T) == 4 ? 4800 : 1400)
                          : cs.lay == Layout::P ? 1500 : 2500;
        // A length and count with W exactly the limit, when one exists.
        for (int len = 1; len <= 64; ++len) {
            const int per = vava ? 3 * len : 2 * len;
            const int rest = vava ? limit : limit - len;
            if (rest % per != 0) continue;
            const int count = rest / per;
            for (const Mode& m : modes(cs.lay)) check_boundary(cs, m, len, 1, count, count + 1);
            break;
        }
    }
}

// ---- the statuses of particular calls --------------------------------------------

TEST(AddSubVecEdges, ConstantOperandOrder) {
    const float src[2] = {1, 2};
    float d[2];
    ASSERT_EQ(orsmSub_cv_32f(src, 4, 1.0f, d, 4, 2), StatusOk);
    EXPECT_EQ(d[0], 0.0f);
    EXPECT_EQ(d[1], -1.0f);
    ASSERT_EQ(orsmSub_vc_32f(src, 4, 1.0f, d, 4, 2), StatusOk);
    EXPECT_EQ(d[0], 0.0f);
    EXPECT_EQ(d[1], 1.0f);
}

// vav tests count after the strides; its mirror vva tests it second.
TEST(AddSubVecEdges, CountLateInVav) {
    float a[8] = {}, b[8] = {}, d[8] = {};
    const float* ta[4] = {a, a + 1, a + 2, a + 3};
    float* td[4] = {d, d + 1, d + 2, d + 3};
    EXPECT_EQ(orsmSub_vav_32f(a, 16, 6, b, 4, d, 16, 4, 4, 0), StatusBadStride);
    EXPECT_EQ(orsmSub_vva_32f(a, 6, b, 16, 4, d, 16, 4, 4, 0), StatusBadCount);
    EXPECT_EQ(orsmAdd_vav_32f_P(ta, 2, 16, ta, 0, td, 0, 16, 4, 0), StatusBadCount);
    EXPECT_EQ(orsmAdd_vav_32f_L(ta, 2, 4, b, 4, td, 0, 4, 4, 0), StatusBadRoiShift);
    EXPECT_EQ(orsmAdd_vav_32f(a, -5, 4, b, 4, d, 16, 4, 1, 1), StatusBadStride);
    EXPECT_EQ(orsmAdd_vav_32f(a, 16, 4, b, 4, nullptr, 16, 4, 4, 0), StatusNullPointer);
}

// ---- overlapping operands ----------------------------------------------------------

// Contiguous kernels of vav and vva at lengths 3 to 6 load the single vector
// before the first object is written: a dst whose object 0 lies on it still
// sees it as it was, in every object.
template <class T> void single_operand_held(Layout lay, bool vva) {
    for (int len = 3; len <= 6; ++len) {
        const int count = 4;
        std::vector<T> mem(len * (count + 2)), arr(len * count);
        for (int i = 0; i < len; ++i) mem[i] = T(100 + i);
        for (int i = 0; i < len * count; ++i) arr[i] = T(i);
        T* single = mem.data();  // dst object 0 is the single vector
        T* dst = mem.data();
        std::vector<T*> dt;
        std::vector<const T*> at;
        for (int n = 0; n < count; ++n) {
            dt.push_back(dst + n * len);
            at.push_back(arr.data() + n * len);
        }
        const int E = sizeof(T), s0 = len * E;
        OrsStatus st;
        if (lay == Layout::S)
            st = vva ? FN(Sub_vva, )(single, E, arr.data(), s0, E, dst, s0, E, len, count)
                     : FN(Sub_vav, )(arr.data(), s0, E, single, E, dst, s0, E, len, count);
        else
            st = vva ? FN(Sub_vva, _L)(single, E, at.data(), 0, E, dt.data(), 0, E, len, count)
                     : FN(Sub_vav, _L)(at.data(), 0, E, single, E, dt.data(), 0, E, len, count);
        ASSERT_EQ(st, StatusOk);
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
        for (int i = 0; i < len; ++i) {
            const float want = (len >= 3 && len <= 6) ? 1.0f : float(i + 1);
            EXPECT_EQ(m[i + 1], want) << "length " << len << " element " << i;
        }
    }
}

// The long vc and vv loops fall back to one element at a time, ascending,
// when dst overlaps a source.
TEST(AddSubVecOverlap, LongLoopFallsBackToAscendingElements) {
    for (int len : {11, 12, 41, 100}) {
        std::vector<float> m(len + 1, 0.0f);
        ASSERT_EQ(orsmAdd_vc_32f(m.data(), 4, 1.0f, m.data() + 1, 4, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(m[i + 1], float(i + 1)) << len << " " << i;
        std::vector<double> p(len + 1, 0.0), one(len, 1.0);
        ASSERT_EQ(orsmSub_vv_64f(p.data(), 8, one.data(), 8, p.data() + 1, 8, len), StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(p[i + 1], -double(i + 1)) << len << " " << i;
        // In place is well defined too.
        std::vector<float> q(len, 2.0f), r(len, 3.0f);
        ASSERT_EQ(orsmAdd_vava_32f(q.data(), 0 + 4 * len, 4, r.data(), 4 * len, 4, q.data(),
                                   4 * len, 4, len, 1),
                  StatusOk);
        for (int i = 0; i < len; ++i) EXPECT_EQ(q[i], 5.0f);
    }
}

}  // namespace
