// Invert's kernels as data and its closed forms of orders 3 and 4, shared by
// the frame (invert.cpp) and the fast paths with lanes over objects
// (invert_fast.multi.cpp), and the fast paths' table.
#pragma once

#include <cmath>

#include "kernels/groups.hpp"
#include "kernels/isa.hpp"
#include "measures/measures.hpp"
#include "solvers/paths.hpp"

namespace orsm::solve::inv {

template <class T> constexpr T tol = meas::tolerance<T>();
// The band: the doubles nearest 1e-07 and 1e-15.
template <class T> constexpr double band = sizeof(T) == 4 ? 1e-07 : 1e-15;

// A singularity test: Tol passes |x| at or above the tolerance (a NaN
// fails); Band fails x strictly between -band and +band, x taken as a
// double (a NaN passes).
enum class Test { Tol, Band };
// True: one division. Refined: the 32f estimate and one Newton step.
enum class Recip { True, Refined };
enum class Method { Scalar, Packed32, Packed64 };

struct Rules {
    Method method;
    Test test3, test;     // order 3; orders 4 to 6
    Recip recip3, recip;  // order 3; orders 4 to 6
    bool array32;         // 32f contiguous arrays: last status, row 0 as scratch
};

template <class T> constexpr Rules rules(Kind k, bool single) {
    if (k == Kind::S2 || k == Kind::P || k == Kind::LS2)
        return {Method::Scalar, Test::Tol, Test::Tol, Recip::True, Recip::True, false};
    if (sizeof(T) == 8) {
        const Test t = k == Kind::L ? Test::Band : Test::Tol;  // only the list form uses the band
        return {Method::Packed64, t, t, Recip::True, Recip::True, false};
    }
    if (single) return {Method::Packed32, Test::Tol, Test::Tol, Recip::Refined, Recip::Refined, false};
    // The arrays' order-3 kernel is scalar: its test (on |det| as a double,
    // the same as in 32f) and a true division.
    return {Method::Packed32, Test::Tol, Test::Band, Recip::True, Recip::Refined, true};
}

// The rules of a kernel, named as a constant of its own (a local constexpr
// copy inside the OpenMP regions trips some compilers).
template <class T, Kind K, bool Single> inline constexpr Rules rules_of = rules<T>(K, Single);

template <int N, class T> using Sq = T[N][N];

// ---- adjugate: the scalar size paths and every order-3 path ------------------------
//
// M[j][i] is the minor that leaves out row j and column i, expanded from the
// 2 by 2 minors upward: D(S) for a set S of k columns is the determinant of
// the first k rows left on S, along its last row, terms from the last column
// of S to the first, alternating from plus. A 2 by 2 minor on rows i < k and
// columns j < l is thus a(i,j) a(k,l) - a(i,l) a(k,j).
// Unrolled whole, so that every minor is a register of its own.
template <int N, class T> ORSM_INLINE void minors(const Sq<N, T>& a, Sq<N, T>& M) {
    constexpr int full = (1 << N) - 1;
#pragma GCC unroll 8
    for (int j = 0; j < N; ++j) {
        auto row = [&](int k) { return k < j ? k : k + 1; };  // k-th row left
        T D[1 << N];
#pragma GCC unroll 8
        for (int c = 0; c < N; ++c) D[1 << c] = a[row(0)][c];
#pragma GCC unroll 8
        for (int k = 2; k < N; ++k)
#pragma GCC unroll 64
            for (int mask = 0; mask < full; ++mask) {
                if (__builtin_popcount(mask) != k) continue;
                int t = 0;
                T s{};
#pragma GCC unroll 8
                for (int c = N - 1; c >= 0; --c) {
                    if (!(mask >> c & 1)) continue;
                    const T p = a[row(k - 1)][c] * D[mask & ~(1 << c)];
                    s = t == 0 ? p : t % 2 ? s - p : s + p;
                    ++t;
                }
                D[mask] = s;
            }
        for (int i = 0; i < N; ++i) M[j][i] = D[full & ~(1 << i)];
    }
}

// The adjugate (signed cofactors, transposed) into adj and the
// determinant: down column 0 from the last row up, left to right, or in the
// packed 64f order-3 order (det_p64). All of a is read first. V is T or a
// vector of T.
template <int N, class V> ORSM_INLINE V adjugate(const Sq<N, V>& a, Sq<N, V>& adj, bool det_p64) {
    V M[N][N];
    minors<N>(a, M);
    V det;
    if (det_p64) {
        det = ((a[0][0] * M[0][0]) + (a[2][0] * M[2][0])) - (a[1][0] * M[1][0]);
    } else {
        const V first = a[N - 1][0] * M[N - 1][0];
        det = (N - 1) % 2 ? -first : first;
        for (int i = N - 2; i >= 0; --i) {
            const V p = a[i][0] * M[i][0];
            det = i % 2 ? det - p : det + p;
        }
    }
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) adj[i][j] = (i + j) % 2 ? V{} - M[j][i] : M[j][i];
    return det;
}

