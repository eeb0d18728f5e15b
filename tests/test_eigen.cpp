// EigenValuesSym and EigenValuesVectorsSym: values (and vectors) bit for bit
// against a plain model of each kernel's rules in every form, layout, type
// and stride mix, with regular, diagonal, singular, tiny, huge (never
// converging) and NaN objects; worked examples; check orders; the limit
// cells and a two-thread team; sums and residuals.
#include <cmath>
#include <random>

#include "calls.hpp"

using namespace orsmtest;

namespace {

template <class T> using Mat = std::vector<T>;
struct Rules {
    bool skip_s, skip_np, det_tiny, root_down, root_up, negl_double, prod_end, sort_first;
};

// One object, written as the method reads: W the working copy, d the
// values, V the vectors (or null).
template <class T> OrsStatus model(Rules R, int N, Mat<T> W, T* d, T* V) {
    const T tol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);
    auto w = [&](int i, int j) -> T& { return W[i * N + j]; };
    auto v = [&](int i, int j) -> T& { return V[i * N + j]; };
    auto hyp = [&](T g, bool dbl) { return dbl ? T(std::sqrt(double(T(g * g)) + 1.0)) : std::sqrt(g * g + 1); };
    if (N == 1) {
        if (V) v(0, 0) = 1;
        return d[0] = W[0], StatusOk;
    }
    if (N == 2) {
        const T a = W[0], b = W[1], e = W[3], det = a * e - b * b, tr = a + e, am = a - e;
        if ((R.det_tiny ? T(0x1p-52) : tol) >= std::fabs(det)) return StatusSingular;
        const T root = std::sqrt(am * am + (2 * b) * (2 * b));
        const int s1 = tr < -tol && !(tr > tol) ? -1 : 1;
        if (tr > tol) d[0] = (root + tr) * T(0.5), d[1] = (a * e - b * b) / d[0];
        else if (!(tr < -tol)) d[0] = T(0.5) * root, d[1] = T(-0.5) * root;
        else d[0] = T(0.5) * (tr - root), d[1] = (a * e - b * b) / d[0];
        if (!V) return StatusOk;
        const T tb = b + b, z = am < -tol ? am - root : am + root;
        const int s2 = am < -tol ? -1 : 1;
        T cs = 1, sn = 0, q;
        if (std::fabs(z) > std::fabs(tb)) q = (0 - tb) / z, sn = T(1 / std::sqrt(double(T(q * q)) + 1)), cs = q * sn;
        else if (!(tol >= std::fabs(tb))) q = (0 - z) / tb, cs = T(1 / std::sqrt(double(T(q * q)) + 1)), sn = q * cs;
        if (s1 == s2) std::tie(cs, sn) = std::pair(-sn, cs);
        return v(0, 0) = cs, v(1, 0) = sn, v(0, 1) = 0 - sn, v(1, 1) = cs, StatusOk;
    }
    for (int i = 0; V && i < N * N; ++i) V[i] = i % (N + 1) == 0;
    for (int k = 1; k < N - 1; ++k) {
        T s = 0, h, sum;
        for (int i = k; i < N; ++i) s += w(i, k - 1) * w(i, k - 1);
        if (R.skip_s && !(s > tol)) continue;
        const T nr = std::sqrt(s), p = w(k, k - 1);
        for (int i = k + 1; i < N; ++i) d[i] = w(i, k - 1);
        if (R.skip_np && std::fabs(nr - p) <= tol) continue;
        if (p > tol) d[k] = p + nr, h = (s + nr * p) * 2;
        else if (std::fabs(p) <= tol) d[k] = nr, h = s + s;
        else d[k] = p - nr, h = (s - nr * p) * 2;
        if (!(h > tol)) continue;
        const T f = 2 / h;
        for (int j = k - 1; j < N; ++j) {
            sum = 0;
            for (int i = k; i < N; ++i) sum += w(i, j) * d[i];
            for (int i = k; i < N; ++i) w(i, j) -= d[i] * (f * sum);
        }
        for (int r = k - 1; r < N; ++r) {
            sum = 0;
            for (int j = k; j < N; ++j) sum += w(r, j) * d[j];
            for (int j = k; j < N; ++j) w(r, j) -= d[j] * (f * sum);
        }
        for (int r = 1; V && r < N; ++r) {
            if (k == 1) {
                v(0, r) = v(r, 0) = 0, v(0, 0) = 1;
                for (int j = r; j < N; ++j) v(r, j) = v(j, r) = j == r ? 1 - f * d[r] * d[r] : d[r] * -f * d[j];
                continue;
            }
            sum = 0;
            for (int j = k; j < N; ++j) sum += d[j] * v(r, j);
            for (int j = k; j < N; ++j) v(r, j) -= d[j] * (f * sum);
        }
    }
    auto small = [&](T e) { return R.negl_double ? !(std::fabs(e * 0.5) > 0x1p-23) : !(std::fabs(e * T(0.5)) > tol); };
    const bool down = std::fabs(w(N - 1, N - 1)) > std::fabs(w(0, 0));
    T prod = 1;
    for (int l = down ? 0 : N - 1; l >= 0 && l < N; l += down ? 1 : -1)
        for (int it = 0;; ++it) {
            int m = l;
            if (down) while (m < N - 1 && !small(w(m + 1, m))) ++m;
            else while (m > 0 && !small(w(m, m - 1))) --m;
            if (!down && m > 0 && !R.prod_end) d[m] = w(m, m), prod *= w(m, m);
            if (m == l) break;
            if (it == 30) return StatusNotConverged;
            const int nb = down ? l + 1 : l - 1;
            const T e0 = down ? w(l + 1, l) : w(l, l - 1), g0 = (w(nb, nb) - w(l, l)) / (2 * e0);
            const T r0 = hyp(g0, down ? R.root_down : R.root_up);
            T g = (w(m, m) - w(l, l)) + (g0 > tol ? e0 / (g0 + r0) : e0 / (g0 - r0)), s = 1, c = 1, p = 0, t = 0;
            bool full = true;
            for (int i = down ? m - 1 : m; full && (down ? i >= l : i < l); i += down ? -1 : 1) {
                const int cur = down ? i + 1 : i, nx = down ? i : i + 1;
                const T e = w(i + 1, i), f = s * e, b = c * e, r = std::sqrt(f * f + g * g);
                if (i != (down ? m - 1 : m)) (down ? w(i + 2, i + 1) : w(i, i - 1)) = r;
                if (!(full = std::fabs(r) > tol)) {
                    w(cur, cur) -= p, (down ? w(m, m - 1) : w(m + 1, m)) = 0;
                    break;
                }
                s = f / r, c = g / r;
                for (int q = 0; V && q < N; ++q) {
                    const T x = v(q, i), y = v(q, i + 1);
                    v(q, i) = down ? c * x - s * y : c * x + s * y;
                    v(q, i + 1) = down ? s * x + c * y : c * y - s * x;
                }
                g = w(cur, cur) - p, t = (w(nx, nx) - g) * s + (c + c) * b, p = t * s, w(cur, cur) = g + p;
                g = t * c - b;
            }
            if (full && (std::fabs(t) > tol || (down && l == 0)))
                w(l, l) -= p, (down ? w(l + 1, l) : w(l, l - 1)) = g;
        }
    for (int i = 0; i < N; ++i)
        if (down || R.prod_end || i == 0) d[i] = w(i, i), prod *= w(i, i);
    auto sort = [&] {
        for (int i = 0; i + 1 < N; ++i) {
            const int k = int(std::max_element(d + i, d + N, [](T x, T y) { return x < y; }) - d);
            if (k == i) continue;
            std::swap(d[i], d[k]);
            for (int q = 0; V && q < N; ++q) std::swap(v(q, i), v(q, k));
        }
    };
    if (R.sort_first) sort();
    if (tol >= std::fabs(prod)) return StatusSingular;
    if (!R.sort_first) sort();
    return StatusOk;
}

