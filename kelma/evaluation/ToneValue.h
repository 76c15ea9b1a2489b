// Tone value of a tint between the paper and the solid of one ink, from CIE
// XYZ, in two forms: 0 % for the paper, 100 % for the solid.
//
// Spot colour tone value (SCTV, ISO 20654:2017): visually even steps for any
// ink; a press calibrated to it prints SCTV equal to the nominal value.
//   SCTV = 100 |V(tint) - V(paper)| / |V(solid) - V(paper)|,
//   V = (116 f(X / Xn) - 16, 116 f(Y / Yn) - 16, 116 f(Z / Zn) - 16)
//
// with f CIE 15's CIELAB companding (CIELABCompand) and (Xn, Yn, Zn) the
// illuminant's white on the same scale as the colours (the standard uses D50
// / 2 degrees). The tone value increase of a tint printed at p % is SCTV - p.
// Units: percent, not clamped (a tint beyond the solid gives more than 100).
// NaN in any input gives NaN; a paper equal to the solid gives NaN for
// every tint (there is no scale).
//
// Murray-Davies tone value, colorimetric: the effective dot area of the
// Murray-Davies equation on the tristimulus value the ink absorbs most,
//
//   MD = 100 (1 - T / P) / (1 - S / P),   T, P, S the tint's, paper's and
//   solid's X, Y or Z, whichever has the largest solid density log10(P / S)
//
// (X for a cyan, Y for a magenta, Z for a yellow; a densitometer's status
// filters pick the ink's complementary band the same way). This is the tone
// value whose increase over nominal (TVI, "dot gain") press standards such
// as ISO 12647-2 tabulate, here without a status filter. Same units and NaN
// policy as SCTV.
#pragma once

#include <cstddef>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// xyz, paper, solid and white point at 3 doubles each.
KELMA_API double SpotColourToneValue(const double* xyz, const double* paper, const double* solid,
                                     const double* white);
// `count` tints (3 doubles each) against one paper, solid and white.
KELMA_API void SpotColourToneValue(const double* xyz, std::size_t count, const double* paper, const double* solid,
                                   const double* white, double* toneValue);

// The channel Murray-Davies reads (0 = X, 1 = Y, 2 = Z): the largest
// P / S, the first of equals; -1 when no channel has S below P or any is NaN.
KELMA_API int MurrayDaviesChannel(const double* paper, const double* solid);
KELMA_API void MurrayDaviesToneValue(const double* xyz, std::size_t count, const double* paper, const double* solid,
                                     double* toneValue);

}  // namespace KELMA_NAMESPACE
