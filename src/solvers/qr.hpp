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

}  // namespace orsm::solve::qr
