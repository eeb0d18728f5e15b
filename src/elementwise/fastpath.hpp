// Fast paths of the element-wise array kernels, taken ahead of the kernels'
// own paths when they cannot give a different result:
//
//  - planes (layout P, every array operand with an object stride of one
//    element): each table entry points at a plane of `count` values, so the
//    call is computed entry by entry, one run over the objects each;
//  - flat (layout S, contiguous, every array operand packed: rows back to
//    back, objects back to back): the call is one run over all elements,
//    a single operand repeating with the object's period.
//
// Both change the order in which elements are read and written, which a
// caller can only observe when dst shares memory with a source (or with
// itself). So each path first proves that no element written is read or
// written by any other element's operation: dst planes (or the dst block)
// are disjoint from one another and from every source, but that a dst plane
// may be the very same plane of the same logical element of an array source
// (the in-place call, where each location is read once, by the operation
// that then writes it). A single operand must not meet dst at all. If the
// proof fails the kernel runs as it always does.
#pragma once

#include <algorithm>
#include <cstdint>

#include "common/layout.hpp"
#include "elementwise/lines.hpp"
#include "kernels/streaming.hpp"

namespace orsm::ew {

// Operand kinds of the fast paths: an array, a single object read for every
// object, a constant. Accessors are logical (a transposed source wrapped).
template <class A> struct ArrOp {
    A acc;
};
template <class A> struct OneOp {
    A acc;
};
template <class E> struct CstOp {
    E value;
};
template <class A> ArrOp<A> arr_op(const A& a) { return {a}; }
template <class E> CstOp<E> cst_op(E v) { return {v}; }

// Below these counts the kernels' own paths are as quick (measured on 4 by
// 4 and 3 by 3 objects): the planes path pays a call per table entry.
inline constexpr int kPlanesMinCount = 16;
inline constexpr int kFlatMinCount = 8;
// Most table entries (elements per object) the planes path checks; most
// elements of a single operand the flat path holds.
inline constexpr int kMaxPlanes = 256;
inline constexpr int kMaxPattern = 256;

namespace fast {

inline std::uintptr_t addr(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

template <class T> ptrdiff_t obj_stride(const PAcc<T>& p) { return p.s0; }
template <class A> ptrdiff_t obj_stride(const TAcc<A>& t) { return obj_stride(t.a); }

template <class X> constexpr int kind = -1;
template <class A> constexpr int kind<ArrOp<A>> = 0;
template <class A> constexpr int kind<OneOp<A>> = 1;
template <class E> constexpr int kind<CstOp<E>> = 2;

// Runs d = x op y over n elements with the run kernel that fits the kinds;
// `xv`/`yv` are the operands as pointer or value.
// `streamed`: dst goes past the caches (two array operands only).
template <int Op, int KX, int KY, class T, class X, class Y>
void run(const RunTable<T>& k, T* d, X xv, Y yv, ptrdiff_t n, bool streamed) {
    if constexpr (KX == 0 && KY == 0) (streamed ? k.vv_streamed[Op] : k.vv[Op])(d, xv, yv, n);
    else if constexpr (KX == 0) k.vs[Op](d, xv, yv, n);
    else k.sv[Op](d, xv, yv, n);
}

// Element (r, c) of an operand for the planes path: the plane of an array,
// the value of a single operand or of a constant.
template <class A> const auto* plane(const ArrOp<A>& o, int r, int c) { return &o.acc(0, r, c); }
template <class A> auto plane(const OneOp<A>& o, int r, int c) { return Plain<typename A::value_type>(o.acc(0, r, c)); }
template <class E> E plane(const CstOp<E>& o, int, int) { return o.value; }

template <class X> bool planes_fit(const X& x, ptrdiff_t es) {
    if constexpr (kind<X> == 0) return obj_stride(x.acc) == es;
    else return true;
}

}  // namespace fast

// Layout P with planes of one element stride: entry by entry, objects in a
// run. Returns false, having written nothing, where it does not apply.
template <int Op, class T, class A, class B>
bool planes_path(const PAcc<T>& d, const A& a, const B& b, int w, int h, int count) {
    using namespace fast;
    constexpr ptrdiff_t es = sizeof(T);
    static_assert(kind<A> == 0 || kind<B> == 0, "an array form has an array source");
    if (count < kPlanesMinCount || d.s0 != es || !planes_fit(a, es) || !planes_fit(b, es)) return false;
    const long E = long(w) * h;
    if (E > kMaxPlanes) return false;

    // dst planes, sorted by address: they must be disjoint.
    struct Start {
        std::uintptr_t at;
        int e;
    } ds[kMaxPlanes];
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) ds[r * w + c] = {addr(&d(0, r, c)), r * w + c};
    std::sort(ds, ds + E, [](const Start& x, const Start& y) { return x.at < y.at; });
    const std::uintptr_t len = std::uintptr_t(count) * es;
    for (long i = 0; i + 1 < E; ++i)
        if (ds[i].at + len > ds[i + 1].at) return false;
    const std::uintptr_t lo = ds[0].at, hi = ds[E - 1].at + len;

