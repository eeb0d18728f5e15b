// Estimates of the 32f packed paths, made the same on every machine from
// IEEE single operations alone. Each is followed by one Newton step where it
// is used; the step's order of operations belongs to the caller.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>

#include "common/base.hpp"

namespace orsm {

// The reciprocal square-root estimate of the 32f packed paths, made the same
// on every machine from IEEE single operations alone: the exponent halved in
// the bits, two Newton steps, the result rounded to 12 significant bits
// (ties away from zero). Its relative error is below 1.5 * 2^-12, the
// processor estimate's bound. As that estimate does, it takes a subnormal s
// as zero: zero and subnormals give +inf, +inf gives 0, NaN and negative s
// give NaN. Free of branches, so four lanes run as one.
ORSM_INLINE float rsqrt_estimate(float s) {
    std::uint32_t b;
    std::memcpy(&b, &s, sizeof b);
    b = 0x5F375A86u - (b >> 1);
    float y;
    std::memcpy(&y, &b, sizeof y);
    // (s * y) * y stays normal, and near 1, for every normal s.
    y = y * (1.5f - 0.5f * ((s * y) * y));
    y = y * (1.5f - 0.5f * ((s * y) * y));
    std::memcpy(&b, &y, sizeof b);
    b = (b + 0x400u) & ~0x7FFu;
    std::memcpy(&y, &b, sizeof y);
    constexpr float inf = std::numeric_limits<float>::infinity();
    y = s >= std::numeric_limits<float>::min() ? y : s >= 0.0f ? inf : std::numeric_limits<float>::quiet_NaN();
    return s == inf ? 0.0f : y;
}

}  // namespace orsm
