// The one check of a printer model's arrays, for the front ends. The model
// class itself validates nothing (a thin core); every front end that builds a
// ZKCSSE_KELMA_Data from a user's arrays calls CheckModelArrays first and
// reports its sentence.
//
// A model passes when it can be built and never predicts NaN or reads out of
// range:
//   - 4, 6 or 7 inks, at least 2 grid points, and 31 (G-1)^N 2^N coefficients
//     (fewer than 2^32, the library's count);
//   - each ink's grid levels whole numbers, strictly ascending, 0 first and
//     255 last;
//   - ramps finite and non-decreasing inside every cell (so every local
//     coordinate lies in [0, 1]);
//   - n finite and positive; coefficients finite;
//   - every cell's multilinear sum positive at all its corners, for every
//     wavelength. With every weight in [0, 1] the sum is a convex combination
//     of the corner values, so it is then positive everywhere and its power n
//     is never NaN. Corner values are summed in double from the stored
//     coefficients (sum over the corner's subsets);
//   - every corner's predicted reflectance factor (corner value to the power
//     n) at most kMaxPredictedReflectance, tested in double as corner value
//     <= kMaxPredictedReflectance^(1/n). The power is increasing, so no
//     prediction exceeds it: spectra stay finite, and so do their XYZ and
//     CIELAB under the library's illuminants. The coefficients are
//     differences of corner values, so this also bounds them (by 2^N times
//     the largest corner value).
// Cost: one pass over the coefficients times N (about 0.5 s for 7 inks on 5
// levels, 65 M coefficients).
#pragma once

#include <cstddef>
#include <string>

#include "kelma/common/Config.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

// Far above any print (paper and fluorescent whites stay below 2) and far
// below what overflows single precision in a spectrum or its XYZ.
constexpr double kMaxPredictedReflectance = 1000.0;

// Arrays in the layouts of ZKCSSE_KELMA_Data: grid N x G, ramps N x 256,
// scheme schemeCount values. Returns "" for a good model, otherwise one
// sentence naming the array, the ink (1-based), the index and the value.
KELMA_API std::string CheckModelArrays(unsigned long inks, unsigned long gridPoints, const float* grid,
                                       const float* ramps, const float* scheme, std::size_t schemeCount, float n);
KELMA_API std::string CheckModelArrays(unsigned long inks, unsigned long gridPoints, const double* grid,
                                       const double* ramps, const double* scheme, std::size_t schemeCount,
                                       double n);

// Lighting: in each X, Y or Z row of weights, the sum of their magnitudes at
// most this many times the row's white (weights that nearly cancel give a
// spectrum an XYZ far outside the white's scale; real tables, negative
// lobes included, stay within a few percent of 1).
constexpr double kMaxWeightCancellation = 10.0;
// Lighting: a white's X, Y and Z at most this (the library's own whites have
// Y = 1; tables normalised to 100 are common).
constexpr double kMaxLightingWhite = 1e30;
// The paper's X, Y and Z under each illuminant at least this fraction of the
// white's: paper-relative colours scale by white / paper. No paper reflects
// less than 0.1 % (black papers reflect a few percent).
constexpr double kMinPaperWhiteFraction = 1e-3;

// The colorimetry of a model: its lighting matrix and the paper's XYZ
// (paperXYZ: 3 values per illuminant, as ZKCWhitePoint holds them). For each
// illuminant, every weight finite, and for each of X, Y, Z the white (the
// row's sum, in double) positive and at most kMaxLightingWhite, the row's sum
// of magnitudes at most kMaxWeightCancellation times the white, and the paper
// at least kMinPaperWhiteFraction of the white. Together with
// CheckModelArrays (every spectrum at most kMaxPredictedReflectance) this
// keeps XYZ and CIELAB finite both relative to the illuminant and to the
// paper: XYZ at most 1e4 x white, paper-relative XYZ at most 1e7 x white,
// far inside float. Named and spd illuminants meet the weight rules by
// construction. Returns "" or one sentence naming the illuminant (1-based)
// and the component.
KELMA_API std::string CheckLighting(const ZKCLighting_Matrix& lighting, const float* paperXYZ);
// CheckLighting of a built model, with the paper XYZ it computed.
KELMA_API std::string CheckModelLighting(const ZKCSSE_KELMA_Data& model);

}  // namespace KELMA_NAMESPACE
