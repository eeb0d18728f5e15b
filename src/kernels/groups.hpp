// Groups of objects side by side: the frame's half of the fast paths whose
// vector lanes run over objects (kernels/lanes.hpp holds the kernels' half).
//
// Such a kernel reads all W objects of a group before it writes any, where
// the scalar path finishes one object before it reads the next, and it
// writes the group's objects in their order. The two give the same results
// when nothing the group writes meets what it reads of another of its
// objects; a frame hands a group to the fast kernel only when `apart` (or
// `in_place`) says so, and runs the scalar path on it otherwise.
#pragma once

#include <algorithm>

#include "common/base.hpp"
#include "common/layout.hpp"

namespace orsm::groups {

// The objects of an operand in layout S (object n at base + n*s0) or L
// (table[n] + shift), rows s1 apart, elements one element apart.
template <class T> struct Strided {
    T* base;
    ptrdiff_t s0, s1;
    ORSM_INLINE T* obj(int n) const { return byte_off(base, n * s0); }
};
template <class T> struct Listed {
    T* const* table;
    ptrdiff_t shift, s1;
    ORSM_INLINE T* obj(int n) const { return byte_off(table[n], shift); }
};

// The objects of an operand in layout P whose objects stand one element
// apart (structure of arrays): element (r, c) of object n is element n of
// the plane table[r * cols + c] + shift.
// With `shared`, every object is the one object at the planes' first
// elements (the one factor of an mva call): lanes::load_shared reads it once
// into every lane.
template <class T> struct Soa {
    T* const* table;
    ptrdiff_t shift;
    int cols;
    bool shared = false;
    ORSM_INLINE T* plane(int e) const { return byte_off(table[e], shift); }  // e = r * cols + c
    ORSM_INLINE T* plane(int r, int c) const { return plane(r * cols + c); }
};

// The operands of a kernel that reads an object of src and writes one of
// dst.
template <class T, template <class> class Obj> struct SrcDst {
    Obj<const T> src;
    Obj<T> dst;
};
template <class T, bool List>
using SrcDstOf = std::conditional_t<List, SrcDst<T, Listed>, SrcDst<T, Strided>>;

// The operands of a solver over systems with a factor each: factors a,
// right-hand sides b and solutions d (vectors: s1 unused).
template <class T, template <class> class Obj> struct Systems {
    Obj<const T> a;
    Obj<const T> b;
    Obj<T> d;
};
template <class T, bool List>
using SystemsOf = std::conditional_t<List, Systems<T, Listed>, Systems<T, Strided>>;

// The objects of a contiguous S or L accessor.
template <class T, bool C> Strided<T> objects(const SAcc<T, C>& a) { return {a.base, a.s0, a.s1}; }
template <class T, bool C> Listed<T> objects(const LAcc<T, C>& a) { return {a.table, a.shift, a.s1}; }

// Sorts k places ascending: an insertion sort, k being a group's or an
// object's few (at most 64), inline where the frame tests them.
inline void sort_places(const char** at, int k) {
    for (int i = 1; i < k; ++i) {
        const char* x = at[i];
        int j = i;
        for (; j > 0 && at[j - 1] > x; --j) at[j] = at[j - 1];
        at[j] = x;
    }
}

// A range of bytes.
struct Bytes {
    const char* lo;
    const char* hi;
    bool meets(Bytes o) const { return lo < o.hi && o.lo < hi; }
    template <class T> static Bytes of(const T* p, ptrdiff_t elems) {
        const char* c = reinterpret_cast<const char*>(p);
        return {c, c + elems * ptrdiff_t(sizeof(T))};
    }
};

// Whether objects [0, count) of an R x C structure-of-arrays operand share
// no byte with `elems` elements at p.
template <class T, class U> bool apart(const Soa<T>& o, int R, int C, int count, const U* p, ptrdiff_t elems) {
    const Bytes b = Bytes::of(p, elems);
    for (int e = 0; e < R * C; ++e)
        if (Bytes::of(o.plane(e), count).meets(b)) return false;
    return true;
}

// Whether a call may run objects [0, count) of structure-of-arrays planes
// side by side, W at a time: dst's planes apart from one another, and
// apart from src's or on them plane for plane (in place).
template <class T> bool apart_or_in_place(const Soa<const T>& s, const Soa<T>& d, int count, int rows, int cols) {
    const int E = rows * cols;
    if (E > 64) return false;
    const char* at[64];
    bool same = true;
    Bytes sh{nullptr, nullptr}, dh{nullptr, nullptr};  // hulls
    for (int e = 0; e < E; ++e) {
        const Bytes x = Bytes::of(s.plane(e), count), y = Bytes::of(d.plane(e), count);
        same = same && x.lo == y.lo;
        sh = e ? Bytes{std::min(sh.lo, x.lo), std::max(sh.hi, x.hi)} : x;
        dh = e ? Bytes{std::min(dh.lo, y.lo), std::max(dh.hi, y.hi)} : y;
        at[e] = y.lo;
    }
    sort_places(at, E);
    for (int e = 1; e < E; ++e)
        if (at[e] - at[e - 1] < count * ptrdiff_t(sizeof(T))) return false;
    if (same || !sh.meets(dh)) return true;
    for (int e = 0; e < E; ++e)
        if (!apart(d, rows, cols, count, s.plane(e), count)) return false;
    return true;
}

// Whether every object of o is one and the same (the one factor of an mva
// call: an S operand with s0 of 0, or shared planes).
template <class O> bool shared(const O& o) {
    if constexpr (requires { o.s0; }) return o.s0 == 0;
    else if constexpr (requires { o.shared; }) return o.shared;
    else return false;
}

// A P operand's objects as planes, when they stand one element apart; and
// a src and dst pair of them that a call may run W objects at a time.
template <class T> bool one_apart(const PAcc<T>& a) { return a.s0 == ptrdiff_t(sizeof(T)); }
template <class T> Soa<T> planes(const PAcc<T>& a) { return {a.table, a.shift, a.cols, a.s0 == 0}; }
template <class T> SrcDst<T, Soa> planes(const PAcc<const T>& s, const PAcc<T>& d) { return {planes(s), planes(d)}; }
template <class T> bool planes_fit(const PAcc<const T>& s, const PAcc<T>& d, int count, int rows, int cols) {
    return one_apart(s) && one_apart(d) && apart_or_in_place(planes(s), planes(d), count, rows, cols);
}

// Whether a call may solve systems [0, count) of order n over
// structure-of-arrays planes side by side: factors (shared, or one element
// apart) and vectors as planes; the solutions' planes apart from one
// another, from the factors' and from `extra` elements at p, and apart from
// the vectors' or on them plane for plane.
template <class T> bool planes_fit(const PAcc<const T>& a, const PAcc<const T>& b, const PAcc<T>& d, int n, int count,
                                   const int* p = nullptr, ptrdiff_t extra = 0) {
    if (!(a.s0 == 0 || one_apart(a)) || !planes_fit(b, d, count, 1, n)) return false;
    const Soa<T> s = planes(d);
    for (int e = 0; e < n * n; ++e)
        if (!apart(s, 1, n, count, &a(0, e / n, e % n), a.s0 == 0 ? 1 : count)) return false;
    return !p || apart(s, 1, n, count, p, extra);
}

// Runs run(first) on systems [0, n) of a P call, W at a time while whole
// groups remain, when planes_fit lets the call go over planes; returns n,
// where the scalar path goes on.
template <class A, class B, class D, class Run>
int in_plane_groups(const A& a, const B& b, const D& d, int order, int count, int W, Run&& run,
                    const int* p = nullptr, ptrdiff_t extra = 0) {
    int n = 0;
    if (W > 1 && count >= W && planes_fit(a, b, d, order, count, p, extra))
        for (; n + W <= count; n += W) run(n);
    return n;
}

// Bytes of one object of `rows` rows of `cols` elements.
template <class O> ptrdiff_t extent(const O& o, int rows, int cols) {
    return (rows - 1) * o.s1 + cols * ptrdiff_t(sizeof(*o.obj(0)));
}
// The hull of objects [first, first + k).
template <class T> Bytes hull(const Strided<T>& o, int first, int k, int rows, int cols) {
    const char* lo = reinterpret_cast<const char*>(o.obj(first));
    return {lo, reinterpret_cast<const char*>(o.obj(first + k - 1)) + extent(o, rows, cols)};
}
template <class T> Bytes hull(const Listed<T>& o, int first, int k, int rows, int cols) {
    const char *lo = reinterpret_cast<const char*>(o.obj(first)), *hi = lo;
    for (int n = first + 1; n < first + k; ++n) {
        const char* p = reinterpret_cast<const char*>(o.obj(n));
        lo = p < lo ? p : lo;
        hi = p > hi ? p : hi;
    }
    return {lo, hi + extent(o, rows, cols)};
}

// dst rewrites src in place object by object: the same objects and row
// stride, no two objects overlapping. The scalar path too reads such an
// object whole before it writes it.
template <class T> bool in_place(const Strided<const T>& s, const Strided<T>& d, int, int, int rows, int cols) {
    const ptrdiff_t row = cols * ptrdiff_t(sizeof(T));
    return s.obj(0) == d.obj(0) && s.s0 == d.s0 && (rows == 1 || (s.s1 == d.s1 && s.s1 >= row)) &&
           s.s0 >= extent(s, rows, cols);
}
template <class T> bool in_place(const Listed<const T>& s, const Listed<T>& d, int first, int k, int rows,
                                 int cols) {
    if (rows > 1 && (s.s1 != d.s1 || s.s1 < cols * ptrdiff_t(sizeof(T)))) return false;
    const char* at[64];
    if (k > 64) return false;
    for (int i = 0; i < k; ++i) {
        if (s.obj(first + i) != d.obj(first + i)) return false;
        at[i] = reinterpret_cast<const char*>(d.obj(first + i));
    }
    sort_places(at, k);
    const ptrdiff_t e = extent(s, rows, cols);
    for (int i = 1; i < k; ++i)
        if (at[i] - at[i - 1] < e) return false;
    return true;
}

// Whether the rows of o's rows x cols blocks stand at least cols elements
// apart, so that no two of an object's rows meet.
template <class O> bool rows_apart(const O& o, int rows, int cols) {
    return rows == 1 || o.s1 >= cols * ptrdiff_t(sizeof(*o.obj(0)));
}
// The same for a block known when compiling, as lanes::store needs.
template <int R, int C, class O> bool rows_apart(const O& o) { return rows_apart(o, R, C); }

// Whether objects [first, first + k) may run side by side when each reads
// a rows x cols block of src and writes one of dst: dst apart from src, or
// rewriting it in place object by object; and dst's rows apart, since a
// group writes an object's rows in an order of its own.
template <class S, class D> bool apart_or_in_place(const S& src, const D& dst, int first, int k, int rows, int cols) {
    const Bytes s = hull(src, first, k, rows, cols), d = hull(dst, first, k, rows, cols);
    return rows_apart(dst, rows, cols) && (!s.meets(d) || in_place(src, dst, first, k, rows, cols));
}

// Whether systems [first, first + k) of order n may be solved side by
// side: their solutions apart from the factors, and apart from the vectors
// or on them system by system.
template <class T, template <class> class Obj> bool apart(const Systems<T, Obj>& g, int n, int first, int k) {
    return !hull(g.d, first, k, 1, n).meets(hull(g.a, first, k, n, n)) && apart_or_in_place(g.b, g.d, first, k, 1, n);
}

// Whether objects [first, first + k) of R x C blocks share no byte, so
// that writing them in any order leaves what writing them one after
// another does. A list in ascending places is tested as it stands, any
// other sorted first (k at most 64).
template <class T> bool objects_apart(const Strided<T>& o, int, int, int R, int C) { return o.s0 >= extent(o, R, C); }
template <class T> bool objects_apart(const Listed<T>& o, int first, int k, int R, int C) {
    const ptrdiff_t e = extent(o, R, C);
    auto gaps_ok = [&](auto at) {
        for (int n = 1; n < k; ++n)
            if (reinterpret_cast<const char*>(at(n)) - reinterpret_cast<const char*>(at(n - 1)) < e) return false;
        return true;
    };
    if (gaps_ok([&](int n) { return o.obj(first + n); })) return true;
    if (k > 64) return false;
    const char* at[64];
    for (int n = 0; n < k; ++n) at[n] = reinterpret_cast<const char*>(o.obj(first + n));
    sort_places(at, k);
    return gaps_ok([&](int n) { return at[n]; });
}

// Runs objects [0, count) in order: W at a time where group(n) takes them
// (returns true, having done them), else one(n) object by object up to the
// next group. The first failing status of one() ends the run. W below 2:
// no groups.
template <class G, class O> ORSM_INLINE OrsStatus in_groups(int count, int W, G&& group, O&& one) {
    for (int n = 0; n < count;) {
        if (W > 1 && n + W <= count && group(n)) {
            n += W;
            continue;
        }
        for (const int end = W > 1 ? std::min(count, n + W) : count; n < end; ++n)
            if (const OrsStatus st = one(n); st != StatusOk) return st;
    }
    return StatusOk;
}

}  // namespace orsm::groups
