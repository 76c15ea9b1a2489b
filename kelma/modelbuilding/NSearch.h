// The search of the Yule-Nielsen exponent n (stage, internal): the n in
// [nMin, nMax] that minimises a cost (the classic fit's mean CIEDE2000). A
// scan of 19 equally spaced points, then a golden-section search in the
// bracket around the best of them, to a bracket narrower than 1e-4; the scan
// point is kept when the section ends worse.
#pragma once

#include <functional>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

struct NSearchResult {
    double n = 1.0;
    unsigned int evaluations = 0;  // calls of the cost
};

NSearchResult SearchN(const std::function<double(double)>& cost, double nMin, double nMax);

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
