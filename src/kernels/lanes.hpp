// Lanes over objects, the kernels' half (kernels/groups.hpp has the
// frame's): vectors of W lanes, lane l holding a value of object first + l,
// with the masks their comparisons give. Per target, like vectors.hpp.
#pragma once

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

// Element (r, c) of objects first .. first + W - 1 of o (groups::Strided or
// Listed), a lane at a time: on the processors measured that beats the
// gather instructions, and a transpose of whole objects did no better.
template <int W, class O> ORSM_INLINE auto load(const O& o, int first, ptrdiff_t r, int c) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    V<T, W> v;
    for (int l = 0; l < W; ++l) v[l] = *byte_off(o.obj(first + l), r * o.s1 + c * ptrdiff_t(sizeof(T)));
    return v;
}
// An R x C block of each object into x[r][c].
template <int W, class Vt, int R, int C, class O> ORSM_INLINE void load(Vt (&x)[R][C], const O& o, int first) {
    for (int r = 0; r < R; ++r)
        for (int c = 0; c < C; ++c) x[r][c] = load<W>(o, first, r, c);
}

}  // namespace
}  // namespace ORSM_TARGET
}  // namespace orsm::lanes
