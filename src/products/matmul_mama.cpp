// Mul of two arrays of matrices object by object: mama, tama, mata, tata in
// layouts S, P and L.
#include "products/matmul_frame.hpp"

#define X(T, t) ORSM_MM_FORMS(ORSM_MM_MAMA, T, t, mama, tama, mata, tata)
ORSM_FOR_TYPES(X)
#undef X
