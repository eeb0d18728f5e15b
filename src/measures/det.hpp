// Det's closed forms of orders 3 to 6, written once for the scalar kernels
// (det.cpp) and the fast paths with lanes over objects
// (det_fast.multi.cpp), which evaluate them on vectors; and the fast
// paths' table.
#pragma once

#include <array>
#include <utility>

#include "kernels/groups.hpp"
#include "kernels/isa.hpp"

namespace orsm::meas {

// ---- closed forms ---------------------------------------------------------------------
//
// D(S), for a set S of k columns, is the determinant of rows 0 .. k-1 on
// those columns; D of one column c is element (0, c). For k of 2 or more the
// terms are taken from the last column of S to the first, the term of
// column c being element (k-1, c) times D(S less c), and summed left to
// right with alternating signs, the first one plus. Minors are indexed by
// their column mask and each is formed once.

struct Term {
    int dst, src, row, col;
    int sign;  // 0 for the first term of a minor, else +1 or -1
};

// Minors whose terms go in another order than the rule: at order 6, D of
// columns 0, 1, 3, 4, 5 takes column 3's term before column 4's, and the
// determinant itself takes column 0's term before column 1's.
struct TermOrder {
    int order, mask, k;
    int cols[6], signs[6];
};
inline constexpr TermOrder closed_exceptions[] = {
    {6, 0b111011, 5, {5, 3, 4, 1, 0}, {+1, +1, -1, -1, +1}},
    {6, 0b111111, 6, {5, 4, 3, 2, 0, 1}, {+1, -1, +1, -1, -1, +1}},
};

constexpr int popcount(int m) {
    int c = 0;
    for (; m; m &= m - 1) ++c;
    return c;
}
// The minors an order needs: every set of k columns for k from 2 below N,
// and all N columns.
constexpr bool needed(int N, int mask) {
    const int k = popcount(mask);
    return k >= 2 && (k < N || mask == (1 << N) - 1);
}
template <int N> constexpr int program_length() {
    int len = 0;
    for (int mask = 0; mask < (1 << N); ++mask)
        if (needed(N, mask)) len += popcount(mask);
    return len;
}

// The terms of every minor, smaller minors first.
template <int N> constexpr std::array<Term, program_length<N>()> make_program() {
    std::array<Term, program_length<N>()> p{};
    int at = 0;
    for (int k = 2; k <= N; ++k)
        for (int mask = 0; mask < (1 << N); ++mask) {
            if (popcount(mask) != k || !needed(N, mask)) continue;
            int cols[6], signs[6], c = 0;
            for (int col = N - 1; col >= 0; --col)
                if (mask >> col & 1) cols[c] = col, signs[c] = c % 2 ? -1 : +1, ++c;
            for (const TermOrder& e : closed_exceptions)
                if (e.order == N && e.mask == mask)
                    for (int i = 0; i < k; ++i) cols[i] = e.cols[i], signs[i] = e.signs[i];
            for (int i = 0; i < k; ++i)
                p[at++] = Term{mask, mask & ~(1 << cols[i]), k - 1, cols[i], i == 0 ? 0 : signs[i]};
        }
    return p;
}
template <int N> inline constexpr auto closed_program = make_program<N>();

template <int N, class T, std::size_t... I>
ORSM_INLINE T closed_eval(const T (&a)[N][N], std::index_sequence<I...>) {
    T m[1 << N];
    for (int c = 0; c < N; ++c) m[1 << c] = a[0][c];
    (
        [&]() __attribute__((always_inline)) {
            constexpr Term t = closed_program<N>[I];
            const T p = a[t.row][t.col] * m[t.src];
            if constexpr (t.sign == 0) m[t.dst] = p;
            else if constexpr (t.sign > 0) m[t.dst] = m[t.dst] + p;
            else m[t.dst] = m[t.dst] - p;
        }(),
        ...);
    return m[(1 << N) - 1];
}
template <int N, class T> ORSM_INLINE T closed_det(const T (&a)[N][N]) {
    return closed_eval<N>(a, std::make_index_sequence<program_length<N>()>{});
}

// ---- fast paths -------------------------------------------------------------------

// Orders 3 to 6 of the contiguous S and L array kernels and of P arrays of
// structure-of-arrays planes, W objects at a time: the determinants of
// objects first .. first + W - 1 into dst[first ..]. A frame hands a group
// over only when dst is apart from the group's matrices.
template <class T> struct DetFast {
    template <template <class> class Obj> using Fn = void (*)(const Obj<const T>&, T* dst, int first);
    int lanes, plane_lanes;  // objects a group: S and L, P
    Fn<groups::Strided> s[4];  // [order - 3], null where the scalar path is faster
    Fn<groups::Listed> l[4];
    Fn<groups::Soa> p[4];
    Fn<groups::Strided> of(const groups::Strided<const T>&, int N) const { return s[N - 3]; }
    Fn<groups::Listed> of(const groups::Listed<const T>&, int N) const { return l[N - 3]; }
    Fn<groups::Soa> of(const groups::Soa<const T>&, int N) const { return p[N - 3]; }
};
using DetTable = isa::ByType<DetFast>;
extern const DetTable det_table_sse2, det_table_avx2, det_table_avx512;
inline const DetTable* const kDetTables[isa::kTargets] = {&det_table_sse2, &det_table_avx2, &det_table_avx512};
template <class T> const DetFast<T>& det_fast() { return isa::select(kDetTables).template of<T>(); }

}  // namespace orsm::meas
