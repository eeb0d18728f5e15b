// Det's orders 3 to 6 with lanes over objects, for one instruction-set
// target (compiled once per target; see det.hpp).
//
// Lane l belongs to object first + l and runs the closed form of the scalar
// path on it, minor for minor (det.hpp's program instantiated on vectors),
// so every determinant has the scalar path's bits. The matrices come in by
// 16-byte pieces of their rows, turned about in registers.
#include "kernels/lanes.hpp"
#include "measures/det.hpp"

namespace orsm::meas {
namespace ORSM_TARGET {
namespace {

using namespace ::orsm::lanes::ORSM_TARGET;
using groups::Listed;
using groups::Strided;

template <class T, int N, int W, template <class> class Obj>
void det_group(const Obj<const T>& src, T* dst, int first) {
    V<T, W> a[N][N];
    load<W>(a, src, first);
    vx::store(dst + first, closed_det<N>(a));
}

// Lanes per group: 32-byte vectors measured fastest at every order on
// AVX-512 too (1,000 objects in cache: 64-byte vectors 10 to 50% slower,
// their turns costing more than they save, 16-byte ones 20 to 70% slower).
// 64f order 3 stays scalar: two pieces a row, one of them a single element,
// cost more than nine scalar loads (1.65 against 1.3 ns an object).
template <class T> constexpr int kL = vx::kLanes<T> < 32 / int(sizeof(T)) ? vx::kLanes<T> : 32 / int(sizeof(T));

template <class T> constexpr DetFast<T> make() {
    DetFast<T> k{kL<T>, vx::kLanes<T>, {}, {}, {}};
    static_for<4>([&](auto o) {
        if constexpr (sizeof(T) == 4 || o > 0) {
            k.s[o] = &det_group<T, o + 3, kL<T>, Strided>;
            k.l[o] = &det_group<T, o + 3, kL<T>, Listed>;
        }
        k.p[o] = &det_group<T, o + 3, vx::kLanes<T>, groups::Soa>;
    });
    return k;
}

}  // namespace
}  // namespace ORSM_TARGET

extern const DetTable ORSM_TARGET_SYMBOL(det_table_) = {ORSM_TARGET::make<float>(), ORSM_TARGET::make<double>()};

}  // namespace orsm::meas
