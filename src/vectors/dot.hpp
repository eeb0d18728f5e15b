// Sums of products over a vector: DotProduct (src1 . src2, forms vv, vav,
// vava) and L2Norm (the root of src . src, forms v, va). Results go to a
// packed array of scalars, result n at dst[n].
//
// One kernel template serves both families. What differs between kernels is
// data, held in a table from (family, form, type, kernel kind) to a Cell:
//   - the addition tree of lengths 3 to 6, written in postfix below;
//   - for the norm's contiguous 32f array kernels, a second tree for the
//     objects past the call's last group of four;
//   - the long packed sum whose lane order depends on the address of src2;
//   - whether the root is the 32f reciprocal-root estimate with a Newton
//     step (lengths 3 to 6) or the correctly rounded square root.
// Every product and every sum is rounded to the element type; nothing is
// widened and nothing is fused.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "common/checks.hpp"
#include "common/estimates.hpp"
#include "common/parallel.hpp"
#include "vectors/vectors.hpp"

namespace orsm::dot {

using vec::Kind;
using orsm::rsqrt_estimate;

// ---- addition trees ---------------------------------------------------------------

// Trees of lengths 3 to 6 in postfix: a digit k pushes p_k, '+' adds the top
// two terms, the lower one first. The rest of the lengths sum ascending from
// +0 in every kernel.
enum class Tree : unsigned char {
    Plain,      // ascending from the first term
    Strided,    // ascending, but positions 4 and 5 are taken first
    Pairs64,    // two-wide lanes over pairs of elements
    Vav32,      // four objects at a time, lanes over objects
    NormV32,    // the norm of one 32f vector: neighbours paired
    NormGroup,  // the norm's 32f objects in groups of four
    NormRest,   // ... and the objects after the last group
    Norm64,     // the norm's 64f kernels: even and odd positions apart
};

// A row per tree, lengths 3 to 6.
inline constexpr std::string_view tree_codes[][4] = {
    {"01+2+", "01+2+3+", "01+2+3+4+", "01+2+3+4+5+"},  // Plain
    {"01+2+", "01+2+3+", "40+1+2+3+", "45+0+1+2+3+"},  // Strided
    {"01+2+", "02+13++", "02+13++4+", "024++135+++"},  // Pairs64
    {"01+2+", "01+23++", "01+2+3+4+", "01+2+3+4+5+"},  // Vav32
    {"01+2+", "01+23++", "01+23++4+", "01+23++45++"},  // NormV32
    {"01+2+", "01+2+3+", "02+13++4+", "02+4+13+5++"},  // NormGroup
    {"01+2+", "01+2+3+", "01+23++4+", "02+4+13+5++"},  // NormRest
    {"02+1+", "02+13++", "02+4+13++", "02+4+13+5++"},  // Norm64
};
constexpr std::string_view tree_code(Tree t, int n) { return tree_codes[int(t)][n - 3]; }

// A tree of length n names each term once and leaves one sum.
constexpr bool well_formed(std::string_view c, int n) {
    int depth = 0;
    unsigned seen = 0;
    for (char ch : c) {
        if (ch == '+') {
            if (--depth < 1) return false;
        } else {
            const int k = ch - '0';
            if (k < 0 || k >= n || (seen >> k & 1)) return false;
            seen |= 1u << k, ++depth;
        }
    }
    return depth == 1 && seen == (1u << n) - 1;
}
constexpr int depth_before(std::string_view c, std::size_t i) {
    int d = 0;
    for (std::size_t j = 0; j < i; ++j) d += c[j] == '+' ? -1 : 1;
    return d;
}
template <Tree tr, int N> struct Code {
    static constexpr std::string_view c = tree_code(tr, N);
    static_assert(well_formed(c, N), "an addition tree must add each term once");
};

template <char ch, int d, class V, int N> ORSM_INLINE void tree_step(V* st, const V (&p)[N]) {
    if constexpr (ch == '+') st[d - 2] = st[d - 2] + st[d - 1];
    else st[d] = p[ch - '0'];
}
// p_0 .. p_{N-1} summed by tree tr; V is an element or a group of lanes.
template <Tree tr, int N, class V> ORSM_INLINE V tree_sum(const V (&p)[N]) {
    using C = Code<tr, N>;
    V st[N];
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (tree_step<C::c[I], depth_before(C::c, I)>(st, p), ...);
    }(std::make_index_sequence<C::c.size()>());
    return st[0];
}

