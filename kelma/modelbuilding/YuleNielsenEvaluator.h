// The cellular Yule-Nielsen model evaluated in double precision over the
// rows of a training set (internal): which cell corners each row can weigh,
// their Demichel weights under given local coordinates, predictions from node
// values, CIELAB residuals and CIEDE2000.
//
// Each row touches only the corners of its cell along the inks whose local
// coordinate can lie strictly inside (0, 1): an ink on a grid level sits on
// one corner (the lower one, or the upper one of the last cell at 255), so a
// row with k inks off the grid has 2^k corners, never more than 2^N. The
// corners are enumerated in ascending corner index (the matrix scheme's bit
// order), so their nodes ascend too.
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/modelbuilding/EffectiveRamps.h"
#include "kelma/modelbuilding/FitColorimetry.h"
#include "kelma/modelbuilding/TrainingData.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

struct CornerStructure {
    // Row r's active inks are activeCoordinate[activeStart[r] .. activeStart[r+1]),
    // each the coordinate index ink x 256 + level, ascending ink; its corners
    // are node[cornerStart[r] .. cornerStart[r+1]).
    std::vector<std::size_t> activeStart;
    std::vector<unsigned int> activeCoordinate;
    std::vector<std::size_t> cornerStart;
    std::vector<std::size_t> node;

    std::size_t Corners(std::size_t row) const { return cornerStart[row + 1] - cornerStart[row]; }
};

// Coordinate indices (ink x 256 + level) whose coordinate a fit changes.
using VariableCoordinates = std::vector<char>;  // N x 256, nonzero = variable
// The non-grid levels of every ink.
VariableCoordinates NonGridLevels(const GridLayout& grid);

// An ink of a row is active when its coordinate is variable or lies strictly
// inside (0, 1) under `coords`; otherwise it sits on the lower (w = 0) or the
// upper (w = 1) corner.
CornerStructure MakeCornerStructure(const GridLayout& grid, const TrainingSet& set, const InkCoordinates& coords,
                                    const VariableCoordinates& variable);

class YuleNielsenEvaluator {
public:
    YuleNielsenEvaluator(const GridLayout& grid, const TrainingSet& set, const Colorimeter& colorimeter,
                         CornerStructure structure);

    const GridLayout& Grid() const { return grid_; }
    const TrainingSet& Set() const { return set_; }
    const CornerStructure& Structure() const { return structure_; }

    // Corner weights of every row under `coords` (the structure's layout):
    // the product over active inks of w or 1 - w, ascending ink.
    void Demichel(const InkCoordinates& coords, std::vector<double>& weights) const;
    // Prediction of row r (31 reflectances) from node values (nodes x 31
    // Yule-Nielsen values); false when a weighted sum is not positive.
    bool Predict(std::size_t row, double n, const std::vector<double>& weights, const std::vector<double>& nodes,
                 double* spectrum) const;
    // 3 residuals per row: U (Lab_pred - Lab_meas), U the row's metric.
    // False when a prediction is undefined.
    bool Residuals(double n, const std::vector<double>& weights, const std::vector<double>& nodes,
                   double* residuals) const;
    // CIEDE2000 of every row. False when a prediction is undefined.
    bool DeltaE(double n, const std::vector<double>& weights, const std::vector<double>& nodes,
                std::vector<double>& deltaE) const;

private:
    const GridLayout& grid_;
    const TrainingSet& set_;
    const Colorimeter& colorimeter_;
    CornerStructure structure_;
};

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
