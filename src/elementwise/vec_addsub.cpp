// Add and Sub on vectors: a vector with a constant (vc, cv), two vectors (vv),
// and arrays of vectors with a constant (vac, cva), with one vector (vav,
// vva) or with a second array (vava). Each result element is one addition
// or subtraction in the element type, first source first.
#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "elementwise/elementwise.hpp"

namespace orsm {
namespace {

using namespace ew;

enum class F { vc, cv, vv, vac, cva, vav, vva, vava };

// Paths of each kernel, by form and element type.
//  - contiguous kernels (S and L): lengths 3 to 6 unrolled, the single
//    operand held across objects; vc, vv and the 32f vava vectorise their
//    general loop from length 11 on (from 9 on in the 64f vv);
//  - _S2: vv, vav, vava, vva unroll 3 to 6, but the 64f vva has the general
//    loop only; vc, cv, vac, cva have the general loop only;
//  - _LS2: vav and vava run the vv strided kernel once per object, so the
//    single operand is read again for each object; vac, cva, vva loop inline;
//  - _P: always the general loop.
template <F form, class T> struct Paths {
    static constexpr bool is64 = sizeof(T) == 8;
    static constexpr VecPaths of(Kind k) {
        switch (k) {
            case Kind::Contig: {
                int from = 0;
                if (form == F::vc || form == F::vv) from = (form == F::vv && is64) ? 9 : 11;
                if (form == F::vava && !is64) from = 11;
                return {true, true, from};
            }
            case Kind::S2:
                return {(form == F::vv || form == F::vav || form == F::vava || form == F::vva) &&
                            !(form == F::vva && is64),
                        true, 0};
            case Kind::LS2: return {form == F::vav || form == F::vava, false, 0};
            default: return {false, false, 0};
        }
    }
};

// Array forms go parallel above their limit; W equal to it stays serial.
// The limit is looked up ahead of the contiguity test, so it does not depend
// on the strides.
template <class T> constexpr Limit vec_limit(char lay) {
    return parallel_above(lay == 'S' ? (sizeof(T) == 4 ? 4800 : 1400) : lay == 'P' ? 1500 : 2500);
}

template <F form, class Op, char Lay, class D, class A, class B>
OrsStatus array_call(OrsStatus st, const D& d, const A& a, const B& b, int len, int count) {
    using T = Plain<typename D::value_type>;
    if (st != StatusOk) return st;
    const int W = form == F::vava ? wmul(3, len, count) : wmul(len, wadd(wmul(2, count), 1));
    return dispatch(W, vec_limit<T>(Lay), count, [&](int f, int k) {
        return vec_share<Lay, Paths<form, T>, Op>(d.object(f), a.object(f), b.object(f), len, k);
    });
}

template <F form, class Op, char Lay, class D, class A, class B>
OrsStatus single_call(OrsStatus st, const D& d, const A& a, const B& b, int len) {
    using T = Plain<typename D::value_type>;
    if (st != StatusOk) return st;
    return vec_share<Lay, Paths<form, T>, Op>(d, a, b, len, 1);
}

}  // namespace
}  // namespace orsm

using namespace orsm;

// Operand builders by layout: a single vector (S-style in layouts S and L),
// an array in each layout, and dst.
#define ONE_S(x) one(s_vec(x, 0, x##Stride2))
#define ONE_P(x) one(p_one(x, x##RoiShift, length))
#define MANY_S(x) many(s_vec(x, x##Stride0, x##Stride2))
#define MANY_P(x) many(p_arr(x, x##RoiShift, x##Stride0, length))
#define MANY_L(x) many(l_vec(x, x##RoiShift, x##Stride2))
#define ARR_S(x) s_vec(x, x##Stride0, x##Stride2)
#define ARR_P(x) p_arr(x, x##RoiShift, x##Stride0, length)
#define ARR_L(x) l_vec(x, x##RoiShift, x##Stride2)

#define NAME(Fam, form, t, lay) orsm##Fam##_##form##_##t##lay
#define ENTRY extern "C" ORSM_API OrsStatus

