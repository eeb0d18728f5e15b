// Mul of an array of matrices by one fixed matrix: mam, tam, mat, tat in
// layouts S, P and L.
#include "products/matmul_frame.hpp"

#define X(T, t) ORSM_MM_FORMS(ORSM_MM_MAM, T, t, mam, tam, mat, tat)
ORSM_FOR_TYPES(X)
#undef X
