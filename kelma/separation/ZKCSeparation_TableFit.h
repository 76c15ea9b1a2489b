// Node values of a CLUT fitted to a function sampled at twice the table's
// resolution, for tables that are interpolated multilinearly: the nodes
// become the least-squares best values for the samples around them rather
// than the function's values at the nodes, which matters where the function
// is curved and where it is known on one side of a cell only (the gamut
// boundary of a separation).
//
// Grid: n nodes per axis, node (g0, g1, g2) at index (g0 n + g1) n + g2;
// fine coordinates f = 0 .. F (n - 1) per axis (F the subdivision), node g
// at f = F g. A sample at fine coordinates f lies in cell c_a = min(f_a / F,
// n - 2) at local position (f_a - F c_a) / F, and the table's value there is
// the trilinear interpolation of the cell's 8 nodes.
//
// The fit minimises, over all channels together,
//   sum over samples r^T H r, r = interpolated values - sample values,
//   + smoothing x sum over grid lines and channels (v[g-1] - 2 v[g] + v[g+1])^2
// over the nodes that are corners of a cell holding a sample with a non-zero
// weight, and the nodes named in alsoFit (fitted by the second differences
// alone where no sample reaches them: a straight continuation); every other
// node keeps its value (and enters the terms as a constant). H is the
// sample's metric below (the identity without one). Each channel stays
// within [lower, upper]: values the fit puts beyond are held at the bound and
// the rest fitted again (at most 8 rounds). Solved by preconditioned
// conjugate gradients on the normal equations, from the given values, to a
// relative residual of 1e-10 (at most 800 iterations per round).
#pragma once

#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

struct ZKSTableFitSample {
    unsigned int fine[3];
    double value[7];
    // Optional metric of the sample's residual: with a Jacobian J (3 x
    // channels, row-major: colour per unit of each channel) the residual r
    // counts as r^T (J^T J + epsilon I) r, its first-order colour error plus
    // a little of its own size; without one as r^T r.
    bool hasJacobian = false;
    double jacobian[21] = {};
};

// subdivision: fine points per cell edge (2: half the node spacing).
// values: n^3 x channels doubles (in: starting values and the values of the
// nodes the fit leaves alone; out: fitted). fitted, when not null, receives
// one flag per node: whether the fit set it.
void FitTableNodes(unsigned int n, unsigned int subdivision, unsigned int channels,
                   const std::vector<ZKSTableFitSample>& samples, double smoothing, const double* lower,
                   const double* upper, const std::vector<bool>& alsoFit, double epsilon, std::vector<double>& values,
                   std::vector<bool>* fitted);

}  // namespace KELMA_NAMESPACE
