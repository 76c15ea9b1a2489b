#include <gtest/gtest.h>

#include <cstdint>

#include "kelma/clut/ZKCUserParameter_Output.h"

using namespace kelma;

TEST(ZKCUserParameter_Output, DefaultsAfterConstruction) {
    ZKCUserParameter_Output p;
    EXPECT_TRUE(p.IsGCR());
    EXPECT_EQ(p.GCR(), 50u);
    EXPECT_EQ(p.BlackLength(), 0u);
    EXPECT_EQ(p.BlackWidth(), 0u);
    EXPECT_EQ(p.ColorantCoverage(), 400u);
    EXPECT_EQ(p.MaxBlack(), 100u);
    EXPECT_EQ(p.NoneBlackColorantCoverageSteps(), 5u);
    EXPECT_EQ(p.GamutMapperMethod(), GAMUTMAPPER_DEFAULT);
    EXPECT_FALSE(p.IsCLUT());
    EXPECT_TRUE(p.IsValid());
    const ZKCUserParameter_Base& base = p;
    EXPECT_TRUE(base.IsValid());  // through the virtual slot
}

TEST(ZKCUserParameter_Output, BlackSettersSwitchModeAndKeepTheOtherValue) {
    ZKCUserParameter_Output p;
    p.SetBlackWidth(30);
    EXPECT_FALSE(p.IsGCR());
    EXPECT_EQ(p.GCR(), 50u);
    EXPECT_EQ(p.BlackWidth(), 30u);
    p.SetGCR(70);
    EXPECT_TRUE(p.IsGCR());
    EXPECT_EQ(p.GCR(), 70u);
    EXPECT_EQ(p.BlackWidth(), 30u);
    p.SetBlackLength(12);
    EXPECT_FALSE(p.IsGCR());
    EXPECT_EQ(p.BlackLength(), 12u);
    EXPECT_EQ(p.GCR(), 70u);
    EXPECT_EQ(p.BlackWidth(), 30u);

    // The other setters leave the mode alone, in either mode.
    for (bool gcrMode : {false, true}) {
        if (gcrMode) p.SetGCR(10);
        p.SetColorantCoverage(280);
        p.SetMaxBlack(95);
        p.SetNoneBlackColorantCoverageSteps(9);
        p.SetColorantLong(0x1234u);
        p.SetColorantLongLong(0x1234567890ABCDEFull);
        p.SetColorantMask(0xFu);
        p.SetGamutMapperMethod(static_cast<GAMUTMAPPER_METHOD>(3));
        p.SetIsCLUT(true);
        EXPECT_EQ(p.IsGCR(), gcrMode);
    }
    EXPECT_EQ(p.ColorantCoverage(), 280u);
    EXPECT_EQ(p.MaxBlack(), 95u);
    EXPECT_EQ(p.NoneBlackColorantCoverageSteps(), 9u);
    EXPECT_EQ(p.ColorantLong(), 0x1234u);
    EXPECT_EQ(p.ColorantLongLong(), 0x1234567890ABCDEFull);
    EXPECT_EQ(p.GamutMapperMethod(), static_cast<GAMUTMAPPER_METHOD>(3));
    EXPECT_TRUE(p.IsCLUT());
}

TEST(ZKCUserParameter_Output, IsValidForAnyValues) {
    ZKCUserParameter_Output p;
    p.SetColorantCoverage(0);
    p.SetGCR(250);
    p.SetMaxBlack(0xFFFFFFFFul);
    p.SetNoneBlackColorantCoverageSteps(0);
    EXPECT_TRUE(p.IsValid());
    p.SetBlackLength(1000);
    p.SetBlackWidth(0);
    EXPECT_TRUE(p.IsValid());
}

TEST(ZKCUserParameter_Output, ColorantNumberCountsTheLow32MaskBits) {
    ZKCUserParameter_Output p;
    p.SetColorantMask(0xFFFFFFFFu);
    EXPECT_EQ(p.ColorantNumber(), 32u);
    p.SetColorantMask(0u);
    EXPECT_EQ(p.ColorantNumber(), 0u);
    p.SetColorantMask(0x80000001u);
    EXPECT_EQ(p.ColorantNumber(), 2u);
    p.SetColorantMask(0x7Fu);
    EXPECT_EQ(p.ColorantNumber(), 7u);
    for (unsigned bit = 0; bit < 32; ++bit) {
        p.SetColorantMask(1u << bit);
        EXPECT_EQ(p.ColorantNumber(), 1u) << bit;
    }
}

TEST(ZKCUserParameter_Output, CopyAndAssignmentCarryEveryField) {
    ZKCUserParameter_Output src;
    src.SetGCR(33);
    src.SetBlackLength(7);
    src.SetBlackWidth(21);  // leaves length/width mode on
    src.SetColorantCoverage(300);
    src.SetMaxBlack(90);
    src.SetNoneBlackColorantCoverageSteps(11);
    src.SetColorantLong(0xABCDu);
    src.SetColorantLongLong(0xFEDCBA9876543210ull);
    src.SetColorantMask(0x00F0F00Fu);
    src.SetGamutMapperMethod(static_cast<GAMUTMAPPER_METHOD>(2));
    src.SetIsCLUT(true);

    ZKCUserParameter_Output copy(src);
    ZKCUserParameter_Output assigned;
    assigned = src;
    for (const ZKCUserParameter_Output* p : {&copy, &assigned}) {
        EXPECT_FALSE(p->IsGCR());
        EXPECT_EQ(p->GCR(), 33u);
        EXPECT_EQ(p->BlackLength(), 7u);
        EXPECT_EQ(p->BlackWidth(), 21u);
        EXPECT_EQ(p->ColorantCoverage(), 300u);
        EXPECT_EQ(p->MaxBlack(), 90u);
        EXPECT_EQ(p->NoneBlackColorantCoverageSteps(), 11u);
        EXPECT_EQ(p->ColorantLong(), 0xABCDu);
        EXPECT_EQ(p->ColorantLongLong(), 0xFEDCBA9876543210ull);
        EXPECT_EQ(p->ColorantNumber(), src.ColorantNumber());
        EXPECT_EQ(p->ColorantNumber(), 12u);
        EXPECT_EQ(p->GamutMapperMethod(), static_cast<GAMUTMAPPER_METHOD>(2));
        EXPECT_TRUE(p->IsCLUT());
    }
    // Copies are independent afterwards.
    copy.SetGCR(1);
    EXPECT_FALSE(src.IsGCR());
    EXPECT_EQ(src.GCR(), 33u);
}
