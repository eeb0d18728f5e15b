// QRDecomp: Householder QR of a height by width matrix into the compact
// factor of qr.hpp, on one matrix or an array of them.
//
// src is copied to dst whole, then every step works in dst, so dst may be
// src. The reflection vector of a step is packed in the caller's scratch
// (one element apart) while the step runs. All arithmetic is in the element
// type with real divisions and a correctly rounded square root; there are no
// size paths. A step fails with StatusDivideByZero when the squared norm of
// its column part is below the tolerance; nothing is rolled back.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "solvers/qr.hpp"

namespace orsm::solve {
namespace {

using qr::tolerance;

// The contiguous kernels copy a row of at least this many elements as one
// block when source and destination rows are apart; the bits are the same
// as the element loop's.
constexpr int block_row = 801;
template <Kind K> constexpr bool block_copies = K == Kind::S || K == Kind::L;

template <Kind K, class Src, class Dst> void copy_rows(const Src& s, const Dst& d, int n, int w, int h) {
    using T = Plain<typename Dst::value_type>;
    const std::size_t bytes = std::size_t(w) * sizeof(T);
    for (int r = 0; r < h; ++r) {
        if constexpr (block_copies<K>) {
            const auto from = reinterpret_cast<std::uintptr_t>(&s(n, r, 0));
            const auto to = reinterpret_cast<std::uintptr_t>(&d(n, r, 0));
            if (w >= block_row && (to + bytes <= from || from + bytes <= to)) {
                std::memcpy(&d(n, r, 0), &s(n, r, 0), bytes);
                continue;
            }
        }
        for (int c = 0; c < w; ++c) move_bits(&d(n, r, c), &s(n, r, c));
    }
}

// The reflections of object n, in place in dst; v of each step in buf.
template <class D, class T> OrsStatus reflect(const D& d, int n, T* buf, int w, int h) {
    const int steps = qr::steps(w, h);  // a 1 by 1 matrix: none, buf not written
    for (int j = 0; j < steps; ++j) {
        T norm2 = 0;
        for (int i = j; i < h; ++i) norm2 = norm2 + d(n, i, j) * d(n, i, j);
        // Held against the squared norm of the column part, not the norm:
        // equal to the tolerance passes, and so does a NaN.
        if (tolerance<T> > std::fabs(norm2)) return StatusDivideByZero;
        T sigma = std::sqrt(norm2);
        T p = d(n, j, j);
        buf[j] = 1;
        // Sign opposite to the pivot's: a pivot of exactly 0 takes the
        // negative one, so R's diagonal comes out positive (a NaN too).
        if (!(p > 0)) sigma = T(0) - sigma;
        p = p + sigma;
        const T r = T(1) / p;
        T s = 1;
        for (int i = j + 1; i < h; ++i) {
            buf[i] = d(n, i, j) * r;
            s = s + buf[i] * buf[i];
        }
        const T beta = qr::beta(s);
        // Column j too: it becomes R's column, its lower part numerical zeros.
        for (int c = j; c < w; ++c) {
            T t = d(n, j, c);
            for (int i = j + 1; i < h; ++i) t = t + d(n, i, c) * buf[i];
            t = t * beta;
            for (int i = j; i < h; ++i) d(n, i, c) = d(n, i, c) + buf[i] * t;
        }
        for (int i = j + 1; i < h; ++i) d(n, i, j) = buf[i];
    }
    return StatusOk;
}

// Runs one(n) over objects [0, count) in order; square contiguous S and L
// arrays of orders 3 to 6, and square P arrays over structure-of-arrays
// planes, hand groups of objects to the fast paths (qr.hpp) where they can.
template <Kind K, class Src, class Dst, class T, class One>
OrsStatus decomp_objects(const Src& s, const Dst& d, T* buf, int w, int h, int count, One&& one) {
    if constexpr (K == Kind::S || K == Kind::L) {
        if (w == h && w >= 3 && w <= 6) {
            const qr::FastKernels<T>& k = qr::fast_kernels<T>();
            const groups::SrcDstOf<T, K == Kind::L> g{groups::objects(s), groups::objects(d)};
            const auto fn = k.of(g, w);
            auto group = [&](int n) { return groups::apart_or_in_place(g.src, g.dst, n, k.lanes, w, w) && fn(g, buf, n); };
            return groups::in_groups(count, k.lanes, group, one);
        }
    } else if constexpr (K == Kind::P) {
        // Structure-of-arrays planes: objects one element apart in src and
        // dst, the planes tested once for the call.
        if (w == h && w >= 3 && w <= 6 && groups::planes_fit(s, d, count, w, w)) {
            const qr::FastKernels<T>& k = qr::fast_kernels<T>();
            const auto g = groups::planes(s, d);
            return groups::in_groups(count, k.lanes, [&](int n) { return k.p[w - 3](g, buf, n); }, one);
        }
    }
    return groups::in_groups(count, 1, [](int) { return false; }, one);
}

// Objects in order; the first failing one ends the call, the later ones
// stay untouched.
template <Kind K, class Src, class Dst, class T>
OrsStatus decomp_kernel(const Src& s, const Dst& d, T* buf, int w, int h, int count) {
    return decomp_objects<K>(s, d, buf, w, h, count, [&](int n) {
        copy_rows<K>(s, d, n, w, h);
        return reflect(d, n, buf, w, h);
    });
}

// W = w h (2 count) for the arrays; a single matrix never leaves the
// caller's thread.
template <bool Array, char Lay, class T, class Src, class Dst>
OrsStatus decomp_frame(OrsStatus st, const Src& s, T* buffer, const Dst& d, int w, int h, int count) {
    if (st != StatusOk) return st;
    const Limit lim = Array ? qr::limit(Lay) : parallel_above(INT_MAX);
    return dispatch_ws(wmul(w, h, wmul(count, 2)), lim, count, qr::scratch_per_member(h), buffer,
                       [&](int f, int k, T* buf) {
                           return with_kind<Lay, T>(
                               [&](auto kind, const auto& sf, const auto& df) {
                                   return decomp_kernel<decltype(kind)::value>(sf, df, buf, w, h, k);
                               },
                               s.object(f), d.object(f));
                       });
}

}  // namespace
}  // namespace orsm::solve

