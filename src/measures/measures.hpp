// Scalar measures of a matrix: Trace, FrobNorm and Det, each of a single
// matrix (m) or of every matrix of an array (ma), one scalar per matrix in a
// packed dst (result n at element n, whatever the layout).
//
// The three families share their frames: checks in the order pointers,
// count, sizes, strides, shifts; the choice of kernel kind (contiguous or
// strided in S and L, one kernel in P); the work estimate against the
// family's limit; the shares of a parallel call, dst moving by elements.
// A family is a policy struct that supplies its kernel for each kind, its
// estimate and its limits.
#pragma once

#include <type_traits>

#include "common/checks.hpp"
#include "common/layout.hpp"
#include "common/parallel.hpp"

namespace orsm::meas {

// Kernel kinds: contiguous and strided in S and L, one in P.
enum class Kind { S, S2, P, L, LS2 };
template <Kind K> using KindC = std::integral_constant<Kind, K>;
constexpr bool strided(Kind k) { return k == Kind::S2 || k == Kind::LS2; }

// The absolute tolerance of the small-value tests: 2^-23 and 2^-52.
template <class T> constexpr T tolerance() { return sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52); }

// Sizes of the matrices: a square order for Trace and Det, width and height
// for FrobNorm.
struct Geo {
    int w, h;
};

// Runs f(KindC<K>, accessor) with the kernel of a call in layout Lay: S and
// L by the source's element stride, P always its one kernel.
template <char Lay, class T, class A, class F> OrsStatus with_kind(const A& a, F&& f) {
    if constexpr (Lay == 'P') {
        return f(KindC<Kind::P>{}, a);
    } else {
        constexpr Kind C = Lay == 'S' ? Kind::S : Kind::L, S2 = Lay == 'S' ? Kind::S2 : Kind::LS2;
        if (all_contiguous<T>(a.s2_)) return f(KindC<C>{}, a.template as<true>());
        return f(KindC<S2>{}, a);
    }
}

// Frame of a single matrix after its checks.
template <class Fam, char Lay, class T, class A>
OrsStatus frame_m(OrsStatus st, const A& a, Geo g, T* buffer, T* dst) {
    if (st != StatusOk) return st;
    if constexpr (Lay == 'S' && !Fam::single_tests_contiguity) {
        // One kernel serves every stride: it looks at the strides itself.
        Fam::template kernel<Kind::S2, true>(a, g, buffer, dst, 1);
        return StatusOk;
    } else {
        return with_kind<Lay, T>(a, [&](auto k, const auto& acc) {
            Fam::template kernel<decltype(k)::value, true>(acc, g, buffer, dst, 1);
            return StatusOk;
        });
    }
}

// Frame of an array after its checks: the estimate against the limit of the
// call's kernel kind, then the serial kernel or the parallel form. Families
// with scratch give each member its own part of a per-team workspace.
template <class Fam, char Lay, class T, class A>
OrsStatus frame_ma(OrsStatus st, const A& a, Geo g, T* buffer, T* dst, int count) {
    if (st != StatusOk) return st;
    const int W = Fam::work(g, count);
    return with_kind<Lay, T>(a, [&](auto k, const auto& acc) {
        constexpr Kind K = decltype(k)::value;
        auto share = [&](int f, int n, T* buf) {
            Fam::template kernel<K, false>(acc.object(f), g, buf, dst + f, n);
            return StatusOk;
        };
        if constexpr (Fam::uses_buffer)
            return dispatch_ws(W, Fam::template limit<T>(K), count, Fam::buffer_elems(g), buffer, share);
        else
            return dispatch(W, Fam::template limit<T>(K), count,
                            [&](int f, int n) { return share(f, n, nullptr); });
    });
}

}  // namespace orsm::meas

// ---- entry points ------------------------------------------------------------------
//
// MEAS_FAMILY(T, t, Fam) defines the five functions of a family for one
// element type. The family supplies its size arguments (MEAS_SZD_<Fam> the
// declaration, MEAS_SZV_<Fam> the values as a Geo, MEAS_SZOK_<Fam> the
// check) and its buffer (MEAS_BUFD_<Fam>(T) the declaration with a trailing
// comma, MEAS_BUFV_<Fam>(T) the value, MEAS_BUFCHK_<Fam> a leading comma and
// the pointer for the null check), all empty or nullptr without one.
// Stride and shift lists start with a value that passes.

