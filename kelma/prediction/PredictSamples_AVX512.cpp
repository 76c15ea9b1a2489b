// The AVX-512 prediction loop: lane-major sums (CellSums_AVX512.h) and the
// AVX-512 power (YuleNielsenPower_AVX512.h) on the two 16-lane vectors of each
// sample, stored straight into the output record.
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#if defined(__GNUC__) && !defined(__clang__)  // GCC only; clang has no such warning
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>

#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/CellSums_AVX512.h"
#include "kelma/prediction/PredictSamples.h"
#include "kelma/prediction/YuleNielsenPower.h"
#include "kelma/prediction/YuleNielsenPower_AVX512.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

// The power of one sample's sums (lo = wavelengths 0-15, hi = 16-30), stored
// to its record at `out`. Lane 15 of the upper half is wavelength 31, the pad:
// it holds 1.0 for the power (keeping it on the fast path) and 0.0 in the
// record, or is not stored at all in packed records.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void PowerAndStore_AVX512(const ZKSPredictionJob& job,
                                                                        const ZKSPowerTables_AVX512& T, __m512 lo,
                                                                        __m512 hi, float* out) {
    constexpr __mmask16 kPad = 0x8000;
    const __mmask16 upper = job.packed ? 0x7FFF : 0xFFFF;
    hi = _mm512_mask_mov_ps(hi, kPad, _mm512_set1_ps(1.0f));
    lo = YuleNielsenPower16_AVX512(T, lo, job.n);
    hi = _mm512_mask_mov_ps(YuleNielsenPower16_AVX512(T, hi, job.n), kPad, _mm512_setzero_ps());
    _mm512_storeu_ps(out, lo);
    _mm512_mask_storeu_ps(out + 16, upper, hi);
}

// The rows of cell q in the lane-major rows.
template <int NV>
inline const float* CellRows(const ZKSPredictionJob& job, std::uint32_t q) {
    return job.laneRows + static_cast<std::size_t>(q) * (4 * NV) * kLaneRow;
}

// One sample: its N bytes at `input`, its record at `out`.
template <int NV>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void LaneMajorSample_AVX512(const ZKSPredictionJob& job,
                                                                          const ZKSPowerTables_AVX512& T,
                                                                          const unsigned char* input, float* out) {
    alignas(64) float mono[4 * NV];
    const std::uint32_t q = PrepareSample_AVX512<NV>(job.lut, input, mono);
    __m512 lo, hi;
    CellSums_AVX512<NV>(CellRows<NV>(job, q), mono, &lo, &hi);
    PowerAndStore_AVX512(job, T, lo, hi, out);
}

// Two 7-ink samples of one cell (CellSumsPair_AVX512).
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void LaneMajorPair_AVX512(const ZKSPredictionJob& job,
                                                                        const ZKSPowerTables_AVX512& T,
                                                                        const unsigned char* a, float* outA,
                                                                        const unsigned char* b, float* outB) {
    __m512 sums[4];
    CellSumsPair_AVX512(job.lut, job.laneRows, a, b, sums);
    PowerAndStore_AVX512(job, T, sums[0], sums[1], outA);
    PowerAndStore_AVX512(job, T, sums[2], sums[3], outB);
}

