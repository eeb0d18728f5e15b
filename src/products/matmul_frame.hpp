// Mul of matrix by matrix: dst = op(src1) * op(src2), op being the matrix as
// stored (m) or its transpose (t), on one pair of matrices (mm tm mt tt) or
// over arrays (array by fixed, fixed by array, array by array). Sizes give
// each operand as stored; dst is M by N and never transposed.
//
// The frame checks, estimates the work, picks the kernel kind from the
// layout and the element strides, and hands over to the kernel bodies of
// matmul_kernels.hpp with the path table of matmul_paths.hpp, or, for the
// unrolled orders of the contiguous kernels and for structure-of-arrays
// planes of layout P, to the running target's kernels of
// matmul_fast.multi.cpp (matmul_table.hpp). The entry
// points are expanded by form group in matmul_one.cpp, matmul_mam.cpp,
// matmul_mma.cpp and matmul_mama.cpp.
//
// The 64f contiguous kernels have no aligned/unaligned split: every access
// is an unaligned one, so the arithmetic (and so the bits) is that of both
// halves. In particular an odd-multiple-of-8 object stride of the array src2
// of the fixed-by-array forms (mma, tma), which sends misaligned objects down
// an aligned-access path and faults in a build with that split, simply works
// here. Nor do the 64f L kernels fetch the table entry past the last object.
#pragma once

#include <algorithm>
#include <cstdint>

#include "common/checks.hpp"
#include "common/layout.hpp"
#include "common/parallel.hpp"
#include "products/matmul_kernels.hpp"
#include "products/matmul_table.hpp"

