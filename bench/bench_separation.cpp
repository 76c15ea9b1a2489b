// Separation (ZKCSeparation): accuracy, limits, black generation, gamut,
// smoothness and speed, on the embedded 4-ink press model and a generated
// press-like 7-ink model (C, M, Y, K, orange, green, violet), with total
// coverage 300 %, maximum black 100 %, GCR 50, D50 / 2 degree, CIELAB
// relative to the paper.
//
//   build/bench/bench_separation [--quick] [--csv DIR]
//
// Prints a report. Every Delta E is CIEDE2000 between a target and the
// library's prediction (PredictColorimetry) of the ink bytes returned for it.
//  1. Round trip through the batch call (Separate): the CIELAB of every
//     11^4 CMYK combination (0, 10, ..., 100 %) within the limits; for 7
//     inks of every 6^7 combination (0, 20, ..., 100 %) within the limits.
//     Also the continuous solution before the bytes are chosen, and plain
//     rounding of it, for comparison.
//  2. Round trip through the 33-point table (a CLUT driver from CLUT())
//     applied to the targets' CIELAB bytes (2.55 L*, a* + 128, b* + 128,
//     rounded).
//  3. Limits: the batch call on a dense CIELAB grid (L* 0..100 step 2.5, a*
//     and b* -128..127 step 4, mostly out of gamut), the tables' nodes and
//     the tables applied to 2^20 random CIELAB bytes: outputs over the total
//     or the black limit (must be 0).
//  4. Black generation on the neutral axis (media-relative a* = b* = 0, L*
//     from the darkest grey to 97.5): black for GCR 0, 25, 50, 75, 100
//     (monotone in GCR and in darkness), GCR 0 against Kmin, and black
//     length 30 / width 40 against its curve.
//  5. Gamut: CIELAB volume of the 7-ink separation's gamut and of its CMYK
//     sub-model's (in-gamut points of a 2-unit grid x 8).
//  6. Smoothness of the 33-point tables (ZKCSeparation::TableSmoothness).
//  7. Speed: 33^3 tables for 4 and 7 inks (wall time, all processors,
//     median of 3 builds; --quick: one), and the batch call.
// With --csv DIR it writes the inks along the neutral axis and along a hue
// circle (L* 60, chroma 60) for bench/plot_separation.py.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kelma/kelma.h"
#include "kelma/separation/ZKCSeparation_Evaluator.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

void PrintStats(const char* what, const std::vector<double>& v) {
    const ZKSStatistics s = Summarize(v);
    std::printf("  %-52s n %7zu  mean %.4f  median %.4f  p95 %.4f  max %.4f\n", what, s.count, s.mean, s.median, s.p95,
                s.max);
}

ZKCUserParameter_Output Settings(unsigned long gcr = 50) {
    ZKCUserParameter_Output p;
    p.SetColorantCoverage(300);
    p.SetMaxBlack(100);
    p.SetGCR(gcr);
    return p;
}

// Every combination of `levels` evenly spaced amounts of each ink, within the limits.
std::vector<unsigned char> DeviceGrid(unsigned int inks, unsigned int levels, const ZKCSeparation& sep) {
    std::vector<unsigned char> out;
    std::size_t total = 1;
    for (unsigned int i = 0; i < inks; ++i) total *= levels;
    std::vector<unsigned char> s(inks);
    for (std::size_t q = 0; q < total; ++q) {
        std::size_t r = q;
        unsigned int sum = 0;
        for (unsigned int i = 0; i < inks; ++i) {
            s[i] = static_cast<unsigned char>(DigitalLevel(100.0 * (r % levels) / (levels - 1)));
            r /= levels;
            sum += s[i];
        }
        if (sum > sep.TotalLimit() || s[sep.BlackInk()] > sep.BlackLimit()) continue;
        out.insert(out.end(), s.begin(), s.end());
    }
    return out;
}

std::vector<double> Predict(const ZKCSSE_KELMA_Data& model, const std::vector<unsigned char>& inks) {
    const std::size_t n = inks.size() / model.NumberOfInks();
    std::vector<double> lab(3 * n);
    PredictColorimetry(model, n, inks.data(), 0, true, nullptr, lab.data());
    return lab;
}

