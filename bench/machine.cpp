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

// Independent chains per kind of operation: enough to cover the latency of
// two pipes of each kind (3 to 4 cycles on current cores) several times
// over, and few enough that the chains and the constants of the mixed
// kernel (2 * ACC + 4 vectors) stay in 32 registers.
constexpr int ACC = 12;

template <class T, int BYTES> struct Vec {
    typedef T type __attribute__((vector_size(BYTES)));
};

enum class Ops { mul, add, mix };

// Each round applies op(x, u) then op(x, v) to every chain, with the pair
// chosen so values stay bounded: multiplies by m and 1/m, or an add and a
// subtract of a small constant. The mixed kernel runs ACC multiply chains
// and ACC add chains side by side, one multiply next to one add, so a core
// with separate multiply and add pipes keeps both busy: that is the peak of
// code that multiplies and adds without fusing. The constants come through
// volatile so nothing folds.
template <class T, int BYTES, Ops OPS> double peak(long iters) {
    using V = typename Vec<T, BYTES>::type;
    constexpr int L = BYTES / sizeof(T);
    constexpr bool muls = OPS != Ops::add, adds = OPS != Ops::mul;
    volatile T vm = T(1.0000001), va = T(1e-3), seed = T(1);
    const T m0 = vm, a0 = va;
    V mu, mv, au, av, x[ACC], y[ACC];
    for (int l = 0; l < L; ++l) {
        mu[l] = m0;
        mv[l] = T(1) / m0;
        au[l] = a0;
        av[l] = a0;
    }
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) x[j][l] = y[j][l] = seed + T(j);
    const double t0 = now();
    for (long it = 0; it < iters; ++it) {
#pragma GCC unroll 16
        for (int j = 0; j < ACC; ++j) {
            if constexpr (muls) x[j] = x[j] * mu;
            if constexpr (adds) y[j] = y[j] + au;
        }
#pragma GCC unroll 16
        for (int j = 0; j < ACC; ++j) {
            if constexpr (muls) x[j] = x[j] * mv;
            if constexpr (adds) y[j] = y[j] - av;
        }
    }
    const double t = now() - t0;
    T sink = 0;
    for (int j = 0; j < ACC; ++j)
        for (int l = 0; l < L; ++l) sink += (muls ? x[j][l] : T(0)) + (adds ? y[j][l] : T(0));
    volatile T keep = sink;
    (void)keep;
    return 2.0 * ((muls ? 1 : 0) + (adds ? 1 : 0)) * ACC * L * double(iters) / t * 1e-9;
}

#define BENCH_PEAK(name, T, OPS)                           \
    double name(int bytes, long iters) {                   \
        switch (bytes) {                                   \
            case 16: return peak<T, 16, OPS>(iters);       \
            case 32: return peak<T, 32, OPS>(iters);       \
            case 64: return peak<T, 64, OPS>(iters);       \
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

BENCH_PEAK(peak_mul_f32, float, Ops::mul)
BENCH_PEAK(peak_add_f32, float, Ops::add)
BENCH_PEAK(peak_mix_f32, float, Ops::mix)
BENCH_PEAK(peak_mul_f64, double, Ops::mul)
BENCH_PEAK(peak_add_f64, double, Ops::add)
BENCH_PEAK(peak_mix_f64, double, Ops::mix)

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
