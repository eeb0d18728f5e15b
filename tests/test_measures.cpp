// Trace, FrobNorm and Det: every result against a scalar reference, bit for
// bit where the order of the arithmetic is bound (in FrobNorm's lane kernels
// to a few units in the last place), in every form, layout, kind and type;
// check orders; each limit at its boundary; the scratch rules of Det; the
// stated small-value and order cases.
#include <climits>

#include "calls.hpp"
#include "measures_ref.hpp"

using namespace orsmtest;

namespace {

enum class Fam { Trace, FrobNorm, Det };
const char* fam_name(Fam f) { return f == Fam::Trace ? "Trace" : f == Fam::FrobNorm ? "FrobNorm" : "Det"; }

struct Case {
    Fam fam;
    bool array;
    Layout lay;
    std::string stem() const { return std::string(fam_name(fam)) + (array ? "_ma" : "_m"); }
};
std::vector<Case> cases() {
    std::vector<Case> v;
    for (Fam f : {Fam::Trace, Fam::FrobNorm, Fam::Det})
        for (bool a : {false, true})
            for (Layout l : {Layout::S, Layout::P, Layout::L})
                if (a || l != Layout::L) v.push_back({f, a, l});
    return v;
}
// Element stride of the element size or not (S, L); object stride of one
// element (P); rows back to back (S).
struct Mode {
    bool contiguous = true, soa = false, packed = false;
};
std::vector<Mode> modes(Layout l) {
    if (l == Layout::P) return {Mode{}, Mode{true, true}};
    if (l == Layout::S) return {Mode{}, Mode{false}, Mode{true, false, true}};
    return {Mode{}, Mode{false}};
}

template <class T> struct Trial {
    Case cs;
    Mode m;
    int w, h, count;
    Call<T> c;
    Operand<T>* src;
    Packed<T> dst, buf;
    Trial(const Case& cs_, Mode m_, int w_, int h_, int count_, unsigned seed, bool wide = false)
        : cs(cs_), m(m_), w(w_), h(h_), count(cs_.array ? count_ : 1), c(cs_.stem(), cs_.lay),
          dst(std::size_t(count) + 1), buf(std::size_t(w_) * (w_ + 1)) {
        Shape sh{h, w, count, cs.array, m.contiguous, m.soa};
        if (m.packed) sh.row_gap = sh.obj_gap = 0;
        src = &c.bind("src", cs.array, sh, seed);
        Values<T> vals(seed);
        src->fill([&](int, int, int) { return wide ? vals.wide() : vals(); });
        c.ptr("dst") = dst.data();
        if (c.takes("buffer")) c.ptr("buffer") = buf.data();
        if (c.takes("size")) c.arg("size") = w;
        else c.arg("width") = w, c.arg("height") = h;
        if (cs.array) c.arg("count") = count;
        c.snapshot(), dst.snapshot(), buf.snapshot();
    }
    // The kernel kind that serves the call.
    bool strided() const { return cs.lay != Layout::P && !m.contiguous; }
    std::string where() const {
        return c.name() + " " + std::to_string(w) + "x" + std::to_string(h) + " count=" + std::to_string(count) +
               (m.contiguous ? "" : " strided") + (m.soa ? " soa" : "") + (m.packed ? " packed" : "");
    }

    // Result of object n by the reference, and whether only a tolerance
    // binds it (FrobNorm's lane kernels).
    std::pair<T, bool> want(int n) const {
        auto x = [&](int r, int k) { return src->at(cs.array ? n : 0, r, k); };
        switch (cs.fam) {
            case Fam::Trace: return {ref::trace<T>(x, w, strided()), false};
            case Fam::Det: return {ref::det<T>(x, w), false};
            case Fam::FrobNorm: break;
        }
        const bool is32 = sizeof(T) == 4, P = cs.lay == Layout::P;
        const bool lanes = !P && (cs.array ? cs.lay == Layout::S && m.contiguous : is32);
        T s = P && !(cs.array && w == 3 && h == 3) ? ref::squares_pairs<T>(x, w, h) : ref::squares_running<T>(x, w, h);
        // The lane kernels are held to a tolerance on finite sums (an
        // infinite or NaN sum is so in any order).
        const bool loose = lanes && std::isfinite(s);
        if (loose) s = T(ref::squares_running<long double>(x, w, h));
        // Small sums: the 64f single matrix in S takes every root; lane
        // kernels give 0 at or below the tolerance, the others below it.
        const bool never = !P && !cs.array && !is32;
        if (!never && (lanes ? s <= ref::tol<T>() : s < ref::tol<T>())) return {T(0), false};
        return {std::sqrt(s), loose};
    }

    // dst [0, upto) holds the references, dst beyond and src unchanged.
    testing::AssertionResult check(int upto) const {
        for (int n = 0; n < count; ++n) {
            const T got = dst.get(std::size_t(n));
            if (n >= upto) {
                if (bits(got) != bits(Packed<T>(1).get(0))) return testing::AssertionFailure() << n << " written";
                continue;
            }
            const auto [w0, loose] = want(n);
            const bool ok = std::isnan(w0) ? std::isnan(got)
                            : bits(got) == bits(w0) ||
                                  (loose && std::fabs(got - w0) <= T(8) * std::numeric_limits<T>::epsilon() * w0);
            if (!ok) return testing::AssertionFailure() << "object " << n << ": " << got << " want " << w0;
        }
        if (!dst.guards_intact()) return testing::AssertionFailure() << "dst guard bytes changed";
        if (!src->unchanged()) return testing::AssertionFailure() << "src changed";
        return testing::AssertionSuccess();
    }
};

std::vector<std::pair<int, int>> sizes(Fam f) {
    if (f != Fam::FrobNorm) return {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8}, {11, 11}};
    return {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {9, 9}, {3, 5}, {5, 3}, {7, 2}, {1, 13}, {10, 4}};
}

