// Exact CIELAB against Little CMS's cmsXYZ2Lab / cmsLab2XYZ (an independent
// implementation with the same CIE 15 constants) to 1e-12, round trips, and
// the published anchor values.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <cmath>
#include <random>

#include "kelma/colorimetry/CIELAB.h"

using namespace kelma;

namespace {
const double kD50[3] = {0.9642, 1.0, 0.8249};
}

TEST(CIELAB, AgreesWithLittleCMSAcrossTheToeAndTheCubeRoot) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const cmsCIEXYZ white{kD50[0], kD50[1], kD50[2]};
    double worst = 0.0;
    for (int i = 0; i < 200000; ++i) {
        // Half the samples in the linear toe (t < 216/24389), half above.
        const double scale = i % 2 == 0 ? 0.012 : 1.05;
        const double xyz[3] = {u(rng) * scale * kD50[0], u(rng) * scale, u(rng) * scale * kD50[2]};
        double lab[3];
        XYZToCIELAB(xyz, kD50, lab);
        cmsCIELab ref;
        const cmsCIEXYZ in{xyz[0], xyz[1], xyz[2]};
        cmsXYZ2Lab(&white, &ref, &in);
        worst = std::max({worst, std::fabs(lab[0] - ref.L), std::fabs(lab[1] - ref.a), std::fabs(lab[2] - ref.b)});

        double back[3];
        CIELABToXYZ(lab, kD50, back);
        for (int c = 0; c < 3; ++c) ASSERT_NEAR(back[c], xyz[c], 1e-14 + 1e-13 * xyz[c]) << i;
        cmsCIEXYZ refBack;
        cmsLab2XYZ(&white, &refBack, &ref);
        EXPECT_NEAR(back[0], refBack.X, 1e-12);
        EXPECT_NEAR(back[1], refBack.Y, 1e-12);
        EXPECT_NEAR(back[2], refBack.Z, 1e-12);
    }
    EXPECT_LE(worst, 1e-12);
}

TEST(CIELAB, AnchorsContinuityAndNaN) {
    double lab[3];
    XYZToCIELAB(kD50, kD50, lab);
    EXPECT_NEAR(lab[0], 100.0, 1e-12);
    EXPECT_NEAR(lab[1], 0.0, 1e-12);
    EXPECT_NEAR(lab[2], 0.0, 1e-12);
    // 18 % grey: L* = 116 cbrt(0.18) - 16 = 49.4961...
    const double grey[3] = {0.18 * kD50[0], 0.18, 0.18 * kD50[2]};
    XYZToCIELAB(grey, kD50, lab);
    EXPECT_NEAR(lab[0], 49.49610761, 1e-8);
    // The exact constants meet: L* at the threshold is 8 from both sides.
    const double below[3] = {0, kCIELABEpsilon * (1 - 1e-12), 0}, above[3] = {0, kCIELABEpsilon * (1 + 1e-12), 0};
    double lb[3], la[3];
    const double w1[3] = {1, 1, 1};
    XYZToCIELAB(below, w1, lb);
    XYZToCIELAB(above, w1, la);
    EXPECT_NEAR(lb[0], 8.0, 1e-9);
    EXPECT_NEAR(la[0], 8.0, 1e-9);
    // The byte encodings' rounded constants leave a step there.
    EXPECT_GT(std::fabs(kCIELABEncodingKappa * kCIELABEncodingEpsilon - (116 * std::cbrt(kCIELABEncodingEpsilon) - 16)), 1e-5);

    const double bad[3] = {std::nan(""), 0.5, 0.5};
    XYZToCIELAB(bad, kD50, lab);
    EXPECT_TRUE(std::isnan(lab[1]));
    EXPECT_FALSE(std::isnan(lab[0]));
    EXPECT_FALSE(std::isnan(lab[2]));
}

TEST(CIELAB, BatchFormsMatchTheSingleColourForms) {
    std::vector<double> xyz(300), lab(300), back(300);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (double& v : xyz) v = u(rng);
    XYZToCIELAB(xyz.data(), kD50, lab.data(), 100);
    CIELABToXYZ(lab.data(), kD50, back.data(), 100);
    for (int i = 0; i < 100; ++i) {
        double one[3];
        XYZToCIELAB(&xyz[3 * i], kD50, one);
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(one[c], lab[3 * i + c]);
            EXPECT_NEAR(back[3 * i + c], xyz[3 * i + c], 1e-13);
        }
    }
}
