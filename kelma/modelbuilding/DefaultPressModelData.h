// The embedded default printer model's arrays (internal). Defined in the
// generated DefaultPressModel_Data.cpp, written by tools/kelma_fit_model.
#pragma once

#include <cstddef>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

extern const unsigned int kDefaultPressInks;
extern const unsigned int kDefaultPressGridPoints;
extern const double kDefaultPressN;
extern const double kDefaultPressGridLevels[];      // inks x grid points
extern const double kDefaultPressEffectiveRamps[];  // inks x 256
extern const double kDefaultPressMatrixScheme[];    // kDefaultPressMatrixSchemeSize values
extern const std::size_t kDefaultPressMatrixSchemeSize;

// Provenance of the fit, as the model file records it.
extern const char* const kDefaultPressInkNames[];  // kDefaultPressInks names
extern const char* const kDefaultPressDescription;
extern const char* const kDefaultPressChart;
extern const char* const kDefaultPressFitMethod;
extern const std::size_t kDefaultPressFitPatches;
extern const double kDefaultPressFitErrorMean;  // training CIEDE2000
extern const double kDefaultPressFitErrorP95;
extern const double kDefaultPressFitErrorMax;
extern const char* const kDefaultPressSoftware;

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
