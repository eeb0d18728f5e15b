// When the out-of-cache kernels stream dst past the caches.
//
// A kernel that writes at least `stream_min_bytes` bytes of dst in one call
// (one share of a parallel call) stores them with streaming stores: such a
// dst cannot stay in the caches anyway, and writing it without first
// reading each line saves a third of the traffic of a two-source call. The
// stored values are those of plain stores. Tests lower the limit to reach
// these paths with small operands.
#pragma once

namespace orsm::streaming {

inline long stream_min_bytes = 8L << 20;

inline long min_bytes() { return __atomic_load_n(&stream_min_bytes, __ATOMIC_RELAXED); }
// Sets the limit (for tests); returns the previous one.
inline long set_min_bytes(long b) { return __atomic_exchange_n(&stream_min_bytes, b, __ATOMIC_RELAXED); }

}  // namespace orsm::streaming
