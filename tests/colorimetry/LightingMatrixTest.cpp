#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/SpectralDot_SSE.h"
#include "kelma/colorimetry/SpectralDot_Scalar.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "tests/colorimetry/ColorReference.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using kelma_test::SameBits;

namespace {

struct IllCase {
    const char* name;
    std::shared_ptr<ZKCIlluminant_Base> ill;
    const cie_ref::Row& spd;
};

std::vector<IllCase> AllIlluminants() {
    return {
        {"A", std::make_shared<ZKCIlluminant_CIEA>(), cie_ref::kA},
        {"D50", std::make_shared<ZKCIlluminant_CIED50>(), cie_ref::kD50},
        {"D65", std::make_shared<ZKCIlluminant_CIED65>(), cie_ref::kD65},
        {"E", std::make_shared<ZKCIlluminant_CIEE>(), cie_ref::kE},
        {"F1", std::make_shared<ZKCIlluminant_CIEF1>(), cie_ref::kF1},
        {"F2", std::make_shared<ZKCIlluminant_CIEF2>(), cie_ref::kF2},
        {"F11", std::make_shared<ZKCIlluminant_CIEF11>(), cie_ref::kF11},
    };
}

std::vector<float> RefBlock(OBSERVER_TYPE type, const cie_ref::Row& spd) {
    if (type == OBSERVER_CIE1931_2) return color_ref::Block(cie_ref::kX2, cie_ref::kY2, cie_ref::kZ2, spd);
    return color_ref::Block(cie_ref::kX10, cie_ref::kY10, cie_ref::kZ10, spd);
}

void ExpectSameFloats(const float* a, const float* b, std::size_t n, const std::string& what) {
    std::size_t bad = 0;
    for (std::size_t i = 0; i < n; ++i)
        if (!SameBits(a[i], b[i]) && ++bad <= 5)
            ADD_FAILURE() << what << " [" << i << "]: " << a[i] << " vs " << b[i];
    EXPECT_EQ(bad, 0u) << what;
}

std::vector<float> Copy(const ZKCLighting_Matrix& m) {
    return std::vector<float>(m.Weights(), m.Weights() + 96 * m.IlluminantNumber());
}

}  // namespace

TEST(ZKCLighting_Matrix, WeightsEqualAnIndependentDoubleComputation) {
    for (OBSERVER_TYPE type : {OBSERVER_CIE1931_2, OBSERVER_CIE1964_10}) {
        ZKCObserver obs(type);
        for (const IllCase& c : AllIlluminants()) {
            ZKCLighting_Matrix m(obs, c.ill.get());
            ASSERT_EQ(m.IlluminantNumber(), 1u);
            std::vector<float> ref = RefBlock(type, c.spd);
            ExpectSameFloats(m.Weights(), ref.data(), 96, std::string(c.name) + " obs " + std::to_string(type));
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(m.Weights()) % 16, 0u);
        }
    }
}

TEST(ZKCLighting_Matrix, YRowSumsToOneAndPadsAreZero) {
    for (OBSERVER_TYPE type : {OBSERVER_CIE1931_2, OBSERVER_CIE1964_10}) {
        ZKCObserver obs(type);
        for (const IllCase& c : AllIlluminants()) {
            ZKCLighting_Matrix m(obs, c.ill.get());
            const float* w = m.Weights();
            double sumY = 0.0;
            for (int i = 0; i < 32; ++i) sumY += w[32 + i];
            EXPECT_NEAR(sumY, 1.0, 31 * 6e-8) << c.name;
            for (int row = 0; row < 3; ++row) EXPECT_TRUE(SameBits(w[32 * row + 31], 0.0f)) << c.name << row;
        }
    }
}

