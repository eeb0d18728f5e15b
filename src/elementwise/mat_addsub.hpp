// Add and Sub on matrices: dst(r, c) = A(r, c) op B(r, c), each source single
// or an array, each read as stored or transposed; dst is never transposed and
// is an array exactly when a source is. Every result element is one IEEE
// addition or subtraction in the element type, first source first, whatever
// path computes it.
//
// The family is one set of templates over the form (which source is an
// array, which is transposed), the operation, the element type and the
// accessors. What differs from function to function is held as data below:
// the order of the checks, the limit of the parallel dispatch, and which
// square orders (3 to 6) each kind of kernel treats with a path of its own.
//
// Paths and the general loop differ in one observable way, when dst overlaps
// a source: an order path loads a single (non-array) operand once, before
// the loop over objects, and holds it, and reads each object whole before
// storing its result; the general loop runs n, r, c ascending, one element
// read, combined and stored at a time.
#pragma once

#include <type_traits>

#include "common/checks.hpp"
#include "common/layout.hpp"
#include "common/parallel.hpp"
#include "elementwise/elementwise.hpp"

namespace orsm::ewm {

enum class Fam { Add, Sub };
enum class Lay { S, P, L };

// The one-operation functors are those of the vector families.
using ew::AddOp;
using ew::SubOp;
template <Fam F> using OpOf = std::conditional_t<F == Fam::Add, AddOp, SubOp>;

// Operand codes of a form: whether each source is an array, and whether it
// is read transposed.
struct Form {
    bool a_arr, a_t, b_arr, b_t;
    constexpr bool array() const { return a_arr || b_arr; }
    constexpr bool both_arrays() const { return a_arr && b_arr; }
    // The single-matrix form with the same transpositions (mam -> mm,
    // tata -> tt, mta -> mt).
    constexpr Form single() const { return {false, a_t, false, b_t}; }
    friend constexpr bool operator==(Form, Form) = default;
};
inline constexpr Form f_mm{false, false, false, false}, f_tm{false, true, false, false},
    f_mt{false, false, false, true}, f_tt{false, true, false, true};
inline constexpr Form f_mam{true, false, false, false}, f_tam{true, true, false, false},
    f_mat{true, false, false, true}, f_tat{true, true, false, true};
inline constexpr Form f_mama{true, false, true, false}, f_tama{true, true, true, false},
    f_mata{true, false, true, true}, f_tata{true, true, true, true};
inline constexpr Form f_mma{false, false, true, false}, f_tma{false, true, true, false},
    f_mta{false, false, true, true}, f_tta{false, true, true, true};

// ---- which orders have a path of their own ---------------------------------
// A set of orders as bits: bit N set means order N has its own path.
constexpr unsigned orders() { return 0; }
template <class... I> constexpr unsigned orders(int n, I... rest) { return (1u << n) | orders(rest...); }
constexpr unsigned all_orders = orders(3, 4, 5, 6);

template <class T> constexpr bool is32 = std::is_same_v<T, float>;

// Contiguous kernels (layout S, and the layout L kernels that repeat them).
// The Add single-matrix kernels stop at order 5; the 32f Add mat kernel has
// no order 3 but has order 6.
template <class T> constexpr unsigned contig_orders(Fam fam, Form f) {
    if (fam == Fam::Add && !f.array()) return orders(3, 4, 5);
    if (fam == Fam::Add && f == f_mat && is32<T>) return orders(4, 5, 6);
    return all_orders;
}
// Strided kernels: orsmAdd_mat_64f and orsmSub_mata run the general loop only.
template <class T> constexpr unsigned s2_orders(Fam fam, Form f) {
    if (fam == Fam::Add && f == f_mat && !is32<T>) return 0;
    if (fam == Fam::Sub && f == f_mata) return 0;
    return all_orders;
}
// Pointer-table kernels: mat and mata of both families run the general loop
// only.
constexpr unsigned p_orders(Form f) { return (f == f_mat || f == f_mata) ? 0 : all_orders; }

// The 32f contiguous mam kernel runs one object ahead at order 3: the next
// object's rows are fetched before the current result is stored.
template <class T> constexpr bool runs_ahead(Form f) { return is32<T> && f == f_mam; }

// Layout L, contiguous: the 64f mam and mama kernels call the contiguous
// single-matrix kernel once per object (so the single operand is reloaded
// for every object); the others repeat the contiguous array kernel's paths.
template <class T> constexpr bool l_per_object(Form f) {
    return !is32<T> && (f == f_mam || f == f_mama);
}
// Layout L, strided: the kernels call the single-matrix strided kernel once
// per object, but for those of orsmAdd_mat and orsmSub_mata, which hold the
// general loop inline.
constexpr bool ls2_inline(Fam fam, Form f) {
    return (fam == Fam::Add && f == f_mat) || (fam == Fam::Sub && f == f_mata);
}

// ---- kernels ---------------------------------------------------------------

template <int N, class Acc, class T> inline void load(T (&m)[N][N], const Acc& a, int n) {
    for (int r = 0; r < N; ++r)
        for (int c = 0; c < N; ++c) m[r][c] = a(n, r, c);
}

// Order-N path. A single operand (HoldA/HoldB) is loaded once before the
// loop over objects and held, so a dst that overlaps it does not feed back.
// Each object is read whole, combined, then stored. With Ahead the array
// operands of object n+1 are read before object n is stored.
template <int N, class Op, bool HoldA, bool HoldB, bool Ahead, class A, class B, class D>
void order_path(const A& a, const B& b, const D& d, int count) {
    using T = Plain<typename D::value_type>;
    T xa[N][N], xb[N][N];
    if constexpr (HoldA) load<N>(xa, a, 0);
    if constexpr (HoldB) load<N>(xb, b, 0);
    auto fetch = [&](int n) {
        if constexpr (!HoldA) load<N>(xa, a, n);
        if constexpr (!HoldB) load<N>(xb, b, n);
    };
    if constexpr (Ahead) fetch(0);
    for (int n = 0; n < count; ++n) {
        if constexpr (!Ahead) fetch(n);
        T out[N][N];
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) out[r][c] = Op::apply(xa[r][c], xb[r][c]);
        if constexpr (Ahead)
            if (n + 1 < count) fetch(n + 1);
        for (int r = 0; r < N; ++r)
            for (int c = 0; c < N; ++c) d(n, r, c) = out[r][c];
    }
}