// The rules of the kernel a call runs. A single 32f matrix with vectors
// always takes the strided kernel.
Rules rules(bool vec, bool f32, bool arr, Layout lay, bool strided) {
    const bool S = lay == Layout::S && !strided && !(vec && f32 && !arr), P = lay == Layout::P;
    if (!vec) return {arr, arr, f32 && arr && S, f32 && !arr && S, false, f32, false, false};
    return {arr && (f32 || lay == Layout::S), true, false, f32, f32, false, f32, !arr && (!f32 || P)};
}

// Objects by kind: 0 random, 1 diagonal, 2 first column (x, y, 0..) with
// y > 0, 3 zero, 4 0.001 I, 5 huge (squares overflow: no convergence), 6 a
// NaN on the diagonal, 7 tridiagonal with the first shift's g between 0
// and tol, 8 a first column of square sum between tol/4 and tol.
template <class T> Mat<T> make(int kind, int N, std::mt19937& rng) {
    std::uniform_real_distribution<T> u(-8, 8);
    Mat<T> a(N * N);
    for (int i = 0; i < N; ++i)
        for (int j = 0; j <= i; ++j) {
            const T x = u(rng);
            a[i * N + j] = a[j * N + i] = kind == 3 || ((kind == 1 || kind == 4) && i != j) ? T(0)
                                          : kind == 4                                       ? T(0.001)
                                          : kind == 5                                       ? x * T(sizeof(T) == 4 ? 1e18 : 1e160)
                                                                                            : x;
        }
    for (int i = 2; (kind == 2 || kind == 8) && i < N; ++i) a[i * N] = a[i] = 0;
    if (kind == 2 && N > 1) a[1] = a[N] = std::fabs(a[1]);
    if (kind == 8 && N > 1) a[1] = a[N] = T(-1.3) * (sizeof(T) == 4 ? T(0x1p-12) : T(0x1p-27));
    if (kind == 7) {
        std::fill(a.begin(), a.end(), T(0));
        for (int i = 0; i < N; ++i) a[i * N + i] = i == 1 ? 1 + (sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52)) : T(std::max(i, 1));
        for (int i = 1; i < N; ++i) a[i * N + i - 1] = a[(i - 1) * N + i] = -1;
    }
    if (kind == 6) a[N * N - 1] = NAN;
    return a;
}

