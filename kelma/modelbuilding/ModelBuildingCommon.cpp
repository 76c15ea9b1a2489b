#include "kelma/modelbuilding/ModelBuildingCommon.h"

#include "kelma/common/NumberText.h"
#include "kelma/modelbuilding/ZKCModelBuildingError.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

void Fail(const std::string& problem) { throw ZKCModelBuildingError(problem); }

std::string Number(double v) { return NumberText(v); }

std::string InkName(const ZKSModelChart& chart, unsigned int ink) {
    if (ink < chart.inkNames.size()) return chart.inkNames[ink];
    return "ink " + std::to_string(ink + 1);
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
