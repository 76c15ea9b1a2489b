#include "kelma/modelbuilding/YuleNielsenEvaluator.h"

#include <cmath>
#include <utility>

#include "kelma/colorimetry/CIEDE2000.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

VariableCoordinates NonGridLevels(const GridLayout& grid) {
    VariableCoordinates variable(grid.inks * 256, 0);
    for (unsigned int i = 0; i < grid.inks; ++i)
        for (unsigned int t = 0; t < 256; ++t) variable[i * 256 + t] = grid.GridIndex(i, t) < 0;
    return variable;
}

CornerStructure MakeCornerStructure(const GridLayout& grid, const TrainingSet& set, const InkCoordinates& coords,
                                    const VariableCoordinates& variable) {
    CornerStructure s;
    s.activeStart.push_back(0);
    s.cornerStart.push_back(0);
    std::vector<std::size_t> activeStride;
    for (std::size_t r = 0; r < set.Count(); ++r) {
        const unsigned char* lv = set.Levels(r);
        std::size_t base = 0;
        activeStride.clear();
        for (unsigned int i = 0; i < grid.inks; ++i) {
            const unsigned int e = i * 256 + lv[i];
            const double w = coords.w[e];
            base += coords.cell[e] * grid.stride[i];
            if (variable[e] || (w != 0.0 && w != 1.0)) {
                s.activeCoordinate.push_back(e);
                activeStride.push_back(grid.stride[i]);
            } else if (w == 1.0) {
                base += grid.stride[i];
            }
        }
        s.activeStart.push_back(s.activeCoordinate.size());
        const std::size_t corners = std::size_t{1} << activeStride.size();
        for (std::size_t k = 0; k < corners; ++k) {
            std::size_t node = base;
            for (std::size_t j = 0; j < activeStride.size(); ++j)
                if (k & (std::size_t{1} << j)) node += activeStride[j];
            s.node.push_back(node);
        }
        s.cornerStart.push_back(s.node.size());
    }
    return s;
}

YuleNielsenEvaluator::YuleNielsenEvaluator(const GridLayout& grid, const TrainingSet& set,
                                           const Colorimeter& colorimeter, CornerStructure structure)
    : grid_(grid), set_(set), colorimeter_(colorimeter), structure_(std::move(structure)) {}

void YuleNielsenEvaluator::Demichel(const InkCoordinates& coords, std::vector<double>& weights) const {
    weights.resize(structure_.node.size());
    for (std::size_t r = 0; r < set_.Count(); ++r) {
        double* d = &weights[structure_.cornerStart[r]];
        d[0] = 1.0;
        std::size_t half = 1;
        for (std::size_t a = structure_.activeStart[r]; a < structure_.activeStart[r + 1]; ++a, half <<= 1) {
            const double w = coords.w[structure_.activeCoordinate[a]];
            for (std::size_t k = 0; k < half; ++k) {
                d[k + half] = d[k] * w;
                d[k] *= 1.0 - w;
            }
        }
    }
}

bool YuleNielsenEvaluator::Predict(std::size_t row, double n, const std::vector<double>& weights,
                                   const std::vector<double>& nodes, double* spectrum) const {
    double s[kBands] = {};
    for (std::size_t c = structure_.cornerStart[row]; c < structure_.cornerStart[row + 1]; ++c) {
        const double d = weights[c];
        if (d == 0.0) continue;
        const double* r = &nodes[structure_.node[c] * kBands];
        for (unsigned int w = 0; w < kBands; ++w) s[w] += d * r[w];
    }
    for (unsigned int w = 0; w < kBands; ++w) {
        if (!(s[w] > 0.0)) return false;
        spectrum[w] = std::pow(s[w], n);
    }
    return true;
}

bool YuleNielsenEvaluator::Residuals(double n, const std::vector<double>& weights, const std::vector<double>& nodes,
                                     double* residuals) const {
    double spectrum[kBands], lab[3];
    for (std::size_t p = 0; p < set_.Count(); ++p) {
        if (!Predict(p, n, weights, nodes, spectrum)) return false;
        colorimeter_.Lab(spectrum, lab);
        const double* u = &set_.metric[p * 9];
        const double* ref = &set_.lab[p * 3];
        const double d[3] = {lab[0] - ref[0], lab[1] - ref[1], lab[2] - ref[2]};
        for (int r = 0; r < 3; ++r) residuals[p * 3 + r] = u[r * 3] * d[0] + u[r * 3 + 1] * d[1] + u[r * 3 + 2] * d[2];
    }
    return true;
}

bool YuleNielsenEvaluator::DeltaE(double n, const std::vector<double>& weights, const std::vector<double>& nodes,
                                  std::vector<double>& deltaE) const {
    deltaE.resize(set_.Count());
    double spectrum[kBands], lab[3];
    for (std::size_t p = 0; p < set_.Count(); ++p) {
        if (!Predict(p, n, weights, nodes, spectrum)) return false;
        colorimeter_.Lab(spectrum, lab);
        deltaE[p] = DeltaE2000(&set_.lab[p * 3], lab);
    }
    return true;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
