// Element-wise kernels: every result element is one IEEE operation in the
// element type, first operand first. What differs between kernels is only the
// shape of the loop, which decides what a dst that overlaps a source sees:
//
//  - fixed-length paths (vec_fixed): each object is read whole, computed, then
//    written; a single operand may be loaded once before the loop over
//    objects and held, so writes to dst never feed back into it;
//  - the general loop (vec_any): n ascending, i ascending, one element read
//    and written at a time;
//  - the long loop (vec_long): per object, a restrict loop the compiler
//    vectorises, unless dst overlaps a source, when it falls back to one
//    element at a time, ascending.
//
// Operands of a kernel are wrapped by kind: Many (an array operand), One (a
// single vector read by every object) and Cst (a constant).
#pragma once

#include <cstdint>

#include "common/layout.hpp"
#include "elementwise/fastpath.hpp"

namespace orsm::ew {

// `id` numbers the operation in the run tables of the fast paths.
struct AddOp {
    static constexpr int id = opAdd;
    template <class T> ORSM_INLINE static T apply(T a, T b) { return a + b; }
};
struct SubOp {
    static constexpr int id = opSub;
    template <class T> ORSM_INLINE static T apply(T a, T b) { return a - b; }
};
struct MulOp {
    static constexpr int id = opMul;
    template <class T> ORSM_INLINE static T apply(T a, T b) { return a * b; }
};

// An array operand: object n is its own vector.
template <class A> struct Many {
    static constexpr bool single = false;
    using T = Plain<typename A::value_type>;
    A acc;
    T get(int n, int i) const { return acc.v(n, i); }
    const T* line(int n) const { return acc.obj(n); }
    Many object(int f) const { return {acc.object(f)}; }
    template <bool C> auto as() const { return Many<decltype(acc.template as<C>())>{acc.template as<C>()}; }
    ptrdiff_t s2() const { return acc.s2_; }
};
// A single vector shared by all objects: it never moves to another object.
template <class A> struct One {
    static constexpr bool single = true;
    using T = Plain<typename A::value_type>;
    A acc;
    T get(int, int i) const { return acc.v(0, i); }
    const T* line(int) const { return acc.obj(0); }
    One object(int) const { return *this; }
    template <bool C> auto as() const { return One<decltype(acc.template as<C>())>{acc.template as<C>()}; }
    ptrdiff_t s2() const { return acc.s2_; }
};
// A constant, passed by value.
template <class E> struct Cst {
    static constexpr bool single = true;
    using T = E;
    E value;
    E get(int, int) const { return value; }
    E line(int) const { return value; }
    Cst object(int) const { return *this; }
    template <bool> Cst as() const { return *this; }
    ptrdiff_t s2() const { return sizeof(E); }
};
template <class A> Many<A> many(A a) { return {a}; }
template <class A> One<A> one(A a) { return {a}; }
template <class E> Cst<E> cst(E v) { return {v}; }

// The same operands as the fast paths see them.
template <class A> ArrOp<A> fast_view(const Many<A>& m) { return {m.acc}; }
template <class A> OneOp<A> fast_view(const One<A>& o) { return {o.acc}; }
template <class E> CstOp<E> fast_view(const Cst<E>& c) { return {c.value}; }

// The contiguity test of layouts S and L over all operands of a call.
template <class T, class... O> bool contiguous(const O&... o) {
    return ((o.s2() == ptrdiff_t(sizeof(T))) && ...);
}

// Which paths a vector kernel has: unrolled lengths 3 to 6 (`fixed`), the
// single operand held across objects on those paths (`hold`), and the
// vectorised long loop from a length on (`long_from`, 0 for none).
struct VecPaths {
    bool fixed;
    bool hold;
    int long_from;
};

// Objects read whole: all N elements of both sources, then the N results,
// each by `op(x, y)` element by element (Op::per_element) or by
// `op.object(x, y, r)` on the whole object; a single operand is held when
// Hold says so.
template <int N, bool Hold, class Op, class D, class A, class B>
void obj_fixed(const Op& op, const D& d, const A& a, const B& b, int count) {
    using T = Plain<typename D::value_type>;
    constexpr bool ha = Hold && A::single, hb = Hold && B::single;
    T xa[N], xb[N];
    if constexpr (ha)
        for (int i = 0; i < N; ++i) xa[i] = a.get(0, i);
    if constexpr (hb)
        for (int i = 0; i < N; ++i) xb[i] = b.get(0, i);
    for (int n = 0; n < count; ++n) {
        T ya[N], yb[N], r[N];
        for (int i = 0; i < N; ++i) ya[i] = ha ? xa[i] : a.get(n, i);
        for (int i = 0; i < N; ++i) yb[i] = hb ? xb[i] : b.get(n, i);
        if constexpr (Op::per_element)
            for (int i = 0; i < N; ++i) r[i] = op(ya[i], yb[i]);
        else
            op.object(ya, yb, r);
        for (int i = 0; i < N; ++i) d.v(n, i) = r[i];
    }
}
template <class Op> struct PerElement {
    static constexpr bool per_element = true;
    template <class T> ORSM_INLINE T operator()(T x, T y) const { return Op::apply(x, y); }
};
template <int N, bool Hold, class Op, class D, class A, class B>
void vec_fixed(const D& d, const A& a, const B& b, int count) {
    obj_fixed<N, Hold>(PerElement<Op>{}, d, a, b, count);
}

template <class Op, class D, class A, class B>
void vec_any(const D& d, const A& a, const B& b, int len, int count) {
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < len; ++i) d.v(n, i) = Op::apply(a.get(n, i), b.get(n, i));
}

