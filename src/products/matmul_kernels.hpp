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

#if defined(__AVX512F__) || defined(__AVX2__)
#include <immintrin.h>
#endif

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

// Columns are carried in vector registers: a row of op(src2) or of running
// sums is a few vectors of the narrowest width (from 16 bytes up to the
// target's ORSM_VECTOR_BYTES, 16 unless the including source sets it) that
// holds the row, the last one padded with zero columns that are computed
// and never stored. Lanes run over the columns j only.
#ifndef ORSM_VECTOR_BYTES
#define ORSM_VECTOR_BYTES 16
#endif
constexpr int pow2_at_least(int n) {
    int p = 1;
    while (p < n) p *= 2;
    return p;
}
template <class T, int L> struct VecOf {
    typedef T type __attribute__((vector_size(L * sizeof(T))));
};
template <class T, int L> using vec_of = typename VecOf<T, L>::type;
template <class T, int N> struct Vec {
    static constexpr int widest = ORSM_VECTOR_BYTES / int(sizeof(T));
    static constexpr int narrowest = 16 / int(sizeof(T));
    static constexpr int want = pow2_at_least(N);
    static constexpr int lanes = want < narrowest ? narrowest : want > widest ? widest : want;
    using type = vec_of<T, lanes>;
};
template <class T, int N> using vec_t = typename Vec<T, N>::type;
template <class T, int N> constexpr int nvec = (N + Vec<T, N>::lanes - 1) / Vec<T, N>::lanes;

// Halves of a vector and two halves joined (lane order kept).
template <class V, std::size_t... I>
ORSM_INLINE auto lanes_of(const V& v, std::integral_constant<std::size_t, 0>, std::index_sequence<I...>) {
    return __builtin_shufflevector(v, v, int(I)...);
}
template <class V, std::size_t... I>
ORSM_INLINE auto lanes_of(const V& v, std::integral_constant<std::size_t, 1>, std::index_sequence<I...>) {
    return __builtin_shufflevector(v, v, int(sizeof...(I) + I)...);
}
template <class V> ORSM_INLINE auto low_half(const V& v) {
    constexpr std::size_t L = sizeof(V) / sizeof(v[0]);
    return lanes_of(v, std::integral_constant<std::size_t, 0>{}, std::make_index_sequence<L / 2>{});
}
template <class V> ORSM_INLINE auto high_half(const V& v) {
    constexpr std::size_t L = sizeof(V) / sizeof(v[0]);
    return lanes_of(v, std::integral_constant<std::size_t, 1>{}, std::make_index_sequence<L / 2>{});
}
template <class H, std::size_t... I>
ORSM_INLINE auto concat_lanes(const H& lo, const H& hi, std::index_sequence<I...>) {
    return __builtin_shufflevector(lo, hi, int(I)...);
}
template <class H> ORSM_INLINE auto concat(const H& lo, const H& hi) {
    constexpr std::size_t L = sizeof(H) / sizeof(lo[0]);
    return concat_lanes(lo, hi, std::make_index_sequence<2 * L>{});
}

