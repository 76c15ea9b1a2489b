#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"
#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/CellSums_SSE.h"
#include "kelma/prediction/CellSums_Scalar.h"
#include "kelma/prediction/LaneMajorScheme.h"
#include "kelma/prediction/PredictSamples.h"
#include "kelma/prediction/YuleNielsenPower_Scalar.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using kelma_test::MakeTestModel;
using kelma_test::SameBits;
using kelma_test::ScopedCPUCount;
using kelma_test::ScopedKernelCap;
using kelma_test::UnsupportedVariant;

namespace {

AlignedBuffer<float> Predict(const ZKCSSE_KELMA_Data& model, std::vector<unsigned char>& samples) {
    unsigned int count = static_cast<unsigned int>(samples.size() / model.NumberOfInks());
    AlignedBuffer<float> out(std::size_t{count} * 32);
    ZKCSSE_KELMA_Thread driver(model, count, samples.data(), out.data());
    driver.Wait();
    return out;
}

std::vector<unsigned char> RandomSamples(unsigned int count, unsigned int inks, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> s(std::size_t{count} * inks);
    for (auto& v : s) v = static_cast<unsigned char>(rng());
    return s;
}

struct Case {
    unsigned int inks, grid;
    double n;
};
const Case kCases[] = {{4, 5, 2.3}, {6, 3, 1.7}, {7, 3, 2.9}};

}  // namespace

// Every grid node must come back as its node spectrum: catches layout,
// corner-order and cell-number faults that random coefficients cannot.
TEST(Prediction, GridNodesReproduceTheirNodeSpectra) {
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 100 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        unsigned int nodes = 1;
        for (unsigned int k = 0; k < c.inks; ++k) nodes *= c.grid;
        std::vector<unsigned char> samples(std::size_t{nodes} * c.inks);
        std::vector<std::vector<unsigned int>> index(nodes, std::vector<unsigned int>(c.inks));
        for (unsigned int i = 0; i < nodes; ++i) {
            unsigned int rest = i;
            for (unsigned int k = 0; k < c.inks; ++k) {
                index[i][k] = rest % c.grid;
                rest /= c.grid;
                samples[std::size_t{i} * c.inks + k] = static_cast<unsigned char>(tm.grid[k * c.grid + index[i][k]]);
            }
        }
        AlignedBuffer<float> out = Predict(model, samples);
        double worst = 0;
        for (unsigned int i = 0; i < nodes; ++i) {
            std::vector<double> expected = tm.NodeSpectrum(index[i]);
            for (unsigned int w = 0; w < 31; ++w)
                worst = std::max(worst, std::fabs(out[std::size_t{i} * 32 + w] - expected[w]) / expected[w]);
            ASSERT_EQ(out[std::size_t{i} * 32 + 31], 0.0f);
        }
        EXPECT_LT(worst, 1e-5) << c.inks << " inks";
    }
}

TEST(Prediction, InsideCellsMatchAnIndependentDoublePrecisionModel) {
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 200 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        std::vector<unsigned char> samples = RandomSamples(300, c.inks, c.inks);
        AlignedBuffer<float> out = Predict(model, samples);
        double worst = 0;
        for (unsigned int s = 0; s < 300; ++s) {
            std::vector<double> expected = tm.Reference(&samples[std::size_t{s} * c.inks]);
            for (unsigned int w = 0; w < 31; ++w)
                worst = std::max(worst, std::fabs(out[std::size_t{s} * 32 + w] - expected[w]) / expected[w]);
        }
        EXPECT_LT(worst, 2e-5) << c.inks << " inks";
    }
}

TEST(Prediction, AllZeroSampleIsCornerZeroOfCellZeroRaisedToN) {
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 300 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        std::vector<unsigned char> zero(c.inks, 0);
        AlignedBuffer<float> out = Predict(model, zero);
        for (unsigned int w = 0; w < 31; ++w)
            EXPECT_TRUE(SameBits(out[w], YuleNielsenPowerLane_Scalar(model.MatrixScheme()[w << c.inks], model.n()))) << w;
    }
}