// Four objects side by side, one lane each.
template <class T> struct Lanes {
    T v[4];
    friend ORSM_INLINE Lanes operator+(Lanes a, const Lanes& b) {
        for (int j = 0; j < 4; ++j) a.v[j] = a.v[j] + b.v[j];
        return a;
    }
};

// ---- the long packed sum ----------------------------------------------------------

// Products p_k = a[k] * b[k] of contiguous vectors (a == b for the norm).
template <class T> struct Terms {
    const T* a;
    const T* b;
    ORSM_INLINE T operator()(int k) const { return a[k] * b[k]; }
    // The same from addresses with no alignment at all.
    ORSM_INLINE T loose(int k) const {
        T x, y;
        std::memcpy(&x, a + k, sizeof x);
        std::memcpy(&y, b + k, sizeof y);
        return x * y;
    }
};

// Two accumulators of W = 16 / sizeof(T) lanes, the prologue's sum in lane 0
// of the first. Rounds of 8 elements: each run of W elements goes to the
// accumulators in turn (32f: A takes 0-3, B 4-7; 64f: A takes 0, 1 and 4, 5,
// B 2, 3 and 6, 7). Then A + B lane by lane, the lanes summed pairwise,
// (l0 + l1) + (l2 + l3), and the tail added one at a time.
template <class T> T lane_sum(Terms<T> p, int len, int e, T pro) {
    constexpr int W = 16 / int(sizeof(T));
    T acc[2][W] = {};
    acc[0][0] = pro;
    const int r = len - e, end = e + (r - r % 8);
    int k = e;
    for (; k < end; k += 8)
        for (int q = 0; q < 8 / W; ++q)
            for (int j = 0; j < W; ++j) acc[q % 2][j] = acc[q % 2][j] + p(k + q * W + j);
    for (int j = 0; j < W; ++j) acc[0][j] = acc[0][j] + acc[1][j];
    T s;
    if constexpr (W == 4) s = (acc[0][0] + acc[0][1]) + (acc[0][2] + acc[0][3]);
    else s = acc[0][0] + acc[0][1];
    for (; k < len; ++k) s = s + p(k);
    return s;
}

// The long sum as its kernels run it: the prologue brings src2 to a 16-byte
// boundary, so the same data at another address may round differently.
// 32f: a prologue of (16 - a) / 4 elements summed from +0, a being the low
// four bits of src2's address; 64f: a of 8 gives one element, the bare
// first product. An address that is no multiple of the element size takes
// the plain loop (served, only slower).
template <class T> T long_sum(Terms<T> p, int len) {
    const int a = int(reinterpret_cast<std::uintptr_t>(p.b) & 15);
    if (a % int(sizeof(T)) != 0) {
        T s = T(0);
        for (int k = 0; k < len; ++k) s = s + p.loose(k);
        return s;
    }
    const int e = a == 0 ? 0 : (16 - a) / int(sizeof(T));
    T pro = T(0);
    if constexpr (sizeof(T) == 8) {
        if (e == 1) pro = p(0);
    } else {
        for (int k = 0; k < e; ++k) pro = pro + p(k);
    }
    return lane_sum(p, len, e, pro);
}

// ---- roots ------------------------------------------------------------------------

// The root from the estimate and one Newton step, each operation rounded.
// There is no guard against a zero sum: the estimate is +inf, s * (y * y)
// is NaN, and so is the norm of a zero vector on this path (its lengths 3
// to 6), where every other kernel and length gives 0.
ORSM_INLINE float newton_root(float s) {
    const float y = rsqrt_estimate(s);
    const float t = s * (y * y);
    const float u = 0.5f * (3.0f - t);
    return s * (y * u);
}

// ---- kernels ----------------------------------------------------------------------

enum class Fam : unsigned char { Dot, Norm };
enum class Form : unsigned char { One, Arr, ArrArr };  // vv/v, vav/va, vava
enum class Long : unsigned char { None, Vv, Vava32 };

