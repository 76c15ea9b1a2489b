// XYZ of a white (illuminant or paper), 3 floats per illuminant, Y of the
// perfect reflector = 1.0.
#pragma once

#include <vector>

#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class ZKCLighting_Matrix;

class KELMA_API ZKCWhitePoint {
public:
    ZKCWhitePoint();
    ZKCWhitePoint(const ZKCWhitePoint& other);
    ZKCWhitePoint& operator=(const ZKCWhitePoint& other);
    explicit ZKCWhitePoint(const std::vector<float>& values);
    // The illuminant white of a matrix: XYZ of a spectrum of ones, no factor.
    explicit ZKCWhitePoint(const ZKCLighting_Matrix& matrix);
    virtual ~ZKCWhitePoint();

    const std::vector<float>& Values() const { return values_; }

    // Keeps only illuminant k's triple. A white point that does not hold that
    // illuminant (the empty default one) is left as it is.
    void ReduceToSingleIlluminant(unsigned long k);

private:
    std::vector<float> values_;
};

}  // namespace KELMA_NAMESPACE
