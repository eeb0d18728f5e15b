// Lanes over objects, the kernels' half (kernels/groups.hpp has the
// frame's): vectors of W lanes, lane l holding a value of object first + l,
// with the masks their comparisons give. Per target, like vectors.hpp.
#pragma once

#include <cmath>
#include <limits>

#include "kernels/groups.hpp"
#include "kernels/vectors.hpp"

namespace orsm::lanes {
namespace ORSM_TARGET {
namespace {

namespace vx = ::orsm::vec::ORSM_TARGET;
using vx::splat;

// The signed integer of T's width: the lanes of a comparison's mask.
template <class T> using IntOf = std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>;
template <class T, int W> using V = vx::Vec<T, W>;
template <class T, int W> using VI = vx::Vec<IntOf<T>, W>;

template <class T, int W> ORSM_INLINE V<T, W> vabs(V<T, W> x) {
    return (V<T, W>)((VI<T, W>)x & splat<VI<T, W>>(std::numeric_limits<IntOf<T>>::max()));
}
template <class T, int W> ORSM_INLINE bool any(VI<T, W> m) {
    for (int l = 0; l < W; ++l)
        if (m[l]) return true;
    return false;
}

// Correctly rounded square roots, lane by lane.
template <class T, int W> ORSM_INLINE V<T, W> vsqrt(V<T, W> x) {
    constexpr bool f64 = sizeof(T) == 8;
#if defined(__AVX512F__)
    // (The masked forms: GCC 12 warns of an undefined operand in the plain ones.)
    if constexpr (sizeof(x) == 64) {
        if constexpr (f64) return (V<T, W>)_mm512_mask_sqrt_pd((__m512d)x, __mmask8(0xFF), (__m512d)x);
        else return (V<T, W>)_mm512_mask_sqrt_ps((__m512)x, __mmask16(0xFFFF), (__m512)x);
    }
#endif
#if defined(__AVX__)
    if constexpr (sizeof(x) == 32) {
        if constexpr (f64) return (V<T, W>)_mm256_sqrt_pd((__m256d)x);
        else return (V<T, W>)_mm256_sqrt_ps((__m256)x);
    }
#endif
    if constexpr (sizeof(x) == 16) {
        if constexpr (f64) return (V<T, W>)_mm_sqrt_pd((__m128d)x);
        else return (V<T, W>)_mm_sqrt_ps((__m128)x);
    }
    for (int l = 0; l < W; ++l) x[l] = std::sqrt(x[l]);
    return x;
}

// orsm::rsqrt_estimate (common/estimates.hpp) in every lane, operation for
// operation, so that each lane gets the scalar estimate's bits.
template <int W> ORSM_INLINE V<float, W> rsqrt_estimate(V<float, W> s) {
    using Vf = V<float, W>;
    using Vu = vx::Vec<std::uint32_t, W>;
    Vu b = 0x5F375A86u - ((Vu)s >> 1);
    Vf y = (Vf)b;
    y = y * (1.5f - 0.5f * ((s * y) * y));
    y = y * (1.5f - 0.5f * ((s * y) * y));
    y = (Vf)(((Vu)y + 0x400u) & ~0x7FFu);
    const Vf inf = splat<Vf>(std::numeric_limits<float>::infinity());
    const Vf nan = splat<Vf>(std::numeric_limits<float>::quiet_NaN());
    y = s >= std::numeric_limits<float>::min() ? y : s >= 0.0f ? inf : nan;
    return s == inf ? splat<Vf>(0.0f) : y;
}

// orsm::rcp_estimate (common/estimates.hpp) in every lane, operation for
// operation.
template <int W> ORSM_INLINE V<float, W> rcp_estimate(V<float, W> d) {
    using Vf = V<float, W>;
    using Vu = vx::Vec<std::uint32_t, W>;
    const Vu b0 = (Vu)d;
    const Vu sign = b0 & 0x80000000u, ex = (b0 >> 23) & 0xFFu;
    const Vf m = (Vf)((b0 & 0x007FFFFFu) | 0x3F800000u);
    Vf y = 24.0f / 17.0f - (8.0f / 17.0f) * m;
    y = y * (2.0f - m * y);
    y = y * (2.0f - m * y);
    y = (Vf)(((Vu)y + 0x400u) & ~0x7FFu);
    const Vu clamped = ex > 253u ? splat<Vu>(253u) : ex < 1u ? splat<Vu>(1u) : ex;
    y = y * (Vf)((254u - clamped) << 23);
    y = ex == 0u ? splat<Vf>(std::numeric_limits<float>::infinity()) : ex >= 253u ? splat<Vf>(0.0f) : y;
    y = (Vf)((Vu)y | sign);
    return d != d ? d : y;
}

// Element (r, c) of objects first .. first + W - 1 of o (groups::Strided or
// Listed), a lane at a time: on the processors measured that beats the
// gather instructions. Whole blocks go faster by pieces (load_rows below).
template <int W, class O> ORSM_INLINE auto load(const O& o, int first, ptrdiff_t r, int c) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    V<T, W> v;
    for (int l = 0; l < W; ++l) v[l] = *byte_off(o.obj(first + l), r * o.s1 + c * ptrdiff_t(sizeof(T)));
    return v;
}
// The same, but for an operand whose objects all stand at one place (the
// one factor of an mva call, an S operand with s0 of 0): one load, in
// every lane.
template <int W, class O> ORSM_INLINE auto load_shared(const O& o, int first, ptrdiff_t r, int c) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    if constexpr (requires { o.s0; }) {
        if (o.s0 == 0) return splat<V<T, W>>(T(*byte_off(o.obj(first), r * o.s1 + c * ptrdiff_t(sizeof(T)))));
    }
    return load<W>(o, first, r, c);
}

// The same for structure-of-arrays planes: one vector load, or one element
// in every lane for shared planes.
template <int W, class T> ORSM_INLINE V<Plain<T>, W> load_shared(const groups::Soa<T>& o, int first, int r, int c) {
    if (o.shared) return splat<V<Plain<T>, W>>(Plain<T>(*o.plane(r, c)));
    return vx::load<V<Plain<T>, W>>(o.plane(r, c) + first);
}

// ---- the same block by 16-byte pieces and turns in registers ----------------------
//
// A row of an object is read in pieces of P = 16 / sizeof(T) elements. The
// pieces of P objects q = 0..P-1 that stand at one place of a row make a
// P x P block, turned about within each 16-byte lane of the vector; a
// vector of W lanes holds G = W / P such lanes, lane g taking objects
// q + P g. After the turn lane P g + q holds object P g + q: the lanes are
// the objects in order, as `load` gives them. Per element that is a load
// and a fraction of an in-lane shuffle, where `load` pays an insert per lane.
//
// A short piece reads (and writes) just its elements: nothing outside the
// block is touched, neither the bytes between rows nor another part of the
// matrix, so these serve wherever the element-by-element forms do.
namespace piece {

template <class T> constexpr int kP = 16 / int(sizeof(T));

// Elements p[0 .. k-1] in places 0 .. k-1, the other places zero.
template <class T, int k> ORSM_INLINE V<T, kP<T>> read(const T* p) {
    using Vp = V<T, kP<T>>;
    if constexpr (k == kP<T>) {
        return vx::load<Vp>(p);
    } else if constexpr (sizeof(T) == 4 && k >= 2) {
        const V<T, 2> lo = vx::load<V<T, 2>>(p), zero{};
        Vp v = __builtin_shufflevector(lo, zero, 0, 1, 2, 3);
        if constexpr (k == 3) v[2] = p[2];
        return v;
    } else {
        Vp v{};
        v[0] = p[0];
        return v;
    }
}

// The pieces of `n` vectors side by side in one of n times the lanes.
template <class T, int P> ORSM_INLINE V<T, 2 * P> join(V<T, P> a, V<T, P> b) {
    if constexpr (P == 2) return __builtin_shufflevector(a, b, 0, 1, 2, 3);
    else if constexpr (P == 4) return __builtin_shufflevector(a, b, 0, 1, 2, 3, 4, 5, 6, 7);
    else return __builtin_shufflevector(a, b, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}
template <class T, int W, int n, class Piece> ORSM_INLINE V<T, W> gather(Piece&& piece, int g0 = 0) {
    if constexpr (n == 1) return piece(g0);
    else return join<T, W / 2>(gather<T, W / 2, n / 2>(piece, g0), gather<T, W / 2, n / 2>(piece, g0 + n / 2));
}

// In-lane interleaves of two vectors: the low (or high) halves of each
// 16-byte lane's elements, in units of E elements, a's and b's alternating.
template <int W, int P, int E, bool high> constexpr int mix(int l, int which) {
    const int lane = l / P * P, i = l % P;
    const int src = lane + (high ? P / 2 : 0) + (i / (2 * E)) * E + i % E;
    return which ? W + src : src;
}
template <int W, int P, int E, bool high, class Vt, std::size_t... L>
ORSM_INLINE Vt interleave(Vt a, Vt b, std::index_sequence<L...>) {
    return __builtin_shufflevector(a, b, mix<W, P, E, high>(int(L), int(L) / E % 2)...);
}
template <int E, bool high, class Vt> ORSM_INLINE Vt interleave(Vt a, Vt b) {
    constexpr int W = sizeof(Vt) / sizeof(a[0]), P = 16 / sizeof(a[0]);
    return interleave<W, P, E, high>(a, b, std::make_index_sequence<W>());
}

// y[q] holds piece j of object q in place j of every lane; afterwards y[j]
// holds place j of object q in place q.
template <class Vt> ORSM_INLINE void turn(Vt* y) {
    constexpr int P = 16 / sizeof(y[0][0]);
    if constexpr (P == 2) {
        const Vt a = interleave<1, false>(y[0], y[1]), b = interleave<1, true>(y[0], y[1]);
        y[0] = a, y[1] = b;
    } else {
        const Vt t0 = interleave<1, false>(y[0], y[1]), t1 = interleave<1, false>(y[2], y[3]);
        const Vt t2 = interleave<1, true>(y[0], y[1]), t3 = interleave<1, true>(y[2], y[3]);
        y[0] = interleave<2, false>(t0, t1), y[1] = interleave<2, true>(t0, t1);
        y[2] = interleave<2, false>(t2, t3), y[3] = interleave<2, true>(t2, t3);
    }
}

// The 16-byte lane g of v.
template <int g, class T, int W, std::size_t... I> ORSM_INLINE V<T, kP<T>> part(V<T, W> v, std::index_sequence<I...>) {
    return __builtin_shufflevector(v, v, (g * kP<T> + int(I))...);
}
template <int g, class T, int W> ORSM_INLINE V<T, kP<T>> part(V<T, W> v) {
    if constexpr (W == kP<T>) return v;
    else return part<g, T, W>(v, std::make_index_sequence<kP<T>>());
}
// Places [0, k) of v into p[0 .. k-1], nothing beyond.
template <class T, int k> ORSM_INLINE void write(T* p, V<T, kP<T>> v) {
    if constexpr (k == kP<T>) {
        vx::store(p, v);
    } else if constexpr (k >= 2 && sizeof(T) == 4) {
        const V<T, 2> lo = __builtin_shufflevector(v, v, 0, 1);
        vx::store(p, lo);
        if constexpr (k == 3) p[2] = v[2];
    } else {
        p[0] = v[0];
    }
}

}  // namespace piece

// Columns of row r of an R x C block: all C, or with `lower` up to r.
template <bool lower, int C> constexpr int row_cols(int r) { return lower && r + 1 < C ? r + 1 : C; }

// f(r, c0, k) for every piece of a block, row after row: elements c0 ..
// c0 + k - 1 of row r, all compile-time constants.
template <class T, bool lower, int R, int C, class F> ORSM_INLINE void each_piece(F&& f) {
    constexpr int P = piece::kP<T>;
    static_for<R>([&](auto r) {
        constexpr int Cr = row_cols<lower, C>(r);
        static_for<(Cr + P - 1) / P>([&](auto p) {
            f(r, std::integral_constant<int, p * P>{}, std::integral_constant<int, Cr - p * P < P ? Cr - p * P : P>{});
        });
    });
}

// An R x C block of objects first .. first + W - 1 of o into x[r][c], lane
// l holding object first + l: the values of `load`, read by pieces. With
// `lower`, row r only to column r (the lower triangle; x above it is left
// as it stands). With `whole`, for rows packed one after another, a short
// piece is read as a whole one all the same, into the next row, or in the
// last row from the row before: still elements of the block, and one load
// where three elements take three.
template <int W, bool lower = false, bool whole = false, class Vt, int R, int C, class O>
ORSM_INLINE void load_rows(Vt (&x)[R][C], const O& o, int first) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    constexpr int P = piece::kP<T>;
    static_assert(W % P == 0);
    const T* obj[W];
    static_for<W>([&](auto l) { obj[l] = o.obj(first + l); });
    each_piece<T, lower, R, C>([&](auto r, auto c0, auto k) {
        // Elements c0 .. c0 + k - 1 at places back .. back + k - 1.
        constexpr int back = whole && r + 1 == R ? P - k : 0;
        static_assert(!whole || (!lower && R >= 2 && P - k <= C));
        Vt y[P];
        static_for<P>([&](auto q) {
            y[q] = piece::gather<T, W, W / P>([&](int g) {
                const T* at = byte_off(obj[q + P * g], r * o.s1) + (c0 - back);
                if constexpr (whole) return piece::read<T, P>(at);
                else return piece::read<T, k>(at);
            });
        });
        piece::turn(y);
        static_for<k>([&](auto j) { x[r][c0 + j] = y[j + back]; });
    });
}

// x[r][c] into the R x C block of objects first .. first + W - 1 of o, lane
// l into object first + l, by pieces: the turn undoes itself, and every
// piece is stored element for element of the block, nothing past it. With
// `lower`, row r only to column r.
template <int W, bool lower = false, class Vt, int R, int C, class O>
ORSM_INLINE void store_rows(const O& o, int first, const Vt (&x)[R][C]) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    constexpr int P = piece::kP<T>;
    static_assert(W % P == 0);
    T* obj[W];
    static_for<W>([&](auto l) { obj[l] = o.obj(first + l); });
    each_piece<T, lower, R, C>([&](auto r, auto c0, auto k) {
        Vt y[P];
        static_for<P>([&](auto j) { y[j] = j < k ? x[r][c0 + (j < k ? j : 0)] : Vt{}; });
        piece::turn(y);
        static_for<P>([&](auto q) {
            static_for<W / P>([&](auto g) {
                piece::write<T, k>(byte_off(obj[q + P * g], r * o.s1) + c0, piece::part<g, T, W>(y[q]));
            });
        });
    });
}
// The same, object by object and element by element where rows stand
// closer than C elements or objects meet (a later store overwrites what an
// earlier one wrote, as in the scalar path's order).
template <int W, bool lower = false, class Vt, int R, int C, class O>
ORSM_INLINE void store(const O& o, int first, const Vt (&x)[R][C]) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    if constexpr (W % piece::kP<T> == 0) {
        if (groups::rows_apart<R, C>(o) && groups::objects_apart(o, first, W, R, C))
            return store_rows<W, lower>(o, first, x);
    }
    for (int l = 0; l < W; ++l) {
        T* obj = o.obj(first + l);
        for (int r = 0; r < R; ++r) {
            T* row = byte_off(obj, r * o.s1);
            for (int c = 0; c < row_cols<lower, C>(r); ++c) row[c] = x[r][c][l];
        }
    }
}

