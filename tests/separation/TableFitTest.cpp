// The least-squares table fit: exact for functions the table can hold,
// bounded, leaving alone the nodes it is not asked to fit, and weighing
// residuals by a sample's metric.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kelma/separation/ZKCSeparation_TableFit.h"

using namespace kelma;

namespace {

constexpr unsigned int kN = 6;

double Affine(double f0, double f1, double f2, unsigned int ch) {
    return ch == 0 ? 10.0 + 3.0 * f0 + 2.0 * f1 - f2 : 100.0 - f0 + 0.5 * f2;
}

// Samples of the affine function at every half-node point of the cells
// [lo, hi) along each axis (fine coordinates: node g at 2 g).
std::vector<ZKSTableFitSample> Samples(unsigned int lo, unsigned int hi) {
    std::vector<ZKSTableFitSample> s;
    for (unsigned int i = 2 * lo; i <= 2 * hi; ++i)
        for (unsigned int j = 2 * lo; j <= 2 * hi; ++j)
            for (unsigned int k = 2 * lo; k <= 2 * hi; ++k) {
                ZKSTableFitSample x{{i, j, k}, {}};
                for (unsigned int ch = 0; ch < 2; ++ch) x.value[ch] = Affine(i / 2.0, j / 2.0, k / 2.0, ch);
                s.push_back(x);
            }
    return s;
}

}  // namespace

TEST(TableFit, ReproducesAnAffineFunctionAndLeavesOtherNodesAlone) {
    std::vector<double> values(kN * kN * kN * 2, -7.0);
    std::vector<bool> fitted;
    const double lower[2] = {-1e9, -1e9}, upper[2] = {1e9, 1e9};
    FitTableNodes(kN, 2, 2, Samples(1, 4), 0.01, lower, upper, {}, 0.0, values, &fitted);
    for (unsigned int g = 0; g < kN * kN * kN; ++g) {
        const unsigned int a = g / (kN * kN), b = g / kN % kN, c = g % kN;
        const bool inside = a >= 1 && a <= 4 && b >= 1 && b <= 4 && c >= 1 && c <= 4;
        EXPECT_EQ(fitted[g], inside) << g;
        for (unsigned int ch = 0; ch < 2; ++ch) {
            if (inside) {
                EXPECT_NEAR(values[2 * g + ch], Affine(a, b, c, ch), 1e-6) << g;
            } else {
                EXPECT_EQ(values[2 * g + ch], -7.0) << g;
            }
        }
    }
}

TEST(TableFit, ExtendsPastTheSamplesAndKeepsBoundsAndKeptNodes) {
    // Samples in the lower half only; the nodes of the cells above are fitted
    // by the second differences alone: the straight continuation.
    std::vector<double> values(kN * kN * kN * 2, 0.0);
    std::vector<bool> alsoFit(kN * kN * kN, true);
    std::vector<bool> fitted;
    const double lower[2] = {-1e9, 0.0}, upper[2] = {1e9, 100.0};
    FitTableNodes(kN, 2, 2, Samples(0, 3), 1e-3, lower, upper, alsoFit, 0.0, values, &fitted);
    const unsigned int top = (5 * kN + 2) * kN + 2;  // beyond the samples along axis 0
    EXPECT_TRUE(fitted[top]);
    EXPECT_NEAR(values[2 * top], Affine(5, 2, 2, 0), 0.05);
    for (unsigned int g = 0; g < kN * kN * kN; ++g) {
        EXPECT_GE(values[2 * g + 1], 0.0);
        EXPECT_LE(values[2 * g + 1], 100.0);
    }
    // Channel 1 would pass 100 at (0, 0, 5) (100 + 2.5): held at the bound.
    EXPECT_EQ(values[2 * 5 + 1], 100.0);
}

// With a colour metric only the colour of the residual counts (plus a
// little of its size): a metric blind to channel 1 leaves channel 1 to the
// small size term and the second differences, while channel 0 is fitted.
TEST(TableFit, ColourMetricWeighsTheResidual) {
    std::vector<ZKSTableFitSample> samples = Samples(1, 4);
    for (ZKSTableFitSample& s : samples) {
        s.hasJacobian = true;
        s.jacobian[0] = 1.0;  // colour = channel 0 only (3 x 2, row-major)
        s.value[1] = 50.0;
    }
    std::vector<double> values(kN * kN * kN * 2, 0.0);
    const double lower[2] = {-1e9, -1e9}, upper[2] = {1e9, 1e9};
    FitTableNodes(kN, 2, 2, samples, 1e-6, lower, upper, {}, 1e-6, values, nullptr);
    const unsigned int g = (2 * kN + 2) * kN + 2;
    EXPECT_NEAR(values[2 * g], Affine(2, 2, 2, 0), 1e-3);
    EXPECT_NEAR(values[2 * g + 1], 50.0, 1e-3);  // the size term still pulls it there
    // A heavier size term against a blind metric changes nothing for a
    // function the table can hold.
    std::vector<double> again(kN * kN * kN * 2, 0.0);
    FitTableNodes(kN, 2, 2, samples, 1e-6, lower, upper, {}, 1.0, again, nullptr);
    EXPECT_NEAR(again[2 * g], values[2 * g], 1e-3);
}
