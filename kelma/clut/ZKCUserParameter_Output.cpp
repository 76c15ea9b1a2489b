#include "kelma/clut/ZKCUserParameter_Output.h"

namespace KELMA_NAMESPACE {

ZKCUserParameter_Base::~ZKCUserParameter_Base() = default;

ZKCUserParameter_Output::ZKCUserParameter_Output() { SetDefault(*this); }
ZKCUserParameter_Output::ZKCUserParameter_Output(const ZKCUserParameter_Output& other) = default;
ZKCUserParameter_Output& ZKCUserParameter_Output::operator=(const ZKCUserParameter_Output& other) = default;
ZKCUserParameter_Output::~ZKCUserParameter_Output() = default;

void ZKCUserParameter_Output::SetDefault(ZKCUserParameter_Output& p) {
    p.blackLength_ = 0;
    p.blackWidth_ = 0;
    p.isGCR_ = true;
    p.gcr_ = 50;
    p.colorantCoverage_ = 400;
    p.maxBlack_ = 100;
    p.noneBlackColorantCoverageSteps_ = 5;
    p.gamutMapperMethod_ = GAMUTMAPPER_DEFAULT;
    p.isCLUT_ = false;
}

bool ZKCUserParameter_Output::IsValid() const { return true; }

unsigned long ZKCUserParameter_Output::ColorantNumber() const {
    unsigned long n = 0;
    for (unsigned int i = 0; i < 32; ++i)
        if (colorantMask_ & (std::uint32_t{1} << i)) ++n;
    return n;
}

void ZKCUserParameter_Output::SetGCR(unsigned long v) {
    isGCR_ = true;
    gcr_ = static_cast<std::uint32_t>(v);
}

void ZKCUserParameter_Output::SetBlackLength(unsigned long v) {
    isGCR_ = false;
    blackLength_ = static_cast<std::uint32_t>(v);
}

void ZKCUserParameter_Output::SetBlackWidth(unsigned long v) {
    isGCR_ = false;
    blackWidth_ = static_cast<std::uint32_t>(v);
}

}  // namespace KELMA_NAMESPACE
