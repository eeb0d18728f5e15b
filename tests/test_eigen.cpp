// EigenValuesSym and EigenValuesVectorsSym: results bit for bit against a
// plain model of each kernel's rules in every form, layout, type and stride
// mix, over objects that reach every rule; stated cases; check order; the
// limit cells and a team of two; residuals.
#include <random>

#include "solvers.hpp"

using namespace orsmtest;

namespace {

struct Rules {
    bool skip_s, skip_np, det_tiny, root_down, root_up, negl_double, prod_end, sort_first;
};

// One object as the method reads: W the working copy, d the values, V the
// vectors (or null).
template <class T> OrsStatus model(Rules R, int N, Mat<T> W, T* d, T* V) {
    const T tol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);
    auto w = [&](int i, int j) -> T& { return W[i * N + j]; };
    auto v = [&](int i, int j) -> T& { return V[i * N + j]; };
    auto hyp = [&](T g, bool dbl) { return dbl ? T(std::sqrt(double(T(g * g)) + 1.0)) : std::sqrt(g * g + 1); };
    if (N == 1 && V) v(0, 0) = 1;
    if (N == 1) return d[0] = W[0], StatusOk;
    if (N == 2) {
        const T a = W[0], b = W[1], e = W[3], tr = a + e, am = a - e, root = std::sqrt(am * am + (2 * b) * (2 * b));
        if ((R.det_tiny ? T(0x1p-52) : tol) >= std::fabs(a * e - b * b)) return StatusSingular;
        if (tr > tol) d[0] = (root + tr) * T(0.5), d[1] = (a * e - b * b) / d[0];
        else if (!(tr < -tol)) d[0] = T(0.5) * root, d[1] = T(-0.5) * root;
        else d[0] = T(0.5) * (tr - root), d[1] = (a * e - b * b) / d[0];
        const T tb = b + b, z = am < -tol ? am - root : am + root;
        T cs = 1, sn = 0, q;
        if (std::fabs(z) > std::fabs(tb)) q = (0 - tb) / z, sn = T(1 / std::sqrt(double(T(q * q)) + 1)), cs = q * sn;
        else if (!(tol >= std::fabs(tb))) q = (0 - z) / tb, cs = T(1 / std::sqrt(double(T(q * q)) + 1)), sn = q * cs;
        if ((tr < -tol) == (am < -tol)) std::tie(cs, sn) = std::pair(-sn, cs);  // sign1 == sign2
        if (V) v(0, 0) = cs, v(1, 0) = sn, v(0, 1) = 0 - sn, v(1, 1) = cs;
        return StatusOk;
    }
    for (int i = 0; V && i < N * N; ++i) V[i] = i % (N + 1) == 0;
    for (int k = 1; k < N - 1; ++k) {
        T s = 0, h;
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
        // x - d (f sum d x) over the part from k of W's columns from k-1,
        // W's rows from k-1, V's rows from 1 (the first reflection is
        // written outright).
        for (int side = 0; side < 3; ++side)
            for (int r = side < 2 ? k - 1 : 1; r < N && (side < 2 || (V && k > 1)); ++r) {
                auto x = [&](int j) -> T& { return side == 0 ? w(j, r) : side == 1 ? w(r, j) : v(r, j); };
                T sum = 0;
                for (int j = k; j < N; ++j) sum += side < 2 ? x(j) * d[j] : d[j] * x(j);
                for (int j = k; j < N; ++j) x(j) -= d[j] * (f * sum);
            }
        for (int i = 1; V && k == 1 && i < N; ++i) {
            v(0, i) = v(i, 0) = 0, v(0, 0) = 1;
            for (int j = i; j < N; ++j) v(i, j) = v(j, i) = j == i ? 1 - f * d[i] * d[i] : d[i] * -f * d[j];
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
                    v(q, i) = down ? c * x - s * y : c * x + s * y, v(q, i + 1) = down ? s * x + c * y : c * y - s * x;
                }
                g = w(cur, cur) - p, t = (w(nx, nx) - g) * s + (c + c) * b, p = t * s, w(cur, cur) = g + p, g = t * c - b;
            }
            if (full && (std::fabs(t) > tol || (down && l == 0))) w(l, l) -= p, (down ? w(l + 1, l) : w(l, l - 1)) = g;
        }
    for (int i = 0; i < N; ++i)
        if (down || R.prod_end || i == 0) d[i] = w(i, i), prod *= w(i, i);
    auto sort = [&] {
        for (int i = 0; i + 1 < N; ++i) {
            const int k = int(std::max_element(d + i, d + N) - d);  // the first of the greatest
            for (int q = 0; k != i && q < N; ++q) std::swap(V ? v(q, i) : d[i], V ? v(q, k) : d[i]);
            std::swap(d[i], d[k]);
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
    const T tol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52), big = sizeof(T) == 4 ? T(1e18) : T(1e160);
    std::uniform_real_distribution<T> u(-8, 8);
    Mat<T> a(N * N);
    for (int i = 0; i < N * N; ++i) {
        const T x = u(rng), diag = kind == 4 ? T(0.001) : x;
        a[i] = i / N > i % N ? a[i % N * N + i / N] : kind == 3 ? 0 : kind == 5 ? x * big : i % (N + 1) == 0 ? diag
               : kind == 1 || kind == 4 ? 0 : x;
    }
    for (int i = 2; (kind == 2 || kind == 8) && i < N; ++i) a[i * N] = a[i] = 0;
    if (N > 1 && (kind == 2 || kind == 8)) a[1] = a[N] = kind == 2 ? std::fabs(a[1]) : T(-1.3) * std::sqrt(tol / 2);
    for (int i = 0; kind == 7 && i < N * N; ++i)
        a[i] = i % (N + 1) == 0 ? (i == N + 1 ? 1 + tol : T(std::max(1, i / (N + 1)))) : std::abs(i / N - i % N) == 1 ? -1 : 0;
    if (kind == 6) a[N * N - 1] = NAN;
    return a;
}