namespace orsm::matmul {

namespace kern = ORSM_TARGET;

enum class Lay { S, P, L };

// Operand groups, one per argument group: S matrix of an array, S single
// matrix (also the fixed operand of layout L), P table of an array, P table
// of a single matrix, L table of objects. Each knows its stride and shift
// checks and builds its accessor (`cols` is the stored width, for tables).
template <class X> struct SM {
    X* p;
    int s0, s1, s2;
    OrsStatus strides() const { return strides_ok<X>(s0, s1, s2); }
    OrsStatus shifts() const { return StatusOk; }
    SAcc<X> acc(int) const { return s_mat(p, s0, s1, s2); }
    Opnd at(int f, int) const { return {byte_off(p, ptrdiff_t(f) * s0), s0, s1, 0}; }
};
template <class X> struct S1 {
    X* p;
    int s1, s2;
    OrsStatus strides() const { return strides_ok<X>(s1, s2); }
    OrsStatus shifts() const { return StatusOk; }
    SAcc<X> acc(int) const { return s_one(p, s1, s2); }
    Opnd at(int, int) const { return {p, 0, s1, 0}; }
};
template <class X> struct PM {
    X* const* p;
    int shift, s0;
    OrsStatus strides() const { return strides_ok<X>(s0); }
    OrsStatus shifts() const { return shifts_ok<X>(shift); }
    PAcc<X> acc(int cols) const { return p_arr(p, shift, s0, cols); }
    Opnd at(int f, int cols) const { return {p, s0, cols, shift + ptrdiff_t(f) * s0}; }
};
template <class X> struct P1 {
    X* const* p;
    int shift;
    OrsStatus strides() const { return StatusOk; }
    OrsStatus shifts() const { return shifts_ok<X>(shift); }
    PAcc<X> acc(int cols) const { return p_one(p, shift, cols); }
    Opnd at(int, int cols) const { return {p, 0, cols, shift}; }
};
template <class X> struct LM {
    X* const* p;
    int shift, s1, s2;
    OrsStatus strides() const { return strides_ok<X>(s1, s2); }
    OrsStatus shifts() const { return shifts_ok<X>(shift); }
    LAcc<X> acc(int) const { return l_mat(p, shift, s1, s2); }
    Opnd at(int f, int) const { return {p + f, 0, s1, shift}; }
};

template <bool transposed, class A> auto op(const A& a) {
    if constexpr (transposed)
        return TAcc<A>{a};
    else
        return a;
}

// Serial kernel below the limit, parallel form at or above it (W equal to
// the limit goes parallel). Only contiguous 32f of layout S has 2501.
constexpr int limit(Type t, Kind k) {
    switch (k) {
        case Kind::C: return t == f32 ? 2501 : 3601;
        case Kind::L: return 3601;
        default: return 1441;
    }
}

// Elements read and written: a fixed operand once, an array count times.
constexpr int work(Group g, int M, int K, int N, int count) {
    switch (g) {
        case Group::mam: return wadd(wmul(K, N), wmul(wadd(K, N), M, count));
        case Group::mma: return wadd(wmul(M, K), wmul(wadd(M, K), N, count));
        default: return wmul(wadd(wmul(M, K), wmul(K, N), wmul(M, N)), count);
    }
}

// Layout P operands: do the bytes of any dst element plane meet those of
// another dst plane or of a source plane? Each entry is the plane of its
// `count` objects (the byte range from the first object's element to the
// end of the last); a fixed operand's plane is one element. Asked only of
// small tables (up to 64 dst entries): sorted on the stack, one binary
// search per source entry.
template <class T> bool planes_meet(const PAcc<const T>* src, const int* entries, int nsrc,
                                    const PAcc<T>& d, int dentries, int count) {
    using U = std::uintptr_t;
    U start[64];
    const U dlen = U(count - 1) * U(d.s0) + sizeof(T);
    for (int e = 0; e < dentries; ++e) start[e] = U(d.table[e]) + U(d.shift);
    std::sort(start, start + dentries);
    for (int e = 1; e < dentries; ++e)
        if (start[e] - start[e - 1] < dlen) return true;
    for (int s = 0; s < nsrc; ++s) {
        const U len = U(count - 1) * U(src[s].s0) + sizeof(T);
        for (int e = 0; e < entries[s]; ++e) {
            const U lo = U(src[s].table[e]) + U(src[s].shift);
            // The first dst plane ending after lo meets it if it starts
            // before lo + len.
            const U* x = std::partition_point(start, start + dentries,
                                              [&](U s0) { return s0 + dlen <= lo; });
            if (x != start + dentries && *x < lo + len) return true;
        }
    }
    return false;
}

// Layout P over structure-of-arrays planes: every array operand's object
// stride is the element size, the shape is small enough for the overlap
// test, and no dst plane meets another dst plane or a source plane.
template <class T, bool a1, bool a2, class A, class B, class D>
bool soa_planes(const A& a, const B& b, const D& d, int M, int K, int N, int count) {
    if ((a1 && a.s0 != esize<T>) || (a2 && b.s0 != esize<T>) || d.s0 != esize<T>) return false;
    if (M > 8 || K > 8 || N > 8) return false;
    const PAcc<const T> src[2] = {a, b};
    const int entries[2] = {M * K, K * N};
    return !planes_meet<T>(src, entries, 2, d, M * N, count);
}

template <Kind k> using KindTag = std::integral_constant<Kind, k>;

// The frame of every Mul of two matrices. Checks: pointers, count (arrays),
// sizes, inner sizes, strides, shifts.
template <Group G, Form F, Lay Y, class T, class G1, class G2, class GD>
ORSM_INLINE OrsStatus mul(const G1& g1, int w1, int h1, const G2& g2, int w2, int h2, const GD& gd,
                          int count) {
    constexpr bool t1 = (F & 1) != 0, t2 = (F & 2) != 0;
    const int M = t1 ? w1 : h1, K = t1 ? h1 : w1;
    const int N = t2 ? h2 : w2, K2 = t2 ? w2 : h2;
    const OrsStatus st = first_failure(
        nonnull(g1.p, g2.p, gd.p), G == Group::one ? StatusOk : count_ok(count),
        sizes_ok(w1, h1, w2, h2), K == K2 ? StatusOk : StatusSizeMismatch,
        first_failure(g1.strides(), g2.strides(), gd.strides()),
        first_failure(g1.shifts(), g2.shifts(), gd.shifts()));
    if (st != StatusOk) return st;

    constexpr Type ty = sizeof(T) == 4 ? f32 : f64;
    constexpr Fixed fx = G == Group::mam ? Fixed::src2 : G == Group::mma ? Fixed::src1 : Fixed::none;
    constexpr Kind contig = Y == Lay::S ? Kind::C : Y == Lay::L ? Kind::L : Kind::P;
    constexpr Kind strided = Y == Lay::S ? Kind::S2 : Y == Lay::L ? Kind::LS2 : Kind::P;

    // Serial kernel on the whole call or the parallel form, by the limit of
    // the kernel kind; share(f, k) runs objects f to f + k - 1.
    auto over = [&](Kind kd, auto share) {
        if constexpr (G == Group::one) {
            share(0, 1);
            return StatusOk;
        } else {
            return dispatch(work(G, M, K, N, count), serial_below(limit(ty, kd)), count,
                            [&](int f, int k) {
                                share(f, k);
                                return StatusOk;
                            });
        }
    };

    // The running target's table serves the unrolled orders of the
    // contiguous S and L kernels (the kernel's own paths, or those of the
    // contiguous single kernel it calls per object) and layout P over
    // structure-of-arrays planes that do not meet.
    bool contiguous = false;
    if constexpr (Y != Lay::P) contiguous = all_contiguous<T>(g1.s2, g2.s2, gd.s2);
    // (The single products of layout S reach this frame only when they are
    // not the target's to run: see matmul_table.hpp.)
    if (G != Group::one && contiguous && M == K && K == N && M >= 3 && M <= 6) {
        constexpr Paths pc = paths(G, F, ty, contig);
        constexpr unsigned orders = unrolled_orders(pc);
        if ((orders >> M) & 1u) {
            const Kernel k = isa::select(matmul_tables).order[int(G)][F][ty][Y == Lay::L][M - 3];
            return over(contig, [&](int f, int n) {
                k(g1.at(f, w1), g2.at(f, w2), gd.at(f, N), n);
            });
        }
    }
    if constexpr (Y == Lay::P && G != Group::one) {
        if (soa_planes<T, G != Group::mma, G != Group::mam>(g1.acc(w1), g2.acc(w2), gd.acc(N), M,
                                                             K, N, count)) {
            constexpr Paths pp = paths(G, F, ty, Kind::P);
            const bool unrolled = M == K && K == N && M >= 3 && M <= 6 && ((pp.orders >> M) & 1u);
            const SoaKernel k =
                isa::select(matmul_tables).soa[int(G) - 1][F][ty][unrolled ? M - 3 : 4];
            return over(Kind::P, [&](int f, int n) {
                k(g1.at(f, w1), g2.at(f, w2), gd.at(f, N), M, K, N, n);
            });
        }
    }

    // The baseline kernels.
    auto go = [&]<Kind kd>(KindTag<kd>, auto a, auto b, auto d) {
        static constexpr Paths p = paths(G, F, ty, kd);
        const auto A = op<t1>(a);
        const auto B = op<t2>(b);
        return over(kd, [&](int f, int n) {
            kern::run<p, fx>(A.object(f), B.object(f), d.object(f), M, K, N, n);
        });
    };
    if constexpr (Y == Lay::P) {
        return go(KindTag<Kind::P>{}, g1.acc(w1), g2.acc(w2), gd.acc(N));
    } else {
        if (contiguous)
            return go(KindTag<contig>{}, g1.acc(w1).template as<true>(),
                      g2.acc(w2).template as<true>(), gd.acc(N).template as<true>());
        return go(KindTag<strided>{}, g1.acc(w1), g2.acc(w2), gd.acc(N));
    }
}

// A single product of layout S is the call whose price is the call itself:
// when every check passes, all rows are contiguous and the order has an
// unrolled path, the entry point jumps to the running target's kernel with
// the operands in registers. Anything else (a fault included) goes on, with
// the entry point's own arguments, to the whole frame, which checks in order.
#define ORSM_MM_ONE_PARAMS(T)                                                          \
    const T *src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,    \
        const T *src2, int src2Stride1, int src2Stride2, int src2Width, int src2Height, \
        T *dst, int dstStride1, int dstStride2
#define ORSM_MM_ONE_ARGS                                                                 \
    src1, src1Stride1, src1Stride2, src1Width, src1Height, src2, src2Stride1, src2Stride2, \
        src2Width, src2Height, dst, dstStride1, dstStride2

template <Form F, class T> [[gnu::noinline]] OrsStatus mul_one_frame(ORSM_MM_ONE_PARAMS(T)) {
    return mul<Group::one, F, Lay::S, T>(
        S1<const T>{src1, src1Stride1, src1Stride2}, src1Width, src1Height,
        S1<const T>{src2, src2Stride1, src2Stride2}, src2Width, src2Height,
        S1<T>{dst, dstStride1, dstStride2}, 1);
}
template <Form F, class T> ORSM_INLINE OrsStatus mul_one(ORSM_MM_ONE_PARAMS(T)) {
    constexpr Type ty = sizeof(T) == 4 ? f32 : f64;
    constexpr unsigned orders = unrolled_orders(paths(Group::one, F, ty, Kind::C));
    const int n = src1Width;
    // Equal sizes in 3..6 and element strides equal to the element size
    // leave the row strides and the pointers to the frame's own steps.
    if (unsigned(n - 3) <= 3u && ((orders >> n) & 1u) && src1Height == n && src2Width == n &&
        src2Height == n && all_contiguous<T>(src1Stride2, src2Stride2, dstStride2) &&
        strides_ok<T>(src1Stride1, src2Stride1, dstStride1) == StatusOk &&
        nonnull(src1, src2, dst) == StatusOk)
        return isa::select(matmul_tables).one[F][ty][n - 3](src1, src1Stride1, src2, src2Stride1,
                                                            dst, dstStride1);
    return mul_one_frame<F, T>(ORSM_MM_ONE_ARGS);
}

}  // namespace orsm::matmul

