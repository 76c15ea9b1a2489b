#include "kelma/modelbuilding/YuleNielsenFit.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/CIELAB.h"
#include "kelma/modelbuilding/ModelBuildingMath.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

GridLayout::GridLayout(unsigned int inkCount, unsigned int pointCount, const std::vector<unsigned int>& gridLevels)
    : inks(inkCount), points(pointCount), levels(gridLevels) {
    nodes = IntPower(points, inks);
    for (unsigned int i = 0; i < inks; ++i) stride.push_back(IntPower(points, i));
    cornerOffset.assign(std::size_t{1} << inks, 0);
    for (std::size_t k = 0; k < cornerOffset.size(); ++k)
        for (unsigned int i = 0; i < inks; ++i)
            if (k & (std::size_t{1} << i)) cornerOffset[k] += stride[i];
}

unsigned int GridLayout::Cell(unsigned int ink, unsigned int level) const {
    const unsigned int* g = &levels[ink * points];
    unsigned int c = 0;
    while (c + 2 < points && g[c + 1] <= level) ++c;
    return c;
}

int GridLayout::GridIndex(unsigned int ink, unsigned int level) const {
    for (unsigned int g = 0; g < points; ++g)
        if (levels[ink * points + g] == level) return static_cast<int>(g);
    return -1;
}

InkCoordinates CoordinatesFromRamps(const GridLayout& grid, const std::vector<double>& ramps) {
    InkCoordinates c;
    c.cell.resize(grid.inks * 256);
    c.w.resize(grid.inks * 256);
    for (unsigned int i = 0; i < grid.inks; ++i) {
        const double* e = &ramps[i * 256];
        for (unsigned int t = 0; t < 256; ++t) {
            const unsigned int cell = grid.Cell(i, t);
            const double lo = e[grid.levels[i * grid.points + cell]];
            const double hi = e[grid.levels[i * grid.points + cell + 1]];
            c.cell[i * 256 + t] = cell;
            c.w[i * 256 + t] = hi != lo ? (e[t] - lo) / (hi - lo) : 0.0;
        }
    }
    return c;
}

Colorimeter::Colorimeter(const ZKCLighting_Matrix& matrix) {
    const float* w = matrix.Weights();
    for (int c = 0; c < 3; ++c) {
        white_[c] = 0.0;
        for (unsigned int b = 0; b < kBands; ++b) {
            weights_[c][b] = w[c * kSpectrumStride + b];
            white_[c] += weights_[c][b];
        }
    }
}

void Colorimeter::Lab(const double* spectrum, double* lab) const {
    double xyz[3];
    for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (unsigned int b = 0; b < kBands; ++b) s += weights_[c][b] * spectrum[b];
        xyz[c] = s;
    }
    XYZToCIELAB(xyz, white_, lab);
}

YuleNielsenEvaluator::YuleNielsenEvaluator(const GridLayout& grid, const TrainingSet& set,
                                           const Colorimeter& colorimeter)
    : grid_(grid), set_(set), colorimeter_(colorimeter) {}

void YuleNielsenEvaluator::Demichel(const InkCoordinates& coords, Workspace& ws) const {
    const unsigned int n = grid_.inks;
    const std::size_t corners = std::size_t{1} << n;
    ws.base.resize(set_.count);
    ws.demichel.resize(set_.count * corners);
    for (std::size_t p = 0; p < set_.count; ++p) {
        const unsigned char* lv = &set_.levels[p * n];
        double* d = &ws.demichel[p * corners];
        std::size_t base = 0;
        d[0] = 1.0;
        for (unsigned int i = 0; i < n; ++i) {
            const unsigned int e = i * 256 + lv[i];
            base += coords.cell[e] * grid_.stride[i];
            const double w = coords.w[e];
            const std::size_t half = std::size_t{1} << i;
            for (std::size_t k = 0; k < half; ++k) {
                d[k + half] = d[k] * w;
                d[k] *= 1.0 - w;
            }
        }
        ws.base[p] = base;
    }
}

void YuleNielsenEvaluator::UpdateYuleNielsen(double n, Workspace& ws) const {
    if (ws.ynExponent == n && ws.yn.size() == set_.count * kBands) return;
    ws.yn.resize(set_.count * kBands);
    const double inv = 1.0 / n;
    for (std::size_t i = 0; i < ws.yn.size(); ++i) ws.yn[i] = std::pow(set_.reflectance[i], inv);
    ws.ynExponent = n;
}