bool vec(const Fn& f) { return f.first.find("Vectors") != std::string::npos; }
const std::vector<Fn> fns = [] {
    std::vector<Fn> v = forms("EigenValuesSym", {"m", "ma"}), w = forms("EigenValuesVectorsSym", {"m", "ma"});
    v.insert(v.end(), w.begin(), w.end());
    return v;
}();

// A call on guarded operands, and the model's results beside it.
template <class T> struct Case {
    int N, count;
    Rules R;
    Call<T> c;
    Operand<T>*src, *V = nullptr;
    Packed<T> vals, buf;
    std::vector<Mat<T>> A;
    Mat<T> ed, ev;  // expected values and vectors, all objects
    Case(const Fn& f, int n, bool strided, std::vector<Mat<T>> objs)
        : N(n), count(int(objs.size())), R(rules(vec(f), sizeof(T) == 4, is_array(f), f.second, strided)),
          c(f.first, f.second), vals(std::size_t(N) * count), buf(std::size_t(N) * N), A(std::move(objs)) {
        const Shape sh{N, N, count, is_array(f), !strided};
        (src = &c.bind("src", is_array(f), sh, 3))->fill([&](int o, int r, int k) { return A[o][r * N + k]; });
        if (vec(f)) V = &c.bind("dstVectors", is_array(f), sh, 4);
        for (auto [sfx, x] : {std::pair{"Stride0", 0}, {"Stride1", 1}, {"Stride2", 2}, {"RoiShift", 3}})  // group "dst"
            if (V && c.takes(std::string("dst") + sfx)) c.arg(std::string("dst") + sfx) = std::array{V->s0(), V->s1(), V->s2(), V->shift()}[x];
        c.ptr(vec(f) ? "dstValues" : "dst") = vals.data(), c.ptr("buffer") = buf.data(), c.arg("size") = N;
        if (is_array(f)) c.arg("count") = count;
        for (int i = 0; i < N * count; ++i) ed.push_back(vals.get(i));
        for (int i = 0; V && i < N * N * count; ++i) ev.push_back(V->at(i / (N * N), i % (N * N) / N, i % N));
        c.snapshot(), vals.snapshot(), buf.snapshot();
    }
    Case(const Fn& f, int n, int cnt, bool strided, unsigned seed, std::function<int(int)> kind = {})
        : Case(f, n, strided, [&] {
              std::mt19937 rng(seed);
              std::vector<Mat<T>> v;
              for (int o = 0; o < (is_array(f) ? cnt : 1); ++o)
                  v.push_back(make<T>(kind ? kind(o) : (o + seed) % 9, n, rng));
              return v;
          }()) {}
    // The model over shares, each ended by its first failure.
    OrsStatus expect(const Shares& shares = {}) {
        return over_shares(shares.empty() ? Shares{{0, count}} : shares, [&](int o, int, int) {
            return model(R, N, A[o], &ed[o * N], V ? &ev[o * N * N] : nullptr);
        });
    }
    testing::AssertionResult check() const {
        for (int i = 0; i < N * count; ++i)
            if (!same_bits(vals.get(i), ed[i]))
                return testing::AssertionFailure() << "value " << i << ": " << vals.get(i) << " want " << ed[i];
        for (int i = 0; V && i < N * N * count; ++i)
            if (!same_bits(V->at(i / (N * N), i % (N * N) / N, i % N), ev[i]))
                return testing::AssertionFailure() << "vector element " << i;
        if (!vals.guards_intact() || !buf.guards_intact() || !src->unchanged() || (V && !V->only_elements_changed()))
            return testing::AssertionFailure() << "guards or source";
        return testing::AssertionSuccess();
    }
    std::string where() const { return c.name() + " size " + std::to_string(N) + " count " + std::to_string(count); }
};

