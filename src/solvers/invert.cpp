// Invert: the inverse of a square matrix, or of each matrix of an array.
//
// Order 1 is done in the frame. Orders 2 and from 7 up take the cofactor
// method in every kernel: one determinant by elimination per element, in the
// caller's buffer. Orders 3 to 6 take the size path of the call's kind of
// kernel, and the kinds differ on purpose in method, singularity test and
// reciprocal, as the table of rules in invert.hpp holds them:
//
//  kernel                      order 3                   orders 4 to 6
//  scalar (S2, P, LS2)         adjugate, |x| >= tol,     adjugate, |x| >= tol,
//                              true 1/x                  true 1/x
//  32f single, contiguous      adjugate, |x| >= tol,     4: Cramer; 5, 6: block
//                              refined 1/x               elimination on single
//                                                        pivots; |x| >= tol,
//                                                        refined 1/x
//  32f arrays, contiguous      adjugate, |x| >= tol,     the same, but x outside
//  (S and L)                   true 1/x                  the band fails
//  64f contiguous (S, m & ma)  adjugate, |x| >= tol,     4: adjugate; 5, 6: 2 by 2
//                              true 1/x                  block pivot; |x| >= tol
//  64f arrays in layout L      the same, with x outside the band failing
//
// The 32f contiguous array kernels alone go through every object whatever
// its result and return the status of the last one (orders 3 to 6), and use
// row 0 of dst as scratch at orders 5 and 6.
#include <cmath>
#include <utility>

#include "common/checks.hpp"
#include "common/estimates.hpp"
#include "common/parallel.hpp"
#include "measures/eliminate.hpp"
#include "solvers/invert.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve {
namespace {

using namespace inv;

template <class T> ORSM_INLINE bool passes(Test t, T x) {
    if (t == Test::Tol) return std::fabs(x) >= tol<T>;
    return !(double(x) > -band<T> && double(x) < band<T>);
}
template <class T> ORSM_INLINE T reciprocal(Recip rc, T d) {
    if constexpr (sizeof(T) == 4) {
        if (rc == Recip::Refined) {
            const T x = rcp_estimate(d);
            return (x + x) - d * (x * x);
        }
    }
    return T(1) / d;
}

// The adjugate path: the scalar kinds' orders 3 to 6 and every order 3.
template <int N, class T> OrsStatus adjugate(const Sq<N, T>& a, Sq<N, T>& out, Test test, Recip rc, bool det_p64) {
    T adj[N][N];
    const T det = inv::adjugate<N>(a, adj, det_p64);
    if (!passes(test, det)) return StatusSingular;
    const T r = reciprocal(rc, det);
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) out[i][j] = adj[i][j] * r;
    return StatusOk;
}
template <class T> OrsStatus inverse4(const Sq<4, T>& a, Sq<4, T>& out, Test test, Recip rc, bool det_by_row) {
    T adj[4][4];
    const T det = adjugate4(a, adj, det_by_row);
    if (!passes(test, det)) return StatusSingular;
    const T r = reciprocal(rc, det);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) out[i][j] = adj[i][j] * r;
    return StatusOk;
}

// The columns perm[k] of a moved to k; the result's rows go back.
template <int N, class T, class Body>
OrsStatus exchanged(const Sq<N, T>& a, const int (&perm)[N], Sq<N, T>& out, Body&& body) {
    T w[N][N], o[N][N];
    for (int r = 0; r < N; ++r)
        for (int k = 0; k < N; ++k) w[r][k] = a[r][perm[k]];
    const OrsStatus st = body(w, o);
    if (st == StatusOk)
        for (int k = 0; k < N; ++k)
            for (int j = 0; j < N; ++j) out[perm[k]][j] = o[k][j];
    return st;
}

// 32f, one pivot on row 0: a00 when it passes; else the largest magnitude of
// the row, the highest-numbered of its first four columns that holds it (the
// four are compared at once), a later column only if strictly greater than
// all before it; singular if that one fails too. Its column is exchanged
// with column 0, and the complement of order N - 1 is inverted by invS.
template <int N, class T, class InvS, class Row0>
OrsStatus single_pivot(const Sq<N, T>& a, Sq<N, T>& out, const Rules& R, InvS&& invS, Row0&& row0) {
    int c = 0;
    if (!passes(R.test, a[0][0])) {
        T big = std::fabs(a[0][0]);
        for (int j = 1; j < N; ++j) {
            const T m = std::fabs(a[0][j]);
            if (j < 4 ? m >= big : m > big) c = j, big = m;
        }
        if (!passes(R.test, a[0][c])) return StatusSingular;
    }
    int perm[N];
    for (int k = 0; k < N; ++k) perm[k] = k;
    std::swap(perm[0], perm[c]);
    return exchanged<N>(a, perm, out, [&](const Sq<N, T>& w, Sq<N, T>& o) {
        const T pi[1][1] = {{reciprocal(R.recip, w[0][0])}};
        return partitioned<N, 1>(w, pi, o, invS, row0);
    });
}

