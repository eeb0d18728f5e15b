// Invert: results bit for bit against a model where the order is bound
// (order 1, the order-3 adjugates with a true division, the cofactor method,
// dst on src included) and by residual elsewhere, in every form, layout,
// kind and type; each kernel's singularity test at its threshold; the
// arrays' status rules; check orders; the serial/parallel limits.
#include "calls.hpp"
#include "common/estimates.hpp"
#include "measures_ref.hpp"

using namespace orsmtest;

namespace {

template <class T> using Mat = std::vector<T>;
const std::pair<std::string, Layout> fns[] = {{"Invert_m", Layout::S}, {"Invert_m", Layout::P},
    {"Invert_ma", Layout::S}, {"Invert_ma", Layout::P}, {"Invert_ma", Layout::L}};
enum class Kind { Scalar, Single32, Arrays32, Packed64, Band64 };

template <class T> struct Trial {
    Call<T> c;
    bool array, strided;
    int N, count;
    Kind kind;
    Operand<T>*src, *dst;
    Packed<T> buf;
    Trial(const std::pair<std::string, Layout>& f, bool strd, int n, int cnt, bool in_place = false)
        : c(f.first, f.second), array(f.first == "Invert_ma"), strided(strd && f.second != Layout::P), N(n),
          count(array ? cnt : 1), buf(std::size_t(n) * (n + 1)) {
        const bool contig = !strided && f.second != Layout::P, is32 = sizeof(T) == 4;
        kind = !contig ? Kind::Scalar : is32 ? (array ? Kind::Arrays32 : Kind::Single32)
                                             : (f.second == Layout::L ? Kind::Band64 : Kind::Packed64);
        const Shape sh{N, N, count, array, !strided, strd && f.second == Layout::P};
        src = &c.bind("src", array, sh, 1);
        dst = in_place ? &c.attach("dst", *src) : &c.bind("dst", array, sh, 2);
        dst->fill([](int, int, int) { return T(7); });
        c.ptr("buffer") = buf.data(), c.arg("size") = N;
        if (array) c.arg("count") = count;
    }
    template <class G> OrsStatus run(G&& gen) {
        src->fill(gen);
        for (int o = 0; o < count; ++o) a.push_back(get(*src, o)), d.push_back(get(*dst, o));
        c.snapshot();
        return c.run();
    }
    static Mat<T> get(const Operand<T>& op, int o) {
        Mat<T> m;
        for (int i = 0; i < op.shape().rows * op.shape().cols; ++i) m.push_back(op.at(o, i / op.shape().cols, i % op.shape().cols));
        return m;
    }
    // Whether the test of `kind` passes x.
    static bool passes(Kind k, T x) {
        const double band = sizeof(T) == 4 ? 1e-07 : 1e-15;
        return k == Kind::Band64 ? !(std::fabs(double(x)) < band) : std::fabs(x) >= ref::tol<T>();
    }
    // The model of object o into d[o]: false where no order is bound.
    bool model(int o, OrsStatus& st) {
        const Mat<T>& s = src == dst ? d[o] : a[o];  // dst on src: the cofactors read back what they wrote
        auto at = [&](int r, int k) { return s[r * N + k]; };
        st = StatusSingular;
        if (N == 1) {
            if (array ? std::fabs(at(0, 0)) <= T(0x1p-23) : !(std::fabs(at(0, 0)) > ref::tol<T>())) return true;
            d[o][0] = T(1) / at(0, 0);
        } else if (N == 3) {
            if (kind == Kind::Single32) return false;  // refined reciprocal
            auto m = [&](int j, int i) {
                int r[2], c[2];
                for (int k = 0, p = 0, q = 0; k < 3; ++k) k != j ? r[p++] = k : 0, k != i ? c[q++] = k : 0;
                return at(r[0], c[0]) * at(r[1], c[1]) - at(r[0], c[1]) * at(r[1], c[0]);
            };
            const bool p64 = kind == Kind::Packed64 || kind == Kind::Band64;
            const T det = p64 ? ((at(0, 0) * m(0, 0)) + (at(2, 0) * m(2, 0))) - (at(1, 0) * m(1, 0))
                              : ((at(2, 0) * m(2, 0)) - (at(1, 0) * m(1, 0))) + (at(0, 0) * m(0, 0));
            if (!passes(kind, det)) return true;
            const T r = T(1) / det;
            Mat<T> out(9);
            for (int i = 0; i < 9; ++i) out[i] = (i / 3 + i % 3) % 2 ? (T(0) - m(i % 3, i / 3)) * r : m(i % 3, i / 3) * r;
            d[o] = out;
        } else if (N == 2 || N > 6) {
            const T det = ref::det_elim<T>(at, N);
            if (det == T(0)) return true;
            for (int i = 0; i < N; ++i)
                for (int j = 0; j < N; ++j)
                    d[o][j * N + i] = (ref::det_elim<T>([&](int r, int k) { return at(r + (r >= i), k + (k >= j)); }, N - 1) *
                                       (T(1) / det)) * ((i + j) % 2 ? T(-1) : T(1));
        } else {
            return false;
        }
        st = StatusOk;
        return true;
    }
    // Objects [0, upto) bit for bit as the model, or A X = I closely
    // where nothing is bound; the others as they stood, but for row 0 of a
    // singular object `skip` in the 32f arrays at orders 5 and 6; no byte
    // outside the objects.
    testing::AssertionResult check(int upto, int skip = -1) {
        for (int o = 0; o < count; ++o) {
            OrsStatus st;
            const Mat<T> got = get(*dst, o);
            if (o >= upto || o == skip) {
                const int from = o == skip && kind == Kind::Arrays32 && (N == 5 || N == 6) ? N : 0;
                if (!std::equal(got.begin() + from, got.end(), d[o].begin() + from))
                    return testing::AssertionFailure() << "object " << o << " written";
            } else if (model(o, st)) {
                for (int i = 0; i < N * N; ++i)
                    if (bits(got[i]) != bits(d[o][i]))
                        return testing::AssertionFailure() << "object " << o << " [" << i << "] " << got[i] << " want " << d[o][i];
            } else {
                for (int i = 0; i < N * N; ++i) {
                    double r = i / N == i % N ? -1 : 0;
                    for (int k = 0; k < N; ++k) r += double(a[o][i / N * N + k]) * got[k * N + i % N];
                    if (!(std::fabs(r) < (sizeof(T) == 4 ? 1e-4 : 1e-12)))
                        return testing::AssertionFailure() << "object " << o << " residual " << r;
                }
            }
        }
        if (!dst->only_elements_changed() || (src != dst && !src->unchanged())) return testing::AssertionFailure() << "guards";
        return testing::AssertionSuccess();
    }
    std::string where() const {
        return c.name() + " N=" + std::to_string(N) + " count=" + std::to_string(count) + (strided ? " strided" : "");
    }
    std::vector<Mat<T>> a, d;
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
                    EXPECT_EQ(t.run([&](int, int r, int k) { return v() / 8 + (r == k ? 4 : 0); }), StatusOk) << t.where();
                    EXPECT_TRUE(t.check(t.count)) << t.where() << (in_place ? " in place" : "");
                }
}

