// The AVX2 prediction loop: lane-major sums (CellSums_AVX2.h) and the AVX2
// power (YuleNielsenPower_AVX2.h) on the four 8-lane vectors of each sample.
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#if defined(__GNUC__) && !defined(__clang__)  // GCC only; clang has no such warning
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <algorithm>

#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/CellSums_AVX2.h"
#include "kelma/prediction/PredictSamples.h"
#include "kelma/prediction/YuleNielsenPower.h"
#include "kelma/prediction/YuleNielsenPower_AVX2.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

// One sample: its N bytes at `input`, its record at `out`.
template <int NV>
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline void LaneMajorSample_AVX2(const ZKSPredictionJob& job,
                                                                      const yule_nielsen_power::ZKSPowerTables& T,
                                                                      const unsigned char* input, float* out) {
    // Lane 7 of the last group is wavelength 31, the pad: 1.0 for the power,
    // 0.0 in the record (or not stored in packed records).
    const __m256 padLane = _mm256_castsi256_ps(_mm256_setr_epi32(0, 0, 0, 0, 0, 0, 0, -1));
    const __m256i lastStore = _mm256_setr_epi32(-1, -1, -1, -1, -1, -1, -1, job.packed ? 0 : -1);
    __m256 sums[4];
    CellSums_AVX2<NV>(job.lut, job.laneRows, input, sums);
    sums[3] = _mm256_blendv_ps(sums[3], _mm256_set1_ps(1.0f), padLane);
    for (int g = 0; g < 3; ++g) _mm256_storeu_ps(out + 8 * g, YuleNielsenPower8_AVX2(T, sums[g], job.n));
    const __m256 last = _mm256_blendv_ps(YuleNielsenPower8_AVX2(T, sums[3], job.n), _mm256_setzero_ps(), padLane);
    _mm256_maskstore_ps(out + 24, lastStore, last);
}

// Samples in input order.
template <int NV>
KELMA_TARGET_AVX2 void LaneMajorInOrder_AVX2(const ZKSPredictionJob& caller, unsigned int count,
                                             const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    // A local copy: the records written cannot alias it, so its fields stay
    // in registers across samples.
    const ZKSPredictionJob job = caller;
    const yule_nielsen_power::ZKSPowerTables& T = yule_nielsen_power::PowerTables();
    const std::size_t stride = job.outStride;
    for (unsigned int s = 0; s < count; ++s, input += N, out += stride) LaneMajorSample_AVX2<NV>(job, T, input, out);
}

// Samples block by block in cell order (CellOrder.h).
template <int NV>
KELMA_TARGET_AVX2 void LaneMajorByCell_AVX2(const ZKSPredictionJob& caller, unsigned int count,
                                            const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    const ZKSPredictionJob job = caller;
    const yule_nielsen_power::ZKSPowerTables& T = yule_nielsen_power::PowerTables();
    const std::size_t stride = job.outStride;
    const unsigned int last = job.packed ? kSpectralValues - 1 : kSpectrumStride - 1;  // a record's last float
    std::uint16_t order[kCellOrderBlock], cells[kCellOrderBlock];
    for (unsigned int first = 0; first < count; first += kCellOrderBlock) {
        const unsigned int m = std::min(kCellOrderBlock, count - first);
        const unsigned char* in = input + std::size_t{first} * N;
        float* o = out + first * stride;
        CellOrder<N>(job.lut, job.cellOrderCells, in, m, order, cells);
        for (unsigned int j = 0; j < m; ++j) {
            if (j + kRecordPrefetch < m) PrefetchRecord(o + order[j + kRecordPrefetch] * stride, last);
            LaneMajorSample_AVX2<NV>(job, T, in + order[j] * N, o + order[j] * stride);
        }
    }
}

template <int NV>
void LaneMajor_AVX2(const ZKSPredictionJob& job, unsigned int count, const unsigned char* input, float* out) {
    if (job.cellOrderCells != 0)
        LaneMajorByCell_AVX2<NV>(job, count, input, out);
    else
        LaneMajorInOrder_AVX2<NV>(job, count, input, out);
}

}  // namespace

void PredictSamples_AVX2(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                         const unsigned char* input, float* out) {
    const bool lanes = LaneMajorApplies(job);
    switch (inks) {
        case 4:
            return lanes ? LaneMajor_AVX2<4>(job, count, input, out)
                         : PredictSamples_SSESums<4, 5>(job, count, input, out, YuleNielsenPower_AVX2);
        case 6:
            return lanes ? LaneMajor_AVX2<16>(job, count, input, out)
                         : PredictSamples_SSESums<16, 3>(job, count, input, out, YuleNielsenPower_AVX2);
        case 7:
            return lanes ? LaneMajor_AVX2<32>(job, count, input, out)
                         : PredictSamples_SSESums<32, 3>(job, count, input, out, YuleNielsenPower_AVX2);
        default:
            throw kErrorDefaultCase;
    }
}

}  // namespace KELMA_NAMESPACE
