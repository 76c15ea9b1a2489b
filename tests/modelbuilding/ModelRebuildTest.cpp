// Models rebuilt from charts measured on known generator models: the exact
// arrays come back (coefficients, ramp lookup, n), the library's prediction
// of a built model reproduces the measured nodes, and withheld patches of a
// chart made by a finer model are predicted within the accuracy targets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/modelbuilding/SyntheticChart.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;
using kelma_test::ChartMaker;
using kelma_test::MakeTestModel;
using kelma_test::ZKSTestModel;

namespace {

// Exact chart: all nodes, every ramp level, some mixtures.
ZKSModelChart ExactChart(const ZKSTestModel& truth, std::size_t mixtures) {
    ChartMaker maker(truth);
    maker.AddNodes();
    maker.AddRamps();
    maker.AddRandom(mixtures, 99);
    return maker.Chart();
}

std::vector<double> GridPercentOf(const ZKSTestModel& truth) {
    std::vector<double> p;
    for (double level : truth.grid) p.push_back(level / 2.55);
    return p;
}

// The built model's arrays equal the generator's: coefficients to double
// rounding (float arrays to float rounding), grid, lookup table of the ramps.
void ExpectSameModel(const ZKSPrinterModelArrays& built, const ZKSTestModel& truth, double schemeTolerance,
                     double weightTolerance = 2e-6) {
    ASSERT_EQ(built.numberOfInks, truth.inks);
    ASSERT_EQ(built.numberOfGridPoints, truth.gridPoints);
    EXPECT_EQ(built.gridPoints, truth.grid);
    ASSERT_EQ(built.matrixScheme.size(), truth.scheme.size());
    double worst = 0.0;
    for (std::size_t k = 0; k < truth.scheme.size(); ++k) {
        worst = std::max(worst, std::fabs(built.matrixScheme[k] - truth.scheme[k]));
        ASSERT_NEAR(built.matrixSchemeF[k], static_cast<float>(truth.scheme[k]),
                    std::max(schemeTolerance, 1.2e-7 * std::fabs(truth.scheme[k])))
            << k;
    }
    EXPECT_LE(worst, schemeTolerance);
    const ZKCSSE_KELMA_Data ours = built.Model();
    const ZKCSSE_KELMA_Data theirs = truth.Build();
    const auto& a = ours.EffectiveRampsLUT();
    const auto& b = theirs.EffectiveRampsLUT();
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t k = 0; k < a.size(); ++k) {
        EXPECT_EQ(a[k].cellOffset, b[k].cellOffset) << k;
        EXPECT_NEAR(a[k].weight, b[k].weight, weightTolerance) << k;
    }
    for (unsigned int i = 0; i < built.numberOfInks; ++i)
        for (unsigned int t = 1; t < 256; ++t)
            EXPECT_GE(built.effectiveRamps[i * 256 + t], built.effectiveRamps[i * 256 + t - 1]);
}

// Library prediction (spectra) of digital samples.
std::vector<float> LibraryPredict(const ZKSPrinterModelArrays& model, std::vector<unsigned char> samples) {
    const unsigned int count = static_cast<unsigned int>(samples.size() / model.numberOfInks);
    AlignedBuffer<float> out(std::size_t{count} * kSpectrumStride);
    const ZKCSSE_KELMA_Data data = model.Model();
    ZKCSSE_KELMA_Thread driver(data, count, samples.data(), out.data());
    driver.Wait();
    return std::vector<float>(out.data(), out.data() + out.size());
}

}  // namespace

TEST(ModelRebuild, ClassicFitRecoversTheGeneratorsArraysForEveryInkCount) {
    struct Case {
        unsigned int inks, points;
        double n;
    } cases[] = {{4, 3, 2.3}, {4, 4, 1.7}, {6, 3, 2.0}, {7, 2, 3.1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.inks << " inks, G = " << c.points);
        const ZKSTestModel truth = MakeTestModel(c.inks, c.points, c.n, 17 + c.inks);
        const ZKCModelBuilder builder(ExactChart(truth, 40));
        ZKSModelBuildOptions options;
        options.perInkGridPercent = GridPercentOf(truth);
        options.method = MODELFIT_CLASSIC;
        options.fixedN = c.n;
        const ZKSBuiltModel built = builder.Build(options);
        EXPECT_EQ(built.model.n, c.n);
        ExpectSameModel(built.model, truth, 1e-12);
        EXPECT_EQ(built.nodePatches.size(), static_cast<std::size_t>(std::lround(std::pow(c.points, c.inks))));
        EXPECT_LT(built.fitError.max, 1e-3);
    }
}

TEST(ModelRebuild, SearchedAndRefinedNAreRecovered) {
    // Ramps and mixtures every 4 levels: the levels in between are interpolated.
    const ZKSTestModel truth = MakeTestModel(4, 3, 2.3, 5);
    ChartMaker maker(truth);
    maker.AddNodes();
    maker.AddRamps(2, 254, 4);
    maker.AddRandom(60, 12, 2, 4);
    const ZKCModelBuilder builder(maker.Chart());
    ZKSModelBuildOptions options;
    options.perInkGridPercent = GridPercentOf(truth);

    options.method = MODELFIT_CLASSIC;
    const ZKSBuiltModel classic = builder.Build(options);
    EXPECT_NEAR(classic.model.n, 2.3, 1e-3);
    EXPECT_LT(classic.fitError.max, 0.01);
    EXPECT_GT(classic.iterations, 20u);  // scan plus golden section
    ExpectSameModel(classic.model, truth, 1e-3, 1e-3);

    // The refined fit starts at a point with zero residual and must stay there.
    options.method = MODELFIT_REFINED;
    const ZKSBuiltModel refined = builder.Build(options);
    EXPECT_NEAR(refined.model.n, 2.3, 1e-3);
    EXPECT_LT(refined.fitError.max, 0.01);
    ExpectSameModel(refined.model, truth, 1e-3, 1e-3);
    EXPECT_EQ(refined.clampedNodeValues, 0u);

    // From a wrong start value of n the refined fit walks back to the truth.
    options.fixedN = 3.0;
    const ZKSBuiltModel walked = builder.Build(options);
    EXPECT_NEAR(walked.model.n, 2.3, 1e-3);
    EXPECT_LT(walked.fitError.mean, 0.05);
}