#define MEAS_FAMILY(T, t, Fam)                                                                    \
    extern "C" ORSM_API OrsStatus orsm##Fam##_m_##t(const T* src, int srcStride1, int srcStride2, \
                                                    MEAS_SZD_##Fam, MEAS_BUFD_##Fam(T) T* dst) {  \
        using namespace orsm;                                                                     \
        return meas::frame_m<meas::Fam, 'S'>(                                                     \
            first_failure(nonnull(src, dst MEAS_BUFCHK_##Fam), MEAS_SZOK_##Fam,                   \
                          strides_ok<T>(srcStride1, srcStride2)),                                 \
            s_one(src, srcStride1, srcStride2), MEAS_SZV_##Fam, MEAS_BUFV_##Fam(T), dst);            \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsm##Fam##_m_##t##_P(const T* const* src, int srcRoiShift,     \
                                                        MEAS_SZD_##Fam, MEAS_BUFD_##Fam(T)        \
                                                            T* dst) {                             \
        using namespace orsm;                                                                     \
        return meas::frame_m<meas::Fam, 'P'>(                                                     \
            first_failure(nonnull(src, dst MEAS_BUFCHK_##Fam), MEAS_SZOK_##Fam,                   \
                          shifts_ok<T>(srcRoiShift)),                                             \
            p_one(src, srcRoiShift, MEAS_SZV_##Fam.w), MEAS_SZV_##Fam, MEAS_BUFV_##Fam(T), dst);     \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsm##Fam##_ma_##t(                                             \
        const T* src, int srcStride0, int srcStride1, int srcStride2, MEAS_SZD_##Fam,             \
        MEAS_BUFD_##Fam(T) T* dst, int count) {                                                   \
        using namespace orsm;                                                                     \
        return meas::frame_ma<meas::Fam, 'S'>(                                                    \
            first_failure(nonnull(src, dst MEAS_BUFCHK_##Fam), count_ok(count), MEAS_SZOK_##Fam,  \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2)),                     \
            s_mat(src, srcStride0, srcStride1, srcStride2), MEAS_SZV_##Fam, MEAS_BUFV_##Fam(T), dst, \
            count);                                                                               \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsm##Fam##_ma_##t##_P(const T* const* src, int srcRoiShift,    \
                                                         int srcStride0, MEAS_SZD_##Fam,          \
                                                         MEAS_BUFD_##Fam(T) T* dst, int count) {  \
        using namespace orsm;                                                                     \
        return meas::frame_ma<meas::Fam, 'P'>(                                                    \
            first_failure(nonnull(src, dst MEAS_BUFCHK_##Fam), count_ok(count), MEAS_SZOK_##Fam,  \
                          strides_ok<T>(srcStride0), shifts_ok<T>(srcRoiShift)),                  \
            p_arr(src, srcRoiShift, srcStride0, MEAS_SZV_##Fam.w), MEAS_SZV_##Fam,                \
            MEAS_BUFV_##Fam(T), dst, count);                                                         \
    }                                                                                             \
    extern "C" ORSM_API OrsStatus orsm##Fam##_ma_##t##_L(                                         \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, MEAS_SZD_##Fam,     \
        MEAS_BUFD_##Fam(T) T* dst, int count) {                                                   \
        using namespace orsm;                                                                     \
        return meas::frame_ma<meas::Fam, 'L'>(                                                    \
            first_failure(nonnull(src, dst MEAS_BUFCHK_##Fam), count_ok(count), MEAS_SZOK_##Fam,  \
                          strides_ok<T>(srcStride1, srcStride2), shifts_ok<T>(srcRoiShift)),      \
            l_mat(src, srcRoiShift, srcStride1, srcStride2), MEAS_SZV_##Fam, MEAS_BUFV_##Fam(T),     \
            dst, count);                                                                          \
    }

// Size pieces of the families of one square order, and of width by height.
#define MEAS_SZD_ORDER int size
#define MEAS_SZV_ORDER meas::Geo{size, size}
#define MEAS_SZOK_ORDER sizes_ok(size)
#define MEAS_SZD_RECT int width, int height
#define MEAS_SZV_RECT meas::Geo{width, height}
#define MEAS_SZOK_RECT sizes_ok(width, height)
// Buffer pieces of the families without one.
#define MEAS_BUFD_NONE(T)
#define MEAS_BUFV_NONE(T) static_cast<T*>(nullptr)
#define MEAS_BUFCHK_NONE
