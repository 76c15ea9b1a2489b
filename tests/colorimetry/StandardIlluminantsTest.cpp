#include <gtest/gtest.h>

#include "kelma/colorimetry/StandardIlluminants.h"
#include "kelma/colorimetry/ZKCObserver.h"

using namespace kelma;

TEST(StandardIlluminants, NamesBuildTheClassesAndAreFoundInMatrices) {
    ASSERT_EQ(StandardIlluminantNames().size(), 7u);
    EXPECT_EQ(MakeStandardIlluminant("nope"), nullptr);
    EXPECT_EQ(MakeStandardIlluminant("d65")->Illuminant(), ZKCIlluminant_CIED65().Illuminant());
    EXPECT_EQ(MakeStandardIlluminant("F11")->Illuminant(), ZKCIlluminant_CIEF11().Illuminant());

    ZKCObserver two(OBSERVER_CIE1931_2), ten(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    std::vector<double> spd(31, 0.5);
    spd[3] = 0.7;
    ZKCIlluminant_Measure measured(spd);
    ZKCLighting_Matrix matrix(two, std::vector<ZKCIlluminant_Base*>{&d50, &measured});
    matrix += ZKCLighting_Matrix(ten, &a);
    EXPECT_EQ(FindStandardIlluminant(matrix, "D50"), 0);
    EXPECT_EQ(FindStandardIlluminant(matrix, "a"), 2);
    EXPECT_EQ(FindStandardIlluminant(matrix, "D65"), -1);
    EXPECT_EQ(FindStandardIlluminant(matrix, "X"), -1);
    EXPECT_EQ(StandardIlluminantName(matrix, 0), "D50");
    EXPECT_EQ(StandardIlluminantName(matrix, 1), "");
    EXPECT_EQ(StandardIlluminantName(matrix, 2), "A");
    EXPECT_EQ(StandardIlluminantName(matrix, 3), "");
    EXPECT_EQ(StandardIlluminantObserver(matrix, 0), 2u);
    EXPECT_EQ(StandardIlluminantObserver(matrix, 1), 0u);
    EXPECT_EQ(StandardIlluminantObserver(matrix, 2), 10u);
}