// An accessor whose rows lie packed in memory (contiguous, not transposed).
template <class A> constexpr bool packed_rows = A::contiguous;
template <class A> constexpr bool packed_rows<TAcc<A>> = false;

// The general loop: n, r, c ascending, one element at a time. A single
// operand has object stride 0, so it is read at every object. With packed
// rows everywhere the row is walked through plain pointers, which lets the
// compiler vectorise it (with its own overlap test, so the element-at-a-time
// result stands when dst overlaps a source).
template <class Op, class A, class B, class D>
void general_loop(const A& a, const B& b, const D& d, int w, int h, int count) {
    for (int n = 0; n < count; ++n)
        for (int r = 0; r < h; ++r) {
            if constexpr (packed_rows<A> && packed_rows<B> && packed_rows<D>) {
                const auto* ar = &a(n, r, 0);
                const auto* br = &b(n, r, 0);
                auto* dr = &d(n, r, 0);
                for (int c = 0; c < w; ++c) dr[c] = Op::apply(ar[c], br[c]);
            } else {
                for (int c = 0; c < w; ++c) d(n, r, c) = Op::apply(a(n, r, c), b(n, r, c));
            }
        }
}

template <int N, unsigned Orders, class Op, Form F, bool Ahead, class A, class B, class D>
bool try_order(const A& a, const B& b, const D& d, int w, int h, int count) {
    if constexpr ((Orders >> N) & 1u) {
        if (w == N && h == N) {
            order_path<N, Op, !F.a_arr, !F.b_arr, Ahead && N == 3>(a, b, d, count);
            return true;
        }
    }
    return false;
}

// One kernel: the order is looked at once, outside the loop over objects
// (width 3, 4, 5, 6 in turn, then height); 3 by 4 takes the general loop.
template <unsigned Orders, class Op, Form F, bool Ahead, class A, class B, class D>
OrsStatus kernel(const A& a, const B& b, const D& d, int w, int h, int count) {
    if (try_order<3, Orders, Op, F, Ahead>(a, b, d, w, h, count) ||
        try_order<4, Orders, Op, F, Ahead>(a, b, d, w, h, count) ||
        try_order<5, Orders, Op, F, Ahead>(a, b, d, w, h, count) ||
        try_order<6, Orders, Op, F, Ahead>(a, b, d, w, h, count))
        return StatusOk;
    general_loop<Op>(a, b, d, w, h, count);
    return StatusOk;
}

