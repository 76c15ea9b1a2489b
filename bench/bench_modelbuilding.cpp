// Model building time on the APTEC PC10 chart (1617 patches, CMYK) on the
// grid {0, 40, 100} %: classic and refined fit of the whole chart, on one
// thread and on all processors (the refined fit spreads its Jacobian
// columns over the processors). The target is a refined build under 10 s.
//
// The chart is found next to the sources (data/aptec_pc10/); set
// KELMA_BENCH_CHART to read another CMYK CGATS file with spectra.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "kelma/threading/Threading.h"

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

}  // namespace

BENCHMARK(BM_BuildModel)
    ->Args({MODELFIT_CLASSIC, 0})
    ->Args({MODELFIT_REFINED, 1})
    ->Args({MODELFIT_REFINED, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
