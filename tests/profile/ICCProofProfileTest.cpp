// The device-to-PCS side of the ICC profiles, opened and run by Little CMS:
// header and tags, the model's own prediction at every chart patch through
// the 33-point tables (v4 and v2 encodings), exact values at the nodes,
// absolute colorimetry from the white point tag, 6 and 7 inks, options.
#include <gtest/gtest.h>

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/StandardIlluminants.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/common/InkLevels.h"
#include "kelma/evaluation/Statistics.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ChartImport.h"
#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/profile/ICCOutputProfile.h"
#include "kelma/profile/ProfileTables.h"
#include "kelma/profile/ZKCProfileConnection.h"
#include "tests/profile/LittleCMSTestSupport.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

const std::string kChart = std::string(KELMA_TEST_DATA_DIR) + "/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";

// The chart's device values as digital levels.
std::vector<unsigned char> ChartLevels() {
    const ZKSModelChart chart = ChartFromMeasurementFile(ZKCMeasurementFile(kChart));
    return ChartDigitalLevels(chart);
}

ZKSStatistics Agreement(const ZKCSSE_KELMA_Data& model, const std::vector<unsigned char>& bytes, unsigned int iccVersion,
                        unsigned int illuminant = 0) {
    ZKSICCProfileOptions options;
    options.iccVersion = iccVersion;
    options.illuminant = illuminant;
    const kelma_test::Profile profile = kelma_test::OpenProfile(ICCProofProfile(model, options));
    EXPECT_TRUE(profile);
    const unsigned int N = model.NumberOfInks();
    const std::size_t count = bytes.size() / N;
    const std::vector<double> lab =
        kelma_test::DeviceToLab(profile.get(), bytes.data(), count, INTENT_RELATIVE_COLORIMETRIC);
    EXPECT_EQ(lab.size(), 3 * count);
    std::vector<double> xyz(3 * count), expected(3 * count), dE(count);
    PredictColorimetry(model, count, bytes.data(), illuminant, false, xyz.data(), nullptr);
    ZKCProfileConnection(model, illuminant).XYZToPCSLab(xyz.data(), expected.data(), count);
    DeltaE2000(lab.data(), expected.data(), dE.data(), count);
    return Summarize(dE);
}

ZKCLighting_Matrix Matrix(const char* name) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    auto illuminant = MakeStandardIlluminant(name);
    return ZKCLighting_Matrix(observer, illuminant.get());
}

}  // namespace

