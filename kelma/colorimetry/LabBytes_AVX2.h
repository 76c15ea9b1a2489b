// Colour bytes of XYZ triples in AVX2 (doubles, four triples per vector): the
// fast path of LabBytesMargins.h, whose comment says why its bytes are the
// scalar twin's (LabBytes_Scalar.h) exactly.
#pragma once

#include <immintrin.h>

#include "kelma/colorimetry/LabBytesMargins.h"
#include "kelma/common/SimdTarget.h"

namespace KELMA_NAMESPACE {

// The cube roots of N vectors of t > 0 normal (LabBytesMargins.h), in
// lockstep: the operations of CubeRoots8_AVX512, so the same roots, with
// AVX-512's getexp, getmant and scalef written out on the bits. Every lane's
// result is the same whatever N is.
template <int N>
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline void CubeRoots4_AVX2(const __m256d* t, __m256d* root) {
    const double* c = kCubeRootPoly;
    const __m256i mantissa = _mm256_set1_epi64x(0x000FFFFFFFFFFFFFll);
    const __m256i oneBits = _mm256_set1_epi64x(0x3FF0000000000000ll);
    // 2^52: a small integer k in the low mantissa bits of 2^52 reads as 2^52 + k.
    const __m256i twoTo52Bits = _mm256_set1_epi64x(0x4330000000000000ll);
    const __m256d twoTo52 = _mm256_set1_pd(4503599627370496.0);
    __m256d q[N], u[N], z[N];
    KELMA_LOCKSTEP(i, N) {
        const __m256i bits = _mm256_castpd_si256(t[i]);
        // e = floor(log2 t) = biased exponent - 1023, m = t 2^-e in [1, 2): exact
        const __m256d biased =
            _mm256_sub_pd(_mm256_castsi256_pd(_mm256_or_si256(_mm256_srli_epi64(bits, 52), twoTo52Bits)), twoTo52);
        const __m256d e = _mm256_sub_pd(biased, _mm256_set1_pd(1023.0));
        const __m256d m = _mm256_castsi256_pd(_mm256_or_si256(_mm256_and_si256(bits, mantissa), oneBits));
        q[i] = _mm256_round_pd(_mm256_mul_pd(_mm256_add_pd(e, _mm256_set1_pd(0.5)), _mm256_set1_pd(1.0 / 3.0)),
                               _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
        const __m256d r = _mm256_sub_pd(e, _mm256_mul_pd(q[i], _mm256_set1_pd(3.0)));
        const __m256d r1 = _mm256_cmp_pd(r, _mm256_set1_pd(1.0), _CMP_GE_OQ);
        const __m256d r2 = _mm256_cmp_pd(r, _mm256_set1_pd(2.0), _CMP_GE_OQ);
        // u = m 2^r (r = 0, 1, 2): exact
        u[i] = _mm256_mul_pd(m, _mm256_blendv_pd(_mm256_blendv_pd(_mm256_set1_pd(1.0), _mm256_set1_pd(2.0), r1),
                                                 _mm256_set1_pd(4.0), r2));
        const __m256d m2 = _mm256_mul_pd(m, m);
        const __m256d m4 = _mm256_mul_pd(m2, m2);
        const __m256d p01 = _mm256_add_pd(_mm256_set1_pd(c[0]), _mm256_mul_pd(m, _mm256_set1_pd(c[1])));
        const __m256d p23 = _mm256_add_pd(_mm256_set1_pd(c[2]), _mm256_mul_pd(m, _mm256_set1_pd(c[3])));
        const __m256d p45 = _mm256_add_pd(_mm256_set1_pd(c[4]), _mm256_mul_pd(m, _mm256_set1_pd(c[5])));
        const __m256d p = _mm256_add_pd(_mm256_add_pd(p01, _mm256_mul_pd(m2, p23)), _mm256_mul_pd(m4, p45));
        // 2^(-r/3): 1, 2^(-1/3) or 2^(-2/3)
        const __m256d s = _mm256_blendv_pd(
            _mm256_blendv_pd(_mm256_set1_pd(1.0), _mm256_set1_pd(kCubeRootTwoToMinusThird), r1),
            _mm256_set1_pd(kCubeRootTwoToMinusTwoThirds), r2);
        z[i] = _mm256_mul_pd(p, s);
    }
    const __m256d one = _mm256_set1_pd(1.0), third = _mm256_set1_pd(1.0 / 3.0);
    for (int k = 0; k < 2; ++k) {
        KELMA_LOCKSTEP(i, N) {
            const __m256d z3 = _mm256_mul_pd(_mm256_mul_pd(z[i], z[i]), z[i]);
            z[i] = _mm256_add_pd(z[i],
                                 _mm256_mul_pd(_mm256_mul_pd(z[i], _mm256_sub_pd(one, _mm256_mul_pd(u[i], z3))), third));
        }
    }
    KELMA_LOCKSTEP(i, N) {
        // times 2^q, built in the exponent field (|q| is small here): exact
        const __m256i qi = _mm256_cvtepi32_epi64(_mm256_cvtpd_epi32(q[i]));
        const __m256d twoToQ =
            _mm256_castsi256_pd(_mm256_slli_epi64(_mm256_add_epi64(qi, _mm256_set1_epi64x(1023)), 52));
        root[i] = _mm256_mul_pd(_mm256_mul_pd(_mm256_mul_pd(u[i], z[i]), z[i]), twoToQ);
    }
}

// out[i] = the cube root of in[i] (CubeRoots4_AVX2), for measuring its error.
void CubeRoots_AVX2(const double* in, double* out, unsigned int count);

}  // namespace KELMA_NAMESPACE
