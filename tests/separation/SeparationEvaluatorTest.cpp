// The continuous model the separation inverts: equal to the library's
// prediction at whole bytes, continuous between bytes and across grid
// levels, and with derivatives that match finite differences.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/separation/ZKCSeparation_Evaluator.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;

namespace {

struct Case {
    const char* name;
    ZKCSSE_KELMA_Data model;
};

std::vector<Case> Models() {
    std::vector<Case> cases;
    cases.push_back({"press model", DefaultPressModel()});
    cases.push_back({"generated 6 inks", kelma_test::MakeTestModel(6, 3, 1.8, 7).Build(false)});
    cases.push_back({"press-like 7 inks", kelma_test::MakePressLikeModel(7, 3, 2.0).Build(false)});
    return cases;
}

}  // namespace

TEST(SeparationEvaluator, EqualsThePredictionAtWholeBytes) {
    std::mt19937 rng(11);
    for (const Case& c : Models()) {
        const unsigned int N = c.model.NumberOfInks();
        for (bool relative : {false, true}) {
            const ZKCSeparation_Evaluator evaluator(c.model, 0, relative);
            std::vector<unsigned char> inks(200 * N);
            for (auto& v : inks) v = static_cast<unsigned char>(rng() % 256);
            // Grid levels and the ends exactly.
            for (unsigned int k = 0; k < N; ++k) inks[k] = 0, inks[N + k] = 255, inks[2 * N + k] = 128;
            std::vector<double> lab(3 * 200);
            PredictColorimetry(c.model, 200, inks.data(), 0, relative, nullptr, lab.data());
            double worst = 0.0;
            for (std::size_t s = 0; s < 200; ++s) {
                double x[7], mine[3];
                for (unsigned int k = 0; k < N; ++k) x[k] = inks[s * N + k];
                ASSERT_TRUE(evaluator.Lab(x, mine, nullptr));
                for (int ch = 0; ch < 3; ++ch) worst = std::max(worst, std::fabs(mine[ch] - lab[3 * s + ch]));
            }
            EXPECT_LT(worst, 1e-4) << c.name << (relative ? ", media-relative" : "");
        }
    }
}

TEST(SeparationEvaluator, PaperIsWhiteRelativeToThePaper) {
    const ZKCSeparation_Evaluator evaluator(DefaultPressModel(), 0, true);
    const double zero[4] = {0, 0, 0, 0};
    double lab[3];
    ASSERT_TRUE(evaluator.Lab(zero, lab, nullptr));
    EXPECT_NEAR(lab[0], 100.0, 1e-3);
    EXPECT_NEAR(lab[1], 0.0, 1e-3);
    EXPECT_NEAR(lab[2], 0.0, 1e-3);
}

TEST(SeparationEvaluator, ContinuousAcrossBytesAndGridLevels) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const ZKCSeparation_Evaluator evaluator(model, 0, true);
    // Inner grid level of each ink (102 for the press model) approached from
    // below, and a byte boundary inside a cell.
    for (unsigned int ink = 0; ink < 4; ++ink) {
        const double level = model.GridPoints()[ink * model.NumberOfGridPoints() + 1];
        for (double at : {level, 57.0}) {
            double below[4] = {30, 60, 90, 20}, exact[4] = {30, 60, 90, 20};
            below[ink] = at - 1e-7;
            exact[ink] = at;
            double a[3], b[3];
            ASSERT_TRUE(evaluator.Lab(below, a, nullptr));
            ASSERT_TRUE(evaluator.Lab(exact, b, nullptr));
            for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(a[ch], b[ch], 1e-4) << "ink " << ink << " at " << at;
        }
    }
    // Halfway between bytes: between the two bytes' colours.
    double lo[4] = {100, 40, 0, 0}, hi[4] = {101, 40, 0, 0}, mid[4] = {100.5, 40, 0, 0};
    double l0[3], l1[3], lm[3];
    evaluator.Lab(lo, l0, nullptr);
    evaluator.Lab(hi, l1, nullptr);
    evaluator.Lab(mid, lm, nullptr);
    EXPECT_LT(std::min(l0[0], l1[0]), lm[0]);
    EXPECT_GT(std::max(l0[0], l1[0]), lm[0]);
}

TEST(SeparationEvaluator, DerivativesMatchCentralDifferences) {
    for (const Case& c : Models()) {
        const unsigned int N = c.model.NumberOfInks();
        const ZKCSeparation_Evaluator evaluator(c.model, 0, true);
        std::mt19937 rng(5);
        for (int trial = 0; trial < 20; ++trial) {
            double x[7], lab[3], jac[21];
            // Points strictly inside a byte segment, where the model is smooth.
            for (unsigned int k = 0; k < N; ++k) x[k] = (rng() % 250) + 0.25 + 0.5 * (rng() % 2) * 0.5;
            ASSERT_TRUE(evaluator.Lab(x, lab, jac));
            for (unsigned int k = 0; k < N; ++k) {
                const double h = 0.05;
                double xp[7], xm[7], lp[3], lm[3];
                std::copy(x, x + N, xp);
                std::copy(x, x + N, xm);
                xp[k] += h;
                xm[k] -= h;
                ASSERT_TRUE(evaluator.Lab(xp, lp, nullptr));
                ASSERT_TRUE(evaluator.Lab(xm, lm, nullptr));
                for (int ch = 0; ch < 3; ++ch) {
                    const double fd = (lp[ch] - lm[ch]) / (2 * h);
                    EXPECT_NEAR(jac[ch * N + k], fd, 2e-3 + 2e-3 * std::fabs(fd)) << c.name << " ink " << k << " ch " << ch;
                }
            }
        }
    }
}

TEST(SeparationEvaluator, NaNInkFails) {
    const ZKCSeparation_Evaluator evaluator(DefaultPressModel(), 0, true);
    const double x[4] = {10, std::nan(""), 0, 0};
    double lab[3];
    EXPECT_FALSE(evaluator.Lab(x, lab, nullptr));
}

TEST(SeparationEvaluator, UnknownIlluminantThrows) {
    std::string text;
    try {
        ZKCSeparation_Evaluator evaluator(DefaultPressModel(), 1, true);
    } catch (const char* t) {
        text = t;
    }
    EXPECT_EQ(text, "Invalid IlluminantIndex");
}