TEST(ICCProofProfile, HeaderAndTagsAsWritten) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    for (unsigned int version : {4u, 2u}) {
        ZKSICCProfileOptions options;
        options.iccVersion = version;
        options.gridPoints = 9;
        options.description = "Press \xc3\xa9t\xc3\xa9 model";  // "Press été model"
        options.copyright = "(c) nobody";
        options.characterizationTarget = "CGATS.17\nBEGIN_DATA_FORMAT\n\xff\n";
        options.inkNames = {"Cyan", "Magenta", "Yellow", "Black"};
        const std::vector<unsigned char> bytes = ICCProofProfile(model, options);
        const kelma_test::Profile profile = kelma_test::OpenProfile(bytes);
        ASSERT_TRUE(profile);
        cmsHPROFILE h = profile.get();
        EXPECT_EQ(cmsGetDeviceClass(h), cmsSigOutputClass);
        EXPECT_EQ(cmsGetColorSpace(h), cmsSigCmykData);
        EXPECT_EQ(cmsGetPCS(h), cmsSigLabData);
        EXPECT_EQ(cmsGetEncodedICCversion(h) >> 24, version);
        EXPECT_EQ(cmsGetHeaderRenderingIntent(h), cmsUInt32Number(INTENT_RELATIVE_COLORIMETRIC));
        if (version == 4)
            EXPECT_EQ(kelma_test::WideTextTag(h, cmsSigProfileDescriptionTag), L"Press \u00e9t\u00e9 model");
        else
            EXPECT_EQ(kelma_test::TextTag(h, cmsSigProfileDescriptionTag), "Press ?t? model");
        EXPECT_EQ(kelma_test::TextTag(h, cmsSigCopyrightTag), "(c) nobody");
        EXPECT_EQ(kelma_test::TextTag(h, cmsSigCharTargetTag), "CGATS.17\nBEGIN_DATA_FORMAT\n?\n");

        // One table under three intents.
        for (cmsTagSignature tag : {cmsSigAToB0Tag, cmsSigAToB1Tag, cmsSigAToB2Tag}) EXPECT_TRUE(cmsIsTag(h, tag));
        // Shared tag data: Little CMS reads one pipeline for all three.
        EXPECT_EQ(cmsReadTag(h, cmsSigAToB0Tag), cmsReadTag(h, cmsSigAToB1Tag));
        EXPECT_EQ(cmsReadTag(h, cmsSigAToB2Tag), cmsReadTag(h, cmsSigAToB1Tag));
        EXPECT_FALSE(cmsIsTag(h, cmsSigBToA1Tag));
        const cmsPipeline* a2b = static_cast<const cmsPipeline*>(cmsReadTag(h, cmsSigAToB1Tag));
        ASSERT_NE(a2b, nullptr);
        EXPECT_EQ(cmsPipelineInputChannels(a2b), 4u);
        EXPECT_EQ(cmsPipelineOutputChannels(a2b), 3u);
        EXPECT_EQ(cmsPipelineStageCount(a2b), 3u);

        // wtpt: the paper adapted to D50 (to the tag's s15Fixed16 precision).
        const ZKCProfileConnection pcs(model, 0);
        const cmsCIEXYZ* wtpt = static_cast<const cmsCIEXYZ*>(cmsReadTag(h, cmsSigMediaWhitePointTag));
        ASSERT_NE(wtpt, nullptr);
        EXPECT_NEAR(wtpt->X, pcs.MediaWhitePoint()[0], 1.0 / 65536);
        EXPECT_NEAR(wtpt->Y, pcs.MediaWhitePoint()[1], 1.0 / 65536);
        EXPECT_NEAR(wtpt->Z, pcs.MediaWhitePoint()[2], 1.0 / 65536);

        // v4: chromatic adaptation and colorant table (names, solid inks).
        EXPECT_EQ(cmsIsTag(h, cmsSigChromaticAdaptationTag), version == 4);
        const cmsNAMEDCOLORLIST* colorants =
            static_cast<const cmsNAMEDCOLORLIST*>(cmsReadTag(h, cmsSigColorantTableTag));
        if (version == 2) {
            EXPECT_EQ(colorants, nullptr);
            continue;
        }
        const double* chad = static_cast<const double*>(cmsReadTag(h, cmsSigChromaticAdaptationTag));
        ASSERT_NE(chad, nullptr);
        for (int k = 0; k < 9; ++k) EXPECT_NEAR(chad[k], pcs.Adaptation()[k], 1.0 / 65536);
        ASSERT_NE(colorants, nullptr);
        ASSERT_EQ(cmsNamedColorCount(colorants), 4u);
        const unsigned char solids[16] = {255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255};
        double xyz[12], lab[12];
        PredictColorimetry(model, 4, solids, 0, false, xyz, nullptr);
        pcs.XYZToPCSLab(xyz, lab, 4);
        for (int i = 0; i < 4; ++i) {
            char name[cmsMAX_PATH];
            cmsUInt16Number encoded[3];
            ASSERT_TRUE(cmsNamedColorInfo(colorants, i, name, nullptr, nullptr, encoded, nullptr));
            EXPECT_EQ(std::string(name), options.inkNames[i]);
            cmsCIELab v;
            cmsLabEncoded2Float(&v, encoded);
            EXPECT_NEAR(v.L, lab[3 * i], 0.01) << name;
            EXPECT_NEAR(v.a, lab[3 * i + 1], 0.01) << name;
        }
    }
}

TEST(ICCProofProfile, AgreesWithTheModelOverTheChartThroughLittleCMS) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const std::vector<unsigned char> levels = ChartLevels();
    for (unsigned int version : {4u, 2u}) {
        const ZKSStatistics s = Agreement(model, levels, version);
        std::printf("v%u: %zu patches, CIEDE2000 mean %.4f p95 %.4f max %.4f\n", version, s.count, s.mean, s.p95, s.max);
        // Nodes and curves in the model's coordinate: 0.003 mean, 0.02 max.
        EXPECT_LE(s.mean, 0.01) << "version " << version;
        EXPECT_LE(s.max, 0.05) << "version " << version;
    }
}

