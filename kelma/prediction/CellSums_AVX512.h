// The cellular Neugebauer sums of one sample with the wavelengths across the
// lanes of two 16-float vectors (wavelengths 0-15 and 16-30 plus the pad),
// read from the lane-major rows of LaneMajorScheme.h. Each lane performs the
// scalar twin's operations (CellSums_Scalar.h) for its wavelength, in the
// same order, so the sums are the twin's bit for bit:
//   P_l = balanced pairwise tree over i of C[4 i + l] V_i[l]   (l = 0..3)
//   s   = ((P0 + P1) + P2) + P3
// with C[j] the row of corner j and V_i[l] = monomial 4 i + l broadcast to
// every lane. The pad lane's coefficients are 0.0, so its sum is 0.0.
#pragma once

#include <immintrin.h>

#include <cstdint>

#include "kelma/common/SimdTarget.h"
#include "kelma/prediction/CellSums_Scalar.h"
#include "kelma/prediction/LaneMajorScheme.h"

namespace KELMA_NAMESPACE {

// Both halves of a row at once: lo = wavelengths 0-15, hi = 16-31.
struct ZKSHalves_AVX512 {
    __m512 lo, hi;
};

// Tree over vectors [Lo, Hi) for lane L of the monomials; `rows` points at
// the sample's cell. Each leaf multiplies both halves of its row by the
// monomial. How the monomial is broadcast is a matter of speed only (every
// form gives the same products), measured per ink count on AVX-512:
//   4 inks: once for both halves, the empty asm pinning it between the two
//     products so it is not hoisted into a register held across the sample
//     (15-20 % faster than two broadcasts);
//   6 inks: twice, from monoLo and from monoHi (the same values; two pointers
//     keep the compiler from merging the broadcasts into one long-lived
//     register per monomial, which would spill);
//   7 inks: once, with the products and every add of the tree pinned too.
//     Unpinned, the compiler expands each single-use product and add where
//     its value is used, which moves every upper-half product to the end of
//     the sample and keeps all 128 broadcasts live (2.4x slower); pinned,
//     each leaf and add stays where the tree puts it (8-10 % faster than two
//     broadcasts).
template <int NV, int L, int Lo, int Hi>
struct LaneTree_AVX512 {
    KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE static inline ZKSHalves_AVX512 Sum(const float* rows,
                                                                               const float* monoLo,
                                                                               const float* monoHi) {
        constexpr int Mid = (Lo + Hi) / 2;
        const ZKSHalves_AVX512 a = LaneTree_AVX512<NV, L, Lo, Mid>::Sum(rows, monoLo, monoHi);
        const ZKSHalves_AVX512 b = LaneTree_AVX512<NV, L, Mid, Hi>::Sum(rows, monoLo, monoHi);
        __m512 lo = _mm512_add_ps(a.lo, b.lo);
        __m512 hi = _mm512_add_ps(a.hi, b.hi);
        if constexpr (NV == 32) __asm__("" : "+v"(lo), "+v"(hi));
        return {lo, hi};
    }
};
template <int NV, int L, int I>
struct LaneTree_AVX512<NV, L, I, I + 1> {
    KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE static inline ZKSHalves_AVX512 Sum(const float* rows,
                                                                               const float* monoLo,
                                                                               const float* monoHi) {
        const float* row = rows + LaneRowOfCorner(4 * I + L, 4 * NV) * kLaneRow;
        if constexpr (NV == 16) {
            return {_mm512_mul_ps(_mm512_load_ps(row), _mm512_set1_ps(monoLo[4 * I + L])),
                    _mm512_mul_ps(_mm512_load_ps(row + 16), _mm512_set1_ps(monoHi[4 * I + L]))};
        } else {
            __m512 m = _mm512_set1_ps(monoLo[4 * I + L]);
            __m512 lo = _mm512_mul_ps(_mm512_load_ps(row), m);
            __asm__("" : "+v"(m));
            __m512 hi = _mm512_mul_ps(_mm512_load_ps(row + 16), m);
            if constexpr (NV == 32) __asm__("" : "+v"(lo), "+v"(hi));
            return {lo, hi};
        }
    }
};

// The 4 NV monomials of BuildMonomials_Scalar by doubling in registers: the
// first 16 from one 4-lane and one 8-lane product, each later block of 16 one
// 16-lane product of w_k with an earlier block. Stored to `mono` (64-byte
// aligned) for the broadcasts of the sums.
template <int NV>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void BuildMonomials_AVX512(const float* w, float* mono) {
    constexpr int Z = NV / 4;  // 16-float blocks: 1, 4 or 8
    const __m128 m4 = _mm_setr_ps(1.0f, w[0], w[1], w[0] * w[1]);
    const __m128 m8 = _mm_mul_ps(_mm_set1_ps(w[2]), m4);
    const __m256 lo8 = _mm256_insertf128_ps(_mm256_castps128_ps256(m4), m8, 1);
    const __m256 hi8 = _mm256_mul_ps(_mm256_set1_ps(w[3]), lo8);
    __m512 z[Z];
    z[0] = _mm512_insertf32x8(_mm512_castps256_ps512(lo8), hi8, 1);
    // Block b >= 1 of 16: its highest corner bit k = 4 + highest bit of b,
    // and it is w_k times block b - 2^(k-4).
    for (int k = 4, count = 1; count < Z; ++k, count *= 2) {
        const __m512 wk = _mm512_set1_ps(w[k]);
        for (int j = 0; j < count; ++j) z[count + j] = _mm512_mul_ps(wk, z[j]);
    }
    for (int b = 0; b < Z; ++b) _mm512_store_ps(mono + 16 * b, z[b]);
}

// The cell of one sample of N = log2(4 NV) inks (LocateSample) and its 4 NV
// monomials, stored to `mono` (64-byte aligned).
template <int NV>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline std::uint32_t PrepareSample_AVX512(const ZKSSSE_EffectiveRampEntry* lut,
                                                                                  const unsigned char* sample,
                                                                                  float* mono) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    float w[N];
    const std::uint32_t q = LocateSample<N>(lut, sample, w);
    BuildMonomials_AVX512<NV>(w, mono);
    return q;
}

