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

// One sample: its N bytes at `input`, its record at `out`.
template <int NV>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void LaneMajorSample_AVX512(const ZKSPredictionJob& job,
                                                                          const ZKSPowerTables_AVX512& T,
                                                                          const unsigned char* input, float* out) {
    // Lane 15 of the upper half is wavelength 31, the pad: it holds 1.0 for
    // the power (keeping it on the fast path) and 0.0 in the record, or is
    // not stored at all in packed records.
    constexpr __mmask16 kPad = 0x8000;
    const __mmask16 upper = job.packed ? 0x7FFF : 0xFFFF;
    __m512 lo, hi;
    CellSums_AVX512<NV>(job.lut, job.laneRows, input, &lo, &hi);
    hi = _mm512_mask_mov_ps(hi, kPad, _mm512_set1_ps(1.0f));
    lo = YuleNielsenPower16_AVX512(T, lo, job.n);
    hi = _mm512_mask_mov_ps(YuleNielsenPower16_AVX512(T, hi, job.n), kPad, _mm512_setzero_ps());
    _mm512_storeu_ps(out, lo);
    _mm512_mask_storeu_ps(out + 16, upper, hi);
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
    for (unsigned int s = 0; s < count; ++s, input += N, out += stride) LaneMajorSample_AVX512<NV>(job, T, input, out);
}

// Samples block by block in cell order (CellOrder.h).
template <int NV>
KELMA_TARGET_AVX512 void LaneMajorByCell_AVX512(const ZKSPredictionJob& caller, unsigned int count,
                                                const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    const ZKSPredictionJob job = caller;
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    const std::size_t stride = job.outStride;
    std::uint16_t order[kCellOrderBlock];
    for (unsigned int first = 0; first < count; first += kCellOrderBlock) {
        const unsigned int m = std::min(kCellOrderBlock, count - first);
        const unsigned char* in = input + std::size_t{first} * N;
        float* o = out + first * stride;
        CellOrder<N>(job.lut, job.cellOrderCells, in, m, order);
        for (unsigned int j = 0; j < m; ++j)
            LaneMajorSample_AVX512<NV>(job, T, in + order[j] * N, o + order[j] * stride);
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