std::vector<double> DeltaE(const std::vector<double>& a, const std::vector<double>& b) {
    std::vector<double> d(a.size() / 3);
    DeltaE2000(a.data(), b.data(), d.data(), d.size());
    return d;
}

unsigned char LabByte(double v) { return static_cast<unsigned char>(std::min(255.0, std::max(0.0, std::floor(v + 0.5)))); }

std::size_t LimitViolations(const ZKCSeparation& sep, const unsigned char* inks, std::size_t count) {
    const unsigned int N = sep.NumberOfInks();
    std::size_t bad = 0;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned int sum = 0;
        for (unsigned int k = 0; k < N; ++k) sum += inks[i * N + k];
        if (sum > sep.TotalLimit() || inks[i * N + sep.BlackInk()] > sep.BlackLimit()) ++bad;
    }
    return bad;
}

struct TableRun {
    double seconds = 0;
    std::vector<unsigned char> nodes;
    std::vector<bool> inGamut;
};

TableRun BuildTable(const ZKCSeparation& sep, unsigned int n, int repeats) {
    std::vector<double> times;
    TableRun run;
    for (int r = 0; r < repeats; ++r) {
        const auto t0 = Clock::now();
        run.nodes = sep.NodeTable(n, &run.inGamut);
        times.push_back(Seconds(t0, Clock::now()));
    }
    std::sort(times.begin(), times.end());
    run.seconds = times[times.size() / 2];
    return run;
}

// The table as a CLUT driver (the same nodes CLUT() would build).
std::unique_ptr<ZKCWorkerCLUT_Thread> Driver(const ZKCSeparation& sep, std::vector<unsigned char> nodes, unsigned n) {
    nodes.resize(ZKCWorkerCLUT_Thread::NodeArrayBytes(3, sep.NumberOfInks(), CLUT_ACCURACY(n)), 0);
    return std::make_unique<ZKCWorkerCLUT_Thread>(nodes.data(), 3, sep.NumberOfInks(), CLUT_ACCURACY(n), true);
}

std::vector<unsigned char> Apply(ZKCWorkerCLUT_Thread& clut, const std::vector<unsigned char>& labBytes, unsigned N) {
    std::vector<unsigned char> out(labBytes.size() / 3 * N);
    clut.Init(labBytes.data(), out.data(), labBytes.size() / 3);
    clut.Calculate();
    return out;
}

struct Report {
    const char* name;
    ZKCSSE_KELMA_Data model;
    unsigned int gridLevels;
};

