#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using kelma_test::MakeTestModel;

namespace {

// One ink, G grid points at the given levels, ramp given.
ZKCSSE_KELMA_Data FourInkModel(const std::vector<float>& levels, const std::vector<float>& ramp) {
    const unsigned int G = static_cast<unsigned int>(levels.size());
    std::vector<float> grid, ramps;
    for (int k = 0; k < 4; ++k) {
        grid.insert(grid.end(), levels.begin(), levels.end());
        ramps.insert(ramps.end(), ramp.begin(), ramp.end());
    }
    std::size_t cells = 1;
    for (int k = 0; k < 4; ++k) cells *= G - 1;
    std::vector<float> scheme(cells * 31 * 16, 0.0f);
    for (std::size_t q = 0; q < cells; ++q)
        for (int w = 0; w < 31; ++w) scheme[(q * 31 + w) * 16] = 0.9f;
    return ZKCSSE_KELMA_Data(4, G, grid.data(), ramps.data(), scheme.data(), 2.0f, kelma_test::D50Matrix(),
                             INK_SET_CMYK, false, false, 31);
}

std::vector<float> GainRamp(double gain) {
    std::vector<float> r(256);
    for (int t = 0; t < 256; ++t) r[t] = static_cast<float>(t / 255.0 + gain * (t / 255.0) * (1 - t / 255.0));
    return r;
}

}  // namespace

TEST(EffectiveRampsLUT, TwoGridPointsNormaliseTheWholeRamp) {
    std::vector<float> ramp = GainRamp(0.2);
    ZKCSSE_KELMA_Data model = FourInkModel({0, 255}, ramp);
    const auto& lut = model.EffectiveRampsLUT();
    ASSERT_EQ(lut.size(), 4u * 256);
    for (int k = 0; k < 4; ++k) {
        for (int t = 0; t < 256; ++t) {
            const auto& e = lut[k * 256 + t];
            EXPECT_EQ(e.cellOffset, 0u);
            float expected = static_cast<float>((double(ramp[t]) - ramp[0]) * (1.0 / (double(ramp[255]) - ramp[0])));
            EXPECT_EQ(e.weight, expected) << "ink " << k << " t " << t;
        }
    }
    EXPECT_EQ(lut[255].weight, 1.0f);
}

TEST(EffectiveRampsLUT, GridLevelsStartTheUpperCellAndStridesFollowTheInk) {
    std::vector<float> ramp = GainRamp(0.25);
    ZKCSSE_KELMA_Data model = FourInkModel({0, 100, 180, 255}, ramp);
    const auto& lut = model.EffectiveRampsLUT();
    for (unsigned int k = 0; k < 4; ++k) {
        unsigned int stride = 1;
        for (unsigned int i = 0; i < k; ++i) stride *= 3;
        const auto* e = &lut[k * 256];
        EXPECT_EQ(e[99].cellOffset, 0u);
        EXPECT_EQ(e[100].cellOffset, 1 * stride);
        EXPECT_EQ(e[100].weight, 0.0f);
        EXPECT_EQ(e[179].cellOffset, 1 * stride);
        EXPECT_EQ(e[180].cellOffset, 2 * stride);
        EXPECT_EQ(e[180].weight, 0.0f);
        EXPECT_EQ(e[255].cellOffset, 2 * stride);
        EXPECT_EQ(e[255].weight, 1.0f);
        EXPECT_GT(e[99].weight, 0.99f);
        for (int t = 1; t < 100; ++t) EXPECT_GT(e[t].weight, e[t - 1].weight);
    }
}

TEST(EffectiveRampsLUT, FlatSegmentGivesZeroWeights) {
    std::vector<float> ramp = GainRamp(0.1);
    for (int t = 100; t <= 180; ++t) ramp[t] = ramp[100];
    ZKCSSE_KELMA_Data model = FourInkModel({0, 100, 180, 255}, ramp);
    for (int t = 100; t < 180; ++t) EXPECT_EQ(model.EffectiveRampsLUT()[t].weight, 0.0f);
}

