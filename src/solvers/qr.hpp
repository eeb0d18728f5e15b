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
template <class T> ORSM_INLINE T beta(T one_plus_squares) { return -2 / one_plus_squares; }

// The last check of both families, after pointers, count, sizes, strides
// and shifts: a factor may not be wider than tall.
constexpr OrsStatus shape_ok(int width, int height) { return width > height ? StatusSizeMismatch : StatusOk; }

// Serial kernel when the estimate is below the limit (equal goes parallel);
// the same for both families, both types and both element strides.
constexpr Limit limit(char lay) { return serial_below(lay == 'S' ? 2801 : 1801); }

// Scratch is addressed by element, one element apart, whatever the operand
// strides; a parallel member gets `height` elements of its own.
constexpr int scratch_per_member(int height) { return height; }

// ---- QRBackSubst's arithmetic, for its frame and its fast paths --------------------

// One system: y (b, where the path keeps it) reflected by each step of the
// factor, then R x = y solved from the bottom row up. fa(i, j) reads the
// factor, beta(j) is step j's beta, x(i) the place of x[i]. T is the
// element type or a vector of it (lanes over systems).
template <class T, class FA, class Beta, class Y, class X>
ORSM_INLINE void solve_one(const FA& fa, const Beta& beta, Y& y, const X& x, int w, int h) {
    for (int j = 0; j < qr::steps(w, h); ++j) {
        T t = y[j];
        for (int i = j + 1; i < h; ++i) t = t + y[i] * fa(i, j);
        t = t * beta(j);
        y[j] = y[j] + t;
        for (int i = j + 1; i < h; ++i) y[i] = y[i] + fa(i, j) * t;
    }
    x(w - 1) = y[w - 1] / fa(w - 1, w - 1);
    for (int i = w - 2; i >= 0; --i) {
        T s{};
        for (int k = i + 1; k < w; ++k) s = s + fa(i, k) * x(k);
        x(i) = (y[i] - s) / fa(i, i);
    }
}

// beta of step j, from the squares of v's stored part summed down the column.
template <class T, class FA> ORSM_INLINE T beta_of(const FA& fa, int j, int h) {
    T s = T{} + 1;
    for (int i = j + 1; i < h; ++i) s = s + fa(i, j) * fa(i, j);
    return qr::beta(s);
}

// A square factor of order N in locals, with the beta of each reflection.
template <int N, class T> struct Factor {
    T a[N][N], beta[N - 1];
    template <class A> ORSM_INLINE void load(const A& acc, int na) {
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) a[r][c] = acc(na, r, c);
        for (int j = 0; j < N - 1; ++j) beta[j] = beta_of<T>(*this, j, N);
    }
    ORSM_INLINE T operator()(int i, int j) const { return a[i][j]; }
};

// The pivot test of a step: the squared norm of the column part below the
// tolerance fails (equal passes, and so does a NaN).
template <class T> constexpr T tolerance = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

// Fast paths of QRDecomp: square arrays of orders 3 to 6 in contiguous S and
// L, W objects at a time with lanes over objects, each lane the scalar
// steps' operations. A group writes only when every step of every lane
// passes, then leaves the scratch as its last object leaves it; otherwise it
// writes nothing and returns false, and the frame runs the scalar path on
// its objects.
//
// QRBackSubst's mava forms solve square systems of orders 3 to 6 the same
// way, W systems at a time, each lane the scalar path's order.
template <class T> struct FastKernels {
    template <template <class> class Obj> using Fn = bool (*)(const groups::SrcDst<T, Obj>&, T* buf, int first);
    template <template <class> class Obj> using SolveFn = void (*)(const groups::Systems<T, Obj>&, int first);
    int lanes, solve_lanes[4];  // [order - 3]
    Fn<groups::Strided> s[4];  // [order - 3]
    Fn<groups::Listed> l[4];
    SolveFn<groups::Strided> solve_s[4];
    SolveFn<groups::Listed> solve_l[4];
    Fn<groups::Soa> p[4];  // P arrays of structure-of-arrays planes
    SolveFn<groups::Soa> solve_p[4];  // lanes: `lanes`
    Fn<groups::Strided> of(const groups::SrcDst<T, groups::Strided>&, int N) const { return s[N - 3]; }
    Fn<groups::Listed> of(const groups::SrcDst<T, groups::Listed>&, int N) const { return l[N - 3]; }
    SolveFn<groups::Strided> of(const groups::Systems<T, groups::Strided>&, int N) const { return solve_s[N - 3]; }
    SolveFn<groups::Listed> of(const groups::Systems<T, groups::Listed>&, int N) const { return solve_l[N - 3]; }
    SolveFn<groups::Soa> of(const groups::Systems<T, groups::Soa>&, int N) const { return solve_p[N - 3]; }
};
using FastTable = isa::ByType<FastKernels>;
extern const FastTable fast_table_sse2, fast_table_avx2, fast_table_avx512;
inline const FastTable* const kFastTables[isa::kTargets] = {&fast_table_sse2, &fast_table_avx2, &fast_table_avx512};
template <class T> const FastKernels<T>& fast_kernels() { return isa::select(kFastTables).template of<T>(); }

}  // namespace orsm::solve::qr