// vc, cv: src group, value, dst group, length. FIRST/SECOND order x (the
// vector) and c (the constant) as the form computes them.
#define SINGLE_C(T, t, Fam, form, Op, FIRST, SECOND)                                              \
    ENTRY NAME(Fam, form, t, )(const T* src, int srcStride2, T value, T* dst, int dstStride2,     \
                               int length) {                                                      \
        const auto x = ONE_S(src);                                                                \
        const auto c = cst(value);                                                                \
        return single_call<F::form, Op, 'S'>(                                                     \
            first_failure(nonnull(src, dst), sizes_ok(length),                                    \
                          strides_ok<T>(srcStride2, dstStride2)),                                 \
            s_vec(dst, 0, dstStride2), FIRST, SECOND, length);                                    \
    }                                                                                             \
    ENTRY NAME(Fam, form, t, _P)(const T* const* src, int srcRoiShift, T value, T* const* dst,    \
                                 int dstRoiShift, int length) {                                   \
        const auto x = ONE_P(src);                                                                \
        const auto c = cst(value);                                                                \
        return single_call<F::form, Op, 'P'>(                                                     \
            first_failure(nonnull(src, dst), sizes_ok(length),                                    \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            p_one(dst, dstRoiShift, length), FIRST, SECOND, length);                              \
    }

#define SINGLE_VV(T, t, Fam, Op)                                                                  \
    ENTRY NAME(Fam, vv, t, )(const T* src1, int src1Stride2, const T* src2, int src2Stride2,      \
                             T* dst, int dstStride2, int length) {                                \
        return single_call<F::vv, Op, 'S'>(                                                       \
            first_failure(nonnull(src1, src2, dst), sizes_ok(length),                             \
                          strides_ok<T>(src1Stride2, src2Stride2, dstStride2)),                   \
            s_vec(dst, 0, dstStride2), ONE_S(src1), ONE_S(src2), length);                         \
    }                                                                                             \
    ENTRY NAME(Fam, vv, t, _P)(const T* const* src1, int src1RoiShift, const T* const* src2,      \
                               int src2RoiShift, T* const* dst, int dstRoiShift, int length) {    \
        return single_call<F::vv, Op, 'P'>(                                                       \
            first_failure(nonnull(src1, src2, dst), sizes_ok(length),                             \
                          shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                 \
            p_one(dst, dstRoiShift, length), ONE_P(src1), ONE_P(src2), length);                   \
    }

// vac, cva: src group, value, dst group, length, count. Checks: pointers,
// count, length, then strides (S), stride0 and shifts (P), strides and
// shifts (L).
#define ARRAY_C(T, t, Fam, form, Op, FIRST, SECOND)                                               \
    ENTRY NAME(Fam, form, t, )(const T* src, int srcStride0, int srcStride2, T value, T* dst,     \
                               int dstStride0, int dstStride2, int length, int count) {           \
        const auto x = MANY_S(src);                                                               \
        const auto c = cst(value);                                                                \
        return array_call<F::form, Op, 'S'>(                                                      \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(length),                   \
                          strides_ok<T>(srcStride0, srcStride2, dstStride0, dstStride2)),         \
            ARR_S(dst), FIRST, SECOND, length, count);                                            \
    }                                                                                             \
    ENTRY NAME(Fam, form, t, _P)(const T* const* src, int srcRoiShift, int srcStride0, T value,   \
                                 T* const* dst, int dstRoiShift, int dstStride0, int length,      \
                                 int count) {                                                     \
        const auto x = MANY_P(src);                                                               \
        const auto c = cst(value);                                                                \
        return array_call<F::form, Op, 'P'>(                                                      \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(length),                   \
                          strides_ok<T>(srcStride0, dstStride0),                                  \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            ARR_P(dst), FIRST, SECOND, length, count);                                            \
    }                                                                                             \
    ENTRY NAME(Fam, form, t, _L)(const T* const* src, int srcRoiShift, int srcStride2, T value,   \
                                 T* const* dst, int dstRoiShift, int dstStride2, int length,      \
                                 int count) {                                                     \
        const auto x = MANY_L(src);                                                               \
        const auto c = cst(value);                                                                \
        return array_call<F::form, Op, 'L'>(                                                      \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(length),                   \
                          strides_ok<T>(srcStride2, dstStride2),                                  \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            ARR_L(dst), FIRST, SECOND, length, count);                                            \
    }

// vav: src1 array, src2 one vector. Unlike every sibling it tests count
// late, and at a different place in each layout: after the strides (S),
// between stride0 and the shifts (P), after the shifts (L).
#define ARRAY_VAV(T, t, Fam, Op)                                                                  \
    ENTRY NAME(Fam, vav, t, )(const T* src1, int src1Stride0, int src1Stride2, const T* src2,     \
                              int src2Stride2, T* dst, int dstStride0, int dstStride2,            \
                              int length, int count) {                                            \
        return array_call<F::vav, Op, 'S'>(                                                       \
            first_failure(nonnull(src1, src2, dst), sizes_ok(length),                             \
                          strides_ok<T>(src1Stride0, src1Stride2, src2Stride2, dstStride0,        \
                                        dstStride2),                                              \
                          count_ok(count)),                                                       \
            ARR_S(dst), MANY_S(src1), ONE_S(src2), length, count);                                \
    }                                                                                             \
    ENTRY NAME(Fam, vav, t, _P)(const T* const* src1, int src1RoiShift, int src1Stride0,          \
                                const T* const* src2, int src2RoiShift, T* const* dst,            \
                                int dstRoiShift, int dstStride0, int length, int count) {         \
        return array_call<F::vav, Op, 'P'>(                                                       \
            first_failure(nonnull(src1, src2, dst), sizes_ok(length),                             \
                          strides_ok<T>(src1Stride0, dstStride0), count_ok(count),                \
                          shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                 \
            ARR_P(dst), MANY_P(src1), ONE_P(src2), length, count);                                \
    }                                                                                             \
    ENTRY NAME(Fam, vav, t, _L)(const T* const* src1, int src1RoiShift, int src1Stride2,          \
                                const T* src2, int src2Stride2, T* const* dst, int dstRoiShift,   \
                                int dstStride2, int length, int count) {                          \
        return array_call<F::vav, Op, 'L'>(                                                       \
            first_failure(nonnull(src1, src2, dst), sizes_ok(length),                             \
                          strides_ok<T>(src1Stride2, src2Stride2, dstStride2),                    \
                          shifts_ok<T>(src1RoiShift, dstRoiShift), count_ok(count)),              \
            ARR_L(dst), MANY_L(src1), ONE_S(src2), length, count);                                \
    }

// vva: src1 one vector, src2 array; count is tested second, as in vac.
#define ARRAY_VVA(T, t, Fam, Op)                                                                  \
    ENTRY NAME(Fam, vva, t, )(const T* src1, int src1Stride2, const T* src2, int src2Stride0,     \
                              int src2Stride2, T* dst, int dstStride0, int dstStride2,            \
                              int length, int count) {                                            \
        return array_call<F::vva, Op, 'S'>(                                                       \
            first_failure(nonnull(src1, src2, dst), count_ok(count), sizes_ok(length),            \
                          strides_ok<T>(src1Stride2, src2Stride0, src2Stride2, dstStride0,        \
                                        dstStride2)),                                             \
            ARR_S(dst), ONE_S(src1), MANY_S(src2), length, count);                                \
    }                                                                                             \
    ENTRY NAME(Fam, vva, t, _P)(const T* const* src1, int src1RoiShift, const T* const* src2,     \
                                int src2RoiShift, int src2Stride0, T* const* dst,                 \
                                int dstRoiShift, int dstStride0, int length, int count) {         \
        return array_call<F::vva, Op, 'P'>(                                                       \
            first_failure(nonnull(src1, src2, dst), count_ok(count), sizes_ok(length),            \
                          strides_ok<T>(src2Stride0, dstStride0),                                 \
                          shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                 \
            ARR_P(dst), ONE_P(src1), MANY_P(src2), length, count);                                \
    }                                                                                             \
    ENTRY NAME(Fam, vva, t, _L)(const T* src1, int src1Stride2, const T* const* src2,             \
                                int src2RoiShift, int src2Stride2, T* const* dst,                 \
                                int dstRoiShift, int dstStride2, int length, int count) {         \
        return array_call<F::vva, Op, 'L'>(                                                       \
            first_failure(nonnull(src1, src2, dst), count_ok(count), sizes_ok(length),            \
                          strides_ok<T>(src1Stride2, src2Stride2, dstStride2),                    \
                          shifts_ok<T>(src2RoiShift, dstRoiShift)),                               \
            ARR_L(dst), ONE_S(src1), MANY_L(src2), length, count);                                \
    }

#define ARRAY_VAVA(T, t, Fam, Op)                                                                 \
    ENTRY NAME(Fam, vava, t, )(const T* src1, int src1Stride0, int src1Stride2, const T* src2,    \
                               int src2Stride0, int src2Stride2, T* dst, int dstStride0,          \
                               int dstStride2, int length, int count) {                           \
        return array_call<F::vava, Op, 'S'>(                                                      \
            first_failure(nonnull(src1, src2, dst), count_ok(count), sizes_ok(length),            \
                          strides_ok<T>(src1Stride0, src1Stride2, src2Stride0, src2Stride2,       \
                                        dstStride0, dstStride2)),                                 \
            ARR_S(dst), MANY_S(src1), MANY_S(src2), length, count);                               \
    }                                                                                             \
    ENTRY NAME(Fam, vava, t, _P)(const T* const* src1, int src1RoiShift, int src1Stride0,         \
                                 const T* const* src2, int src2RoiShift, int src2Stride0,         \
                                 T* const* dst, int dstRoiShift, int dstStride0, int length,      \
                                 int count) {                                                     \
        return array_call<F::vava, Op, 'P'>(                                                      \
            first_failure(nonnull(src1, src2, dst), count_ok(count), sizes_ok(length),            \
                          strides_ok<T>(src1Stride0, src2Stride0, dstStride0),                    \
                          shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                 \
            ARR_P(dst), MANY_P(src1), MANY_P(src2), length, count);                               \
    }                                                                                             \
    ENTRY NAME(Fam, vava, t, _L)(const T* const* src1, int src1RoiShift, int src1Stride2,         \
                                 const T* const* src2, int src2RoiShift, int src2Stride2,         \
                                 T* const* dst, int dstRoiShift, int dstStride2, int length,      \
                                 int count) {                                                     \
        return array_call<F::vava, Op, 'L'>(                                                      \
            first_failure(nonnull(src1, src2, dst), count_ok(count), sizes_ok(length),            \
                          strides_ok<T>(src1Stride2, src2Stride2, dstStride2),                    \
                          shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                 \
            ARR_L(dst), MANY_L(src1), MANY_L(src2), length, count);                               \
    }

// Add has no cv, cva or vva; in cv and cva the constant comes first in the
// operation though it follows the vector in the argument list.
#define X(T, t)                                                                                   \
    SINGLE_C(T, t, Add, vc, AddOp, x, c)                                                          \
    SINGLE_C(T, t, Sub, vc, SubOp, x, c)                                                          \
    SINGLE_C(T, t, Sub, cv, SubOp, c, x)                                                          \
    SINGLE_VV(T, t, Add, AddOp)                                                                   \
    SINGLE_VV(T, t, Sub, SubOp)                                                                   \
    ARRAY_C(T, t, Add, vac, AddOp, x, c)                                                          \
    ARRAY_C(T, t, Sub, vac, SubOp, x, c)                                                          \
    ARRAY_C(T, t, Sub, cva, SubOp, c, x)                                                          \
    ARRAY_VAV(T, t, Add, AddOp)                                                                   \
    ARRAY_VAV(T, t, Sub, SubOp)                                                                   \
    ARRAY_VVA(T, t, Sub, SubOp)                                                                   \
    ARRAY_VAVA(T, t, Add, AddOp)                                                                  \
    ARRAY_VAVA(T, t, Sub, SubOp)
ORSM_FOR_TYPES(X)
#undef X
