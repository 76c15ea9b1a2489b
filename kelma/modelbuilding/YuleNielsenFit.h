// The fitting engine of the model builder (internal): a cellular Yule-Nielsen
// model evaluated in double precision over a set of training patches, the
// linear least-squares solve of the node values, and Levenberg-Marquardt.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

constexpr unsigned int kBands = 31;
// Reflectances below this are raised to it before the 1/n power.
constexpr double kReflectanceFloor = 1e-4;

// The G^N node grid: node index sum_i g_i G^i (ink 0 fastest), as the cell
// numbering of the matrix scheme.
struct GridLayout {
    unsigned int inks = 0;
    unsigned int points = 0;           // G
    std::vector<unsigned int> levels;  // N x G digital levels, ascending, 0 .. 255
    std::size_t nodes = 0;             // G^N
    std::vector<std::size_t> stride;   // G^i
    std::vector<std::size_t> cornerOffset;  // node offset of corner k: sum over bits i of G^i

    GridLayout(unsigned int inks, unsigned int points, const std::vector<unsigned int>& levels);
    // Cell along ink i holding level t, as the library's lookup table does:
    // the last grid point at or below t, but never the top one (255 is in the
    // last cell with coordinate 1).
    unsigned int Cell(unsigned int ink, unsigned int level) const;
    // Grid index of a level, or -1 when it is not a grid level.
    int GridIndex(unsigned int ink, unsigned int level) const;
};

// Cell and local coordinate in [0, 1] of every (ink, digital level), N x 256.
struct InkCoordinates {
    std::vector<unsigned int> cell;
    std::vector<double> w;
};
// From effective ramps (N x 256): w = (E[t] - E[lower]) / (E[upper] - E[lower]);
// a flat cell gives 0, as the library's lookup table.
InkCoordinates CoordinatesFromRamps(const GridLayout& grid, const std::vector<double>& ramps);

// D50 / 2 degree weights in double and the white they define.
class Colorimeter {
public:
    explicit Colorimeter(const ZKCLighting_Matrix& matrix);
    void Lab(const double* spectrum, double* lab) const;

private:
    double weights_[3][kBands];
    double white_[3];
};

// Patches of a fit: the first `residualCount` are judged by colour; the rest
// are pseudo-observations that only enter the node least squares (estimated
// nodes).
struct TrainingSet {
    std::size_t count = 0;
    std::size_t residualCount = 0;
    std::vector<unsigned char> levels;  // count x N
    std::vector<double> reflectance;    // count x 31, at least kReflectanceFloor
    std::vector<double> lab;            // residualCount x 3
    std::vector<double> metric;         // residualCount x 9: DeltaE00Metric
};

// Per-thread scratch of an evaluation.
struct Workspace {
    std::vector<std::size_t> base;  // node index of each patch's lowest corner
    std::vector<double> demichel;   // count x 2^N corner weights
    std::vector<double> normal;     // nodes x nodes
    std::vector<double> nodes;      // nodes x 31 Yule-Nielsen node values
    std::vector<double> yn;         // count x 31 reflectance^(1/n)
    double ynExponent = 0.0;
    std::vector<double> prediction;  // 31
};

class YuleNielsenEvaluator {
public:
    YuleNielsenEvaluator(const GridLayout& grid, const TrainingSet& set, const Colorimeter& colorimeter);

    // Corner weights of every patch under `coords`.
    void Demichel(const InkCoordinates& coords, Workspace& ws) const;
    // Least-squares node values (ws.nodes) for the current corner weights;
    // false when the normal matrix is not positive definite.
    bool SolveNodes(double n, Workspace& ws) const;
    // Prediction of patch p (31 reflectances) from ws.nodes; false when a
    // weighted sum is not positive.
    bool Predict(std::size_t p, double n, Workspace& ws, double* spectrum) const;
    // 3 residuals per residual patch: U (Lab_pred - Lab_meas). False when a
    // prediction is undefined.
    bool Residuals(double n, Workspace& ws, double* residuals) const;
    // CIEDE2000 of every residual patch. False when a prediction is undefined.
    bool DeltaE(double n, Workspace& ws, std::vector<double>& deltaE) const;

    const GridLayout& Grid() const { return grid_; }
    const TrainingSet& Set() const { return set_; }

private:
    void UpdateYuleNielsen(double n, Workspace& ws) const;

    const GridLayout& grid_;
    const TrainingSet& set_;
    const Colorimeter& colorimeter_;
};

// Levenberg-Marquardt with Marquardt's diagonal scaling and box bounds (a
// step is clipped into [lower, upper]), forward-difference Jacobian whose
// columns are spread over `threads` workers. evaluate(x, residuals, slot)
// returns false for an undefined point (the step is rejected); slot < threads
// names the worker's scratch. A parameter at a bound that the descent
// direction pushes outwards is held for that iteration. Stops when the cost
// (sum of squares) is below 1e-12 per residual, when an accepted step lowers
// it by less than 1e-7 relative, when the damping exceeds 1e12 or after
// maxIterations accepted steps. Returns the number of accepted steps.
using ResidualFunction = std::function<bool(const double* x, double* residuals, unsigned int slot)>;
unsigned int LevenbergMarquardt(const ResidualFunction& evaluate, std::size_t residualCount, std::vector<double>& x,
                                const std::vector<double>& lower, const std::vector<double>& upper,
                                unsigned int maxIterations, unsigned int threads);

// Double-precision prediction of one ink sample (N bytes) from model arrays,
// by the library's arithmetic (lookup of cell and coordinate, monomials times
// coefficients, power n), without float rounding: 31 reflectances; a band
// whose sum is not positive gives NaN.
void PredictFromArrays(const ZKSPrinterModelArrays& model, const unsigned char* sample, double* spectrum);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
