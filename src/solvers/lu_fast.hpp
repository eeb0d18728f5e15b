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
#include "kernels/groups.hpp"
#include "kernels/isa.hpp"

namespace orsm::solve {

using groups::Packed;

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

// Whether groups give the scalar path's results (kernels/groups.hpp): the
// tables are written apart from everything read, and so is dst, or it
// rewrites its source in place.
template <class T> bool groups_safe(const DecompGroup<T>& g, int N, int count) {
    using groups::Bytes;
    const Bytes idx = Bytes::of(g.index, ptrdiff_t(count) * N), s = Bytes::of(g.src, count, N, N),
                d = Bytes::of(g.dst, count, N, N);
    return !idx.meets(s) && !idx.meets(d) && (!s.meets(d) || groups::in_place(g.src, g.dst, N, N));
}
template <class T> bool groups_safe(const SolveGroup<T>& g, int N, int count) {
    using groups::Bytes;
    const Bytes idx = Bytes::of(g.index, ptrdiff_t(count) * N), a = Bytes::of(g.a, count, N, N),
                b = Bytes::of(g.b, count, 1, N), d = Bytes::of(g.d, count, 1, N);
    return !d.meets(idx) && !d.meets(a) && (!d.meets(b) || groups::in_place(g.b, g.d, 1, N));
}

}  // namespace orsm::solve
