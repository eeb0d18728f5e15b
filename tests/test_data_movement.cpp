// LoadIdentity, Copy, Extract and Transpose over every layout: each layout
// reaches the same logical elements, bit patterns pass unchanged, nothing
// outside the written elements changes, and the check orders hold.
#include "calls.hpp"

using namespace orsmtest;

namespace {

const Layout kLayouts[] = {Layout::S, Layout::P, Layout::L};

// Calls stem (in layout or layout pair lay) on operands the caller owns.
template <class T>
OrsStatus call(const std::string& stem, const std::string& lay, Operand<T>* src, Operand<T>* dst, int w, int h,
               int n, T* block = nullptr) {
    Call<T> c(stem, lay);
    if (src) c.attach("src", *src);
    if (dst) c.attach("dst", *dst);
    if (block) c.ptr("dst") = block;
    for (const char* s : {"width", "length"})
        if (c.takes(s)) c.arg(s) = w;
    if (c.takes("height")) c.arg("height") = h;
    if (c.takes("count")) c.arg("count") = n;
    return c.run();
}
template <class T> OrsStatus copy(bool ma, Operand<T>& s, Operand<T>& d, int w, int h, int n) {
    return call<T>(ma ? "Copy_ma" : "Copy_va", std::string(name(s.layout())) + name(d.layout()), &s, &d, w, h, n);
}
template <class T> OrsStatus extract(const std::string& form, Operand<T>& s, Packed<T>& out, int w, int h, int n) {
    return call<T>("Extract_" + form, name(s.layout()), &s, nullptr, w, h, n, out.data());
}
template <class T> OrsStatus transpose(Operand<T>& s, Operand<T>& d, int w, int h, int n) {
    return call<T>(s.shape().array ? "Transpose_ma" : "Transpose_m", name(s.layout()), &s, &d, w, h, n);
}

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

// One batch of matrices (and of vectors) copied through all nine pairs and
// extracted from every layout, contiguous and with gaps, gives the same
// packed block, bit for bit.
TYPED_TEST(DataMovement, EveryLayoutReachesTheSameElements) {
    using T = TypeParam;
    for (bool ma : {true, false})
        for (bool contiguous : {true, false}) {
            const int w = ma ? 3 : 7, h = ma ? 4 : 1, n = 5;
            const std::string ex = ma ? "ma" : "va";
            Operand<T> origin(Layout::S, {h, w, n, true, contiguous}, 3);
            Values<T> val(11, 0.3);
            origin.fill([&](int, int, int) { return val(); });
            Packed<T> want(w * h * n);
            ASSERT_EQ(extract<T>(ex, origin, want, w, h, n), StatusOk);
            for (Layout a : kLayouts) {
                Operand<T> src(a, {h, w, n, true, contiguous}, 5);
                ASSERT_EQ(copy<T>(ma, origin, src, w, h, n), StatusOk);
                for (Layout b : kLayouts) {
                    Operand<T> dst(b, {h, w, n, true, !contiguous}, 9);
                    dst.snapshot();
                    ASSERT_EQ(copy<T>(ma, src, dst, w, h, n), StatusOk);
                    EXPECT_TRUE(dst.only_elements_changed()) << name(a) << name(b);
                    Packed<T> got(w * h * n);
                    ASSERT_EQ(extract<T>(ex, dst, got, w, h, n), StatusOk);
                    EXPECT_TRUE(got.guards_intact());
                    for (int i = 0; i < w * h * n; ++i)
                        ASSERT_EQ(bits(got.get(i)), bits(want.get(i))) << ex << name(a) << name(b) << i;
                }
            }
        }
}

// Every Extract form in every layout gives the logical elements packed,
// object after object; a transposed source comes out as its logical matrix.
TYPED_TEST(DataMovement, ExtractGivesTheLogicalElements) {
    using T = TypeParam;
    const int w = 2, h = 3;  // logical h x w
    for (const std::string form : {"v", "m", "t", "va", "ma", "ta"})
        for (Layout l : kLayouts) {
            const bool arr = form.size() == 2, vec = form[0] == 'v', tr = form[0] == 't';
            if (l == Layout::L && !arr) continue;
            const int n = arr ? 3 : 1, rows = vec ? 1 : h;
            Operand<T> src(l, {tr ? w : rows, tr ? rows : w, n, arr, false}, 4);
            src.fill([](int k, int r, int c) { return T(100 * k + 10 * r + c); });
            Packed<T> got(w * rows * n);
            ASSERT_EQ(extract<T>(form, src, got, w, h, n), StatusOk) << form << name(l);
            EXPECT_TRUE(got.guards_intact());
            for (int k = 0; k < n; ++k)
                for (int r = 0; r < rows; ++r)
                    for (int c = 0; c < w; ++c)
                        EXPECT_EQ(got.get((k * rows + r) * w + c), tr ? src.at(k, c, r) : src.at(k, r, c))
                            << form << name(l);
        }
}

TYPED_TEST(DataMovement, LoadIdentityOnRectangles) {
    using T = TypeParam;
    for (Layout l : kLayouts)
        for (auto [w, h] : {std::pair{2, 3}, std::pair{3, 2}, std::pair{4, 4}}) {
            Operand<T> d(l, {h, w, 3});
            d.fill([](int, int, int) { return T(7); });
            d.snapshot();
            ASSERT_EQ(call<T>("LoadIdentity_ma", name(l), nullptr, &d, w, h, 3), StatusOk);
            EXPECT_TRUE(d.only_elements_changed());
            for (int k = 0; k < 3; ++k)
                for (int r = 0; r < h; ++r)
                    for (int c = 0; c < w; ++c) ASSERT_EQ(bits(d.at(k, r, c)), bits(T(r == c ? 1 : 0))) << name(l);
        }
}

// Every argument of every function is looked at; then the orders of the
// checks where they differ between twins, with dst untouched.
TYPED_TEST(DataMovement, CheckOrders) {
    using T = TypeParam;
    std::vector<std::pair<std::string, std::string>> fns;
    for (const char* s : {"LoadIdentity_ma", "Extract_va", "Extract_ma", "Extract_ta", "Transpose_ma"})
        for (const char* l : {"S", "P", "L"}) fns.push_back({s, l});
    for (const char* s : {"Extract_v", "Extract_m", "Extract_t", "Transpose_m"})
        for (const char* l : {"S", "P"}) fns.push_back({s, l});
    for (const char* s : {"Copy_va", "Copy_ma"})
        for (const char* a : {"S", "P", "L"})
            for (const char* b : {"S", "P", "L"}) fns.push_back({s, std::string(a) + b});
    for (auto& [stem, lay] : fns) {
        Call<T> c(stem, lay);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
    }
    const OrsStatus Ok = StatusOk, Null = StatusNullPointer, Size = StatusBadSize, Count = StatusBadCount,
                    Stride = StatusBadStride, Shift = StatusBadRoiShift;
    struct Quirk {
        const char* stem;
        const char* lay;
        const char* edits;
        OrsStatus want32, want64;
    };
    const Quirk quirks[] = {
        // LoadIdentity looks at the object stride only when count > 1.
        {"LoadIdentity_ma", "S", "count=1 dstStride0=-5", Ok, Ok},
        {"LoadIdentity_ma", "S", "dst=0 width=0 count=0", Null, Null},
        {"LoadIdentity_ma", "S", "width=0 count=0", Size, Size},
        {"LoadIdentity_ma", "S", "count=0 dstStride1=0", Count, Count},
        // The float pointer form tests the shift ahead of count, the double one after.
        {"LoadIdentity_ma", "P", "dstRoiShift=6 count=0", Shift, Count},
        {"LoadIdentity_ma", "L", "dstRoiShift=-8 dstStride1=3", Stride, Stride},
        // Copy va SP / LP: the float forms test the shift before the strides.
        {"Copy_va", "SP", "dstRoiShift=6 srcStride2=5", Shift, Stride},
        {"Copy_va", "LP", "dstRoiShift=6 srcStride2=5", Shift, Stride},
        {"Copy_va", "SS", "count=1 srcStride0=-5 dstStride0=-5", Ok, Ok},
        {"Copy_va", "SS", "src=0 length=0 count=0", Null, Null},
        {"Copy_va", "SS", "count=0 srcStride2=0", Count, Count},
        {"Copy_ma", "PP", "count=1 srcStride0=0 dstStride0=0", Ok, Ok},
        // Extract: sizes before pointers in the P m and t forms and in the
        // double P v form only; srcStride0 is looked at with count 1 too.
        {"Extract_m", "P", "src=0 width=0", Size, Size},
        {"Extract_t", "P", "src=0 width=0", Size, Size},
        {"Extract_m", "S", "src=0 width=0", Null, Null},
        {"Extract_v", "P", "src=0 length=0", Null, Size},
        {"Extract_ma", "S", "count=1 srcStride0=0", Stride, Stride},
        {"Extract_va", "S", "count=1 srcStride0=4 srcStride2=6", Stride, Stride},
        {"Extract_va", "L", "srcRoiShift=2 srcStride2=6", Shift, Shift},
        // Transpose: count before sizes in the array forms; strides (stride0
        // in P) before shifts.
        {"Transpose_ma", "S", "count=0 width=0", Count, Count},
        {"Transpose_ma", "P", "srcRoiShift=2 srcStride0=5", Stride, Stride},
        {"Transpose_ma", "L", "srcRoiShift=2 dstStride1=2", Stride, Stride},
    };
    for (const Quirk& q : quirks) {
        Call<T> c(q.stem, q.lay);
        bind_all(c, 3, 3, 2);
        c.snapshot();
        EXPECT_EQ(c.set(q.edits).run(), sizeof(T) == 4 ? q.want32 : q.want64) << c.name() << " " << q.edits;
        if (q.want32 != Ok) {
            EXPECT_TRUE(c.unchanged()) << c.name() << " " << q.edits;
        }
    }
}

// Transpose over sizes that take the order paths and the general loop, in
// every layout, contiguous and strided, arrays and single matrices.
TYPED_TEST(DataMovement, TransposeEverySize) {
    using T = TypeParam;
    for (Layout l : kLayouts)
        for (bool arr : {true, false})
            for (bool contiguous : {true, false})
                for (int w = 1; w <= 7; ++w)
                    for (int h : {1, 3, 4, 5, 6, 8}) {
                        const int n = arr ? 3 : 1;
                        if (l == Layout::L && !arr) continue;
                        Operand<T> s(l, {h, w, n, arr, contiguous}, w * 8 + h);
                        Operand<T> d(l, {w, h, n, arr, !contiguous}, w + h);
                        Values<T> val(w * 31 + h, 0.2);
                        s.fill([&](int, int, int) { return val(); });
                        d.snapshot();
                        ASSERT_EQ(transpose<T>(s, d, w, h, n), StatusOk);
                        EXPECT_TRUE(d.only_elements_changed());
                        for (int k = 0; k < n; ++k)
                            for (int r = 0; r < h; ++r)
                                for (int c = 0; c < w; ++c)
                                    ASSERT_EQ(bits(d.at(k, c, r)), bits(s.at(k, r, c))) << name(l) << " " << w << "x" << h;
                    }
}

// The parallel path is taken above 3500 and not at it: inside a serialized
// team only member 0's share is written. Below two threads, or with fewer
// objects than threads, it stays serial; the results never depend on the
// thread count.
TYPED_TEST(DataMovement, TransposeParallelLimit) {
    using T = TypeParam;
    for (Layout l : kLayouts)
        for (bool contiguous : {true, false})
            for (int count : {1750, 1751}) {  // 1x1 objects: W = 2 count
                Operand<T> s(l, {1, 1, count, true, contiguous}), d(l, {1, 1, count});
                s.fill([](int k, int, int) { return T(k + 1); });
                d.fill([](int, int, int) { return T(0); });
                serialized([&] { ASSERT_EQ(transpose<T>(s, d, 1, 1, count), StatusOk); });
                const int written = count == 1750 ? count : first_share(count, 2);
                for (int k = 0; k < count; ++k)
                    ASSERT_EQ(d.at(k, 0, 0), k < written ? T(k + 1) : T(0)) << name(l) << count;
            }
    for (int threads : {1, 0, -1, 4}) {
        ThreadCount t2(threads);
        const int n = threads == 4 ? 3 : 4000, w = threads == 4 ? 40 : 1;
        Operand<T> s(Layout::S, {w, w, n}), d(Layout::S, {w, w, n});
        s.fill([](int k, int r, int c) { return T(k * 10000 + r * 100 + c); });
        in_serialized_region([&] { ASSERT_EQ(transpose<T>(s, d, w, w, n), StatusOk); });
        EXPECT_EQ(d.at(n - 1, w - 1, 0), s.at(n - 1, 0, w - 1)) << threads;
    }
    for (Layout l : kLayouts)
        for (int threads : {1, 2}) {
            ThreadCount tc(threads);
            Operand<T> s(l, {4, 4, 500}), d(l, {4, 4, 500});  // W = 16000, parallel
            Values<T> val(5, 0.2);
            s.fill([&](int, int, int) { return val(); });
            ASSERT_EQ(transpose<T>(s, d, 4, 4, 500), StatusOk);
            for (int k = 0; k < 500; ++k)
                for (int r = 0; r < 4; ++r)
                    for (int c = 0; c < 4; ++c) ASSERT_EQ(bits(d.at(k, r, c)), bits(s.at(k, c, r)));
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
    std::vector<float> out1(n * 9), out2(n * 9), cp(n * 9), ex(n * 9);
    const int F = sizeof(float);
    ASSERT_EQ(orsmTranspose_ma_32f(packed.data(), 64, 12, F, 3, 3, out1.data(), 9 * F, 3 * F, F, n), StatusOk);
    ASSERT_EQ(orsmTranspose_ma_32f(spread.data(), 128, 24, 2 * F, 3, 3, out2.data(), 9 * F, 3 * F, F, n), StatusOk);
    EXPECT_EQ(out1, out2);
    EXPECT_EQ(out1[9 * 19 + 1], float(19 * 9 + 3));
    // Copy out of the records into a packed block, and back through Extract.
    ASSERT_EQ(orsmCopy_ma_32f_SS(packed.data(), 64, 12, F, cp.data(), 9 * F, 3 * F, F, 3, 3, n), StatusOk);
    ASSERT_EQ(orsmExtract_ma_32f(spread.data(), 128, 24, 2 * F, ex.data(), 3, 3, n), StatusOk);
    EXPECT_EQ(cp, ex);
}