// The sums of two 7-ink samples a and b of one cell, each row loaded once for
// both. One sample's monomial costs three loads (two row halves and the
// broadcast) or two loads and a permute on a vector pipe, with two multiplies
// and two adds; two samples share the row halves, so a pair costs four loads
// and eight vector operations. On AVX-512 (Zen 5), with two loads per cycle
// (broadcasts included), two multiplies and two adds, each of the three then
// takes two cycles per leaf. Each sample's products and adds are the
// single-sample tree's (the scalar twin's), so a pair gives the bits of two
// single samples.
//
// Lane l (0..3) of the monomial vectors is a loop of four turns, each a
// 32-leaf tree over rows l 32 .. l 32 + 31 (corners 4 i + l), a quarter of
// the code of the unrolled 128 leaves; the loop adds the lanes' trees in the
// twin's order ((P0 + P1) + P2) + P3. The monomials are broadcast from memory:
// the 16 vectors of two samples' monomials would not fit in the registers
// beside the tree's partial sums.
struct ZKSPairHalves_AVX512 {
    __m512 alo, ahi, blo, bhi;
};

// Leaves [Lo, Hi) of one lane's tree for both samples; leaf i reads row i at
// `rows` and the monomials at ma[4 i] and mb[4 i].
template <int Lo, int Hi>
struct PairLaneTree_AVX512 {
    KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE static inline ZKSPairHalves_AVX512 Sum(const float* rows, const float* ma,
                                                                                   const float* mb) {
        constexpr int Mid = (Lo + Hi) / 2;
        const ZKSPairHalves_AVX512 x = PairLaneTree_AVX512<Lo, Mid>::Sum(rows, ma, mb);
        const ZKSPairHalves_AVX512 y = PairLaneTree_AVX512<Mid, Hi>::Sum(rows, ma, mb);
        __m512 alo = _mm512_add_ps(x.alo, y.alo);
        __m512 ahi = _mm512_add_ps(x.ahi, y.ahi);
        __m512 blo = _mm512_add_ps(x.blo, y.blo);
        __m512 bhi = _mm512_add_ps(x.bhi, y.bhi);
        // Pinned where the tree puts them, as in the single-sample 7-ink tree.
        __asm__("" : "+v"(alo), "+v"(ahi), "+v"(blo), "+v"(bhi));
        return {alo, ahi, blo, bhi};
    }
};
template <int I>
struct PairLaneTree_AVX512<I, I + 1> {
    KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE static inline ZKSPairHalves_AVX512 Sum(const float* rows, const float* ma,
                                                                                   const float* mb) {
        const float* row = rows + I * kLaneRow;
        __m512 lo = _mm512_load_ps(row);
        __m512 hi = _mm512_load_ps(row + 16);
        // Held in registers: left to itself the compiler folds each load into
        // both multiplies and reads the row twice.
        __asm__("" : "+v"(lo), "+v"(hi));
        const __m512 a = _mm512_set1_ps(ma[4 * I]);
        const __m512 b = _mm512_set1_ps(mb[4 * I]);
        __m512 alo = _mm512_mul_ps(lo, a);
        __m512 ahi = _mm512_mul_ps(hi, a);
        __m512 blo = _mm512_mul_ps(lo, b);
        __m512 bhi = _mm512_mul_ps(hi, b);
        __asm__("" : "+v"(alo), "+v"(ahi), "+v"(blo), "+v"(bhi));
        return {alo, ahi, blo, bhi};
    }
};

