// CIEDE2000 colour difference (CIE 142-2001, ISO/CIE 11664-6) with the
// parametric factors kL = kC = kH = 1, computed by Little CMS
// (cmsCIE2000DeltaE), the one implementation every part of kelma uses.
//
// Inputs are CIELAB triples (L* 0..100, a*, b* any finite value); the result
// is >= 0, symmetric in its arguments and exactly 0 for equal colours. It
// agrees with the 34 test pairs of Sharma, Wu and Dalal (2005) to 1e-4. NaN
// in any component gives NaN.
#pragma once

#include <cstddef>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

KELMA_API double DeltaE2000(const double* lab1, const double* lab2);
// out[i] = DeltaE2000(lab1 + 3 i, lab2 + 3 i) for i < count.
KELMA_API void DeltaE2000(const double* lab1, const double* lab2, double* out, std::size_t count);

}  // namespace KELMA_NAMESPACE
