// Summary statistics of a set of colour differences (or any values): count,
// mean, median, 95th percentile and maximum, as every report of kelma prints
// them.
//
// Percentiles interpolate linearly between order statistics at position
// q (count - 1) of the sorted values (numpy's default "linear" method), so the
// median of an even count is the mean of the two middle values. An empty set
// gives count 0 and zeros. NaN policy: if any value is NaN, mean, median, p95
// and max are NaN (a NaN difference is a failed prediction, never hidden).
#pragma once

#include <cstddef>
#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

struct KELMA_API ZKSStatistics {
    std::size_t count = 0;
    double mean = 0.0;
    double median = 0.0;
    double p95 = 0.0;
    double max = 0.0;
};

KELMA_API ZKSStatistics Summarize(const std::vector<double>& values);
// The q-quantile (q in [0, 1]) by the rule above; 0 for no values, NaN when
// any value is NaN.
KELMA_API double Percentile(std::vector<double> values, double q);

}  // namespace KELMA_NAMESPACE
