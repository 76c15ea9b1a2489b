// Yule-Nielsen power in AVX-512: sixteen floats per step as two vectors of
// eight doubles, the 16-entry tables held in registers and read by permutes.
// Formulas, error bound and special cases: the scalar twin
// YuleNielsenPower_Scalar.h. Each step below is the twin's operation or an
// exact equivalent of it, so the results are the twin's bit for bit:
//   m = getmant(x) in [1, 2) and e = getexp(x) are the twin's m and e
//     (exact for positive normal x);
//   i = the top 4 fraction bits, read from the double (they are the float's);
//   nearbyint(16 t) / 16 = roundscale(t) to 4 fraction bits, ties to even,
//     and f = t - k / 16 is exact; the low 4 bits of the pattern of
//     t + 1.5 2^48 are k & 15 (that sum's last place is 1/16, |t| < 2^47);
//   scalef(v, k / 16) = v 2^floor(k / 16) = v 2^(k >> 4), an exact scaling
//     as long as the double neither overflows nor underflows (|t| <= 160),
//     so q (frac 2^(k >> 4)) is the twin's (q frac) 2^(k >> 4);
//   the twin's clamp of t to [-160, 130] is left out: beyond it both give the
//     same float, +0 below (2^t < 2^-150 rounds to 0) and +inf above (the
//     double exceeds FLT_MAX or is inf), and scalef saturates as IEEE says;
//   the domain test is one fpclass (positive, normal, finite).
// No FMA: every multiply and add rounds on its own, as in the twin.
#pragma once

#include <immintrin.h>

#include "kelma/common/SimdTarget.h"
#include "kelma/prediction/YuleNielsenPower_Scalar.h"

namespace KELMA_NAMESPACE {

// The three 16-entry tables, two vectors each (entries 0-7, 8-15).
struct ZKSPowerTables_AVX512 {
    __m512d invC[2], log2C[2], exp2Frac[2];
};

KELMA_TARGET_AVX512 inline ZKSPowerTables_AVX512 LoadPowerTables_AVX512() {
    const yule_nielsen_power::ZKSPowerTables& source = yule_nielsen_power::PowerTables();
    ZKSPowerTables_AVX512 T;
    for (int h = 0; h < 2; ++h) {
        T.invC[h] = _mm512_load_pd(source.invC + 8 * h);
        T.log2C[h] = _mm512_load_pd(source.log2C + 8 * h);
        T.exp2Frac[h] = _mm512_load_pd(source.exp2Frac + 8 * h);
    }
    return T;
}

// x^y for eight positive normal floats given as doubles (exact); y as double.
KELMA_TARGET_AVX512 inline __m512d PowerInRange8_AVX512(const ZKSPowerTables_AVX512& T, __m512d x, __m512d y) {
    using namespace yule_nielsen_power;
    const __m512d m = _mm512_getmant_pd(x, _MM_MANT_NORM_1_2, _MM_MANT_SIGN_zero);
    const __m512d e = _mm512_getexp_pd(x);
    // permutex2var reads the low 4 bits of each 64-bit index: bits 48-51.
    const __m512i i = _mm512_srli_epi64(_mm512_castpd_si512(x), 48);
    // r = m c_i - 1; t = y log2 x = y (e - log2 c_i) + p (y r)
    const __m512d r =
        _mm512_sub_pd(_mm512_mul_pd(m, _mm512_permutex2var_pd(T.invC[0], i, T.invC[1])), _mm512_set1_pd(1.0));
    const __m512d r2 = _mm512_mul_pd(r, r);
    const __m512d p01 = _mm512_add_pd(_mm512_mul_pd(r, _mm512_set1_pd(kLog2[1])), _mm512_set1_pd(kLog2[0]));
    const __m512d p23 = _mm512_add_pd(_mm512_mul_pd(r, _mm512_set1_pd(kLog2[3])), _mm512_set1_pd(kLog2[2]));
    const __m512d p =
        _mm512_add_pd(p01, _mm512_mul_pd(r2, _mm512_add_pd(p23, _mm512_mul_pd(r2, _mm512_set1_pd(kLog2[4])))));
    const __m512d t =
        _mm512_add_pd(_mm512_mul_pd(y, _mm512_sub_pd(e, _mm512_permutex2var_pd(T.log2C[0], i, T.log2C[1]))),
                      _mm512_mul_pd(p, _mm512_mul_pd(y, r)));
    // k = nearest integer to 16 t: k / 16 = t rounded to sixteenths (ties to
    // even); f = t - k / 16; q = sum (f ln2)^j / j!
    const __m512d kOver16 = _mm512_roundscale_pd(t, (4 << 4) | _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m512d f = _mm512_sub_pd(t, kOver16);
    const __m512d f2 = _mm512_mul_pd(f, f);
    const __m512d q01 = _mm512_add_pd(_mm512_mul_pd(f, _mm512_set1_pd(kExp[1])), _mm512_set1_pd(kExp[0]));
    const __m512d q23 = _mm512_add_pd(_mm512_mul_pd(f, _mm512_set1_pd(kExp[3])), _mm512_set1_pd(kExp[2]));
    const __m512d q =
        _mm512_add_pd(q01, _mm512_mul_pd(f2, _mm512_add_pd(q23, _mm512_mul_pd(f2, _mm512_set1_pd(kExp[4])))));
    // 2^((k & 15) / 16) from the table, k & 15 being the low bits of the
    // pattern of t + 1.5 2^48 (whose last place is 1/16), times 2^(k >> 4)
    // by scaling; both off the polynomial's chain.
    const __m512d shifted = _mm512_add_pd(t, _mm512_set1_pd(0x1.8p48));
    const __m512d frac = _mm512_permutex2var_pd(T.exp2Frac[0], _mm512_castpd_si512(shifted), T.exp2Frac[1]);
    return _mm512_mul_pd(q, _mm512_scalef_pd(frac, kOver16));
}

// x^y for sixteen floats. Lanes outside the polynomial's domain (every lane
// when y is outside it) are recomputed with powf.
KELMA_TARGET_AVX512 inline __m512 YuleNielsenPower16_AVX512(const ZKSPowerTables_AVX512& T, __m512 x, float y) {
    using namespace yule_nielsen_power;
    const __m512d yd = _mm512_set1_pd(static_cast<double>(y));
    const __m512d lo = PowerInRange8_AVX512(T, _mm512_cvtps_pd(_mm512_castps512_ps256(x)), yd);
    const __m512d hi = PowerInRange8_AVX512(T, _mm512_cvtps_pd(_mm512_extractf32x8_ps(x, 1)), yd);
    __m512 r = _mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps(lo)), _mm512_cvtpd_ps(hi), 1);
    // In range: FLT_MIN <= x <= FLT_MAX, i.e. none of QNaN, +0, -0, +inf,
    // -inf, subnormal, negative, SNaN (the eight fpclass categories).
    const __mmask16 ok = static_cast<__mmask16>(~_mm512_fpclass_ps_mask(x, 0xFF));
    if (__builtin_expect(ok != 0xFFFF || !ExponentInRange(y), 0)) {
        alignas(64) float xs[16], rs[16];
        _mm512_store_ps(xs, x);
        _mm512_store_ps(rs, r);
        const unsigned good = ExponentInRange(y) ? ok : 0u;
        for (int l = 0; l < 16; ++l)
            if (!(good & (1u << l))) rs[l] = std::pow(xs[l], y);
        r = _mm512_load_ps(rs);
    }
    return r;
}

}  // namespace KELMA_NAMESPACE
