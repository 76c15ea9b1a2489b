// Build time and peak memory of CLUT construction from printer models:
//   clut        one 17-point CLUT from a 4-ink model (ZKCWorkerCLUT_Thread)
//   dispatcher  the sub-model dispatcher walking all 35 four-ink subsets of a
//               7-ink model at 17 points, applying each CLUT to 1 M pixels
//   weights     creating the shared weight tables alone (three and four inputs)
// Both CLUT modes include the shared four-input weight table (64 MiB), which
// the first worker creates and the last one frees: the dispatcher frees and
// recreates it on every step. Peak memory is the process's maximum resident
// set (getrusage ru_maxrss); run one mode per process to see its own peak:
//   build-clut2/bench/bench_clut_memory clut
//   build-clut2/bench/bench_clut_memory dispatcher
//   build-clut2/bench/bench_clut_memory weights
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "kelma/clut/ClutTables.h"
#include "kelma/clut/ZKCKELMA_SubModel_Dispatcher.h"
#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/threading/Threading.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

double PeakMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0;  // Linux reports KiB
}

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

std::vector<unsigned char> RandomPixels(std::size_t count) {
    std::vector<unsigned char> px(count * 4);
    std::mt19937 rng(3);
    for (auto& v : px) v = static_cast<unsigned char>(rng());
    return px;
}

void OneClut() {
    kelma::ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(4, 5, 2.2, 42).Build();
    const double before = PeakMiB();
    std::vector<double> times;
    for (int run = 0; run < 5; ++run) {
        Clock::time_point start = Clock::now();
        kelma::ZKCWorkerCLUT_Thread clut(model, kelma::CLUT_ACCURACY_17);
        times.push_back(Seconds(start));
    }
    std::sort(times.begin(), times.end());
    std::printf("17-point 4-ink CLUT on %u threads: build %.1f ms (median of 5, min %.1f, max %.1f)\n",
                kelma::CPUCount(), 1e3 * times[2], 1e3 * times[0], 1e3 * times[4]);
    std::printf("peak RSS: %.1f MiB before the CLUT, %.1f MiB after (+%.1f MiB)\n", before, PeakMiB(),
                PeakMiB() - before);
    const std::size_t cells = std::size_t(17 * 17 * 17 * 17) * 48;
    const std::size_t nodes = kelma::ZKCWorkerCLUT_Thread::NodeArrayBytes(4, 3, kelma::CLUT_ACCURACY_17);
    std::printf("  of which: weight table %.1f MiB (shared; whole 2 MiB pages), cell blocks %.2f MiB and node"
                " array %.2f MiB, one copy shared by the %u workers\n",
                (std::size_t(1048577) * 64) / 1048576.0, cells / 1048576.0, nodes / 1048576.0, kelma::CPUCount());
}

void Weights() {
    for (unsigned inputs : {3u, 4u}) {
        std::vector<double> times;
        for (int run = 0; run < 5; ++run) {
            Clock::time_point start = Clock::now();
            kelma::ZKCClutWeightTable table(inputs);
            times.push_back(Seconds(start));
        }
        std::sort(times.begin(), times.end());
        std::printf("%u-input weight table (%zu rows of %u): create %.2f ms (median of 5, min %.2f, max %.2f)\n",
                    inputs, (std::size_t(1) << (5 * inputs)) + 1, 1u << inputs, 1e3 * times[2],
                    1e3 * times[0], 1e3 * times[4]);
    }
    std::printf("peak RSS: %.1f MiB\n", PeakMiB());
}

void WalkDispatcher() {
    kelma::ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(7, 3, 2.2, 42).Build();
    std::vector<unsigned long> codes;
    for (unsigned long code = 0; code < 128; ++code)
        if (__builtin_popcountl(code) == 4) codes.push_back(code);
    const std::size_t pixels = std::size_t(1) << 20;
    std::vector<unsigned char> in = RandomPixels(pixels), out(pixels * 3);
    const double before = PeakMiB();

    Clock::time_point start = Clock::now();
    kelma::ZKCKELMA_SubModel_Dispatcher dispatcher(model, kelma::CLUT_ACCURACY_17);
    dispatcher.SetCodeList(codes);
    double building = Seconds(start);
    double applying = 0.0;
    unsigned visited = 0;
    for (;;) {
        Clock::time_point apply = Clock::now();
        dispatcher.Init(in.data(), out.data(), pixels);
        dispatcher.Calculate();
        applying += Seconds(apply);
        ++visited;
        if (dispatcher.IsLast()) break;
        Clock::time_point step = Clock::now();
        dispatcher.Next();
        building += Seconds(step);
    }
    std::printf("dispatcher, 7-ink model, %u four-ink subsets at 17 points on %u threads:\n", visited,
                kelma::CPUCount());
    std::printf("  building %.2f s (%.1f ms per subset), applying 1 M pixels each %.2f s\n", building,
                1e3 * building / visited, applying);
    std::printf("  peak RSS: %.1f MiB before, %.1f MiB after (+%.1f MiB)\n", before, PeakMiB(), PeakMiB() - before);
}

}  // namespace

int main(int argc, char** argv) {
    if (!kelma_test::CapKernelVariantFromEnvironment()) return 2;
    const char* mode = argc > 1 ? argv[1] : "clut";
    if (std::strcmp(mode, "clut") == 0) {
        OneClut();
    } else if (std::strcmp(mode, "dispatcher") == 0) {
        WalkDispatcher();
    } else if (std::strcmp(mode, "weights") == 0) {
        Weights();
    } else {
        std::fprintf(stderr, "usage: %s clut|dispatcher|weights\n", argv[0]);
        return 1;
    }
    return 0;
}
