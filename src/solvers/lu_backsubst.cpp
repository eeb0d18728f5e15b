// LUBackSubst: solves A x = b from the factor and pivot table LUDecomp left.
//
// With q(i) = srcIndex[i] and M(i, j) = src1(q(i), j): M below the diagonal
// is L (unit diagonal implied), on and above it U. Step i reads b at q(i);
// dst is written in natural order. Nothing is tested: a zero on U's diagonal
// gives infinities and NaNs with StatusOk. All arithmetic is in the element
// type, each product rounded before it is added or subtracted.
//
// The two kinds of path differ on purpose and are not to be folded:
//  - orders 3 to 6 read all of b first, subtract term by term (forward: the
//    column-0 term last) and multiply by reciprocals of the diagonal;
//  - the general loop (orders 1, 2, 7 up) keeps its intermediate vector in
//    dst, sums each row's terms from zero first, subtracts the sum and
//    divides. So with dst on src2 and a table that is not the identity, an
//    element of b can be overwritten before the table reads it (order 2 and
//    from 7 on); the size paths are not affected.
#include <climits>

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "solvers/lu_fast.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve {
namespace {

// A factor of order N read through its table once, with the reciprocals of
// its diagonal.
template <int N, class T> struct Factor {
    T m[N][N];
    T r[N];
    int q[N];
    template <class A> ORSM_INLINE void load(const A& a, int n, const int* index) {
        for (int i = 0; i < N; ++i) q[i] = index[i];
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) m[i][j] = a(n, q[i], j);
        for (int i = 0; i < N; ++i) r[i] = T(1) / m[i][i];
    }
};

template <int N, class T, class B, class D>
ORSM_INLINE void solve_fixed(const Factor<N, T>& f, const B& b, const D& d, int n) {
    T y[N];
    for (int i = 0; i < N; ++i) y[i] = b.v(n, f.q[i]);
    for (int i = 1; i < N; ++i) {
        T t = y[i];
        for (int j = 1; j < i; ++j) t = t - f.m[i][j] * y[j];
        // The column-0 term comes after all the others.
        y[i] = t - f.m[i][0] * y[0];
    }
    for (int i = N - 1; i >= 0; --i) {
        T t = y[i];
        for (int j = N - 1; j > i; --j) t = t - f.m[i][j] * y[j];
        y[i] = t * f.r[i];
        d.v(n, i) = y[i];
    }
}

// The general loop on system n against matrix object na.
template <class A, class B, class D>
void solve_general(const A& a, int na, const int* q, const B& b, const D& d, int n, int size) {
    using T = Plain<typename D::value_type>;
    auto M = [&](int i, int j) -> T { return a(na, q[i], j); };
    d.v(n, 0) = b.v(n, q[0]);
    for (int i = 1; i < size; ++i) {
        T s = 0;
        for (int j = 0; j < i; ++j) s = s + M(i, j) * d.v(n, j);
        d.v(n, i) = b.v(n, q[i]) - s;
    }
    d.v(n, size - 1) = d.v(n, size - 1) / M(size - 1, size - 1);
    for (int i = size - 2; i >= 0; --i) {
        T s = 0;
        for (int j = i + 1; j < size; ++j) s = s + M(i, j) * d.v(n, j);
        d.v(n, i) = (d.v(n, i) - s) / M(i, i);
    }
}

// Systems [0, n) of a P call over structure-of-arrays planes, solved by the
// fast paths (lu_fast.hpp), W at a time while whole groups remain, the
// planes and tables tested once for the call: a factor each (mava) or one
// for all; the scalar path goes on from n.
template <bool ManyFactors, int N, class A, class B, class D>
int plane_solves(const A& a, const int* index, const B& b, const D& d, int count) {
    using T = Plain<typename D::value_type>;
    const LuKernels<T>& k = lu_kernels<T>();
    const SolveGroup<T, groups::Soa> g{groups::planes(a), index, groups::planes(b), groups::planes(d)};
    // (A mava call's factors must stand one element apart: each has its own
    // table, where shared planes would take the first.)
    const int W = !ManyFactors || groups::one_apart(a) ? k.decomp_lanes : 1;
    return groups::in_plane_groups(a, b, d, N, count, W, [&](int f) { k.of(g, N)(g, f); }, index,
                                   ManyFactors ? ptrdiff_t(count) * N : N);
}

