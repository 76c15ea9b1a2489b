// Resampled spectra per second: the APTEC PC10 chart's spectra (36 bands,
// 380-730 nm), tiled to a batch of 16 x 1617, onto the 31-point grid; linear
// and cubic spline, on one thread and on all processors.
//
// BM_SplineLongList: the whole cost of a long wavelength list (knots evenly
// over 380-780 nm): building the spline driver for the list and resampling
// 1000 spectra on it, on one thread. Time per iteration = per 1000 spectra.
//
// The chart is found next to the sources (data/aptec_pc10/); set
// KELMA_BENCH_CHART to read another CGATS file with spectral fields.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/sampling/ZKCSpectralSampling_Thread.h"
#include "kelma/threading/Threading.h"

using namespace kelma;

namespace {

constexpr std::size_t kTiles = 16;

std::string ChartPath() {
    if (const char* env = std::getenv("KELMA_BENCH_CHART")) return env;
    std::string here = __FILE__;
    return here.substr(0, here.find_last_of('/')) + "/../data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";
}

struct Batch {
    std::vector<double> wavelengths;
    std::vector<float> spectra;
    std::size_t count = 0;
};

const Batch& ChartBatch() {
    static const Batch batch = [] {
        ZKCMeasurementFile file(ChartPath());
        const ZKSMeasurementData& d = file.Data();
        Batch b;
        b.wavelengths = d.wavelengths;
        for (std::size_t t = 0; t < kTiles; ++t) b.spectra.insert(b.spectra.end(), d.spectra.begin(), d.spectra.end());
        b.count = kTiles * d.PatchCount();
        return b;
    }();
    return batch;
}

// Args: method (0 linear, 1 cubic spline), threads (0 = every processor).
void BM_Resample(benchmark::State& state) {
    const Batch& batch = ChartBatch();
    SetCPUCountOverride(static_cast<unsigned int>(state.range(1)));
    ZKCSpectralSampling_Thread sampler(batch.wavelengths, static_cast<SPECTRALSAMPLING_METHOD>(state.range(0)));
    SetCPUCountOverride(0);
    AlignedBuffer<float> out(batch.count * kSpectrumStride);
    for (auto _ : state) {
        sampler.Init(batch.spectra.data(), out.data(), batch.count);
        sampler.Calculate();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(batch.count));
    state.counters["workers"] = sampler.WorkerCount();
    state.counters["bands_in"] = static_cast<double>(batch.wavelengths.size());
}

// Args: knots.
void BM_SplineLongList(benchmark::State& state) {
    const std::size_t knots = static_cast<std::size_t>(state.range(0));
    constexpr std::size_t kSpectra = 1000;
    std::vector<double> wavelengths(knots);
    for (std::size_t j = 0; j < knots; ++j) wavelengths[j] = 380.0 + 400.0 * j / (knots - 1);
    std::vector<float> spectra(kSpectra * knots);
    for (std::size_t i = 0; i < spectra.size(); ++i) spectra[i] = 0.5f + 0.4f * static_cast<float>((i * 7919) % 1000) / 1000.0f;
    AlignedBuffer<float> out(kSpectra * kSpectrumStride);
    SetCPUCountOverride(1);
    for (auto _ : state) {
        ZKCSpectralSampling_Thread sampler(wavelengths, SPECTRALSAMPLING_CUBICSPLINE);
        sampler.Init(spectra.data(), out.data(), kSpectra);
        sampler.Calculate();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    SetCPUCountOverride(0);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kSpectra));
}

}  // namespace

BENCHMARK(BM_SplineLongList)->ArgName("knots")->Arg(36)->Arg(512)->Arg(1024)->Arg(4096)->Arg(16384)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK(BM_Resample)
    ->ArgNames({"method", "threads"})
    ->Args({0, 1})
    ->Args({0, 0})
    ->Args({1, 1})
    ->Args({1, 0})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
