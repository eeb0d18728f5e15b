// Vector algebra on pairs of vectors: the cross product of 3-element vectors,
// Saxpy (src1 * value + src2) and LComb (src1 * value1 + src2 * value2), in
// the forms vv, vav (src1 the array), vva (src2 the array) and vava.
//
// Every result is a fixed formula in the element type: each product rounded,
// then the one sum or difference rounded, first named product first. So
// every kernel gives the same bits; kernels differ only in the shape of
// their loops, which decides what a dst overlapping a source sees:
//
//  - object paths (obj_fixed): an object is read whole, computed, then
//    written; on some the single vector is loaded once before the loop over
//    objects and held;
//  - element paths (elem_fixed, elem_any): n ascending, i ascending, the two
//    reads of an element ahead of its store, the single vector re-read for
//    every object;
//  - the long loop (elem_long): a restrict loop the compiler vectorises,
//    unless dst overlaps a source, when the element path serves.
#pragma once

#include <climits>
#include <initializer_list>
#include <cstdint>

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "elementwise/elementwise.hpp"

namespace orsm::vec {

using ew::Many;
using ew::One;
using ew::many;
using ew::obj_fixed;
using ew::one;

enum class Family { CrossProduct, Saxpy, LComb };
enum class F { vv, vav, vva, vava };
// Kernels: contiguous and strided in S and L, one in P.
enum class Kind { S, S2, L, LS2, P };

// ---- operations ---------------------------------------------------------------

template <class T> struct SaxpyOp {
    static constexpr bool per_element = true;
    T value;
    ORSM_INLINE T operator()(T a, T b) const {
        const T p = a * value;
        return p + b;
    }
};
template <class T> struct LCombOp {
    static constexpr bool per_element = true;
    T value1, value2;
    ORSM_INLINE T operator()(T a, T b) const {
        const T p = a * value1;
        const T q = b * value2;
        return p + q;
    }
};
// The first named product of each element is the minuend.
template <class T> struct CrossOp {
    static constexpr bool per_element = false;
    ORSM_INLINE void object(const T* a, const T* b, T* r) const {
        const T p0 = a[1] * b[2], q0 = a[2] * b[1];
        const T p1 = a[2] * b[0], q1 = a[0] * b[2];
        const T p2 = a[0] * b[1], q2 = a[1] * b[0];
        r[0] = p0 - q0;
        r[1] = p1 - q1;
        r[2] = p2 - q2;
    }
};

// ---- paths ----------------------------------------------------------------------

// Lengths as a bit set (bit l for length l).
constexpr unsigned lens(std::initializer_list<int> ls) {
    unsigned m = 0;
    for (int l : ls) m |= 1u << l;
    return m;
}
inline constexpr unsigned k3to6 = lens({3, 4, 5, 6});

// What one kernel does by length: lengths read object by object (`whole`),
// lengths read so only when the call's addresses and object strides are all
// 16-byte aligned (`whole_aligned`), whether those paths hold the single
// vector across objects, and the length from which the vectorised long loop
// runs (0: none). All other lengths run element by element.
struct Paths {
    unsigned whole = 0, whole_aligned = 0;
    bool hold = false;
    int long_from = 0;
};

template <class T> constexpr Paths paths(Family fam, F form, Kind k) {
    constexpr bool is64 = sizeof(T) == 8;
    switch (fam) {
        // Every kernel loads the six source elements of an object before it
        // stores anything, and re-reads a single vector for each object.
        // (The contiguous 32f vava runs its objects four to a round with
        // packed arithmetic, each object still read before it is written.)
        case Family::CrossProduct: return {lens({3}), 0, false, 0};
        case Family::Saxpy:
            if (k != Kind::S) return {};
            // 64f vv: a packed loop from length 9 when dst overlaps neither
            // source. 32f vav: at lengths 4 and 6, with every address and
            // object stride 16-byte aligned, src2 is held in registers and
            // each object done packed; vava the same at length 6 only.
            if (form == F::vv) return {0, 0, false, is64 ? 9 : 0};
            if (!is64 && form == F::vav) return {0, lens({4, 6}), true, 0};
            if (!is64 && form == F::vava) return {0, lens({6}), false, 0};
            return {};
        case Family::LComb:
            // Packed paths at lengths 3 to 6 load a fixed src2 once, ahead
            // of the objects; the contiguous 32f vava has none at length 4.
            if (k == Kind::S) return {form == F::vava && !is64 ? lens({3, 5, 6}) : k3to6, 0, true, 0};
            if (k == Kind::L) return {k3to6, 0, true, 0};
            return {};
    }
    return {};
}

// ---- kernels --------------------------------------------------------------------

template <int N, class Op, class D, class A, class B>
void elem_fixed(const Op& op, const D& d, const A& a, const B& b, int count) {
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < N; ++i) d.v(n, i) = op(a.get(n, i), b.get(n, i));
}
template <class Op, class D, class A, class B>
void elem_any(const Op& op, const D& d, const A& a, const B& b, int len, int count) {
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < len; ++i) d.v(n, i) = op(a.get(n, i), b.get(n, i));
}

