#include "kelma/model/ModelValidation.h"

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <vector>

namespace KELMA_NAMESPACE {

namespace {

template <class T>
std::string Check(unsigned long N, unsigned long G, const T* grid, const T* ramps, const T* scheme,
                  std::size_t schemeCount, T n) {
    std::ostringstream s;
    if (N != 4 && N != 6 && N != 7) {
        s << "a model needs 4, 6 or 7 inks, got " << N;
        return s.str();
    }
    if (G < 2) {
        s << "a model needs at least 2 grid points per ink (0 and 255), got " << G;
        return s.str();
    }
    long double cells = 1;
    for (unsigned long i = 0; i < N; ++i) cells *= static_cast<long double>(G - 1);
    const long double expected = cells * 31.0L * static_cast<long double>(1ul << N);
    if (expected >= 4294967296.0L) {
        s << "a model of " << N << " inks and " << G << " grid points needs " << static_cast<double>(expected)
          << " coefficients, more than the 2^32 - 1 the library can address";
        return s.str();
    }
    if (static_cast<long double>(schemeCount) != expected) {
        s << "the scheme must hold 31 x (G-1)^N x 2^N = " << static_cast<unsigned long long>(expected)
          << " coefficients for " << N << " inks and " << G << " grid points, got " << schemeCount;
        return s.str();
    }
    for (unsigned long i = 0; i < N; ++i) {
        const T* g = grid + i * G;
        for (unsigned long p = 0; p < G; ++p) {
            if (!std::isfinite(g[p]) || g[p] != std::floor(g[p]) || g[p] < 0 || g[p] > 255) {
                s << "grid level " << p + 1 << " of ink " << i + 1 << " is " << g[p]
                  << "; levels must be whole numbers 0..255";
                return s.str();
            }
            if (p > 0 && !(g[p] > g[p - 1])) {
                s << "the grid levels of ink " << i + 1 << " must be strictly ascending, got " << g[p - 1]
                  << " then " << g[p];
                return s.str();
            }
        }
        if (g[0] != 0 || g[G - 1] != 255) {
            s << "the grid of ink " << i + 1 << " must start at 0 and end at 255, it runs " << g[0] << ".."
              << g[G - 1];
            return s.str();
        }
    }
    for (unsigned long i = 0; i < N; ++i) {
        const T* r = ramps + i * 256;
        for (unsigned t = 0; t < 256; ++t) {
            if (!std::isfinite(r[t])) {
                s << "the ramp of ink " << i + 1 << " is not finite at level " << t << " (" << r[t] << ")";
                return s.str();
            }
        }
        // Non-decreasing inside each cell [g_k, g_k+1], ends included (the
        // value at an inner grid level ends one cell and starts the next).
        const T* g = grid + i * G;
        for (unsigned long k = 0; k + 1 < G; ++k)
            for (unsigned t = static_cast<unsigned>(g[k]) + 1; t <= static_cast<unsigned>(g[k + 1]); ++t)
                if (r[t] < r[t - 1]) {
                    s << "the ramp of ink " << i + 1 << " falls from " << r[t - 1] << " at level " << t - 1
                      << " to " << r[t] << " at level " << t
                      << " inside a cell; ramps must be non-decreasing between grid levels";
                    return s.str();
                }
    }
    if (!std::isfinite(n) || !(n > 0)) {
        s << "n (the Yule-Nielsen exponent) must be finite and positive, got " << n;
        return s.str();
    }
    for (std::size_t k = 0; k < schemeCount; ++k)
        if (!std::isfinite(scheme[k])) {
            s << "scheme coefficient " << k << " is not finite (" << scheme[k] << ")";
            return s.str();
        }
    // Corner values of each (cell, wavelength): the zeta transform of the
    // coefficients, sum over the subsets of each corner.
    const std::size_t corners = std::size_t{1} << N;
    std::vector<double> v(corners);
    // v^n <= bound exactly when v <= bound^(1/n) (the power increases): one
    // power per model instead of one per corner.
    const double maxCorner = std::pow(kMaxPredictedReflectance, 1.0 / static_cast<double>(n));
    const std::size_t blocks = schemeCount / corners;
    for (std::size_t b = 0; b < blocks; ++b) {
        const T* c = scheme + b * corners;
        for (std::size_t k = 0; k < corners; ++k) v[k] = static_cast<double>(c[k]);
        for (unsigned long i = 0; i < N; ++i)
            for (std::size_t k = 0; k < corners; ++k)
                if (k & (std::size_t{1} << i)) v[k] += v[k ^ (std::size_t{1} << i)];
        for (std::size_t k = 0; k < corners; ++k) {
            if (!(v[k] > 0.0)) {
                s << "cell " << b / 31 << " predicts " << v[k] << " at corner " << k << " for " << 400 + 10 * (b % 31)
                  << " nm; every corner sum must be positive, or the power n gives NaN";
                return s.str();
            }
            if (!(v[k] <= maxCorner)) {
                const double reflectance = std::pow(v[k], static_cast<double>(n));
                s << "cell " << b / 31 << " predicts a reflectance factor of " << reflectance << " at corner " << k
                  << " for " << 400 + 10 * (b % 31) << " nm (corner sum " << v[k] << " to the power n); above "
                  << kMaxPredictedReflectance << " the spectra and colours overflow, and no print reflects that much";
                return s.str();
            }
        }
    }
    return "";
}

}  // namespace

std::string CheckModelArrays(unsigned long inks, unsigned long gridPoints, const float* grid, const float* ramps,
                             const float* scheme, std::size_t schemeCount, float n) {
    return Check<float>(inks, gridPoints, grid, ramps, scheme, schemeCount, n);
}

std::string CheckLighting(const ZKCLighting_Matrix& lighting, const float* paper) {
    static const char* const kComponent[3] = {"X", "Y", "Z"};
    std::ostringstream s;
    for (unsigned int j = 0; j < lighting.IlluminantNumber(); ++j) {
        for (unsigned int c = 0; c < 3; ++c) {
            const float* row = lighting.Weights() + std::size_t{j} * kLightingBlock + std::size_t{c} * kSpectrumStride;
            double white = 0.0, magnitude = 0.0;
            for (unsigned int i = 0; i < 31; ++i) {
                if (!std::isfinite(row[i])) {
                    s << "illuminant " << j + 1 << ": " << kComponent[c] << " weight " << i << " (" << 400 + 10 * i
                      << " nm) is not finite (" << row[i] << ")";
                    return s.str();
                }
                white += static_cast<double>(row[i]);
                magnitude += std::abs(static_cast<double>(row[i]));
            }
            if (!(white > 0.0) || white > kMaxLightingWhite) {
                s << "illuminant " << j + 1 << ": its white's " << kComponent[c] << " (the sum of the "
                  << kComponent[c] << " weights) is " << white << "; CIELAB needs a white above 0 and at most "
                  << kMaxLightingWhite;
                return s.str();
            }
            if (magnitude > kMaxWeightCancellation * white) {
                s << "illuminant " << j + 1 << ": the " << kComponent[c] << " weights nearly cancel (their magnitudes sum to "
                  << magnitude << " against a white of " << white << ", more than " << kMaxWeightCancellation
                  << " times it), so colours would fall far outside the white's scale";
                return s.str();
            }
            const double p = static_cast<double>(paper[3 * std::size_t{j} + c]);
            if (!(p >= kMinPaperWhiteFraction * white)) {
                s << "illuminant " << j + 1 << ": the paper's " << kComponent[c] << " is " << p << ", below "
                  << kMinPaperWhiteFraction << " of the white's (" << white
                  << "); no paper reflects that little, and colours relative to it would overflow";
                return s.str();
            }
        }
    }
    return "";
}

std::string CheckModelLighting(const ZKCSSE_KELMA_Data& model) {
    const std::vector<float>& paper = model.MediaWhitePoint().Values();
    if (paper.size() < 3 * std::size_t{model.Lighting_Matrix().IlluminantNumber()})
        return "the model holds no paper XYZ for its illuminants (it was built for another number of spectral values)";
    return CheckLighting(model.Lighting_Matrix(), paper.data());
}

std::string CheckModelArrays(unsigned long inks, unsigned long gridPoints, const double* grid, const double* ramps,
                             const double* scheme, std::size_t schemeCount, double n) {
    return Check<double>(inks, gridPoints, grid, ramps, scheme, schemeCount, n);
}

}  // namespace KELMA_NAMESPACE
