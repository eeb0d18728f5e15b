// L2Norm: the Euclidean length of one vector (v) or of each vector of an
// array (va), result n at dst[n].
#include "vectors/dot.hpp"

// NORM_ENTRY(T, t, form, Form, Lay, K): K is A for the array form. Checks:
// pointers, count, length, strides, shifts. The source serves as both
// operands of the kernel, which squares it.
#define NORM_ENTRY(T, t, form, Form_, Lay, K)                                                     \
    extern "C" ORSM_API OrsStatus VEC_NAME(L2Norm, form, t, Lay)(                                   \
        VEC_G_##Lay##K(const T, src), T* dst, int length VEC_CNT_##K) {                            \
        using namespace orsm;                                                                      \
        using namespace orsm::vec;                                                                 \
        const int len = length;                                                                    \
        const OrsStatus st = first_failure(nonnull(src, dst), VEC_CNTOK_##K, sizes_ok(length),      \
                                           strides_ok<T>(esize<T> VEC_ST_##Lay##K(src)),           \
                                           shifts_ok<T>(0 VEC_SH_##Lay##K(src)));                  \
        const auto acc = VEC_ACC_##Lay##K(src);                                                    \
        return dot::frame<dot::Fam::Norm, dot::Form::Form_, VEC_LAY_##Lay>(st, dst, acc, acc, len, \
                                                                           VEC_CNTV_##K);          \
    }

#define X(T, t)                                                                                    \
    NORM_ENTRY(T, t, v, One, S, O)                                                                 \
    NORM_ENTRY(T, t, v, One, P, O)                                                                 \
    NORM_ENTRY(T, t, va, Arr, S, A)                                                                \
    NORM_ENTRY(T, t, va, Arr, P, A)                                                                \
    NORM_ENTRY(T, t, va, Arr, L, A)
ORSM_FOR_TYPES(X)
#undef X
