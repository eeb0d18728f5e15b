// Eigen fixed-size products over arrays of row-major matrices. Built twice,
// PEER_NS fma or nofma; the nofma build also has -mno-fma, since Eigen calls
// fused intrinsics itself whenever the target has them, whatever the
// contraction setting. Without Eigen (BENCH_HAVE_EIGEN undefined) the
// functions exist and report themselves unavailable.
#include "peer_common.hpp"
#include "peers.hpp"

#ifndef PEER_NS
#error "PEER_NS must name the build variant (fma or nofma)"
#endif

#ifdef BENCH_HAVE_EIGEN
#include <Eigen/Core>
#endif

namespace bench::PEER_NS {

#ifdef BENCH_HAVE_EIGEN
namespace {

template <int N, class T> using Mat = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
template <int N, class T> using CMap = Eigen::Map<const Mat<N, T>>;
template <int N, class T> using MMap = Eigen::Map<Mat<N, T>>;

template <int N, class T> void mama_n(const T* a, const T* b, T* c, long count) {
    for (long o = 0; o < count; ++o)
        MMap<N, T>(c + o * N * N).noalias() = CMap<N, T>(a + o * N * N) * CMap<N, T>(b + o * N * N);
}

template <int N, class T> void mam_n(const T* a, const T* b, T* c, long count) {
    const Mat<N, T> bb = CMap<N, T>(b);
    for (long o = 0; o < count; ++o) MMap<N, T>(c + o * N * N).noalias() = CMap<N, T>(a + o * N * N) * bb;
}

// One product per round on the same data; the product is inlined here, and
// escape() keeps it from being hoisted or dropped.
template <int N, class T> void repeat_n(const T* a, const T* b, T* c, long reps) {
    for (long r = 0; r < reps; ++r) {
        escape(a);
        escape(b);
        MMap<N, T>(c).noalias() = CMap<N, T>(a) * CMap<N, T>(b);
        escape(c);
    }
}


}  // namespace

#define BENCH_EIGEN_DEFS(T)                                                                       \
    void eigen_mama(int n, const T* a, const T* b, T* c, long count) {                            \
        BENCH_BY_ORDER(mama_n, a, b, c, count)                                                    \
    }                                                                                             \
    void eigen_mam(int n, const T* a, const T* b, T* c, long count) {                             \
        BENCH_BY_ORDER(mam_n, a, b, c, count)                                                     \
    }                                                                                             \
    void eigen_mm_repeat(int n, const T* a, const T* b, T* c, long reps) {                        \
        BENCH_BY_ORDER(repeat_n, a, b, c, reps)                                                   \
    }

#else

#define BENCH_EIGEN_DEFS(T)                                                                       \
    void eigen_mama(int, const T*, const T*, T*, long) {}                                         \
    void eigen_mam(int, const T*, const T*, T*, long) {}                                          \
    void eigen_mm_repeat(int, const T*, const T*, T*, long) {}

#endif

#ifdef BENCH_HAVE_EIGEN
bool eigen_available() { return true; }
#else
bool eigen_available() { return false; }
#endif
BENCH_EIGEN_DEFS(float)
BENCH_EIGEN_DEFS(double)

}  // namespace bench::PEER_NS