bool YuleNielsenEvaluator::SolveNodes(double n, Workspace& ws) const {
    UpdateYuleNielsen(n, ws);
    const std::size_t m = grid_.nodes;
    const std::size_t corners = grid_.cornerOffset.size();
    ws.normal.assign(m * m, 0.0);
    ws.nodes.assign(m * kBands, 0.0);
    for (std::size_t p = 0; p < set_.count; ++p) {
        const double* d = &ws.demichel[p * corners];
        const double* y = &ws.yn[p * kBands];
        for (std::size_t a = 0; a < corners; ++a) {
            if (d[a] == 0.0) continue;
            const std::size_t ia = ws.base[p] + grid_.cornerOffset[a];
            // Lower triangle only: corner offsets ascend with the corner index.
            double* row = &ws.normal[ia * m + ws.base[p]];
            for (std::size_t b = 0; b <= a; ++b) row[grid_.cornerOffset[b]] += d[a] * d[b];
            double* rhs = &ws.nodes[ia * kBands];
            for (unsigned int w = 0; w < kBands; ++w) rhs[w] += d[a] * y[w];
        }
    }
    if (!CholeskyFactor(ws.normal.data(), m)) return false;
    CholeskySolve(ws.normal.data(), m, ws.nodes.data(), kBands);
    return true;
}

bool YuleNielsenEvaluator::Predict(std::size_t p, double n, Workspace& ws, double* spectrum) const {
    const std::size_t corners = grid_.cornerOffset.size();
    const double* d = &ws.demichel[p * corners];
    double s[kBands] = {};
    for (std::size_t k = 0; k < corners; ++k) {
        if (d[k] == 0.0) continue;
        const double* r = &ws.nodes[(ws.base[p] + grid_.cornerOffset[k]) * kBands];
        for (unsigned int w = 0; w < kBands; ++w) s[w] += d[k] * r[w];
    }
    for (unsigned int w = 0; w < kBands; ++w) {
        if (!(s[w] > 0.0)) return false;
        spectrum[w] = std::pow(s[w], n);
    }
    return true;
}

bool YuleNielsenEvaluator::Residuals(double n, Workspace& ws, double* residuals) const {
    double spectrum[kBands], lab[3];
    for (std::size_t p = 0; p < set_.residualCount; ++p) {
        if (!Predict(p, n, ws, spectrum)) return false;
        colorimeter_.Lab(spectrum, lab);
        const double* u = &set_.metric[p * 9];
        const double* ref = &set_.lab[p * 3];
        const double d[3] = {lab[0] - ref[0], lab[1] - ref[1], lab[2] - ref[2]};
        for (int r = 0; r < 3; ++r) residuals[p * 3 + r] = u[r * 3] * d[0] + u[r * 3 + 1] * d[1] + u[r * 3 + 2] * d[2];
    }
    return true;
}

bool YuleNielsenEvaluator::DeltaE(double n, Workspace& ws, std::vector<double>& deltaE) const {
    deltaE.resize(set_.residualCount);
    double spectrum[kBands], lab[3];
    for (std::size_t p = 0; p < set_.residualCount; ++p) {
        if (!Predict(p, n, ws, spectrum)) return false;
        colorimeter_.Lab(spectrum, lab);
        deltaE[p] = DeltaE2000(&set_.lab[p * 3], lab);
    }
    return true;
}

namespace {

// Jacobian columns [start, start + count) by forward differences.
struct JacobianWorker {
    const ResidualFunction* evaluate = nullptr;
    const std::vector<double>* x = nullptr;
    const std::vector<double>* r0 = nullptr;
    const std::vector<double>* upper = nullptr;
    std::vector<double>* jacobian = nullptr;  // residuals x parameters, column-major
    std::size_t start = 0, count = 0;
    unsigned int slot = 0;

    void operator()() {
        const std::size_t m = r0->size();
        std::vector<double> xp(*x), r(m);
        for (std::size_t j = start; j < start + count; ++j) {
            double h = 1e-6 * std::max(1.0, std::fabs(xp[j]));
            // Step backwards at the upper bound.
            if (xp[j] + h > (*upper)[j]) h = -h;
            const double saved = xp[j];
            xp[j] = saved + h;
            double* col = &(*jacobian)[j * m];
            if ((*evaluate)(xp.data(), r.data(), slot)) {
                for (std::size_t i = 0; i < m; ++i) col[i] = (r[i] - (*r0)[i]) / h;
            } else {
                std::fill(col, col + m, 0.0);
            }
            xp[j] = saved;
        }
    }
};

}  // namespace

