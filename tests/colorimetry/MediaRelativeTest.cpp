#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "tests/colorimetry/ColorReference.h"

using namespace kelma;

namespace {

std::vector<float> WhiteOf(const ZKCLighting_Matrix& m) { return ZKCWhitePoint(m).Values(); }

template <class T>
std::size_t CountDiff(const std::vector<unsigned char>& got, const std::vector<unsigned char>& ref,
                      const std::vector<T>& in, const std::string& what) {
    std::size_t bad = 0;
    for (std::size_t i = 0; i < got.size(); ++i)
        if (got[i] != ref[i] && ++bad <= 5) {
            std::size_t t = i / 3 * 3;
            ADD_FAILURE() << what << " byte " << i << ": " << int(got[i]) << " vs ref " << int(ref[i]) << " input ("
                          << in[t] << ", " << in[t + 1] << ", " << in[t + 2] << ")";
        }
    return bad;
}

const auto kDecode8 = [](double* lab, const unsigned char* in) { color_ref::Decode8(lab, in); };
const auto kDecode16 = [](double* lab, const unsigned short* in) { color_ref::Decode16(lab, in); };

}  // namespace

TEST(GetMediaRelativeTransformFactor, IsWhiteOverMediaPerComponent) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEF11 f11;
    ZKCLighting_Matrix m(obs, std::vector<ZKCIlluminant_Base*>{&d50, &f11});
    std::vector<float> w = WhiteOf(m);

    std::vector<float> factor(17, -3.0f);  // wrong size and content on purpose
    m.GetMediaRelativeTransformFactor(factor, ZKCWhitePoint(m));
    EXPECT_EQ(factor, std::vector<float>(6, 1.0f));

    std::vector<float> media = {0.91f, 0.95f, 0.72f, 0.5f, 0.25f, 0.125f};
    m.GetMediaRelativeTransformFactor(factor, ZKCWhitePoint(media));
    ASSERT_EQ(factor.size(), 6u);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(factor[i], w[i] / media[i]) << i;
}

TEST(CalculateMediaRelativeCIELAB, PaperWhiteGivesTheWhiteBytes) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCLighting_Matrix m(obs, std::vector<ZKCIlluminant_Base*>{&d50, &a});
    const std::vector<unsigned char> white = {255, 128, 128, 255, 128, 128};

    const unsigned char in8[6] = {255, 128, 128, 255, 128, 128};
    std::vector<unsigned char> out(6, 7);
    m.CalculateMediaRelativeCIELAB(out.data(), in8, 1, nullptr);
    EXPECT_EQ(out, white);

    const unsigned short in16[6] = {0xFF00, 0x8000, 0x8000, 0xFF00, 0x8000, 0x8000};
    std::fill(out.begin(), out.end(), 7);
    m.CalculateMediaRelativeCIELAB(out.data(), in16, 1, nullptr);
    EXPECT_EQ(out, white);

    // The factor of the matrix's own white is 1: same bytes as no factor.
    std::vector<float> factor;
    m.GetMediaRelativeTransformFactor(factor, ZKCWhitePoint(m));
    std::fill(out.begin(), out.end(), 7);
    m.CalculateMediaRelativeCIELAB(out.data(), in16, 1, &factor);
    EXPECT_EQ(out, white);

    // Black decodes to black.
    const unsigned short black16[6] = {0, 0x8000, 0x8000, 0, 0x8000, 0x8000};
    m.CalculateMediaRelativeCIELAB(out.data(), black16, 1, nullptr);
    EXPECT_EQ(out, (std::vector<unsigned char>{0, 128, 128, 0, 128, 128}));
}

