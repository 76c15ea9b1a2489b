// Validation (stage): the library's one split of a chart into training and
// test patches, and the CIEDE2000 a model makes on given patches.
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/modelbuilding/ChartImport.h"
#include "kelma/modelbuilding/PrinterModelArrays.h"

namespace KELMA_NAMESPACE {

// An honest two-fold split of a chart for validation: the grid patches (every
// ink on a grid level) train both folds; the other patches are grouped by
// recipe (equal digital levels, so duplicates never straddle the split) and
// the recipes go alternately, in order of first appearance, to half 0 and 1.
// Fold f trains on gridPatches + half[f] and tests on half[1 - f].
struct KELMA_API ZKSValidationSplit {
    std::vector<std::size_t> gridPatches;
    std::vector<std::size_t> half[2];
    std::vector<std::size_t> Training(unsigned int fold) const;
};

// CIEDE2000 (D50 / 2 degree) between the chart's measured spectra and the
// library's prediction of the float model at the patches' digital levels, in
// the given order: ModelDeltaE2000 of the model built from these arrays. A NaN
// prediction gives a NaN difference. Throws ZKCModelBuildingError for a patch
// index outside the chart.
KELMA_API std::vector<double> PredictionDeltaE00(const ZKSPrinterModelArrays& model, const ZKSModelChart& chart,
                                                 const std::vector<std::size_t>& patches);

namespace modelbuilding {

// The split of `count` items with N levels each (item-major), on grid levels
// `gridLevels` (N x G): indices are item numbers.
ZKSValidationSplit SplitByRecipe(const unsigned char* levels, unsigned int inks, std::size_t count,
                                 unsigned int gridPoints, const std::vector<unsigned int>& gridLevels);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
