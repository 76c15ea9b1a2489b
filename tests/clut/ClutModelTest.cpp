// CLUTs built from printer models: node bytes come from the prediction driver.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/clut/ClutOracle.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

void ExpectDefaultCase(const std::function<void()>& f, const char* what) {
    EXPECT_EQ(kelma_test::ThrownText(f), "DefaultCase") << what;
}

// Ink bytes of every node, computed here: round(g 255 / (n - 1)), axis 0 outermost.
std::vector<std::uint8_t> NodeInks(std::uint32_t n) {
    std::vector<std::uint8_t> inks;
    for (std::uint32_t g0 = 0; g0 < n; ++g0)
        for (std::uint32_t g1 = 0; g1 < n; ++g1)
            for (std::uint32_t g2 = 0; g2 < n; ++g2)
                for (std::uint32_t g3 = 0; g3 < n; ++g3)
                    for (std::uint32_t g : {g0, g1, g2, g3})
                        inks.push_back(static_cast<std::uint8_t>(std::floor(g * 255.0 / (n - 1) + 0.5)));
    return inks;
}

// The prediction driver's 3 bytes per node, padded with zeros to a full node array.
std::vector<std::uint8_t> PredictedNodeTable(const ZKCSSE_KELMA_Data& model, std::uint32_t n) {
    std::vector<std::uint8_t> inks = NodeInks(n);
    const std::size_t count = inks.size() / 4;
    std::vector<std::uint8_t> nodes(ZKCWorkerCLUT_Thread::NodeArrayBytes(4, 3, static_cast<CLUT_ACCURACY>(n)), 0);
    ZKCSSE_KELMA_Thread driver(model, static_cast<unsigned int>(count), inks.data(), nodes.data(), 31, 32);
    driver.Wait();
    return nodes;
}

std::vector<std::uint8_t> Apply(ZKCWorkerCLUT_Thread& d, const std::vector<std::uint8_t>& px) {
    std::vector<std::uint8_t> out(px.size() / 4 * 3);
    d.Init(px.data(), out.data(), px.size() / 4);
    d.Calculate();
    return out;
}

class ClutFromModel : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        generated_ = new kelma_test::ZKSTestModel(kelma_test::MakeTestModel(4, 5, 2.2, 77));
        model_ = new ZKCSSE_KELMA_Data(generated_->Build());
    }
    static void TearDownTestSuite() {
        delete model_;
        delete generated_;
    }
    static kelma_test::ZKSTestModel* generated_;
    static ZKCSSE_KELMA_Data* model_;
};
kelma_test::ZKSTestModel* ClutFromModel::generated_ = nullptr;
ZKCSSE_KELMA_Data* ClutFromModel::model_ = nullptr;

}  // namespace

TEST_F(ClutFromModel, CellTableHoldsThePredictionDriversBytesAtEveryNode) {
    for (std::uint32_t n : {9u, 17u}) {
        ZKCWorkerCLUT_4x3 worker(*model_, static_cast<CLUT_ACCURACY>(n));
        std::vector<std::uint8_t> expected = PredictedNodeTable(*model_, n);
        const std::size_t count = clut_test::Power(n, 4);
        for (std::size_t c = 0; c < count; ++c) {
            const std::uint8_t* block = worker.CellBlock(c);  // corner k at bytes 3 k .. 3 k + 2
            for (unsigned j = 0; j < 3; ++j) {
                ASSERT_EQ(block[j], expected[c * 3 + j]) << "n=" << n << " node " << c;
                // Corner 8 is the next node along axis 3 (or a wrapped / padded read).
                ASSERT_EQ(block[8 * 3 + j], expected[(c + 1) * 3 + j]);
                // Corner 15 is the node one step up on every axis (or a wrapped / padded read).
                ASSERT_EQ(block[15 * 3 + j], expected[(c + n * n * n + n * n + n + 1) * 3 + j]);
            }
        }
    }
}

TEST_F(ClutFromModel, InterpolationReturnsThePredictionAtNodesAndFollowsItBetween) {
    // n - 1 = 15 divides 255, so every node byte lands exactly on a node.
    const std::uint32_t n = 16;
    ZKCWorkerCLUT_Thread clut(*model_, static_cast<CLUT_ACCURACY>(n));
    ASSERT_EQ(clut.Worker(0).InputChannels(), 4u);
    std::vector<std::uint8_t> inks = NodeInks(n);
    std::vector<std::uint8_t> expected = PredictedNodeTable(*model_, n);
    expected.resize(inks.size() / 4 * 3);
    EXPECT_EQ(Apply(clut, inks), expected);

    // Off the nodes, the CLUT approximates the model's own prediction.
    std::vector<std::uint8_t> px = clut_test::TestPixels(4, 5000, 9);
    std::vector<std::uint8_t> predicted(px.size() / 4 * 3);
    {
        ZKCSSE_KELMA_Thread driver(*model_, static_cast<unsigned int>(px.size() / 4), px.data(), predicted.data(),
                                   31, 32);
        driver.Wait();
    }
    std::vector<std::uint8_t> got = Apply(clut, px);
    double sum = 0.0;
    int worst = 0;
    for (std::size_t i = 0; i < got.size(); ++i) {
        int d = std::abs(int(got[i]) - int(predicted[i]));
        sum += d;
        worst = std::max(worst, d);
    }
    EXPECT_LT(sum / got.size(), 1.0);
    EXPECT_LE(worst, 6);
}

