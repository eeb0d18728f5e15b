// Mul of one fixed matrix by an array of matrices: mma, tma, mta, tta in
// layouts S, P and L.
#include "products/matmul_frame.hpp"

#define X(T, t) ORSM_MM_FORMS(ORSM_MM_MMA, T, t, mma, tma, mta, tta)
ORSM_FOR_TYPES(X)
#undef X
