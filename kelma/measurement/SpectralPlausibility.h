// What measured reflectance spectra must look like before they are resampled
// or fitted. The resampler and the model builder take any numbers (they
// extrapolate and fit whatever they are given); these checks stop data in the
// wrong unit, with gaps, or beyond single precision before that happens, and
// say how to fix it. The measurement-file reader and the front ends (Python,
// command line, Octave) use them, so every entry point accepts and refuses
// the same data.
//
// Each check returns "" when the data pass, otherwise one clause that names
// the offending value and the fix ("85.3 is far outside the reflectance range
// 0-1: the spectra look like percent, divide them by 100"). The caller puts
// where it was in front (file, line and field, or argument and index).
#pragma once

#include <cstddef>
#include <string>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Wavelengths (nm) a reflectance spectrometer reports: ultraviolet A to the
// end of silicon detectors. Outside this range a list is taken to be in
// another unit (micrometres, angstrom, metres).
constexpr double kPlausibleWavelengthMinNm = 300.0;
constexpr double kPlausibleWavelengthMaxNm = 1100.0;

// Reflectance factors accepted: a little below 0 (measurement noise on dark
// patches stays within a few hundredths) to 2 (fluorescent papers and inks
// reach about 1.5). Anything else is a unit error, typically percent.
constexpr double kPlausibleReflectanceMin = -0.1;
constexpr double kPlausibleReflectanceMax = 2.0;

// Spectra are resampled onto 400-700 nm in 10 nm steps; a list may leave at
// most one such step at either end to extrapolation unless the caller asks
// for extrapolation explicitly.
constexpr double kMaxExtrapolatedNm = 10.0;

// A value that is not finite or whose magnitude exceeds the largest float
// (single precision holds every value the library computes with):
// "1e+300 is outside the range of a 32-bit float (magnitude at most
// 3.4028234663852886e+38)". NaN and infinities are "not a finite number".
KELMA_API std::string FloatRangeProblem(double value);

// One wavelength in nm outside [kPlausibleWavelengthMinNm,
// kPlausibleWavelengthMaxNm], with the unit it looks like: 0.3-1.1 ->
// micrometres (multiply by 1000), 3000-11000 -> angstrom (divide by 10),
// 3e-7-1.1e-6 -> metres (multiply by 1e9). Non-finite values are reported as
// such.
KELMA_API std::string WavelengthProblem(double nm);

// The part of 400-700 nm that an ascending wavelength list (nm) leaves to
// extrapolation beyond kMaxExtrapolatedNm at either end:
// "wavelengths 450-730 nm do not reach down to 400 nm: 400-440 nm would be
// extrapolated ...". Lists of fewer than 2 wavelengths are left to the
// resampler's own check ("Wavelength-list has less than 2 elements").
KELMA_API std::string SpectralCoverageProblem(const double* wavelengths, std::size_t count);

// The first value of `values` outside [kPlausibleReflectanceMin,
// kPlausibleReflectanceMax]; NaN counts as outside. When the largest value
// lies in (kPlausibleReflectanceMax, 200] the clause says the spectra look
// like percent (divide by 100).
struct KELMA_API ZKSValueProblem {
    bool found = false;
    std::size_t index = 0;  // of the first offending value
    std::string problem;    // the clause, "" when none
};
KELMA_API ZKSValueProblem FindReflectanceProblem(const float* values, std::size_t count);
KELMA_API ZKSValueProblem FindReflectanceProblem(const double* values, std::size_t count);

}  // namespace KELMA_NAMESPACE
