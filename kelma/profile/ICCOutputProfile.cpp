#include "kelma/profile/ICCOutputProfile.h"

#include <lcms2.h>
#include <lcms2_plugin.h>

#include <algorithm>
#include <string>

#include "kelma/common/AtomicFile.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/profile/LittleCMSProfile.h"
#include "kelma/profile/ProfileTables.h"
#include "kelma/profile/ZKCProfileConnection.h"
#include "kelma/separation/ZKCSeparation.h"

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

// A pipeline of input curves, a 16-bit CLUT and identity output curves (the
// form both lut16Type and the v4 lutAtoB / lutBtoA types hold).
PipelinePtr CurvesTablePipeline(const LittleCMSContext& lcms, unsigned int inputs, unsigned int outputs,
                                const std::vector<std::uint16_t>& curves, const std::vector<cmsUInt32Number>& points,
                                const std::vector<std::uint16_t>& table) {
    PipelinePtr pipeline(lcms.Check(cmsPipelineAlloc(lcms.Get(), inputs, outputs), "allocating a pipeline"));
    StagePtr input = TabulatedCurves(lcms, inputs, curves);
    StagePtr clut(lcms.Check(cmsStageAllocCLut16bitGranular(lcms.Get(), points.data(), inputs, outputs, table.data()),
                             "allocating a table"));
    StagePtr output = IdentityCurves(lcms, outputs);
    // The pipeline owns each stage once it is inserted.
    for (StagePtr* stage : {&input, &clut, &output}) {
        lcms.Check(cmsPipelineInsertStage(pipeline.get(), cmsAT_END, stage->get()), "building a pipeline");
        stage->release();
    }
    return pipeline;
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
    PipelinePtr pipeline = CurvesTablePipeline(lcms, N, 3, curves, std::vector<cmsUInt32Number>(N, points), table);
    lcms.Check(cmsWriteTag(profile, cmsSigAToB1Tag, pipeline.get()), "writing A2B1");
    lcms.Check(cmsLinkTag(profile, cmsSigAToB0Tag, cmsSigAToB1Tag), "linking A2B0");
    lcms.Check(cmsLinkTag(profile, cmsSigAToB2Tag, cmsSigAToB1Tag), "linking A2B2");
}

void WriteColourToDevice(const LittleCMSContext& lcms, cmsHPROFILE profile, const ZKCSSE_KELMA_Data& model,
                         const ZKSICCProfileOptions& options, const ZKCProfileConnection& pcs) {
    const ZKCSeparation separation(model, options.separation, options.illuminant, true);
    ZKSPCSAxis axes[3];
    std::vector<std::uint16_t> curves;
    for (unsigned int c = 0; c < 3; ++c) {
        axes[c] = PCSAxis(c, options.gridPoints, options.iccVersion);
        curves.insert(curves.end(), axes[c].curve.begin(), axes[c].curve.end());
    }
    const ZKSColourToDeviceTables tables = ColourToDeviceTables(separation, pcs, options.gridPoints, options.iccVersion);
    const std::vector<cmsUInt32Number> points(3, options.gridPoints);
    const unsigned int N = model.NumberOfInks();
    PipelinePtr b2a = CurvesTablePipeline(lcms, 3, N, curves, points, tables.inks);
    lcms.Check(cmsWriteTag(profile, cmsSigBToA1Tag, b2a.get()), "writing B2A1");
    lcms.Check(cmsLinkTag(profile, cmsSigBToA0Tag, cmsSigBToA1Tag), "linking B2A0");
    lcms.Check(cmsLinkTag(profile, cmsSigBToA2Tag, cmsSigBToA1Tag), "linking B2A2");
    PipelinePtr gamut = CurvesTablePipeline(lcms, 3, 1, curves, points, tables.gamut);
    lcms.Check(cmsWriteTag(profile, cmsSigGamutTag, gamut.get()), "writing gamt");
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

std::vector<unsigned char> ICCOutputProfile(const ZKCSSE_KELMA_Data& model, const ZKSICCProfileOptions& options) {
    CheckOptions(options);
    const ZKCProfileConnection pcs(model, options.illuminant);
    LittleCMSContext lcms;
    ProfilePtr profile = CommonProfile(lcms, model, options, pcs);
    WriteDeviceToPCS(lcms, profile.get(), model, options, pcs);
    WriteColourToDevice(lcms, profile.get(), model, options, pcs);
    return ProfileBytes(lcms, profile.get(), options.iccVersion);
}

void WriteICCOutputProfile(const std::string& path, const ZKCSSE_KELMA_Data& model,
                           const ZKSICCProfileOptions& options) {
    const std::vector<unsigned char> bytes = ICCOutputProfile(model, options);
    WriteFileAtomically(path, std::string(bytes.begin(), bytes.end()));
}

}  // namespace KELMA_NAMESPACE
