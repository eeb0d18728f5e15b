// EigenValuesSym: all eigenvalues of a symmetric matrix, descending, with a
// singularity test on their product (method.hpp). Checks in the order
// pointers, size, count, shift, strides.
#include "eigen/method.hpp"

namespace orsm::eigen {
namespace {

struct Values {
    // The kernels' differences:
    //   - the array kernels skip a reflection on a small s or |norm - p|;
    //   - the contiguous 32f array kernel bounds the order-2 determinant by
    //     2^-52, every other 32f kernel by 2^-23;
    //   - the contiguous single 32f kernel takes the top-down shift's root
    //     in double;
    //   - 32f negligibility is tested in double.
    template <class T> static constexpr Rules rules(Kind k, bool array) {
        const bool f32 = sizeof(T) == 4;
        return Rules{.skip_small_s = array,
                     .skip_norm_p = array,
                     .det2_tol_64f = f32 && array && k == Kind::S,
                     .root_double_down = f32 && !array && k == Kind::S,
                     .root_double_up = false,
                     .negl_double = f32,
                     .prod_at_end = false,
                     .sort_first = false};
    }
    static int work(int size, int count) { return wmul(size, wadd(size, 1), count); }
    static constexpr Limit limit = serial_below(1001);

    // Only the source's element stride picks the kernel.
    template <char Lay, bool, class T, class F, class Src>
    static OrsStatus with_kind(F&& f, const Src& src, NoVectors v) {
        return solve::with_kind<Lay, T>([&](auto kind, const auto& s) { return f(kind, s, v); }, src);
    }
};

}  // namespace
}  // namespace orsm::eigen

using namespace orsm;
using namespace orsm::eigen;

#define X(T, t)                                                                                      \
    extern "C" ORSM_API OrsStatus orsmEigenValuesSym_m_##t(const T* src, int srcStride1,             \
                                                           int srcStride2, T* buffer, T* dst,        \
                                                           int size) {                               \
        return frame<Values, 'S', false>(first_failure(nonnull(src, buffer, dst), sizes_ok(size),    \
                                                       strides_ok<T>(srcStride1, srcStride2)),       \
                                         s_one(src, srcStride1, srcStride2), buffer, NoVectors{},    \
                                         dst, size, 1);                                              \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmEigenValuesSym_m_##t##_P(const T* const* src, int srcRoiShift, \
                                                               T* buffer, T* dst, int size) {        \
        return frame<Values, 'P', false>(                                                            \
            first_failure(nonnull(src, buffer, dst), sizes_ok(size), shifts_ok<T>(srcRoiShift)),     \
            p_one(src, srcRoiShift, size), buffer, NoVectors{}, dst, size, 1);                       \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmEigenValuesSym_ma_##t(const T* src, int srcStride0,            \
                                                            int srcStride1, int srcStride2,          \
                                                            T* buffer, T* dst, int size, int count) { \
        return frame<Values, 'S', true>(                                                             \
            first_failure(nonnull(src, buffer, dst), sizes_ok(size), count_ok(count),                \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2)),                        \
            s_mat(src, srcStride0, srcStride1, srcStride2), buffer, NoVectors{}, dst, size, count);  \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmEigenValuesSym_ma_##t##_P(const T* const* src,                 \
                                                                int srcRoiShift, int srcStride0,     \
                                                                T* buffer, T* dst, int size,         \
                                                                int count) {                         \
        return frame<Values, 'P', true>(                                                             \
            first_failure(nonnull(src, buffer, dst), sizes_ok(size), count_ok(count),                \
                          shifts_ok<T>(srcRoiShift), strides_ok<T>(srcStride0)),                     \
            p_arr(src, srcRoiShift, srcStride0, size), buffer, NoVectors{}, dst, size, count);       \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmEigenValuesSym_ma_##t##_L(                                     \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, T* buffer, T* dst,     \
        int size, int count) {                                                                       \
        return frame<Values, 'L', true>(                                                             \
            first_failure(nonnull(src, buffer, dst), sizes_ok(size), count_ok(count),                \
                          shifts_ok<T>(srcRoiShift), strides_ok<T>(srcStride1, srcStride2)),         \
            l_mat(src, srcRoiShift, srcStride1, srcStride2), buffer, NoVectors{}, dst, size, count); \
    }
ORSM_FOR_TYPES(X)
#undef X
