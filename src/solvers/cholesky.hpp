// CholeskyDecomp's kernels as data, shared by its frame
// (cholesky_decomp.cpp) and its fast paths (cholesky_fast.multi.cpp), and
// the fast paths' table.
//
// The fast paths factor the objects of a contiguous S or L array with the
// lanes of a vector over objects, W at a time, each lane doing the scalar
// path's operations on its own object. A group writes only when all of its
// pivots pass; otherwise it writes nothing, and the frame's scalar path
// takes over from the group's first object (W is a multiple of four, so the
// four-at-a-time kernel's groups keep their places).
#pragma once

#include "kernels/groups.hpp"
#include "kernels/isa.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve::chol {

// Which schedule a path keeps.
enum class Schedule {
    AsComputed,  // every element as soon as it is computed
    RowsAfterPivot,  // layout P, orders 3 to 6: a row once its pivot passed
    Groups,  // the four-objects-at-a-time kernel (32f contiguous arrays)
};

// How one kernel treats one order: its threshold (a pivot must be greater),
// whether it fails only pivots at or below zero (so a NaN passes), whether
// its Newton step is the four-at-a-time kernel's, and its schedule.
struct Kernel {
    double threshold;
    bool nan_passes;
    bool group_step;
    Schedule schedule;
};

enum class Form { m, ma };

// The kernel of a call: form, element type, kind and order (0 for the
// general loop). The thresholds differ on purpose: layout P rejects order-3
// pivots up to 2^-23 (in 64f too, as a double), and the 64f strided array
// kernel rejects pivots up to 2^-52 at order 6 and in its general loop.
template <class T> constexpr Kernel kernel_of(Form form, Kind kind, int N) {
    const bool fixed = N >= 3 && N <= 6;
    if (form == Form::ma && sizeof(T) == 4 && kind == Kind::S && fixed)
        return {0.0, true, true, Schedule::Groups};
    double thr = 0.0;
    if (kind == Kind::P && N == 3) thr = 0x1p-23;
    if (form == Form::ma && sizeof(T) == 8 && kind == Kind::S2 && (N == 6 || !fixed)) thr = 0x1p-52;
    return {thr, false, false, kind == Kind::P && fixed ? Schedule::RowsAfterPivot : Schedule::AsComputed};
}

// One Newton step on the reciprocal-root estimate r of s, in the order of
// the four-at-a-time kernel (group_step) or of the scalar kernels; the two
// can differ in the last bit. F is float or a vector of floats.
template <class F> ORSM_INLINE F newton_step(F r, F s, bool group_step) {
    if (group_step) return (r * (3.0f - (r * r) * s)) * 0.5f;
    return (r * ((s * r) * r - 3.0f)) * -0.5f;
}

using groups::Listed;
using groups::Strided;

template <class T, template <class> class Obj> using Group = groups::SrcDst<T, Obj>;

// Systems of CholeskyBackSubst's mava forms, each with a factor of its own.
template <class T, template <class> class Obj> using SolveGroup = groups::Systems<T, Obj>;
template <class T, bool List> using GroupOf = groups::SrcDstOf<T, List>;
template <class T, bool List> using SolveGroupOf = groups::SystemsOf<T, List>;

template <class T> struct FastKernels {
    // A factorisation returns false, having written nothing, when a pivot
    // of one of its objects fails.
    template <template <class> class Obj> using Fn = bool (*)(const Group<T, Obj>&, int first);
    template <template <class> class Obj> using SolveFn = void (*)(const SolveGroup<T, Obj>&, int first);
    int lanes, solve_lanes[4];  // [order - 3]
    Fn<Strided> s[4];  // [order - 3]
    Fn<Listed> l[4];
    SolveFn<Strided> solve_s[4];
    SolveFn<Listed> solve_l[4];
    Fn<groups::Soa> p[4];  // P arrays of structure-of-arrays planes
    SolveFn<groups::Soa> solve_p[4];  // lanes: `lanes`
    Fn<Strided> of(const Group<T, Strided>&, int N) const { return s[N - 3]; }
    Fn<Listed> of(const Group<T, Listed>&, int N) const { return l[N - 3]; }
    SolveFn<Strided> of(const SolveGroup<T, Strided>&, int N) const { return solve_s[N - 3]; }
    SolveFn<Listed> of(const SolveGroup<T, Listed>&, int N) const { return solve_l[N - 3]; }
    SolveFn<groups::Soa> of(const SolveGroup<T, groups::Soa>&, int N) const { return solve_p[N - 3]; }
};
using FastTable = isa::ByType<FastKernels>;
extern const FastTable fast_table_sse2, fast_table_avx2, fast_table_avx512;
inline const FastTable* const kFastTables[isa::kTargets] = {&fast_table_sse2, &fast_table_avx2, &fast_table_avx512};
template <class T> const FastKernels<T>& fast_kernels() { return isa::select(kFastTables).template of<T>(); }

}  // namespace orsm::solve::chol
