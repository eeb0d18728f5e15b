// The symmetric eigenproblem, written once for both families: eigenvalues
// alone, and eigenvalues with the vectors accumulated (a compile-time
// switch, the type of the vectors operand).
//
// Order 1 is a copy, order 2 a closed formula, and from order 3 on the
// matrix is reduced to tridiagonal form by reflections in `buffer` (W, row
// step `size` elements, the reflection vector in the values array), then
// implicit shifted sweeps run top-down or bottom-up, chosen once per matrix.
// Every tolerance is absolute: 2^-23 in 32f, 2^-52 in 64f.
//
// The kernels of the two families differ in small ways that are all kept;
// each kernel's differences are one Rules value (see the families' tables
// in eigen_values.cpp and eigen_vectors.cpp).
#pragma once

#include <cmath>
#include <type_traits>
#include <utility>

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "solvers/paths.hpp"

namespace orsm::eigen {

using solve::Kind;
using solve::KindC;

template <class T> constexpr T tol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);
// Sweeps one index may take; the next one reports StatusNotConverged.
constexpr int max_sweeps = 30;

// What sets one kernel apart from another.
struct Rules {
    bool skip_small_s;      // reflection skipped when s is not above tol
    bool skip_norm_p;       // reflection skipped when |norm - p| is within tol
    bool det2_tol_64f;      // order 2: 2^-52, as a float, bounds the 32f determinant
    bool root_double_down;  // 32f: sqrt(g*g + 1) in double in the top-down shift
    bool root_double_up;    // the same in the bottom-up shift
    bool negl_double;       // 32f: |e * 0.5| against tol in double
    bool prod_at_end;       // bottom-up: values and product taken after all sweeps
    bool sort_first;        // the sort comes before the singularity test
};

// The vectors operand of the values family: nothing.
struct NoVectors {
    NoVectors object(int) const { return {}; }
};
template <class V> constexpr bool has_vectors = !std::is_same_v<V, NoVectors>;

