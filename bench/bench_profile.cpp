// ICC output profiles (kelma/profile): build time and accuracy.
//
//   build/bench/bench_profile [--quick]
//
// Prints a report:
//  1. Build time of the press model's profile with 33-point tables (ICC v4):
//     the complete output profile (ICCOutputProfile), the device-to-PCS half
//     alone (ICCProofProfile), and the colour-to-device and gamut tables
//     alone (the separation's share); wall time on all processors, median of
//     3 (--quick: one). The same for a generated press-like 7-ink model.
//  2. Held-out accuracy of the profile itself: for each fold of the library's
//     validation split of the APTEC PC10 chart (ZKCModelBuilder::
//     ValidationSplit on the grid 0, 40, 100 %), a refined model fitted to
//     the fold's training patches, its 33-point profile, and the held-out
//     patches looked up through Little CMS's A2B (absolute colorimetric, so
//     that the colours are the model's own: CIELAB against the illuminant's
//     white, which for D50 is what the absolute PCS colour is). CIEDE2000
//     against the measurements, beside the model's own (ModelDeltaE2000) on
//     the same patches, and between the two.
//  3. The profile against its model over the whole chart (relative
//     colorimetric A2B against PredictColorimetry in the PCS), and the
//     in-gamut round trip on the device grid 0, 10, ..., 100 % within the
//     limits: the model's colours through B2A then A2B (Little CMS, 16-bit
//     inks between), and through B2A to 8-bit inks printed by the model.
#include <lcms2.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kelma/kelma.h"
#include "kelma/profile/ProfileTables.h"
#include "tests/profile/LittleCMSTestSupport.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

using Clock = std::chrono::steady_clock;

// The chart next to the sources.
std::string ChartPath() {
    const std::string here = __FILE__;
    return here.substr(0, here.find_last_of('/')) + "/../data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double Time(const std::function<void()>& f, int runs) {
    std::vector<double> t;
    for (int r = 0; r < runs; ++r) {
        const auto a = Clock::now();
        f();
        t.push_back(std::chrono::duration<double>(Clock::now() - a).count());
    }
    return Median(t);
}

void Print(const char* what, const std::vector<double>& v) {
    const ZKSStatistics s = Summarize(v);
    std::printf("  %-62s n %5zu  mean %.4f  p95 %.4f  max %.4f\n", what, s.count, s.mean, s.p95, s.max);
}

ZKSICCProfileOptions Options() {
    ZKSICCProfileOptions o;
    o.separation.SetColorantCoverage(300);
    o.separation.SetMaxBlack(95);
    o.separation.SetGCR(50);
    return o;
}

void BuildTimes(const char* name, const ZKCSSE_KELMA_Data& model, int runs) {
    const ZKSICCProfileOptions o = Options();
    std::size_t bytes = 0;
    const double all = Time([&] { bytes = ICCOutputProfile(model, o).size(); }, runs);
    const double a2b = Time([&] { ICCProofProfile(model, o); }, runs);
    const double b2a = Time(
        [&] {
            const ZKCSeparation sep(model, o.separation, 0, true);
            const ZKCProfileConnection pcs(model, 0);
            profile::ColourToDeviceTables(sep, pcs, o.gridPoints, o.iccVersion);
        },
        runs);
    std::printf("  %-14s output profile %.2f s (%.1f MB; A2B %u points per ink): device-to-PCS half %.2f s, "
                "colour-to-device and gamut tables %.2f s\n",
                name, all, bytes / 1e6, DeviceTableGridPoints(model.NumberOfInks(), o), a2b, b2a);
}

