#include "kelma/modelbuilding/ZKCModelBuilder.h"

#include <algorithm>
#include <cmath>

#include "kelma/model/ModelValidation.h"
#include "kelma/modelbuilding/ClassicFit.h"
#include "kelma/modelbuilding/FineGridFit.h"
#include "kelma/modelbuilding/ModelAssembly.h"
#include "kelma/modelbuilding/NSearch.h"
#include "kelma/modelbuilding/NodeEstimation.h"
#include "kelma/modelbuilding/RefinedFit.h"

namespace KELMA_NAMESPACE {

using namespace modelbuilding;

namespace {

// Coordinates of straight ramps: 0 at every grid level, 1 at 255, inside
// (0, 1) elsewhere; what every fitted ramp gives at the grid levels.
InkCoordinates NominalCoordinates(const GridLayout& grid) {
    std::vector<double> ramps;
    for (unsigned int i = 0; i < grid.inks; ++i)
        for (unsigned int t = 0; t < 256; ++t) ramps.push_back(t / 255.0);
    return CoordinatesFromRamps(grid, ramps);
}

std::string MissingNodesText(const ZKSModelChart& chart, const ResolvedGrid& resolved, const GridLayout& grid,
                             const std::vector<std::size_t>& missing) {
    std::string text = "the chart lacks " + std::to_string(missing.size()) + " of the " +
                       std::to_string(grid.nodes) + " grid nodes (percent of ";
    for (unsigned int i = 0; i < grid.inks; ++i) text += (i ? ", " : "") + InkName(chart, i);
    text += "):";
    const std::size_t shown = std::min<std::size_t>(missing.size(), 20);
    for (std::size_t k = 0; k < shown; ++k) text += " " + NodeText(resolved, grid.inks, missing[k]);
    if (shown < missing.size()) text += " and " + std::to_string(missing.size() - shown) + " more";
    return text;
}

}  // namespace

ZKCModelBuilder::ZKCModelBuilder(const ZKSModelChart& chart) : chart_(chart), levels_(ChartDigitalLevels(chart)) {}

ZKCModelBuilder::~ZKCModelBuilder() = default;

ZKSBuiltModel ZKCModelBuilder::Build(const ZKSModelBuildOptions& options) const {
    if (!(options.nMin >= 1.0 && options.nMax >= options.nMin && std::isfinite(options.nMax)))
        Fail("the n range [" + Number(options.nMin) + ", " + Number(options.nMax) + "] is not a range within [1, inf)");
    if (!(options.fixedN >= 0.0) ||
        (options.fixedN > 0.0 && (options.fixedN < options.nMin || options.fixedN > options.nMax)))
        Fail("fixed n " + Number(options.fixedN) + " is outside [" + Number(options.nMin) + ", " +
             Number(options.nMax) + "]");
    if (options.method != MODELFIT_CLASSIC && options.method != MODELFIT_REFINED) Fail("unknown fit method");
    if (!(options.finePriorWeight >= 0.0 && std::isfinite(options.finePriorWeight)))
        Fail("the fine-grid prior weight " + Number(options.finePriorWeight) +
             " is not a number of patches >= 0 (0 chooses it)");
    if (options.finePriorWeight > 0.0 && options.fineBaseGridPercent.empty())
        Fail("a fine-grid prior weight needs the base grid of a fine-grid fit");
    std::vector<std::size_t> training = options.trainingPatches;
    if (training.empty()) {
        for (std::size_t p = 0; p < chart_.PatchCount(); ++p) training.push_back(p);
    } else {
        std::sort(training.begin(), training.end());
        training.erase(std::unique(training.begin(), training.end()), training.end());
        if (training.back() >= chart_.PatchCount())
            Fail("training patch " + std::to_string(training.back()) + " is outside the chart (" +
                 std::to_string(chart_.PatchCount()) + " patches)");
    }
    ZKSBuiltModel built =
        options.fineBaseGridPercent.empty() ? BuildDirect(options, training) : BuildFineGrid(options, training);
    // A model every reader accepts, or none: a chart can still lead to one
    // that no reader would take (a node estimated from a paper that reflects
    // almost nothing can predict a reflectance factor in the thousands).
    const ZKSPrinterModelArrays& m = built.model;
    const std::string problem =
        CheckModelArrays(m.numberOfInks, m.numberOfGridPoints, m.gridPointsF.data(), m.effectiveRampsF.data(),
                         m.matrixSchemeF.data(), m.matrixSchemeF.size(), static_cast<float>(m.n));
    if (!problem.empty()) Fail("the fitted model is not a usable model: " + problem);
    Finish(built);
    return built;
}

ZKSBuiltModel ZKCModelBuilder::BuildDirect(const ZKSModelBuildOptions& options,
                                           const std::vector<std::size_t>& training) const {
    const ResolvedGrid resolved = ResolveGrid(chart_, options.gridPercent, options.perInkGridPercent, "the grid");
    const GridLayout grid(chart_.numberOfInks, resolved);
    const Colorimeter colorimeter(D50Matrix());
    const TrainingSet set = MakeTrainingSet(chart_, levels_, training, colorimeter);

    // Nodes: measured, and estimated where missing.
    const NodeMeasurements measured = MeasureNodes(grid, set);
    std::vector<double> nodeSpectra = measured.spectra;
    NodePrior prior;
    if (!measured.missing.empty()) {
        if (!options.estimateMissingNodes) Fail(MissingNodesText(chart_, resolved, grid, measured.missing));
        const std::vector<double> coarsePercent =
            options.coarseGridPercent.empty() ? std::vector<double>{0.0, 100.0} : options.coarseGridPercent;
        const ResolvedGrid coarse = ResolveGrid(chart_, coarsePercent, {}, "the coarse grid");
        if (coarse.points < grid.points) {
            ZKSModelBuildOptions coarseOptions = options;
            coarseOptions.method = MODELFIT_CLASSIC;
            coarseOptions.gridPercent = coarsePercent;
            coarseOptions.perInkGridPercent.clear();
            coarseOptions.coarseGridPercent = coarsePercent;
            coarseOptions.fineBaseGridPercent.clear();
            ZKSBuiltModel coarseModel;
            try {
                coarseModel = BuildDirect(coarseOptions, training);
            } catch (const ZKCModelBuildingError& e) {
                Fail(std::string("estimating missing nodes from the coarse model: ") + e.what());
            }
            EstimateFromModel(coarseModel.model, grid, measured.missing, nodeSpectra);
        } else {
            EstimateByOverprint(grid, measured.missing, nodeSpectra, chart_, resolved);
        }
        // Each estimated node is a prior worth one patch in the refined fit.
        prior.weight.assign(grid.nodes, 0.0);
        prior.reflectance.resize(nodeSpectra.size());
        for (std::size_t k = 0; k < nodeSpectra.size(); ++k)
            prior.reflectance[k] = std::max(nodeSpectra[k], kReflectanceFloor);
        for (std::size_t node : measured.missing) prior.weight[node] = 1.0;
    }

    const std::vector<RampPatch> rampPatches = FindRampPatches(grid, set);
    CheckRampCoverage(grid, rampPatches, chart_, resolved);

    const YuleNielsenEvaluator evaluator(grid, set, colorimeter,
                                        MakeCornerStructure(grid, set, NominalCoordinates(grid), NonGridLevels(grid)));
    const ClassicInputs inputs{chart_, resolved, grid, nodeSpectra, rampPatches, evaluator};
    ZKSBuiltModel built;
    ClassicFit classic;
    if (options.fixedN > 0.0) {
        classic = FitClassic(inputs, options.fixedN);
        built.iterations = 1;
    } else {
        const NSearchResult search =
            SearchN([&](double n) { return FitClassic(inputs, n).meanDeltaE; }, options.nMin, options.nMax);
        classic = FitClassic(inputs, search.n);
        built.iterations = search.evaluations + 1;
    }
    CheckRampCoordinates(inputs, classic);

    std::vector<double> ramps = classic.ramps, nodes = classic.nodes;
    double n = classic.n;
    if (options.method == MODELFIT_REFINED) {
        RefinedSettings settings;
        settings.fitN = options.fitN;
        settings.nMin = options.nMin;
        settings.nMax = options.nMax;
        settings.maxIterations = options.maxIterations;
        RefinedFit refined = FitRefined(grid, set, colorimeter, prior, classic.ramps, classic.n, settings);
        ramps = std::move(refined.ramps);
        nodes = std::move(refined.nodes);
        n = refined.n;
        built.iterations = refined.iterations;
        built.clampedNodeValues = refined.clampedNodeValues;
    }
    built.method = options.method;
    built.trainingPatches = training;
    built.nodePatches = measured.nodePatches;
    for (const RampPatch& rp : rampPatches) built.rampPatches.push_back(set.patches[rp.row]);
    built.estimatedNodes = measured.missing;
    built.model = AssembleModel(grid, ramps, nodes, n);
    return built;
}

ZKSBuiltModel ZKCModelBuilder::BuildFineGrid(const ZKSModelBuildOptions& options,
                                             const std::vector<std::size_t>& training) const {
    const ResolvedGrid resolved = ResolveGrid(chart_, options.gridPercent, options.perInkGridPercent, "the grid");
    ResolveGrid(chart_, options.fineBaseGridPercent, {}, "the base grid");
    ZKSModelBuildOptions baseOptions = options;
    baseOptions.gridPercent = options.fineBaseGridPercent;
    baseOptions.perInkGridPercent.clear();
    baseOptions.fineBaseGridPercent.clear();
    baseOptions.finePriorWeight = 0.0;
    ZKSBuiltModel base;
    try {
        base = BuildDirect(baseOptions, training);
    } catch (const ZKCModelBuildingError& e) {
        Fail(std::string("the base model of the fine-grid fit: ") + e.what());
    }
    const GridLayout grid(chart_.numberOfInks, resolved);
    const Colorimeter colorimeter(D50Matrix());
    const TrainingSet set = MakeTrainingSet(chart_, levels_, training, colorimeter);
    const FineGridFit fine = FitFineGrid(base.model, grid, set, colorimeter, options.finePriorWeight);
    const NodeMeasurements measured = MeasureNodes(grid, set);

    ZKSBuiltModel built;
    built.method = options.method;
    built.trainingPatches = training;
    built.nodePatches = measured.nodePatches;
    built.rampPatches = base.rampPatches;
    built.estimatedNodes = measured.missing;
    built.iterations = base.iterations;
    built.clampedNodeValues = fine.clampedNodeValues;
    built.finePriorWeight = fine.priorWeight;
    built.model = AssembleModel(grid, base.model.effectiveRamps, fine.nodes, base.model.n);
    return built;
}

void ZKCModelBuilder::Finish(ZKSBuiltModel& built) const {
    built.trainingDeltaE = PredictionDeltaE00(built.model, chart_, built.trainingPatches);
    built.fitError = Summarize(built.trainingDeltaE);
}

ZKSValidationSplit ZKCModelBuilder::ValidationSplit(const std::vector<double>& gridPercent) const {
    const ResolvedGrid grid = ResolveGrid(chart_, gridPercent, {}, "the grid");
    return SplitByRecipe(levels_.data(), chart_.numberOfInks, chart_.PatchCount(), grid.points, grid.levels);
}

}  // namespace KELMA_NAMESPACE
