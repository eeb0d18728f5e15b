// Mul of a matrix and a vector: dst(i) = sum over k of op(src1)(i, k) *
// src2(k), op the stored matrix (m forms) or its transpose (t forms), singly
// (mv tv), an array of matrices by one vector (mav tav), one matrix by an
// array of vectors (mva tva) and arrays of both (mava tava). src1Width and
// src1Height describe the matrix as stored, for t forms too.
#include <iterator>

#include "products/matvec.hpp"

namespace orsm {
namespace {

using namespace mv;

enum class Form : unsigned char { mv, tv, mav, tav, mva, tva, mava, tava };

// The trees of the contiguous kernels, by form and type. The strided and
// pointer kernels (_S2, _P, _LS2) are scalar code and sum by tree A in every
// form. `ByOne` marks an _L kernel that runs the contiguous single-object
// kernel (mv or tv) once per object and so sums by its tree.
enum class LTree : unsigned char { A, B, C, D, ByOne };
struct TreeRow {
    Tree s32, s64;    // contiguous layout S
    LTree l32, l64;   // contiguous layout L
};
constexpr TreeRow kTrees[] = {
    // mv: the 32f kernel sums in plain order, unlike its array twins.
    /* mv   */ {Tree::A, Tree::B, LTree::ByOne, LTree::ByOne},
    /* tv   */ {Tree::A, Tree::A, LTree::ByOne, LTree::ByOne},
    /* mav  */ {Tree::C, Tree::B, LTree::C, LTree::B},
    // tav 64f: the S kernel sums in plain order, the L kernel by pairs.
    /* tav  */ {Tree::D, Tree::A, LTree::D, LTree::B},
    // mva 32f _L: each object by the contiguous mv kernel (tree A).
    /* mva  */ {Tree::C, Tree::B, LTree::ByOne, LTree::B},
    /* tva  */ {Tree::A, Tree::A, LTree::ByOne, LTree::ByOne},
    /* mava */ {Tree::C, Tree::B, LTree::C, LTree::B},
    // tava 64f _L: each object by the contiguous tv kernel.
    /* tava */ {Tree::D, Tree::A, LTree::D, LTree::ByOne},
};
static_assert(std::size(kTrees) == int(Form::tava) + 1);

constexpr bool is_t(Form f) { return f == Form::tv || f == Form::tav || f == Form::tva || f == Form::tava; }
constexpr Fixed fixed_of(Form f) {
    return (f == Form::mav || f == Form::tav)   ? Fixed::Vec
           : (f == Form::mva || f == Form::tva) ? Fixed::Mat
                                                : Fixed::None;
}

template <Form F> struct MulMv {
    static constexpr bool trans = is_t(F);
    static constexpr bool array = !(F == Form::mv || F == Form::tv);

    template <class T> static constexpr Cell cell(Kern k) {
        constexpr bool d = sizeof(T) == 8;
        const TreeRow row = kTrees[int(F)];
        switch (k) {
            case Kern::S: return {d ? row.s64 : row.s32, Gen::StoreEachStep, fixed_of(F)};
            case Kern::L: {
                const LTree lt = d ? row.l64 : row.l32;
                if (lt == LTree::ByOne) {
                    const TreeRow one = kTrees[int(trans ? Form::tv : Form::mv)];
                    return {d ? one.s64 : one.s32, Gen::StoreEachStep, Fixed::None};
                }
                return {Tree(int(lt)), Gen::StoreEachStep, fixed_of(F)};
            }
            // _LS2 runs the strided mv/tv kernel once per object.
            case Kern::LS2: return {Tree::A, Gen::StoreEachStep, Fixed::None};
            // _P: dst itself is the general loop's accumulator.
            case Kern::P: return {Tree::A, Gen::InMemory, fixed_of(F)};
            case Kern::S2: break;
        }
        return {Tree::A, Gen::StoreEachStep, fixed_of(F)};  // _S2: scalar code
    }

    // The limits of the matrix-matrix array forms: serial below the limit.
    template <class T> static constexpr Limit limit(Kern k) {
        switch (k) {
            case Kern::S: return serial_below(sizeof(T) == 4 ? 2501 : 3601);
            case Kern::L: return serial_below(3601);
            default: return serial_below(1441);
        }
    }

    // Elements read and written: a fixed operand once, an array count times.
    static int work(int M, int K, int count) {
        if constexpr (F == Form::mav || F == Form::tav)
            return wadd(wmul(M, wadd(K, 1), count), K);
        else if constexpr (F == Form::mva || F == Form::tva)
            return wadd(wmul(M, K), wmul(wadd(M, K), count));
        else
            return wmul(wadd(wmul(M, K), M, K), count);
    }
};

// src2Length must equal the matrix's inner size: its width for m forms,
// its height for t forms.
template <Form F> constexpr OrsStatus inner_ok(int w, int h, int len) {
    return (is_t(F) ? h : w) == len ? StatusOk : StatusSizeMismatch;
}

template <Form F, Lay lay, class T, class A, class X, class D>
OrsStatus run(OrsStatus st, const A& a, const X& x, const D& d, int w, int h, int count,
              bool contiguous = false) {
    return mv::frame<MulMv<F>, lay, T>(st, a, x, d, mv::NoTerm{}, w, h, count, contiguous);
}

}  // namespace
}  // namespace orsm

