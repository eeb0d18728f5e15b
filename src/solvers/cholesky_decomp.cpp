// CholeskyDecomp: A = L L^T, row by row, for symmetric positive definite A.
//
// dst holds L below the diagonal and the reciprocals of L's diagonal on it;
// its upper triangle is never written, and only the lower triangle of src
// is read. For row i: each L(i, j), j < i, starts from src(i, j), takes off
// dst(i, k) * dst(j, k) for k ascending, one rounded product and one
// subtraction at a time, and is multiplied by the stored reciprocal
// dst(j, j); the pivot starts from src(i, i), takes off dst(i, k)^2 the same
// way, must pass its test, and its reciprocal square root goes on the
// diagonal: 1 / sqrt(s) in 64f; in 32f the estimate of
// common/estimates.hpp and one Newton step, with no square root and no
// division.
//
// What differs between kernels is held as data below (Kernel): the pivot
// threshold, the Newton step's order, whether a NaN pivot passes, and the
// schedule of stores, which decides what a failing object leaves in dst.
#include <climits>
#include <cmath>

#include "common/checks.hpp"
#include "common/estimates.hpp"
#include "common/parallel.hpp"
#include "solvers/cholesky.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve {
namespace {

using namespace chol;

// ---- kernels as data ------------------------------------------------------------------

// A store of a path: row r, columns c0 to c1, made once test `after` has
// passed. A path's stores come in the order of their tests.
struct Store {
    int after, r, c0, c1;
};
// The schedule of an unrolled path of order N. AsComputed: row i's
// elements left of the diagonal before test i, the diagonal after it.
// RowsAfterPivot: row i after test i, but at orders 3, 5 and 6 row 0 waits
// for test 1. Groups: tests 0 and 1, rows 0 and 1, test 2, row 2, row 3 up
// to column 2, test 3, element (3, 3), then a row after each test.
struct Plan {
    Store s[16]{};
    int n = 0;
    constexpr void add(int after, int r, int c0, int c1) { s[n++] = Store{after, r, c0, c1}; }
};
constexpr Plan plan(Schedule k, int N) {
    Plan p;
    switch (k) {
        case Schedule::AsComputed:
            for (int i = 0; i < N; ++i) {
                if (i > 0) p.add(i - 1, i, 0, i - 1);
                p.add(i, i, i, i);
            }
            break;
        case Schedule::RowsAfterPivot:
            for (int i = 0; i < N; ++i)
                if (i != 0 || N == 4) p.add(i, i, 0, i);
                else p.add(1, 0, 0, 0);
            break;
        case Schedule::Groups:
            p.add(1, 0, 0, 0);
            p.add(1, 1, 0, 1);
            p.add(2, 2, 0, 2);
            if (N >= 4) p.add(2, 3, 0, 2), p.add(3, 3, 3, 3);
            for (int i = 4; i < N; ++i) p.add(i, i, 0, i);
            break;
    }
    return p;
}

// ---- arithmetic ---------------------------------------------------------------------------

template <class T> ORSM_INLINE bool passes(T s, const Kernel& k) {
    return k.nan_passes ? !(s <= T(0)) : s > T(k.threshold);
}

// The reciprocal square root of a pivot.
template <class T> ORSM_INLINE T rsqrt(T s, bool group_step) {
    if constexpr (sizeof(T) == 8) {
        return 1.0 / std::sqrt(s);
    } else {
        return newton_step(rsqrt_estimate(s), s, group_step);
    }
}

// The factor of an order-N matrix in locals; returns the first failing
// pivot, or N.
template <int N, class T, class Src> ORSM_INLINE int factor(const Src& s, int n, T (&f)[N][N], const Kernel& k) {
    int failed = N;
    for (int i = 0; i < N; ++i)
        for (int j = 0; j <= i; ++j) f[i][j] = s(n, i, j);
    for (int i = 0; i < N; ++i) {
        for (int j = 0; j < i; ++j) {
            T x = f[i][j];
            for (int q = 0; q < j; ++q) x = x - f[i][q] * f[j][q];
            f[i][j] = x * f[j][j];
        }
        T x = f[i][i];
        for (int q = 0; q < i; ++q) x = x - f[i][q] * f[i][q];
        if (!passes(x, k) && failed == N) failed = i;
        f[i][i] = rsqrt(x, k.group_step);
    }
    return failed;
}

// The stores of plan p that come before test `failed` (all of them when
// nothing failed).
template <int N, class T, class Dst> ORSM_INLINE void store(const Dst& d, int n, const T (&f)[N][N], const Plan& p,
                                                           int failed) {
    for (int e = 0; e < p.n && p.s[e].after < failed; ++e)
        for (int c = p.s[e].c0; c <= p.s[e].c1; ++c) d(n, p.s[e].r, c) = f[p.s[e].r][c];
}

// The general loop on object n, in dst as it goes.
template <class Src, class Dst> OrsStatus general(const Src& s, const Dst& d, int n, int size, const Kernel& k) {
    using T = Plain<typename Dst::value_type>;
    for (int i = 0; i < size; ++i) {
        for (int j = 0; j < i; ++j) {
            T x = s(n, i, j);
            for (int q = 0; q < j; ++q) x = x - d(n, i, q) * d(n, j, q);
            d(n, i, j) = x * d(n, j, j);
        }
        T x = s(n, i, i);
        for (int q = 0; q < i; ++q) x = x - d(n, i, q) * d(n, i, q);
        if (!passes(x, k)) return StatusNotPositiveDefinite;
        d(n, i, i) = rsqrt(x, k.group_step);
    }
    return StatusOk;
}

// The objects the fast paths (cholesky.hpp) factor from the first on, W at
// a time while whole groups remain, all pivots pass and a group's dst is
// apart from its src or on it object by object: the scalar path goes on
// from the first object they leave.
template <Form form, Kind K, int N, class Src, class Dst> int fast_groups(const Src& s, const Dst& d, int count) {
    using T = Plain<typename Dst::value_type>;
    int n = 0;
    if constexpr (form == Form::ma && (K == Kind::S || K == Kind::L)) {
        const FastKernels<T>& k = fast_kernels<T>();
        const GroupOf<T, K == Kind::L> g{groups::objects(s), groups::objects(d)};
        if (const auto fn = k.of(g, N))
            while (n + k.lanes <= count && groups::apart_or_in_place(g.src, g.dst, n, k.lanes, N, N) && fn(g, n))
                n += k.lanes;
    } else if constexpr (form == Form::ma && K == Kind::P) {
        // Structure-of-arrays planes: objects one element apart in src and
        // dst, the planes tested once for the call.
        if (!groups::planes_fit(s, d, count, N, N)) return 0;
        const FastKernels<T>& k = fast_kernels<T>();
        const auto g = groups::planes(s, d);
        while (n + k.lanes <= count && k.p[N - 3](g, n)) n += k.lanes;
    }
    return n;
}

// Objects in order; the first failing one ends the call, its dst as its
// schedule leaves it, later objects untouched. The four-at-a-time kernel
// factors four objects side by side while four remain: a pivot failing in
// any of them stops all four at the same point of the schedule.
template <Form form, Kind K, class Src, class Dst>
OrsStatus decomp_kernel(const Src& s, const Dst& d, int size, int count) {
    using T = Plain<typename Dst::value_type>;
    return by_order(size, [&](auto order) -> OrsStatus {
        constexpr int N = decltype(order)::value;
        constexpr Kernel k = kernel_of<T>(form, K, N);
        if constexpr (N == 0) {
            for (int n = 0; n < count; ++n)
                if (const OrsStatus st = general(s, d, n, size, k); st != StatusOk) return st;
            return StatusOk;
        } else {
            constexpr Plan p = plan(k.schedule, N);
            constexpr int G = k.schedule == Schedule::Groups ? 4 : 1;
            for (int n = fast_groups<form, K, N>(s, d, count); n < count;) {
                const int g = count - n >= G ? G : 1;
                T f[G][N][N];
                int failed = N;
                for (int l = 0; l < g; ++l) {
                    const int fl = factor(s, n + l, f[l], k);
                    failed = fl < failed ? fl : failed;
                }
                for (int l = 0; l < g; ++l) store(d, n + l, f[l], p, failed);
                if (failed < N) return StatusNotPositiveDefinite;
                n += g;
            }
            return StatusOk;
        }
    });
}

// Serial below the limit; contiguity counts only in the 64f list form.
template <class T> constexpr Limit decomp_limit(Kind kind) {
    if constexpr (sizeof(T) == 4) return serial_below(kind == Kind::S || kind == Kind::S2 ? 7501 : 2001);
    else return serial_below(kind == Kind::L ? 721 : 2001);
}

template <Form form, char Lay, class T, class Src, class Dst>
OrsStatus decomp_frame(OrsStatus st, const Src& s, const Dst& d, int size, int count) {
    if (st != StatusOk) return st;
    return with_kind<Lay, T>(
        [&](auto kind, const auto& sk, const auto& dk) {
            constexpr Kind K = decltype(kind)::value;
            const Limit lim = form == Form::m ? parallel_above(INT_MAX) : decomp_limit<T>(K);
            return dispatch(wmul(size, size, count), lim, count, [&](int f, int k) {
                return decomp_kernel<form, K>(sk.object(f), dk.object(f), size, k);
            });
        },
        s, d);
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

#define X(T, t)                                                                                     \
    extern "C" ORSM_API OrsStatus orsmCholeskyDecomp_m_##t(const T* src, int srcStride1,            \
                                                           int srcStride2, T* dst, int dstStride1,  \
                                                           int dstStride2, int size) {              \
        return decomp_frame<Form::m, 'S', T>(                                                       \
            first_failure(nonnull(src, dst), sizes_ok(size),                                        \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2)),           \
            s_one(src, srcStride1, srcStride2), s_one(dst, dstStride1, dstStride2), size, 1);       \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyDecomp_m_##t##_P(const T* const* src, int srcRoiShift, \
                                                               T* const* dst, int dstRoiShift,      \
                                                               int size) {                          \
        return decomp_frame<Form::m, 'P', T>(                                                       \
            first_failure(nonnull(src, dst), sizes_ok(size), shifts_ok<T>(srcRoiShift, dstRoiShift)), \
            p_one(src, srcRoiShift, size), p_one(dst, dstRoiShift, size), size, 1);                 \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyDecomp_ma_##t(                                        \
        const T* src, int srcStride0, int srcStride1, int srcStride2, T* dst, int dstStride0,       \
        int dstStride1, int dstStride2, int size, int count) {                                      \
        return decomp_frame<Form::ma, 'S', T>(                                                      \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(size),                       \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0, dstStride1, \
                                        dstStride2)),                                               \
            s_mat(src, srcStride0, srcStride1, srcStride2),                                         \
            s_mat(dst, dstStride0, dstStride1, dstStride2), size, count);                           \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyDecomp_ma_##t##_P(                                    \
        const T* const* src, int srcRoiShift, int srcStride0, T* const* dst, int dstRoiShift,       \
        int dstStride0, int size, int count) {                                                      \
        return decomp_frame<Form::ma, 'P', T>(                                                      \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(size),                       \
                          strides_ok<T>(srcStride0, dstStride0),                                    \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                  \
            p_arr(src, srcRoiShift, srcStride0, size), p_arr(dst, dstRoiShift, dstStride0, size),   \
            size, count);                                                                           \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyDecomp_ma_##t##_L(                                    \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, T* const* dst,        \
        int dstRoiShift, int dstStride1, int dstStride2, int size, int count) {                     \
        return decomp_frame<Form::ma, 'L', T>(                                                      \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(size),                       \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2),            \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                  \
            l_mat(src, srcRoiShift, srcStride1, srcStride2),                                        \
            l_mat(dst, dstRoiShift, dstStride1, dstStride2), size, count);                          \
    }
ORSM_FOR_TYPES(X)
#undef X