struct Fn {
    const char* stem;
    Layout lay;
    bool vec() const { return std::string(stem).find("Vectors") != std::string::npos; }
    bool arr() const { return std::string(stem).back() == 'a'; }
};
const Fn fns[] = {{"EigenValuesSym_m", Layout::S},         {"EigenValuesSym_m", Layout::P},
                  {"EigenValuesSym_ma", Layout::S},        {"EigenValuesSym_ma", Layout::P},
                  {"EigenValuesSym_ma", Layout::L}};

// A call on guarded operands, and the model's results beside it.
template <class T> struct Case {
    Fn fn;
    int N, count;
    Rules R;
    Call<T> c;
    Operand<T>*src, *V = nullptr;
    Packed<T> vals, buf;
    std::vector<Mat<T>> A;
    Mat<T> ed, ev;  // expected values and vectors, all objects
    Case(const Fn& f, int n, bool strided, std::vector<Mat<T>> objs)
        : fn(f), N(n), count(int(objs.size())), R(rules(f.vec(), sizeof(T) == 4, f.arr(), f.lay, strided)),
          c(f.stem, f.lay), vals(std::size_t(N) * count), buf(std::size_t(N) * N), A(std::move(objs)) {
        const Shape sh{N, N, count, f.arr(), !strided};
        src = &c.bind("src", f.arr(), sh, 3);
        src->fill([&](int o, int r, int k) { return A[o][r * N + k]; });
        if (f.vec()) V = &c.bind("dstVectors", f.arr(), sh, 4);
        c.ptr(f.vec() ? "dstValues" : "dst") = vals.data();
        c.ptr("buffer") = buf.data();
        c.arg("size") = N;
        if (f.arr()) c.arg("count") = count;
        for (int i = 0; i < N * count; ++i) ed.push_back(vals.get(i));
        for (int o = 0; V && o < count; ++o)
            for (int i = 0; i < N * N; ++i) ev.push_back(V->at(o, i / N, i % N));
        c.snapshot(), vals.snapshot(), buf.snapshot();
    }
    Case(const Fn& f, int n, int cnt, bool strided, unsigned seed, std::function<int(int)> kind = {})
        : Case(f, n, strided, [&] {
              std::mt19937 rng(seed);
              std::vector<Mat<T>> v;
              for (int o = 0; o < (f.arr() ? cnt : 1); ++o) v.push_back(make<T>(kind ? kind(o) : (o + seed) % 9, n, rng));
              return v;
          }()) {}
    // The model over shares (first object, objects); the first failure of
    // each share ends it.
    OrsStatus expect(std::vector<std::pair<int, int>> shares) {
        OrsStatus out = StatusOk;
        for (auto [f, k] : shares)
            for (int o = f; o < f + k; ++o)
                if (OrsStatus st = model(R, N, A[o], &ed[o * N], V ? &ev[o * N * N] : nullptr); st != StatusOk) {
                    out = out == StatusOk ? st : out;
                    break;
                }
        return out;
    }
    OrsStatus expect() { return expect({{0, count}}); }
    testing::AssertionResult check() const {
        auto same = [](T x, T y) { return bits(x) == bits(y) || (x != x && y != y); };
        for (int i = 0; i < N * count; ++i)
            if (!same(vals.get(i), ed[i])) return testing::AssertionFailure() << "value " << i << ": " << vals.get(i) << " want " << ed[i];
        for (int i = 0; V && i < N * N * count; ++i)
            if (!same(V->at(i / (N * N), i % (N * N) / N, i % N), ev[i])) return testing::AssertionFailure() << "vector element " << i;
        if (!vals.guards_intact() || !buf.guards_intact() || !src->unchanged() || (V && !V->only_elements_changed()))
            return testing::AssertionFailure() << "guards or source";
        return testing::AssertionSuccess();
    }
    std::string where() const { return c.name() + " size " + std::to_string(N) + " count " + std::to_string(count); }
};

