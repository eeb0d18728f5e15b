// LoadIdentity, Copy, Extract and Transpose over every layout: each layout
// reaches the same logical elements, bit patterns pass unchanged, nothing
// outside the written elements changes, and the check orders hold.
#include <gtest/gtest.h>

#include <functional>

#include "operand.hpp"

using namespace orsmtest;

namespace {

template <class T> struct Api;
#define API_MEMBERS(t)                                                         \
    static constexpr auto identS = orsmLoadIdentity_ma_##t;                    \
    static constexpr auto identP = orsmLoadIdentity_ma_##t##_P;                \
    static constexpr auto identL = orsmLoadIdentity_ma_##t##_L;                \
    static constexpr auto trM = orsmTranspose_m_##t;                           \
    static constexpr auto trMP = orsmTranspose_m_##t##_P;                      \
    static constexpr auto trS = orsmTranspose_ma_##t;                          \
    static constexpr auto trP = orsmTranspose_ma_##t##_P;                      \
    static constexpr auto trL = orsmTranspose_ma_##t##_L;                      \
    static constexpr auto exV = orsmExtract_v_##t;                             \
    static constexpr auto exVP = orsmExtract_v_##t##_P;                        \
    static constexpr auto exM = orsmExtract_m_##t;                             \
    static constexpr auto exMP = orsmExtract_m_##t##_P;                        \
    static constexpr auto exT = orsmExtract_t_##t;                             \
    static constexpr auto exTP = orsmExtract_t_##t##_P;                        \
    static constexpr auto exMA = orsmExtract_ma_##t;                           \
    static constexpr auto exMAP = orsmExtract_ma_##t##_P;                      \
    static constexpr auto exMAL = orsmExtract_ma_##t##_L;                      \
    static constexpr auto exTA = orsmExtract_ta_##t;                           \
    static constexpr auto exTAP = orsmExtract_ta_##t##_P;                      \
    static constexpr auto exTAL = orsmExtract_ta_##t##_L;                      \
    static constexpr auto exVA = orsmExtract_va_##t;                           \
    static constexpr auto exVAP = orsmExtract_va_##t##_P;                      \
    static constexpr auto exVAL = orsmExtract_va_##t##_L;                      \
    static constexpr auto cpVaSP = orsmCopy_va_##t##_SP;                       \
    static constexpr auto cpVaLP = orsmCopy_va_##t##_LP;                       \
    static constexpr auto cpVaSS = orsmCopy_va_##t##_SS;                       \
    static constexpr auto cpMaPP = orsmCopy_ma_##t##_PP;
template <> struct Api<float> { API_MEMBERS(32f) };
template <> struct Api<double> { API_MEMBERS(64f) };

// Calls the Copy function for a layout pair on two operands, whatever their
// layouts (source layout first).
template <class T> OrsStatus copy_ma(Operand<T>& s, Operand<T>& d, int w, int h, int n);
template <class T> OrsStatus copy_va(Operand<T>& s, Operand<T>& d, int len, int n);

#define SRC_S(o) o.ptr(), o.s0(), o.s1(), o.s2()
#define SRC_P(o) o.ctable(), o.shift(), o.s0()
#define SRC_L(o) o.ctable(), o.shift(), o.s1(), o.s2()
#define DST_S(o) o.ptr(), o.s0(), o.s1(), o.s2()
#define DST_P(o) o.table(), o.shift(), o.s0()
#define DST_L(o) o.table(), o.shift(), o.s1(), o.s2()
#define VSRC_S(o) o.ptr(), o.s0(), o.s2()
#define VSRC_P(o) o.ctable(), o.shift(), o.s0()
#define VSRC_L(o) o.ctable(), o.shift(), o.s2()
#define VDST_S(o) o.ptr(), o.s0(), o.s2()
#define VDST_P(o) o.table(), o.shift(), o.s0()
#define VDST_L(o) o.table(), o.shift(), o.s2()
#define PAIR(t, A, B)                                                                        \
    if (s.layout() == Layout::A && d.layout() == Layout::B)                                  \
        return ma ? orsmCopy_ma_##t##_##A##B(SRC_##A(s), DST_##B(d), w, h, n)                \
                  : orsmCopy_va_##t##_##A##B(VSRC_##A(s), VDST_##B(d), w, n);
#define PAIRS(t)                                                                             \
    PAIR(t, S, S) PAIR(t, S, P) PAIR(t, S, L) PAIR(t, P, S) PAIR(t, P, P) PAIR(t, P, L)      \
    PAIR(t, L, S) PAIR(t, L, P) PAIR(t, L, L) return -1;
template <class T> OrsStatus copy_any(bool ma, Operand<T>& s, Operand<T>& d, int w, int h, int n);
template <> OrsStatus copy_any<float>(bool ma, Operand<float>& s, Operand<float>& d, int w, int h,
                                      int n) { PAIRS(32f) }
template <> OrsStatus copy_any<double>(bool ma, Operand<double>& s, Operand<double>& d, int w,
                                       int h, int n) { PAIRS(64f) }

// Calls Extract of a matrix array in the operand's layout.
template <class T>
OrsStatus extract_ma(bool transposed, Operand<T>& s, T* dst, int w, int h, int n) {
    using A = Api<T>;
    switch (s.layout()) {
        case Layout::S: return (transposed ? A::exTA : A::exMA)(SRC_S(s), dst, w, h, n);
        case Layout::P: return (transposed ? A::exTAP : A::exMAP)(SRC_P(s), dst, w, h, n);
        case Layout::L: return (transposed ? A::exTAL : A::exMAL)(SRC_L(s), dst, w, h, n);
    }
    return -1;
}
template <class T> OrsStatus transpose_ma(Operand<T>& s, Operand<T>& d, int w, int h, int n) {
    using A = Api<T>;
    switch (s.layout()) {
        case Layout::S:
            return A::trS(s.ptr(), s.s0(), s.s1(), s.s2(), w, h, d.ptr(), d.s0(), d.s1(), d.s2(), n);
        case Layout::P:
            return A::trP(s.ctable(), s.shift(), s.s0(), w, h, d.table(), d.shift(), d.s0(), n);
        case Layout::L:
            return A::trL(s.ctable(), s.shift(), s.s1(), s.s2(), w, h, d.table(), d.shift(), d.s1(),
                          d.s2(), n);
    }
    return -1;
}

const Layout kLayouts[] = {Layout::S, Layout::P, Layout::L};

template <class T> class DataMovement : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DataMovement, Types);

}  // namespace

