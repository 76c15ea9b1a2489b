#include "kelma/modelbuilding/ZKCModelBuildingError.h"

namespace KELMA_NAMESPACE {

ZKCModelBuildingError::ZKCModelBuildingError(const std::string& problem) : std::runtime_error(problem) {}
ZKCModelBuildingError::~ZKCModelBuildingError() = default;

}  // namespace KELMA_NAMESPACE
