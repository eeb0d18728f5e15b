// Fast kernels of the matrix-matrix Mul, compiled once per instruction set
// (this source is built per target, ORSM_TARGET naming it), gathered in the
// table `matmul_table_<target>` that the frame picks at run time.
//
// The numerical rule is that of every baseline kernel: dst(i, j) is the sum
// over k ascending of op(src1)(i, k) * op(src2)(k, j) in the element type,
// never fused; an unrolled order starts from the first product, the general
// loop from +0. Lanes run over columns j (several rows of dst side by side
// in one wide register: still one lane per (i, j)), or over objects.
//
// Contiguous S and L kernels work one object at a time, n ascending, and
// read the whole of an object's operands before they write its dst, so an
// object written in place gives the bits of the baseline kernel.
#include "kernels/isa.hpp"

#if defined(__AVX512F__)
#define ORSM_VECTOR_BYTES 64
#elif defined(__AVX2__)
#define ORSM_VECTOR_BYTES 32
#else
#define ORSM_VECTOR_BYTES 16
#endif

#include "products/matmul_kernels.hpp"
#include "products/matmul_table.hpp"

#if defined(__AVX512F__) && defined(__AVX512VL__) && defined(__AVX512DQ__)
// The intrinsics' unmasked forms pass an undefined vector as their merge
// source, which GCC 12 reports as possibly uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#define ORSM_MM_WIDE 1
#else
#define ORSM_MM_WIDE 0
#endif