TEST_F(ClutFromModel, EqualsTheSameTableGivenAsNodeValues) {
    for (std::uint32_t n : {5u, 17u}) {
        std::vector<std::uint8_t> nodes = PredictedNodeTable(*model_, n);
        std::vector<std::uint8_t> px = clut_test::TestPixels(4, 20000, n);
        kelma_test::ScopedCPUCount cpus(3);
        ZKCWorkerCLUT_Thread fromModel(*model_, static_cast<CLUT_ACCURACY>(n));
        ZKCWorkerCLUT_Thread fromNodes(nodes.data(), 4, 3, static_cast<CLUT_ACCURACY>(n), false);
        EXPECT_EQ(Apply(fromModel, px), Apply(fromNodes, px)) << "n=" << n;
    }
}

TEST_F(ClutFromModel, SeveralIlluminantsUseTheFirst) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCLighting_Matrix both(observer, std::vector<ZKCIlluminant_Base*>{&a, &d50});
    ZKCSSE_KELMA_Data two = generated_->Build(both, false);
    ZKCSSE_KELMA_Data first(two);
    first.ReduceToSingleIlluminant(0);
    ZKCSSE_KELMA_Data second(two);
    second.ReduceToSingleIlluminant(1);
    std::vector<std::uint8_t> px = clut_test::TestPixels(4, 2000, 3);
    ZKCWorkerCLUT_Thread fromTwo(two, CLUT_ACCURACY_9);
    ZKCWorkerCLUT_Thread fromFirst(first, CLUT_ACCURACY_9);
    ZKCWorkerCLUT_Thread fromSecond(second, CLUT_ACCURACY_9);
    std::vector<std::uint8_t> out = Apply(fromTwo, px);
    EXPECT_EQ(out, Apply(fromFirst, px));
    EXPECT_NE(out, Apply(fromSecond, px));
}

TEST_F(ClutFromModel, WorkersRefuseAModelOfAnotherInkCount) {
    ExpectDefaultCase([] { ZKCWorkerCLUT_3x3 w(*model_, CLUT_ACCURACY_5); }, "4-ink model in a 3x3 worker");
}

TEST(ClutFromModelInks, OnlyFourInkModelsGiveACLUT) {
    // 5 and 6 inks: models build, the CLUT driver refuses them.
    for (unsigned inks : {5u, 6u}) {
        ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(inks, 3, 2.0, inks).Build();
        ExpectDefaultCase([&] { ZKCWorkerCLUT_Thread d(model, CLUT_ACCURACY_5); }, "5/6 inks");
    }
    // 3 inks: there is no 3-ink prediction kernel. A 3-ink model with 31
    // spectral values already fails while predicting its paper white; one
    // with another count builds, and its CLUT fails in the prediction driver.
    {
        const unsigned G = 3, K = 30;
        kelma_test::ZKSTestModel generated = kelma_test::MakeTestModel(3, G, 2.0, 3);
        std::vector<float> grid = generated.GridF(), ramps = generated.RampsF();
        std::vector<float> scheme(std::size_t{K} * 8 * 8, 0.5f);
        ZKCSSE_KELMA_Data model(3, G, grid.data(), ramps.data(), scheme.data(), 2.0f, kelma_test::D50Matrix(),
                                INK_SET_SEVEN_INKS, false, false, K);
        ExpectDefaultCase([&] { ZKCWorkerCLUT_Thread d(model, CLUT_ACCURACY_5); }, "3-ink CLUT");
        ExpectDefaultCase([&] { ZKCWorkerCLUT_3x3 w(model, CLUT_ACCURACY_5); }, "3x3 worker");
        // The worker had counted itself and created the shared table; the
        // failed construction gave both back.
        EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 0u);
        EXPECT_EQ(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);
    }
    ExpectDefaultCase(
        [] {
            ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(3, 3, 2.0, 3).Build();
            ZKCWorkerCLUT_Thread d(model, CLUT_ACCURACY_5);
        },
        "3 inks");
}