void RoundTrips(const ZKCSeparation& sep, const ZKCSSE_KELMA_Data& model, unsigned int levels,
                const std::vector<unsigned char>& table33) {
    const unsigned int N = sep.NumberOfInks();
    const std::vector<unsigned char> grid = DeviceGrid(N, levels, sep);
    const std::size_t n = grid.size() / N;
    const std::vector<double> target = Predict(model, grid);
    std::vector<ZKSSeparationResult> res(n);
    const auto t0 = Clock::now();
    sep.Analyse(target.data(), n, res.data());
    const double seconds = Seconds(t0, Clock::now());
    std::vector<float> targetF(target.begin(), target.end());
    std::vector<unsigned char> bytes(n * N);
    const auto t1 = Clock::now();
    sep.Separate(targetF.data(), n, bytes.data());
    const double separateSeconds = Seconds(t1, Clock::now());
    std::size_t in = 0, differ = 0;
    std::vector<unsigned char> inBytes, rounded;
    std::vector<double> inTarget, continuous;
    std::vector<double> inContinuousDE;
    const ZKCSeparation_Evaluator evaluator(model, 0, true);
    for (std::size_t i = 0; i < n; ++i) {
        for (unsigned int k = 0; k < N; ++k) differ += bytes[i * N + k] != res[i].bytes[k];
        if (!res[i].inGamut) continue;
        ++in;
        inBytes.insert(inBytes.end(), bytes.begin() + i * N, bytes.begin() + (i + 1) * N);
        inTarget.insert(inTarget.end(), target.begin() + 3 * i, target.begin() + 3 * i + 3);
        double lab[3];
        evaluator.Lab(res[i].inks, lab, nullptr);
        inContinuousDE.push_back(DeltaE2000(lab, &target[3 * i]));
        for (unsigned int k = 0; k < N; ++k) rounded.push_back(LabByte(res[i].inks[k]));
    }
    std::printf("  %zu device colours within the limits, %zu in the separation's gamut (%zu outside)\n", n, in, n - in);
    std::printf("  batch call: %.2f s (%.0f colours/s); Analyse and Separate bytes differ in %zu places\n",
                separateSeconds, n / separateSeconds, differ);
    (void)seconds;
    PrintStats("continuous solution, before bytes (in gamut)", inContinuousDE);
    PrintStats("bytes by nearest rounding of it (for comparison)", DeltaE(Predict(model, rounded), inTarget));
    PrintStats("batch call: chosen bytes (in gamut)", DeltaE(Predict(model, inBytes), inTarget));
    PrintStats("batch call: chosen bytes (all, vs target)", DeltaE(Predict(model, bytes), target));
    std::printf("  limits: %zu of %zu batch outputs over a limit\n", LimitViolations(sep, bytes.data(), n), n);

    // Through the 33-point table on CIELAB bytes.
    std::unique_ptr<ZKCWorkerCLUT_Thread> clut = Driver(sep, table33, 33);
    std::vector<unsigned char> labBytes;
    for (std::size_t i = 0; i < inTarget.size() / 3; ++i) {
        labBytes.push_back(LabByte(2.55 * inTarget[3 * i]));
        labBytes.push_back(LabByte(inTarget[3 * i + 1] + 128.0));
        labBytes.push_back(LabByte(inTarget[3 * i + 2] + 128.0));
    }
    const std::vector<unsigned char> viaTable = Apply(*clut, labBytes, N);
    std::vector<double> decoded;
    for (std::size_t i = 0; i < labBytes.size(); i += 3)
        decoded.insert(decoded.end(), {labBytes[i] / 2.55, labBytes[i + 1] - 128.0, labBytes[i + 2] - 128.0});
    const std::vector<double> viaTableLab = Predict(model, viaTable);
    PrintStats("33-point table on CIELAB bytes, vs target", DeltaE(viaTableLab, inTarget));
    PrintStats("33-point table on CIELAB bytes, vs the bytes' colour", DeltaE(viaTableLab, decoded));
    std::printf("  limits: %zu of %zu table outputs over a limit\n",
                LimitViolations(sep, viaTable.data(), viaTable.size() / N), viaTable.size() / N);
}

void Limits(const ZKCSeparation& sep, const std::vector<unsigned char>& table33) {
    const unsigned int N = sep.NumberOfInks();
    std::vector<float> lab;
    for (double L = 0.0; L <= 100.0; L += 2.5)
        for (double a = -128.0; a <= 127.0; a += 4.0)
            for (double b = -128.0; b <= 127.0; b += 4.0) {
                lab.push_back(static_cast<float>(L));
                lab.push_back(static_cast<float>(a));
                lab.push_back(static_cast<float>(b));
            }
    const std::size_t n = lab.size() / 3;
    std::vector<double> labD(lab.begin(), lab.end());
    std::vector<bool> inGamut(n);
    {
        std::unique_ptr<bool[]> flags(new bool[n]);
        sep.InGamut(labD.data(), n, flags.get());
        for (std::size_t i = 0; i < n; ++i) inGamut[i] = flags[i];
    }
    std::vector<unsigned char> bytes(n * N);
    const auto t0 = Clock::now();
    sep.Separate(lab.data(), n, bytes.data());
    const double seconds = Seconds(t0, Clock::now());
    std::size_t in = std::count(inGamut.begin(), inGamut.end(), true);
    std::printf("  dense CIELAB grid: %zu colours (%zu in gamut, %zu out) in %.2f s: %zu outputs over a limit\n", n,
                in, n - in, seconds, LimitViolations(sep, bytes.data(), n));
    std::printf("  33-point table: %zu nodes, %zu over a limit\n", table33.size() / N,
                LimitViolations(sep, table33.data(), table33.size() / N));
    std::unique_ptr<ZKCWorkerCLUT_Thread> clut = Driver(sep, table33, 33);
    std::mt19937 rng(7);
    std::vector<unsigned char> random(3u << 20);
    for (auto& v : random) v = static_cast<unsigned char>(rng() & 0xFF);
    const std::vector<unsigned char> out = Apply(*clut, random, N);
    std::printf("  33-point table on %zu random CIELAB bytes: %zu outputs over a limit\n", out.size() / N,
                LimitViolations(sep, out.data(), out.size() / N));
}

