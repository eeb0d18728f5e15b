// CholeskyDecomp's size paths with lanes over objects, for one
// instruction-set target (compiled once per target; see cholesky.hpp).
//
// Lane l belongs to object first + l and runs that object's scalar path
// operation for operation: the same products, each rounded and subtracted
// in turn, the same pivot test, and the same reciprocal root (in 64f a
// square root and a division, in 32f the estimate and the kernel's Newton
// step), so every element gets the scalar path's bits.
#include "kernels/lanes.hpp"
#include "solvers/cholesky.hpp"

namespace orsm::solve::chol {
namespace ORSM_TARGET {
namespace {

using namespace ::orsm::lanes::ORSM_TARGET;

// `tiny`: pivots fail up to 2^-23 (layout P at order 3), else up to zero.
template <class T, int N, int W, bool NanPasses, bool GroupStep, template <class> class Obj, bool tiny = false>
bool decomp(const Group<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    using Vi = VI<T, W>;
    Vt f[N][N];  // the lower triangle: the upper one is never touched
    load<W, true>(f, g.src, first);
    Vi bad = splat<Vi>(IntOf<T>(0));
    for (int i = 0; i < N; ++i) {
        for (int j = 0; j < i; ++j) {
            Vt x = f[i][j];
            for (int q = 0; q < j; ++q) x = x - f[i][q] * f[j][q];
            f[i][j] = x * f[j][j];
        }
        Vt x = f[i][i];
        for (int q = 0; q < i; ++q) x = x - f[i][q] * f[i][q];
        // The four-at-a-time kernel fails pivots at or below zero only, so
        // that a NaN passes; the others fail whatever is not above zero.
        bad |= NanPasses ? Vi(x <= T(0)) : Vi(~(x > T(tiny ? 0x1p-23 : 0.0)));
        if constexpr (sizeof(T) == 8) f[i][i] = T(1) / vsqrt<T, W>(x);
        else f[i][i] = newton_step(rsqrt_estimate<W>(x), x, GroupStep);
    }
    if (any<T, W>(bad)) return false;
    store<W, true>(g.dst, first, f);
    return true;
}

// ---- CholeskyBackSubst, mava and mva (one factor for all) ----------------------------

// Forward with the rows of L, then back with its columns, y in registers.
template <class T, int N, int W, template <class> class Obj> void solve(const SolveGroup<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    Vt l[N][N], yb[1][N];
    Vt(&y)[N] = yb[0];
    load_factor<W, true>(l, g.a, first);
    load<W>(yb, g.b, first);
    for (int i = 0; i < N; ++i) {
        Vt s = y[i];
        for (int k = 0; k < i; ++k) s = s - l[i][k] * y[k];
        y[i] = s * l[i][i];
    }
    for (int i = N - 1; i >= 0; --i) {
        Vt s = y[i];
        for (int k = N - 1; k > i; --k) s = s - l[k][i] * y[k];
        y[i] = s * l[i][i];
    }
    store<W>(g.d, first, yb);
}

// The contiguous S and L array kernels, order N: threshold zero in both.
template <class T, int N, Kind K, template <class> class Obj> constexpr auto fn() {
    constexpr Kernel k = kernel_of<T>(Form::ma, K, N);
    static_assert(k.threshold == 0.0);
    return &decomp<T, N, vx::kLanes<T>, k.nan_passes, k.group_step, Obj>;
}
// P arrays over structure-of-arrays planes, order N.
template <class T, int N> constexpr auto planes_fn() {
    constexpr Kernel k = kernel_of<T>(Form::ma, Kind::P, N);
    static_assert(k.threshold == 0.0 || k.threshold == 0x1p-23);
    return &decomp<T, N, vx::kLanes<T>, k.nan_passes, k.group_step, groups::Soa, k.threshold != 0.0>;
}
// The solve's lanes, as measured fastest (one thread, in cache, 1,000
// systems; factor blocks read by pieces): eight in 32f, four in 64f; over
// planes, where it loads a vector at a time, the whole vector.
template <class T> constexpr int kSolveLanes = vx::kLanes<T> < 32 / int(sizeof(T)) ? vx::kLanes<T> : 32 / int(sizeof(T));
template <class T> constexpr FastKernels<T> make() {
    static_assert(vx::kLanes<T> % 4 == 0 || sizeof(T) == 8, "32f groups keep the four-at-a-time kernel's places");
    constexpr int S = kSolveLanes<T>, P = vx::kLanes<T>;
    return {vx::kLanes<T>,
            {S, S, S, S},
            {fn<T, 3, Kind::S, Strided>(), fn<T, 4, Kind::S, Strided>(), fn<T, 5, Kind::S, Strided>(),
             fn<T, 6, Kind::S, Strided>()},
            {fn<T, 3, Kind::L, Listed>(), fn<T, 4, Kind::L, Listed>(), fn<T, 5, Kind::L, Listed>(),
             fn<T, 6, Kind::L, Listed>()},
            {&solve<T, 3, S, Strided>, &solve<T, 4, S, Strided>, &solve<T, 5, S, Strided>, &solve<T, 6, S, Strided>},
            {&solve<T, 3, S, Listed>, &solve<T, 4, S, Listed>, &solve<T, 5, S, Listed>, &solve<T, 6, S, Listed>},
            {planes_fn<T, 3>(), planes_fn<T, 4>(), planes_fn<T, 5>(), planes_fn<T, 6>()},
            {&solve<T, 3, P, groups::Soa>, &solve<T, 4, P, groups::Soa>, &solve<T, 5, P, groups::Soa>,
             &solve<T, 6, P, groups::Soa>}};
}

}  // namespace
}  // namespace ORSM_TARGET

extern const FastTable ORSM_TARGET_SYMBOL(fast_table_) = {ORSM_TARGET::make<float>(), ORSM_TARGET::make<double>()};

}  // namespace orsm::solve::chol
