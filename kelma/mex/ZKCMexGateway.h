// The body of the MATLAB/Octave entry point, as ordinary library code over the
// host's array operations, so that a front end without a host (a test, a
// command-line tool) can feed it the same five arrays.
#pragma once

#include <cstddef>

#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

// The host's matrix library, reduced to what the gateway uses. Arrays are
// opaque handles (mxArray* in a real host).
class KELMA_API ZKCMexHost {
public:
    virtual ~ZKCMexHost();
    // mxGetPr: the first element of the array's real data.
    virtual void* GetPr(const void* array) const = 0;
    // mxGetDimensions: the array's dimension vector.
    virtual const std::size_t* GetDimensions(const void* array) const = 0;
    // mxCreateNumericArray(2, {rows, columns}, single, real).
    virtual void* CreateSingleMatrix(std::size_t rows, std::size_t columns) = 0;
};

// Inputs (column-major host arrays, read without any check):
//   prhs[0] grid points, single, G x N (dimensions give G and N);
//   prhs[1] effective ramps, single, 256 x N;
//   prhs[2] matrix scheme, single, 31 (G-1)^N 2^N coefficients;
//   prhs[3] Yule-Nielsen n, the first element read as a single;
//   prhs[4] ink samples, uint8, N x count (dimension 2 gives count).
// Output plhs[0]: single 32 x count, column j the spectrum of sample j
// (rows 1-31, 400-700 nm) and 0.0 in row 32. The model is built with D50,
// the 2 degree observer, ink set 127, media-relative and absolute flags set.
// Only the low 32 bits of each dimension are used. count must be >= 1 and
// N one of 4, 6, 7 ("DefaultCase" is thrown otherwise, after plhs[0] may
// already hold the new array). Whatever is thrown leaves after every object
// built so far is destroyed.
KELMA_API void MexGatewayBody(ZKCMexHost& host, void** plhs, const void* const* prhs);

}  // namespace KELMA_NAMESPACE
