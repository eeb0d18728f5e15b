// Mul with a constant: a vector (vc), a matrix (mc), a transposed matrix (tc)
// and arrays of these (vac, mac, tac) times a scalar. Each result element is
// one multiplication in the element type, the source element first.
#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "elementwise/elementwise.hpp"

namespace orsm {
namespace {

using namespace ew;

// ---- vectors ------------------------------------------------------------------
// Contiguous kernels unroll lengths 3 to 6 and vc vectorises from length 11
// on; the pointer kernels unroll 3 to 6 too; the strided kernels (_S2,
// _LS2) have the general loop only.
template <bool array> struct VecMulPaths {
    static constexpr VecPaths of(Kind k) {
        switch (k) {
            case Kind::Contig: return {true, true, array ? 0 : 11};
            case Kind::P: return {true, true, 0};
            default: return {false, false, 0};
        }
    }
};

// ---- matrices -----------------------------------------------------------------
// Orders with a path of their own, as a mask (bit N for order N).
constexpr unsigned orders(int lo, int hi) {
    unsigned m = 0;
    for (int i = lo; i <= hi; ++i) m |= 1u << i;
    return m;
}
constexpr unsigned k3to6 = orders(3, 6), k3to5 = orders(3, 5), k5to6 = orders(5, 6), kNone = 0;

template <bool trans, bool array, class T> constexpr unsigned mat_orders(Kind k) {
    constexpr bool is64 = sizeof(T) == 8;
    switch (k) {
        // The 64f transposed kernels stop at order 5.
        case Kind::Contig: return trans && is64 ? k3to5 : k3to6;
        case Kind::S2: return array ? k3to6 : kNone;
        // _LS2 runs the single-matrix strided kernel per object: no paths.
        case Kind::LS2: return kNone;
        // Single-matrix pointer kernels: 5 and 6 only, but 3 to 6 in the 64f tc.
        default: return array ? k3to6 : (trans && is64 ? k3to6 : k5to6);
    }
}

// Order-N path. A row of a plain source is read, scaled and stored; a
// transposed source is read whole (its stored rows turned) before the
// object's rows are stored.
template <int N, bool trans, class D, class S, class T>
void mat_fixed(const D& d, const S& s, T v, int count) {
    for (int n = 0; n < count; ++n) {
        if constexpr (trans) {
            T x[N][N];
            for (int r = 0; r < N; ++r)
                for (int c = 0; c < N; ++c) x[r][c] = s(n, r, c) * v;
            for (int r = 0; r < N; ++r)
                for (int c = 0; c < N; ++c) d(n, r, c) = x[r][c];
        } else {
            for (int r = 0; r < N; ++r) {
                T x[N];
                for (int c = 0; c < N; ++c) x[c] = s(n, r, c) * v;
                for (int c = 0; c < N; ++c) d(n, r, c) = x[c];
            }
        }
    }
}

template <unsigned Orders, bool trans, class D, class S, class T>
OrsStatus mat_kernel(const D& d, const S& s, T v, int width, int height, int count) {
    if (width == height) switch (width) {
#define ORSM_CASE(N)                                                  \
    case N:                                                           \
        if constexpr ((Orders >> N) & 1u) {                           \
            mat_fixed<N, trans>(d, s, v, count);                      \
            return StatusOk;                                          \
        }                                                             \
        break;
            ORSM_CASE(3) ORSM_CASE(4) ORSM_CASE(5) ORSM_CASE(6)
#undef ORSM_CASE
            default: break;
        }
    for (int n = 0; n < count; ++n)
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < width; ++c) d(n, r, c) = s(n, r, c) * v;
    return StatusOk;
}

template <bool trans, class A> auto read_as(const A& a) {
    if constexpr (trans) return transposed(a);
    else return a;
}

// The kernel of the call's layout on objects [f, f + k); `src` is the stored
// source accessor.
template <char Lay, bool trans, bool array, class D, class S, class T>
OrsStatus mat_share(const D& d, const S& s, T v, int width, int height, int k) {
    if constexpr (Lay == 'P') {
        if constexpr (array)
            if (planes_path<opMul, T>(d, arr_op(read_as<trans>(s)), cst_op(v), width, height, k))
                return StatusOk;
        return mat_kernel<mat_orders<trans, array, T>(Kind::P), trans>(d, read_as<trans>(s), v,
                                                                        width, height, k);
    } else {
        if (all_contiguous<T>(s.s2_, d.s2_)) {
            const auto sc = read_as<trans>(s.template as<true>());
            const auto dc = d.template as<true>();
            if constexpr (Lay == 'S' && array)
                if (flat_path<opMul, T>(dc, arr_op(sc), cst_op(v), width, height, k))
                    return StatusOk;
            return mat_kernel<mat_orders<trans, array, T>(Kind::Contig), trans>(dc, sc, v, width,
                                                                                height, k);
        }
        return mat_kernel<mat_orders<trans, array, T>(Lay == 'S' ? Kind::S2 : Kind::LS2), trans>(
            d, read_as<trans>(s), v, width, height, k);
    }
}

// Limits: parallel above the limit, W equal to it stays serial. The frame
// computes W, tests contiguity, then takes the limit of that case.
template <class T> constexpr Limit mat_limit(char lay, bool contig) {
    constexpr bool is64 = sizeof(T) == 8;
    return parallel_above(lay == 'S' ? 3500 : lay == 'P' ? 1700 : (!contig && !is64 ? 1500 : 3500));
}
template <class T> constexpr Limit vec_limit(char lay, bool contig) {
    constexpr bool is64 = sizeof(T) == 8;
    if (lay == 'P' || !contig) return parallel_above(1440);
    return parallel_above(lay == 'S' && !is64 ? 2500 : 3600);
}

template <char Lay, bool trans, class D, class S, class T>
OrsStatus mac_call(OrsStatus st, const D& d, const S& s, T v, int width, int height, int count) {
    if (st != StatusOk) return st;
    const int W = wmul(2, width, height, count);
    bool contig = true;
    if constexpr (Lay != 'P') contig = all_contiguous<T>(s.s2_, d.s2_);
    return dispatch(W, mat_limit<T>(Lay, contig), count, [&](int f, int k) {
        return mat_share<Lay, trans, true>(d.object(f), s.object(f), v, width, height, k);
    });
}

template <char Lay, class D, class S, class T>
OrsStatus vac_call(OrsStatus st, const D& d, const S& s, T v, int length, int count) {
    if (st != StatusOk) return st;
    const int W = wmul(2, length, count);
    bool contig = true;
    if constexpr (Lay != 'P') contig = all_contiguous<T>(s.s2_, d.s2_);
    return dispatch(W, vec_limit<T>(Lay, contig), count, [&](int f, int k) {
        return vec_share<Lay, VecMulPaths<true>, MulOp>(d.object(f), many(s.object(f)), cst(v),
                                                        length, k);
    });
}

}  // namespace
}  // namespace orsm

