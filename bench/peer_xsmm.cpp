// LIBXSMM small-matrix kernels. LIBXSMM is column-major; a row-major product
// C = A*B is the column-major product C' = B' * A' of the same memory, so
// every kernel is called as kernel(B, A, C). Kernels are dispatched once per
// order and type by prepare(), outside any timing; the per-matrix calls only
// look the pointer up. Without LIBXSMM (BENCH_HAVE_XSMM undefined) everything
// reports itself unavailable.
#include "peers.hpp"

#ifdef BENCH_HAVE_XSMM
#include <libxsmm.h>

#include <vector>
#endif

namespace bench::xsmm {

#ifdef BENCH_HAVE_XSMM
namespace {

libxsmm_smmfunction skern[7];
libxsmm_dmmfunction dkern[7];
// Index arrays of the batch interface: element offsets of each object's
// operands (the fixed operand of mam has offset 0 throughout).
std::vector<libxsmm_blasint> idx_obj[7], idx_zero;
long idx_count[7];

template <class T> struct Kern;
template <> struct Kern<float> {
    static libxsmm_smmfunction get(int n) { return skern[n]; }
    static constexpr libxsmm_gemm_precision prec = LIBXSMM_GEMM_PRECISION_F32;
};
template <> struct Kern<double> {
    static libxsmm_dmmfunction get(int n) { return dkern[n]; }
    static constexpr libxsmm_gemm_precision prec = LIBXSMM_GEMM_PRECISION_F64;
};

template <class T> void mama_t(int n, const T* a, const T* b, T* c, long count) {
    const auto k = Kern<T>::get(n);
    const long nn = long(n) * n;
    for (long o = 0; o < count; ++o) k(b + o * nn, a + o * nn, c + o * nn);
}

template <class T> void mam_t(int n, const T* a, const T* b, T* c, long count) {
    const auto k = Kern<T>::get(n);
    const long nn = long(n) * n;
    for (long o = 0; o < count; ++o) k(b, a + o * nn, c + o * nn);
}

template <class T> void batch_t(int n, const T* a, const T* b, T* c, long count, bool fixed_b) {
    const T alpha = 1, beta = 0;
    const libxsmm_blasint ld = n;
    // A negative batch size tells LIBXSMM that no two objects share a C.
    libxsmm_gemm_batch(Kern<T>::prec, Kern<T>::prec, "N", "N", n, n, n, &alpha, b, &ld, a, &ld,
                       &beta, c, &ld, 0, sizeof(libxsmm_blasint),
                       fixed_b ? idx_zero.data() : idx_obj[n].data(), idx_obj[n].data(),
                       idx_obj[n].data(), -libxsmm_blasint(count));
}

}  // namespace

bool available() { return true; }
const char* target() { return libxsmm_get_target_arch(); }

bool prepare(int n, long count) {
    if (n < 3 || n > 6) return false;
    libxsmm_init();
    const float salpha = 1, sbeta = 0;
    const double dalpha = 1, dbeta = 0;
    const int flags = LIBXSMM_GEMM_FLAG_NONE;
    const int prefetch = LIBXSMM_GEMM_PREFETCH_NONE;
    if (!skern[n])
        skern[n] = libxsmm_smmdispatch(n, n, n, nullptr, nullptr, nullptr, &salpha, &sbeta, &flags,
                                       &prefetch);
    if (!dkern[n])
        dkern[n] = libxsmm_dmmdispatch(n, n, n, nullptr, nullptr, nullptr, &dalpha, &dbeta, &flags,
                                       &prefetch);
    if (idx_count[n] != count) {
        idx_obj[n].resize(count);
        for (long o = 0; o < count; ++o) idx_obj[n][o] = libxsmm_blasint(o * n * n);
        idx_count[n] = count;
    }
    if (long(idx_zero.size()) < count) idx_zero.assign(count, 0);
    return skern[n] && dkern[n];
}

void mama(int n, const float* a, const float* b, float* c, long count) { mama_t(n, a, b, c, count); }
void mama(int n, const double* a, const double* b, double* c, long count) { mama_t(n, a, b, c, count); }
void mam(int n, const float* a, const float* b, float* c, long count) { mam_t(n, a, b, c, count); }
void mam(int n, const double* a, const double* b, double* c, long count) { mam_t(n, a, b, c, count); }
bool has_batch() { return true; }
void mama_batch(int n, const float* a, const float* b, float* c, long count) {
    batch_t(n, a, b, c, count, false);
}
void mama_batch(int n, const double* a, const double* b, double* c, long count) {
    batch_t(n, a, b, c, count, false);
}
void mam_batch(int n, const float* a, const float* b, float* c, long count) {
    batch_t(n, a, b, c, count, true);
}
void mam_batch(int n, const double* a, const double* b, double* c, long count) {
    batch_t(n, a, b, c, count, true);
}

#else

bool available() { return false; }
const char* target() { return "none"; }
bool prepare(int, long) { return false; }
void mama(int, const float*, const float*, float*, long) {}
void mama(int, const double*, const double*, double*, long) {}
void mam(int, const float*, const float*, float*, long) {}
void mam(int, const double*, const double*, double*, long) {}
bool has_batch() { return false; }
void mama_batch(int, const float*, const float*, float*, long) {}
void mama_batch(int, const double*, const double*, double*, long) {}
void mam_batch(int, const float*, const float*, float*, long) {}
void mam_batch(int, const double*, const double*, double*, long) {}

#endif

}  // namespace bench::xsmm
