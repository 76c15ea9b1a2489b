// AVX-512 form of the Yule-Nielsen power: eight floats per 512-bit double
// vector, the 16-entry tables held in registers and read by permutes.
// Formulas: YuleNielsenPower_Scalar.h; the same operations without FMA, so
// results equal the SSE2 and scalar forms bit for bit.
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <immintrin.h>

#include "kelma/prediction/YuleNielsenPower.h"
#include "kelma/prediction/YuleNielsenPower_Scalar.h"

#define KELMA_AVX512 __attribute__((target("avx512f,avx2")))

namespace KELMA_NAMESPACE {

namespace {

struct Tables512 {
    __m512d invC[2], log2C[2], exp2Frac[2];
};

KELMA_AVX512 inline __m512d Lookup(const __m512d (&t)[2], __m256i index) {
    return _mm512_permutex2var_pd(t[0], _mm512_cvtepi32_epi64(index), t[1]);
}

KELMA_AVX512 __m256 Power8(const Tables512& T, __m256 x, float y) {
    using namespace yule_nielsen_power;
    // e = exponent field - 127; i = top 4 fraction bits; m in [1, 2)
    __m256i bits = _mm256_castps_si256(x);
    __m256i e = _mm256_sub_epi32(_mm256_srli_epi32(bits, 23), _mm256_set1_epi32(127));
    __m256i i = _mm256_and_si256(_mm256_srli_epi32(bits, 19), _mm256_set1_epi32(15));
    __m256 m = _mm256_castsi256_ps(
        _mm256_or_si256(_mm256_and_si256(bits, _mm256_set1_epi32(0x007FFFFF)), _mm256_set1_epi32(0x3F800000)));

    // r = m c_i - 1; log2 x = (e - log2 c_i) + (p r) / ln2
    __m512d r = _mm512_sub_pd(_mm512_mul_pd(_mm512_cvtps_pd(m), Lookup(T.invC, i)), _mm512_set1_pd(1.0));
    __m512d p = _mm512_set1_pd(kLog[5]);
    for (int j = 4; j >= 0; --j) p = _mm512_add_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(kLog[j]));
    __m512d log2x = _mm512_add_pd(_mm512_sub_pd(_mm512_cvtepi32_pd(e), Lookup(T.log2C, i)),
                                  _mm512_mul_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(kInvLn2)));
    __m512d t = _mm512_mul_pd(_mm512_set1_pd(static_cast<double>(y)), log2x);
    t = _mm512_min_pd(_mm512_max_pd(t, _mm512_set1_pd(kMinT)), _mm512_set1_pd(kMaxT));
    // k = nearest integer to 16 t; f = t - k / 16; q = sum (f ln2)^j / j!
    __m256i k = _mm512_cvtpd_epi32(_mm512_mul_pd(t, _mm512_set1_pd(16.0)));
    __m512d f = _mm512_sub_pd(t, _mm512_mul_pd(_mm512_cvtepi32_pd(k), _mm512_set1_pd(0.0625)));
    __m512d q = _mm512_set1_pd(kExp[4]);
    for (int j = 3; j >= 0; --j) q = _mm512_add_pd(_mm512_mul_pd(q, f), _mm512_set1_pd(kExp[j]));
    // 2^((k & 15) / 16) from the table, 2^(k >> 4) from exponent bits
    __m512d frac = Lookup(T.exp2Frac, _mm256_and_si256(k, _mm256_set1_epi32(15)));
    __m512i biased = _mm512_cvtepi32_epi64(_mm256_add_epi32(_mm256_srai_epi32(k, 4), _mm256_set1_epi32(1023)));
    __m512d scale = _mm512_castsi512_pd(_mm512_slli_epi64(biased, 52));
    __m256 res = _mm512_cvtpd_ps(_mm512_mul_pd(_mm512_mul_pd(q, frac), scale));

    __m256 ok = _mm256_and_ps(_mm256_cmp_ps(x, _mm256_set1_ps(FLT_MIN), _CMP_GE_OQ),
                              _mm256_cmp_ps(x, _mm256_set1_ps(FLT_MAX), _CMP_LE_OQ));
    if (!ExponentInRange(y) || _mm256_movemask_ps(ok) != 0xFF) {
        alignas(32) float xs[8], rs[8];
        _mm256_store_ps(xs, x);
        _mm256_store_ps(rs, res);
        int good = ExponentInRange(y) ? _mm256_movemask_ps(ok) : 0;
        for (int l = 0; l < 8; ++l)
            if (!(good & (1 << l))) rs[l] = std::pow(xs[l], y);
        res = _mm256_load_ps(rs);
    }
    return res;
}

}  // namespace

KELMA_AVX512 void YuleNielsenPower_AVX512(const float* in, float y, float* out, unsigned int count) {
    const yule_nielsen_power::ZKSPowerTables& source = yule_nielsen_power::PowerTables();
    Tables512 T;
    for (int h = 0; h < 2; ++h) {
        T.invC[h] = _mm512_load_pd(source.invC + 8 * h);
        T.log2C[h] = _mm512_load_pd(source.log2C + 8 * h);
        T.exp2Frac[h] = _mm512_load_pd(source.exp2Frac + 8 * h);
    }
    unsigned int i = 0;
    for (; i + 8 <= count; i += 8) _mm256_storeu_ps(out + i, Power8(T, _mm256_loadu_ps(in + i), y));
    if (i < count) {
        // Tail through a padded copy; the pad lanes (1.0) are never stored.
        alignas(32) float x[8] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
        for (unsigned int j = i; j < count; ++j) x[j - i] = in[j];
        alignas(32) float r[8];
        _mm256_store_ps(r, Power8(T, _mm256_load_ps(x), y));
        for (unsigned int j = i; j < count; ++j) out[j] = r[j - i];
    }
}

}  // namespace KELMA_NAMESPACE
