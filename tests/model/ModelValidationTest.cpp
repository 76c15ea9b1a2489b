// The front ends' model check: good models pass, each kind of damage is named,
// and the corner-sum rule is exactly the line between models that can
// predict NaN and models that cannot.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/StandardIlluminants.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/model/ModelValidation.h"
#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/prediction/PredictColorimetry.h"
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

namespace {

ZKCLighting_Matrix StandardMatrix(const std::string& name, OBSERVER_TYPE observer = OBSERVER_CIE1931_2) {
    const std::unique_ptr<ZKCIlluminant_Base> source = MakeStandardIlluminant(name);
    return ZKCLighting_Matrix(ZKCObserver(observer), source.get());
}

// A 4-ink model on 2 grid points whose paper reflects `paper` at every
// wavelength and whose corners with ink 1 reflect `full` (float sums of the
// corner roots; n = 2).
kelma_test::ZKSTestModel FlatModel(double paper, double full) {
    kelma_test::ZKSTestModel m = kelma_test::MakeTestModel(4, 2, 2.0, 11);
    std::fill(m.scheme.begin(), m.scheme.end(), 0.0);
    for (std::size_t w = 0; w < 31; ++w) {
        m.scheme[w * 16] = std::sqrt(paper);
        m.scheme[w * 16 + 1] = std::sqrt(full) - std::sqrt(paper);
    }
    return m;
}

// Every corner of the 4-ink cube and a few points inside it.
std::vector<unsigned char> CornerSamples() {
    std::vector<unsigned char> s;
    for (unsigned k = 0; k < 16; ++k)
        for (unsigned i = 0; i < 4; ++i) s.push_back((k >> i) & 1 ? 255 : 0);
    for (unsigned char v : {1, 77, 128, 254}) s.insert(s.end(), {v, 0, v, 255});
    return s;
}

// Whether every XYZ and CIELAB value of the samples is finite under each
// illuminant, relative to the illuminant and to the paper.
bool FiniteColours(const ZKCSSE_KELMA_Data& model) {
    const std::vector<unsigned char> samples = CornerSamples();
    const std::size_t count = samples.size() / 4;
    for (unsigned j = 0; j < model.Lighting_Matrix().IlluminantNumber(); ++j)
        for (bool paperRelative : {false, true}) {
            std::vector<double> xyz(3 * count), lab(3 * count);
            PredictColorimetry(model, count, samples.data(), j, paperRelative, xyz.data(), lab.data());
            for (std::size_t k = 0; k < xyz.size(); ++k)
                if (!std::isfinite(xyz[k]) || !std::isfinite(lab[k])) return false;
        }
    return true;
}

}  // namespace

TEST(CheckModelLighting, StandardIlluminantsAndRealPapersPass) {
    const kelma_test::ZKSTestModel m = kelma_test::MakeTestModel(4, 3, 2.0, 5);
    for (const char* name : {"A", "D50", "D65", "E", "F1", "F2", "F11"})
        for (OBSERVER_TYPE o : {OBSERVER_CIE1931_2, OBSERVER_CIE1964_10})
            EXPECT_EQ(CheckModelLighting(m.Build(StandardMatrix(name, o), false)), "") << name;
    // A black paper (3 %) is a paper.
    EXPECT_EQ(CheckModelLighting(FlatModel(0.03, 0.9).Build()), "");
}

TEST(CheckModelLighting, EachKindOfBadLightingIsNamed) {
    const ZKCLighting_Matrix d50 = StandardMatrix("D50");
    const kelma_test::ZKSTestModel model = kelma_test::MakeTestModel(4, 3, 2.0, 5);
    auto withWeights = [&](auto change) {
        std::vector<float> w(d50.Weights(), d50.Weights() + kLightingBlock);
        change(w.data());
        return CheckModelLighting(model.Build(ZKCLighting_Matrix(w.data(), 1), false));
    };
    const float inf = std::numeric_limits<float>::infinity();
    std::string why = withWeights([&](float* w) { w[3] = inf; });
    EXPECT_TRUE(Contains(why, "illuminant 1: X weight 3 (430 nm) is not finite")) << why;
    why = withWeights([](float* w) { std::fill(w + 64, w + 95, 0.0f); });
    EXPECT_TRUE(Contains(why, "its white's Z (the sum of the Z weights) is 0")) << why;
    why = withWeights([](float* w) { for (int i = 0; i < 31; ++i) w[32 + i] = -w[32 + i]; });
    EXPECT_TRUE(Contains(why, "white's Y")) << why;
    why = withWeights([](float* w) { for (int i = 0; i < 96; ++i) w[i] *= 1e31f; });
    EXPECT_TRUE(Contains(why, "at most 1e+30")) << why;
    // +d and -d on neighbouring bands: the white is unchanged, the row's
    // magnitudes sum to about 31 d.
    why = withWeights([](float* w) { for (int i = 0; i < 30; ++i) w[i] += i % 2 ? -0.5f : 0.5f; });
    EXPECT_TRUE(Contains(why, "the X weights nearly cancel")) << why;

    why = CheckModelLighting(FlatModel(1e-4, 0.9).Build());
    EXPECT_TRUE(Contains(why, "the paper's X is")) << why;
    // The second illuminant of two.
    ZKCLighting_Matrix two = d50;
    std::vector<float> w(d50.Weights(), d50.Weights() + kLightingBlock);
    std::fill(w.begin(), w.begin() + 31, 0.0f);
    two += ZKCLighting_Matrix(w.data(), 1);
    why = CheckModelLighting(model.Build(two, false));
    EXPECT_TRUE(Contains(why, "illuminant 2: its white's X")) << why;
}

// The promise: a model both checks accept has finite colours, even with
// every bound used up at once (spectra at the reflectance bound, a paper
// just above its bound, weights cancelling almost as far as allowed and a
// white near its bound); just past the paper's bound the colours overflow.
TEST(CheckModelLighting, AcceptedModelsHaveFiniteColoursAtTheBounds) {
    const ZKCLighting_Matrix d50 = StandardMatrix("D50");
    std::vector<float> w(d50.Weights(), d50.Weights() + kLightingBlock);
    for (int c = 0; c < 3; ++c) {
        double white = 0.0;
        for (int i = 0; i < 31; ++i) white += w[32 * c + i];
        // 30 bands of +-d: magnitudes about white + 30 d, kept under 10 x white.
        const float d = static_cast<float>(8.5 * white / 30.0);
        for (int i = 0; i < 30; ++i) w[32 * c + i] += i % 2 ? -d : d;
    }
    for (float& v : w) v *= 9e29f;
    const ZKCLighting_Matrix extreme(w.data(), 1);

    const double full = 0.999 * kMaxPredictedReflectance;
    const kelma_test::ZKSTestModel edge = FlatModel(1.01 * kMinPaperWhiteFraction, full);
    ASSERT_EQ(Check(edge), "");
    for (const ZKCLighting_Matrix& lighting : {d50, extreme}) {
        const ZKCSSE_KELMA_Data model = edge.Build(lighting, false);
        ASSERT_EQ(CheckModelLighting(model), "");
        EXPECT_TRUE(FiniteColours(model));
    }
    // A paper of 1e-40 (a float denormal) makes the paper-relative factor
    // infinite; the check refuses it.
    const kelma_test::ZKSTestModel dark = FlatModel(1e-40, full);
    ASSERT_EQ(Check(dark), "");
    const ZKCSSE_KELMA_Data model = dark.Build(d50, false);
    EXPECT_FALSE(FiniteColours(model));
    EXPECT_TRUE(Contains(CheckModelLighting(model), "the paper's X"));
}
