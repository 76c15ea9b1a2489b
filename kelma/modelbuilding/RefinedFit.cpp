#include "kelma/modelbuilding/RefinedFit.h"

#include <algorithm>
#include <cmath>

#include "kelma/modelbuilding/LevenbergMarquardt.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

RefinedFit FitRefined(const GridLayout& grid, const TrainingSet& set, const Colorimeter& colorimeter,
                      const NodePrior& prior, const std::vector<double>& startRamps, double n0,
                      const RefinedSettings& settings) {
    const unsigned int inks = grid.inks;
    // Parameters: the coordinate at every non-grid level a training row uses, then n.
    std::vector<std::pair<unsigned int, unsigned int>> params;  // (ink, level)
    std::vector<std::vector<double>> usage(inks, std::vector<double>(256, 0.0));
    for (std::size_t r = 0; r < set.Count(); ++r)
        for (unsigned int i = 0; i < inks; ++i) usage[i][set.Levels(r)[i]] += 1.0;
    for (unsigned int i = 0; i < inks; ++i)
        for (unsigned int t = 0; t < 256; ++t)
            if (usage[i][t] > 0.0 && grid.GridIndex(i, t) < 0) params.push_back({i, t});
    const InkCoordinates start = CoordinatesFromRamps(grid, startRamps);
    std::vector<double> x, lower, upper;
    for (const auto& p : params) {
        x.push_back(start.w[p.first * 256 + p.second]);
        lower.push_back(0.0);
        upper.push_back(1.0);
    }
    const bool fitN = settings.fitN;
    if (fitN) {
        x.push_back(n0);
        lower.push_back(settings.nMin);
        upper.push_back(settings.nMax);
    }
    const YuleNielsenEvaluator evaluator(grid, set, colorimeter,
                                        MakeCornerStructure(grid, set, start, NonGridLevels(grid)));
    const NodeLeastSquares prototype(grid, set, evaluator.Structure(), prior);

    // One scratch per Jacobian worker.
    struct Scratch {
        InkCoordinates coords;
        std::vector<double> weights, nodes;
        NodeLeastSquares solver;
    };
    const unsigned int threads = std::max(1u, std::min(CPUCount(), 8u));
    std::vector<Scratch> scratch;
    scratch.reserve(threads);
    for (unsigned int t = 0; t < threads; ++t) scratch.push_back(Scratch{start, {}, {}, prototype});
    auto evaluate = [&](const double* v, double* residuals, unsigned int slot) {
        Scratch& s = scratch[slot];
        for (std::size_t k = 0; k < params.size(); ++k) s.coords.w[params[k].first * 256 + params[k].second] = v[k];
        const double n = fitN ? v[params.size()] : n0;
        evaluator.Demichel(s.coords, s.weights);
        return s.solver.Solve(n, s.weights, s.nodes) && evaluator.Residuals(n, s.weights, s.nodes, residuals);
    };
    RefinedFit fit;
    fit.iterations =
        LevenbergMarquardt(evaluate, set.Count() * 3, x, lower, upper, settings.maxIterations, threads);
    fit.n = fitN ? x[params.size()] : n0;

    // Final ramps through the fitted coordinates, then the nodes once more.
    std::vector<LevelCoordinates> points(inks);
    for (std::size_t k = 0; k < params.size(); ++k)
        points[params[k].first][params[k].second] = {x[k], usage[params[k].first][params[k].second]};
    fit.ramps = RampsFromCoordinates(grid, points);
    Scratch& s = scratch[0];
    evaluator.Demichel(CoordinatesFromRamps(grid, fit.ramps), s.weights);
    if (!s.solver.Solve(fit.n, s.weights, fit.nodes)) Fail("the least-squares system of the node values is singular");
    const double floor = std::pow(kReflectanceFloor, 1.0 / fit.n);
    for (double& v : fit.nodes)
        if (!(v >= floor)) {
            v = floor;
            ++fit.clampedNodeValues;
        }
    return fit;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