using namespace orsm;
using namespace orsm::solve;

// Checks of every form: pointers, count, sizes, strides, shifts, and the
// shape last of all.
#define QRD_CHECKS(count_step, strides, shifts)                                                      \
    first_failure(nonnull(src, dst, buffer), count_step, sizes_ok(width, height), strides, shifts, \
                  qr::shape_ok(width, height))

#define X(T, t)                                                                                      \
    extern "C" ORSM_API OrsStatus orsmQRDecomp_m_##t(const T* src, int srcStride1, int srcStride2,   \
                                                     T* buffer, T* dst, int dstStride1,              \
                                                     int dstStride2, int width, int height) {        \
        return decomp_frame<false, 'S'>(                                                             \
            QRD_CHECKS(StatusOk, strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2),      \
                       StatusOk),                                                                    \
            s_one(src, srcStride1, srcStride2), buffer, s_one(dst, dstStride1, dstStride2), width,   \
            height, 1);                                                                              \
    }                                                                                                \
    /* No stride step in the single pointer form. */                                                \
    extern "C" ORSM_API OrsStatus orsmQRDecomp_m_##t##_P(const T* const* src, int srcRoiShift,       \
                                                         T* buffer, T* const* dst, int dstRoiShift,  \
                                                         int width, int height) {                    \
        return decomp_frame<false, 'P'>(                                                             \
            QRD_CHECKS(StatusOk, StatusOk, shifts_ok<T>(srcRoiShift, dstRoiShift)),                  \
            p_one(src, srcRoiShift, width), buffer, p_one(dst, dstRoiShift, width), width, height,   \
            1);                                                                                      \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRDecomp_ma_##t(                                               \
        const T* src, int srcStride0, int srcStride1, int srcStride2, T* buffer, T* dst,             \
        int dstStride0, int dstStride1, int dstStride2, int width, int height, int count) {          \
        return decomp_frame<true, 'S'>(                                                              \
            QRD_CHECKS(count_ok(count),                                                              \
                       strides_ok<T>(srcStride0, srcStride1, srcStride2, dstStride0, dstStride1,     \
                                     dstStride2),                                                    \
                       StatusOk),                                                                    \
            s_mat(src, srcStride0, srcStride1, srcStride2), buffer,                                  \
            s_mat(dst, dstStride0, dstStride1, dstStride2), width, height, count);                   \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRDecomp_ma_##t##_P(                                           \
        const T* const* src, int srcRoiShift, int srcStride0, T* buffer, T* const* dst,              \
        int dstRoiShift, int dstStride0, int width, int height, int count) {                         \
        return decomp_frame<true, 'P'>(                                                              \
            QRD_CHECKS(count_ok(count), strides_ok<T>(srcStride0, dstStride0),                       \
                       shifts_ok<T>(srcRoiShift, dstRoiShift)),                                      \
            p_arr(src, srcRoiShift, srcStride0, width), buffer,                                      \
            p_arr(dst, dstRoiShift, dstStride0, width), width, height, count);                       \
    }                                                                                                \
    extern "C" ORSM_API OrsStatus orsmQRDecomp_ma_##t##_L(                                           \
        const T* const* src, int srcRoiShift, int srcStride1, int srcStride2, T* buffer,             \
        T* const* dst, int dstRoiShift, int dstStride1, int dstStride2, int width, int height,       \
        int count) {                                                                                 \
        return decomp_frame<true, 'L'>(                                                              \
            QRD_CHECKS(count_ok(count), strides_ok<T>(srcStride1, srcStride2, dstStride1, dstStride2), \
                       shifts_ok<T>(srcRoiShift, dstRoiShift)),                                      \
            l_mat(src, srcRoiShift, srcStride1, srcStride2), buffer,                                 \
            l_mat(dst, dstRoiShift, dstStride1, dstStride2), width, height, count);                  \
    }
ORSM_FOR_TYPES(X)
#undef X
#undef QRD_CHECKS