TEST(Version, RecordAndTag) {
    const OrsLibraryVersion* v = orsmGetLibVersion();
    ASSERT_EQ(v, orsmGetLibVersion());
    EXPECT_EQ(v->versionMajor, 5);
    EXPECT_EQ(v->versionMinor, 1);
    EXPECT_EQ(v->buildMajor, 133);
    EXPECT_EQ(v->buildNumber, 205);
    EXPECT_EQ(std::string(v->cpuTag, 4), std::string("v8\0\0", 4));
    EXPECT_STREQ(v->libraryName, "liborsmv8-5.1.dylib");
    EXPECT_STREQ(v->versionText, "5.1.1");
    EXPECT_STREQ(v->buildDateText, "Jun 17 2006");
}

// One batch copied through all nine pairs and extracted from every layout,
// contiguous and with gaps, gives the same packed block, bit for bit.
TYPED_TEST(DataMovement, EveryLayoutReachesTheSameElements) {
    using T = TypeParam;
    const int w = 3, h = 4, n = 5;
    for (bool contiguous : {true, false}) {
        Operand<T> origin(Layout::S, {h, w, n, true, contiguous}, 3);
        Values<T> val(11, 0.3);
        origin.fill([&](int, int, int) { return val(); });
        Packed<T> want(w * h * n);
        ASSERT_EQ(extract_ma<T>(false, origin, want.data(), w, h, n), StatusOk);
        for (Layout a : kLayouts) {
            Operand<T> src(a, {h, w, n, true, contiguous}, 5);
            ASSERT_EQ(copy_any<T>(true, origin, src, w, h, n), StatusOk);
            for (Layout b : kLayouts) {
                Operand<T> dst(b, {h, w, n, true, !contiguous}, 9);
                dst.snapshot();
                ASSERT_EQ(copy_any<T>(true, src, dst, w, h, n), StatusOk);
                EXPECT_TRUE(dst.only_elements_changed()) << name(a) << name(b);
                Packed<T> got(w * h * n);
                ASSERT_EQ(extract_ma<T>(false, dst, got.data(), w, h, n), StatusOk);
                EXPECT_TRUE(got.guards_intact());
                for (int i = 0; i < w * h * n; ++i)
                    ASSERT_EQ(bits(got.get(i)), bits(want.get(i))) << name(a) << name(b) << i;
            }
        }
    }
}

