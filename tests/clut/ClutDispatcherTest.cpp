// The sub-model dispatcher over the ink subsets of a 7-ink model.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "kelma/clut/ZKCKELMA_SubModel_Dispatcher.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "tests/clut/ClutOracle.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

std::vector<std::uint8_t> Apply(ZKCKELMA_SubModel_Dispatcher& d, const std::vector<std::uint8_t>& px) {
    std::vector<std::uint8_t> out(px.size() / 4 * 3);
    d.Init(px.data(), out.data(), px.size() / 4);
    d.Calculate();
    return out;
}

class Dispatcher : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ZKCObserver observer(OBSERVER_CIE1931_2);
        ZKCIlluminant_CIED50 d50;
        ZKCIlluminant_CIEA a;
        ZKCLighting_Matrix both(observer, std::vector<ZKCIlluminant_Base*>{&d50, &a});
        model_ = new ZKCSSE_KELMA_Data(kelma_test::MakeTestModel(7, 3, 2.0, 71).Build(both, false));
    }
    static void TearDownTestSuite() { delete model_; }

    // The CLUT of one subset and illuminant, built here step by step.
    static std::vector<std::uint8_t> Expected(unsigned long code, unsigned long illuminant,
                                              const std::vector<std::uint8_t>& px) {
        ZKCSSE_KELMA_Datafilter filter(*model_, static_cast<unsigned int>(code));
        filter.ReduceToSingleIlluminant(illuminant);
        ZKCWorkerCLUT_Thread clut(filter.GetKELMA_Data(), kAccuracy);
        std::vector<std::uint8_t> out(px.size() / 4 * 3);
        clut.Init(px.data(), out.data(), px.size() / 4);
        clut.Calculate();
        return out;
    }

    static constexpr CLUT_ACCURACY kAccuracy = CLUT_ACCURACY_5;
    static ZKCSSE_KELMA_Data* model_;
    const std::vector<unsigned long> codes_{0x0F, 0x33, 0x78};  // a, b, c
    const std::vector<std::uint8_t> px_ = clut_test::TestPixels(4, 500, 5);
};
ZKCSSE_KELMA_Data* Dispatcher::model_ = nullptr;

}  // namespace

TEST_F(Dispatcher, TwoArgumentConstructorBuildsNothing) {
    ZKCKELMA_SubModel_Dispatcher d(*model_, kAccuracy);
    EXPECT_FALSE(d.HasWorker());
    EXPECT_EQ(d.CurrentIndex(), 0u);
    EXPECT_EQ(d.IlluminantIndex(), 0u);
    EXPECT_EQ(d.IlluminantNumber(), 2u);
    EXPECT_EQ(d.Total_InkSet(), INK_SET_SEVEN_INKS);
    EXPECT_EQ(d.SSE_KELMA_Data().NumberOfInks(), 7u);
    EXPECT_EQ(kelma_test::ThrownText([&] { Apply(d, px_); }), "DefaultCase");
    d.SetCodeList(codes_);
    EXPECT_TRUE(d.HasWorker());
    EXPECT_EQ(Apply(d, px_), Expected(0x0F, 0, px_));
}

TEST_F(Dispatcher, WalksInListOrderAndWrapsBothWays) {
    ZKCKELMA_SubModel_Dispatcher d(*model_, codes_, kAccuracy);
    EXPECT_EQ(d.Code(), 0x0Fu);
    const std::vector<std::uint8_t> a = Apply(d, px_);
    EXPECT_EQ(a, Expected(0x0F, 0, px_));
    EXPECT_FALSE(d.IsLast());

    d.Next();
    EXPECT_EQ(d.Code(), 0x33u);
    EXPECT_FALSE(d.IsLast());
    const std::vector<std::uint8_t> b = Apply(d, px_);
    EXPECT_EQ(b, Expected(0x33, 0, px_));
    EXPECT_NE(a, b);

    d.Next();
    EXPECT_EQ(d.Code(), 0x78u);
    EXPECT_TRUE(d.IsLast());
    EXPECT_EQ(Apply(d, px_), Expected(0x78, 0, px_));

    d.Next();  // wraps to the start
    EXPECT_EQ(d.Code(), 0x0Fu);
    EXPECT_EQ(Apply(d, px_), a);

    d.Previous();  // wraps to the end
    EXPECT_EQ(d.Code(), 0x78u);
    d.Previous();
    EXPECT_EQ(d.Code(), 0x33u);
    d.First();
    EXPECT_EQ(d.Code(), 0x0Fu);
}

