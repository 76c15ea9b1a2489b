#include "kelma/colorimetry/CIELAB.h"

#include <cmath>

namespace KELMA_NAMESPACE {

namespace {

// Inverse of CIELABCompand: f above 6/29 (its value at epsilon) is cubed.
double Expand(double f) {
    constexpr double kFEpsilon = 6.0 / 29.0;
    return f > kFEpsilon ? f * f * f : (116.0 * f - 16.0) / kCIELABKappa;
}

}  // namespace

double CIELABCompand(double t) { return t > kCIELABEpsilon ? std::cbrt(t) : (kCIELABKappa * t + 16.0) / 116.0; }

void XYZToCIELAB(const double* xyz, const double* white, double* lab) {
    const double fx = CIELABCompand(xyz[0] / white[0]);
    const double fy = CIELABCompand(xyz[1] / white[1]);
    const double fz = CIELABCompand(xyz[2] / white[2]);
    lab[0] = 116.0 * fy - 16.0;
    lab[1] = 500.0 * (fx - fy);
    lab[2] = 200.0 * (fy - fz);
}

void CIELABToXYZ(const double* lab, const double* white, double* xyz) {
    const double fy = (lab[0] + 16.0) / 116.0;
    const double fx = fy + lab[1] / 500.0;
    const double fz = fy - lab[2] / 200.0;
    // Y from L* directly below the threshold, so that L* = kappa t is inverted exactly.
    const double y = lab[0] > kCIELABKappa * kCIELABEpsilon ? fy * fy * fy : lab[0] / kCIELABKappa;
    xyz[0] = Expand(fx) * white[0];
    xyz[1] = y * white[1];
    xyz[2] = Expand(fz) * white[2];
}

void XYZToCIELAB(const double* xyz, const double* white, double* lab, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) XYZToCIELAB(xyz + 3 * i, white, lab + 3 * i);
}

void CIELABToXYZ(const double* lab, const double* white, double* xyz, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) CIELABToXYZ(lab + 3 * i, white, xyz + 3 * i);
}

}  // namespace KELMA_NAMESPACE