// Stored accessors in, logical accessors to the kernel: a source read
// transposed is wrapped so that logical (r, c) reads stored (c, r).
template <bool Tr, class Acc> auto logical(const Acc& a) {
    if constexpr (Tr) return transposed(a);
    else return a;
}
// A source as the fast paths see it: an array or a single matrix.
template <bool Arr, class Acc> auto fast_view(const Acc& a) {
    if constexpr (Arr) return ew::ArrOp<Acc>{a};
    else return ew::OneOp<Acc>{a};
}
template <unsigned Orders, class Op, Form F, bool Ahead, class A, class B, class D>
OrsStatus run(const A& a, const B& b, const D& d, int w, int h, int count) {
    return kernel<Orders, Op, F, Ahead>(logical<F.a_t>(a), logical<F.b_t>(b), d, w, h, count);
}
// A kernel that calls a single-matrix kernel once per object.
template <unsigned Orders, class Op, Form F, class A, class B, class D>
OrsStatus per_object(const A& a, const B& b, const D& d, int w, int h, int count) {
    for (int n = 0; n < count; ++n)
        run<Orders, Op, F.single(), false>(a.object(n), b.object(n), d.object(n), w, h, 1);
    return StatusOk;
}

// The serial kernel of a call, chosen by layout and contiguity, on objects
// 0 .. count-1 of the accessors given.
template <Fam Fm, Form F, class T, Lay L, class A, class B, class D>
OrsStatus serial(bool contig, const A& a, const B& b, const D& d, int w, int h, int count) {
    using Op = OpOf<Fm>;
    constexpr bool ahead = runs_ahead<T>(F);
    if constexpr (L == Lay::P) {
        if constexpr (F.array())
            if (ew::planes_path<Op::id, T>(d, fast_view<F.a_arr>(logical<F.a_t>(a)),
                                           fast_view<F.b_arr>(logical<F.b_t>(b)), w, h, count))
                return StatusOk;
        return run<p_orders(F), Op, F, false>(a, b, d, w, h, count);
    } else if constexpr (L == Lay::S) {
        if (contig) {
            const auto ac = a.template as<true>();
            const auto bc = b.template as<true>();
            const auto dc = d.template as<true>();
            if constexpr (F.array())
                if (ew::flat_path<Op::id, T>(dc, fast_view<F.a_arr>(logical<F.a_t>(ac)),
                                             fast_view<F.b_arr>(logical<F.b_t>(bc)), w, h, count))
                    return StatusOk;
            return run<contig_orders<T>(Fm, F), Op, F, ahead>(ac, bc, dc, w, h, count);
        }
        return run<s2_orders<T>(Fm, F), Op, F, false>(a, b, d, w, h, count);
    } else {
        if (contig) {
            const auto ac = a.template as<true>();
            const auto bc = b.template as<true>();
            const auto dc = d.template as<true>();
            if constexpr (l_per_object<T>(F))
                return per_object<contig_orders<T>(Fm, F.single()), Op, F>(ac, bc, dc, w, h, count);
            else
                return run<contig_orders<T>(Fm, F), Op, F, ahead>(ac, bc, dc, w, h, count);
        }
        if constexpr (ls2_inline(Fm, F))
            return run<0, Op, F, false>(a, b, d, w, h, count);
        else
            return per_object<s2_orders<T>(Fm, F.single()), Op, F>(a, b, d, w, h, count);
    }
}

// ---- frames ----------------------------------------------------------------

// The check steps of a call, each already evaluated (they are pure); the
// order in which they are looked at depends on the form and the layout.
struct Steps {
    OrsStatus ptr, count, sizes, strides, stride0, shifts;
};
// mam and mma alone, in layout S alone, test their strides before their
// sizes: a bad stride with a bad size answers StatusBadStride there.
template <Form F, Lay L> constexpr OrsStatus checked(const Steps& s) {
    if constexpr (!F.array())
        return L == Lay::S ? first_failure(s.ptr, s.sizes, s.strides)
                           : first_failure(s.ptr, s.sizes, s.shifts);
    else if constexpr (L == Lay::S) {
        if constexpr (F == f_mam || F == f_mma)
            return first_failure(s.ptr, s.count, s.strides, s.sizes);
        else
            return first_failure(s.ptr, s.count, s.sizes, s.strides);
    } else if constexpr (L == Lay::P)
        return first_failure(s.ptr, s.count, s.sizes, s.stride0, s.shifts);
    else
        return first_failure(s.ptr, s.count, s.sizes, s.strides, s.shifts);
}

