// Chart import (the first stage of model building): a measured
// characterisation chart of 4, 6 or 7 inks, from a measurement file or from
// the caller's arrays, checked and turned into the digital levels every later
// stage reads.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

class ZKCMeasurementFile;

// A measured chart. Per-patch arrays are patch-major.
struct KELMA_API ZKSModelChart {
    unsigned int numberOfInks = 0;
    // Names for messages (e.g. CMYK_C); empty -> "ink 1", "ink 2", ...
    std::vector<std::string> inkNames;
    // Device values in percent, 0-100, numberOfInks per patch.
    std::vector<double> deviceValues;
    // Reflectance factors on 400-700 nm / 10 nm, 31 per patch.
    std::vector<double> spectra;

    std::size_t PatchCount() const { return numberOfInks == 0 ? 0 : deviceValues.size() / numberOfInks; }
};

// The chart of a measurement file: every device channel is an ink, its
// values taken as percent (as CMYK_ and nCLR_ columns are written); spectra
// resampled onto the 31-point grid by linear interpolation (the file's own
// bands where they coincide). Throws ZKCMeasurementError for a file without
// spectra or device values.
KELMA_API ZKSModelChart ChartFromMeasurementFile(const ZKCMeasurementFile& file);

// Checks a chart (4, 6 or 7 inks, names matching the ink count, device
// values finite in [0, 100], 31 spectral values per patch, each a reflectance
// factor as FindReflectanceProblem accepts: -0.1 to 2, so never NaN, huge or
// percent) and returns the
// digital level (DigitalLevel of the percentage) of every (patch, ink),
// patch-major. Throws ZKCModelBuildingError naming the first problem.
KELMA_API std::vector<unsigned char> ChartDigitalLevels(const ZKSModelChart& chart);

}  // namespace KELMA_NAMESPACE
