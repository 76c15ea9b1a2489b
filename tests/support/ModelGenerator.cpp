#include "tests/support/ModelGenerator.h"

#include <cmath>
#include <random>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"

namespace kelma_test {

namespace {

unsigned int Power(unsigned int base, unsigned int exponent) {
    unsigned int r = 1;
    for (unsigned int i = 0; i < exponent; ++i) r *= base;
    return r;
}

}  // namespace

kelma::ZKCLighting_Matrix D50Matrix() {
    kelma::ZKCObserver observer(kelma::OBSERVER_CIE1931_2);
    kelma::ZKCIlluminant_CIED50 d50;
    return kelma::ZKCLighting_Matrix(observer, &d50);
}

std::vector<double> ZKSTestModel::NodeSpectrum(const std::vector<unsigned int>& node) const {
    std::vector<double> r(31);
    for (unsigned int w = 0; w < 31; ++w) {
        double optical = 0.0;
        for (unsigned int k = 0; k < inks; ++k) optical += absorption[k * 31 + w] * grid[k * gridPoints + node[k]] / 255.0;
        r[w] = paper[w] * std::exp(-optical);
    }
    return r;
}

ZKSTestModel MakeTestModel(unsigned int inks, unsigned int gridPoints, double n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    ZKSTestModel m;
    m.inks = inks;
    m.gridPoints = gridPoints;
    m.n = n;

    // Grid: whole levels, 0 and 255 at the ends, jittered inner points.
    for (unsigned int k = 0; k < inks; ++k) {
        for (unsigned int g = 0; g < gridPoints; ++g) {
            double level = std::round(255.0 * g / (gridPoints - 1));
            if (g != 0 && g + 1 != gridPoints) level += std::round((u(rng) - 0.5) * 10.0);
            m.grid.push_back(level);
        }
    }
    // Dot gain ramps, monotone.
    for (unsigned int k = 0; k < inks; ++k) {
        double gain = 0.1 + 0.3 * u(rng);
        for (unsigned int t = 0; t < 256; ++t) {
            double x = t / 255.0;
            m.ramps.push_back(x + gain * x * (1.0 - x));
        }
    }
    // Paper near 0.88 with a bluish rise; inks as Gaussian absorption bands.
    for (unsigned int w = 0; w < 31; ++w) m.paper.push_back(0.84 + 0.06 * u(rng) + 0.02 * (w < 5 ? 1.0 : 0.0));
    for (unsigned int k = 0; k < inks; ++k) {
        double centre = 400.0 + 300.0 * (k + 0.5) / inks + 20.0 * (u(rng) - 0.5);
        double width = 40.0 + 40.0 * u(rng);
        double strength = 1.5 + 1.5 * u(rng);
        for (unsigned int w = 0; w < 31; ++w) {
            double nm = 400.0 + 10.0 * w;
            m.absorption.push_back(0.05 + strength * std::exp(-std::pow((nm - centre) / width, 2)));
        }
    }

    FillScheme(m);
    return m;
}

ZKSTestModel MakePressLikeModel(unsigned int inks, unsigned int gridPoints, double n) {
    ZKSTestModel m;
    m.inks = inks;
    m.gridPoints = gridPoints;
    m.n = n;
    for (unsigned int k = 0; k < inks; ++k)
        for (unsigned int g = 0; g < gridPoints; ++g) m.grid.push_back(std::round(255.0 * g / (gridPoints - 1)));
    for (unsigned int k = 0; k < inks; ++k)
        for (unsigned int t = 0; t < 256; ++t) {
            const double x = t / 255.0;
            m.ramps.push_back(x + (k == 3 ? 0.15 : 0.2) * x * (1.0 - x));
        }
    auto rise = [](double nm, double edge, double width) { return 1.0 / (1.0 + std::exp(-(nm - edge) / width)); };
    for (unsigned int w = 0; w < 31; ++w) m.paper.push_back(0.86 + (w < 5 ? 0.02 : 0.0));
    m.absorption.assign(std::size_t{inks} * 31, 0.0);
    for (unsigned int w = 0; w < 31; ++w) {
        const double nm = 400.0 + 10.0 * w;
        // C, M, Y, K, then orange, green, violet: where each ink absorbs.
        const double band[7] = {
            0.05 + 2.6 * rise(nm, 575, 15),
            0.05 + 2.5 * rise(nm, 490, 12) * (1.0 - rise(nm, 600, 12)),
            0.03 + 2.6 * (1.0 - rise(nm, 500, 12)),
            3.6 + 0.1 * (nm - 400.0) / 300.0,
            0.05 + 2.6 * (1.0 - rise(nm, 565, 12)),
            0.05 + 2.4 * ((1.0 - rise(nm, 480, 12)) + rise(nm, 585, 15)),
            0.05 + 2.4 * rise(nm, 505, 12) * (1.0 - rise(nm, 640, 12)),
        };
        for (unsigned int k = 0; k < inks; ++k) m.absorption[k * 31 + w] = band[k < 7 ? k : 6];
    }
    FillScheme(m);
    return m;
}

void FillScheme(ZKSTestModel& m) {
    const unsigned int inks = m.inks, gridPoints = m.gridPoints;
    const double n = m.n;
    const unsigned int cellsPerInk = gridPoints - 1;
    const unsigned int cells = Power(cellsPerInk, inks);
    const unsigned int corners = 1u << inks;
    m.scheme.assign(std::size_t{cells} * 31 * corners, 0.0);
    std::vector<unsigned int> cell(inks), node(inks);
    std::vector<std::vector<double>> r(corners);
    for (unsigned int q = 0; q < cells; ++q) {
        unsigned int rest = q;
        for (unsigned int k = 0; k < inks; ++k) {
            cell[k] = rest % cellsPerInk;
            rest /= cellsPerInk;
        }
        for (unsigned int c = 0; c < corners; ++c) {
            for (unsigned int k = 0; k < inks; ++k) node[k] = cell[k] + ((c >> k) & 1u);
            r[c] = m.NodeSpectrum(node);
            for (double& v : r[c]) v = std::pow(v, 1.0 / n);
        }
        for (unsigned int w = 0; w < 31; ++w) {
            for (unsigned int j = 0; j < corners; ++j) {
                double c = 0.0;
                // Subsets k of j, with the sign of the size difference.
                for (unsigned int k = j;; k = (k - 1) & j) {
                    int parity = __builtin_popcount(j) - __builtin_popcount(k);
                    c += (parity % 2 ? -1.0 : 1.0) * r[k][w];
                    if (k == 0) break;
                }
                m.scheme[(std::size_t{q} * 31 + w) * corners + j] = c;
            }
        }
    }
}

std::vector<double> ZKSTestModel::Reference(const unsigned char* sample) const {
    std::vector<unsigned int> cell(inks);
    std::vector<double> x(inks);
    for (unsigned int k = 0; k < inks; ++k) {
        const double* g = &grid[k * gridPoints];
        unsigned int c = 0;
        while (c + 2 < gridPoints && g[c + 1] <= sample[k]) ++c;
        const double* ramp = &ramps[k * 256];
        double lo = ramp[static_cast<int>(g[c])], hi = ramp[static_cast<int>(g[c + 1])];
        x[k] = (ramp[sample[k]] - lo) / (hi - lo);
        cell[k] = c;
    }
    std::vector<double> sum(31, 0.0);
    std::vector<unsigned int> node(inks);
    for (unsigned int c = 0; c < (1u << inks); ++c) {
        double weight = 1.0;
        for (unsigned int k = 0; k < inks; ++k) {
            bool upper = (c >> k) & 1u;
            node[k] = cell[k] + (upper ? 1 : 0);
            weight *= upper ? x[k] : 1.0 - x[k];
        }
        if (weight == 0.0) continue;
        std::vector<double> r = NodeSpectrum(node);
        for (unsigned int w = 0; w < 31; ++w) sum[w] += weight * std::pow(r[w], 1.0 / n);
    }
    for (double& v : sum) v = std::pow(v, n);
    return sum;
}

kelma::ZKCSSE_KELMA_Data ZKSTestModel::Build(bool mediaRelative) const { return Build(D50Matrix(), mediaRelative); }

kelma::ZKCSSE_KELMA_Data ZKSTestModel::Build(const kelma::ZKCLighting_Matrix& matrix, bool mediaRelative) const {
    std::vector<float> g = GridF(), r = RampsF(), s = SchemeF();
    return kelma::ZKCSSE_KELMA_Data(inks, gridPoints, g.data(), r.data(), s.data(), static_cast<float>(n), matrix,
                                    kelma::INK_SET_SEVEN_INKS, mediaRelative, false, 31);
}

}  // namespace kelma_test
