// Run kernels of the element-wise fast paths, for one instruction-set target
// (this file is compiled once per target; see kernels/isa.hpp).
//
// A run goes in chunks of the target's vector width (16, 32 or 64 bytes),
// then 16-byte chunks, then single elements.
// Each chunk is loaded whole before it is stored, so dst may be the very
// pointer of a source. The lanes run over independent elements: each one is
// the single IEEE operation of the scalar code, so every target gives the
// same bits.
#include "elementwise/lines.hpp"
#include "kernels/vectors.hpp"

namespace orsm::ew {
namespace ORSM_TARGET {
namespace {

namespace vx = ::orsm::vec::ORSM_TARGET;
using vx::kBytes;

template <class T, int Bytes> struct Wide {
    using V = vx::Vec<T, Bytes / int(sizeof(T))>;
    static constexpr int lanes = Bytes / int(sizeof(T));
};

template <int Op, class X> ORSM_INLINE X apply(X a, X b) {
    if constexpr (Op == opAdd) return a + b;
    else if constexpr (Op == opSub) return a - b;
    else return a * b;
}

// Element or chunk i of an operand: a pointer, or a scalar for every lane.
template <class V, class T> ORSM_INLINE V chunk(const T* p, ptrdiff_t i) { return vx::load<V>(p + i); }
template <class V, class T> ORSM_INLINE V chunk(T s, ptrdiff_t) { return vx::splat<V>(s); }
template <class T> ORSM_INLINE T one(const T* p, ptrdiff_t i) { return p[i]; }
template <class T> ORSM_INLINE T one(T s, ptrdiff_t) { return s; }

// Runs longer than this stream through memory, where 16-byte loads and
// stores go faster than wider ones on the machines measured.
constexpr ptrdiff_t kLongRunBytes = 1 << 18;

template <int Op, int Bytes, class T, class X, class Y> ORSM_INLINE void run(T* d, X x, Y y, ptrdiff_t n) {
    using WN = Wide<T, Bytes>;
    using W16 = Wide<T, 16>;
    ptrdiff_t i = 0;
    for (; i + WN::lanes <= n; i += WN::lanes) {
        const auto r = apply<Op>(chunk<typename WN::V, T>(x, i), chunk<typename WN::V, T>(y, i));
        std::memcpy(d + i, &r, sizeof r);
    }
    if constexpr (Bytes > 16)
        for (; i + W16::lanes <= n; i += W16::lanes) {
            const auto r = apply<Op>(chunk<typename W16::V, T>(x, i), chunk<typename W16::V, T>(y, i));
            std::memcpy(d + i, &r, sizeof r);
        }
    for (; i < n; ++i) d[i] = apply<Op>(one<T>(x, i), one<T>(y, i));
}

template <int Op, class T, class X, class Y> void run_any(T* d, X x, Y y, ptrdiff_t n) {
    if (n * ptrdiff_t(sizeof(T)) > kLongRunBytes) run<Op, 16>(d, x, y, n);
    else run<Op, kBytes>(d, x, y, n);
}
template <int Op, class T> void vv(T* d, const T* a, const T* b, ptrdiff_t n) { run_any<Op>(d, a, b, n); }
// Streaming stores from the first element of d aligned to the widest
// vector; those before it and the last partial chunk by plain stores.
template <int Op, class T> void vv_streamed(T* d, const T* a, const T* b, ptrdiff_t n) {
    using V = typename Wide<T, kBytes>::V;
    constexpr ptrdiff_t lanes = Wide<T, kBytes>::lanes;
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(d);
    if (at % sizeof(T) != 0) return run<Op, kBytes>(d, a, b, n);
    ptrdiff_t i = ptrdiff_t((kBytes - at % kBytes) % kBytes / sizeof(T));
    if (i > n) i = n;
    run<Op, kBytes>(d, a, b, i);
    for (; i + lanes <= n; i += lanes) vx::stream(d + i, apply<Op>(chunk<V, T>(a, i), chunk<V, T>(b, i)));
    run<Op, kBytes>(d + i, a + i, b + i, n - i);
    vx::stream_fence();
}
template <int Op, class T> void vs(T* d, const T* a, T b, ptrdiff_t n) { run_any<Op>(d, a, b, n); }
template <int Op, class T> void sv(T* d, T a, const T* b, ptrdiff_t n) { run_any<Op>(d, a, b, n); }

// A pattern of `period` elements is first widened to a block of whole
// periods that is also a whole number of vector chunks (when that fits in
// kRep elements), so each block is one run without a scalar tail.
constexpr int kRep = 576;
constexpr int gcd(int a, int b) { return b == 0 ? a : gcd(b, a % b); }

template <int Op, bool PatFirst, int Bytes, class T>
void pattern(T* d, const T* v, const T* pat, int period, ptrdiff_t n) {
    constexpr int lanes = Wide<T, Bytes>::lanes;
    T rep[kRep];
    const T* blk = pat;
    ptrdiff_t len = period;
    const long wide = long(period) / gcd(period, lanes) * lanes;
    if (wide <= kRep && n > period) {
        len = wide < n ? wide : n;
        for (ptrdiff_t i = 0; i < len; i += period)
            std::memcpy(rep + i, pat, sizeof(T) * size_t(len - i < period ? len - i : period));
        blk = rep;
    }
    for (ptrdiff_t i = 0; i < n; i += len) {
        const ptrdiff_t k = n - i < len ? n - i : len;
        if constexpr (PatFirst) run<Op, Bytes>(d + i, blk, v + i, k);
        else run<Op, Bytes>(d + i, v + i, blk, k);
    }
}
template <int Op, bool PatFirst, class T>
void pattern_any(T* d, const T* v, const T* pat, int period, ptrdiff_t n) {
    if (n * ptrdiff_t(sizeof(T)) > kLongRunBytes) pattern<Op, PatFirst, 16>(d, v, pat, period, n);
    else pattern<Op, PatFirst, kBytes>(d, v, pat, period, n);
}
template <int Op, class T> void vp(T* d, const T* a, const T* pat, int period, ptrdiff_t n) {
    pattern_any<Op, false>(d, a, pat, period, n);
}
template <int Op, class T> void pv(T* d, const T* pat, const T* b, int period, ptrdiff_t n) {
    pattern_any<Op, true>(d, b, pat, period, n);
}

template <class T> constexpr RunTable<T> table() {
    return {{&vv<opAdd, T>, &vv<opSub, T>, &vv<opMul, T>},
            {&vs<opAdd, T>, &vs<opSub, T>, &vs<opMul, T>},
            {&sv<opAdd, T>, &sv<opSub, T>, &sv<opMul, T>},
            {&vp<opAdd, T>, &vp<opSub, T>, &vp<opMul, T>},
            {&pv<opAdd, T>, &pv<opSub, T>, &pv<opMul, T>},
            {&vv_streamed<opAdd, T>, &vv_streamed<opSub, T>, &vv_streamed<opMul, T>}};
}

}  // namespace
}  // namespace ORSM_TARGET

extern const Runs ORSM_TARGET_SYMBOL(runs_) = {ORSM_TARGET::table<float>(), ORSM_TARGET::table<double>()};

}  // namespace orsm::ew