// One object's working state: W in the buffer, d the object's values (and
// reflection vector), v the vectors accessor at object n.
template <Rules R, class T, class V> struct Solver {
    static constexpr bool vec = has_vectors<V>;
    static constexpr T tl = tol<T>;
    T* w;
    T* d;
    const V& v;
    int n;  // object index in v
    int N;  // order

    ORSM_INLINE T& W(int i, int j) const { return w[ptrdiff_t(i) * N + j]; }
    ORSM_INLINE auto& V_(int r, int c) const { return v(n, r, c); }

    // A NaN passes as negligible.
    ORSM_INLINE bool negligible(T e) const {
        if constexpr (sizeof(T) == 4 && R.negl_double) return !(std::fabs(double(e) * 0.5) > 0x1p-23);
        return !(std::fabs(e * T(0.5)) > tl);
    }

    // ---- reduction -------------------------------------------------------------------
    void reduce() const {
        for (int k = 1; k <= N - 2; ++k) {
            T s = 0;
            for (int i = k; i < N; ++i) s = s + W(i, k - 1) * W(i, k - 1);
            if (R.skip_small_s && !(s > tl)) continue;
            const T norm = std::sqrt(s);
            for (int i = k + 1; i < N; ++i) d[i] = W(i, k - 1);
            const T p = W(k, k - 1);
            if (R.skip_norm_p && tl >= std::fabs(norm - p)) continue;
            T h;
            if (p > tl) d[k] = p + norm, h = (s + norm * p) * T(2);
            else if (tl >= std::fabs(p)) d[k] = norm, h = s + s;
            else d[k] = p - norm, h = (s - norm * p) * T(2);
            if (!(h > tl)) continue;
            const T f = T(2) / h;
            for (int j = k - 1; j < N; ++j) {  // left side, by columns
                T sum = 0;
                for (int i = k; i < N; ++i) sum = sum + W(i, j) * d[i];
                const T t = f * sum;
                for (int i = k; i < N; ++i) W(i, j) = W(i, j) - d[i] * t;
            }
            // Right side, along rows. These sums, and those along V's rows,
            // run in plain ascending order at every length: a packed order
            // may differ from it in rounding only.
            for (int r = k - 1; r < N; ++r) {
                T sum = 0;
                for (int j = k; j < N; ++j) sum = sum + W(r, j) * d[j];
                const T t = f * sum;
                for (int j = k; j < N; ++j) W(r, j) = W(r, j) - d[j] * t;
            }
            if constexpr (vec) reflect_vectors(k, f);
        }
    }

    // V = V * (I - f w w'), the first reflection written outright over the
    // identity.
    void reflect_vectors(int k, T f) const {
        if (k == 1) {
            V_(0, 0) = T(1);
            for (int j = 1; j < N; ++j) V_(0, j) = T(0), V_(j, 0) = T(0);
            for (int i = 1; i < N; ++i) {
                V_(i, i) = T(1) - f * d[i] * d[i];
                for (int j = i + 1; j < N; ++j) V_(i, j) = V_(j, i) = d[i] * -f * d[j];
            }
            return;
        }
        for (int r = 1; r < N; ++r) {
            T sum = 0;
            for (int j = k; j < N; ++j) sum = sum + d[j] * V_(r, j);
            const T t = f * sum;
            for (int j = k; j < N; ++j) V_(r, j) = V_(r, j) - d[j] * t;
        }
    }

    // ---- sweeps ----------------------------------------------------------------------

    // The shift of the sweep that ends at l, nb its neighbour, e the element
    // between them. The sign choice compares g with tol, not with zero.
    ORSM_INLINE T shift(int l, int nb, int m, T e, bool root_double) const {
        T g = (W(nb, nb) - W(l, l)) / (T(2) * e);
        T r;
        if (sizeof(T) == 4 && root_double) r = T(std::sqrt(double(T(g * g)) + 1.0));
        else r = std::sqrt(g * g + T(1));
        return (W(m, m) - W(l, l)) + e / (g > tl ? g + r : g - r);
    }

    struct Sweep {
        T s = 1, c = 1, p = 0, g, t = 0;
    };

    // One rotation between cur and next; false when r is within tol: then
    // the diagonal at cur takes p, the subdiagonal at the block's far end
    // inside it (W[m][m-1] top-down, W[m+1][m] bottom-up) is cleared, and
    // the sweep ends without its closing update.
    template <bool Down> ORSM_INLINE bool rotate(Sweep& q, int i, int m, bool first) const {
        const int cur = Down ? i + 1 : i, next = Down ? i : i + 1;
        const T e = W(i + 1, i), f = q.s * e, b = q.c * e;
        const T r = std::sqrt(f * f + q.g * q.g);
        if (!first) (Down ? W(i + 2, i + 1) : W(i, i - 1)) = r;
        if (!(std::fabs(r) > tl)) {
            W(cur, cur) = W(cur, cur) - q.p;
            (Down ? W(m, m - 1) : W(m + 1, m)) = T(0);
            return false;
        }
        q.s = f / r;
        q.c = q.g / r;
        if constexpr (vec) turn_vectors<Down>(i, q.c, q.s);
        q.g = W(cur, cur) - q.p;
        q.t = (W(next, next) - q.g) * q.s + (q.c + q.c) * b;
        q.p = q.t * q.s;
        W(cur, cur) = q.g + q.p;
        q.g = q.t * q.c - b;
        return true;
    }
    template <bool Down> void turn_vectors(int i, T c, T s) const {
        for (int r = 0; r < N; ++r) {
            const T x = V_(r, i), y = V_(r, i + 1);
            if (Down) V_(r, i) = c * x - s * y, V_(r, i + 1) = s * x + c * y;
            else V_(r, i) = c * x + s * y, V_(r, i + 1) = c * y - s * x;
        }
    }

    // Values and the product, for i ascending.
    void take_all(T& prod) const {
        for (int i = 0; i < N; ++i) d[i] = W(i, i), prod = prod * W(i, i);
    }

    OrsStatus top_down(T& prod) const {
        for (int l = 0; l < N; ++l)
            for (int sweeps = 0;;) {
                int m = l;
                while (m < N - 1 && !negligible(W(m + 1, m))) ++m;
                if (m == l) break;
                if (sweeps++ == max_sweeps) return StatusNotConverged;
                Sweep q;
                q.g = shift(l, l + 1, m, W(l + 1, l), R.root_double_down);
                bool full = true;
                for (int i = m - 1; i >= l && full; --i) full = rotate<true>(q, i, m, i == m - 1);
                // A small last t skips the update, except at index 0.
                if (full && (std::fabs(q.t) > tl || l == 0)) {
                    W(l, l) = W(l, l) - q.p;
                    W(l + 1, l) = q.g;
                }
            }
        take_all(prod);
        return StatusOk;
    }

    OrsStatus bottom_up(T& prod) const {
        for (int l = N - 1; l >= 0; --l)
            for (int sweeps = 0;;) {
                int m = 0;
                for (int k = l; k >= 1; --k)
                    if (negligible(W(k, k - 1))) {
                        m = k;
                        // Every stop multiplies W[m][m] in again, sweep after
                        // sweep: the product carries extra factors whenever
                        // the matrix splits.
                        if (!R.prod_at_end) d[m] = W(m, m), prod = prod * W(m, m);
                        break;
                    }
                if (m == l) break;
                if (sweeps++ == max_sweeps) return StatusNotConverged;
                Sweep q;
                q.g = shift(l, l - 1, m, W(l, l - 1), R.root_double_up);
                bool full = true;
                for (int i = m; i < l && full; ++i) full = rotate<false>(q, i, m, i == m);
                if (full && std::fabs(q.t) > tl) {
                    W(l, l - 1) = q.g;
                    W(l, l) = W(l, l) - q.p;
                }
            }
        if (R.prod_at_end) take_all(prod);
        else d[0] = W(0, 0), prod = prod * W(0, 0);
        return StatusOk;
    }

    // Descending selection sort; among equal values the earliest stands.
    void sort() const {
        for (int i = 0; i + 1 < N; ++i) {
            int k = i;
            for (int j = i + 1; j < N; ++j)
                if (d[j] > d[k]) k = j;
            if (k == i) continue;
            std::swap(d[i], d[k]);
            if constexpr (vec)
                for (int r = 0; r < N; ++r) std::swap(V_(r, i), V_(r, k));
        }
    }

    template <class Src> OrsStatus run(const Src& a) const {
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) W(i, j) = a(n, i, j);
        if constexpr (vec)
            for (int i = 0; i < N; ++i)
                for (int j = 0; j < N; ++j) V_(i, j) = T(i == j);
        reduce();
        T prod = 1;
        const bool down = std::fabs(W(N - 1, N - 1)) > std::fabs(W(0, 0));
        if (const OrsStatus st = down ? top_down(prod) : bottom_up(prod); st != StatusOk) return st;
        if (R.sort_first) sort();
        // A NaN product passes.
        if (tl >= std::fabs(prod)) return StatusSingular;
        if (!R.sort_first) sort();
        return StatusOk;
    }
};

