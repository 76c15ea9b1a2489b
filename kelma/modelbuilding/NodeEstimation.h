// Node estimation (stage, internal): spectra for grid nodes the training
// patches do not measure.
//
// From a model: the double-precision prediction of a model fitted on a
// coarser grid (PredictFromArrays) at the node's levels.
//
// Overprint rule: where no coarser model exists (a grid of 2 levels, or the
// coarse model's own missing nodes), a node's spectrum is estimated from the
// nodes below it. Let S be the inks a node holds (grid index above 0) and
// g_U, for U a subset of S, the node with the inks of U at their levels and
// the others at 0. In the log domain the node is the sum of the interactions
// of its ink subsets, and the rule sets its own highest-order interaction to
// zero:
//
//   log R(g_S) = sum over proper subsets U of S of (-1)^(|S| - |U| + 1) log R(g_U)
//
// (two inks: R_ab = R_a R_b / R_paper, the overprint of transmissions; three:
// the pairwise overprints corrected by the singles). Nodes are estimated in
// order of |S|, so every g_U is measured or already estimated. The paper and
// every single-ink node must be measured. Results are raised to
// kReflectanceFloor. On the APTEC PC10 chart (CMYK) the rule is rough for
// solid overprints (several CIEDE2000): it fills gaps a chart leaves, it
// does not replace measured overprints.
#pragma once

#include <vector>

#include "kelma/modelbuilding/PrinterModelArrays.h"
#include "kelma/modelbuilding/TrainingData.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Fills nodeSpectra (nodes x 31) at `missing` from the model's prediction.
void EstimateFromModel(const ZKSPrinterModelArrays& model, const GridLayout& grid,
                       const std::vector<std::size_t>& missing, std::vector<double>& nodeSpectra);

// Fills nodeSpectra at `missing` by the overprint rule. Fails, naming the
// node, when the paper or a single-ink node is missing.
void EstimateByOverprint(const GridLayout& grid, const std::vector<std::size_t>& missing,
                         std::vector<double>& nodeSpectra, const ZKSModelChart& chart, const ResolvedGrid& resolved);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
