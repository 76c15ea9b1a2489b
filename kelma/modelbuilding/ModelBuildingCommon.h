// Shared pieces of the model builder's stages (internal): the spectral grid
// of a fit, the reflectance floor, and the helpers that word failures.
#pragma once

#include <string>

#include "kelma/common/Types.h"
#include "kelma/modelbuilding/ChartImport.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

constexpr unsigned int kBands = kSpectralValues;
// Reflectances below this are raised to it before the 1/n power, so every
// Yule-Nielsen value (and every convex combination of them) is positive.
constexpr double kReflectanceFloor = 1e-4;

// Throws ZKCModelBuildingError(problem).
[[noreturn]] void Fail(const std::string& problem);
// NumberText (kelma/common/NumberText.h): 40, 40.1, 1e-05, 100.0000001.
std::string Number(double v);
// The chart's name of an ink, or "ink k" (1-based) when the chart names none.
std::string InkName(const ZKSModelChart& chart, unsigned int ink);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