template <class T> class Measures : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(Measures, Types);

// Random values with NaN, infinities, signed zeros and subnormals among
// them; and finite values over a wide range, where the order of additions
// shows in the low bits.
TYPED_TEST(Measures, ResultsAgainstReference) {
    unsigned seed = 1;
    for (const Case& cs : cases())
        for (Mode m : modes(cs.lay))
            for (auto [w, h] : sizes(cs.fam))
                for (bool wide : {false, true})
                    for (int count : {1, 7}) {
                        if (!cs.array && count > 1) continue;
                        Trial<TypeParam> t(cs, m, w, h, count, seed++, wide);
                        EXPECT_EQ(t.c.run(), StatusOk) << t.where();
                        EXPECT_TRUE(t.check(t.count)) << t.where() << (wide ? " wide" : "");
                    }
}

// Check order: pointers, count, sizes, strides, shifts (each where the call
// has it); every argument fault alone, with nothing written.
TYPED_TEST(Measures, FaultsInOrderWithNothingWritten) {
    const std::string E = std::to_string(sizeof(TypeParam));
    for (const Case& cs : cases()) {
        Trial<TypeParam> t(cs, Mode{}, 3, 3, 2, 5);
        auto untouched = [&] { return t.dst.unchanged() && t.buf.unchanged(); };
        expect_checks_in_order(t.c,
                               {{cs.fam == Fam::Det ? "buffer=0" : "dst=0", StatusNullPointer},
                                {"count=0", StatusBadCount},
                                {cs.fam == Fam::FrobNorm ? "height=0" : "size=0", StatusBadSize},
                                {cs.lay == Layout::P ? "srcStride0=-" + E : "srcStride1=2", StatusBadStride},
                                {"srcRoiShift=-" + E, StatusBadRoiShift}},
                               untouched);
        // Every pointer, stride, shift, size and count alone (the buffer of
        // order 3, which it does not use, too).
        check_every_argument(t.c);
        EXPECT_TRUE(untouched()) << t.c.name();
    }
}

// ---- limits --------------------------------------------------------------------------

