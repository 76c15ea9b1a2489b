#include "kelma/prediction/ZKCSSE_KELMA_6D.h"

#include "kelma/prediction/PredictSamples.h"

namespace KELMA_NAMESPACE {

void ZKCSSE_KELMA_6D::CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) {
    PredictSamples<16, 3>(data_, count, input, spectra, kSpectralValues,
                                  packed_ ? kSpectralValues : kSpectrumStride, packed_);
}

}  // namespace KELMA_NAMESPACE
