// CholeskyBackSubst: solves A x = b from the factor CholeskyDecomp left (L
// below the diagonal, the reciprocals of L's diagonal on it; only the lower
// triangle is read). Forward: y(i) = (b(i) - sum L(i, k) y(k)) * d(i), terms
// k ascending; backward: x(i) = (y(i) - sum L(k, i) x(k)) * d(i), terms k
// descending. Each product is rounded before it is subtracted, one term at
// a time; there is no division and nothing is tested: a zero or a NaN in
// the factor runs through to dst with StatusOk.
//
// The general loop (orders 1, 2, 7 up) keeps y in dst; the order 3 to 6
// paths keep it in locals and write dst at the end, with the same terms in
// the same order (the four-vector kernel of the 32f mva forms included), so
// every path gives the same bits. The one exception is the 32f contiguous
// single-vector kernel: forward rows of 11 terms or more sum in two
// four-lane accumulators (row_sum below).
#include <climits>
#include <cstdint>

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "solvers/cholesky.hpp"
#include "solvers/paths.hpp"
#include "solvers/systems.hpp"

namespace orsm::solve {
namespace {

enum class Form { mv, mva, mava };

// A forward row of the 32f contiguous single-vector kernel, from s = b(i)
// over terms k < i of row l and y: rows of 11 terms or more, with y on a
// 4-byte boundary, take terms one by one up to y's next 16-byte boundary,
// then eight a round in two four-lane accumulators (the first starting
// from s in lane 0), added lane by lane and summed across as (a0 + a1) +
// (a2 + a3), then the rest one by one.
ORSM_INLINE float row_sum(float s, const float* l, const float* y, int i) {
    const auto addr = reinterpret_cast<std::uintptr_t>(y) % 16;
    if (i < 11 || addr % 4 != 0) {
        for (int k = 0; k < i; ++k) s = s - l[k] * y[k];
        return s;
    }
    int k = 0;
    for (const int peel = addr == 0 ? 0 : int(16 - addr) / 4; k < peel; ++k) s = s - l[k] * y[k];
    if (i - k >= 8) {
        float a[4] = {s, 0, 0, 0}, b[4] = {0, 0, 0, 0};
        for (; k + 8 <= i; k += 8)
            for (int j = 0; j < 4; ++j) {
                a[j] = a[j] - l[k + j] * y[k + j];
                b[j] = b[j] - l[k + 4 + j] * y[k + 4 + j];
            }
        for (int j = 0; j < 4; ++j) a[j] = a[j] + b[j];
        s = (a[0] + a[1]) + (a[2] + a[3]);
    }
    for (; k < i; ++k) s = s - l[k] * y[k];
    return s;
}

// The general loop on system n against factor object na, y kept in dst.
template <bool Packed, class A, class B, class D>
void solve_general(const A& a, int na, const B& b, const D& d, int n, int size) {
    using T = Plain<typename D::value_type>;
    for (int i = 0; i < size; ++i) {
        T s = b.v(n, i);
        if constexpr (Packed) {
            s = row_sum(s, &a(na, i, 0), &d.v(n, 0), i);
        } else {
            for (int k = 0; k < i; ++k) s = s - a(na, i, k) * d.v(n, k);
        }
        d.v(n, i) = s * a(na, i, i);
    }
    for (int i = size - 1; i >= 0; --i) {
        T s = d.v(n, i);
        for (int k = size - 1; k > i; --k) s = s - a(na, k, i) * d.v(n, k);
        d.v(n, i) = s * a(na, i, i);
    }
}

// The lower triangle of a factor of order N, read once.
template <int N, class T> struct Factor {
    T l[N][N];
    template <class A> ORSM_INLINE void load(const A& a, int n) {
        for (int i = 0; i < N; ++i)
            for (int k = 0; k <= i; ++k) l[i][k] = a(n, i, k);
    }
};

template <int N, class T, class B, class D> ORSM_INLINE void solve_fixed(const Factor<N, T>& f, const B& b, const D& d,
                                                                        int n) {
    T y[N];
    for (int i = 0; i < N; ++i) {
        T s = b.v(n, i);
        for (int k = 0; k < i; ++k) s = s - f.l[i][k] * y[k];
        y[i] = s * f.l[i][i];
    }
    for (int i = N - 1; i >= 0; --i) {
        T s = y[i];
        for (int k = N - 1; k > i; --k) s = s - f.l[k][i] * y[k];
        y[i] = s * f.l[i][i];
    }
    for (int i = 0; i < N; ++i) d.v(n, i) = y[i];
}


// Systems 0 .. count-1: with a factor each (mava), or one factor read once
// for all of them.
template <Form form, Kind K, class A, class B, class D>
OrsStatus backsubst_kernel(const A& a, const B& b, const D& d, int size, int count) {
    using T = Plain<typename D::value_type>;
    constexpr bool many = form == Form::mava;
    constexpr bool packed = form == Form::mv && K == Kind::S && sizeof(T) == 4;
    by_order(size, [&](auto order) {
        constexpr int N = decltype(order)::value;
        if constexpr (N == 0) {
            for (int n = 0; n < count; ++n) solve_general<packed>(a, many ? n : 0, b, d, n, size);
        } else if constexpr (many) {
            for (int n = fast_solves<K, N>(chol::fast_kernels<T>(), a, b, d, count); n < count; ++n) {
                Factor<N, T> f;
                f.load(a, n);
                solve_fixed(f, b, d, n);
            }
        } else {
            Factor<N, T> f;
            f.load(a, 0);
            int n = 0;
            // (An S mva call from order 4 only: at order 3 the scalar path,
            // its one factor in registers, is faster, 2.6 against 4.1 ns a
            // vector in 64f.)
            if constexpr (form == Form::mva && (N > 3 || K == Kind::P))
                n = fast_solves<K, N>(chol::fast_kernels<T>(), a, b, d, count);
            for (; n < count; ++n) solve_fixed(f, b, d, n);
        }
    });
    return StatusOk;
}

// Serial below the limit. The 32f contiguous mava and the 64f P mava forms
// have 2051 where their neighbours have 1701.
template <class T> constexpr Limit backsubst_limit(Form form, Kind kind) {
    const bool f32 = sizeof(T) == 4;
    switch (form) {
        case Form::mava:
            return serial_below((f32 && kind == Kind::S) || (!f32 && kind == Kind::P) ? 2051 : 1701);
        case Form::mva:
            return serial_below(f32 && (kind == Kind::S || kind == Kind::S2) ? 1201 : 721);
        default:
            return parallel_above(INT_MAX);
    }
}
constexpr int backsubst_work(Form form, int size, int count) {
    return form == Form::mva ? wmul(wadd(size, wmul(2, count)), size) : wmul(size, wadd(size, 2), count);
}

template <Form form, char Lay, class T, class A, class B, class D>
OrsStatus backsubst_frame(OrsStatus st, const A& a, const B& b, const D& d, int size, int count) {
    if (st != StatusOk) return st;
    return with_kind<Lay, T>(
        [&](auto kind, const auto& ak, const auto& bk, const auto& dk) {
            constexpr Kind K = decltype(kind)::value;
            return dispatch(backsubst_work(form, size, count), backsubst_limit<T>(form, K), count,
                            [&](int f, int k) {
                                return backsubst_kernel<form, K>(ak.object(f),
                                                                 bk.object(f), dk.object(f), size, k);
                            });
        },
        a, b, d);
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

// Pointers, count, size, strides, shifts; the mva list form alone checks
// pointers, strides, shifts, size and count in that order.
#define CHB_CHECKS(count_step, strides, shifts) \
    first_failure(nonnull(src1, src2, dst), count_step, sizes_ok(size), strides, shifts)

#define X(T, t)                                                                                     \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mv_##t(const T* src1, int src1Stride1,      \
                                                               int src1Stride2, const T* src2,      \
                                                               int src2Stride2, T* dst,             \
                                                               int dstStride2, int size) {          \
        return backsubst_frame<Form::mv, 'S', T>(                                                   \
            CHB_CHECKS(StatusOk, strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),  \
                       StatusOk),                                                                   \
            s_one(src1, src1Stride1, src1Stride2), s_vec(src2, 0, src2Stride2),                     \
            s_vec(dst, 0, dstStride2), size, 1);                                                    \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mv_##t##_P(                                 \
        const T* const* src1, int src1RoiShift, const T* const* src2, int src2RoiShift,             \
        T* const* dst, int dstRoiShift, int size) {                                                 \
        return backsubst_frame<Form::mv, 'P', T>(                                                   \
            CHB_CHECKS(StatusOk, StatusOk, shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),  \
            p_one(src1, src1RoiShift, size), p_one(src2, src2RoiShift, size),                       \
            p_one(dst, dstRoiShift, size), size, 1);                                                \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mva_##t(                                    \
        const T* src1, int src1Stride1, int src1Stride2, const T* src2, int src2Stride0,            \
        int src2Stride2, T* dst, int dstStride0, int dstStride2, int size, int count) {             \
        return backsubst_frame<Form::mva, 'S', T>(                                                  \
            CHB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride0, src2Stride2,            \
                                     dstStride0, dstStride2),                                       \
                       StatusOk),                                                                   \
            s_one(src1, src1Stride1, src1Stride2), s_vec(src2, src2Stride0, src2Stride2),           \
            s_vec(dst, dstStride0, dstStride2), size, count);                                       \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mva_##t##_P(                                \
        const T* const* src1, int src1RoiShift, const T* const* src2, int src2RoiShift,             \
        int src2Stride0, T* const* dst, int dstRoiShift, int dstStride0, int size, int count) {     \
        return backsubst_frame<Form::mva, 'P', T>(                                                  \
            CHB_CHECKS(count_ok(count), strides_ok<T>(src2Stride0, dstStride0),                     \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                      \
            p_one(src1, src1RoiShift, size), p_arr(src2, src2RoiShift, src2Stride0, size),          \
            p_arr(dst, dstRoiShift, dstStride0, size), size, count);                                \
    }                                                                                               \
    /* The factor of the list form is an ordinary strided matrix, with no shift. */                 \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mva_##t##_L(                                \
        const T* src1, int src1Stride1, int src1Stride2, const T* const* src2, int src2RoiShift,    \
        int src2Stride2, T* const* dst, int dstRoiShift, int dstStride2, int size, int count) {     \
        return backsubst_frame<Form::mva, 'L', T>(                                                  \
            first_failure(nonnull(src1, src2, dst),                                                 \
                          strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),         \
                          shifts_ok<T>(src2RoiShift, dstRoiShift), sizes_ok(size),                  \
                          count_ok(count)),                                                         \
            s_one(src1, src1Stride1, src1Stride2), l_vec(src2, src2RoiShift, src2Stride2),          \
            l_vec(dst, dstRoiShift, dstStride2), size, count);                                      \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mava_##t(                                   \
        const T* src1, int src1Stride0, int src1Stride1, int src1Stride2, const T* src2,            \
        int src2Stride0, int src2Stride2, T* dst, int dstStride0, int dstStride2, int size,         \
        int count) {                                                                                \
        return backsubst_frame<Form::mava, 'S', T>(                                                 \
            CHB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride0, src1Stride1, src1Stride2, src2Stride0,            \
                                     src2Stride2, dstStride0, dstStride2),                          \
                       StatusOk),                                                                   \
            s_mat(src1, src1Stride0, src1Stride1, src1Stride2), s_vec(src2, src2Stride0, src2Stride2), \
            s_vec(dst, dstStride0, dstStride2), size, count);                                       \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mava_##t##_P(                               \
        const T* const* src1, int src1RoiShift, int src1Stride0, const T* const* src2,              \
        int src2RoiShift, int src2Stride0, T* const* dst, int dstRoiShift, int dstStride0,          \
        int size, int count) {                                                                      \
        return backsubst_frame<Form::mava, 'P', T>(                                                 \
            CHB_CHECKS(count_ok(count), strides_ok<T>(src1Stride0, src2Stride0, dstStride0),        \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                      \
            p_arr(src1, src1RoiShift, src1Stride0, size), p_arr(src2, src2RoiShift, src2Stride0, size), \
            p_arr(dst, dstRoiShift, dstStride0, size), size, count);                                \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmCholeskyBackSubst_mava_##t##_L(                               \
        const T* const* src1, int src1RoiShift, int src1Stride1, int src1Stride2,                   \
        const T* const* src2, int src2RoiShift, int src2Stride2, T* const* dst, int dstRoiShift,    \
        int dstStride2, int size, int count) {                                                      \
        return backsubst_frame<Form::mava, 'L', T>(                                                 \
            CHB_CHECKS(count_ok(count),                                                             \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),            \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                      \
            l_mat(src1, src1RoiShift, src1Stride1, src1Stride2), l_vec(src2, src2RoiShift, src2Stride2), \
            l_vec(dst, dstRoiShift, dstStride2), size, count);                                      \
    }
ORSM_FOR_TYPES(X)
#undef X
#undef CHB_CHECKS
