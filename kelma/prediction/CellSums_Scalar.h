// Scalar twin of CellSums_SSE.h, CellSums_AVX2.h and CellSums_AVX512.h: the
// cellular Neugebauer sums of one sample before the Yule-Nielsen power, with
// their single-precision operations in the same order, one wavelength and
// lane at a time. The reference variant, the documentation and the oracle.
#pragma once

#include <cstdint>

#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

// The cell of one sample of N inks (the sum of its inks' lookup offsets) and
// its local coordinates w[0 .. N-1], one table read per ink.
template <int N>
inline std::uint32_t LocateSample(const ZKSSSE_EffectiveRampEntry* lut, const unsigned char* sample, float* w) {
    std::uint32_t q = 0;
    for (int k = 0; k < N; ++k) {
        const ZKSSSE_EffectiveRampEntry& e = lut[256 * k + sample[k]];
        q += e.cellOffset;
        w[k] = e.weight;
    }
    return q;
}

// Monomials of the local coordinates as NV vectors of 4 lanes (NV = 2^N / 4),
// built by doubling: the first four are (1, w0, w1, w0 w1), and for
// k = 2 .. N-1 the block [2^k, 2^(k+1)) is w_k times the block [0, 2^k).
// Element c is the product of w_k over the bits k of c (the corner numbering
// of the coefficient block), each product rounded to float as it is formed:
// element c = w_k * element (c - 2^k) for the highest bit k of c. The vector
// builders (BuildMonomials_SSE/_AVX2/_AVX512) form each element by the same
// product, so every variant sees the same monomials bit for bit.
template <int NV>
inline void BuildMonomials_Scalar(const float* w, float (*V)[4]) {
    V[0][0] = 1.0f;
    V[0][1] = w[0];
    V[0][2] = w[1];
    V[0][3] = w[0] * w[1];
    // Element c lives at V[c / 4][c % 4].
    for (int k = 2; (1 << k) < 4 * NV; ++k)
        for (int j = 0; j < (1 << k); ++j) {
            const int c = (1 << k) + j;
            V[c >> 2][c & 3] = w[k] * V[j >> 2][j & 3];
        }
}

// Balanced pairwise tree over vectors [lo, hi) of R_i[l] V_i[l]:
// (R0V0 + R1V1) + (R2V2 + R3V3), and so on up the tree.
inline float TreeSum_Scalar(const float* R, const float (*V)[4], int lo, int hi, int lane) {
    if (hi - lo == 1) return R[4 * lo + lane] * V[lo][lane];
    int mid = (lo + hi) / 2;
    return TreeSum_Scalar(R, V, lo, mid, lane) + TreeSum_Scalar(R, V, mid, hi, lane);
}

// Sum for one (cell, wavelength) group R of 4 NV coefficients:
// lanes P_l by the tree, then ((P0 + P1) + P2) + P3.
template <int NV>
inline float WavelengthSum_Scalar(const float* R, const float (*V)[4]) {
    float P[4];
    for (int l = 0; l < 4; ++l) P[l] = TreeSum_Scalar(R, V, 0, NV, l);
    return ((P[0] + P[1]) + P[2]) + P[3];
}

// The `values` sums s_w (w = 0 .. values-1) of one sample of N = log2(4 NV)
// inks: cell q = sum of the lookup offsets, block at q values 4 NV floats.
template <int NV>
inline void CellSums_Scalar(const ZKSSSE_EffectiveRampEntry* lut, const float* scheme, const unsigned char* sample,
                            unsigned int values, float* sums) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    float w[N];
    const std::uint32_t q = LocateSample<N>(lut, sample, w);
    float V[NV][4];
    BuildMonomials_Scalar<NV>(w, V);
    const float* block = scheme + static_cast<std::size_t>(q) * values * (4 * NV);
    for (unsigned int wl = 0; wl < values; ++wl) sums[wl] = WavelengthSum_Scalar<NV>(block + wl * (4 * NV), V);
}

}  // namespace KELMA_NAMESPACE