void BlackGeneration(const ZKCSSE_KELMA_Data& model, const char* csvDir) {
    const unsigned int N = model.NumberOfInks();
    const unsigned long gcrs[5] = {0, 25, 50, 75, 100};
    std::vector<double> L;
    std::vector<std::vector<ZKSSeparationResult>> byGcr;
    double darkest = 0.0;
    for (unsigned long g : gcrs) {
        ZKCSeparation sep(model, Settings(g), 0, true);
        if (L.empty()) {
            darkest = sep.BlackPointCIELAB()[0];
            for (double l = 97.5; l > darkest + 1.0; l -= 2.5) L.push_back(l);
        }
        std::vector<double> lab;
        for (double l : L) lab.insert(lab.end(), {l, 0.0, 0.0});
        std::vector<ZKSSeparationResult> res(L.size());
        sep.Analyse(lab.data(), L.size(), res.data());
        byGcr.push_back(res);
    }
    std::size_t notMonotoneGcr = 0, notMonotoneDark = 0, gcr0 = 0, bytesFar = 0, out = 0;
    for (std::size_t i = 0; i < L.size(); ++i) {
        for (std::size_t g = 0; g < 5; ++g) {
            const ZKSSeparationResult& r = byGcr[g][i];
            out += !r.inGamut;
            bytesFar += std::fabs(r.bytes[3] - r.black) > 1.0;
            if (g > 0 && r.black < byGcr[g - 1][i].black - 1e-6) ++notMonotoneGcr;
            if (i > 0 && r.black < byGcr[g][i - 1].black - 1e-6) ++notMonotoneDark;
        }
        if (std::fabs(byGcr[0][i].black - byGcr[0][i].kMin) > 1e-9) ++gcr0;
    }
    std::printf("  neutral axis L* 97.5 .. %.1f (%zu greys; darkest reachable L* %.2f), GCR 0/25/50/75/100:\n",
                L.back(), L.size(), darkest);
    std::printf("    out of gamut %zu; black decreasing with GCR %zu times, with darkness %zu times;\n", out,
                notMonotoneGcr, notMonotoneDark);
    std::printf("    GCR 0 black != Kmin %zu times; black byte more than 1 from the black chosen %zu times\n", gcr0,
                bytesFar);
    std::printf("    %6s %8s %8s | %7s %7s %7s %7s %7s (black, bytes)\n", "L*", "Kmin", "Kmax", "GCR 0", "25", "50",
                "75", "100");
    for (std::size_t i = 0; i < L.size(); i += 4) {
        std::printf("    %6.1f %8.2f %8.2f |", L[i], byGcr[2][i].kMin, byGcr[2][i].kMax);
        for (std::size_t g = 0; g < 5; ++g) std::printf(" %7.2f", byGcr[g][i].black);
        std::printf("\n");
    }
    // Black length 30, width 40.
    ZKCUserParameter_Output p = Settings();
    p.SetBlackLength(30);
    p.SetBlackWidth(40);
    ZKCSeparation sep(model, p, 0, true);
    std::vector<double> lab;
    for (double l : L) lab.insert(lab.end(), {l, 0.0, 0.0});
    std::vector<ZKSSeparationResult> res(L.size());
    sep.Analyse(lab.data(), L.size(), res.data());
    double worst = 0.0;
    const double Lp = sep.PaperCIELAB()[0], Lb = sep.BlackPointCIELAB()[0];
    for (std::size_t i = 0; i < L.size(); ++i) {
        const double D = std::min(100.0, std::max(0.0, 100.0 * (Lp - L[i]) / (Lp - Lb)));
        const double z = (D - 30.0) / 40.0;
        const double s = z <= 0 ? 0 : (z >= 1 ? 1 : z * z * (3 - 2 * z));
        const double expect = res[i].kMin + s * (res[i].kMax - res[i].kMin);
        worst = std::max(worst, std::fabs(res[i].black - expect));
    }
    std::printf("  black length 30 / width 40: largest difference from Kmin + s(z) (Kmax - Kmin): %.2e bytes\n",
                worst);
    if (csvDir != nullptr) {
        std::ofstream f(std::string(csvDir) + "/separation_neutral_" + std::to_string(N) + ".csv");
        f << "L,gcr,kmin,kmax,black";
        for (unsigned int k = 0; k < N; ++k) f << ",ink" << k;
        f << "\n";
        for (std::size_t g = 0; g < 5; ++g)
            for (std::size_t i = 0; i < L.size(); ++i) {
                const ZKSSeparationResult& r = byGcr[g][i];
                f << L[i] << "," << gcrs[g] << "," << r.kMin << "," << r.kMax << "," << r.black;
                for (unsigned int k = 0; k < N; ++k) f << "," << 100.0 * r.bytes[k] / 255.0;
                f << "\n";
            }
    }
}

