// Sub on matrices, first source less the second: the single-matrix forms
// mm, tm, mt, tt and the array forms with an array first source (mam, tam,
// mat, tat, mama, tama, mata, tata).
#include "elementwise/mat_addsub.hpp"

#define X(T, t)                                                                                   \
    EWM_SINGLE(Sub, mm, T, t)                                                                     \
    EWM_SINGLE(Sub, tm, T, t)                                                                     \
    EWM_SINGLE(Sub, mt, T, t)                                                                     \
    EWM_SINGLE(Sub, tt, T, t)                                                                     \
    EWM_ARRAY_SINGLE(Sub, mam, T, t)                                                              \
    EWM_ARRAY_SINGLE(Sub, tam, T, t)                                                              \
    EWM_ARRAY_SINGLE(Sub, mat, T, t)                                                              \
    EWM_ARRAY_SINGLE(Sub, tat, T, t)                                                              \
    EWM_ARRAY_ARRAY(Sub, mama, T, t)                                                              \
    EWM_ARRAY_ARRAY(Sub, tama, T, t)                                                              \
    EWM_ARRAY_ARRAY(Sub, mata, T, t)                                                              \
    EWM_ARRAY_ARRAY(Sub, tata, T, t)
ORSM_FOR_TYPES(X)
#undef X
