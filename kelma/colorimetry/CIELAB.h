// CIE 1976 L*a*b* in double precision for any reference white, with the exact
// constants of CIE 15:2004 (epsilon = 216/24389 = (6/29)^3, kappa = 24389/27 =
// (29/3)^3), and the rounded constants the byte encodings keep.
//
// Units: XYZ and the white on one scale (the library's: perfect reflector
// Y = 1; any common scale gives the same L*a*b*). L* is 0..100 for XYZ inside
// the white's gamut (larger for brighter colours, negative never: XYZ below
// 0 gives L* below 0 through the linear branch). NaN in any input component
// gives NaN in the components that use it; nothing is clamped.
#pragma once

#include <cstddef>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Exact constants: the companding threshold and slope meet continuously.
constexpr double kCIELABEpsilon = 216.0 / 24389.0;  // t above this: f(t) = cbrt(t)
constexpr double kCIELABKappa = 24389.0 / 27.0;     // below: L* = kappa t, f(t) = (kappa t + 16) / 116

// The byte encodings (CIELAB and LAB2000HL bytes, media-relative decoding)
// keep the older four-digit constants, so bytes stay what hosts already
// stored; they leave a jump of about 1e-4 L* at the threshold.
constexpr double kCIELABEncodingEpsilon = 0.008856;    // rounded 216/24389
constexpr double kCIELABEncodingSlope = 7.787;         // rounded kappa / 116
constexpr double kCIELABEncodingKappa = 903.3;         // rounded 24389/27
constexpr double kCIELABEncodingLInverseThreshold = 7.9996;  // kappa epsilon, rounded
constexpr double kCIELABEncodingFInverseThreshold = 0.2069;  // cbrt(epsilon) = 6/29, rounded
constexpr double kSixteenOver116 = 0.13793103448275862;
// CIELAB bytes: 2.55 L*, a* + 128, b* + 128 (L* 0..100 onto 0..255).
constexpr double kCIELABByteScaleL = 2.55;
constexpr double kCIELABByteOffsetAB = 128.0;

// CIE 15's companding function of a relative tristimulus value t = X / Xn:
// cbrt(t) above kCIELABEpsilon, (kappa t + 16) / 116 at and below it
// (continuous there). L* = 116 f(Y / Yn) - 16.
KELMA_API double CIELABCompand(double t);

// One colour: xyz, white and lab point at 3 doubles each.
KELMA_API void XYZToCIELAB(const double* xyz, const double* white, double* lab);
// The inverse: L*a*b* against `white` back to XYZ (exact to rounding).
KELMA_API void CIELABToXYZ(const double* lab, const double* white, double* xyz);

// `count` colours, 3 doubles each, one white for all.
KELMA_API void XYZToCIELAB(const double* xyz, const double* white, double* lab, std::size_t count);
KELMA_API void CIELABToXYZ(const double* lab, const double* white, double* xyz, std::size_t count);

}  // namespace KELMA_NAMESPACE
