// Small numeric tools of the model builder (internal, double precision):
// ink levels, monotone curves, dense Cholesky, the Moebius inversion into the
// matrix-scheme layout and CIELAB / CIEDE2000 helpers.
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Digital level of an ink percentage: round half up of 2.55 x percent
// (40 % -> 102, 10 % -> 26). Computed as 255 p / 100 with a 1e-9 allowance so
// that decimal inputs such as 10 % (25.5) round up as written. Expects p in
// [0, 100] (callers check); the result is then in 0..255.
unsigned int DigitalLevel(double percent);

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

// CIE 1976 L*a*b* (D50 or any white) of XYZ against `white`, exact CIE
// constants (epsilon 216/24389, kappa 24389/27), as Little CMS computes it.
// XYZ and white on the same scale; NaN propagates.
void XYZToLab(const double* xyz, const double* white, double* lab);

// CIEDE2000 (kL = kC = kH = 1) by Little CMS's cmsCIE2000DeltaE; NaN in, NaN out.
double DeltaE00(const double* lab1, const double* lab2);

// Upper-triangular factor U (row-major 3 x 3) with |U d|^2 ~ dE00(lab, lab + d)^2
// for small d: the local quadratic form Q = U^T U of CIEDE2000 at `lab`, found
// by symmetric finite differences of cmsCIE2000DeltaE with steps of 0.05. Near
// the neutral axis, where CIEDE2000 is not smooth, a form that is not positive
// definite falls back to the diagonal (at least 1e-4 per entry).
void DeltaE00Metric(const double* lab, double* u);

// Percentile by linear interpolation between order statistics (position
// q (count-1) of the sorted values, as numpy's default), q in [0, 1].
// Empty input -> 0. Values must not be NaN (they are sorted).
double Percentile(std::vector<double> values, double q);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
