#include "kelma/profile/ICCOutputProfile.h"

#include <lcms2.h>
#include <lcms2_plugin.h>

#include <algorithm>
#include <string>

#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/profile/LittleCMSProfile.h"
#include "kelma/profile/ProfileTables.h"
#include "kelma/profile/ZKCProfileConnection.h"

namespace KELMA_NAMESPACE {

ZKCICCProfileError::ZKCICCProfileError(const std::string& message) : std::runtime_error(message) {}
ZKCICCProfileError::~ZKCICCProfileError() = default;

namespace {

using namespace profile;

std::size_t Power(std::size_t base, unsigned int exponent) {
    std::size_t p = 1;
    for (unsigned int k = 0; k < exponent; ++k) p *= base;
    return p;
}

void CheckOptions(const ZKSICCProfileOptions& options) {
    if (options.gridPoints < 2 || options.gridPoints > 255)
        throw ZKCICCProfileError("gridPoints must be 2 to 255, got " + std::to_string(options.gridPoints));
    if (options.multiInkGridPoints == 1 || options.multiInkGridPoints > 255)
        throw ZKCICCProfileError("multiInkGridPoints must be 0 (automatic) or 2 to 255, got " +
                                 std::to_string(options.multiInkGridPoints));
    if (options.iccVersion != 2 && options.iccVersion != 4)
        throw ZKCICCProfileError("iccVersion must be 2 or 4, got " + std::to_string(options.iccVersion));
}

// The PCS CIELAB of each solid ink on the paper, with the ink names, for v4's
// colorant table.
void WriteColorantTable(const LittleCMSContext& lcms, cmsHPROFILE profile, const ZKCSSE_KELMA_Data& model,
                        const ZKSICCProfileOptions& options, const ZKCProfileConnection& pcs) {
    const unsigned int N = model.NumberOfInks();
    std::vector<unsigned char> solids(std::size_t{N} * N, 0);
    for (unsigned int i = 0; i < N; ++i) solids[i * N + i] = 255;
    std::vector<double> xyz(3 * N), lab(3 * N);
    PredictColorimetry(model, N, solids.data(), options.illuminant, false, xyz.data(), nullptr);
    pcs.XYZToPCSLab(xyz.data(), lab.data(), N);

    NamedColorListPtr list(lcms.Check(cmsAllocNamedColorList(lcms.Get(), N, N, "", ""), "allocating the colorants"));
    for (unsigned int i = 0; i < N; ++i) {
        // The colorant table holds 7-bit ASCII names of up to 31 bytes.
        std::string name = i < options.inkNames.size() ? options.inkNames[i] : "ink " + std::to_string(i + 1);
        for (char& c : name)
            if (static_cast<unsigned char>(c) >= 0x80 || static_cast<unsigned char>(c) < 0x20) c = '?';
        name = name.substr(0, 31);
        cmsUInt16Number encoded[3];
        EncodePCSLab(&lab[3 * i], 4, encoded);
        lcms.Check(cmsAppendNamedColor(list.get(), name.c_str(), encoded, nullptr), "adding a colorant");
    }
    lcms.Check(cmsWriteTag(profile, cmsSigColorantTableTag, list.get()), "writing the colorant table");
}

// Header and the tags both kinds of profile hold.
ProfilePtr CommonProfile(const LittleCMSContext& lcms, const ZKCSSE_KELMA_Data& model,
                         const ZKSICCProfileOptions& options, const ZKCProfileConnection& pcs) {
    ProfilePtr profile = NewOutputProfile(lcms, model.NumberOfInks(), options.iccVersion);
    cmsHPROFILE h = profile.get();
    const bool v2 = options.iccVersion == 2;
    WriteTextTag(lcms, h, cmsSigProfileDescriptionTag, options.description, v2);
    WriteTextTag(lcms, h, cmsSigCopyrightTag, options.copyright, v2);

    const double* white = pcs.MediaWhitePoint();
    const cmsCIEXYZ wtpt = {white[0], white[1], white[2]};
    lcms.Check(cmsWriteTag(h, cmsSigMediaWhitePointTag, &wtpt), "writing the media white point");
    if (!v2) {
        cmsMAT3 chad;
        const double* m = pcs.Adaptation();
        for (int r = 0; r < 3; ++r) _cmsVEC3init(&chad.v[r], m[3 * r], m[3 * r + 1], m[3 * r + 2]);
        lcms.Check(cmsWriteTag(h, cmsSigChromaticAdaptationTag, &chad), "writing the chromatic adaptation");
        WriteColorantTable(lcms, h, model, options, pcs);
    }
    if (!options.characterizationTarget.empty())
        WriteASCIITag(lcms, h, cmsSigCharTargetTag, options.characterizationTarget);
    return profile;
}

void WriteDeviceToPCS(const LittleCMSContext& lcms, cmsHPROFILE profile, const ZKCSSE_KELMA_Data& model,
                      const ZKSICCProfileOptions& options, const ZKCProfileConnection& pcs) {
    const unsigned int N = model.NumberOfInks();
    const unsigned int points = DeviceTableGridPoints(N, options);
    std::vector<ZKSDeviceAxis> axes;
    for (unsigned int i = 0; i < N; ++i)
        axes.push_back(ModelDeviceAxis(model, i, points));
    const std::vector<std::uint16_t> table = DeviceToPCSTable(model, options.illuminant, pcs, axes, options.iccVersion);

    std::vector<std::uint16_t> curves;
    for (unsigned int i = 0; i < N; ++i) curves.insert(curves.end(), axes[i].curve.begin(), axes[i].curve.end());
    PipelinePtr pipeline(lcms.Check(cmsPipelineAlloc(lcms.Get(), N, 3), "allocating a pipeline"));
    StagePtr input = TabulatedCurves(lcms, N, curves);
    StagePtr clut(lcms.Check(cmsStageAllocCLut16bit(lcms.Get(), points, N, 3, table.data()), "allocating the table"));
    StagePtr output = IdentityCurves(lcms, 3);
    // The pipeline owns each stage once it is inserted.
    lcms.Check(cmsPipelineInsertStage(pipeline.get(), cmsAT_END, input.get()), "building the pipeline");
    input.release();
    lcms.Check(cmsPipelineInsertStage(pipeline.get(), cmsAT_END, clut.get()), "building the pipeline");
    clut.release();
    lcms.Check(cmsPipelineInsertStage(pipeline.get(), cmsAT_END, output.get()), "building the pipeline");
    output.release();

    lcms.Check(cmsWriteTag(profile, cmsSigAToB1Tag, pipeline.get()), "writing A2B1");
    lcms.Check(cmsLinkTag(profile, cmsSigAToB0Tag, cmsSigAToB1Tag), "linking A2B0");
    lcms.Check(cmsLinkTag(profile, cmsSigAToB2Tag, cmsSigAToB1Tag), "linking A2B2");
}

}  // namespace

unsigned int DeviceTableGridPoints(unsigned int inks, const ZKSICCProfileOptions& options) {
    CheckOptions(options);
    if (inks > 4 && options.multiInkGridPoints != 0) {
        if (Power(options.multiInkGridPoints, inks) > kMaxDeviceTableNodes)
            throw ZKCICCProfileError("multiInkGridPoints " + std::to_string(options.multiInkGridPoints) + " gives " +
                                     std::to_string(inks) + "-ink tables of more than " +
                                     std::to_string(kMaxDeviceTableNodes) + " nodes");
        return options.multiInkGridPoints;
    }
    unsigned int points = options.gridPoints;
    while (points > 2 && Power(points, inks) > kMaxDeviceTableNodes) --points;
    return points;
}

std::vector<unsigned char> ICCProofProfile(const ZKCSSE_KELMA_Data& model, const ZKSICCProfileOptions& options) {
    CheckOptions(options);
    const ZKCProfileConnection pcs(model, options.illuminant);
    LittleCMSContext lcms;
    ProfilePtr profile = CommonProfile(lcms, model, options, pcs);
    WriteDeviceToPCS(lcms, profile.get(), model, options, pcs);
    return ProfileBytes(lcms, profile.get(), options.iccVersion);
}

}  // namespace KELMA_NAMESPACE
