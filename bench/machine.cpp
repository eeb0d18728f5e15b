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

// Each round applies op(x, u) then op(x, v) to every chain, with the pair
// chosen so values stay bounded: multiplies by m and 1/m, or adds and
// subtracts (an add) a small constant. The constants come through volatile
// so nothing folds.
template <class T, int BYTES, bool MUL> double peak(long iters) {
    using V = typename Vec<T, BYTES>::type;
    constexpr int L = BYTES / sizeof(T);
    volatile T vu = MUL ? T(1.0000001) : T(1e-3), seed = T(1);
    const T u0 = vu, v0 = MUL ? T(1) / u0 : u0;
    V u, v, acc[ACC];
    for (int l = 0; l < L; ++l) {
        u[l] = u0;
        v[l] = v0;
    }
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) acc[j][l] = seed + T(j);
    const double t0 = now();
    for (long it = 0; it < iters; ++it) {
        if constexpr (MUL) {
#pragma GCC unroll 16
            for (int j = 0; j < ACC; ++j) acc[j] = acc[j] * u;
#pragma GCC unroll 16
            for (int j = 0; j < ACC; ++j) acc[j] = acc[j] * v;
        } else {
#pragma GCC unroll 16
            for (int j = 0; j < ACC; ++j) acc[j] = acc[j] + u;
#pragma GCC unroll 16
            for (int j = 0; j < ACC; ++j) acc[j] = acc[j] - v;
        }
    }
    const double t = now() - t0;
    T sink = 0;
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) sink += acc[j][l];
    volatile T keep = sink;
    (void)keep;
    return 2.0 * ACC * L * double(iters) / t * 1e-9;
}

#define BENCH_PEAK(name, T, MUL)                           \
    double name(int bytes, long iters) {                   \
        switch (bytes) {                                   \
            case 16: return peak<T, 16, MUL>(iters);       \
            case 32: return peak<T, 32, MUL>(iters);       \
            case 64: return peak<T, 64, MUL>(iters);       \
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

BENCH_PEAK(peak_mul_f32, float, true)
BENCH_PEAK(peak_add_f32, float, false)
BENCH_PEAK(peak_mul_f64, double, true)
BENCH_PEAK(peak_add_f64, double, false)

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
