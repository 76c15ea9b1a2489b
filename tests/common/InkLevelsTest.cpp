// Percent <-> digital level against exact rational arithmetic: every
// percentage with two decimals, parsed from its decimal text as a user or a
// chart writes it, must give floor((255 k + 5000) / 10000) for k hundredths.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "kelma/common/InkLevels.h"

using namespace kelma;

TEST(DigitalLevel, EveryHundredthOfAPercentRoundsHalfUpExactly) {
    for (unsigned k = 0; k <= 10000; ++k) {
        char text[16];
        std::snprintf(text, sizeof text, "%u.%02u", k / 100, k % 100);
        const double percent = std::strtod(text, nullptr);
        const unsigned expected = (255u * k + 5000u) / 10000u;
        ASSERT_EQ(DigitalLevel(percent), expected) << text << " %";
    }
    // The cases a binary 2.55 x p gets wrong.
    EXPECT_EQ(DigitalLevel(50.0), 128u);
    EXPECT_EQ(DigitalLevel(90.0), 230u);
    EXPECT_EQ(DigitalLevel(10.0), 26u);
}

TEST(DigitalLevel, LevelsRoundTripAndOutOfRangeValuesClamp) {
    for (unsigned t = 0; t <= 255; ++t) {
        EXPECT_EQ(DigitalLevel(InkPercent(t)), t) << t;
        EXPECT_EQ(DigitalLevel(t / 2.55), t) << t;
    }
    EXPECT_EQ(InkPercent(255), 100.0);
    EXPECT_EQ(InkPercent(102), 40.0);
    // Values between hundredths round by 255 p / 100.
    EXPECT_EQ(DigitalLevel(0.196), 0u);   // 0.4998
    EXPECT_EQ(DigitalLevel(0.1961), 1u);  // 0.500055
    EXPECT_EQ(DigitalLevel(-3.0), 0u);
    EXPECT_EQ(DigitalLevel(100.5), 255u);
    EXPECT_EQ(DigitalLevel(std::numeric_limits<double>::quiet_NaN()), 0u);
    EXPECT_EQ(DigitalLevel(std::numeric_limits<double>::infinity()), 255u);
}
