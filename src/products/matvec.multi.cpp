// Fast matrix-vector kernels of square orders 3 to 6 for one instruction-set
// target (this file is compiled once per target; see kernels/isa.hpp and
// products/matvec_fast.hpp).
//
// Lanes never run over the summation index k: a rows kernel's lane i sums
// row i, an SoA kernel's lane sums one object, each by the tree its scalar
// kernel uses, one rounded product and one rounded addition per step.
// The shared tree_sum is inlined like every helper here.
#include "products/matvec.hpp"
#include "kernels/vectors.hpp"

namespace orsm::mv {
namespace ORSM_TARGET {
namespace {

namespace vx = ::orsm::vec::ORSM_TARGET;
using vx::kBytes, vx::Vec, vx::splat, vx::load, vx::store;

// ---- rows kernels: lane i is row i --------------------------------------

// A row of an object: N elements in a vector of R lanes, lanes N and up
// zero. Nothing beyond the N elements is read or written.
template <int N, class V, class T> ORSM_INLINE V load_row(const T* p) {
    if constexpr (sizeof(V) == N * sizeof(T)) {
        return load<V>(p);
    } else {
#if defined(__AVX512VL__)
        constexpr unsigned m = (1u << N) - 1;
        if constexpr (sizeof(T) == 4 && sizeof(V) == 16) return (V)_mm_maskz_loadu_ps(m, p);
        if constexpr (sizeof(T) == 4 && sizeof(V) == 32) return (V)_mm256_maskz_loadu_ps(m, p);
        if constexpr (sizeof(T) == 8 && sizeof(V) == 32) return (V)_mm256_maskz_loadu_pd(m, p);
        if constexpr (sizeof(T) == 8 && sizeof(V) == 64) return (V)_mm512_maskz_loadu_pd(m, p);
#endif
        V v{};  // element by element: a partial memcpy goes through the stack
        for (int j = 0; j < N; ++j) v[j] = p[j];
        return v;
    }
}
template <int N, class V, class T> ORSM_INLINE void store_row(T* p, V v) {
    if constexpr (sizeof(V) == N * sizeof(T)) {
        store(p, v);
    } else {
#if defined(__AVX512VL__)
        constexpr unsigned m = (1u << N) - 1;
        if constexpr (sizeof(T) == 4 && sizeof(V) == 16) return _mm_mask_storeu_ps(p, m, (__m128)v);
        if constexpr (sizeof(T) == 4 && sizeof(V) == 32) return _mm256_mask_storeu_ps(p, m, (__m256)v);
        if constexpr (sizeof(T) == 8 && sizeof(V) == 32) return _mm256_mask_storeu_pd(p, m, (__m256d)v);
        if constexpr (sizeof(T) == 8 && sizeof(V) == 64) return _mm512_mask_storeu_pd(p, m, (__m512d)v);
#endif
        for (int j = 0; j < N; ++j) p[j] = v[j];
    }
}

// Interleaves of two R-lane vectors: lanes 0.. of the lower (upper) halves.
template <int R, class V, std::size_t... I> ORSM_INLINE V zip_lo(V a, V b, std::index_sequence<I...>) {
    return __builtin_shufflevector(a, b, (I % 2 ? R + I / 2 : I / 2)...);
}
template <int R, class V, std::size_t... I> ORSM_INLINE V zip_hi(V a, V b, std::index_sequence<I...>) {
    return __builtin_shufflevector(a, b, (I % 2 ? R + R / 2 + I / 2 : R / 2 + I / 2)...);
}
// Transposes R rows of R lanes in place: log2(R) rounds of the perfect
// shuffle, row j paired with row j + R/2.
template <int R, class V> ORSM_INLINE void transpose(V (&x)[R]) {
    constexpr auto seq = std::make_index_sequence<R>();
    for (int round = 1; round < R; round *= 2) {
        V y[R];
        for (int j = 0; j < R / 2; ++j) {
            y[2 * j] = zip_lo<R>(x[j], x[j + R / 2], seq);
            y[2 * j + 1] = zip_hi<R>(x[j], x[j + R / 2], seq);
        }
        for (int j = 0; j < R; ++j) x[j] = y[j];
    }
}

// Tree C of order 5 sums row 4 apart: its lane comes from the second sum.
template <Tree tr, int N, int R, class V, std::size_t... I>
ORSM_INLINE V row_tree(const V (&p)[N], std::index_sequence<I...>) {
    if constexpr (tr == Tree::C && N == 5) {
        const V upper = tree_sum<tr>(p, 0), last = tree_sum<tr>(p, 4);
        return __builtin_shufflevector(upper, last, (I == 4 ? R + 4 : int(I))...);
    } else {
        return tree_sum<tr>(p, 0);
    }
}

template <class T, int N, RowKey key> [[maybe_unused]] void rows(const RowArgs<T>& g) {
    constexpr int R = N <= 4 ? 4 : 8;  // lanes over rows
    using V = Vec<T, R>;
    V col[N];  // column k of op(a): lane i holds op(a)(i, k)
    V xk[N];   // x(k) in every lane
    auto load_a = [&](int n) {
        const T* p = g.a.obj(n);
        if constexpr (key.trans) {
            // The stored rows are the columns of op(a).
            for (int k = 0; k < N; ++k) col[k] = load_row<N, V>(byte_off(p, k * g.a.s1));
        } else {
            V r[R];
            for (int i = 0; i < R; ++i) r[i] = i < N ? load_row<N, V>(byte_off(p, i * g.a.s1)) : V{};
            transpose<R>(r);
            for (int k = 0; k < N; ++k) col[k] = r[k];
        }
    };
    auto load_x = [&](int n) {
        const T* p = g.x.obj(n);
        for (int k = 0; k < N; ++k) xk[k] = splat<V>(p[k]);
    };
    if constexpr (key.fixed == Fixed::Vec) load_x(0);
    if constexpr (key.fixed == Fixed::Mat) load_a(0);
    for (int n = 0; n < g.count; ++n) {
        if constexpr (key.fixed != Fixed::Vec) load_x(n);
        if constexpr (key.fixed != Fixed::Mat) load_a(n);
        V p[N];
        for (int k = 0; k < N; ++k) p[k] = col[k] * xk[k];
        V s = row_tree<key.tree, N, R>(p, std::make_index_sequence<R>());
        if constexpr (key.term) s = s + load_row<N, V>(g.y.obj(n));
        store_row<N>(g.d.obj(n), s);
    }
}

// ---- packed kernels: lanes over objects ----------------------------------

// Layout S with every array operand packed (objects one after another, a
// matrix's rows one after another). The loop is the scalar order path with
// compile-time strides, which the compiler vectorizes over objects with
// in-register transposes; each lane runs the scalar code's very operations,
// and the compiler's overlap checks keep the scalar order of reads and
// writes whenever dst meets a source.
template <class T, int N, RowKey key> void packed(const RowArgs<T>& g) {
    constexpr bool fa = key.fixed == Fixed::Mat, fx = key.fixed == Fixed::Vec;
    const T* const a = g.a.base;
    const T* const x = g.x.base;
    const T* const y = g.y.base;
    T* const d = g.d.base;
    T af[N][N] = {}, xf[N] = {};
    if constexpr (fa)
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) {
                const T v = byte_off(a, r * g.a.s1)[c];
                if constexpr (key.trans) af[c][r] = v;
                else af[r][c] = v;
            }
    if constexpr (fx)
        for (int k = 0; k < N; ++k) xf[k] = x[k];
    for (int n = 0; n < g.count; ++n) {
        T xv[N], av[N][N];
        for (int k = 0; k < N; ++k) xv[k] = fx ? xf[k] : x[n * N + k];
        for (int i = 0; i < N; ++i)
            for (int k = 0; k < N; ++k)
                av[i][k] = fa ? af[i][k] : a[n * N * N + (key.trans ? k * N + i : i * N + k)];
        T out[N];
        for (int i = 0; i < N; ++i) {
            T p[N];
            for (int k = 0; k < N; ++k) p[k] = av[i][k] * xv[k];
            out[i] = tree_sum<key.tree>(p, i);
            if constexpr (key.term) out[i] = out[i] + y[n * N + i];
        }
        for (int i = 0; i < N; ++i) d[n * N + i] = out[i];
    }
}

// ---- SoA kernels: lane j is object n + j ----------------------------------

template <int N, bool AArr, bool XArr, bool Y, class V, class T>
ORSM_INLINE void soa_block(const SoaArgs<T>& g, const V (&af)[N * N], const V (&xf)[N], int n) {
    auto A = [&](int j) { return AArr ? load<V>(g.a[j] + n) : af[j]; };
    auto X = [&](int k) { return XArr ? load<V>(g.x[k] + n) : xf[k]; };
    V xv[N];
    for (int k = 0; k < N; ++k) xv[k] = X(k);
    for (int i = 0; i < N; ++i) {
        V p[N];
        for (int k = 0; k < N; ++k) p[k] = A(i * N + k) * xv[k];
        V s = tree_sum<Tree::A>(p, i);
        if constexpr (Y) s = s + load<V>(g.y[i] + n);
        store(g.d[i] + n, s);
    }
}

template <class T, int N, int kind> void soa(const SoaArgs<T>& g) {
    constexpr bool AArr = kind == soaBoth || kind == soaMats;
    constexpr bool XArr = kind != soaMats;
    constexpr bool Y = kind == soaGaxpy;
    constexpr int W = kBytes / int(sizeof(T));
    using V = Vec<T, W>;
    V af[N * N], xf[N];  // the fixed operand in every lane
    T as[N * N], xs[N];
    if constexpr (!AArr)
        for (int j = 0; j < N * N; ++j) af[j] = splat<V>(as[j] = *g.a[j]);
    if constexpr (!XArr)
        for (int k = 0; k < N; ++k) xf[k] = splat<V>(xs[k] = *g.x[k]);
    int n = 0;
    for (; n + W <= g.count; n += W) soa_block<N, AArr, XArr, Y>(g, af, xf, n);
    for (; n < g.count; ++n) soa_block<N, AArr, XArr, Y>(g, as, xs, n);
}

// ---- the table ------------------------------------------------------------

// Rows kernels run only where masked loads and stores read and write a
// row's N elements in one instruction (AVX-512VL); built from single
// elements they lose to the scalar kernels, which then serve. For a packed
// call the kernel that measured faster (one thread, in cache, on AVX-512):
// lanes over objects, but for 32f orders 5 and 6 with the matrix moving,
// and 64f order 4 by tree B with the matrix moving, where rows win.
template <class T> constexpr bool rows_win(RowKey k, int N) {
#if defined(__AVX512VL__)
    if (k.fixed == Fixed::Mat) return false;
    if constexpr (sizeof(T) == 4) return N >= 5;
    else return N == 4 && !k.trans && k.tree == Tree::B;
#else
    (void)k, (void)N;
    return false;
#endif
}
template <class T, int N, RowKey key> constexpr typename Kernels<T>::RowFn rows_fn() {
#if defined(__AVX512VL__)
    return &rows<T, N, key>;
#else
    return nullptr;
#endif
}
template <class T, int N, std::size_t... I>
constexpr void fill_rows(Kernels<T>& t, std::index_sequence<I...>) {
    constexpr auto& keys = row_keys<T>();
    ((t.rows[I][N - 3] = rows_fn<T, N, keys[I]>()), ...);
    ((t.packed[I][N - 3] = rows_win<T>(keys[I], N) ? rows_fn<T, N, keys[I]>() : &packed<T, N, keys[I]>),
     ...);
}
template <class T, int N, std::size_t... I>
constexpr void fill_soa(Kernels<T>& t, std::index_sequence<I...>) {
    ((t.soa[I][N - 3] = &soa<T, N, int(I)>), ...);
}
template <class T, int... N> constexpr Kernels<T> make(std::integer_sequence<int, N...>) {
    Kernels<T> t{};
    (fill_rows<T, N>(t, std::make_index_sequence<std::size(row_keys<T>())>()), ...);
    (fill_soa<T, N>(t, std::make_index_sequence<kSoaKinds>()), ...);
    return t;
}

}  // namespace
}  // namespace ORSM_TARGET

extern const Table ORSM_TARGET_SYMBOL(matvec_table_) = {
    ORSM_TARGET::make<float>(std::integer_sequence<int, 3, 4, 5, 6>()),
    ORSM_TARGET::make<double>(std::integer_sequence<int, 3, 4, 5, 6>())};

}  // namespace orsm::mv
