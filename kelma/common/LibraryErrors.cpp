#include "kelma/common/LibraryErrors.h"

#include <cstring>

namespace KELMA_NAMESPACE {

namespace {

const ZKSLibraryError kKnown[] = {
    {kErrorDefaultCase, LIBRARY_ERROR_ARGUMENT,
     "the library has no case for this shape or value: predictions need 4, 6 or 7 inks, CLUTs from a model 4 inks, "
     "observers are 2 or 10 degrees, and only the documented methods and channel counts exist"},
    {kErrorInvalidIlluminantIndex, LIBRARY_ERROR_ARGUMENT,
     "the illuminant index is not one of the model's illuminants"},
    {kErrorShortWavelengthList, LIBRARY_ERROR_ARGUMENT, "resampling needs at least 2 wavelengths"},
    {kErrorInvalidWavelengthRange, LIBRARY_ERROR_ARGUMENT,
     "the wavelengths must start at or below 400 nm or end at or above 700 nm"},
    {kErrorLimitsLeaveNoGamut, LIBRARY_ERROR_ARGUMENT,
     "the separation limits leave no colour but the paper: the total coverage must be at least 1 %"},
    {kErrorNonFiniteCIELAB, LIBRARY_ERROR_ARGUMENT, "a CIELAB colour to separate has a NaN or infinite component"},
};

}  // namespace

ZKSLibraryError FindLibraryError(const char* thrown) {
    if (thrown != nullptr)
        for (const ZKSLibraryError& e : kKnown)
            if (std::strcmp(thrown, e.text) == 0) return e;
    return {thrown, LIBRARY_ERROR_INTERNAL, "an internal failure the library does not describe"};
}

std::string ExplainLibraryError(const char* thrown) {
    const ZKSLibraryError e = FindLibraryError(thrown);
    return std::string(e.explanation) + " (library error \"" + (thrown != nullptr ? thrown : "") + "\")";
}

}  // namespace KELMA_NAMESPACE
