// Prediction kernel for seven inks: 128 monomials, wavelengths three per pass; the value count and output stride come from the members (31 and 32 in every use).
#pragma once

#include "kelma/prediction/ZKCSSE_KELMA_Base.h"

namespace KELMA_NAMESPACE {

class ZKCSSE_KELMA_7D : public ZKCSSE_KELMA_Base {
public:
    using ZKCSSE_KELMA_Base::ZKCSSE_KELMA_Base;
    void CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) override;
};

}  // namespace KELMA_NAMESPACE
