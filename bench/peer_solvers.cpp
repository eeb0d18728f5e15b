// Peers of the solver section: what a program uses instead of the library
// for arrays of small systems. Eigen fixed-size decompositions in a loop
// over objects, and LAPACK called once per matrix (the way array front ends
// over LAPACK work), both built with -O3 -march=native and contraction
// allowed, as their users build them. Either may be missing: its rows then
// read n/a.
//
// Operands are row-major and packed: matrix o at a + o*n*n, vector o at
// b + o*n. LAPACK is column-major, so it sees each matrix transposed and is
// asked for the transposed operation where that matters (A symmetric in the
// Cholesky and eigenvalue cases, so there it does not).
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

#include "peer_common.hpp"
#include "peers.hpp"

#ifdef BENCH_HAVE_EIGEN
#include <Eigen/Cholesky>
#include <Eigen/Core>
#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <Eigen/QR>
#endif

namespace bench::solvers {

#ifdef BENCH_HAVE_EIGEN
namespace {

template <Op op, int N, class T> void eigen_n(const T* a, const T* b, T* out, long count) {
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    using V = Eigen::Matrix<T, N, 1>;
    for (long o = 0; o < count; ++o) {
        const Eigen::Map<const M> A(a + o * N * N);
        const Eigen::Map<const V> B(b + o * N);
        if constexpr (op == Op::lu_solve) {
            Eigen::Map<V>(out + o * N) = A.partialPivLu().solve(B);
        } else if constexpr (op == Op::det) {
            out[o] = A.determinant();
        } else if constexpr (op == Op::inverse) {
            Eigen::Map<M>(out + o * N * N) = A.inverse();
        } else if constexpr (op == Op::chol_solve) {
            Eigen::Map<V>(out + o * N) = A.llt().solve(B);
        } else if constexpr (op == Op::qr_solve) {
            Eigen::Map<V>(out + o * N) = A.householderQr().solve(B);
        } else {
            // Descending, as the library sorts them.
            const Eigen::SelfAdjointEigenSolver<M> es(A, Eigen::EigenvaluesOnly);
            for (int i = 0; i < N; ++i) out[o * N + i] = es.eigenvalues()[N - 1 - i];
        }
    }
}

// f(std::integral_constant<int, n>) for the orders 3 to 6 Eigen's fixed
// sizes are compiled for.
template <class F> void by_order(int n, F&& f) {
    switch (n) {
        case 3: return f(std::integral_constant<int, 3>{});
        case 4: return f(std::integral_constant<int, 4>{});
        case 5: return f(std::integral_constant<int, 5>{});
        case 6: return f(std::integral_constant<int, 6>{});
        default: return;
    }
}

template <Op op, class T> void eigen_by_order(int n, const T* a, const T* b, T* out, long count) {
    by_order(n, [&](auto N) { eigen_n<op, N()>(a, b, out, count); });
}

template <Op op, int N, class T> void eigen_one_n(const T* a, const T* b, T* out, long count) {
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    using V = Eigen::Matrix<T, N, 1>;
    const Eigen::Map<const M> A(a);
    auto all = [&](const auto& f) {
        for (long o = 0; o < count; ++o) Eigen::Map<V>(out + o * N) = f.solve(Eigen::Map<const V>(b + o * N));
    };
    if constexpr (op == Op::lu_solve) all(A.partialPivLu());
    else if constexpr (op == Op::chol_solve) all(A.llt());
    else if constexpr (op == Op::qr_solve) all(A.householderQr());
}

template <Op op, class T> void eigen_one_by_order(int n, const T* a, const T* b, T* out, long count) {
    by_order(n, [&](auto N) { eigen_one_n<op, N()>(a, b, out, count); });
}

}  // namespace

bool eigen_available() { return true; }

template <class T> void eigen_one_run(Op op, int n, const T* a, const T* b, T* out, long count) {
    switch (op) {
        case Op::lu_solve: return eigen_one_by_order<Op::lu_solve>(n, a, b, out, count);
        case Op::chol_solve: return eigen_one_by_order<Op::chol_solve>(n, a, b, out, count);
        case Op::qr_solve: return eigen_one_by_order<Op::qr_solve>(n, a, b, out, count);
        default: return;
    }
}

template <class T> void eigen_run(Op op, int n, const T* a, const T* b, T* out, long count) {
    switch (op) {
        case Op::lu_solve: return eigen_by_order<Op::lu_solve>(n, a, b, out, count);
        case Op::det: return eigen_by_order<Op::det>(n, a, b, out, count);
        case Op::inverse: return eigen_by_order<Op::inverse>(n, a, b, out, count);
        case Op::chol_solve: return eigen_by_order<Op::chol_solve>(n, a, b, out, count);
        case Op::qr_solve: return eigen_by_order<Op::qr_solve>(n, a, b, out, count);
        case Op::eigvals: return eigen_by_order<Op::eigvals>(n, a, b, out, count);
    }
}
#else
bool eigen_available() { return false; }
template <class T> void eigen_run(Op, int, const T*, const T*, T*, long) {}
template <class T> void eigen_one_run(Op, int, const T*, const T*, T*, long) {}
#endif

void eigen_one(Op op, int n, const float* a, const float* b, float* out, long count) {
    eigen_one_run(op, n, a, b, out, count);
}
void eigen_one(Op op, int n, const double* a, const double* b, double* out, long count) {
    eigen_one_run(op, n, a, b, out, count);
}

void eigen(Op op, int n, const float* a, const float* b, float* out, long count) {
    eigen_run(op, n, a, b, out, count);
}
void eigen(Op op, int n, const double* a, const double* b, double* out, long count) {
    eigen_run(op, n, a, b, out, count);
}

#ifdef BENCH_HAVE_LAPACK
extern "C" {
// Fortran entry points; the trailing size_t arguments are the lengths of the
// character arguments.
void sgetrf_(const int*, const int*, float*, const int*, int*, int*);
void dgetrf_(const int*, const int*, double*, const int*, int*, int*);
void sgetrs_(const char*, const int*, const int*, const float*, const int*, const int*, float*, const int*, int*,
             std::size_t);
void dgetrs_(const char*, const int*, const int*, const double*, const int*, const int*, double*, const int*,
             int*, std::size_t);
void sgetri_(const int*, float*, const int*, const int*, float*, const int*, int*);
void dgetri_(const int*, double*, const int*, const int*, double*, const int*, int*);
void spotrf_(const char*, const int*, float*, const int*, int*, std::size_t);
void dpotrf_(const char*, const int*, double*, const int*, int*, std::size_t);
void spotrs_(const char*, const int*, const int*, const float*, const int*, float*, const int*, int*, std::size_t);
void dpotrs_(const char*, const int*, const int*, const double*, const int*, double*, const int*, int*,
             std::size_t);
void sgels_(const char*, const int*, const int*, const int*, float*, const int*, float*, const int*, float*,
            const int*, int*, std::size_t);
void dgels_(const char*, const int*, const int*, const int*, double*, const int*, double*, const int*, double*,
            const int*, int*, std::size_t);
void ssyev_(const char*, const char*, const int*, float*, const int*, float*, float*, const int*, int*,
            std::size_t, std::size_t);
void dsyev_(const char*, const char*, const int*, double*, const int*, double*, double*, const int*, int*,
            std::size_t, std::size_t);
}

namespace {

#define BENCH_LAPACK_OVERLOADS(T, p)                                                                   \
    void getrf(int n, T* a, int* ipiv) {                                                              \
        int info;                                                                                     \
        p##getrf_(&n, &n, a, &n, ipiv, &info);                                                        \
    }                                                                                                 \
    void getrs_t(int n, const T* a, const int* ipiv, T* b) {                                          \
        int info, one = 1;                                                                            \
        p##getrs_("T", &n, &one, a, &n, ipiv, b, &n, &info, 1);                                       \
    }                                                                                                 \
    void getri(int n, T* a, const int* ipiv, T* work, int lwork) {                                    \
        int info;                                                                                     \
        p##getri_(&n, a, &n, ipiv, work, &lwork, &info);                                              \
    }                                                                                                 \
    void potrf(int n, T* a) {                                                                         \
        int info;                                                                                     \
        p##potrf_("L", &n, a, &n, &info, 1);                                                          \
    }                                                                                                 \
    void potrs(int n, const T* a, T* b) {                                                             \
        int info, one = 1;                                                                            \
        p##potrs_("L", &n, &one, a, &n, b, &n, &info, 1);                                             \
    }                                                                                                 \
    void gels_t(int n, T* a, T* b, T* work, int lwork) {                                              \
        int info, one = 1;                                                                            \
        p##gels_("T", &n, &n, &one, a, &n, b, &n, work, &lwork, &info, 1);                            \
    }                                                                                                 \
    void syev(int n, T* a, T* w, T* work, int lwork) {                                                \
        int info;                                                                                     \
        p##syev_("N", "L", &n, a, &n, w, work, &lwork, &info, 1, 1);                                  \
    }
BENCH_LAPACK_OVERLOADS(float, s)
BENCH_LAPACK_OVERLOADS(double, d)
#undef BENCH_LAPACK_OVERLOADS

// One matrix at a time, copied first (LAPACK works in place, as an array
// front end copies each matrix before the call).
template <class T> void lapack_run(Op op, int n, const T* a, const T* b, T* out, long count) {
    const int nn = n * n, lwork = 64 * n;
    std::vector<T> m(nn), work(lwork), w(n);
    std::vector<int> ipiv(n);
    for (long o = 0; o < count; ++o) {
        std::memcpy(m.data(), a + o * nn, nn * sizeof(T));
        T* x = out + o * (op == Op::inverse ? nn : op == Op::det ? 1 : n);
        if (op != Op::inverse && op != Op::det && op != Op::eigvals) std::memcpy(x, b + o * n, n * sizeof(T));
        switch (op) {
            case Op::lu_solve:
                getrf(n, m.data(), ipiv.data());
                getrs_t(n, m.data(), ipiv.data(), x);
                break;
            case Op::det: {
                getrf(n, m.data(), ipiv.data());
                T d = 1;
                for (int i = 0; i < n; ++i) d *= ipiv[i] != i + 1 ? -m[i * n + i] : m[i * n + i];
                *x = d;
                break;
            }
            case Op::inverse:
                // The inverse of the transpose, read back row-major, is the
                // inverse.
                getrf(n, m.data(), ipiv.data());
                getri(n, m.data(), ipiv.data(), work.data(), lwork);
                std::memcpy(x, m.data(), nn * sizeof(T));
                break;
            case Op::chol_solve:
                potrf(n, m.data());
                potrs(n, m.data(), x);
                break;
            case Op::qr_solve:
                gels_t(n, m.data(), x, work.data(), lwork);
                break;
            case Op::eigvals:
                syev(n, m.data(), w.data(), work.data(), lwork);
                for (int i = 0; i < n; ++i) x[i] = w[n - 1 - i];
                break;
        }
    }
}

}  // namespace

bool lapack_available() { return true; }
#else
bool lapack_available() { return false; }
template <class T> void lapack_run(Op, int, const T*, const T*, T*, long) {}
#endif

void lapack(Op op, int n, const float* a, const float* b, float* out, long count) {
    lapack_run(op, n, a, b, out, count);
}
void lapack(Op op, int n, const double* a, const double* b, double* out, long count) {
    lapack_run(op, n, a, b, out, count);
}

}  // namespace bench::solvers
