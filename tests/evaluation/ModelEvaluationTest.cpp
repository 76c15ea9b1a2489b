// A model evaluated against a chart "measured" on itself: node patches come
// back within float rounding, mixtures within the kernel's accuracy, the
// black split counts what it says, and bad requests are named.
#include <gtest/gtest.h>

#include <string>

#include "kelma/evaluation/ModelEvaluation.h"
#include "tests/modelbuilding/SyntheticChart.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;

TEST(ModelEvaluation, AModelAgreesWithAChartMeasuredOnItself) {
    const kelma_test::ZKSTestModel truth = kelma_test::MakeTestModel(4, 3, 2.3, 31);
    kelma_test::ChartMaker maker(truth);
    maker.AddNodes();
    maker.AddRandom(200, 4);
    const ZKSModelChart& chart = maker.Chart();
    const ZKCSSE_KELMA_Data model = truth.Build();
    const ZKSModelEvaluation e = EvaluateModel(model, chart);
    ASSERT_EQ(e.patches.size(), chart.PatchCount());
    ASSERT_EQ(e.deltaE.size(), chart.PatchCount());
    for (std::size_t s = 0; s < 81; ++s) EXPECT_LT(e.deltaE[s], 2e-3) << "node patch " << s;
    EXPECT_LT(e.all.max, 5e-3);
    EXPECT_EQ(e.all.count, chart.PatchCount());
    std::size_t zero = 0;
    for (std::size_t p = 0; p < chart.PatchCount(); ++p) zero += chart.deviceValues[p * 4 + 3] == 0.0;
    EXPECT_EQ(e.blackZero.count, zero);
    EXPECT_EQ(e.blackPositive.count, chart.PatchCount() - zero);

    // A subset in a chosen order gives the same differences for those patches.
    const std::vector<std::size_t> some{90, 3, 150};
    const std::vector<double> d = ModelDeltaE2000(model, chart, some);
    for (std::size_t k = 0; k < some.size(); ++k) EXPECT_EQ(d[k], e.deltaE[some[k]]);
}

TEST(ModelEvaluation, ADifferentModelShowsItsErrorAndBadRequestsAreNamed) {
    const kelma_test::ZKSTestModel truth = kelma_test::MakeTestModel(4, 3, 2.3, 31);
    const kelma_test::ZKSTestModel other = kelma_test::MakeTestModel(4, 3, 2.3, 32);
    kelma_test::ChartMaker maker(truth);
    maker.AddRandom(100, 4);
    const ZKSModelEvaluation e = EvaluateModel(other.Build(), maker.Chart());
    EXPECT_GT(e.all.mean, 0.5);
    EXPECT_LE(e.all.median, e.all.p95);
    EXPECT_LE(e.all.p95, e.all.max);

    try {
        ModelDeltaE2000(other.Build(), maker.Chart(), {100});
        FAIL() << "no error for a patch outside the chart";
    } catch (const ZKCModelBuildingError& error) {
        EXPECT_NE(std::string(error.what()).find("patch 100"), std::string::npos) << error.what();
    }
    const ZKCSSE_KELMA_Data seven = kelma_test::MakeTestModel(7, 2, 2.0, 2).Build();
    EXPECT_THROW(EvaluateModel(seven, maker.Chart()), ZKCModelBuildingError);
}
