// Invert: bit for bit against a model where the order is bound, by residual
// elsewhere, in every form, layout, kind and type; each kernel's tests at
// their thresholds; pivot rules; status rules; checks; limits.
#include "common/estimates.hpp"
#include "measures_ref.hpp"
#include "solvers.hpp"

using namespace orsmtest;

namespace {

const std::vector<Fn> fns = forms("Invert", {"m", "ma"});
enum class Kind { Scalar, Single32, Arrays32, Packed64, Band64 };

template <class T> struct Trial {
    Call<T> c;
    bool array, strided;
    int N, count;
    Kind kind;
    Operand<T> *src, *dst;
    Packed<T> buf;  // never read back: its contents are scrap
    std::vector<Mat<T>> a, d;  // src, and dst as it stood, then as the model leaves it
    Trial(const Fn& f, bool strd, int n, int cnt, bool in_place = false)
        : c(f.first, f.second), array(is_array(f)), strided(strd && f.second != Layout::P), N(n),
          count(array ? cnt : 1), buf(std::size_t(n) * (n + 1)) {
        kind = strd || f.second == Layout::P ? Kind::Scalar : sizeof(T) == 4 ? (array ? Kind::Arrays32 : Kind::Single32)
                                                            : (f.second == Layout::L ? Kind::Band64 : Kind::Packed64);
        const Shape sh{N, N, count, array, !strided, strd && f.second == Layout::P};
        src = &c.bind("src", array, sh, 1);
        dst = in_place ? &c.attach("dst", *src) : &c.bind("dst", array, sh, 2);
        dst->fill([](int, int, int) { return T(7); });
        c.ptr("buffer") = buf.data(), c.arg("size") = N, c.arg("count") = count;
    }
    template <class G> OrsStatus run(G&& gen) {
        src->fill(gen);
        for (int o = 0; o < count; ++o) a.push_back(elements(*src, o)), d.push_back(elements(*dst, o));
        return c.snapshot(), c.run();
    }
    static constexpr T tol = ref::tol<T>();
    static bool passes(Kind k, T x) { return k == Kind::Band64 ? !(std::fabs(x) < 1e-15) : std::fabs(x) >= tol; }
    // Object o into d[o] where the order is bound; false elsewhere.
    bool model(int o) {
        const Mat<T>& s = src == dst ? d[o] : a[o];  // dst on src: the cofactors read what they wrote
        auto at = [&](int r, int k) { return s[r * N + k]; };
        if (N == 1 && (array ? !(std::fabs(at(0, 0)) <= T(0x1p-23)) : std::fabs(at(0, 0)) > tol)) {
            d[o][0] = T(1) / at(0, 0);
        } else if (N == 3 && kind != Kind::Single32) {  // not the refined reciprocal
            auto m = [&](int j, int i) {  // the minor less row j and column i
                const int r0 = j == 0, r1 = 2 - (j == 2), c0 = i == 0, c1 = 2 - (i == 2);
                return at(r0, c0) * at(r1, c1) - at(r0, c1) * at(r1, c0);
            };
            const T det = kind >= Kind::Packed64 ? ((at(0, 0) * m(0, 0)) + (at(2, 0) * m(2, 0))) - (at(1, 0) * m(1, 0))
                                                 : ((at(2, 0) * m(2, 0)) - (at(1, 0) * m(1, 0))) + (at(0, 0) * m(0, 0));
            Mat<T> out = d[o];  // all of src read first
            for (int i = 0; i < 9 && passes(kind, det); ++i)
                out[i] = (i / 3 + i % 3) % 2 ? (T(0) - m(i % 3, i / 3)) * (T(1) / det) : m(i % 3, i / 3) * (T(1) / det);
            d[o] = out;
        } else if (N == 2 || N > 6) {
            // Det's elimination, 0 where it fails (the data hold no NaN).
            const T det = ref::det_elim<T>(at, N);  // before anything is written
            for (int i = 0; i < N * N && det != T(0); ++i) {
                auto minor = [&](int r, int k) { return at(r + (r >= i / N), k + (k >= i % N)); };
                const T x = ref::det_elim<T>(minor, N - 1) * (T(1) / det);
                d[o][i % N * N + i / N] = x * ((i / N + i % N) % 2 ? T(-1) : T(1));
            }
        }
        return N < 3 || N > 6 || (N == 3 && kind != Kind::Single32);
    }
    // Objects [0, upto) as the model, or A X = I closely where nothing is
    // bound; the others as they stood, but for row 0 of a singular object
    // `skip` in the 32f arrays at orders 5 and 6; no byte outside objects.
    testing::AssertionResult check(int upto, int skip = -1) {
        for (int o = 0; o < count; ++o) {
            const Mat<T> got = elements(*dst, o);
            const bool done = o < upto && o != skip, exact = !done || model(o);
            const int from = o == skip && kind == Kind::Arrays32 && (N == 5 || N == 6) ? N : 0;
            for (int i = 0; i < N * N; ++i) {
                double r = i / N == i % N ? -1 : 0;
                for (int k = 0; k < N && !exact; ++k) r += double(a[o][i / N * N + k]) * got[k * N + i % N];
                if (exact ? i >= from && bits(got[i]) != bits(d[o][i]) : !(std::fabs(r) < (tol > 1e-9 ? 1e-4 : 1e-12)))
                    return testing::AssertionFailure() << o << "[" << i << "] " << got[i] << " " << d[o][i];
            }
        }
        if (dst->only_elements_changed() && (src == dst || src->unchanged())) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "guards";
    }
    std::string where() const { return c.name() + " N=" + std::to_string(N) + (strided ? " strided" : ""); }
};

template <class T> class Invert : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(Invert, Types);

// Every form, stride mix and order, dst apart and on src (right at orders 3
// to 6, the cofactors' own wrong answer from 2 and 7 up).
TYPED_TEST(Invert, ModelOrResidual) {
    Values<TypeParam> v(5, 0);
    for (const auto& f : fns)
        for (bool strided : {false, true})
            for (int N = 1; N <= 8; ++N)
                for (bool in_place : {false, true}) {
                    Trial<TypeParam> t(f, strided, N, 3, in_place);
                    // Diagonally dominant where only a residual binds or dst is src.
                    const bool dom = in_place || (N > 3 && N < 7);
                    const OrsStatus st = t.run([&](int, int r, int k) { return dom ? v() / 8 + 4 * (r == k) : v(); });
                    EXPECT_EQ(st, StatusOk) << t.where();
                    EXPECT_TRUE(t.check(t.count)) << t.where() << (in_place ? " in place" : "");
                }
}

// Diagonal matrices with one small d at each place: tolerance kernels pass
// from tol up (a NaN fails), band kernels outside the band (a NaN passes).
TYPED_TEST(Invert, ThresholdsByKernel) {
    using T = TypeParam;
    const T tol = ref::tol<T>(), band = sizeof(T) == 4 ? T(1e-07) : T(1e-15);
    for (const auto& f : fns)
        for (bool strided : {false, true})
            for (int N = 1; N <= 7; ++N)
                for (T d : {tol, std::nextafter(tol, T(0)), band, std::nextafter(band, T(0)), T(1e-08), T(NAN)})
                    for (int at = 0; at < N; ++at) {
                        Trial<T> t(f, strided, N, 1);
                        bool ok = t.kind == Kind::Arrays32 && N != 3 ? !(double(d) < 1e-07) : t.passes(t.kind, d);
                        if (N == 1) ok = t.array ? !(d <= T(0x1p-23)) : d > tol;
                        // The elimination's last pivot fails at tol too, but passes a NaN.
                        if (N == 2 || N == 7) ok = at == N - 1 ? !(d <= tol) : d >= tol;
                        const OrsStatus st = t.run([&](int, int r, int c) { return T(r != c ? 0 : r == at ? d : 1); });
                        EXPECT_EQ(st, ok ? StatusOk : StatusSingular) << t.where() << " d=" << d << " at " << at;
                        EXPECT_TRUE(!ok || d != d || std::fabs(t.dst->at(0, at, at) * d - 1) < 1e-3) << t.where();
                        EXPECT_TRUE(ok || t.check(0, 0)) << t.where() << " d=" << d;  // dst kept, but row 0 at times
                    }
}

// A zero object first or last: the 32f contiguous arrays at orders 3 to 6 go
// through every object and return the last one's status; every other kernel
// and order stops at the first failure, later objects untouched.
TYPED_TEST(Invert, ArraysSingularObject) {
    using T = TypeParam;
    Values<T> v(9, 0);
    for (int fi : {2, 3, 4})
        for (bool strided : {false, true})
            for (int N = 2; N <= 7; ++N)
                for (int bad : {0, 2}) {
                    Trial<T> t(fns[fi], strided, N, 3);
                    const bool every = t.kind == Kind::Arrays32 && N >= 3 && N <= 6;
                    auto st = t.run([&](int o, int r, int c) { return o == bad ? 0 : v() / 8 + 4 * (r == c); });
                    EXPECT_EQ(st, every && bad == 0 ? StatusOk : StatusSingular) << t.where() << " bad " << bad;
                    EXPECT_TRUE(t.check(every ? t.count : bad, bad)) << t.where() << " bad " << bad;
                }
}

// The contiguous arrays over 37 objects (groups of every vector width, the
// scalar path after them) give each object what a call on it alone gives,
// with a singular object (zero, or a determinant just below both the
// tolerance and the band) nowhere, inside a group or last.
TYPED_TEST(Invert, ArraysAsOneByOne) {
    using T = TypeParam;
    Values<T> v(11, 0);
    for (int fi : {2, 4})
        for (int N = 3; N <= 6; ++N)
            for (int bad : {-1, 21, 36}) {
                Trial<T> t(fns[fi], false, N, 37);
                const T x = T(0.75) * std::min(ref::tol<T>(), T(sizeof(T) == 4 ? 1e-07 : 1e-15));
                auto gen = [&](int o, int r, int c) {
                    if (o == bad) return bad == 21 ? T(r != c ? 0 : r == 1 ? x : 1) : T(0);
                    return v() / 8 + 4 * (r == c);
                };
                const OrsStatus st = t.run(gen);
                const bool every = t.kind == Kind::Arrays32;
                EXPECT_EQ(st, bad < 0 || (every && bad != 36) ? StatusOk : StatusSingular) << t.where() << " " << bad;
                for (int o = 0; o < t.count; ++o) {
                    Trial<T> one(fns[fi], false, N, 1);
                    one.run([&](int, int r, int c) { return t.a[o][r * N + c]; });
                    const Mat<T> want = every || bad < 0 || o < bad ? elements(*one.dst, 0) : t.d[o];
                    EXPECT_EQ(want, elements(*t.dst, o)) << t.where() << " object " << o << " bad " << bad;
                }
            }
}

// Permutations with zero leading elements invert exactly in every kernel.
// 32f order 6, a00 = 4, leading block 2e-07: the block is the pivot (single
// steps would meet 5e-08). 64f order 5: columns 3, 4 (block 1e-04) come before
// 0, 4 (block 1, complement 1e-18 = det(A), as the scalar kernels see it).
// A 32f minor of 1e-09 counts as 0: its element is -0.
TYPED_TEST(Invert, PivotSearchesAndRules) {
    using T = TypeParam;
    const bool is32 = sizeof(T) == 4;
    const T m[5][5] = {
        {100, 100, 0, T(0.01), 0}, {100, 100, 0, 0, T(0.01)}, {1, 0, 0, 0, 0}, {0, T(1e-14), 0, 0, 0}, {0, 0, 1, 0, 0}};
    for (const auto& f : fns)
        for (bool strided : {false, true}) {
            for (int N = 2; N <= 8; ++N)
                for (int shift : {1, -1}) {
                    Trial<T> t(f, strided, N, 2);
                    auto one = [&](int r, int c) { return shift > 0 ? c == (r + 1) % N : c == N - 1 - r; };
                    ASSERT_EQ(t.run([&](int, int r, int c) { return T(one(r, c)); }), StatusOk) << t.where();
                    for (int i = 0; i < N * N; ++i)
                        EXPECT_EQ(t.dst->at(t.count - 1, i / N, i % N), T(one(i % N, i / N))) << t.where();
                }
            Trial<T> t(f, strided, is32 ? 6 : 5, 1);
            auto diag = [](int r) { return r == 0 ? 4 : r == 1 ? 5e-08 : 1; };
            const OrsStatus st = t.run([&](int, int r, int c) { return is32 ? T(r != c ? 0 : diag(r)) : m[r][c]; });
            EXPECT_EQ(st, !is32 && t.kind == Kind::Scalar ? StatusSingular : StatusOk) << t.where();
        }
    Trial<T> t(fns[0], false, 2, 1);
    ASSERT_EQ(t.run([](int, int r, int c) { return r == c ? T(1) : r == 0 ? T(1e-09) : T(0); }), StatusOk);
    EXPECT_EQ(bits(t.dst->at(0, 0, 1)), bits(is32 ? -0.0f : T(-1e-09)));
}

// Pointers, count, size, strides, shifts: each fault alone, and the earlier
// of any two, decides, every operand untouched.
TYPED_TEST(Invert, ChecksInOrder) {
    checks_in_order<TypeParam>(fns, [](const Fn& f) {
        return std::vector<Fault>{{"buffer=0", StatusNullPointer}, {"count=0", StatusBadCount},
                                  {"size=0", StatusBadSize}, dst_stride_fault<TypeParam>(f.second),
                                  {"srcRoiShift=2", StatusBadRoiShift}};
    });
}

// Serial below 3601 (32f contiguous S) or 2501 (W = 2 count size); a parallel
// call in a serialized region does member 0's share only. A real team gives
// one thread's bits, each share's status by its run (32f arrays: its last).
TYPED_TEST(Invert, SerialBelowTheLimit) {
    using T = TypeParam;
    Values<T> v(3, 0);
    auto gen = [&](int, int r, int c) { return v() / 8 + (r == c ? 4 : 0); };
    for (int fi : {2, 3, 4})
        for (bool strided : {false, true})
            for (bool above : {false, true}) {
                Trial<T> t(fns[fi], strided, 4, (sizeof(T) == 4 && fi == 2 && !strided ? 450 : 312) + above);
                serialized([&] { EXPECT_EQ(t.run(gen), StatusOk); });
                EXPECT_TRUE(t.check(above ? first_share(t.count, 2) : t.count)) << t.where();
            }
    for (int bad : {-1, 100, 225}) {  // shares of 226 and 225 objects
        Trial<T> one(fns[4], false, 4, 451), two(fns[4], false, 4, 451);
        auto g = [&](int o, int r, int c) { return o == bad ? T(0) : T((r + 2 * c + o) % 7 + (r == c ? 9 : 0)); };
        ThreadCount tc1(1);
        const OrsStatus st1 = one.run(g);
        ThreadCount tc2(2);
        EXPECT_EQ(two.run(g), bad < 0 || (sizeof(T) == 4 && bad == 100) ? StatusOk : StatusSingular) << bad;
        for (int o = 0; o < 451 && st1 == StatusOk; ++o) EXPECT_EQ(elements(*two.dst, o), elements(*one.dst, o)) << o;
    }
}

// The 32f reciprocal estimate is within 1.5 * 2^-12 of 1/d at every exponent;
// subnormals count as zero, and 1/d below the normal range as zero.
TEST(InvertEstimate, Reciprocal) {
    using orsm::rcp_estimate;
    for (int i = 0; i < 252 * 64; ++i) {
        const float d = std::ldexp((i % 2 ? -1 : 1) * (1.0f + float(i % 64) / 64 + float(i % 7) / 512), i / 64 - 126);
        EXPECT_LE(std::fabs(double(rcp_estimate(d)) * d - 1), 1.5 / 4096) << d;
    }
    EXPECT_TRUE(rcp_estimate(-0.0f) == -INFINITY && rcp_estimate(0x1p-140f) == INFINITY);
    EXPECT_TRUE(rcp_estimate(-INFINITY) == 0 && rcp_estimate(0x1p127f) == 0.0f && std::isnan(rcp_estimate(NAN)));
}

}  // namespace