// The entry points of one form group (ORSM_MM_ONE, ORSM_MM_MAM, ORSM_MM_MMA,
// ORSM_MM_MAMA) for both element types.
#define ORSM_MM_FORMS(G, T, t, a, b, c, d) \
    G(T, t, a, mm) G(T, t, b, tm) G(T, t, c, mt) G(T, t, d, tt)

// Argument groups: parameters and the group value built from them.
#define ORSM_MM_P_SM(X, x) X* x, int x##Stride0, int x##Stride1, int x##Stride2
#define ORSM_MM_V_SM(X, x) SM<X>{x, x##Stride0, x##Stride1, x##Stride2}
#define ORSM_MM_P_S1(X, x) X* x, int x##Stride1, int x##Stride2
#define ORSM_MM_V_S1(X, x) S1<X>{x, x##Stride1, x##Stride2}
#define ORSM_MM_P_PM(X, x) X* const* x, int x##RoiShift, int x##Stride0
#define ORSM_MM_V_PM(X, x) PM<X>{x, x##RoiShift, x##Stride0}
#define ORSM_MM_P_P1(X, x) X* const* x, int x##RoiShift
#define ORSM_MM_V_P1(X, x) P1<X>{x, x##RoiShift}
#define ORSM_MM_P_LM(X, x) X* const* x, int x##RoiShift, int x##Stride1, int x##Stride2
#define ORSM_MM_V_LM(X, x) LM<X>{x, x##RoiShift, x##Stride1, x##Stride2}
#define ORSM_MM_COUNT_one
#define ORSM_MM_COUNT_arr , int count
#define ORSM_MM_N_one 1
#define ORSM_MM_N_arr count

