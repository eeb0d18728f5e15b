// Machine reference: single-thread stream bandwidth and the arithmetic peak
// of separate multiplies and adds. Built with -O3 -march=native and without
// loop-to-memcpy replacement, so the copy is the loop as written.
#include <chrono>

#include "peers.hpp"

namespace bench::machine {
namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// ACC independent chains per kernel: enough to cover the latency of two
// pipes; each step is one vector operation per chain.
constexpr int ACC = 16;

template <class T, int BYTES> struct Vec {
    typedef T type __attribute__((vector_size(BYTES)));
};

// Multiplies alternate between m and 1/m so the values stay bounded; the
// factors come through volatile so nothing folds.
template <class T, int BYTES> double peak_mul(long iters) {
    using V = typename Vec<T, BYTES>::type;
    constexpr int L = BYTES / sizeof(T);
    volatile T vm = T(1.0000001), vi = T(1) / T(1.0000001), seed = T(1);
    V m, mi, acc[ACC];
    for (int l = 0; l < L; ++l) {
        m[l] = vm;
        mi[l] = vi;
    }
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) acc[j][l] = seed + T(j);
    const double t0 = now();
    for (long it = 0; it < iters; ++it) {
#pragma GCC unroll 16
        for (int j = 0; j < ACC; ++j) acc[j] = acc[j] * m;
#pragma GCC unroll 16
        for (int j = 0; j < ACC; ++j) acc[j] = acc[j] * mi;
    }
    const double t = now() - t0;
    T sink = 0;
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) sink += acc[j][l];
    volatile T keep = sink;
    (void)keep;
    return 2.0 * ACC * L * double(iters) / t * 1e-9;
}

template <class T, int BYTES> double peak_add(long iters) {
    using V = typename Vec<T, BYTES>::type;
    constexpr int L = BYTES / sizeof(T);
    volatile T va = T(1e-3), seed = T(1);
    V a, acc[ACC];
    for (int l = 0; l < L; ++l) a[l] = va;
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) acc[j][l] = seed + T(j);
    const double t0 = now();
    for (long it = 0; it < iters; ++it) {
#pragma GCC unroll 16
        for (int j = 0; j < ACC; ++j) acc[j] = acc[j] + a;
#pragma GCC unroll 16
        for (int j = 0; j < ACC; ++j) acc[j] = acc[j] - a;
    }
    const double t = now() - t0;
    T sink = 0;
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) sink += acc[j][l];
    volatile T keep = sink;
    (void)keep;
    return 2.0 * ACC * L * double(iters) / t * 1e-9;
}

#define BENCH_PEAK(name, kern, T)                          \
    double name(int bytes, long iters) {                   \
        switch (bytes) {                                   \
            case 16: return kern<T, 16>(iters);            \
            case 32: return kern<T, 32>(iters);            \
            case 64: return kern<T, 64>(iters);            \
            default: return 0;                             \
        }                                                  \
    }

}  // namespace

double copy_pass(double* a, const double* b, long len) {
    const double t0 = now();
    for (long i = 0; i < len; ++i) a[i] = b[i];
    return now() - t0;
}

double triad_pass(double* a, const double* b, const double* c, double s, long len) {
    const double t0 = now();
    for (long i = 0; i < len; ++i) a[i] = b[i] + s * c[i];
    return now() - t0;
}

BENCH_PEAK(peak_mul_f32, peak_mul, float)
BENCH_PEAK(peak_add_f32, peak_add, float)
BENCH_PEAK(peak_mul_f64, peak_mul, double)
BENCH_PEAK(peak_add_f64, peak_add, double)

int widest_vector_bytes() {
#if defined(__AVX512F__)
    return 64;
#elif defined(__AVX__)
    return 32;
#else
    return 16;
#endif
}

}  // namespace bench::machine
