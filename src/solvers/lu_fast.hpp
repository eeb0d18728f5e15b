// Fast paths of LUDecomp and LUBackSubst over arrays in layouts S and L with
// elements one element apart: the lanes of a vector run over objects, W
// consecutive objects (a group) at a time, each lane doing exactly the
// scalar size path's operations on its own object. They live in
// lu_fast.multi.cpp, compiled once per instruction-set target; the frames
// pick the current target's table (kernels/isa.hpp) and run the groups
// through groups::in_groups.
//
// A factorisation group writes only when every lane has passed its tests;
// one with a singular object writes nothing and returns false, and the
// frame runs the scalar path on its objects, which stops at the failing one
// and leaves dst as the scalar path leaves it. A frame hands over a group
// only when reading it whole before writing it changes nothing (`safe`).
#pragma once

#include "common/base.hpp"
#include "kernels/groups.hpp"
#include "kernels/isa.hpp"

namespace orsm::solve {

using groups::Listed;
using groups::Strided;

// Operands of a group; Obj is groups::Strided (layout S) or Listed (L).
template <class T, template <class> class Obj> struct DecompGroup {
    Obj<const T> src;
    Obj<T> dst;
    int* index;  // N entries per object
};
template <class T, template <class> class Obj> struct SolveGroup {
    Obj<const T> a;     // factors, one per system, or one for all (groups::shared)
    const int* index;   // N entries per system, or N for all with one factor
    Obj<const T> b;     // vectors (s1 unused)
    Obj<T> d;           // solutions (s1 unused)
};

// The groups of the contiguous S and L kernels.
template <bool List> struct Groups {
    template <class T> using Decomp = DecompGroup<T, Strided>;
    template <class T> using Solve = SolveGroup<T, Strided>;
};
template <> struct Groups<true> {
    template <class T> using Decomp = DecompGroup<T, Listed>;
    template <class T> using Solve = SolveGroup<T, Listed>;
};

template <class T> struct LuKernels {
    // Objects first .. first + W - 1; a factorisation returns false, having
    // written nothing, if one of them is singular.
    template <template <class> class Obj> using DecompFn = bool (*)(const DecompGroup<T, Obj>&, int first);
    template <template <class> class Obj> using SolveFn = void (*)(const SolveGroup<T, Obj>&, int first);
    int decomp_lanes, solve_lanes;  // W of each
    int mava_from;  // the lowest order whose groups of systems with a factor each beat the scalar path
    // [order - 3]
    DecompFn<Strided> decomp_s[4];
    DecompFn<Listed> decomp_l[4];
    SolveFn<Strided> solve_s[4];
    SolveFn<Listed> solve_l[4];
    DecompFn<groups::Soa> decomp_p[4];  // P arrays of structure-of-arrays planes
    // Over planes, decomp_lanes at a time; with shared planes (mva) one
    // factor and one table serve every system.
    SolveFn<groups::Soa> solve_p[4];
    // The kernel of a group's layout.
    DecompFn<Strided> of(const DecompGroup<T, Strided>&, int N) const { return decomp_s[N - 3]; }
    DecompFn<Listed> of(const DecompGroup<T, Listed>&, int N) const { return decomp_l[N - 3]; }
    SolveFn<Strided> of(const SolveGroup<T, Strided>&, int N) const { return solve_s[N - 3]; }
    SolveFn<Listed> of(const SolveGroup<T, Listed>&, int N) const { return solve_l[N - 3]; }
    SolveFn<groups::Soa> of(const SolveGroup<T, groups::Soa>&, int N) const { return solve_p[N - 3]; }
};
using LuTable = isa::ByType<LuKernels>;
extern const LuTable lu_table_sse2, lu_table_avx2, lu_table_avx512;
inline const LuTable* const kLuTables[isa::kTargets] = {&lu_table_sse2, &lu_table_avx2, &lu_table_avx512};
template <class T> const LuKernels<T>& lu_kernels() { return isa::select(kLuTables).template of<T>(); }

// Whether group [first, first + W) may run side by side: its tables apart
// from its matrices, and its dst apart from its sources or rewriting them in
// place object by object.
template <class T, template <class> class Obj>
bool safe(const DecompGroup<T, Obj>& g, int N, int first, int W) {
    using groups::Bytes;
    const Bytes idx = Bytes::of(g.index + ptrdiff_t(first) * N, ptrdiff_t(W) * N);
    return !idx.meets(hull(g.src, first, W, N, N)) && !idx.meets(hull(g.dst, first, W, N, N)) &&
           groups::apart_or_in_place(g.src, g.dst, first, W, N, N);
}
template <class T, template <class> class Obj>
bool safe(const SolveGroup<T, Obj>& g, int N, int first, int W) {
    using groups::Bytes;
    const bool one = groups::shared(g.a);  // one factor, one table
    const Bytes idx = Bytes::of(g.index + (one ? 0 : ptrdiff_t(first) * N), one ? N : ptrdiff_t(W) * N);
    const Bytes a = hull(g.a, first, W, N, N), b = hull(g.b, first, W, 1, N), d = hull(g.d, first, W, 1, N);
    return !d.meets(idx) && !d.meets(a) && (!d.meets(b) || in_place(g.b, g.d, first, W, 1, N));
}

}  // namespace orsm::solve
