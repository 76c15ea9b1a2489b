// The one failure of model building: a chart, an option or a fit the builder
// cannot use. The message is one sentence naming the problem (the ink, the
// patch, the grid node or the option).
#pragma once

#include <stdexcept>
#include <string>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

class KELMA_API ZKCModelBuildingError : public std::runtime_error {
public:
    explicit ZKCModelBuildingError(const std::string& problem);
    ~ZKCModelBuildingError() override;
};

}  // namespace KELMA_NAMESPACE
