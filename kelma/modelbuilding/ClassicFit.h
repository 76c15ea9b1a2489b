// The classic fit at one n (stage, internal).
//
// Node spectra R (measured, or estimated for missing nodes) raised to 1/n are
// the node values. Each ink's effective ramp comes from its single-ink
// patches (all other inks at 0): the local coordinate w of a patch inside its
// cell is the closed-form least-squares solution of
// R^(1/n) ~ (1-w) r_lower + w r_upper over the 31 bands, clamped to [0, 1],
// averaged per level, and made a ramp by RampsFromCoordinates. The fit is
// judged by the mean CIEDE2000 of the training rows it predicts (double
// precision), which is what the n search minimises.
#pragma once

#include <vector>

#include "kelma/modelbuilding/YuleNielsenEvaluator.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

struct ClassicInputs {
    const ZKSModelChart& chart;         // ink names for messages
    const ResolvedGrid& resolved;       // grid percentages for messages
    const GridLayout& grid;
    const std::vector<double>& nodeSpectra;  // nodes x 31 reflectances, complete
    const std::vector<RampPatch>& rampPatches;
    const YuleNielsenEvaluator& evaluator;   // the training rows (the structure of NonGridLevels)
};

struct ClassicFit {
    double n = 1.0;
    std::vector<double> ramps;             // N x 256
    std::vector<double> nodes;             // nodes x 31 Yule-Nielsen values
    std::vector<double> rampCoordinates;   // unclamped w of each ramp patch
    double meanDeltaE = 0.0;               // training rows; HUGE_VAL when a prediction is undefined
};

// Fails (naming the ink and the cell) when the two nodes of a cell along an
// ink have the same spectrum, so no coordinate can be fitted between them.
ClassicFit FitClassic(const ClassicInputs& inputs, double n);

// Fails when a ramp patch's coordinate lies far outside its cell (below -0.5
// or above 1.5): that patch is not on the ink's ramp.
void CheckRampCoordinates(const ClassicInputs& inputs, const ClassicFit& fit);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
