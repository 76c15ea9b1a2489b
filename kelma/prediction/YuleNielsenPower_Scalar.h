// Scalar twin of the vectorised Yule-Nielsen power (YuleNielsenPower_SSE.h,
// YuleNielsenPower_AVX2.h, YuleNielsenPower_AVX512.h): the same double-
// precision operations and table reads in the same order, lane by lane, so
// all of them agree bit for bit. It is the reference variant and the oracle.
//
// x^y = 2^(y log2 x) for x a positive normal float and 0 < y <= 64:
//   x = m 2^e, m in [1, 2); i = top 4 bits of m's fraction;
//   r = m c_i - 1 with c_i = 1 / (1 + (i + 1/2) / 16), so |r| <= 1/33;
//   log2 x = (e - log2 c_i) + r P(r), P the degree-4 polynomial that
//     interpolates log2(1 + r) / r at the five Chebyshev nodes of
//     [-1/33, 1/33] (scripts/fit_power_coefficients.py), good to 1.2e-11
//     absolute;
//   t = y log2 x = y (e - log2 c_i) + P(r) (y r), clamped to [-160, 130];
//   k = nearest integer to 16 t, f = t - k / 16 in [-1/32, 1/32];
//   2^t = 2^(k >> 4) 2^((k & 15) / 16) sum_{j <= 4} (f ln 2)^j / j!,
//   rounded once to float.
// Both polynomials are evaluated in Estrin's form, (c0 + c1 z) + z^2 ((c2 +
// c3 z) + z^2 c4): one multiply more than Horner's rule but a chain of four
// operations instead of eight, which is what limits the vector kernels.
// Error: the double-precision value is good to about 1.3e-10 relative (the log's
// error times y ln 2 for y <= 15, plus the exponential's 3e-12), so the
// result is within 1 ulp of the correctly rounded one and within 2 ulp of
// powf for the bases and exponents a model produces (bases 0..1.5, exponents
// 1..15; the tests sweep them). Every other base (0, negative, subnormal,
// inf, NaN) and exponent goes to powf itself, so the special cases are
// powf's: 0 -> 0, 1 -> 1, negative base with a non-integer exponent -> NaN.
#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

namespace yule_nielsen_power {

// 16-entry tables, filled once, deterministically, on first use.
struct alignas(64) ZKSPowerTables {
    double invC[16];      // c_i
    double log2C[16];     // log2 c_i
    double exp2Frac[16];  // 2^(j / 16)
};
const ZKSPowerTables& PowerTables();

// log2(1 + r) = r P(r), P(r) = sum kLog2[j] r^j
constexpr double kLog2[5] = {1.4426950408889636, -0.7213474570295774, 0.4808982926042842, -0.3609499480845258,
                             0.28877574679933965};
// (ln 2)^j / j!, j = 0..4
constexpr double kExp[5] = {1.0, 0.69314718055994531, 0.24022650695910071, 0.055504108664821580,
                            0.0096181291076284772};
constexpr double kMinT = -160.0;  // 2^-160 rounds to 0 in float
constexpr double kMaxT = 130.0;   // 2^130 rounds to inf in float

inline bool ExponentInRange(float y) { return y > 0.0f && y <= 64.0f; }
inline bool BaseInRange(float x) { return x >= FLT_MIN && x <= FLT_MAX; }

}  // namespace yule_nielsen_power

inline float YuleNielsenPowerLane_Scalar(float x, float y) {
    using namespace yule_nielsen_power;
    if (!ExponentInRange(y) || !BaseInRange(x)) return std::pow(x, y);
    const ZKSPowerTables& T = PowerTables();
    std::uint32_t bits;
    std::memcpy(&bits, &x, 4);
    std::int32_t e = static_cast<std::int32_t>(bits >> 23) - 127;
    std::uint32_t i = (bits >> 19) & 15u;
    std::uint32_t mbits = (bits & 0x007FFFFFu) | 0x3F800000u;
    float m;
    std::memcpy(&m, &mbits, 4);
    double r = static_cast<double>(m) * T.invC[i] - 1.0;
    double r2 = r * r;
    double p = (r * kLog2[1] + kLog2[0]) + r2 * ((r * kLog2[3] + kLog2[2]) + r2 * kLog2[4]);
    double t = static_cast<double>(y) * (static_cast<double>(e) - T.log2C[i]) + p * (static_cast<double>(y) * r);
    t = t < kMinT ? kMinT : (t > kMaxT ? kMaxT : t);
    double kd = std::nearbyint(t * 16.0);
    std::int32_t k = static_cast<std::int32_t>(kd);
    double f = t - kd * 0.0625;
    double f2 = f * f;
    double q = (f * kExp[1] + kExp[0]) + f2 * ((f * kExp[3] + kExp[2]) + f2 * kExp[4]);
    std::uint64_t scaleBits = static_cast<std::uint64_t>((k >> 4) + 1023) << 52;
    double scale;
    std::memcpy(&scale, &scaleBits, 8);
    return static_cast<float>((q * T.exp2Frac[k & 15]) * scale);
}

}  // namespace KELMA_NAMESPACE