// ---- orders 1 and 2 ------------------------------------------------------------------

template <class T, class Src, class V> ORSM_INLINE void order1(const Src& a, const V& v, T* d, int n) {
    move_bits(d, &a(n, 0, 0));
    if constexpr (has_vectors<V>) v(n, 0, 0) = T(1);
}

// 1 / sqrt(q*q + 1); in 32f q*q is rounded to single, the rest is double.
template <class T> ORSM_INLINE T inv_hyp(T q) {
    if constexpr (sizeof(T) == 4) return T(1.0 / std::sqrt(double(T(q * q)) + 1.0));
    else return T(1) / std::sqrt(q * q + T(1));
}

// The closed formula. The values are not sorted: with a negative trace
// dst[0] is the smaller one.
template <Rules R, class T, class Src, class V> ORSM_INLINE OrsStatus order2(const Src& s, const V& v, T* dst, int n) {
    constexpr T tl = tol<T>;
    const T a = s(n, 0, 0), b = s(n, 0, 1), d = s(n, 1, 1);
    const T det = a * d - b * b;
    if ((R.det2_tol_64f ? T(0x1p-52) : tl) >= std::fabs(det)) return StatusSingular;
    const T trace = a + d, amd = a - d;
    const T root = std::sqrt(amd * amd + (T(2) * b) * (T(2) * b));
    int sign1 = 1;
    if (trace > tl) {
        dst[0] = (root + trace) * T(0.5);
        dst[1] = (a * d - b * b) / dst[0];
    } else if (!(trace < -tl)) {
        dst[0] = T(0.5) * root;
        dst[1] = T(-0.5) * root;
    } else {
        dst[0] = T(0.5) * (trace - root);
        dst[1] = (a * d - b * b) / dst[0];
        sign1 = -1;
    }
    if constexpr (has_vectors<V>) {
        const T tb = b + b;
        const int sign2 = amd < -tl ? -1 : 1;
        const T z = sign2 > 0 ? amd + root : amd - root;
        T cs, sn;
        if (std::fabs(z) > std::fabs(tb)) {
            const T q = (T(0) - tb) / z;
            sn = inv_hyp(q), cs = q * sn;
        } else if (tl >= std::fabs(tb)) {
            cs = 1, sn = 0;
        } else {
            const T q = (T(0) - z) / tb;
            cs = inv_hyp(q), sn = q * cs;
        }
        if (sign1 == sign2) std::swap(cs, sn), cs = -cs;  // (cs, sn) := (-sn, cs)
        v(n, 0, 0) = cs, v(n, 1, 0) = sn, v(n, 0, 1) = T(0) - sn, v(n, 1, 1) = cs;
    }
    return StatusOk;
}

