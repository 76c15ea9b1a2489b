#include "kelma/modelbuilding/TrainingData.h"

#include <algorithm>

namespace KELMA_NAMESPACE {
namespace modelbuilding {

TrainingSet MakeTrainingSet(const ZKSModelChart& chart, const std::vector<unsigned char>& chartLevels,
                            const std::vector<std::size_t>& patches, const Colorimeter& colorimeter) {
    const unsigned int inks = chart.numberOfInks;
    TrainingSet set;
    set.inks = inks;
    set.patches = patches;
    set.levels.reserve(patches.size() * inks);
    set.reflectance.reserve(patches.size() * kBands);
    for (std::size_t p : patches) {
        set.levels.insert(set.levels.end(), &chartLevels[p * inks], &chartLevels[p * inks] + inks);
        for (unsigned int w = 0; w < kBands; ++w)
            set.reflectance.push_back(std::max(chart.spectra[p * kBands + w], kReflectanceFloor));
    }
    set.lab.resize(patches.size() * 3);
    set.metric.resize(patches.size() * 9);
    for (std::size_t r = 0; r < patches.size(); ++r) {
        colorimeter.Lab(&set.reflectance[r * kBands], &set.lab[r * 3]);
        DeltaE00Metric(&set.lab[r * 3], &set.metric[r * 9]);
    }
    return set;
}

TrainingSet SubsetOf(const TrainingSet& set, const std::vector<std::size_t>& rows) {
    TrainingSet sub;
    sub.inks = set.inks;
    for (std::size_t r : rows) {
        sub.patches.push_back(set.patches[r]);
        sub.levels.insert(sub.levels.end(), set.Levels(r), set.Levels(r) + set.inks);
        sub.reflectance.insert(sub.reflectance.end(), &set.reflectance[r * kBands], &set.reflectance[r * kBands] + kBands);
        sub.lab.insert(sub.lab.end(), &set.lab[r * 3], &set.lab[r * 3] + 3);
        sub.metric.insert(sub.metric.end(), &set.metric[r * 9], &set.metric[r * 9] + 9);
    }
    return sub;
}

NodeMeasurements MeasureNodes(const GridLayout& grid, const TrainingSet& set) {
    NodeMeasurements m;
    m.spectra.assign(grid.nodes * kBands, 0.0);
    m.count.assign(grid.nodes, 0);
    for (std::size_t r = 0; r < set.Count(); ++r) {
        std::size_t node = 0;
        bool onGrid = true;
        for (unsigned int i = 0; i < grid.inks && onGrid; ++i) {
            const int g = grid.GridIndex(i, set.Levels(r)[i]);
            onGrid = g >= 0;
            node += onGrid ? g * grid.stride[i] : 0;
        }
        if (!onGrid) continue;
        m.nodePatches.push_back(set.patches[r]);
        for (unsigned int w = 0; w < kBands; ++w) m.spectra[node * kBands + w] += set.reflectance[r * kBands + w];
        ++m.count[node];
    }
    for (std::size_t node = 0; node < grid.nodes; ++node) {
        if (m.count[node] == 0) {
            m.missing.push_back(node);
            continue;
        }
        for (unsigned int w = 0; w < kBands; ++w) m.spectra[node * kBands + w] /= m.count[node];
    }
    return m;
}

std::vector<RampPatch> FindRampPatches(const GridLayout& grid, const TrainingSet& set) {
    std::vector<RampPatch> ramps;
    for (std::size_t r = 0; r < set.Count(); ++r) {
        const unsigned char* lv = set.Levels(r);
        unsigned int inked = 0, ink = 0;
        for (unsigned int i = 0; i < grid.inks; ++i)
            if (lv[i] != 0) {
                ++inked;
                ink = i;
            }
        if (inked != 1 || grid.GridIndex(ink, lv[ink]) >= 0) continue;
        ramps.push_back({r, ink, grid.Cell(ink, lv[ink]), lv[ink]});
    }
    return ramps;
}

void CheckRampCoverage(const GridLayout& grid, const std::vector<RampPatch>& ramps, const ZKSModelChart& chart,
                       const ResolvedGrid& resolved) {
    std::vector<unsigned int> perCell(grid.inks * (grid.points - 1), 0);
    for (const RampPatch& rp : ramps) ++perCell[rp.ink * (grid.points - 1) + rp.cell];
    for (unsigned int i = 0; i < grid.inks; ++i)
        for (unsigned int c = 0; c + 1 < grid.points; ++c)
            if (perCell[i * (grid.points - 1) + c] == 0)
                Fail("ink " + InkName(chart, i) + " has no single-ink patch (other inks at 0) between " +
                     Number(resolved.percent[i * grid.points + c]) + " % and " +
                     Number(resolved.percent[i * grid.points + c + 1]) +
                     " %, so its effective ramp cannot be fitted there");
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
