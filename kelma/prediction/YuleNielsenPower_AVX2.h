// Yule-Nielsen power in AVX2: eight floats per step as two vectors of four
// doubles, table entries by gathers. Formulas, error bound and special
// cases: the scalar twin YuleNielsenPower_Scalar.h; the operations are the
// twin's (nearbyint is the rounding instruction in round-to-nearest mode),
// so the results are its bit for bit.
#pragma once

#include <immintrin.h>

#include "kelma/common/SimdTarget.h"
#include "kelma/prediction/YuleNielsenPower_Scalar.h"

namespace KELMA_NAMESPACE {

// Four lanes: m (double, exact), e (double), table indices i, exponent y.
KELMA_TARGET_AVX2 inline __m256d PowerInRange4_AVX2(const yule_nielsen_power::ZKSPowerTables& T, __m256d m,
                                                    __m256d e, __m128i i, __m256d y) {
    using namespace yule_nielsen_power;
    // r = m c_i - 1; t = y log2 x = y (e - log2 c_i) + p (y r)
    const __m256d r = _mm256_sub_pd(_mm256_mul_pd(m, _mm256_i32gather_pd(T.invC, i, 8)), _mm256_set1_pd(1.0));
    const __m256d r2 = _mm256_mul_pd(r, r);
    const __m256d p01 = _mm256_add_pd(_mm256_mul_pd(r, _mm256_set1_pd(kLog2[1])), _mm256_set1_pd(kLog2[0]));
    const __m256d p23 = _mm256_add_pd(_mm256_mul_pd(r, _mm256_set1_pd(kLog2[3])), _mm256_set1_pd(kLog2[2]));
    const __m256d p =
        _mm256_add_pd(p01, _mm256_mul_pd(r2, _mm256_add_pd(p23, _mm256_mul_pd(r2, _mm256_set1_pd(kLog2[4])))));
    __m256d t = _mm256_add_pd(_mm256_mul_pd(y, _mm256_sub_pd(e, _mm256_i32gather_pd(T.log2C, i, 8))),
                              _mm256_mul_pd(p, _mm256_mul_pd(y, r)));
    t = _mm256_min_pd(_mm256_max_pd(t, _mm256_set1_pd(kMinT)), _mm256_set1_pd(kMaxT));
    // k = nearest integer to 16 t; f = t - k / 16; q = sum (f ln2)^j / j!
    const __m256d kd =
        _mm256_round_pd(_mm256_mul_pd(t, _mm256_set1_pd(16.0)), _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m128i k = _mm256_cvtpd_epi32(kd);
    const __m256d f = _mm256_sub_pd(t, _mm256_mul_pd(kd, _mm256_set1_pd(0.0625)));
    const __m256d f2 = _mm256_mul_pd(f, f);
    const __m256d q01 = _mm256_add_pd(_mm256_mul_pd(f, _mm256_set1_pd(kExp[1])), _mm256_set1_pd(kExp[0]));
    const __m256d q23 = _mm256_add_pd(_mm256_mul_pd(f, _mm256_set1_pd(kExp[3])), _mm256_set1_pd(kExp[2]));
    const __m256d q =
        _mm256_add_pd(q01, _mm256_mul_pd(f2, _mm256_add_pd(q23, _mm256_mul_pd(f2, _mm256_set1_pd(kExp[4])))));
    // 2^((k & 15) / 16) from the table, 2^(k >> 4) from exponent bits
    const __m256d frac = _mm256_i32gather_pd(T.exp2Frac, _mm_and_si128(k, _mm_set1_epi32(15)), 8);
    const __m256i biased = _mm256_cvtepi32_epi64(_mm_add_epi32(_mm_srai_epi32(k, 4), _mm_set1_epi32(1023)));
    const __m256d scale = _mm256_castsi256_pd(_mm256_slli_epi64(biased, 52));
    return _mm256_mul_pd(_mm256_mul_pd(q, frac), scale);
}

// x^y for eight floats; lanes outside the polynomial's domain (every lane
// when y is outside it) are recomputed with powf.
KELMA_TARGET_AVX2 inline __m256 YuleNielsenPower8_AVX2(const yule_nielsen_power::ZKSPowerTables& T, __m256 x,
                                                       float y) {
    using namespace yule_nielsen_power;
    // e = exponent field - 127; i = top 4 fraction bits; m in [1, 2)
    const __m256i bits = _mm256_castps_si256(x);
    const __m256i e = _mm256_sub_epi32(_mm256_srli_epi32(bits, 23), _mm256_set1_epi32(127));
    const __m256i i = _mm256_and_si256(_mm256_srli_epi32(bits, 19), _mm256_set1_epi32(15));
    const __m256 m = _mm256_castsi256_ps(
        _mm256_or_si256(_mm256_and_si256(bits, _mm256_set1_epi32(0x007FFFFF)), _mm256_set1_epi32(0x3F800000)));
    const __m256d yd = _mm256_set1_pd(static_cast<double>(y));
    const __m256d lo = PowerInRange4_AVX2(T, _mm256_cvtps_pd(_mm256_castps256_ps128(m)),
                                          _mm256_cvtepi32_pd(_mm256_castsi256_si128(e)),
                                          _mm256_castsi256_si128(i), yd);
    const __m256d hi = PowerInRange4_AVX2(T, _mm256_cvtps_pd(_mm256_extractf128_ps(m, 1)),
                                          _mm256_cvtepi32_pd(_mm256_extracti128_si256(e, 1)),
                                          _mm256_extracti128_si256(i, 1), yd);
    __m256 r = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(lo)), _mm256_cvtpd_ps(hi), 1);
    // In range: FLT_MIN <= x <= FLT_MAX (false for NaN).
    const __m256 ok = _mm256_and_ps(_mm256_cmp_ps(x, _mm256_set1_ps(FLT_MIN), _CMP_GE_OQ),
                                    _mm256_cmp_ps(x, _mm256_set1_ps(FLT_MAX), _CMP_LE_OQ));
    const int mask = _mm256_movemask_ps(ok);
    if (__builtin_expect(mask != 0xFF || !ExponentInRange(y), 0)) {
        alignas(32) float xs[8], rs[8];
        _mm256_store_ps(xs, x);
        _mm256_store_ps(rs, r);
        const int good = ExponentInRange(y) ? mask : 0;
        for (int l = 0; l < 8; ++l)
            if (!(good & (1 << l))) rs[l] = std::pow(xs[l], y);
        r = _mm256_load_ps(rs);
    }
    return r;
}

}  // namespace KELMA_NAMESPACE