// The 31 sums of two 7-ink samples a and b of one cell from their monomials
// (PrepareSample_AVX512): out[0], out[1] = a's lo and hi (as
// CellSums_AVX512), out[2], out[3] = b's. `rows` points at the cell.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void CellSumsPair_AVX512(const float* rows, const float* monoA,
                                                                        const float* monoB, __m512* out) {
    // Opaque pointers: the broadcasts stay loads, not permutes of the
    // monomial vectors still in registers.
    const float* ma = monoA;
    const float* mb = monoB;
    __asm__("" : "+r"(ma), "+r"(mb));
    ZKSPairHalves_AVX512 sum = PairLaneTree_AVX512<0, 32>::Sum(rows, ma, mb);
#pragma GCC unroll 1
    for (int l = 1; l < 4; ++l) {
        const ZKSPairHalves_AVX512 p = PairLaneTree_AVX512<0, 32>::Sum(rows + l * 32 * kLaneRow, ma + l, mb + l);
        sum.alo = _mm512_add_ps(sum.alo, p.alo);
        sum.ahi = _mm512_add_ps(sum.ahi, p.ahi);
        sum.blo = _mm512_add_ps(sum.blo, p.blo);
        sum.bhi = _mm512_add_ps(sum.bhi, p.bhi);
    }
    out[0] = sum.alo;
    out[1] = sum.ahi;
    out[2] = sum.blo;
    out[3] = sum.bhi;
}

// The 31 sums of one sample of N = log2(4 NV) inks from its monomials
// (PrepareSample_AVX512): lo = wavelengths 0-15, hi = 16-30 and 0.0 in lane
// 15. `rows` points at the sample's cell in the 64-byte aligned lane-major rows.
template <int NV>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void CellSums_AVX512(const float* rows, const float* mono, __m512* lo,
                                                                    __m512* hi) {
    const float* monoLo = mono;
    const float* monoHi = mono;
    // 6 inks: hide that monoHi == monoLo (see LaneTree_AVX512).
    if (NV == 16) __asm__("" : "+r"(monoHi));
    const ZKSHalves_AVX512 p0 = LaneTree_AVX512<NV, 0, 0, NV>::Sum(rows, monoLo, monoHi);
    const ZKSHalves_AVX512 p1 = LaneTree_AVX512<NV, 1, 0, NV>::Sum(rows, monoLo, monoHi);
    const ZKSHalves_AVX512 p2 = LaneTree_AVX512<NV, 2, 0, NV>::Sum(rows, monoLo, monoHi);
    const ZKSHalves_AVX512 p3 = LaneTree_AVX512<NV, 3, 0, NV>::Sum(rows, monoLo, monoHi);
    *lo = _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(p0.lo, p1.lo), p2.lo), p3.lo);
    *hi = _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(p0.hi, p1.hi), p2.hi), p3.hi);
}

}  // namespace KELMA_NAMESPACE
