// Effective ramps and the local coordinates they give (internal): per ink
// and digital level, the cell and the position in it that the library's
// lookup table computes, and the monotone ramp through fitted coordinates.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "kelma/modelbuilding/GridResolution.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Cell and local coordinate in [0, 1] of every (ink, digital level), N x 256.
struct InkCoordinates {
    std::vector<unsigned int> cell;
    std::vector<double> w;
};

// From effective ramps (N x 256): w = (E[t] - E[lower]) / (E[upper] - E[lower]);
// a flat cell gives 0, as the library's lookup table.
InkCoordinates CoordinatesFromRamps(const GridLayout& grid, const std::vector<double>& ramps);

// Fitted coordinates of one ink: level -> (coordinate, weight).
using LevelCoordinates = std::map<unsigned int, std::pair<double, double>>;

// Effective ramps (N x 256) from local coordinates at non-grid levels: per
// cell clamped to [0, 1] and made non-decreasing (isotonic regression with
// the weights), nominal coverage level/255 at the grid levels, the monotone
// cubic in between. Coordinates at grid levels are ignored.
std::vector<double> RampsFromCoordinates(const GridLayout& grid, const std::vector<LevelCoordinates>& points);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
