#include "kelma/colorimetry/ZKCWhitePoint.h"

#include "kelma/colorimetry/ZKCLighting_Matrix.h"

namespace KELMA_NAMESPACE {

namespace {
std::vector<float> WhiteOf(const ZKCLighting_Matrix& matrix) {
    AlignedBuffer<float> ones(kSpectrumStride);
    for (unsigned int i = 0; i < kSpectrumStride; ++i) ones[i] = 1.0f;
    std::vector<float> white(3 * std::size_t{matrix.IlluminantNumber()});
    if (!white.empty()) matrix.CalculateCIEXYZ(white.data(), ones.data(), 1, nullptr);
    return white;
}
}  // namespace

ZKCWhitePoint::ZKCWhitePoint() = default;
ZKCWhitePoint::ZKCWhitePoint(const ZKCWhitePoint& other) = default;
ZKCWhitePoint& ZKCWhitePoint::operator=(const ZKCWhitePoint& other) = default;
ZKCWhitePoint::ZKCWhitePoint(const std::vector<float>& values) : values_(values) {}
ZKCWhitePoint::ZKCWhitePoint(const ZKCLighting_Matrix& matrix) : values_(WhiteOf(matrix)) {}
ZKCWhitePoint::~ZKCWhitePoint() = default;

void ZKCWhitePoint::ReduceToSingleIlluminant(unsigned long k) {
    if (values_.size() < 3 * k + 3) return;
    values_ = std::vector<float>(values_.begin() + 3 * k, values_.begin() + 3 * k + 3);
}

}  // namespace KELMA_NAMESPACE
