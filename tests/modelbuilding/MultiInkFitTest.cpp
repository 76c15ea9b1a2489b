// Six- and seven-ink models fitted from charts laid out as extended-gamut
// charts are (MultiInkChart: an ISO 12642-2-like CMYK part, the same layout
// for each extra ink with its neighbouring process inks, overprints of the
// extra inks), which never hold the full 3-level grid. The "press" is a
// generator model whose inner grid points (about 50 %) differ from the
// fitted grid's 40 %, so the fit approximates. Judged with the library's
// split and prediction on withheld patches, and on ink combinations the
// chart never printed.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <vector>

#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "tests/modelbuilding/SyntheticChart.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;
using kelma_test::MakeTestModel;
using kelma_test::MultiInkChart;
using kelma_test::ZKSTestModel;

namespace {

// Random recipes of `inks` inks, each ink on with probability 1/3, "measured" on the truth.
ZKSModelChart RandomCombinations(const ZKSTestModel& truth, std::size_t count) {
    ZKSModelChart chart;
    chart.numberOfInks = truth.inks;
    std::mt19937 rng(5);
    std::vector<unsigned char> levels(truth.inks);
    for (std::size_t k = 0; k < count; ++k) {
        for (unsigned char& v : levels) v = static_cast<unsigned char>(rng() % 3 == 0 ? rng() % 256 : 0);
        for (unsigned char v : levels) chart.deviceValues.push_back(v / 2.55);
        const std::vector<double> spectrum = truth.Reference(levels.data());
        chart.spectra.insert(chart.spectra.end(), spectrum.begin(), spectrum.end());
    }
    return chart;
}

void FitAndJudge(unsigned int inks) {
    SCOPED_TRACE(::testing::Message() << inks << " inks");
    const ZKSTestModel press = MakeTestModel(inks, 3, 2.2, 40 + inks);
    const ZKCModelBuilder builder(MultiInkChart(press));
    const std::vector<double> grid{0.0, 40.0, 100.0};
    const ZKSValidationSplit split = builder.ValidationSplit(grid);
    const ZKSModelChart unprinted = RandomCombinations(press, 300);
    std::vector<std::size_t> all(unprinted.PatchCount());
    for (std::size_t p = 0; p < all.size(); ++p) all[p] = p;
    for (unsigned int fold = 0; fold < 2; ++fold) {
        ZKSModelBuildOptions options;
        options.gridPercent = grid;
        options.trainingPatches = split.Training(fold);
        options.estimateMissingNodes = true;
        // The chart holds only the nodes of its 4-ink layouts and 2-ink overprints.
        const std::size_t nodes = inks == 6 ? 729 : 2187;
        options.method = MODELFIT_CLASSIC;
        const ZKSBuiltModel classic = builder.Build(options);
        options.method = MODELFIT_REFINED;
        const ZKSBuiltModel refined = builder.Build(options);
        EXPECT_GT(refined.estimatedNodes.size(), nodes / 2);
        EXPECT_EQ(refined.estimatedNodes, classic.estimatedNodes);
        EXPECT_EQ(refined.clampedNodeValues, 0u);
        const ZKSStatistics c =
            Summarize(PredictionDeltaE00(classic.model, builder.Chart(), split.half[1 - fold]));
        const ZKSStatistics r =
            Summarize(PredictionDeltaE00(refined.model, builder.Chart(), split.half[1 - fold]));
        const ZKSStatistics u = Summarize(PredictionDeltaE00(refined.model, unprinted, all));
        std::printf("    %u inks, fold %u, %zu estimated nodes, held out %zu: classic mean %.3f p95 %.3f; "
                    "refined mean %.3f p95 %.3f max %.3f; unprinted combinations mean %.3f p95 %.3f\n",
                    inks, fold, refined.estimatedNodes.size(), r.count, c.mean, c.p95, r.mean, r.p95, r.max, u.mean,
                    u.p95);
        EXPECT_LE(c.mean, 0.3);
        EXPECT_LE(r.mean, 0.3);
        EXPECT_LE(r.mean, c.mean);
        EXPECT_LE(r.p95, 0.6);
        // The generator's nodes are Beer-Lambert mixtures, which the overprint
        // rule rebuilds, so even combinations the chart never printed stay close.
        EXPECT_LE(u.mean, 0.5);
    }
}

}  // namespace

TEST(MultiInkFit, SixInksFromAnExtendedGamutChart) { FitAndJudge(6); }

TEST(MultiInkFit, SevenInksFromAnExtendedGamutChart) { FitAndJudge(7); }
