// The cellular Neugebauer sums of one sample before the Yule-Nielsen power,
// in SSE. Scalar twin and formulas: CellSums_Scalar.h (bit-identical).
#pragma once

#include <xmmintrin.h>

#include <cstdint>

#include "kelma/colorimetry/SpectralDot_SSE.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/prediction/CellSums_Scalar.h"

namespace KELMA_NAMESPACE {

// V0 = (1, w0, w1, w0 w1); V_i = w_(h+2) V_(i - 2^h) for the highest bit h of i.
template <int NV>
inline void BuildMonomials_SSE(const float* w, __m128* V) {
    V[0] = _mm_setr_ps(1.0f, w[0], w[1], w[0] * w[1]);
    for (int i = 1; i < NV; ++i) {
        int h = 31 - __builtin_clz(static_cast<unsigned int>(i));
        V[i] = _mm_mul_ps(_mm_set1_ps(w[h + 2]), V[i - (1 << h)]);
    }
}

// Lane-wise sum over vectors [Lo, Hi) of R_i V_i as a balanced pairwise tree
// in index order; unrolled at compile time.
template <int Lo, int Hi>
struct TreeSum_SSE {
    static inline __m128 Sum(const float* R, const __m128* V) {
        constexpr int Mid = (Lo + Hi) / 2;
        return _mm_add_ps(TreeSum_SSE<Lo, Mid>::Sum(R, V), TreeSum_SSE<Mid, Hi>::Sum(R, V));
    }
};
template <int I>
struct TreeSum_SSE<I, I + 1> {
    static inline __m128 Sum(const float* R, const __m128* V) { return _mm_mul_ps(_mm_load_ps(R + 4 * I), V[I]); }
};

// s = ((P0 + P1) + P2) + P3 with P the tree over the group's NV vectors.
template <int NV>
inline float WavelengthSum_SSE(const float* R, const __m128* V) {
    return SumLanesInOrder_SSE(TreeSum_SSE<0, NV>::Sum(R, V));
}

// The `values` sums of one sample. Wavelengths go PASS at a time so that the
// coefficient pointer streams through the cell block in aligned steps; the
// last wavelength (values - 1) follows the passes. `sums` must have room for
// values - 1 + max(PASS, 4) floats. `scheme` is 16-byte aligned.
template <int NV, int PASS>
inline void CellSums_SSE(const ZKSSSE_EffectiveRampEntry* lut, const float* scheme, const unsigned char* sample,
                         unsigned int values, float* sums) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    constexpr int kGroup = 4 * NV;  // floats per (cell, wavelength)
    float w[N];
    const std::uint32_t q = LocateSample<N>(lut, sample, w);
    __m128 V[NV];
    BuildMonomials_SSE<NV>(w, V);
    const float* R = scheme + static_cast<std::size_t>(q) * values * kGroup;
    unsigned int wl = 0;
    for (; wl + 1 < values; wl += PASS, R += PASS * kGroup) {
        // Lane sums of four wavelengths at once: after the transpose, vector
        // l holds lane l of each wavelength's P, so ((t0 + t1) + t2) + t3 is
        // ((P0 + P1) + P2) + P3 per wavelength, as in the one-at-a-time form.
        __m128 p0 = TreeSum_SSE<0, NV>::Sum(R, V);
        __m128 p1 = TreeSum_SSE<0, NV>::Sum(R + kGroup, V);
        __m128 p2 = TreeSum_SSE<0, NV>::Sum(R + 2 * kGroup, V);
        __m128 p3 = PASS > 3 ? TreeSum_SSE<0, NV>::Sum(R + 3 * kGroup, V) : _mm_setzero_ps();
        _MM_TRANSPOSE4_PS(p0, p1, p2, p3);
        // With three wavelengths per pass the fourth lane is overwritten by
        // the next pass or by the last wavelength; `sums` has room for it.
        _mm_storeu_ps(sums + wl, _mm_add_ps(_mm_add_ps(_mm_add_ps(p0, p1), p2), p3));
        for (int j = 4; j < PASS; ++j) sums[wl + j] = WavelengthSum_SSE<NV>(R + j * kGroup, V);
    }
    const float* last = scheme + static_cast<std::size_t>(q) * values * kGroup + (values - 1) * kGroup;
    sums[values - 1] = WavelengthSum_SSE<NV>(last, V);
}

}  // namespace KELMA_NAMESPACE
