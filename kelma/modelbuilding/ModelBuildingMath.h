// Small numeric tools of the model builder (internal, double precision):
// monotone curves, dense Cholesky, the Moebius inversion into the
// matrix-scheme layout and the local metric of CIEDE2000.
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/common/Types.h"

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

// In-place Cholesky factorisation A = L L^T of a symmetric positive definite
// n x n matrix (row-major, lower triangle read and overwritten with L).
// Returns false when a pivot is not positive (not positive definite or NaN).
bool CholeskyFactor(double* a, std::size_t n);
// Solves L L^T X = B for `columns` right-hand sides, B row-major n x columns,
// overwritten with X.
void CholeskySolve(const double* l, std::size_t n, double* b, std::size_t columns);

// Coefficient block of one cell from its 2^N corner values (corner k: bit i
// set = upper grid point along ink i): c_j = sum over subsets k of j of
// (-1)^(|j|-|k|) r_k, in place (fast Moebius transform, N 2^(N-1) subtractions).
void MoebiusInvert(double* corners, unsigned int inks);

// Integer power b^e for small grids (exact while it fits 64 bits).
std::size_t IntPower(std::size_t base, unsigned int exponent);

// Upper-triangular factor U (row-major 3 x 3) with |U d|^2 ~ dE00(lab, lab + d)^2
// for small d: the local quadratic form Q = U^T U of CIEDE2000 at `lab`, found
// by symmetric finite differences of DeltaE2000 with steps of 0.05. Near
// the neutral axis, where CIEDE2000 is not smooth, a form that is not positive
// definite falls back to the diagonal (at least 1e-4 per entry).
void DeltaE00Metric(const double* lab, double* u);


}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
