// QRDecomp and QRBackSubst: results, status and scratch bit for bit against
// a model in every form, layout, type and stride mix, with failing objects
// and dst on a source; the quirks on worked examples; check orders; the
// serial/parallel boundary; factor and solve together.
#include <cmath>
#include <limits>

#include "calls.hpp"

using namespace orsmtest;

namespace {

template <class T> using Mat = std::vector<T>;  // row-major
using Fn = std::pair<std::string, Layout>;
std::vector<Fn> fns(const std::string& fam, std::initializer_list<const char*> forms) {
    std::vector<Fn> v;
    for (std::string f : forms)
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (f.back() == 'a' || l != Layout::L) v.push_back({fam + "_" + f, l});
    return v;
}
const auto decomp_fns = fns("QRDecomp", {"m", "ma"});
struct Mode {
    bool strided = false, soa = false;
};
std::vector<Mode> modes(Layout l) { return {Mode{}, Mode{l != Layout::P, l == Layout::P}}; }

// One matrix in place in a (h by w), v of each step in buf.
template <class T> OrsStatus qr_model(Mat<T>& a, int w, int h, T* buf) {
    auto A = [&](int r, int c) -> T& { return a[r * w + c]; };
    const T tol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);
    for (int j = 0; j < (w == h ? w - 1 : w); ++j) {
        T n2 = 0;
        for (int i = j; i < h; ++i) n2 += A(i, j) * A(i, j);
        if (std::fabs(n2) < tol) return StatusDivideByZero;
        T sg = std::sqrt(n2), p = A(j, j), s = 1;
        p += p > 0 ? sg : -sg;
        buf[j] = 1;
        for (int i = j + 1; i < h; ++i) buf[i] = A(i, j) * (T(1) / p), s += buf[i] * buf[i];
        for (int c = j; c < w; ++c) {
            T t = A(j, c);
            for (int i = j + 1; i < h; ++i) t += A(i, c) * buf[i];
            t *= T(-2) / s;
            for (int i = j; i < h; ++i) A(i, c) += buf[i] * t;
        }
        for (int i = j + 1; i < h; ++i) A(i, j) = buf[i];
    }
    return StatusOk;
}

template <class T> Mat<T> elements(const Operand<T>& o, int n, int rows, int cols) {
    Mat<T> m(rows * cols);
    for (int i = 0; i < rows * cols; ++i) m[i] = o.at(n, i / cols, i % cols);
    return m;
}
template <class T> testing::AssertionResult same(const Mat<T>& got, const Mat<T>& want, int o) {
    for (std::size_t i = 0; i < got.size(); ++i)
        if (bits(got[i]) != bits(want[i]) && !(std::isnan(got[i]) && std::isnan(want[i])))
            return testing::AssertionFailure() << "object " << o << " [" << i << "] " << got[i] << " want " << want[i];
    return testing::AssertionSuccess();
}

// A call with guarded operands and guarded scratch of `height` elements.
template <class T> struct Trial {
    Fn fn;
    int w, h, count;
    Mode mode;
    Call<T> c;
    Packed<T> buf;
    Mat<T> mbuf;  // the model's scratch, as the caller's stood
    std::string where;
    static bool arr(const std::string& f) { return f.find('a') != std::string::npos; }
    Trial(const Fn& f, int w_, int h_, int cnt, Mode m)
        : fn(f), w(w_), h(h_), count(cnt), mode(m), c(f.first, f.second), buf(h_),
          where(c.name() + " " + std::to_string(w_) + "x" + std::to_string(h_) + " count=" + std::to_string(cnt) +
                (m.strided ? " strided" : m.soa ? " soa" : "")) {
        for (int i = 0; i < h; ++i) mbuf.push_back(buf.get(i));
    }
    Shape sh(int rows, int cols, bool array) const {
        return {rows, cols, array ? count : 1, array, !mode.strided, mode.soa};
    }
    void ready() {
        c.ptr("buffer") = buf.data();
        c.arg("width") = w, c.arg("height") = h;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
    }
    // Scratch as the model left it (or as it stood, for a forking call).
    testing::AssertionResult scratch_ok() const {
        if (!buf.guards_intact()) return testing::AssertionFailure() << "scratch guards";
        for (int i = 0; i < h; ++i)
            if (bits(buf.get(i)) != bits(mbuf[i])) return testing::AssertionFailure() << "scratch [" << i << "]";
        return testing::AssertionSuccess();
    }
};