TEST(ZKCLighting_Matrix, SpectrumOfOnesGivesYOneAndTheRowSums) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    std::vector<IllCase> all = AllIlluminants();
    std::vector<ZKCIlluminant_Base*> ills;
    for (const IllCase& c : all) ills.push_back(c.ill.get());
    ZKCLighting_Matrix m(obs, ills);
    ASSERT_EQ(m.IlluminantNumber(), ills.size());

    alignas(16) float ones[32];
    for (float& v : ones) v = 1.0f;
    std::vector<float> xyz(3 * ills.size());
    m.CalculateCIEXYZ(xyz.data(), ones, 1, nullptr);
    for (std::size_t j = 0; j < ills.size(); ++j) {
        for (int c = 0; c < 3; ++c) {
            double rowSum = 0.0;
            for (int i = 0; i < 31; ++i) rowSum += m.Weights()[96 * j + 32 * c + i];
            EXPECT_NEAR(xyz[3 * j + c], rowSum, 1e-6) << all[j].name << " row " << c;
        }
        EXPECT_NEAR(xyz[3 * j + 1], 1.0f, 1e-6) << all[j].name;
    }
    // Equal energy: the white is the ratio of the observer block sums.
    EXPECT_NEAR(xyz[3 * 3 + 0], 10.64 / 10.67, 1e-6);
    EXPECT_NEAR(xyz[3 * 3 + 2], 10.66 / 10.67, 1e-6);
    // A known colorimetric fact about these illuminants: A is reddish, D65 bluish.
    EXPECT_GT(xyz[0], 1.0f);
    EXPECT_GT(xyz[3 * 2 + 2], 1.0f);
}

TEST(ZKCLighting_Matrix, MultipleIlluminantsStoreBlocksInOrder) {
    ZKCObserver obs(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIEF11 f11;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIED65 d65;
    ZKCLighting_Matrix m(obs, std::vector<ZKCIlluminant_Base*>{&f11, &a, &d65, &a});
    ASSERT_EQ(m.IlluminantNumber(), 4u);
    const cie_ref::Row* spds[] = {&cie_ref::kF11, &cie_ref::kA, &cie_ref::kD65, &cie_ref::kA};
    for (int j = 0; j < 4; ++j) {
        std::vector<float> ref = RefBlock(OBSERVER_CIE1964_10, *spds[j]);
        ExpectSameFloats(m.Weights() + 96 * j, ref.data(), 96, "block " + std::to_string(j));
    }
    EXPECT_EQ(ZKCLighting_Matrix().IlluminantNumber(), 0u);
}

TEST(ZKCLighting_Matrix, AppendKeepsOldBlocksAndAddsTheOthersAfter) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIED65 d65;
    ZKCIlluminant_CIEF2 f2;
    ZKCLighting_Matrix two(obs, std::vector<ZKCIlluminant_Base*>{&d50, &d65});
    ZKCLighting_Matrix one(obs, &f2);
    std::vector<float> before = Copy(two);
    std::vector<float> oneWeights = Copy(one);

    two += one;
    ASSERT_EQ(two.IlluminantNumber(), 3u);
    ExpectSameFloats(two.Weights(), before.data(), 192, "old blocks");
    ExpectSameFloats(two.Weights() + 192, oneWeights.data(), 96, "appended block");
    EXPECT_EQ(one.IlluminantNumber(), 1u);
    ExpectSameFloats(one.Weights(), oneWeights.data(), 96, "right-hand side");

    // Appending a multi-block matrix keeps its order; appending to empty copies.
    ZKCLighting_Matrix empty;
    empty += two;
    ASSERT_EQ(empty.IlluminantNumber(), 3u);
    ExpectSameFloats(empty.Weights(), Copy(two).data(), 288, "appended to empty");
    one += two;
    ASSERT_EQ(one.IlluminantNumber(), 4u);
    ExpectSameFloats(one.Weights() + 96, Copy(two).data(), 288, "multi-block append");
}

