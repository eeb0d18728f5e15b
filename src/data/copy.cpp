// LoadIdentity and Copy: plain loops in the frame, no kernels, no parallel
// form. Copy is the bridge between layouts: any source layout to any
// destination layout, element by element in ascending order, one bit pattern
// at a time, so overlapping operands see earlier writes and nothing is
// buffered.
#include "common/checks.hpp"
#include "common/layout.hpp"

namespace orsm {
namespace {

// One operand group of Copy/LoadIdentity in a given layout, with its three
// kinds of check: E (element strides, layouts S and L), R (shift, layouts P
// and L), Z (object stride, layouts S and P, looked at only when count > 1).
template <class T> struct SGroup {
    SAcc<T> acc;
    int s0, s1, s2;
    bool has_s1;
    OrsStatus E() const { return has_s1 ? strides_ok<T>(s1, s2) : strides_ok<T>(s2); }
    OrsStatus R() const { return StatusOk; }
    OrsStatus Z(int count) const { return only_if(count > 1, strides_ok<T>(s0)); }
};
template <class T> struct PGroup {
    PAcc<T> acc;
    int shift, s0;
    OrsStatus E() const { return StatusOk; }
    OrsStatus R() const { return shifts_ok<T>(shift); }
    OrsStatus Z(int count) const { return only_if(count > 1, strides_ok<T>(s0)); }
};
template <class T> struct LGroup {
    LAcc<T> acc;
    int shift, s1, s2;
    bool has_s1;
    OrsStatus E() const { return has_s1 ? strides_ok<T>(s1, s2) : strides_ok<T>(s2); }
    OrsStatus R() const { return shifts_ok<T>(shift); }
    OrsStatus Z(int) const { return StatusOk; }
};

// `cols` is the row length of the P table: width for matrices, length for
// vectors (a vector is one row).
template <class T> SGroup<T> grpS(T* x, int s0, int s1, int s2, bool m) {
    return {s_mat(x, s0, s1, s2), s0, s1, s2, m};
}
template <class T> PGroup<T> grpP(T* const* x, int shift, int s0, int cols) {
    return {p_arr(x, shift, s0, cols), shift, s0};
}
template <class T> LGroup<T> grpL(T* const* x, int shift, int s1, int s2, bool m) {
    return {l_mat(x, shift, s1, s2), shift, s1, s2, m};
}

template <class Src, class Dst>
void copy_loop(Src src, Dst dst, int width, int height, int count) {
    for (int n = 0; n < count; ++n)
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < width; ++c) move_bits(&dst(n, r, c), &src(n, r, c));
}

// Check order of Copy: pointers, sizes, count, then E, R, Z over both
// operands (absent kinds fall away, which yields every pair's order).
// shift_first: orsmCopy_va_32f_SP and _LP test the shifts before the
// element strides.
template <bool shift_first, class SG, class DG>
OrsStatus copy_frame(const void* src, const void* dst, const SG& s, const DG& d, int width,
                     int height, int count, OrsStatus sizes) {
    const OrsStatus E = first_failure(s.E(), d.E());
    const OrsStatus R = first_failure(s.R(), d.R());
    const OrsStatus st = first_failure(nonnull(src, dst), sizes, count_ok(count),
                                       shift_first ? R : E, shift_first ? E : R,
                                       first_failure(s.Z(count), d.Z(count)));
    if (st != StatusOk) return st;
    copy_loop(s.acc, d.acc, width, height, count);
    return StatusOk;
}

template <class T, class Acc> void identity_loop(Acc dst, int width, int height, int count) {
    const T zero = T(0), one = T(1);
    for (int n = 0; n < count; ++n)
        for (int r = 0; r < height; ++r) {
            for (int c = 0; c < width; ++c) dst(n, r, c) = zero;
            if (r < width) dst(n, r, r) = one;
        }
}

template <class T> constexpr bool is32 = std::is_same_v<T, float>;

}  // namespace
}  // namespace orsm

using namespace orsm;

// ---- LoadIdentity -----------------------------------------------------------

