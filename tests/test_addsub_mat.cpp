// Add and Sub on matrices: every exported form, layout and type against a
// scalar reference, the order of the checks, the serial/parallel boundary,
// and what a dst that overlaps a source sees.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "operand.hpp"

using namespace orsmtest;

namespace {

// ---- the table of functions --------------------------------------------------

struct Form {
    bool a_arr, a_t, b_arr, b_t;
    bool array() const { return a_arr || b_arr; }
    bool both() const { return a_arr && b_arr; }
};
namespace fm {
constexpr Form mm{0, 0, 0, 0}, tm{0, 1, 0, 0}, mt{0, 0, 0, 1}, tt{0, 1, 0, 1};
constexpr Form mam{1, 0, 0, 0}, tam{1, 1, 0, 0}, mat{1, 0, 0, 1}, tat{1, 1, 0, 1};
constexpr Form mama{1, 0, 1, 0}, tama{1, 1, 1, 0}, mata{1, 0, 1, 1}, tata{1, 1, 1, 1};
constexpr Form mma{0, 0, 1, 0}, tma{0, 1, 1, 0}, mta{0, 0, 1, 1}, tta{0, 1, 1, 1};
}  // namespace fm

// The arguments of one operand group, whatever the layout; the adapter of a
// row passes the members its function takes.
struct Grp {
    const void* p = nullptr;  // base pointer (S, single in L) or table (P, L)
    int s0 = 0, s1 = 0, s2 = 0, shift = 0;
};

using Call = std::function<OrsStatus(const Grp&, const Grp&, const Grp&, int, int, int)>;

template <class T> struct Row {
    std::string name;
    bool sub;
    Form form;
    Layout lay;
    Call call;
};

// Which members an operand of a layout passes: S array s0 s1 s2; S single
// (and single in L) s1 s2; P array shift s0; P single shift; L array shift
// s1 s2.
template <class T, Layout L, bool Arr, bool Src> auto group(const Grp& g) {
    using E = std::conditional_t<Src, const T, T>;
    if constexpr (L == Layout::P) {
        auto t = static_cast<E* const*>(g.p);
        if constexpr (Arr) return std::make_tuple(t, g.shift, g.s0);
        else return std::make_tuple(t, g.shift);
    } else if constexpr (L == Layout::L && Arr) {
        return std::make_tuple(static_cast<E* const*>(g.p), g.shift, g.s1, g.s2);
    } else {
        auto p = static_cast<E*>(const_cast<void*>(g.p));
        if constexpr (Arr && L == Layout::S) return std::make_tuple(p, g.s0, g.s1, g.s2);
        else return std::make_tuple(p, g.s1, g.s2);
    }
}

template <class T, Layout L, bool AA, bool BA, class Fn> Call adapter(Fn fn) {
    return [fn](const Grp& a, const Grp& b, const Grp& d, int w, int h, int n) -> OrsStatus {
        auto args = std::tuple_cat(group<T, L, AA, true>(a), group<T, L, BA, true>(b),
                                   group<T, L, AA || BA, false>(d), std::make_tuple(w, h));
        if constexpr (AA || BA) return std::apply(fn, std::tuple_cat(args, std::make_tuple(n)));
        else return std::apply(fn, args);
    };
}

#define ROW(fam, form, T, t, sfx, LAY)                                                            \
    Row<T>{"orsm" #fam "_" #form "_" #t #sfx, std::string(#fam) == "Sub", fm::form, Layout::LAY, \
           adapter<T, Layout::LAY, fm::form.a_arr, fm::form.b_arr>(&orsm##fam##_##form##_##t##sfx)}
#define SINGLE(fam, form, T, t) ROW(fam, form, T, t, , S), ROW(fam, form, T, t, _P, P)
#define ARRAY(fam, form, T, t) SINGLE(fam, form, T, t), ROW(fam, form, T, t, _L, L)
#define ROWS(T, t)                                                                                \
    SINGLE(Add, mm, T, t), SINGLE(Add, tm, T, t), SINGLE(Add, tt, T, t), ARRAY(Add, mam, T, t),   \
        ARRAY(Add, tam, T, t), ARRAY(Add, mat, T, t), ARRAY(Add, tat, T, t),                      \
        ARRAY(Add, mama, T, t), ARRAY(Add, tama, T, t), ARRAY(Add, tata, T, t),                   \
        SINGLE(Sub, mm, T, t), SINGLE(Sub, tm, T, t), SINGLE(Sub, mt, T, t),                      \
        SINGLE(Sub, tt, T, t), ARRAY(Sub, mam, T, t), ARRAY(Sub, tam, T, t),                      \
        ARRAY(Sub, mat, T, t), ARRAY(Sub, tat, T, t), ARRAY(Sub, mama, T, t),                     \
        ARRAY(Sub, tama, T, t), ARRAY(Sub, mata, T, t), ARRAY(Sub, tata, T, t),                   \
        ARRAY(Sub, mma, T, t), ARRAY(Sub, tma, T, t), ARRAY(Sub, mta, T, t), ARRAY(Sub, tta, T, t)

template <class T> const std::vector<Row<T>>& rows();
template <> const std::vector<Row<float>>& rows() {
    static const std::vector<Row<float>> r{ROWS(float, 32f)};
    return r;
}
template <> const std::vector<Row<double>>& rows() {
    static const std::vector<Row<double>> r{ROWS(double, 64f)};
    return r;
}
template <class T> const Row<T>& find_row(const std::string& name) {
    for (const auto& r : rows<T>())
        if (r.name == name) return r;
    throw std::runtime_error("no row " + name);
}

// ---- operands of one call ------------------------------------------------------

struct Geometry {
    int w, h, count;
    bool contiguous = true;  // S, L: element strides equal to the element size
    bool soa = false;        // P: object stride equal to the element size
    bool packed = false;     // S: rows and objects back to back
};

// Sources as stored (a transposed one has width rows and height columns) and
// dst, filled with awkward values, dst with a marker.
template <class T> struct Call3 {
    Operand<T> a, b, d;
    const Row<T>& row;
    Geometry g;

    static Shape shape(bool arr, bool tr, const Geometry& g) {
        Shape s;
        s.rows = tr ? g.w : g.h;
        s.cols = tr ? g.h : g.w;
        s.array = arr;
        s.count = arr ? g.count : 1;
        s.contiguous = g.contiguous;
        s.soa = g.soa && arr;
        if (g.packed) s.row_gap = s.obj_gap = 0;
        return s;
    }
    // A single operand of a layout L function is passed as in layout S.
    static Layout lay(const Row<T>& row, bool arr) {
        return (row.lay == Layout::L && !arr) ? Layout::S : row.lay;
    }
    Call3(const Row<T>& r, Geometry geo, unsigned seed)
        : a(lay(r, r.form.a_arr), shape(r.form.a_arr, r.form.a_t, geo), seed),
          b(lay(r, r.form.b_arr), shape(r.form.b_arr, r.form.b_t, geo), seed + 1),
          d(lay(r, r.form.array()), shape(r.form.array(), false, geo), seed + 2),
          row(r),
          g(geo) {
        Values<T> va(seed * 3 + 1), vb(seed * 3 + 2);
        a.fill([&](int, int, int) { return va(); });
        b.fill([&](int, int, int) { return vb(); });
        d.fill([](int, int, int) { return T(-12345); });
        a.snapshot();
        b.snapshot();
        d.snapshot();
    }
    static Grp grp(Operand<T>& x) {
        const bool tabled = x.layout() == Layout::P || x.layout() == Layout::L;
        return {tabled ? static_cast<const void*>(x.table()) : x.ptr(), x.s0(), x.s1(), x.s2(),
                x.shift()};
    }
    OrsStatus run() { return run(grp(a), grp(b), grp(d), g.w, g.h, g.count); }
    OrsStatus run(const Grp& ga, const Grp& gb, const Grp& gd, int w, int h, int n) {
        return row.call(ga, gb, gd, w, h, n);
    }

    // Logical element (r, c) of a source for object n.
    T src(const Operand<T>& x, bool arr, bool tr, int n, int r, int c) const {
        const int k = arr ? n : 0;
        return tr ? x.at(k, c, r) : x.at(k, r, c);
    }
    T expected(int n, int r, int c) const {
        const T x = src(a, row.form.a_arr, row.form.a_t, n, r, c);
        const T y = src(b, row.form.b_arr, row.form.b_t, n, r, c);
        return row.sub ? T(x - y) : T(x + y);
    }
};

// Bit-exact, but which NaN comes out of an operation on two NaNs is the
// hardware's choice of operand order: there any NaN passes.
template <class T> bool same(T got, T want) {
    if (bits(got) == bits(want)) return true;
    return std::isnan(got) && std::isnan(want);
}

// Objects [0, upto) of dst hold the expected values, nothing else of dst
// changed, and the sources are untouched.
template <class T>::testing::AssertionResult results_ok(const Call3<T>& c, int upto) {
    for (int n = 0; n < upto; ++n)
        for (int r = 0; r < c.g.h; ++r)
            for (int k = 0; k < c.g.w; ++k)
                if (!same(c.d.at(n, r, k), c.expected(n, r, k)))
                    return ::testing::AssertionFailure()
                           << "object " << n << " element (" << r << ", " << k << "): got "
                           << c.d.at(n, r, k) << ", want " << c.expected(n, r, k);
    if (!c.d.only_elements_changed(upto))
        return ::testing::AssertionFailure() << "dst changed outside objects [0, " << upto << ")";
    if (!c.a.unchanged() || !c.b.unchanged())
        return ::testing::AssertionFailure() << "a source changed";
    return ::testing::AssertionSuccess();
}

template <class T> std::vector<Geometry> storage_variants(const Row<T>& r, int w, int h, int n) {
    if (r.lay == Layout::P) return {{w, h, n, true, false}, {w, h, n, true, true}};
    return {{w, h, n, true, false}, {w, h, n, false, false}};
}

template <class T> class AddSubMat : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(AddSubMat, Types);

// ---- results ----------------------------------------------------------------------

TYPED_TEST(AddSubMat, EveryFormMatchesTheScalarReference) {
    using T = TypeParam;
    const std::vector<std::pair<int, int>> sizes{{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5},
                                                 {6, 6}, {7, 7}, {8, 8}, {3, 4}, {4, 3},
                                                 {2, 5}, {6, 5}, {5, 6}, {7, 3}};
    unsigned seed = 1;
    for (const auto& row : rows<T>()) {
        SCOPED_TRACE(row.name);
        for (auto [w, h] : sizes)
            for (int n : row.form.array() ? std::vector<int>{1, 5} : std::vector<int>{1})
                for (const Geometry& g : storage_variants(row, w, h, n)) {
                    SCOPED_TRACE(::testing::Message() << w << "x" << h << " count " << n
                                                      << (g.contiguous ? "" : " strided")
                                                      << (g.soa ? " soa" : ""));
                    Call3<T> c(row, g, seed++);
                    ASSERT_EQ(c.run(), StatusOk);
                    ASSERT_TRUE(results_ok(c, n));
                }
    }
}

// The storage that takes the fast paths: planes of one element stride (P),
// packed arrays (S); counts below their threshold, and with tails after
// whole runs of every vector width.
TYPED_TEST(AddSubMat, FastPathsMatchTheScalarReference) {
    using T = TypeParam;
    unsigned seed = 7;
    for (const auto& row : rows<T>()) {
        if (!row.form.array() || row.lay == Layout::L) continue;
        SCOPED_TRACE(row.name);
        for (auto [w, h] : {std::pair{3, 3}, {4, 4}, {5, 5}, {6, 6}, {2, 3}, {7, 5}})
            for (int n : {1, 7, 17, 1000}) {
                Geometry g{w, h, n};
                g.soa = row.lay == Layout::P;
                g.packed = row.lay == Layout::S;
                SCOPED_TRACE(::testing::Message() << w << "x" << h << " count " << n);
                Call3<T> c(row, g, seed++);
                ASSERT_EQ(c.run(), StatusOk);
                ASSERT_TRUE(results_ok(c, n));
            }
    }
}

// Large enough to go parallel: the same results with one thread and two.
TYPED_TEST(AddSubMat, LargeCallsGiveTheSameResultsWithOneAndTwoThreads) {
    using T = TypeParam;
    for (const auto& row : rows<T>()) {
        if (!row.form.array()) continue;
        SCOPED_TRACE(row.name);
        for (int threads : {1, 2})
            for (const Geometry& g : storage_variants(row, 12, 9, 61)) {
                ThreadCount tc(threads);
                Call3<T> c(row, g, 99);
                ASSERT_EQ(c.run(), StatusOk);
                ASSERT_TRUE(results_ok(c, g.count));
            }
    }
}

TYPED_TEST(AddSubMat, SubtractsTheSecondSourceFromTheFirstAsLogicallyRead) {
    using T = TypeParam;
    // orsmSub_mt: src1 less the transpose of what src2 stores; 2 by 3 dst.
    const T a[6] = {1, 2, 3, 4, 5, 6};      // 2 rows, 3 columns
    const T b[6] = {10, 40, 20, 50, 30, 60};  // stored 3 rows, 2 columns
    T d[6] = {};
    const int E = sizeof(T);
    OrsStatus st;
    if constexpr (sizeof(T) == 4) st = orsmSub_mt_32f(a, 3 * E, E, b, 2 * E, E, d, 3 * E, E, 3, 2);
    else st = orsmSub_mt_64f(a, 3 * E, E, b, 2 * E, E, d, 3 * E, E, 3, 2);
    ASSERT_EQ(st, StatusOk);
    const T want[6] = {-9, -18, -27, -36, -45, -54};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(d[i], want[i]) << i;
}

// ---- checks -----------------------------------------------------------------------

// The members each operand of a row passes, so faults go where they exist.
struct Members {
    bool s0, s1s2, shift;
};
Members members(Layout lay, bool arr) {
    switch (lay) {
        case Layout::S: return {arr, true, false};
        case Layout::P: return {arr, false, true};
        default: return {false, true, arr};  // L; a single operand as in S
    }
}

template <class T> struct Faulty {
    Call3<T>& c;
    Grp g[3];
    int w, h, n;
    explicit Faulty(Call3<T>& call)
        : c(call), g{Call3<T>::grp(call.a), Call3<T>::grp(call.b), Call3<T>::grp(call.d)},
          w(call.g.w), h(call.g.h), n(call.g.count) {}
    bool arr(int k) const {
        return k == 0 ? c.row.form.a_arr : k == 1 ? c.row.form.b_arr : c.row.form.array();
    }
    Members m(int k) const { return members(c.row.lay, arr(k)); }
    OrsStatus run() const { return c.row.call(g[0], g[1], g[2], w, h, n); }
};

TYPED_TEST(AddSubMat, EachFaultGivesItsStatusAndLeavesDstUntouched) {
    using T = TypeParam;
    const int E = sizeof(T);
    for (const auto& row : rows<T>()) {
        SCOPED_TRACE(row.name);
        Call3<T> c(row, {3, 3, 2}, 5);
        auto expect = [&](const Faulty<T>& f, OrsStatus want, const char* what) {
            EXPECT_EQ(f.run(), want) << what;
            EXPECT_TRUE(c.d.unchanged()) << what;
        };
        for (int k = 0; k < 3; ++k) {
            SCOPED_TRACE(::testing::Message() << "operand " << k);
            Faulty<T> f(c);
            f.g[k].p = nullptr;
            expect(f, StatusNullPointer, "null");
            f.n = 0;  // pointers come before the count
            expect(f, StatusNullPointer, "null with count 0");
            for (int bad : {0, -E, E + E / 2, 3}) {
                Faulty<T> s(c);
                if (s.m(k).s0) {
                    s.g[k].s0 = bad;
                    expect(s, StatusBadStride, "stride0");
                }
                if (s.m(k).s1s2) {
                    Faulty<T> s1(c), s2(c);
                    s1.g[k].s1 = bad;
                    s2.g[k].s2 = bad;
                    expect(s1, StatusBadStride, "stride1");
                    expect(s2, StatusBadStride, "stride2");
                }
            }
            if (f.m(k).shift)
                for (int bad : {-E, E / 2, 2}) {
                    Faulty<T> s(c);
                    s.g[k].shift = bad;
                    expect(s, StatusBadRoiShift, "shift");
                }
        }
        for (auto [w, h] : {std::pair{0, 3}, {3, 0}, {-1, 3}}) {
            Faulty<T> f(c);
            f.w = w;
            f.h = h;
            expect(f, StatusBadSize, "size");
        }
        if (row.form.array())
            for (int n : {0, -1}) {
                Faulty<T> f(c);
                f.n = n;
                expect(f, StatusBadCount, "count");
                f.w = 0;  // count comes before the sizes
                expect(f, StatusBadCount, "count with bad size");
            }
    }
}

// Two faults at once: which status answers depends on the form and layout.
TYPED_TEST(AddSubMat, TheOrderOfTheChecksDecidesBetweenTwoFaults) {
    using T = TypeParam;
    for (const auto& row : rows<T>()) {
        SCOPED_TRACE(row.name);
        Call3<T> c(row, {3, 3, 2}, 6);
        const bool strides_first = row.lay == Layout::S && (row.form.a_arr != row.form.b_arr) &&
                                   !row.form.a_t && !row.form.b_t;  // mam and mma
        // A bad stride of dst (stride2 in S and L, stride0 in P, for arrays)
        // with a bad width.
        Faulty<T> f(c);
        if (row.lay == Layout::P) {
            if (row.form.array()) f.g[2].s0 = 3;
            else f.g[2].shift = 3;
        } else {
            f.g[2].s2 = 3;
        }
        f.w = 0;
        EXPECT_EQ(f.run(), strides_first ? StatusBadStride : StatusBadSize);
        // Layouts P and L: strides (stride0 in P) before shifts.
        if (row.lay != Layout::S && row.form.array()) {
            Faulty<T> g(c);
            g.g[2].shift = -8;
            if (row.lay == Layout::P) g.g[2].s0 = 0;
            else g.g[2].s1 = 0;
            EXPECT_EQ(g.run(), StatusBadStride);
        }
        EXPECT_TRUE(c.d.unchanged());
    }
}

TEST(AddSubMatChecks, MamAndTamDifferOnABadStrideWithAZeroWidth) {
    float a[9] = {}, b[9] = {}, d[9] = {};
    EXPECT_EQ(orsmAdd_mam_32f(a, 36, 12, 3, b, 12, 4, d, 36, 12, 4, 0, 3, 1), StatusBadStride);
    EXPECT_EQ(orsmAdd_tam_32f(a, 36, 12, 3, b, 12, 4, d, 36, 12, 4, 0, 3, 1), StatusBadSize);
    EXPECT_EQ(orsmSub_mma_32f(a, 12, 3, b, 36, 12, 4, d, 36, 12, 4, 0, 3, 1), StatusBadStride);
    EXPECT_EQ(orsmSub_mta_32f(a, 12, 3, b, 36, 12, 4, d, 36, 12, 4, 0, 3, 1), StatusBadSize);
}

// ---- the serial/parallel boundary ---------------------------------------------------

// Inside a serialized two-thread region a parallel call processes only member
// 0's share: all objects written means the call stayed serial.
template <class T> int objects_written(const Row<T>& row, const Geometry& g) {
    ThreadCount tc(2);
    Call3<T> c(row, g, 11);
    OrsStatus st = StatusBadSize;
    in_serialized_region([&] { st = c.run(); });
    EXPECT_EQ(st, StatusOk);
    const int part = first_share(g.count, 2);
    const bool serial = c.d.at(g.count - 1, 0, 0) != T(-12345);
    const int upto = serial ? g.count : part;
    EXPECT_TRUE(results_ok(c, upto));
    return upto;
}

TYPED_TEST(AddSubMat, WorkEqualToTheLimitGoesParallel) {
    using T = TypeParam;
    for (const auto& row : rows<T>()) {
        if (!row.form.array()) continue;
        SCOPED_TRACE(row.name);
        for (bool contiguous : row.lay == Layout::P ? std::vector<bool>{true}
                                                    : std::vector<bool>{true, false}) {
            SCOPED_TRACE(contiguous ? "contiguous" : "strided");
            const bool high = sizeof(T) == 4 && row.lay == Layout::S && contiguous;
            // {w, h, count} at the limit (or the first W past it that the
            // formula can reach) and one step below.
            Geometry at, below;
            if (!row.form.both()) {  // W = w*h*(2n + 1)
                at = high ? Geometry{10, 20, 7} : Geometry{8, 10, 12};  // 3000, 2000
                below = high ? Geometry{1, 1, 1499} : Geometry{1, 1, 999};  // 2999, 1999
            } else {  // W = 3*w*h*n: no W of 2000 exists
                at = high ? Geometry{10, 10, 10} : Geometry{1, 23, 29};  // 3000, 2001
                below = high ? Geometry{9, 3, 37} : Geometry{6, 3, 37};  // 2997, 1998
            }
            at.contiguous = below.contiguous = contiguous;
            EXPECT_EQ(objects_written(row, at), first_share(at.count, 2)) << "at the limit";
            EXPECT_EQ(objects_written(row, below), below.count) << "below the limit";
        }
    }
}

TEST(AddSubMatLimits, OnlyThe32fContiguousStridedLayoutHasTheHigherLimit) {
    // 10 by 10, count 14: W of 2900, serial when contiguous, parallel when
    // strided; count 15: W of 3100, parallel both ways.
    const auto& row = find_row<float>("orsmAdd_mam_32f");
    EXPECT_EQ(objects_written(row, {10, 10, 14, true}), 14);
    EXPECT_EQ(objects_written(row, {10, 10, 14, false}), 7);
    EXPECT_EQ(objects_written(row, {10, 10, 15, true}), 8);
    EXPECT_EQ(objects_written(row, {10, 10, 15, false}), 8);
    // 64f: W of exactly 2000 goes parallel, contiguous or not.
    const auto& row64 = find_row<double>("orsmAdd_mam_64f");
    EXPECT_EQ(objects_written(row64, {20, 20, 2, true}), 1);
    EXPECT_EQ(objects_written(row64, {20, 20, 2, false}), 1);
}

// ---- dst overlapping a source ------------------------------------------------------

// dst object 0 lies on the single source. The order paths hold the single
// operand from before the first write; the general loop, and the kernels
// that go object by object through a single-matrix kernel, read it afresh.
struct OverlapCase {
    const char* name;
    int order;
    bool contiguous;
    bool held;
};

template <class T> void overlap_on_single(const OverlapCase& oc) {
    SCOPED_TRACE(::testing::Message() << oc.name << " order " << oc.order
                                      << (oc.contiguous ? "" : " strided"));
    const auto& row = find_row<T>(oc.name);
    const bool single_first = !row.form.a_arr;
    Call3<T> c(row, {oc.order, oc.order, 3, oc.contiguous}, 21);
    Values<T> v(4, 0.0);
    c.a.fill([&](int, int, int) { return v(); });
    c.b.fill([&](int, int, int) { return v(); });
    Operand<T>& single = single_first ? c.a : c.b;
    // The single operand becomes dst object 0: same base and row strides.
    Grp gs = Call3<T>::grp(c.d);
    Grp ga = Call3<T>::grp(c.a), gb = Call3<T>::grp(c.b);
    const int N = oc.order;
    std::vector<T> orig(N * N), arr[3];
    for (int r = 0; r < N; ++r)
        for (int k = 0; k < N; ++k) orig[r * N + k] = single.at(0, r, k);
    for (int n = 0; n < 3; ++n)
        for (int r = 0; r < N; ++r)
            for (int k = 0; k < N; ++k) {
                arr[n].push_back(single_first ? c.b.at(n, r, k) : c.a.at(n, r, k));
                c.d.at(n, r, k) = orig[r * N + k];
            }
    Grp& gsingle = single_first ? ga : gb;
    if (row.lay == Layout::P) {
        gsingle.p = gs.p;
        gsingle.shift = gs.shift;
    } else {
        // In layout L dst object 0 starts at its table entry plus the shift.
        gsingle.p = row.lay == Layout::L
                        ? static_cast<const void*>(reinterpret_cast<const char*>(c.d.table()[0]) +
                                                   c.d.shift())
                        : gs.p;
        gsingle.s1 = gs.s1;
        gsingle.s2 = gs.s2;
    }
    ASSERT_EQ(c.run(ga, gb, gs, N, N, 3), StatusOk);
    std::vector<T> cur = orig;  // the single operand as the kernel sees it
    for (int n = 0; n < 3; ++n) {
        for (int r = 0; r < N; ++r)
            for (int k = 0; k < N; ++k) {
                const T s = cur[r * N + k], x = arr[n][r * N + k];
                const T want = single_first ? T(s - x) : (row.sub ? T(x - s) : T(x + s));
                ASSERT_EQ(bits(c.d.at(n, r, k)), bits(want)) << n << " " << r << " " << k;
            }
        if (n == 0 && !oc.held)
            for (int r = 0; r < N; ++r)
                for (int k = 0; k < N; ++k) cur[r * N + k] = c.d.at(0, r, k);
    }
}

TEST(AddSubMatOverlap, TheSingleOperandIsHeldByTheOrderPathsOnly) {
    const OverlapCase f32[] = {
        {"orsmAdd_mam_32f", 3, true, true},    {"orsmAdd_mam_32f", 6, true, true},
        {"orsmAdd_mam_32f", 7, true, false},   {"orsmAdd_mam_32f", 4, false, true},
        {"orsmAdd_mam_32f_P", 5, true, true},  {"orsmAdd_mam_32f_L", 3, true, true},
        {"orsmAdd_mam_32f_L", 3, false, false}, {"orsmSub_mma_32f", 4, true, true},
        {"orsmSub_mma_32f_L", 5, true, true},  {"orsmSub_mma_32f_L", 5, false, false},
        {"orsmSub_mma_32f_P", 8, true, false},
    };
    for (const auto& oc : f32) overlap_on_single<float>(oc);
    const OverlapCase f64[] = {
        {"orsmAdd_mam_64f", 3, true, true},    {"orsmAdd_mam_64f_L", 3, true, false},
        {"orsmSub_mma_64f_L", 4, true, true},  {"orsmSub_mma_64f", 6, false, true},
        {"orsmSub_mam_64f_P", 2, true, false},
    };
    for (const auto& oc : f64) overlap_on_single<double>(oc);
}

}  // namespace

namespace {

// dst object n lies on src1 object n+1. The 32f contiguous mam kernel reads
// the next object before it stores the current one at order 3, so each
// result uses src1 as it was; elsewhere object n+1 is read after object n
// was stored over it, and the sums build up.
template <class T> void overlap_ahead(bool list, int N, bool ahead) {
    SCOPED_TRACE(::testing::Message() << sizeof(T) * 8 << (list ? " L" : " S") << " order " << N);
    const int cnt = 4, E = sizeof(T), obj = N * N;
    std::vector<T> buf((cnt + 1) * obj), b(obj);
    Values<T> v(8, 0.0);
    for (T& x : buf) x = v();
    for (T& x : b) x = v();
    const std::vector<T> orig = buf;
    std::vector<const T*> st;
    std::vector<T*> dt;
    for (int n = 0; n < cnt; ++n) {
        st.push_back(buf.data() + n * obj);
        dt.push_back(buf.data() + (n + 1) * obj);
    }
    OrsStatus s;
    if constexpr (sizeof(T) == 4)
        s = list ? orsmAdd_mam_32f_L(st.data(), 0, N * E, E, b.data(), N * E, E, dt.data(), 0,
                                     N * E, E, N, N, cnt)
                 : orsmAdd_mam_32f(st[0], obj * E, N * E, E, b.data(), N * E, E, dt[0], obj * E,
                                   N * E, E, N, N, cnt);
    else
        s = list ? orsmAdd_mam_64f_L(st.data(), 0, N * E, E, b.data(), N * E, E, dt.data(), 0,
                                     N * E, E, N, N, cnt)
                 : orsmAdd_mam_64f(st[0], obj * E, N * E, E, b.data(), N * E, E, dt[0], obj * E,
                                   N * E, E, N, N, cnt);
    ASSERT_EQ(s, StatusOk);
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
    for (bool list : {false, true}) {
        overlap_ahead<float>(list, 3, true);
        overlap_ahead<float>(list, 4, false);
        overlap_ahead<double>(list, 3, false);
    }
}

}  // namespace
