// How well a printer model predicts a measured chart: the CIEDE2000 between
// each patch's measured spectrum and the model's prediction at the patch's
// digital levels, under one of the model's illuminants, both relative to that
// illuminant's white, and their statistics over all patches and split by
// black (K = 0 and K > 0, black being ink 3 of a model of 4 or more inks).
//
// Both colours go through the same single-precision lighting matrix
// (CalculateCIEXYZ) and the exact CIELAB of XYZToCIELAB; the predicted
// colour is PredictColorimetry's. Device values in percent become levels by
// ChartDigitalLevels, which refuses a chart whose device values leave
// [0, 100] or whose spectra are implausible (ZKCModelBuildingError naming the
// patch). A NaN prediction gives a NaN difference (and NaN statistics).
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/evaluation/Statistics.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

namespace KELMA_NAMESPACE {

struct KELMA_API ZKSModelEvaluation {
    std::vector<std::size_t> patches;  // the patches evaluated, in the order asked for
    std::vector<double> deltaE;        // CIEDE2000 of each of them
    ZKSStatistics all;
    ZKSStatistics blackZero;      // patches whose black level is 0 (all, for fewer than 4 inks)
    ZKSStatistics blackPositive;  // patches with black above 0
};

// CIEDE2000 of the given patches (indices into the chart; all patches when
// empty). The chart's inks must be the model's (count and order); a patch
// outside the chart, or a chart of another ink count, throws
// ZKCModelBuildingError naming it. illuminant indexes the model's lighting
// matrix ("Invalid IlluminantIndex" otherwise).
KELMA_API std::vector<double> ModelDeltaE2000(const ZKCSSE_KELMA_Data& model, const ZKSModelChart& chart,
                                              const std::vector<std::size_t>& patches, unsigned int illuminant = 0);

KELMA_API ZKSModelEvaluation EvaluateModel(const ZKCSSE_KELMA_Data& model, const ZKSModelChart& chart,
                                           const std::vector<std::size_t>& patches = {},
                                           unsigned int illuminant = 0);

}  // namespace KELMA_NAMESPACE
