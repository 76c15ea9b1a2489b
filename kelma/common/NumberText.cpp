#include "kelma/common/NumberText.h"

#include <charconv>
#include <cmath>

namespace KELMA_NAMESPACE {

namespace {

// to_chars without a format is the shortest round-trip form, fixed or
// scientific, whichever is shorter.
template <class T>
std::string Shortest(T v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
    char buf[64];
    const std::to_chars_result r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

}  // namespace

std::string NumberText(double v) { return Shortest(v); }
std::string NumberText(float v) { return Shortest(v); }

}  // namespace KELMA_NAMESPACE
