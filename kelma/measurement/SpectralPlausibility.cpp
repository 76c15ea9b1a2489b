#include "kelma/measurement/SpectralPlausibility.h"

#include <cmath>
#include <limits>

#include "kelma/common/NumberText.h"

namespace KELMA_NAMESPACE {

namespace {

bool Within(double v, double lo, double hi) { return v >= lo && v <= hi; }

template <class T>
ZKSValueProblem FindReflectance(const T* values, std::size_t count) {
    ZKSValueProblem result;
    double largest = -std::numeric_limits<double>::infinity();
    // The limits in the values' own precision, so -0.1f passes as -0.1 does.
    const T lo = static_cast<T>(kPlausibleReflectanceMin), hi = static_cast<T>(kPlausibleReflectanceMax);
    for (std::size_t i = 0; i < count; ++i) {
        const double v = static_cast<double>(values[i]);
        if (v > largest) largest = v;
        if (!result.found && !(values[i] >= lo && values[i] <= hi)) {
            result.found = true;
            result.index = i;
        }
    }
    if (!result.found) return result;
    // The value as its own type writes it (81.2f as "81.2").
    const std::string v = NumberText(values[result.index]);
    if (!std::isfinite(values[result.index])) {
        result.problem = v + " is not a finite number";
    } else if (largest > kPlausibleReflectanceMax && largest <= 100.0 * kPlausibleReflectanceMax) {
        result.problem = v + " is far outside the reflectance range 0-1: the spectra look like percent, "
                             "divide them by 100";
    } else {
        result.problem = v + " is far outside the reflectance range 0-1 (reflectance factors from " +
                         NumberText(kPlausibleReflectanceMin) + " to " + NumberText(kPlausibleReflectanceMax) +
                         " are accepted)";
    }
    return result;
}

}  // namespace

std::string FloatRangeProblem(double value) {
    if (!std::isfinite(value)) return NumberText(value) + " is not a finite number";
    if (std::fabs(value) > static_cast<double>(std::numeric_limits<float>::max()))
        return NumberText(value) + " is outside the range of a 32-bit float (magnitude at most " +
               NumberText(static_cast<double>(std::numeric_limits<float>::max())) + ")";
    return "";
}

std::string WavelengthProblem(double nm) {
    if (!std::isfinite(nm)) return "wavelength " + NumberText(nm) + " is not a finite number";
    if (Within(nm, kPlausibleWavelengthMinNm, kPlausibleWavelengthMaxNm)) return "";
    std::string text = "wavelength " + NumberText(nm) + " is outside " + NumberText(kPlausibleWavelengthMinNm) + "-" +
                       NumberText(kPlausibleWavelengthMaxNm) + " nm";
    if (Within(nm, kPlausibleWavelengthMinNm / 1e3, kPlausibleWavelengthMaxNm / 1e3))
        return text + ": it looks like micrometres, multiply the wavelengths by 1000";
    if (Within(nm, kPlausibleWavelengthMinNm * 10.0, kPlausibleWavelengthMaxNm * 10.0))
        return text + ": it looks like angstrom, divide the wavelengths by 10";
    if (Within(nm, kPlausibleWavelengthMinNm / 1e9, kPlausibleWavelengthMaxNm / 1e9))
        return text + ": it looks like metres, multiply the wavelengths by 1e9";
    return text + " (wavelengths are given in nm)";
}

std::string SpectralCoverageProblem(const double* wavelengths, std::size_t count) {
    if (count < 2) return "";
    const double first = wavelengths[0], last = wavelengths[count - 1];
    std::string gaps;
    if (first > 400.0 + kMaxExtrapolatedNm) {
        // The grid wavelengths below the first one: 400 .. the last grid step before it.
        double upTo = 400.0;
        while (upTo + 10.0 < first && upTo + 10.0 <= 700.0) upTo += 10.0;
        gaps = "do not reach down to 400 nm: 400-" + NumberText(upTo) + " nm would be extrapolated";
    }
    if (last < 700.0 - kMaxExtrapolatedNm) {
        double from = 700.0;
        while (from - 10.0 > last && from - 10.0 >= 400.0) from -= 10.0;
        gaps += std::string(gaps.empty() ? "" : ", and ") + "do not reach up to 700 nm: " + NumberText(from) +
                "-700 nm would be extrapolated";
    }
    if (gaps.empty()) return "";
    return "wavelengths " + NumberText(first) + "-" + NumberText(last) + " nm " + gaps + ", more than the " +
           NumberText(kMaxExtrapolatedNm) +
           " nm allowed at either end; measure 400-700 nm, or enable the extrapolate option to extrapolate from "
           "the end intervals";
}

ZKSValueProblem FindReflectanceProblem(const float* values, std::size_t count) {
    return FindReflectance(values, count);
}

ZKSValueProblem FindReflectanceProblem(const double* values, std::size_t count) {
    return FindReflectance(values, count);
}

}  // namespace KELMA_NAMESPACE
