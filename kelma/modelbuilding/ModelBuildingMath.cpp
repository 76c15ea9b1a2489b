#include "kelma/modelbuilding/ModelBuildingMath.h"

#include <algorithm>
#include <cmath>

#include "kelma/colorimetry/CIEDE2000.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

void IsotonicRegression(std::vector<double>& y, const std::vector<double>& weights) {
    // Blocks of pooled values: mean, weight, length.
    std::vector<double> mean, weight;
    std::vector<std::size_t> length;
    for (std::size_t i = 0; i < y.size(); ++i) {
        mean.push_back(y[i]);
        weight.push_back(weights[i]);
        length.push_back(1);
        while (mean.size() > 1 && mean[mean.size() - 2] > mean.back()) {
            const std::size_t b = mean.size() - 1;
            const double w = weight[b - 1] + weight[b];
            mean[b - 1] = (mean[b - 1] * weight[b - 1] + mean[b] * weight[b]) / w;
            weight[b - 1] = w;
            length[b - 1] += length[b];
            mean.pop_back();
            weight.pop_back();
            length.pop_back();
        }
    }
    std::size_t i = 0;
    for (std::size_t b = 0; b < mean.size(); ++b)
        for (std::size_t k = 0; k < length[b]; ++k) y[i++] = mean[b];
}

namespace {

// One-sided end slope of the monotone cubic (three-point formula, limited so
// the end segment keeps its data's direction).
int Sign(double v) { return (v > 0.0) - (v < 0.0); }

double EndSlope(double h0, double h1, double d0, double d1) {
    const double s = ((2.0 * h0 + h1) * d0 - h0 * d1) / (h0 + h1);
    if (Sign(s) != Sign(d0)) return 0.0;
    if (Sign(d0) != Sign(d1) && std::fabs(s) > 3.0 * std::fabs(d0)) return 3.0 * d0;
    return s;
}

}  // namespace

std::vector<double> MonotoneCurve(const std::vector<double>& x, const std::vector<double>& y, unsigned int count) {
    const std::size_t m = x.size();
    std::vector<double> h(m - 1), delta(m - 1), slope(m);
    for (std::size_t k = 0; k + 1 < m; ++k) {
        h[k] = x[k + 1] - x[k];
        delta[k] = (y[k + 1] - y[k]) / h[k];
    }
    if (m == 2) {
        slope[0] = slope[1] = delta[0];
    } else {
        for (std::size_t k = 1; k + 1 < m; ++k) {
            if (delta[k - 1] == 0.0 || delta[k] == 0.0 || Sign(delta[k - 1]) != Sign(delta[k])) {
                slope[k] = 0.0;
            } else {
                const double w1 = 2.0 * h[k] + h[k - 1], w2 = h[k] + 2.0 * h[k - 1];
                slope[k] = (w1 + w2) / (w1 / delta[k - 1] + w2 / delta[k]);
            }
        }
        slope[0] = EndSlope(h[0], h[1], delta[0], delta[1]);
        slope[m - 1] = EndSlope(h[m - 2], h[m - 3], delta[m - 2], delta[m - 3]);
    }
    std::vector<double> out(count);
    std::size_t k = 0;
    for (unsigned int t = 0; t < count; ++t) {
        const double v = t;
        while (k + 2 < m && v > x[k + 1]) ++k;
        // Cubic Hermite on segment k in the local coordinate s.
        const double s = (v - x[k]) / h[k];
        const double s2 = s * s, s3 = s2 * s;
        out[t] = (2 * s3 - 3 * s2 + 1) * y[k] + (s3 - 2 * s2 + s) * h[k] * slope[k] + (-2 * s3 + 3 * s2) * y[k + 1] +
                 (s3 - s2) * h[k] * slope[k + 1];
        // Exactly the data at the knots (the Hermite form rounds there).
        if (v == x[k]) out[t] = y[k];
        if (v == x[k + 1]) out[t] = y[k + 1];
    }
    return out;
}