// The SSE sums are bit-identical to the scalar twin, on random coefficients
// (negative ones included) and random samples, for all three ink counts.
template <int NV, int PASS>
void CompareSums(unsigned int inks, std::uint32_t seed) {
    auto tm = MakeTestModel(inks, 3, 2.0, seed);
    ZKCSSE_KELMA_Data model = tm.Build();
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coef(-1.0f, 1.0f);
    AlignedBuffer<float> scheme(model.MatrixSchemeSize());
    for (std::size_t i = 0; i < scheme.size(); ++i) scheme[i] = coef(rng);
    std::vector<unsigned char> samples = RandomSamples(2000, inks, seed + 1);
    for (unsigned int s = 0; s < 2000; ++s) {
        float a[31 + PASS], b[31];
        CellSums_SSE<NV, PASS>(model.EffectiveRampsLUT().data(), scheme.data(), &samples[s * inks], 31, a);
        CellSums_Scalar<NV>(model.EffectiveRampsLUT().data(), scheme.data(), &samples[s * inks], 31, b);
        for (int w = 0; w < 31; ++w) ASSERT_TRUE(SameBits(a[w], b[w])) << inks << " inks, sample " << s << " w " << w;
    }
}

TEST(Prediction, SseSumsEqualTheScalarTwinBitForBit) {
    CompareSums<4, 5>(4, 1);
    CompareSums<16, 3>(6, 2);
    CompareSums<32, 3>(7, 3);
}

TEST(Prediction, SpectraEqualTheScalarTwinsBitForBit) {
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 400 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        std::vector<unsigned char> samples = RandomSamples(500, c.inks, 9);
        AlignedBuffer<float> out = Predict(model, samples);
        for (unsigned int s = 0; s < 500; ++s) {
            float sums[31];
            const unsigned char* x = &samples[std::size_t{s} * c.inks];
            const auto* lut = model.EffectiveRampsLUT().data();
            if (c.inks == 4) CellSums_Scalar<4>(lut, model.MatrixScheme(), x, 31, sums);
            if (c.inks == 6) CellSums_Scalar<16>(lut, model.MatrixScheme(), x, 31, sums);
            if (c.inks == 7) CellSums_Scalar<32>(lut, model.MatrixScheme(), x, 31, sums);
            for (int w = 0; w < 31; ++w)
                ASSERT_TRUE(SameBits(out[std::size_t{s} * 32 + w], YuleNielsenPowerLane_Scalar(sums[w], model.n())));
        }
    }
}

// A model of `inks` inks on a 3-point grid with coefficients drawn from
// [-1, 1]: negative sums (NaN under a non-integer n), sums above 1 and every
// lane of the power's special-case path occur.
ZKCSSE_KELMA_Data RandomCoefficientModel(unsigned int inks, float n, std::uint32_t seed) {
    auto tm = MakeTestModel(inks, 3, 2.0, seed);
    std::vector<float> g = tm.GridF(), r = tm.RampsF(), scheme = tm.SchemeF();
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coef(-1.0f, 1.0f);
    for (float& c : scheme) c = coef(rng);
    return ZKCSSE_KELMA_Data(inks, 3, g.data(), r.data(), scheme.data(), n, kelma_test::D50Matrix(), INK_SET_NONE,
                             false, false, 31);
}

// The scalar twins, sample by sample: the oracle of every variant.
std::vector<float> TwinSpectra(const ZKCSSE_KELMA_Data& model, const std::vector<unsigned char>& samples) {
    const unsigned int N = model.NumberOfInks();
    const std::size_t count = samples.size() / N;
    std::vector<float> out(count * 31);
    const auto* lut = model.EffectiveRampsLUT().data();
    for (std::size_t s = 0; s < count; ++s) {
        float sums[31];
        const unsigned char* x = &samples[s * N];
        if (N == 4) CellSums_Scalar<4>(lut, model.MatrixScheme(), x, 31, sums);
        if (N == 6) CellSums_Scalar<16>(lut, model.MatrixScheme(), x, 31, sums);
        if (N == 7) CellSums_Scalar<32>(lut, model.MatrixScheme(), x, 31, sums);
        for (int w = 0; w < 31; ++w) out[s * 31 + w] = YuleNielsenPowerLane_Scalar(sums[w], model.n());
    }
    return out;
}

