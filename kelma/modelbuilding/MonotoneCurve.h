// Monotone curves of the ramp fits (internal, double precision): weighted
// isotonic regression and the monotone cubic through the fitted points.
#pragma once

#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Weighted isotonic (non-decreasing) least-squares fit of y by pooling
// adjacent violators, in place. Weights must be positive. No NaN handling:
// NaN inputs give NaN outputs.
void IsotonicRegression(std::vector<double>& y, const std::vector<double>& weights);

// Monotone piecewise-cubic Hermite interpolation (Fritsch-Carlson slopes with
// the weighted harmonic mean, as in SciPy's PchipInterpolator) through (x_k,
// y_k), x strictly ascending, at least 2 points. Evaluates at every whole
// number 0 .. count-1 (count >= 1); values outside [x_0, x_last] extend the end
// segments. Monotone data give a monotone curve that passes through every point.
std::vector<double> MonotoneCurve(const std::vector<double>& x, const std::vector<double>& y, unsigned int count);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
