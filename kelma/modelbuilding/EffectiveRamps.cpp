#include "kelma/modelbuilding/EffectiveRamps.h"

#include <algorithm>

#include "kelma/modelbuilding/MonotoneCurve.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

InkCoordinates CoordinatesFromRamps(const GridLayout& grid, const std::vector<double>& ramps) {
    InkCoordinates c;
    c.cell.resize(grid.inks * 256);
    c.w.resize(grid.inks * 256);
    for (unsigned int i = 0; i < grid.inks; ++i) {
        const double* e = &ramps[i * 256];
        for (unsigned int t = 0; t < 256; ++t) {
            const unsigned int cell = grid.Cell(i, t);
            const double lo = e[grid.levels[i * grid.points + cell]];
            const double hi = e[grid.levels[i * grid.points + cell + 1]];
            c.cell[i * 256 + t] = cell;
            c.w[i * 256 + t] = hi != lo ? (e[t] - lo) / (hi - lo) : 0.0;
        }
    }
    return c;
}

std::vector<double> RampsFromCoordinates(const GridLayout& grid, const std::vector<LevelCoordinates>& points) {
    std::vector<double> ramps;
    for (unsigned int i = 0; i < grid.inks; ++i) {
        std::vector<double> x, y;
        for (unsigned int c = 0; c + 1 < grid.points; ++c) {
            const unsigned int lo = grid.levels[i * grid.points + c], hi = grid.levels[i * grid.points + c + 1];
            x.push_back(lo);
            y.push_back(lo / 255.0);
            std::vector<double> w, weight;
            std::vector<unsigned int> at;
            for (auto it = points[i].lower_bound(lo + 1); it != points[i].end() && it->first < hi; ++it) {
                at.push_back(it->first);
                w.push_back(std::min(1.0, std::max(0.0, it->second.first)));
                weight.push_back(it->second.second);
            }
            IsotonicRegression(w, weight);
            for (std::size_t k = 0; k < at.size(); ++k) {
                x.push_back(at[k]);
                y.push_back(lo / 255.0 + w[k] * (hi - lo) / 255.0);
            }
        }
        x.push_back(255.0);
        y.push_back(1.0);
        const std::vector<double> curve = MonotoneCurve(x, y, 256);
        ramps.insert(ramps.end(), curve.begin(), curve.end());
    }
    return ramps;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