// Diagonal matrices with one small element d, at each place: Tol kernels
// pass from the tolerance up, the 32f arrays at orders 4 to 6 and the 64f
// list kernel outside the band; order 1 by its frame's own test. A NaN
// fails a tolerance and passes a band.
TYPED_TEST(Invert, ThresholdsByKernel) {
    using T = TypeParam;
    const T tol = ref::tol<T>(), band = sizeof(T) == 4 ? T(1e-07) : T(1e-15);
    for (const auto& f : fns)
        for (bool strided : {false, true})
            for (int N = 1; N <= 7; ++N)
                for (T d : {tol, std::nextafter(tol, T(0)), band, std::nextafter(band, T(0)), T(1e-08), T(NAN)})
                    for (int at = 0; at < N; ++at) {
                        Trial<T> t(f, strided, N, 1);
                        const Kind k = N == 3 && t.kind == Kind::Arrays32 ? Kind::Scalar : t.kind;
                        bool ok = k == Kind::Arrays32 ? !(double(d) < 1e-07) : Trial<T>::passes(k, d);
                        if (N == 1) ok = t.array ? !(d <= T(0x1p-23)) : d > tol;
                        // The elimination's last pivot fails at the tolerance
                        // too, but lets a NaN through.
                        if (N == 2 || N == 7) ok = at == N - 1 ? !(d <= tol) : d >= tol;
                        const OrsStatus st = t.run([&](int, int r, int c) { return r != c ? T(0) : r == at ? d : T(1); });
                        EXPECT_EQ(st, ok ? StatusOk : StatusSingular) << t.where() << " d=" << d << " at " << at;
                        if (ok && d == d) {
                            EXPECT_NEAR(t.dst->at(0, at, at) * d, 1, 1e-3) << t.where();
                        }
                        // A failing object keeps dst, but for row 0 in the arrays' orders 5 and 6.
                        for (int i = t.kind == Kind::Arrays32 && (N == 5 || N == 6) ? N : 0; !ok && i < N * N; ++i)
                            EXPECT_EQ(t.dst->at(0, i / N, i % N), T(7)) << t.where() << " d=" << d;
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
                    const OrsStatus st = t.run([&](int o, int r, int c) { return o == bad ? T(0) : v() / 8 + (r == c ? 4 : 0); });
                    EXPECT_EQ(st, every && bad == 0 ? StatusOk : StatusSingular) << t.where() << " bad " << bad;
                    EXPECT_TRUE(t.check(every ? t.count : bad, bad)) << t.where() << " bad " << bad;
                }
}

