// The embedded default model: the same numbers as the shipped model file,
// accurate on the chart it was fitted to, and not stale (a fresh fit of the
// chart predicts the same colours).
#include <gtest/gtest.h>

#include <lcms2.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kelma/common/InkLevels.h"
#include "kelma/kelma.h"

using namespace kelma;

namespace {

const std::string kData = KELMA_TEST_DATA_DIR;

// The text model file: keywords, then values.
ZKSPrinterModelArrays ReadModelFile(const std::string& path) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    ZKSPrinterModelArrays m;
    std::string line, section;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string first;
        fields >> first;
        if (first == "INKS") {
            fields >> m.numberOfInks;
        } else if (first == "GRID_POINTS") {
            fields >> m.numberOfGridPoints;
        } else if (first == "N") {
            fields >> m.n;
        } else if (first == "GRID_LEVELS" || first == "EFFECTIVE_RAMPS" || first == "MATRIX_SCHEME") {
            section = first;
        } else {
            std::vector<double>& target = section == "GRID_LEVELS"       ? m.gridPoints
                                          : section == "EFFECTIVE_RAMPS" ? m.effectiveRamps
                                                                         : m.matrixScheme;
            std::istringstream values(line);
            double v;
            while (values >> v) target.push_back(v);
        }
    }
    return m;
}

ZKSModelChart PressChart() {
    const ZKCMeasurementFile file(kData + "/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt");
    return ChartFromMeasurementFile(file);
}

std::vector<std::size_t> AllPatches(const ZKSModelChart& chart) {
    std::vector<std::size_t> all(chart.PatchCount());
    for (std::size_t p = 0; p < all.size(); ++p) all[p] = p;
    return all;
}

}  // namespace

TEST(DefaultPressModel, EmbeddedArraysAreTheShippedModelFile) {
    const ZKSPrinterModelArrays embedded = DefaultPressModelArrays();
    const ZKSPrinterModelArrays file = ReadModelFile(kData + "/models/aptec_pc10_cmyk.txt");
    EXPECT_EQ(embedded.numberOfInks, 4u);
    EXPECT_EQ(embedded.numberOfGridPoints, 3u);
    EXPECT_EQ(file.numberOfInks, 4u);
    EXPECT_EQ(file.numberOfGridPoints, 3u);
    EXPECT_EQ(embedded.n, file.n);
    EXPECT_EQ(embedded.gridPoints, file.gridPoints);
    EXPECT_EQ(embedded.effectiveRamps, file.effectiveRamps);
    EXPECT_EQ(embedded.matrixScheme, file.matrixScheme);
    EXPECT_EQ(embedded.gridPoints, (std::vector<double>{0, 102, 255, 0, 102, 255, 0, 102, 255, 0, 102, 255}));
    EXPECT_EQ(embedded.matrixScheme.size(), 31u * 16u * 16u);
    EXPECT_EQ(embedded.matrixSchemeF.size(), embedded.matrixScheme.size());
    for (unsigned int i = 0; i < 4; ++i) {
        // Nominal coverage at the grid levels, monotone in between.
        EXPECT_EQ(embedded.effectiveRamps[i * 256 + 0], 0.0);
        EXPECT_EQ(embedded.effectiveRamps[i * 256 + 102], 0.4);
        EXPECT_EQ(embedded.effectiveRamps[i * 256 + 255], 1.0);
        for (unsigned int t = 1; t < 256; ++t)
            EXPECT_GE(embedded.effectiveRamps[i * 256 + t], embedded.effectiveRamps[i * 256 + t - 1]);
    }
}