// Runs one(n) over systems [0, count); the contiguous S and L kernels, and P
// arrays over structure-of-arrays planes, hand groups of systems to the
// fast paths where they can (lu_fast.hpp).
template <Kind K, int N, class A, class B, class D, class One>
void solve_objects(const A& a, const int* index, const B& b, const D& d, int count, One&& one) {
    using T = Plain<typename D::value_type>;
    if constexpr (K == Kind::P) {
        for (int n = plane_solves<true, N>(a, index, b, d, count); n < count; ++n) one(n);
    } else if constexpr (K == Kind::S || K == Kind::L) {
        const LuKernels<T>& k = lu_kernels<T>();
        using groups::objects;
        const typename Groups<K == Kind::L>::template Solve<T> g{objects(a), index, objects(b), objects(d)};
        const auto fn = k.of(g, N);
        const int W = N >= k.mava_from ? k.solve_lanes : 1;
        groups::in_groups(count, W, [&](int n) { return safe(g, N, n, W) && (fn(g, n), true); }, one);
    } else {
        groups::in_groups(count, 1, [](int) { return false; }, one);
    }
}

// Systems 0 .. count-1. With ManyFactors each has its own matrix and its own
// table run (mava); otherwise one factor serves every vector and a size path
// reads it once for all of them.
template <bool ManyFactors, Kind K, class A, class B, class D>
OrsStatus backsubst_kernel(const A& a, const int* index, const B& b, const D& d, int size, int count) {
    using T = Plain<typename D::value_type>;
    by_order(size, [&](auto order) {
        constexpr int N = decltype(order)::value;
        if constexpr (N == 0) {
            for (int n = 0; n < count; ++n)
                solve_general(a, ManyFactors ? n : 0, index + (ManyFactors ? ptrdiff_t(n) * size : 0), b, d, n,
                              size);
        } else if constexpr (ManyFactors) {
            solve_objects<K, N>(a, index, b, d, count, [&](int n) {
                Factor<N, T> f;
                f.load(a, n, index + ptrdiff_t(n) * N);
                solve_fixed(f, b, d, n);
                return StatusOk;
            });
        } else {
            Factor<N, T> f;
            f.load(a, 0, index);
            int n = 0;
            if constexpr (K == Kind::P) {
                n = plane_solves<false, N>(a, index, b, d, count);
            } else if constexpr (K == Kind::S && N > 3) {
                // Vectors side by side against the one factor, from order 4
                // (at order 3 the scalar path, its factor in registers, wins).
                const LuKernels<T>& k = lu_kernels<T>();
                using groups::objects;
                const typename Groups<false>::template Solve<T> g{objects(a), index, objects(b), objects(d)};
                const int W = k.solve_lanes;
                for (const auto fn = k.of(g, N); n + W <= count && safe(g, N, n, W); n += W) fn(g, n);
            }
            for (; n < count; ++n) solve_fixed(f, b, d, n);
        }
    });
    return StatusOk;
}

enum class Form { mv, mva, mava };

// Serial below the limit (equal work goes parallel); mv has no parallel form.
constexpr Limit backsubst_limit(Form form) {
    return form == Form::mva ? serial_below(701) : form == Form::mava ? serial_below(1201) : parallel_above(INT_MAX);
}
constexpr int backsubst_work(Form form, int size, int count) {
    return form == Form::mva ? wmul(wadd(size, wmul(2, count)), size) : wmul(size, wadd(size, 2), count);
}