TEST(EffectiveRampsLUT, DoubleAndFloatConstructorsAgree) {
    auto tm = MakeTestModel(4, 4, 2.2, 11);
    ZKCSSE_KELMA_Data fromFloat = tm.Build();
    ZKCSSE_KELMA_Data fromDouble(4, 4, tm.grid.data(), tm.ramps.data(), tm.scheme.data(), tm.n,
                                 kelma_test::D50Matrix(), INK_SET_SEVEN_INKS, false, false, 31);
    const auto& a = fromFloat.EffectiveRampsLUT();
    const auto& b = fromDouble.EffectiveRampsLUT();
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].cellOffset, b[i].cellOffset);
        // The double ramp is rounded to float in one path only.
        EXPECT_NEAR(a[i].weight, b[i].weight, 2e-6f);
    }
    EXPECT_EQ(0, std::memcmp(fromFloat.MatrixScheme(), fromDouble.MatrixScheme(),
                             fromFloat.MatrixSchemeSize() * sizeof(float)));
    EXPECT_EQ(fromFloat.n(), fromDouble.n());
}

TEST(ModelData, PaperWhiteIsThePredictedBlankSubstrate) {
    auto tm = MakeTestModel(4, 3, 1.8, 5);
    ZKCSSE_KELMA_Data model = tm.Build();
    std::vector<double> paper = tm.NodeSpectrum({0, 0, 0, 0});
    // Independent XYZ of the node spectrum with the same weights, in double.
    const float* w = model.Lighting_Matrix().Weights();
    const auto& white = model.MediaWhitePoint().Values();
    ASSERT_EQ(white.size(), 3u);
    for (int c = 0; c < 3; ++c) {
        double v = 0;
        for (int i = 0; i < 31; ++i) v += paper[i] * w[c * 32 + i];
        EXPECT_NEAR(white[c], v, 2e-6) << c;
    }
}

TEST(ModelData, OtherSpectralCountsKeepTheDefaultWhiteAndCopiesAreDeep) {
    auto tm = MakeTestModel(4, 2, 2.0, 3);
    std::vector<float> g = tm.GridF(), r = tm.RampsF(), s = tm.SchemeF();
    ZKCSSE_KELMA_Data model(4, 2, g.data(), r.data(), s.data(), 2.0f, kelma_test::D50Matrix(), INK_SET_CMYK, true,
                            false, 16);
    EXPECT_TRUE(model.MediaWhitePoint().Values().empty());
    EXPECT_EQ(model.MatrixSchemeSize(), 16u * 16u);

    ZKCSSE_KELMA_Data copy(model);
    EXPECT_NE(copy.MatrixScheme(), model.MatrixScheme());
    EXPECT_NE(copy.GridPoints(), model.GridPoints());
    EXPECT_EQ(0, std::memcmp(copy.MatrixScheme(), model.MatrixScheme(), 256 * sizeof(float)));
    EXPECT_EQ(copy.Total_InkSet(), INK_SET_CMYK);
    EXPECT_TRUE(copy.IsMediaRelative());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(copy.MatrixScheme()) % 16, 0u);
}

TEST(ModelData, ReduceToSingleIlluminantKeepsThatIlluminantsBlockAndWhite) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEF11 f11;
    ZKCLighting_Matrix three(observer, std::vector<ZKCIlluminant_Base*>{&a, &d50, &f11});
    auto tm = MakeTestModel(4, 3, 2.0, 8);
    ZKCSSE_KELMA_Data model = tm.Build(three, true);
    ASSERT_EQ(model.MediaWhitePoint().Values().size(), 9u);
    std::vector<float> before = model.MediaWhitePoint().Values();
    model.ReduceToSingleIlluminant(2);
    EXPECT_EQ(model.Lighting_Matrix().IlluminantNumber(), 1u);
    EXPECT_EQ(0, std::memcmp(model.Lighting_Matrix().Weights(), three.Weights() + 2 * 96, 96 * sizeof(float)));
    EXPECT_EQ(model.MediaWhitePoint().Values(), std::vector<float>(before.begin() + 6, before.end()));
    EXPECT_EQ(kelma_test::ThrownText([&] { model.ReduceToSingleIlluminant(1); }), "Invalid IlluminantIndex");
}

