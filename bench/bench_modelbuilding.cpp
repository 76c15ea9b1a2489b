// Model building time and accuracy.
//
// BM_BuildModel: the APTEC PC10 chart (1617 patches, CMYK) on the grid
// {0, 40, 100} %: classic and refined fit of the whole chart, on one thread
// and on all processors (the refined fit spreads its Jacobian columns over
// the processors). Target: a refined build under 10 s.
//
// BM_BuildFineGrid: the same chart, fold 0 of the library's split of the
// 3-level grid, on {0, 40, 70, 100} % and {0, 20, 40, 70, 100} % fitted
// toward the refined 3-level model (prior chosen from the training
// patches); counters: the held-out CIEDE2000 of fold 0 and the prior.
// Target: 4 levels under 2 s.
//
// BM_BuildMultiInk: 6 and 7 inks on {0, 40, 100} % from the generated
// extended-gamut chart of tests/support/ChartMaker.h (MultiInkChart, about
// 2200 and 2900 patches, never the full grid; missing nodes estimated), fold
// 0 of the library's split; counters: held-out CIEDE2000 of fold 0. Target:
// 7 inks refined under 60 s.
//
// The chart is found next to the sources (data/aptec_pc10/); set
// KELMA_BENCH_CHART to read another CMYK CGATS file with spectra.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "kelma/threading/Threading.h"
#include "tests/support/ChartMaker.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;

namespace {

std::string ChartPath() {
    if (const char* env = std::getenv("KELMA_BENCH_CHART")) return env;
    std::string here = __FILE__;
    return here.substr(0, here.find_last_of('/')) + "/../data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";
}

const ZKCModelBuilder& Builder() {
    static const ZKCModelBuilder builder = [] {
        const ZKCMeasurementFile file(ChartPath());
        return ZKCModelBuilder(ChartFromMeasurementFile(file));
    }();
    return builder;
}

const ZKCModelBuilder& MultiInkBuilder(unsigned int inks) {
    static std::map<unsigned int, std::unique_ptr<ZKCModelBuilder>> builders;
    auto& b = builders[inks];
    if (!b) b.reset(new ZKCModelBuilder(kelma_test::MultiInkChart(kelma_test::MakeTestModel(inks, 3, 2.2, 40 + inks))));
    return *b;
}

// Builds fold 0 of the split of `splitGrid` and reports its held-out error.
void TimeFold(benchmark::State& state, const ZKCModelBuilder& builder, ZKSModelBuildOptions options,
              const std::vector<double>& splitGrid) {
    const ZKSValidationSplit split = builder.ValidationSplit(splitGrid);
    options.trainingPatches = split.Training(0);
    ZKSBuiltModel built;
    for (auto _ : state) {
        built = builder.Build(options);
        benchmark::DoNotOptimize(built.model.matrixScheme.data());
    }
    const ZKSStatistics held = Summarize(PredictionDeltaE00(built.model, builder.Chart(), split.half[1]));
    state.counters["heldout_dE00_mean"] = held.mean;
    state.counters["heldout_dE00_p95"] = held.p95;
    state.counters["heldout_dE00_max"] = held.max;
    state.counters["patches"] = static_cast<double>(builder.Chart().PatchCount());
    state.counters["prior"] = built.finePriorWeight;
    state.SetLabel(options.method == MODELFIT_REFINED ? "refined" : "classic");
}

// range(0): fit method; range(1): processors (0 = all).
void BM_BuildModel(benchmark::State& state) {
    const ZKCModelBuilder& builder = Builder();
    SetCPUCountOverride(static_cast<unsigned int>(state.range(1)));
    ZKSModelBuildOptions options;
    options.gridPercent = {0.0, 40.0, 100.0};
    options.method = static_cast<MODELFIT_METHOD>(state.range(0));
    double mean = 0.0, n = 0.0, iterations = 0.0;
    for (auto _ : state) {
        const ZKSBuiltModel built = builder.Build(options);
        mean = built.fitError.mean;
        n = built.model.n;
        iterations = built.iterations;
        benchmark::DoNotOptimize(built.model.matrixScheme.data());
    }
    SetCPUCountOverride(0);
    state.counters["fit_dE00_mean"] = mean;
    state.counters["n"] = n;
    state.counters["iterations"] = iterations;
    state.SetLabel(options.method == MODELFIT_REFINED ? "refined" : "classic");
}

// range(0): grid levels (3, 4 or 5).
void BM_BuildFineGrid(benchmark::State& state) {
    const std::vector<double> base{0.0, 40.0, 100.0};
    ZKSModelBuildOptions options;
    options.method = MODELFIT_REFINED;
    options.gridPercent = state.range(0) == 3   ? base
                          : state.range(0) == 4 ? std::vector<double>{0.0, 40.0, 70.0, 100.0}
                                                : std::vector<double>{0.0, 20.0, 40.0, 70.0, 100.0};
    if (state.range(0) != 3) options.fineBaseGridPercent = base;
    TimeFold(state, Builder(), options, base);
}

// range(0): inks (6 or 7); range(1): fit method.
void BM_BuildMultiInk(benchmark::State& state) {
    const std::vector<double> grid{0.0, 40.0, 100.0};
    ZKSModelBuildOptions options;
    options.gridPercent = grid;
    options.method = static_cast<MODELFIT_METHOD>(state.range(1));
    options.estimateMissingNodes = true;
    TimeFold(state, MultiInkBuilder(static_cast<unsigned int>(state.range(0))), options, grid);
}

}  // namespace

BENCHMARK(BM_BuildModel)
    ->Args({MODELFIT_CLASSIC, 0})
    ->Args({MODELFIT_REFINED, 1})
    ->Args({MODELFIT_REFINED, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_BuildFineGrid)->Arg(3)->Arg(4)->Arg(5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BuildMultiInk)
    ->Args({6, MODELFIT_CLASSIC})
    ->Args({6, MODELFIT_REFINED})
    ->Args({7, MODELFIT_CLASSIC})
    ->Args({7, MODELFIT_REFINED})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);
