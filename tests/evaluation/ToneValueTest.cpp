// ISO 20654 spot colour tone values on colours whose V coordinates are known
// in closed form: relative tristimulus values that are exact cubes (f = 1,
// 3/4, 1/2) and values on the linear branch (V = kappa t).
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kelma/evaluation/ToneValue.h"

using namespace kelma;

namespace {

const double kWhite[3] = {96.42, 100.0, 82.49};

// XYZ whose relative values X / Xn, Y / Yn, Z / Zn are t.
std::vector<double> Relative(double tx, double ty, double tz) {
    return {tx * kWhite[0], ty * kWhite[1], tz * kWhite[2]};
}

}  // namespace

TEST(ToneValue, PaperIsZeroSolidIsHundredAndANeutralMidToneIsExact) {
    const auto paper = Relative(1, 1, 1);                        // V = 100, 100, 100
    const auto solid = Relative(0.125, 0.125, 0.125);            // V = 42 (f = 1/2)
    const auto tint = Relative(0.421875, 0.421875, 0.421875);    // V = 71 (f = 3/4)
    EXPECT_DOUBLE_EQ(SpotColourToneValue(paper.data(), paper.data(), solid.data(), kWhite), 0.0);
    EXPECT_DOUBLE_EQ(SpotColourToneValue(solid.data(), paper.data(), solid.data(), kWhite), 100.0);
    // (100 - 71) / (100 - 42) along one direction.
    EXPECT_NEAR(SpotColourToneValue(tint.data(), paper.data(), solid.data(), kWhite), 50.0, 1e-12);
    // The white's scale cancels: the library's Y = 1 gives the same.
    const double unitWhite[3] = {0.9642, 1.0, 0.8249};
    std::vector<double> p(3), s(3), t(3);
    for (int c = 0; c < 3; ++c) {
        p[c] = paper[c] / 100, s[c] = solid[c] / 100, t[c] = tint[c] / 100;
    }
    EXPECT_NEAR(SpotColourToneValue(t.data(), p.data(), s.data(), unitWhite), 50.0, 1e-12);
}

TEST(ToneValue, ChromaticInkWithADarkComponentUsesTheLinearBranch) {
    const double kappa = 24389.0 / 27.0;
    const auto paper = Relative(1, 1, 1);
    const auto solid = Relative(0.001, 0.125, 1);        // V = (kappa / 1000, 42, 100)
    const auto tint = Relative(0.125, 0.421875, 1);      // V = (42, 71, 100)
    const double expected = 100.0 * std::hypot(100.0 - 42.0, 100.0 - 71.0) /
                            std::hypot(100.0 - kappa * 0.001, 100.0 - 42.0);
    EXPECT_NEAR(SpotColourToneValue(tint.data(), paper.data(), solid.data(), kWhite), expected, 1e-11);

    // The batch form gives the single results, in order.
    std::vector<double> tints = tint;
    tints.insert(tints.end(), solid.begin(), solid.end());
    tints.insert(tints.end(), paper.begin(), paper.end());
    std::vector<double> tv(3);
    SpotColourToneValue(tints.data(), 3, paper.data(), solid.data(), kWhite, tv.data());
    EXPECT_EQ(tv[0], SpotColourToneValue(tint.data(), paper.data(), solid.data(), kWhite));
    EXPECT_EQ(tv[1], 100.0);
    EXPECT_EQ(tv[2], 0.0);
}

TEST(ToneValue, NaNAndAPaperEqualToTheSolidGiveNaN) {
    const auto paper = Relative(1, 1, 1);
    const auto solid = Relative(0.125, 0.125, 0.125);
    const double nan[3] = {std::nan(""), 50.0, 50.0};
    EXPECT_TRUE(std::isnan(SpotColourToneValue(nan, paper.data(), solid.data(), kWhite)));
    EXPECT_TRUE(std::isnan(SpotColourToneValue(solid.data(), paper.data(), paper.data(), kWhite)));
}

TEST(ToneValue, MurrayDaviesReadsTheChannelOfTheLargestSolidDensity) {
    const double paper[3] = {0.9, 0.92, 0.8};
    // A cyan-like solid: X falls most (density log10(0.9 / 0.15) = 0.78).
    const double solid[3] = {0.15, 0.25, 0.55};
    EXPECT_EQ(MurrayDaviesChannel(paper, solid), 0);
    // Reflectance 0.4 in X: (1 - 0.4 / 0.9) / (1 - 0.15 / 0.9) = (5 / 9) / (5 / 6) = 2 / 3.
    const double tints[9] = {0.4, 0.9, 0.1, 0.9, 0.0, 0.0, 0.15, 0.0, 0.0};
    double tv[3];
    MurrayDaviesToneValue(tints, 3, paper, solid, tv);
    EXPECT_NEAR(tv[0], 200.0 / 3.0, 1e-12);
    EXPECT_EQ(tv[1], 0.0);    // the paper's X, whatever Y and Z are
    EXPECT_EQ(tv[2], 100.0);  // the solid's X
    const double magenta[3] = {0.5, 0.2, 0.6}, yellow[3] = {0.85, 0.8, 0.1};
    EXPECT_EQ(MurrayDaviesChannel(paper, magenta), 1);
    EXPECT_EQ(MurrayDaviesChannel(paper, yellow), 2);
    // No channel darker than the paper, or NaN: no tone value.
    const double lighter[3] = {0.95, 0.95, 0.9}, nan[3] = {std::nan(""), 0.1, 0.1};
    EXPECT_EQ(MurrayDaviesChannel(paper, lighter), -1);
    EXPECT_EQ(MurrayDaviesChannel(paper, nan), -1);
    MurrayDaviesToneValue(tints, 1, paper, lighter, tv);
    EXPECT_TRUE(std::isnan(tv[0]));
}