// ---- order 4 of the packed kinds -----------------------------------------------------
//
// The twelve 2 by 2 minors of rows 0-1 and rows 2-3, the adjugate from them,
// the determinant by row 0 (32f, against its cofactors) or by column 0
// (64f). T may be a vector.
template <class T> ORSM_INLINE T adjugate4(const Sq<4, T>& a, Sq<4, T>& adj, bool det_by_row) {
    const T s0 = a[0][0] * a[1][1] - a[0][1] * a[1][0], s1 = a[0][0] * a[1][2] - a[0][2] * a[1][0];
    const T s2 = a[0][0] * a[1][3] - a[0][3] * a[1][0], s3 = a[0][1] * a[1][2] - a[0][2] * a[1][1];
    const T s4 = a[0][1] * a[1][3] - a[0][3] * a[1][1], s5 = a[0][2] * a[1][3] - a[0][3] * a[1][2];
    const T c0 = a[2][0] * a[3][1] - a[2][1] * a[3][0], c1 = a[2][0] * a[3][2] - a[2][2] * a[3][0];
    const T c2 = a[2][0] * a[3][3] - a[2][3] * a[3][0], c3 = a[2][1] * a[3][2] - a[2][2] * a[3][1];
    const T c4 = a[2][1] * a[3][3] - a[2][3] * a[3][1], c5 = a[2][2] * a[3][3] - a[2][3] * a[3][2];
    const T m[4][4] = {
        {(a[1][1] * c5 - a[1][2] * c4) + a[1][3] * c3, (a[0][2] * c4 - a[0][1] * c5) - a[0][3] * c3,
         (a[3][1] * s5 - a[3][2] * s4) + a[3][3] * s3, (a[2][2] * s4 - a[2][1] * s5) - a[2][3] * s3},
        {(a[1][2] * c2 - a[1][0] * c5) - a[1][3] * c1, (a[0][0] * c5 - a[0][2] * c2) + a[0][3] * c1,
         (a[3][2] * s2 - a[3][0] * s5) - a[3][3] * s1, (a[2][0] * s5 - a[2][2] * s2) + a[2][3] * s1},
        {(a[1][0] * c4 - a[1][1] * c2) + a[1][3] * c0, (a[0][1] * c2 - a[0][0] * c4) - a[0][3] * c0,
         (a[3][0] * s4 - a[3][1] * s2) + a[3][3] * s0, (a[2][1] * s2 - a[2][0] * s4) - a[2][3] * s0},
        {(a[1][1] * c1 - a[1][0] * c3) - a[1][2] * c0, (a[0][0] * c3 - a[0][1] * c1) + a[0][2] * c0,
         (a[3][1] * s1 - a[3][0] * s3) - a[3][2] * s0, (a[2][0] * s3 - a[2][1] * s1) + a[2][2] * s0},
    };
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) adj[i][j] = m[i][j];
    auto cof = [&](int k) { return det_by_row ? a[0][k] * m[k][0] : a[k][0] * m[0][k]; };
    return (cof(0) + cof(1)) + (cof(2) + cof(3));
}