// The contiguity test of layouts S and L: every element stride equals the
// element size. Layout P has one kernel.
template <class T, Lay L, class A, class B, class D>
bool contiguous(const A& a, const B& b, const D& d) {
    if constexpr (L == Lay::P) return false;
    else return all_contiguous<T>(a.s2_, b.s2_, d.s2_);
}

// Frame of every form, after its arguments have been turned into accessors
// of the stored operands.
//
// Arrays: W is width*height*(2*count + 1) with one array source and
// 3*width*height*count with two, in wrapping 32-bit arithmetic. W equal to
// the limit goes parallel. The limit is 2000 everywhere but for 32f layout S
// with every element stride equal to the element size, where it is 3000; so
// that frame tests contiguity first and compares afterwards.
template <Fam Fm, Form F, class T, Lay L, class A, class B, class D>
OrsStatus frame(const Steps& steps, const A& a, const B& b, const D& d, int w, int h, int count) {
    const OrsStatus st = checked<F, L>(steps);
    if (st != StatusOk) return st;
    const bool contig = contiguous<T, L>(a, b, d);
    if constexpr (!F.array()) {
        return serial<Fm, F, T, L>(contig, a, b, d, w, h, 1);
    } else {
        const int wh = wmul(w, h);
        const int W = F.both_arrays() ? wmul(3, wh, count) : wmul(wh, wadd(wmul(2, count), 1));
        const Limit lim = serial_below(L == Lay::S && is32<T> && contig ? 3000 : 2000);
        return dispatch(W, lim, count, [&](int f, int k) {
            return serial<Fm, F, T, L>(contig, a.object(f), b.object(f), d.object(f), w, h, k);
        });
    }
}

}  // namespace orsm::ewm

// ---- entry points ----------------------------------------------------------
// Operand kinds: SA array in layout S, SM single in layouts S and L, PA and
// PM array and single in layout P, LA array in layout L. Each kind names its
// parameters, the strides its stride check looks at, its object stride (the
// "stride0" step of layout P), its shift, and its accessor of the stored
// matrix (`cols`: entries per stored row of a P table).
#define EWM_PARAMS_SA(Q, x) Q* x, int x##Stride0, int x##Stride1, int x##Stride2
#define EWM_PARAMS_SM(Q, x) Q* x, int x##Stride1, int x##Stride2
#define EWM_PARAMS_PA(Q, x) Q* const* x, int x##RoiShift, int x##Stride0
#define EWM_PARAMS_PM(Q, x) Q* const* x, int x##RoiShift
#define EWM_PARAMS_LA(Q, x) Q* const* x, int x##RoiShift, int x##Stride1, int x##Stride2

#define EWM_STRIDES_SA(x) x##Stride0, x##Stride1, x##Stride2
#define EWM_STRIDES_SM(x) x##Stride1, x##Stride2
#define EWM_STRIDES_PA(x)
#define EWM_STRIDES_PM(x)
#define EWM_STRIDES_LA(x) x##Stride1, x##Stride2

#define EWM_STRIDE0_SA(x)
#define EWM_STRIDE0_SM(x)
#define EWM_STRIDE0_PA(x) x##Stride0
#define EWM_STRIDE0_PM(x)
#define EWM_STRIDE0_LA(x)

#define EWM_SHIFT_SA(x)
#define EWM_SHIFT_SM(x)
#define EWM_SHIFT_PA(x) x##RoiShift
#define EWM_SHIFT_PM(x) x##RoiShift
#define EWM_SHIFT_LA(x) x##RoiShift

#define EWM_ACC_SA(x, cols) ::orsm::s_mat(x, x##Stride0, x##Stride1, x##Stride2)
#define EWM_ACC_SM(x, cols) ::orsm::s_one(x, x##Stride1, x##Stride2)
#define EWM_ACC_PA(x, cols) ::orsm::p_arr(x, x##RoiShift, x##Stride0, cols)
#define EWM_ACC_PM(x, cols) ::orsm::p_one(x, x##RoiShift, cols)
#define EWM_ACC_LA(x, cols) ::orsm::l_mat(x, x##RoiShift, x##Stride1, x##Stride2)

