// Scalar twin of the vectorised colour-byte step (LabBytes_AVX512.h): one
// XYZ triple to CIE 1976 L*a*b* and three bytes, CIELAB or LAB2000HL. It is
// the lighting matrix's own computation (ZKCLighting_Matrix::XYZ2CIELAB and
// CalculateCIELAB call it), the reference variant and the test oracle.
#pragma once

#include <cmath>

#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"

namespace KELMA_NAMESPACE {

// The byte encodings' CIELAB, with their rounded constants (CIELAB.h):
// f(t) = pow(t, 0.3333333333333333) if t > 0.008856, else 7.787 t + 16/116.
// NaN takes the second branch and stays NaN.
inline double LabF_Scalar(double t) {
    return t > kCIELABEncodingEpsilon ? std::pow(t, 0.3333333333333333) : kCIELABEncodingSlope * t + kSixteenOver116;
}

// t_c = xyz[c] inverseWhite[c] (double); L* = 116 f(tY) - 16 if tY > 0.008856,
// else 903.3 tY; a* = 500 (f(tX) - f(tY)); b* = 200 (f(tY) - f(tZ)).
inline void CIELAB_Scalar(double* lab, const float* xyz, const double* inverseWhite) {
    double f[3];
    double tY = 0.0;
    for (int c = 0; c < 3; ++c) {
        const double t = static_cast<double>(xyz[c]) * inverseWhite[c];
        if (c == 1) tY = t;
        f[c] = LabF_Scalar(t);
    }
    lab[0] = tY > kCIELABEncodingEpsilon ? 116.0 * f[1] - 16.0 : kCIELABEncodingKappa * tY;
    lab[1] = 500.0 * (f[0] - f[1]);
    lab[2] = 200.0 * (f[1] - f[2]);
}

// v clamped to [0, 255] (NaN -> 0), then rounded half up.
inline unsigned char EncodeByte_Scalar(double v) {
    const double c = v > 255.0 ? 255.0 : (v >= 0.0 ? v : 0.0);
    return static_cast<unsigned char>(static_cast<int>(c + 0.5));
}

// The three bytes of one XYZ triple: CIELAB bytes (2.55 L*, a* + 128,
// b* + 128) or LAB2000HL bytes (3.3931 L, 2.6771 a + 128, 2.6771 b + 128).
inline void LabBytes_Scalar(const float* xyz, const double* inverseWhite, bool cielab, unsigned char* out) {
    double lab[3];
    CIELAB_Scalar(lab, xyz, inverseWhite);
    if (cielab) {
        out[0] = EncodeByte_Scalar(kCIELABByteScaleL * lab[0]);
        out[1] = EncodeByte_Scalar(lab[1] + kCIELABByteOffsetAB);
        out[2] = EncodeByte_Scalar(lab[2] + kCIELABByteOffsetAB);
    } else {
        double lhl[3];
        ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::LAB2LAB2000HL(lhl, lab);
        ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::LAB2000HL_BYTE(lhl, out);
    }
}

}  // namespace KELMA_NAMESPACE
