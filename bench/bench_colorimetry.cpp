// Throughput of the colour basis: reflectance spectra to XYZ, XYZ to colour
// bytes, and CIELAB to LAB2000HL through the threaded driver.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/threading/Threading.h"

using namespace kelma;

namespace {

AlignedBuffer<float> Spectra(unsigned count) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> v(0.001f, 1.0f);
    AlignedBuffer<float> s(static_cast<std::size_t>(count) * kSpectrumStride);
    for (unsigned k = 0; k < count; ++k)
        for (unsigned i = 0; i < kSpectralValues; ++i) s[k * kSpectrumStride + i] = v(rng);
    return s;
}

// Arg 0: number of illuminants (1 or 3). Items: spectra.
void BM_CalculateCIEXYZ(benchmark::State& state) {
    const unsigned count = 4096;
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIEF11 f11;
    std::vector<ZKCIlluminant_Base*> ills = {&d50, &a, &f11};
    ills.resize(static_cast<std::size_t>(state.range(0)));
    ZKCLighting_Matrix m(obs, ills);
    AlignedBuffer<float> spectra = Spectra(count);
    std::vector<float> xyz(3 * ills.size() * count);
    for (auto _ : state) {
        m.CalculateCIEXYZ(xyz.data(), spectra.data(), count, nullptr);
        benchmark::DoNotOptimize(xyz.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}
BENCHMARK(BM_CalculateCIEXYZ)->Arg(1)->Arg(3);

// Arg 0: 1 for CIELAB bytes, 0 for LAB2000HL bytes (the prediction drivers'
// default). One illuminant; the XYZ of random spectra. Items: triples.
void BM_CalculateCIELAB(benchmark::State& state) {
    const unsigned count = 8192;
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCLighting_Matrix m(obs, {&d50});
    AlignedBuffer<float> spectra = Spectra(count);
    std::vector<float> xyz(3 * std::size_t{count});
    m.CalculateCIEXYZ(xyz.data(), spectra.data(), count, nullptr);
    std::vector<unsigned char> out(3 * std::size_t{count});
    for (auto _ : state) {
        m.CalculateCIELAB(out.data(), xyz.data(), count, state.range(0) != 0);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}
BENCHMARK(BM_CalculateCIELAB)->ArgName("cielab")->Arg(0)->Arg(1);

// Arg 0: thread count (0 = all processors). Items: CIELAB triples.
void BM_LAB2000HL_Thread(benchmark::State& state) {
    const unsigned long count = 1ul << 18;
    SetCPUCountOverride(static_cast<unsigned>(state.range(0)));
    {
        ZKCColorSpaceTransformationLUT_Thread driver(COLORSPACETRANSFORMATION_LAB2LAB2000HL);
        std::mt19937 rng(2);
        std::uniform_real_distribution<double> L(0.0, 100.0), ab(-128.0, 128.0);
        std::vector<double> lab(3 * count), lhl(3 * count);
        for (unsigned long i = 0; i < count; ++i) {
            lab[3 * i] = L(rng);
            lab[3 * i + 1] = ab(rng);
            lab[3 * i + 2] = ab(rng);
        }
        driver.Init(lab.data(), lhl.data(), count);
        state.counters["threads"] = driver.ThreadsInUse();
        for (auto _ : state) {
            driver.Calculate();
            benchmark::DoNotOptimize(lhl.data());
            benchmark::ClobberMemory();
        }
    }
    SetCPUCountOverride(0);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(count));
}
BENCHMARK(BM_LAB2000HL_Thread)->Arg(1)->Arg(0)->UseRealTime();

}  // namespace
