// Det: the determinant. Orders 3 to 6 by a closed form with no test and no
// division; every other order by Gaussian elimination with row pivoting in
// the caller's scratch, where a small pivot makes the determinant exactly 0.
// No status reports a singular matrix: 0 is the answer.
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

#include "measures/det.hpp"
#include "measures/eliminate.hpp"

namespace orsm::meas {

// All elements read once into locals, then the minors.
template <int N, class A, class T> void closed(const A& a, T* dst, int count) {
    for (int n = 0; n < count; ++n) {
        T x[N][N];
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) x[r][c] = a(n, r, c);
        dst[n] = closed_det<N>(x);
    }
}

// The contiguous S and L arrays hand groups of W objects to the fast paths
// (det.hpp) where dst is apart from the group's matrices; a group that
// meets dst, and the objects after the last whole group, take the closed
// form one at a time.
template <int N, class A, class T> void closed_array(const A& a, T* dst, int count) {
    const DetFast<T>& k = det_fast<T>();
    const auto objs = groups::objects(a);
    const auto fn = k.of(objs, N);
    const int W = fn ? k.lanes : 1;
    auto group = [&](int n) {
        if (groups::hull(objs, n, W, N, N).meets(groups::Bytes::of(dst + n, W))) return false;
        fn(objs, dst, n);
        return true;
    };
    groups::in_groups(count, W, group, [&](int n) {
        closed<N>(a.object(n), dst + n, 1);
        return StatusOk;
    });
}

// P arrays of structure-of-arrays planes (objects one element apart) go
// W objects at a time when dst meets no plane; a last part group is done
// again whole, ending at the last object (the same bits stored twice), and
// fewer objects than W go one at a time.
template <int N, class T> void closed_planes(const PAcc<const T>& a, T* dst, int count) {
    const DetFast<T>& k = det_fast<T>();
    const groups::Soa<const T> planes = groups::planes(a);
    const int W = k.plane_lanes;
    if (count < W || !groups::apart(planes, N, N, count, dst, count)) return closed<N>(a, dst, count);
    const auto fn = k.of(planes, N);
    int n = 0;
    for (; n + W <= count; n += W) fn(planes, dst, n);
    if (n < count) fn(planes, dst, count - W);
}

struct Det {
    static constexpr bool uses_buffer = true;
    static constexpr bool single_tests_contiguity = true;

    template <Kind K, bool Single, class A, class T>
    static void kernel(const A& a, Geo g, T* buffer, T* dst, int count) {
        constexpr bool fast = !Single && (K == Kind::S || K == Kind::L);
        auto orders = [&](auto n) {
            constexpr int N = decltype(n)::value;
            if constexpr (fast) {
                closed_array<N>(a, dst, count);
            } else if constexpr (!Single && K == Kind::P) {
                if (groups::one_apart(a)) closed_planes<N>(a, dst, count);
                else closed<N>(a, dst, count);
            } else {
                closed<N>(a, dst, count);
            }
        };
        switch (g.w) {
            case 3: return orders(std::integral_constant<int, 3>{});
            case 4: return orders(std::integral_constant<int, 4>{});
            case 5: return orders(std::integral_constant<int, 5>{});
            case 6: return orders(std::integral_constant<int, 6>{});
            default: break;
        }
        // One scratch serves all objects in turn.
        // A failed elimination answers exactly 0.
        for (int n = 0; n < count; ++n) {
            const Elimination<T> e = eliminate<LoopTest::Below>(a, n, g.w, buffer);
            dst[n] = e.ok ? e.det : T(0);
        }
    }

    // The order counts once, not squared.
    static int work(Geo g, int count) { return wmul(g.w, count); }
    template <class T> static constexpr Limit limit(Kind) { return serial_below(14401); }
    // Workspace of a member: the copy and the row table, in elements. The
    // parallel form takes it for every order, 3 to 6 too.
    static int buffer_elems(Geo g) { return wadd(wmul(g.w, g.w), g.w); }
};

}  // namespace orsm::meas

#define MEAS_SZD_Det MEAS_SZD_ORDER
#define MEAS_SZV_Det MEAS_SZV_ORDER
#define MEAS_SZOK_Det MEAS_SZOK_ORDER
#define MEAS_BUFD_Det(T) T *buffer,
#define MEAS_BUFV_Det(T) buffer
#define MEAS_BUFCHK_Det , buffer

#define X(T, t) MEAS_FAMILY(T, t, Det)
ORSM_FOR_TYPES(X)
#undef X
