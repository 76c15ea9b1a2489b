// Builds a cellular Yule-Nielsen modified spectral Neugebauer printer model
// (the arrays ZKCSSE_KELMA_Data takes) from a measured characterisation chart
// of 4, 6 or 7 inks: device values per patch in percent and reflectance
// spectra on the library's 31-point grid.
//
// Grid. The caller names G grid levels per ink in percent (first 0, last 100);
// a percentage p becomes the digital level DigitalLevel(p) (40 % -> 102).
// Every node of the G^N grid must be measured by a training patch (duplicates
// are averaged); otherwise the build fails with a list of the missing ink
// combinations, unless missing nodes are to be estimated from a coarser model.
//
// Classic fit. Node spectra R raised to 1/n are the cells' corner values; each
// cell's coefficient block is their Moebius inversion. Each ink's effective
// ramp comes from its single-ink training patches (all other inks at 0): the
// local coordinate w of a patch inside its cell is the closed-form least-
// squares solution of R^(1/n) ~ (1-w) r_lower + w r_upper over the 31 bands,
// clamped to [0, 1], averaged per level, made non-decreasing per cell
// (isotonic regression) and joined with the nominal coverage level/255 at the
// grid levels by a monotone cubic over all 256 values. n minimises the mean
// CIEDE2000 of the training patches (scan, then golden section, to 1e-4).
//
// Refined fit. With ramps and n fixed the prediction in the Yule-Nielsen
// domain is linear in the node values, so the nodes are the linear least-
// squares solution over all training patches (one normal system for all 31
// bands). The local coordinates at every non-grid level that some training
// patch uses, and n, are then fitted by Levenberg-Marquardt on residuals whose
// squared norm approximates CIEDE2000 squared (the colour difference mapped
// through the local CIEDE2000 metric at the measured colour), re-solving the
// nodes at every evaluation. Levels no training patch uses are interpolated
// by the monotone cubic. Starts from the classic fit.
//
// Colorimetry of the fit: D50, CIE 1931 2 degree (the library's lighting
// matrix), CIELAB relative to the illuminant white (XYZToCIELAB), CIEDE2000
// (DeltaE2000).
//
// Positivity: every prediction is (weighted sum)^n with Demichel weights in
// [0, 1] summing to 1, i.e. a convex combination of node values; a node value
// <= 0 could give NaN. Measured reflectances below 1e-4 are raised to 1e-4
// before the 1/n power, and least-squares node values below 1e-4^(1/n) are
// raised to it (counted in ZKSBuiltModel::clampedNodeValues), so every sum
// the model can form is positive.
//
// Cost: the refined fit factors a (G^N x G^N) normal matrix at every
// evaluation, about (parameters + 1) evaluations per iteration. CMYK on 3
// levels (81 nodes) takes well under a second; 6 or 7 inks on 3 levels (729
// or 2187 nodes) are slow, use the classic fit or 2 levels there.
//
// Failures (a chart or option the builder cannot use) throw
// ZKCModelBuildingError with a message naming the problem. Build is const:
// one builder may run several builds at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/common/Types.h"
#include "kelma/evaluation/Statistics.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

class ZKCMeasurementFile;

class KELMA_API ZKCModelBuildingError : public std::runtime_error {
public:
    explicit ZKCModelBuildingError(const std::string& problem);
    ~ZKCModelBuildingError() override;
};

// A measured chart. Per-patch arrays are patch-major.
struct KELMA_API ZKSModelChart {
    unsigned int numberOfInks = 0;
    // Names for messages (e.g. CMYK_C); empty -> "ink 1", "ink 2", ...
    std::vector<std::string> inkNames;
    // Device values in percent, 0-100, numberOfInks per patch.
    std::vector<double> deviceValues;
    // Reflectance factors on 400-700 nm / 10 nm, 31 per patch.
    std::vector<double> spectra;

    std::size_t PatchCount() const { return numberOfInks == 0 ? 0 : deviceValues.size() / numberOfInks; }
};

// The chart of a measurement file: every device channel is an ink, its
// values taken as percent (as CMYK_ and nCLR_ columns are written); spectra
// resampled onto the 31-point grid by linear interpolation (the file's own
// bands where they coincide). Throws ZKCMeasurementError for a file without
// spectra or device values.
KELMA_API ZKSModelChart ChartFromMeasurementFile(const ZKCMeasurementFile& file);

enum MODELFIT_METHOD : std::uint32_t {
    MODELFIT_CLASSIC = 0,
    MODELFIT_REFINED = 1,
};

