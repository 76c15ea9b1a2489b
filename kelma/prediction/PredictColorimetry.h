// Colorimetry of predicted prints in double precision: CIE XYZ and CIELAB of
// a batch of ink samples under one of the model's illuminants, relative to
// that illuminant's white or to the model's paper.
//
// The spectra come from the prediction driver (ZKCSSE_KELMA_Thread) and XYZ
// from the model's lighting matrix (ZKCLighting_Matrix::CalculateCIEXYZ, the
// fixed single-precision dot products): there is no second prediction path,
// so these numbers are the float XYZ the byte outputs are encoded from,
// widened to double. CIELAB is computed from them in double precision with
// the exact CIE 15 constants (XYZToCIELAB).
//
// Relative to the illuminant: XYZ on the lighting matrix's scale (a perfect
// reflector has Y = 1 up to float rounding); CIELAB against the matrix's
// white (the XYZ of a perfect reflector).
// Relative to the paper: XYZ scaled per component by white / paper (the
// media-relative factor of the byte outputs), so the model's paper has the
// XYZ of the perfect reflector; CIELAB against the same white, so the paper
// is L* = 100, a* = b* = 0 up to rounding.
//
// Results do not depend on the batch size, the position of a sample in it or
// the thread count. A prediction that is not finite (a model that predicts
// NaN) gives NaN; nothing is clamped.
#pragma once

#include <cstddef>

#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

// `inks` holds count x N bytes (N = the model's inks: 4, 6 or 7, else
// "DefaultCase"); `xyz` and `lab` receive count x 3 doubles each and either
// may be null. illuminant indexes the model's lighting matrix ("Invalid
// IlluminantIndex" when it has no such illuminant). Nothing else is checked.
KELMA_API void PredictColorimetry(const ZKCSSE_KELMA_Data& model, std::size_t count, const unsigned char* inks,
                                  unsigned int illuminant, bool mediaRelative, double* xyz, double* lab);

}  // namespace KELMA_NAMESPACE