TEST_F(Dispatcher, EveryStepResetsTheIlluminant) {
    ZKCKELMA_SubModel_Dispatcher d(*model_, codes_, kAccuracy);
    d.SetIlluminant(1);
    EXPECT_EQ(d.IlluminantIndex(), 1u);
    EXPECT_EQ(d.Code(), 0x0Fu);
    const std::vector<std::uint8_t> underA = Apply(d, px_);
    EXPECT_EQ(underA, Expected(0x0F, 1, px_));
    EXPECT_NE(underA, Expected(0x0F, 0, px_));
    d.Next();
    EXPECT_EQ(d.IlluminantIndex(), 0u);
    EXPECT_EQ(Apply(d, px_), Expected(0x33, 0, px_));
    d.SetIlluminant(1);
    d.Previous();
    EXPECT_EQ(d.IlluminantIndex(), 0u);
    d.SetIlluminant(1);
    d.First();
    EXPECT_EQ(d.IlluminantIndex(), 0u);
}

TEST_F(Dispatcher, SingleCodeListStaysPut) {
    ZKCKELMA_SubModel_Dispatcher d(*model_, codes_, kAccuracy);
    d.SetCodeList({0x71});
    EXPECT_EQ(d.Code(), 0x71u);
    EXPECT_TRUE(d.IsLast());
    d.Next();
    EXPECT_EQ(d.Code(), 0x71u);
    d.Previous();
    EXPECT_EQ(d.Code(), 0x71u);
    EXPECT_EQ(Apply(d, px_), Expected(0x71, 0, px_));
}

TEST_F(Dispatcher, FailedRebuildsLeaveNoWorkerUntilTheNextSuccess) {
    ZKCKELMA_SubModel_Dispatcher d(*model_, {0x0F, 0x1F, 0x07, 0x3C}, kAccuracy);
    EXPECT_EQ(kelma_test::ThrownText([&] { d.SetIlluminant(2); }), "Invalid IlluminantIndex");
    EXPECT_FALSE(d.HasWorker());
    EXPECT_EQ(d.IlluminantIndex(), 2u);
    EXPECT_EQ(kelma_test::ThrownText([&] { Apply(d, px_); }), "DefaultCase");
    d.SetIlluminant(0);
    EXPECT_TRUE(d.HasWorker());

    EXPECT_EQ(kelma_test::ThrownText([&] { d.Next(); }), "DefaultCase");  // 5 inks
    EXPECT_EQ(d.Code(), 0x1Fu);
    EXPECT_FALSE(d.HasWorker());
    EXPECT_EQ(kelma_test::ThrownText([&] { d.Next(); }), "DefaultCase");  // 3 inks
    EXPECT_EQ(d.Code(), 0x07u);
    EXPECT_FALSE(d.HasWorker());
    d.Next();
    EXPECT_EQ(d.Code(), 0x3Cu);
    EXPECT_EQ(Apply(d, px_), Expected(0x3C, 0, px_));

    EXPECT_THROW(d.SetCodeList({}), std::out_of_range);
    EXPECT_FALSE(d.HasWorker());
}

TEST_F(Dispatcher, CopiesShareTheCurrentCLUT) {
    auto source = std::make_unique<ZKCKELMA_SubModel_Dispatcher>(*model_, codes_, kAccuracy);
    ZKCKELMA_SubModel_Dispatcher copy(*source);
    EXPECT_EQ(copy.Code(), source->Code());
    const std::vector<std::uint8_t> before = Apply(*source, px_);
    source.reset();
    EXPECT_EQ(Apply(copy, px_), before);
    copy.Next();  // the copy rebuilds its own
    EXPECT_EQ(Apply(copy, px_), Expected(0x33, 0, px_));
}

TEST_F(Dispatcher, HostLoopVisitsAllFourInkSubsetsOnce) {
    std::vector<unsigned long> all;
    for (unsigned long code = 0; code < 128; ++code)
        if (__builtin_popcountl(code) == 4) all.push_back(code);
    ASSERT_EQ(all.size(), 35u);
    ZKCKELMA_SubModel_Dispatcher d(*model_, CLUT_ACCURACY_3);
    d.SetCodeList(all);
    std::vector<unsigned long> visited;
    std::vector<std::uint8_t> small(px_.begin(), px_.begin() + 40);
    for (;;) {
        visited.push_back(d.Code());
        std::vector<std::uint8_t> out = Apply(d, small);
        ASSERT_EQ(out.size(), 30u);
        if (d.IsLast()) break;
        d.Next();
    }
    EXPECT_EQ(visited, all);
}
