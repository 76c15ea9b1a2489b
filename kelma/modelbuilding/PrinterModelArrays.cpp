#include "kelma/modelbuilding/PrinterModelArrays.h"

#include "kelma/modelbuilding/FitColorimetry.h"

namespace KELMA_NAMESPACE {

void ZKSPrinterModelArrays::UpdateFloatArrays() {
    gridPointsF.assign(gridPoints.begin(), gridPoints.end());
    effectiveRampsF.assign(effectiveRamps.begin(), effectiveRamps.end());
    matrixSchemeF.assign(matrixScheme.begin(), matrixScheme.end());
}

ZKCSSE_KELMA_Data ZKSPrinterModelArrays::Model(const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet,
                                               bool isMediaRelative, bool printAbsolutColorimetric) const {
    return ZKCSSE_KELMA_Data(numberOfInks, numberOfGridPoints, gridPointsF.data(), effectiveRampsF.data(),
                             matrixSchemeF.data(), static_cast<float>(n), lightingMatrix, inkSet, isMediaRelative,
                             printAbsolutColorimetric, kSpectralValues);
}

ZKCSSE_KELMA_Data ZKSPrinterModelArrays::Model(INK_SET inkSet) const {
    return Model(modelbuilding::D50Matrix(), inkSet);
}

}  // namespace KELMA_NAMESPACE