// ---- kernel ----------------------------------------------------------------------------

// The objects of one call or share in order; the first failure ends it.
// The order is tested once, outside the loop over objects.
template <Rules R, class Src, class V, class T>
OrsStatus kernel(const Src& a, const V& v, T* buffer, T* dst, int N, int count) {
    auto each = [&](auto&& one) -> OrsStatus {
        for (int n = 0; n < count; ++n)
            if (const OrsStatus st = one(n, dst + ptrdiff_t(n) * N); st != StatusOk) return st;
        return StatusOk;
    };
    if (N == 1) return each([&](int n, T* d) { order1(a, v, d, n);
        return OrsStatus(StatusOk);
    });
    if (N == 2) return each([&](int n, T* d) { return order2<R>(a, v, d, n); });
    return each([&](int n, T* d) { return Solver<R, T, V>{buffer, d, v, n, N}.run(a); });
}

// ---- frame -----------------------------------------------------------------------------

// A family supplies rules<T>(kind, array), its work estimate and limit, and
// picks the kernel kind of a call (with_kind).
template <class Fam, char Lay, bool Array, class T, class Src, class V>
OrsStatus frame(OrsStatus st, const Src& src, T* buffer, const V& vecs, T* values, int size, int count) {
    if (st != StatusOk) return st;
    auto share = [&](int f, int k, T* buf) {
        return Fam::template with_kind<Lay, Array, T>(
            [&](auto kind, const auto& s, const auto& v) {
                constexpr Rules R = Fam::template rules<T>(decltype(kind)::value, Array);
                return kernel<R>(s, v, buf, values + ptrdiff_t(f) * size, size, k);
            },
            src.object(f), vecs.object(f));
    };
    if constexpr (!Array) return share(0, 1, buffer);
    else return dispatch_ws(Fam::work(size, count), Fam::limit, count, wmul(size, size), buffer, share);
}

}  // namespace orsm::eigen
