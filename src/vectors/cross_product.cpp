// CrossProduct: the vector product of 3-element vectors, one pair (vv), an
// array with a fixed vector on either side (vav, vva) or two arrays (vava).
// There is no length argument and so no size check.
#include "vectors/vectors.hpp"

#define VEC_V1_CrossProduct(T)
#define VEC_V2_CrossProduct(T)
#define VEC_LEN_CrossProduct
#define VEC_N_CrossProduct 3
#define VEC_LENOK_CrossProduct StatusOk
#define VEC_OP_CrossProduct(T) CrossOp<T>{}

#define X(T, t) VEC_FAMILY(T, t, CrossProduct) VEC_FAMILY_VVA(T, t, CrossProduct)
ORSM_FOR_TYPES(X)
#undef X