struct KELMA_API ZKSModelBuildOptions {
    // G levels in percent, used for every ink...
    std::vector<double> gridPercent;
    // ...unless per-ink levels are given: N x G, ink-major.
    std::vector<double> perInkGridPercent;
    MODELFIT_METHOD method = MODELFIT_REFINED;
    // Patches the model is fitted to (indices into the chart); empty = all.
    std::vector<std::size_t> trainingPatches;
    // n > 0: use this n (classic fit: no search; refined fit: start value,
    // still fitted unless fitN is false). 0: search n in [nMin, nMax].
    double fixedN = 0.0;
    bool fitN = true;
    double nMin = 1.0;
    double nMax = 10.0;
    // Missing grid nodes: predicted by a classic model on coarseGridPercent
    // (levels for every ink; empty = {0, 100}) fitted to the same
    // training patches, instead of failing.
    bool estimateMissingNodes = false;
    std::vector<double> coarseGridPercent;
    // Levenberg-Marquardt iterations of the refined fit.
    unsigned int maxIterations = 100;
};

// The arrays of one model in the layouts of ZKCSSE_KELMA_Data, in double
// (as fitted) and float (as the prediction kernels read them).
struct KELMA_API ZKSPrinterModelArrays {
    unsigned int numberOfInks = 0;
    unsigned int numberOfGridPoints = 0;
    std::vector<double> gridPoints;      // N x G whole digital levels
    std::vector<double> effectiveRamps;  // N x 256, non-decreasing per ink
    std::vector<double> matrixScheme;    // 31 x (G-1)^N x 2^N
    double n = 1.0;
    std::vector<float> gridPointsF;
    std::vector<float> effectiveRampsF;
    std::vector<float> matrixSchemeF;

    // Fills the float arrays from the double ones.
    void UpdateFloatArrays();
    // The library model from the float arrays and float n.
    ZKCSSE_KELMA_Data Model(const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, bool isMediaRelative = false,
                            bool printAbsolutColorimetric = false) const;
    // Same under D50 / 2 degree.
    ZKCSSE_KELMA_Data Model(INK_SET inkSet = INK_SET_SEVEN_INKS) const;
};

// An honest two-fold split of a chart for validation: the grid patches (every
// ink on a grid level) train both folds; the other patches are grouped by
// recipe (equal digital levels, so duplicates never straddle the split) and
// the recipes go alternately, in order of first appearance, to half 0 and 1.
// Fold f trains on gridPatches + half[f] and tests on half[1 - f].
struct KELMA_API ZKSValidationSplit {
    std::vector<std::size_t> gridPatches;
    std::vector<std::size_t> half[2];
    std::vector<std::size_t> Training(unsigned int fold) const;
};

struct KELMA_API ZKSBuiltModel {
    ZKSPrinterModelArrays model;
    MODELFIT_METHOD method = MODELFIT_CLASSIC;
    // Training patches (sorted, distinct) and, among them, those that gave
    // node spectra and the single-ink patches that gave the classic ramps.
    std::vector<std::size_t> trainingPatches;
    std::vector<std::size_t> nodePatches;
    std::vector<std::size_t> rampPatches;
    // Node indices (sum_i g_i G^i) whose spectra were estimated.
    std::vector<std::size_t> estimatedNodes;
    // CIEDE2000 of each training patch (same order as trainingPatches) as the
    // library's prediction driver predicts it, and their summary.
    std::vector<double> trainingDeltaE;
    ZKSStatistics fitError;
    // n-search evaluations (classic) or Levenberg-Marquardt iterations (refined).
    unsigned int iterations = 0;
    unsigned int clampedNodeValues = 0;
};

class KELMA_API ZKCModelBuilder {
public:
    // Checks the chart (4, 6 or 7 inks, device values finite in [0, 100],
    // spectra finite, 31 per patch) and keeps a copy.
    explicit ZKCModelBuilder(const ZKSModelChart& chart);
    virtual ~ZKCModelBuilder();

    ZKSBuiltModel Build(const ZKSModelBuildOptions& options) const;

    const ZKSModelChart& Chart() const { return chart_; }
    // Digital level of every (patch, ink), patch-major.
    const std::vector<unsigned char>& DigitalLevels() const { return levels_; }
    // The split above for grid levels `gridPercent` (every ink).
    ZKSValidationSplit ValidationSplit(const std::vector<double>& gridPercent) const;

private:
    ZKSModelChart chart_;
    std::vector<unsigned char> levels_;
};

// CIEDE2000 (D50 / 2 degree) between the chart's measured spectra and the
// library's prediction of the float model at the patches' digital levels, in
// the given order: ModelDeltaE2000 of the model built from these arrays. A NaN
// prediction gives a NaN difference. Throws ZKCModelBuildingError for a patch
// index outside the chart.
KELMA_API std::vector<double> PredictionDeltaE00(const ZKSPrinterModelArrays& model, const ZKSModelChart& chart,
                                                 const std::vector<std::size_t>& patches);

}  // namespace KELMA_NAMESPACE
