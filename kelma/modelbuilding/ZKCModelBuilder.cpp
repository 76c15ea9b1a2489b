#include "kelma/modelbuilding/ZKCModelBuilder.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/common/InkLevels.h"
#include "kelma/evaluation/ModelEvaluation.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ModelBuildingMath.h"
#include "kelma/modelbuilding/YuleNielsenFit.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

using namespace modelbuilding;

ZKCModelBuildingError::ZKCModelBuildingError(const std::string& problem) : std::runtime_error(problem) {}
ZKCModelBuildingError::~ZKCModelBuildingError() = default;

namespace {

[[noreturn]] void Fail(const std::string& problem) { throw ZKCModelBuildingError(problem); }

std::string Number(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

std::string InkName(const ZKSModelChart& chart, unsigned int ink) {
    if (ink < chart.inkNames.size()) return chart.inkNames[ink];
    return "ink " + std::to_string(ink + 1);
}

ZKCLighting_Matrix D50Matrix() {
    ZKCIlluminant_CIED50 d50;
    return ZKCLighting_Matrix(ZKCObserver(OBSERVER_CIE1931_2), &d50);
}

// Per-ink grid levels in percent and as digital levels.
struct ResolvedGrid {
    unsigned int points = 0;
    std::vector<double> percent;       // N x G
    std::vector<unsigned int> levels;  // N x G
};

ResolvedGrid ResolveGrid(const ZKSModelChart& chart, const std::vector<double>& shared,
                         const std::vector<double>& perInk, const char* what) {
    const unsigned int inks = chart.numberOfInks;
    ResolvedGrid grid;
    if (!perInk.empty()) {
        if (perInk.size() % inks != 0)
            Fail(std::string(what) + " per ink holds " + std::to_string(perInk.size()) +
                 " values, not a multiple of the " + std::to_string(inks) + " inks");
        grid.points = static_cast<unsigned int>(perInk.size() / inks);
        grid.percent = perInk;
    } else {
        grid.points = static_cast<unsigned int>(shared.size());
        for (unsigned int i = 0; i < inks; ++i) grid.percent.insert(grid.percent.end(), shared.begin(), shared.end());
    }
    if (grid.points < 2)
        Fail(std::string(what) + " needs at least 2 levels per ink (0 and 100 %), got " + std::to_string(grid.points));
    for (unsigned int i = 0; i < inks; ++i) {
        const double* p = &grid.percent[i * grid.points];
        for (unsigned int g = 0; g < grid.points; ++g)
            if (!(p[g] >= 0.0 && p[g] <= 100.0))
                Fail(std::string(what) + " of " + InkName(chart, i) + ": level " + Number(p[g]) +
                     " is not a percentage in [0, 100]");
        if (p[0] != 0.0 || p[grid.points - 1] != 100.0)
            Fail(std::string(what) + " of " + InkName(chart, i) + " must start at 0 % and end at 100 % (got " +
                 Number(p[0]) + " % ... " + Number(p[grid.points - 1]) + " %)");
        for (unsigned int g = 0; g < grid.points; ++g) {
            grid.levels.push_back(DigitalLevel(p[g]));
            if (g > 0 && grid.levels.back() <= grid.levels[grid.levels.size() - 2])
                Fail(std::string(what) + " of " + InkName(chart, i) + ": levels " + Number(p[g - 1]) + " % and " +
                     Number(p[g]) + " % are not strictly ascending as digital levels (" +
                     std::to_string(grid.levels[grid.levels.size() - 2]) + ", " +
                     std::to_string(grid.levels.back()) + ")");
        }
    }
    return grid;
}

// The ink combination (in the caller's percent) of a node index.
std::string NodeText(const ResolvedGrid& grid, unsigned int inks, std::size_t node) {
    std::string s = "(";
    for (unsigned int i = 0; i < inks; ++i) {
        if (i) s += ", ";
        s += Number(grid.percent[i * grid.points + node % grid.points]);
        node /= grid.points;
    }
    return s + ")";
}

// A single-ink training patch inside a cell of its ink.
struct RampPatch {
    std::size_t row;  // row of the training set
    unsigned int ink, cell, level;
};

// Effective ramps (N x 256) from local coordinates at non-grid levels: per
// cell clamped to [0, 1] and made non-decreasing (weights = patch counts),
// nominal coverage level/255 at grid levels, monotone cubic in between.
std::vector<double> RampsFromCoordinates(const GridLayout& grid,
                                         const std::vector<std::map<unsigned int, std::pair<double, double>>>& points) {
    std::vector<double> ramps;
    for (unsigned int i = 0; i < grid.inks; ++i) {
        std::vector<double> x, y;
        for (unsigned int c = 0; c + 1 < grid.points; ++c) {
            const unsigned int lo = grid.levels[i * grid.points + c], hi = grid.levels[i * grid.points + c + 1];
            x.push_back(lo);
            y.push_back(lo / 255.0);
            std::vector<double> w, weight;
            std::vector<unsigned int> at;
            for (auto it = points[i].lower_bound(lo + 1); it != points[i].end() && it->first < hi; ++it) {
                at.push_back(it->first);
                w.push_back(std::min(1.0, std::max(0.0, it->second.first)));
                weight.push_back(it->second.second);
            }
            IsotonicRegression(w, weight);
            for (std::size_t k = 0; k < at.size(); ++k) {
                x.push_back(at[k]);
                y.push_back(lo / 255.0 + w[k] * (hi - lo) / 255.0);
            }
        }
        x.push_back(255.0);
        y.push_back(1.0);
        const std::vector<double> curve = MonotoneCurve(x, y, 256);
        ramps.insert(ramps.end(), curve.begin(), curve.end());
    }
    return ramps;
}

// Moebius inversion of every cell's corner values into the matrix scheme.
std::vector<double> SchemeFromNodes(const GridLayout& grid, const std::vector<double>& nodes) {
    const unsigned int n = grid.inks;
    const std::size_t corners = std::size_t{1} << n;
    const std::size_t cells = IntPower(grid.points - 1, n);
    std::vector<double> scheme(cells * kBands * corners);
    std::vector<double> block(corners);
    for (std::size_t q = 0; q < cells; ++q) {
        std::size_t rest = q, base = 0;
        for (unsigned int i = 0; i < n; ++i) {
            base += (rest % (grid.points - 1)) * grid.stride[i];
            rest /= grid.points - 1;
        }
        for (unsigned int w = 0; w < kBands; ++w) {
            for (std::size_t k = 0; k < corners; ++k) block[k] = nodes[(base + grid.cornerOffset[k]) * kBands + w];
            MoebiusInvert(block.data(), n);
            std::copy(block.begin(), block.end(), scheme.begin() + (q * kBands + w) * corners);
        }
    }
    return scheme;
}

class Fitter {
public:
    Fitter(const ZKSModelChart& chart, const std::vector<unsigned char>& levels, const ZKSModelBuildOptions& options,
           const ResolvedGrid& resolved)
        : chart_(chart),
          levels_(levels),
          options_(options),
          resolved_(resolved),
          grid_(chart.numberOfInks, resolved.points, resolved.levels),
          matrix_(D50Matrix()),
          colorimeter_(matrix_),
          evaluator_(grid_, set_, colorimeter_) {}

    ZKSBuiltModel Run(const std::vector<std::size_t>& training) {
        result_.method = options_.method;
        result_.trainingPatches = training;
        CollectNodes(training);
        BuildTrainingSet(training);
        CollectRampPatches();

        double n = options_.fixedN;
        if (n > 0.0) {
            classic_ = ClassicAt(n);
            result_.iterations = 1;
        } else {
            n = SearchN();
        }
        CheckRampPatches();
        if (options_.method == MODELFIT_REFINED) n = Refine(n);

        result_.model.numberOfInks = grid_.inks;
        result_.model.numberOfGridPoints = grid_.points;
        result_.model.gridPoints.assign(grid_.levels.begin(), grid_.levels.end());
        result_.model.effectiveRamps = ramps_;
        result_.model.matrixScheme = SchemeFromNodes(grid_, nodes_);
        result_.model.n = n;
        result_.model.UpdateFloatArrays();
        result_.trainingDeltaE = PredictionDeltaE00(result_.model, chart_, training);
        result_.fitError = Summarize(result_.trainingDeltaE);
        return result_;
    }

private:
    struct ClassicState {
        std::vector<double> ramps;
        std::vector<double> rawW;  // per ramp patch
        double meanDeltaE = 0.0;
    };

    const unsigned char* Levels(std::size_t patch) const { return &levels_[patch * chart_.numberOfInks]; }

    void CollectNodes(const std::vector<std::size_t>& training) {
        const unsigned int inks = chart_.numberOfInks;
        nodeSpectra_.assign(grid_.nodes * kBands, 0.0);
        std::vector<unsigned int> count(grid_.nodes, 0);
        for (std::size_t p : training) {
            std::size_t node = 0;
            bool onGrid = true;
            for (unsigned int i = 0; i < inks && onGrid; ++i) {
                const int g = grid_.GridIndex(i, Levels(p)[i]);
                onGrid = g >= 0;
                node += onGrid ? g * grid_.stride[i] : 0;
            }
            if (!onGrid) continue;
            result_.nodePatches.push_back(p);
            for (unsigned int w = 0; w < kBands; ++w)
                nodeSpectra_[node * kBands + w] += std::max(chart_.spectra[p * kBands + w], kReflectanceFloor);
            ++count[node];
        }
        std::vector<std::size_t> missing;
        for (std::size_t node = 0; node < grid_.nodes; ++node) {
            if (count[node] == 0) {
                missing.push_back(node);
                continue;
            }
            for (unsigned int w = 0; w < kBands; ++w) nodeSpectra_[node * kBands + w] /= count[node];
        }
        if (missing.empty()) return;
        if (!options_.estimateMissingNodes) {
            std::string text = "the chart lacks " + std::to_string(missing.size()) + " of the " +
                               std::to_string(grid_.nodes) + " grid nodes (percent of ";
            for (unsigned int i = 0; i < inks; ++i) text += (i ? ", " : "") + InkName(chart_, i);
            text += "):";
            const std::size_t shown = std::min<std::size_t>(missing.size(), 20);
            for (std::size_t k = 0; k < shown; ++k) text += " " + NodeText(resolved_, inks, missing[k]);
            if (shown < missing.size()) text += " and " + std::to_string(missing.size() - shown) + " more";
            Fail(text);
        }
        EstimateNodes(training, missing);
    }

    // Missing nodes from a classic model on the coarse grid.
    void EstimateNodes(const std::vector<std::size_t>& training, const std::vector<std::size_t>& missing) {
        ZKSModelBuildOptions coarse = options_;
        coarse.method = MODELFIT_CLASSIC;
        coarse.estimateMissingNodes = false;
        coarse.gridPercent = options_.coarseGridPercent.empty() ? std::vector<double>{0.0, 100.0}
                                                                : options_.coarseGridPercent;
        coarse.perInkGridPercent.clear();
        coarse.trainingPatches = training;
        ZKSBuiltModel model;
        try {
            model = ZKCModelBuilder(chart_).Build(coarse);
        } catch (const ZKCModelBuildingError& e) {
            Fail(std::string("estimating missing nodes from the coarse model: ") + e.what());
        }
        std::vector<unsigned char> sample(grid_.inks);
        for (std::size_t node : missing) {
            std::size_t rest = node;
            for (unsigned int i = 0; i < grid_.inks; ++i) {
                sample[i] = static_cast<unsigned char>(grid_.levels[i * grid_.points + rest % grid_.points]);
                rest /= grid_.points;
            }
            PredictFromArrays(model.model, sample.data(), &nodeSpectra_[node * kBands]);
            estimated_.push_back(node);
        }
        result_.estimatedNodes = missing;
    }

    void BuildTrainingSet(const std::vector<std::size_t>& training) {
        const unsigned int inks = chart_.numberOfInks;
        set_.residualCount = training.size();
        set_.count = training.size() + estimated_.size();
        for (std::size_t p : training) {
            set_.levels.insert(set_.levels.end(), Levels(p), Levels(p) + inks);
            for (unsigned int w = 0; w < kBands; ++w)
                set_.reflectance.push_back(std::max(chart_.spectra[p * kBands + w], kReflectanceFloor));
        }
        for (std::size_t node : estimated_) {
            std::size_t rest = node;
            for (unsigned int i = 0; i < inks; ++i) {
                set_.levels.push_back(static_cast<unsigned char>(grid_.levels[i * grid_.points + rest % grid_.points]));
                rest /= grid_.points;
            }
            for (unsigned int w = 0; w < kBands; ++w)
                set_.reflectance.push_back(std::max(nodeSpectra_[node * kBands + w], kReflectanceFloor));
        }
        set_.lab.resize(set_.residualCount * 3);
        set_.metric.resize(set_.residualCount * 9);
        for (std::size_t r = 0; r < set_.residualCount; ++r) {
            colorimeter_.Lab(&set_.reflectance[r * kBands], &set_.lab[r * 3]);
            DeltaE00Metric(&set_.lab[r * 3], &set_.metric[r * 9]);
        }
    }

    void CollectRampPatches() {
        const unsigned int inks = grid_.inks;
        std::vector<unsigned int> perCell(inks * (grid_.points - 1), 0);
        for (std::size_t r = 0; r < set_.residualCount; ++r) {
            const unsigned char* lv = &set_.levels[r * inks];
            unsigned int inked = 0, ink = 0;
            for (unsigned int i = 0; i < inks; ++i)
                if (lv[i] != 0) {
                    ++inked;
                    ink = i;
                }
            if (inked != 1 || grid_.GridIndex(ink, lv[ink]) >= 0) continue;
            const unsigned int cell = grid_.Cell(ink, lv[ink]);
            rampPatches_.push_back({r, ink, cell, lv[ink]});
            result_.rampPatches.push_back(result_.trainingPatches[r]);
            ++perCell[ink * (grid_.points - 1) + cell];
        }
        for (unsigned int i = 0; i < inks; ++i)
            for (unsigned int c = 0; c + 1 < grid_.points; ++c)
                if (perCell[i * (grid_.points - 1) + c] == 0)
                    Fail("ink " + InkName(chart_, i) + " has no single-ink patch (other inks at 0) between " +
                         Number(resolved_.percent[i * grid_.points + c]) + " % and " +
                         Number(resolved_.percent[i * grid_.points + c + 1]) +
                         " %, so its effective ramp cannot be fitted there");
    }

    // Node values of the classic fit: measured (or estimated) node spectra^(1/n).
    void ClassicNodes(double n, std::vector<double>& nodes) const {
        nodes.resize(nodeSpectra_.size());
        for (std::size_t k = 0; k < nodes.size(); ++k)
            nodes[k] = std::pow(std::max(nodeSpectra_[k], kReflectanceFloor), 1.0 / n);
    }

    ClassicState ClassicAt(double n) {
        ClassicState state;
        ClassicNodes(n, ws_.nodes);
        const std::vector<double>& nodes = ws_.nodes;
        // Closed-form coordinate of each ramp patch between its cell's nodes.
        std::vector<std::map<unsigned int, std::pair<double, double>>> points(grid_.inks);
        for (const RampPatch& rp : rampPatches_) {
            const double* ra = &nodes[rp.cell * grid_.stride[rp.ink] * kBands];
            const double* rb = &nodes[(rp.cell + 1) * grid_.stride[rp.ink] * kBands];
            double num = 0.0, den = 0.0;
            for (unsigned int w = 0; w < kBands; ++w) {
                const double y = std::pow(set_.reflectance[rp.row * kBands + w], 1.0 / n);
                num += (y - ra[w]) * (rb[w] - ra[w]);
                den += (rb[w] - ra[w]) * (rb[w] - ra[w]);
            }
            if (!(den > 1e-12))
                Fail("ink " + InkName(chart_, rp.ink) + ": the nodes at " +
                     Number(resolved_.percent[rp.ink * grid_.points + rp.cell]) + " % and " +
                     Number(resolved_.percent[rp.ink * grid_.points + rp.cell + 1]) +
                     " % (other inks at 0) have the same spectrum, so its ramp cannot be fitted between them");
            const double w = num / den;
            state.rawW.push_back(w);
            auto& slot = points[rp.ink][rp.level];
            slot.first += std::min(1.0, std::max(0.0, w));
            slot.second += 1.0;
        }
        for (auto& ink : points)
            for (auto& p : ink) p.second.first /= p.second.second;
        state.ramps = RampsFromCoordinates(grid_, points);
        evaluator_.Demichel(CoordinatesFromRamps(grid_, state.ramps), ws_);
        std::vector<double> deltaE;
        evaluator_.DeltaE(n, ws_, deltaE);
        double sum = 0.0;
        for (double d : deltaE) sum += d;
        state.meanDeltaE = deltaE.empty() ? 0.0 : sum / deltaE.size();
        ramps_ = state.ramps;
        nodes_ = ws_.nodes;
        return state;
    }

    // Scan of [nMin, nMax], then golden section around the best point.
    double SearchN() {
        const double lo = options_.nMin, hi = options_.nMax;
        const int steps = 18;
        double bestN = lo, best = HUGE_VAL;
        unsigned int evaluations = 0;
        for (int k = 0; k <= steps; ++k) {
            const double n = lo + (hi - lo) * k / steps;
            const double e = ClassicAt(n).meanDeltaE;
            ++evaluations;
            if (e < best) {
                best = e;
                bestN = n;
            }
        }
        double a = std::max(lo, bestN - (hi - lo) / steps), b = std::min(hi, bestN + (hi - lo) / steps);
        const double ratio = (std::sqrt(5.0) - 1.0) / 2.0;
        double c = b - ratio * (b - a), d = a + ratio * (b - a);
        double fc = ClassicAt(c).meanDeltaE, fd = ClassicAt(d).meanDeltaE;
        evaluations += 2;
        while (b - a > 1e-4) {
            if (fc < fd) {
                b = d;
                d = c;
                fd = fc;
                c = b - ratio * (b - a);
                fc = ClassicAt(c).meanDeltaE;
            } else {
                a = c;
                c = d;
                fc = fd;
                d = a + ratio * (b - a);
                fd = ClassicAt(d).meanDeltaE;
            }
            ++evaluations;
        }
        double n = fc < fd ? c : d;
        if (std::min(fc, fd) > best) n = bestN;
        classic_ = ClassicAt(n);
        result_.iterations = evaluations + 1;
        return n;
    }

    // A ramp patch far outside its cell's span is not a ramp of that ink.
    void CheckRampPatches() {
        for (std::size_t k = 0; k < rampPatches_.size(); ++k) {
            const double w = classic_.rawW[k];
            if (w < -0.5 || w > 1.5) {
                const RampPatch& rp = rampPatches_[k];
                Fail("ink " + InkName(chart_, rp.ink) + ": single-ink patch " +
                     std::to_string(result_.trainingPatches[rp.row]) + " (level " + std::to_string(rp.level) +
                     ") does not lie between the nodes at " +
                     Number(resolved_.percent[rp.ink * grid_.points + rp.cell]) + " % and " +
                     Number(resolved_.percent[rp.ink * grid_.points + rp.cell + 1]) + " % (coordinate " +
                     Number(w) + "), so the ramp is unusable");
            }
        }
    }

    double Refine(double n0) {
        const unsigned int inks = grid_.inks;
        // Parameters: the coordinate at every non-grid level a training patch uses, then n.
        std::vector<std::pair<unsigned int, unsigned int>> params;  // (ink, level)
        std::vector<std::vector<double>> usage(inks, std::vector<double>(256, 0.0));
        for (std::size_t r = 0; r < set_.residualCount; ++r)
            for (unsigned int i = 0; i < inks; ++i) usage[i][set_.levels[r * inks + i]] += 1.0;
        for (unsigned int i = 0; i < inks; ++i)
            for (unsigned int t = 0; t < 256; ++t)
                if (usage[i][t] > 0.0 && grid_.GridIndex(i, t) < 0) params.push_back({i, t});
        const InkCoordinates start = CoordinatesFromRamps(grid_, ramps_);
        std::vector<double> x, lower, upper;
        for (const auto& p : params) {
            x.push_back(start.w[p.first * 256 + p.second]);
            lower.push_back(0.0);
            upper.push_back(1.0);
        }
        const bool fitN = options_.fitN;
        if (fitN) {
            x.push_back(n0);
            lower.push_back(options_.nMin);
            upper.push_back(options_.nMax);
        }
        const unsigned int threads = std::max(1u, std::min(CPUCount(), 8u));
        std::vector<Workspace> spaces(threads);
        std::vector<InkCoordinates> coords(threads, start);
        auto evaluate = [&](const double* v, double* residuals, unsigned int slot) {
            InkCoordinates& c = coords[slot];
            for (std::size_t k = 0; k < params.size(); ++k) c.w[params[k].first * 256 + params[k].second] = v[k];
            const double n = fitN ? v[params.size()] : n0;
            evaluator_.Demichel(c, spaces[slot]);
            return evaluator_.SolveNodes(n, spaces[slot]) && evaluator_.Residuals(n, spaces[slot], residuals);
        };
        result_.iterations = LevenbergMarquardt(evaluate, set_.residualCount * 3, x, lower, upper,
                                                options_.maxIterations, threads);
        const double n = fitN ? x[params.size()] : n0;

        // Final ramps through the fitted coordinates, then the nodes once more.
        std::vector<std::map<unsigned int, std::pair<double, double>>> points(inks);
        for (std::size_t k = 0; k < params.size(); ++k)
            points[params[k].first][params[k].second] = {x[k], usage[params[k].first][params[k].second]};
        ramps_ = RampsFromCoordinates(grid_, points);
        evaluator_.Demichel(CoordinatesFromRamps(grid_, ramps_), ws_);
        if (!evaluator_.SolveNodes(n, ws_)) Fail("the least-squares system of the node values is singular");
        const double floor = std::pow(kReflectanceFloor, 1.0 / n);
        for (double& v : ws_.nodes)
            if (!(v >= floor)) {
                v = floor;
                ++result_.clampedNodeValues;
            }
        nodes_ = ws_.nodes;
        return n;
    }

    const ZKSModelChart& chart_;
    const std::vector<unsigned char>& levels_;
    const ZKSModelBuildOptions& options_;
    const ResolvedGrid& resolved_;
    GridLayout grid_;
    ZKCLighting_Matrix matrix_;
    Colorimeter colorimeter_;
    TrainingSet set_;
    YuleNielsenEvaluator evaluator_;
    Workspace ws_;

    std::vector<double> nodeSpectra_;     // nodes x 31, reflectance
    std::vector<std::size_t> estimated_;  // estimated node indices
    std::vector<RampPatch> rampPatches_;
    ClassicState classic_;
    std::vector<double> ramps_;  // current ramps, N x 256
    std::vector<double> nodes_;  // current node values, nodes x 31
    ZKSBuiltModel result_;
};

}  // namespace

void ZKSPrinterModelArrays::UpdateFloatArrays() {
    gridPointsF.assign(gridPoints.begin(), gridPoints.end());
    effectiveRampsF.assign(effectiveRamps.begin(), effectiveRamps.end());
    matrixSchemeF.assign(matrixScheme.begin(), matrixScheme.end());
}

ZKCSSE_KELMA_Data ZKSPrinterModelArrays::Model(const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet,
                                               bool isMediaRelative, bool printAbsolutColorimetric) const {
    return ZKCSSE_KELMA_Data(numberOfInks, numberOfGridPoints, gridPointsF.data(), effectiveRampsF.data(),
                             matrixSchemeF.data(), static_cast<float>(n), lightingMatrix, inkSet, isMediaRelative,
                             printAbsolutColorimetric, kBands);
}

ZKCSSE_KELMA_Data ZKSPrinterModelArrays::Model(INK_SET inkSet) const { return Model(D50Matrix(), inkSet); }

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

ZKCModelBuilder::ZKCModelBuilder(const ZKSModelChart& chart) : chart_(chart) {
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
    levels_.resize(patches * inks);
    for (std::size_t p = 0; p < patches; ++p) {
        for (unsigned int i = 0; i < inks; ++i) {
            const double v = chart.deviceValues[p * inks + i];
            if (!(v >= 0.0 && v <= 100.0))
                Fail("patch " + std::to_string(p) + ": " + InkName(chart, i) + " value " + Number(v) +
                     " is not a percentage in [0, 100]");
            levels_[p * inks + i] = static_cast<unsigned char>(DigitalLevel(v));
        }
        for (unsigned int w = 0; w < kBands; ++w)
            if (!std::isfinite(chart.spectra[p * kBands + w]))
                Fail("patch " + std::to_string(p) + " has a spectral value that is not a finite number");
    }
}

ZKCModelBuilder::~ZKCModelBuilder() = default;


ZKSBuiltModel ZKCModelBuilder::Build(const ZKSModelBuildOptions& options) const {
    if (!(options.nMin >= 1.0 && options.nMax >= options.nMin && std::isfinite(options.nMax)))
        Fail("the n range [" + Number(options.nMin) + ", " + Number(options.nMax) + "] is not a range within [1, inf)");
    if (!(options.fixedN >= 0.0) || (options.fixedN > 0.0 && (options.fixedN < options.nMin || options.fixedN > options.nMax)))
        Fail("fixed n " + Number(options.fixedN) + " is outside [" + Number(options.nMin) + ", " +
             Number(options.nMax) + "]");
    if (options.method != MODELFIT_CLASSIC && options.method != MODELFIT_REFINED) Fail("unknown fit method");
    std::vector<std::size_t> training = options.trainingPatches;
    if (training.empty()) {
        for (std::size_t p = 0; p < chart_.PatchCount(); ++p) training.push_back(p);
    } else {
        std::sort(training.begin(), training.end());
        training.erase(std::unique(training.begin(), training.end()), training.end());
        if (training.back() >= chart_.PatchCount())
            Fail("training patch " + std::to_string(training.back()) + " is outside the chart (" +
                 std::to_string(chart_.PatchCount()) + " patches)");
    }
    const ResolvedGrid grid = ResolveGrid(chart_, options.gridPercent, options.perInkGridPercent, "the grid");
    Fitter fitter(chart_, levels_, options, grid);
    return fitter.Run(training);
}

std::vector<std::size_t> ZKSValidationSplit::Training(unsigned int fold) const {
    std::vector<std::size_t> t(gridPatches);
    t.insert(t.end(), half[fold & 1u].begin(), half[fold & 1u].end());
    std::sort(t.begin(), t.end());
    return t;
}

ZKSValidationSplit ZKCModelBuilder::ValidationSplit(const std::vector<double>& gridPercent) const {
    const ResolvedGrid grid = ResolveGrid(chart_, gridPercent, {}, "the grid");
    const unsigned int inks = chart_.numberOfInks;
    ZKSValidationSplit split;
    std::map<std::vector<unsigned char>, unsigned int> recipeHalf;
    for (std::size_t p = 0; p < chart_.PatchCount(); ++p) {
        const std::vector<unsigned char> recipe(&levels_[p * inks], &levels_[p * inks] + inks);
        bool onGrid = true;
        for (unsigned int i = 0; i < inks; ++i)
            onGrid = onGrid && std::count(&grid.levels[i * grid.points], &grid.levels[i * grid.points] + grid.points,
                                          unsigned{recipe[i]}) > 0;
        if (onGrid) {
            split.gridPatches.push_back(p);
            continue;
        }
        auto it = recipeHalf.find(recipe);
        if (it == recipeHalf.end())
            it = recipeHalf.emplace(recipe, static_cast<unsigned int>(recipeHalf.size() % 2)).first;
        split.half[it->second].push_back(p);
    }
    return split;
}

std::vector<double> PredictionDeltaE00(const ZKSPrinterModelArrays& model, const ZKSModelChart& chart,
                                       const std::vector<std::size_t>& patches) {
    if (patches.empty()) return {};
    for (std::size_t p : patches)
        if (p >= chart.PatchCount()) Fail("patch " + std::to_string(p) + " is outside the chart");
    return ModelDeltaE2000(model.Model(D50Matrix(), INK_SET_SEVEN_INKS), chart, patches);
}

}  // namespace KELMA_NAMESPACE