template <int N, class T, class Row0>
OrsStatus packed32(const Sq<N, T>& a, Sq<N, T>& out, const Rules& R, Row0&& row0) {
    auto inv4 = [&](const Sq<4, T>& s, Sq<4, T>& o) { return inverse4(s, o, R.test, R.recip, true); };
    if constexpr (N == 3) return adjugate<3>(a, out, R.test3, R.recip3, false);
    else if constexpr (N == 4) return inverse4(a, out, R.test, R.recip, true);
    else if constexpr (N == 5) return single_pivot<5>(a, out, R, inv4, row0);
    else {
        // The leading block when a00 and then its determinant pass, else two
        // single pivots in turn.
        const T d = det2(a[0], a[1], 0, 1);
        if (passes(R.test, a[0][0]) && passes(R.test, d)) {
            T pi[2][2];
            block2<T>({{a[0][0], a[0][1]}, {a[1][0], a[1][1]}}, reciprocal(R.recip, d), pi);
            return partitioned<6, 2>(a, pi, out, inv4, row0);
        }
        auto inv5 = [&](const Sq<5, T>& s, Sq<5, T>& o) { return single_pivot<5>(s, o, R, inv4, [](const T*) {}); };
        return single_pivot<6>(a, out, R, inv5, row0);
    }
}

// 64f orders 5 and 6: the leading 2 by 2 block of rows 0 and 1 when its
// determinant passes; else the first pair of columns c1 < c2 that passes,
// c2 from the last column down to 1 and c1 from c2 - 1 down to 0, moved to
// the front; the complement inverted by the order-3 or order-4 formula.
template <int N, class T> OrsStatus packed64(const Sq<N, T>& a, Sq<N, T>& out, const Rules& R) {
    if constexpr (N == 3) return adjugate<3>(a, out, R.test3, R.recip3, true);
    else if constexpr (N == 4) return inverse4(a, out, R.test, R.recip, false);
    else {
        int c1 = 0, c2 = 1;
        if (!passes(R.test, det2(a[0], a[1], 0, 1))) {
            c1 = -1;
            for (int j2 = N - 1; j2 >= 1 && c1 < 0; --j2)
                for (int j1 = j2 - 1; j1 >= 0 && c1 < 0; --j1)
                    if (passes(R.test, det2(a[0], a[1], j1, j2))) c1 = j1, c2 = j2;
            if (c1 < 0) return StatusSingular;
        }
        int perm[N] = {c1, c2}, k = 2;
        for (int j = 0; j < N; ++j)
            if (j != c1 && j != c2) perm[k++] = j;
        return exchanged<N>(a, perm, out, [&](const Sq<N, T>& w, Sq<N, T>& o) {
            T pi[2][2];
            block2<T>({{w[0][0], w[0][1]}, {w[1][0], w[1][1]}}, reciprocal(R.recip, det2(w[0], w[1], 0, 1)), pi);
            auto invS = [&](const Sq<N - 2, T>& s, Sq<N - 2, T>& so) { return packed64<N - 2>(s, so, R); };
            return partitioned<N, 2>(w, pi, o, invS, [](const T*) {});
        });
    }
}

// The order-N path of a kind on object n: all of src read first.
template <int N, class Src, class Dst> OrsStatus size_path(const Rules& R, const Src& s, const Dst& d, int n) {
    using T = Plain<typename Dst::value_type>;
    T a[N][N], out[N][N];
    for (int r = 0; r < N; ++r)
        for (int c = 0; c < N; ++c) a[r][c] = s(n, r, c);
    // The 32f arrays use row 0 of dst as scratch at orders 5 and 6: a
    // failing object is left with it written there.
    auto row0 = [&](const T* v) {
        if (R.array32)
            for (int c = 0; c < N; ++c) d(n, 0, c) = v[c];
    };
    OrsStatus st;
    if (R.method == Method::Scalar) st = adjugate<N>(a, out, R.test, R.recip, false);
    else if (R.method == Method::Packed32) st = packed32<N>(a, out, R, row0);
    else st = packed64<N>(a, out, R);
    if (st == StatusOk)
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) d(n, r, c) = out[r][c];
    return st;
}