// Serial below every cell (W equal goes parallel).
template <class T> int limit(const Case& cs, Mode m) {
    const bool is32 = sizeof(T) == 4;
    switch (cs.fam) {
        case Fam::Trace: return 3601;
        case Fam::Det: return 14401;
        case Fam::FrobNorm: break;
    }
    if (cs.lay == Layout::L) return 1601;
    if (cs.lay == Layout::P) return is32 ? 1501 : 2501;
    return m.contiguous ? (is32 ? 2501 : 1801) : (is32 ? 1801 : 1501);
}
TYPED_TEST(Measures, ParallelFromTheLimitWithTheSameBits) {
    for (const Case& cs : cases()) {
        if (!cs.array) continue;
        auto work = [&](int w, int h, int n) {
            return cs.fam == Fam::FrobNorm ? w * h * n : w == h ? w * n : INT_MAX;
        };
        for (Mode m : modes(cs.lay)) {
            if (m.packed || (cs.fam != Fam::FrobNorm && cs.lay != Layout::S && m.contiguous)) continue;
            const int lim = limit<TypeParam>(cs, m);
            for (int side : {0, 1}) {
                const auto g = limit_cell(work, lim, side, true);
                Trial<TypeParam> t(cs, m, g[0], g[1], g[2], 3);
                EXPECT_EQ(run_serialized(t.c), StatusOk);
                EXPECT_TRUE(t.check(side ? first_share(g[2], 2) : g[2]))
                    << t.where() << " W=" << g[3] << (side ? " parallel" : " serial");
            }
            // A real team of two gives the bits of one thread; Det's
            // members eliminate each in its own part of the workspace.
            ThreadCount tc(2);
            const int n = cs.fam == Fam::Det ? 8 : 5;
            Trial<TypeParam> t(cs, m, n, n, cs.fam == Fam::Det ? 1900 : 801, 17, true);
            EXPECT_EQ(t.c.run(), StatusOk);
            EXPECT_TRUE(t.check(t.count)) << t.where() << " two threads";
        }
    }
}

// The parallel form takes its own workspace and leaves the caller's buffer
// alone; below the limit, or with a count under the team size, the caller's
// buffer serves.
TYPED_TEST(Measures, DetScratchOfTheCallerOnlyWhenSerial) {
    const Case cs{Fam::Det, true, Layout::S};
    for (int count : {1800, 1801}) {
        Trial<TypeParam> t(cs, Mode{}, 8, 8, count, 9, true);
        EXPECT_EQ(run_serialized(t.c), StatusOk);
        EXPECT_EQ(t.buf.unchanged(), count == 1801) << count;
        EXPECT_TRUE(t.check(count == 1801 ? first_share(count, 2) : count)) << t.where();
    }
    // Past the limit with a count under the team size: serial, in the
    // caller's buffer, every object done.
    Trial<TypeParam> t(cs, Mode{}, 8, 8, 1801, 9, true);
    ThreadCount tc(2000);
    EXPECT_EQ(t.c.run(), StatusOk);
    EXPECT_FALSE(t.buf.unchanged());
    EXPECT_TRUE(t.check(1801)) << t.where();
}

// ---- stated values --------------------------------------------------------------------

// One h by w matrix packed by rows, its elements `step` apart, through a
// family's single or array form in layout S, P or L.
template <class T> T one(const std::string& stem, const std::string& lay, std::vector<T> a, int w, int h = 0,
                         int step = 1) {
    h = h ? h : w;
    std::vector<T> buf(w * (w + 1));
    std::vector<const T*> table{a.data()};
    if (lay == "P")
        for (int i = 1; i < w * h; ++i) table.push_back(&a[i * step]);
    T d = T(-99);
    Call<T> c(stem, lay);
    c.ptr("src") = lay == "S" ? static_cast<void*>(a.data()) : table.data();
    c.ptr("buffer") = buf.data(), c.ptr("dst") = &d;
    const auto E = [&](int k) { return std::to_string(k * step * int(sizeof(T))); };
    c.set("srcRoiShift=0 count=1 srcStride0=" + E(w * h) + " srcStride1=" + E(w) + " srcStride2=" + E(1) +
          " size=" + std::to_string(w) + " width=" + std::to_string(w) + " height=" + std::to_string(h));
    EXPECT_EQ(c.run(), StatusOk) << stem << " " << lay;
    return d;
}
template <class T> std::vector<T> diagonal(std::vector<T> d, T off = 0) {
    const int n = int(d.size());
    std::vector<T> a(n * n, off);
    for (int i = 0; i < n; ++i) a[i * n + i] = d[i];
    return a;
}