// Contiguous lines of the long loop; a constant is a T, a vector a pointer.
template <class T> inline T elem(const T* p, int i) { return p[i]; }
template <class T> inline T elem(T v, int) { return v; }
template <class T> inline bool overlaps(const T* d, int len, const T* s) {
    const auto bytes = std::uintptr_t(len) * sizeof(T);
    const auto pd = reinterpret_cast<std::uintptr_t>(d), ps = reinterpret_cast<std::uintptr_t>(s);
    return pd < ps + bytes && ps < pd + bytes;
}
template <class T> inline bool overlaps(const T*, int, T) { return false; }

template <class Op, class T, class A, class B>
void line_restrict(T* __restrict d, A a, B b, int len) {
    if constexpr (std::is_pointer_v<A> && std::is_pointer_v<B>) {
        const T* __restrict pa = a;
        const T* __restrict pb = b;
        for (int i = 0; i < len; ++i) d[i] = Op::apply(pa[i], pb[i]);
    } else if constexpr (std::is_pointer_v<A>) {
        const T* __restrict pa = a;
        for (int i = 0; i < len; ++i) d[i] = Op::apply(pa[i], b);
    } else {
        const T* __restrict pb = b;
        for (int i = 0; i < len; ++i) d[i] = Op::apply(a, pb[i]);
    }
}

template <class Op, class D, class A, class B>
void vec_long(const D& d, const A& a, const B& b, int len, int count) {
    for (int n = 0; n < count; ++n) {
        auto* pd = d.obj(n);
        const auto la = a.line(n);
        const auto lb = b.line(n);
        if (overlaps(pd, len, la) || overlaps(pd, len, lb)) {
            // dst overlaps a source: one element at a time, ascending.
            for (int i = 0; i < len; ++i) pd[i] = Op::apply(elem(la, i), elem(lb, i));
        } else {
            line_restrict<Op>(pd, la, lb, len);
        }
    }
}

// A vector kernel: the length is looked at once, outside the loop over
// objects.
template <VecPaths P, class Op, class D, class A, class B>
OrsStatus vec_kernel(const D& d, const A& a, const B& b, int len, int count) {
    if constexpr (P.fixed) switch (len) {
            case 3: vec_fixed<3, P.hold, Op>(d, a, b, count); return StatusOk;
            case 4: vec_fixed<4, P.hold, Op>(d, a, b, count); return StatusOk;
            case 5: vec_fixed<5, P.hold, Op>(d, a, b, count); return StatusOk;
            case 6: vec_fixed<6, P.hold, Op>(d, a, b, count); return StatusOk;
            default: break;
        }
    if constexpr (P.long_from > 0)
        if (len >= P.long_from) {
            vec_long<Op>(d, a, b, len, count);
            return StatusOk;
        }
    vec_any<Op>(d, a, b, len, count);
    return StatusOk;
}

// Kernel kinds of a layout: S and L choose between a contiguous and a strided
// kernel, P has one.
enum class Kind { Contig, S2, LS2, P };

// Runs the kernel of the call's layout on objects [f, f + k): S and L test
// the element strides of all operands, then pick the contiguous or the
// strided paths; `Paths::of(kind)` gives each kernel's paths.
template <char Lay, class Paths, class Op, class D, class A, class B>
OrsStatus vec_share(const D& d, const A& a, const B& b, int len, int k) {
    using T = Plain<typename D::value_type>;
    if constexpr (Lay == 'P') {
        if constexpr (!A::single || !B::single)
            if (planes_path<Op::id, T>(d, fast_view(a), fast_view(b), len, 1, k)) return StatusOk;
        return vec_kernel<Paths::of(Kind::P), Op>(d, a, b, len, k);
    } else {
        if (contiguous<T>(many(d), a, b)) {
            const auto dc = d.template as<true>();
            const auto ac = a.template as<true>();
            const auto bc = b.template as<true>();
            if constexpr (Lay == 'S' && (!A::single || !B::single))
                if (flat_path<Op::id, T>(dc, fast_view(ac), fast_view(bc), len, 1, k)) return StatusOk;
            return vec_kernel<Paths::of(Kind::Contig), Op>(dc, ac, bc, len, k);
        }
        return vec_kernel<Paths::of(Lay == 'S' ? Kind::S2 : Kind::LS2), Op>(d, a, b, len, k);
    }
}

}  // namespace orsm::ew
