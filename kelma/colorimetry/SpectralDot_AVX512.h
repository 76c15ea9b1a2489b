// Dot products of 32-float records (spectrum x weight row) in AVX-512, four
// rows of one spectrum per vector, each with the scalar twin's operations
// (SpectralDot_Scalar.h), so every result equals the twin's bit for bit:
//   p_k = r_k w_k (k = 0..7, 4-lane vectors), v = ((p0+p1)+(p2+p3)) + ((p4+p5)+(p6+p7)),
//   result = ((v0+v1)+v2)+v3.
// Quarter j (4 lanes) of a vector belongs to row j: the spectrum's quarter k
// is broadcast to all four quarters and multiplied by the four rows' quarter
// k, so the tree over k is made of whole-vector adds. Four such vectors
// finish their lane sums together after a 4x4 transpose inside each quarter.
#pragma once

#include <immintrin.h>

#include "kelma/common/SimdTarget.h"

namespace KELMA_NAMESPACE {

// v of four rows: quarter j is row j's v. `w` holds the quad's weights,
// 8 x 16 floats (64-byte aligned): entry 16 k + 4 j + l is slot 4 k + l of row j.
// The weights come as a pointer or, held in registers by a loop over one
// quad, as the 8 vectors w[k] = entries 16 k .. 16 k + 15.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512 QuadDots_AVX512(const float* spectrum, const __m512* w) {
    __m512 p[8];
    for (int k = 0; k < 8; ++k) p[k] = _mm512_mul_ps(_mm512_broadcast_f32x4(_mm_loadu_ps(spectrum + 4 * k)), w[k]);
    return _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(p[0], p[1]), _mm512_add_ps(p[2], p[3])),
                         _mm512_add_ps(_mm512_add_ps(p[4], p[5]), _mm512_add_ps(p[6], p[7])));
}

KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512 QuadDots_AVX512(const float* spectrum, const float* w) {
    __m512 v[8];
    for (int k = 0; k < 8; ++k) v[k] = _mm512_load_ps(w + 16 * k);
    return QuadDots_AVX512(spectrum, v);
}

// The lane sums of four QuadDots results V[0..3]: lane 4 j + k of the result
// is ((v0 + v1) + v2) + v3 of row j of V[k].
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512 FinishQuads_AVX512(const __m512* V) {
    // Inside every quarter j, row l of the transpose holds lane l of V[0..3].
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