// An R x C block of structure-of-arrays objects: one load a plane.
template <int W, bool lower = false, class Vt, int R, int C, class T>
ORSM_INLINE void load(Vt (&x)[R][C], const groups::Soa<T>& o, int first) {
    for (int r = 0; r < R; ++r)
        for (int c = 0; c < row_cols<lower, C>(r); ++c) x[r][c] = vx::load<Vt>(o.plane(r, c) + first);
}

// x[r][c] into structure-of-arrays objects: one store a plane (the planes
// stand apart, groups::apart_or_in_place).
template <int W, bool lower = false, class Vt, int R, int C, class T>
ORSM_INLINE void store(const groups::Soa<T>& o, int first, const Vt (&x)[R][C]) {
    for (int r = 0; r < R; ++r)
        for (int c = 0; c < row_cols<lower, C>(r); ++c) vx::store(o.plane(r, c) + first, x[r][c]);
}

// An R x C block of each object into x[r][c] (with `lower`, its lower
// triangle): by pieces where the vector holds whole ones, else element by
// element.
template <int W, bool lower = false, class Vt, int R, int C, class O>
ORSM_INLINE void load(Vt (&x)[R][C], const O& o, int first) {
    using T = Plain<std::remove_reference_t<decltype(*o.obj(0))>>;
    if constexpr (W % piece::kP<T> == 0) {
        // Three elements in a piece: whole pieces where rows are packed.
        if constexpr (sizeof(T) == 4 && C % 4 == 3 && !lower && R >= 2) {
            if (o.s1 == C * ptrdiff_t(sizeof(T))) return load_rows<W, false, true>(x, o, first);
        }
        load_rows<W, lower>(x, o, first);
    } else {
        for (int r = 0; r < R; ++r)
            for (int c = 0; c < row_cols<lower, C>(r); ++c) x[r][c] = load<W>(o, first, r, c);
    }
}

// The factor block of a group of systems: an mva call's one factor (an S
// operand with s0 of 0, or shared planes) read once into every lane, any
// other as load reads it.
template <int W, bool lower = false, class Vt, int R, int C, class O>
ORSM_INLINE void load_factor(Vt (&x)[R][C], const O& o, int first) {
    if (!groups::shared(o)) return load<W, lower>(x, o, first);
    for (int r = 0; r < R; ++r)
        for (int c = 0; c < row_cols<lower, C>(r); ++c) x[r][c] = load_shared<W>(o, first, r, c);
}

}  // namespace
}  // namespace ORSM_TARGET
}  // namespace orsm::lanes
