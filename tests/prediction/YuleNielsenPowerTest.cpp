#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kelma/prediction/YuleNielsenPower.h"
#include "kelma/prediction/YuleNielsenPower_Scalar.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using kelma_test::SameBits;
using kelma_test::UnsupportedVariant;

namespace {

std::int64_t Ordered(float v) {
    std::int32_t i;
    std::memcpy(&i, &v, 4);
    return i < 0 ? -static_cast<std::int64_t>(i & 0x7FFFFFFF) : i;
}

// Distance in units in the last place between two finite floats.
std::int64_t UlpDistance(float a, float b) { return std::llabs(Ordered(a) - Ordered(b)); }

float FromBits(std::uint32_t b) {
    float f;
    std::memcpy(&f, &b, 4);
    return f;
}

const float kExponents[] = {1.0f, 1.25f, 1.5f, 1.7f, 2.0f, 2.2f, 2.5f, 3.0f, 3.7f, 5.0f, 7.5f, 10.0f, 12.3f, 15.0f};

}  // namespace

// Dense sweep of the bases a model produces (every 613th float from the
// smallest normal to 1.5) against the C library's powf, in the variant the
// suite runs under (CTest runs the suite once per variant).
TEST(YuleNielsenPower, StaysWithinTwoUlpOfPowf) {
    const KERNEL_VARIANT variant = ActiveKernelVariant();
    std::vector<float> bases;
    for (std::uint32_t b = 0x00800000u; FromBits(b) <= 1.5f; b += 613) bases.push_back(FromBits(b));
    bases.push_back(1.5f);
    std::vector<float> out(bases.size());
    std::int64_t worst = 0;
    std::size_t differing = 0;
    for (float y : kExponents) {
        YuleNielsenPower(variant, bases.data(), y, out.data(), static_cast<unsigned int>(bases.size()));
        for (std::size_t i = 0; i < bases.size(); ++i) {
            std::int64_t d = UlpDistance(out[i], std::pow(bases[i], y));
            worst = std::max(worst, d);
            differing += d != 0;
            ASSERT_LE(d, 2) << bases[i] << "^" << y << " = " << out[i] << ", powf " << std::pow(bases[i], y) << " ("
                            << KernelVariantName(variant) << ")";
        }
    }
    // Nearly always the same float as powf; a looser kernel shows here first.
    EXPECT_LE(worst, 1);
    EXPECT_LT(differing, bases.size() * std::size(kExponents) / 1000);
}

class YuleNielsenPowerVariant : public ::testing::TestWithParam<KERNEL_VARIANT> {
protected:
    void SetUp() override {
        if (!KernelVariantSupported(GetParam())) GTEST_SKIP() << UnsupportedVariant(GetParam());
    }
};

TEST_P(YuleNielsenPowerVariant, KeepsPowfsSpecialCases) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float bases[] = {0.0f, -0.0f, 1.0f, -0.5f, -1.0f, -2.0f, nan, inf, -inf, FLT_MIN / 4, FLT_TRUE_MIN,
                           FLT_MAX, 1e-30f, 3e30f};
    const float exponents[] = {2.5f, 2.0f, 3.0f, 1.0f, 15.0f, 0.0f, -1.0f, 100.0f, nan, inf};
    for (float y : exponents) {
        std::vector<float> in(std::begin(bases), std::end(bases)), out(in.size());
        YuleNielsenPower(GetParam(), in.data(), y, out.data(), static_cast<unsigned int>(in.size()));
        for (std::size_t i = 0; i < in.size(); ++i) {
            float expected = std::pow(in[i], y);
            if (std::isnan(expected))
                EXPECT_TRUE(std::isnan(out[i])) << in[i] << "^" << y;
            else if (std::isinf(expected) || expected == 0.0f)
                EXPECT_TRUE(SameBits(out[i], expected)) << in[i] << "^" << y << " gave " << out[i];
            else
                EXPECT_LE(UlpDistance(out[i], expected), 2) << in[i] << "^" << y;
        }
    }
    float x[3] = {0.0f, 1.0f, -0.3f}, r[3];
    YuleNielsenPower(GetParam(), x, 2.5f, r, 3);
    EXPECT_EQ(r[0], 0.0f);
    EXPECT_EQ(r[1], 1.0f);
    EXPECT_TRUE(std::isnan(r[2]));
}

// Results must not depend on the processor: every variant equals the scalar
// twin bit for bit, for any count (tails included) and for special lanes
// anywhere in a vector.
TEST_P(YuleNielsenPowerVariant, EqualsTheScalarTwinBitForBit) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> base(-0.2f, 1.6f);
    std::vector<float> in(4099 + 33);  // room for the largest count at the largest offset
    for (float& v : in) v = base(rng);
    in[5] = 0.0f;
    in[17] = std::numeric_limits<float>::quiet_NaN();
    in[40] = FLT_TRUE_MIN;
    in[63] = 1.0f;
    for (float y : {1.0f, 2.2f, 7.5f, 15.0f, 0.0f, 64.0f, 70.0f}) {
        for (unsigned int count : {1u, 3u, 4u, 7u, 9u, 15u, 16u, 17u, 31u, 32u, 4099u}) {
            for (unsigned int offset : {0u, 1u, 33u}) {
                std::vector<float> out(count);
                YuleNielsenPower(GetParam(), in.data() + offset, y, out.data(), count);
                for (unsigned int i = 0; i < count; ++i) {
                    float twin = YuleNielsenPowerLane_Scalar(in[offset + i], y);
                    ASSERT_TRUE(SameBits(out[i], twin) || (std::isnan(out[i]) && std::isnan(twin)))
                        << in[offset + i] << "^" << y << " count " << count;
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Variants, YuleNielsenPowerVariant, ::testing::ValuesIn(kelma_test::kAllKernelVariants),
                         kelma_test::KernelVariantParamName<::testing::TestParamInfo<KERNEL_VARIANT>>);
