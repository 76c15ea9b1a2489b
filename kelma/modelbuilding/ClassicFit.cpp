#include "kelma/modelbuilding/ClassicFit.h"

#include <algorithm>
#include <cmath>

namespace KELMA_NAMESPACE {
namespace modelbuilding {

ClassicFit FitClassic(const ClassicInputs& in, double n) {
    const GridLayout& grid = in.grid;
    const TrainingSet& set = in.evaluator.Set();
    ClassicFit fit;
    fit.n = n;
    fit.nodes.resize(in.nodeSpectra.size());
    for (std::size_t k = 0; k < fit.nodes.size(); ++k)
        fit.nodes[k] = std::pow(std::max(in.nodeSpectra[k], kReflectanceFloor), 1.0 / n);
    // Closed-form coordinate of each ramp patch between its cell's nodes.
    std::vector<LevelCoordinates> points(grid.inks);
    for (const RampPatch& rp : in.rampPatches) {
        const double* ra = &fit.nodes[rp.cell * grid.stride[rp.ink] * kBands];
        const double* rb = &fit.nodes[(rp.cell + 1) * grid.stride[rp.ink] * kBands];
        double num = 0.0, den = 0.0;
        for (unsigned int w = 0; w < kBands; ++w) {
            const double y = std::pow(set.reflectance[rp.row * kBands + w], 1.0 / n);
            num += (y - ra[w]) * (rb[w] - ra[w]);
            den += (rb[w] - ra[w]) * (rb[w] - ra[w]);
        }
        if (!(den > 1e-12))
            Fail("ink " + InkName(in.chart, rp.ink) + ": the nodes at " +
                 Number(in.resolved.percent[rp.ink * grid.points + rp.cell]) + " % and " +
                 Number(in.resolved.percent[rp.ink * grid.points + rp.cell + 1]) +
                 " % (other inks at 0) have the same spectrum, so its ramp cannot be fitted between them");
        const double w = num / den;
        fit.rampCoordinates.push_back(w);
        auto& slot = points[rp.ink][rp.level];
        slot.first += std::min(1.0, std::max(0.0, w));
        slot.second += 1.0;
    }
    for (auto& ink : points)
        for (auto& p : ink) p.second.first /= p.second.second;
    fit.ramps = RampsFromCoordinates(grid, points);
    std::vector<double> weights, deltaE;
    in.evaluator.Demichel(CoordinatesFromRamps(grid, fit.ramps), weights);
    if (!in.evaluator.DeltaE(n, weights, fit.nodes, deltaE)) {
        fit.meanDeltaE = HUGE_VAL;
        return fit;
    }
    double sum = 0.0;
    for (double d : deltaE) sum += d;
    fit.meanDeltaE = deltaE.empty() ? 0.0 : sum / deltaE.size();
    return fit;
}

void CheckRampCoordinates(const ClassicInputs& in, const ClassicFit& fit) {
    const GridLayout& grid = in.grid;
    for (std::size_t k = 0; k < in.rampPatches.size(); ++k) {
        const double w = fit.rampCoordinates[k];
        if (w < -0.5 || w > 1.5) {
            const RampPatch& rp = in.rampPatches[k];
            Fail("ink " + InkName(in.chart, rp.ink) + ": single-ink patch " +
                 std::to_string(in.evaluator.Set().patches[rp.row]) + " (level " + std::to_string(rp.level) +
                 ") does not lie between the nodes at " + Number(in.resolved.percent[rp.ink * grid.points + rp.cell]) +
                 " % and " + Number(in.resolved.percent[rp.ink * grid.points + rp.cell + 1]) + " % (coordinate " +
                 Number(w) + "), so the ramp is unusable");
        }
    }
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
