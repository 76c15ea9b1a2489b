// Numbers in messages: the shortest decimal text that reads back as exactly
// the same double ("40", "40.1", "1e-05", "100.0000001"), so a message that
// refuses a value beyond a limit never shows the limit itself (%g's six
// digits turn 100.0000001 into "100"). NaN and infinities are "nan", "inf",
// "-inf".
#pragma once

#include <string>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

KELMA_API std::string NumberText(double v);
// The same for a float: the shortest text that reads back as this float
// (81.2f is "81.2", not the "81.19999694824219" of its double).
KELMA_API std::string NumberText(float v);

}  // namespace KELMA_NAMESPACE
