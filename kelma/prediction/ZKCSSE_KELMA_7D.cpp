#include "kelma/prediction/ZKCSSE_KELMA_7D.h"

#include "kelma/prediction/PredictSamples.h"

namespace KELMA_NAMESPACE {

void ZKCSSE_KELMA_7D::CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) {
    PredictSamples<32, 3>(data_, count, input, spectra, valuesPerSample_,
                            packed_ ? valuesPerSample_ : spectrumStride_, packed_);
}

}  // namespace KELMA_NAMESPACE
