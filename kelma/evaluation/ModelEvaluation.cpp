#include "kelma/evaluation/ModelEvaluation.h"

#include <numeric>
#include <string>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/InkLevels.h"
#include "kelma/modelbuilding/ChartImport.h"
#include "kelma/prediction/PredictColorimetry.h"

namespace KELMA_NAMESPACE {

namespace {

constexpr unsigned int kBlackInk = 3;

std::vector<std::size_t> AllPatches(const ZKSModelChart& chart, const std::vector<std::size_t>& patches) {
    if (!patches.empty()) return patches;
    std::vector<std::size_t> all(chart.PatchCount());
    std::iota(all.begin(), all.end(), std::size_t{0});
    return all;
}

}  // namespace

std::vector<double> ModelDeltaE2000(const ZKCSSE_KELMA_Data& model, const ZKSModelChart& chart,
                                    const std::vector<std::size_t>& patches, unsigned int illuminant) {
    const unsigned int inks = chart.numberOfInks;
    if (inks != model.NumberOfInks())
        throw ZKCModelBuildingError("the chart has " + std::to_string(inks) + " inks and the model " +
                                    std::to_string(model.NumberOfInks()));
    // The chart's levels by the check every model building applies: device
    // values in [0, 100] percent and plausible reflectance spectra.
    const std::vector<unsigned char> levels = ChartDigitalLevels(chart);
    const std::size_t count = patches.size();
    std::vector<unsigned char> samples(count * inks);
    AlignedBuffer<float> measured(count * kSpectrumStride);
    for (std::size_t s = 0; s < count; ++s) {
        const std::size_t p = patches[s];
        if (p >= chart.PatchCount())
            throw ZKCModelBuildingError("patch " + std::to_string(p) + " is outside the chart of " +
                                        std::to_string(chart.PatchCount()) + " patches");
        for (unsigned int i = 0; i < inks; ++i)
            samples[s * inks + i] = levels[p * inks + i];
        for (unsigned int w = 0; w < kSpectralValues; ++w)
            measured[s * kSpectrumStride + w] = static_cast<float>(chart.spectra[p * kSpectralValues + w]);
        measured[s * kSpectrumStride + kSpectralValues] = 0.0f;
    }
    std::vector<double> predictedLab(3 * count);
    PredictColorimetry(model, count, samples.data(), illuminant, false, nullptr, predictedLab.data());

    ZKCLighting_Matrix matrix;
    model.Lighting_Matrix().ExtractSingleIlluminant_Lighting_Matrix(matrix, illuminant);
    const std::vector<float> w = ZKCWhitePoint(matrix).Values();
    const double white[3] = {w[0], w[1], w[2]};
    std::vector<float> xyz(3 * count);
    matrix.CalculateCIEXYZ(xyz.data(), measured.data(), static_cast<unsigned int>(count), nullptr);
    std::vector<double> deltaE(count);
    for (std::size_t s = 0; s < count; ++s) {
        const double v[3] = {xyz[3 * s], xyz[3 * s + 1], xyz[3 * s + 2]};
        double lab[3];
        XYZToCIELAB(v, white, lab);
        deltaE[s] = DeltaE2000(lab, &predictedLab[3 * s]);
    }
    return deltaE;
}

ZKSModelEvaluation EvaluateModel(const ZKCSSE_KELMA_Data& model, const ZKSModelChart& chart,
                                 const std::vector<std::size_t>& patches, unsigned int illuminant) {
    ZKSModelEvaluation e;
    e.patches = AllPatches(chart, patches);
    e.deltaE = ModelDeltaE2000(model, chart, e.patches, illuminant);
    const unsigned int inks = chart.numberOfInks;
    std::vector<double> zero, positive;
    for (std::size_t s = 0; s < e.patches.size(); ++s) {
        const bool black = inks > kBlackInk && DigitalLevel(chart.deviceValues[e.patches[s] * inks + kBlackInk]) > 0;
        (black ? positive : zero).push_back(e.deltaE[s]);
    }
    e.all = Summarize(e.deltaE);
    e.blackZero = Summarize(zero);
    e.blackPositive = Summarize(positive);
    return e;
}

}  // namespace KELMA_NAMESPACE
