#include "kelma/modelbuilding/FitColorimetry.h"

#include <algorithm>
#include <cmath>

#include <Eigen/Cholesky>
#include <Eigen/Core>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

Colorimeter::Colorimeter(const ZKCLighting_Matrix& matrix) {
    const float* w = matrix.Weights();
    for (int c = 0; c < 3; ++c) {
        white_[c] = 0.0;
        for (unsigned int b = 0; b < kBands; ++b) {
            weights_[c][b] = w[c * kSpectrumStride + b];
            white_[c] += weights_[c][b];
        }
    }
}

void Colorimeter::Lab(const double* spectrum, double* lab) const {
    double xyz[3];
    for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (unsigned int b = 0; b < kBands; ++b) s += weights_[c][b] * spectrum[b];
        xyz[c] = s;
    }
    XYZToCIELAB(xyz, white_, lab);
}

ZKCLighting_Matrix D50Matrix() {
    ZKCIlluminant_CIED50 d50;
    return ZKCLighting_Matrix(ZKCObserver(OBSERVER_CIE1931_2), &d50);
}

void DeltaE00Metric(const double* lab, double* u) {
    const double h = 0.05;
    // q(v) = symmetric second-order part of dE00^2 along v.
    auto q = [&](const double* v) {
        double plus[3], minus[3];
        for (int c = 0; c < 3; ++c) {
            plus[c] = lab[c] + v[c];
            minus[c] = lab[c] - v[c];
        }
        const double a = DeltaE2000(lab, plus), b = DeltaE2000(lab, minus);
        return 0.5 * (a * a + b * b);
    };
    Eigen::Matrix3d m;
    double single[3];
    for (int i = 0; i < 3; ++i) {
        double v[3] = {0, 0, 0};
        v[i] = h;
        single[i] = q(v);
        m(i, i) = single[i] / (h * h);
    }
    for (int i = 0; i < 3; ++i)
        for (int j = i + 1; j < 3; ++j) {
            double v[3] = {0, 0, 0};
            v[i] = v[j] = h;
            m(i, j) = m(j, i) = (q(v) - single[i] - single[j]) / (2.0 * h * h);
        }
    const Eigen::LLT<Eigen::Matrix3d> llt(m);
    Eigen::Matrix3d upper = llt.matrixU();
    if (llt.info() != Eigen::Success || !upper.allFinite()) {
        upper.setZero();
        for (int i = 0; i < 3; ++i) upper(i, i) = std::sqrt(std::max(m(i, i), 1e-4));
    }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) u[i * 3 + j] = j >= i ? upper(i, j) : 0.0;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
