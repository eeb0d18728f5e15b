// Sub on matrices with a single first source and an array second source:
// mma, tma, mta, tta, dst[n] = A - B[n].
#include "elementwise/mat_addsub.hpp"

#define X(T, t)                                                                                   \
    EWM_SINGLE_ARRAY(Sub, mma, T, t)                                                              \
    EWM_SINGLE_ARRAY(Sub, tma, T, t)                                                              \
    EWM_SINGLE_ARRAY(Sub, mta, T, t)                                                              \
    EWM_SINGLE_ARRAY(Sub, tta, T, t)
ORSM_FOR_TYPES(X)
#undef X
