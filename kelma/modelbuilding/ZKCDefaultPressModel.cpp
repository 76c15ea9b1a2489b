#include "kelma/modelbuilding/ZKCDefaultPressModel.h"

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/modelbuilding/DefaultPressModelData.h"

namespace KELMA_NAMESPACE {

ZKSPrinterModelArrays DefaultPressModelArrays() {
    using namespace modelbuilding;
    ZKSPrinterModelArrays m;
    m.numberOfInks = kDefaultPressInks;
    m.numberOfGridPoints = kDefaultPressGridPoints;
    m.n = kDefaultPressN;
    m.gridPoints.assign(kDefaultPressGridLevels, kDefaultPressGridLevels + kDefaultPressInks * kDefaultPressGridPoints);
    m.effectiveRamps.assign(kDefaultPressEffectiveRamps, kDefaultPressEffectiveRamps + kDefaultPressInks * 256);
    m.matrixScheme.assign(kDefaultPressMatrixScheme, kDefaultPressMatrixScheme + kDefaultPressMatrixSchemeSize);
    m.UpdateFloatArrays();
    return m;
}

ZKCSSE_KELMA_Data DefaultPressModel(const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, bool isMediaRelative,
                                    bool printAbsolutColorimetric) {
    return DefaultPressModelArrays().Model(lightingMatrix, inkSet, isMediaRelative, printAbsolutColorimetric);
}

ZKCSSE_KELMA_Data DefaultPressModel() {
    ZKCIlluminant_CIED50 d50;
    return DefaultPressModel(ZKCLighting_Matrix(ZKCObserver(OBSERVER_CIE1931_2), &d50), INK_SET_CMYK, false, false);
}

}  // namespace KELMA_NAMESPACE