// Permutation matrices with zero leading elements invert exactly in every
// kernel: all pivot searches reach the ones. A 32f minor of 1e-09 counts as
// 0 in the cofactors: the element it gives is -0, not -1e-09.
TYPED_TEST(Invert, PivotSearchesAndSmallMinors) {
    using T = TypeParam;
    for (const auto& f : fns)
        for (bool strided : {false, true})
            for (int N = 2; N <= 8; ++N)
                for (int shift : {1, -1}) {
                    Trial<T> t(f, strided, N, 2);
                    auto one = [&](int r, int c) { return shift > 0 ? c == (r + 1) % N : c == N - 1 - r; };
                    ASSERT_EQ(t.run([&](int, int r, int c) { return T(one(r, c)); }), StatusOk) << t.where();
                    for (int i = 0; i < N * N; ++i) EXPECT_EQ(t.dst->at(t.count - 1, i / N, i % N), T(one(i % N, i / N))) << t.where();
                }
    Trial<T> t(fns[0], false, 2, 1);
    ASSERT_EQ(t.run([](int, int r, int c) { return r == c ? T(1) : r == 0 ? T(1e-09) : T(0); }), StatusOk);
    EXPECT_EQ(bits(t.dst->at(0, 0, 1)), bits(sizeof(T) == 4 ? -0.0f : T(-1e-09)));
}

// Pointers, count, size, strides, shifts: each fault alone, and the earlier
// of any two, decides, every operand untouched.
TYPED_TEST(Invert, ChecksInOrder) {
    const std::string E = std::to_string(sizeof(TypeParam));
    for (const auto& f : fns) {
        Call<TypeParam> c(f.first, f.second);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
        const std::pair<std::string, OrsStatus> all[] = {{"buffer=0", StatusNullPointer}, {"count=0", StatusBadCount},
            {"size=0", StatusBadSize}, {f.second == Layout::P ? "dstStride0=-" + E : "dstStride2=" + E + "1", StatusBadStride},
            {"srcRoiShift=2", StatusBadRoiShift}};
        const gen::Bag good = c.bag();
        for (const auto& x : all)
            for (const auto& y : all) {
                if (&y < &x || !c.takes(x.first.substr(0, x.first.find('='))) || !c.takes(y.first.substr(0, y.first.find('=')))) continue;
                c.bag() = good;
                EXPECT_EQ(c.set(x.first + " " + y.first).run(), x.second) << c.name() << " " << x.first << " " << y.first;
            }
    }
}

// Serial below 3601 for 32f contiguous S arrays and below 2501 elsewhere
// (W = 2 count size): in a serialized region a parallel call does member 0's
// share only. A real team gives the bits of one thread, and a share's
// status is that of its run: in the 32f arrays, its last object's.
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
    for (int bad : {100, 225}) {  // shares of 226 and 225 objects
        Trial<T> one(fns[4], false, 4, 451), two(fns[4], false, 4, 451);
        auto g = [&](int o, int r, int c) { return o == bad ? T(0) : T((r + 2 * c + o) % 7 + (r == c ? 9 : 0)); };
        ThreadCount tc1(1);
        const OrsStatus st1 = one.run(g);
        ThreadCount tc2(2);
        EXPECT_EQ(two.run(g), sizeof(T) == 4 && bad == 100 ? StatusOk : StatusSingular) << bad;
        for (int o = 0; o < 451 && st1 == StatusOk; ++o) EXPECT_EQ(Trial<T>::get(*two.dst, o), Trial<T>::get(*one.dst, o)) << o;
    }
}

// The reciprocal estimate of the refined 32f paths is within 1.5 * 2^-12 of
// 1/d at every exponent, of either sign; subnormals count as zero, and 1/d
// below the normal range as zero.
TEST(InvertEstimate, Reciprocal) {
    for (int ex = -126; ex < 126; ++ex)
        for (int i = 0; i < 64; ++i) {
            const float d = std::ldexp((i % 2 ? -1.0f : 1.0f) * (1.0f + float(i) / 64 + float(ex & 7) / 512), ex);
            EXPECT_LE(std::fabs(double(orsm::rcp_estimate(d)) * d - 1), 1.5 / 4096) << d;
        }
    const float inf = INFINITY, tiny = std::numeric_limits<float>::denorm_min();
    EXPECT_TRUE(orsm::rcp_estimate(-0.0f) == -inf && orsm::rcp_estimate(tiny) == inf && orsm::rcp_estimate(-inf) == 0.0f);
    EXPECT_TRUE(orsm::rcp_estimate(0x1p127f) == 0.0f && std::isnan(orsm::rcp_estimate(NAN)));
}

}  // namespace