TYPED_TEST(DataMovement, VectorCopiesAcrossLayouts) {
    using T = TypeParam;
    const int len = 7, n = 4;
    for (Layout a : kLayouts)
        for (Layout b : kLayouts) {
            Operand<T> src(a, {1, len, n, true, false}, 1), dst(b, {1, len, n}, 2);
            Values<T> val(3, 0.5);
            src.fill([&](int, int, int) { return val(); });
            dst.snapshot();
            ASSERT_EQ(copy_any<T>(false, src, dst, len, 1, n), StatusOk);
            EXPECT_TRUE(dst.only_elements_changed());
            for (int k = 0; k < n; ++k)
                for (int i = 0; i < len; ++i)
                    ASSERT_EQ(bits(dst.at(k, 0, i)), bits(src.at(k, 0, i))) << name(a) << name(b);
        }
}

// A transposed source comes out as its logical matrix.
TYPED_TEST(DataMovement, ExtractTransposedGivesTheLogicalMatrix) {
    using T = TypeParam;
    const int w = 2, h = 3, n = 3;  // logical h x w; stored w x h
    for (Layout l : kLayouts) {
        Operand<T> src(l, {w, h, n}, 4);
        src.fill([](int k, int r, int c) { return T(100 * k + 10 * r + c); });
        Packed<T> got(w * h * n);
        ASSERT_EQ(extract_ma<T>(true, src, got.data(), w, h, n), StatusOk);
        for (int k = 0; k < n; ++k)
            for (int r = 0; r < h; ++r)
                for (int c = 0; c < w; ++c)
                    EXPECT_EQ(got.get(k * w * h + r * w + c), src.at(k, c, r)) << name(l);
    }
    // Stored rows (1, 2, 3), (4, 5, 6) read transposed as 2 wide, 3 high.
    const T m[6] = {1, 2, 3, 4, 5, 6};
    T out[6];
    ASSERT_EQ(Api<T>::exT(m, 3 * sizeof(T), sizeof(T), out, 2, 3), StatusOk);
    const T want[6] = {1, 4, 2, 5, 3, 6};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(out[i], want[i]);
}