TEST(ModelRebuild, PredictedNodesReproduceTheMeasuredNodeSpectra) {
    // Noisy chart with every node measured twice: the classic model's nodes
    // are the averages, the library's prediction must return them.
    const ZKSTestModel truth = MakeTestModel(4, 3, 2.0, 8);
    ChartMaker maker(truth);
    maker.AddNodes();
    maker.AddNodes();
    maker.AddRamps(3, 252, 7);
    maker.AddRandom(100, 4);
    ZKSModelChart chart = maker.Chart();
    std::mt19937 rng(1);
    std::normal_distribution<double> noise(0.0, 0.003);
    for (double& v : chart.spectra) v = std::max(0.001, v * (1.0 + noise(rng)));
    const std::size_t nodes = 81;

    for (MODELFIT_METHOD method : {MODELFIT_CLASSIC, MODELFIT_REFINED}) {
        ZKSModelBuildOptions options;
        options.perInkGridPercent = GridPercentOf(truth);
        options.method = method;
        const ZKSBuiltModel built = ZKCModelBuilder(chart).Build(options);
        EXPECT_EQ(built.nodePatches.size(), 2 * nodes);
        EXPECT_EQ(built.trainingPatches.size(), chart.PatchCount());
        std::vector<unsigned char> samples;
        for (std::size_t p = 0; p < nodes; ++p)
            for (unsigned int i = 0; i < 4; ++i)
                samples.push_back(static_cast<unsigned char>(std::lround(chart.deviceValues[p * 4 + i] * 2.55)));
        const std::vector<float> predicted = LibraryPredict(built.model, samples);
        double worst = 0.0;
        for (std::size_t p = 0; p < nodes; ++p)
            for (unsigned int w = 0; w < 31; ++w) {
                const double average = 0.5 * (chart.spectra[p * 31 + w] + chart.spectra[(p + nodes) * 31 + w]);
                worst = std::max(worst, std::fabs(predicted[p * 32 + w] - average));
            }
        if (method == MODELFIT_CLASSIC) {
            EXPECT_LT(worst, 1e-5);  // float rounding of the kernel
        } else {
            // Least-squares nodes follow all patches, not only the node pairs.
            EXPECT_LT(worst, 0.01);
            EXPECT_GT(worst, 1e-5);
        }
    }
}

TEST(ModelRebuild, WithheldPatchesOfAFinerPrintAreWithinTheAccuracyTargets) {
    // The "press" is a 5-level model; the built models have 3 levels, so the
    // fit approximates like on a real print. Fold f trains on the grid
    // patches and one half of the others and is judged on the other half.
    const ZKSTestModel press = MakeTestModel(4, 5, 2.2, 31);
    ChartMaker maker(press);
    const unsigned char levels[] = {0, 26, 51, 102, 140, 179, 230, 255};
    for (unsigned char c : levels)
        for (unsigned char m : levels)
            for (unsigned char y : levels)
                for (unsigned char k : {0, 51, 102, 179, 255}) maker.AddReference({c, m, y, k});
    for (unsigned int i = 0; i < 4; ++i)
        for (unsigned int t = 5; t < 255; t += 13) {
            std::vector<unsigned char> sample(4, 0);
            sample[i] = static_cast<unsigned char>(t);
            maker.AddReference(sample);
        }
    const ZKCModelBuilder builder(maker.Chart());
    const std::vector<double> grid{0.0, 40.0, 100.0};
    const ZKSValidationSplit split = builder.ValidationSplit(grid);
    EXPECT_EQ(split.gridPatches.size(), 81u);
    for (unsigned int fold = 0; fold < 2; ++fold) {
        SCOPED_TRACE(::testing::Message() << "fold " << fold);
        ZKSModelBuildOptions options;
        options.gridPercent = grid;
        options.trainingPatches = split.Training(fold);
        options.method = MODELFIT_CLASSIC;
        const ZKSStatistics classic =
            Summarize(PredictionDeltaE00(builder.Build(options).model, maker.Chart(), split.half[1 - fold]));
        options.method = MODELFIT_REFINED;
        const ZKSBuiltModel refined = builder.Build(options);
        const ZKSStatistics held =
            Summarize(PredictionDeltaE00(refined.model, maker.Chart(), split.half[1 - fold]));
        std::printf("    fold %u held out %zu: classic mean %.3f p95 %.3f; refined mean %.3f p95 %.3f max %.3f "
                    "(n %.3f, %u iterations)\n",
                    fold, held.count, classic.mean, classic.p95, held.mean, held.p95, held.max, refined.model.n,
                    refined.iterations);
        EXPECT_LE(held.mean, 0.25);
        EXPECT_LE(held.p95, 0.55);
        EXPECT_LT(held.mean, classic.mean);
    }
}