template <class T> class Eigen : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(Eigen, Types);

// Every kernel on objects of every kind: results, partial results after a
// failure and untouched later objects, bit for bit. One thread.
TYPED_TEST(Eigen, BitExactAgainstModel) {
    unsigned seed = 1;
    ThreadCount one(1);
    for (const Fn& f : fns)
        for (bool strided : {false, true})
            for (int N : {1, 2, 3, 4, 5, 6, 8, 12})
                for (int rep = 0; rep < (is_array(f) ? 3 : 27); ++rep) {
                    Case<TypeParam> r(f, N, 9, strided, seed++);
                    EXPECT_EQ(r.c.run(), r.expect()) << r.where();
                    EXPECT_TRUE(r.check()) << r.where();
                }
}

// Stated cases of single matrices: status, values (empty: dst untouched)
// and vectors (empty: not looked at).
TYPED_TEST(Eigen, StatedCases) {
    using T = TypeParam;
    const bool f32 = sizeof(T) == 4;
    const T m = T(0.001), e = T(1e-5), tol = f32 ? T(0x1p-23) : T(0x1p-52);
    for (const Fn& f : fns)
        for (bool strided : {false, true}) {
            // The 2^-52 bound.
            const bool wide_det = !f32 || (!vec(f) && is_array(f) && f.second == Layout::S && !strided);
            const bool sorted = vec(f) && !is_array(f) && (!f32 || f.second == Layout::P);  // sorted when singular
            const std::tuple<Mat<T>, OrsStatus, Mat<T>, Mat<T>> ex[] = {
                {{0}, StatusOk, {0}, {1}},
                {{-1, 0, 0, -2}, StatusOk, {-2, -1}, {}},
                {{2, 0, 0, 1}, StatusOk, {2, 1}, {-1, 0, 0, -1}},
                {{e, 0, 0, e}, wide_det ? StatusOk : StatusSingular, wide_det ? Mat<T>{e, e * e / e} : Mat<T>{}, {}},
                {{m, 0, 0, 0, m, 0, 0, 0, m}, f32 ? StatusSingular : StatusOk, {m, m, m}, {}},
                {{1, 0, 0, 0, 1, 0, 0, 0, tol}, StatusSingular, {1, 1, tol}, {}},
                {{0, 0, 0, 0, 3, 0, 0, 0, 2}, StatusSingular, sorted ? Mat<T>{3, 2, 0} : Mat<T>{0, 3, 2},
                 sorted ? Mat<T>{0, 0, 1, 1, 0, 0, 0, 1, 0} : Mat<T>{1, 0, 0, 0, 1, 0, 0, 0, 1}}};
            for (const auto& [a, st, d, v] : ex) {
                Case<T> r(f, int(std::sqrt(a.size())), strided, {a});
                EXPECT_EQ(r.c.run(), st) << r.where() << " " << a[0];
                for (int i = 0; i < r.N; ++i) EXPECT_EQ(r.vals.get(i), d.empty() ? r.ed[i] : d[i]) << r.where() << " " << a[0];
                for (int i = 0; r.V && i < int(v.size()); ++i) EXPECT_EQ(r.V->at(0, i / r.N, i % r.N), v[i]) << r.where();
            }
        }
}

