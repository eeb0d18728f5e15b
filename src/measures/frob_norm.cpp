// FrobNorm: the square root of the sum of the squares of all elements, each
// square and each addition rounded to the element type. A sum of squares at
// or below the tolerance (below it, in some kernels) gives exactly 0; the
// 64f single-matrix kernel of layout S alone takes the root of any sum.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "measures/measures.hpp"

namespace orsm::meas {

// How a kernel sums the squares.
enum class Sum {
    Running,  // one sum, rows ascending, columns ascending
    Pairs,    // table order, two squares added together, then to the sum
    PairsBut3x3,  // the same, but a 3 by 3 matrix one square at a time
    LanesM,   // 32f single matrix: columns, flat lanes or a running sum by shape and stride
    Lanes,    // contiguous arrays: columns at orders 3 to 5, else flat lanes
};
// Which sums give 0 instead of their root.
enum class Small { Never, AtOrBelow, Below };
struct Scheme {
    Sum sum;
    Small small;
    bool refined;  // root by a reciprocal square root estimate and one Newton step
};

template <class T> constexpr Scheme scheme(Kind k, bool single) {
    constexpr bool is32 = sizeof(T) == 4;
    if (k == Kind::P) return {single ? Sum::Pairs : Sum::PairsBut3x3, Small::Below, false};
    if (single) return is32 ? Scheme{Sum::LanesM, Small::AtOrBelow, true} : Scheme{Sum::Running, Small::Never, false};
    if (k == Kind::S) return {Sum::Lanes, Small::AtOrBelow, is32};
    return {Sum::Running, Small::Below, false};
}

template <class T> ORSM_INLINE T sq(T x) { return x * x; }

// Sum by columns of a square matrix of order 1 to 5: each column down the
// rows, rows 0 + 1 and 2 + 3 paired at orders 4 and 5; then the columns as
// (c0 + c2) + (c1 + c3), column 4 last. Order 2 adds row 1's squares to
// row 0's.
template <class X> ORSM_INLINE auto by_columns(const X& x, int n) {
    using T = decltype(x(0, 0));
    if (n == 2) return (sq(x(1, 0)) + sq(x(1, 1))) + (sq(x(0, 0)) + sq(x(0, 1)));
    T c[5] = {0, 0, 0, 0, 0};
    for (int j = 0; j < n; ++j) {
        T s = n >= 4 ? (sq(x(0, j)) + sq(x(1, j))) + (sq(x(2, j)) + sq(x(3, j)))
                     : n == 3 ? sq(x(0, j)) + sq(x(1, j)) : sq(x(0, j));
        if (n == 5) s = s + sq(x(4, j));
        if (n == 3) s = s + sq(x(2, j));
        c[j] = s;
    }
    const T four = (c[0] + c[2]) + (c[1] + c[3]);
    return n == 5 ? four + c[4] : four;
}

// L lanes over a run of contiguous elements: the first `peel` go to lane
// 0, then lane k takes positions k, k + L, ... over the largest multiple of
// 2L elements, the tail goes to lane 0 one at a time.
template <int L, class T> ORSM_INLINE void add_lanes(T (&lane)[L], const T* p, int len, int peel) {
    int i = 0;
    for (; i < peel && i < len; ++i) lane[0] = lane[0] + sq(p[i]);
    const int body = i + (len - i) / (2 * L) * (2 * L);
    for (; i < body; i += L)
        for (int j = 0; j < L; ++j) lane[j] = lane[j] + sq(p[i + j]);
    for (; i < len; ++i) lane[0] = lane[0] + sq(p[i]);
}
// Contiguous elements in L lanes: rows without gaps as one run, from `peel`
// on; rows with gaps each a run of its own. Four lanes combine as
// (l0 + l2) + (l1 + l3).
template <int L, class A> ORSM_INLINE auto by_lanes(const A& a, int n, int w, int h, int peel) {
    using T = Plain<typename A::value_type>;
    T lane[L] = {};
    if (a.s1 == ptrdiff_t(w) * esize<T>) add_lanes(lane, &a(n, 0, 0), w * h, peel);
    else
        for (int r = 0; r < h; ++r) add_lanes(lane, &a(n, r, 0), w, 0);
    if constexpr (L == 4) return (lane[0] + lane[2]) + (lane[1] + lane[3]);
    else return lane[0] + lane[1];
}

template <class X> ORSM_INLINE auto running(const X& x, int w, int h) {
    decltype(x(0, 0)) s = 0;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) s = s + sq(x(r, c));
    return s;
}

// Table order, two at a time; an odd last one alone.
template <class X> ORSM_INLINE auto pairs(const X& x, int w, int h) {
    decltype(x(0, 0)) s = 0;
    const int total = w * h;
    auto at = [&](int i) { return sq(x(i / w, i % w)); };
    int i = 0;
    for (; i + 1 < total; i += 2) s = s + (at(i) + at(i + 1));
    if (i < total) s = s + at(i);
    return s;
}