#define X(T, t)                                                                                  \
    extern "C" ORSM_API OrsStatus orsmLoadIdentity_ma_##t(T* dst, int dstStride0, int dstStride1, \
                                                          int dstStride2, int width, int height,  \
                                                          int count) {                            \
        const OrsStatus st = first_failure(nonnull(dst), sizes_ok(width, height), count_ok(count),\
                                           strides_ok<T>(dstStride1, dstStride2),                 \
                                           only_if(count > 1, strides_ok<T>(dstStride0)));        \
        if (st == StatusOk)                                                                       \
            identity_loop<T>(s_mat(dst, dstStride0, dstStride1, dstStride2), width, height, count);\
        return st;                                                                                \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmLoadIdentity_ma_##t##_L(T* const* dst, int dstRoiShift,    \
                                                              int dstStride1, int dstStride2,     \
                                                              int width, int height, int count) { \
        const OrsStatus st = first_failure(nonnull(dst), sizes_ok(width, height), count_ok(count),\
                                           strides_ok<T>(dstStride1, dstStride2),                 \
                                           shifts_ok<T>(dstRoiShift));                            \
        if (st == StatusOk)                                                                       \
            identity_loop<T>(l_mat(dst, dstRoiShift, dstStride1, dstStride2), width, height,      \
                             count);                                                              \
        return st;                                                                                \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsmLoadIdentity_ma_##t##_P(T* const* dst, int dstRoiShift,    \
                                                              int dstStride0, int width,          \
                                                              int height, int count) {            \
        /* the 32f form tests the shift ahead of count, the 64f form after it */                  \
        const OrsStatus R = shifts_ok<T>(dstRoiShift), N = count_ok(count);                       \
        const OrsStatus st = first_failure(nonnull(dst), sizes_ok(width, height),                 \
                                           is32<T> ? R : N, is32<T> ? N : R,                      \
                                           only_if(count > 1, strides_ok<T>(dstStride0)));        \
        if (st == StatusOk)                                                                       \
            identity_loop<T>(p_arr(dst, dstRoiShift, dstStride0, width), width, height, count);   \
        return st;                                                                                \
    }
ORSM_FOR_TYPES(X)
#undef X

// ---- Copy ---------------------------------------------------------------------
// Argument groups per layout and form, for the source (const) and the
// destination, and the matching group builders.
#define CPY_S_ma(T, x) T* x, int x##Stride0, int x##Stride1, int x##Stride2
#define CPY_S_va(T, x) T* x, int x##Stride0, int x##Stride2
#define CPY_P_ma(T, x) T* const* x, int x##RoiShift, int x##Stride0
#define CPY_P_va(T, x) T* const* x, int x##RoiShift, int x##Stride0
#define CPY_L_ma(T, x) T* const* x, int x##RoiShift, int x##Stride1, int x##Stride2
#define CPY_L_va(T, x) T* const* x, int x##RoiShift, int x##Stride2
#define GRP_S_ma(x) grpS(x, x##Stride0, x##Stride1, x##Stride2, true)
#define GRP_S_va(x) grpS(x, x##Stride0, 0, x##Stride2, false)
#define GRP_P_ma(x) grpP(x, x##RoiShift, x##Stride0, width)
#define GRP_P_va(x) grpP(x, x##RoiShift, x##Stride0, length)
#define GRP_L_ma(x) grpL(x, x##RoiShift, x##Stride1, x##Stride2, true)
#define GRP_L_va(x) grpL(x, x##RoiShift, 0, x##Stride2, false)
#define SIZES_ma int width, int height, int count
#define SIZES_va int length, int count
#define CALL_ma width, height, count, sizes_ok(width, height)
#define CALL_va length, 1, count, sizes_ok(length)

#define COPY(T, t, form, SL, DL, shift_first)                                                   \
    extern "C" ORSM_API OrsStatus orsmCopy_##form##_##t##_##SL##DL(                             \
        CPY_##SL##_##form(const T, src), CPY_##DL##_##form(T, dst), SIZES_##form) {             \
        return copy_frame<shift_first>(src, dst, GRP_##SL##_##form(src), GRP_##DL##_##form(dst),\
                                       CALL_##form);                                            \
    }
#define COPY_PAIRS(T, t, form, sp_lp_shift_first)        \
    COPY(T, t, form, S, S, false)                        \
    COPY(T, t, form, S, P, sp_lp_shift_first)            \
    COPY(T, t, form, S, L, false)                        \
    COPY(T, t, form, P, S, false)                        \
    COPY(T, t, form, P, P, false)                        \
    COPY(T, t, form, P, L, false)                        \
    COPY(T, t, form, L, S, false)                        \
    COPY(T, t, form, L, P, sp_lp_shift_first)            \
    COPY(T, t, form, L, L, false)
// orsmCopy_va_32f_SP and _LP test the shift first; their 64f twins and the
// ma forms do not.
#define X(T, t)                    \
    COPY_PAIRS(T, t, ma, false)    \
    COPY_PAIRS(T, t, va, is32<T>)
ORSM_FOR_TYPES(X)
#undef X
