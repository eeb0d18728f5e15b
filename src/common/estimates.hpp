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

// The reciprocal estimate of the 32f packed paths, made the same way: 1/m
// for the significand m in [1, 2) from a linear start and two Newton steps,
// rounded as above to 12 significant bits, then scaled by the exponent
// exactly. Its relative error is below 1.5 * 2^-12. As the processor
// estimate does, it takes a subnormal d as zero (+-inf), and gives +-0 where
// 1/d would be subnormal (|d| from 2^126 on, infinities); NaN gives NaN.
ORSM_INLINE float rcp_estimate(float d) {
    std::uint32_t b;
    std::memcpy(&b, &d, sizeof b);
    const std::uint32_t sign = b & 0x80000000u, ex = (b >> 23) & 0xFFu;
    const std::uint32_t mb = (b & 0x007FFFFFu) | 0x3F800000u;
    float m, y;
    std::memcpy(&m, &mb, sizeof m);
    y = 24.0f / 17.0f - (8.0f / 17.0f) * m;  // within 1/17 of 1/m
    y = y * (2.0f - m * y);
    y = y * (2.0f - m * y);
    std::memcpy(&b, &y, sizeof b);
    b = (b + 0x400u) & ~0x7FFu;
    // y * 2^(127 - ex) is normal for ex from 1 to 253, and exact.
    const std::uint32_t scale_bits = (254u - (ex > 253u ? 253u : ex < 1u ? 1u : ex)) << 23;
    float scale;
    std::memcpy(&y, &b, sizeof y);
    std::memcpy(&scale, &scale_bits, sizeof scale);
    y = y * scale;
    y = ex == 0 ? std::numeric_limits<float>::infinity() : ex >= 253 ? 0.0f : y;
    std::memcpy(&b, &y, sizeof b);
    b |= sign;
    std::memcpy(&y, &b, sizeof y);
    return d != d ? d : y;
}

}  // namespace orsm
