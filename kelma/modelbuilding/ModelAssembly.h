// From fitted nodes to model arrays and back (internal, double precision):
// the matrix scheme of a node grid, the arrays of a finished fit, and the
// prediction of model arrays by the library's arithmetic without float
// rounding.
#pragma once

#include <vector>

#include "kelma/modelbuilding/GridResolution.h"
#include "kelma/modelbuilding/PrinterModelArrays.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Moebius inversion of every cell's corner values (nodes x 31 Yule-Nielsen
// values) into the matrix scheme, 31 x (G-1)^N x 2^N.
std::vector<double> SchemeFromNodes(const GridLayout& grid, const std::vector<double>& nodes);

// The arrays of a model on `grid` (double and float).
ZKSPrinterModelArrays AssembleModel(const GridLayout& grid, const std::vector<double>& ramps,
                                    const std::vector<double>& nodes, double n);

// Double-precision prediction of one ink sample (N bytes) from model arrays,
// by the library's arithmetic (lookup of cell and coordinate, monomials times
// coefficients, power n), without float rounding: 31 reflectances; a band
// whose sum is not positive gives NaN.
void PredictFromArrays(const ZKSPrinterModelArrays& model, const unsigned char* sample, double* spectrum);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
