// QRBackSubst: least-squares solve of A x = b from the compact factor of
// QRDecomp (qr.hpp): b reflected step by step by v of each column, beta
// recomputed from v, then R x = (Q^T b)[0, width) by back substitution with
// real divisions. Nothing is tested: a zero on R's diagonal gives
// infinities and NaNs with StatusOk.
//
// Two kinds of path:
//  - square systems of order 3 to 6 run in local values and never touch the
//    scratch; b is read whole before x is written, so dst may be src2;
//  - every other shape runs the general loop: b copied into the scratch,
//    reflected there (on a tall system the scratch keeps the residual part
//    of Q^T b from width on), x written into dst and read back from it.
// Both are one template, so they take every sum in the same order.
#include <climits>

#include "solvers/qr.hpp"
#include "solvers/systems.hpp"

namespace orsm::solve {
namespace {

using qr::beta_of;
using qr::Factor;
using qr::solve_one;

enum class Form { mv, mva, mava };


// Systems 0 .. count-1 on the order-N path (0: the general loop). mava
// steps the factor with the system, mv and mva keep the one factor; a
// square path reads it and its betas once for all systems.
template <Form F, Kind K, int N, class A, class B, class D, class T>
void backsubst_kernel(const A& a, const B& b, const D& d, T* buf, int w, int h, int count) {
    constexpr bool many = F == Form::mava;
    if constexpr (N == 0) {
        for (int n = 0; n < count; ++n) {
            auto fa = [&, na = many ? n : 0](int i, int j) -> T { return a(na, i, j); };
            for (int i = 0; i < h; ++i) move_bits(&buf[i], &b.v(n, i));
            solve_one<T>(fa, [&](int j) { return beta_of<T>(fa, j, h); }, buf,
                         [&](int i) -> T& { return d.v(n, i); }, w, h);
        }
    } else {
        Factor<N, T> f;
        auto one = [&](int n) {
            T y[N], x[N];
            for (int i = 0; i < N; ++i) y[i] = b.v(n, i);
            solve_one<T>(f, [&](int j) { return f.beta[j]; }, y, [&](int i) -> T& { return x[i]; }, N, N);
            for (int i = 0; i < N; ++i) d.v(n, i) = x[i];
        };
        int n = 0;
        if constexpr (!many) f.load(a, 0);
        // (An S mva call from order 4 only: at order 3 the scalar path, its
        // one factor in registers, is faster, 5.5 against 10.3 ns a vector
        // in 64f.)
        if constexpr (F == Form::mava || (F == Form::mva && (N > 3 || K == Kind::P)))
            n = fast_solves<K, N>(qr::fast_kernels<T>(), a, b, d, count);
        for (; n < count; ++n) {
            if (many) f.load(a, n);
            one(n);
        }
    }
}

// Widths 3 to 6 have paths for square systems only; a tall system of any
// width takes the general loop.
template <Form F, Kind K, class A, class B, class D, class T>
void backsubst_paths(const A& a, const B& b, const D& d, T* buf, int w, int h, int count) {
    auto run = [&](auto order) { backsubst_kernel<F, K, decltype(order)::value>(a, b, d, buf, w, h, count); };
    if (w == h) by_order(w, run);
    else run(Order<0>{});
}

// mva: w h + (w + h) count; mava: (w (h + 1) + h) count; mv stays serial.
constexpr int backsubst_work(Form f, int w, int h, int count) {
    return f == Form::mva ? wadd(wmul(w, h), wmul(wadd(w, h), count)) : wmul(wadd(wmul(w, wadd(h, 1)), h), count);
}

template <Form F, char Lay, class T, class A, class B, class D>
OrsStatus backsubst_frame(OrsStatus st, const A& a, T* buffer, const B& b, const D& d, int w, int h, int count) {
    if (st != StatusOk) return st;
    const Limit lim = F == Form::mv ? parallel_above(INT_MAX) : qr::limit(Lay);
    return dispatch_ws(backsubst_work(F, w, h, count), lim, count, qr::scratch_per_member(h), buffer,
                       [&](int f, int k, T* buf) {
                           return with_kind<Lay, T>(
                               [&](auto kind, const auto& af, const auto& bf, const auto& df) {
                                   backsubst_paths<F, decltype(kind)::value>(af, bf, df, buf, w, h, k);
                                   return StatusOk;
                               },
                               a.object(f), b.object(f), d.object(f));
                       });
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

// Checks of every form: pointers, count, sizes, strides, shifts, and the
// shape last of all.
#define QRB_CHECKS(count_step, strides, shifts)                                                      \
    first_failure(nonnull(src1, src2, dst, buffer), count_step, sizes_ok(width, height), strides,  \
                  shifts, qr::shape_ok(width, height))

#define X(T, t)                                                                                      \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mv_##t(                                            \
        const T* src1, int src1Stride1, int src1Stride2, T* buffer, const T* src2, int src2Stride2,  \
        T* dst, int dstStride2, int width, int height) {                                             \
        return backsubst_frame<Form::mv, 'S'>(                                                       \
            QRB_CHECKS(StatusOk, strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),   \
                       StatusOk),                                                                    \
            s_one(src1, src1Stride1, src1Stride2), buffer, s_vec(src2, 0, src2Stride2),              \
            s_vec(dst, 0, dstStride2), width, height, 1);                                            \
    }                                                                                                \
    /* No stride step in the single pointer form. */                                                \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mv_##t##_P(                                        \
        const T* const* src1, int src1RoiShift, T* buffer, const T* const* src2, int src2RoiShift,   \
        T* const* dst, int dstRoiShift, int width, int height) {                                     \
        return backsubst_frame<Form::mv, 'P'>(                                                       \
            QRB_CHECKS(StatusOk, StatusOk, shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),   \
            p_one(src1, src1RoiShift, width), buffer, p_one(src2, src2RoiShift, height),             \
            p_one(dst, dstRoiShift, width), width, height, 1);                                       \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mva_##t(                                           \
        const T* src1, int src1Stride1, int src1Stride2, T* buffer, const T* src2, int src2Stride0,  \
        int src2Stride2, T* dst, int dstStride0, int dstStride2, int width, int height, int count) { \
        return backsubst_frame<Form::mva, 'S'>(                                                      \
            QRB_CHECKS(count_ok(count),                                                              \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride0, src2Stride2, dstStride0, \
                                     dstStride2),                                                    \
                       StatusOk),                                                                    \
            s_one(src1, src1Stride1, src1Stride2), buffer, s_vec(src2, src2Stride0, src2Stride2),    \
            s_vec(dst, dstStride0, dstStride2), width, height, count);                               \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mva_##t##_P(                                       \
        const T* const* src1, int src1RoiShift, T* buffer, const T* const* src2, int src2RoiShift,   \
        int src2Stride0, T* const* dst, int dstRoiShift, int dstStride0, int width, int height,      \
        int count) {                                                                                 \
        return backsubst_frame<Form::mva, 'P'>(                                                      \
            QRB_CHECKS(count_ok(count), strides_ok<T>(src2Stride0, dstStride0),                      \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                       \
            p_one(src1, src1RoiShift, width), buffer,                                                \
            p_arr(src2, src2RoiShift, src2Stride0, height),                                          \
            p_arr(dst, dstRoiShift, dstStride0, width), width, height, count);                       \
    }                                                                                                \
    /* The matrix of the list form is an ordinary strided one, with no shift. */                   \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mva_##t##_L(                                       \
        const T* src1, int src1Stride1, int src1Stride2, T* buffer, const T* const* src2,            \
        int src2RoiShift, int src2Stride2, T* const* dst, int dstRoiShift, int dstStride2,           \
        int width, int height, int count) {                                                          \
        return backsubst_frame<Form::mva, 'L'>(                                                      \
            QRB_CHECKS(count_ok(count),                                                              \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),             \
                       shifts_ok<T>(src2RoiShift, dstRoiShift)),                                     \
            s_one(src1, src1Stride1, src1Stride2), buffer, l_vec(src2, src2RoiShift, src2Stride2),   \
            l_vec(dst, dstRoiShift, dstStride2), width, height, count);                              \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mava_##t(                                          \
        const T* src1, int src1Stride0, int src1Stride1, int src1Stride2, T* buffer, const T* src2,  \
        int src2Stride0, int src2Stride2, T* dst, int dstStride0, int dstStride2, int width,         \
        int height, int count) {                                                                     \
        return backsubst_frame<Form::mava, 'S'>(                                                     \
            QRB_CHECKS(count_ok(count),                                                              \
                       strides_ok<T>(src1Stride0, src1Stride1, src1Stride2, src2Stride0,             \
                                     src2Stride2, dstStride0, dstStride2),                           \
                       StatusOk),                                                                    \
            s_mat(src1, src1Stride0, src1Stride1, src1Stride2), buffer,                              \
            s_vec(src2, src2Stride0, src2Stride2), s_vec(dst, dstStride0, dstStride2), width,        \
            height, count);                                                                          \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mava_##t##_P(                                      \
        const T* const* src1, int src1RoiShift, int src1Stride0, T* buffer, const T* const* src2,    \
        int src2RoiShift, int src2Stride0, T* const* dst, int dstRoiShift, int dstStride0,           \
        int width, int height, int count) {                                                          \
        return backsubst_frame<Form::mava, 'P'>(                                                     \
            QRB_CHECKS(count_ok(count), strides_ok<T>(src1Stride0, src2Stride0, dstStride0),         \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                       \
            p_arr(src1, src1RoiShift, src1Stride0, width), buffer,                                   \
            p_arr(src2, src2RoiShift, src2Stride0, height),                                          \
            p_arr(dst, dstRoiShift, dstStride0, width), width, height, count);                       \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRBackSubst_mava_##t##_L(                                      \
        const T* const* src1, int src1RoiShift, int src1Stride1, int src1Stride2, T* buffer,         \
        const T* const* src2, int src2RoiShift, int src2Stride2, T* const* dst, int dstRoiShift,     \
        int dstStride2, int width, int height, int count) {                                          \
        return backsubst_frame<Form::mava, 'L'>(                                                     \
            QRB_CHECKS(count_ok(count),                                                              \
                       strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),             \
                       shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                       \
            l_mat(src1, src1RoiShift, src1Stride1, src1Stride2), buffer,                             \
            l_vec(src2, src2RoiShift, src2Stride2), l_vec(dst, dstRoiShift, dstStride2), width,      \
            height, count);                                                                          \
    }
ORSM_FOR_TYPES(X)
#undef X
#undef QRB_CHECKS