class PredictionVariant : public ::testing::TestWithParam<KERNEL_VARIANT> {
protected:
    void SetUp() override {
        if (!KernelVariantSupported(GetParam())) GTEST_SKIP() << UnsupportedVariant(GetParam());
    }
};

// Each variant's loop, with and without the lane-major rows, in padded and
// packed records, over whole batches and sub-batches at odd positions, gives
// the scalar twins' floats bit for bit, the 0.0 pad, and writes nothing else.
// The 7-ink lane-major rows are visited cell by cell (CellOrder.h); the whole
// batch spans a full block and a partial one.
TEST_P(PredictionVariant, EqualsTheScalarTwinsBitForBit) {
    for (unsigned int inks : {4u, 6u, 7u}) {
        for (float n : {2.5f, 2.0f}) {
            ZKCSSE_KELMA_Data model = RandomCoefficientModel(inks, n, 40 + inks);
            ZKCLaneMajorScheme lanes(model);
            const unsigned int count = kCellOrderBlock + 301;
            std::vector<unsigned char> samples = RandomSamples(count, inks, inks + 11);
            for (int s = 0; s < 3; ++s) samples[s * inks + s % inks] = 255;  // the last cell, weight 1
            const std::vector<float> twin = TwinSpectra(model, samples);
            for (const float* rows : {static_cast<const float*>(nullptr), lanes.Rows()}) {
                for (bool packed : {false, true}) {
                    const unsigned int stride = packed ? 31 : 32;
                    const ZKSPredictionJob job = MakePredictionJob(model, rows, 31, stride, packed);
                    ASSERT_EQ(job.cellOrderCells != 0, inks == 7 && rows != nullptr);
                    for (unsigned int batch : {count, 1u, 5u, 16u}) {
                        for (unsigned int start = 0; start + batch <= count; start += batch == count ? count : 37) {
                            std::vector<float> out(std::size_t{batch} * stride + 8, -3.0f);
                            PredictSamples(GetParam(), inks, job, batch, &samples[std::size_t{start} * inks],
                                           out.data());
                            for (unsigned int s = 0; s < batch; ++s) {
                                for (int w = 0; w < 31; ++w)
                                    ASSERT_TRUE(SameBits(out[s * stride + w], twin[(start + s) * 31 + w]))
                                        << inks << " inks, n " << n << ", sample " << start + s << ", w " << w
                                        << (rows ? ", lane-major" : "") << (packed ? ", packed" : "");
                                if (!packed) {
                                    ASSERT_TRUE(SameBits(out[s * stride + 31], 0.0f));
                                }
                            }
                            for (std::size_t i = std::size_t{batch} * stride; i < out.size(); ++i)
                                ASSERT_EQ(out[i], -3.0f);
                        }
                    }
                }
            }
        }
    }
}

