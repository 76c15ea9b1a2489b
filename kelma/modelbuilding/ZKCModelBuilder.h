// Builds a cellular Yule-Nielsen modified spectral Neugebauer printer model
// (the arrays ZKCSSE_KELMA_Data takes) from a measured characterisation chart
// of 4, 6 or 7 inks: device values per patch in percent and reflectance
// spectra on the library's 31-point grid.
//
// A build runs stages with inputs and results of their own (internal
// headers next to this one), in this order:
//   chart import       ChartImport.h       checked chart, digital levels
//   grid resolution    GridResolution.h    grid levels, node numbering
//   training data      TrainingData.h      rows, node measurements, ramp patches
//   node estimation    NodeEstimation.h    spectra of nodes the chart lacks
//   classic fit        ClassicFit.h        ramps and nodes at one n
//   n search           NSearch.h           the n of the classic fit
//   refined fit        RefinedFit.h        least-squares nodes, fitted ramps and n
//   fine-grid fit      FineGridFit.h       nodes of a finer grid toward a base model
//   validation         ValidationSplit.h   the split, CIEDE2000 of a model
//
// Grid. The caller names G grid levels per ink in percent (first 0, last 100);
// a percentage p becomes the digital level DigitalLevel(p) (40 % -> 102).
// Every node of the G^N grid must be measured by a training patch (duplicates
// are averaged); otherwise the build fails with a list of the missing ink
// combinations, unless missing nodes are to be estimated: from a classic
// model on coarseGridPercent fitted to the same training patches, and, where
// that grid is not coarser (or for the coarse model's own missing nodes), by
// the overprint rule of NodeEstimation.h. Estimated nodes enter the refined
// fit as a prior worth one patch each.
//
// Classic fit: measured node spectra, ramps from single-ink patches, n that
// minimises the mean CIEDE2000 of the training patches (ClassicFit.h, NSearch.h).
// Refined fit: least-squares nodes, then coordinates and n by
// Levenberg-Marquardt on CIEDE2000 (RefinedFit.h). Starts from the classic fit.
//
// Fine-grid fit (fineBaseGridPercent given): the model is first built by
// `method` on the base grid, then the nodes of the (finer) grid are fitted by
// regularised least squares toward the base model's prediction, keeping its
// ramps and n (FineGridFit.h). Only the base grid's nodes must be measured.
// The prior weighs finePriorWeight patches per node, or is chosen from the
// training patches alone by an inner cross-validation (0, the default).
//
// Colorimetry of the fit: D50, CIE 1931 2 degree (the library's lighting
// matrix), CIELAB relative to the illuminant white (XYZToCIELAB), CIEDE2000
// (DeltaE2000).
//
// Positivity: every prediction is (weighted sum)^n with Demichel weights in
// [0, 1] summing to 1, i.e. a convex combination of node values; a node value
// <= 0 could give NaN. Measured reflectances below 1e-4 are raised to 1e-4
// before the 1/n power, and least-squares node values below 1e-4^(1/n) are
// raised to it (counted in ZKSBuiltModel::clampedNodeValues), so every sum
// the model can form is positive.
//
// Cost: the refined fit solves the sparse node system once per evaluation,
// about (parameters + 1) evaluations per iteration; a row couples the 2^k
// nodes of its cell along its k inks off the grid. CMYK on 3 levels takes
// well under a second; 7 inks on 3 levels (2187 nodes) from a chart of about
// 3000 patches whose rows hold few inks off the grid take seconds
// (bench/bench_modelbuilding.cpp).
//
// Failures (a chart or option the builder cannot use) throw
// ZKCModelBuildingError with a message naming the problem. Build is const:
// one builder may run several builds at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kelma/evaluation/Statistics.h"
#include "kelma/modelbuilding/ChartImport.h"
#include "kelma/modelbuilding/PrinterModelArrays.h"
#include "kelma/modelbuilding/ValidationSplit.h"
#include "kelma/modelbuilding/ZKCModelBuildingError.h"