TEST(ZKCLighting_Matrix, ExtractSingleIlluminantCopiesOneBlock) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEF1 f1;
    ZKCLighting_Matrix m(obs, std::vector<ZKCIlluminant_Base*>{&a, &d50, &f1});
    for (unsigned long j = 0; j < 3; ++j) {
        ZKCLighting_Matrix out;
        m.ExtractSingleIlluminant_Lighting_Matrix(out, j);
        ASSERT_EQ(out.IlluminantNumber(), 1u);
        ExpectSameFloats(out.Weights(), m.Weights() + 96 * j, 96, "extract " + std::to_string(j));
    }

    // Out of range: the exception text, and `out` keeps what it held.
    ZKCLighting_Matrix out(obs, std::vector<ZKCIlluminant_Base*>{&f1, &a});
    std::vector<float> held = Copy(out);
    for (unsigned long bad : {3ul, 4ul, 1000ul}) {
        try {
            m.ExtractSingleIlluminant_Lighting_Matrix(out, bad);
            ADD_FAILURE() << "index " << bad << " accepted";
        } catch (const char* e) {
            EXPECT_EQ(std::string(e), "Invalid IlluminantIndex");
        }
        ASSERT_EQ(out.IlluminantNumber(), 2u);
        ExpectSameFloats(out.Weights(), held.data(), 192, "untouched out");
    }
    ZKCLighting_Matrix single(obs, &d50);
    try {
        single.ExtractSingleIlluminant_Lighting_Matrix(out, 1);
        ADD_FAILURE() << "index 1 of a one-illuminant matrix accepted";
    } catch (const char* e) {
        EXPECT_EQ(std::string(e), "Invalid IlluminantIndex");
    }
    EXPECT_EQ(out.IlluminantNumber(), 2u);
}

TEST(ZKCLighting_Matrix, CopiesAndAssignmentsAreDeep) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED65 d65;
    ZKCIlluminant_CIEA a;
    auto source = std::make_unique<ZKCLighting_Matrix>(obs, &d65);
    std::vector<float> expected = Copy(*source);

    ZKCLighting_Matrix copy(*source);
    ZKCLighting_Matrix assigned(obs, std::vector<ZKCIlluminant_Base*>{&a, &a});
    assigned = *source;
    EXPECT_NE(copy.Weights(), source->Weights());
    EXPECT_NE(assigned.Weights(), source->Weights());

    // Growing the source must not reach the copies, nor must destroying it.
    *source += ZKCLighting_Matrix(obs, &a);
    source.reset();
    ASSERT_EQ(copy.IlluminantNumber(), 1u);
    ASSERT_EQ(assigned.IlluminantNumber(), 1u);
    ExpectSameFloats(copy.Weights(), expected.data(), 96, "copy");
    ExpectSameFloats(assigned.Weights(), expected.data(), 96, "assigned");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(assigned.Weights()) % 16, 0u);

    // Adopting an exported buffer copies it.
    std::vector<float> exported = expected;
    ZKCLighting_Matrix adopted(exported.data(), 1);
    exported[40] = 123.0f;
    ExpectSameFloats(adopted.Weights(), expected.data(), 96, "adopted");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(adopted.Weights()) % 16, 0u);
}

