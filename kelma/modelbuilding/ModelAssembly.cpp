#include "kelma/modelbuilding/ModelAssembly.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kelma/modelbuilding/FitColorimetry.h"
#include "kelma/modelbuilding/MoebiusTransform.h"

namespace KELMA_NAMESPACE {

namespace modelbuilding {

std::vector<double> SchemeFromNodes(const GridLayout& grid, const std::vector<double>& nodes) {
    const unsigned int n = grid.inks;
    const std::size_t corners = std::size_t{1} << n;
    const std::size_t cells = IntPower(grid.points - 1, n);
    std::vector<double> scheme(cells * kBands * corners);
    std::vector<double> block(corners);
    for (std::size_t q = 0; q < cells; ++q) {
        std::size_t rest = q, base = 0;
        for (unsigned int i = 0; i < n; ++i) {
            base += (rest % (grid.points - 1)) * grid.stride[i];
            rest /= grid.points - 1;
        }
        for (unsigned int w = 0; w < kBands; ++w) {
            for (std::size_t k = 0; k < corners; ++k) block[k] = nodes[(base + grid.cornerOffset[k]) * kBands + w];
            MoebiusInvert(block.data(), n);
            std::copy(block.begin(), block.end(), scheme.begin() + (q * kBands + w) * corners);
        }
    }
    return scheme;
}

ZKSPrinterModelArrays AssembleModel(const GridLayout& grid, const std::vector<double>& ramps,
                                    const std::vector<double>& nodes, double n) {
    ZKSPrinterModelArrays model;
    model.numberOfInks = grid.inks;
    model.numberOfGridPoints = grid.points;
    model.gridPoints.assign(grid.levels.begin(), grid.levels.end());
    model.effectiveRamps = ramps;
    model.matrixScheme = SchemeFromNodes(grid, nodes);
    model.n = n;
    model.UpdateFloatArrays();
    return model;
}

void PredictFromArrays(const ZKSPrinterModelArrays& model, const unsigned char* sample, double* spectrum) {
    const unsigned int n = model.numberOfInks, g = model.numberOfGridPoints;
    const std::size_t corners = std::size_t{1} << n;
    std::size_t q = 0;
    std::vector<double> w(n);
    for (unsigned int i = 0; i < n; ++i) {
        const double* grid = &model.gridPoints[i * g];
        const double* ramp = &model.effectiveRamps[i * 256];
        unsigned int c = 0;
        while (c + 2 < g && grid[c + 1] <= sample[i]) ++c;
        const double lo = ramp[static_cast<int>(grid[c])], hi = ramp[static_cast<int>(grid[c + 1])];
        w[i] = hi != lo ? (ramp[sample[i]] - lo) / (hi - lo) : 0.0;
        q += c * IntPower(g - 1, i);
    }
    const double* block = &model.matrixScheme[q * kBands * corners];
    for (unsigned int b = 0; b < kBands; ++b) {
        double s = 0.0;
        for (std::size_t k = 0; k < corners; ++k) {
            double monomial = 1.0;
            for (unsigned int i = 0; i < n; ++i)
                if (k & (std::size_t{1} << i)) monomial *= w[i];
            s += block[b * corners + k] * monomial;
        }
        spectrum[b] = s > 0.0 ? std::pow(s, model.n) : std::numeric_limits<double>::quiet_NaN();
    }
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
