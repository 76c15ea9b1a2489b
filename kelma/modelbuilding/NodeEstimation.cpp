#include "kelma/modelbuilding/NodeEstimation.h"

#include <algorithm>
#include <cmath>

#include "kelma/modelbuilding/ModelAssembly.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

void EstimateFromModel(const ZKSPrinterModelArrays& model, const GridLayout& grid,
                       const std::vector<std::size_t>& missing, std::vector<double>& nodeSpectra) {
    std::vector<unsigned char> sample(grid.inks);
    for (std::size_t node : missing) {
        grid.NodeLevels(node, sample.data());
        PredictFromArrays(model, sample.data(), &nodeSpectra[node * kBands]);
    }
}

void EstimateByOverprint(const GridLayout& grid, const std::vector<std::size_t>& missing,
                         std::vector<double>& nodeSpectra, const ZKSModelChart& chart, const ResolvedGrid& resolved) {
    // Inks a node holds, as (ink, its node offset).
    auto held = [&](std::size_t node) {
        std::vector<std::pair<unsigned int, std::size_t>> s;
        for (unsigned int i = 0; i < grid.inks; ++i) {
            const unsigned int g = grid.NodeIndex(node, i);
            if (g > 0) s.push_back({i, g * grid.stride[i]});
        }
        return s;
    };
    std::vector<std::size_t> order(missing);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return held(a).size() < held(b).size(); });
    for (std::size_t node : order) {
        const auto inks = held(node);
        if (inks.size() < 2) {
            const std::string text = NodeText(resolved, grid.inks, node);
            if (inks.empty()) Fail("the chart has no paper patch (all inks at 0), so missing nodes cannot be estimated");
            Fail("the chart has no patch of " + InkName(chart, inks[0].first) + " alone at its grid node " + text +
                 ", so missing nodes with it cannot be estimated");
        }
        const std::size_t subsets = std::size_t{1} << inks.size();
        double log[kBands] = {};
        for (std::size_t u = 0; u + 1 < subsets; ++u) {
            std::size_t sub = 0;
            unsigned int size = 0;
            for (std::size_t j = 0; j < inks.size(); ++j)
                if (u & (std::size_t{1} << j)) {
                    sub += inks[j].second;
                    ++size;
                }
            const double sign = (inks.size() - size) % 2 == 1 ? 1.0 : -1.0;
            for (unsigned int w = 0; w < kBands; ++w)
                log[w] += sign * std::log(std::max(nodeSpectra[sub * kBands + w], kReflectanceFloor));
        }
        for (unsigned int w = 0; w < kBands; ++w)
            nodeSpectra[node * kBands + w] = std::max(std::exp(log[w]), kReflectanceFloor);
    }
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