// ---- block elimination: orders 5 and 6 of the packed kinds -------------------------
//
// With the leading K by K block P of a (columns already exchanged), its
// inverse pi, Q beside it, R below it and S the rest: X = pi Q, Z = R pi,
// the Schur complement S - Z Q inverted by invS, then the partitioned
// inverse. row0(v) sees row 0 of [pi | X] before the complement is
// inverted (the arrays' scratch).
template <int N, int K, class T, class InvS, class Row0>
OrsStatus partitioned(const Sq<N, T>& a, const Sq<K, T>& pi, Sq<N, T>& out, InvS&& invS, Row0&& row0) {
    constexpr int M = N - K;
    T x[K][M], z[M][K], s[M][M], si[M][M];
    for (int i = 0; i < K; ++i)
        for (int j = 0; j < M; ++j) {
            T v = pi[i][0] * a[0][K + j];
            for (int l = 1; l < K; ++l) v = v + pi[i][l] * a[l][K + j];
            x[i][j] = v;
        }
    for (int i = 0; i < M; ++i)
        for (int j = 0; j < K; ++j) {
            T v = a[K + i][0] * pi[0][j];
            for (int l = 1; l < K; ++l) v = v + a[K + i][l] * pi[l][j];
            z[i][j] = v;
        }
    for (int i = 0; i < M; ++i)
        for (int j = 0; j < M; ++j) {
            T v = a[K + i][K + j];
            for (int l = 0; l < K; ++l) v = v - z[i][l] * a[l][K + j];
            s[i][j] = v;
        }
    T r0[N];
    for (int j = 0; j < N; ++j) r0[j] = j < K ? pi[0][j] : x[0][j - K];
    row0(r0);
    if (const OrsStatus st = invS(s, si); st != StatusOk) return st;
    for (int i = 0; i < M; ++i)
        for (int j = 0; j < K; ++j) {  // bottom left: -Si Z
            T v = si[i][0] * z[0][j];
            for (int l = 1; l < M; ++l) v = v + si[i][l] * z[l][j];
            out[K + i][j] = -v;
        }
    for (int i = 0; i < K; ++i) {
        for (int j = 0; j < M; ++j) {  // top right: -X Si
            T v = x[i][0] * si[0][j];
            for (int l = 1; l < M; ++l) v = v + x[i][l] * si[l][j];
            out[i][K + j] = -v;
        }
        for (int j = 0; j < K; ++j) {  // top left: pi - X (bottom left)
            T v = pi[i][j];
            for (int l = 0; l < M; ++l) v = v - x[i][l] * out[K + l][j];
            out[i][j] = v;
        }
    }
    for (int i = 0; i < M; ++i)
        for (int j = 0; j < M; ++j) out[K + i][K + j] = si[i][j];
    return StatusOk;
}

// The inverse of a 2 by 2 block from the reciprocal r of its tested
// determinant.
template <class T> ORSM_INLINE void block2(const Sq<2, T>& b, T r, Sq<2, T>& pi) {
    pi[0][0] = b[1][1] * r, pi[0][1] = -b[0][1] * r, pi[1][0] = -b[1][0] * r, pi[1][1] = b[0][0] * r;
}
template <class T> ORSM_INLINE T det2(const T* r0, const T* r1, int c1, int c2) {
    return r0[c1] * r1[c2] - r0[c2] * r1[c1];
}

// ---- fast paths -------------------------------------------------------------------

// Orders 3 to 6 of the contiguous S and L array kernels and of P arrays
// over structure-of-arrays planes, W objects at a time: a group writes only
// when every determinant passes (and, at orders 5 and 6 of S and L, every
// lane takes the leading pivot); otherwise it writes nothing and returns
// false, and the frame runs the scalar path on its objects.
template <class T> struct FastKernels {
    template <template <class> class Obj> using Fn = bool (*)(const groups::SrcDst<T, Obj>&, int first);
    int lanes;
    Fn<groups::Strided> s[4];  // [order - 3]
    Fn<groups::Listed> l[4];
    Fn<groups::Soa> p[4];      // [order - 3]: P arrays of structure-of-arrays planes
    Fn<groups::Strided> of(const groups::SrcDst<T, groups::Strided>&, int N) const { return s[N - 3]; }
    Fn<groups::Listed> of(const groups::SrcDst<T, groups::Listed>&, int N) const { return l[N - 3]; }
};
using FastTable = isa::ByType<FastKernels>;
extern const FastTable fast_table_sse2, fast_table_avx2, fast_table_avx512;
inline const FastTable* const kFastTables[isa::kTargets] = {&fast_table_sse2, &fast_table_avx2, &fast_table_avx512};
template <class T> const FastKernels<T>& fast_kernels() { return isa::select(kFastTables).template of<T>(); }

}  // namespace orsm::solve::inv