// The first C lanes of a vector of L lanes from or to packed memory, the
// other lanes zero; nothing past the C elements is touched. AVX-512 masks
// the access; other targets split it into halves, quarters, ...
template <int C, class T, int L> ORSM_INLINE vec_of<T, L> load_part(const T* p) {
    using V = vec_of<T, L>;
    V v;
    if constexpr (C == 0) {
        v = V{};
    } else if constexpr (C == L) {
        std::memcpy(&v, p, sizeof v);
#if defined(__AVX512F__) && defined(__AVX512VL__)
    } else if constexpr (L * sizeof(T) >= 16) {
        constexpr unsigned m = (1u << C) - 1;
        if constexpr (sizeof(V) == 64 && sizeof(T) == 4) v = V(_mm512_maskz_loadu_ps(m, p));
        if constexpr (sizeof(V) == 64 && sizeof(T) == 8) v = V(_mm512_maskz_loadu_pd(m, p));
        if constexpr (sizeof(V) == 32 && sizeof(T) == 4) v = V(_mm256_maskz_loadu_ps(m, p));
        if constexpr (sizeof(V) == 32 && sizeof(T) == 8) v = V(_mm256_maskz_loadu_pd(m, p));
        if constexpr (sizeof(V) == 16 && sizeof(T) == 4) v = V(_mm_maskz_loadu_ps(m, p));
        if constexpr (sizeof(V) == 16 && sizeof(T) == 8) v = V(_mm_maskz_loadu_pd(m, p));
#endif
    } else if constexpr (L == 2) {
        v = V{p[0], T(0)};
    } else {
        using H = vec_of<T, L / 2>;
        H lo, hi;
        if constexpr (C >= L / 2) {
            lo = load_part<L / 2, T, L / 2>(p);
            hi = load_part<C - L / 2, T, L / 2>(p + L / 2);
        } else {
            lo = load_part<C, T, L / 2>(p);
            hi = H{};
        }
        v = concat(lo, hi);
    }
    return v;
}
template <int C, class T, int L> ORSM_INLINE void store_part(T* p, const vec_of<T, L>& v) {
    [[maybe_unused]] typedef vec_of<T, L> V;
    if constexpr (C == 0) {
        return;
    } else if constexpr (C == L) {
        std::memcpy(p, &v, sizeof v);
#if defined(__AVX512F__) && defined(__AVX512VL__)
    } else if constexpr (L * sizeof(T) >= 16) {
        constexpr unsigned m = (1u << C) - 1;
        if constexpr (sizeof(V) == 64 && sizeof(T) == 4) _mm512_mask_storeu_ps(p, m, __m512(v));
        if constexpr (sizeof(V) == 64 && sizeof(T) == 8) _mm512_mask_storeu_pd(p, m, __m512d(v));
        if constexpr (sizeof(V) == 32 && sizeof(T) == 4) _mm256_mask_storeu_ps(p, m, __m256(v));
        if constexpr (sizeof(V) == 32 && sizeof(T) == 8) _mm256_mask_storeu_pd(p, m, __m256d(v));
        if constexpr (sizeof(V) == 16 && sizeof(T) == 4) _mm_mask_storeu_ps(p, m, __m128(v));
        if constexpr (sizeof(V) == 16 && sizeof(T) == 8) _mm_mask_storeu_pd(p, m, __m128d(v));
#endif
    } else if constexpr (L == 2) {
        p[0] = v[0];
    } else {
        if constexpr (C >= L / 2) {
            store_part<L / 2, T, L / 2>(p, low_half(v));
            store_part<C - L / 2, T, L / 2>(p + L / 2, high_half(v));
        } else {
            store_part<C, T, L / 2>(p, low_half(v));
        }
    }
}

// Row accessors whose elements lie one element apart in memory.
template <class A> struct packed_rows : std::false_type {};
template <class T> struct packed_rows<SAcc<T, true>> : std::true_type {};
template <class T> struct packed_rows<LAcc<T, true>> : std::true_type {};

// Vector V0 / lanes of row r of object n: packed rows by (partial) vector
// loads, others element by element; columns past N are zero.
template <int N, int V0, class T, class A, std::size_t... L>
ORSM_INLINE vec_t<T, N> load_vec(const A& a, int n, int r, std::index_sequence<L...>) {
    constexpr int W = Vec<T, N>::lanes;
    if constexpr (packed_rows<A>::value) {
        return load_part<(N - V0 < W ? N - V0 : W), T, W>(&a(n, r, V0));
    } else {
        return vec_t<T, N>{(V0 + int(L) < N ? T(a(n, r, V0 + int(L))) : T(0))...};
    }
}
template <int N, int V0, class T, class D>
ORSM_INLINE void store_vec(const vec_t<T, N>& v, const D& d, int n, int r) {
    constexpr int W = Vec<T, N>::lanes;
    if constexpr (packed_rows<D>::value) {
        store_part<(N - V0 < W ? N - V0 : W), T, W>(&d(n, r, V0), v);
    } else {
        ORSM_UNROLL for (int c = V0; c < N && c < V0 + W; ++c) d(n, r, c) = v[c - V0];
    }
}
template <int N, class T, class A, std::size_t... Vs>
ORSM_INLINE void load_row(vec_t<T, N>* out, const A& a, int n, int r, std::index_sequence<Vs...>) {
    ((out[Vs] = load_vec<N, int(Vs) * Vec<T, N>::lanes, T>(
          a, n, r, std::make_index_sequence<Vec<T, N>::lanes>{})),
     ...);
}
template <int N, class T, class D, std::size_t... Vs>
ORSM_INLINE void store_row(const vec_t<T, N>* v, const D& d, int n, int r,
                           std::index_sequence<Vs...>) {
    (store_vec<N, int(Vs) * Vec<T, N>::lanes, T>(v[Vs], d, n, r), ...);
}

// Unrolled path for M by K times K by N: op(src2) of the object is fetched
// whole, then dst is written row by row, each row of op(src1) fetched just
// before its row of dst, each element of it broadcast and multiplied with a
// row of op(src2), the products added for k ascending. A fixed operand stays
// in registers across objects.
// The accessors are taken by value: the stores to dst cannot then be
// thought to change them, and their fields stay in registers. Always
// inlined into its kernel: an accessor passed on the stack to a call is
// copied there by halves and read back whole, which stalls every call.
template <int M, int K, int N, Fixed F, class A, class B, class D>
ORSM_INLINE void order_path(const A a, const B b, const D d, int count) {
    using T = Plain<typename D::value_type>;
    using V = vec_t<T, N>;
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
