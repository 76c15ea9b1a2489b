// Levenberg-Marquardt for the refined fit (internal).
//
// Marquardt's diagonal scaling and box bounds (a step is clipped into
// [lower, upper]), forward-difference Jacobian whose columns are spread over
// `threads` workers. evaluate(x, residuals, slot) returns false for an
// undefined point (the step is rejected); slot < threads names the worker's
// scratch. A parameter at a bound that the descent direction pushes outwards
// is held for that iteration. Stops when the cost (sum of squares) is below
// 1e-12 per residual, when an accepted step lowers it by less than 1e-7
// relative, when the damping exceeds 1e12 or after maxIterations accepted
// steps. The damped normal equations are solved by Eigen's dense Cholesky
// (LLT). Returns the number of accepted steps.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

using ResidualFunction = std::function<bool(const double* x, double* residuals, unsigned int slot)>;
unsigned int LevenbergMarquardt(const ResidualFunction& evaluate, std::size_t residualCount, std::vector<double>& x,
                                const std::vector<double>& lower, const std::vector<double>& upper,
                                unsigned int maxIterations, unsigned int threads);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
