#include "kelma/separation/ZKCSeparation.h"

#include <algorithm>
#include <cmath>

#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/common/LibraryErrors.h"
#include "kelma/evaluation/Statistics.h"
#include "kelma/separation/ZKCSeparation_Core.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

namespace {

// Colours per round of solving and predicting (bounds the candidates' memory).
constexpr std::size_t kChunk = 4096;

// Runs f(start, count) over [0, total) in the library's shares, one thread
// per processor (the calling thread alone for a single share).
template <class F>
void RunShares(std::size_t total, const F& f) {
    const std::vector<ZKSWorkShare> shares = SplitWork(total, CPUCount());
    if (shares.size() <= 1) {
        if (!shares.empty()) f(shares[0].start, shares[0].count);
        return;
    }
    struct Share {
        const F* f;
        ZKSWorkShare share;
        void operator()() const { (*f)(share.start, share.count); }
    };
    std::vector<Share> work;
    for (const ZKSWorkShare& s : shares) work.push_back({&f, s});
    ZKCWorkerThreads threads(work.size());
    for (std::size_t i = 0; i < work.size(); ++i) threads.Start(i, work[i]);
    threads.JoinAll(work.size());
}

template <class T>
void CheckFinite(const T* lab, std::size_t count) {
    for (std::size_t i = 0; i < 3 * count; ++i)
        if (!std::isfinite(lab[i])) throw kErrorNonFiniteCIELAB;
}

// Solves colours [0, count) (colour i from lab(i)) in the given order of
// independent runs, each run warm-starting from its previous colour, then
// chooses every colour's bytes.
template <class LabOf>
void SolveRuns(const ZKCSeparation::Core& core, std::size_t runs, std::size_t runLength, const LabOf& labOf,
               ZKSSeparationResult* results) {
    const std::size_t count = runs * runLength;
    std::vector<std::vector<unsigned char>> candidates(count);
    // A fixed interleaving of the runs spreads costly and cheap ones over
    // the shares; each run's result is independent of who computes it.
    auto runAt = [&](std::size_t i) { return runs > 1 ? (i * 7919) % runs : i; };
    RunShares(runs, [&](std::size_t start, std::size_t n) {
        for (std::size_t i = start; i < start + n; ++i) {
            const std::size_t run = runAt(i);
            ZKCSeparation::Core::Context ctx(core.subsets.size());
            for (std::size_t k = 0; k < runLength; ++k) {
                const std::size_t at = run * runLength + k;
                double lab[3];
                labOf(at, lab);
                core.Solve(lab, ctx, results[at], candidates[at]);
            }
        }
    });
    for (std::size_t start = 0; start < count; start += kChunk) {
        const std::size_t n = std::min(kChunk, count - start);
        std::vector<unsigned char> all;
        std::vector<unsigned int> counts(n);
        for (std::size_t i = 0; i < n; ++i) {
            all.insert(all.end(), candidates[start + i].begin(), candidates[start + i].end());
            counts[i] = static_cast<unsigned int>(candidates[start + i].size() / core.inks);
            std::vector<unsigned char>().swap(candidates[start + i]);
        }
        core.ChooseBytes(n, results + start, all, counts);
    }
}

}  // namespace

ZKCSeparation::ZKCSeparation(const ZKCSSE_KELMA_Data& model, const ZKCUserParameter_Output& parameters,
                             unsigned long illuminant, bool mediaRelative)
    : core_(std::make_shared<const Core>(model, parameters, illuminant, mediaRelative)) {}

ZKCSeparation::~ZKCSeparation() = default;

unsigned int ZKCSeparation::NumberOfInks() const { return core_->inks; }
unsigned int ZKCSeparation::TotalLimit() const { return core_->totalLimit; }
unsigned int ZKCSeparation::BlackLimit() const { return core_->blackLimit; }
const double* ZKCSeparation::PaperCIELAB() const { return core_->paper; }
const double* ZKCSeparation::BlackPointCIELAB() const { return core_->blackPoint; }
const std::vector<unsigned int>& ZKCSeparation::SubsetCodes() const { return core_->codes; }

double ZKCSeparation::BlackAmount(double kMin, double kMax, double lightness) const {
    return core_->BlackAmount(kMin, kMax, lightness);
}

void ZKCSeparation::Analyse(const double* lab, std::size_t count, ZKSSeparationResult* results) const {
    CheckFinite(lab, count);
    for (std::size_t start = 0; start < count; start += kChunk) {
        const std::size_t n = std::min(kChunk, count - start);
        SolveRuns(
            *core_, n, 1, [&](std::size_t i, double* t) { std::copy(lab + 3 * (start + i), lab + 3 * (start + i) + 3, t); },
            results + start);
    }
}

void ZKCSeparation::Separate(const float* lab, std::size_t count, unsigned char* inks) const {
    CheckFinite(lab, count);
    const unsigned int N = core_->inks;
    std::vector<ZKSSeparationResult> results;
    for (std::size_t start = 0; start < count; start += kChunk) {
        const std::size_t n = std::min(kChunk, count - start);
        results.assign(n, ZKSSeparationResult());
        SolveRuns(
            *core_, n, 1,
            [&](std::size_t i, double* t) {
                for (int c = 0; c < 3; ++c) t[c] = lab[3 * (start + i) + c];
            },
            results.data());
        for (std::size_t i = 0; i < n; ++i) std::copy(results[i].bytes, results[i].bytes + N, inks + (start + i) * N);
    }
}

