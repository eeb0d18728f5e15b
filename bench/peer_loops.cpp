// Plain loops, the yardstick of every table row. Built twice: PEER_NS is fma
// (contraction allowed) or nofma (-ffp-contract=off). The nofma products are
// the reference the library must match bit for bit: each element is the sum
// over ascending k, starting from the first product, in the element type.
#include "peer_common.hpp"
#include "peers.hpp"

#ifndef PEER_NS
#error "PEER_NS must name the build variant (fma or nofma)"
#endif

namespace bench::PEER_NS {
namespace {

template <int N, class T> inline void mm(const T* a, const T* b, T* c) {
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) {
            T s = a[i * N] * b[j];
            for (int k = 1; k < N; ++k) s += a[i * N + k] * b[k * N + j];
            c[i * N + j] = s;
        }
}

template <int N, class T> void mama_n(const T* a, const T* b, T* c, long count) {
    for (long o = 0; o < count; ++o) mm<N>(a + o * N * N, b + o * N * N, c + o * N * N);
}

template <int N, class T> void mam_n(const T* a, const T* b, T* c, long count) {
    T bb[N * N];
    for (int e = 0; e < N * N; ++e) bb[e] = b[e];
    for (long o = 0; o < count; ++o) mm<N>(a + o * N * N, bb, c + o * N * N);
}

// Lanes run over objects; blocks of 256 objects keep each dst plane's
// running sums in L1 while k advances.
template <int N, class T> void soa_n(const T* a, const T* b, T* c, long cnt) {
    constexpr long B = 256;
    for (long o0 = 0; o0 < cnt; o0 += B) {
        const long len = cnt - o0 < B ? cnt - o0 : B;
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) {
                T* d = c + (i * N + j) * cnt + o0;
                const T* a0 = a + (i * N) * cnt + o0;
                const T* b0 = b + j * cnt + o0;
                for (long o = 0; o < len; ++o) d[o] = a0[o] * b0[o];
                for (int k = 1; k < N; ++k) {
                    const T* ak = a + (i * N + k) * cnt + o0;
                    const T* bk = b + (k * N + j) * cnt + o0;
                    for (long o = 0; o < len; ++o) d[o] += ak[o] * bk[o];
                }
            }
    }
}

template <int N, class T> void transpose_n(const T* a, T* c, long count) {
    for (long o = 0; o < count; ++o)
        for (int r = 0; r < N; ++r)
            for (int col = 0; col < N; ++col) c[o * N * N + col * N + r] = a[o * N * N + r * N + col];
}

template <int N, class T> void repeat_n(const T* a, const T* b, T* c, long reps) {
    for (long r = 0; r < reps; ++r) {
        escape(a);
        escape(b);
        mm<N>(a, b, c);
        escape(c);
    }
}


template <class T> void add(const T* a, const T* b, T* c, long len) {
    for (long i = 0; i < len; ++i) c[i] = a[i] + b[i];
}

}  // namespace

#define BENCH_LOOPS_DEFS(T)                                                                       \
    void loop_mama(int n, const T* a, const T* b, T* c, long count) {                             \
        BENCH_BY_ORDER(mama_n, a, b, c, count)                                                    \
    }                                                                                             \
    void loop_mam(int n, const T* a, const T* b, T* c, long count) {                              \
        BENCH_BY_ORDER(mam_n, a, b, c, count)                                                     \
    }                                                                                             \
    void loop_mama_soa(int n, const T* a, const T* b, T* c, long count) {                         \
        BENCH_BY_ORDER(soa_n, a, b, c, count)                                                     \
    }                                                                                             \
    void loop_add(const T* a, const T* b, T* c, long len) { add(a, b, c, len); }                  \
    void loop_transpose(int n, const T* a, T* c, long count) {                                    \
        BENCH_BY_ORDER(transpose_n, a, c, count)                                                  \
    }                                                                                             \
    void loop_mm_repeat(int n, const T* a, const T* b, T* c, long reps) {                         \
        BENCH_BY_ORDER(repeat_n, a, b, c, reps)                                                   \
    }

BENCH_LOOPS_DEFS(float)
BENCH_LOOPS_DEFS(double)

}  // namespace bench::PEER_NS
