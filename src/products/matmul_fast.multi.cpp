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
#include <cstdint>

#include "kernels/isa.hpp"

#define ORSM_VECTOR_BYTES ORSM_TARGET_VECTOR_BYTES

#include "products/matmul_kernels.hpp"
#include "products/matmul_table.hpp"
#include "kernels/vectors.hpp"

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
// The loop over objects of the wide kernels: a fixed operand fetched once,
// the array operands per object, all of an object read before its dst is
// written; and the ascending-k sum of n lane-wise products.
template <Fixed F, class FA, class FB, class Body>
ORSM_INLINE void each_object(int count, FA fetch_a, FB fetch_b, Body body) {
    if constexpr (F == Fixed::src1) fetch_a(0);
    if constexpr (F == Fixed::src2) fetch_b(0);
    for (int o = 0; o < count; ++o) {
        if constexpr (F != Fixed::src1) fetch_a(o);
        if constexpr (F != Fixed::src2) fetch_b(o);
        body(o);
    }
}
template <int n> ORSM_INLINE __m512 sum_k(const __m512* a, const __m512* b) {
    __m512 acc = _mm512_mul_ps(a[0], b[0]);
    static_for<n - 1>([&](auto k) { acc = _mm512_add_ps(acc, _mm512_mul_ps(a[k + 1], b[k + 1])); });
    return acc;
}

// Order 4, 32f: dst in one zmm, row i in lanes 4i to 4i+3. Per k,
// op(src1)(i, k) is spread over lane group i by an in-lane permute and row k
// of op(src2) is repeated in the four groups: one multiply and one add per k
// for the whole matrix. `a` and `b` read the stored operands; op(src2) must
// not be transposed. Packed: rows of src1 and dst lie 4 elements apart.
template <bool t1, bool packed, Fixed F, class A, class B, class D>
ORSM_INLINE void rows4_f32(const A a, const B b, const D d, int count) {
    __m512 bk[4], ak[4];
    auto fetch_b = [&](int o) {
        static_for<4>([&](auto k) { bk[k] = _mm512_broadcast_f32x4(_mm_loadu_ps(&b(o, k, 0))); });
    };
    auto fetch_a = [&](int o) {
        if constexpr (!t1) {
            __m512 rows;
            if constexpr (packed) {
                rows = _mm512_loadu_ps(&a(o, 0, 0));
            } else {
                rows = _mm512_castps128_ps512(_mm_loadu_ps(&a(o, 0, 0)));
                static_for<3>([&](auto r) {
                    rows = _mm512_insertf32x4(rows, _mm_loadu_ps(&a(o, r + 1, 0)), r + 1);
                });
            }
            static_for<4>([&](auto k) { ak[k] = _mm512_permute_ps(rows, k * 0x55); });
        } else {
            const __m512i idx = _mm512_set_epi32(3, 3, 3, 3, 2, 2, 2, 2, 1, 1, 1, 1, 0, 0, 0, 0);
            static_for<4>([&](auto k) {
                ak[k] = _mm512_permutexvar_ps(idx, _mm512_castps128_ps512(_mm_loadu_ps(&a(o, k, 0))));
            });
        }
    };
    each_object<F>(count, fetch_a, fetch_b, [&](int o) {
        const __m512 acc = sum_k<4>(ak, bk);
        if constexpr (packed) {
            _mm512_storeu_ps(&d(o, 0, 0), acc);
        } else {
            static_for<4>([&](auto r) { _mm_storeu_ps(&d(o, r, 0), _mm512_extractf32x4_ps(acc, r)); });
        }
    });
}