TYPED_TEST(DataMovement, SingleExtractsAndVectorArrays) {
    using T = TypeParam;
    using A = Api<T>;
    Operand<T> m(Layout::S, {3, 4, 1, false}), mp(Layout::P, {3, 4, 1, false});
    m.fill([](int, int r, int c) { return T(r * 4 + c); });
    mp.fill([](int, int r, int c) { return T(r * 4 + c); });
    Packed<T> a(12), b(12);
    ASSERT_EQ(A::exM(m.ptr(), m.s1(), m.s2(), a.data(), 4, 3), StatusOk);
    ASSERT_EQ(A::exMP(mp.ctable(), mp.shift(), b.data(), 4, 3), StatusOk);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(a.get(i), T(i));
    for (int i = 0; i < 12; ++i) EXPECT_EQ(b.get(i), T(i));
    Operand<T> v(Layout::P, {1, 5, 1, false});
    v.fill([](int, int, int c) { return T(c); });
    Packed<T> vo(5);
    ASSERT_EQ(A::exVP(v.ctable(), v.shift(), vo.data(), 5), StatusOk);
    EXPECT_EQ(vo.get(4), T(4));
    Operand<T> vs(Layout::S, {1, 5, 1, false, false});
    vs.fill([](int, int, int c) { return T(c + 1); });
    ASSERT_EQ(A::exV(vs.ptr(), vs.s2(), vo.data(), 5), StatusOk);
    EXPECT_EQ(vo.get(4), T(5));
    EXPECT_EQ(A::exV(vs.ptr(), 6, vo.data(), 5), StatusBadStride);
    for (Layout l : kLayouts) {
        Operand<T> va(l, {1, 3, 4, true, false});
        va.fill([](int k, int, int c) { return T(10 * k + c); });
        Packed<T> out(12);
        OrsStatus st = l == Layout::S   ? A::exVA(VSRC_S(va), out.data(), 3, 4)
                       : l == Layout::P ? A::exVAP(VSRC_P(va), out.data(), 3, 4)
                                        : A::exVAL(VSRC_L(va), out.data(), 3, 4);
        ASSERT_EQ(st, StatusOk);
        EXPECT_EQ(out.get(11), T(32));
        EXPECT_TRUE(out.guards_intact());
    }
}

TYPED_TEST(DataMovement, LoadIdentityOnRectangles) {
    using T = TypeParam;
    using A = Api<T>;
    for (Layout l : kLayouts)
        for (auto [w, h] : {std::pair{2, 3}, std::pair{3, 2}, std::pair{4, 4}}) {
            Operand<T> d(l, {h, w, 3});
            d.fill([](int, int, int) { return T(7); });
            d.snapshot();
            OrsStatus st = l == Layout::S   ? A::identS(DST_S(d), w, h, 3)
                           : l == Layout::P ? A::identP(DST_P(d), w, h, 3)
                                            : A::identL(DST_L(d), w, h, 3);
            ASSERT_EQ(st, StatusOk);
            EXPECT_TRUE(d.only_elements_changed());
            for (int k = 0; k < 3; ++k)
                for (int r = 0; r < h; ++r)
                    for (int c = 0; c < w; ++c)
                        ASSERT_EQ(bits(d.at(k, r, c)), bits(T(r == c ? 1 : 0))) << name(l);
        }
}

