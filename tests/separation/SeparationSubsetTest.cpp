// One ink subset's searches: the projection into the limits, least squares
// to a colour, Newton at a fixed black, and the black range, each checked
// against an independent criterion (a device point's own colour, the limits,
// and searches confined to black outside the range).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/separation/ZKCSeparation_Subset.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;

namespace {

constexpr double kTotal = 765.0;  // 300 %
constexpr double kBlack = 229.0;  // 90 %

const ZKCSeparation_Subset& Press() {
    static const ZKCSeparation_Subset subset(DefaultPressModel(), 0xFFFFFFFFu, 3, 0, true, kTotal, kBlack);
    return subset;
}

double Sum(const double* x) { return x[0] + x[1] + x[2] + x[3]; }

bool InsideLimits(const ZKCSeparation_Subset& s, const double* x, double slack = 1e-9) {
    for (unsigned int j = 0; j < 4; ++j) {
        const double top = j == s.Black() ? s.BlackLimit() : 255.0;
        if (x[j] < -slack || x[j] > top + slack) return false;
    }
    return Sum(x) <= s.TotalLimit() + slack;
}

}  // namespace

TEST(SeparationSubset, ProjectionLandsInsideAndKeepsInsidePoints) {
    const ZKCSeparation_Subset& s = Press();
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-100.0, 400.0);
    for (int i = 0; i < 2000; ++i) {
        double x[4] = {u(rng), u(rng), u(rng), u(rng)};
        s.Project(x, 0.0, kBlack);
        ASSERT_TRUE(InsideLimits(s, x)) << i;
        double y[4] = {x[0], x[1], x[2], x[3]};
        s.Project(y, 0.0, kBlack);
        for (int j = 0; j < 4; ++j) EXPECT_DOUBLE_EQ(x[j], y[j]);
    }
    // A point over the sum only is moved along (1, 1, 1, 1).
    double x[4] = {255, 255, 255, 100};
    s.Project(x, 0.0, kBlack);
    EXPECT_NEAR(Sum(x), kTotal, 1e-9);
    EXPECT_NEAR(x[0] - x[3], 155.0, 1e-9);
    // Black held in a band.
    double z[4] = {10, 10, 10, 10};
    s.Project(z, 50.0, 60.0);
    EXPECT_EQ(z[3], 50.0);
}

TEST(SeparationSubset, LeastSquaresReachesDeviceColoursAndNotOthers) {
    const ZKCSeparation_Subset& s = Press();
    std::mt19937 rng(8);
    int reached = 0;
    for (int i = 0; i < 200; ++i) {
        double device[4];
        do {
            for (double& v : device) v = rng() % 256;
            device[3] = std::min(device[3], kBlack);
        } while (Sum(device) > kTotal);
        double target[3];
        ASSERT_TRUE(s.Lab(device, target, nullptr));
        // From the paper: a poor start that must still get there.
        double x[4] = {0, 0, 0, 0};
        const double r = s.LeastSquares(target, x, 0.0, kBlack);
        double got[3];
        s.Lab(x, got, nullptr);
        EXPECT_TRUE(InsideLimits(s, x));
        if (r <= 1e-3) {
            ++reached;
            EXPECT_LT(std::hypot(got[0] - target[0], std::hypot(got[1] - target[1], got[2] - target[2])), 1e-3);
        }
    }
    // Least squares alone, from the paper, reaches every one of these.
    EXPECT_EQ(reached, 200);
    // A colour no CMYK press prints.
    const double far[3] = {50.0, 120.0, 0.0};
    double x[4] = {100, 100, 100, 0};
    EXPECT_GT(s.LeastSquares(far, x, 0.0, kBlack), 10.0);
    EXPECT_TRUE(InsideLimits(s, x));
}

TEST(SeparationSubset, SolveAtBlackReturnsTheDevicePoint) {
    const ZKCSeparation_Subset& s = Press();
    const double device[4] = {120, 80, 60, 40};
    double target[3];
    s.Lab(device, target, nullptr);
    double x[4] = {100, 100, 100, 0};
    ASSERT_TRUE(s.SolveAtBlack(target, 40.0, x));
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(x[j], device[j], 0.01);
}

// Kmin and Kmax: reachable at both ends, each end on a limit, and not
// reachable when black is confined beyond either end.
TEST(SeparationSubset, BlackRangeIsTheRangeOfBlackThatReaches) {
    const ZKCSeparation_Subset& s = Press();
    const double devices[][4] = {{60, 50, 50, 30}, {200, 190, 190, 20}, {230, 200, 220, 60},
                                 {20, 10, 120, 0},  {100, 160, 40, 120}, {0, 0, 0, 200}};
    for (const auto& device : devices) {
        double target[3];
        s.Lab(device, target, nullptr);
        ZKCSeparation_Subset::ZKSBlackRange range;
        ASSERT_TRUE(s.BlackRange(target, device, range));
        EXPECT_LE(range.kMin, device[3] + 0.01);
        EXPECT_GE(range.kMax, device[3] - 0.01);
        for (double k : {range.kMin, range.kMax}) {
            const ZKSSubsetPoint p = s.PointAtBlack(target, range, k);
            double got[3];
            s.Lab(p.x, got, nullptr);
            EXPECT_LT(std::hypot(got[0] - target[0], std::hypot(got[1] - target[1], got[2] - target[2])), 0.01);
            EXPECT_TRUE(InsideLimits(s, p.x));
            // An end stops at a limit: an ink at 0 or 255, the sum at its
            // limit, or black at 0 or its limit.
            const bool blackEnd = k <= 0.01 || k >= kBlack - 0.01;
            EXPECT_TRUE(blackEnd || s.Slack(p.x) <= 0.02) << "black " << k << " slack " << s.Slack(p.x);
        }
        // Confined below Kmin or above Kmax, the colour is out of reach.
        if (range.kMin > 1.0) {
            double x[4] = {device[0], device[1], device[2], 0};
            EXPECT_GT(s.LeastSquares(target, x, 0.0, range.kMin - 1.0), 1e-3) << "below Kmin " << range.kMin;
        }
        if (range.kMax < kBlack - 1.0) {
            double x[4] = {device[0], device[1], device[2], kBlack};
            EXPECT_GT(s.LeastSquares(target, x, range.kMax + 1.0, kBlack), 1e-3) << "above Kmax " << range.kMax;
        }
    }
}

TEST(SeparationSubset, SubsetOfASevenInkModelUsesItsInks) {
    const ZKCSSE_KELMA_Data model = kelma_test::MakePressLikeModel(7, 3, 2.0).Build(false);
    // Orange (ink 4) in place of cyan: inks 1, 2, 3, 4.
    const ZKCSeparation_Subset s(model, 0x1Eu, 3, 0, true, kTotal, kBlack);
    EXPECT_EQ(s.ModelInk(0), 1u);
    EXPECT_EQ(s.ModelInk(3), 4u);
    EXPECT_EQ(s.Black(), 2u);
    const ZKCSeparation_Evaluator full(model, 0, true);
    const double sub[4] = {30, 60, 20, 90};
    const double all[7] = {0, 30, 60, 20, 90, 0, 0};
    double a[3], b[3];
    s.Lab(sub, a, nullptr);
    full.Lab(all, b, nullptr);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(a[c], b[c], 1e-4);
}