// ---- cofactor method: orders 2 and from 7 up, every kind ---------------------------

// Object n of src less row r0 and column c0.
template <class A> struct Minor {
    A a;
    int r0, c0;
    auto operator()(int n, int r, int c) const { return a(n, r + (r >= r0), c + (c >= c0)); }
};

// Nothing is written until det(A) has passed; then element (j, i) of dst
// takes (det(minor i, j) r) (+-1), a failing minor counting as 0. src is
// read again for every minor after dst elements are written: dst must not
// be src here.
template <class Src, class Dst, class T> OrsStatus cofactors(const Src& s, const Dst& d, int n, int size, T* buffer) {
    using meas::LoopTest;
    const meas::Elimination<T> whole = meas::eliminate<LoopTest::NotAtOrAbove>(s, n, size, buffer);
    if (!whole.ok) return StatusSingular;
    const T r = T(1) / whole.det;
    for (int i = 0; i < size; ++i)
        for (int j = 0; j < size; ++j) {
            const auto m = meas::eliminate<LoopTest::NotAtOrAbove>(Minor<Src>{s, i, j}, n, size - 1, buffer);
            d(n, j, i) = ((m.ok ? m.det : T(0)) * r) * ((i + j) % 2 ? T(-1) : T(1));
        }
    return StatusOk;
}

// Runs one(n) over objects [0, count) in order; orders 3 to 6 of the
// contiguous S and L arrays and of P arrays over planes hand groups of W
// objects to the fast paths (invert.hpp) where they can, calling done()
// after each.
template <Kind K, bool Single, int N, class Src, class Dst, class One, class Done>
OrsStatus invert_objects(const Src& s, const Dst& d, int count, One&& one, Done&& done) {
    using T = Plain<typename Dst::value_type>;
    if constexpr (!Single && N >= 3 && (K == Kind::S || K == Kind::L)) {
        const FastKernels<T>& k = fast_kernels<T>();
        const groups::SrcDstOf<T, K == Kind::L> g{groups::objects(s), groups::objects(d)};
        const auto fn = k.of(g, N);
        const int W = fn ? k.lanes : 1;
        auto group = [&](int n) {
            const bool ok = groups::apart_or_in_place(g.src, g.dst, n, W, N, N) && fn(g, n);
            if (ok) done();
            return ok;
        };
        return groups::in_groups(count, W, group, one);
    } else if constexpr (!Single && N >= 3 && K == Kind::P) {
        // Structure-of-arrays planes: objects one element apart in src and
        // dst, the planes tested once for the call.
        const FastKernels<T>& k = fast_kernels<T>();
        const auto g = groups::planes(s, d);
        const auto fn = k.p[N - 3];
        const bool planes = groups::planes_fit(s, d, count, N, N);
        auto group = [&](int n) {
            const bool ok = fn(g, n);
            if (ok) done();
            return ok;
        };
        return groups::in_groups(count, planes ? k.lanes : 1, group, one);
    } else {
        return groups::in_groups(count, 1, [](int) { return false; }, one);
    }
}

// Objects in order, stopping at the first singular one; but the 32f
// contiguous array kernels run every object of orders 3 to 6 and return the
// last one's status, a singular object elsewhere passing in silence.
template <Kind K, bool Single, class Src, class Dst, class T>
OrsStatus invert_kernel(const Src& s, const Dst& d, T* buffer, int size, int count) {
    const Rules& R = rules_of<T, K, Single>;
    return by_order(size, [&](auto order) {
        constexpr int N = decltype(order)::value;
        OrsStatus last = StatusOk;
        auto one = [&](int n) {
            if constexpr (N == 0) last = cofactors(s, d, n, size, buffer);
            else last = size_path<N>(R, s, d, n);
            return R.array32 && N != 0 ? StatusOk : last;
        };
        const OrsStatus st = invert_objects<K, Single, N>(s, d, count, one, [&] { last = StatusOk; });
        return st != StatusOk ? st : last;
    });
}

