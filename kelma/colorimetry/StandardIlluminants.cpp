#include "kelma/colorimetry/StandardIlluminants.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "kelma/colorimetry/ZKCObserver.h"

namespace KELMA_NAMESPACE {

namespace {

std::string Upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return s;
}

// The 96-float block of (name, observer), built as every lighting matrix builds it.
bool SameBlock(const float* block, const std::string& name, OBSERVER_TYPE observer) {
    const std::unique_ptr<ZKCIlluminant_Base> illuminant = MakeStandardIlluminant(name);
    const ZKCObserver o(observer);
    const ZKCLighting_Matrix reference(o, illuminant.get());
    return std::memcmp(block, reference.Weights(), kLightingBlock * sizeof(float)) == 0;
}

}  // namespace

const std::vector<std::string>& StandardIlluminantNames() {
    static const std::vector<std::string> names{"A", "D50", "D65", "E", "F1", "F2", "F11"};
    return names;
}

std::unique_ptr<ZKCIlluminant_Base> MakeStandardIlluminant(const std::string& name) {
    const std::string n = Upper(name);
    if (n == "A") return std::make_unique<ZKCIlluminant_CIEA>();
    if (n == "D50") return std::make_unique<ZKCIlluminant_CIED50>();
    if (n == "D65") return std::make_unique<ZKCIlluminant_CIED65>();
    if (n == "E") return std::make_unique<ZKCIlluminant_CIEE>();
    if (n == "F1") return std::make_unique<ZKCIlluminant_CIEF1>();
    if (n == "F2") return std::make_unique<ZKCIlluminant_CIEF2>();
    if (n == "F11") return std::make_unique<ZKCIlluminant_CIEF11>();
    return nullptr;
}

long FindStandardIlluminant(const ZKCLighting_Matrix& matrix, const std::string& name) {
    if (!MakeStandardIlluminant(name)) return -1;
    for (unsigned int k = 0; k < matrix.IlluminantNumber(); ++k) {
        const float* block = matrix.Weights() + std::size_t{k} * kLightingBlock;
        if (SameBlock(block, name, OBSERVER_CIE1931_2) || SameBlock(block, name, OBSERVER_CIE1964_10))
            return static_cast<long>(k);
    }
    return -1;
}

std::string StandardIlluminantName(const ZKCLighting_Matrix& matrix, unsigned int k) {
    if (k >= matrix.IlluminantNumber()) return "";
    const float* block = matrix.Weights() + std::size_t{k} * kLightingBlock;
    for (const std::string& name : StandardIlluminantNames())
        if (SameBlock(block, name, OBSERVER_CIE1931_2) || SameBlock(block, name, OBSERVER_CIE1964_10)) return name;
    return "";
}

unsigned int StandardIlluminantObserver(const ZKCLighting_Matrix& matrix, unsigned int k) {
    if (k >= matrix.IlluminantNumber()) return 0;
    const float* block = matrix.Weights() + std::size_t{k} * kLightingBlock;
    for (const std::string& name : StandardIlluminantNames()) {
        if (SameBlock(block, name, OBSERVER_CIE1931_2)) return 2;
        if (SameBlock(block, name, OBSERVER_CIE1964_10)) return 10;
    }
    return 0;
}

}  // namespace KELMA_NAMESPACE
