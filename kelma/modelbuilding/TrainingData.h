// Training data of a fit (stage, internal): the chart's training patches as
// rows with their levels, floored reflectances and measured CIELAB; the node
// measurements of a grid (averaged duplicates); and the single-ink patches
// the ramps are fitted from.
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/modelbuilding/FitColorimetry.h"
#include "kelma/modelbuilding/GridResolution.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

struct TrainingSet {
    unsigned int inks = 0;
    std::vector<std::size_t> patches;   // chart index of each row
    std::vector<unsigned char> levels;  // rows x N digital levels
    std::vector<double> reflectance;    // rows x 31, at least kReflectanceFloor
    std::vector<double> lab;            // rows x 3, CIELAB of the floored reflectance
    std::vector<double> metric;         // rows x 9: DeltaE00Metric at lab

    std::size_t Count() const { return patches.size(); }
    const unsigned char* Levels(std::size_t row) const { return &levels[row * inks]; }
};

// Rows of the given chart patches, in the given order. chartLevels: the
// chart's ChartDigitalLevels.
TrainingSet MakeTrainingSet(const ZKSModelChart& chart, const std::vector<unsigned char>& chartLevels,
                            const std::vector<std::size_t>& patches, const Colorimeter& colorimeter);
// The given rows of a set, in the given order.
TrainingSet SubsetOf(const TrainingSet& set, const std::vector<std::size_t>& rows);

// Rows whose every ink is on a grid level measure a node; duplicates are
// averaged (floored reflectances).
struct NodeMeasurements {
    std::vector<double> spectra;           // nodes x 31; 0 for a node without patch
    std::vector<unsigned int> count;       // patches per node
    std::vector<std::size_t> nodePatches;  // chart indices of the node patches, in row order
    std::vector<std::size_t> missing;      // nodes without patch, ascending
};
NodeMeasurements MeasureNodes(const GridLayout& grid, const TrainingSet& set);

// A single-ink row (all other inks at 0) at a non-grid level: a point of
// that ink's effective ramp inside `cell`.
struct RampPatch {
    std::size_t row;
    unsigned int ink, cell, level;
};
std::vector<RampPatch> FindRampPatches(const GridLayout& grid, const TrainingSet& set);
// Fails, naming the ink and the cell in percent, when a cell of an ink holds
// no ramp patch.
void CheckRampCoverage(const GridLayout& grid, const std::vector<RampPatch>& ramps, const ZKSModelChart& chart,
                       const ResolvedGrid& resolved);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