void ZKCSeparation::InGamut(const double* lab, std::size_t count, bool* inGamut) const {
    CheckFinite(lab, count);
    const Core& core = *core_;
    RunShares(count, [&](std::size_t start, std::size_t n) {
        for (std::size_t i = start; i < start + n; ++i) {
            Core::Context ctx(core.subsets.size());
            Core::Reach reach;
            inGamut[i] = core.Reachable(lab + 3 * i, ctx, reach, true);
        }
    });
}

void ZKCSeparation::GamutMap(const double* lab, std::size_t count, double* mapped) const {
    CheckFinite(lab, count);
    const Core& core = *core_;
    RunShares(count, [&](std::size_t start, std::size_t n) {
        for (std::size_t i = start; i < start + n; ++i) {
            Core::Context ctx(core.subsets.size());
            Core::Reach reach, inside;
            if (core.Reachable(lab + 3 * i, ctx, reach, true))
                std::copy(lab + 3 * i, lab + 3 * i + 3, mapped + 3 * i);
            else
                core.Map(lab + 3 * i, reach, ctx, mapped + 3 * i, inside);
        }
    });
}

double ZKCSeparation::NodeCIELAB(unsigned int axis, unsigned int g, unsigned int gridPoints) {
    const double steps = static_cast<double>(gridPoints) - 1.0;
    if (axis == 0) return 100.0 * g / steps;
    const double lower = 256.0 * g / steps;
    return (lower <= 128.0 ? lower : 254.0 * g / steps) - 128.0;
}

std::vector<unsigned char> ZKCSeparation::NodeTable(unsigned int gridPoints, std::vector<bool>* inGamut) const {
    if (gridPoints < 2 || gridPoints > 256) throw kErrorDefaultCase;
    const std::size_t n = gridPoints;
    const unsigned int N = core_->inks;
    std::vector<ZKSSeparationResult> results(n * n * n);
    // One run per grid line along b*, solved from its first node on.
    SolveRuns(
        *core_, n * n, n,
        [&](std::size_t node, double* t) {
            t[0] = NodeCIELAB(0, static_cast<unsigned int>(node / (n * n)), gridPoints);
            t[1] = NodeCIELAB(1, static_cast<unsigned int>(node / n % n), gridPoints);
            t[2] = NodeCIELAB(2, static_cast<unsigned int>(node % n), gridPoints);
        },
        results.data());
    std::vector<unsigned char> table(results.size() * N);
    if (inGamut != nullptr) inGamut->assign(results.size(), false);
    for (std::size_t i = 0; i < results.size(); ++i) {
        std::copy(results[i].bytes, results[i].bytes + N, &table[i * N]);
        if (inGamut != nullptr) (*inGamut)[i] = results[i].inGamut;
    }
    return table;
}

std::unique_ptr<ZKCWorkerCLUT_Thread> ZKCSeparation::CLUT(CLUT_ACCURACY accuracy) const {
    const unsigned int N = core_->inks;
    // The CIELAB-input workers have 4 or 7 outputs.
    if (N != 4 && N != 7) throw kErrorDefaultCase;
    std::vector<unsigned char> table = NodeTable(static_cast<unsigned int>(accuracy));
    // The workers read the corners of the top cells past the last node: give
    // them zeros (inside every limit).
    table.resize(ZKCWorkerCLUT_Thread::NodeArrayBytes(3, N, accuracy), 0);
    return std::make_unique<ZKCWorkerCLUT_Thread>(table.data(), 3, N, accuracy, true);
}

ZKSTableSmoothness ZKCSeparation::TableSmoothness(const unsigned char* nodes, unsigned int gridPoints,
                                                  unsigned int inks, const std::vector<bool>* inGamut) {
    ZKSTableSmoothness out;
    const std::size_t n = gridPoints;
    if (n < 3) return out;
    std::vector<double> all;
    const std::size_t stride[3] = {n * n, n, 1};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (std::size_t node = 0; node < n * n * n; ++node) {
            const std::size_t g = node / stride[axis] % n;
            if (g == 0 || g + 1 == n) continue;
            const std::size_t a = node - stride[axis], b = node + stride[axis];
            const bool inside = inGamut != nullptr && (*inGamut)[a] && (*inGamut)[node] && (*inGamut)[b];
            for (unsigned int k = 0; k < inks; ++k) {
                const double d = std::fabs(static_cast<double>(nodes[a * inks + k]) - 2.0 * nodes[node * inks + k] +
                                           nodes[b * inks + k]) *
                                 100.0 / 255.0;
                all.push_back(d);
                if (inside) out.inGamutMax = std::max(out.inGamutMax, d);
            }
        }
    }
    const ZKSStatistics s = Summarize(all);
    out.max = s.max;
    out.mean = s.mean;
    out.p99 = Percentile(all, 0.99);
    return out;
}

}  // namespace KELMA_NAMESPACE
