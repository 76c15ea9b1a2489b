#include "kelma/colorimetry/CIEDE2000.h"

#include <lcms2.h>

#include <cmath>
#include <limits>

namespace KELMA_NAMESPACE {

double DeltaE2000(const double* lab1, const double* lab2) {
    // Little CMS clamps nothing but is not specified for NaN: decide here.
    for (int c = 0; c < 3; ++c)
        if (std::isnan(lab1[c]) || std::isnan(lab2[c])) return std::numeric_limits<double>::quiet_NaN();
    const cmsCIELab a{lab1[0], lab1[1], lab1[2]};
    const cmsCIELab b{lab2[0], lab2[1], lab2[2]};
    return cmsCIE2000DeltaE(&a, &b, 1.0, 1.0, 1.0);
}

void DeltaE2000(const double* lab1, const double* lab2, double* out, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) out[i] = DeltaE2000(lab1 + 3 * i, lab2 + 3 * i);
}

}  // namespace KELMA_NAMESPACE
