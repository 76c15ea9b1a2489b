// Synthetic charts for the model-building tests (tests/support/ChartMaker.h)
// and the check of a build's error message.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "tests/support/ChartMaker.h"

namespace kelma_test {

// Runs `build` and checks that it throws ZKCModelBuildingError whose message
// contains every one of `parts`.
inline void ExpectBuildError(const std::function<void()>& build, const std::vector<std::string>& parts) {
    try {
        build();
        ADD_FAILURE() << "no error; expected one mentioning " << parts.front();
    } catch (const kelma::ZKCModelBuildingError& e) {
        const std::string message = e.what();
        for (const std::string& part : parts)
            EXPECT_NE(message.find(part), std::string::npos) << "\"" << message << "\" lacks \"" << part << "\"";
    }
}

}  // namespace kelma_test