// ---- QRDecomp ----------------------------------------------------------------------

// Random objects; each (object, column) of `zeros` is a zero column.
template <class T> struct Decomp : Trial<T> {
    using Trial<T>::w, Trial<T>::h, Trial<T>::count, Trial<T>::c;
    Operand<T>*src, *dst;
    std::vector<Mat<T>> a, d;  // sources, and dst as it stood
    Decomp(const Fn& f, int w, int h, int cnt, Mode m, unsigned seed, std::vector<std::pair<int, int>> zeros = {},
           bool in_place = false)
        : Trial<T>(f, w, h, this->arr(f.first) ? cnt : 1, m) {
        const bool ar = this->arr(f.first);
        Values<T> v(seed, 0);
        src = &c.bind("src", ar, this->sh(h, w, ar), seed);
        src->fill([&](int o, int, int k) { return std::count(zeros.begin(), zeros.end(), std::pair{o, k}) ? T(0) : v(); });
        dst = in_place ? &c.attach("dst", *src) : &c.bind("dst", ar, this->sh(h, w, ar), seed + 1);
        for (int o = 0; o < count; ++o) a.push_back(elements(*src, o, h, w)), d.push_back(elements(*dst, o, h, w));
        this->ready();
    }
    // The model on each share (first object, objects), with the caller's
    // scratch or a member's; the status of the first failing share.
    OrsStatus model(std::initializer_list<std::pair<int, int>> shares, bool caller_scratch = true) {
        OrsStatus out = StatusOk;
        Mat<T> own(h);
        for (auto [f, k] : shares)
            for (int o = f; o < f + k; ++o) {
                d[o] = a[o];
                const OrsStatus st = qr_model(d[o], w, h, caller_scratch ? this->mbuf.data() : own.data());
                if (st != StatusOk) {
                    out = out == StatusOk ? st : out;
                    break;
                }
            }
        return out;
    }
    testing::AssertionResult check() const {
        for (int o = 0; o < count; ++o)
            if (auto r = same(elements(*dst, o, h, w), d[o], o); !r) return r;
        if (!dst->only_elements_changed()) return testing::AssertionFailure() << "dst guards";
        if (src != dst && !src->unchanged()) return testing::AssertionFailure() << "src changed";
        return this->scratch_ok();
    }
};

template <class T> class QR : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(QR, Types);

// Square and tall shapes, an object with a zero column at each place amid
// the array (earlier objects finished, later ones untouched; a square
// matrix's last column is not tested), and dst on src.
TYPED_TEST(QR, DecompBitExactWithFailuresInPlace) {
    ThreadCount one(1);
    unsigned seed = 1;
    for (const Fn& f : decomp_fns)
        for (Mode m : modes(f.second))
            for (auto [w, h] : {std::pair{1, 1}, {1, 4}, {2, 2}, {3, 3}, {3, 5}, {4, 4}, {6, 9}, {7, 7}})
                for (int zero = -1; zero < w; ++zero)
                    for (bool in_place : {false, true}) {
                        Decomp<TypeParam> t(f, w, h, 4, m, seed++, {{t.arr(f.first) ? 2 : 0, zero}}, in_place);
                        const OrsStatus want = t.model({{0, t.count}});
                        EXPECT_EQ(want, zero < 0 || (zero == w - 1 && w == h) ? StatusOk : StatusDivideByZero);
                        EXPECT_EQ(t.c.run(), want) << t.where << " zero column " << zero;
                        EXPECT_TRUE(t.check()) << t.where << " zero column " << zero << (in_place ? " in place" : "");
                    }
}