// The driver under each variant cap: same bits as the scalar twins, on a
// batch large enough for the lane-major rows and on one too small for them.
TEST_P(PredictionVariant, DriverResultsDoNotDependOnTheVariant) {
    ScopedKernelCap cap(GetParam());
    ScopedCPUCount one(1);
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 800 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        ASSERT_TRUE(ZKCLaneMajorScheme::Worthwhile(model, 9000, 1));
        ASSERT_FALSE(ZKCLaneMajorScheme::Worthwhile(model, 7, 1));
        for (unsigned int count : {9000u, 7u}) {
            std::vector<unsigned char> samples = RandomSamples(count, c.inks, count);
            const std::vector<float> twin = TwinSpectra(model, samples);
            AlignedBuffer<float> out(std::size_t{count} * 32);
            {
                ZKCSSE_KELMA_Thread driver(model, count, samples.data(), out.data());
                EXPECT_EQ(driver.Variant(), GetParam());
                driver.Wait();
            }
            for (unsigned int s = 0; s < count; ++s)
                ASSERT_EQ(0, std::memcmp(&out[std::size_t{s} * 32], &twin[std::size_t{s} * 31], 31 * sizeof(float)))
                    << c.inks << " inks, sample " << s << " of " << count;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Variants, PredictionVariant, ::testing::ValuesIn(kelma_test::kAllKernelVariants),
                         kelma_test::KernelVariantParamName<::testing::TestParamInfo<KERNEL_VARIANT>>);

TEST(Prediction, NegativeSumsWithNonIntegerNGiveNaNAndNothingIsClamped) {
    auto tm = MakeTestModel(4, 2, 2.5, 7);
    std::vector<float> g = tm.GridF(), r = tm.RampsF(), s(16 * 31, 0.0f);
    for (int w = 0; w < 31; ++w) s[w * 16] = w < 10 ? -0.5f : 1.2f;
    ZKCSSE_KELMA_Data model(4, 2, g.data(), r.data(), s.data(), 2.5f, kelma_test::D50Matrix(), INK_SET_CMYK, false,
                            false, 31);
    std::vector<unsigned char> zero(4, 0);
    AlignedBuffer<float> out = Predict(model, zero);
    for (int w = 0; w < 10; ++w) EXPECT_TRUE(std::isnan(out[w]));
    for (int w = 10; w < 31; ++w) EXPECT_EQ(out[w], YuleNielsenPowerLane_Scalar(1.2f, 2.5f));
}

// Same bits whatever the batch size, the sample's position and the thread count.
TEST(PredictionDriver, ResultsDoNotDependOnBatchPositionOrThreads) {
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 500 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        const unsigned int total = 1001;
        std::vector<unsigned char> samples = RandomSamples(total, c.inks, 77);
        AlignedBuffer<float> reference;
        {
            ScopedCPUCount one(1);
            reference = Predict(model, samples);
        }
        for (unsigned int threads : {2u, 3u, 4u, 7u}) {
            ScopedCPUCount forced(threads);
            AlignedBuffer<float> out = Predict(model, samples);
            ASSERT_EQ(0, std::memcmp(out.data(), reference.data(), reference.size() * 4)) << threads;
        }
        ScopedCPUCount forced(3);
        for (unsigned int batch : {1u, 3u, 4u, 5u, 7u, 8u}) {
            for (unsigned int start = 0; start + batch <= total; start += 97) {
                std::vector<unsigned char> part(samples.begin() + start * c.inks,
                                                samples.begin() + (start + batch) * c.inks);
                AlignedBuffer<float> out = Predict(model, part);
                ASSERT_EQ(0, std::memcmp(out.data(), reference.data() + std::size_t{start} * 32, batch * 32 * 4))
                    << "batch " << batch << " start " << start;
            }
        }
    }
}

TEST(PredictionDriver, UsesOneThreadPerShareUpToTheProcessorCount) {
    auto tm = MakeTestModel(4, 3, 2.0, 1);
    ZKCSSE_KELMA_Data model = tm.Build();
    ScopedCPUCount four(4);
    for (unsigned int count : {1u, 3u, 10u}) {
        std::vector<unsigned char> samples(count * 4, 0);
        AlignedBuffer<float> out(count * 32);
        ZKCSSE_KELMA_Thread driver(model, count, samples.data(), out.data());
        EXPECT_EQ(driver.ThreadsInUse(), std::min(count, 4u));
    }
}