TEST(ICCProofProfile, NodesSitOnTheModelsGridAndHoldItsPCSColourExactly) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const ZKCProfileConnection pcs(model, 0);
    // The press model's grid is 0, 40, 100 %: levels 0, 102, 255.
    std::vector<profile::ZKSDeviceAxis> axes;
    for (unsigned int i = 0; i < 4; ++i) axes.push_back(profile::ModelDeviceAxis(model, i, 9));
    for (const profile::ZKSDeviceAxis& axis : axes) {
        ASSERT_EQ(axis.nodes.size(), 9u);
        EXPECT_EQ(axis.nodes[0], 0);
        EXPECT_EQ(axis.nodes[4], 102);
        EXPECT_EQ(axis.nodes[8], 255);
        for (unsigned int j = 0; j < 9; ++j)
            EXPECT_EQ(axis.curve[axis.nodes[j]], static_cast<std::uint16_t>(std::floor(65535.0 * j / 8 + 0.5)));
        for (unsigned int t = 1; t < 256; ++t) EXPECT_GE(axis.curve[t], axis.curve[t - 1]) << t;
    }
    for (unsigned int version : {4u, 2u}) {
        const std::vector<std::uint16_t> table = profile::DeviceToPCSTable(model, 0, pcs, axes, version);
        ASSERT_EQ(table.size(), 3u * 9 * 9 * 9 * 9);
        // Node (C, M, Y, K) = (2, 7, 0, 5): index ((2 9 + 7) 9 + 0) 9 + 5.
        const unsigned char inks[4] = {axes[0].nodes[2], axes[1].nodes[7], axes[2].nodes[0], axes[3].nodes[5]};
        const std::size_t node = ((2 * 9 + 7) * 9 + 0) * 9 + 5;
        double xyz[3], lab[3];
        PredictColorimetry(model, 1, inks, 0, false, xyz, nullptr);
        pcs.XYZToPCSLab(xyz, lab, 1);
        std::uint16_t encoded[3];
        profile::EncodePCSLab(lab, version, encoded);
        for (int c = 0; c < 3; ++c) EXPECT_EQ(table[3 * node + c], encoded[c]);

        // Little CMS at that node gives it back to the encoding's precision.
        ZKSICCProfileOptions options;
        options.gridPoints = 9;
        options.iccVersion = version;
        const kelma_test::Profile profile = kelma_test::OpenProfile(ICCProofProfile(model, options));
        const std::vector<double> out =
            kelma_test::DeviceToLab(profile.get(), inks, 1, INTENT_RELATIVE_COLORIMETRIC);
        ASSERT_EQ(out.size(), 3u);
        EXPECT_NEAR(out[0], lab[0], 0.003);
        EXPECT_NEAR(out[1], lab[1], 0.01);
        EXPECT_NEAR(out[2], lab[2], 0.01);
    }
}

TEST(ICCProofProfile, AxesFallBackToUniformDeviceValuesWhereTheModelsCannotBeFollowed) {
    const profile::ZKSDeviceAxis uniform = profile::UniformDeviceAxis(33);
    for (unsigned int j = 0; j < 33; ++j) {
        EXPECT_EQ(uniform.nodes[j], static_cast<unsigned char>(std::floor(255.0 * j / 32 + 0.5)));
        EXPECT_EQ(uniform.curve[uniform.nodes[j]], static_cast<std::uint16_t>(std::floor(65535.0 * j / 32 + 0.5)));
    }
    for (unsigned int t = 0; t < 256; ++t) EXPECT_NEAR(uniform.curve[t] / 65535.0, t / 255.0, 0.5 / 255 + 1e-6);
    // A model of 5 grid levels (4 cells) and a table of 3 nodes (2 intervals).
    const ZKCSSE_KELMA_Data fine = kelma_test::MakeTestModel(4, 5, 2.0, 9).Build();
    const profile::ZKSDeviceAxis coarse = profile::ModelDeviceAxis(fine, 1, 3);
    EXPECT_EQ(coarse.nodes, profile::UniformDeviceAxis(3).nodes);
    EXPECT_EQ(coarse.curve, profile::UniformDeviceAxis(3).curve);
    // With 9 nodes every one of its levels is a node.
    const profile::ZKSDeviceAxis followed = profile::ModelDeviceAxis(fine, 1, 9);
    for (unsigned int c = 0; c < 5; ++c)
        EXPECT_EQ(followed.nodes[2 * c], static_cast<unsigned char>(fine.GridPoints()[5 + c])) << c;
}

