// Lanes over objects, the kernels' half (kernels/groups.hpp has the
// frame's): vectors of W lanes, lane l holding a value of object first + l,
// with the masks their comparisons give. Per target, like vectors.hpp.
#pragma once

#include <cmath>
#include <limits>

#include "kernels/groups.hpp"
#include "kernels/vectors.hpp"

namespace orsm::lanes {
namespace ORSM_TARGET {
namespace {

namespace vx = ::orsm::vec::ORSM_TARGET;
using vx::splat;

// The signed integer of T's width: the lanes of a comparison's mask.
template <class T> using IntOf = std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>;
template <class T, int W> using V = vx::Vec<T, W>;
template <class T, int W> using VI = vx::Vec<IntOf<T>, W>;

template <class T, int W> ORSM_INLINE V<T, W> vabs(V<T, W> x) {
    return (V<T, W>)((VI<T, W>)x & splat<VI<T, W>>(std::numeric_limits<IntOf<T>>::max()));
}
template <class T, int W> ORSM_INLINE bool any(VI<T, W> m) {
    for (int l = 0; l < W; ++l)
        if (m[l]) return true;
    return false;
}

// Correctly rounded square roots, lane by lane.
template <class T, int W> ORSM_INLINE V<T, W> vsqrt(V<T, W> x) {
    constexpr bool f64 = sizeof(T) == 8;
#if defined(__AVX512F__)
    // (The masked forms: GCC 12 warns of an undefined operand in the plain ones.)
    if constexpr (sizeof(x) == 64) {
        if constexpr (f64) return (V<T, W>)_mm512_mask_sqrt_pd((__m512d)x, __mmask8(0xFF), (__m512d)x);
        else return (V<T, W>)_mm512_mask_sqrt_ps((__m512)x, __mmask16(0xFFFF), (__m512)x);
    }
#endif
#if defined(__AVX__)
    if constexpr (sizeof(x) == 32) {
        if constexpr (f64) return (V<T, W>)_mm256_sqrt_pd((__m256d)x);
        else return (V<T, W>)_mm256_sqrt_ps((__m256)x);
    }
#endif
    if constexpr (sizeof(x) == 16) {
        if constexpr (f64) return (V<T, W>)_mm_sqrt_pd((__m128d)x);
        else return (V<T, W>)_mm_sqrt_ps((__m128)x);
    }
    for (int l = 0; l < W; ++l) x[l] = std::sqrt(x[l]);
    return x;
}

// orsm::rsqrt_estimate (common/estimates.hpp) in every lane, operation for
// operation, so that each lane gets the scalar estimate's bits.
template <int W> ORSM_INLINE V<float, W> rsqrt_estimate(V<float, W> s) {
    using Vf = V<float, W>;
    using Vu = vx::Vec<std::uint32_t, W>;
    Vu b = 0x5F375A86u - ((Vu)s >> 1);
    Vf y = (Vf)b;
    y = y * (1.5f - 0.5f * ((s * y) * y));
    y = y * (1.5f - 0.5f * ((s * y) * y));
    y = (Vf)(((Vu)y + 0x400u) & ~0x7FFu);
    const Vf inf = splat<Vf>(std::numeric_limits<float>::infinity());
    const Vf nan = splat<Vf>(std::numeric_limits<float>::quiet_NaN());
    y = s >= std::numeric_limits<float>::min() ? y : s >= 0.0f ? inf : nan;
    return s == inf ? splat<Vf>(0.0f) : y;
}

// orsm::rcp_estimate (common/estimates.hpp) in every lane, operation for
// operation.
template <int W> ORSM_INLINE V<float, W> rcp_estimate(V<float, W> d) {
    using Vf = V<float, W>;
    using Vu = vx::Vec<std::uint32_t, W>;
    const Vu b0 = (Vu)d;
    const Vu sign = b0 & 0x80000000u, ex = (b0 >> 23) & 0xFFu;
    const Vf m = (Vf)((b0 & 0x007FFFFFu) | 0x3F800000u);
    Vf y = 24.0f / 17.0f - (8.0f / 17.0f) * m;
    y = y * (2.0f - m * y);
    y = y * (2.0f - m * y);
    y = (Vf)(((Vu)y + 0x400u) & ~0x7FFu);
    const Vu clamped = ex > 253u ? splat<Vu>(253u) : ex < 1u ? splat<Vu>(1u) : ex;
    y = y * (Vf)((254u - clamped) << 23);
    y = ex == 0u ? splat<Vf>(std::numeric_limits<float>::infinity()) : ex >= 253u ? splat<Vf>(0.0f) : y;
    y = (Vf)((Vu)y | sign);
    return d != d ? d : y;
}

// Element (r, c) of objects first .. first + W - 1 of o (groups::Strided or
// Listed), a lane at a time: on the processors measured that beats the
// gather instructions, and a transpose of whole objects did no better.
template <int W, class O> ORSM_INLINE auto load(const O& o, int first, ptrdiff_t r, int c) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    V<T, W> v;
    for (int l = 0; l < W; ++l) v[l] = *byte_off(o.obj(first + l), r * o.s1 + c * ptrdiff_t(sizeof(T)));
    return v;
}
// The same, but for an operand whose objects all stand at one place (the
// one factor of an mva call, an S operand with s0 of 0): one load, in
// every lane.
template <int W, class O> ORSM_INLINE auto load_shared(const O& o, int first, ptrdiff_t r, int c) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    if constexpr (requires { o.s0; }) {
        if (o.s0 == 0) return splat<V<T, W>>(T(*byte_off(o.obj(first), r * o.s1 + c * ptrdiff_t(sizeof(T)))));
    }
    return load<W>(o, first, r, c);
}
// An R x C block of each object into x[r][c].
template <int W, class Vt, int R, int C, class O> ORSM_INLINE void load(Vt (&x)[R][C], const O& o, int first) {
    for (int r = 0; r < R; ++r)
        for (int c = 0; c < C; ++c) x[r][c] = load<W>(o, first, r, c);
}

}  // namespace
}  // namespace ORSM_TARGET
}  // namespace orsm::lanes