template <class Op, class T>
void line_restrict(const Op& op, T* __restrict d, const T* __restrict a, const T* __restrict b, int len) {
    for (int i = 0; i < len; ++i) d[i] = op(a[i], b[i]);
}
template <class Op, class D, class A, class B>
void elem_long(const Op& op, const D& d, const A& a, const B& b, int len, int count) {
    for (int n = 0; n < count; ++n) {
        auto* pd = d.obj(n);
        const auto* pa = a.line(n);
        const auto* pb = b.line(n);
        if (ew::overlaps(pd, len, pa) || ew::overlaps(pd, len, pb))
            for (int i = 0; i < len; ++i) pd[i] = op(pa[i], pb[i]);
        else
            line_restrict(op, pd, pa, pb, len);
    }
}

// The alignment test of the packed paths: the bitwise OR of every base
// address and object stride has its low four bits clear.
template <class D, class A, class B> bool aligned16(const D& d, const A& a, const B& b) {
    auto at = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p); };
    const auto bits = at(d.obj(0)) | at(a.line(0)) | at(b.line(0)) | std::uintptr_t(d.s0) |
                      std::uintptr_t(a.acc.s0) | std::uintptr_t(b.acc.s0);
    return (bits & 15) == 0;
}

template <int N, Paths P, class Op, class D, class A, class B>
void fixed(const Op& op, const D& d, const A& a, const B& b, int count) {
    constexpr unsigned bit = 1u << N;
    if constexpr ((P.whole & bit) != 0) {
        obj_fixed<N, P.hold>(op, d, a, b, count);
        return;
    } else if constexpr ((P.whole_aligned & bit) != 0) {
        if (aligned16(d, a, b)) {
            obj_fixed<N, P.hold>(op, d, a, b, count);
            return;
        }
    }
    if constexpr (Op::per_element) elem_fixed<N>(op, d, a, b, count);
}

// The length is looked at once, outside the loop over objects.
template <Paths P, class Op, class D, class A, class B>
void kernel(const Op& op, const D& d, const A& a, const B& b, int len, int count) {
    switch (len) {
        case 3: return fixed<3, P>(op, d, a, b, count);
        case 4: return fixed<4, P>(op, d, a, b, count);
        case 5: return fixed<5, P>(op, d, a, b, count);
        case 6: return fixed<6, P>(op, d, a, b, count);
        default: break;
    }
    if constexpr (Op::per_element) {
        if constexpr (P.long_from > 0)
            if (len >= P.long_from) return elem_long(op, d, a, b, len, count);
        elem_any(op, d, a, b, len, count);
    }
}

// ---- frames ---------------------------------------------------------------------

// Kernel kind of a call in layout S or L by the element strides of all its
// operands; P has one kernel.
template <char Lay, class T, class D, class A, class B>
Kind kind_of(const D& d, const A& a, const B& b) {
    if constexpr (Lay == 'P') return Kind::P;
    else {
        const bool c = ew::contiguous<T>(many(d), a, b);
        return Lay == 'S' ? (c ? Kind::S : Kind::S2) : (c ? Kind::L : Kind::LS2);
    }
}

// Runs the call's kernel on k objects from the operands' first.
template <Family fam, F form, char Lay, class Op, class D, class A, class B>
OrsStatus share(Kind k, const Op& op, const D& d, const A& a, const B& b, int len, int count) {
    using T = Plain<typename D::value_type>;
    if constexpr (Lay == 'P') {
        kernel<paths<T>(fam, form, Kind::P)>(op, d, a, b, len, count);
    } else {
        constexpr Kind C = Lay == 'S' ? Kind::S : Kind::L, S2 = Lay == 'S' ? Kind::S2 : Kind::LS2;
        if (k == C)
            kernel<paths<T>(fam, form, C)>(op, d.template as<true>(), a.template as<true>(),
                                           b.template as<true>(), len, count);
        else
            kernel<paths<T>(fam, form, S2)>(op, d, a, b, len, count);
    }
    return StatusOk;
}

