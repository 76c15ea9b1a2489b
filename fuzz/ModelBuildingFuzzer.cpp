// libFuzzer harness: model building from a fuzzed chart and fuzzed options.
// The bytes describe a small chart (4 inks on 2 or 3 levels, or 6 / 7 inks on
// 2 levels: 16 to 128 grid patches, a ramp patch per cell and a few others)
// with the spectra of a simple print, then overwrite chosen device values and spectral values with arbitrary
// doubles (NaN, infinities, huge, negative). The builder must either throw
// ZKCModelBuildingError or return a model that passes the library's model
// check (so it never predicts NaN) with a finite fit error. Few iterations
// keep one input to milliseconds.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/model/ModelValidation.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "kelma/threading/Threading.h"

#include "FuzzPromise.h"

using namespace kelma;

namespace {

// An arbitrary double, special values included: eight raw bytes half the
// time, otherwise a value near the usual range.
double AnyDouble(FuzzedDataProvider& in) {
    if (in.ConsumeBool()) {
        const std::uint64_t bits = in.ConsumeIntegral<std::uint64_t>();
        double v;
        static_assert(sizeof v == sizeof bits, "IEEE double");
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    return in.ConsumeFloatingPointInRange<double>(-2.0, 120.0);
}

ZKSModelChart Chart(FuzzedDataProvider& in, std::vector<double>& grid) {
    static const unsigned kInks[] = {4, 4, 4, 6, 7};
    ZKSModelChart chart;
    chart.numberOfInks = kInks[in.ConsumeIntegralInRange<unsigned>(0, 4)];
    const unsigned inks = chart.numberOfInks;
    grid = {0.0, 100.0};
    if (inks == 4 && in.ConsumeBool()) grid.insert(grid.begin() + 1, in.ConsumeIntegralInRange<int>(2, 98));
    const unsigned g = static_cast<unsigned>(grid.size());

    // A print that behaves like one: paper times, per ink, one minus its
    // coverage times its absorption, a line from a[i] at 400 nm to b[i] at
    // 700 nm; each patch adds a little noise. Ramp patches then lie between
    // their nodes, so most inputs reach the fit itself.
    std::vector<double> a(inks), b(inks);
    for (unsigned i = 0; i < inks; ++i) {
        a[i] = in.ConsumeIntegral<std::uint8_t>() / 255.0;
        b[i] = in.ConsumeIntegral<std::uint8_t>() / 255.0;
    }
    auto AddPatch = [&](const std::vector<double>& percent) {
        const double noise = (in.ConsumeIntegral<std::uint8_t>() - 127.5) / 127.5 * 0.01;
        chart.deviceValues.insert(chart.deviceValues.end(), percent.begin(), percent.end());
        for (unsigned w = 0; w < kSpectralValues; ++w) {
            const double t = w / 30.0;
            double r = 0.85 + noise;
            for (unsigned i = 0; i < inks; ++i) r *= 1.0 - 0.95 * percent[i] / 100.0 * ((1.0 - t) * a[i] + t * b[i]);
            chart.spectra.push_back(r);
        }
    };
    // The grid nodes, a few perhaps missing.
    std::size_t nodes = 1;
    for (unsigned i = 0; i < inks; ++i) nodes *= g;
    std::vector<bool> keep(nodes, true);
    const std::size_t dropped = in.ConsumeIntegralInRange<std::size_t>(0, 7) / 3;  // mostly none
    for (std::size_t k = 0; k < dropped; ++k) keep[in.ConsumeIntegralInRange<std::size_t>(0, nodes - 1)] = false;
    for (std::size_t node = 0; node < nodes; ++node) {
        if (!keep[node]) continue;
        std::vector<double> percent(inks);
        std::size_t rest = node;
        for (unsigned i = 0; i < inks; ++i, rest /= g) percent[i] = grid[rest % g];
        AddPatch(percent);
    }
    // One single-ink patch inside every cell of every ink (the classic ramps need them).
    for (unsigned i = 0; i < inks; ++i)
        for (unsigned c = 0; c + 1 < g; ++c) {
            std::vector<double> percent(inks, 0.0);
            percent[i] = in.ConsumeIntegralInRange<int>(static_cast<int>(grid[c]) + 1, static_cast<int>(grid[c + 1]) - 1);
            AddPatch(percent);
        }
    const std::size_t extra = in.ConsumeIntegralInRange<std::size_t>(0, 6);
    for (std::size_t k = 0; k < extra; ++k) {
        std::vector<double> percent(inks);
        for (double& p : percent) p = in.ConsumeIntegralInRange<int>(0, 100);
        AddPatch(percent);
    }
    // Arbitrary values in chosen places.
    const unsigned deviceEdits = in.ConsumeIntegralInRange<unsigned>(0, 2);
    for (unsigned k = 0; k < deviceEdits; ++k)
        chart.deviceValues[in.ConsumeIntegralInRange<std::size_t>(0, chart.deviceValues.size() - 1)] = AnyDouble(in);
    const unsigned spectralEdits = in.ConsumeIntegralInRange<unsigned>(0, 3);
    for (unsigned k = 0; k < spectralEdits; ++k)
        chart.spectra[in.ConsumeIntegralInRange<std::size_t>(0, chart.spectra.size() - 1)] = AnyDouble(in);
    return chart;
}

ZKSModelBuildOptions Options(FuzzedDataProvider& in, const std::vector<double>& grid, std::size_t patches) {
    ZKSModelBuildOptions o;
    o.gridPercent = grid;
    if (in.ConsumeIntegralInRange<int>(0, 7) == 7) o.gridPercent.back() = AnyDouble(in);
    o.method = in.ConsumeBool() ? MODELFIT_REFINED : MODELFIT_CLASSIC;
    o.maxIterations = in.ConsumeIntegralInRange<unsigned>(1, 3);
    if (in.ConsumeIntegralInRange<int>(0, 7) == 7) {
        o.nMin = AnyDouble(in);
        o.nMax = AnyDouble(in);
    } else {
        // A narrow range keeps the n search short.
        o.nMin = in.ConsumeFloatingPointInRange<double>(1.0, 4.0);
        o.nMax = o.nMin + in.ConsumeFloatingPointInRange<double>(0.0, 1.0);
    }
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 2: o.fixedN = o.nMin + (o.nMax - o.nMin) * in.ConsumeProbability<double>(); break;
        case 3: o.fixedN = AnyDouble(in); break;
        default: break;
    }
    o.fitN = in.ConsumeBool();
    o.estimateMissingNodes = in.ConsumeBool();
    const unsigned training = in.ConsumeIntegralInRange<unsigned>(0, 4);
    for (unsigned k = 0; k < training; ++k) o.trainingPatches.push_back(in.ConsumeIntegralInRange<std::size_t>(0, patches));
    return o;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SetCPUCountOverride(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    std::vector<double> grid;
    const ZKSModelChart chart = Chart(in, grid);
    const ZKSModelBuildOptions options = Options(in, grid, chart.PatchCount());
    try {
        const ZKCModelBuilder builder(chart);
        const ZKSBuiltModel built = builder.Build(options);
        const ZKSPrinterModelArrays& m = built.model;
        Require(CheckModelArrays(m.numberOfInks, m.numberOfGridPoints, m.gridPointsF.data(), m.effectiveRampsF.data(),
                                 m.matrixSchemeF.data(), m.matrixSchemeF.size(), static_cast<float>(m.n))
                    .empty(),
                "the built model passes the model check");
        Require(std::isfinite(built.fitError.mean) && std::isfinite(built.fitError.max), "the fit error is finite");
        Require(built.trainingDeltaE.size() == built.trainingPatches.size(), "one difference per training patch");
    } catch (const ZKCModelBuildingError&) {
        // A refusal naming the problem is a correct answer.
    }
    return 0;
}
