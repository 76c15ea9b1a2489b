#include "kelma/separation/ZKCSeparation.h"

#include <algorithm>
#include <cmath>

#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/common/LibraryErrors.h"
#include "kelma/evaluation/Statistics.h"
#include "kelma/separation/ZKCSeparation_Core.h"
#include "kelma/separation/ZKCSeparation_TableFit.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

namespace {

// Colours per round of solving and predicting (bounds the candidates' memory).
constexpr std::size_t kChunk = 4096;
// The table fit (ZKCSeparation_TableFit.h): samples at half the node spacing,
// residuals weighted by their colour (J^T J + 0.001, in (Delta E*ab / byte)^2
// and 1 / byte^2), second differences by 1e-4 (against about 0.1 of colour
// weight per byte^2 per sample).
constexpr unsigned int kTableSubdivision = 2;
constexpr double kTableSmoothing = 1e-4;
constexpr double kTableInkWeight = 1e-3;

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

// CIELAB at grid position g (a node when whole) along an axis.
double GridCIELAB(unsigned int axis, double g, unsigned int gridPoints) {
    const double steps = static_cast<double>(gridPoints) - 1.0;
    if (axis == 0) return 100.0 * g / steps;
    const double lower = 256.0 * g / steps;
    return (lower <= 128.0 ? lower : 254.0 * g / steps) - 128.0;
}

// Moves x (n inks, bytes) into the limits: each ink in 0..255, black at most
// blackLimit, the sum at most totalLimit (Euclidean projection on the sum).
void ProjectInks(double* x, unsigned int n, unsigned int black, double blackLimit, double totalLimit) {
    double hi[7];
    for (unsigned int k = 0; k < n; ++k) hi[k] = k == black ? blackLimit : 255.0;
    auto clampSum = [&](double shift, double* out) {
        double s = 0.0;
        for (unsigned int k = 0; k < n; ++k) {
            const double v = std::min(std::max(x[k] - shift, 0.0), hi[k]);
            if (out != nullptr) out[k] = v;
            s += v;
        }
        return s;
    };
    if (clampSum(0.0, nullptr) <= totalLimit) {
        clampSum(0.0, x);
        return;
    }
    double lo = 0.0, up = 256.0;
    for (int it = 0; it < 60; ++it) {
        const double mid = 0.5 * (lo + up);
        (clampSum(mid, nullptr) > totalLimit ? lo : up) = mid;
    }
    clampSum(up, x);
}

// Bytes of fitted node values x (inside the limits): round(x + 1/2), which
// makes up for the half byte the CLUT workers lose on average by truncating
// their interpolated outputs, kept at or below each ink's bound; then, while
// the sum is over the total limit, the ink rounded up furthest is taken down
// by one.
void RoundInks(const double* x, unsigned int n, unsigned int black, unsigned int blackLimit, unsigned int totalLimit,
               unsigned char* bytes) {
    unsigned int sum = 0;
    for (unsigned int k = 0; k < n; ++k) {
        const double top = k == black ? blackLimit : 255.0;
        bytes[k] = static_cast<unsigned char>(std::min(top, std::floor(std::min(std::max(x[k], 0.0), top) + 1.0)));
        sum += bytes[k];
    }
    while (sum > totalLimit) {
        unsigned int worst = n;
        double most = -1.0;
        for (unsigned int k = 0; k < n; ++k) {
            const double up = bytes[k] - x[k];
            if (bytes[k] > 0 && up > most) {
                most = up;
                worst = k;
            }
        }
        if (worst == n) break;
        --bytes[worst];
        --sum;
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
    return GridCIELAB(axis, static_cast<double>(g), gridPoints);
}

std::vector<ZKSSeparationResult> ZKCSeparation::SolveGrid(unsigned int gridPoints, const GridColour& colourAt) const {
    const std::size_t n = gridPoints;
    std::vector<ZKSSeparationResult> results(n * n * n);
    // One run per grid line along the third axis, solved from its first node on.
    SolveRuns(
        *core_, n * n, n,
        [&](std::size_t node, double* t) {
            const double position[3] = {double(node / (n * n)), double(node / n % n), double(node % n)};
            colourAt(position, t);
        },
        results.data());
    return results;
}

std::vector<unsigned char> ZKCSeparation::NodeTable(unsigned int gridPoints, std::vector<bool>* inGamut) const {
    if (gridPoints < 2 || gridPoints > 256) throw kErrorDefaultCase;
    const unsigned int N = core_->inks;
    const GridColour colourAt = [gridPoints](const double* position, double* lab) {
        for (unsigned int axis = 0; axis < 3; ++axis) lab[axis] = GridCIELAB(axis, position[axis], gridPoints);
    };
    const std::vector<ZKSSeparationResult> results = SolveGrid(gridPoints, colourAt);
    std::vector<unsigned char> table(results.size() * N);
    if (inGamut != nullptr) inGamut->assign(results.size(), false);
    for (std::size_t i = 0; i < results.size(); ++i) {
        std::copy(results[i].bytes, results[i].bytes + N, &table[i * N]);
        if (inGamut != nullptr) (*inGamut)[i] = results[i].inGamut;
    }
    std::vector<double> values;
    std::vector<bool> fitted;
    FitBoundaryAndInside(gridPoints, colourAt, results, values, fitted);
    for (std::size_t g = 0; g < results.size(); ++g)
        if (fitted[g]) RoundInks(&values[g * N], N, 3, core_->blackLimit, core_->totalLimit, &table[g * N]);
    return table;
}

std::vector<double> ZKCSeparation::NodeValues(unsigned int gridPoints, const GridColour& colourAt,
                                              std::vector<ZKSSeparationResult>* nodes) const {
    if (gridPoints < 2 || gridPoints > 256) throw kErrorDefaultCase;
    const unsigned int N = core_->inks;
    std::vector<ZKSSeparationResult> results = SolveGrid(gridPoints, colourAt);
    std::vector<double> values;
    std::vector<bool> fitted;
    FitBoundaryAndInside(gridPoints, colourAt, results, values, fitted);
    // Nodes the fit left alone keep the continuous solution (inside the limits).
    for (std::size_t g = 0; g < results.size(); ++g)
        if (!fitted[g]) std::copy(results[g].inks, results[g].inks + N, &values[g * N]);
    if (nodes != nullptr) *nodes = std::move(results);
    return values;
}

void ZKCSeparation::FitBoundaryAndInside(unsigned int gridPoints, const GridColour& colourAt,
                                         const std::vector<ZKSSeparationResult>& results, std::vector<double>& values,
                                         std::vector<bool>& fitted) const {
    const Core& core = *core_;
    const unsigned int n = gridPoints, N = core.inks;
    fitted.assign(results.size(), false);
    // Two nodes per axis have no inside to fit: every node keeps its solution.
    values.assign(results.size() * N, 0.0);
    if (n < 3) return;
    const unsigned int F = kTableSubdivision;
    const unsigned int f = F * (n - 1) + 1;  // fine points per axis
    const std::size_t cells = std::size_t{n - 1} * (n - 1) * (n - 1);
    auto node = [&](unsigned int a, unsigned int b, unsigned int c) { return (std::size_t{a} * n + b) * n + c; };
    // Cells with an in-gamut corner, and the cells around them.
    std::vector<char> touched(cells, 0), region(cells, 0);
    for (unsigned int a = 0; a + 1 < n; ++a)
        for (unsigned int b = 0; b + 1 < n; ++b)
            for (unsigned int c = 0; c + 1 < n; ++c)
                for (unsigned int k = 0; k < 8; ++k)
                    if (results[node(a + (k & 1u), b + ((k >> 1) & 1u), c + ((k >> 2) & 1u))].inGamut)
                        touched[(std::size_t{a} * (n - 1) + b) * (n - 1) + c] = 1;
    for (int a = 0; a + 1 < static_cast<int>(n); ++a)
        for (int b = 0; b + 1 < static_cast<int>(n); ++b)
            for (int c = 0; c + 1 < static_cast<int>(n); ++c) {
                bool near = false;
                for (int da = -1; da <= 1 && !near; ++da)
                    for (int db = -1; db <= 1 && !near; ++db)
                        for (int dc = -1; dc <= 1 && !near; ++dc) {
                            const int x = a + da, y = b + db, z = c + dc;
                            const int m = static_cast<int>(n) - 1;
                            if (x < 0 || y < 0 || z < 0 || x >= m || y >= m || z >= m) continue;
                            near = touched[(std::size_t(x) * m + y) * m + z] != 0;
                        }
                if (near) region[(std::size_t(a) * (n - 1) + b) * (n - 1) + c] = 1;
            }
    // Fine points of those cells that are not nodes, as lines along b*.
    std::vector<char> fine(std::size_t{f} * f * f, 0);
    for (unsigned int a = 0; a + 1 < n; ++a)
        for (unsigned int b = 0; b + 1 < n; ++b)
            for (unsigned int c = 0; c + 1 < n; ++c) {
                if (!region[(std::size_t{a} * (n - 1) + b) * (n - 1) + c]) continue;
                for (unsigned int i = F * a; i <= F * a + F; ++i)
                    for (unsigned int j = F * b; j <= F * b + F; ++j)
                        for (unsigned int k = F * c; k <= F * c + F; ++k)
                            if (i % F || j % F || k % F) fine[(std::size_t{i} * f + j) * f + k] = 1;
            }
    std::vector<std::size_t> lineStart;
    std::vector<unsigned int> points;  // fine index triples, grouped by line
    for (unsigned int i = 0; i < f; ++i)
        for (unsigned int j = 0; j < f; ++j) {
            bool any = false;
            for (unsigned int k = 0; k < f; ++k)
                if (fine[(std::size_t{i} * f + j) * f + k]) {
                    if (!any) lineStart.push_back(points.size() / 3);
                    any = true;
                    points.insert(points.end(), {i, j, k});
                }
        }
    const std::size_t count = points.size() / 3;
    lineStart.push_back(count);
    const std::size_t lines = lineStart.size() - 1;
    std::vector<double> inks(count * 7, 0.0);
    std::vector<char> in(count, 0);
    auto lineAt = [&](std::size_t i) { return lines > 1 ? (i * 7919) % lines : i; };
    RunShares(lines, [&](std::size_t start, std::size_t len) {
        for (std::size_t i = start; i < start + len; ++i) {
            const std::size_t line = lineAt(i);
            Core::Context ctx(core.subsets.size());
            for (std::size_t p = lineStart[line]; p < lineStart[line + 1]; ++p) {
                double position[3], t[3];
                for (unsigned int axis = 0; axis < 3; ++axis) position[axis] = points[3 * p + axis] / double(F);
                colourAt(position, t);
                in[p] = core.SolveInGamut(t, ctx, &inks[7 * p]) ? 1 : 0;
            }
        }
    });
    // Samples with their colour derivatives (the fit weighs errors by colour).
    std::vector<ZKSTableFitSample> samples;
    auto addSample = [&](const unsigned int* fineIndex, const double* x) {
        ZKSTableFitSample s;
        std::copy(fineIndex, fineIndex + 3, s.fine);
        std::copy(x, x + 7, s.value);
        double lab[3];
        s.hasJacobian = core.full->Lab(x, lab, s.jacobian);
        samples.push_back(s);
    };
    for (std::size_t p = 0; p < count; ++p)
        if (in[p]) addSample(&points[3 * p], &inks[7 * p]);
    for (std::size_t g = 0; g < results.size(); ++g) {
        std::copy(results[g].inks, results[g].inks + N, &values[g * N]);
        if (!results[g].inGamut) continue;
        const unsigned int at[3] = {static_cast<unsigned int>(F * (g / (std::size_t{n} * n))),
                                    static_cast<unsigned int>(F * (g / n % n)), static_cast<unsigned int>(F * (g % n))};
        addSample(at, results[g].inks);
    }
    double lower[7], upper[7];
    for (unsigned int k = 0; k < N; ++k) {
        lower[k] = 0.0;
        upper[k] = k == 3 ? core.blackLimit : 255.0;
    }
    std::vector<bool> alsoFit(results.size(), false);
    for (unsigned int a = 0; a + 1 < n; ++a)
        for (unsigned int b = 0; b + 1 < n; ++b)
            for (unsigned int c = 0; c + 1 < n; ++c)
                if (region[(std::size_t{a} * (n - 1) + b) * (n - 1) + c])
                    for (unsigned int k = 0; k < 8; ++k)
                        alsoFit[node(a + (k & 1u), b + ((k >> 1) & 1u), c + ((k >> 2) & 1u))] = true;
    FitTableNodes(n, F, N, samples, kTableSmoothing, lower, upper, alsoFit, kTableInkWeight, values, &fitted);
    for (std::size_t g = 0; g < results.size(); ++g)
        if (fitted[g]) ProjectInks(&values[g * N], N, 3, core.blackLimit, core.totalLimit);
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
    std::vector<double> all, inside;
    const std::size_t stride[3] = {n * n, n, 1};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (std::size_t node = 0; node < n * n * n; ++node) {
            const std::size_t g = node / stride[axis] % n;
            if (g == 0 || g + 1 == n) continue;
            const std::size_t a = node - stride[axis], b = node + stride[axis];
            const bool inGamutTriple = inGamut != nullptr && (*inGamut)[a] && (*inGamut)[node] && (*inGamut)[b];
            for (unsigned int k = 0; k < inks; ++k) {
                const double d = std::fabs(static_cast<double>(nodes[a * inks + k]) - 2.0 * nodes[node * inks + k] +
                                           nodes[b * inks + k]) *
                                 100.0 / 255.0;
                all.push_back(d);
                if (inGamutTriple) inside.push_back(d);
            }
        }
    }
    const ZKSStatistics s = Summarize(all);
    out.max = s.max;
    out.mean = s.mean;
    out.p99 = Percentile(all, 0.99);
    out.inGamutMax = Summarize(inside).max;
    out.inGamutP99 = Percentile(inside, 0.99);
    return out;
}

}  // namespace KELMA_NAMESPACE
