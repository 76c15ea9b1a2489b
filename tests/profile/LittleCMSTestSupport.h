// Opening the profiles the library writes with Little CMS and running their
// transforms, as a colour management engine would use them.
#pragma once

#include <lcms2.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kelma_test {

struct ProfileCloser {
    void operator()(void* p) const { cmsCloseProfile(p); }
};
struct TransformDeleter {
    void operator()(void* p) const { cmsDeleteTransform(p); }
};
using Profile = std::unique_ptr<void, ProfileCloser>;
using Transform = std::unique_ptr<void, TransformDeleter>;

inline Profile OpenProfile(const std::vector<unsigned char>& bytes) {
    return Profile(cmsOpenProfileFromMem(bytes.data(), static_cast<cmsUInt32Number>(bytes.size())));
}

// Device bytes (count x inks) to PCS CIELAB doubles through the profile's
// device-to-PCS side, unoptimised (the profile's own tables, evaluated by
// Little CMS's interpolation) unless `optimise`.
inline std::vector<double> DeviceToLab(cmsHPROFILE profile, const unsigned char* inks, std::size_t count,
                                       unsigned int intent, bool optimise = false) {
    const unsigned int channels = cmsChannelsOf(cmsGetColorSpace(profile));
    cmsUInt32Number format = CHANNELS_SH(channels) | BYTES_SH(1);
    if (channels == 4) format = TYPE_CMYK_8;
    if (channels == 6) format = TYPE_CMYK6_8;
    if (channels == 7) format = TYPE_CMYK7_8;
    Profile lab(cmsCreateLab4Profile(nullptr));
    Transform t(cmsCreateTransform(profile, format, lab.get(), TYPE_Lab_DBL, intent,
                                   optimise ? 0 : cmsFLAGS_NOOPTIMIZE | cmsFLAGS_NOCACHE));
    std::vector<double> out(3 * count);
    if (t) cmsDoTransform(t.get(), inks, out.data(), static_cast<cmsUInt32Number>(count));
    else out.clear();
    return out;
}

// PCS CIELAB doubles to device bytes through the profile's PCS-to-device side.
inline std::vector<unsigned char> LabToDevice(cmsHPROFILE profile, const double* lab, std::size_t count,
                                              unsigned int intent) {
    const unsigned int channels = cmsChannelsOf(cmsGetColorSpace(profile));
    cmsUInt32Number format = TYPE_CMYK_8;
    if (channels == 6) format = TYPE_CMYK6_8;
    if (channels == 7) format = TYPE_CMYK7_8;
    Profile labProfile(cmsCreateLab4Profile(nullptr));
    Transform t(cmsCreateTransform(labProfile.get(), TYPE_Lab_DBL, profile, format, intent,
                                   cmsFLAGS_NOOPTIMIZE | cmsFLAGS_NOCACHE));
    std::vector<unsigned char> out(channels * count);
    if (t) cmsDoTransform(t.get(), lab, out.data(), static_cast<cmsUInt32Number>(count));
    else out.clear();
    return out;
}

// A text tag (desc, cprt, targ) in ASCII.
inline std::string TextTag(cmsHPROFILE profile, cmsTagSignature tag) {
    const cmsMLU* mlu = static_cast<const cmsMLU*>(cmsReadTag(profile, tag));
    if (mlu == nullptr) return "";
    const cmsUInt32Number size = cmsMLUgetASCII(mlu, "en", "US", nullptr, 0);
    std::string text(size, '\0');
    cmsMLUgetASCII(mlu, "en", "US", &text[0], size);
    if (!text.empty() && text.back() == '\0') text.pop_back();
    return text;
}

inline std::wstring WideTextTag(cmsHPROFILE profile, cmsTagSignature tag) {
    const cmsMLU* mlu = static_cast<const cmsMLU*>(cmsReadTag(profile, tag));
    if (mlu == nullptr) return L"";
    const cmsUInt32Number size = cmsMLUgetWide(mlu, "en", "US", nullptr, 0);
    std::wstring text(size / sizeof(wchar_t), L'\0');
    cmsMLUgetWide(mlu, "en", "US", &text[0], size);
    if (!text.empty() && text.back() == L'\0') text.pop_back();
    return text;
}

}  // namespace kelma_test