using namespace orsm;

// One entry point: its parameter list, the checks after the pointers, count
// and sizes (strides, then shifts), the three accessors, and the contiguity
// test of layouts S and L. Checks, in this order in every form: pointers,
// count (array forms), sizes, inner size match, strides, shifts (P and L).
#define MUL_ENTRY(f, T, name, lay, params, later, a, x, d, count, contig)                        \
    extern "C" ORSM_API OrsStatus name params {                                                   \
        return run<Form::f, Lay::lay, T>(                                                         \
            first_failure(nonnull(src1, src2, dst), count_ok(count),                              \
                          sizes_ok(src1Width, src1Height, src2Length),                            \
                          inner_ok<Form::f>(src1Width, src1Height, src2Length), UNPAREN later),   \
            a, x, d, src1Width, src1Height, count, contig);                                       \
    }
#define UNPAREN(...) __VA_ARGS__
#define CONTIG(T) all_contiguous<T>(src1Stride2, src2Stride2, dstStride2)
// A P vector is one row of its table: its column count is never used (0).
#define P_DST p_arr(dst, dstRoiShift, dstStride0, 0)

// One matrix by one vector. Single forms have no count (count_ok(1) holds).
#define MUL_MV(T, t, f)                                                                           \
    MUL_ENTRY(f, T, orsmMul_##f##_##t, S,                                                         \
              (const T* src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,    \
               const T* src2, int src2Stride2, int src2Length, T* dst, int dstStride2),           \
              (strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2)),                 \
              s_one(src1, src1Stride1, src1Stride2), s_vec(src2, 0, src2Stride2),                 \
              s_vec(dst, 0, dstStride2), 1, CONTIG(T))                                            \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_P, P,                                                     \
              (const T* const* src1, int src1RoiShift, int src1Width, int src1Height,             \
               const T* const* src2, int src2RoiShift, int src2Length, T* const* dst,             \
               int dstRoiShift),                                                                  \
              (shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                            \
              p_one(src1, src1RoiShift, src1Width), p_one(src2, src2RoiShift, src2Length),        \
              p_one(dst, dstRoiShift, 0), 1, false)

// An array of matrices by one vector.
#define MUL_MAV(T, t, f)                                                                          \
    MUL_ENTRY(f, T, orsmMul_##f##_##t, S,                                                         \
              (const T* src1, int src1Stride0, int src1Stride1, int src1Stride2, int src1Width,   \
               int src1Height, const T* src2, int src2Stride2, int src2Length, T* dst,            \
               int dstStride0, int dstStride2, int count),                                        \
              (strides_ok<T>(src1Stride0, src1Stride1, src1Stride2, src2Stride2, dstStride0,      \
                             dstStride2)),                                                        \
              s_mat(src1, src1Stride0, src1Stride1, src1Stride2), s_vec(src2, 0, src2Stride2),    \
              s_vec(dst, dstStride0, dstStride2), count, CONTIG(T))                               \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_P, P,                                                     \
              (const T* const* src1, int src1RoiShift, int src1Stride0, int src1Width,            \
               int src1Height, const T* const* src2, int src2RoiShift, int src2Length,            \
               T* const* dst, int dstRoiShift, int dstStride0, int count),                        \
              (strides_ok<T>(src1Stride0, dstStride0),                                            \
               shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                            \
              p_arr(src1, src1RoiShift, src1Stride0, src1Width),                                  \
              p_one(src2, src2RoiShift, src2Length), P_DST, count, false)                         \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_L, L,                                                     \
              (const T* const* src1, int src1RoiShift, int src1Stride1, int src1Stride2,          \
               int src1Width, int src1Height, const T* src2, int src2Stride2, int src2Length,     \
               T* const* dst, int dstRoiShift, int dstStride2, int count),                        \
              (strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),                  \
               shifts_ok<T>(src1RoiShift, dstRoiShift)),                                          \
              l_mat(src1, src1RoiShift, src1Stride1, src1Stride2), s_vec(src2, 0, src2Stride2),   \
              l_vec(dst, dstRoiShift, dstStride2), count, CONTIG(T))