// Order 3 with packed objects (rows 3 elements apart in src1, src2 and
// dst): an object is 9 consecutive elements, and so is dst, with lane
// l = 3i + j. Per k, op(src1)(i, k) and op(src2)(k, j) are put in lane l by
// one permute of the object each; a transposed operand only changes the
// permute. 32f only: the 9 lanes of one zmm (for 64f the two-source
// permutes cost more than rows in ymm registers).
template <bool t, bool first> constexpr int pick3(int l, int k) {
    // Stored index of op(src1)(i, k) (first) or op(src2)(k, j) for lane l.
    const int i = l / 3, j = l % 3;
    if constexpr (first) return t ? k * 3 + i : i * 3 + k;
    return t ? j * 3 + k : k * 3 + j;
}
template <bool t, bool first, int k> ORSM_INLINE __m512i index3_32() {
    alignas(64) static constexpr int idx[16] = {
        pick3<t, first>(0, k), pick3<t, first>(1, k), pick3<t, first>(2, k), pick3<t, first>(3, k),
        pick3<t, first>(4, k), pick3<t, first>(5, k), pick3<t, first>(6, k), pick3<t, first>(7, k),
        pick3<t, first>(8, k), 0, 0, 0, 0, 0, 0, 0};
    return _mm512_load_si512(idx);
}
template <bool t1, bool t2, Fixed F, class A, class B, class D>
ORSM_INLINE void packed3_f32(const A a, const B b, const D d, int count) {
    constexpr __mmask16 m9 = 0x1FF;
    __m512 ak[3], bk[3];
    auto fetch_a = [&](int o) {
        const __m512 x = _mm512_maskz_loadu_ps(m9, &a(o, 0, 0));
        static_for<3>([&](auto k) { ak[k] = _mm512_permutexvar_ps(index3_32<t1, true, k>(), x); });
    };
    auto fetch_b = [&](int o) {
        const __m512 x = _mm512_maskz_loadu_ps(m9, &b(o, 0, 0));
        static_for<3>([&](auto k) { bk[k] = _mm512_permutexvar_ps(index3_32<t2, false, k>(), x); });
    };
    each_object<F>(count, fetch_a, fetch_b,
                   [&](int o) { _mm512_mask_storeu_ps(&d(o, 0, 0), m9, sum_k<3>(ak, bk)); });
}

// Orders 5 and 6: a row of dst in one vector of 8 lanes (zmm for 64f, ymm
// for 32f; n of its lanes), the rows of op(src2) in such vectors, each
// op(src1)(i, k) broadcast by the multiply itself from memory. One object
// at a time and row by row, like the baseline: op(src2) is read whole
// first, each row of op(src1) just before its row of dst is stored, so any
// overlap of dst with a source gives the baseline's bits. op(src2) must
// not be transposed.
// `whole`: the rows of an array src2 lie at most 8 elements apart (and at
// least the vector's overhang), so every row but the last is loaded as 8
// whole elements that end inside the next row, cheaper than a masked load;
// the extra lanes are computed and never stored.
// Plain loops, no lambdas: GCC leaves the body of a lambda this size out of
// line in this unit, and the rows of op(src2) then go through the stack.
template <class T> struct Rows8;
template <> struct Rows8<double> {
    using V = __m512d;
    static ORSM_INLINE V load(const double* p) { return _mm512_loadu_pd(p); }
    static ORSM_INLINE V load(__mmask8 m, const double* p) { return _mm512_maskz_loadu_pd(m, p); }
    template <int n> static ORSM_INLINE void store(double* p, V v) { _mm512_mask_storeu_pd(p, (1u << n) - 1, v); }
    static ORSM_INLINE V mul(double a, V b) { return _mm512_mul_pd(_mm512_set1_pd(a), b); }
    static ORSM_INLINE V add(V a, V b) { return _mm512_add_pd(a, b); }
};
template <> struct Rows8<float> {
    using V = __m256;
    static ORSM_INLINE V load(const float* p) { return _mm256_loadu_ps(p); }
    static ORSM_INLINE V load(__mmask8 m, const float* p) { return _mm256_maskz_loadu_ps(m, p); }
    // Four elements and the rest by plain stores: masked stores measured
    // slower here.
    template <int n> static ORSM_INLINE void store(float* p, V v) {
        static_assert(n == 5 || n == 6);
        _mm_storeu_ps(p, _mm256_castps256_ps128(v));
        const __m128 hi = _mm256_extractf128_ps(v, 1);
        if constexpr (n == 5) _mm_store_ss(p + 4, hi);
        else _mm_storel_pi(reinterpret_cast<__m64*>(p + 4), hi);
    }
    static ORSM_INLINE V mul(float a, V b) { return _mm256_mul_ps(_mm256_set1_ps(a), b); }
    static ORSM_INLINE V add(V a, V b) { return _mm256_add_ps(a, b); }
};
template <int n, bool whole, class T, class B> ORSM_INLINE void rows_of(typename Rows8<T>::V* bk, const B& b, int o) {
    constexpr __mmask8 m = (1u << n) - 1;
    ORSM_UNROLL for (int k = 0; k < n; ++k) {
        if (whole && k + 1 < n)
            bk[k] = Rows8<T>::load(&b(o, k, 0));
        else
            bk[k] = Rows8<T>::load(m, &b(o, k, 0));
    }
}
template <int n, bool whole, Fixed F, class A, class B, class D>
ORSM_INLINE void rows8(const A a, const B b, const D d, int count) {
    using T = Plain<typename D::value_type>;
    using R = Rows8<T>;
    typename R::V bk[n];
    if constexpr (F == Fixed::src2) rows_of<n, false, T>(bk, b, 0);
    for (int o = 0; o < count; ++o) {
        if constexpr (F != Fixed::src2) rows_of<n, whole, T>(bk, b, o);
        ORSM_UNROLL for (int i = 0; i < n; ++i) {
            typename R::V acc = R::mul(a(o, i, 0), bk[0]);
            ORSM_UNROLL for (int k = 1; k < n; ++k) acc = R::add(acc, R::mul(a(o, i, k), bk[k]));
            R::template store<n>(&d(o, i, 0), acc);
        }
    }
}