TEST(PredictionDriver, ByteModeWritesThreeBytesPerIlluminantAndNothingMore) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCLighting_Matrix two(observer, std::vector<ZKCIlluminant_Base*>{&d50, &a});
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 600 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build(two, false);
        const unsigned int count = 37;
        std::vector<unsigned char> samples = RandomSamples(count, c.inks, 5);
        std::vector<unsigned char> bytes(count * 6 + 16, 0xAB);
        {
            ZKCSSE_KELMA_Thread driver(model, count, samples.data(), bytes.data(), 31, 32);
            driver.Wait();
        }
        for (std::size_t i = count * 6; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0xAB);

        // The same bytes from the spectra through the lighting matrix, LAB2000HL.
        AlignedBuffer<float> spectra = Predict(model, samples);
        std::vector<float> xyz(count * 6);
        two.CalculateCIEXYZ(xyz.data(), spectra.data(), count, nullptr);
        std::vector<unsigned char> expected(count * 6);
        two.CalculateCIELAB(expected.data(), xyz.data(), count, false);
        EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.begin() + count * 6), expected);

        // Init switches to CIELAB bytes on a new output.
        std::vector<unsigned char> lab(count * 6);
        two.CalculateCIELAB(expected.data(), xyz.data(), count, true);
        ZKCSSE_KELMA_Thread driver(model, count, samples.data(), bytes.data(), 31, 32);
        driver.Init(samples.data(), lab.data(), true);
        driver.Calculate();
        EXPECT_EQ(lab, expected);
    }
}

TEST(PredictionDriver, MediaRelativeBytesPutThePaperAtWhite) {
    auto tm = MakeTestModel(6, 3, 2.0, 31);
    ZKCSSE_KELMA_Data model = tm.Build(true);
    std::vector<unsigned char> paper(6, 0), bytes(3);
    { ZKCSSE_KELMA_Thread driver(model, 1, paper.data(), bytes.data(), 31, 32); }
    EXPECT_EQ(bytes, (std::vector<unsigned char>{255, 128, 128}));
    model.SetIsMediaRelative(false);
    { ZKCSSE_KELMA_Thread driver(model, 1, paper.data(), bytes.data(), 31, 32); }
    EXPECT_LT(bytes[0], 250);
}

TEST(PredictionDriver, SpectralBytesWrapInsteadOfClamping) {
    auto tm = MakeTestModel(4, 2, 1.0, 3);
    std::vector<float> g = tm.GridF(), r = tm.RampsF(), s(16 * 31, 0.0f);
    const float values[4] = {1.0f, 1.003f, 0.5f, -0.002f};
    for (int w = 0; w < 31; ++w) s[w * 16] = values[w % 4];
    ZKCSSE_KELMA_Data model(4, 2, g.data(), r.data(), s.data(), 1.0f, kelma_test::D50Matrix(), INK_SET_CMYK, false,
                            false, 31);
    std::vector<unsigned char> zero(8, 0), bytes(64 + 1, 0xCD);
    { ZKCSSE_KELMA_Thread driver(model, 2, zero.data(), bytes.data(), 32, 32); }
    const unsigned char expected[4] = {255, 0 /* 256 wraps */, 128, 255 /* -1 wraps */};
    for (int j = 0; j < 2; ++j) {
        for (int w = 0; w < 31; ++w) EXPECT_EQ(bytes[j * 32 + w], expected[w % 4]) << w;
        EXPECT_EQ(bytes[j * 32 + 31], 0);  // the 0.0 pad
    }
    EXPECT_EQ(bytes[64], 0xCD);
}