// One matrix by an array of vectors.
#define MUL_MVA(T, t, f)                                                                          \
    MUL_ENTRY(f, T, orsmMul_##f##_##t, S,                                                         \
              (const T* src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,    \
               const T* src2, int src2Stride0, int src2Stride2, int src2Length, T* dst,           \
               int dstStride0, int dstStride2, int count),                                        \
              (strides_ok<T>(src1Stride1, src1Stride2, src2Stride0, src2Stride2, dstStride0,      \
                             dstStride2)),                                                        \
              s_one(src1, src1Stride1, src1Stride2), s_vec(src2, src2Stride0, src2Stride2),       \
              s_vec(dst, dstStride0, dstStride2), count, CONTIG(T))                               \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_P, P,                                                     \
              (const T* const* src1, int src1RoiShift, int src1Width, int src1Height,             \
               const T* const* src2, int src2RoiShift, int src2Stride0, int src2Length,           \
               T* const* dst, int dstRoiShift, int dstStride0, int count),                        \
              (strides_ok<T>(src2Stride0, dstStride0),                                            \
               shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                            \
              p_one(src1, src1RoiShift, src1Width),                                               \
              p_arr(src2, src2RoiShift, src2Stride0, src2Length), P_DST, count, false)            \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_L, L,                                                     \
              (const T* src1, int src1Stride1, int src1Stride2, int src1Width, int src1Height,    \
               const T* const* src2, int src2RoiShift, int src2Stride2, int src2Length,           \
               T* const* dst, int dstRoiShift, int dstStride2, int count),                        \
              (strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),                  \
               shifts_ok<T>(src2RoiShift, dstRoiShift)),                                          \
              s_one(src1, src1Stride1, src1Stride2), l_vec(src2, src2RoiShift, src2Stride2),      \
              l_vec(dst, dstRoiShift, dstStride2), count, CONTIG(T))

// Arrays of matrices and vectors, object by object.
#define MUL_MAVA(T, t, f)                                                                         \
    MUL_ENTRY(f, T, orsmMul_##f##_##t, S,                                                         \
              (const T* src1, int src1Stride0, int src1Stride1, int src1Stride2, int src1Width,   \
               int src1Height, const T* src2, int src2Stride0, int src2Stride2, int src2Length,   \
               T* dst, int dstStride0, int dstStride2, int count),                                \
              (strides_ok<T>(src1Stride0, src1Stride1, src1Stride2, src2Stride0, src2Stride2,     \
                             dstStride0, dstStride2)),                                            \
              s_mat(src1, src1Stride0, src1Stride1, src1Stride2),                                 \
              s_vec(src2, src2Stride0, src2Stride2), s_vec(dst, dstStride0, dstStride2), count,   \
              CONTIG(T))                                                                          \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_P, P,                                                     \
              (const T* const* src1, int src1RoiShift, int src1Stride0, int src1Width,            \
               int src1Height, const T* const* src2, int src2RoiShift, int src2Stride0,           \
               int src2Length, T* const* dst, int dstRoiShift, int dstStride0, int count),        \
              (strides_ok<T>(src1Stride0, src2Stride0, dstStride0),                               \
               shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                            \
              p_arr(src1, src1RoiShift, src1Stride0, src1Width),                                  \
              p_arr(src2, src2RoiShift, src2Stride0, src2Length), P_DST, count, false)            \
    MUL_ENTRY(f, T, orsmMul_##f##_##t##_L, L,                                                     \
              (const T* const* src1, int src1RoiShift, int src1Stride1, int src1Stride2,          \
               int src1Width, int src1Height, const T* const* src2, int src2RoiShift,             \
               int src2Stride2, int src2Length, T* const* dst, int dstRoiShift, int dstStride2,   \
               int count),                                                                        \
              (strides_ok<T>(src1Stride1, src1Stride2, src2Stride2, dstStride2),                  \
               shifts_ok<T>(src1RoiShift, src2RoiShift, dstRoiShift)),                            \
              l_mat(src1, src1RoiShift, src1Stride1, src1Stride2),                                \
              l_vec(src2, src2RoiShift, src2Stride2), l_vec(dst, dstRoiShift, dstStride2), count, \
              CONTIG(T))

#define X(T, t)                                                                                   \
    MUL_MV(T, t, mv) MUL_MV(T, t, tv) MUL_MAV(T, t, mav) MUL_MAV(T, t, tav) MUL_MVA(T, t, mva)    \
    MUL_MVA(T, t, tva) MUL_MAVA(T, t, mava) MUL_MAVA(T, t, tava)
ORSM_FOR_TYPES(X)
#undef X
