// DotProduct: the scalar product of two vectors, one pair (vv), an array with
// a fixed src2 (vav) or two arrays pairwise (vava), result n at dst[n].
#include "vectors/dot.hpp"

#define DOT_FORM_vv One
#define DOT_FORM_vav Arr
#define DOT_FORM_vava ArrArr

// DOT_ENTRY(T, t, Name, form, Lay, K1, K2, KD): K1, K2 the kinds of the two
// sources (A array, O one vector), KD that of the results (A when the call
// has a count). Checks: pointers, count, length, strides, shifts.
#define DOT_ENTRY(T, t, Name, form, Lay, K1, K2, KD)                                              \
    extern "C" ORSM_API OrsStatus VEC_NAME(Name, form, t, Lay)(                                     \
        VEC_G_##Lay##K1(const T, src1), VEC_G_##Lay##K2(const T, src2), T* dst,                    \
        int length VEC_CNT_##KD) {                                                                 \
        using namespace orsm;                                                                      \
        using namespace orsm::vec;                                                                 \
        const int len = length;                                                                    \
        const OrsStatus st = first_failure(                                                        \
            nonnull(src1, src2, dst), VEC_CNTOK_##KD, sizes_ok(length),                            \
            strides_ok<T>(esize<T> VEC_ST_##Lay##K1(src1) VEC_ST_##Lay##K2(src2)),                 \
            shifts_ok<T>(0 VEC_SH_##Lay##K1(src1) VEC_SH_##Lay##K2(src2)));                        \
        return dot::frame<dot::Fam::Dot, dot::Form::DOT_FORM_##form, VEC_LAY_##Lay>(               \
            st, dst, VEC_ACC_##Lay##K1(src1), VEC_ACC_##Lay##K2(src2), len, VEC_CNTV_##KD);        \
    }

#define X(T, t) VEC_FORMS(DOT_ENTRY, T, t, DotProduct)
ORSM_FOR_TYPES(X)
#undef X
