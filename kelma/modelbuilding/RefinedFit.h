// The refined fit (stage, internal).
//
// With ramps and n fixed the prediction in the Yule-Nielsen domain is linear
// in the node values, so the nodes are the least-squares solution over all
// training rows (NodeLeastSquares, with the prior on estimated nodes). The
// local coordinates at every non-grid level that some training row uses, and
// n, are fitted by Levenberg-Marquardt on residuals whose squared norm
// approximates CIEDE2000 squared (the colour difference mapped through the
// local CIEDE2000 metric at the measured colour), re-solving the nodes at
// every evaluation. The final ramps pass through the fitted coordinates
// (RampsFromCoordinates, weighted by the rows using each level); levels no
// training row uses are interpolated by the monotone cubic. Node values below
// kReflectanceFloor^(1/n) are raised to it and counted.
//
// Cost: one sparse node solve per evaluation and about (parameters + 1)
// evaluations per iteration, spread over min(processors, 8) threads.
#pragma once

#include <vector>

#include "kelma/modelbuilding/NodeLeastSquares.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

struct RefinedSettings {
    bool fitN = true;
    double nMin = 1.0, nMax = 10.0;
    unsigned int maxIterations = 100;
};

struct RefinedFit {
    std::vector<double> ramps;  // N x 256
    std::vector<double> nodes;  // nodes x 31 Yule-Nielsen values
    double n = 1.0;
    unsigned int iterations = 0;
    unsigned int clampedNodeValues = 0;
};

// Starts from `startRamps` (the classic fit's) and n0. Fails when the node
// system is singular at the end.
RefinedFit FitRefined(const GridLayout& grid, const TrainingSet& set, const Colorimeter& colorimeter,
                      const NodePrior& prior, const std::vector<double>& startRamps, double n0,
                      const RefinedSettings& settings);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