using namespace orsm;

#define ENTRY extern "C" ORSM_API OrsStatus

#define X(T, t)                                                                                   \
    ENTRY orsmMul_vc_##t(const T* src, int srcStride2, T value, T* dst, int dstStride2,           \
                         int length) {                                                            \
        const OrsStatus st = first_failure(nonnull(src, dst), sizes_ok(length),                   \
                                           strides_ok<T>(srcStride2, dstStride2));                \
        if (st != StatusOk) return st;                                                            \
        return vec_share<'S', VecMulPaths<false>, MulOp>(                                         \
            s_vec(dst, 0, dstStride2), one(s_vec(src, 0, srcStride2)), cst(value), length, 1);    \
    }                                                                                             \
    ENTRY orsmMul_vc_##t##_P(const T* const* src, int srcRoiShift, T value, T* const* dst,        \
                             int dstRoiShift, int length) {                                       \
        const OrsStatus st = first_failure(nonnull(src, dst), sizes_ok(length),                   \
                                           shifts_ok<T>(srcRoiShift, dstRoiShift));               \
        if (st != StatusOk) return st;                                                            \
        return vec_share<'P', VecMulPaths<false>, MulOp>(p_one(dst, dstRoiShift, length),         \
                                                         one(p_one(src, srcRoiShift, length)),    \
                                                         cst(value), length, 1);                  \
    }                                                                                             \
    ENTRY orsmMul_vac_##t(const T* src, int srcStride0, int srcStride2, T value, T* dst,          \
                          int dstStride0, int dstStride2, int length, int count) {                \
        return vac_call<'S'>(                                                                     \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(length),                   \
                          strides_ok<T>(srcStride0, srcStride2, dstStride0, dstStride2)),         \
            s_vec(dst, dstStride0, dstStride2), s_vec(src, srcStride0, srcStride2), value,        \
            length, count);                                                                       \
    }                                                                                             \
    ENTRY orsmMul_vac_##t##_P(const T* const* src, int srcRoiShift, int srcStride0, T value,      \
                              T* const* dst, int dstRoiShift, int dstStride0, int length,         \
                              int count) {                                                        \
        return vac_call<'P'>(first_failure(nonnull(src, dst), count_ok(count), sizes_ok(length), \
                                           strides_ok<T>(srcStride0, dstStride0),                 \
                                           shifts_ok<T>(srcRoiShift, dstRoiShift)),               \
                             p_arr(dst, dstRoiShift, dstStride0, length),                         \
                             p_arr(src, srcRoiShift, srcStride0, length), value, length, count);  \
    }                                                                                             \
    ENTRY orsmMul_vac_##t##_L(const T* const* src, int srcRoiShift, int srcStride2, T value,      \
                              T* const* dst, int dstRoiShift, int dstStride2, int length,         \
                              int count) {                                                        \
        return vac_call<'L'>(first_failure(nonnull(src, dst), count_ok(count), sizes_ok(length), \
                                           strides_ok<T>(srcStride2, dstStride2),                 \
                                           shifts_ok<T>(srcRoiShift, dstRoiShift)),               \
                             l_vec(dst, dstRoiShift, dstStride2),                                 \
                             l_vec(src, srcRoiShift, srcStride2), value, length, count);          \
    }                                                                                             \
    MAT_FORMS(T, t, mc, mac, false)                                                               \
    MAT_FORMS(T, t, tc, tac, true)