unsigned int LevenbergMarquardt(const ResidualFunction& evaluate, std::size_t residualCount, std::vector<double>& x,
                                const std::vector<double>& lower, const std::vector<double>& upper,
                                unsigned int maxIterations, unsigned int threads) {
    const std::size_t np = x.size();
    const std::size_t m = residualCount;
    std::vector<double> r(m), rNew(m), xNew(np), jac(np * m), a(np * np), g(np), step(np);
    if (!evaluate(x.data(), r.data(), 0)) return 0;
    auto cost = [](const std::vector<double>& v) {
        double s = 0.0;
        for (double e : v) s += e * e;
        return s;
    };
    double c = cost(r);
    double lambda = 1e-3;
    threads = std::max(1u, std::min<unsigned int>(threads, static_cast<unsigned int>(np)));
    ZKCWorkerThreads pool(threads);
    std::vector<JacobianWorker> workers(threads);
    unsigned int iteration = 0;
    // A residual norm of 1e-6 per residual (in CIEDE2000 units) is an exact fit.
    const double exact = 1e-12 * static_cast<double>(m);
    while (iteration < maxIterations && c > exact) {
        const std::vector<ZKSWorkShare> shares = SplitWork(np, threads);
        for (std::size_t s = 0; s < shares.size(); ++s) {
            workers[s] = JacobianWorker{&evaluate, &x, &r, &upper, &jac, shares[s].start, shares[s].count,
                                        static_cast<unsigned int>(s)};
            pool.Start(s, workers[s]);
        }
        pool.JoinAll(shares.size());
        // Normal equations J^T J and gradient J^T r.
        for (std::size_t i = 0; i < np; ++i) {
            const double* ci = &jac[i * m];
            double gi = 0.0;
            for (std::size_t k = 0; k < m; ++k) gi += ci[k] * r[k];
            g[i] = gi;
            for (std::size_t j = 0; j <= i; ++j) {
                const double* cj = &jac[j * m];
                double s = 0.0;
                for (std::size_t k = 0; k < m; ++k) s += ci[k] * cj[k];
                a[i * np + j] = a[j * np + i] = s;
            }
        }
        double maxDiag = 0.0;
        for (std::size_t i = 0; i < np; ++i) maxDiag = std::max(maxDiag, a[i * np + i]);
        if (!(maxDiag > 0.0)) break;
        // Parameters held at a bound by the descent direction -g stay there
        // this iteration (their rows and columns drop out of the step).
        std::vector<bool> held(np, false);
        for (std::size_t i = 0; i < np; ++i)
            held[i] = (x[i] >= upper[i] && g[i] < 0.0) || (x[i] <= lower[i] && g[i] > 0.0);
        bool accepted = false;
        double cNew = c;
        while (lambda <= 1e12) {
            std::vector<double> damped(a);
            for (std::size_t i = 0; i < np; ++i)
                damped[i * np + i] += lambda * std::max(a[i * np + i], 1e-9 * maxDiag);
            for (std::size_t i = 0; i < np; ++i) {
                step[i] = held[i] ? 0.0 : -g[i];
                if (!held[i]) continue;
                for (std::size_t j = 0; j < np; ++j) damped[i * np + j] = damped[j * np + i] = 0.0;
                damped[i * np + i] = 1.0;
            }
            if (CholeskyFactor(damped.data(), np)) {
                CholeskySolve(damped.data(), np, step.data(), 1);
                for (std::size_t i = 0; i < np; ++i) xNew[i] = std::min(upper[i], std::max(lower[i], x[i] + step[i]));
                if (evaluate(xNew.data(), rNew.data(), 0)) {
                    cNew = cost(rNew);
                    if (cNew < c) {
                        accepted = true;
                        break;
                    }
                }
            }
            lambda *= 4.0;
        }
        if (!accepted) break;
        ++iteration;
        x.swap(xNew);
        r.swap(rNew);
        const double decrease = (c - cNew) / c;
        c = cNew;
        lambda = std::max(lambda / 3.0, 1e-12);
        if (decrease < 1e-7) break;
    }
    return iteration;
}

void PredictFromArrays(const ZKSPrinterModelArrays& model, const unsigned char* sample, double* spectrum) {
    const unsigned int n = model.numberOfInks, g = model.numberOfGridPoints;
    const std::size_t corners = std::size_t{1} << n;
    std::size_t q = 0;
    std::vector<double> w(n);
    for (unsigned int i = 0; i < n; ++i) {
        const double* grid = &model.gridPoints[i * g];
        const double* ramp = &model.effectiveRamps[i * 256];
        unsigned int c = 0;
        while (c + 2 < g && grid[c + 1] <= sample[i]) ++c;
        const double lo = ramp[static_cast<int>(grid[c])], hi = ramp[static_cast<int>(grid[c + 1])];
        w[i] = hi != lo ? (ramp[sample[i]] - lo) / (hi - lo) : 0.0;
        q += c * IntPower(g - 1, i);
    }
    const double* block = &model.matrixScheme[q * kBands * corners];
    for (unsigned int b = 0; b < kBands; ++b) {
        double s = 0.0;
        for (std::size_t k = 0; k < corners; ++k) {
            double monomial = 1.0;
            for (unsigned int i = 0; i < n; ++i)
                if (k & (std::size_t{1} << i)) monomial *= w[i];
            s += block[b * corners + k] * monomial;
        }
        spectrum[b] = s > 0.0 ? std::pow(s, model.n) : std::numeric_limits<double>::quiet_NaN();
    }
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
