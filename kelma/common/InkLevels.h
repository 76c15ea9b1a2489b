// Ink amounts in percent of full coverage and the 8-bit digital levels the
// models read (255 = 100 %).
//
// DigitalLevel rounds half up: level = floor(2.55 p + 1/2). It is exact for
// every percentage with at most two decimals (the way charts and users write
// them): p = k / 100 gives floor((255 k + 5000) / 10000) in integers, so
// 50 % -> 128 (127.5) and 90 % -> 230 (229.5), although 2.55 x 50 is
// 127.4999... in binary. Other values use 255 p / 100 in double precision.
// Values below 0 and NaN give 0, values above 100 give 255 (front ends reject
// them before they get here).
#pragma once

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

KELMA_API unsigned int DigitalLevel(double percent);
// The percentage of a level: 100 level / 255 (exact to double rounding), so
// DigitalLevel(InkPercent(t)) == t for every t in 0..255.
KELMA_API double InkPercent(unsigned int level);

}  // namespace KELMA_NAMESPACE
