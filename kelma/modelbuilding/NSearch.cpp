#include "kelma/modelbuilding/NSearch.h"

#include <algorithm>
#include <cmath>

namespace KELMA_NAMESPACE {
namespace modelbuilding {

NSearchResult SearchN(const std::function<double(double)>& cost, double lo, double hi) {
    const int steps = 18;
    double bestN = lo, best = HUGE_VAL;
    NSearchResult result;
    for (int k = 0; k <= steps; ++k) {
        const double n = lo + (hi - lo) * k / steps;
        const double e = cost(n);
        ++result.evaluations;
        if (e < best) {
            best = e;
            bestN = n;
        }
    }
    double a = std::max(lo, bestN - (hi - lo) / steps), b = std::min(hi, bestN + (hi - lo) / steps);
    const double ratio = (std::sqrt(5.0) - 1.0) / 2.0;
    double c = b - ratio * (b - a), d = a + ratio * (b - a);
    double fc = cost(c), fd = cost(d);
    result.evaluations += 2;
    while (b - a > 1e-4) {
        if (fc < fd) {
            b = d;
            d = c;
            fd = fc;
            c = b - ratio * (b - a);
            fc = cost(c);
        } else {
            a = c;
            c = d;
            fc = fd;
            d = a + ratio * (b - a);
            fd = cost(d);
        }
        ++result.evaluations;
    }
    result.n = fc < fd ? c : d;
    if (std::min(fc, fd) > best) result.n = bestN;
    return result;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
