#include "kelma/modelbuilding/FineGridFit.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "kelma/modelbuilding/ModelAssembly.h"
#include "kelma/modelbuilding/ValidationSplit.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

namespace {

// The rows of one set with their corner structure and weights under fixed coordinates.
struct Rows {
    TrainingSet set;
    std::unique_ptr<YuleNielsenEvaluator> evaluator;
    std::vector<double> weights;

    Rows(const GridLayout& grid, TrainingSet rows, const Colorimeter& colorimeter, const InkCoordinates& coords)
        : set(std::move(rows)) {
        const VariableCoordinates fixed(grid.inks * 256, 0);
        evaluator.reset(new YuleNielsenEvaluator(grid, set, colorimeter, MakeCornerStructure(grid, set, coords, fixed)));
        evaluator->Demichel(coords, weights);
    }
};

unsigned int Clamp(double n, std::vector<double>& nodes) {
    const double floor = std::pow(kReflectanceFloor, 1.0 / n);
    unsigned int clamped = 0;
    for (double& v : nodes)
        if (!(v >= floor)) {
            v = floor;
            ++clamped;
        }
    return clamped;
}

}  // namespace

std::vector<double> FinePriorCandidates() {
    std::vector<double> c;
    for (int e = -6; e <= 4; ++e) c.push_back(std::ldexp(1.0, e));
    return c;
}

FineGridFit FitFineGrid(const ZKSPrinterModelArrays& base, const GridLayout& fine, const TrainingSet& set,
                        const Colorimeter& colorimeter, double priorWeight) {
    const double n = base.n;
    const InkCoordinates coords = CoordinatesFromRamps(fine, base.effectiveRamps);
    NodePrior prior;
    prior.reflectance.resize(fine.nodes * kBands);
    std::vector<unsigned char> sample(fine.inks);
    for (std::size_t node = 0; node < fine.nodes; ++node) {
        fine.NodeLevels(node, sample.data());
        double* r = &prior.reflectance[node * kBands];
        PredictFromArrays(base, sample.data(), r);
        for (unsigned int w = 0; w < kBands; ++w) r[w] = std::max(r[w], kReflectanceFloor);
    }
    FineGridFit fit;
    if (priorWeight > 0.0) {
        fit.priorWeight = priorWeight;
    } else {
        const ZKSValidationSplit split = SplitByRecipe(set.levels.data(), set.inks, set.Count(), fine.points, fine.levels);
        fit.priorWeight = 1.0;
        if (!split.half[0].empty() && !split.half[1].empty()) {
            const std::vector<double> candidates = FinePriorCandidates();
            std::vector<double> sum(candidates.size(), 0.0);
            std::size_t tested = 0;
            for (unsigned int f = 0; f < 2; ++f) {
                const Rows train(fine, SubsetOf(set, split.Training(f)), colorimeter, coords);
                const Rows test(fine, SubsetOf(set, split.half[1 - f]), colorimeter, coords);
                NodeLeastSquares solver(fine, train.set, train.evaluator->Structure(), prior);
                std::vector<double> nodes, deltaE;
                for (std::size_t c = 0; c < candidates.size(); ++c) {
                    prior.weight.assign(fine.nodes, candidates[c]);
                    if (!solver.Solve(n, train.weights, nodes)) Fail("the fine-grid node system is singular");
                    Clamp(n, nodes);
                    if (!test.evaluator->DeltaE(n, test.weights, nodes, deltaE)) {
                        sum[c] = HUGE_VAL;
                        continue;
                    }
                    for (double d : deltaE) sum[c] += d;
                }
                tested += test.set.Count();
            }
            std::size_t best = candidates.size() - 1;
            for (std::size_t c = candidates.size(); c-- > 0;)
                if (sum[c] < sum[best]) best = c;
            fit.priorWeight = candidates[best];
            for (double s : sum) fit.candidateMeanDeltaE.push_back(s / tested);
        }
    }
    prior.weight.assign(fine.nodes, fit.priorWeight);
    const VariableCoordinates fixed(fine.inks * 256, 0);
    const YuleNielsenEvaluator evaluator(fine, set, colorimeter, MakeCornerStructure(fine, set, coords, fixed));
    std::vector<double> weights;
    evaluator.Demichel(coords, weights);
    NodeLeastSquares solver(fine, set, evaluator.Structure(), prior);
    if (!solver.Solve(n, weights, fit.nodes)) Fail("the fine-grid node system is singular");
    fit.clampedNodeValues = Clamp(n, fit.nodes);
    return fit;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
