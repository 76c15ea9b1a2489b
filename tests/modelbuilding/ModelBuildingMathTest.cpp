// The model builder's numeric tools against independent oracles: SciPy's
// PchipInterpolator and numpy's percentile (values computed with SciPy 1.10 /
// numpy), hand-pooled isotonic regression, solves checked by their residual,
// the Moebius blocks by evaluating the multilinear polynomial, and the local
// CIEDE2000 metric against Little CMS.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kelma/modelbuilding/ModelBuildingMath.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

using namespace kelma::modelbuilding;

TEST(DigitalLevel, RoundsHalfUpFromPercent) {
    EXPECT_EQ(DigitalLevel(0.0), 0u);
    EXPECT_EQ(DigitalLevel(100.0), 255u);
    EXPECT_EQ(DigitalLevel(40.0), 102u);
    // Exact halves round up even where 2.55 x p is not exact in binary.
    EXPECT_EQ(DigitalLevel(10.0), 26u);   // 25.5
    EXPECT_EQ(DigitalLevel(50.0), 128u);  // 127.5
    EXPECT_EQ(DigitalLevel(70.0), 179u);  // 178.5
    EXPECT_EQ(DigitalLevel(3.0), 8u);     // 7.65
    EXPECT_EQ(DigitalLevel(2.0), 5u);     // 5.1
    EXPECT_EQ(DigitalLevel(98.0), 250u);  // 249.9
    // Every level t is reached from its own percentage t / 2.55.
    for (unsigned int t = 0; t < 256; ++t) EXPECT_EQ(DigitalLevel(t / 2.55), t) << t;
}

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
            const double exact = DeltaE00(lab, other);
            EXPECT_NEAR(std::sqrt(q), exact, 0.05 * exact + 1e-3) << lab[0] << " " << lab[1] << " " << lab[2];
        }
    }
}

TEST(XYZToLab, KnownValues) {
    const double white[3] = {0.9642, 1.0, 0.8251};
    double lab[3];
    XYZToLab(white, white, lab);
    EXPECT_NEAR(lab[0], 100.0, 1e-12);
    EXPECT_NEAR(lab[1], 0.0, 1e-12);
    // Y = 0.18 -> L* = 49.496 (116 cbrt(0.18) - 16); the linear toe below 216/24389.
    const double grey[3] = {0.18 * 0.9642, 0.18, 0.18 * 0.8251};
    XYZToLab(grey, white, lab);
    EXPECT_NEAR(lab[0], 116.0 * std::cbrt(0.18) - 16.0, 1e-12);
    const double dark[3] = {0.001 * 0.9642, 0.001, 0.001 * 0.8251};
    XYZToLab(dark, white, lab);
    EXPECT_NEAR(lab[0], 24389.0 / 27.0 * 0.001, 1e-12);
}

TEST(Percentile, MatchesNumpyLinear) {
    EXPECT_DOUBLE_EQ(Percentile({3, 1, 4, 1, 5, 9, 2, 6}, 0.95), 7.949999999999998);
    EXPECT_EQ(Percentile({2.0}, 0.95), 2.0);
    EXPECT_EQ(Percentile({}, 0.95), 0.0);
}

TEST(Percentile, DeltaEStatisticsSummariseAndPropagateNaN) {
    const kelma::ZKSDeltaEStatistics s = kelma::DeltaEStatistics({3, 1, 4, 1, 5, 9, 2, 6});
    EXPECT_EQ(s.count, 8u);
    EXPECT_DOUBLE_EQ(s.mean, 31.0 / 8.0);
    EXPECT_DOUBLE_EQ(s.p95, 7.949999999999998);
    EXPECT_EQ(s.max, 9.0);
    const kelma::ZKSDeltaEStatistics none = kelma::DeltaEStatistics({});
    EXPECT_EQ(none.count, 0u);
    EXPECT_EQ(none.mean, 0.0);
    const kelma::ZKSDeltaEStatistics nan = kelma::DeltaEStatistics({1.0, std::nan(""), 2.0});
    EXPECT_EQ(nan.count, 3u);
    EXPECT_TRUE(std::isnan(nan.mean) && std::isnan(nan.p95) && std::isnan(nan.max));
}
