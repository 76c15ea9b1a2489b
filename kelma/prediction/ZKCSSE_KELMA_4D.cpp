#include "kelma/prediction/ZKCSSE_KELMA_4D.h"

#include "kelma/prediction/PredictSamples.h"

namespace KELMA_NAMESPACE {

void ZKCSSE_KELMA_4D::CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) {
    PredictSamples<4, 5>(data_, count, input, spectra, kSpectralValues,
                                  packed_ ? kSpectralValues : kSpectrumStride, packed_);
}

}  // namespace KELMA_NAMESPACE