#define ORSM_MM_ENTRY(name, G, F, Y, T, K1, K2, KD, C)                                           \
    extern "C" ORSM_API OrsStatus name(ORSM_MM_P_##K1(const T, src1), int src1Width,             \
                                       int src1Height, ORSM_MM_P_##K2(const T, src2),            \
                                       int src2Width, int src2Height,                            \
                                       ORSM_MM_P_##KD(T, dst) ORSM_MM_COUNT_##C) {               \
        using namespace ::orsm::matmul;                                                          \
        return mul<Group::G, F, Lay::Y, T>(ORSM_MM_V_##K1(const T, src1), src1Width, src1Height, \
                                           ORSM_MM_V_##K2(const T, src2), src2Width, src2Height, \
                                           ORSM_MM_V_##KD(T, dst), ORSM_MM_N_##C);               \
    }

// One form in its layouts, by group: single matrices (S, P), array by fixed,
// fixed by array, array by array (S, P, L).
#define ORSM_MM_ONE(T, t, nm, F)                                         \
    extern "C" ORSM_API OrsStatus orsmMul_##nm##_##t(ORSM_MM_ONE_PARAMS(T)) { \
        using namespace ::orsm::matmul;                                  \
        return mul_one<F, T>(ORSM_MM_ONE_ARGS);                          \
    }                                                                    \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_P, one, F, P, T, P1, P1, P1, one)
#define ORSM_MM_MAM(T, t, nm, F)                                         \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t, mam, F, S, T, SM, S1, SM, arr)     \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_P, mam, F, P, T, PM, P1, PM, arr) \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_L, mam, F, L, T, LM, S1, LM, arr)
#define ORSM_MM_MMA(T, t, nm, F)                                         \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t, mma, F, S, T, S1, SM, SM, arr)     \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_P, mma, F, P, T, P1, PM, PM, arr) \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_L, mma, F, L, T, S1, LM, LM, arr)
#define ORSM_MM_MAMA(T, t, nm, F)                                         \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t, mama, F, S, T, SM, SM, SM, arr)     \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_P, mama, F, P, T, PM, PM, PM, arr) \
    ORSM_MM_ENTRY(orsmMul_##nm##_##t##_L, mama, F, L, T, LM, LM, LM, arr)