TEST(ModelData, InkCountsWithoutAKernel) {
    // Building predicts the paper, so 1-3 ink models fail while being built.
    for (unsigned int inks : {1u, 2u, 3u}) {
        auto tm = MakeTestModel(inks, 3, 2.0, inks);
        EXPECT_EQ(kelma_test::ThrownText([&] { tm.Build(); }), "DefaultCase") << inks;
    }
    // Five inks: the paper is predicted on the 4-ink sub-model, prediction fails.
    auto tm5 = MakeTestModel(5, 2, 2.0, 9);
    ZKCSSE_KELMA_Data five = tm5.Build();
    std::vector<double> paper = tm5.NodeSpectrum({0, 0, 0, 0, 0});
    const float* w = five.Lighting_Matrix().Weights();
    double Y = 0;
    for (int i = 0; i < 31; ++i) Y += paper[i] * w[32 + i];
    EXPECT_NEAR(five.MediaWhitePoint().Values()[1], Y, 2e-6);
    unsigned char sample[5] = {0, 0, 0, 0, 0};
    AlignedBuffer<float> out(32);
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSSE_KELMA_Thread driver(five, 1, sample, out.data()); }), "DefaultCase");
}

TEST(Datafilter, WholeModelCodeCopiesAndFullMaskRebuildsTheSameModel) {
    auto tm = MakeTestModel(4, 3, 2.0, 21);
    ZKCSSE_KELMA_Data full = tm.Build();
    for (unsigned int code : {0xFFFFFFFFu, 0x0000000Fu}) {
        ZKCSSE_KELMA_Datafilter filter(full, code);
        const ZKCSSE_KELMA_Data& sub = filter.GetKELMA_Data();
        ASSERT_EQ(sub.NumberOfInks(), 4u);
        ASSERT_EQ(sub.MatrixSchemeSize(), full.MatrixSchemeSize());
        EXPECT_EQ(0, std::memcmp(sub.MatrixScheme(), full.MatrixScheme(), full.MatrixSchemeSize() * 4)) << code;
        EXPECT_EQ(0, std::memcmp(sub.EffectiveRamps(), full.EffectiveRamps(), 4 * 256 * 4));
        EXPECT_EQ(sub.MediaWhitePoint().Values(), full.MediaWhitePoint().Values());
    }
}

TEST(Datafilter, KeptCellsAndCornersFollowTheFullModelsOrder) {
    auto tm = MakeTestModel(6, 3, 2.0, 22);
    ZKCSSE_KELMA_Data full = tm.Build();
    const unsigned int code = 0x35;  // inks 0, 2, 4, 5
    const unsigned int kept[4] = {0, 2, 4, 5};
    ZKCSSE_KELMA_Datafilter filter(full, code);
    const ZKCSSE_KELMA_Data& sub = filter.GetKELMA_Data();
    ASSERT_EQ(sub.NumberOfInks(), 4u);
    ASSERT_EQ(sub.MatrixSchemeSize(), 16u * 31 * 16);
    // Sub cell (c0..c3) is the full cell with those cells on the kept inks and
    // 0 elsewhere; sub corner j maps bit b to the b-th kept ink.
    for (unsigned int q = 0; q < 16; ++q) {
        unsigned int fullCell = 0;
        for (unsigned int b = 0; b < 4; ++b) fullCell += ((q >> b) & 1u) * (1u << kept[b]);  // (G-1)^i = 2^i
        for (unsigned int w = 0; w < 31; ++w)
            for (unsigned int j = 0; j < 16; ++j) {
                unsigned int corner = 0;
                for (unsigned int b = 0; b < 4; ++b) corner |= ((j >> b) & 1u) << kept[b];
                ASSERT_EQ(sub.MatrixScheme()[(q * 31 + w) * 16 + j],
                          full.MatrixScheme()[(std::size_t{fullCell} * 31 + w) * 64 + corner]);
            }
    }
    for (unsigned int b = 0; b < 4; ++b)
        EXPECT_EQ(0, std::memcmp(sub.EffectiveRamps() + b * 256, full.EffectiveRamps() + kept[b] * 256, 1024));
}

