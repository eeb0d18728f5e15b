// Argument checks as small steps. A frame lists its family's order:
//
//   return first_failure(nonnull(src, dst), count_ok(count), sizes_ok(w, h),
//                        strides_ok<T>(s0, s1, s2), shifts_ok<T>(shift));
//
// Each step tests all its arguments and gives one status; the first failing
// step decides. The steps are pure, so evaluating them all costs a few
// compares and changes nothing.
#pragma once

#include "base.hpp"

namespace orsm {

template <class... P> constexpr OrsStatus nonnull(const P*... p) {
    return ((p == nullptr) || ...) ? StatusNullPointer : StatusOk;
}
template <class... I> constexpr OrsStatus sizes_ok(I... s) {
    return ((s < 1) || ...) ? StatusBadSize : StatusOk;
}
constexpr OrsStatus count_ok(int count) { return count < 1 ? StatusBadCount : StatusOk; }

// A stride is at least 1 and a multiple of the element size.
template <class T, class... I> constexpr OrsStatus strides_ok(I... s) {
    return ((s < 1 || (s & Elem<Plain<T>>::mask) != 0) || ...) ? StatusBadStride : StatusOk;
}
// A shift is at least 0 and a multiple of the element size.
template <class T, class... I> constexpr OrsStatus shifts_ok(I... s) {
    return ((s < 0 || (s & Elem<Plain<T>>::mask) != 0) || ...) ? StatusBadRoiShift : StatusOk;
}
// A step that applies only under a condition (the object strides of Copy and
// LoadIdentity, looked at only when count is above 1).
constexpr OrsStatus only_if(bool cond, OrsStatus st) { return cond ? st : StatusOk; }

template <class... S> constexpr OrsStatus first_failure(S... st) {
    OrsStatus out = StatusOk;
    ((out == StatusOk ? (out = st, 0) : 0), ...);
    return out;
}

}  // namespace orsm
