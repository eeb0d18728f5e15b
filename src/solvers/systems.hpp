// The frames' half of the fast paths of CholeskyBackSubst and QRBackSubst,
// whose systems (a factor each, or one for all) are solved W at a time with
// the lanes of a vector over systems (groups::Systems).
#pragma once

#include <type_traits>

#include "kernels/groups.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve {

// Solves systems [0, n) of a contiguous S or L mava call, an S mva call, or
// a P mava or mva call over structure-of-arrays planes through a family's
// table k (solve_lanes[order - 3] per group of S and L systems, `lanes`
// over planes, of(group, N) the kernel), W at a time from the first while
// whole groups remain and their operands allow; returns n, where the scalar
// path goes on. The one factor of the L mva form is an S operand: that form
// has no fast path.
template <Kind K, int N, class Kernels, class A, class B, class D>
int fast_solves(const Kernels& k, const A& a, const B& b, const D& d, int count) {
    using T = Plain<typename D::value_type>;
    int n = 0;
    if constexpr (K == Kind::S || K == Kind::L) {
        if constexpr (K == Kind::S || std::is_same_v<decltype(groups::objects(a)), groups::Listed<const T>>) {
            using groups::objects;
            const groups::SystemsOf<T, K == Kind::L> g{objects(a), objects(b), objects(d)};
            const int W = k.solve_lanes[N - 3];
            for (const auto fn = k.of(g, N); n + W <= count && groups::apart(g, N, n, W); n += W) fn(g, n);
        }
    } else if constexpr (K == Kind::P) {
        // Structure-of-arrays planes, tested once for the call.
        const groups::Systems<T, groups::Soa> g{groups::planes(a), groups::planes(b), groups::planes(d)};
        n = groups::in_plane_groups(a, b, d, N, count, k.lanes, [&](int f) { k.of(g, N)(g, f); });
    }
    return n;
}

}  // namespace orsm::solve
