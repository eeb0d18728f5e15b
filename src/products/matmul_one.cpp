// Mul of one matrix by one matrix: mm, tm, mt, tt in layouts S and P.
#include "products/matmul_frame.hpp"

#define X(T, t) ORSM_MM_FORMS(ORSM_MM_ONE, T, t, mm, tm, mt, tt)
ORSM_FOR_TYPES(X)
#undef X

