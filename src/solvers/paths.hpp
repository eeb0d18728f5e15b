// Kernel and path selection shared by the solver families.
//
// A call in layout S or L runs its contiguous kernel when every element
// stride equals the element size and its strided kernel otherwise; layout P
// has one kernel. Inside a kernel orders 3 to 6 take unrolled paths and every
// other order the general loop; the order is looked at once per call,
// outside the loop over objects.
#pragma once

#include <type_traits>

#include "common/layout.hpp"

namespace orsm::solve {

enum class Kind { S, S2, P, L, LS2 };
template <Kind K> using KindC = std::integral_constant<Kind, K>;
template <int N> using Order = std::integral_constant<int, N>;

// Calls f(Order<N>{}) for an order N with an unrolled path, f(Order<0>{})
// for the general loop.
template <class F> ORSM_INLINE decltype(auto) by_order(int size, F&& f) {
    switch (size) {
        case 3: return f(Order<3>{});
        case 4: return f(Order<4>{});
        case 5: return f(Order<5>{});
        case 6: return f(Order<6>{});
        default: return f(Order<0>{});
    }
}

// Calls f(KindC<kind>{}, accessors...) with the call's kernel kind; the
// contiguous kernels get the accessors with a compile-time element stride.
template <char Lay, class T, class F, class... A> ORSM_INLINE decltype(auto) with_kind(F&& f, const A&... acc) {
    if constexpr (Lay == 'P') {
        return f(KindC<Kind::P>{}, acc...);
    } else {
        constexpr Kind C = Lay == 'S' ? Kind::S : Kind::L, S2 = Lay == 'S' ? Kind::S2 : Kind::LS2;
        if (all_contiguous<T>(acc.s2_...)) return f(KindC<C>{}, acc.template as<true>()...);
        return f(KindC<S2>{}, acc...);
    }
}

}  // namespace orsm::solve