// The orders of the checks, the deviations between twins included, and dst
// untouched after every failure.
TYPED_TEST(DataMovement, CheckOrders) {
    using T = TypeParam;
    using A = Api<T>;
    constexpr bool f32 = sizeof(T) == 4;
    Operand<T> d(Layout::S, {3, 3, 2}), p(Layout::P, {3, 3, 2}), l(Layout::L, {3, 3, 2});
    d.snapshot(); p.snapshot(); l.snapshot();
    // LoadIdentity: the object stride is looked at only when count > 1.
    EXPECT_EQ(A::identS(d.ptr(), 0, d.s1(), d.s2(), 3, 3, 2), StatusBadStride);
    Operand<T> one(Layout::S, {3, 3, 1});
    EXPECT_EQ(A::identS(one.ptr(), -5, one.s1(), one.s2(), 3, 3, 1), StatusOk);
    EXPECT_EQ(A::identS(nullptr, 0, 0, 0, 0, 0, 0), StatusNullPointer);
    EXPECT_EQ(A::identS(d.ptr(), 0, 0, 0, 0, 3, 0), StatusBadSize);
    EXPECT_EQ(A::identS(d.ptr(), 0, 0, 0, 3, 3, 0), StatusBadCount);
    // The float pointer form tests the shift ahead of count, the double one after.
    EXPECT_EQ(A::identP(p.table(), 2 + 4 * !f32, p.s0(), 3, 3, 0),
              f32 ? StatusBadRoiShift : StatusBadCount);
    EXPECT_EQ(A::identL(l.table(), -8, 3, 4, 3, 3, 2), StatusBadStride);
    EXPECT_EQ(A::identL(l.table(), -8, l.s1(), l.s2(), 3, 3, 2), StatusBadRoiShift);
    // Copy va SP / LP: the float forms test the shift before the strides.
    Operand<T> vs(Layout::S, {1, 4, 2}), vl(Layout::L, {1, 4, 2}), vp(Layout::P, {1, 4, 2});
    vp.snapshot();
    EXPECT_EQ(A::cpVaSP(vs.ptr(), vs.s0(), 5, vp.table(), 5, vp.s0(), 4, 2),
              f32 ? StatusBadRoiShift : StatusBadStride);
    EXPECT_EQ(A::cpVaLP(vl.ctable(), 0, 5, vp.table(), 5, vp.s0(), 4, 2),
              f32 ? StatusBadRoiShift : StatusBadStride);
    EXPECT_EQ(A::cpVaSP(vs.ptr(), 0, vs.s2(), vp.table(), 0, vp.s0(), 4, 2), StatusBadStride);
    EXPECT_EQ(A::cpVaSS(vs.ptr(), -5, vs.s2(), vs.ptr(), -5, vs.s2(), 4, 1), StatusOk);
    EXPECT_EQ(A::cpVaSS(nullptr, 0, 0, vs.ptr(), 0, 0, 0, 0), StatusNullPointer);
    EXPECT_EQ(A::cpVaSS(vs.ptr(), 0, 0, vs.ptr(), 0, 0, 4, 0), StatusBadCount);
    // PP has only shifts and object strides.
    EXPECT_EQ(A::cpMaPP(p.ctable(), 0, 0, p.table(), 0, 0, 3, 3, 1), StatusOk);
    EXPECT_EQ(A::cpMaPP(p.ctable(), 4 * !f32 + 2, 0, p.table(), 0, 0, 3, 3, 1), StatusBadRoiShift);
    // Extract: sizes before pointers in the P m and t forms and in the double
    // P v form only; srcStride0 is checked with count 1 too.
    T* out = nullptr;
    EXPECT_EQ(A::exMP(nullptr, 0, out, 0, 3), StatusBadSize);
    EXPECT_EQ(A::exTP(nullptr, 0, out, 0, 3), StatusBadSize);
    EXPECT_EQ(A::exM(nullptr, 4, 4, out, 0, 3), StatusNullPointer);
    EXPECT_EQ(A::exVP(nullptr, 0, out, 0), f32 ? StatusNullPointer : StatusBadSize);
    Packed<T> blk(9);
    blk.snapshot();
    EXPECT_EQ(A::exMA(d.ptr(), 0, d.s1(), d.s2(), blk.data(), 3, 3, 1), StatusBadStride);
    EXPECT_EQ(A::exVAL(l.ctable(), 2, 6, blk.data(), 3, 1), StatusBadRoiShift);
    EXPECT_EQ(A::exVA(d.ptr(), 4, 6, blk.data(), 3, 1), StatusBadStride);
    EXPECT_TRUE(blk.unchanged());
    // Transpose: count before sizes in the array forms; the single P form
    // can only fail on the shifts after pointers and sizes.
    EXPECT_EQ(A::trS(d.ptr(), 0, 0, 0, 0, 3, d.ptr(), 0, 0, 0, 0), StatusBadCount);
    EXPECT_EQ(A::trMP(p.ctable(), 2, 3, 3, p.table(), 0), StatusBadRoiShift);
    EXPECT_EQ(A::trP(p.ctable(), 0, 6, 3, 3, p.table(), 0, p.s0(), 2), StatusBadStride);
    EXPECT_EQ(A::trP(p.ctable(), 2, 5, 3, 3, p.table(), 0, p.s0(), 2), StatusBadStride);
    EXPECT_EQ(A::trL(l.ctable(), 2, 4, 4, 3, 3, l.table(), 0, 2, 4, 2), StatusBadStride);
    EXPECT_EQ(A::trL(l.ctable(), 2, l.s1(), l.s2(), 3, 3, l.table(), 0, l.s1(), l.s2(), 2),
              StatusBadRoiShift);
    EXPECT_TRUE(d.unchanged() && p.unchanged() && l.unchanged() && vp.unchanged());
}

