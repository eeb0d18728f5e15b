// Vectors of the per-target kernel sources (*.multi.cpp; see isa.hpp): a
// vector type of L elements, loads and stores that assume no alignment, a
// value in every lane, and the streaming stores of the out-of-cache paths.
//
// Everything here has internal linkage inside the target's namespace, so
// that the copies built for different instruction sets never merge.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "common/base.hpp"
#include "kernels/isa.hpp"
#include "kernels/streaming.hpp"

// The wide vectors of these helpers never cross a call (every helper is
// inlined), so the note on their calling convention under narrower targets
// does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace orsm::vec {
namespace ORSM_TARGET {
namespace {

// Bytes of the widest vector register of this target.
constexpr int kBytes = ORSM_TARGET_VECTOR_BYTES;

template <class T, int L> struct VecOf {
    typedef T V __attribute__((vector_size(L * sizeof(T))));
};
// L elements of T in one vector (L a power of two; L of 1 is still a vector).
template <class T, int L> using Vec = typename VecOf<T, L>::V;
// Lanes of the widest vector of T.
template <class T> constexpr int kLanes = kBytes / int(sizeof(T));
// Vector registers of this target (AVX-512 has 32, the others 16).
constexpr int kRegisters = kBytes == 64 ? 32 : 16;

template <class V, class T, std::size_t... I> ORSM_INLINE V splat_(T s, std::index_sequence<I...>) {
    return V{((void)I, s)...};
}
// s in every lane of V (V may also be T itself).
template <class V, class T> ORSM_INLINE V splat(T s) {
    if constexpr (std::is_same_v<V, T>) return s;
    else return splat_<V>(s, std::make_index_sequence<sizeof(V) / sizeof(T)>());
}
template <class V, class T> ORSM_INLINE V load(const T* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class V, class T> ORSM_INLINE void store(T* p, V v) { std::memcpy(p, &v, sizeof v); }

// A store that bypasses the caches, to an address aligned to the vector's
// size; it writes the value as a plain store would. Stores of this kind are
// weakly ordered: `stream_fence` must follow the last of them before the
// caller can see dst.
template <class V, class T> ORSM_INLINE void stream(T* p, V v) {
    // The bits of the vector, whatever its element type.
    if constexpr (sizeof(V) == 64) {
#if defined(__AVX512F__)
        return _mm512_stream_si512(reinterpret_cast<__m512i*>(p), (__m512i)v);
#endif
    } else if constexpr (sizeof(V) == 32) {
#if defined(__AVX__)
        return _mm256_stream_si256(reinterpret_cast<__m256i*>(p), (__m256i)v);
#endif
    } else if constexpr (sizeof(V) == 16) {
        return _mm_stream_si128(reinterpret_cast<__m128i*>(p), (__m128i)v);
    }
    store(p, v);
}
ORSM_INLINE void stream_fence() { _mm_sfence(); }

}  // namespace
}  // namespace ORSM_TARGET
}  // namespace orsm::vec
