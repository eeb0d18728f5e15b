// LUDecomp: Gaussian elimination with partial pivoting, rows never moved.
//
// The pivot order lives in dstIndex alone: dstIndex[k] is the row of src
// chosen as k-th pivot, and element (dstIndex[k], j) of dst holds L(k, j) for
// j below k (L's unit diagonal is not stored) and U(k, j) from k on. Each
// column scales its multipliers by one reciprocal of the pivot, then updates
// the later rows in table order, columns ascending, each product rounded
// before its subtraction. A pivot is singular against the element type's
// epsilon, absolutely, never scaled by the data.
//
// The two kinds of path differ on purpose, and each difference is kept:
//
//               orders 3 to 6 (local copy)        orders 1, 2, 7 up (in dst)
//  singular     magnitude below epsilon           at or below epsilon
//  failing col  table exchanged before the test   table not exchanged
//  last pivot   physical a[size-1][size-1]        a[dstIndex[size-1]][size-1]
//  dst          pivot rows written as they stand   a copy of src, eliminated
//               final (layout P: all at the end)   in place
#include <climits>
#include <cmath>
#include <limits>
#include <utility>

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "solvers/lu_fast.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve {
namespace {

template <class T> constexpr double epsilon = std::numeric_limits<T>::epsilon();

// Pivot magnitudes are compared as doubles.
template <class T> ORSM_INLINE double mag(T x) { return std::fabs(double(x)); }

// The order-N path on object n: src read whole into a local array first, so
// dst may be src. Layouts S and L write each pivot row once it is final, so
// a failure leaves the later rows as they were; layout P writes the whole
// matrix at the end, and nothing on a failure.
template <int N, bool WholeAtEnd, class Src, class Dst>
ORSM_INLINE OrsStatus decomp_fixed(const Src& s, const Dst& d, int n, int* index) {
    using T = Plain<typename Dst::value_type>;
    T a[N][N];
    int q[N];
    for (int r = 0; r < N; ++r)
        for (int c = 0; c < N; ++c) a[r][c] = s(n, r, c);
    for (int i = 0; i < N; ++i) q[i] = i;
    auto write_row = [&](int r) {
        for (int c = 0; c < N; ++c) d(n, r, c) = a[r][c];
    };
    auto leave = [&](OrsStatus st) {
        for (int i = 0; i < N; ++i) index[i] = q[i];
        return st;
    };
    for (int k = 0; k < N - 1; ++k) {
        int best = k;
        double m = mag(a[q[k]][k]);
        for (int i = k + 1; i < N; ++i) {
            const double v = mag(a[q[i]][k]);
            if (v > m) m = v, best = i;  // a tie keeps the earlier table position
        }
        // The exchange comes before the test, so a failing column leaves it
        // in the table.
        std::swap(q[k], q[best]);
        if (m < epsilon<T>) return leave(StatusSingular);
        const int p = q[k];
        const T r = T(1) / a[p][k];
        if constexpr (!WholeAtEnd) write_row(p);
        for (int i = k + 1; i < N; ++i) a[q[i]][k] = a[q[i]][k] * r;
        for (int i = k + 1; i < N; ++i) {
            const int qi = q[i];
            for (int j = k + 1; j < N; ++j) a[qi][j] = a[qi][j] - a[p][j] * a[qi][k];
        }
    }
    // The last test looks at the physical last element, not through the
    // table: it sees the last pivot only when row N-1 of src ended up last.
    if (mag(a[N - 1][N - 1]) < epsilon<T>) return leave(StatusSingular);
    if constexpr (WholeAtEnd)
        for (int r = 0; r < N; ++r) write_row(r);
    else
        write_row(q[N - 1]);
    return leave(StatusOk);
}

// The general loop on object n: src copied to dst, then all work in dst.
template <class Src, class Dst>
OrsStatus decomp_general(const Src& s, const Dst& d, int n, int* index, int size) {
    using T = Plain<typename Dst::value_type>;
    for (int r = 0; r < size; ++r)
        for (int c = 0; c < size; ++c) move_bits(&d(n, r, c), &s(n, r, c));
    for (int i = 0; i < size; ++i) index[i] = i;
    for (int k = 0; k < size - 1; ++k) {
        int best = k;
        double m = mag(d(n, index[k], k));
        for (int i = k + 1; i < size; ++i) {
            const double v = mag(d(n, index[i], k));
            if (v > m) m = v, best = i;
        }
        // Singular at or below epsilon, with the failing column's exchange
        // not made.
        if (m <= epsilon<T>) return StatusSingular;
        if (best != k) std::swap(index[k], index[best]);
        const int p = index[k];
        const T r = T(1) / d(n, p, k);
        for (int i = k + 1; i < size; ++i) {
            T& l = d(n, index[i], k);
            l = l * r;
        }
        for (int i = k + 1; i < size; ++i) {
            const int qi = index[i];
            const T l = d(n, qi, k);
            for (int j = k + 1; j < size; ++j) d(n, qi, j) = d(n, qi, j) - d(n, p, j) * l;
        }
    }
    return mag(d(n, index[size - 1], size - 1)) <= epsilon<T> ? StatusSingular : StatusOk;
}

// Runs one(n) over objects [0, count) in order; the contiguous S and L
// kernels, and P arrays over structure-of-arrays planes, hand groups of
// objects to the fast paths where they can (lu_fast.hpp).
template <Kind K, int N, class Src, class Dst, class One>
OrsStatus decomp_objects(const Src& s, const Dst& d, int* index, int count, One&& one) {
    using T = Plain<typename Dst::value_type>;
    if constexpr (N != 0 && (K == Kind::S || K == Kind::L)) {
        const LuKernels<T>& k = lu_kernels<T>();
        const typename Groups<K == Kind::L>::template Decomp<T> g{groups::objects(s), groups::objects(d), index};
        const auto fn = k.of(g, N);
        const int W = fn ? k.decomp_lanes : 1;
        return groups::in_groups(count, W, [&](int n) { return safe(g, N, n, W) && fn(g, n); }, one);
    } else if constexpr (N != 0 && K == Kind::P) {
        // Structure-of-arrays planes: objects one element apart in src and
        // dst, the planes and the tables tested once for the call.
        const LuKernels<T>& k = lu_kernels<T>();
        const DecompGroup<T, groups::Soa> g{groups::planes(s), groups::planes(d), index};
        const ptrdiff_t tables = ptrdiff_t(count) * N;
        const bool planes = groups::planes_fit(s, d, count, N, N) && groups::apart(g.src, N, N, count, index, tables) &&
                            groups::apart(g.dst, N, N, count, index, tables);
        return groups::in_groups(count, planes ? k.decomp_lanes : 1, [&](int n) { return k.decomp_p[N - 3](g, n); }, one);
    } else {
        return groups::in_groups(count, 1, [](int) { return false; }, one);
    }
}

// Objects in order; the first singular one ends the call, leaving the later
// ones untouched.
template <Kind K, class Src, class Dst>
OrsStatus decomp_kernel(const Src& s, const Dst& d, int* index, int size, int count) {
    return by_order(size, [&](auto order) -> OrsStatus {
        constexpr int N = decltype(order)::value;
        return decomp_objects<K, N>(s, d, index, count, [&](int n) {
            if constexpr (N == 0) {
                // The strided S kernel's general loop gives every object the
                // same table: it ends up holding the last object's.
                int* idx = K == Kind::S2 ? index : index + ptrdiff_t(n) * size;
                return decomp_general(s, d, n, idx, size);
            } else {
                return decomp_fixed<N, K == Kind::P>(s, d, n, index + ptrdiff_t(n) * N);
            }
        });
    });
}

// Only the 32f list form has a parallel form (from W = 1001 on); every
// other array form runs serially whatever its work.
template <class T> constexpr Limit decomp_limit(char lay) {
    return sizeof(T) == 4 && lay == 'L' ? serial_below(1001) : parallel_above(INT_MAX);
}

template <char Lay, class T, class Src, class Dst>
OrsStatus decomp_frame(OrsStatus st, const Src& s, const Dst& d, int* index, int size, int count) {
    if (st != StatusOk) return st;
    return dispatch(wmul(size, size, count), decomp_limit<T>(Lay), count, [&](int f, int k) {
        return with_kind<Lay, T>(
            [&](auto kind, const auto& sf, const auto& df) {
                return decomp_kernel<decltype(kind)::value>(sf, df, index + ptrdiff_t(f) * size, size, k);
            },
            s.object(f), d.object(f));
    });
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

#define X(T, t)                                                                                     \
    extern "C" ORSM_API OrsStatus orsmLUDecomp_m_##t(const T* src, int srcStride1, int srcStride2,  \
                                                     int* dstIndex, T* dst, int dstStride1,         \
                                                     int dstStride2, int size) {                    \
        return decomp_frame<'S', T>(                                                                \
            first_failure(nonnull(src, dst, dstIndex), sizes_ok(size),                              \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2)),           \
            s_one(src, srcStride1, srcStride2), s_one(dst, dstStride1, dstStride2), dstIndex, size, \
            1);                                                                                     \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUDecomp_m_##t##_P(const T* const* src, int srcRoiShift,      \
                                                         int* dstIndex, T* const* dst,              \
                                                         int dstRoiShift, int size) {               \
        return decomp_frame<'P', T>(first_failure(nonnull(src, dst, dstIndex), sizes_ok(size),      \
                                                  shifts_ok<T>(srcRoiShift, dstRoiShift)),          \
                                    p_one(src, srcRoiShift, size), p_one(dst, dstRoiShift, size),   \
                                    dstIndex, size, 1);                                             \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUDecomp_ma_##t(                                              \
        const T* src, int srcStride0, int srcStride1, int srcStride2, int* dstIndex, T* dst,        \
        int dstStride0, int dstStride1, int dstStride2, int size, int count) {                      \
        return decomp_frame<'S', T>(                                                                \
            first_failure(nonnull(src, dst, dstIndex), count_ok(count), sizes_ok(size),             \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0, dstStride1, \
                                        dstStride2)),                                               \
            s_mat(src, srcStride0, srcStride1, srcStride2),                                         \
            s_mat(dst, dstStride0, dstStride1, dstStride2), dstIndex, size, count);                 \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUDecomp_ma_##t##_P(                                          \
        const T* const* src, int srcRoiShift, int srcStride0, int* dstIndex, T* const* dst,         \
        int dstRoiShift, int dstStride0, int size, int count) {                                     \
        return decomp_frame<'P', T>(                                                                \
            first_failure(nonnull(src, dst, dstIndex), count_ok(count), sizes_ok(size),             \
                          strides_ok<T>(srcStride0, dstStride0),                                    \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                  \
            p_arr(src, srcRoiShift, srcStride0, size), p_arr(dst, dstRoiShift, dstStride0, size),   \
            dstIndex, size, count);                                                                 \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUDecomp_ma_##t##_L(                                          \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, int* dstIndex,        \
        T* const* dst, int dstRoiShift, int dstStride1, int dstStride2, int size, int count) {      \
        return decomp_frame<'L', T>(                                                                \
            first_failure(nonnull(src, dst, dstIndex), count_ok(count), sizes_ok(size),             \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2),            \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                  \
            l_mat(src, srcRoiShift, srcStride1, srcStride2),                                        \
            l_mat(dst, dstRoiShift, dstStride1, dstStride2), dstIndex, size, count);                \
    }
ORSM_FOR_TYPES(X)
#undef X