// Whether a kernel that reads an object's op(src1) whole before it writes
// the object's dst gives the bits of the baseline, which reads each row of
// op(src1) just before it stores that row of dst: when dst shares no byte
// with the array src1, or is src1 itself (same objects, same rows that do
// not overlap), untransposed, so that row i of dst is row i of src1. Objects
// are still done one after another, so dst meeting another object of src1,
// or src2 (read whole first by both), changes nothing.
template <class T, Kind KD, bool t1>
bool whole_src1_ok(const Opnd& a, const Opnd& d, int n, int count) {
    const std::ptrdiff_t row = std::ptrdiff_t(n) * std::ptrdiff_t(sizeof(T));
    if (!t1 && a.p == d.p && a.s0 == d.s0 && a.s1 == d.s1 && a.shift == d.shift && a.s1 >= row)
        return true;
    const std::ptrdiff_t span = (n - 1) * a.s1 + row;  // both: same n, rows of n elements
    const std::ptrdiff_t dspan = (n - 1) * d.s1 + row;
    auto lo_hi = [&](const Opnd& o, std::ptrdiff_t sp, std::uintptr_t& lo, std::uintptr_t& hi) {
        if constexpr (KD == Kind::L) {
            const auto* tab = static_cast<const char* const*>(o.p);
            lo = UINTPTR_MAX;
            hi = 0;
            for (int f = 0; f < count; ++f) {
                const auto x = std::uintptr_t(tab[f] + o.shift);
                lo = x < lo ? x : lo;
                hi = x > hi ? x : hi;
            }
            hi += std::uintptr_t(sp);
        } else {
            lo = std::uintptr_t(o.p);
            hi = lo + std::uintptr_t(std::ptrdiff_t(count - 1) * o.s0 + sp);
        }
    };
    std::uintptr_t alo, ahi, dlo, dhi;
    lo_hi(a, span, alo, ahi);
    lo_hi(d, dspan, dlo, dhi);
    return ahi <= dlo || dhi <= alo;
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
    // The 32f kernels read op(src1) of an object whole.
    constexpr bool whole = sizeof(T) == 4 && (n == 3 || (n == 4 && !t2));
    if constexpr (whole && fx != Fixed::src1) {
        if (!whole_src1_ok<T, KD, t1>(a, d, n, count))
            return order_path<n, n, n, fx>(op_of<t1>(A), op_of<t2>(B), D, count);
    }
    if constexpr (n == 3 && sizeof(T) == 4) {
        // Packed objects: the whole object in one register.
        if (a.s1 == 12 && b.s1 == 12 && d.s1 == 12) return packed3_f32<t1, t2, fx>(A, B, D, count);
    }
    if constexpr (!t2 && n == 4 && sizeof(T) == 4) {
        // Rows of src1 and dst 4 elements apart: one load or store each.
        if (!t1 && a.s1 == 16 && d.s1 == 16) return rows4_f32<t1, true, fx>(A, B, D, count);
        return rows4_f32<t1, false, fx>(A, B, D, count);
    }
    if constexpr (!t2 && n >= 5) {
        constexpr std::ptrdiff_t e = sizeof(T);
        if (fx != Fixed::src2 && b.s1 >= (8 - n) * e && b.s1 <= 8 * e)
            return rows8<n, true, fx>(op_of<t1>(A), B, D, count);
        return rows8<n, false, fx>(op_of<t1>(A), B, D, count);
    }
#endif
    order_path<n, n, n, fx>(op_of<t1>(A), op_of<t2>(B), D, count);
}