struct Cell {
    Tree tree;           // lengths 3 to 6
    Tree rest;           // the same, for objects past the call's last group of four
    Long lng;            // the long packed sum, if any
    bool estimate;       // 32f lengths 3 to 6: estimate and Newton step for the root
};

template <class T> constexpr Cell cell(Fam fam, Form form, Kind k) {
    constexpr bool is64 = sizeof(T) == 8;
    const bool contig = k == Kind::S || k == Kind::L;
    if (fam == Fam::Dot) {
        // The strided kernels take positions 4 and 5 first at lengths 5, 6.
        if (k == Kind::S2 || k == Kind::LS2) return {Tree::Strided, Tree::Strided, Long::None, false};
        if (!contig) return {Tree::Plain, Tree::Plain, Long::None, false};
        if (is64) return {Tree::Pairs64, Tree::Pairs64, form == Form::One ? Long::Vv : Long::None, false};
        if (form == Form::Arr) return {Tree::Vav32, Tree::Vav32, Long::None, false};
        const Long l = form == Form::One ? Long::Vv : k == Kind::S ? Long::Vava32 : Long::None;
        return {Tree::Plain, Tree::Plain, l, false};
    }
    if (!contig) return {Tree::Plain, Tree::Plain, Long::None, false};
    const Long l = form == Form::One ? Long::Vv : Long::None;
    if (is64) return {Tree::Norm64, Tree::Norm64, l, false};
    if (form == Form::One) return {Tree::NormV32, Tree::NormV32, l, true};
    return {Tree::NormGroup, Tree::NormRest, l, true};
}

// Length from which the long sum of one vector runs.
template <class T> constexpr int long_from = sizeof(T) == 4 ? 11 : 9;

template <Fam fam, bool Est, class V> ORSM_INLINE V finish(V s) {
    if constexpr (fam == Fam::Dot) return s;
    else if constexpr (Est) return newton_root(s);
    else return std::sqrt(s);
}

// One kernel call: objects [0, count) of the operands, which are objects
// first .. first + count - 1 of a call of `total` objects. For the norm's
// grouped kernels the groups of four are the call's, whatever its shares:
// an object sums by the group tree if it lies before the call's last
// total % 4 objects.
template <Fam fam, class T, class A, class B> struct Job {
    T* dst;
    A a;
    B b;
    int len, first, total, count;
    ORSM_INLINE T term(int n, int k) const {
        if constexpr (fam == Fam::Norm) {
            const T x = a.get(n, k);
            return x * x;
        } else {
            return a.get(n, k) * b.get(n, k);
        }
    }
    Terms<T> terms(int n) const {
        if constexpr (fam == Fam::Norm) return {a.line(n), a.line(n)};
        else return {a.line(n), b.line(n)};
    }
};

template <int N, Tree tr, bool Est, Fam fam, class T, class A, class B>
ORSM_INLINE T one_object(const Job<fam, T, A, B>& j, int n) {
    T p[N];
    for (int k = 0; k < N; ++k) p[k] = j.term(n, k);
    return finish<fam, Est>(tree_sum<tr>(p));
}

template <int N, Cell c, Fam fam, class T, class A, class B> void fixed(const Job<fam, T, A, B>& j) {
    int grouped = j.count;
    if constexpr (c.rest != c.tree) {
        const int g = j.total - j.total % 4 - j.first;
        grouped = g < 0 ? 0 : g < j.count ? g : j.count;
    }
    // Four objects side by side, read element by element: nothing past an
    // object's last element is fetched, whatever its alignment.
    int n = 0;
    for (; n + 4 <= grouped; n += 4) {
        Lanes<T> p[N];
        for (int k = 0; k < N; ++k)
            for (int l = 0; l < 4; ++l) p[k].v[l] = j.term(n + l, k);
        const Lanes<T> s = tree_sum<c.tree>(p);
        for (int l = 0; l < 4; ++l) j.dst[n + l] = finish<fam, c.estimate>(s.v[l]);
    }
    for (; n < grouped; ++n) j.dst[n] = one_object<N, c.tree, c.estimate>(j, n);
    for (; n < j.count; ++n) j.dst[n] = one_object<N, c.rest, c.estimate>(j, n);
}