// Transpose over sizes that take the order paths and the general loop, in
// every layout, contiguous and strided.
TYPED_TEST(DataMovement, TransposeEverySize) {
    using T = TypeParam;
    for (Layout l : kLayouts)
        for (bool contiguous : {true, false})
            for (int w = 1; w <= 7; ++w)
                for (int h : {1, 3, 4, 5, 6, 8}) {
                    const int n = 3;
                    Operand<T> s(l, {h, w, n, true, contiguous}, w * 8 + h);
                    Operand<T> d(l, {w, h, n, true, !contiguous}, w + h);
                    Values<T> val(w * 31 + h, 0.2);
                    s.fill([&](int, int, int) { return val(); });
                    d.snapshot();
                    ASSERT_EQ(transpose_ma<T>(s, d, w, h, n), StatusOk);
                    EXPECT_TRUE(d.only_elements_changed());
                    for (int k = 0; k < n; ++k)
                        for (int r = 0; r < h; ++r)
                            for (int c = 0; c < w; ++c)
                                ASSERT_EQ(bits(d.at(k, c, r)), bits(s.at(k, r, c)))
                                    << name(l) << " " << w << "x" << h;
                }
    // The single forms.
    Operand<T> s(Layout::S, {2, 3, 1, false}), d(Layout::S, {3, 2, 1, false});
    s.fill([](int, int r, int c) { return T(1 + 3 * r + c); });
    ASSERT_EQ(Api<T>::trM(s.ptr(), s.s1(), s.s2(), 3, 2, d.ptr(), d.s1(), d.s2()), StatusOk);
    EXPECT_EQ(d.at(0, 0, 1), T(4));
    EXPECT_EQ(d.at(0, 2, 0), T(3));
    Operand<T> sp(Layout::P, {5, 5, 1, false}), dp(Layout::P, {5, 5, 1, false});
    sp.fill([](int, int r, int c) { return T(10 * r + c); });
    ASSERT_EQ(Api<T>::trMP(sp.ctable(), sp.shift(), 5, 5, dp.table(), dp.shift()), StatusOk);
    EXPECT_EQ(dp.at(0, 4, 1), T(14));
}