// One product of single matrices, everything inlined: no operand records
// in memory, no loop over objects.
template <Form F, class T, int n>
[[gnu::flatten]] int one_kernel(const void* a, std::ptrdiff_t as1, const void* b,
                                std::ptrdiff_t bs1, void* d, std::ptrdiff_t ds1) {
    order_kernel<Group::one, F, T, Kind::C, n>(Opnd{a, 0, as1, 0}, Opnd{b, 0, bs1, 0},
                                               Opnd{d, 0, ds1, 0}, 1);
    return 0;
}

// Layout P over structure-of-arrays planes: lanes over L objects at once.
// Element (r, c) of objects o..o+L-1 of an array operand is one vector
// load from its plane; a fixed operand's element is broadcast. Orders
// 3 to 6 (n) start from the first product, the general loop (n 0) from +0:
// the sum is held in a register and stored once, which gives the bits of
// the baseline general loop, whose accumulator is dst itself, since dst
// shares no byte with a source (the frame has tested it). The planes of
// op(src1), op(src2) and dst are looked up once per call, in logical order.
//
// Objects go in blocks of the widest vector. A last partial block is done
// again whole, ending at the last object, and a call of fewer objects than
// lanes takes the widest vector it fills the same way: as no source meets
// dst, an object computed twice stores the same bits twice.
//
// A call that writes more dst than the streaming limit stores it with
// streaming stores from the first object at which every dst plane is
// aligned to the vector (they must all share that alignment), and fetches
// each source plane a few blocks ahead: with one stream per plane, up to
// 108, the processor's own prefetchers lose track of them.
namespace vx = ::orsm::vec::ORSM_TARGET;

// Bytes ahead of the current block at which the source planes are fetched,
// into the second-level cache: fetched into the first, the lines of so many
// planes crowd its few ways per set and evict one another before they are
// read (measured on AVX-512 with 27 to 108 planes: 4 lines ahead best, 2 or
// 8 slower, into the first-level cache half as fast).
constexpr int kFetchAhead = 256;

template <int L, bool array, class T> struct Planes {
    const T* const* p;
    const T* v;
    ORSM_INLINE vx::Vec<T, L> operator()(int e, int o) const {
        if constexpr (array)
            return vx::load<vx::Vec<T, L>>(p[e] + o);
        else
            return vx::splat<vx::Vec<T, L>>(v[e]);
    }
    ORSM_INLINE void fetch(int entries, int o) const {
        if constexpr (array)
            for (int e = 0; e < entries; ++e)
                __builtin_prefetch(reinterpret_cast<const char*>(p[e] + o) + kFetchAhead, 0, 2);
    }
};

