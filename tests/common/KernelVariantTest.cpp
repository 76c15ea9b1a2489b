#include <gtest/gtest.h>

#include "kelma/common/KernelVariant.h"

using namespace kelma;

TEST(KernelVariant, NamesRoundTripAndUnknownNamesAreRefused) {
    for (std::uint32_t v = KERNEL_REFERENCE; v <= KERNEL_AVX512; ++v) {
        KERNEL_VARIANT parsed = KERNEL_AVX2;
        ASSERT_TRUE(ParseKernelVariant(KernelVariantName(static_cast<KERNEL_VARIANT>(v)), &parsed));
        EXPECT_EQ(parsed, v);
    }
    KERNEL_VARIANT unchanged = KERNEL_SSE2;
    for (const char* bad : {"", "AVX2", "avx", "avx2 ", "scalar"}) {
        EXPECT_FALSE(ParseKernelVariant(bad, &unchanged)) << bad;
    }
    EXPECT_FALSE(ParseKernelVariant(nullptr, &unchanged));
    EXPECT_EQ(unchanged, KERNEL_SSE2);
}

TEST(KernelVariant, TheCapLowersTheActiveVariantAndNeverRaisesIt) {
    const KERNEL_VARIANT before = KernelVariantCap();
    const KERNEL_VARIANT best = BestKernelVariant();
    EXPECT_TRUE(KernelVariantSupported(best));
    EXPECT_TRUE(KernelVariantSupported(KERNEL_REFERENCE));
    for (std::uint32_t v = KERNEL_REFERENCE; v <= KERNEL_AVX512; ++v) {
        SetKernelVariantCap(static_cast<KERNEL_VARIANT>(v));
        EXPECT_EQ(ActiveKernelVariant(), v < best ? v : best);
        EXPECT_TRUE(KernelVariantSupported(ActiveKernelVariant()));
        // Each variant needs the features of the narrower ones.
        if (KernelVariantSupported(static_cast<KERNEL_VARIANT>(v)) && v > 0) {
            EXPECT_TRUE(KernelVariantSupported(static_cast<KERNEL_VARIANT>(v - 1)));
        }
    }
    SetKernelVariantCap(before);
}
