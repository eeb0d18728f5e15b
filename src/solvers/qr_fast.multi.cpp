// QRDecomp's square orders 3 to 6 with lanes over objects, for one
// instruction-set target (compiled once per target; see qr.hpp).
//
// Lane l belongs to object first + l and runs the scalar steps of
// qr_decomp.cpp operation for operation: the same sums in the same order,
// the same correctly rounded square root and true divisions, the same sign
// rule, so every element gets the scalar path's bits.
#include "kernels/lanes.hpp"
#include "solvers/qr.hpp"

namespace orsm::solve::qr {
namespace ORSM_TARGET {
namespace {

using namespace ::orsm::lanes::ORSM_TARGET;
using groups::Listed;
using groups::SrcDst;
using groups::Strided;

template <class T, int N, int W, template <class> class Obj> bool decomp(const SrcDst<T, Obj>& g, T* buf, int first) {
    using Vt = V<T, W>;
    using Vi = VI<T, W>;
    Vt a[N][N];
    load<W>(a, g.src, first);
    Vi bad = splat<Vi>(IntOf<T>(0));
    for (int j = 0; j < N - 1; ++j) {
        Vt norm2 = splat<Vt>(T(0));
        for (int i = j; i < N; ++i) norm2 = norm2 + a[i][j] * a[i][j];
        bad |= tolerance<T> > vabs<T, W>(norm2);
        Vt sigma = vsqrt<T, W>(norm2);
        Vt p = a[j][j];
        sigma = p > T(0) ? sigma : T(0) - sigma;  // a pivot of 0 or NaN takes the negative sign
        p = p + sigma;
        const Vt r = T(1) / p;
        Vt v[N], s = splat<Vt>(T(1));
        for (int i = j + 1; i < N; ++i) {
            v[i] = a[i][j] * r;
            s = s + v[i] * v[i];
        }
        const Vt beta = T(-2) / s;
        for (int c = j; c < N; ++c) {
            Vt t = a[j][c];
            for (int i = j + 1; i < N; ++i) t = t + a[i][c] * v[i];
            t = t * beta;
            a[j][c] = a[j][c] + t;  // v's element at row j is 1
            for (int i = j + 1; i < N; ++i) a[i][c] = a[i][c] + v[i] * t;
        }
        for (int i = j + 1; i < N; ++i) a[i][j] = v[i];
    }
    if (any<T, W>(bad)) return false;
    store<W>(g.dst, first, a);
    // The scratch as the last object's steps leave it: a 1 at each step's
    // row, the last step's vector below.
    for (int i = 0; i < N - 1; ++i) buf[i] = T(1);
    buf[N - 1] = a[N - 1][N - 2][W - 1];
    return true;
}

// A square system of order N a lane: the factor and its betas, then the
// scalar path's solve_one on vectors.
template <class T, int N, int W, template <class> class Obj> void solve(const groups::Systems<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    Factor<N, Vt> f;
    load_factor<W>(f.a, g.a, first);
    for (int j = 0; j < N - 1; ++j) f.beta[j] = beta_of<Vt>(f, j, N);
    Vt y[1][N], x[1][N];
    load<W>(y, g.b, first);
    solve_one<Vt>(f, [&](int j) { return f.beta[j]; }, y[0], [&](int i) -> Vt& { return x[0][i]; }, N, N);
    store<W>(g.d, first, x);
}

// The solve's lanes at order N, as measured fastest (one thread, in cache,
// 1,000 systems; factor blocks read by pieces): on AVX-512 32f orders 5
// and 6 take the whole vector, 3 and 4 half; 64f order 3 takes a quarter
// of it, 4 and up half.
template <class T> constexpr int solve_lanes(int N) {
    constexpr int L = vx::kLanes<T>;
    const int want = sizeof(T) == 4 ? (N >= 5 ? 16 : 8) : (N == 3 ? 4 : 8);
    return L < want ? L : want;
}
template <class T> constexpr FastKernels<T> make() {
    constexpr int W = vx::kLanes<T>;
    return {W,
            {solve_lanes<T>(3), solve_lanes<T>(4), solve_lanes<T>(5), solve_lanes<T>(6)},
            {&decomp<T, 3, W, Strided>, &decomp<T, 4, W, Strided>, &decomp<T, 5, W, Strided>, &decomp<T, 6, W, Strided>},
            {&decomp<T, 3, W, Listed>, &decomp<T, 4, W, Listed>, &decomp<T, 5, W, Listed>, &decomp<T, 6, W, Listed>},
            {&solve<T, 3, solve_lanes<T>(3), Strided>, &solve<T, 4, solve_lanes<T>(4), Strided>,
             &solve<T, 5, solve_lanes<T>(5), Strided>, &solve<T, 6, solve_lanes<T>(6), Strided>},
            {&solve<T, 3, solve_lanes<T>(3), Listed>, &solve<T, 4, solve_lanes<T>(4), Listed>,
             &solve<T, 5, solve_lanes<T>(5), Listed>, &solve<T, 6, solve_lanes<T>(6), Listed>},
            {&decomp<T, 3, W, groups::Soa>, &decomp<T, 4, W, groups::Soa>, &decomp<T, 5, W, groups::Soa>,
             &decomp<T, 6, W, groups::Soa>},
            {&solve<T, 3, W, groups::Soa>, &solve<T, 4, W, groups::Soa>, &solve<T, 5, W, groups::Soa>,
             &solve<T, 6, W, groups::Soa>}};
}

}  // namespace
}  // namespace ORSM_TARGET

extern const FastTable ORSM_TARGET_SYMBOL(fast_table_) = {ORSM_TARGET::make<float>(), ORSM_TARGET::make<double>()};

}  // namespace orsm::solve::qr
