// Kernel bodies of the matrix-matrix products, written once over element
// type, accessor type and compile-time order. The header holds no data and
// no entry point; it may be compiled once per instruction set, each time in
// its own namespace (ORSM_TARGET, the name of the instruction set), by a
// source that then picks one at run time.
//
// Numerical rule of every path: dst(i, j) is the sum over k ascending of
// op(src1)(i, k) * op(src2)(k, j), each product and each partial sum rounded
// to the element type. Unrolled paths start from the first product; the
// general loop starts from +0. Vector lanes run over the columns j only,
// never over k, and nothing is fused.
#pragma once

#include "common/base.hpp"
#include "common/layout.hpp"
#include "products/matmul_paths.hpp"

#ifndef ORSM_TARGET
#define ORSM_TARGET sse2
#endif

namespace orsm::matmul {

// Which operand is the same for every object: its elements are fetched once
// per call, before the loop over objects.
enum class Fixed { none, src1, src2 };

template <class A> struct is_table : std::false_type {};
template <class T> struct is_table<PAcc<T>> : std::true_type {};
template <class A> struct is_table<TAcc<A>> : is_table<A> {};

// The operand re-read as a 3 by 3 table (the OR-of-sizes order-3 path).
template <class A> A as_3x3(A a) {
    if constexpr (is_table<A>::value) {
        if constexpr (requires { a.cols; })
            a.cols = 3;
        else
            a.a.cols = 3;
    }
    return a;
}

namespace ORSM_TARGET {

#define ORSM_UNROLL _Pragma("GCC unroll 16")

// Row i of an object's product from the row of op(src1) and all of op(src2).
template <int K, int N, class T>
inline void product_row(const T (&a)[K], const T (&b)[K][N], T (&acc)[N]) {
    ORSM_UNROLL for (int j = 0; j < N; ++j) acc[j] = a[0] * b[0][j];
    ORSM_UNROLL for (int k = 1; k < K; ++k) {
        ORSM_UNROLL for (int j = 0; j < N; ++j) acc[j] = acc[j] + a[k] * b[k][j];
    }
}

template <int R, int C, class T, class A> inline void fetch(T (&m)[R][C], const A& a, int n) {
    ORSM_UNROLL for (int r = 0; r < R; ++r) {
        ORSM_UNROLL for (int c = 0; c < C; ++c) m[r][c] = a(n, r, c);
    }
}

// Unrolled path for M by K times K by N: op(src2) of the object is fetched
// whole, then dst is written row by row, each row of op(src1) fetched just
// before its row of dst. A fixed operand stays in registers across objects.
template <int M, int K, int N, Fixed F, class A, class B, class D>
void order_path(const A& a, const B& b, const D& d, int count) {
    using T = Plain<typename D::value_type>;
    T av[M][K], bv[K][N];
    if constexpr (F == Fixed::src1) fetch(av, a, 0);
    if constexpr (F == Fixed::src2) fetch(bv, b, 0);
    for (int n = 0; n < count; ++n) {
        if constexpr (F != Fixed::src2) fetch(bv, b, n);
        ORSM_UNROLL for (int i = 0; i < M; ++i) {
            if constexpr (F != Fixed::src1) {
                ORSM_UNROLL for (int k = 0; k < K; ++k) av[i][k] = a(n, i, k);
            }
            T acc[N];
            product_row<K, N>(av[i], bv, acc);
            ORSM_UNROLL for (int j = 0; j < N; ++j) d(n, i, j) = acc[j];
        }
    }
}

// The general loop: i, j, k, each sum started at +0. With a table dst the
// element in memory is the accumulator; otherwise the running sum is held in
// a local and stored after every k.
template <class A, class B, class D>
void general(const A& a, const B& b, const D& d, int M, int K, int N, int count) {
    using T = Plain<typename D::value_type>;
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < M; ++i)
            for (int j = 0; j < N; ++j) {
                T& out = d(n, i, j);
                out = T(0);
                if constexpr (is_table<D>::value) {
                    for (int k = 0; k < K; ++k) out = out + a(n, i, k) * b(n, k, j);
                } else {
                    T s = T(0);
                    for (int k = 0; k < K; ++k) {
                        s = s + a(n, i, k) * b(n, k, j);
                        out = s;
                    }
                }
            }
}

// Runs the square order M (3 to 6) if `orders` has a path for it.
template <Fixed F, class A, class B, class D>
bool square_path(unsigned orders, const A& a, const B& b, const D& d, int M, int K, int N,
                 int count) {
    if (M != K || K != N || M < 3 || M > 6 || !((orders >> M) & 1u)) return false;
    switch (M) {
        case 3: order_path<3, 3, 3, F>(a, b, d, count); break;
        case 4: order_path<4, 4, 4, F>(a, b, d, count); break;
        case 5: order_path<5, 5, 5, F>(a, b, d, count); break;
        default: order_path<6, 6, 6, F>(a, b, d, count); break;
    }
    return true;
}

// One kernel: the size test, made once outside the loop over objects, picks
// an unrolled path, the quirk of the kernel, the single-matrix kernel per
// object, or the general loop. Accessors read op(src1) and op(src2) as
// logical matrices; dst is M by N.
template <Fixed F, class A, class B, class D>
void run(const Paths& p, const A& a, const B& b, const D& d, int M, int K, int N, int count) {
    if (p.quirk == Quirk::or_sizes && (M | K | N) == 3) {
        order_path<3, 3, 3, F>(as_3x3(a), as_3x3(b), as_3x3(d), count);
        return;
    }
    if (square_path<F>(p.orders, a, b, d, M, K, N, count)) return;
    if (p.quirk == Quirk::mat_n3 && M == 4 && K == 4 && N == 3) {
        order_path<4, 4, 4, F>(a, b, d, count);
        return;
    }
    if (p.via != Via::own) {
        const Paths single{p.single, Quirk::none, Via::own, 0};
        for (int n = 0; n < count; ++n)
            run<Fixed::none>(single, a.object(n), b.object(n), d.object(n), M, K, N, 1);
        return;
    }
    general(a, b, d, M, K, N, count);
}

#undef ORSM_UNROLL

}  // namespace ORSM_TARGET
}  // namespace orsm::matmul
