// The least-squares table fit: exact for functions the table can hold,
// bounded, and leaving alone the nodes it is not asked to fit.
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
    FitTableNodes(kN, 2, 2, Samples(1, 4), 0.01, lower, upper, {}, {}, values, &fitted);
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
    std::vector<bool> alsoFit(kN * kN * kN, false), keep(kN * kN * kN, false);
    for (unsigned int g = 0; g < kN * kN * kN; ++g) alsoFit[g] = true;
    keep[0] = true;
    values[0] = Affine(0, 0, 0, 0) + 0.125;  // kept as it is, though off the function
    std::vector<bool> fitted;
    const double lower[2] = {-1e9, 0.0}, upper[2] = {1e9, 100.0};
    FitTableNodes(kN, 2, 2, Samples(0, 3), 1e-3, lower, upper, alsoFit, keep, values, &fitted);
    EXPECT_FALSE(fitted[0]);
    EXPECT_EQ(values[0], Affine(0, 0, 0, 0) + 0.125);
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
