#include "kelma/prediction/ZKCSSE_KELMA_4D.h"

#include "kelma/prediction/PredictSamples.h"

namespace KELMA_NAMESPACE {

void ZKCSSE_KELMA_4D::CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) {
    PredictSamples(variant_, 4,
                   MakePredictionJob(data_, laneRows_, kSpectralValues, packed_ ? kSpectralValues : kSpectrumStride,
                                     packed_),
                   count, input, spectra);
}

}  // namespace KELMA_NAMESPACE
