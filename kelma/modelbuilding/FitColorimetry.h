// The colorimetry a fit judges itself by (internal, double precision): CIELAB
// of a double spectrum under the lighting matrix's weights, and the local
// quadratic form of CIEDE2000 that turns a CIELAB difference into residuals.
#pragma once

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/modelbuilding/ModelBuildingCommon.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// The lighting matrix's weights (illuminant 0) in double and the white they
// define; Lab is XYZToCIELAB of the weighted sums, against that white.
class Colorimeter {
public:
    explicit Colorimeter(const ZKCLighting_Matrix& matrix);
    // spectrum: 31 reflectances; lab: 3 values. NaN in, NaN out.
    void Lab(const double* spectrum, double* lab) const;

private:
    double weights_[3][kBands];
    double white_[3];
};

// The D50 / 2 degree lighting matrix every fit uses.
ZKCLighting_Matrix D50Matrix();

// Upper-triangular factor U (row-major 3 x 3) with |U d|^2 ~ dE00(lab, lab + d)^2
// for small d: the local quadratic form Q = U^T U of CIEDE2000 at `lab`, found
// by symmetric finite differences of DeltaE2000 with steps of 0.05 and
// factored by Cholesky (Eigen's LLT). Near the neutral axis, where CIEDE2000
// is not smooth, a form that is not positive definite falls back to the
// diagonal (at least 1e-4 per entry).
void DeltaE00Metric(const double* lab, double* u);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
