// The real sheet-fed offset chart (APTEC PC10, IT8.7/4, 1617 patches) on the
// 3-level grid {0, 40, 100} %: an honest two-fold split (grid patches plus
// half of the others train, the other half tests), judged by the library's
// own prediction driver with CIEDE2000 under D50 / 2 degree.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

using namespace kelma;

namespace {

const std::string kChart = std::string(KELMA_TEST_DATA_DIR) + "/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";
const std::vector<double> kGrid{0.0, 40.0, 100.0};

class PressChart : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const ZKCMeasurementFile file(kChart, MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
        builder_ = std::make_unique<ZKCModelBuilder>(ChartFromMeasurementFile(file));
    }
    static void TearDownTestSuite() { builder_.reset(); }

    static std::unique_ptr<ZKCModelBuilder> builder_;
};

std::unique_ptr<ZKCModelBuilder> PressChart::builder_;

struct HeldOut {
    ZKSStatistics all, noBlack, black;
};

HeldOut Judge(const ZKCModelBuilder& builder, const ZKSBuiltModel& built, const std::vector<std::size_t>& test) {
    const std::vector<double> deltaE = PredictionDeltaE00(built.model, builder.Chart(), test);
    std::vector<double> noBlack, black;
    for (std::size_t k = 0; k < test.size(); ++k)
        (builder.DigitalLevels()[test[k] * 4 + 3] == 0 ? noBlack : black).push_back(deltaE[k]);
    return {Summarize(deltaE), Summarize(noBlack), Summarize(black)};
}

void Print(const char* method, unsigned int fold, const ZKSBuiltModel& built, const HeldOut& h) {
    std::printf("    %s fold %u (n %.3f): held-out mean %.3f p95 %.3f max %.3f | K=0 mean %.3f p95 %.3f | "
                "K>0 mean %.3f p95 %.3f\n",
                method, fold, built.model.n, h.all.mean, h.all.p95, h.all.max, h.noBlack.mean, h.noBlack.p95,
                h.black.mean, h.black.p95);
}

}  // namespace

TEST_F(PressChart, ValidationSplitIsHonest) {
    const ZKSValidationSplit split = builder_->ValidationSplit(kGrid);
    // 81 nodes, 9 of them printed twice.
    EXPECT_EQ(split.gridPatches.size(), 90u);
    EXPECT_EQ(split.gridPatches.size() + split.half[0].size() + split.half[1].size(), 1617u);
    EXPECT_LE(std::max(split.half[0].size(), split.half[1].size()) -
                  std::min(split.half[0].size(), split.half[1].size()),
              30u);
    // A recipe (and so a chart duplicate) lives in one part only.
    std::set<std::vector<unsigned char>> recipes[2];
    const auto& levels = builder_->DigitalLevels();
    for (unsigned int h = 0; h < 2; ++h)
        for (std::size_t p : split.half[h]) recipes[h].insert({&levels[p * 4], &levels[p * 4] + 4});
    for (const auto& r : recipes[0]) EXPECT_EQ(recipes[1].count(r), 0u);
    std::vector<std::size_t> all(split.gridPatches);
    all.insert(all.end(), split.half[0].begin(), split.half[0].end());
    all.insert(all.end(), split.half[1].begin(), split.half[1].end());
    std::sort(all.begin(), all.end());
    EXPECT_TRUE(std::adjacent_find(all.begin(), all.end()) == all.end());
}

TEST_F(PressChart, HeldOutAccuracyOfClassicAndRefinedFits) {
    const ZKSValidationSplit split = builder_->ValidationSplit(kGrid);
    for (unsigned int fold = 0; fold < 2; ++fold) {
        SCOPED_TRACE(::testing::Message() << "fold " << fold);
        ZKSModelBuildOptions options;
        options.gridPercent = kGrid;
        options.trainingPatches = split.Training(fold);
        const std::vector<std::size_t>& test = split.half[1 - fold];

        options.method = MODELFIT_CLASSIC;
        const ZKSBuiltModel classic = builder_->Build(options);
        const HeldOut c = Judge(*builder_, classic, test);
        Print("classic", fold, classic, c);
        EXPECT_EQ(classic.trainingPatches, options.trainingPatches);
        EXPECT_EQ(classic.nodePatches.size(), 90u);
        EXPECT_GT(classic.rampPatches.size(), 40u);
        EXPECT_GT(c.all.mean, 0.3);
        EXPECT_LT(c.all.mean, 0.5);

        options.method = MODELFIT_REFINED;
        const ZKSBuiltModel refined = builder_->Build(options);
        const HeldOut r = Judge(*builder_, refined, test);
        Print("refined", fold, refined, r);
        EXPECT_LE(r.all.mean, 0.25);
        EXPECT_LE(r.all.p95, 0.55);
        EXPECT_LT(r.all.mean, c.all.mean - 0.1);
        EXPECT_LT(r.noBlack.mean, 0.25);
        EXPECT_LT(r.black.mean, 0.3);
        EXPECT_EQ(refined.clampedNodeValues, 0u);
        // Training error is reported by the same prediction path.
        EXPECT_LT(refined.fitError.mean, classic.fitError.mean);
        EXPECT_EQ(refined.trainingDeltaE.size(), options.trainingPatches.size());
        for (unsigned int i = 0; i < 4; ++i)
            for (unsigned int t = 1; t < 256; ++t)
                ASSERT_GE(refined.model.effectiveRamps[i * 256 + t], refined.model.effectiveRamps[i * 256 + t - 1]);
    }
}