namespace orsm::matmul {
namespace ORSM_TARGET {
namespace {

#define ORSM_UNROLL _Pragma("GCC unroll 16")

template <int N, class F, std::size_t... I>
constexpr ORSM_INLINE void static_for_(F&& f, std::index_sequence<I...>) {
    (f(std::integral_constant<int, int(I)>{}), ...);
}
template <int N, class F> constexpr ORSM_INLINE void static_for(F&& f) {
    static_for_<N>(f, std::make_index_sequence<N>{});
}

template <bool transposed, class A> ORSM_INLINE auto op_of(const A& a) {
    if constexpr (transposed)
        return TAcc<A>{a};
    else
        return a;
}

// Accessors of the contiguous kernels from the type-erased operands.
template <class X, Kind KD, bool array> ORSM_INLINE auto acc_of(const Opnd& o) {
    if constexpr (KD == Kind::L && array)
        return LAcc<X, true>{static_cast<X* const*>(const_cast<void*>(o.p)), o.shift, o.s1,
                             esize<X>};
    else
        return SAcc<X, true>{static_cast<X*>(const_cast<void*>(o.p)), array ? o.s0 : 0, o.s1,
                             esize<X>};
}
template <class X> ORSM_INLINE PAcc<X> table_of(const Opnd& o) {
    return {static_cast<X* const*>(const_cast<void*>(o.p)), o.shift, o.s0, int(o.s1)};
}

constexpr bool array1(Group g) { return g == Group::mam || g == Group::mama; }
constexpr bool array2(Group g) { return g == Group::mma || g == Group::mama; }
constexpr Fixed fixed_of(Group g) {
    return g == Group::mam ? Fixed::src2 : g == Group::mma ? Fixed::src1 : Fixed::none;
}

#if ORSM_MM_WIDE
// Orders 3 and 4, 32f: dst in one zmm, row i in lanes 4i to 4i+3. Per k,
// op(src1)(i, k) is spread over lane group i by an in-lane permute and row k
// of op(src2) is repeated in the four groups: one multiply and one add per k
// for the whole matrix. `a` and `b` read the stored operands; op(src2) must
// not be transposed. Packed: rows of src1 and dst lie 4 elements apart.
template <int n, bool t1, bool packed, Fixed F, class A, class B, class D>
ORSM_INLINE void rows4_f32(const A a, const B b, const D d, int count) {
    constexpr __mmask8 rm = (1u << n) - 1;
    auto row = [&](const auto& x, int o, int r) -> __m128 {
        if constexpr (n == 4)
            return _mm_loadu_ps(&x(o, r, 0));
        else
            return _mm_maskz_loadu_ps(rm, &x(o, r, 0));
    };
    __m512 bk[n], ak[n];
    auto fetch_b = [&](int o) {
        static_for<n>([&](auto k) { bk[k] = _mm512_broadcast_f32x4(row(b, o, k)); });
    };
    auto fetch_a = [&](int o) {
        if constexpr (!t1) {
            __m512 rows;
            if constexpr (packed) {
                rows = _mm512_loadu_ps(&a(o, 0, 0));
            } else {
                rows = _mm512_castps128_ps512(row(a, o, 0));
                static_for<n - 1>([&](auto r) { rows = _mm512_insertf32x4(rows, row(a, o, r + 1), r + 1); });
            }
            static_for<n>([&](auto k) { ak[k] = _mm512_permute_ps(rows, k * 0x55); });
        } else {
            const __m512i idx = _mm512_set_epi32(3, 3, 3, 3, 2, 2, 2, 2, 1, 1, 1, 1, 0, 0, 0, 0);
            static_for<n>([&](auto k) {
                ak[k] = _mm512_permutexvar_ps(idx, _mm512_castps128_ps512(row(a, o, k)));
            });
        }
    };
    if constexpr (F == Fixed::src1) fetch_a(0);
    if constexpr (F == Fixed::src2) fetch_b(0);
    for (int o = 0; o < count; ++o) {
        if constexpr (F != Fixed::src2) fetch_b(o);
        if constexpr (F != Fixed::src1) fetch_a(o);
        __m512 acc = _mm512_mul_ps(ak[0], bk[0]);
        static_for<n - 1>([&](auto k) { acc = _mm512_add_ps(acc, _mm512_mul_ps(ak[k + 1], bk[k + 1])); });
        if constexpr (packed) {
            _mm512_storeu_ps(&d(o, 0, 0), acc);
        } else {
            static_for<n>([&](auto r) {
                const __m128 x = _mm512_extractf32x4_ps(acc, r);
                if constexpr (n == 4)
                    _mm_storeu_ps(&d(o, r, 0), x);
                else
                    _mm_mask_storeu_ps(&d(o, r, 0), rm, x);
            });
        }
    }
}

// Orders 3 and 4, 64f: rows 2g and 2g + 1 of dst in zmm g, one row per
// 256-bit half; op(src1)(i, k) spread by an in-half permute, row k of
// op(src2) in both halves.
template <int n, bool t1, bool packed, Fixed F, class A, class B, class D>
ORSM_INLINE void rows2_f64(const A a, const B b, const D d, int count) {
    constexpr __mmask8 rm = (1u << n) - 1;
    constexpr int G = (n + 1) / 2;
    auto row = [&](const auto& x, int o, int r) -> __m256d {
        if constexpr (n == 4)
            return _mm256_loadu_pd(&x(o, r, 0));
        else
            return _mm256_maskz_loadu_pd(rm, &x(o, r, 0));
    };
    __m512d bk[n], ak[G][n];
    auto fetch_b = [&](int o) {
        static_for<n>([&](auto k) { bk[k] = _mm512_broadcast_f64x4(row(b, o, k)); });
    };
    auto fetch_a = [&](int o) {
        if constexpr (!t1) {
            static_for<G>([&](auto g) {
                __m512d rows;
                if constexpr (packed) {
                    rows = _mm512_loadu_pd(&a(o, 2 * g, 0));
                } else if constexpr (2 * g + 1 < n) {
                    rows = _mm512_insertf64x4(_mm512_castpd256_pd512(row(a, o, 2 * g)),
                                              row(a, o, 2 * g + 1), 1);
                } else {
                    rows = _mm512_zextpd256_pd512(row(a, o, 2 * g));
                }
                static_for<n>([&](auto k) { ak[g][k] = _mm512_permutex_pd(rows, k * 0x55); });
            });
        } else {
            static_for<n>([&](auto k) {
                const __m512d r = _mm512_castpd256_pd512(row(a, o, k));
                static_for<G>([&](auto g) {
                    const __m512i idx = _mm512_set_epi64(2 * g + 1, 2 * g + 1, 2 * g + 1, 2 * g + 1,
                                                         2 * g, 2 * g, 2 * g, 2 * g);
                    ak[g][k] = _mm512_permutexvar_pd(idx, r);
                });
            });
        }
    };
    if constexpr (F == Fixed::src1) fetch_a(0);
    if constexpr (F == Fixed::src2) fetch_b(0);
    for (int o = 0; o < count; ++o) {
        if constexpr (F != Fixed::src2) fetch_b(o);
        if constexpr (F != Fixed::src1) fetch_a(o);
        __m512d acc[G];
        static_for<G>([&](auto g) {
            acc[g] = _mm512_mul_pd(ak[g][0], bk[0]);
            static_for<n - 1>([&](auto k) {
                acc[g] = _mm512_add_pd(acc[g], _mm512_mul_pd(ak[g][k + 1], bk[k + 1]));
            });
        });
        static_for<G>([&](auto g) {
            if constexpr (packed) {
                _mm512_storeu_pd(&d(o, 2 * g, 0), acc[g]);
            } else {
                const __m256d lo = _mm512_castpd512_pd256(acc[g]);
                if constexpr (n == 4)
                    _mm256_storeu_pd(&d(o, 2 * g, 0), lo);
                else
                    _mm256_mask_storeu_pd(&d(o, 2 * g, 0), rm, lo);
                if constexpr (2 * g + 1 < n) {
                    const __m256d hi = _mm512_extractf64x4_pd(acc[g], 1);
                    if constexpr (n == 4)
                        _mm256_storeu_pd(&d(o, 2 * g + 1, 0), hi);
                    else
                        _mm256_mask_storeu_pd(&d(o, 2 * g + 1, 0), rm, hi);
                }
            }
        });
    }
}
#endif

// One unrolled order of a contiguous S or L kernel.
template <Group G, Form F, class T, Kind KD, int n>
void order_kernel(const Opnd& a, const Opnd& b, const Opnd& d, int count) {
    constexpr bool t1 = (F & 1) != 0, t2 = (F & 2) != 0;
    constexpr Fixed fx = fixed_of(G);
    const auto A = acc_of<const T, KD, array1(G)>(a);
    const auto B = acc_of<const T, KD, array2(G)>(b);
    const auto D = acc_of<T, KD, G != Group::one>(d);
#if ORSM_MM_WIDE
    if constexpr (!t2 && n <= 4) {
        // Packed rows: one load or store for the whole of src1 or dst (an
        // order 3 is never packed this way: its rows are 3 wide).
        const bool packed = n == 4 && a.s1 == 4 * esize<T> && d.s1 == 4 * esize<T> && !t1;
        if constexpr (sizeof(T) == 4) {
            if (packed) return rows4_f32<n, t1, true, fx>(A, B, D, count);
            return rows4_f32<n, t1, false, fx>(A, B, D, count);
        } else {
            if (packed) return rows2_f64<n, t1, true, fx>(A, B, D, count);
            return rows2_f64<n, t1, false, fx>(A, B, D, count);
        }
    }
#endif
    order_path<n, n, n, fx>(op_of<t1>(A), op_of<t2>(B), D, count);
}

// Layout P over structure-of-arrays planes: lanes over L objects at once.
// Element (r, c) of objects o..o+L-1 of an array operand is one vector
// load from its plane; a fixed operand's element is broadcast. Orders
// 3 to 6 (n) start from the first product, the general loop (n 0) from +0:
// the sum is held in a register and stored once, which gives the bits of
// the baseline general loop, whose accumulator is dst itself, since dst
// shares no byte with a source (the frame has tested it).
template <class V, class T, std::size_t... I>
ORSM_INLINE V splat(T x, std::index_sequence<I...>) {
    return V{((void)I, x)...};
}
template <int L, bool array, class T, class X>
ORSM_INLINE vec_of<T, L> lanes_at(const X& x, int o, int r, int c) {
    if constexpr (array) {
        vec_of<T, L> v;
        std::memcpy(&v, &x(o, r, c), sizeof v);
        return v;
    } else {
        return splat<vec_of<T, L>>(T(x(0, r, c)), std::make_index_sequence<L>{});
    }
}

template <int L, int n, bool a1, bool a2, class T, class A, class B, class D>
ORSM_INLINE void soa_block(const A& a, const B& b, const D& d, int o, int M, int K, int N) {
    using V = vec_of<T, L>;
    if constexpr (n > 0) {
        for (int i = 0; i < n; ++i) {
            V av[n];
            ORSM_UNROLL for (int k = 0; k < n; ++k) av[k] = lanes_at<L, a1, T>(a, o, i, k);
            for (int j = 0; j < n; ++j) {
                V s = av[0] * lanes_at<L, a2, T>(b, o, 0, j);
                ORSM_UNROLL for (int k = 1; k < n; ++k) s = s + av[k] * lanes_at<L, a2, T>(b, o, k, j);
                std::memcpy(&d(o, i, j), &s, sizeof s);
            }
        }
    } else {
        for (int i = 0; i < M; ++i)
            for (int j = 0; j < N; ++j) {
                V s = V{} + lanes_at<L, a1, T>(a, o, i, 0) * lanes_at<L, a2, T>(b, o, 0, j);
                for (int k = 1; k < K; ++k)
                    s = s + lanes_at<L, a1, T>(a, o, i, k) * lanes_at<L, a2, T>(b, o, k, j);
                std::memcpy(&d(o, i, j), &s, sizeof s);
            }
    }
}

template <Group G, Form F, class T, int n>
void soa_kernel(const Opnd& a, const Opnd& b, const Opnd& d, int M, int K, int N, int count) {
    constexpr bool t1 = (F & 1) != 0, t2 = (F & 2) != 0;
    constexpr bool a1 = array1(G), a2 = array2(G);
    constexpr int W = ORSM_VECTOR_BYTES / int(sizeof(T));
    const auto A = op_of<t1>(table_of<const T>(a));
    const auto B = op_of<t2>(table_of<const T>(b));
    const auto D = table_of<T>(d);
    int o = 0;
    for (; o + W <= count; o += W) soa_block<W, n, a1, a2, T>(A, B, D, o, M, K, N);
    for (; o < count; ++o) soa_block<1, n, a1, a2, T>(A, B, D, o, M, K, N);
}

template <Group G, Form F, class T> constexpr void fill_group(Table& t) {
    constexpr int g = int(G), ty = sizeof(T) == 4 ? 0 : 1;
    static_for<4>([&](auto o) {
        t.order[g][F][ty][0][o] = &order_kernel<G, F, T, Kind::C, o + 3>;
        t.order[g][F][ty][1][o] = &order_kernel<G, F, T, Kind::L, o + 3>;
        if constexpr (G != Group::one) t.soa[g - 1][F][ty][o] = &soa_kernel<G, F, T, o + 3>;
    });
    if constexpr (G != Group::one) t.soa[g - 1][F][ty][4] = &soa_kernel<G, F, T, 0>;
}

template <class T> constexpr void fill_type(Table& t) {
    static_for<4>([&](auto g) {
        static_for<4>([&](auto f) {
            fill_group<Group(decltype(g)::value), Form(decltype(f)::value), T>(t);
        });
    });
}

constexpr Table make_table() {
    Table t{};
    fill_type<float>(t);
    fill_type<double>(t);
    return t;
}

}  // namespace
}  // namespace ORSM_TARGET

extern const Table ORSM_TARGET_SYMBOL(matmul_table_);
constexpr Table ORSM_TARGET_SYMBOL(matmul_table_) = ORSM_TARGET::make_table();

}  // namespace orsm::matmul
