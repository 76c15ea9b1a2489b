// The standard illuminants by name, and recognising them in a lighting
// matrix, so that hosts can say "D65" wherever an illuminant index is taken.
//
// Names: "A", "D50", "D65", "E", "F1", "F2", "F11" (matched without regard to
// case). A block of a lighting matrix is a named illuminant when it equals,
// bit for bit, the block ZKCLighting_Matrix builds from that illuminant and
// the CIE 1931 2 degree or CIE 1964 10 degree observer. Measured illuminants
// (ZKCIlluminant_Measure) have no name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"

namespace KELMA_NAMESPACE {

KELMA_API const std::vector<std::string>& StandardIlluminantNames();
// A new illuminant of that name; null for an unknown name.
KELMA_API std::unique_ptr<ZKCIlluminant_Base> MakeStandardIlluminant(const std::string& name);
// Index of the first illuminant of `matrix` that is the named one (under
// either observer); -1 when it has none or the name is unknown.
KELMA_API long FindStandardIlluminant(const ZKCLighting_Matrix& matrix, const std::string& name);
// The name of illuminant k of `matrix` ("" when it is not a standard one or k
// is out of range).
KELMA_API std::string StandardIlluminantName(const ZKCLighting_Matrix& matrix, unsigned int k);
// The observer (2 or 10) illuminant k was built with when it is a standard
// illuminant; 0 otherwise.
KELMA_API unsigned int StandardIlluminantObserver(const ZKCLighting_Matrix& matrix, unsigned int k);

}  // namespace KELMA_NAMESPACE
