// 8-bit CLUT application: kelma's CLUT driver against Little CMS on the same
// pixels and the same 17-point node tables (CMYK -> 3 on 17^4 nodes, RGB -> 3
// on 17^3 nodes), on one thread and on all processors, random pixels (cache
// hostile) and a smooth image with noise. Prints pixels per second and, at
// the end, the kelma / Little CMS ratio per case (medians when repeated) and
// kelma's speed-up from one thread to all.
//
//   build/bench/bench_clut --benchmark_filter='BM_Kelma|BM_LittleCMS' --benchmark_repetitions=9
//       --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true
//
// On a shared machine, random interleaving spreads both peers' repetitions
// over the same stretch of time, so their medians see the same load, and the
// cases are also timed by the process's CPU time ("CPU time"), which other
// processes do not inflate. The wall-clock thread speed-up needs otherwise
// idle processors; the CPU-time comparison shows whether threads slow each
// other down.
//
// Little CMS is a peer only: a device link holding one CLUT stage filled from
// the same nodes (8-bit node v as 16-bit v * 257), transformed with
// cmsDoTransform (default flags: its own 8-bit optimisations apply). Its
// results differ slightly (tetrahedral vs multilinear); kelma's driver is
// checked against its reference loop before timing and the run aborts if a
// single byte differs.
#include <benchmark/benchmark.h>
#include <lcms2.h>

#include <time.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/threading/Threading.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr std::uint32_t kGrid = 17;
constexpr std::size_t kPixels = std::size_t(1) << 20;

// Smooth, non-linear tables in 0..255 so that neighbouring nodes differ.
std::vector<std::uint8_t> CmykNodes() {
    std::vector<std::uint8_t> nodes(kelma::ZKCWorkerCLUT_Thread::NodeArrayBytes(4, 3, kelma::CLUT_ACCURACY_17), 0);
    std::size_t i = 0;
    for (std::uint32_t c = 0; c < kGrid; ++c)
        for (std::uint32_t m = 0; m < kGrid; ++m)
            for (std::uint32_t y = 0; y < kGrid; ++y)
                for (std::uint32_t k = 0; k < kGrid; ++k) {
                    double C = c / 16.0, M = m / 16.0, Y = y / 16.0, K = k / 16.0;
                    double w = (1.0 - K) * (1.0 - 0.1 * C * M);
                    nodes[i++] = static_cast<std::uint8_t>(std::lround(255.0 * w * std::pow(1.0 - C, 1.2)));
                    nodes[i++] = static_cast<std::uint8_t>(std::lround(255.0 * w * std::pow(1.0 - M, 1.1)));
                    nodes[i++] = static_cast<std::uint8_t>(std::lround(255.0 * w * (1.0 - Y) * (1.0 - 0.05 * C)));
                }
    return nodes;
}

std::vector<std::uint8_t> RgbNodes() {
    std::vector<std::uint8_t> nodes(kelma::ZKCWorkerCLUT_Thread::NodeArrayBytes(3, 3, kelma::CLUT_ACCURACY_17), 0);
    std::size_t i = 0;
    for (std::uint32_t r = 0; r < kGrid; ++r)
        for (std::uint32_t g = 0; g < kGrid; ++g)
            for (std::uint32_t b = 0; b < kGrid; ++b) {
                double R = r / 16.0, G = g / 16.0, B = b / 16.0;
                nodes[i++] = static_cast<std::uint8_t>(std::lround(255.0 * std::pow(R, 1.0 / 2.2)));
                nodes[i++] = static_cast<std::uint8_t>(std::lround(255.0 * (0.8 * G + 0.2 * R * B)));
                nodes[i++] = static_cast<std::uint8_t>(std::lround(255.0 * std::sqrt(B * (0.5 + 0.5 * G))));
            }
    return nodes;
}

enum PixelKind { kRandom = 0, kImage = 1 };

std::vector<std::uint8_t> Pixels(unsigned channels, PixelKind kind) {
    std::vector<std::uint8_t> px(kPixels * channels);
    std::mt19937 rng(channels * 7 + kind);
    if (kind == kRandom) {
        for (auto& v : px) v = static_cast<std::uint8_t>(rng());
        return px;
    }
    // 1024 x 1024 image: gradients and a wave, plus +-3 of noise.
    std::uniform_int_distribution<int> noise(-3, 3);
    for (std::size_t p = 0; p < kPixels; ++p) {
        double x = (p % 1024) / 1023.0, y = (p / 1024) / 1023.0;
        double v[4] = {x, y, 0.5 + 0.5 * std::sin(6.0 * (x + y)), 0.3 * x * y};
        for (unsigned c = 0; c < channels; ++c) {
            int b = static_cast<int>(std::lround(255.0 * v[c])) + noise(rng);
            px[p * channels + c] = static_cast<std::uint8_t>(b < 0 ? 0 : (b > 255 ? 255 : b));
        }
    }
    return px;
}

