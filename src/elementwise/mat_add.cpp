// Add on matrices: the single-matrix forms mm, tm, tt and the array forms
// mam, tam, mat, tat, mama, tama, tata (Add has no mt, mata, mma to tta).
#include "elementwise/mat_addsub.hpp"

#define X(T, t)                                                                                   \
    EWM_SINGLE(Add, mm, T, t)                                                                     \
    EWM_SINGLE(Add, tm, T, t)                                                                     \
    EWM_SINGLE(Add, tt, T, t)                                                                     \
    EWM_ARRAY_SINGLE(Add, mam, T, t)                                                              \
    EWM_ARRAY_SINGLE(Add, tam, T, t)                                                              \
    EWM_ARRAY_SINGLE(Add, mat, T, t)                                                              \
    EWM_ARRAY_SINGLE(Add, tat, T, t)                                                              \
    EWM_ARRAY_ARRAY(Add, mama, T, t)                                                              \
    EWM_ARRAY_ARRAY(Add, tama, T, t)                                                              \
    EWM_ARRAY_ARRAY(Add, tata, T, t)
ORSM_FOR_TYPES(X)
#undef X
