// The model builder's numeric tools against independent oracles: SciPy's
// PchipInterpolator (values computed with SciPy 1.10), hand-pooled isotonic
// regression, solves checked by their residual,
// the Moebius blocks by evaluating the multilinear polynomial, and the local
// CIEDE2000 metric against Little CMS.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/modelbuilding/ModelBuildingMath.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

using namespace kelma::modelbuilding;

TEST(MonotoneCurve, MatchesScipyPchip) {
    const std::vector<double> x{0, 13, 26, 51, 102, 140, 255}, y{0, 0.08, 0.15, 0.27, 0.4, 0.6, 1.0};
    const std::vector<double> c = MonotoneCurve(x, y, 256);
    const std::pair<int, double> scipy[] = {{5, 0.031983007130936124},  {20, 0.11871160867333598},
                                            {40, 0.2226863815550633},   {77, 0.3357671603881863},
                                            {120, 0.4900700828164026},  {200, 0.8405673689560659},
                                            {254, 0.9978475005799053}};
    for (const auto& s : scipy) EXPECT_NEAR(c[s.first], s.second, 1e-14) << s.first;
    for (std::size_t k = 0; k < x.size(); ++k) EXPECT_EQ(c[static_cast<int>(x[k])], y[k]);
    for (int t = 1; t < 256; ++t) EXPECT_GE(c[t], c[t - 1]) << t;

    // Non-monotone data exercise the limited end slopes and zero interior slopes.
    const std::vector<double> x2{0, 3, 5, 9, 10}, y2{1, 4, 2, 2, -1};
    const std::vector<double> c2 = MonotoneCurve(x2, y2, 11);
    const double scipy2[] = {2.7555555555555555, 3.7111111111111112, 3.0, 2.0, 2.0, 2.0};
    const int at2[] = {1, 2, 4, 6, 7, 8};
    for (int k = 0; k < 6; ++k) EXPECT_NEAR(c2[at2[k]], scipy2[k], 1e-14) << at2[k];
}

TEST(MonotoneCurve, TwoPointsAndLinearDataAreLinear) {
    const std::vector<double> c = MonotoneCurve({0, 255}, {0.0, 1.0}, 256);
    for (int t = 0; t < 256; ++t) EXPECT_NEAR(c[t], t / 255.0, 1e-15);
    const std::vector<double> c3 = MonotoneCurve({0, 40, 100, 255}, {0.0, 0.08, 0.2, 0.51}, 256);
    for (int t = 0; t < 256; ++t) EXPECT_NEAR(c3[t], 0.002 * t, 1e-14);
}

TEST(IsotonicRegression, PoolsViolatorsByWeight) {
    std::vector<double> y{1, 3, 2, 4, 3.5, 3.0, 5};
    IsotonicRegression(y, {1, 1, 2, 1, 1, 1, 1});
    const double expected[] = {1, 7.0 / 3, 7.0 / 3, 3.5, 3.5, 3.5, 5};
    for (int k = 0; k < 7; ++k) EXPECT_NEAR(y[k], expected[k], 1e-15) << k;

    std::vector<double> sorted{0.1, 0.2, 0.2, 0.9};
    IsotonicRegression(sorted, {1, 1, 1, 1});
    EXPECT_EQ(sorted, (std::vector<double>{0.1, 0.2, 0.2, 0.9}));
}

