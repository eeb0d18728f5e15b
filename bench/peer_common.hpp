// Helpers shared by the peer sources (built in each variant's namespace).
#pragma once

namespace bench {

// Keeps the compiler from hoisting a repeated product out of its loop or
// dropping its stores.
template <class P> inline void escape(P* p) { asm volatile("" : : "g"(p) : "memory"); }

}  // namespace bench

// Calls fn<n>(...) for the benchmarked orders 3..6 (unrolled by template);
// other orders are not benchmarked.
#define BENCH_BY_ORDER(fn, ...)                 \
    switch (n) {                                \
        case 3: fn<3>(__VA_ARGS__); break;      \
        case 4: fn<4>(__VA_ARGS__); break;      \
        case 5: fn<5>(__VA_ARGS__); break;      \
        case 6: fn<6>(__VA_ARGS__); break;      \
        default: break;                         \
    }
