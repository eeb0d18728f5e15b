// Trace: the sum of the diagonal, each addition rounded to the element type.
#include "measures/measures.hpp"

namespace orsm::meas {

struct Trace {
    static constexpr bool uses_buffer = false;
    static constexpr bool single_tests_contiguity = true;

    // Orders 3 to 6 read the diagonal at fixed places and add a00 + a11 + ...
    // first to last, except that the strided kernels start order 5 from a44
    // and order 6 from a44 + a55, then add a00 upward.
    template <int N, bool Strided, class A> static ORSM_INLINE auto fixed(const A& a, int n) {
        using T = Plain<typename A::value_type>;
        T d[N];
        for (int i = 0; i < N; ++i) d[i] = a(n, i, i);
        if constexpr (Strided && N == 5) return (((d[4] + d[0]) + d[1]) + d[2]) + d[3];
        if constexpr (Strided && N == 6) return ((((d[4] + d[5]) + d[0]) + d[1]) + d[2]) + d[3];
        T s = d[0];
        for (int i = 1; i < N; ++i) s = s + d[i];
        return s;
    }
    template <int N, bool Strided, class A, class T> static void run(const A& a, T* dst, int count) {
        for (int n = 0; n < count; ++n) dst[n] = fixed<N, Strided>(a, n);
    }

    template <Kind K, bool, class A, class T>
    static void kernel(const A& a, Geo g, T*, T* dst, int count) {
        constexpr bool S2 = strided(K);
        switch (g.w) {
            case 3: return run<3, S2>(a, dst, count);
            case 4: return run<4, S2>(a, dst, count);
            case 5: return run<5, S2>(a, dst, count);
            case 6: return run<6, S2>(a, dst, count);
            default: break;
        }
        // The loop starts from 0, so a diagonal of negative zeros sums to +0
        // at these orders where orders 3 to 6 keep -0.
        for (int n = 0; n < count; ++n) {
            T s = 0;
            for (int i = 0; i < g.w; ++i) s = s + a(n, i, i);
            dst[n] = s;
        }
    }

    static int work(Geo g, int count) { return wmul(g.w, count); }
    // One limit for every type, layout and kind.
    template <class T> static constexpr Limit limit(Kind) { return serial_below(3601); }
};

}  // namespace orsm::meas

#define MEAS_SZD_Trace MEAS_SZD_ORDER
#define MEAS_SZV_Trace MEAS_SZV_ORDER
#define MEAS_SZOK_Trace MEAS_SZOK_ORDER
#define MEAS_BUFD_Trace MEAS_BUFD_NONE
#define MEAS_BUFV_Trace MEAS_BUFV_NONE
#define MEAS_BUFCHK_Trace MEAS_BUFCHK_NONE

#define X(T, t) MEAS_FAMILY(T, t, Trace)
ORSM_FOR_TYPES(X)
#undef X