template <class T> class Eigen : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(Eigen, Types);

// Every kernel on objects of every kind, both directions of sweep: results,
// partial results after a failure, and untouched later objects, bit for bit.
TYPED_TEST(Eigen, BitExactAgainstModel) {
    unsigned seed = 1;
    ThreadCount one(1);
    for (const Fn& f : fns)
        for (bool strided : {false, true})
            for (int N : {1, 2, 3, 4, 5, 6, 8, 12})
                for (int rep = 0; rep < (f.arr() ? 3 : 12); ++rep) {
                    Case<TypeParam> r(f, N, 9, strided, seed++);
                    const OrsStatus want = r.expect();
                    EXPECT_EQ(r.c.run(), want) << r.where();
                    EXPECT_TRUE(r.check()) << r.where();
                }
}


// Stated cases of single matrices (dst prefilled with guards): order 1 and
// 2 by formula, unsorted with a negative trace; the determinant bound of
// the contiguous 32f array kernel; singular zero and tiny matrices; a
// diagonal sorted.
TYPED_TEST(Eigen, ValuesByExample) {
    using T = TypeParam;
    const bool f32 = sizeof(T) == 4;
    struct Ex {
        Mat<T> a;
        OrsStatus st;
        Mat<T> d;  // empty: dst untouched
    };
    for (const Fn& f : fns)
        for (bool strided : {false, true}) {
            const bool wide_det = f32 && f.arr() && f.lay == Layout::S && !strided;
            const T m = T(0.001), e = T(1e-5), tol = f32 ? T(0x1p-23) : T(0x1p-52);
            const Ex ex[] = {{{0}, StatusOk, {0}},
                             {{1, 0, 0, 2}, StatusOk, {2, 1}},
                             {{-1, 0, 0, -2}, StatusOk, {-2, -1}},
                             {{0, 1, 1, 0}, StatusOk, {1, -1}},
                             {{1, 2, 2, 4}, StatusSingular, {}},
                             {{e, 0, 0, e}, wide_det || !f32 ? StatusOk : StatusSingular, {e, e * e / e}},
                             {Mat<T>(9, T(0)), StatusSingular, {0, 0, 0}},
                             {{m, 0, 0, 0, m, 0, 0, 0, m}, f32 ? StatusSingular : StatusOk, {m, m, m}},
                             {{1, 0, 0, 0, 3, 0, 0, 0, 2}, StatusOk, {3, 2, 1}},
                             {{1, 0, 0, 0, 1, 0, 0, 0, tol}, StatusSingular, {1, 1, tol}}};
            for (const Ex& x : ex) {
                Case<T> r(f, int(std::sqrt(x.a.size())), strided, {x.a});
                EXPECT_EQ(r.c.run(), x.st) << r.where() << " " << x.a[0];
                if (x.st != StatusOk && x.a.size() == 4) continue;
                for (int i = 0; i < r.N; ++i) EXPECT_EQ(r.vals.get(i), x.d[i]) << r.where() << " " << x.a[0];
            }
        }
}

// Each fault alone leaves every operand untouched; of two faults the earlier
// step decides: pointers, size, count, shifts, strides.
TYPED_TEST(Eigen, ChecksInOrder) {
    for (const Fn& f : fns) {
        Call<TypeParam> c(f.stem, f.lay);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
        const std::pair<std::string, OrsStatus> all[] = {
            {"src=0", StatusNullPointer}, {"size=0", StatusBadSize}, {"count=0", StatusBadCount},
            {"srcRoiShift=2", StatusBadRoiShift}, {c.takes("srcStride1") ? "srcStride1=3" : "srcStride0=3", StatusBadStride}};
        std::vector<std::pair<std::string, OrsStatus>> steps;
        for (auto& s : all)
            if (c.takes(s.first.substr(0, s.first.find('=')))) steps.push_back(s);
        const gen::Bag good = c.bag();
        for (std::size_t i = 0; i < steps.size(); ++i)
            for (std::size_t j = i + 1; j < steps.size(); ++j) {
                c.bag() = good;
                EXPECT_EQ(c.set(steps[i].first + " " + steps[j].first).run(), steps[i].second) << c.name() << " " << steps[j].first;
                EXPECT_TRUE(c.unchanged()) << c.name();
            }
    }
}