// Packed records are the padded ones without their pad, bit for bit, and
// nothing is written past count x 31 floats.
TEST(PredictionDriver, PackedSpectraAreThePaddedOnesWithoutThePad) {
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 700 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build();
        const unsigned int count = 203;
        std::vector<unsigned char> samples = RandomSamples(count, c.inks, 12);
        AlignedBuffer<float> padded = Predict(model, samples);
        for (unsigned int threads : {1u, 3u}) {
            ScopedCPUCount forced(threads);
            std::vector<float> packed(count * 31 + 8, -7.0f);
            {
                ZKCSSE_KELMA_Thread driver(model, count, samples.data(), packed.data(), SPECTRUM_PACKED);
                driver.Wait();
            }
            for (unsigned int s = 0; s < count; ++s)
                ASSERT_EQ(0, std::memcmp(&packed[s * 31], padded.data() + s * 32, 31 * sizeof(float)))
                    << c.inks << " inks, sample " << s;
            for (std::size_t i = count * 31; i < packed.size(); ++i) ASSERT_EQ(packed[i], -7.0f);
        }
        AlignedBuffer<float> same(count * 32);
        {
            ZKCSSE_KELMA_Thread driver(model, count, samples.data(), same.data(), SPECTRUM_PADDED);
        }
        EXPECT_EQ(0, std::memcmp(same.data(), padded.data(), count * 32 * sizeof(float)));
        std::string text;
        try {
            ZKCSSE_KELMA_Thread driver(model, count, samples.data(), same.data(), SPECTRUM_LAYOUT(30));
        } catch (const char* t) {
            text = t;
        }
        EXPECT_EQ(text, "DefaultCase");
    }
}

// The calling-thread entry runs the driver's kernels on the caller's model:
// the same bits in every layout and encoding, for small batches and for
// batches that build the lane-major rows, and nothing written past the output.
TEST(PredictOnCallingThread, GivesTheDriversResultsBitForBit) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEF11 f11;
    ZKCLighting_Matrix two(observer, std::vector<ZKCIlluminant_Base*>{&d50, &f11});
    for (const Case& c : kCases) {
        auto tm = MakeTestModel(c.inks, c.grid, c.n, 900 + c.inks);
        ZKCSSE_KELMA_Data model = tm.Build(two, true);
        // 9000 samples: lane-major rows on the calling thread; the driver's
        // shares build them only when each share is large enough.
        for (unsigned int count : {1u, 3u, 9000u}) {
            std::vector<unsigned char> samples = RandomSamples(count, c.inks, count + c.inks);
            for (SPECTRUM_LAYOUT layout : {SPECTRUM_PADDED, SPECTRUM_PACKED}) {
                const std::size_t size = std::size_t{count} * layout;
                std::vector<float> driven(size), inline_(size + 8, -5.0f);
                {
                    ZKCSSE_KELMA_Thread driver(model, count, samples.data(), driven.data(), layout);
                    driver.Wait();
                }
                ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, count, samples.data(), inline_.data(), layout);
                ASSERT_EQ(0, std::memcmp(driven.data(), inline_.data(), size * sizeof(float)))
                    << c.inks << " inks, " << count << " samples, layout " << layout;
                for (std::size_t i = size; i < inline_.size(); ++i) ASSERT_EQ(inline_[i], -5.0f);
            }
            for (bool cielab : {false, true}) {
                std::vector<unsigned char> driven(std::size_t{count} * 6), inline_(std::size_t{count} * 6 + 4, 0xAB);
                {
                    ZKCSSE_KELMA_Thread driver(model, count, samples.data(), driven.data(), 31, 32);
                    driver.Init(samples.data(), driven.data(), cielab);
                    driver.Calculate();
                }
                ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, count, samples.data(), inline_.data(), cielab);
                ASSERT_EQ(driven, std::vector<unsigned char>(inline_.begin(), inline_.begin() + count * 6))
                    << c.inks << " inks, " << count << " samples" << (cielab ? ", CIELAB" : ", LAB2000HL");
                for (std::size_t i = driven.size(); i < inline_.size(); ++i) ASSERT_EQ(inline_[i], 0xAB);
            }
        }
    }
    auto five = MakeTestModel(5, 2, 2.0, 9).Build();
    unsigned char sample[5] = {0, 0, 0, 0, 0};
    float spectrum[32];
    unsigned char bytes[3];
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSSE_KELMA_Thread::CalculateOnCallingThread(five, 1, sample, spectrum); }),
              "DefaultCase");
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSSE_KELMA_Thread::CalculateOnCallingThread(five, 1, sample, bytes, false); }),
              "DefaultCase");
}
