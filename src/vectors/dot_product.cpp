// DotProduct: the scalar product of two vectors, one pair (vv), an array with
// a fixed src2 (vav) or two arrays pairwise (vava), result n at dst[n].
#include "vectors/dot.hpp"

// DOT_ENTRY(T, t, form, Form, Lay, K1, K2, CNT): K1, K2 the kinds of the two
// sources (A array, O one vector); CNT is A when the call has a count. Checks:
// pointers, count, length, strides, shifts.
#define DOT_ENTRY(T, t, form, Form_, Lay, K1, K2, CNT)                                            \
    extern "C" ORSM_API OrsStatus VEC_NAME(DotProduct, form, t, Lay)(                               \
        VEC_G_##Lay##K1(const T, src1), VEC_G_##Lay##K2(const T, src2), T* dst,                    \
        int length VEC_CNT_##CNT) {                                                                \
        using namespace orsm;                                                                      \
        using namespace orsm::vec;                                                                 \
        const int len = length;                                                                    \
        const OrsStatus st = first_failure(                                                        \
            nonnull(src1, src2, dst), VEC_CNTOK_##CNT, sizes_ok(length),                           \
            strides_ok<T>(esize<T> VEC_ST_##Lay##K1(src1) VEC_ST_##Lay##K2(src2)),                 \
            shifts_ok<T>(0 VEC_SH_##Lay##K1(src1) VEC_SH_##Lay##K2(src2)));                        \
        return dot::frame<dot::Fam::Dot, dot::Form::Form_, VEC_LAY_##Lay>(                         \
            st, dst, VEC_ACC_##Lay##K1(src1), VEC_ACC_##Lay##K2(src2), len, VEC_CNTV_##CNT);       \
    }

#define X(T, t)                                                                                    \
    DOT_ENTRY(T, t, vv, One, S, O, O, O)                                                           \
    DOT_ENTRY(T, t, vv, One, P, O, O, O)                                                           \
    DOT_ENTRY(T, t, vav, Arr, S, A, O, A)                                                          \
    DOT_ENTRY(T, t, vav, Arr, P, A, O, A)                                                          \
    DOT_ENTRY(T, t, vav, Arr, L, A, O, A)                                                          \
    DOT_ENTRY(T, t, vava, ArrArr, S, A, A, A)                                                      \
    DOT_ENTRY(T, t, vava, ArrArr, P, A, A, A)                                                      \
    DOT_ENTRY(T, t, vava, ArrArr, L, A, A, A)
ORSM_FOR_TYPES(X)
#undef X
