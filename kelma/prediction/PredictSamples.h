// The per-sample loop of the 4-, 6- and 7-ink kernels: cell sums, then the
// Yule-Nielsen power of each, in the kernel variant chosen by the caller.
//
//   out[w] = s_w^n  (w < values), single precision, nothing clamped: the
//   power stays within 2 ulp of powf and keeps its special cases (s = 0 -> 0,
//   s = 1 -> 1, s < 0 with a non-integer n -> NaN); then out[values] = 0.0
//   unless the records are packed (values floats per sample, no pad).
//
// Every variant gives the scalar twins' results (CellSums_Scalar.h,
// YuleNielsenPower_Scalar.h) bit for bit:
//   KERNEL_REFERENCE  the scalar twins themselves
//   KERNEL_SSE2       four-lane sums per wavelength (CellSums_SSE.h), SSE2 power
//   KERNEL_AVX2       eight wavelengths per vector (CellSums_AVX2.h), AVX2 power
//   KERNEL_AVX512     sixteen wavelengths per vector (CellSums_AVX512.h), AVX-512 power
// The AVX2 and AVX-512 sums read the lane-major rows (LaneMajorScheme.h);
// without them (or for other than 31 values in 32- or 31-float records)
// those variants take the SSE sums with their own power.
#pragma once

#include <algorithm>
#include <vector>

#include "kelma/common/KernelVariant.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/prediction/CellSums_SSE.h"

namespace KELMA_NAMESPACE {

struct ZKSPredictionJob {
    const ZKSSSE_EffectiveRampEntry* lut;  // N x 256 entries
    const float* scheme;                   // the model's coefficient blocks (16-byte aligned)
    const float* laneRows;                 // their lane-major copy, or null
    float n;                               // Yule-Nielsen exponent
    unsigned int values;                   // values per spectrum: 31 (the 7-ink kernel may be given others)
    unsigned int outStride;                // floats from one output record to the next
    bool packed;                           // no pad after the values
    unsigned int cellOrderCells;           // lane-major kernels: cells to visit in order (CellOrder.h), or 0
};

ZKSPredictionJob MakePredictionJob(const ZKCSSE_KELMA_Data& data, const float* laneRows, unsigned int values,
                                   unsigned int outStride, bool packed);

// `count` samples of `inks` (4, 6 or 7) bytes from `input` to records of
// job.outStride floats at `out`. The variant must be one the processor runs.
void PredictSamples(KERNEL_VARIANT variant, unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                    const unsigned char* input, float* out);

void PredictSamples_Reference(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                              const unsigned char* input, float* out);
void PredictSamples_SSE2(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                         const unsigned char* input, float* out);
void PredictSamples_AVX2(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                         const unsigned char* input, float* out);
void PredictSamples_AVX512(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                           const unsigned char* input, float* out);

// True when the AVX2/AVX-512 lane-major sums serve this job.
inline bool LaneMajorApplies(const ZKSPredictionJob& job) {
    return job.laneRows != nullptr && job.values == kSpectralValues &&
           job.outStride == (job.packed ? kSpectralValues : kSpectrumStride);
}

using YuleNielsenPowerArray = void (*)(const float* in, float y, float* out, unsigned int count);

// SSE sums of NV four-float vectors per wavelength, PASS wavelengths per
// pass, followed by `power` over the sums.
template <int NV, int PASS>
void PredictSamples_SSESums(const ZKSPredictionJob& job, unsigned int count, const unsigned char* input, float* out,
                            YuleNielsenPowerArray power) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    const unsigned int values = job.values;
    // The power runs on whole 8-lane groups when the output record has room
    // (31 values in a 32-float record); the extra lane holds 1.0 and its
    // result is overwritten by the pad.
    const unsigned int padded = (values + 7) / 8 * 8;
    const unsigned int powerCount = padded <= job.outStride && !job.packed ? padded : values;
    std::vector<float> sums(std::max(values + PASS, padded), 1.0f);
    for (unsigned int s = 0; s < count; ++s, input += N, out += job.outStride) {
        CellSums_SSE<NV, PASS>(job.lut, job.scheme, input, values, sums.data());
        power(sums.data(), job.n, out, powerCount);
        if (!job.packed) out[values] = 0.0f;
    }
}

}  // namespace KELMA_NAMESPACE
