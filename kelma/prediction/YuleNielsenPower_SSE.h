// Yule-Nielsen power in SSE2, four floats at a time in two double halves,
// table entries by scalar loads. Formulas, error bound and special cases:
// the scalar twin YuleNielsenPower_Scalar.h (bit-identical).
#pragma once

#include <emmintrin.h>

#include "kelma/prediction/YuleNielsenPower_Scalar.h"

namespace KELMA_NAMESPACE {

// Two lanes: m (double, exact), e (double), table indices i, exponent y.
inline __m128d PowerPair_SSE(const yule_nielsen_power::ZKSPowerTables& T, __m128d m, __m128d e,
                             const std::int32_t* i, __m128d y) {
    using namespace yule_nielsen_power;
    // r = m c_i - 1; t = y log2 x = y (e - log2 c_i) + p (y r)
    __m128d r = _mm_sub_pd(_mm_mul_pd(m, _mm_set_pd(T.invC[i[1]], T.invC[i[0]])), _mm_set1_pd(1.0));
    const __m128d r2 = _mm_mul_pd(r, r);
    const __m128d p01 = _mm_add_pd(_mm_mul_pd(r, _mm_set1_pd(kLog2[1])), _mm_set1_pd(kLog2[0]));
    const __m128d p23 = _mm_add_pd(_mm_mul_pd(r, _mm_set1_pd(kLog2[3])), _mm_set1_pd(kLog2[2]));
    const __m128d p = _mm_add_pd(p01, _mm_mul_pd(r2, _mm_add_pd(p23, _mm_mul_pd(r2, _mm_set1_pd(kLog2[4])))));
    __m128d t = _mm_add_pd(_mm_mul_pd(y, _mm_sub_pd(e, _mm_set_pd(T.log2C[i[1]], T.log2C[i[0]]))),
                           _mm_mul_pd(p, _mm_mul_pd(y, r)));
    t = _mm_min_pd(_mm_max_pd(t, _mm_set1_pd(kMinT)), _mm_set1_pd(kMaxT));
    // k = nearest integer to 16 t; f = t - k / 16; q = sum (f ln2)^j / j!
    __m128i k = _mm_cvtpd_epi32(_mm_mul_pd(t, _mm_set1_pd(16.0)));
    __m128d f = _mm_sub_pd(t, _mm_mul_pd(_mm_cvtepi32_pd(k), _mm_set1_pd(0.0625)));
    const __m128d f2 = _mm_mul_pd(f, f);
    const __m128d q01 = _mm_add_pd(_mm_mul_pd(f, _mm_set1_pd(kExp[1])), _mm_set1_pd(kExp[0]));
    const __m128d q23 = _mm_add_pd(_mm_mul_pd(f, _mm_set1_pd(kExp[3])), _mm_set1_pd(kExp[2]));
    const __m128d q = _mm_add_pd(q01, _mm_mul_pd(f2, _mm_add_pd(q23, _mm_mul_pd(f2, _mm_set1_pd(kExp[4])))));
    // 2^((k & 15) / 16) from the table, 2^(k >> 4) from exponent bits
    alignas(16) std::int32_t kk[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(kk), k);
    __m128d frac = _mm_set_pd(T.exp2Frac[kk[1] & 15], T.exp2Frac[kk[0] & 15]);
    __m128i biased = _mm_add_epi32(_mm_srai_epi32(k, 4), _mm_set1_epi32(1023));
    __m128d scale = _mm_castsi128_pd(_mm_slli_epi64(_mm_unpacklo_epi32(biased, _mm_setzero_si128()), 52));
    return _mm_mul_pd(_mm_mul_pd(q, frac), scale);
}

// x^y for four floats; lanes outside the polynomial's domain (every lane
// when y is outside it) are recomputed with powf.
inline __m128 YuleNielsenPower4_SSE(const yule_nielsen_power::ZKSPowerTables& T, __m128 x, float y) {
    using namespace yule_nielsen_power;
    // e = exponent field - 127; i = top 4 fraction bits; m in [1, 2)
    __m128i bits = _mm_castps_si128(x);
    __m128i e = _mm_sub_epi32(_mm_srli_epi32(bits, 23), _mm_set1_epi32(127));
    alignas(16) std::int32_t i[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(i), _mm_and_si128(_mm_srli_epi32(bits, 19), _mm_set1_epi32(15)));
    __m128 m = _mm_castsi128_ps(
        _mm_or_si128(_mm_and_si128(bits, _mm_set1_epi32(0x007FFFFF)), _mm_set1_epi32(0x3F800000)));

    __m128d yd = _mm_set1_pd(static_cast<double>(y));
    __m128d lo = PowerPair_SSE(T, _mm_cvtps_pd(m), _mm_cvtepi32_pd(e), i, yd);
    __m128d hi = PowerPair_SSE(T, _mm_cvtps_pd(_mm_movehl_ps(m, m)),
                               _mm_cvtepi32_pd(_mm_shuffle_epi32(e, _MM_SHUFFLE(1, 0, 3, 2))), i + 2, yd);
    __m128 r = _mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi));

    // In range: FLT_MIN <= x <= FLT_MAX (false for NaN).
    __m128 ok = _mm_and_ps(_mm_cmpge_ps(x, _mm_set1_ps(FLT_MIN)), _mm_cmple_ps(x, _mm_set1_ps(FLT_MAX)));
    if (!ExponentInRange(y) || _mm_movemask_ps(ok) != 0xF) {
        alignas(16) float xs[4], rs[4];
        _mm_store_ps(xs, x);
        _mm_store_ps(rs, r);
        int good = ExponentInRange(y) ? _mm_movemask_ps(ok) : 0;
        for (int l = 0; l < 4; ++l)
            if (!(good & (1 << l))) rs[l] = std::pow(xs[l], y);
        r = _mm_load_ps(rs);
    }
    return r;
}

}  // namespace KELMA_NAMESPACE
