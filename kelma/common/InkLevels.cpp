#include "kelma/common/InkLevels.h"

#include <cmath>

namespace KELMA_NAMESPACE {

unsigned int DigitalLevel(double percent) {
    if (!(percent > 0.0)) return 0;
    if (percent >= 100.0) return 255;
    // A decimal with two places parses to within an ulp of k / 100: take k.
    const double hundredths = percent * 100.0;
    const double k = std::nearbyint(hundredths);
    if (std::fabs(hundredths - k) <= 1e-6) {
        const unsigned long long scaled = 255ull * static_cast<unsigned long long>(k) + 5000ull;
        return static_cast<unsigned int>(scaled / 10000ull);
    }
    return static_cast<unsigned int>(std::floor(255.0 * percent / 100.0 + 0.5));
}

double InkPercent(unsigned int level) { return 100.0 * static_cast<double>(level) / 255.0; }

}  // namespace KELMA_NAMESPACE
