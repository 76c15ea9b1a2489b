// The fine-grid fit (stage, internal): the nodes of a grid finer than a
// fitted base model, where the chart measures few of them.
//
// The base model's effective ramps and n are kept; the fine grid's local
// coordinates come from those ramps, so wherever the fine nodes equal the
// base model's prediction the fine model predicts exactly what the base
// model does (when the fine levels include the base levels). The fine nodes
// are the regularised least-squares solution (NodeLeastSquares) over all
// training rows with a prior on every node: the base model's prediction at
// the node, weighing `priorWeight` patches. A node the training rows pin
// down follows them; a node few rows touch stays near the base model, so a
// finer grid does not fit the noise of a thin chart.
//
// The prior weight, when not given (0), is chosen from the training rows
// alone by an inner two-fold cross-validation: the rows are split by the
// library's split on the fine grid (SplitByRecipe: rows on fine nodes in
// both folds, the others alternately by recipe), each candidate weight in
// 1/64, 1/32, ..., 16 fits one half and is judged by the mean CIEDE2000 on
// the other (both ways), and the lowest mean wins (the larger weight on a
// tie). When either half is empty the weight is 1 (one patch per node). The
// base model has seen every training row, so the inner folds lean towards
// trusting it, never towards the test patches of an outer validation.
#pragma once

#include <vector>

#include "kelma/modelbuilding/NodeLeastSquares.h"
#include "kelma/modelbuilding/PrinterModelArrays.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Candidate prior weights of the automatic choice, ascending.
std::vector<double> FinePriorCandidates();

struct FineGridFit {
    std::vector<double> nodes;  // nodes x 31 Yule-Nielsen values (with the base model's n)
    double priorWeight = 0.0;   // the weight used
    std::vector<double> candidateMeanDeltaE;  // inner cross-validation per candidate (automatic choice only)
    unsigned int clampedNodeValues = 0;
};

// priorWeight > 0: that weight; 0: the automatic choice. Fails when the node
// system is singular (it cannot be with a positive prior).
FineGridFit FitFineGrid(const ZKSPrinterModelArrays& base, const GridLayout& fine, const TrainingSet& set,
                        const Colorimeter& colorimeter, double priorWeight);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