template <Form form, char Lay, class T, class A, class B, class D>
OrsStatus backsubst_frame(OrsStatus st, const A& a, const int* index, const B& b, const D& d, int size,
                          int count) {
    if (st != StatusOk) return st;
    constexpr bool many = form == Form::mava;
    return dispatch(backsubst_work(form, size, count), backsubst_limit(form), count, [&](int f, int k) {
        return with_kind<Lay, T>(
            [&](auto kind, const auto& af, const auto& bf, const auto& df) {
                return backsubst_kernel<many, decltype(kind)::value>(af, index + (many ? ptrdiff_t(f) * size : 0), bf, df, size, k);
            },
            a.object(f), b.object(f), d.object(f));
    });
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

// Checks of every form: pointers, count, size, strides, shifts.
#define LUB_CHECKS(count_step, strides, shifts)                                                     \
    first_failure(nonnull(src1, src2, dst, srcIndex), count_step, sizes_ok(size), strides, shifts)

#define X(T, t)                                                                                     \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mv_##t(                                           \
        const T* src1, int src1Stride1, int src1Stride2, const int* srcIndex, const T* src2,        \
        int src2Stride2, T* dst, int dstStride2, int size) {                                        \
        return backsubst_frame<Form::mv, 'S', T>(                                                   \
            LUB_CHECKS(StatusOk, strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),  \
                       StatusOk),                                                                   \
            s_one(src1, src1Stride1, src1Stride2), srcIndex, s_vec(src2, 0, src2Stride2),           \
            s_vec(dst, 0, dstStride2), size, 1);                                                    \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mv_##t##_P(                                       \
        const T* const* src1, int src1RoiShift, const int* srcIndex, const T* const* src2,          \
        int src2RoiShift, T* const* dst, int dstRoiShift, int size) {                               \
        return backsubst_frame<Form::mv, 'P', T>(                                                   \
            LUB_CHECKS(StatusOk, StatusOk, shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),  \
            p_one(src1, src1RoiShift, size), srcIndex, p_one(src2, src2RoiShift, size),             \
            p_one(dst, dstRoiShift, size), size, 1);                                                \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mva_##t(                                          \
        const T* src1, int src1Stride1, int src1Stride2, const int* srcIndex, const T* src2,        \
        int src2Stride0, int src2Stride2, T* dst, int dstStride0, int dstStride2, int size,         \
        int count) {                                                                                \
        return backsubst_frame<Form::mva, 'S', T>(                                                  \
            LUB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride0, src2Stride2,            \
                                     dstStride0, dstStride2),                                       \
                       StatusOk),                                                                   \
            s_one(src1, src1Stride1, src1Stride2), srcIndex, s_vec(src2, src2Stride0, src2Stride2), \
            s_vec(dst, dstStride0, dstStride2), size, count);                                       \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mva_##t##_P(                                      \
        const T* const* src1, int src1RoiShift, const int* srcIndex, const T* const* src2,          \
        int src2RoiShift, int src2Stride0, T* const* dst, int dstRoiShift, int dstStride0,          \
        int size, int count) {                                                                      \
        return backsubst_frame<Form::mva, 'P', T>(                                                  \
            LUB_CHECKS(count_ok(count), strides_ok<T>(src2Stride0, dstStride0),                     \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                      \
            p_one(src1, src1RoiShift, size), srcIndex, p_arr(src2, src2RoiShift, src2Stride0, size),\
            p_arr(dst, dstRoiShift, dstStride0, size), size, count);                                \
    }                                                                                               \
    /* The matrix of the list form is an ordinary strided one, with no shift. */                   \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mva_##t##_L(                                      \
        const T* src1, int src1Stride1, int src1Stride2, const int* srcIndex,                       \
        const T* const* src2, int src2RoiShift, int src2Stride2, T* const* dst, int dstRoiShift,    \
        int dstStride2, int size, int count) {                                                      \
        return backsubst_frame<Form::mva, 'L', T>(                                                  \
            LUB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),            \
                       shifts_ok<T>(src2RoiShift, dstRoiShift)),                                    \
            s_one(src1, src1Stride1, src1Stride2), srcIndex, l_vec(src2, src2RoiShift, src2Stride2),\
            l_vec(dst, dstRoiShift, dstStride2), size, count);                                      \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mava_##t(                                         \
        const T* src1, int src1Stride0, int src1Stride1, int src1Stride2, const int* srcIndex,      \
        const T* src2, int src2Stride0, int src2Stride2, T* dst, int dstStride0, int dstStride2,    \
        int size, int count) {                                                                      \
        return backsubst_frame<Form::mava, 'S', T>(                                                 \
            LUB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride0, src1Stride1, src1Stride2, src2Stride0,            \
                                     src2Stride2, dstStride0, dstStride2),                          \
                       StatusOk),                                                                   \
            s_mat(src1, src1Stride0, src1Stride1, src1Stride2), srcIndex,                           \
            s_vec(src2, src2Stride0, src2Stride2), s_vec(dst, dstStride0, dstStride2), size,        \
            count);                                                                                 \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mava_##t##_P(                                     \
        const T* const* src1, int src1RoiShift, int src1Stride0, const int* srcIndex,               \
        const T* const* src2, int src2RoiShift, int src2Stride0, T* const* dst, int dstRoiShift,    \
        int dstStride0, int size, int count) {                                                      \
        return backsubst_frame<Form::mava, 'P', T>(                                                 \
            LUB_CHECKS(count_ok(count), strides_ok<T>(src1Stride0, src2Stride0, dstStride0),        \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                      \
            p_arr(src1, src1RoiShift, src1Stride0, size), srcIndex,                                 \
            p_arr(src2, src2RoiShift, src2Stride0, size), p_arr(dst, dstRoiShift, dstStride0, size),\
            size, count);                                                                           \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmLUBackSubst_mava_##t##_L(                                     \
        const T* const* src1, int src1RoiShift, int src1Stride1, int src1Stride2,                   \
        const int* srcIndex, const T* const* src2, int src2RoiShift, int src2Stride2,               \
        T* const* dst, int dstRoiShift, int dstStride2, int size, int count) {                      \
        return backsubst_frame<Form::mava, 'L', T>(                                                 \
            LUB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),            \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                      \
            l_mat(src1, src1RoiShift, src1Stride1, src1Stride2), srcIndex,                          \
            l_vec(src2, src2RoiShift, src2Stride2), l_vec(dst, dstRoiShift, dstStride2), size,      \
            count);                                                                                 \
    }
ORSM_FOR_TYPES(X)
#undef X
#undef LUB_CHECKS
