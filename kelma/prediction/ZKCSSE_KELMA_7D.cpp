#include "kelma/prediction/ZKCSSE_KELMA_7D.h"

#include "kelma/prediction/PredictSamples.h"

namespace KELMA_NAMESPACE {

void ZKCSSE_KELMA_7D::CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) {
    PredictSamples(variant_, 7,
                   MakePredictionJob(data_, laneRows_, valuesPerSample_, packed_ ? valuesPerSample_ : spectrumStride_,
                                     packed_),
                   count, input, spectra);
}

}  // namespace KELMA_NAMESPACE