// The 32f vava long sum: one test per call, the bitwise OR of both bases and
// both object strides. With its low four bits clear no object needs a
// prologue and the packed rounds start at length 8; otherwise each object
// takes the vv long sum on its own addresses, from length 11.
template <class J> bool vava_aligned(const J& j) {
    const auto at = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p); };
    const auto bits = at(j.a.line(0)) | at(j.b.line(0)) | std::uintptr_t(j.a.acc.s0) | std::uintptr_t(j.b.acc.s0);
    return (bits & 15) == 0;
}

template <Cell c, Fam fam, class T, class A, class B> void kernel(const Job<fam, T, A, B>& j) {
    switch (j.len) {  // looked at once, outside the loop over objects
        case 3: return fixed<3, c>(j);
        case 4: return fixed<4, c>(j);
        case 5: return fixed<5, c>(j);
        case 6: return fixed<6, c>(j);
        default: break;
    }
    if constexpr (c.lng == Long::Vv) {
        if (j.len >= long_from<T>) {
            for (int n = 0; n < j.count; ++n) j.dst[n] = finish<fam, false>(long_sum(j.terms(n), j.len));
            return;
        }
    } else if constexpr (c.lng == Long::Vava32) {
        const bool al = vava_aligned(j);
        if (j.len >= (al ? 8 : long_from<T>)) {
            for (int n = 0; n < j.count; ++n)
                j.dst[n] = al ? lane_sum(j.terms(n), j.len, 0, T(0)) : long_sum(j.terms(n), j.len);
            return;
        }
    }
    for (int n = 0; n < j.count; ++n) {
        T s = T(0);
        for (int k = 0; k < j.len; ++k) s = s + j.term(n, k);
        j.dst[n] = finish<fam, false>(s);
    }
}

// ---- frames -----------------------------------------------------------------------

// Limits, serial below each (W equal goes parallel). DotProduct by kernel
// kind (S, S2, L, LS2, P) and type, the same for vav and vava; note 32f
// layout L, one limit for both of its kernels. L2Norm has one limit.
inline constexpr int dot_limits[5][2] = {{5001, 3501}, {2621, 2001}, {2401, 4201}, {2401, 3301}, {2401, 2001}};
template <class T> constexpr Limit limit(Fam fam, Kind k) {
    if (fam == Fam::Norm) return serial_below(1501);
    return serial_below(dot_limits[int(k)][sizeof(T) == 8]);
}

// Work estimates: DotProduct vav l (n + 1), vava 2 l n; L2Norm l n.
constexpr int work(Fam fam, Form form, int len, int count) {
    if (fam == Fam::Norm) return wmul(len, count);
    return form == Form::ArrArr ? wmul(2, len, count) : wmul(len, wadd(count, 1));
}

template <Fam fam, Form form, char Lay, class T, class A, class B>
OrsStatus frame(OrsStatus st, T* dst, const A& a, const B& b, int len, int count) {
    if (st != StatusOk) return st;
    Kind k = Kind::P;
    if constexpr (Lay != 'P') {
        // The contiguity test is on the sources' element strides; dst has none.
        const bool c = ew::contiguous<T>(a, b);
        k = Lay == 'S' ? (c ? Kind::S : Kind::S2) : (c ? Kind::L : Kind::LS2);
    }
    const auto share = [&](int f, int n) {
        const auto af = a.object(f);
        const auto bf = b.object(f);
        if constexpr (Lay == 'P') {
            kernel<cell<T>(fam, form, Kind::P)>(Job<fam, T, decltype(af), decltype(bf)>{dst + f, af, bf, len, f, count, n});
        } else {
            constexpr Kind C = Lay == 'S' ? Kind::S : Kind::L, S2 = Lay == 'S' ? Kind::S2 : Kind::LS2;
            if (k == C) {
                const auto ac = af.template as<true>();
                const auto bc = bf.template as<true>();
                kernel<cell<T>(fam, form, C)>(Job<fam, T, decltype(ac), decltype(bc)>{dst + f, ac, bc, len, f, count, n});
            } else {
                kernel<cell<T>(fam, form, S2)>(Job<fam, T, decltype(af), decltype(bf)>{dst + f, af, bf, len, f, count, n});
            }
        }
        return StatusOk;
    };
    if constexpr (form == Form::One) return share(0, 1);
    else return dispatch(work(fam, form, len, count), limit<T>(fam, k), count, share);
}

}  // namespace orsm::dot