// ---------------------------------------------------------------------------
// Little CMS peer

struct LcmsLink {
    cmsHPROFILE profile = nullptr;
    cmsHTRANSFORM transform = nullptr;

    LcmsLink(const std::vector<std::uint8_t>& nodes, unsigned inputs) {
        std::size_t count = 1;
        for (unsigned a = 0; a < inputs; ++a) count *= kGrid;
        std::vector<cmsUInt16Number> table(count * 3);
        for (std::size_t i = 0; i < table.size(); ++i) table[i] = static_cast<cmsUInt16Number>(nodes[i] * 257u);
        cmsPipeline* lut = cmsPipelineAlloc(nullptr, inputs, 3);
        cmsPipelineInsertStage(lut, cmsAT_BEGIN, cmsStageAllocCLut16bit(nullptr, kGrid, inputs, 3, table.data()));
        profile = cmsCreateProfilePlaceholder(nullptr);
        cmsSetProfileVersion(profile, 4.3);
        cmsSetDeviceClass(profile, cmsSigLinkClass);
        cmsSetColorSpace(profile, inputs == 4 ? cmsSigCmykData : cmsSigRgbData);
        cmsSetPCS(profile, cmsSigRgbData);
        cmsWriteTag(profile, cmsSigAToB0Tag, lut);
        cmsPipelineFree(lut);
        transform = cmsCreateTransform(profile, inputs == 4 ? TYPE_CMYK_8 : TYPE_RGB_8, nullptr, TYPE_RGB_8,
                                       INTENT_PERCEPTUAL, 0);
        if (transform == nullptr) {
            std::fprintf(stderr, "Little CMS refused the device link\n");
            std::abort();
        }
    }
    ~LcmsLink() {
        cmsDeleteTransform(transform);
        cmsCloseProfile(profile);
    }
};

// One slice of cmsDoTransform, run by the library's thread helper.
struct LcmsSlice {
    cmsHTRANSFORM transform;
    const std::uint8_t* in = nullptr;
    std::uint8_t* out = nullptr;
    std::uint32_t count = 0;
    void operator()() { cmsDoTransform(transform, in, out, count); }
};

void RunLcms(const LcmsLink& link, unsigned inputs, const std::vector<std::uint8_t>& px,
             std::vector<std::uint8_t>& out, unsigned threads, kelma::ZKCWorkerThreads& pool,
             std::vector<LcmsSlice>& slices) {
    std::vector<kelma::ZKSWorkShare> shares = kelma::SplitWork(kPixels, threads);
    slices.assign(shares.size(), LcmsSlice{link.transform});
    for (std::size_t i = 0; i < shares.size(); ++i) {
        slices[i].in = px.data() + shares[i].start * inputs;
        slices[i].out = out.data() + shares[i].start * 3;
        slices[i].count = static_cast<std::uint32_t>(shares[i].count);
        pool.Start(i, slices[i]);
    }
    pool.JoinAll(shares.size());
}

// ---------------------------------------------------------------------------

// Args: inputs, pixel kind, all processors (else one thread), clock (0: wall
// time, 1: the process's CPU time, summed over its threads).
unsigned ThreadsOf(const benchmark::State& state) {
    return state.range(2) != 0 ? kelma::CPUCount() : 1u;
}

std::string Label(const benchmark::State& state) {
    const unsigned threads = ThreadsOf(state);
    return std::string(state.range(0) == 4 ? "CMYK 17^4" : "RGB 17^3") +
           (state.range(1) == kRandom ? ", random" : ", image") + ", " + std::to_string(threads) +
           (threads == 1 ? " thread" : " threads") + (state.range(3) != 0 ? ", CPU time" : "");
}

