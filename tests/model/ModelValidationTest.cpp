// The front ends' model check: good models pass, each kind of damage is named,
// and the corner-sum rule is exactly the line between models that can
// predict NaN and models that cannot.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelma/model/ModelValidation.h"
#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;

namespace {

std::string Check(const kelma_test::ZKSTestModel& m) {
    return CheckModelArrays(m.inks, m.gridPoints, m.grid.data(), m.ramps.data(), m.scheme.data(), m.scheme.size(),
                            m.n);
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(CheckModelArrays, GoodModelsPass) {
    for (unsigned inks : {4u, 6u, 7u})
        for (unsigned g : {2u, 3u}) EXPECT_EQ(Check(kelma_test::MakeTestModel(inks, g, 2.0, inks + g)), "");
    EXPECT_EQ(Check(kelma_test::MakeTestModel(4, 5, 1.7, 3)), "");
    const ZKSPrinterModelArrays press = DefaultPressModelArrays();
    EXPECT_EQ(CheckModelArrays(4, press.numberOfGridPoints, press.gridPointsF.data(), press.effectiveRampsF.data(),
                               press.matrixSchemeF.data(), press.matrixSchemeF.size(), static_cast<float>(press.n)),
              "");
}

TEST(CheckModelArrays, EachKindOfDamageIsNamed) {
    const kelma_test::ZKSTestModel good = kelma_test::MakeTestModel(4, 3, 2.0, 5);
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    auto damaged = [&](auto change) {
        kelma_test::ZKSTestModel m = good;
        change(m);
        return Check(m);
    };
    EXPECT_TRUE(Contains(CheckModelArrays(5, 3, good.grid.data(), good.ramps.data(), good.scheme.data(), 0, 2.0),
                         "4, 6 or 7 inks, got 5"));
    EXPECT_TRUE(Contains(CheckModelArrays(4, 1, good.grid.data(), good.ramps.data(), good.scheme.data(), 31 * 16, 2.0),
                         "at least 2 grid points"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.scheme.pop_back(); }), "must hold 31 x (G-1)^N x 2^N = 7936"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.grid[1] = 100.5; }), "grid level 2 of ink 1 is 100.5"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.grid[4] = 0; }), "ink 2 must be strictly ascending"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.grid[8] = 254; }), "ink 3 must start at 0 and end at 255"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.ramps[256 + 40] = nan; }), "ramp of ink 2 is not finite at level 40"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.ramps[3 * 256 + 41] = m.ramps[3 * 256 + 40] - 0.01; }),
                         "ramp of ink 4 falls"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.n = 0.0; }), "n (the Yule-Nielsen exponent)"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.n = nan; }), "n (the Yule-Nielsen exponent)"));
    EXPECT_TRUE(Contains(damaged([](auto& m) { m.scheme[77] = nan; }), "scheme coefficient 77 is not finite"));
    // The ramp's value at a grid level ends one cell and starts the next, so a
    // drop there breaks the cell below it.
    EXPECT_TRUE(Contains(damaged([](auto& m) {
                             const int level = static_cast<int>(m.grid[1]);
                             for (int t = level; t < 256; ++t) m.ramps[t] -= 0.05;
                         }),
                         "ramp of ink 1 falls"));
}

TEST(CheckModelArrays, NegativeCornerSumsAreExactlyTheModelsThatPredictNaN) {
    const kelma_test::ZKSTestModel good = kelma_test::MakeTestModel(4, 3, 2.2, 9);
    // Cell 5, wavelength 12: lower the constant term until corner 0 is negative.
    kelma_test::ZKSTestModel bad = good;
    const std::size_t block = (5 * 31 + 12) * 16;
    double corner0 = bad.scheme[block];
    bad.scheme[block] -= corner0 + 0.01;
    const std::string why = Check(bad);
    EXPECT_TRUE(Contains(why, "cell 5")) << why;
    EXPECT_TRUE(Contains(why, "520 nm")) << why;

    // The sample at that cell's lowest corner predicts NaN at 520 nm...
    // cell 5 = 1 + 2 x 0 + 4 x 1: inks 1 and 3 at their middle level, the others at 0.
    std::vector<unsigned char> corner{static_cast<unsigned char>(good.grid[1]), 0,
                                      static_cast<unsigned char>(good.grid[7]), 0};
    AlignedBuffer<float> out(32);
    {
        ZKCSSE_KELMA_Thread driver(bad.Build(), 1, corner.data(), out.data());
    }
    EXPECT_TRUE(std::isnan(out[12]));
    // ...while the passing model predicts no NaN anywhere.
    std::mt19937 rng(1);
    std::vector<unsigned char> samples(4 * 100000);
    for (auto& b : samples) b = static_cast<unsigned char>(rng());
    AlignedBuffer<float> spectra(32 * 100000);
    {
        ZKCSSE_KELMA_Thread driver(good.Build(), 100000, samples.data(), spectra.data());
    }
    for (std::size_t k = 0; k < spectra.size(); ++k) ASSERT_FALSE(std::isnan(spectra[k])) << k;
}

TEST(CheckModelArrays, ReflectanceAboveTheBoundIsRefusedBeforeItOverflows) {
    const kelma_test::ZKSTestModel good = kelma_test::MakeTestModel(4, 3, 2.0, 9);
    const std::size_t block = (5 * 31 + 12) * 16;  // cell 5, 520 nm
    // The model-file fuzzer's finding: one coefficient of 7.8e36, finite in
    // float, whose square is not.
    kelma_test::ZKSTestModel huge = good;
    huge.scheme[block + 3] = 7.8e36;  // the term of inks 1 and 2
    const std::string why = Check(huge);
    EXPECT_TRUE(Contains(why, "cell 5 predicts a reflectance factor of")) << why;
    EXPECT_TRUE(Contains(why, "520 nm")) << why;
    // Unchecked, the sample near that cell's far corner of inks 1 and 2 predicts infinity.
    std::vector<unsigned char> sample{255, static_cast<unsigned char>(good.grid[4] - 1),
                                      static_cast<unsigned char>(good.grid[7]), 0};
    AlignedBuffer<float> out(32);
    {
        ZKCSSE_KELMA_Thread driver(huge.Build(), 1, sample.data(), out.data());
    }
    EXPECT_TRUE(std::isinf(out[12])) << out[12];

    // The line itself: a block whose every corner is v predicts v^n everywhere.
    auto Flat = [&](double v) {
        kelma_test::ZKSTestModel m = good;
        std::fill(m.scheme.begin() + block, m.scheme.begin() + block + 16, 0.0);
        m.scheme[block] = v;
        return Check(m);
    };
    const double edge = std::sqrt(kMaxPredictedReflectance);
    EXPECT_EQ(Flat(edge * (1 - 1e-9)), "");
    EXPECT_TRUE(Contains(Flat(edge * (1 + 1e-9)), "above 1000 the spectra and colours overflow"));
}