TEST(MeasuresValues, DetSmallPivotsAndExactZeros) {
    // Order 2 pivots on 3 and multiplies by 1/3 rounded.
    for (const char* lay : {"S", "P"}) EXPECT_EQ(one<float>("Det_m", lay, {1, 2, 3, 4}, 2), -1.9999998807907104f);
    // Exact products and sums in the closed form of order 3.
    EXPECT_EQ(bits(one<float>("Det_m", "S", {1, 2, 3, 4, 5, 6, 7, 8, 9}, 3)), bits(0.0f));
    // Order 1: the element, but 0 at or below the tolerance.
    EXPECT_EQ(one<float>("Det_ma", "L", {0x1p-23f}, 1), 0.0f);
    EXPECT_EQ(one<float>("Det_m", "S", {0x1.000002p-23f}, 1), 0x1.000002p-23f);
    // A small pivot stops the elimination however fair the determinant;
    // the closed forms test nothing.
    for (int n = 3; n <= 8; ++n) {
        std::vector<float> d(n, 1.0f);
        d[0] = 1e-08f, d[1] = 1e+08f;
        EXPECT_EQ(bits(one("Det_m", "S", diagonal(d), n)), bits(n <= 6 ? 1e-08f * 1e+08f : 0.0f)) << n;
    }
    // Strict inside the loop, at or below at the last pivot.
    std::vector<double> d7(7, 1.0);
    d7[0] = 0x1p-52;
    EXPECT_EQ(one("Det_m", "S", diagonal(d7), 7), 0x1p-52);
    d7[0] = 1, d7[6] = 0x1p-52;
    EXPECT_EQ(one("Det_m", "S", diagonal(d7), 7), 0.0);
    // A zero first column at order 7 stops at column 0.
    auto z = diagonal(std::vector<double>(7, 3.0), 2.0);
    for (int r = 0; r < 7; ++r) z[r * 7] = 0;
    EXPECT_EQ(bits(one("Det_m", "S", z, 7)), bits(0.0));
    // Equal magnitudes keep the earlier row as pivot.
    Values<float> vals(5);
    for (int trial = 0; trial < 20; ++trial) {
        std::vector<float> a(49);
        for (auto& v : a) v = vals.wide();
        a[0] = 0x1p21f, a[7] = -0x1p21f;
        auto x = [&](int r, int c) { return a[r * 7 + c]; };
        EXPECT_EQ(bits(one("Det_m", "S", a, 7)), bits(ref::det_elim<float>(x, 7))) << trial;
    }
}

// Order 5 strided starts at a44: a large a44 swallows the small others
// added one by one, where the contiguous sum keeps them. Orders without a
// path start from +0: a diagonal of -0 gives +0 there, -0 at orders 3 to 6.
TEST(MeasuresValues, TraceOrderOfAdditions) {
    for (int step : {1, 2}) {
        std::vector<float> a(50, std::nanf(""));  // only the diagonal is read
        for (int i = 0; i < 5; ++i) a[(i * 5 + i) * step] = i == 4 ? 1.0f : 0x1p-24f;
        EXPECT_EQ(one("Trace_m", "S", a, 5, 5, step), step == 1 ? 1.0f + 0x1p-22f : 1.0f);
    }
    for (int n : {1, 2, 3, 6, 7})
        EXPECT_EQ(std::signbit(one("Trace_m", "P", std::vector<double>(n * n, -0.0), n)), n >= 3 && n <= 6) << n;
}

// The small-sum rule is on the sum of squares: at or below the tolerance
// in the lane kernels, strictly below in the others, never in the 64f
// single matrix of layout S.
TEST(MeasuresValues, FrobNormSmallSums) {
    EXPECT_EQ(one<float>("FrobNorm_m", "S", {1e-04f}, 1), 0.0f);
    EXPECT_EQ(one<double>("FrobNorm_m", "S", {1e-09}, 1), 1e-09);
    EXPECT_EQ(one<double>("FrobNorm_m", "P", {1e-09}, 1), 0.0);
    // Sums of exactly the tolerance.
    const std::vector<float> t32{0x1p-12f, 0x1p-12f};
    const std::vector<double> t64(4, 0x1p-27);
    for (const char* stem : {"FrobNorm_m", "FrobNorm_ma"}) {
        EXPECT_EQ(one(stem, "S", t32, 2, 1), 0.0f) << stem;
        EXPECT_EQ(one(stem, "P", t32, 2, 1), std::sqrt(0x1p-23f)) << stem;
    }
    EXPECT_EQ(one("FrobNorm_ma", "L", t32, 2, 1), std::sqrt(0x1p-23f));
    EXPECT_EQ(one("FrobNorm_ma", "S", t64, 4, 1), 0.0);
    EXPECT_EQ(one("FrobNorm_ma", "L", t64, 4, 1), std::sqrt(0x1p-52));
    // The refined root passes infinity.
    EXPECT_EQ(one<float>("FrobNorm_m", "S", {3e38f, 1.0f}, 2, 1), std::numeric_limits<float>::infinity());
}

}  // namespace
