// Predicted samples per second for 4 inks (G = 5), 6 inks (G = 3) and
// 7 inks (G = 3), spectral and byte mode, on one thread and on all
// (BM_Predict); spectral mode on one thread in each kernel variant the
// processor runs (BM_PredictVariant, variant 0 = reference .. 4 = avx512).
// KELMA_KERNELS=NAME caps the variant of BM_Predict (bench/support/BenchMain.cpp).
// Rates are per wall-clock second; the reported CPU time is the process's
// (all threads), so samples per CPU second stay comparable on a busy machine.
//   build/bench/bench_prediction --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "kelma/common/KernelVariant.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/threading/Threading.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned int kSamples = 1u << 18;

struct Setup {
    unsigned int inks, grid;
};

void BM_Predict(benchmark::State& state) {
    const Setup setups[] = {{4, 5}, {6, 3}, {7, 3}};
    const Setup s = setups[state.range(0)];
    const bool bytes = state.range(1) != 0;
    const unsigned int threads = state.range(2) != 0 ? 0u : 1u;  // 0: all processors
    kelma::SetCPUCountOverride(threads);
    auto tm = kelma_test::MakeTestModel(s.inks, s.grid, 2.2, 42);
    kelma::ZKCSSE_KELMA_Data model = tm.Build(true);
    std::mt19937 rng(1);
    std::vector<unsigned char> input(std::size_t{kSamples} * s.inks);
    for (auto& v : input) v = static_cast<unsigned char>(rng());
    kelma::AlignedBuffer<float> spectra(std::size_t{kSamples} * 32);
    std::vector<unsigned char> out(std::size_t{kSamples} * 3);
    for (auto _ : state) {
        if (bytes) {
            kelma::ZKCSSE_KELMA_Thread driver(model, kSamples, input.data(), out.data(), 31, 32);
            driver.Wait();
        } else {
            kelma::ZKCSSE_KELMA_Thread driver(model, kSamples, input.data(), spectra.data());
            driver.Wait();
        }
        benchmark::ClobberMemory();
    }
    kelma::SetCPUCountOverride(0);
    state.SetItemsProcessed(state.iterations() * kSamples);
    state.SetLabel(std::to_string(s.inks) + " inks, " + (bytes ? "bytes" : "spectra") + ", " +
                   (threads == 1 ? "1 thread" : std::to_string(kelma::CPUCount()) + " threads"));
}

void BM_PredictVariant(benchmark::State& state) {
    const Setup setups[] = {{4, 5}, {6, 3}, {7, 3}};
    const Setup s = setups[state.range(0)];
    const auto variant = static_cast<kelma::KERNEL_VARIANT>(state.range(1));
    if (!kelma::KernelVariantSupported(variant)) {
        state.SkipWithError("this processor cannot run these kernels");
        return;
    }
    kelma::SetCPUCountOverride(1);
    const kelma_test::ScopedKernelCap cap(variant);
    auto tm = kelma_test::MakeTestModel(s.inks, s.grid, 2.2, 42);
    kelma::ZKCSSE_KELMA_Data model = tm.Build(true);
    std::mt19937 rng(1);
    std::vector<unsigned char> input(std::size_t{kSamples} * s.inks);
    for (auto& v : input) v = static_cast<unsigned char>(rng());
    kelma::AlignedBuffer<float> spectra(std::size_t{kSamples} * 32);
    for (auto _ : state) {
        kelma::ZKCSSE_KELMA_Thread driver(model, kSamples, input.data(), spectra.data());
        driver.Wait();
        benchmark::ClobberMemory();
    }
    kelma::SetCPUCountOverride(0);
    state.SetItemsProcessed(state.iterations() * kSamples);
    state.SetLabel(std::to_string(s.inks) + " inks, " + kelma::KernelVariantName(variant));
}

}  // namespace

BENCHMARK(BM_PredictVariant)
    ->ArgsProduct({{0, 1, 2}, {0, 1, 2, 3, 4}})
    ->ArgNames({"inks", "variant"})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

BENCHMARK(BM_Predict)
    ->ArgsProduct({{0, 1, 2}, {0, 1}, {0, 1}})
    ->ArgNames({"inks", "bytes", "all"})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