// Held-out patches through a profile's A2B (absolute colorimetric): CIELAB
// against D50 of the adapted colour; and the measured colour the same way.
void HeldOut() {
    const ZKCMeasurementFile file(ChartPath());
    const ZKSModelChart chart = ChartFromMeasurementFile(file);
    const ZKCModelBuilder builder(chart);
    const std::vector<double> grid = {0, 40, 100};
    const ZKSValidationSplit split = builder.ValidationSplit(grid);
    std::vector<double> model, viaProfile, between;
    for (unsigned int fold = 0; fold < 2; ++fold) {
        ZKSModelBuildOptions options;
        options.gridPercent = grid;
        options.trainingPatches = split.Training(fold);
        const ZKSBuiltModel built = builder.Build(options);
        const ZKCSSE_KELMA_Data m = built.model.Model(INK_SET_CMYK);
        const std::vector<std::size_t>& test = split.half[1 - fold];
        const std::vector<double> own = ModelDeltaE2000(m, chart, test);
        model.insert(model.end(), own.begin(), own.end());

        const kelma_test::Profile profile = kelma_test::OpenProfile(ICCProofProfile(m, Options()));
        const std::size_t count = test.size();
        std::vector<unsigned char> inks(count * 4);
        AlignedBuffer<float> spectra(count * kSpectrumStride);
        for (std::size_t s = 0; s < count; ++s) {
            for (unsigned int i = 0; i < 4; ++i)
                inks[s * 4 + i] = static_cast<unsigned char>(DigitalLevel(chart.deviceValues[test[s] * 4 + i]));
            for (unsigned int w = 0; w < kSpectralValues; ++w)
                spectra[s * kSpectrumStride + w] = static_cast<float>(chart.spectra[test[s] * kSpectralValues + w]);
            spectra[s * kSpectrumStride + kSpectralValues] = 0.0f;
        }
        const std::vector<double> looked =
            kelma_test::DeviceToLab(profile.get(), inks.data(), count, INTENT_ABSOLUTE_COLORIMETRIC);
        const ZKCProfileConnection pcs(m, 0);
        std::vector<float> xyz(3 * count);
        m.Lighting_Matrix().CalculateCIEXYZ(xyz.data(), spectra.data(), static_cast<unsigned int>(count), nullptr);
        std::vector<double> predicted(3 * count);
        PredictColorimetry(m, count, inks.data(), 0, false, nullptr, predicted.data());
        for (std::size_t s = 0; s < count; ++s) {
            const double* M = pcs.Adaptation();
            double adapted[3], measured[3];
            for (int r = 0; r < 3; ++r)
                adapted[r] = M[3 * r] * xyz[3 * s] + M[3 * r + 1] * xyz[3 * s + 1] + M[3 * r + 2] * xyz[3 * s + 2];
            XYZToCIELAB(adapted, ZKCProfileConnection::PCSWhite(), measured);
            viaProfile.push_back(DeltaE2000(&looked[3 * s], measured));
            between.push_back(DeltaE2000(&looked[3 * s], &predicted[3 * s]));
        }
    }
    std::printf("  held-out patches of both folds (model fitted to the other half and the grid patches):\n");
    Print("model (ModelDeltaE2000) vs measured", model);
    Print("profile A2B, 33 points (Little CMS, absolute) vs measured", viaProfile);
    Print("profile A2B vs the model", between);
}

