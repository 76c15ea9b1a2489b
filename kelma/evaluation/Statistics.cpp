#include "kelma/evaluation/Statistics.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace KELMA_NAMESPACE {

double Percentile(std::vector<double> values, double q) {
    if (values.empty()) return 0.0;
    for (double v : values)
        if (std::isnan(v)) return std::numeric_limits<double>::quiet_NaN();
    std::sort(values.begin(), values.end());
    const double pos = q * static_cast<double>(values.size() - 1);
    const std::size_t lo = static_cast<std::size_t>(std::floor(pos));
    const std::size_t hi = std::min(lo + 1, values.size() - 1);
    return values[lo] + (pos - static_cast<double>(lo)) * (values[hi] - values[lo]);
}

ZKSStatistics Summarize(const std::vector<double>& values) {
    ZKSStatistics s;
    s.count = values.size();
    if (values.empty()) return s;
    for (double v : values) {
        if (std::isnan(v)) {
            s.mean = s.median = s.p95 = s.max = v;
            return s;
        }
    }
    double sum = 0.0;
    s.max = values[0];
    for (double v : values) {
        sum += v;
        s.max = std::max(s.max, v);
    }
    s.mean = sum / static_cast<double>(values.size());
    s.median = Percentile(values, 0.5);
    s.p95 = Percentile(values, 0.95);
    return s;
}

}  // namespace KELMA_NAMESPACE