// The parallel path is taken above 3500 and not at it: inside a serialized
// team only member 0's share is written.
TYPED_TEST(DataMovement, TransposeParallelLimit) {
    using T = TypeParam;
    ThreadCount tc(2);
    for (Layout l : kLayouts)
        for (bool contiguous : {true, false})
            for (int count : {1750, 1751}) {  // 1x1 objects: W = 2 count
                Operand<T> s(l, {1, 1, count, true, contiguous}), d(l, {1, 1, count});
                s.fill([](int k, int, int) { return T(k + 1); });
                d.fill([](int, int, int) { return T(0); });
                in_serialized_region([&] { ASSERT_EQ(transpose_ma<T>(s, d, 1, 1, count), StatusOk); });
                const int written = count == 1750 ? count : first_share(count, 2);
                for (int k = 0; k < count; ++k)
                    ASSERT_EQ(d.at(k, 0, 0), k < written ? T(k + 1) : T(0)) << name(l) << count;
            }
    // Below two threads, or with fewer objects than threads, it stays serial.
    for (int T_ : {1, 0, -1}) {
        ThreadCount t2(T_);
        Operand<T> s(Layout::S, {1, 1, 4000}), d(Layout::S, {1, 1, 4000});
        s.fill([](int k, int, int) { return T(k + 1); });
        in_serialized_region([&] { ASSERT_EQ(transpose_ma<T>(s, d, 1, 1, 4000), StatusOk); });
        EXPECT_EQ(d.at(3999, 0, 0), T(4000));
    }
    ThreadCount t4(4);
    Operand<T> s(Layout::S, {40, 40, 3}), d(Layout::S, {40, 40, 3});
    s.fill([](int k, int r, int c) { return T(k * 10000 + r * 100 + c); });
    in_serialized_region([&] { ASSERT_EQ(transpose_ma<T>(s, d, 40, 40, 3), StatusOk); });
    EXPECT_EQ(d.at(2, 39, 0), s.at(2, 0, 39));
}

TYPED_TEST(DataMovement, ResultsDoNotDependOnTheThreadCount) {
    using T = TypeParam;
    const int w = 4, h = 4, n = 500;  // W = 16000, parallel
    for (Layout l : kLayouts) {
        Operand<T> s(l, {h, w, n});
        Values<T> val(5, 0.2);
        s.fill([&](int, int, int) { return val(); });
        Operand<T> d1(l, {w, h, n}), d2(l, {w, h, n});
        {
            ThreadCount tc(1);
            ASSERT_EQ(transpose_ma<T>(s, d1, w, h, n), StatusOk);
        }
        {
            ThreadCount tc(2);
            ASSERT_EQ(transpose_ma<T>(s, d2, w, h, n), StatusOk);
        }
        for (int k = 0; k < n; ++k)
            for (int r = 0; r < w; ++r)
                for (int c = 0; c < h; ++c) ASSERT_EQ(bits(d1.at(k, r, c)), bits(d2.at(k, r, c)));
    }
}

// 3x3 matrices inside 64-byte records, rows 12 bytes apart: the contiguous
// kernels serve them; the same matrices with elements 8 bytes apart go
// through the strided kernels and give the same results.
TEST(DataMovementRecords, GappedRecordsThroughBothKernels) {
    constexpr int n = 20;
    std::vector<float> packed(n * 16, -1.f), spread(n * 32, -1.f);
    for (int k = 0; k < n; ++k)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                packed[k * 16 + r * 3 + c] = float(k * 9 + r * 3 + c);
                spread[k * 32 + r * 6 + c * 2] = float(k * 9 + r * 3 + c);
            }
    std::vector<float> out1(n * 9), out2(n * 9);
    const int F = sizeof(float);
    ASSERT_EQ(orsmTranspose_ma_32f(packed.data(), 64, 12, F, 3, 3, out1.data(), 9 * F, 3 * F, F, n),
              StatusOk);
    ASSERT_EQ(orsmTranspose_ma_32f(spread.data(), 128, 24, 2 * F, 3, 3, out2.data(), 9 * F, 3 * F,
                                   F, n),
              StatusOk);
    EXPECT_EQ(out1, out2);
    EXPECT_EQ(out1[9 * 19 + 1], float(19 * 9 + 3));
    // Copy out of the records into a packed block, and back through Extract.
    std::vector<float> cp(n * 9);
    ASSERT_EQ(orsmCopy_ma_32f_SS(packed.data(), 64, 12, F, cp.data(), 9 * F, 3 * F, F, 3, 3, n),
              StatusOk);
    std::vector<float> ex(n * 9);
    ASSERT_EQ(orsmExtract_ma_32f(spread.data(), 128, 24, 2 * F, ex.data(), 3, 3, n), StatusOk);
    EXPECT_EQ(cp, ex);
}
