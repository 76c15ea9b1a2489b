// The cellular Neugebauer sums of one sample with the wavelengths across the
// lanes of four 8-float vectors (wavelengths 8 g .. 8 g + 7; lane 7 of the
// last is the pad), read from the lane-major rows of LaneMajorScheme.h. Each
// lane performs the scalar twin's operations (CellSums_Scalar.h) for its
// wavelength, in the same order, so the sums are the twin's bit for bit:
//   P_l = balanced pairwise tree over i of C[4 i + l] V_i[l]   (l = 0..3)
//   s   = ((P0 + P1) + P2) + P3
#pragma once

#include <immintrin.h>

#include <cstdint>

#include "kelma/common/SimdTarget.h"
#include "kelma/prediction/CellSums_Scalar.h"
#include "kelma/prediction/LaneMajorScheme.h"

namespace KELMA_NAMESPACE {

template <int NV, int L, int Lo, int Hi>
struct LaneTree_AVX2 {
    KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE static inline __m256 Sum(const float* rows, const float* mono) {
        constexpr int Mid = (Lo + Hi) / 2;
        return _mm256_add_ps(LaneTree_AVX2<NV, L, Lo, Mid>::Sum(rows, mono), LaneTree_AVX2<NV, L, Mid, Hi>::Sum(rows, mono));
    }
};
template <int NV, int L, int I>
struct LaneTree_AVX2<NV, L, I, I + 1> {
    KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE static inline __m256 Sum(const float* rows, const float* mono) {
        return _mm256_mul_ps(_mm256_load_ps(rows + LaneRowOfCorner(4 * I + L, 4 * NV) * kLaneRow),
                             _mm256_set1_ps(mono[4 * I + L]));
    }
};

// The 4 NV monomials of BuildMonomials_Scalar by doubling in registers: the
// first 8 from one 4-lane product, each later block of 8 one 8-lane product
// of w_k with an earlier block. Stored to `mono` (32-byte aligned) for the
// broadcasts of the sums.
template <int NV>
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline void BuildMonomials_AVX2(const float* w, float* mono) {
    constexpr int Y = NV / 2;  // 8-float blocks: 2, 8 or 16
    const __m128 m4 = _mm_setr_ps(1.0f, w[0], w[1], w[0] * w[1]);
    const __m128 m8 = _mm_mul_ps(_mm_set1_ps(w[2]), m4);
    __m256 y[Y];
    y[0] = _mm256_insertf128_ps(_mm256_castps128_ps256(m4), m8, 1);
    // Block b >= 1 of 8: its highest corner bit k = 3 + highest bit of b,
    // and it is w_k times block b - 2^(k-3).
    for (int k = 3, count = 1; count < Y; ++k, count *= 2) {
        const __m256 wk = _mm256_set1_ps(w[k]);
        for (int j = 0; j < count; ++j) y[count + j] = _mm256_mul_ps(wk, y[j]);
    }
    for (int b = 0; b < Y; ++b) _mm256_store_ps(mono + 8 * b, y[b]);
}

// Sums of the 8 wavelengths of one group (rows offset by 8 g floats).
template <int NV>
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline __m256 GroupSums_AVX2(const float* rows, const float* mono) {
    const __m256 p0 = LaneTree_AVX2<NV, 0, 0, NV>::Sum(rows, mono);
    const __m256 p1 = LaneTree_AVX2<NV, 1, 0, NV>::Sum(rows, mono);
    const __m256 p2 = LaneTree_AVX2<NV, 2, 0, NV>::Sum(rows, mono);
    const __m256 p3 = LaneTree_AVX2<NV, 3, 0, NV>::Sum(rows, mono);
    return _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(p0, p1), p2), p3);
}

// The 31 sums of one sample and 0.0 in sums[31]; `laneRows` 32-byte aligned.
template <int NV>
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline void CellSums_AVX2(const ZKSSSE_EffectiveRampEntry* lut, const float* laneRows,
                                            const unsigned char* sample, __m256 sums[4]) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    float w[N];
    const std::uint32_t q = LocateSample<N>(lut, sample, w);
    alignas(32) float mono[NV][4];
    BuildMonomials_AVX2<NV>(w, &mono[0][0]);
    const float* rows = laneRows + static_cast<std::size_t>(q) * (4 * NV) * kLaneRow;
    for (int g = 0; g < 4; ++g) sums[g] = GroupSums_AVX2<NV>(rows + 8 * g, &mono[0][0]);
}

}  // namespace KELMA_NAMESPACE