// Times each iteration by the wall clock or, on a machine shared with other
// work, by the CPU time of the whole process (all its threads), which other
// processes' load does not inflate: a per-core rate for one thread.
template <class F>
void TimeIterations(benchmark::State& state, F&& run) {
    const bool cpu = state.range(3) != 0;
    auto now = [cpu] {
        timespec t{};
        clock_gettime(cpu ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC, &t);
        return t.tv_sec + 1e-9 * t.tv_nsec;
    };
    for (auto _ : state) {
        const double start = now();
        run();
        benchmark::ClobberMemory();
        state.SetIterationTime(now() - start);
    }
    state.SetItemsProcessed(state.iterations() * kPixels);
    state.SetLabel(Label(state));
}

void BM_Kelma(benchmark::State& state) {
    const unsigned inputs = static_cast<unsigned>(state.range(0));
    const PixelKind kind = static_cast<PixelKind>(state.range(1));
    const unsigned threads = ThreadsOf(state);
    const std::vector<std::uint8_t> nodes = inputs == 4 ? CmykNodes() : RgbNodes();
    const std::vector<std::uint8_t> px = Pixels(inputs, kind);
    std::vector<std::uint8_t> out(kPixels * 3), reference(kPixels * 3);

    kelma::SetCPUCountOverride(threads);
    kelma::ZKCWorkerCLUT_Thread driver(nodes.data(), inputs, 3, kelma::CLUT_ACCURACY_17, false);
    kelma::SetCPUCountOverride(0);
    // Bit-exactness against the plain reference loop, before any timing.
    if (inputs == 4) {
        kelma::ZKCWorkerCLUT_4x3 w(nodes.data(), kelma::CLUT_ACCURACY_17);
        w.SetBuffers(px.data(), reference.data(), kPixels);
        w.InterpolateWith(kelma::KERNEL_REFERENCE);
    } else {
        kelma::ZKCWorkerCLUT_3x3 w(nodes.data(), kelma::CLUT_ACCURACY_17);
        w.SetBuffers(px.data(), reference.data(), kPixels);
        w.InterpolateWith(kelma::KERNEL_REFERENCE);
    }
    driver.Init(px.data(), out.data(), kPixels);
    driver.Calculate();
    if (out != reference) {
        state.SkipWithError("driver differs from the reference loop");
        return;
    }
    TimeIterations(state, [&] {
        driver.Init(px.data(), out.data(), kPixels);
        driver.Calculate();
    });
}

void BM_LittleCMS(benchmark::State& state) {
    const unsigned inputs = static_cast<unsigned>(state.range(0));
    const PixelKind kind = static_cast<PixelKind>(state.range(1));
    const unsigned threads = ThreadsOf(state);
    const std::vector<std::uint8_t> nodes = inputs == 4 ? CmykNodes() : RgbNodes();
    const std::vector<std::uint8_t> px = Pixels(inputs, kind);
    std::vector<std::uint8_t> out(kPixels * 3);
    LcmsLink link(nodes, inputs);
    kelma::ZKCWorkerThreads pool(threads);
    std::vector<LcmsSlice> slices;
    TimeIterations(state, [&] { RunLcms(link, inputs, px, out, threads, pool, slices); });
    // How far the two interpolations drift apart on these pixels (information only).
    std::vector<std::uint8_t> ours(kPixels * 3);
    kelma::ZKCWorkerCLUT_Thread driver(nodes.data(), inputs, 3, kelma::CLUT_ACCURACY_17, false);
    driver.Init(px.data(), ours.data(), kPixels);
    driver.Calculate();
    int worst = 0;
    for (std::size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(int(out[i]) - int(ours[i])));
    state.counters["max_diff_vs_kelma"] = worst;
}

// Single-thread kernels on one worker, by dispatch variant: reference loop,
// SSSE3, AVX2, AVX-512 (where the processor runs them; SSE2 runs the
// reference loop and is left out). Args: inputs, variant, pixel kind.
void BM_Kernel(benchmark::State& state) {
    const unsigned inputs = static_cast<unsigned>(state.range(0));
    const auto variant = static_cast<kelma::KERNEL_VARIANT>(state.range(1));
    const PixelKind kind = static_cast<PixelKind>(state.range(2));
    if (!kelma::KernelVariantSupported(variant)) {
        state.SkipWithError("variant not supported by this processor");
        return;
    }
    const std::vector<std::uint8_t> nodes = inputs == 4 ? CmykNodes() : RgbNodes();
    const std::vector<std::uint8_t> px = Pixels(inputs, kind);
    std::vector<std::uint8_t> out(kPixels * 3);
    std::unique_ptr<kelma::ZKCWorkerCLUT_Base> w;
    if (inputs == 4)
        w = std::make_unique<kelma::ZKCWorkerCLUT_4x3>(nodes.data(), kelma::CLUT_ACCURACY_17);
    else
        w = std::make_unique<kelma::ZKCWorkerCLUT_3x3>(nodes.data(), kelma::CLUT_ACCURACY_17);
    w->SetBuffers(px.data(), out.data(), kPixels);
    for (auto _ : state) {
        w->InterpolateWith(variant);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPixels);
    state.SetLabel(std::string(inputs == 4 ? "CMYK" : "RGB") + (kind == kRandom ? " random, " : " image, ") +
                   kelma::KernelVariantName(kelma::ClutKernelVariant(variant)));
}