TEST(DefaultPressModel, PredictsItsChartAndPaper) {
    const ZKSModelChart chart = PressChart();
    const ZKSStatistics fit =
        Summarize(PredictionDeltaE00(DefaultPressModelArrays(), chart, AllPatches(chart)));
    std::printf("    embedded model on its 1617 patches: mean %.3f p95 %.3f max %.3f\n", fit.mean, fit.p95, fit.max);
    EXPECT_LE(fit.mean, 0.25);
    EXPECT_LE(fit.p95, 0.55);

    // The model object: CMYK ink set, media white = predicted paper, whose
    // CIELAB is the measured paper's (patch with all inks at 0).
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    EXPECT_EQ(model.NumberOfInks(), 4u);
    EXPECT_EQ(model.Total_InkSet(), INK_SET_CMYK);
    EXPECT_FALSE(model.IsMediaRelative());
    std::size_t paper = chart.PatchCount();
    for (std::size_t p = 0; p < chart.PatchCount() && paper == chart.PatchCount(); ++p)
        if (chart.deviceValues[p * 4] == 0 && chart.deviceValues[p * 4 + 1] == 0 &&
            chart.deviceValues[p * 4 + 2] == 0 && chart.deviceValues[p * 4 + 3] == 0)
            paper = p;
    ASSERT_LT(paper, chart.PatchCount());
    AlignedBuffer<float> spectrum(32);
    for (unsigned int w = 0; w < 31; ++w) spectrum[w] = static_cast<float>(chart.spectra[paper * 31 + w]);
    std::vector<float> xyz(3);
    model.Lighting_Matrix().CalculateCIEXYZ(xyz.data(), spectrum.data(), 1, nullptr);
    const ZKCWhitePoint white(model.Lighting_Matrix());
    const cmsCIEXYZ w = {white.Values()[0], white.Values()[1], white.Values()[2]};
    const cmsCIEXYZ measured = {xyz[0], xyz[1], xyz[2]};
    const std::vector<float>& media = model.MediaWhitePoint().Values();
    const cmsCIEXYZ predicted = {media[0], media[1], media[2]};
    cmsCIELab a, b;
    cmsXYZ2Lab(&w, &a, &measured);
    cmsXYZ2Lab(&w, &b, &predicted);
    EXPECT_LT(cmsCIE2000DeltaE(&a, &b, 1, 1, 1), 0.3);
    EXPECT_GT(a.L, 90.0);
}

TEST(DefaultPressModel, IsWhatTheToolFitsToday) {
    // A stale embedded model (chart, grid or fitting changed without
    // regenerating) predicts differently from a fresh fit.
    const ZKSModelChart chart = PressChart();
    ZKSModelBuildOptions options;
    options.gridPercent = {0.0, 40.0, 100.0};
    options.method = MODELFIT_REFINED;
    const ZKSBuiltModel fresh = ZKCModelBuilder(chart).Build(options);
    const ZKSPrinterModelArrays embedded = DefaultPressModelArrays();
    EXPECT_NEAR(fresh.model.n, embedded.n, 1e-3);
    // Compare the two models' predictions as colours over the chart's recipes.
    const ZKCLighting_Matrix matrix = DefaultPressModel().Lighting_Matrix();
    const ZKCSSE_KELMA_Data a = fresh.model.Model(matrix, INK_SET_CMYK);
    const ZKCSSE_KELMA_Data b = embedded.Model(matrix, INK_SET_CMYK);
    const unsigned int count = static_cast<unsigned int>(chart.PatchCount());
    std::vector<unsigned char> samples;
    for (double v : chart.deviceValues) samples.push_back(static_cast<unsigned char>(DigitalLevel(v)));
    AlignedBuffer<float> sa(std::size_t{count} * 32), sb(std::size_t{count} * 32);
    {
        ZKCSSE_KELMA_Thread ta(a, count, samples.data(), sa.data());
        ZKCSSE_KELMA_Thread tb(b, count, samples.data(), sb.data());
        ta.Wait();
        tb.Wait();
    }
    std::vector<float> xa(3 * count), xb(3 * count);
    matrix.CalculateCIEXYZ(xa.data(), sa.data(), count, nullptr);
    matrix.CalculateCIEXYZ(xb.data(), sb.data(), count, nullptr);
    const ZKCWhitePoint white(matrix);
    const cmsCIEXYZ w = {white.Values()[0], white.Values()[1], white.Values()[2]};
    double worst = 0.0;
    for (unsigned int s = 0; s < count; ++s) {
        const cmsCIEXYZ pa = {xa[3 * s], xa[3 * s + 1], xa[3 * s + 2]};
        const cmsCIEXYZ pb = {xb[3 * s], xb[3 * s + 1], xb[3 * s + 2]};
        cmsCIELab la, lb;
        cmsXYZ2Lab(&w, &la, &pa);
        cmsXYZ2Lab(&w, &lb, &pb);
        worst = std::max(worst, cmsCIE2000DeltaE(&la, &lb, 1, 1, 1));
    }
    EXPECT_LT(worst, 0.01);
}
