// The fixed texts the library throws as plain character strings (its failure
// convention), named once, each with what it means to a user and the kind of
// error a front end reports for it. Front ends (the Python module, the
// command line, the MEX entries) classify a caught text only through
// FindLibraryError, and print its explanation, never the bare tag.
#pragma once

#include <string>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// An enumeration value or a shape the library has no case for: an ink count
// without a prediction kernel (1, 2, 3, 5), a CLUT shape or method it does not
// know, an observer other than 2 or 10.
constexpr const char* kErrorDefaultCase = "DefaultCase";
// An illuminant index at or beyond the lighting matrix's illuminant count.
constexpr const char* kErrorInvalidIlluminantIndex = "Invalid IlluminantIndex";
// Resampling with fewer than two wavelengths.
constexpr const char* kErrorShortWavelengthList = "Wavelength-list has less than 2 elements";
// Resampling from a list that starts above 400 nm and ends below 700 nm.
constexpr const char* kErrorInvalidWavelengthRange = "Invalid wavelength range";
// Separation limits under which nothing but the paper is reachable (a total
// coverage of 0).
constexpr const char* kErrorLimitsLeaveNoGamut = "Limits leave no gamut";
// A CIELAB colour with a NaN or infinite component given to the separation.
constexpr const char* kErrorNonFiniteCIELAB = "Non-finite CIELAB";

enum LIBRARY_ERROR_KIND : unsigned {
    LIBRARY_ERROR_ARGUMENT = 0,  // a bad value: Python ValueError, MEX id kelma:library:argument
    LIBRARY_ERROR_INTERNAL = 1,  // a text not in the list: Python RuntimeError, MEX id kelma:library:internal
};

struct KELMA_API ZKSLibraryError {
    const char* text;         // the thrown text, exactly
    LIBRARY_ERROR_KIND kind;  // how a front end reports it
    const char* explanation;  // one clause a user can act on, without the tag
};

// The entry for a thrown text; for a text the library does not throw, an
// entry of kind LIBRARY_ERROR_INTERNAL whose explanation says so.
KELMA_API ZKSLibraryError FindLibraryError(const char* thrown);
// "<explanation> (library error \"<text>\")": the sentence a front end shows.
KELMA_API std::string ExplainLibraryError(const char* thrown);

}  // namespace KELMA_NAMESPACE