// CalculateCIEXYZ against the fixed-order scalar twin, bit for bit.
TEST(ZKCLighting_Matrix, CalculateCIEXYZMatchesTheFixedOrderTwinBitForBit) {
    ZKCObserver obs2(OBSERVER_CIE1931_2), obs10(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIEF11 f11;
    ZKCIlluminant_CIED65 d65;
    const ZKCLighting_Matrix matrices[] = {
        ZKCLighting_Matrix(obs2, &d50),
        ZKCLighting_Matrix(obs2, std::vector<ZKCIlluminant_Base*>{&a, &d65, &f11}),
        ZKCLighting_Matrix(obs10, std::vector<ZKCIlluminant_Base*>{&f11, &d50}),
    };

    const unsigned count = 3000;
    auto spectra = kelma_test::RandomSpectra(count, 1234);
    // A share of spectra with a wide dynamic range, so summation order shows.
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> expo(-6.0f, 6.0f);
    for (unsigned s = 0; s < count; s += 3)
        for (int i = 0; i < 31; ++i) spectra[32 * s + i] = std::exp2(expo(rng));

    unsigned orderSensitive = 0;
    for (const ZKCLighting_Matrix& m : matrices) {
        const unsigned n = m.IlluminantNumber();
        std::uniform_real_distribution<float> fac(0.5f, 2.0f);
        std::vector<float> factor(3 * n);
        for (float& f : factor) f = fac(rng);

        for (const std::vector<float>* fp : {static_cast<const std::vector<float>*>(nullptr),
                                             static_cast<const std::vector<float>*>(&factor)}) {
            std::vector<float> got(3 * n * count, -1.0f);
            m.CalculateCIEXYZ(got.data(), spectra.data(), count, fp);
            std::vector<float> ref = color_ref::XYZ(m.Weights(), n, spectra.data(), count, fp);
            ExpectSameFloats(got.data(), ref.data(), got.size(),
                             "n=" + std::to_string(n) + (fp ? " with factor" : " no factor"));
        }
        // Power check: a plain left-to-right sum would differ on some samples.
        for (unsigned s = 0; s < count; ++s) {
            float seq = 0.0f;
            for (int i = 0; i < 32; ++i) seq += spectra[32 * s + i] * m.Weights()[32 + i];
            if (!SameBits(seq, color_ref::Dot(&spectra[32 * s], m.Weights() + 32))) ++orderSensitive;
        }
    }
    EXPECT_GT(orderSensitive, 100u);
}

TEST(ZKCLighting_Matrix, CalculateCIEXYZIgnoresThePaddingSlot) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED65 d65;
    ZKCLighting_Matrix m(obs, &d65);
    auto spectra = kelma_test::RandomSpectra(64, 5);
    std::vector<float> a(3 * 64), b(3 * 64);
    m.CalculateCIEXYZ(a.data(), spectra.data(), 64, nullptr);
    for (unsigned s = 0; s < 64; ++s) spectra[32 * s + 31] = 1000.0f + s;
    m.CalculateCIEXYZ(b.data(), spectra.data(), 64, nullptr);
    ExpectSameFloats(a.data(), b.data(), a.size(), "pad");
}

TEST(SpectralDot, SSEAndScalarAndTheTestTwinAgreeBitForBit) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-20, 20);
    alignas(16) float r[32], w[32];
    unsigned differsFromSequential = 0;
    for (int trial = 0; trial < 20000; ++trial) {
        for (int i = 0; i < 32; ++i) {
            r[i] = std::ldexp(mant(rng), expo(rng));
            w[i] = std::ldexp(mant(rng), expo(rng) / 2);
        }
        float sse = SpectralDot_SSE(LoadSpectrum_SSE(r), w);
        float scalar = SpectralDot_Scalar(r, w);
        float twin = color_ref::Dot(r, w);
        ASSERT_TRUE(SameBits(sse, scalar)) << trial << ": " << sse << " vs " << scalar;
        ASSERT_TRUE(SameBits(scalar, twin)) << trial << ": " << scalar << " vs " << twin;
        float seq = 0.0f;
        for (int i = 0; i < 32; ++i) seq += r[i] * w[i];
        if (!SameBits(seq, twin)) ++differsFromSequential;
    }
    EXPECT_GT(differsFromSequential, 1000u);
}

TEST(ZKCWhitePoint, FromMatrixIsTheXYZOfThePerfectReflector) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIEE e;
    ZKCIlluminant_CIEF2 f2;
    ZKCLighting_Matrix one(obs, &e);
    ZKCWhitePoint w1(one);
    ASSERT_EQ(w1.Values().size(), 3u);
    EXPECT_NEAR(w1.Values()[1], 1.0f, 1e-6);
    EXPECT_NEAR(w1.Values()[0], 10.64 / 10.67, 1e-6);

    ZKCLighting_Matrix two(obs, std::vector<ZKCIlluminant_Base*>{&f2, &e});
    ZKCWhitePoint w2(two);
    std::vector<float> ref = color_ref::White(two.Weights(), 2);
    ASSERT_EQ(w2.Values().size(), 6u);
    ExpectSameFloats(w2.Values().data(), ref.data(), 6, "white");

    EXPECT_TRUE(ZKCWhitePoint().Values().empty());
    std::vector<float> v = {0.9f, 1.0f, 0.8f};
    ZKCWhitePoint fromVec(v);
    EXPECT_EQ(fromVec.Values(), v);
    ZKCWhitePoint copy(w2);
    EXPECT_EQ(copy.Values(), w2.Values());
}