// The hue circle of the pictures: beyond CMYK's reach at some hues.
constexpr double kHueL = 60.0, kHueC = 60.0;

void HueCircle(const ZKCSeparation& sep, const char* csvDir) {
    if (csvDir == nullptr) return;
    const unsigned int N = sep.NumberOfInks();
    std::vector<double> lab;
    for (int h = 0; h < 360; ++h) {
        const double r = h * 3.14159265358979323846 / 180.0;
        lab.insert(lab.end(), {kHueL, kHueC * std::cos(r), kHueC * std::sin(r)});
    }
    std::vector<ZKSSeparationResult> res(360);
    sep.Analyse(lab.data(), 360, res.data());
    std::ofstream f(std::string(csvDir) + "/separation_hue_" + std::to_string(N) + ".csv");
    f << "hue,in_gamut,code";
    for (unsigned int k = 0; k < N; ++k) f << ",ink" << k;
    f << "\n";
    for (int h = 0; h < 360; ++h) {
        f << h << "," << res[h].inGamut << "," << res[h].code;
        for (unsigned int k = 0; k < N; ++k) f << "," << 100.0 * res[h].bytes[k] / 255.0;
        f << "\n";
    }
}

void Smoothness(const ZKCSeparation& sep, const TableRun& t) {
    const ZKSTableSmoothness s = ZKCSeparation::TableSmoothness(t.nodes.data(), 33, sep.NumberOfInks(), &t.inGamut);
    const std::size_t in = std::count(t.inGamut.begin(), t.inGamut.end(), true);
    std::printf("  33-point table (%zu of %zu nodes in gamut): second differences in %%: max %.2f, p99 %.2f, mean "
                "%.3f; over in-gamut triples max %.2f, p99 %.2f\n",
                in, t.inGamut.size(), s.max, s.p99, s.mean, s.inGamutMax, s.inGamutP99);
}

double GamutVolume(const ZKCSeparation& sep) {
    std::vector<double> lab;
    const double step = 2.0;
    for (double L = 1.0; L < 100.0; L += step)
        for (double a = -127.0; a < 128.0; a += step)
            for (double b = -127.0; b < 128.0; b += step) lab.insert(lab.end(), {L, a, b});
    const std::size_t n = lab.size() / 3;
    std::unique_ptr<bool[]> in(new bool[n]);
    sep.InGamut(lab.data(), n, in.get());
    return static_cast<double>(std::count(in.get(), in.get() + n, true)) * step * step * step;
}

}  // namespace

