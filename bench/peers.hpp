// The comparison code of the benchmark: plain loops and Eigen, each built
// twice (namespace fma: -O3 -march=native with contraction allowed; namespace
// nofma: the same with -ffp-contract=off), and LIBXSMM kernels. None of this
// is ever part of the library.
//
// Operand conventions (row-major n by n matrices, count objects):
//   AoS: object i of an array starts at base + i*n*n elements.
//   SoA: element e = r*n + c of object i lies at base[e*count + i] (one plane
//        of count values per element), as the P layout tables describe it.
#pragma once

#include <cstddef>

namespace bench {

#define BENCH_PEER_DECLS(T)                                                                     \
    /* dst[i] = a[i] * b[i], ascending k, first product first */                                 \
    void loop_mama(int n, const T* a, const T* b, T* c, long count);                            \
    /* dst[i] = a[i] * b, b fixed */                                                             \
    void loop_mam(int n, const T* a, const T* b, T* c, long count);                             \
    /* the same products on SoA planes, lanes over objects */                                   \
    void loop_mama_soa(int n, const T* a, const T* b, T* c, long count);                        \
    /* c = a + b over len elements */                                                            \
    void loop_add(const T* a, const T* b, T* c, long len);                                      \
    /* dst[i] = transpose of a[i] */                                                             \
    void loop_transpose(int n, const T* a, T* c, long count);                                   \
    /* the same single product reps times on the same data (one call cost) */                  \
    void loop_mm_repeat(int n, const T* a, const T* b, T* c, long reps);                        \
    /* Eigen fixed-size matrices through Map, in a loop over objects */                        \
    void eigen_mama(int n, const T* a, const T* b, T* c, long count);                           \
    void eigen_mam(int n, const T* a, const T* b, T* c, long count);                            \
    void eigen_mm_repeat(int n, const T* a, const T* b, T* c, long reps);

namespace fma {
bool eigen_available();
BENCH_PEER_DECLS(float)
BENCH_PEER_DECLS(double)
}  // namespace fma
namespace nofma {
bool eigen_available();
BENCH_PEER_DECLS(float)
BENCH_PEER_DECLS(double)
}  // namespace nofma

// LIBXSMM: kernels dispatched once per shape by xsmm_prepare (outside any
// timing), then called per matrix; the batch form goes through the library's
// own batch entry with index arrays prepared for count objects.
namespace xsmm {
bool available();
const char* target();                       // the code path LIBXSMM chose
bool prepare(int n, long count);            // dispatches both types, builds index arrays
void mama(int n, const float* a, const float* b, float* c, long count);
void mama(int n, const double* a, const double* b, double* c, long count);
void mam(int n, const float* a, const float* b, float* c, long count);
void mam(int n, const double* a, const double* b, double* c, long count);
bool has_batch();
void mama_batch(int n, const float* a, const float* b, float* c, long count);
void mama_batch(int n, const double* a, const double* b, double* c, long count);
void mam_batch(int n, const float* a, const float* b, float* c, long count);
void mam_batch(int n, const double* a, const double* b, double* c, long count);
}  // namespace xsmm

// Solvers over arrays of small systems (peer_solvers.cpp): Eigen fixed-size
// decompositions in a loop, and LAPACK called once per matrix. a: count
// row-major n by n matrices; b: count vectors of n (solves only); out: one
// vector (solves, eigenvalues in descending order), one matrix (inverse) or
// one scalar (det) per object.
namespace solvers {
enum class Op { lu_solve, det, inverse, chol_solve, qr_solve, eigvals };
bool eigen_available();
bool lapack_available();
void eigen(Op op, int n, const float* a, const float* b, float* out, long count);
void eigen(Op op, int n, const double* a, const double* b, double* out, long count);
void lapack(Op op, int n, const float* a, const float* b, float* out, long count);
void lapack(Op op, int n, const double* a, const double* b, double* out, long count);
// The solves (lu_solve, chol_solve, qr_solve) with one factor for all:
// matrix 0 factored once, each of the count vectors solved against it.
void eigen_one(Op op, int n, const float* a, const float* b, float* out, long count);
void eigen_one(Op op, int n, const double* a, const double* b, double* out, long count);
}  // namespace solvers

// Machine reference, built with -O3 -march=native.
namespace machine {
// Seconds for one pass of each kernel over len doubles.
double copy_pass(double* a, const double* b, long len);
double triad_pass(double* a, const double* b, const double* c, double s, long len);
// Register-resident chains of independent multiplies, adds, or both side by
// side (mix: the peak without fused operations) on vectors of `bytes`
// bytes; returns GFLOP/s (one flop per lane per operation).
double peak_mul_f32(int bytes, long iters);
double peak_add_f32(int bytes, long iters);
double peak_mix_f32(int bytes, long iters);
double peak_mul_f64(int bytes, long iters);
double peak_add_f64(int bytes, long iters);
double peak_mix_f64(int bytes, long iters);
int widest_vector_bytes();                  // what -march=native offers
}  // namespace machine

}  // namespace bench