// Worked examples through the contiguous single call: status and dst
// (empty: not compared), and the scratch never written where no step runs.
TYPED_TEST(QR, DecompQuirksByExample) {
    using T = TypeParam;
    const T e = T(0x1p-12), nan = std::numeric_limits<T>::quiet_NaN();
    const bool f32 = sizeof(T) == 4;
    struct Ex {
        int w, h;
        Mat<T> a;
        OrsStatus st;
        Mat<T> d;
    };
    const Ex ex[] = {
        {1, 1, {0}, StatusOk, {0}},  // no step, whatever the value
        // A zero first column, square or tall: dst is the plain copy.
        {3, 3, {0, 1, 2, 0, 3, 4, 0, 5, 6}, StatusDivideByZero, {0, 1, 2, 0, 3, 4, 0, 5, 6}},
        {2, 3, {0, 1, 0, 2, 0, 3}, StatusDivideByZero, {0, 1, 0, 2, 0, 3}},
        // R's diagonal against the pivot's sign; a pivot of 0 counts as
        // not positive.
        {2, 2, {1, 0, 0, 1}, StatusOk, {-1, 0, 0, 1}},
        {2, 2, {0, 1, 1, 0}, StatusOk, {1, 0, -1, 1}},
        // The last column of a square matrix is not tested.
        {2, 2, {1, 0, 0, 0}, StatusOk, {-1, 0, 0, 0}},
        // The squared norm against the tolerance: 2^-24 fails in 32f only;
        // 2^-23 itself passes.
        {3, 3, {e, 0, 0, 0, 1, 0, 0, 0, 1}, f32 ? StatusDivideByZero : StatusOk,
         f32 ? Mat<T>{e, 0, 0, 0, 1, 0, 0, 0, 1} : Mat<T>{-e, 0, 0, 0, -1, 0, 0, 0, 1}},
        {1, 2, {e, e}, StatusOk, {}},
        {2, 2, {nan, 1, 1, 1}, StatusOk, {}},  // a NaN passes the test
    };
    for (const Ex& x : ex) {
        const int E = sizeof(T);
        Mat<T> d(x.a.size(), T(9));
        Packed<T> buf(x.h);
        buf.snapshot();
        OrsStatus st;
        if constexpr (sizeof(T) == 4) st = orsmQRDecomp_m_32f(x.a.data(), x.w * E, E, buf.data(), d.data(), x.w * E, E, x.w, x.h);
        else st = orsmQRDecomp_m_64f(x.a.data(), x.w * E, E, buf.data(), d.data(), x.w * E, E, x.w, x.h);
        EXPECT_EQ(st, x.st) << x.w << "x" << x.h << " " << x.a[0];
        if (!x.d.empty()) {
            EXPECT_TRUE(same(d, x.d, 0)) << x.w << "x" << x.h << " " << x.a[0];
        } else if (std::isnan(x.a[0])) {
            EXPECT_TRUE(std::isnan(d[0]));
        }
        // Every failure here is at the first column, before v is stored.
        EXPECT_EQ(buf.unchanged(), x.w * x.h == 1 || x.st != StatusOk);
        EXPECT_TRUE(buf.guards_intact());
    }
}

// ---- argument checks ---------------------------------------------------------------

// Pointers, count, sizes, strides, shifts, then width above height: each
// fault alone, and the earlier of any two, decides, with every operand
// untouched.
TYPED_TEST(QR, ChecksInOrder) {
    const std::string E = std::to_string(sizeof(TypeParam));
    std::vector<Fn> all = decomp_fns;
    for (const Fn& f : all) {
        Call<TypeParam> c(f.first, f.second);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
        const std::string stride = f.second == Layout::P ? "dstStride0=-" + E : "dstStride2=" + E + "1";
        const std::pair<std::string, OrsStatus> order[] = {
            {"dst=0", StatusNullPointer}, {"count=0", StatusBadCount},         {"height=0", StatusBadSize},
            {stride, StatusBadStride},    {"dstRoiShift=2", StatusBadRoiShift}, {"width=4", StatusSizeMismatch}};
        std::vector<std::pair<std::string, OrsStatus>> steps;
        for (auto& s : order)
            if (c.takes(s.first.substr(0, s.first.find('=')))) steps.push_back(s);
        const gen::Bag good = c.bag();
        for (std::size_t i = 0; i < steps.size(); ++i)
            for (std::size_t j = i; j < steps.size(); ++j) {
                c.bag() = good;
                EXPECT_EQ(c.set(steps[i].first + " " + steps[j].first).run(), steps[i].second)
                    << c.name() << " " << steps[i].first << " " << steps[j].first;
                EXPECT_TRUE(c.unchanged()) << c.name();
            }
    }
}

