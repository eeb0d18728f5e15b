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
using groups::Packed;

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

// Element (r, c) of objects first .. first + W - 1, a lane at a time: on the
// processors measured that beats the gather instructions.
template <int W, class T> ORSM_INLINE V<T, W> load(const Packed<const T>& p, int first, ptrdiff_t r, int c) {
    V<T, W> v;
    for (int l = 0; l < W; ++l) v[l] = *byte_off(p.base, (first + l) * p.s0 + r * p.s1 + c * ptrdiff_t(sizeof(T)));
    return v;
}
// A rows x cols block of each object into x[r][c].
template <int W, int R, int C, class T> ORSM_INLINE void load(V<T, W> (&x)[R][C], const Packed<const T>& p,
                                                             int first) {
    for (int r = 0; r < R; ++r)
        for (int c = 0; c < C; ++c) x[r][c] = load<W>(p, first, r, c);
}

}  // namespace
}  // namespace ORSM_TARGET
}  // namespace orsm::lanes
