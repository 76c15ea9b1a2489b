#include "kelma/profile/LittleCMSProfile.h"

#include <cwchar>

#include "kelma/profile/ICCOutputProfile.h"

namespace KELMA_NAMESPACE {
namespace profile {

LittleCMSContext::LittleCMSContext() : context_(cmsCreateContext(nullptr, this)) {
    if (context_ == nullptr) throw ZKCICCProfileError("Little CMS could not create a context");
    cmsSetLogErrorHandlerTHR(context_, &LittleCMSContext::Handler);
}

LittleCMSContext::~LittleCMSContext() { cmsDeleteContext(context_); }

void LittleCMSContext::Handler(cmsContext context, cmsUInt32Number, const char* text) {
    auto* self = static_cast<LittleCMSContext*>(cmsGetContextUserData(context));
    if (self != nullptr && text != nullptr) self->error_ = text;
}

void LittleCMSContext::Check(bool ok, const std::string& what) const {
    if (ok) return;
    throw ZKCICCProfileError(what + ": " + (error_.empty() ? std::string("Little CMS failed") : error_));
}

ProfilePtr NewOutputProfile(const LittleCMSContext& lcms, unsigned int inks, unsigned int iccVersion) {
    ProfilePtr profile(lcms.Check(cmsCreateProfilePlaceholder(lcms.Get()), "creating the profile"));
    cmsSetProfileVersion(profile.get(), iccVersion == 2 ? 2.1 : 4.3);
    cmsSetDeviceClass(profile.get(), cmsSigOutputClass);
    cmsColorSpaceSignature space = cmsSigCmykData;
    if (inks == 6) space = cmsSig6colorData;
    if (inks == 7) space = cmsSig7colorData;
    cmsSetColorSpace(profile.get(), space);
    cmsSetPCS(profile.get(), cmsSigLabData);
    cmsSetHeaderRenderingIntent(profile.get(), INTENT_RELATIVE_COLORIMETRIC);
    return profile;
}

namespace {

// UTF-8 to wide characters; a malformed sequence gives U+FFFD for its first
// byte and decoding goes on with the next.
std::wstring Widen(const std::string& utf8) {
    std::wstring out;
    const auto* s = reinterpret_cast<const unsigned char*>(utf8.data());
    const std::size_t n = utf8.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = s[i];
        unsigned int length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        char32_t code = length == 1 ? c : length == 2 ? (c & 0x1F) : length == 3 ? (c & 0x0F) : (c & 0x07);
        bool ok = length != 0 && i + length <= n;
        for (unsigned int k = 1; ok && k < length; ++k) {
            ok = (s[i + k] & 0xC0) == 0x80;
            code = (code << 6) | (s[i + k] & 0x3F);
        }
        if (!ok || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            out.push_back(static_cast<wchar_t>(0xFFFD));
            i += 1;
            continue;
        }
        out.push_back(static_cast<wchar_t>(code));
        i += length;
    }
    return out;
}

}  // namespace

void WriteTextTag(const LittleCMSContext& lcms, cmsHPROFILE profile, cmsTagSignature tag, const std::string& utf8,
                  bool asciiOnly) {
    MLUPtr mlu(lcms.Check(cmsMLUalloc(lcms.Get(), 1), "allocating a text"));
    std::wstring wide = Widen(utf8);
    if (asciiOnly)
        for (wchar_t& c : wide)
            if (c >= 0x80 || c < 0x20) c = L'?';
    lcms.Check(cmsMLUsetWide(mlu.get(), "en", "US", wide.c_str()), "setting a text");
    lcms.Check(cmsWriteTag(profile, tag, mlu.get()), "writing a text tag");
}

void WriteASCIITag(const LittleCMSContext& lcms, cmsHPROFILE profile, cmsTagSignature tag, const std::string& text) {
    std::string ascii = text;
    for (char& c : ascii) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x80 || (u < 0x20 && c != '\n' && c != '\r' && c != '\t')) c = '?';
    }
    MLUPtr mlu(lcms.Check(cmsMLUalloc(lcms.Get(), 1), "allocating a text"));
    lcms.Check(cmsMLUsetASCII(mlu.get(), cmsNoLanguage, cmsNoCountry, ascii.c_str()), "setting a text");
    lcms.Check(cmsWriteTag(profile, tag, mlu.get()), "writing a text tag");
}

StagePtr IdentityCurves(const LittleCMSContext& lcms, unsigned int channels) {
    return StagePtr(lcms.Check(cmsStageAllocToneCurves(lcms.Get(), channels, nullptr), "allocating curves"));
}

StagePtr TabulatedCurves(const LittleCMSContext& lcms, unsigned int channels,
                         const std::vector<std::uint16_t>& entries) {
    const std::size_t perChannel = entries.size() / channels;
    std::vector<CurvePtr> owned;
    std::vector<cmsToneCurve*> curves;
    for (unsigned int c = 0; c < channels; ++c) {
        owned.emplace_back(lcms.Check(cmsBuildTabulatedToneCurve16(lcms.Get(), static_cast<cmsUInt32Number>(perChannel),
                                                                   entries.data() + c * perChannel),
                                      "allocating a curve"));
        curves.push_back(owned.back().get());
    }
    // The stage keeps copies of the curves.
    return StagePtr(lcms.Check(cmsStageAllocToneCurves(lcms.Get(), channels, curves.data()), "allocating curves"));
}

std::vector<unsigned char> ProfileBytes(const LittleCMSContext& lcms, cmsHPROFILE profile, unsigned int iccVersion) {
    if (iccVersion >= 4) lcms.Check(cmsMD5computeID(profile), "computing the profile ID");
    cmsUInt32Number size = 0;
    lcms.Check(cmsSaveProfileToMem(profile, nullptr, &size), "serialising the profile");
    std::vector<unsigned char> bytes(size);
    lcms.Check(cmsSaveProfileToMem(profile, bytes.data(), &size), "serialising the profile");
    bytes.resize(size);
    return bytes;
}

}  // namespace profile
}  // namespace KELMA_NAMESPACE