// Order 1, in the frame: a true division after a test that differs by form.
// The single frames fail unless |x| is above their type's tolerance; the
// array frames fail at or below 2^-23 in both types (the 64f arrays keep the
// 32f constant), and return at the first failure with earlier objects done.
template <bool Single, class Src, class Dst> OrsStatus order_one(const Src& s, const Dst& d, int count) {
    using T = Plain<typename Dst::value_type>;
    for (int n = 0; n < count; ++n) {
        const T x = s(n, 0, 0);
        if (Single ? !(std::fabs(x) > tol<T>) : std::fabs(x) <= T(0x1p-23)) return StatusSingular;
        d(n, 0, 0) = T(1) / x;
    }
    return StatusOk;
}

// Serial below 3601 for the 32f contiguous S arrays, below 2501 elsewhere.
template <class T> constexpr Limit invert_limit(Kind k) {
    return serial_below(sizeof(T) == 4 && k == Kind::S ? 3601 : 2501);
}

template <char Lay, bool Single, class T, class Src, class Dst>
OrsStatus invert_frame(OrsStatus st, const Src& s, T* buffer, const Dst& d, int size, int count) {
    if (st != StatusOk) return st;
    if (size == 1) return order_one<Single>(s, d, count);
    return with_kind<Lay, T>(
        [&](auto kind, const auto& sk, const auto& dk) {
            constexpr Kind K = decltype(kind)::value;
            auto share = [&](int f, int k, T* buf) {
                return invert_kernel<K, Single>(sk.object(f), dk.object(f), buf, size, k);
            };
            if constexpr (Single) return share(0, 1, buffer);
            else
                return dispatch_ws(wmul(count, 2, size), invert_limit<T>(K), count, wadd(wmul(size, size), size),
                                   buffer, share);
        },
        s, d);
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

#define X(T, t)                                                                                      \
    extern "C" ORSM_API OrsStatus orsmInvert_m_##t(const T* src, int srcStride1, int srcStride2,     \
                                                   T* buffer, T* dst, int dstStride1, int dstStride2, \
                                                   int size) {                                       \
        return invert_frame<'S', true>(                                                              \
            first_failure(nonnull(src, dst, buffer), sizes_ok(size),                                 \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2)),            \
            s_one(src, srcStride1, srcStride2), buffer, s_one(dst, dstStride1, dstStride2), size, 1); \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmInvert_m_##t##_P(const T* const* src, int srcRoiShift,         \
                                                       T* buffer, T* const* dst, int dstRoiShift,    \
                                                       int size) {                                   \
        return invert_frame<'P', true>(                                                              \
            first_failure(nonnull(src, dst, buffer), sizes_ok(size), shifts_ok<T>(srcRoiShift, dstRoiShift)), \
            p_one(src, srcRoiShift, size), buffer, p_one(dst, dstRoiShift, size), size, 1);           \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmInvert_ma_##t(const T* src, int srcStride0, int srcStride1,    \
                                                    int srcStride2, T* buffer, T* dst,               \
                                                    int dstStride0, int dstStride1, int dstStride2,  \
                                                    int size, int count) {                           \
        return invert_frame<'S', false>(                                                             \
            first_failure(nonnull(src, dst, buffer), count_ok(count), sizes_ok(size),                \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0, dstStride1,  \
                                        dstStride2)),                                                \
            s_mat(src, srcStride0, srcStride1, srcStride2), buffer,                                  \
            s_mat(dst, dstStride0, dstStride1, dstStride2), size, count);                            \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmInvert_ma_##t##_P(const T* const* src, int srcRoiShift,        \
                                                        int srcStride0, T* buffer, T* const* dst,    \
                                                        int dstRoiShift, int dstStride0, int size,   \
                                                        int count) {                                 \
        return invert_frame<'P', false>(                                                             \
            first_failure(nonnull(src, dst, buffer), count_ok(count), sizes_ok(size),                \
                          strides_ok<T>(srcStride0, dstStride0), shifts_ok<T>(srcRoiShift, dstRoiShift)), \
            p_arr(src, srcRoiShift, srcStride0, size), buffer,                                       \
            p_arr(dst, dstRoiShift, dstStride0, size), size, count);                                 \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmInvert_ma_##t##_L(                                             \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, T* buffer,             \
        T* const* dst, int dstRoiShift, int dstStride1, int dstStride2, int size, int count) {       \
        return invert_frame<'L', false>(                                                             \
            first_failure(nonnull(src, dst, buffer), count_ok(count), sizes_ok(size),                \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2),             \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                   \
            l_mat(src, srcRoiShift, srcStride1, srcStride2), buffer,                                 \
            l_mat(dst, dstRoiShift, dstStride1, dstStride2), size, count);                           \
    }
ORSM_FOR_TYPES(X)
#undef X
