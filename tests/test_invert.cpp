// Invert: results bit for bit against a model where the order is bound
// (order 1, the order-3 adjugates with a true division, the cofactor method,
// dst on src included) and by residual elsewhere, in every form, layout,
// kind and type; each kernel's singularity test at its threshold; the
// arrays' status rules; check orders; the serial/parallel limits.
#include "calls.hpp"
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
    // where nothing is bound; the others as they stood; no byte outside.
    testing::AssertionResult check(int upto) {
        for (int o = 0; o < count; ++o) {
            OrsStatus st;
            const Mat<T> got = get(*dst, o);
            if (o >= upto) {
                if (got != d[o]) return testing::AssertionFailure() << "object " << o << " written";
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
// list kernel outside the band; order 1 by its frame's own test.
TYPED_TEST(Invert, ThresholdsByKernel) {
    using T = TypeParam;
    const T tol = ref::tol<T>(), band = sizeof(T) == 4 ? T(1e-07) : T(1e-15);
    for (const auto& f : fns)
        for (bool strided : {false, true})
            for (int N = 1; N <= 7; ++N)
                for (T d : {tol, std::nextafter(tol, T(0)), band, std::nextafter(band, T(0)), T(1e-08)})
                    for (int at = 0; at < N; ++at) {
                        Trial<T> t(f, strided, N, 1);
                        const Kind k = N == 3 && t.kind == Kind::Arrays32 ? Kind::Scalar : t.kind;
                        bool ok = k == Kind::Arrays32 ? !(double(d) < 1e-07) : Trial<T>::passes(k, d);
                        if (N == 1) ok = t.array ? d > T(0x1p-23) : d > tol;
                        // The elimination's last pivot fails at the tolerance too.
                        if (N == 2 || N == 7) ok = at == N - 1 ? d > tol : d >= tol;
                        const OrsStatus st = t.run([&](int, int r, int c) { return r != c ? T(0) : r == at ? d : T(1); });
                        EXPECT_EQ(st, ok ? StatusOk : StatusSingular) << t.where() << " d=" << d << " at " << at;
                        if (ok) {
                            EXPECT_NEAR(t.dst->at(0, at, at) * d, 1, 1e-3) << t.where();
                        }
                        // A failing object keeps dst, but for row 0 in the arrays' orders 5 and 6.
                        for (int i = t.kind == Kind::Arrays32 && (N == 5 || N == 6) ? N : 0; !ok && i < N * N; ++i)
                            EXPECT_EQ(t.dst->at(0, i / N, i % N), T(7)) << t.where() << " d=" << d;
                    }
}

}  // namespace
