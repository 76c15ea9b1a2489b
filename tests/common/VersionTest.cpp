// One version number: the macros, their parts and the loaded library agree.
#include <gtest/gtest.h>

#include <string>

#include "kelma/common/Version.h"

TEST(Version, MacrosPartsAndLibraryAgree) {
    const std::string parts = std::to_string(KELMA_VERSION_MAJOR) + "." + std::to_string(KELMA_VERSION_MINOR) + "." +
                              std::to_string(KELMA_VERSION_PATCH);
    EXPECT_EQ(std::string(KELMA_VERSION), parts);
    EXPECT_EQ(std::string(kelma::LibraryVersion()), KELMA_VERSION);
    EXPECT_EQ(KELMA_VERSION_NUMBER, KELMA_VERSION_MAJOR * 10000 + KELMA_VERSION_MINOR * 100 + KELMA_VERSION_PATCH);
    static_assert(KELMA_VERSION_NUMBER >= 200, "this API (model files) arrived in 0.2");
}
