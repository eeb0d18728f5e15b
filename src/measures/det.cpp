// Det: the determinant. Orders 3 to 6 by a closed form with no test and no
// division; every other order by Gaussian elimination with row pivoting in
// the caller's scratch, where a small pivot makes the determinant exactly 0.
// No status reports a singular matrix: 0 is the answer.
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

#include "measures/eliminate.hpp"

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

// All elements read once into locals, then the minors.
template <int N, class A, class T> void closed(const A& a, T* dst, int count) {
    for (int n = 0; n < count; ++n) {
        T x[N][N];
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) x[r][c] = a(n, r, c);
        dst[n] = closed_eval<N>(x, std::make_index_sequence<program_length<N>()>{});
    }
}

struct Det {
    static constexpr bool uses_buffer = true;
    static constexpr bool single_tests_contiguity = true;

    template <Kind, bool, class A, class T>
    static void kernel(const A& a, Geo g, T* buffer, T* dst, int count) {
        switch (g.w) {
            case 3: return closed<3>(a, dst, count);
            case 4: return closed<4>(a, dst, count);
            case 5: return closed<5>(a, dst, count);
            case 6: return closed<6>(a, dst, count);
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
