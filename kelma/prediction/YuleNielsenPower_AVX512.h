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

// x^y for C vectors of eight positive normal floats given as doubles (exact);
// y as double. The C chains advance in lockstep, each step written for all of
// them before the next: one chain is some 25 dependent operations, and
// written one after the other, the waiting operations of the later chains
// fill the scheduler before the earlier ones finish. Measured alone on
// AVX-512 (Zen 5), floats in L1: 32 floats as four chains one after the other
// 90 cycles, in lockstep 69; 64 floats in lockstep 59 cycles per 32.
#define KELMA_EACH_CHAIN KELMA_LOCKSTEP(c, C)
template <int C>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void PowerInRange_AVX512(const ZKSPowerTables_AVX512& T,
                                                                        const __m512d* x, __m512d y,
                                                                        __m512d* out) {
    using namespace yule_nielsen_power;
    __m512d r[C], p[C], t[C], kOver16[C], f[C], q[C];
    {
        // r = m c_i - 1; permutex2var reads the low 4 bits of each 64-bit
        // index: bits 48-51 of x, the top 4 fraction bits.
        KELMA_EACH_CHAIN {
            const __m512d m = _mm512_getmant_pd(x[c], _MM_MANT_NORM_1_2, _MM_MANT_SIGN_zero);
            const __m512i i = _mm512_srli_epi64(_mm512_castpd_si512(x[c]), 48);
            r[c] = _mm512_sub_pd(_mm512_mul_pd(m, _mm512_permutex2var_pd(T.invC[0], i, T.invC[1])),
                                 _mm512_set1_pd(1.0));
        }
        // a = y (e - log2 c_i), off the polynomial's chain
        __m512d a[C];
        KELMA_EACH_CHAIN {
            const __m512i i = _mm512_srli_epi64(_mm512_castpd_si512(x[c]), 48);
            a[c] = _mm512_mul_pd(
                y, _mm512_sub_pd(_mm512_getexp_pd(x[c]), _mm512_permutex2var_pd(T.log2C[0], i, T.log2C[1])));
        }
        // p = (k0 + k1 r) + r^2 ((k2 + k3 r) + r^2 k4)
        __m512d r2[C], p01[C], p23[C];
        KELMA_EACH_CHAIN r2[c] = _mm512_mul_pd(r[c], r[c]);
        KELMA_EACH_CHAIN p01[c] =
            _mm512_add_pd(_mm512_mul_pd(r[c], _mm512_set1_pd(kLog2[1])), _mm512_set1_pd(kLog2[0]));
        KELMA_EACH_CHAIN p23[c] =
            _mm512_add_pd(_mm512_mul_pd(r[c], _mm512_set1_pd(kLog2[3])), _mm512_set1_pd(kLog2[2]));
        KELMA_EACH_CHAIN p[c] = _mm512_mul_pd(r2[c], _mm512_set1_pd(kLog2[4]));
        KELMA_EACH_CHAIN p[c] = _mm512_add_pd(p23[c], p[c]);
        KELMA_EACH_CHAIN p[c] = _mm512_add_pd(p01[c], _mm512_mul_pd(r2[c], p[c]));
        // t = y log2 x = a + p (y r)
        KELMA_EACH_CHAIN t[c] = _mm512_add_pd(a[c], _mm512_mul_pd(p[c], _mm512_mul_pd(y, r[c])));
    }
    // k = nearest integer to 16 t: k / 16 = t rounded to sixteenths (ties to
    // even); f = t - k / 16; q = (e0 + e1 f) + f^2 ((e2 + e3 f) + f^2 e4)
    KELMA_EACH_CHAIN kOver16[c] = _mm512_roundscale_pd(t[c], (4 << 4) | _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    KELMA_EACH_CHAIN f[c] = _mm512_sub_pd(t[c], kOver16[c]);
    {
        __m512d f2[C], q01[C], q23[C];
        KELMA_EACH_CHAIN f2[c] = _mm512_mul_pd(f[c], f[c]);
        KELMA_EACH_CHAIN q01[c] = _mm512_add_pd(_mm512_mul_pd(f[c], _mm512_set1_pd(kExp[1])), _mm512_set1_pd(kExp[0]));
        KELMA_EACH_CHAIN q23[c] = _mm512_add_pd(_mm512_mul_pd(f[c], _mm512_set1_pd(kExp[3])), _mm512_set1_pd(kExp[2]));
        KELMA_EACH_CHAIN q[c] = _mm512_mul_pd(f2[c], _mm512_set1_pd(kExp[4]));
        KELMA_EACH_CHAIN q[c] = _mm512_add_pd(q23[c], q[c]);
        KELMA_EACH_CHAIN q[c] = _mm512_add_pd(q01[c], _mm512_mul_pd(f2[c], q[c]));
    }
    // 2^((k & 15) / 16) from the table, k & 15 being the low bits of the
    // pattern of t + 1.5 2^48 (whose last place is 1/16), times 2^(k >> 4)
    // by scaling; both off the polynomial's chain.
    KELMA_EACH_CHAIN {
        const __m512d shifted = _mm512_add_pd(t[c], _mm512_set1_pd(0x1.8p48));
        const __m512d frac = _mm512_permutex2var_pd(T.exp2Frac[0], _mm512_castpd_si512(shifted), T.exp2Frac[1]);
        out[c] = _mm512_mul_pd(q[c], _mm512_scalef_pd(frac, kOver16[c]));
    }
}
#undef KELMA_EACH_CHAIN

// x^y for V vectors of sixteen floats: 2 V chains of eight doubles, G at a
// time in lockstep (G divides 2 V). Lanes outside the polynomial's domain
// (every lane when y is outside it) are recomputed with powf.
template <int V, int G = 2 * V>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void YuleNielsenPowerVectors_AVX512(const ZKSPowerTables_AVX512& T,
                                                                                  const __m512* x, float y,
                                                                                  __m512* out) {
    using namespace yule_nielsen_power;
    static_assert(G > 0 && (2 * V) % G == 0, "groups of G chains cover the 2 V chains");
    __m512d xd[2 * V], rd[2 * V];
    for (int v = 0; v < V; ++v) {
        xd[2 * v] = _mm512_cvtps_pd(_mm512_castps512_ps256(x[v]));
        xd[2 * v + 1] = _mm512_cvtps_pd(_mm512_extractf32x8_ps(x[v], 1));
    }
    const __m512d yd = _mm512_set1_pd(static_cast<double>(y));
    for (int g = 0; g < 2 * V; g += G) PowerInRange_AVX512<G>(T, xd + g, yd, rd + g);
    // In range: FLT_MIN <= x <= FLT_MAX, i.e. none of QNaN, +0, -0, +inf,
    // -inf, subnormal, negative, SNaN (the eight fpclass categories).
    __mmask16 bad[V];
    __mmask16 anyBad = 0;
    for (int v = 0; v < V; ++v) {
        out[v] = _mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps(rd[2 * v])),
                                    _mm512_cvtpd_ps(rd[2 * v + 1]), 1);
        bad[v] = _mm512_fpclass_ps_mask(x[v], 0xFF);
        anyBad |= bad[v];
    }
    if (__builtin_expect(anyBad != 0 || !ExponentInRange(y), 0)) {
        for (int v = 0; v < V; ++v) {
            alignas(64) float xs[16], rs[16];
            _mm512_store_ps(xs, x[v]);
            _mm512_store_ps(rs, out[v]);
            const unsigned good = ExponentInRange(y) ? static_cast<__mmask16>(~bad[v]) : 0u;
            for (int l = 0; l < 16; ++l)
                if (!(good & (1u << l))) rs[l] = std::pow(xs[l], y);
            out[v] = _mm512_load_ps(rs);
        }
    }
}

// x^y for sixteen floats.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512 YuleNielsenPower16_AVX512(const ZKSPowerTables_AVX512& T,
                                                                               __m512 x, float y) {
    __m512 r;
    YuleNielsenPowerVectors_AVX512<1>(T, &x, y, &r);
    return r;
}

}  // namespace KELMA_NAMESPACE