TEST(CalculateMediaRelativeCIELAB, EightBitMatchesAnIndependentImplementation) {
    ZKCObserver obs2(OBSERVER_CIE1931_2), obs10(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEF2 f2;
    ZKCIlluminant_CIED65 d65;
    const ZKCLighting_Matrix matrices[] = {
        ZKCLighting_Matrix(obs2, &d50),
        ZKCLighting_Matrix(obs10, std::vector<ZKCIlluminant_Base*>{&f2, &d65, &d50}),
    };
    std::mt19937 rng(31);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_real_distribution<float> media(0.6f, 1.0f);
    for (const ZKCLighting_Matrix& m : matrices) {
        const unsigned n = m.IlluminantNumber();
        const unsigned count = 20000;
        std::vector<unsigned char> in(3 * n * count);
        for (auto& v : in) v = static_cast<unsigned char>(byte(rng));
        std::vector<float> w = WhiteOf(m), paper(3 * n);
        for (unsigned i = 0; i < 3 * n; ++i) paper[i] = w[i] * media(rng);
        std::vector<float> factor;
        m.GetMediaRelativeTransformFactor(factor, ZKCWhitePoint(paper));

        for (const std::vector<float>* fp : {static_cast<const std::vector<float>*>(nullptr),
                                             static_cast<const std::vector<float>*>(&factor)}) {
            std::vector<unsigned char> got(in.size(), 7);
            m.CalculateMediaRelativeCIELAB(got.data(), in.data(), count, fp);
            auto ref = color_ref::MediaRelative(m.Weights(), n, in.data(), count, fp, kDecode8);
            EXPECT_EQ(CountDiff(got, ref, in, "8-bit n=" + std::to_string(n) + (fp ? " factor" : "")), 0u);
        }
    }
}

TEST(CalculateMediaRelativeCIELAB, SixteenBitMatchesAnIndependentImplementation) {
    ZKCObserver obs2(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCLighting_Matrix m(obs2, std::vector<ZKCIlluminant_Base*>{&a, &d50});
    const unsigned n = 2, count = 20000;
    std::mt19937 rng(32);
    std::uniform_int_distribution<int> word(0, 0xFFFF);
    std::vector<unsigned short> in(3 * n * count);
    for (auto& v : in) v = static_cast<unsigned short>(word(rng));
    // Encoded extremes and the L* range around the inverse threshold.
    const unsigned short specials[][3] = {{0xFF00, 0x8000, 0x8000}, {0xFFFF, 0xFFFF, 0}, {0, 0, 0xFFFF},
                                          {5222, 0x8000, 0x8000},   {5223, 0x8000, 0x8000}, {5222, 0x9000, 0x7000},
                                          {100, 0x7F00, 0x8100}};
    for (std::size_t k = 0; k < sizeof(specials) / sizeof(specials[0]); ++k)
        for (int c = 0; c < 3; ++c) in[3 * k + c] = specials[k][c];

    std::vector<float> w = WhiteOf(m);
    std::vector<float> paper = {w[0] * 0.93f, w[1] * 0.95f, w[2] * 0.81f, w[3] * 0.9f, w[4] * 0.92f, w[5] * 0.7f};
    std::vector<float> factor;
    m.GetMediaRelativeTransformFactor(factor, ZKCWhitePoint(paper));
    for (const std::vector<float>* fp : {static_cast<const std::vector<float>*>(nullptr),
                                         static_cast<const std::vector<float>*>(&factor)}) {
        std::vector<unsigned char> got(in.size(), 7);
        m.CalculateMediaRelativeCIELAB(got.data(), in.data(), count, fp);
        auto ref = color_ref::MediaRelative(m.Weights(), n, in.data(), count, fp, kDecode16);
        EXPECT_EQ(CountDiff(got, ref, in, std::string("16-bit") + (fp ? " factor" : "")), 0u);
    }
}

// The inverse switches to the linear branch at L* <= 7.9996. No encoded input
// hits 7.9996 itself; the nearest words are 5222 (L* 7.99939) and 5223
// (L* 8.00092). A sweep of scale factors finds the cases where the branch
// changes an output byte, and the library must follow the right branch there.
TEST(CalculateMediaRelativeCIELAB, InverseBranchesSwitchAtLStar7_9996) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCLighting_Matrix m(obs, &d50);
    unsigned discriminating[2] = {0, 0};
    for (int side = 0; side < 2; ++side) {
        const unsigned short in[3] = {static_cast<unsigned short>(5222 + side), 0x8000, 0x8000};
        double lab[3];
        color_ref::Decode16(lab, in);
        ASSERT_EQ(lab[0] > 7.9996, side == 1);
        for (int k = 0; k < 200000 && discriminating[side] < 20; ++k) {
            float s = 1.0f + 1e-4f * k;
            std::vector<float> factor(3, s);
            // The branch the threshold picks vs the other branch forced.
            auto chosen = color_ref::MediaRelative(m.Weights(), 1, in, 1, &factor, kDecode16);
            auto other = color_ref::MediaRelative(m.Weights(), 1, in, 1, &factor, kDecode16, side == 0 ? -1.0 : 100.0);
            if (chosen == other) continue;
            ++discriminating[side];
            std::vector<unsigned char> got(3, 7);
            m.CalculateMediaRelativeCIELAB(got.data(), in, 1, &factor);
            EXPECT_EQ(got, chosen) << "word " << in[0] << " scale " << s;
        }
    }
    EXPECT_GT(discriminating[0], 0u);
    EXPECT_GT(discriminating[1], 0u);
}
