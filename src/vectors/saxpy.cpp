// Saxpy: dst = src1 * value + src2 on vectors, the product rounded, then the
// sum. Forms vv, vav (src1 the array), vva (src2 the array) and vava.
#include "vectors/vectors.hpp"

#define VEC_V1_Saxpy(T) , T value
#define VEC_V2_Saxpy(T)
#define VEC_LEN_Saxpy , int length
#define VEC_N_Saxpy length
#define VEC_LENOK_Saxpy sizes_ok(length)
#define VEC_OP_Saxpy(T) SaxpyOp<T>{value}

#define X(T, t) VEC_FAMILY(T, t, Saxpy) VEC_FAMILY_VVA(T, t, Saxpy)
ORSM_FOR_TYPES(X)
#undef X
