// Byte mode (colour bytes straight from the prediction kernels) against the
// long way a host would take: predict the spectra, then the lighting matrix's
// public XYZ (with the paper-relative factor when the model asks for it) and
// byte encodings. Batches that straddle the kernels' blocks of 8192 samples,
// samples crowded into one cell or scattered over all of them, several
// illuminants and thread counts: the bytes never differ. The binary runs once
// per kernel variant, so each variant is held to the same chain.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using kelma_test::ScopedCPUCount;

namespace {

ZKCLighting_Matrix ThreeIlluminants() {
    ZKCObserver observer(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIEF11 f11;
    return ZKCLighting_Matrix(observer, std::vector<ZKCIlluminant_Base*>{&d50, &a, &f11});
}

enum class Spread { Scattered, OneCell, LastCellAndScattered };

// `count` samples: uniformly random bytes, all inside the first cell of
// every ink (below each ink's second grid level), or every other sample at
// the top corner of the last cell with random ones between.
std::vector<unsigned char> Samples(const ZKCSSE_KELMA_Data& model, unsigned int count, Spread spread,
                                   std::uint32_t seed) {
    const unsigned int N = model.NumberOfInks(), G = model.NumberOfGridPoints();
    std::mt19937 rng(seed);
    std::vector<unsigned char> s(std::size_t{count} * N);
    for (unsigned int k = 0; k < count; ++k) {
        for (unsigned int i = 0; i < N; ++i) {
            unsigned char& v = s[std::size_t{k} * N + i];
            switch (spread) {
                case Spread::Scattered:
                    v = static_cast<unsigned char>(rng());
                    break;
                case Spread::OneCell: {
                    const unsigned int top = static_cast<unsigned int>(model.GridPoints()[i * G + 1]);
                    v = static_cast<unsigned char>(rng() % top);
                    break;
                }
                case Spread::LastCellAndScattered:
                    v = k % 2 ? static_cast<unsigned char>(rng()) : 255;
                    break;
            }
        }
    }
    return s;
}

// The long way: padded spectra from the spectral driver, then XYZ and bytes
// through the model's lighting matrix.
std::vector<unsigned char> ThroughTheLightingMatrix(const ZKCSSE_KELMA_Data& model,
                                                    std::vector<unsigned char>& samples, bool cielab) {
    const unsigned int count = static_cast<unsigned int>(samples.size() / model.NumberOfInks());
    const ZKCLighting_Matrix& matrix = model.Lighting_Matrix();
    const unsigned int L = matrix.IlluminantNumber();
    AlignedBuffer<float> spectra(std::size_t{count} * 32);
    {
        ZKCSSE_KELMA_Thread driver(model, count, samples.data(), spectra.data());
        driver.Wait();
    }
    std::vector<float> factor;
    if (model.IsMediaRelative()) matrix.GetMediaRelativeTransformFactor(factor, model.MediaWhitePoint());
    std::vector<float> xyz(std::size_t{count} * 3 * L);
    matrix.CalculateCIEXYZ(xyz.data(), spectra.data(), count, model.IsMediaRelative() ? &factor : nullptr);
    std::vector<unsigned char> bytes(std::size_t{count} * 3 * L);
    matrix.CalculateCIELAB(bytes.data(), xyz.data(), count, cielab);
    return bytes;
}

// Byte mode through the driver (Init chooses the encoding), with a guard
// region that must stay untouched.
std::vector<unsigned char> ByteMode(const ZKCSSE_KELMA_Data& model, std::vector<unsigned char>& samples,
                                    bool cielab) {
    const unsigned int count = static_cast<unsigned int>(samples.size() / model.NumberOfInks());
    const std::size_t size = std::size_t{count} * 3 * model.Lighting_Matrix().IlluminantNumber();
    std::vector<unsigned char> out(size + 64, 0x5C);
    {
        ZKCSSE_KELMA_Thread driver(model, count, samples.data(), out.data(), 31, 32);
        driver.Init(samples.data(), out.data(), cielab);
        driver.Calculate();
        driver.Wait();
    }
    for (std::size_t i = size; i < out.size(); ++i) EXPECT_EQ(out[i], 0x5C) << "written past the output at " << i;
    out.resize(size);
    return out;
}

std::string FirstDifference(const std::vector<unsigned char>& got, const std::vector<unsigned char>& want,
                            unsigned int perSample) {
    for (std::size_t i = 0; i < std::min(got.size(), want.size()); ++i) {
        if (got[i] != want[i]) {
            std::ostringstream s;
            s << "sample " << i / perSample << ", byte " << i % perSample << ": " << int(got[i]) << " instead of "
              << int(want[i]);
            return s.str();
        }
    }
    return got.size() == want.size() ? "" : "sizes differ";
}

struct ModelCase {
    unsigned int inks, grid;
    double n;
};
const ModelCase kModels[] = {{4, 5, 2.2}, {6, 3, 1.8}, {7, 3, 2.6}};

}  // namespace

// Around the block size of the kernels (8192), in every encoding, relative to
// the illuminant and to the paper, on one and several threads.
TEST(ByteModeChain, EqualsPredictedSpectraThroughTheLightingMatrix) {
    const ZKCLighting_Matrix three = ThreeIlluminants();
    for (const ModelCase& c : kModels) {
        for (bool paper : {false, true}) {
            const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(c.inks, c.grid, c.n, 40 + c.inks).Build(three, paper);
            for (Spread spread : {Spread::Scattered, Spread::OneCell, Spread::LastCellAndScattered}) {
                for (unsigned int count : {1u, 2u, 3u, 17u, 8191u, 8193u}) {
                    std::vector<unsigned char> samples = Samples(model, count, spread, count * 7 + c.inks);
                    for (bool cielab : {false, true}) {
                        std::vector<unsigned char> want;
                        {
                            ScopedCPUCount one(1);
                            want = ThroughTheLightingMatrix(model, samples, cielab);
                        }
                        for (unsigned int threads : {1u, 2u, 3u}) {
                            ScopedCPUCount forced(threads);
                            const std::vector<unsigned char> got = ByteMode(model, samples, cielab);
                            ASSERT_EQ(got, want) << c.inks << " inks" << (paper ? ", paper-relative" : "")
                                                 << (cielab ? ", CIELAB" : ", LAB2000HL") << ", spread "
                                                 << int(spread) << ", " << count << " samples, " << threads
                                                 << " threads: " << FirstDifference(got, want, 9);
                        }
                        std::vector<unsigned char> inline_(want.size() + 16, 0x5C);
                        ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, count, samples.data(), inline_.data(),
                                                                      cielab);
                        for (std::size_t i = want.size(); i < inline_.size(); ++i) ASSERT_EQ(inline_[i], 0x5C);
                        inline_.resize(want.size());
                        ASSERT_EQ(inline_, want) << c.inks << " inks on the calling thread, " << count
                                                 << " samples: " << FirstDifference(inline_, want, 9);
                    }
                }
            }
        }
    }
}