void AgainstModel(const ZKCSSE_KELMA_Data& model) {
    const ZKCMeasurementFile file(ChartPath());
    const ZKSModelChart chart = ChartFromMeasurementFile(file);
    const std::vector<unsigned char> levels = ChartDigitalLevels(chart);
    const std::size_t count = chart.PatchCount();
    const ZKSICCProfileOptions o = Options();
    const kelma_test::Profile profile = kelma_test::OpenProfile(ICCOutputProfile(model, o));
    const std::vector<double> lab =
        kelma_test::DeviceToLab(profile.get(), levels.data(), count, INTENT_RELATIVE_COLORIMETRIC);
    std::vector<double> xyz(3 * count), expected(3 * count), dE(count);
    PredictColorimetry(model, count, levels.data(), 0, false, xyz.data(), nullptr);
    const ZKCProfileConnection pcs(model, 0);
    pcs.XYZToPCSLab(xyz.data(), expected.data(), count);
    DeltaE2000(lab.data(), expected.data(), dE.data(), count);
    Print("A2B vs the model, every chart patch (relative)", dE);

    // The device grid 0, 10, ..., 100 % within the limits.
    const ZKCSeparation sep(model, o.separation, 0, true);
    std::vector<unsigned char> inks;
    for (unsigned int c = 0; c <= 10; ++c)
        for (unsigned int m = 0; m <= 10; ++m)
            for (unsigned int y = 0; y <= 10; ++y)
                for (unsigned int k = 0; k <= 10; ++k) {
                    const unsigned char v[4] = {static_cast<unsigned char>(DigitalLevel(10.0 * c)),
                                                static_cast<unsigned char>(DigitalLevel(10.0 * m)),
                                                static_cast<unsigned char>(DigitalLevel(10.0 * y)),
                                                static_cast<unsigned char>(DigitalLevel(10.0 * k))};
                    if (unsigned(v[0]) + v[1] + v[2] + v[3] <= sep.TotalLimit() && v[3] <= sep.BlackLimit())
                        inks.insert(inks.end(), v, v + 4);
                }
    const std::size_t n = inks.size() / 4;
    std::vector<double> gx(3 * n), targets(3 * n), back(3 * n), d(n);
    PredictColorimetry(model, n, inks.data(), 0, false, gx.data(), nullptr);
    pcs.XYZToPCSLab(gx.data(), targets.data(), n);

    // B2A then A2B, both through Little CMS with 16-bit inks between them.
    kelma_test::Profile labProfile(cmsCreateLab4Profile(nullptr));
    kelma_test::Transform toDevice(cmsCreateTransform(labProfile.get(), TYPE_Lab_DBL, profile.get(), TYPE_CMYK_16,
                                                      INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOOPTIMIZE));
    kelma_test::Transform toLab(cmsCreateTransform(profile.get(), TYPE_CMYK_16, labProfile.get(), TYPE_Lab_DBL,
                                                   INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOOPTIMIZE));
    if (!toDevice || !toLab) {
        std::printf("  Little CMS cannot make transforms of the profile\n");
        return;
    }
    std::vector<std::uint16_t> device16(4 * n);
    cmsDoTransform(toDevice.get(), targets.data(), device16.data(), static_cast<cmsUInt32Number>(n));
    cmsDoTransform(toLab.get(), device16.data(), back.data(), static_cast<cmsUInt32Number>(n));
    DeltaE2000(targets.data(), back.data(), d.data(), n);
    Print("B2A then A2B (Little CMS, 16-bit inks): in-gamut device grid", d);

    const std::vector<unsigned char> device =
        kelma_test::LabToDevice(profile.get(), targets.data(), n, INTENT_RELATIVE_COLORIMETRIC);
    std::vector<double> px(3 * n);
    PredictColorimetry(model, n, device.data(), 0, false, px.data(), nullptr);
    pcs.XYZToPCSLab(px.data(), back.data(), n);
    DeltaE2000(targets.data(), back.data(), d.data(), n);
    Print("B2A to 8-bit inks, printed: in-gamut device grid", d);
}

}  // namespace

int main(int argc, char** argv) {
    if (!kelma_test::CapKernelVariantFromEnvironment()) return 2;
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const int runs = quick ? 1 : 3;
    std::printf("kelma ICC profile benchmark: %u worker threads, 33-point tables, ICC v4, TAC 300 %%, max black "
                "95 %%, GCR 50, D50 2 deg\n\n",
                CPUCount());
    std::printf("== build time (median of %d)\n", runs);
    const ZKCSSE_KELMA_Data press = DefaultPressModel();
    BuildTimes("press CMYK", press, runs);
    const ZKCSSE_KELMA_Data seven = kelma_test::MakePressLikeModel(7, 3, 2.0).Build();
    BuildTimes("7-ink", seven, quick ? 1 : runs);
    std::printf("\n== held-out accuracy of the profile (APTEC PC10, grid 0, 40, 100 %%, refined fit)\n");
    HeldOut();
    std::printf("\n== the profile against its model (embedded press model)\n");
    AgainstModel(press);
    return 0;
}
