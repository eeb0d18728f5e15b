// Transpose: dst(c, r) = src(r, c), one bit pattern per element, into a
// separate dst (no in-place path: overlapping operands are the caller's
// fault). Every kernel has paths for square orders 3 to 6 and a general loop.
#include "common/checks.hpp"
#include "common/layout.hpp"
#include "common/parallel.hpp"

namespace orsm {
namespace {

// Order-N path: each row of dst in turn, one element move per element.
template <int N, class Src, class Dst> void transpose_n(Src s, Dst d, int count) {
    for (int n = 0; n < count; ++n)
        for (int c = 0; c < N; ++c)
            for (int r = 0; r < N; ++r) move_bits(&d(n, c, r), &s(n, r, c));
}

// The general loop. Strided and list kernels run along dst rows (loads walk
// down a src column); the pointer-layout kernels walk the source row-major.
template <bool src_major, class Src, class Dst>
void transpose_any(Src s, Dst d, int width, int height, int count) {
    for (int n = 0; n < count; ++n) {
        if constexpr (src_major) {
            for (int r = 0; r < height; ++r)
                for (int c = 0; c < width; ++c) move_bits(&d(n, c, r), &s(n, r, c));
        } else {
            for (int c = 0; c < width; ++c)
                for (int r = 0; r < height; ++r) move_bits(&d(n, c, r), &s(n, r, c));
        }
    }
}

// The kernel: the order is looked at once, outside the loop over objects.
// Only square orders 3..6 have paths; 3 by 5 takes the general loop.
template <bool src_major, class Src, class Dst>
OrsStatus transpose_kernel(Src s, Dst d, int width, int height, int count) {
    if (width == height) switch (width) {
            case 3: transpose_n<3>(s, d, count); return StatusOk;
            case 4: transpose_n<4>(s, d, count); return StatusOk;
            case 5: transpose_n<5>(s, d, count); return StatusOk;
            case 6: transpose_n<6>(s, d, count); return StatusOk;
            default: break;
        }
    transpose_any<src_major>(s, d, width, height, count);
    return StatusOk;
}

// S and L kernels: contiguous when both element strides equal the element
// size, strided otherwise.
template <class T, class Src, class Dst>
OrsStatus transpose_sl(Src s, Dst d, int width, int height, int count) {
    if (all_contiguous<T>(s.s2_, d.s2_))
        return transpose_kernel<false>(s.template as<true>(), d.template as<true>(), width, height,
                                       count);
    return transpose_kernel<false>(s, d, width, height, count);
}

// The array frames after their checks: parallel above 3500 (equal stays
// serial), the same limit for every layout and type.
constexpr Limit transpose_limit = parallel_above(3500);

template <bool src_major, class T, class Src, class Dst>
OrsStatus transpose_ma(OrsStatus st, Src s, Dst d, int width, int height, int count) {
    if (st != StatusOk) return st;
    const int W = wmul(width, height, wmul(2, count));
    return dispatch(W, transpose_limit, count, [&](int f, int k) {
        if constexpr (src_major)
            return transpose_kernel<true>(s.object(f), d.object(f), width, height, k);
        else
            return transpose_sl<T>(s.object(f), d.object(f), width, height, k);
    });
}

}  // namespace
}  // namespace orsm

using namespace orsm;

#define X(T, t)                                                                                   \
    extern "C" ORSM_API OrsStatus orsmTranspose_m_##t(const T* src, int srcStride1,               \
                                                      int srcStride2, int width, int height,      \
                                                      T* dst, int dstStride1, int dstStride2) {   \
        const OrsStatus st = first_failure(nonnull(src, dst), sizes_ok(width, height),            \
                                           strides_ok<T>(srcStride1, srcStride2, dstStride1,      \
                                                         dstStride2));                            \
        if (st != StatusOk) return st;                                                            \
        return transpose_sl<T>(s_one(src, srcStride1, srcStride2),                                \
                               s_one(dst, dstStride1, dstStride2), width, height, 1);             \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmTranspose_m_##t##_P(const T* const* src, int srcRoiShift,   \
                                                          int width, int height, T* const* dst,   \
                                                          int dstRoiShift) {                      \
        const OrsStatus st = first_failure(nonnull(src, dst), sizes_ok(width, height),            \
                                           shifts_ok<T>(srcRoiShift, dstRoiShift));               \
        if (st != StatusOk) return st;                                                            \
        return transpose_kernel<true>(p_one(src, srcRoiShift, width),                             \
                                      p_one(dst, dstRoiShift, height), width, height, 1);         \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmTranspose_ma_##t(                                           \
        const T* src, int srcStride0, int srcStride1, int srcStride2, int width, int height,      \
        T* dst, int dstStride0, int dstStride1, int dstStride2, int count) {                      \
        return transpose_ma<false, T>(                                                            \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(width, height),            \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0,           \
                                        dstStride1, dstStride2)),                                 \
            s_mat(src, srcStride0, srcStride1, srcStride2),                                       \
            s_mat(dst, dstStride0, dstStride1, dstStride2), width, height, count);                \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmTranspose_ma_##t##_P(                                       \
        const T* const* src, int srcRoiShift, int srcStride0, int width, int height,              \
        T* const* dst, int dstRoiShift, int dstStride0, int count) {                              \
        return transpose_ma<true, T>(                                                             \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(width, height),            \
                          strides_ok<T>(srcStride0, dstStride0),                                  \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            p_arr(src, srcRoiShift, srcStride0, width), p_arr(dst, dstRoiShift, dstStride0, height),\
            width, height, count);                                                                \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmTranspose_ma_##t##_L(                                       \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, int width,          \
        int height, T* const* dst, int dstRoiShift, int dstStride1, int dstStride2, int count) {  \
        return transpose_ma<false, T>(                                                            \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(width, height),            \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2),          \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            l_mat(src, srcRoiShift, srcStride1, srcStride2),                                      \
            l_mat(dst, dstRoiShift, dstStride1, dstStride2), width, height, count);               \
    }
ORSM_FOR_TYPES(X)
#undef X
