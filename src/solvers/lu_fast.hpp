// Fast paths of LUDecomp and LUBackSubst over packed arrays in layout S: the
// lanes of a vector run over objects, L consecutive objects (a group) at a
// time, each lane doing exactly the scalar size path's operations on its own
// object. They live in lu_fast.multi.cpp, compiled once per instruction-set
// target; the frames pick the current target's table (kernels/isa.hpp).
//
// A group reads all its objects before it writes any, and writes only when
// every lane has passed its tests. A group with a singular object writes
// nothing and returns false: the frame then runs the scalar path on those
// objects in order, which stops at the failing object and leaves dst as the
// scalar path leaves it. Reading a whole group first changes nothing only
// when dst cannot meet the sources of other objects: the frame takes the
// groups only when `groups_safe` says so.
#pragma once

#include "common/base.hpp"
#include "kernels/isa.hpp"

namespace orsm::solve {

// A packed S operand: object n at base + n*s0, row r at + r*s1, elements
// one element apart.
template <class T> struct Packed {
    T* base;
    ptrdiff_t s0, s1;
    // The bytes of objects [0, count) of `rows` rows of N elements.
    const char* lo() const { return reinterpret_cast<const char*>(base); }
    const char* hi(int count, int rows, int N) const {
        return lo() + (count - 1) * s0 + (rows - 1) * s1 + N * ptrdiff_t(sizeof(T));
    }
};

template <class T> struct DecompGroup {
    Packed<const T> src;
    Packed<T> dst;
    int* index;  // N entries per object
};
template <class T> struct SolveGroup {
    Packed<const T> a;     // factors, one per object
    const int* index;      // N entries per object
    Packed<const T> b;     // vectors (s1 unused)
    Packed<T> d;           // solutions (s1 unused)
};

template <class T> struct LuKernels {
    // Objects first .. first+L-1; false (nothing written) if one is singular.
    using DecompFn = bool (*)(const DecompGroup<T>&, int first);
    using SolveFn = void (*)(const SolveGroup<T>&, int first);
    int decomp_lanes, solve_lanes;  // objects in a group
    DecompFn decomp[4];  // [order - 3]; null: the scalar path serves
    SolveFn solve[4];
};
struct LuTable {
    LuKernels<float> f32;
    LuKernels<double> f64;
    template <class T> const LuKernels<T>& of() const {
        if constexpr (sizeof(T) == 4) return f32;
        else return f64;
    }
};
extern const LuTable lu_table_sse2, lu_table_avx2, lu_table_avx512;
inline const LuTable* const kLuTables[isa::kTargets] = {&lu_table_sse2, &lu_table_avx2, &lu_table_avx512};
template <class T> const LuKernels<T>& lu_kernels() { return isa::select(kLuTables).template of<T>(); }

// Whether reading a group whole before writing it gives the scalar path's
// results: what a call writes is clear of what it reads, but for a source
// rewritten in place object by object (dst on it with the same strides,
// objects not overlapping each other), which the scalar path too reads
// whole before writing.
template <class T> bool in_place(const Packed<const T>& s, const Packed<T>& d, int rows, int N) {
    return s.lo() == d.lo() && s.s0 == d.s0 && (rows == 1 || (s.s1 == d.s1 && s.s1 >= N * ptrdiff_t(sizeof(T)))) &&
           s.s0 >= (rows - 1) * s.s1 + N * ptrdiff_t(sizeof(T));
}
inline bool meet(const char* alo, const char* ahi, const char* blo, const char* bhi) {
    return alo < bhi && blo < ahi;
}
template <class T> bool groups_safe(const DecompGroup<T>& g, int N, int count) {
    const char* ilo = reinterpret_cast<const char*>(g.index);
    const char* ihi = reinterpret_cast<const char*>(g.index + ptrdiff_t(count) * N);
    const char *slo = g.src.lo(), *shi = g.src.hi(count, N, N), *dlo = g.dst.lo(), *dhi = g.dst.hi(count, N, N);
    if (meet(ilo, ihi, slo, shi) || meet(ilo, ihi, dlo, dhi)) return false;
    return !meet(slo, shi, dlo, dhi) || in_place(g.src, g.dst, N, N);
}
template <class T> bool groups_safe(const SolveGroup<T>& g, int N, int count) {
    const char* ilo = reinterpret_cast<const char*>(g.index);
    const char* ihi = reinterpret_cast<const char*>(g.index + ptrdiff_t(count) * N);
    const char *alo = g.a.lo(), *ahi = g.a.hi(count, N, N), *blo = g.b.lo(), *bhi = g.b.hi(count, 1, N);
    const char *dlo = g.d.lo(), *dhi = g.d.hi(count, 1, N);
    if (meet(dlo, dhi, ilo, ihi) || meet(dlo, dhi, alo, ahi)) return false;
    return !meet(dlo, dhi, blo, bhi) || in_place(g.b, g.d, 1, N);
}

}  // namespace orsm::solve
