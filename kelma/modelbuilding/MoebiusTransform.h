// The Moebius inversion between a cell's corner values and the coefficients
// of its multilinear polynomial, the matrix-scheme block of the model
// (internal, double precision).
#pragma once

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Coefficient block of one cell from its 2^N corner values (corner k: bit i
// set = upper grid point along ink i): c_j = sum over subsets k of j of
// (-1)^(|j|-|k|) r_k, in place (fast Moebius transform, N 2^(N-1) subtractions).
void MoebiusInvert(double* corners, unsigned int inks);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