TEST(ICCProofProfile, AbsoluteColorimetryComesFromTheWhitePointAndOtherIlluminantsAdapt) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel(Matrix("D65"), INK_SET_CMYK, false, false);
    const std::vector<unsigned char> levels = ChartLevels();
    const ZKSStatistics s = Agreement(model, levels, 4);
    EXPECT_LE(s.mean, 0.1);

    ZKSICCProfileOptions options;
    const kelma_test::Profile profile = kelma_test::OpenProfile(ICCProofProfile(model, options));
    const ZKCProfileConnection pcs(model, 0);
    // Absolute colorimetry is the relative PCS colour scaled by wtpt / D50:
    // the paper comes out at the adapted paper M P, a patch at M X.
    const unsigned char inks[8] = {0, 0, 0, 0, 200, 30, 90, 10};
    const std::vector<double> absolute = kelma_test::DeviceToLab(profile.get(), inks, 2, INTENT_ABSOLUTE_COLORIMETRIC);
    const std::vector<double> relative = kelma_test::DeviceToLab(profile.get(), inks, 2, INTENT_RELATIVE_COLORIMETRIC);
    ASSERT_EQ(absolute.size(), 6u);
    ASSERT_EQ(relative.size(), 6u);
    double xyz[6];
    PredictColorimetry(model, 2, inks, 0, false, xyz, nullptr);
    // As stored (s15Fixed16: 1/65536 moves a* of the paper by 0.003).
    const cmsCIEXYZ* stored = static_cast<const cmsCIEXYZ*>(cmsReadTag(profile.get(), cmsSigMediaWhitePointTag));
    ASSERT_NE(stored, nullptr);
    const double wtpt[3] = {stored->X, stored->Y, stored->Z};
    const double* d50 = ZKCProfileConnection::PCSWhite();
    for (int s = 0; s < 2; ++s) {
        double pcsXYZ[3], scaled[3], expected[3], adapted[3];
        CIELABToXYZ(&relative[3 * s], d50, pcsXYZ);
        for (int c = 0; c < 3; ++c) scaled[c] = pcsXYZ[c] * wtpt[c] / d50[c];
        XYZToCIELAB(scaled, d50, expected);
        EXPECT_LT(DeltaE2000(&absolute[3 * s], expected), 1e-4) << "sample " << s;
        const double* m = pcs.Adaptation();
        for (int r = 0; r < 3; ++r)
            adapted[r] = m[3 * r] * xyz[3 * s] + m[3 * r + 1] * xyz[3 * s + 1] + m[3 * r + 2] * xyz[3 * s + 2];
        XYZToCIELAB(adapted, d50, expected);
        // Within the table's interpolation error (none for the paper, a
        // node) and the white point's storage.
        EXPECT_LT(DeltaE2000(&absolute[3 * s], expected), s == 0 ? 0.01 : 0.15) << "sample " << s;
    }
}

TEST(ICCProofProfile, SixAndSevenInksUseTheNColourSpaces) {
    for (unsigned int inks : {6u, 7u}) {
        const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(inks, 3, 2.0, 40 + inks).Build();
        ZKSICCProfileOptions options;
        const unsigned int points = DeviceTableGridPoints(inks, options);
        EXPECT_EQ(points, inks == 6 ? 12u : 8u);
        const std::vector<unsigned char> bytes = ICCProofProfile(model, options);
        const kelma_test::Profile profile = kelma_test::OpenProfile(bytes);
        ASSERT_TRUE(profile);
        EXPECT_EQ(cmsGetColorSpace(profile.get()), inks == 6 ? cmsSig6colorData : cmsSig7colorData);
        std::mt19937 rng(inks);
        std::uniform_int_distribution<int> level(0, 255);
        std::vector<unsigned char> samples(2000 * inks);
        for (auto& v : samples) v = static_cast<unsigned char>(level(rng));
        const ZKSStatistics s = Agreement(model, samples, 4);
        std::printf("%u inks, %u points: CIEDE2000 mean %.4f p95 %.4f max %.4f, %zu bytes\n", inks, points, s.mean,
                    s.p95, s.max, bytes.size());
        EXPECT_LE(s.mean, inks == 6 ? 0.08 : 0.25);
    }
}

TEST(ICCProofProfile, OptionsOutOfRangeAreNamedAndTablesDoNotDependOnThreads) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    auto message = [&](const ZKSICCProfileOptions& o) -> std::string {
        try {
            ICCProofProfile(model, o);
        } catch (const ZKCICCProfileError& e) {
            return e.what();
        }
        return "";
    };
    ZKSICCProfileOptions o;
    o.gridPoints = 1;
    EXPECT_NE(message(o).find("gridPoints"), std::string::npos);
    o = ZKSICCProfileOptions();
    o.iccVersion = 3;
    EXPECT_NE(message(o).find("iccVersion"), std::string::npos);
    o = ZKSICCProfileOptions();
    o.multiInkGridPoints = 20;
    EXPECT_EQ(DeviceTableGridPoints(4, o), 33u);  // used by 6 and 7 inks only
    EXPECT_THROW(DeviceTableGridPoints(7, o), ZKCICCProfileError);
    o = ZKSICCProfileOptions();
    o.illuminant = 1;
    EXPECT_EQ(kelma_test::ThrownText([&] { ICCProofProfile(model, o); }), "Invalid IlluminantIndex");

    const ZKCProfileConnection pcs(model, 0);
    const profile::ZKSDeviceAxis axis = profile::ModelDeviceAxis(model, 0, 17);
    std::vector<std::uint16_t> one;
    {
        kelma_test::ScopedCPUCount cpus(1);
        one = profile::DeviceToPCSTable(model, 0, pcs, {axis, axis, axis, axis}, 4);
    }
    kelma_test::ScopedCPUCount cpus(5);
    EXPECT_EQ(profile::DeviceToPCSTable(model, 0, pcs, {axis, axis, axis, axis}, 4), one);
}
