#include "kelma/separation/ZKCSeparation_TableFit.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

struct SampleRow {
    std::size_t node[8];
    double weight[8];
    unsigned int corners;
};

struct LineRow {
    std::size_t node[3];
};

}  // namespace

void FitTableNodes(unsigned int n, unsigned int subdivision, unsigned int channels,
                   const std::vector<ZKSTableFitSample>& samples, double smoothing, const double* lower,
                   const double* upper, const std::vector<bool>& alsoFit, const std::vector<bool>& keep,
                   std::vector<double>& values, std::vector<bool>* fitted) {
    const unsigned int F = subdivision;
    const std::size_t nodes = std::size_t{n} * n * n;
    const std::size_t stride[3] = {std::size_t{n} * n, n, 1};
    if (fitted != nullptr) fitted->assign(nodes, false);
    if (n < 2 || samples.empty()) return;

    // Each sample's cell corners with a non-zero weight; those are the unknowns.
    std::vector<SampleRow> rows(samples.size());
    std::vector<std::size_t> unknown(nodes, kNone);
    std::vector<std::size_t> active;
    for (std::size_t s = 0; s < samples.size(); ++s) {
        unsigned int cell[3];
        double t[3];
        for (int a = 0; a < 3; ++a) {
            cell[a] = std::min(samples[s].fine[a] / F, n - 2);
            t[a] = (samples[s].fine[a] - static_cast<double>(F) * cell[a]) / F;
        }
        SampleRow& row = rows[s];
        row.corners = 0;
        for (unsigned int k = 0; k < 8; ++k) {
            double w = 1.0;
            std::size_t node = 0;
            for (int a = 0; a < 3; ++a) {
                const unsigned int bit = (k >> a) & 1u;
                w *= bit ? t[a] : 1.0 - t[a];
                node += (cell[a] + bit) * stride[a];
            }
            if (w == 0.0) continue;
            row.node[row.corners] = node;
            row.weight[row.corners] = w;
            ++row.corners;
            if (unknown[node] == kNone && !(node < keep.size() && keep[node])) {
                unknown[node] = active.size();
                active.push_back(node);
            }
        }
    }
    for (std::size_t g = 0; g < nodes && g < alsoFit.size(); ++g)
        if (alsoFit[g] && unknown[g] == kNone && !(g < keep.size() && keep[g])) {
            unknown[g] = active.size();
            active.push_back(g);
        }
    // Second differences among the unknowns.
    std::vector<LineRow> lines;
    for (std::size_t g = 0; g < nodes; ++g) {
        for (int a = 0; a < 3; ++a) {
            const std::size_t ga = g / stride[a] % n;
            if (ga == 0 || ga + 1 == n) continue;
            const LineRow line{{g - stride[a], g, g + stride[a]}};
            if (unknown[line.node[0]] != kNone && unknown[line.node[1]] != kNone && unknown[line.node[2]] != kNone)
                lines.push_back(line);
        }
    }
    const std::size_t m = active.size();
    // Diagonal of the normal matrix, for the Jacobi preconditioner.
    std::vector<double> diagonal(m, 0.0);
    for (const SampleRow& row : rows)
        for (unsigned int c = 0; c < row.corners; ++c)
            if (unknown[row.node[c]] != kNone) diagonal[unknown[row.node[c]]] += row.weight[c] * row.weight[c];
    for (const LineRow& line : lines) {
        const double coefficient[3] = {1.0, -2.0, 1.0};
        for (int i = 0; i < 3; ++i)
            if (unknown[line.node[i]] != kNone) diagonal[unknown[line.node[i]]] += smoothing * coefficient[i] * coefficient[i];
    }

    // Unknowns that neither a sample nor a second difference reaches keep
    // their values.
    std::vector<char> orphan(m, 0);
    for (std::size_t i = 0; i < m; ++i)
        if (!(diagonal[i] > 0.0)) {
            orphan[i] = 1;
            diagonal[i] = 1.0;
        }
    std::vector<double> full(nodes);
    // out = (A^T A + smoothing D^T D) applied to `full` (all nodes), kept at
    // the unknowns.
    auto apply = [&](std::vector<double>& out) {
        std::fill(out.begin(), out.end(), 0.0);
        for (const SampleRow& row : rows) {
            double v = 0.0;
            for (unsigned int c = 0; c < row.corners; ++c) v += row.weight[c] * full[row.node[c]];
            for (unsigned int c = 0; c < row.corners; ++c)
                if (unknown[row.node[c]] != kNone) out[unknown[row.node[c]]] += row.weight[c] * v;
        }
        for (const LineRow& line : lines) {
            const double d = full[line.node[0]] - 2.0 * full[line.node[1]] + full[line.node[2]];
            const double coefficient[3] = {1.0, -2.0, 1.0};
            for (int i = 0; i < 3; ++i)
                if (unknown[line.node[i]] != kNone) out[unknown[line.node[i]]] += smoothing * coefficient[i] * d;
        }
    };

    std::vector<double> b(m), x(m), r(m), z(m), p(m), q(m);
    std::vector<char> held(m);
    for (unsigned int ch = 0; ch < channels; ++ch) {
        // Right-hand side: A^T s minus the operator on the fixed nodes.
        for (std::size_t g = 0; g < nodes; ++g) full[g] = unknown[g] == kNone ? values[g * channels + ch] : 0.0;
        apply(b);
        for (std::size_t i = 0; i < m; ++i) b[i] = -b[i];
        for (std::size_t s = 0; s < rows.size(); ++s)
            for (unsigned int c = 0; c < rows[s].corners; ++c)
                if (unknown[rows[s].node[c]] != kNone)
                    b[unknown[rows[s].node[c]]] += rows[s].weight[c] * samples[s].value[ch];
        double bNorm = 0.0;
        for (std::size_t i = 0; i < m; ++i) bNorm += b[i] * b[i];
        bNorm = std::sqrt(bNorm);
        for (std::size_t i = 0; i < m; ++i) x[i] = std::min(std::max(values[active[i] * channels + ch], lower[ch]), upper[ch]);
        std::copy(orphan.begin(), orphan.end(), held.begin());
        // Bounds by an active set: nodes the fit puts beyond a bound are held
        // there and the others fitted again, until none is beyond.
        for (int round = 0; round < 8; ++round) {
            // Preconditioned conjugate gradients over the nodes not held.
            std::fill(full.begin(), full.end(), 0.0);
            for (std::size_t i = 0; i < m; ++i) full[active[i]] = x[i];
            apply(q);
            for (std::size_t i = 0; i < m; ++i) r[i] = held[i] ? 0.0 : b[i] - q[i];
            double rz = 0.0;
            for (std::size_t i = 0; i < m; ++i) {
                z[i] = r[i] / diagonal[i];
                p[i] = z[i];
                rz += r[i] * z[i];
            }
            for (int it = 0; it < 500; ++it) {
                double rNorm = 0.0;
                for (std::size_t i = 0; i < m; ++i) rNorm += r[i] * r[i];
                if (std::sqrt(rNorm) <= 1e-10 * bNorm || rz == 0.0) break;
                std::fill(full.begin(), full.end(), 0.0);
                for (std::size_t i = 0; i < m; ++i) full[active[i]] = p[i];
                apply(q);
                double pq = 0.0;
                for (std::size_t i = 0; i < m; ++i) {
                    if (held[i]) q[i] = 0.0;
                    pq += p[i] * q[i];
                }
                if (!(pq > 0.0)) break;
                const double alpha = rz / pq;
                double rzNext = 0.0;
                for (std::size_t i = 0; i < m; ++i) {
                    x[i] += alpha * p[i];
                    r[i] -= alpha * q[i];
                    z[i] = r[i] / diagonal[i];
                    rzNext += r[i] * z[i];
                }
                const double beta = rzNext / rz;
                rz = rzNext;
                for (std::size_t i = 0; i < m; ++i) p[i] = z[i] + beta * p[i];
            }
            bool moved = false;
            for (std::size_t i = 0; i < m; ++i) {
                if (held[i]) continue;
                if (x[i] < lower[ch] || x[i] > upper[ch]) {
                    x[i] = std::min(std::max(x[i], lower[ch]), upper[ch]);
                    held[i] = 1;
                    moved = true;
                }
            }
            if (!moved) break;
        }
        for (std::size_t i = 0; i < m; ++i) values[active[i] * channels + ch] = std::min(std::max(x[i], lower[ch]), upper[ch]);
    }
    if (fitted != nullptr)
        for (std::size_t node : active) (*fitted)[node] = true;
}

}  // namespace KELMA_NAMESPACE
