// The arrays of one fitted model in the layouts of ZKCSSE_KELMA_Data, in
// double (as fitted) and float (as the prediction kernels read them).
#pragma once

#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/common/Types.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

struct KELMA_API ZKSPrinterModelArrays {
    unsigned int numberOfInks = 0;
    unsigned int numberOfGridPoints = 0;
    std::vector<double> gridPoints;      // N x G whole digital levels
    std::vector<double> effectiveRamps;  // N x 256, non-decreasing per ink
    std::vector<double> matrixScheme;    // 31 x (G-1)^N x 2^N
    double n = 1.0;
    std::vector<float> gridPointsF;
    std::vector<float> effectiveRampsF;
    std::vector<float> matrixSchemeF;

    // Fills the float arrays from the double ones.
    void UpdateFloatArrays();
    // The library model from the float arrays and float n.
    ZKCSSE_KELMA_Data Model(const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, bool isMediaRelative = false,
                            bool printAbsolutColorimetric = false) const;
    // Same under D50 / 2 degree.
    ZKCSSE_KELMA_Data Model(INK_SET inkSet = INK_SET_SEVEN_INKS) const;
};

}  // namespace KELMA_NAMESPACE