namespace KELMA_NAMESPACE {

enum MODELFIT_METHOD : std::uint32_t {
    MODELFIT_CLASSIC = 0,
    MODELFIT_REFINED = 1,
};

struct KELMA_API ZKSModelBuildOptions {
    // G levels in percent, used for every ink...
    std::vector<double> gridPercent;
    // ...unless per-ink levels are given: N x G, ink-major.
    std::vector<double> perInkGridPercent;
    MODELFIT_METHOD method = MODELFIT_REFINED;
    // Patches the model is fitted to (indices into the chart); empty = all.
    std::vector<std::size_t> trainingPatches;
    // n > 0: use this n (classic fit: no search; refined fit: start value,
    // still fitted unless fitN is false). 0: search n in [nMin, nMax].
    double fixedN = 0.0;
    bool fitN = true;
    double nMin = 1.0;
    double nMax = 10.0;
    // Missing grid nodes: estimated (from a classic model on
    // coarseGridPercent, levels for every ink, empty = {0, 100}; by the
    // overprint rule where that grid is not coarser than the grid) instead of
    // failing.
    bool estimateMissingNodes = false;
    std::vector<double> coarseGridPercent;
    // Levenberg-Marquardt iterations of the refined fit.
    unsigned int maxIterations = 100;
    // Fine-grid fit: levels for every ink of the base model (empty = fit the
    // grid directly), and the prior's weight in patches per node (0 = chosen
    // from the training patches).
    std::vector<double> fineBaseGridPercent;
    double finePriorWeight = 0.0;
};

struct KELMA_API ZKSBuiltModel {
    ZKSPrinterModelArrays model;
    MODELFIT_METHOD method = MODELFIT_CLASSIC;
    // Training patches (sorted, distinct) and, among them, those that gave
    // node spectra and the single-ink patches that gave the classic ramps.
    std::vector<std::size_t> trainingPatches;
    std::vector<std::size_t> nodePatches;
    std::vector<std::size_t> rampPatches;
    // Node indices (sum_i g_i G^i) no training patch measures: estimated
    // (direct fit) or resting on the prior and the patches around them
    // (fine-grid fit).
    std::vector<std::size_t> estimatedNodes;
    // CIEDE2000 of each training patch (same order as trainingPatches) as the
    // library's prediction driver predicts it, and their summary.
    std::vector<double> trainingDeltaE;
    ZKSStatistics fitError;
    // n-search evaluations (classic) or Levenberg-Marquardt iterations
    // (refined); of the base model in a fine-grid fit.
    unsigned int iterations = 0;
    unsigned int clampedNodeValues = 0;
    // The fine-grid fit's prior weight (patches per node); 0 for a direct fit.
    double finePriorWeight = 0.0;
};

class KELMA_API ZKCModelBuilder {
public:
    // Checks the chart (ChartDigitalLevels) and keeps a copy.
    explicit ZKCModelBuilder(const ZKSModelChart& chart);
    virtual ~ZKCModelBuilder();

    ZKSBuiltModel Build(const ZKSModelBuildOptions& options) const;

    const ZKSModelChart& Chart() const { return chart_; }
    // Digital level of every (patch, ink), patch-major.
    const std::vector<unsigned char>& DigitalLevels() const { return levels_; }
    // The library's split (ZKSValidationSplit) for grid levels `gridPercent` (every ink).
    ZKSValidationSplit ValidationSplit(const std::vector<double>& gridPercent) const;

private:
    ZKSBuiltModel BuildDirect(const ZKSModelBuildOptions& options, const std::vector<std::size_t>& training) const;
    ZKSBuiltModel BuildFineGrid(const ZKSModelBuildOptions& options, const std::vector<std::size_t>& training) const;
    void Finish(ZKSBuiltModel& built) const;

    ZKSModelChart chart_;
    std::vector<unsigned char> levels_;
};

}  // namespace KELMA_NAMESPACE
