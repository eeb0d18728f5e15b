// EigenValuesVectorsSym: all eigenvalues of a symmetric matrix, descending,
// and their vectors as the columns of dstVectors: the method of
// EigenValuesSym with the reflections and rotations accumulated
// (method.hpp). Checks in the order pointers, size, count, shifts, strides.
#include "eigen/method.hpp"

namespace orsm::eigen {
namespace {

struct Vectors {
    // The kernels' differences:
    //   - a reflection is skipped on a small |norm - p| everywhere, on a
    //     small s only in the 32f array kernels and the 64f array kernels
    //     of layout S;
    //   - 32f takes the roots of both directions' shifts in double, tests
    //     negligibility in single precision, and takes the values and their
    //     product after the sweeps in both directions;
    //   - the single 64f kernels and the single 32f one of layout P sort
    //     before the singularity test, so a singular matrix has its
    //     results sorted; every other kernel tests first.
    template <class T> static constexpr Rules rules(Kind k, bool array) {
        const bool f32 = sizeof(T) == 4;
        return Rules{.skip_small_s = array && (f32 || k == Kind::S || k == Kind::S2),
                     .skip_norm_p = true,
                     .det2_tol_64f = false,
                     .root_double_down = f32,
                     .root_double_up = f32,
                     .negl_double = false,
                     .prod_at_end = f32,
                     .sort_first = !array && (!f32 || k == Kind::P)};
    }
    static int work(int size, int count) { return wmul(wadd(wmul(2, size, size), size), count); }
    static constexpr Limit limit = serial_below(701);

    // Both operands' element strides pick the kernel; a single 32f matrix
    // in layout S always takes the strided one.
    template <char Lay, bool Array, class T, class F, class Src, class V>
    static OrsStatus with_kind(F&& f, const Src& src, const V& v) {
        if constexpr (Lay == 'S' && !Array && sizeof(T) == 4) return f(KindC<Kind::S2>{}, src, v);
        else return solve::with_kind<Lay, T>(f, src, v);
    }
};

}  // namespace
}  // namespace orsm::eigen

using namespace orsm;
using namespace orsm::eigen;

#define X(T, t)                                                                                     \
    extern "C" ORSM_API OrsStatus orsmEigenValuesVectorsSym_m_##t(                                  \
        const T* src, int srcStride1, int srcStride2, T* buffer, T* dstVectors, int dstStride1,     \
        int dstStride2, T* dstValues, int size) {                                                   \
        return frame<Vectors, 'S', false>(                                                          \
            first_failure(nonnull(src, buffer, dstVectors, dstValues), sizes_ok(size),              \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2)),           \
            s_one(src, srcStride1, srcStride2), buffer, s_one(dstVectors, dstStride1, dstStride2),  \
            dstValues, size, 1);                                                                    \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmEigenValuesVectorsSym_m_##t##_P(                              \
        const T* const* src, int srcRoiShift, T* buffer, T* const* dstVectors, int dstRoiShift,     \
        T* dstValues, int size) {                                                                   \
        return frame<Vectors, 'P', false>(                                                          \
            first_failure(nonnull(src, buffer, dstVectors, dstValues), sizes_ok(size),              \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                  \
            p_one(src, srcRoiShift, size), buffer, p_one(dstVectors, dstRoiShift, size), dstValues, \
            size, 1);                                                                               \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmEigenValuesVectorsSym_ma_##t(                                 \
        const T* src, int srcStride0, int srcStride1, int srcStride2, T* buffer, T* dstVectors,     \
        int dstStride0, int dstStride1, int dstStride2, T* dstValues, int size, int count) {        \
        return frame<Vectors, 'S', true>(                                                           \
            first_failure(nonnull(src, buffer, dstVectors, dstValues), sizes_ok(size),              \
                          count_ok(count),                                                          \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0, dstStride1, \
                                        dstStride2)),                                               \
            s_mat(src, srcStride0, srcStride1, srcStride2), buffer,                                 \
            s_mat(dstVectors, dstStride0, dstStride1, dstStride2), dstValues, size, count);         \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmEigenValuesVectorsSym_ma_##t##_P(                             \
        const T* const* src, int srcRoiShift, int srcStride0, T* buffer, T* const* dstVectors,      \
        int dstRoiShift, int dstStride0, T* dstValues, int size, int count) {                       \
        return frame<Vectors, 'P', true>(                                                           \
            first_failure(nonnull(src, buffer, dstVectors, dstValues), sizes_ok(size),              \
                          count_ok(count), shifts_ok<T>(srcRoiShift, dstRoiShift),                  \
                          strides_ok<T>(srcStride0, dstStride0)),                                   \
            p_arr(src, srcRoiShift, srcStride0, size), buffer,                                      \
            p_arr(dstVectors, dstRoiShift, dstStride0, size), dstValues, size, count);              \
    }                                                                                               \
    extern "C" ORSM_API OrsStatus orsmEigenValuesVectorsSym_ma_##t##_L(                             \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, T* buffer,            \
        T* const* dstVectors, int dstRoiShift, int dstStride1, int dstStride2, T* dstValues,        \
        int size, int count) {                                                                      \
        return frame<Vectors, 'L', true>(                                                           \
            first_failure(nonnull(src, buffer, dstVectors, dstValues), sizes_ok(size),              \
                          count_ok(count), shifts_ok<T>(srcRoiShift, dstRoiShift),                  \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2)),           \
            l_mat(src, srcRoiShift, srcStride1, srcStride2), buffer,                                \
            l_mat(dstVectors, dstRoiShift, dstStride1, dstStride2), dstValues, size, count);        \
    }
ORSM_FOR_TYPES(X)
#undef X
