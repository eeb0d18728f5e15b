// What QRDecomp and QRBackSubst share: the compact factor's convention, the
// frame's last check, and the limits of the parallel forms.
//
// The factor of a height by width matrix (height at least width) holds R on
// and above the diagonal and, below the diagonal of column j, the elements
// of the reflection vector v of step j from row j+1 on; v's element at row j
// is 1 and is not stored. Step j reflects by H = I + beta v v^T with
// beta = -2 / (1 + sum of the squares of the stored elements), summed from
// row j+1 down; beta is never stored, the solver computes it again. A square
// matrix takes width-1 steps (its last column has no reflection), a tall one
// width steps.
#pragma once

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "kernels/groups.hpp"
#include "kernels/isa.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve::qr {

// Reflections of a height by width factor.
constexpr int steps(int width, int height) { return width == height ? width - 1 : width; }

// beta of a reflection from 1 + the sum of the squares of v's stored part.
template <class T> ORSM_INLINE T beta(T one_plus_squares) { return T(-2) / one_plus_squares; }

// The last check of both families, after pointers, count, sizes, strides
// and shifts: a factor may not be wider than tall.
constexpr OrsStatus shape_ok(int width, int height) { return width > height ? StatusSizeMismatch : StatusOk; }

// Serial kernel when the estimate is below the limit (equal goes parallel);
// the same for both families, both types and both element strides.
constexpr Limit limit(char lay) { return serial_below(lay == 'S' ? 2801 : 1801); }

// Scratch is addressed by element, one element apart, whatever the operand
// strides; a parallel member gets `height` elements of its own.
constexpr int scratch_per_member(int height) { return height; }

// The pivot test of a step: the squared norm of the column part below the
// tolerance fails (equal passes, and so does a NaN).
template <class T> constexpr T tolerance = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

// Fast paths of QRDecomp: square arrays of orders 3 to 6 in contiguous S and
// L, W objects at a time with lanes over objects, each lane the scalar
// steps' operations. A group writes only when every step of every lane
// passes, then leaves the scratch as its last object leaves it; otherwise it
// writes nothing and returns false, and the frame runs the scalar path on
// its objects.
template <class T> struct FastKernels {
    template <template <class> class Obj> using Fn = bool (*)(const groups::SrcDst<T, Obj>&, T* buf, int first);
    int lanes;
    Fn<groups::Strided> s[4];  // [order - 3]
    Fn<groups::Listed> l[4];
    Fn<groups::Strided> of(const groups::SrcDst<T, groups::Strided>&, int N) const { return s[N - 3]; }
    Fn<groups::Listed> of(const groups::SrcDst<T, groups::Listed>&, int N) const { return l[N - 3]; }
};
using FastTable = isa::ByType<FastKernels>;
extern const FastTable fast_table_sse2, fast_table_avx2, fast_table_avx512;
inline const FastTable* const kFastTables[isa::kTargets] = {&fast_table_sse2, &fast_table_avx2, &fast_table_avx512};
template <class T> const FastKernels<T>& fast_kernels() { return isa::select(kFastTables).template of<T>(); }

}  // namespace orsm::solve::qr
