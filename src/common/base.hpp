// Basic vocabulary shared by every family: element traits, byte addressing,
// the wrapping 32-bit arithmetic of the work estimates, and the export macro
// list that instantiates an entry point once per element type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "orsm.h"

// Small helpers used inside kernels are always inlined: kernel sources are
// compiled once per instruction set, and an out-of-line copy built with
// AVX-512 flags must never be the one the baseline code links to.
#define ORSM_INLINE inline __attribute__((always_inline))

namespace orsm {

using std::ptrdiff_t;

// Element traits: byte size and the low bits a stride or shift must keep clear.
template <class T> struct Elem;
template <> struct Elem<float> {
    static constexpr int size = 4;
    static constexpr int mask = 3;
    using Bits = std::uint32_t;
};
template <> struct Elem<double> {
    static constexpr int size = 8;
    static constexpr int mask = 7;
    using Bits = std::uint64_t;
};
template <class T> using Plain = std::remove_const_t<T>;
template <class T> constexpr int esize = Elem<Plain<T>>::size;

// Address of the byte offset `off` from `base`, typed as T.
template <class T> ORSM_INLINE T* byte_off(T* base, ptrdiff_t off) {
    using Byte = std::conditional_t<std::is_const_v<T>, const char, char>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + off);
}

// Moves one element as its bit pattern: no arithmetic, so NaN payloads
// (signalling ones too) and signed zeros pass unchanged.
template <class T> ORSM_INLINE void move_bits(Plain<T>* d, const T* s) {
    typename Elem<Plain<T>>::Bits b;
    std::memcpy(&b, s, sizeof b);
    std::memcpy(d, &b, sizeof b);
}

// f(integral_constant<int, i>) for i from 0 to N - 1, unrolled.
template <class F, std::size_t... I> constexpr ORSM_INLINE void static_for_(F&& f, std::index_sequence<I...>) {
    (f(std::integral_constant<int, int(I)>{}), ...);
}
template <int N, class F> constexpr ORSM_INLINE void static_for(F&& f) {
    static_for_(f, std::make_index_sequence<N>{});
}

// Work estimates are computed in wrapping signed 32-bit arithmetic: a product
// that overflows wraps, and a negative result takes the serial path.
constexpr int wmul(int a, int b) {
    return static_cast<int>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}
constexpr int wadd(int a, int b) {
    return static_cast<int>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
template <class... I> constexpr int wmul(int a, int b, I... rest) { return wmul(wmul(a, b), rest...); }
template <class... I> constexpr int wadd(int a, int b, I... rest) { return wadd(wadd(a, b), rest...); }

}  // namespace orsm

// Instantiates X once per element type: X(float, 32f) X(double, 64f).
// Entry points are written as `#define X(T, t) ... orsmFoo_ma_##t ...` and
// expanded with ORSM_FOR_TYPES(X).
#define ORSM_FOR_TYPES(X) X(float, 32f) X(double, 64f)