    // A source span [s, s + n) of element e meets no dst plane, or is the
    // dst plane of e itself (same_ok: an array plane).
    auto clear = [&](std::uintptr_t s, std::uintptr_t n, int e, bool same_ok) {
        if (s + n <= lo || s >= hi) return true;
        const Start* it = std::upper_bound(ds, ds + E, s, [&](std::uintptr_t v, const Start& x) {
            return v < x.at + len;
        });
        if (it == ds + E || it->at >= s + n) return true;
        return same_ok && it->at == s && it->e == e;
    };
    auto source_clear = [&](const auto& x) {
        using X = std::remove_cvref_t<decltype(x)>;
        if constexpr (kind<X> != 2)
            for (int r = 0; r < h; ++r)
                for (int c = 0; c < w; ++c)
                    if (!clear(addr(&x.acc(0, r, c)), kind<X> == 0 ? len : es, r * w + c, kind<X> == 0))
                        return false;
        return true;
    };
    if (!source_clear(a) || !source_clear(b)) return false;

    const RunTable<T>& k = runs<T>();
    const bool streamed = E * long(len) >= streaming::min_bytes();
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c)
            run<Op, kind<A>, kind<B>>(k, &d(0, r, c), plane(a, r, c), plane(b, r, c), count, streamed);
    return true;
}

namespace fast {

// An operand of the flat path: an array must be contiguous, not read
// transposed, with packed rows and packed objects.
template <class X> constexpr bool flat_kind = kind<X> != 0;
template <class T, bool C> constexpr bool flat_kind<ArrOp<SAcc<T, C>>> = C;

template <class T, bool C>
bool packed(const SAcc<T, C>& s, int w, int h, int count) {
    const ptrdiff_t es = sizeof(T);
    return (h == 1 || s.s1 == w * es) && (count == 1 || s.s0 == ptrdiff_t(w) * h * es);
}

// Bytes spanned by the elements of a single operand.
template <class A> std::pair<std::uintptr_t, std::uintptr_t> span(const A& acc, int w, int h) {
    std::uintptr_t lo = UINTPTR_MAX, hi = 0;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) {
            const std::uintptr_t p = addr(&acc(0, r, c));
            lo = std::min(lo, p);
            hi = std::max(hi, p + sizeof(acc(0, r, c)));
        }
    return {lo, hi};
}

}  // namespace fast

// Layout S, contiguous, packed arrays: one run over count * w * h elements.
// Returns false, having written nothing, where it does not apply.
template <int Op, class T, class A, class B>
bool flat_path(const SAcc<T, true>& d, const A& a, const B& b, int w, int h, int count) {
    using namespace fast;
    if constexpr (!flat_kind<A> || !flat_kind<B>) {
        return false;
    } else {
        static_assert(kind<A> == 0 || kind<B> == 0, "an array form has an array source");
        const long E = long(w) * h;
        if (count < kFlatMinCount || !packed(d, w, h, count)) return false;
        const ptrdiff_t total = ptrdiff_t(count) * E;
        const std::uintptr_t lo = addr(d.base), hi = lo + std::uintptr_t(total) * sizeof(T);
        // An array source is dst itself or apart from it; a single one apart.
        auto clear = [&](const auto& x) {
            using X = std::remove_cvref_t<decltype(x)>;
            if constexpr (kind<X> == 0) {
                if (!packed(x.acc, w, h, count)) return false;
                const std::uintptr_t s = addr(x.acc.base);
                return s == lo || s >= hi || s + (hi - lo) <= lo;
            } else if constexpr (kind<X> == 1) {
                if (E > kMaxPattern) return false;
                const auto [slo, shi] = span(x.acc, w, h);
                return shi <= lo || slo >= hi;
            } else {
                return true;
            }
        };
        if (!clear(a) || !clear(b)) return false;

        // A single operand is read once, before anything is written.
        T pat[kind<A> == 1 || kind<B> == 1 ? kMaxPattern : 1];
        auto hold = [&](const auto& x) {
            using X = std::remove_cvref_t<decltype(x)>;
            if constexpr (kind<X> == 1)
                for (int r = 0; r < h; ++r)
                    for (int c = 0; c < w; ++c) pat[r * w + c] = x.acc(0, r, c);
        };
        hold(a);
        hold(b);
        const RunTable<T>& k = runs<T>();
        if constexpr (kind<A> == 0 && kind<B> == 1) k.vp[Op](d.base, a.acc.base, pat, int(E), total);
        else if constexpr (kind<A> == 1 && kind<B> == 0) k.pv[Op](d.base, pat, b.acc.base, int(E), total);
        else if constexpr (kind<A> == 0 && kind<B> == 0)
            (long(hi - lo) >= streaming::min_bytes() ? k.vv_streamed[Op] : k.vv[Op])(d.base, a.acc.base,
                                                                                   b.acc.base, total);
        else if constexpr (kind<A> == 0) k.vs[Op](d.base, a.acc.base, b.value, total);
        else k.sv[Op](d.base, a.value, b.acc.base, total);
        return true;
    }
}

}  // namespace orsm::ew