TEST(Datafilter, SubModelsWithoutAKernelFailWhileBeingBuilt) {
    auto tm = MakeTestModel(4, 4, 2.0, 25);
    ZKCSSE_KELMA_Data full = tm.Build();
    // One ink of four: the sub-model predicts its paper with no 1-ink kernel.
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSSE_KELMA_Datafilter f(full, 0x4); }), "DefaultCase");
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSSE_KELMA_Datafilter f(full, 0x7); }), "DefaultCase");
}

TEST(Datafilter, SubModelPredictsLikeTheFullModelWithTheOtherInksAtZero) {
    auto tm = MakeTestModel(7, 3, 2.0, 23);
    ZKCSSE_KELMA_Data full = tm.Build();
    std::mt19937 rng(5);
    for (unsigned int code : {0x0Fu, 0x53u, 0x3Cu, 0x7Eu, 0x77u}) {
        // Built both from the model and straight from the double arrays.
        ZKCSSE_KELMA_Datafilter fromModel(full, code);
        ZKCSSE_KELMA_Datafilter fromArrays(7, 3, tm.grid.data(), tm.ramps.data(), tm.scheme.data(), tm.n,
                                           kelma_test::D50Matrix(), INK_SET_SEVEN_INKS, code, false, false);
        const unsigned int sub = fromModel.GetKELMA_Data().NumberOfInks();
        ASSERT_EQ(sub, static_cast<unsigned int>(__builtin_popcount(code)));
        const unsigned int count = 64;
        std::vector<unsigned char> fullSamples(count * 7, 0), subSamples(count * sub);
        for (unsigned int s = 0; s < count; ++s) {
            unsigned int j = 0;
            for (unsigned int k = 0; k < 7; ++k)
                if (code & (1u << k)) fullSamples[s * 7 + k] = subSamples[s * sub + j++] = rng() & 0xFF;
        }
        AlignedBuffer<float> a(count * 32), b(count * 32), c(count * 32);
        { ZKCSSE_KELMA_Thread d(full, count, fullSamples.data(), a.data()); }
        { ZKCSSE_KELMA_Thread d(fromModel.GetKELMA_Data(), count, subSamples.data(), b.data()); }
        { ZKCSSE_KELMA_Thread d(fromArrays.GetKELMA_Data(), count, subSamples.data(), c.data()); }
        for (std::size_t i = 0; i < a.size(); ++i) {
            EXPECT_NEAR(b[i], a[i], 2e-6f + 2e-6f * a[i]) << "code " << code << " at " << i;
            // The double path computes the weights from unrounded ramps.
            EXPECT_NEAR(c[i], b[i], 2e-6f + 2e-6f * b[i]) << "code " << code << " at " << i;
        }
    }
}

TEST(Datafilter, CopiesShareTheSubModel) {
    auto tm = MakeTestModel(6, 2, 2.0, 24);
    ZKCSSE_KELMA_Data full = tm.Build();
    ZKCSSE_KELMA_Datafilter a(full, 0x0F);
    ZKCSSE_KELMA_Datafilter b(a);
    EXPECT_EQ(&a.GetKELMA_Data(), &b.GetKELMA_Data());
}