// A sample's bytes do not depend on where it sits: the bytes of a batch of
// two blocks and more are those of every sub-batch cut out of it at odd
// places, including sub-batches that cross the block boundary.
TEST(ByteModeChain, SubBatchesAtAnyPositionGiveTheWholeBatchsBytes) {
    const ZKCLighting_Matrix three = ThreeIlluminants();
    for (const ModelCase& c : kModels) {
        const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(c.inks, c.grid, c.n, 90 + c.inks).Build(three, true);
        const unsigned int total = 2 * 8192 + 5;
        std::vector<unsigned char> samples = Samples(model, total, Spread::Scattered, 5 + c.inks);
        // Half of them crowded into the first cell, interleaved in runs of 300.
        std::vector<unsigned char> crowded = Samples(model, total, Spread::OneCell, 6 + c.inks);
        for (unsigned int k = 0; k < total; ++k)
            if ((k / 300) % 2)
                std::copy_n(&crowded[std::size_t{k} * c.inks], c.inks, &samples[std::size_t{k} * c.inks]);
        std::vector<unsigned char> whole;
        {
            ScopedCPUCount two(2);
            whole = ByteMode(model, samples, true);
        }
        ScopedCPUCount three_threads(3);
        const unsigned int per = 9;
        for (unsigned int start : {0u, 1u, 8190u, 8191u, 8192u, 8193u, 12345u, 16380u}) {
            for (unsigned int size : {1u, 2u, 3u, 5u, 15u, 16u, 17u, 8192u, 8193u}) {
                if (start + size > total) continue;
                std::vector<unsigned char> part(samples.begin() + std::size_t{start} * c.inks,
                                                samples.begin() + std::size_t{start + size} * c.inks);
                const std::vector<unsigned char> got = ByteMode(model, part, true);
                const std::vector<unsigned char> want(whole.begin() + std::size_t{start} * per,
                                                      whole.begin() + std::size_t{start + size} * per);
                ASSERT_EQ(got, want) << c.inks << " inks, samples " << start << " .. " << start + size - 1 << ": "
                                     << FirstDifference(got, want, per);
            }
        }
    }
}