void Cases(benchmark::internal::Benchmark* b) {
    for (int inputs : {4, 3})
        for (int kind : {kRandom, kImage}) {
            b->Args({inputs, kind, 0, 0});
            b->Args({inputs, kind, 1, 0});
            b->Args({inputs, kind, 0, 1});
            b->Args({inputs, kind, 1, 1});
        }
    b->Unit(benchmark::kMillisecond)->UseManualTime();
}

BENCHMARK(BM_Kelma)->Apply(Cases);
BENCHMARK(BM_LittleCMS)->Apply(Cases);
BENCHMARK(BM_Kernel)
    ->ArgsProduct({{4, 3},
                   {kelma::KERNEL_REFERENCE, kelma::KERNEL_SSSE3, kelma::KERNEL_AVX2, kelma::KERNEL_AVX512},
                   {kRandom, kImage}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Keeps pixels per second by case (median aggregate when repeated) and prints
// the kelma / Little CMS ratios after the normal console output.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            const bool aggregate = r.run_type == Run::RT_Aggregate;
            if (aggregate && r.aggregate_name != "median") continue;
            auto it = r.counters.find("items_per_second");
            if (it == r.counters.end()) continue;
            std::string name = r.run_name.function_name;
            std::string key = r.run_name.args;
            if (!aggregate && seenMedian_.count(name + key)) continue;
            if (aggregate) seenMedian_[name + key] = true;
            rates_[name][key] = it->second.value;
            labels_[name + key] = r.report_label;
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-36s %14s %14s %8s\n", "case", "kelma px/s", "LittleCMS px/s", "ratio");
        for (const auto& [key, lcms] : rates_["BM_LittleCMS"]) {
            auto k = rates_["BM_Kelma"].find(key);
            if (k == rates_["BM_Kelma"].end()) continue;
            std::printf("%-36s %13.1fM %13.1fM %7.2fx\n", labels_["BM_Kelma" + key].c_str(), k->second / 1e6,
                        lcms / 1e6, k->second / lcms);
        }
        // Args "inputs/kind/all/clock": all processors against one, wall time.
        std::printf("\n%-36s %8s\n", "kelma, all threads / one thread", "speed-up");
        const auto& kelma = rates_["BM_Kelma"];
        for (const auto& [key, rate] : kelma) {
            if (key.size() < 4 || key.compare(key.size() - 4, 4, "/1/0") != 0) continue;
            auto one = kelma.find(key.substr(0, key.size() - 4) + "/0/0");
            if (one == kelma.end()) continue;
            std::printf("%-36s %7.2fx\n", labels_["BM_Kelma" + key].c_str(), rate / one->second);
        }
        // The same by CPU time: pixels per CPU second of all threads against
        // one thread's. 1.00 means the threads do not slow each other down
        // (caches, memory), so on idle processors the wall-clock speed-up
        // would be the thread count; it is the measure that holds while
        // other work shares the processors.
        std::printf("\n%-36s %8s\n", "kelma, CPU work per pixel, one / all", "ratio");
        for (const auto& [key, rate] : kelma) {
            if (key.size() < 4 || key.compare(key.size() - 4, 4, "/1/1") != 0) continue;
            auto one = kelma.find(key.substr(0, key.size() - 4) + "/0/1");
            if (one == kelma.end()) continue;
            std::printf("%-36s %7.2f\n", labels_["BM_Kelma" + key].c_str(), rate / one->second);
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> rates_;
    std::map<std::string, std::string> labels_;
    std::map<std::string, bool> seenMedian_;
};

}  // namespace

int main(int argc, char** argv) {
    if (!kelma_test::CapKernelVariantFromEnvironment()) return 2;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
