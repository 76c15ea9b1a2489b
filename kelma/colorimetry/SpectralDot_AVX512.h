// Sixteen dot products of 32-float records (spectrum x weight row) at once in
// AVX-512, each with the scalar twin's operations (SpectralDot_Scalar.h), so
// every result equals the twin's bit for bit:
//   p_k = r_k w_k (k = 0..7, 4-lane vectors), v = ((p0+p1)+(p2+p3)) + ((p4+p5)+(p6+p7)),
//   result = ((v0+v1)+v2)+v3.
// A record is two 16-float vectors [p0 p1 p2 p3] and [p4 p5 p6 p7] (quarters
// of 4 lanes); shuffles of whole quarters bring the operands of each add
// into the same lanes, so the adds themselves are lane-wise.
#pragma once

#include <immintrin.h>

#include "kelma/common/SimdTarget.h"

namespace KELMA_NAMESPACE {

// [a.q0 a.q2 b.q0 b.q2] + [a.q1 a.q3 b.q1 b.q3]: adds quarter pairs (0,1), (2,3)
// of a and of b.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512 AddQuarterPairs_AVX512(__m512 a, __m512 b) {
    return _mm512_add_ps(_mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(2, 0, 2, 0)),
                         _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
}

// The 16 dot products of spectra s[d] with rows w[d] (d = 0..15, any
// alignment), in lane d of the result.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512 SpectralDot16_AVX512(const float* const* s,
                                                                           const float* const* w) {
    // Level 1, per dot: [p0+p1, p2+p3, p4+p5, p6+p7].
    __m512 s1[16];
    for (int d = 0; d < 16; ++d)
        s1[d] = AddQuarterPairs_AVX512(_mm512_mul_ps(_mm512_loadu_ps(s[d]), _mm512_loadu_ps(w[d])),
                                       _mm512_mul_ps(_mm512_loadu_ps(s[d] + 16), _mm512_loadu_ps(w[d] + 16)));
    // Level 2, dots d and d+4: [d0123, d4567, (d+4)0123, (d+4)4567].
    __m512 s2[8];
    for (int k = 0; k < 4; ++k) {
        s2[k] = AddQuarterPairs_AVX512(s1[k], s1[k + 4]);
        s2[4 + k] = AddQuarterPairs_AVX512(s1[k + 8], s1[k + 12]);
    }
    // Level 3: V_k = [v_k, v_(k+4), v_(k+8), v_(k+12)], each v a 4-lane vector.
    __m512 V[4];
    for (int k = 0; k < 4; ++k) V[k] = AddQuarterPairs_AVX512(s2[k], s2[4 + k]);
    // Lanes: a 4x4 transpose inside every quarter puts lane l of v_(4j+k) at
    // position 4j + k of row l; then ((row0 + row1) + row2) + row3.
    const __m512 t0 = _mm512_unpacklo_ps(V[0], V[1]);
    const __m512 t1 = _mm512_unpackhi_ps(V[0], V[1]);
    const __m512 t2 = _mm512_unpacklo_ps(V[2], V[3]);
    const __m512 t3 = _mm512_unpackhi_ps(V[2], V[3]);
    const __m512 l0 = _mm512_castpd_ps(_mm512_unpacklo_pd(_mm512_castps_pd(t0), _mm512_castps_pd(t2)));
    const __m512 l1 = _mm512_castpd_ps(_mm512_unpackhi_pd(_mm512_castps_pd(t0), _mm512_castps_pd(t2)));
    const __m512 l2 = _mm512_castpd_ps(_mm512_unpacklo_pd(_mm512_castps_pd(t1), _mm512_castps_pd(t3)));
    const __m512 l3 = _mm512_castpd_ps(_mm512_unpackhi_pd(_mm512_castps_pd(t1), _mm512_castps_pd(t3)));
    return _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(l0, l1), l2), l3);
}

}  // namespace KELMA_NAMESPACE
