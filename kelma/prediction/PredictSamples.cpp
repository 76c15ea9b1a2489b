#include "kelma/prediction/PredictSamples.h"

#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/CellSums_Scalar.h"
#include "kelma/prediction/LaneMajorScheme.h"
#include "kelma/prediction/YuleNielsenPower.h"
#include "kelma/prediction/YuleNielsenPower_Scalar.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

template <int NV>
void ScalarTwins(const ZKSPredictionJob& job, unsigned int count, const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    std::vector<float> sums(job.values);
    for (unsigned int s = 0; s < count; ++s, input += N, out += job.outStride) {
        CellSums_Scalar<NV>(job.lut, job.scheme, input, job.values, sums.data());
        for (unsigned int w = 0; w < job.values; ++w) out[w] = YuleNielsenPowerLane_Scalar(sums[w], job.n);
        if (!job.packed) out[job.values] = 0.0f;
    }
}

}  // namespace

ZKSPredictionJob MakePredictionJob(const ZKCSSE_KELMA_Data& data, const float* laneRows, unsigned int values,
                                   unsigned int outStride, bool packed) {
    const std::size_t corners = std::size_t{1} << data.NumberOfInks();
    const std::size_t cells = data.MatrixSchemeSize() / (std::size_t{data.NumberOfSpectralValues()} * corners);
    const unsigned int orderCells =
        laneRows != nullptr ? CellOrderCells(cells, cells * corners * kLaneRow * sizeof(float)) : 0u;
    return ZKSPredictionJob{data.EffectiveRampsLUT().data(), data.MatrixScheme(), laneRows, data.n(), values,
                            outStride, packed, orderCells};
}

void PredictSamples_Reference(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                              const unsigned char* input, float* out) {
    switch (inks) {
        case 4: return ScalarTwins<4>(job, count, input, out);
        case 6: return ScalarTwins<16>(job, count, input, out);
        case 7: return ScalarTwins<32>(job, count, input, out);
        default: throw kErrorDefaultCase;
    }
}

void PredictSamples_SSE2(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                         const unsigned char* input, float* out) {
    switch (inks) {
        case 4: return PredictSamples_SSESums<4, 5>(job, count, input, out, YuleNielsenPower_SSE2);
        case 6: return PredictSamples_SSESums<16, 3>(job, count, input, out, YuleNielsenPower_SSE2);
        case 7: return PredictSamples_SSESums<32, 3>(job, count, input, out, YuleNielsenPower_SSE2);
        default: throw kErrorDefaultCase;
    }
}

void PredictSamples(KERNEL_VARIANT variant, unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                    const unsigned char* input, float* out) {
    switch (variant) {
        case KERNEL_REFERENCE: return PredictSamples_Reference(inks, job, count, input, out);
        case KERNEL_SSE2:
        case KERNEL_SSSE3: return PredictSamples_SSE2(inks, job, count, input, out);
        case KERNEL_AVX2: return PredictSamples_AVX2(inks, job, count, input, out);
        case KERNEL_AVX512: return PredictSamples_AVX512(inks, job, count, input, out);
    }
}

}  // namespace KELMA_NAMESPACE