// ---- serial and parallel -----------------------------------------------------------

// Serial below 2801 (strided) and 1801 (P, L) of w h (2 count): a forking
// call in a serialized region does member 0's share only, with scratch of
// its own. A real team of two gives the one-thread results, and each share
// stops at its own failing object.
TYPED_TEST(QR, DecompParallelFromTheLimit) {
    auto work = [](int w, int h, int n) { return w > h ? INT_MAX : w * h * 2 * n; };
    for (const Fn& f : decomp_fns) {
        if (f.first.back() != 'a') continue;
        const int lim = f.second == Layout::S ? 2801 : 1801;
        for (Mode m : modes(f.second)) {
            for (int side : {0, 1}) {
                const auto g = side ? geometry(work, lim, 1, true) : geometry(work, lim - 1, -1, true);
                Decomp<TypeParam> t(f, g[0], g[1], g[2], m, 7);
                const OrsStatus want = t.model({{0, side ? first_share(t.count, 2) : t.count}}, !side);
                serialized([&] { EXPECT_EQ(t.c.run(), want); });
                EXPECT_TRUE(t.check()) << t.where << " W=" << g[3];
            }
            for (int threads : {1, 2})
                for (bool fail : {false, true}) {
                    Decomp<TypeParam> t(f, 4, 6, 63, m, 9, fail ? std::vector<std::pair<int, int>>{{20, 3}, {40, 1}}
                                                            : std::vector<std::pair<int, int>>{});
                    const OrsStatus want = threads == 1 ? t.model({{0, 63}}) : t.model({{0, 32}, {32, 31}}, false);
                    ThreadCount tc(threads);
                    EXPECT_EQ(t.c.run(), want);
                    EXPECT_TRUE(t.check()) << t.where << " threads " << threads;
                }
        }
    }
}

// ---- factor and solve --------------------------------------------------------------

// Q R gives A back: the reflections of the factor, applied to R last step
// first, in double.
template <class T> void decompose(const Mat<T>& A, Mat<T>& F, int w, int h) {
    const int E = sizeof(T);
    Mat<T> buf(h);
    OrsStatus st;
    if constexpr (sizeof(T) == 4) st = orsmQRDecomp_m_32f(A.data(), w * E, E, buf.data(), F.data(), w * E, E, w, h);
    else st = orsmQRDecomp_m_64f(A.data(), w * E, E, buf.data(), F.data(), w * E, E, w, h);
    ASSERT_EQ(st, StatusOk);
}
TYPED_TEST(QR, FactorGivesQRBack) {
    using T = TypeParam;
    Values<T> v(3, 0);
    for (auto [w, h] : {std::pair{1, 1}, {2, 2}, {3, 3}, {3, 7}, {5, 5}, {6, 6}, {6, 8}, {9, 9}, {4, 12}}) {
        Mat<T> A(w * h), F(w * h);
        for (auto& x : A) x = v();
        decompose(A, F, w, h);
        std::vector<double> X(w * h, 0.0);
        for (int r = 0; r < w; ++r)
            for (int c = r; c < w; ++c) X[r * w + c] = F[r * w + c];
        for (int j = (w == h ? w - 1 : w) - 1; j >= 0; --j) {
            std::vector<double> u(h, 0.0);
            double s = u[j] = 1;
            for (int i = j + 1; i < h; ++i) u[i] = F[i * w + j], s += u[i] * u[i];
            for (int c = 0; c < w; ++c) {
                double t = 0;
                for (int i = j; i < h; ++i) t += u[i] * X[i * w + c];
                for (int i = j; i < h; ++i) X[i * w + c] -= 2 / s * u[i] * t;
            }
        }
        for (int i = 0; i < w * h; ++i)
            EXPECT_NEAR(X[i], A[i], 64 * h * std::numeric_limits<T>::epsilon()) << w << "x" << h << " [" << i << "]";
    }
}

}  // namespace
