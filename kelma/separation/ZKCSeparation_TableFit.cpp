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
                   const double* upper, const std::vector<bool>& alsoFit, double epsilon, std::vector<double>& values,
                   std::vector<bool>* fitted) {
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
            if (unknown[node] == kNone) {
                unknown[node] = active.size();
                active.push_back(node);
            }
        }
    }
    for (std::size_t g = 0; g < nodes && g < alsoFit.size(); ++g)
        if (alsoFit[g] && unknown[g] == kNone) {
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
    const unsigned int C = channels;
    // H_s u: the sample's metric (J^T J + epsilon I, or I) applied to u.
    auto metric = [&](const ZKSTableFitSample& sample, const double* u, double* out) {
        if (!sample.hasJacobian) {
            std::copy(u, u + C, out);
            return;
        }
        double ju[3] = {0.0, 0.0, 0.0};
        for (int r = 0; r < 3; ++r)
            for (unsigned int ch = 0; ch < C; ++ch) ju[r] += sample.jacobian[r * C + ch] * u[ch];
        for (unsigned int ch = 0; ch < C; ++ch) {
            double v = epsilon * u[ch];
            for (int r = 0; r < 3; ++r) v += sample.jacobian[r * C + ch] * ju[r];
            out[ch] = v;
        }
    };
    // Diagonal of the normal matrix, for the Jacobi preconditioner.
    std::vector<double> diagonal(m * C, 0.0);
    for (std::size_t s = 0; s < rows.size(); ++s) {
        const SampleRow& row = rows[s];
        for (unsigned int c = 0; c < row.corners; ++c) {
            if (unknown[row.node[c]] == kNone) continue;
            for (unsigned int ch = 0; ch < C; ++ch) {
                double h = 1.0;
                if (samples[s].hasJacobian) {
                    h = epsilon;
                    for (int r = 0; r < 3; ++r) h += samples[s].jacobian[r * C + ch] * samples[s].jacobian[r * C + ch];
                }
                diagonal[unknown[row.node[c]] * C + ch] += row.weight[c] * row.weight[c] * h;
            }
        }
    }
    for (const LineRow& line : lines) {
        const double coefficient[3] = {1.0, -2.0, 1.0};
        for (int i = 0; i < 3; ++i)
            if (unknown[line.node[i]] != kNone)
                for (unsigned int ch = 0; ch < C; ++ch)
                    diagonal[unknown[line.node[i]] * C + ch] += smoothing * coefficient[i] * coefficient[i];
    }
    // Unknowns that neither a sample nor a second difference reaches keep
    // their values.
    std::vector<char> held(m * C, 0);
    for (std::size_t i = 0; i < m * C; ++i)
        if (!(diagonal[i] > 0.0)) {
            held[i] = 1;
            diagonal[i] = 1.0;
        }

    // out = (sum_s W_s^T H_s W_s + smoothing D^T D) applied to `full` (all
    // nodes x channels), kept at the unknowns.
    std::vector<double> full(nodes * C);
    auto apply = [&](std::vector<double>& out) {
        std::fill(out.begin(), out.end(), 0.0);
        double u[8], e[8];
        for (std::size_t s = 0; s < rows.size(); ++s) {
            const SampleRow& row = rows[s];
            std::fill(u, u + C, 0.0);
            for (unsigned int c = 0; c < row.corners; ++c)
                for (unsigned int ch = 0; ch < C; ++ch) u[ch] += row.weight[c] * full[row.node[c] * C + ch];
            metric(samples[s], u, e);
            for (unsigned int c = 0; c < row.corners; ++c) {
                const std::size_t i = unknown[row.node[c]];
                if (i == kNone) continue;
                for (unsigned int ch = 0; ch < C; ++ch) out[i * C + ch] += row.weight[c] * e[ch];
            }
        }
        const double coefficient[3] = {1.0, -2.0, 1.0};
        for (const LineRow& line : lines)
            for (unsigned int ch = 0; ch < C; ++ch) {
                const double d = full[line.node[0] * C + ch] - 2.0 * full[line.node[1] * C + ch] +
                                 full[line.node[2] * C + ch];
                for (int i = 0; i < 3; ++i)
                    if (unknown[line.node[i]] != kNone) out[unknown[line.node[i]] * C + ch] += smoothing * coefficient[i] * d;
            }
    };

    const std::size_t M = m * C;
    std::vector<double> b(M), x(M), r(M), z(M), p(M), q(M);
    // Right-hand side: sum_s W_s^T H_s s minus the operator on the fixed nodes.
    for (std::size_t g = 0; g < nodes; ++g)
        for (unsigned int ch = 0; ch < C; ++ch) full[g * C + ch] = unknown[g] == kNone ? values[g * C + ch] : 0.0;
    apply(b);
    for (std::size_t i = 0; i < M; ++i) b[i] = -b[i];
    for (std::size_t s = 0; s < rows.size(); ++s) {
        double e[8];
        metric(samples[s], samples[s].value, e);
        for (unsigned int c = 0; c < rows[s].corners; ++c) {
            const std::size_t i = unknown[rows[s].node[c]];
            if (i == kNone) continue;
            for (unsigned int ch = 0; ch < C; ++ch) b[i * C + ch] += rows[s].weight[c] * e[ch];
        }
    }
    double bNorm = 0.0;
    for (std::size_t i = 0; i < M; ++i) bNorm += b[i] * b[i];
    bNorm = std::sqrt(bNorm);
    for (std::size_t i = 0; i < m; ++i)
        for (unsigned int ch = 0; ch < C; ++ch)
            x[i * C + ch] = std::min(std::max(values[active[i] * C + ch], lower[ch]), upper[ch]);
    // Bounds by an active set: values the fit puts beyond a bound are held
    // there and the others fitted again, until none is beyond.
    for (int round = 0; round < 8; ++round) {
        // Preconditioned conjugate gradients over the values not held.
        auto load = [&](const std::vector<double>& v) {
            std::fill(full.begin(), full.end(), 0.0);
            for (std::size_t i = 0; i < m; ++i)
                for (unsigned int ch = 0; ch < C; ++ch) full[active[i] * C + ch] = v[i * C + ch];
        };
        load(x);
        apply(q);
        for (std::size_t i = 0; i < M; ++i) r[i] = held[i] ? 0.0 : b[i] - q[i];
        double rz = 0.0;
        for (std::size_t i = 0; i < M; ++i) {
            z[i] = r[i] / diagonal[i];
            p[i] = z[i];
            rz += r[i] * z[i];
        }
        for (int it = 0; it < 800; ++it) {
            double rNorm = 0.0;
            for (std::size_t i = 0; i < M; ++i) rNorm += r[i] * r[i];
            if (std::sqrt(rNorm) <= 1e-10 * bNorm || rz == 0.0) break;
            load(p);
            apply(q);
            double pq = 0.0;
            for (std::size_t i = 0; i < M; ++i) {
                if (held[i]) q[i] = 0.0;
                pq += p[i] * q[i];
            }
            if (!(pq > 0.0)) break;
            const double alpha = rz / pq;
            double rzNext = 0.0;
            for (std::size_t i = 0; i < M; ++i) {
                x[i] += alpha * p[i];
                r[i] -= alpha * q[i];
                z[i] = r[i] / diagonal[i];
                rzNext += r[i] * z[i];
            }
            const double beta = rzNext / rz;
            rz = rzNext;
            for (std::size_t i = 0; i < M; ++i) p[i] = z[i] + beta * p[i];
        }
        bool moved = false;
        for (std::size_t i = 0; i < M; ++i) {
            if (held[i]) continue;
            const unsigned int ch = static_cast<unsigned int>(i % C);
            if (x[i] < lower[ch] || x[i] > upper[ch]) {
                x[i] = std::min(std::max(x[i], lower[ch]), upper[ch]);
                held[i] = 1;
                moved = true;
            }
        }
        if (!moved) break;
    }
    for (std::size_t i = 0; i < m; ++i)
        for (unsigned int ch = 0; ch < C; ++ch)
            values[active[i] * C + ch] = std::min(std::max(x[i * C + ch], lower[ch]), upper[ch]);
    if (fitted != nullptr)
        for (std::size_t node : active) (*fitted)[node] = true;
}

}  // namespace KELMA_NAMESPACE
