// Invert's orders 3 to 6 with lanes over objects, for one instruction-set
// target (compiled once per target; see invert.hpp).
//
// Lane l belongs to object first + l and runs the scalar path's closed form
// on it: the same minors, adjugate and determinant (invert.hpp's templates,
// instantiated on vectors), the same singularity test and the same
// reciprocal, so every element gets the scalar path's bits.
#include "kernels/lanes.hpp"
#include "solvers/invert.hpp"

namespace orsm::solve::inv {
namespace ORSM_TARGET {
namespace {

using namespace ::orsm::lanes::ORSM_TARGET;
using groups::Listed;
using groups::SrcDst;
using groups::Strided;

// The lanes whose determinant fails the test (Tol: |x| below the
// tolerance, or NaN; Band: strictly inside the band as a double).
template <class T, int W> ORSM_INLINE VI<T, W> fails(Test t, V<T, W> x) {
    using Vi = VI<T, W>;
    if (t == Test::Tol) return Vi(~(vabs<T, W>(x) >= tol<T>));
    if constexpr (sizeof(T) == 8) {
        return Vi((x > -band<T>) & (x < band<T>));
    } else {
        using Vd = vx::Vec<double, W>;
        const Vd xd = __builtin_convertvector(x, Vd);
        return __builtin_convertvector((xd > -band<T>) & (xd < band<T>), Vi);
    }
}

template <class T, int W> ORSM_INLINE V<T, W> reciprocal(Recip rc, V<T, W> d) {
    if constexpr (sizeof(T) == 4) {
        if (rc == Recip::Refined) {
            const V<T, W> x = rcp_estimate<W>(d);
            return (x + x) - d * (x * x);
        }
    }
    return T(1) / d;
}

// `minors`: the adjugate from all minors at every order, as the scalar
// kernels (P) have it; else order 4 by the packed kinds' closed form.
template <class T, int N, int W, Test test, Recip rc, bool alt, template <class> class Obj, bool minors = false>
bool invert(const SrcDst<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    Vt a[N][N], adj[N][N];
    load<W>(a, g.src, first);
    Vt det;
    if constexpr (N == 3 || minors) det = adjugate<N>(a, adj, alt);
    else det = adjugate4(a, adj, alt);
    if (any<T, W>(fails<T, W>(test, det))) return false;
    const Vt r = reciprocal<T, W>(rc, det);
    for (int i = 0; i < N; ++i)
        for (int c = 0; c < N; ++c) adj[i][c] = adj[i][c] * r;
    store<W>(g.dst, first, adj);
    return true;
}

// Orders 5 and 6 of the contiguous array kinds when every lane takes the
// leading pivot (32f: a00 at order 5, a00 and the leading 2 by 2 block at
// order 6; 64f: the leading block): the scalar path's block elimination on
// vectors, the complement inverted by the closed form of order 3 or 4. A
// lane that would exchange columns, or whose complement fails, sends the
// group to the scalar path. Row 0 of dst, the 32f arrays' scratch, ends as
// the result's row 0 either way.
template <class T, int N, int W, Kind K, template <class> class Obj> bool packed(const SrcDst<T, Obj>& g, int first) {
    using Vt = V<T, W>;
    using Vi = VI<T, W>;
    constexpr Rules R = rules_of<T, K, false>;
    constexpr bool f32 = R.method == Method::Packed32;
    Vt a[N][N], out[N][N];
    load<W>(a, g.src, first);
    Vi bad = splat<Vi>(IntOf<T>(0));
    auto invS = [&](const auto& s, auto& so) {
        constexpr int M = std::extent_v<std::remove_reference_t<decltype(s)>>;
        Vt adj[M][M], det;
        if constexpr (M == 3) det = adjugate<3>(s, adj, true);
        else det = adjugate4(s, adj, f32);
        bad |= fails<T, W>(M == 3 ? R.test3 : R.test, det);
        const Vt r = reciprocal<T, W>(M == 3 ? R.recip3 : R.recip, det);
        for (int i = 0; i < M; ++i)
            for (int j = 0; j < M; ++j) so[i][j] = adj[i][j] * r;
        return StatusOk;
    };
    auto row0 = [](const Vt*) {};
    if constexpr (f32 && N == 5) {
        bad |= fails<T, W>(R.test, a[0][0]);
        const Vt pi[1][1] = {{reciprocal<T, W>(R.recip, a[0][0])}};
        partitioned<5, 1>(a, pi, out, invS, row0);
    } else {
        const Vt d = det2(a[0], a[1], 0, 1);
        if constexpr (f32) bad |= fails<T, W>(R.test, a[0][0]);
        bad |= fails<T, W>(R.test, d);
        Vt pi[2][2];
        block2<Vt>({{a[0][0], a[0][1]}, {a[1][0], a[1][1]}}, reciprocal<T, W>(R.recip, d), pi);
        partitioned<N, 2>(a, pi, out, invS, row0);
    }
    if (any<T, W>(bad)) return false;
    store<W>(g.dst, first, out);
    return true;
}

// The kernel of kind K at order N, as the scalar size paths choose: order
// 3 the adjugate (the 64f order its own), order 4 the packed kinds' closed
// form (determinant by row in 32f, by column in 64f).
// What measured fastest (one thread, in cache, 1,000 objects): vectors of
// at most 32 bytes. The closed forms keep some 44 vectors live at order 4,
// and wider lanes spill more than they gain (32f order 3: 5.1 ns an object
// at 16 lanes, 3.9 at 8).
template <class T> constexpr int kL = vx::kLanes<T> < 32 / int(sizeof(T)) ? vx::kLanes<T> : 32 / int(sizeof(T));
template <class T, int N, Kind K, template <class> class Obj> constexpr auto fn() {
    constexpr Rules R = rules<T>(K, false);
    constexpr bool f64 = R.method == Method::Packed64;
    if constexpr (N == 3) return &invert<T, 3, kL<T>, R.test3, R.recip3, f64, Obj>;
    else if constexpr (N == 4) return &invert<T, 4, kL<T>, R.test, R.recip, !f64, Obj>;
    else return &packed<T, N, kL<T>, K, Obj>;
}
template <class T, int N> constexpr auto planes_fn() {
    constexpr Rules R = rules<T>(Kind::P, false);
    static_assert(R.method == Method::Scalar);
    return &invert<T, N, kL<T>, N == 3 ? R.test3 : R.test, N == 3 ? R.recip3 : R.recip, false, groups::Soa, true>;
}
template <class T> constexpr FastKernels<T> make() {
    return {kL<T>,
            {fn<T, 3, Kind::S, Strided>(), fn<T, 4, Kind::S, Strided>(), fn<T, 5, Kind::S, Strided>(),
             fn<T, 6, Kind::S, Strided>()},
            {fn<T, 3, Kind::L, Listed>(), fn<T, 4, Kind::L, Listed>(), fn<T, 5, Kind::L, Listed>(),
             fn<T, 6, Kind::L, Listed>()},
            {planes_fn<T, 3>(), planes_fn<T, 4>(), planes_fn<T, 5>(), planes_fn<T, 6>()}};
}

}  // namespace
}  // namespace ORSM_TARGET

extern const FastTable ORSM_TARGET_SYMBOL(fast_table_) = {ORSM_TARGET::make<float>(), ORSM_TARGET::make<double>()};

}  // namespace orsm::solve::inv
