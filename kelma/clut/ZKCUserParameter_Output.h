// Separation and output settings a host fills, copies and hands on when it
// builds a CLUT. No computing class reads them.
#pragma once

#include <cstdint>

#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class KELMA_API ZKCUserParameter_Base {
public:
    virtual ~ZKCUserParameter_Base();
    virtual bool IsValid() const = 0;

    ZKCUserParameter_Base(const ZKCUserParameter_Base&) = default;
    ZKCUserParameter_Base& operator=(const ZKCUserParameter_Base&) = default;

protected:
    ZKCUserParameter_Base() = default;
};

class KELMA_API ZKCUserParameter_Output : public ZKCUserParameter_Base {
public:
    ZKCUserParameter_Output();
    ZKCUserParameter_Output(const ZKCUserParameter_Output& other);
    ZKCUserParameter_Output& operator=(const ZKCUserParameter_Output& other);
    ~ZKCUserParameter_Output() override;

    // True whatever the fields hold: the settings carry no ranges of their own.
    bool IsValid() const override;

    bool IsGCR() const { return isGCR_; }
    unsigned long GCR() const { return gcr_; }
    unsigned long BlackLength() const { return blackLength_; }
    unsigned long BlackWidth() const { return blackWidth_; }
    unsigned long ColorantCoverage() const { return colorantCoverage_; }
    unsigned long MaxBlack() const { return maxBlack_; }
    unsigned long NoneBlackColorantCoverageSteps() const { return noneBlackColorantCoverageSteps_; }
    unsigned long ColorantLong() const { return colorantLong_; }
    std::uint64_t ColorantLongLong() const { return colorantLongLong_; }
    GAMUTMAPPER_METHOD GamutMapperMethod() const { return gamutMapperMethod_; }
    bool IsCLUT() const { return isCLUT_; }
    // Set bits among bits 0..31 of the colorant mask.
    unsigned long ColorantNumber() const;

    // GCR mode: SetGCR switches black generation to GCR; the two black setters
    // switch it to length/width. The other stored value survives the switch.
    void SetGCR(unsigned long v);
    void SetBlackLength(unsigned long v);
    void SetBlackWidth(unsigned long v);
    void SetColorantCoverage(unsigned long v) { colorantCoverage_ = static_cast<std::uint32_t>(v); }
    void SetMaxBlack(unsigned long v) { maxBlack_ = static_cast<std::uint32_t>(v); }
    void SetNoneBlackColorantCoverageSteps(unsigned long v) {
        noneBlackColorantCoverageSteps_ = static_cast<std::uint32_t>(v);
    }
    void SetColorantLong(unsigned long v) { colorantLong_ = static_cast<std::uint32_t>(v); }
    void SetColorantLongLong(std::uint64_t v) { colorantLongLong_ = v; }
    // The colorant mask needs a way in for ColorantNumber to mean anything.
    void SetColorantMask(std::uint32_t mask) { colorantMask_ = mask; }
    void SetGamutMapperMethod(GAMUTMAPPER_METHOD v) { gamutMapperMethod_ = v; }
    void SetIsCLUT(bool v) { isCLUT_ = v; }

protected:
    // Defaults: GCR mode with 50, black length/width 0, coverage 400, max
    // black 100, 5 steps, gamut mapper 0, not a CLUT. The colorant words are
    // not defaults; they start at 0 in the constructor instead of holding
    // indeterminate memory.
    static void SetDefault(ZKCUserParameter_Output& p);

private:
    bool isGCR_;
    std::uint32_t gcr_;
    std::uint32_t blackLength_;
    std::uint32_t blackWidth_;
    std::uint32_t colorantCoverage_;
    std::uint32_t maxBlack_;
    std::uint32_t noneBlackColorantCoverageSteps_;
    std::uint32_t colorantLong_ = 0;
    std::uint64_t colorantLongLong_ = 0;
    std::uint32_t colorantMask_ = 0;
    GAMUTMAPPER_METHOD gamutMapperMethod_;
    bool isCLUT_;
};

}  // namespace KELMA_NAMESPACE
