#include "kelma/modelbuilding/ChartImport.h"

#include <cmath>

#include "kelma/common/InkLevels.h"
#include "kelma/measurement/SpectralPlausibility.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ModelBuildingCommon.h"

namespace KELMA_NAMESPACE {

using modelbuilding::Fail;
using modelbuilding::InkName;
using modelbuilding::kBands;
using modelbuilding::Number;

ZKSModelChart ChartFromMeasurementFile(const ZKCMeasurementFile& file) {
    const ZKSMeasurementData& data = file.Data();
    if (data.ChannelCount() == 0) throw ZKCMeasurementError(data.file, "no device values");
    const AlignedBuffer<float> spectra = file.Resample(SPECTRALSAMPLING_LINEAR);
    ZKSModelChart chart;
    chart.numberOfInks = static_cast<unsigned int>(data.ChannelCount());
    chart.inkNames = data.channelNames;
    chart.deviceValues = data.deviceValues;
    for (std::size_t p = 0; p < data.PatchCount(); ++p)
        for (unsigned int w = 0; w < kBands; ++w) chart.spectra.push_back(spectra[p * kSpectrumStride + w]);
    return chart;
}

std::vector<unsigned char> ChartDigitalLevels(const ZKSModelChart& chart) {
    const unsigned int inks = chart.numberOfInks;
    if (inks != 4 && inks != 6 && inks != 7)
        Fail("models are built for 4, 6 or 7 inks, the chart has " + std::to_string(inks));
    if (!chart.inkNames.empty() && chart.inkNames.size() != inks)
        Fail("the chart names " + std::to_string(chart.inkNames.size()) + " inks but has " + std::to_string(inks));
    const std::size_t patches = chart.PatchCount();
    if (patches == 0 || chart.deviceValues.size() != patches * inks)
        Fail("the chart's device values are not " + std::to_string(inks) + " per patch");
    if (chart.spectra.size() != patches * kBands)
        Fail("the chart holds " + std::to_string(chart.spectra.size()) + " spectral values for " +
             std::to_string(patches) + " patches, expected 31 per patch");
    std::vector<unsigned char> levels(patches * inks);
    for (std::size_t p = 0; p < patches; ++p) {
        for (unsigned int i = 0; i < inks; ++i) {
            const double v = chart.deviceValues[p * inks + i];
            if (!(v >= 0.0 && v <= 100.0))
                Fail("patch " + std::to_string(p) + ": " + InkName(chart, i) + " value " + Number(v) +
                     " is not a percentage in [0, 100]");
            levels[p * inks + i] = static_cast<unsigned char>(DigitalLevel(v));
        }
    }
    // Reflectance factors, as every reader of measured spectra requires: a
    // huge value would overflow the fit's colorimetry (NaN fit error), percent
    // would fit a model of the wrong print.
    const ZKSValueProblem reflectance = FindReflectanceProblem(chart.spectra.data(), chart.spectra.size());
    if (reflectance.found)
        Fail("patch " + std::to_string(reflectance.index / kBands) + " at " +
             std::to_string(400 + 10 * (reflectance.index % kBands)) + " nm: " + reflectance.problem);
    return levels;
}

}  // namespace KELMA_NAMESPACE
