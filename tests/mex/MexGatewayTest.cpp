#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kelma/mex/ZKCMexGateway.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/VectorMexHost.h"

using namespace kelma;

namespace {

struct Call {
    kelma_test::VectorMexHost host;
    const void* prhs[5];
    void* plhs[1] = {nullptr};
};

void Prepare(Call& call, const kelma_test::ZKSTestModel& tm, const std::vector<unsigned char>& samples) {
    const std::size_t count = samples.size() / tm.inks;
    call.prhs[0] = call.host.Make<float>({tm.gridPoints, tm.inks}, tm.GridF());
    call.prhs[1] = call.host.Make<float>({256, tm.inks}, tm.RampsF());
    call.prhs[2] = call.host.Make<float>({tm.scheme.size(), 1}, tm.SchemeF());
    call.prhs[3] = call.host.Make<float>({1, 1}, std::vector<float>{static_cast<float>(tm.n)});
    call.prhs[4] = call.host.Make<unsigned char>({tm.inks, count}, samples);
}

std::string Thrown(Call& call) {
    try {
        MexGatewayBody(call.host, call.plhs, call.prhs);
    } catch (const char* text) {
        return text;
    }
    return "";
}

}  // namespace

TEST(MexGateway, ReturnsTheDriversSpectraAs32RowsPerSample) {
    const unsigned int shapes[3][2] = {{4, 5}, {6, 3}, {7, 3}};
    for (const auto& shape : shapes) {
        auto tm = kelma_test::MakeTestModel(shape[0], shape[1], 2.1, shape[0]);
        std::mt19937 rng(shape[0]);
        std::vector<unsigned char> samples(57 * shape[0]);
        for (auto& v : samples) v = static_cast<unsigned char>(rng());
        Call call;
        Prepare(call, tm, samples);
        MexGatewayBody(call.host, call.plhs, call.prhs);
        ASSERT_NE(call.plhs[0], nullptr);
        const std::size_t* dims = call.host.GetDimensions(call.plhs[0]);
        EXPECT_EQ(dims[0], 32u);
        EXPECT_EQ(dims[1], 57u);
        const float* out = static_cast<const float*>(call.host.GetPr(call.plhs[0]));

        // The same prediction through the class library.
        ZKCSSE_KELMA_Data model = tm.Build(true);
        AlignedBuffer<float> expected(57 * 32);
        {
            ZKCSSE_KELMA_Thread driver(model, 57, samples.data(), expected.data());
        }
        EXPECT_EQ(0, std::memcmp(out, expected.data(), 57 * 32 * sizeof(float))) << shape[0] << " inks";
        for (int j = 0; j < 57; ++j) EXPECT_EQ(out[j * 32 + 31], 0.0f);
    }
}

TEST(MexGateway, OnlyTheLow32BitsOfADimensionCount) {
    auto tm = kelma_test::MakeTestModel(4, 3, 2.0, 1);
    std::vector<unsigned char> samples(4 * 3, 10);
    Call call;
    Prepare(call, tm, samples);
    auto* inks = static_cast<kelma_test::HostArray*>(const_cast<void*>(call.prhs[4]));
    inks->dims[1] = (std::size_t{1} << 32) + 3;
    MexGatewayBody(call.host, call.plhs, call.prhs);
    EXPECT_EQ(call.host.GetDimensions(call.plhs[0])[1], 3u);
}

TEST(MexGateway, InkCountsWithoutAKernelThrowTheLibrarysText) {
    // Three inks fail while the model predicts its paper, before any output.
    auto tm3 = kelma_test::MakeTestModel(3, 3, 2.0, 2);
    Call three;
    Prepare(three, tm3, std::vector<unsigned char>(6, 0));
    EXPECT_EQ(Thrown(three), "DefaultCase");
    EXPECT_EQ(three.plhs[0], nullptr);
    // Five inks build (paper on the 4-ink sub-model) and fail in the driver,
    // after the output array exists.
    auto tm5 = kelma_test::MakeTestModel(5, 2, 2.0, 3);
    Call five;
    Prepare(five, tm5, std::vector<unsigned char>(10, 0));
    EXPECT_EQ(Thrown(five), "DefaultCase");
    EXPECT_NE(five.plhs[0], nullptr);
}
