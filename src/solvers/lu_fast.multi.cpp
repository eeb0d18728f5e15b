// LUDecomp and LUBackSubst size paths with lanes over objects, for one
// instruction-set target (compiled once per target; see lu_fast.hpp).
//
// Lane l of every vector belongs to object first + l and runs that object's
// scalar size path operation for operation: the same comparisons in the
// pivot search, the same products, each rounded before its subtraction, the
// same true divisions. What differs is only where values sit: a lane's row
// exchanges move its rows within the working registers instead of going
// through its table, so row i of the working set is always the table's row
// i, and every lane chooses by masks what the scalar path chooses by
// branches. The bits of every element are those of the scalar path.
#include "kernels/lanes.hpp"
#include "solvers/lu_fast.hpp"

namespace orsm::solve {
namespace ORSM_TARGET {
namespace {

using namespace ::orsm::lanes::ORSM_TARGET;

// ---- LUDecomp ----------------------------------------------------------------------

template <class T, int N, int W, template <class> class Obj> bool decomp(const DecompGroup<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    using Vi = VI<T, W>;
    constexpr T eps = std::numeric_limits<T>::epsilon();
    Vt w[N][N];
    Vi q[N];
    load<W>(w, g.src, first);
    for (int i = 0; i < N; ++i) q[i] = splat<Vi>(IntOf<T>(i));
    Vi bad = splat<Vi>(IntOf<T>(0));
    for (int k = 0; k < N - 1; ++k) {
        // Magnitudes compare in T as they would as doubles: widening is
        // exact and keeps their order.
        Vt m = vabs<T, W>(w[k][k]);
        Vi best = splat<Vi>(IntOf<T>(k));
        for (int i = k + 1; i < N; ++i) {
            const Vt v = vabs<T, W>(w[i][k]);
            const Vi gt = v > m;  // a tie keeps the earlier table position
            m = gt ? v : m;
            best = gt ? splat<Vi>(IntOf<T>(i)) : best;
        }
        for (int i = k + 1; i < N; ++i) {
            const Vi x = best == IntOf<T>(i);
            for (int c = 0; c < N; ++c) {
                const Vt t = w[k][c];
                w[k][c] = x ? w[i][c] : t;
                w[i][c] = x ? t : w[i][c];
            }
            const Vi t = q[k];
            q[k] = x ? q[i] : t;
            q[i] = x ? t : q[i];
        }
        bad |= m < eps;
        const Vt r = T(1) / w[k][k];
        for (int i = k + 1; i < N; ++i) w[i][k] = w[i][k] * r;
        for (int i = k + 1; i < N; ++i)
            for (int j = k + 1; j < N; ++j) w[i][j] = w[i][j] - w[k][j] * w[i][k];
    }
    // The last test reads the physical last row: the working row whose
    // table entry is N - 1.
    Vt last = w[N - 1][N - 1];
    for (int i = 0; i < N - 1; ++i) last = q[i] == IntOf<T>(N - 1) ? w[i][N - 1] : last;
    bad |= vabs<T, W>(last) < eps;
    if (any<T, W>(bad)) return false;
    if constexpr (std::is_same_v<Obj<T>, groups::Soa<T>>) {
        // Planes: physical row p is the working row whose table entry is p
        // (the table is a permutation in every lane: one i matches).
        Vt out[N][N];
        for (int p = 0; p < N; ++p) {
            for (int c = 0; c < N; ++c) out[p][c] = w[0][c];
            for (int i = 1; i < N; ++i) {
                const Vi x = q[i] == IntOf<T>(p);
                for (int c = 0; c < N; ++c) out[p][c] = x ? w[i][c] : out[p][c];
            }
        }
        store<W>(g.dst, first, out);
    } else {
        for (int l = 0; l < W; ++l)
            for (int i = 0; i < N; ++i) {
                T* d = byte_off(g.dst.obj(first + l), int(q[i][l]) * g.dst.s1);
                for (int c = 0; c < N; ++c) d[c] = w[i][c][l];
            }
    }
    // The tables stand apart from the matrices (the frames test it).
    for (int l = 0; l < W; ++l)
        for (int i = 0; i < N; ++i) g.index[ptrdiff_t(first + l) * N + i] = int(q[i][l]);
    return true;
}

// ---- LUBackSubst -------------------------------------------------------------------

// Rows M(i, .) = A(q(i), .) and b(q(i)) of a group: from the one factor and
// table of an mva call (shared), from physical row p where a lane's table
// has p, by selects (planes), or lane by lane from its objects.
template <class T, int N, int W, template <class> class Obj>
ORSM_INLINE void permuted(const SolveGroup<T, Obj>& g, int first, V<T, W> (&m)[N][N], V<T, W> (&y)[N]) {
    using Vt = V<T, W>;
    using Vi = VI<T, W>;
    constexpr bool planes = std::is_same_v<Obj<T>, groups::Soa<T>>;
    if (groups::shared(g.a)) {
        Vt b[1][N];
        load<W>(b, g.b, first);
        for (int i = 0; i < N; ++i) {
            const int q = g.index[i];
            for (int j = 0; j < N; ++j) m[i][j] = load_shared<W>(g.a, first, q, j);
            y[i] = b[0][q];
        }
    } else if constexpr (planes) {
        Vt a[N][N], b[1][N];
        load<W>(a, g.a, first);
        load<W>(b, g.b, first);
        for (int i = 0; i < N; ++i) {
            Vi q;
            for (int l = 0; l < W; ++l) q[l] = g.index[ptrdiff_t(first + l) * N + i];
            for (int j = 0; j < N; ++j) m[i][j] = a[0][j];
            y[i] = b[0][0];
            for (int p = 1; p < N; ++p) {
                const Vi x = q == IntOf<T>(p);
                for (int j = 0; j < N; ++j) m[i][j] = x ? a[p][j] : m[i][j];
                y[i] = x ? b[0][p] : y[i];
            }
        }
    } else {
        for (int l = 0; l < W; ++l) {
            const int n = first + l;
            const int* q = g.index + ptrdiff_t(n) * N;
            const T* b = g.b.obj(n);
            for (int i = 0; i < N; ++i) {
                const T* row = byte_off(g.a.obj(n), q[i] * g.a.s1);
                for (int j = 0; j < N; ++j) m[i][j][l] = row[j];
                y[i][l] = b[q[i]];
            }
        }
    }
}

template <class T, int N, int W, template <class> class Obj> void solve(const SolveGroup<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    Vt m[N][N], rcp[N], yb[1][N];
    Vt(&y)[N] = yb[0];
    permuted<T, N, W>(g, first, m, y);
    for (int i = 0; i < N; ++i) rcp[i] = T(1) / m[i][i];
    for (int i = 1; i < N; ++i) {
        Vt t = y[i];
        for (int j = 1; j < i; ++j) t = t - m[i][j] * y[j];
        y[i] = t - m[i][0] * y[0];  // the column-0 term last
    }
    for (int i = N - 1; i >= 0; --i) {
        Vt t = y[i];
        for (int j = N - 1; j > i; --j) t = t - m[i][j] * y[j];
        y[i] = t * rcp[i];
    }
    store<W>(g.d, first, yb);
}

// What measured fastest (one thread, in cache, 1,000 objects): the
// factorisation at the widest vector; the solve, whose loads of one element
// per lane outweigh its arithmetic, at no more than eight lanes, and for a
// factor each (mava) not at all for 32f orders 3 and 4 and 64f order 3,
// where the scalar path wins (mava_from).
template <class T> constexpr int kDecompLanes = vx::kLanes<T>;
template <class T> constexpr int kSolveLanes = vx::kLanes<T> < 8 ? vx::kLanes<T> : 8;
template <class T> constexpr LuKernels<T> make() {
    constexpr int D = kDecompLanes<T>;
    constexpr int S = kSolveLanes<T>;
    return {D,
            S,
            sizeof(T) == 4 ? 5 : 4,
            {&decomp<T, 3, D, Strided>, &decomp<T, 4, D, Strided>, &decomp<T, 5, D, Strided>,
             &decomp<T, 6, D, Strided>},
            {&decomp<T, 3, D, Listed>, &decomp<T, 4, D, Listed>, &decomp<T, 5, D, Listed>,
             &decomp<T, 6, D, Listed>},
            {&solve<T, 3, S, Strided>, &solve<T, 4, S, Strided>, &solve<T, 5, S, Strided>, &solve<T, 6, S, Strided>},
            {&solve<T, 3, S, Listed>, &solve<T, 4, S, Listed>, &solve<T, 5, S, Listed>, &solve<T, 6, S, Listed>},
            {&decomp<T, 3, D, groups::Soa>, &decomp<T, 4, D, groups::Soa>, &decomp<T, 5, D, groups::Soa>,
             &decomp<T, 6, D, groups::Soa>},
            {&solve<T, 3, D, groups::Soa>, &solve<T, 4, D, groups::Soa>, &solve<T, 5, D, groups::Soa>,
             &solve<T, 6, D, groups::Soa>}};
}

}  // namespace
}  // namespace ORSM_TARGET

extern const LuTable ORSM_TARGET_SYMBOL(lu_table_) = {ORSM_TARGET::make<float>(), ORSM_TARGET::make<double>()};

}  // namespace orsm::solve
