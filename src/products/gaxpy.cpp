// Gaxpy: dst = src1 * src2 + src3, one matrix by one vector (mv) or one fixed
// matrix by arrays of src2, src3 and dst (mva). The matrix-vector sum S(i) is
// formed by the trees of the matrix-vector Mul kernels; src3(i) is added
// last, in a separate rounded addition. No transposed form.
#include "products/matvec.hpp"

namespace orsm {
namespace {

using namespace mv;

template <bool Array> struct GaxpyMv {
    static constexpr bool trans = false;
    static constexpr bool array = Array;

    // Contiguous kernels (mv, mva and _L) sum by tree C in 32f and tree B in
    // 64f; _S2, _LS2 and _P are scalar code, tree A. The matrix is loaded
    // once per call.
    template <class T> static constexpr Cell cell(Kern k) {
        const Tree packed = sizeof(T) == 4 ? Tree::C : Tree::B;
        const bool contiguous = k == Kern::S || k == Kern::L;
        return {contiguous ? packed : Tree::A, Gen::StoreOnce, Fixed::Mat};
    }

    // Serial below the limit. Each cell was tuned on its own, the strided
    // 32f layout L one (501) included.
    template <class T> static constexpr Limit limit(Kern k) {
        constexpr bool f = sizeof(T) == 4;
        switch (k) {
            case Kern::S: return serial_below(f ? 7001 : 5001);
            case Kern::S2: return serial_below(5001);
            case Kern::P: return serial_below(f ? 4501 : 7001);
            case Kern::L: return serial_below(f ? 7001 : 6001);
            default: return serial_below(f ? 501 : 5001);
        }
    }

    // src2Length + 2 * src3Length per object; the fixed matrix does not count.
    static int work(int M, int K, int count) { return wmul(wadd(K, wmul(2, M)), count); }
};

// src2Length must equal src1Width and src3Length src1Height.
constexpr OrsStatus lengths_ok(int w, int h, int len2, int len3) {
    return (w == len2 && h == len3) ? StatusOk : StatusSizeMismatch;
}

template <bool Array, Lay lay, class T, class A, class X, class Y, class D>
OrsStatus run(OrsStatus st, const A& a, const X& x, const Y& y, const D& d, int w, int h,
              int count, bool contiguous = false) {
    return mv::frame<GaxpyMv<Array>, lay, T>(st, a, x, d, mv::Term<Y>{y}, w, h, count,
                                             contiguous);
}

}  // namespace
}  // namespace orsm

using namespace orsm;

// One entry point: its parameter list, the checks after the pointers, count,
// sizes and lengths (strides, then shifts), the four accessors, and the
// contiguity test on the four element strides of layouts S and L.
#define GAXPY_ENTRY(T, name, array, lay, params, later, a, x, y, d, count, contig)               \
    extern "C" ORSM_API OrsStatus name params {                                                   \
        return run<array, Lay::lay, T>(                                                           \
            first_failure(nonnull(src1, src2, src3, dst), count_ok(count),                        \
                          sizes_ok(src1Width, src1Height, src2Length, src3Length),                \
                          lengths_ok(src1Width, src1Height, src2Length, src3Length),              \
                          UNPAREN later),                                                         \
            a, x, y, d, src1Width, src1Height, count, contig);                                    \
    }
#define UNPAREN(...) __VA_ARGS__
#define CONTIG(T) all_contiguous<T>(src1Stride2, src2Stride2, src3Stride2, dstStride2)

#define X(T, t)                                                                                   \
    GAXPY_ENTRY(T, orsmGaxpy_mv_##t, false, S,                                                    \
                (const T* src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,  \
                 const T* src2, int src2Stride2, int src2Length, const T* src3, int src3Stride2,  \
                 int src3Length, T* dst, int dstStride2),                                         \
                (strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, src3Stride2, dstStride2)),  \
                s_one(src1, src1Stride1, src1Stride2), s_vec(src2, 0, src2Stride2),               \
                s_vec(src3, 0, src3Stride2), s_vec(dst, 0, dstStride2), 1, CONTIG(T))             \
    GAXPY_ENTRY(T, orsmGaxpy_mv_##t##_P, false, P,                                                \
                (const T* const* src1, int src1RoiShift, int src1Width, int src1Height,           \
                 const T* const* src2, int src2RoiShift, int src2Length, const T* const* src3,    \
                 int src3RoiShift, int src3Length, T* const* dst, int dstRoiShift),               \
                (shifts_ok<T>(src1RoiShift, src2RoiShift, src3RoiShift, dstRoiShift)),            \
                p_one(src1, src1RoiShift, src1Width), p_one(src2, src2RoiShift, src2Length),      \
                p_one(src3, src3RoiShift, src3Length), p_one(dst, dstRoiShift, src3Length), 1,    \
                false)                                                                            \
    GAXPY_ENTRY(T, orsmGaxpy_mva_##t, true, S,                                                    \
                (const T* src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,  \
                 const T* src2, int src2Stride0, int src2Stride2, int src2Length, const T* src3,  \
                 int src3Stride0, int src3Stride2, int src3Length, T* dst, int dstStride0,        \
                 int dstStride2, int count),                                                      \
                (strides_ok<T>(src1Stride1, src1Stride2, src2Stride0, src2Stride2, src3Stride0,   \
                               src3Stride2, dstStride0, dstStride2)),                             \
                s_one(src1, src1Stride1, src1Stride2), s_vec(src2, src2Stride0, src2Stride2),     \
                s_vec(src3, src3Stride0, src3Stride2), s_vec(dst, dstStride0, dstStride2), count, \
                CONTIG(T))                                                                        \
    GAXPY_ENTRY(T, orsmGaxpy_mva_##t##_P, true, P,                                                \
                (const T* const* src1, int src1RoiShift, int src1Width, int src1Height,           \
                 const T* const* src2, int src2RoiShift, int src2Stride0, int src2Length,         \
                 const T* const* src3, int src3RoiShift, int src3Stride0, int src3Length,         \
                 T* const* dst, int dstRoiShift, int dstStride0, int count),                      \
                (strides_ok<T>(src2Stride0, src3Stride0, dstStride0),                             \
                 shifts_ok<T>(src1RoiShift, src2RoiShift, src3RoiShift, dstRoiShift)),            \
                p_one(src1, src1RoiShift, src1Width),                                             \
                p_arr(src2, src2RoiShift, src2Stride0, src2Length),                               \
                p_arr(src3, src3RoiShift, src3Stride0, src3Length),                               \
                p_arr(dst, dstRoiShift, dstStride0, src3Length), count, false)                    \
    GAXPY_ENTRY(T, orsmGaxpy_mva_##t##_L, true, L,                                                \
                (const T* src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,  \
                 const T* const* src2, int src2RoiShift, int src2Stride2, int src2Length,         \
                 const T* const* src3, int src3RoiShift, int src3Stride2, int src3Length,         \
                 T* const* dst, int dstRoiShift, int dstStride2, int count),                      \
                (strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, src3Stride2, dstStride2),   \
                 shifts_ok<T>(src2RoiShift, src3RoiShift, dstRoiShift)),                          \
                s_one(src1, src1Stride1, src1Stride2), l_vec(src2, src2RoiShift, src2Stride2),    \
                l_vec(src3, src3RoiShift, src3Stride2), l_vec(dst, dstRoiShift, dstStride2),      \
                count, CONTIG(T))
ORSM_FOR_TYPES(X)
#undef X