// The root through an estimate of 1/sqrt(s), as good as a 12-bit hardware
// estimate and better (halved exponent by the bit trick, two Newton steps),
// then the step y1 = y (0.5 (3 - s y^2)) and s y1. Infinity and NaN pass as
// they are.
ORSM_INLINE float refined_root(float s) {
    if (!(s <= FLT_MAX)) return s;
    std::uint32_t i;
    std::memcpy(&i, &s, 4);
    i = 0x5f375a86u - (i >> 1);
    float y;
    std::memcpy(&y, &i, 4);
    for (int k = 0; k < 2; ++k) y = y * (1.5f - (0.5f * s) * (y * y));
    const float y1 = y * (0.5f * (3.0f - s * (y * y)));
    return s * y1;
}
ORSM_INLINE double refined_root(double s) { return std::sqrt(s); }

template <Scheme Sc, class T> ORSM_INLINE T root(T s) {
    constexpr T t = tolerance<T>();
    if constexpr (Sc.small == Small::AtOrBelow) {
        if (s <= t) return T(0);
    } else if constexpr (Sc.small == Small::Below) {
        if (s < t) return T(0);
    }
    if constexpr (Sc.refined) return refined_root(s);
    else return std::sqrt(s);
}

struct FrobNorm {
    static constexpr bool uses_buffer = false;
    // The single-matrix frame of layout S has one kernel for every stride.
    static constexpr bool single_tests_contiguity = false;

    // Objects of a square order N fixed at compile time (N of 0: any
    // shape), so the sums of the small orders unroll.
    template <Kind K, bool Single, int N, class A, class T>
    static void objects(const A& a, int w_, int h_, T* dst, int count) {
        constexpr Scheme sc = scheme<T>(K, Single);
        const int w = N ? N : w_, h = N ? N : h_;
        const bool square = w == h;
        for (int n = 0; n < count; ++n) {
            auto x = [&](int r, int c) -> T { return a(n, r, c); };
            T s;
            if constexpr (sc.sum == Sum::Running) {
                s = running(x, w, h);
            } else if constexpr (sc.sum == Sum::Pairs) {
                s = pairs(x, w, h);
            } else if constexpr (sc.sum == Sum::PairsBut3x3) {
                s = N == 3 ? running(x, 3, 3) : pairs(x, w, h);
            } else if constexpr (sc.sum == Sum::Lanes) {
                constexpr int L = sizeof(T) == 4 ? 4 : 2;
                s = N >= 3 && N <= 5 ? by_columns(x, w) : by_lanes<L>(a, n, w, h, 0);
            } else {
                // Square up to order 5 by columns at any stride; else
                // contiguous elements in four lanes, rows without gaps read
                // as one vector from its first 16-byte boundary; else one
                // running sum.
                if (square && w < 6) {
                    s = by_columns(x, w);
                } else if (a.s2_ == esize<T>) {
                    const auto addr = reinterpret_cast<std::uintptr_t>(&a(n, 0, 0));
                    s = by_lanes<4>(a.template as<true>(), n, w, h, int((16 - addr % 16) % 16 / esize<T>));
                } else {
                    s = running(x, w, h);
                }
            }
            dst[n] = root<sc>(s);
        }
    }
    template <Kind K, bool Single, class A, class T>
    static void kernel(const A& a, Geo g, T*, T* dst, int count) {
        if (g.w == g.h) switch (g.w) {
                case 1: return objects<K, Single, 1>(a, 1, 1, dst, count);
                case 2: return objects<K, Single, 2>(a, 2, 2, dst, count);
                case 3: return objects<K, Single, 3>(a, 3, 3, dst, count);
                case 4: return objects<K, Single, 4>(a, 4, 4, dst, count);
                case 5: return objects<K, Single, 5>(a, 5, 5, dst, count);
                case 6: return objects<K, Single, 6>(a, 6, 6, dst, count);
                default: break;
            }
        objects<K, Single, 0>(a, g.w, g.h, dst, count);
    }

    static int work(Geo g, int count) { return wmul(g.w, g.h, count); }
    // Serial below, by type and kernel kind; layout L has one limit.
    template <class T> static constexpr Limit limit(Kind k) {
        constexpr bool is32 = sizeof(T) == 4;
        switch (k) {
            case Kind::S: return serial_below(is32 ? 2501 : 1801);
            case Kind::S2: return serial_below(is32 ? 1801 : 1501);
            case Kind::P: return serial_below(is32 ? 1501 : 2501);
            default: return serial_below(1601);
        }
    }
};

}  // namespace orsm::meas

#define MEAS_SZD_FrobNorm MEAS_SZD_RECT
#define MEAS_SZV_FrobNorm MEAS_SZV_RECT
#define MEAS_SZOK_FrobNorm MEAS_SZOK_RECT
#define MEAS_BUFD_FrobNorm MEAS_BUFD_NONE
#define MEAS_BUFV_FrobNorm MEAS_BUFV_NONE
#define MEAS_BUFCHK_FrobNorm MEAS_BUFCHK_NONE

#define X(T, t) MEAS_FAMILY(T, t, FrobNorm)
ORSM_FOR_TYPES(X)
#undef X