#define EWM_STEP(T, WHAT, KA, KB, KD)                                                             \
    ::orsm::first_failure(::orsm::WHAT##_ok<T>(EWM_##WHAT##_CALL(KA, src1)),                      \
                          ::orsm::WHAT##_ok<T>(EWM_##WHAT##_CALL(KB, src2)),                      \
                          ::orsm::WHAT##_ok<T>(EWM_##WHAT##_CALL(KD, dst)))
#define EWM_strides_CALL(K, x) EWM_STRIDES_##K(x)
#define EWM_shifts_CALL(K, x) EWM_SHIFT_##K(x)

// One exported function. ARR: the count argument and check (array forms).
#define EWM_COUNT_PARAM_1 , int count
#define EWM_COUNT_PARAM_0
#define EWM_COUNT_STEP_1 ::orsm::count_ok(count)
#define EWM_COUNT_STEP_0 StatusOk
#define EWM_COUNT_ARG_1 count
#define EWM_COUNT_ARG_0 1

#define EWM_ENTRY(fam, form, T, t, sfx, LAY, ARR, KA, KB, KD)                                     \
    extern "C" ORSM_API OrsStatus orsm##fam##_##form##_##t##sfx(                                  \
        EWM_PARAMS_##KA(const T, src1), EWM_PARAMS_##KB(const T, src2),                           \
        EWM_PARAMS_##KD(T, dst), int width, int height EWM_COUNT_PARAM_##ARR) {                   \
        using namespace ::orsm;                                                                   \
        using namespace ::orsm::ewm;                                                              \
        constexpr Form F = f_##form;                                                              \
        const Steps steps{nonnull(src1, src2, dst),                                               \
                          EWM_COUNT_STEP_##ARR,                                                   \
                          sizes_ok(width, height),                                                \
                          EWM_STEP(T, strides, KA, KB, KD),                                       \
                          first_failure(strides_ok<T>(EWM_STRIDE0_##KA(src1)),                    \
                                        strides_ok<T>(EWM_STRIDE0_##KB(src2)),                    \
                                        strides_ok<T>(EWM_STRIDE0_##KD(dst))),                    \
                          EWM_STEP(T, shifts, KA, KB, KD)};                                       \
        return frame<Fam::fam, F, T, Lay::LAY>(                                                   \
            steps, EWM_ACC_##KA(src1, F.a_t ? height : width),                                    \
            EWM_ACC_##KB(src2, F.b_t ? height : width), EWM_ACC_##KD(dst, width), width, height,  \
            EWM_COUNT_ARG_##ARR);                                                                 \
    }

// The layouts of each kind of form, for one element type.
#define EWM_SINGLE(fam, form, T, t)                                                               \
    EWM_ENTRY(fam, form, T, t, , S, 0, SM, SM, SM)                                                \
    EWM_ENTRY(fam, form, T, t, _P, P, 0, PM, PM, PM)
#define EWM_ARRAY_SINGLE(fam, form, T, t)                                                         \
    EWM_ENTRY(fam, form, T, t, , S, 1, SA, SM, SA)                                                \
    EWM_ENTRY(fam, form, T, t, _P, P, 1, PA, PM, PA)                                              \
    EWM_ENTRY(fam, form, T, t, _L, L, 1, LA, SM, LA)
#define EWM_ARRAY_ARRAY(fam, form, T, t)                                                          \
    EWM_ENTRY(fam, form, T, t, , S, 1, SA, SA, SA)                                                \
    EWM_ENTRY(fam, form, T, t, _P, P, 1, PA, PA, PA)                                              \
    EWM_ENTRY(fam, form, T, t, _L, L, 1, LA, LA, LA)
#define EWM_SINGLE_ARRAY(fam, form, T, t)                                                         \
    EWM_ENTRY(fam, form, T, t, , S, 1, SM, SA, SA)                                                \
    EWM_ENTRY(fam, form, T, t, _P, P, 1, PM, PA, PA)                                              \
    EWM_ENTRY(fam, form, T, t, _L, L, 1, SM, LA, LA)
