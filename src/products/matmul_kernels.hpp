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

#include <utility>

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

// Columns are carried in vector registers of the target's width
// (ORSM_VECTOR_BYTES, 16 unless the including source sets it): a row of op(src2) or of
// running sums is a few vectors, the last one padded with zero columns that
// are computed and never stored. Lanes run over the columns j only.
#ifndef ORSM_VECTOR_BYTES
#define ORSM_VECTOR_BYTES 16
#endif
template <class T> struct Vec {
    static constexpr int lanes = ORSM_VECTOR_BYTES / int(sizeof(T));
    typedef T type __attribute__((vector_size(ORSM_VECTOR_BYTES)));
};
template <class T> using vec_t = typename Vec<T>::type;
template <class T, int N> constexpr int nvec = (N + Vec<T>::lanes - 1) / Vec<T>::lanes;

// Row accessors whose elements lie one element apart in memory.
template <class A> struct packed_rows : std::false_type {};
template <class T> struct packed_rows<SAcc<T, true>> : std::true_type {};
template <class T> struct packed_rows<LAcc<T, true>> : std::true_type {};

// Vector V0 / lanes of row r of object n: whole vectors of packed rows by
// one unaligned load, others element by element; columns past N are zero.
template <int N, int V0, class T, class A, std::size_t... L>
inline vec_t<T> load_vec(const A& a, int n, int r, std::index_sequence<L...>) {
    vec_t<T> v;
    if constexpr (packed_rows<A>::value && V0 + Vec<T>::lanes <= N) {
        std::memcpy(&v, &a(n, r, V0), sizeof v);
    } else {
        v = vec_t<T>{(V0 + int(L) < N ? T(a(n, r, V0 + int(L))) : T(0))...};
    }
    return v;
}
template <int N, int V0, class T, class D>
inline void store_vec(const vec_t<T>& v, const D& d, int n, int r) {
    if constexpr (packed_rows<D>::value && V0 + Vec<T>::lanes <= N) {
        std::memcpy(&d(n, r, V0), &v, sizeof v);
    } else {
        ORSM_UNROLL for (int c = V0; c < N && c < V0 + Vec<T>::lanes; ++c) d(n, r, c) = v[c - V0];
    }
}
template <int N, class T, class A, std::size_t... Vs>
inline void load_row(vec_t<T>* out, const A& a, int n, int r, std::index_sequence<Vs...>) {
    ((out[Vs] = load_vec<N, int(Vs) * Vec<T>::lanes, T>(
          a, n, r, std::make_index_sequence<Vec<T>::lanes>{})),
     ...);
}
template <int N, class T, class D, std::size_t... Vs>
inline void store_row(const vec_t<T>* v, const D& d, int n, int r, std::index_sequence<Vs...>) {
    (store_vec<N, int(Vs) * Vec<T>::lanes, T>(v[Vs], d, n, r), ...);
}

// Unrolled path for M by K times K by N: op(src2) of the object is fetched
// whole, then dst is written row by row, each row of op(src1) fetched just
// before its row of dst, each element of it broadcast and multiplied with a
// row of op(src2), the products added for k ascending. A fixed operand stays
// in registers across objects.
// The accessors are taken by value: the stores to dst cannot then be
// thought to change them, and their fields stay in registers.
template <int M, int K, int N, Fixed F, class A, class B, class D>
void order_path(const A a, const B b, const D d, int count) {
    using T = Plain<typename D::value_type>;
    using V = vec_t<T>;
    constexpr int NV = nvec<T, N>;
    T av[M][K];
    V bv[K][NV];
    auto fetch_a = [&](int n, int i) {
        ORSM_UNROLL for (int k = 0; k < K; ++k) av[i][k] = a(n, i, k);
    };
    auto fetch_b = [&](int n) {
        ORSM_UNROLL for (int k = 0; k < K; ++k)
            load_row<N, T>(bv[k], b, n, k, std::make_index_sequence<NV>{});
    };
    if constexpr (F == Fixed::src1) {
        ORSM_UNROLL for (int i = 0; i < M; ++i) fetch_a(0, i);
    }
    if constexpr (F == Fixed::src2) fetch_b(0);
    for (int n = 0; n < count; ++n) {
        if constexpr (F != Fixed::src2) fetch_b(n);
        ORSM_UNROLL for (int i = 0; i < M; ++i) {
            if constexpr (F != Fixed::src1) fetch_a(n, i);
            V acc[NV];
            ORSM_UNROLL for (int v = 0; v < NV; ++v) acc[v] = av[i][0] * bv[0][v];
            ORSM_UNROLL for (int k = 1; k < K; ++k) {
                ORSM_UNROLL for (int v = 0; v < NV; ++v) acc[v] = acc[v] + av[i][k] * bv[k][v];
            }
            store_row<N, T>(acc, d, n, i, std::make_index_sequence<NV>{});
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

// One kernel, its paths given as a constant: the size test, made once
// outside the loop over objects, picks an unrolled path, the quirk of the
// kernel, the single-matrix kernel per object, or the general loop.
// Accessors read op(src1) and op(src2) as logical matrices; dst is M by N.
template <Paths p, Fixed F, class A, class B, class D>
void run(const A& a, const B& b, const D& d, int M, int K, int N, int count) {
    constexpr auto has = [](int order) { return ((p.orders >> order) & 1u) != 0; };
    if constexpr (p.quirk == Quirk::or_sizes) {
        // Quirk: orders 3 and 4 tested on the OR of the stored sizes (the
        // OR of M, K and N once the inner sizes match); sizes 1 to 3 mixed
        // run the order-3 path over nine entries of every table.
        if ((M | K | N) == 3) return order_path<3, 3, 3, F>(as_3x3(a), as_3x3(b), as_3x3(d), count);
    }
    if (M == K && K == N) {
        if constexpr (has(3))
            if (M == 3) return order_path<3, 3, 3, F>(a, b, d, count);
        if constexpr (has(4))
            if (M == 4) return order_path<4, 4, 4, F>(a, b, d, count);
        if constexpr (has(5))
            if (M == 5) return order_path<5, 5, 5, F>(a, b, d, count);
        if constexpr (has(6))
            if (M == 6) return order_path<6, 6, 6, F>(a, b, d, count);
    }
    if constexpr (p.quirk == Quirk::mat_n3) {
        // Quirk: the order-4 entry test wants N 3 and the path runs as N 4,
        // reading a fourth stored row of src2 and storing one element past
        // each dst row; a true order 4 falls to the general loop.
        if (M == 4 && K == 4 && N == 3) return order_path<4, 4, 4, F>(a, b, d, count);
    }
    if constexpr (p.via != Via::own) {
        constexpr Paths single{p.single, Quirk::none, Via::own, 0};
        for (int n = 0; n < count; ++n)
            run<single, Fixed::none>(a.object(n), b.object(n), d.object(n), M, K, N, 1);
    } else {
        general(a, b, d, M, K, N, count);
    }
}

#undef ORSM_UNROLL

}  // namespace ORSM_TARGET
}  // namespace orsm::matmul
