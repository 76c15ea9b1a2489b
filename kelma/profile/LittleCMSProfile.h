// Internal: Little CMS objects owned by C++ handles, a context that keeps
// Little CMS's last error message, and the tag writers the ICC profiles
// share. Little CMS is a private dependency of the library; hosts see only
// the profile bytes.
#pragma once

#include <lcms2.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace profile {

struct ProfileDeleter {
    void operator()(void* p) const { cmsCloseProfile(p); }
};
struct PipelineDeleter {
    void operator()(cmsPipeline* p) const { cmsPipelineFree(p); }
};
struct StageDeleter {
    void operator()(cmsStage* p) const { cmsStageFree(p); }
};
struct CurveDeleter {
    void operator()(cmsToneCurve* p) const { cmsFreeToneCurve(p); }
};
struct MLUDeleter {
    void operator()(cmsMLU* p) const { cmsMLUfree(p); }
};
struct NamedColorListDeleter {
    void operator()(cmsNAMEDCOLORLIST* p) const { cmsFreeNamedColorList(p); }
};

using ProfilePtr = std::unique_ptr<void, ProfileDeleter>;
using PipelinePtr = std::unique_ptr<cmsPipeline, PipelineDeleter>;
using StagePtr = std::unique_ptr<cmsStage, StageDeleter>;
using CurvePtr = std::unique_ptr<cmsToneCurve, CurveDeleter>;
using MLUPtr = std::unique_ptr<cmsMLU, MLUDeleter>;
using NamedColorListPtr = std::unique_ptr<cmsNAMEDCOLORLIST, NamedColorListDeleter>;

// A Little CMS context of its own (so concurrent builds never share state)
// whose error handler keeps the last message.
class LittleCMSContext {
public:
    LittleCMSContext();
    ~LittleCMSContext();
    LittleCMSContext(const LittleCMSContext&) = delete;
    LittleCMSContext& operator=(const LittleCMSContext&) = delete;

    cmsContext Get() const { return context_; }
    // Throws ZKCICCProfileError "<what>: <Little CMS's message>" unless ok.
    void Check(bool ok, const std::string& what) const;
    template <class T>
    T* Check(T* p, const std::string& what) const {
        Check(p != nullptr, what);
        return p;
    }

private:
    static void Handler(cmsContext context, cmsUInt32Number code, const char* text);
    cmsContext context_;
    std::string error_;
};

// A new output-class profile: colour space of `inks` inks (CMYK, 6CLR,
// 7CLR), PCS CIELAB, version 4.3 or 2.1 (set before any tag, as Little CMS
// chooses tag types by version), rendering intent relative colorimetric.
ProfilePtr NewOutputProfile(const LittleCMSContext& lcms, unsigned int inks, unsigned int iccVersion);

// Texts: UTF-8 into a Little CMS multi-localised string (en-US), which Little
// CMS writes in the tag type of the profile's version. asciiOnly (for v2,
// whose text types are ASCII): characters outside printable ASCII become '?'.
void WriteTextTag(const LittleCMSContext& lcms, cmsHPROFILE profile, cmsTagSignature tag, const std::string& utf8,
                  bool asciiOnly);
// ASCII text; other bytes become '?'.
void WriteASCIITag(const LittleCMSContext& lcms, cmsHPROFILE profile, cmsTagSignature tag, const std::string& text);

// Identity curves for `channels` channels.
StagePtr IdentityCurves(const LittleCMSContext& lcms, unsigned int channels);
// Tabulated curves, one per channel, each of entries.size() / channels values.
StagePtr TabulatedCurves(const LittleCMSContext& lcms, unsigned int channels,
                         const std::vector<std::uint16_t>& entries);

// The profile's bytes; for v4 after computing the profile ID.
std::vector<unsigned char> ProfileBytes(const LittleCMSContext& lcms, cmsHPROFILE profile, unsigned int iccVersion);

}  // namespace profile
}  // namespace KELMA_NAMESPACE
