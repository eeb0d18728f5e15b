// Run kernels of the element-wise fast paths: one IEEE operation per element
// over a run of n elements, compiled once per instruction-set target
// (lines.multi.cpp) and picked at run time.
//
// Operands of a run are a pointer (vector of n elements), a scalar (the same
// value for every element) or a pattern (a block of `period` elements read
// again and again: d[i] = a[i] op pat[i % period]). dst may be the very
// pointer of a source (in place); any other overlap of dst with a source is
// the caller's to exclude. The operation's first operand is always the
// first argument after dst.
#pragma once

#include "common/base.hpp"
#include "kernels/isa.hpp"

namespace orsm::ew {

// Operation numbers of the run tables.
enum OpId : int { opAdd = 0, opSub = 1, opMul = 2 };
inline constexpr int kOps = 3;

template <class T> struct RunTable {
    void (*vv[kOps])(T* d, const T* a, const T* b, ptrdiff_t n);
    void (*vs[kOps])(T* d, const T* a, T b, ptrdiff_t n);
    void (*sv[kOps])(T* d, T a, const T* b, ptrdiff_t n);
    void (*vp[kOps])(T* d, const T* a, const T* pat, int period, ptrdiff_t n);
    void (*pv[kOps])(T* d, const T* pat, const T* b, int period, ptrdiff_t n);
    // vv storing dst past the caches, for a dst beyond them
    // (kernels/streaming.hpp); the same values as vv.
    void (*vv_streamed[kOps])(T* d, const T* a, const T* b, ptrdiff_t n);
};
using Runs = isa::ByType<RunTable>;

extern const Runs runs_sse2, runs_avx2, runs_avx512;
inline constexpr const Runs* runs_by_target[isa::kTargets] = {&runs_sse2, &runs_avx2, &runs_avx512};

template <class T> const RunTable<T>& runs() { return isa::select(runs_by_target).template of<T>(); }

}  // namespace orsm::ew