// Each fault alone leaves every operand untouched; of two faults the earlier
// step decides: pointers, size, count, shifts, strides.
TYPED_TEST(Eigen, ChecksInOrder) {
    checks_in_order<TypeParam>(fns, [](const Fn&) {
        return std::vector<Fault>{{"src=0", StatusNullPointer}, {"size=0", StatusBadSize}, {"count=0", StatusBadCount},
                                  {"dstRoiShift=2", StatusBadRoiShift}, {"srcStride0=3", StatusBadStride},
                                  {"srcStride1=3", StatusBadStride}};
    });
}

// Serial below the limit, parallel from it with workspace of its own: in a
// serialized region a parallel call does member 0's share only and leaves
// the caller's buffer alone. Then a real team of two, with no failure (as
// one thread would) and with each share stopping at its own failing object.
TYPED_TEST(Eigen, LimitCellsAndTeam) {
    for (const Fn& f : fns) {
        if (!is_array(f)) continue;
        auto work = [&](int s, int, int n) { return vec(f) ? (2 * s * s + s) * n : s * (s + 1) * n; };
        const int lim = vec(f) ? 701 : 1001;
        for (bool strided : {false, true})
            for (bool par : {false, true}) {
                const auto g = limit_cell(work, lim, par, false);
                Case<TypeParam> r(f, g[0], g[2], strided, 5, [](int o) { return o % 2; });
                const OrsStatus want = r.expect({{0, par ? first_share(r.count, 2) : r.count}});
                serialized([&] { EXPECT_EQ(r.c.run(), want); });
                EXPECT_TRUE(r.check()) << r.where() << " W=" << g[3];
                EXPECT_EQ(r.buf.unchanged(), par || r.N < 3) << r.where();
            }
        for (int bad : {-99, 20}) {
            Case<TypeParam> r(f, 4, 63, false, 9, [&](int o) { return o == bad || o == bad + 20 ? 3 : 0; });
            const OrsStatus want = r.expect({{0, 32}, {32, 31}});
            ThreadCount two(2);
            EXPECT_EQ(r.c.run(), want);
            EXPECT_TRUE(r.check()) << r.where() << " two threads";
        }
    }
}

// A v = lambda v, V orthonormal, values descending.
TYPED_TEST(Eigen, Residuals) {
    using T = TypeParam;
    ThreadCount one(1);
    for (const Fn& f : fns)
        for (int N = 2; N <= 9 && vec(f); ++N) {
            Case<T> r(f, N, 4, false, 40 + N, [](int) { return 0; });
            ASSERT_EQ(r.c.run(), StatusOk) << r.where();
            const double eps = 64 * N * double(std::numeric_limits<T>::epsilon());
            for (int o = 0; o < r.count; ++o)
                for (int j = 0; j < N; ++j) {
                    auto v = [&](int i, int k) { return double(r.V->at(o, i, k)); };
                    const double lam = r.vals.get(o * N + j);
                    EXPECT_TRUE(N < 3 || j == 0 || r.vals.get(o * N + j - 1) >= lam) << r.where();
                    for (int i = 0; i < N; ++i) {
                        double av = -lam * v(i, j), dot = i == j ? -1 : 0;
                        for (int k = 0; k < N; ++k) av += r.A[o][i * N + k] * v(k, j), dot += v(k, i) * v(k, j);
                        EXPECT_NEAR(av, 0, 8 * N * eps) << r.where() << " column " << j;
                        EXPECT_NEAR(dot, 0, eps) << r.where() << " columns " << i << " " << j;
                    }
                }
        }
}

}  // namespace