TEST(Cholesky, SolvesRandomPositiveDefiniteSystemsAndRejectsIndefinite) {
    std::mt19937 rng(7);
    std::normal_distribution<double> g;
    const std::size_t n = 40, cols = 3;
    std::vector<double> b(n * n), a(n * n, 0.0), rhs(n * cols);
    for (double& v : b) v = g(rng);
    // A = B B^T + I is positive definite.
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j) {
            for (std::size_t k = 0; k < n; ++k) a[i * n + j] += b[i * n + k] * b[j * n + k];
            if (i == j) a[i * n + j] += 1.0;
        }
    for (double& v : rhs) v = g(rng);
    std::vector<double> l(a), x(rhs);
    ASSERT_TRUE(CholeskyFactor(l.data(), n));
    CholeskySolve(l.data(), n, x.data(), cols);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t c = 0; c < cols; ++c) {
            double s = 0.0;
            for (std::size_t k = 0; k < n; ++k) s += a[i * n + k] * x[k * cols + c];
            EXPECT_NEAR(s, rhs[i * cols + c], 1e-9);
        }
    std::vector<double> indefinite{1, 2, 2, 1};
    EXPECT_FALSE(CholeskyFactor(indefinite.data(), 2));
    std::vector<double> nan{std::nan(""), 0, 0, 1};
    EXPECT_FALSE(CholeskyFactor(nan.data(), 2));
}

TEST(MoebiusInvert, BlockReproducesCornersAndInterpolatesMultilinearly) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(0.1, 1.0);
    for (unsigned int inks : {2u, 4u, 6u, 7u}) {
        const std::size_t corners = std::size_t{1} << inks;
        std::vector<double> r(corners);
        for (double& v : r) v = u(rng);
        std::vector<double> c(r);
        MoebiusInvert(c.data(), inks);
        // sum_k c_k prod_{i in k} w_i at local coordinates w.
        auto polynomial = [&](const std::vector<double>& w) {
            double s = 0.0;
            for (std::size_t k = 0; k < corners; ++k) {
                double m = 1.0;
                for (unsigned int i = 0; i < inks; ++i)
                    if (k & (std::size_t{1} << i)) m *= w[i];
                s += c[k] * m;
            }
            return s;
        };
        // Demichel interpolation of the corners, the polynomial's definition.
        auto demichel = [&](const std::vector<double>& w) {
            double s = 0.0;
            for (std::size_t k = 0; k < corners; ++k) {
                double m = 1.0;
                for (unsigned int i = 0; i < inks; ++i) m *= (k & (std::size_t{1} << i)) ? w[i] : 1.0 - w[i];
                s += r[k] * m;
            }
            return s;
        };
        for (std::size_t k = 0; k < corners; ++k) {
            std::vector<double> w(inks);
            for (unsigned int i = 0; i < inks; ++i) w[i] = (k >> i) & 1u;
            EXPECT_NEAR(polynomial(w), r[k], 1e-12);
        }
        for (int trial = 0; trial < 20; ++trial) {
            std::vector<double> w(inks);
            for (double& v : w) v = u(rng);
            EXPECT_NEAR(polynomial(w), demichel(w), 1e-12);
        }
    }
}

TEST(DeltaE00Metric, QuadraticFormApproximatesSmallDifferences) {
    const double colours[][3] = {{95, -1, 3}, {50, 60, -20}, {30, -10, -40}, {70, 5, 80}, {20, 0.5, -0.5}};
    std::mt19937 rng(11);
    std::normal_distribution<double> g(0.0, 0.3);
    for (const auto& lab : colours) {
        double u[9];
        DeltaE00Metric(lab, u);
        EXPECT_EQ(u[3], 0.0);
        EXPECT_EQ(u[6], 0.0);
        EXPECT_EQ(u[7], 0.0);
        for (int trial = 0; trial < 20; ++trial) {
            const double d[3] = {g(rng), g(rng), g(rng)};
            const double other[3] = {lab[0] + d[0], lab[1] + d[1], lab[2] + d[2]};
            double q = 0.0;
            for (int r = 0; r < 3; ++r) {
                const double v = u[r * 3] * d[0] + u[r * 3 + 1] * d[1] + u[r * 3 + 2] * d[2];
                q += v * v;
            }
            const double exact = kelma::DeltaE2000(lab, other);
            EXPECT_NEAR(std::sqrt(q), exact, 0.05 * exact + 1e-3) << lab[0] << " " << lab[1] << " " << lab[2];
        }
    }
}
