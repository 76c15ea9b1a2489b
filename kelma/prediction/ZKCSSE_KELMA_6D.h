// Prediction kernel for six inks: 64 monomials, wavelengths three per pass.
#pragma once

#include "kelma/prediction/ZKCSSE_KELMA_Base.h"

namespace KELMA_NAMESPACE {

class ZKCSSE_KELMA_6D : public ZKCSSE_KELMA_Base {
public:
    using ZKCSSE_KELMA_Base::ZKCSSE_KELMA_Base;
    void CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) override;
};

}  // namespace KELMA_NAMESPACE
