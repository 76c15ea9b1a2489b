// The full APTEC PC10 chart through reader, resampler and lighting matrix,
// against the chart's own CIELAB (D50, 2 degree), by CIEDE2000.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/measurement/ZKCMeasurementFile.h"

using namespace kelma;

namespace {

const std::string kChartDir = std::string(KELMA_TEST_DATA_DIR) + "/aptec_pc10/";

struct DeltaE00Summary {
    double mean = 0.0;
    double max = 0.0;
    std::string worstId;
};

// CIELAB of each resampled spectrum under D50 / 2 degree, relative to the
// matrix's own white (CIE 1976 formula in double, by Little CMS), and CIEDE2000
// against the chart's L*a*b* values.
DeltaE00Summary CompareWithChartLab(const ZKSMeasurementData& spectral, const AlignedBuffer<float>& resampled,
                                    const ZKSMeasurementData& lab) {
    ZKCIlluminant_CIED50 d50;
    ZKCLighting_Matrix matrix(ZKCObserver(OBSERVER_CIE1931_2), &d50);
    const unsigned int count = static_cast<unsigned int>(spectral.PatchCount());
    std::vector<float> xyz(3 * count);
    matrix.CalculateCIEXYZ(xyz.data(), resampled.data(), count, nullptr);
    const ZKCWhitePoint whitePoint(matrix);
    const std::vector<float>& w = whitePoint.Values();
    cmsCIEXYZ white = {w[0], w[1], w[2]};

    DeltaE00Summary summary;
    for (unsigned int s = 0; s < count; ++s) {
        cmsCIEXYZ sample = {xyz[3 * s], xyz[3 * s + 1], xyz[3 * s + 2]};
        cmsCIELab ours, theirs = {lab.lab[3 * s], lab.lab[3 * s + 1], lab.lab[3 * s + 2]};
        cmsXYZ2Lab(&white, &ours, &sample);
        double de = cmsCIE2000DeltaE(&ours, &theirs, 1.0, 1.0, 1.0);
        summary.mean += de;
        if (de > summary.max) {
            summary.max = de;
            summary.worstId = spectral.sampleIds[s];
        }
    }
    summary.mean /= count;
    return summary;
}

}  // namespace

TEST(ApTecPc10Chart, ResampledSpectraReproduceTheChartLab) {
    ZKCMeasurementFile spectralFile(kChartDir + "APTEC_PC10_CardBoard_2023_v1_Spectral.txt",
                                    MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
    ZKCMeasurementFile labFile(kChartDir + "APTEC_PC10_CardBoard_2023_v1.txt",
                               MEASUREMENT_CONTENT_LAB | MEASUREMENT_CONTENT_DEVICE);
    const ZKSMeasurementData& spectral = spectralFile.Data();
    const ZKSMeasurementData& lab = labFile.Data();

    ASSERT_EQ(spectral.PatchCount(), 1617u);
    ASSERT_EQ(spectral.BandCount(), 36u);
    EXPECT_EQ(spectral.wavelengths.front(), 380.0);
    EXPECT_EQ(spectral.wavelengths.back(), 730.0);
    EXPECT_EQ(spectral.channelNames, (std::vector<std::string>{"CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"}));
    // The two files describe the same patches in the same order.
    ASSERT_EQ(lab.PatchCount(), spectral.PatchCount());
    EXPECT_EQ(lab.sampleIds, spectral.sampleIds);
    EXPECT_EQ(lab.deviceValues, spectral.deviceValues);

    AlignedBuffer<float> resampled = spectralFile.Resample(SPECTRALSAMPLING_LINEAR);
    // The grid wavelengths are knots of the chart's list: the values come back.
    for (std::size_t s = 0; s < spectral.PatchCount(); ++s) {
        for (unsigned int i = 0; i < kSpectralValues; ++i)
            ASSERT_NEAR(resampled[s * kSpectrumStride + i], spectral.spectra[s * 36 + i + 2], 6e-8) << s;
        ASSERT_EQ(resampled[s * kSpectrumStride + 31], 0.0f);
    }

    DeltaE00Summary de = CompareWithChartLab(spectral, resampled, lab);
    std::printf("PC10 chart, %zu patches: dE00 mean %.4f, max %.4f (sample %s)\n", spectral.PatchCount(), de.mean,
                de.max, de.worstId.c_str());
    RecordProperty("dE00_mean", std::to_string(de.mean));
    RecordProperty("dE00_max", std::to_string(de.max));
    // Observed: mean 0.068, max 0.229 (an orange, M70 Y100). The gap comes from
    // the library's colorimetry (observer rounded to two decimals, 400-700 nm
    // only), not from reading or resampling, which are exact at the knots.
    EXPECT_LT(de.mean, 0.08);
    EXPECT_LT(de.max, 0.26);
}
