// SSE dot product of a 32-float spectrum with a 32-float weight row.
// Scalar twin and formula: SpectralDot_Scalar.h.
#pragma once

#include <xmmintrin.h>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// The eight vectors of one 16-byte aligned 32-float record.
struct ZKSSpectrumVectors {
    __m128 v[8];
};

inline ZKSSpectrumVectors LoadSpectrum_SSE(const float* r) {
    ZKSSpectrumVectors s;
    for (int k = 0; k < 8; ++k) s.v[k] = _mm_load_ps(r + 4 * k);
    return s;
}

// Horizontal sum in the order ((lane0 + lane1) + lane2) + lane3.
inline float SumLanesInOrder_SSE(__m128 v) {
    // lanes: v = (a, b, c, d)
    __m128 b = _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1));
    __m128 c = _mm_movehl_ps(v, v);
    __m128 d = _mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 3, 3));
    __m128 s = _mm_add_ss(_mm_add_ss(_mm_add_ss(v, b), c), d);
    return _mm_cvtss_f32(s);
}

// p_k = r_k * w_k; v = ((p0+p1)+(p2+p3)) + ((p4+p5)+(p6+p7)); lanes summed in order.
// `w` must be 16-byte aligned.
inline float SpectralDot_SSE(const ZKSSpectrumVectors& r, const float* w) {
    __m128 p0 = _mm_mul_ps(r.v[0], _mm_load_ps(w + 0));
    __m128 p1 = _mm_mul_ps(r.v[1], _mm_load_ps(w + 4));
    __m128 p2 = _mm_mul_ps(r.v[2], _mm_load_ps(w + 8));
    __m128 p3 = _mm_mul_ps(r.v[3], _mm_load_ps(w + 12));
    __m128 p4 = _mm_mul_ps(r.v[4], _mm_load_ps(w + 16));
    __m128 p5 = _mm_mul_ps(r.v[5], _mm_load_ps(w + 20));
    __m128 p6 = _mm_mul_ps(r.v[6], _mm_load_ps(w + 24));
    __m128 p7 = _mm_mul_ps(r.v[7], _mm_load_ps(w + 28));
    __m128 v = _mm_add_ps(_mm_add_ps(_mm_add_ps(p0, p1), _mm_add_ps(p2, p3)),
                          _mm_add_ps(_mm_add_ps(p4, p5), _mm_add_ps(p6, p7)));
    return SumLanesInOrder_SSE(v);
}

}  // namespace KELMA_NAMESPACE