// Limits by kernel kind, serial below them (W equal goes parallel).
template <class T> constexpr Limit limit(Family fam, F form, Kind k) {
    constexpr bool is64 = sizeof(T) == 8;
    switch (fam) {
        case Family::CrossProduct:
            // The 64f vva in layout P computes its estimate but runs its
            // serial kernel on both sides of the limit.
            if (is64 && form == F::vva && k == Kind::P) return parallel_above(INT_MAX);
            return serial_below(3001);
        case Family::Saxpy:
            switch (k) {
                case Kind::S: return serial_below(3001);
                case Kind::S2: return serial_below(is64 ? 1201 : 2001);
                case Kind::P: return serial_below(1201);
                case Kind::L: return serial_below(is64 ? 1001 : 1501);
                // The one cell that differs by form: 32f vva keeps 1501.
                case Kind::LS2: return serial_below(!is64 && form == F::vva ? 1501 : 1001);
            }
            break;
        // One limit but for layout L with strided operands in 32f.
        case Family::LComb: return serial_below(!is64 && k == Kind::LS2 ? 3751 : 4501);
    }
    return serial_below(0);
}

// Work estimate: elements read and written. The cross product counts one
// per vector.
constexpr int work(Family fam, F form, int len, int count) {
    const int per = fam == Family::CrossProduct ? 1 : len;
    return form == F::vava ? wmul(3, per, count) : wmul(per, wadd(wmul(2, count), 1));
}

// Check orders, a letter per step: p pointers, c count, l length, s strides,
// h shifts. Saxpy and LComb check in one order; the cross product has no
// size, and vav checks count late, at a different place per layout.
constexpr const char* check_order(Family fam, F form, char lay) {
    if (fam != Family::CrossProduct) return "pclsh";
    if (form == F::vav) return lay == 'L' ? "pshc" : "psch";
    return "pcsh";
}
struct Steps {
    OrsStatus p, c, l, s, h;
};
constexpr OrsStatus in_order(const char* order, Steps st) {
    for (; *order; ++order) {
        const char x = *order;
        const OrsStatus r = x == 'p' ? st.p : x == 'c' ? st.c : x == 'l' ? st.l : x == 's' ? st.s : st.h;
        if (r != StatusOk) return r;
    }
    return StatusOk;
}

template <Family fam, F form, char Lay, class Op, class D, class A, class B>
OrsStatus frame(Steps st, const Op& op, const D& d, const A& a, const B& b, int len, int count) {
    using T = Plain<typename D::value_type>;
    if (const OrsStatus s = in_order(check_order(fam, form, Lay), st); s != StatusOk) return s;
    const Kind k = kind_of<Lay, T>(d, a, b);
    if constexpr (form == F::vv) {
        return share<fam, form, Lay>(k, op, d, a, b, len, 1);
    } else {
        return dispatch(work(fam, form, len, count), limit<T>(fam, form, k), count, [&](int f, int n) {
            return share<fam, form, Lay>(k, op, d.object(f), a.object(f), b.object(f), len, n);
        });
    }
}

}  // namespace orsm::vec

// ---- entry points -------------------------------------------------------------------
//
// VEC_ENTRY(T, t, Fam, form, Lay, K1, K2, KD) defines orsm<Fam>_<form>_<t>
// in layout Lay (S, P, L) with operands of kind K1, K2, KD (A array, O one
// vector). A family supplies its pieces: the constants behind each source
// group (VEC_V1_, VEC_V2_), its size argument (VEC_LEN_), the length value
// (VEC_N_) and the operation (VEC_OP_).

#define VEC_SUF_S
#define VEC_SUF_P _P
#define VEC_SUF_L _L
#define VEC_LAY_S 'S'
#define VEC_LAY_P 'P'
#define VEC_LAY_L 'L'
#define VEC_NAME3(Fam, form, t, suf) orsm##Fam##_##form##_##t##suf
#define VEC_NAME2(Fam, form, t, suf) VEC_NAME3(Fam, form, t, suf)
#define VEC_NAME(Fam, form, t, Lay) VEC_NAME2(Fam, form, t, VEC_SUF_##Lay)

