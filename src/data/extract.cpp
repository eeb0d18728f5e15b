// Extract: gathers an operand in any layout into one packed block, row by
// row, objects ascending; a transposed source comes out as its logical
// matrix. Plain loops in the frame, no kernels, no parallel form.
#include "common/checks.hpp"
#include "common/layout.hpp"

namespace orsm {
namespace {

// Walks the logical elements of `count` objects of `height` rows by `width`
// columns and writes them one after another into dst.
template <class Acc, class T>
OrsStatus gather(OrsStatus st, Acc src, T* dst, int width, int height, int count) {
    if (st != StatusOk) return st;
    for (int n = 0; n < count; ++n)
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < width; ++c) move_bits(dst++, &src(n, r, c));
    return StatusOk;
}

template <class T> constexpr bool is32 = std::is_same_v<T, float>;

}  // namespace
}  // namespace orsm

using namespace orsm;

// In layout P the m and t forms, and the 64f v form, test sizes ahead of
// pointers; every other form tests pointers first. The array forms check
// srcStride0 whatever count is.
#define X(T, t)                                                                                   \
    extern "C" ORSM_API OrsStatus orsmExtract_v_##t(const T* src, int srcStride2, T* dst,         \
                                                    int length) {                                 \
        return gather(first_failure(nonnull(src, dst), sizes_ok(length), strides_ok<T>(srcStride2)),\
                      s_vec(src, 0, srcStride2), dst, length, 1, 1);                              \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_v_##t##_P(const T* const* src, int srcRoiShift,     \
                                                        T* dst, int length) {                     \
        const OrsStatus ptr = nonnull(src, dst), len = sizes_ok(length);                          \
        return gather(first_failure(is32<T> ? ptr : len, is32<T> ? len : ptr,                     \
                                    shifts_ok<T>(srcRoiShift)),                                   \
                      p_one(src, srcRoiShift, length), dst, length, 1, 1);                        \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_m_##t(const T* src, int srcStride1, int srcStride2, \
                                                    T* dst, int width, int height) {              \
        return gather(first_failure(nonnull(src, dst), sizes_ok(width, height),                   \
                                    strides_ok<T>(srcStride1, srcStride2)),                       \
                      s_one(src, srcStride1, srcStride2), dst, width, height, 1);                 \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_t_##t(const T* src, int srcStride1, int srcStride2, \
                                                    T* dst, int width, int height) {              \
        return gather(first_failure(nonnull(src, dst), sizes_ok(width, height),                   \
                                    strides_ok<T>(srcStride1, srcStride2)),                       \
                      transposed(s_one(src, srcStride1, srcStride2)), dst, width, height, 1);     \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_m_##t##_P(const T* const* src, int srcRoiShift,     \
                                                        T* dst, int width, int height) {          \
        return gather(first_failure(sizes_ok(width, height), nonnull(src, dst),                   \
                                    shifts_ok<T>(srcRoiShift)),                                   \
                      p_one(src, srcRoiShift, width), dst, width, height, 1);                     \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_t_##t##_P(const T* const* src, int srcRoiShift,     \
                                                        T* dst, int width, int height) {          \
        return gather(first_failure(sizes_ok(width, height), nonnull(src, dst),                   \
                                    shifts_ok<T>(srcRoiShift)),                                   \
                      transposed(p_one(src, srcRoiShift, height)), dst, width, height, 1);        \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_va_##t(const T* src, int srcStride0, int srcStride2,\
                                                     T* dst, int length, int count) {             \
        return gather(first_failure(nonnull(src, dst), sizes_ok(length), count_ok(count),         \
                                    strides_ok<T>(srcStride0, srcStride2)),                       \
                      s_vec(src, srcStride0, srcStride2), dst, length, 1, count);                 \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_va_##t##_P(const T* const* src, int srcRoiShift,    \
                                                         int srcStride0, T* dst, int length,      \
                                                         int count) {                             \
        return gather(first_failure(nonnull(src, dst), sizes_ok(length), count_ok(count),         \
                                    shifts_ok<T>(srcRoiShift), strides_ok<T>(srcStride0)),        \
                      p_arr(src, srcRoiShift, srcStride0, length), dst, length, 1, count);        \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_va_##t##_L(const T* const* src, int srcRoiShift,    \
                                                         int srcStride2, T* dst, int length,      \
                                                         int count) {                             \
        return gather(first_failure(nonnull(src, dst), sizes_ok(length), count_ok(count),         \
                                    shifts_ok<T>(srcRoiShift), strides_ok<T>(srcStride2)),        \
                      l_vec(src, srcRoiShift, srcStride2), dst, length, 1, count);                \
    }
ORSM_FOR_TYPES(X)
#undef X

// The ma and ta array forms differ only in reading the source transposed.
#define MA(T, t, form, wrap)                                                                      \
    extern "C" ORSM_API OrsStatus orsmExtract_##form##_##t(const T* src, int srcStride0,          \
                                                           int srcStride1, int srcStride2, T* dst,\
                                                           int width, int height, int count) {    \
        return gather(first_failure(nonnull(src, dst), sizes_ok(width, height), count_ok(count),  \
                                    strides_ok<T>(srcStride0, srcStride1, srcStride2)),           \
                      wrap(s_mat(src, srcStride0, srcStride1, srcStride2)), dst, width, height,   \
                      count);                                                                     \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_##form##_##t##_P(const T* const* src,               \
                                                               int srcRoiShift, int srcStride0,   \
                                                               T* dst, int width, int height,     \
                                                               int count) {                       \
        return gather(first_failure(nonnull(src, dst), sizes_ok(width, height), count_ok(count),  \
                                    shifts_ok<T>(srcRoiShift), strides_ok<T>(srcStride0)),        \
                      wrap(p_arr(src, srcRoiShift, srcStride0, STORED_COLS_##form)), dst, width,  \
                      height, count);                                                             \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmExtract_##form##_##t##_L(                                   \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, T* dst, int width,  \
        int height, int count) {                                                                  \
        return gather(first_failure(nonnull(src, dst), sizes_ok(width, height), count_ok(count),  \
                                    shifts_ok<T>(srcRoiShift),                                    \
                                    strides_ok<T>(srcStride1, srcStride2)),                       \
                      wrap(l_mat(src, srcRoiShift, srcStride1, srcStride2)), dst, width, height,  \
                      count);                                                                     \
    }
#define AS_IS(a) a
#define STORED_COLS_ma width
#define STORED_COLS_ta height
#define X(T, t) MA(T, t, ma, AS_IS) MA(T, t, ta, transposed)
ORSM_FOR_TYPES(X)
#undef X