// The array forms run serially below the limit and go parallel from it,
// with workspace of their own: in a serialized region a parallel call does
// member 0's share only and leaves the caller's buffer alone.
TYPED_TEST(Eigen, LimitCells) {
    for (const Fn& f : fns) {
        if (!f.arr()) continue;
        auto work = [&](int s, int, int n) { return f.vec() ? (2 * s * s + s) * n : s * (s + 1) * n; };
        const int lim = f.vec() ? 701 : 1001;
        for (bool strided : {false, true})
            for (bool par : {false, true}) {
                const auto g = par ? geometry(work, lim, 1, false) : geometry(work, lim - 1, -1, false);
                Case<TypeParam> r(f, g[0], g[2], strided, 5, [](int o) { return o % 2; });
                const OrsStatus want = r.expect({{0, par ? first_share(r.count, 2) : r.count}});
                serialized([&] { EXPECT_EQ(r.c.run(), want); });
                EXPECT_TRUE(r.check()) << r.where() << " W=" << g[3];
                EXPECT_EQ(r.buf.unchanged(), par) << r.where();
            }
    }
}

// A real team of two: each share stops at its own failing object; without
// failures the results equal those of one thread.
TYPED_TEST(Eigen, TwoThreads) {
    for (const Fn& f : fns) {
        if (!f.arr()) continue;
        Case<TypeParam> r(f, 4, 63, false, 9, [](int o) { return o == 20 || o == 40 ? 3 : 0; });
        const OrsStatus want = r.expect({{0, 32}, {32, 31}});
        ThreadCount two(2);
        EXPECT_EQ(r.c.run(), want);
        EXPECT_TRUE(r.check()) << r.where();
        Case<TypeParam> a(f, 4, 63, false, 9, [](int) { return 0; }), b(f, 4, 63, false, 9, [](int) { return 0; });
        EXPECT_EQ(a.c.run(), StatusOk);
        {
            ThreadCount one(1);
            EXPECT_EQ(b.c.run(), StatusOk);
        }
        for (int i = 0; i < 4 * 63; ++i) EXPECT_EQ(bits(a.vals.get(i)), bits(b.vals.get(i))) << a.where();
    }
}

// The values are those of the matrix: their sum is the trace and the sum of
// their squares the squared Frobenius norm; with vectors, A v = lambda v and
// V is orthonormal.
TYPED_TEST(Eigen, Residuals) {
    using T = TypeParam;
    ThreadCount one(1);
    for (const Fn& f : fns)
        for (int N = 2; N <= 9; ++N) {
            Case<T> r(f, N, 4, false, 40 + N, [](int) { return 0; });
            ASSERT_EQ(r.c.run(), StatusOk) << r.where();
            const double eps = 64 * N * double(std::numeric_limits<T>::epsilon());
            for (int o = 0; o < r.count; ++o) {
                auto a = [&](int i, int j) { return double(r.A[o][i * N + j]); };
                auto lam = [&](int i) { return double(r.vals.get(o * N + i)); };
                double tr = 0, fr = 0, sum = 0, sq = 0;
                for (int i = 0; i < N; ++i) {
                    tr += a(i, i), sum += lam(i), sq += lam(i) * lam(i);
                    for (int j = 0; j < N; ++j) fr += a(i, j) * a(i, j);
                }
                EXPECT_NEAR(sum, tr, eps * std::sqrt(fr)) << r.where();
                EXPECT_NEAR(sq, fr, eps * fr) << r.where();
                for (int i = 0; N > 2 && i + 1 < N; ++i) EXPECT_GE(lam(i), lam(i + 1)) << r.where();
                if (!r.V) continue;
                auto v = [&](int i, int j) { return double(r.V->at(o, i, j)); };
                for (int j = 0; j < N; ++j)
                    for (int i = 0; i < N; ++i) {
                        double av = -lam(j) * v(i, j), dot = i == j ? -1 : 0;
                        for (int k = 0; k < N; ++k) av += a(i, k) * v(k, j), dot += v(k, i) * v(k, j);
                        EXPECT_NEAR(av, 0, eps * std::sqrt(fr)) << r.where() << " column " << j;
                        EXPECT_NEAR(dot, 0, eps) << r.where() << " columns " << i << " " << j;
                    }
            }
        }
}

}  // namespace
