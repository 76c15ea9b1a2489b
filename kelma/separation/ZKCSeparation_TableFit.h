// Node values of a CLUT fitted to a function sampled at twice the table's
// resolution, for tables that are interpolated multilinearly: the nodes
// become the least-squares best values for the samples around them rather
// than the function's values at the nodes, which matters where the function
// is curved and where it is known on one side of a cell only (the gamut
// boundary of a separation).
//
// Grid: n nodes per axis, node (g0, g1, g2) at index (g0 n + g1) n + g2;
// fine coordinates f = 0 .. 2 (n - 1) per axis, node g at f = 2 g. A sample
// at fine coordinates f lies in cell c_a = min(f_a / 2, n - 2) at local
// position (f_a - 2 c_a) / 2, and the table's value there is the trilinear
// interpolation of the cell's 8 nodes.
//
// The fit minimises, for each output channel separately,
//   sum over samples (interpolated value - sample value)^2
//   + smoothing x sum over grid lines (v[g-1] - 2 v[g] + v[g+1])^2
// over the nodes that are corners of a cell holding a sample; every other
// node keeps its value (and enters the second differences as a constant).
// Solved by conjugate gradients on the normal equations, from the given
// values, to a relative residual of 1e-10 (at most 500 iterations).
#pragma once

#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

struct ZKSTableFitSample {
    unsigned int fine[3];
    double value[7];
};

// values: n^3 x channels doubles (in: starting values and the values of the
// nodes the fit leaves alone; out: fitted). fitted, when not null, receives
// one flag per node: whether the fit set it.
void FitTableNodes(unsigned int n, unsigned int subdivision, unsigned int channels,
                   const std::vector<ZKSTableFitSample>& samples, double smoothing, const double* lower,
                   const double* upper, const std::vector<bool>& alsoFit, const std::vector<bool>& keep,
                   std::vector<double>& values, std::vector<bool>* fitted);

}  // namespace KELMA_NAMESPACE
