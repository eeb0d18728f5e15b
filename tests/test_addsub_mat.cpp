// Add and Sub on matrices: every exported form, layout and type against a
// scalar reference, the order of the checks, the serial/parallel boundary,
// and what a dst that overlaps a source sees.
#include "elementwise_cases.hpp"

using namespace orsmtest;

namespace {

// In layout S, mam and mma look at the strides before the sizes.
std::string strides_first(Layout l) { return l == Layout::S ? "pcsl" : array_order(l); }

std::vector<Case> cases() {
    std::vector<Case> v;
    for (const char* s : {"Add_mm", "Add_tm", "Add_tt", "Add_tam", "Add_mat", "Add_tat", "Add_mama",
                          "Add_tama", "Add_tata", "Sub_mm", "Sub_tm", "Sub_mt", "Sub_tt", "Sub_tam",
                          "Sub_mat", "Sub_tat", "Sub_mama", "Sub_tama", "Sub_mata", "Sub_tata",
                          "Sub_tma", "Sub_mta", "Sub_tta"})
        add_cases(v, s);
    for (const char* s : {"Add_mam", "Sub_mam", "Sub_mma"}) add_cases(v, s, strides_first);
    return v;
}

// Serial below 2000, but below 3000 for 32f layout S with every element
// stride equal to the element size. W is w h (2 count + 1), or 3 w h count
// with two arrays.
template <class T> Limit limit(const Case& cs, const Mode& m) {
    const bool high = sizeof(T) == 4 && cs.lay == Layout::S && m.ca && m.cb && m.cd;
    return {high ? 3000 : 2000, true};
}
int work(bool two_arrays, int w, int h, int n) { return two_arrays ? 3 * w * h * n : w * h * (2 * n + 1); }

ELEMENTWISE_FAMILY_TESTS(AddSubMat, 12, 9, 61)
TYPED_TEST(AddSubMat, WorkEqualToTheLimitGoesParallel) {
    check_boundary<TypeParam>(cases(), limit<TypeParam>, work);
}

// ---- dst overlapping a source ------------------------------------------------------

// dst object 0 lies on the single source. The order paths hold the single
// operand from before the first write; the general loop, and the kernels
// that go object by object through a single-matrix kernel, read it afresh.
struct OverlapCase {
    const char* stem;
    Layout lay;
    int order;
    bool contiguous, held;
};

template <class T> void overlap_on_single(const OverlapCase& oc) {
    SCOPED_TRACE(::testing::Message() << oc.stem << name(oc.lay) << " order " << oc.order
                                      << (oc.contiguous ? "" : " strided"));
    const Case cs{oc.stem, oc.lay, ""};
    const int N = oc.order;
    Trial<T> t(cs, Mode{oc.contiguous, oc.contiguous, oc.contiguous}, N, N, 3, 21);
    Call<T>& c = t.c;
    const bool single_first = !is_array_code(t.srcs[0]);
    const std::string one = single_first ? "src1" : "src2";
    Operand<T>& d = c.op("dst");
    Values<T> v(4, 0.0);  // no NaNs: their payloads would blur the comparison
    for (const char* r : {"src1", "src2"}) c.op(r).fill([&](int, int, int) { return v(); });
    // The single operand becomes dst object 0, holding its values.
    std::vector<T> cur(N * N);
    for (int r = 0; r < N; ++r)
        for (int k = 0; k < N; ++k) cur[r * N + k] = c.op(one).at(0, r, k);
    for (int n = 0; n < 3; ++n)
        for (int r = 0; r < N; ++r)
            for (int k = 0; k < N; ++k) d.at(n, r, k) = cur[r * N + k];
    if (oc.lay == Layout::P) {
        c.ptr(one) = c.ptr("dst");
        c.arg(one + "RoiShift") = c.arg("dstRoiShift");
    } else {
        c.ptr(one) = oc.lay == Layout::S ? c.ptr("dst") : reinterpret_cast<char*>(d.table()[0]) + d.shift();
        c.arg(one + "Stride1") = d.s1();
        c.arg(one + "Stride2") = d.s2();
    }
    ASSERT_EQ(c.run(), StatusOk);
    for (int n = 0; n < 3; ++n) {
        for (int r = 0; r < N; ++r)
            for (int k = 0; k < N; ++k) {
                const T s = cur[r * N + k], x = t.src(single_first ? 1 : 0, n, r, k);
                const T want = single_first ? T(s - x) : (t.op == '-' ? T(x - s) : T(x + s));
                ASSERT_EQ(bits(d.at(n, r, k)), bits(want)) << n << " " << r << " " << k;
            }
        if (n == 0 && !oc.held)
            for (int r = 0; r < N; ++r)
                for (int k = 0; k < N; ++k) cur[r * N + k] = d.at(0, r, k);
    }
}

TEST(AddSubMatOverlap, TheSingleOperandIsHeldByTheOrderPathsOnly) {
    const Layout S = Layout::S, P = Layout::P, L = Layout::L;
    const OverlapCase f32[] = {
        {"Add_mam", S, 3, true, true},  {"Add_mam", S, 6, true, true},  {"Add_mam", S, 7, true, false},
        {"Add_mam", S, 4, false, true}, {"Add_mam", P, 5, true, true},  {"Add_mam", L, 3, true, true},
        {"Add_mam", L, 3, false, false}, {"Sub_mma", S, 4, true, true}, {"Sub_mma", L, 5, true, true},
        {"Sub_mma", L, 5, false, false}, {"Sub_mma", P, 8, true, false},
    };
    for (const auto& oc : f32) overlap_on_single<float>(oc);
    const OverlapCase f64[] = {
        {"Add_mam", S, 3, true, true},  {"Add_mam", L, 3, true, false}, {"Sub_mma", L, 4, true, true},
        {"Sub_mma", S, 6, false, true}, {"Sub_mam", P, 2, true, false},
    };
    for (const auto& oc : f64) overlap_on_single<double>(oc);
}

// dst object n lies on src1 object n+1. The 32f contiguous mam kernel reads
// the next object before it stores the current one at order 3, so each
// result uses src1 as it was; elsewhere object n+1 is read after object n
// was stored over it, and the sums build up.
template <class T> void overlap_ahead(Layout lay, int N, bool ahead) {
    SCOPED_TRACE(::testing::Message() << sizeof(T) * 8 << name(lay) << " order " << N);
    const int cnt = 4, E = sizeof(T), obj = N * N;
    std::vector<T> buf((cnt + 1) * obj), b(obj);
    Values<T> v(8, 0.0);
    for (T& x : buf) x = v();
    for (T& x : b) x = v();
    const std::vector<T> orig = buf;
    std::vector<T*> st, dt;
    for (int n = 0; n < cnt; ++n) st.push_back(&buf[n * obj]), dt.push_back(&buf[(n + 1) * obj]);
    Call<T> c("Add_mam", lay);
    const bool S = lay == Layout::S;
    c.ptr("src1") = S ? static_cast<void*>(st[0]) : st.data();
    c.ptr("dst") = S ? static_cast<void*>(dt[0]) : dt.data();
    c.ptr("src2") = b.data();
    c.arg("src1Stride0") = c.arg("dstStride0") = obj * E;
    for (const char* r : {"src1", "src2", "dst"}) {
        c.arg(std::string(r) + "Stride1") = N * E;
        c.arg(std::string(r) + "Stride2") = E;
    }
    c.arg("width") = c.arg("height") = N;
    c.arg("count") = cnt;
    ASSERT_EQ(c.run(), StatusOk);
    std::vector<T> a(orig.begin(), orig.begin() + obj);  // src1 object n as the kernel reads it
    for (int n = 0; n < cnt; ++n) {
        if (ahead) a.assign(orig.begin() + n * obj, orig.begin() + (n + 1) * obj);
        for (int i = 0; i < obj; ++i) {
            const T want = a[i] + b[i];
            ASSERT_EQ(bits(buf[(n + 1) * obj + i]), bits(want)) << n << " " << i;
            a[i] = want;
        }
    }
}

TEST(AddSubMatOverlap, The32fMamKernelReadsOneObjectAheadAtOrder3) {
    for (Layout l : {Layout::S, Layout::L}) {
        overlap_ahead<float>(l, 3, true);
        overlap_ahead<float>(l, 4, false);
        overlap_ahead<double>(l, 3, false);
    }
}

}  // namespace