// Samples in input order.
template <int NV>
KELMA_TARGET_AVX512 void LaneMajorInOrder_AVX512(const ZKSPredictionJob& caller, unsigned int count,
                                                 const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    // A local copy: the records written cannot alias it, so its fields stay
    // in registers across samples.
    const ZKSPredictionJob job = caller;
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    const std::size_t stride = job.outStride;
    // Each sample's monomials are prepared one sample ahead, into the other
    // half of a double buffer: the lookups, products and stores of the next
    // sample then run beside this sample's sums instead of ahead of its first
    // broadcast. Measured on AVX-512 (Zen 5): 4 inks 13 % faster, 6 inks 2 %.
    // (The 7-ink pairs of LaneMajorByCell_AVX512 gained nothing from it.)
    if (count == 0) return;
    alignas(64) float mono[2][4 * NV];
    std::uint32_t cell = PrepareSample_AVX512<NV>(job.lut, input, mono[0]);
    for (unsigned int s = 0; s < count; ++s, input += N, out += stride) {
        std::uint32_t next = 0;
        if (s + 1 < count) next = PrepareSample_AVX512<NV>(job.lut, input + N, mono[(s + 1) & 1]);
        __m512 lo, hi;
        CellSums_AVX512<NV>(CellRows<NV>(job, cell), mono[s & 1], &lo, &hi);
        PowerAndStore_AVX512(job, T, lo, hi, out);
        cell = next;
    }
}

// Samples block by block in cell order (CellOrder.h); 7 inks take two
// neighbours of one cell at a time. The records are written in cell order,
// scattered over the block's output, so each one is prefetched (with the
// write hint; without the prfchw target that is prefetcht0) kRecordPrefetch
// samples ahead: about 4 % of the 7-ink time.
constexpr unsigned int kRecordPrefetch = 16;

template <int NV>
KELMA_TARGET_AVX512 void LaneMajorByCell_AVX512(const ZKSPredictionJob& caller, unsigned int count,
                                                const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    const ZKSPredictionJob job = caller;
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    const std::size_t stride = job.outStride;
    std::uint16_t order[kCellOrderBlock], cells[kCellOrderBlock];
    for (unsigned int first = 0; first < count; first += kCellOrderBlock) {
        const unsigned int m = std::min(kCellOrderBlock, count - first);
        const unsigned char* in = input + std::size_t{first} * N;
        float* o = out + first * stride;
        CellOrder<N>(job.lut, job.cellOrderCells, in, m, order, cells);
        unsigned int j = 0;
        while (j < m) {
            // Both samples a pair may take; a single step prefetches one of
            // them twice, which costs nothing.
            for (unsigned int k = j + kRecordPrefetch; k < j + kRecordPrefetch + 2 && k < m; ++k) {
                __builtin_prefetch(o + order[k] * stride, 1, 3);
                __builtin_prefetch(o + order[k] * stride + 16, 1, 3);
            }
            if (NV == 32 && j + 1 < m && cells[j] == cells[j + 1]) {
                LaneMajorPair_AVX512(job, T, in + order[j] * N, o + order[j] * stride, in + order[j + 1] * N,
                                     o + order[j + 1] * stride);
                j += 2;
            } else {
                LaneMajorSample_AVX512<NV>(job, T, in + order[j] * N, o + order[j] * stride);
                j += 1;
            }
        }
    }
}

template <int NV>
void LaneMajor_AVX512(const ZKSPredictionJob& job, unsigned int count, const unsigned char* input, float* out) {
    if (job.cellOrderCells != 0)
        LaneMajorByCell_AVX512<NV>(job, count, input, out);
    else
        LaneMajorInOrder_AVX512<NV>(job, count, input, out);
}

}  // namespace

void PredictSamples_AVX512(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                           const unsigned char* input, float* out) {
    const bool lanes = LaneMajorApplies(job);
    switch (inks) {
        case 4:
            return lanes ? LaneMajor_AVX512<4>(job, count, input, out)
                         : PredictSamples_SSESums<4, 5>(job, count, input, out, YuleNielsenPower_AVX512);
        case 6:
            return lanes ? LaneMajor_AVX512<16>(job, count, input, out)
                         : PredictSamples_SSESums<16, 3>(job, count, input, out, YuleNielsenPower_AVX512);
        case 7:
            return lanes ? LaneMajor_AVX512<32>(job, count, input, out)
                         : PredictSamples_SSESums<32, 3>(job, count, input, out, YuleNielsenPower_AVX512);
        default:
            throw kErrorDefaultCase;
    }
}

}  // namespace KELMA_NAMESPACE
