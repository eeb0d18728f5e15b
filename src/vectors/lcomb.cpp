// LComb: dst = src1 * value1 + src2 * value2 on vectors, each product
// rounded, then the sum. Forms vv, vav and vava; there is no vva.
#include "vectors/vectors.hpp"

#define VEC_V1_LComb(T) , T value1
#define VEC_V2_LComb(T) , T value2
#define VEC_LEN_LComb , int length
#define VEC_N_LComb length
#define VEC_LENOK_LComb sizes_ok(length)
#define VEC_OP_LComb(T) LCombOp<T>{value1, value2}

#define X(T, t) VEC_FAMILY(T, t, LComb)
ORSM_FOR_TYPES(X)
#undef X