int main(int argc, char** argv) {
    if (!kelma_test::CapKernelVariantFromEnvironment()) return 2;
    bool quick = false;
    const char* csvDir = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) quick = true;
        else if (std::strcmp(argv[i], "--csv") == 0 && i + 1 < argc) csvDir = argv[++i];
    }
    const int repeats = quick ? 1 : 3;
    std::printf("kelma separation benchmark: %u worker threads, TAC 300 %%, max black 100 %%, GCR 50, D50 2 deg, "
                "media-relative\n",
                CPUCount());

    // 4 inks: the embedded press model.
    {
        const ZKCSSE_KELMA_Data model = DefaultPressModel();
        std::printf("\n== 4 inks: embedded press model (APTEC PC10 CMYK)\n");
        const auto t0 = Clock::now();
        ZKCSeparation sep(model, Settings(), 0, true);
        std::printf("  construction %.3f s; paper L*a*b* %.2f %.2f %.2f; darkest %.2f %.2f %.2f; limits %u / %u bytes\n",
                    Seconds(t0, Clock::now()), sep.PaperCIELAB()[0], sep.PaperCIELAB()[1], sep.PaperCIELAB()[2],
                    sep.BlackPointCIELAB()[0], sep.BlackPointCIELAB()[1], sep.BlackPointCIELAB()[2],
                    sep.TotalLimit(), sep.BlackLimit());
        const TableRun t33 = BuildTable(sep, 33, repeats);
        const TableRun t17 = BuildTable(sep, 17, repeats);
        std::printf("  speed: 33^3 table %.2f s, 17^3 table %.2f s (median of %d)\n", t33.seconds, t17.seconds, repeats);
        std::printf(" round trip, 11^4 grid:\n");
        RoundTrips(sep, model, 11, t33.nodes);
        std::printf(" limits:\n");
        Limits(sep, t33.nodes);
        std::printf(" black generation:\n");
        BlackGeneration(model, csvDir);
        std::printf(" smoothness:\n");
        Smoothness(sep, t33);
        HueCircle(sep, csvDir);
    }

    // 7 inks: generated press-like model.
    {
        const ZKCSSE_KELMA_Data model = kelma_test::MakePressLikeModel(7, 3, 2.0).Build(false);
        std::printf("\n== 7 inks: generated press-like model (C, M, Y, K, orange, green, violet; 3 grid points)\n");
        const auto t0 = Clock::now();
        ZKCSeparation sep(model, Settings(), 0, true);
        std::printf("  construction %.3f s (%zu ink subsets); paper %.2f %.2f %.2f; darkest %.2f %.2f %.2f\n",
                    Seconds(t0, Clock::now()), sep.SubsetCodes().size(), sep.PaperCIELAB()[0], sep.PaperCIELAB()[1],
                    sep.PaperCIELAB()[2], sep.BlackPointCIELAB()[0], sep.BlackPointCIELAB()[1],
                    sep.BlackPointCIELAB()[2]);
        const TableRun t33 = BuildTable(sep, 33, repeats);
        std::printf("  speed: 33^3 table %.2f s (median of %d)\n", t33.seconds, repeats);
        std::printf(" round trip, %s grid:\n", quick ? "4^7" : "6^7");
        RoundTrips(sep, model, quick ? 4 : 6, t33.nodes);
        std::printf(" limits:\n");
        Limits(sep, t33.nodes);
        std::printf(" black generation:\n");
        BlackGeneration(model, csvDir);
        std::printf(" smoothness:\n");
        Smoothness(sep, t33);
        HueCircle(sep, csvDir);
        std::printf(" gamut volume (CIELAB units^3):\n");
        ZKCSSE_KELMA_Datafilter cmyk(model, 0x0F);
        ZKCSeparation sepCMYK(cmyk.GetKELMA_Data(), Settings(), 0, true);
        const double v7 = GamutVolume(sep), v4 = GamutVolume(sepCMYK);
        std::printf("  7 inks %.0f, CMYK sub-model %.0f: x %.3f\n", v7, v4, v7 / v4);
    }
    return 0;
}