// Argument groups by layout and kind; a single vector of layout L is passed
// as in layout S.
#define VEC_G_SA(C, x) C* x, int x##Stride0, int x##Stride2
#define VEC_G_SO(C, x) C* x, int x##Stride2
#define VEC_G_PA(C, x) C* const* x, int x##RoiShift, int x##Stride0
#define VEC_G_PO(C, x) C* const* x, int x##RoiShift
#define VEC_G_LA(C, x) C* const* x, int x##RoiShift, int x##Stride2
#define VEC_G_LO VEC_G_SO
// Strides and shifts of each group, each with a leading comma.
#define VEC_ST_SA(x) , x##Stride0, x##Stride2
#define VEC_ST_SO(x) , x##Stride2
#define VEC_ST_PA(x) , x##Stride0
#define VEC_ST_PO(x)
#define VEC_ST_LA(x) , x##Stride2
#define VEC_ST_LO VEC_ST_SO
#define VEC_SH_SA(x)
#define VEC_SH_SO(x)
#define VEC_SH_PA(x) , x##RoiShift
#define VEC_SH_PO(x) , x##RoiShift
#define VEC_SH_LA(x) , x##RoiShift
#define VEC_SH_LO(x)
// Accessors; dst is always an array accessor (one object in vv).
#define VEC_ACC_SA(x) many(s_vec(x, x##Stride0, x##Stride2))
#define VEC_ACC_SO(x) one(s_vec(x, 0, x##Stride2))
#define VEC_ACC_PA(x) many(p_arr(x, x##RoiShift, x##Stride0, len))
#define VEC_ACC_PO(x) one(p_one(x, x##RoiShift, len))
#define VEC_ACC_LA(x) many(l_vec(x, x##RoiShift, x##Stride2))
#define VEC_ACC_LO VEC_ACC_SO
#define VEC_DST_SA s_vec(dst, dstStride0, dstStride2)
#define VEC_DST_SO s_vec(dst, 0, dstStride2)
#define VEC_DST_PA p_arr(dst, dstRoiShift, dstStride0, len)
#define VEC_DST_PO p_one(dst, dstRoiShift, len)
#define VEC_DST_LA l_vec(dst, dstRoiShift, dstStride2)
// count, when dst is an array.
#define VEC_CNT_A , int count
#define VEC_CNT_O
#define VEC_CNTV_A count
#define VEC_CNTV_O 1
#define VEC_CNTOK_A count_ok(count)
#define VEC_CNTOK_O StatusOk

// Stride and shift lists start with a value that passes, so a list may be
// otherwise empty.
#define VEC_ENTRY(T, t, Fam, form, Lay, K1, K2, KD)                                                \
    extern "C" ORSM_API OrsStatus VEC_NAME(Fam, form, t, Lay)(                                     \
        VEC_G_##Lay##K1(const T, src1) VEC_V1_##Fam(T), VEC_G_##Lay##K2(const T, src2)             \
            VEC_V2_##Fam(T), VEC_G_##Lay##KD(T, dst) VEC_LEN_##Fam VEC_CNT_##KD) {                 \
        using namespace orsm;                                                                      \
        using namespace orsm::vec;                                                                 \
        const int len = VEC_N_##Fam;                                                               \
        const Steps st{nonnull(src1, src2, dst), VEC_CNTOK_##KD, VEC_LENOK_##Fam,                  \
                       strides_ok<T>(esize<T> VEC_ST_##Lay##K1(src1) VEC_ST_##Lay##K2(src2)        \
                                         VEC_ST_##Lay##KD(dst)),                                   \
                       shifts_ok<T>(0 VEC_SH_##Lay##K1(src1) VEC_SH_##Lay##K2(src2)                \
                                        VEC_SH_##Lay##KD(dst))};                                   \
        return frame<Family::Fam, F::form, VEC_LAY_##Lay>(st, VEC_OP_##Fam(T), VEC_DST_##Lay##KD,     \
                                                        VEC_ACC_##Lay##K1(src1),                   \
                                                        VEC_ACC_##Lay##K2(src2), len,              \
                                                        VEC_CNTV_##KD);                            \
    }

// All forms of a family in every layout they exist in, each by the entry
// macro E (which takes VEC_ENTRY's arguments).
#define VEC_FORMS(E, T, t, Fam)                                                                    \
    E(T, t, Fam, vv, S, O, O, O)                                                                   \
    E(T, t, Fam, vv, P, O, O, O)                                                                   \
    E(T, t, Fam, vav, S, A, O, A)                                                                  \
    E(T, t, Fam, vav, P, A, O, A)                                                                  \
    E(T, t, Fam, vav, L, A, O, A)                                                                  \
    E(T, t, Fam, vava, S, A, A, A)                                                                 \
    E(T, t, Fam, vava, P, A, A, A)                                                                 \
    E(T, t, Fam, vava, L, A, A, A)
#define VEC_FAMILY(T, t, Fam) VEC_FORMS(VEC_ENTRY, T, t, Fam)
#define VEC_FAMILY_VVA(T, t, Fam)                                                                  \
    VEC_ENTRY(T, t, Fam, vva, S, O, A, A)                                                          \
    VEC_ENTRY(T, t, Fam, vva, P, O, A, A)                                                          \
    VEC_ENTRY(T, t, Fam, vva, L, O, A, A)