// One call's planes (arrays) or values (fixed operands) of op(src1),
// op(src2) and dst in logical row-major order; shapes are at most 8 by 8.
template <int n, bool a1, bool a2, class T> struct SoaCall {
    const T* pa[64];
    const T* pb[64];
    T* pd[64];
    T va[64], vb[64];
    int M, K, N;

    // Objects o..o+L-1; `streamed`: dst by streaming stores (o aligned).
    template <int L, bool streamed> ORSM_INLINE void block(int o) const {
        using V = vx::Vec<T, L>;
        const Planes<L, a1, T> A{pa, va};
        const Planes<L, a2, T> B{pb, vb};
        auto put = [&](int e, V s) {
            if constexpr (streamed)
                vx::stream(pd[e] + o, s);
            else
                vx::store(pd[e] + o, s);
        };
        if constexpr (streamed) {
            A.fetch(M * K, o);
            B.fetch(K * N, o);
        }
        if constexpr (n > 0) {
            // Columns of op(src2) in two chunks when the whole of it does
            // not stay in registers beside a row of op(src1) and two sums
            // but half of it does: the rows of op(src1) are then read twice.
            // In three chunks or more that costs more than the spills
            // (measured: order 6 on AVX-512 and order 4 on AVX2 gain 7 to
            // 10%, orders 5 and 6 on AVX2 lose 20%).
            constexpr int fit = (vx::kRegisters - n - 2) / n;
            constexpr int J = fit < n && 2 * fit >= n ? fit : n;
            ORSM_UNROLL for (int j0 = 0; j0 < n; j0 += J) {
                V bv[n][J];
                ORSM_UNROLL for (int k = 0; k < n; ++k) ORSM_UNROLL for (int j = 0; j < J; ++j) {
                    if (j0 + j < n) bv[k][j] = B(k * n + j0 + j, o);
                }
                ORSM_UNROLL for (int i = 0; i < n; ++i) {
                    V av[n];
                    ORSM_UNROLL for (int k = 0; k < n; ++k) av[k] = A(i * n + k, o);
                    ORSM_UNROLL for (int j = 0; j < J; ++j) {
                        if (j0 + j >= n) continue;
                        V s = av[0] * bv[0][j];
                        ORSM_UNROLL for (int k = 1; k < n; ++k) s = s + av[k] * bv[k][j];
                        put(i * n + j0 + j, s);
                    }
                }
            }
        } else {
            for (int i = 0; i < M; ++i)
                for (int j = 0; j < N; ++j) {
                    V s = V{} + A(i * K, o) * B(j, o);
                    for (int k = 1; k < K; ++k) s = s + A(i * K + k, o) * B(k * N + j, o);
                    put(i * N + j, s);
                }
        }
    }
    // Objects o..end-1 (at least L of them) in blocks of L, the last one
    // ending at end.
    template <int L> ORSM_INLINE void blocks(int o, int end) const {
        for (; o + L <= end; o += L) block<L, false>(o);
        if (o < end) block<L, false>(end - L);
    }
    // Fewer objects than L: the widest vector they fill.
    template <int L> void few(int count) const {
        if constexpr (L > 1)
            if (count < L) return few<L / 2>(count);
        blocks<L>(0, count);
    }
    // Streaming stores, if dst is large and its planes share an alignment;
    // returns false, having written nothing, otherwise.
    template <int W> bool streamed(int count) const {
        constexpr std::uintptr_t bytes = W * sizeof(T);
        if (long(M) * N * count * long(sizeof(T)) < streaming::min_bytes()) return false;
        const std::uintptr_t mis = reinterpret_cast<std::uintptr_t>(pd[0]) % bytes;
        if (mis % sizeof(T) != 0) return false;
        for (int e = 1; e < M * N; ++e)
            if (reinterpret_cast<std::uintptr_t>(pd[e]) % bytes != mis) return false;
        const int head = int((bytes - mis) % bytes / sizeof(T));
        if (count < head + W) return false;
        if (head > 0) block<W, false>(0);
        int o = head;
        for (; o + W <= count; o += W) block<W, true>(o);
        if (o < count) block<W, false>(count - W);
        vx::stream_fence();
        return true;
    }
};

template <Group G, Form F, class T, int n>
void soa_kernel(const Opnd& a, const Opnd& b, const Opnd& d, int M, int K, int N, int count) {
    constexpr bool t1 = (F & 1) != 0, t2 = (F & 2) != 0;
    constexpr bool a1 = array1(G), a2 = array2(G);
    constexpr int W = vx::kLanes<T>;
    if constexpr (n > 0) M = K = N = n;
    SoaCall<n, a1, a2, T> c;
    c.M = M, c.K = K, c.N = N;
    const auto A = op_of<t1>(table_of<const T>(a));
    const auto B = op_of<t2>(table_of<const T>(b));
    const auto D = table_of<T>(d);
    auto look_up = [](const auto& X, int R, int C, auto array, const T** p, T* v) {
        for (int r = 0; r < R; ++r)
            for (int c = 0; c < C; ++c) {
                if constexpr (decltype(array)::value)
                    p[r * C + c] = &X(0, r, c);
                else
                    v[r * C + c] = X(0, r, c);
            }
    };
    look_up(A, M, K, std::bool_constant<a1>{}, c.pa, c.va);
    look_up(B, K, N, std::bool_constant<a2>{}, c.pb, c.vb);
    for (int i = 0; i < M; ++i)
        for (int j = 0; j < N; ++j) c.pd[i * N + j] = &D(0, i, j);
    if (count < W) return c.template few<W / 2>(count);
    if (c.template streamed<W>(count)) return;
    c.template blocks<W>(0, count);
}

template <Group G, Form F, class T> constexpr void fill_group(Table& t) {
    constexpr int g = int(G), ty = sizeof(T) == 4 ? 0 : 1;
    static_for<4>([&](auto o) {
        if constexpr (G == Group::one) {
            t.one[F][ty][o] = &one_kernel<F, T, o + 3>;
        } else {
            t.order[g][F][ty][0][o] = &order_kernel<G, F, T, Kind::C, o + 3>;
            t.order[g][F][ty][1][o] = &order_kernel<G, F, T, Kind::L, o + 3>;
            t.soa[g - 1][F][ty][o] = &soa_kernel<G, F, T, o + 3>;
        }
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