bool CholeskyFactor(double* a, std::size_t n) {
    for (std::size_t j = 0; j < n; ++j) {
        double d = a[j * n + j];
        for (std::size_t k = 0; k < j; ++k) d -= a[j * n + k] * a[j * n + k];
        if (!(d > 0.0)) return false;
        d = std::sqrt(d);
        a[j * n + j] = d;
        for (std::size_t i = j + 1; i < n; ++i) {
            double s = a[i * n + j];
            const double* ri = a + i * n;
            const double* rj = a + j * n;
            for (std::size_t k = 0; k < j; ++k) s -= ri[k] * rj[k];
            a[i * n + j] = s / d;
        }
    }
    return true;
}

void CholeskySolve(const double* l, std::size_t n, double* b, std::size_t columns) {
    // Forward: L Z = B.
    for (std::size_t i = 0; i < n; ++i) {
        double* bi = b + i * columns;
        for (std::size_t k = 0; k < i; ++k) {
            const double f = l[i * n + k];
            if (f == 0.0) continue;
            const double* bk = b + k * columns;
            for (std::size_t c = 0; c < columns; ++c) bi[c] -= f * bk[c];
        }
        const double inv = 1.0 / l[i * n + i];
        for (std::size_t c = 0; c < columns; ++c) bi[c] *= inv;
    }
    // Backward: L^T X = Z.
    for (std::size_t i = n; i-- > 0;) {
        double* bi = b + i * columns;
        for (std::size_t k = i + 1; k < n; ++k) {
            const double f = l[k * n + i];
            if (f == 0.0) continue;
            const double* bk = b + k * columns;
            for (std::size_t c = 0; c < columns; ++c) bi[c] -= f * bk[c];
        }
        const double inv = 1.0 / l[i * n + i];
        for (std::size_t c = 0; c < columns; ++c) bi[c] *= inv;
    }
}

void MoebiusInvert(double* corners, unsigned int inks) {
    const unsigned int count = 1u << inks;
    for (unsigned int i = 0; i < inks; ++i)
        for (unsigned int j = 0; j < count; ++j)
            if (j & (1u << i)) corners[j] -= corners[j ^ (1u << i)];
}

std::size_t IntPower(std::size_t base, unsigned int exponent) {
    std::size_t r = 1;
    for (unsigned int i = 0; i < exponent; ++i) r *= base;
    return r;
}

void DeltaE00Metric(const double* lab, double* u) {
    const double h = 0.05;
    // q(v) = symmetric second-order part of dE00^2 along v.
    auto q = [&](const double* v) {
        double plus[3], minus[3];
        for (int c = 0; c < 3; ++c) {
            plus[c] = lab[c] + v[c];
            minus[c] = lab[c] - v[c];
        }
        const double a = DeltaE2000(lab, plus), b = DeltaE2000(lab, minus);
        return 0.5 * (a * a + b * b);
    };
    double m[9];
    double single[3];
    for (int i = 0; i < 3; ++i) {
        double v[3] = {0, 0, 0};
        v[i] = h;
        single[i] = q(v);
        m[i * 3 + i] = single[i] / (h * h);
    }
    for (int i = 0; i < 3; ++i)
        for (int j = i + 1; j < 3; ++j) {
            double v[3] = {0, 0, 0};
            v[i] = v[j] = h;
            m[i * 3 + j] = m[j * 3 + i] = (q(v) - single[i] - single[j]) / (2.0 * h * h);
        }
    double l[9];
    std::copy(m, m + 9, l);
    if (!CholeskyFactor(l, 3)) {
        for (int i = 0; i < 9; ++i) l[i] = 0.0;
        for (int i = 0; i < 3; ++i) l[i * 3 + i] = std::sqrt(std::max(m[i * 3 + i], 1e-4));
    }
    // U = L^T (the factor writes only the lower triangle).
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) u[i * 3 + j] = j >= i ? l[j * 3 + i] : 0.0;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