// A transposed source is stored with `width` rows and `height` columns, so
// its pointer table has rows of `height` entries.
#define MAT_FORMS(T, t, single, arr, trans)                                                       \
    ENTRY orsmMul_##single##_##t(const T* src, int srcStride1, int srcStride2, T value, T* dst,   \
                                 int dstStride1, int dstStride2, int width, int height) {         \
        const OrsStatus st =                                                                      \
            first_failure(nonnull(src, dst), sizes_ok(width, height),                             \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2));         \
        if (st != StatusOk) return st;                                                            \
        return mat_share<'S', trans, false>(s_one(dst, dstStride1, dstStride2),                   \
                                            s_one(src, srcStride1, srcStride2), value, width,     \
                                            height, 1);                                           \
    }                                                                                             \
    ENTRY orsmMul_##single##_##t##_P(const T* const* src, int srcRoiShift, T value,               \
                                     T* const* dst, int dstRoiShift, int width, int height) {     \
        const OrsStatus st = first_failure(nonnull(src, dst), sizes_ok(width, height),            \
                                           shifts_ok<T>(srcRoiShift, dstRoiShift));               \
        if (st != StatusOk) return st;                                                            \
        return mat_share<'P', trans, false>(p_one(dst, dstRoiShift, width),                       \
                                            p_one(src, srcRoiShift, trans ? height : width),      \
                                            value, width, height, 1);                             \
    }                                                                                             \
    ENTRY orsmMul_##arr##_##t(const T* src, int srcStride0, int srcStride1, int srcStride2,       \
                              T value, T* dst, int dstStride0, int dstStride1, int dstStride2,    \
                              int width, int height, int count) {                                 \
        return mac_call<'S', trans>(                                                              \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(width, height),            \
                          strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0,           \
                                        dstStride1, dstStride2)),                                 \
            s_mat(dst, dstStride0, dstStride1, dstStride2),                                       \
            s_mat(src, srcStride0, srcStride1, srcStride2), value, width, height, count);         \
    }                                                                                             \
    ENTRY orsmMul_##arr##_##t##_P(const T* const* src, int srcRoiShift, int srcStride0, T value,  \
                                  T* const* dst, int dstRoiShift, int dstStride0, int width,      \
                                  int height, int count) {                                        \
        return mac_call<'P', trans>(                                                              \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(width, height),            \
                          strides_ok<T>(srcStride0, dstStride0),                                  \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            p_arr(dst, dstRoiShift, dstStride0, width),                                           \
            p_arr(src, srcRoiShift, srcStride0, trans ? height : width), value, width, height,    \
            count);                                                                               \
    }                                                                                             \
    ENTRY orsmMul_##arr##_##t##_L(const T* const* src, int srcRoiShift, int srcStride1,           \
                                  int srcStride2, T value, T* const* dst, int dstRoiShift,        \
                                  int dstStride1, int dstStride2, int width, int height,          \
                                  int count) {                                                    \
        return mac_call<'L', trans>(                                                              \
            first_failure(nonnull(src, dst), count_ok(count), sizes_ok(width, height),            \
                          strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2),          \
                          shifts_ok<T>(srcRoiShift, dstRoiShift)),                                \
            l_mat(dst, dstRoiShift, dstStride1, dstStride2),                                      \
            l_mat(src, srcRoiShift, srcStride1, srcStride2), value, width, height, count);        \
    }

ORSM_FOR_TYPES(X)
#undef X
