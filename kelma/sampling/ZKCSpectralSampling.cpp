#include "kelma/sampling/ZKCSpectralSampling.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kelma/sampling/ResamplingMap.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

ZKCSpectralSampling_Base::ZKCSpectralSampling_Base(const std::vector<double>& wavelengths)
    : wavelengths_(wavelengths) {
    if (wavelengths_.size() < 2) throw kErrorShortWavelengthList;
    // A NaN would also break the sort's ordering (and with it its bounds).
    for (double w : wavelengths_)
        if (!std::isfinite(w)) throw kErrorInvalidWavelengthRange;
    if (wavelengths_.front() > 400.0 && wavelengths_.back() < 700.0) throw kErrorInvalidWavelengthRange;
    std::sort(wavelengths_.begin(), wavelengths_.end());
}

ZKCSpectralSampling_Base::~ZKCSpectralSampling_Base() = default;

void ZKCSpectralSampling_Base::Init(const float* in, float* out, unsigned long count) {
    input_ = in;
    output_ = out;
    count_ = count;
}

ZKCSpectralSampling_Linear::ZKCSpectralSampling_Linear(const std::vector<double>& wavelengths)
    : ZKCSpectralSampling_Base(wavelengths) {
    const std::vector<double>& w = wavelengths_;
    // The last interval is [n-2, n-1]; k never passes it, so hi = k + 1 stays
    // inside the list and wavelengths at or past the last knot extrapolate.
    const std::size_t last = w.size() - 2;
    std::size_t k = 0;
    while (k < last && w[k + 1] <= 400.0) ++k;
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        const double lambda = OutputWavelength(i);
        while (k < last && lambda >= w[k + 1]) ++k;
        lower_[i] = static_cast<std::uint32_t>(k);
        upper_[i] = static_cast<std::uint32_t>(k + 1);
    }
}

void ZKCSpectralSampling_Linear::Calculate() {
    const std::size_t n = wavelengths_.size();
    const double* w = wavelengths_.data();
    const float* y = input_;
    float* out = output_;
    for (unsigned long s = 0; s < count_; ++s, y += n, out += kSpectrumStride) {
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            const std::uint32_t lo = lower_[i];
            const std::uint32_t hi = upper_[i];
            const float dy = y[hi] - y[lo];
            const double slope = static_cast<double>(dy) / (w[hi] - w[lo]);
            out[i] = static_cast<float>((slope * OutputWavelength(i) + y[hi]) - slope * w[hi]);
        }
    }
}

namespace {

// The clamped spline's second-derivative system T M = R y on knots x (n >= 2),
// h_j = x[j+1] - x[j]:
//   T: diagonal 2 h_0, 2 (h_{j-1} + h_j) (0 < j < n-1), 2 h_{n-2};
//      off-diagonal (j, j+1) and (j+1, j): h_j. Symmetric.
//   R: row 0: -6/h_0, 6/h_0 (zero slope at x_0);
//      row j: 6/h_{j-1}, -6/h_{j-1} - 6/h_j, 6/h_j;
//      row n-1: 6/h_{n-2}, -6/h_{n-2} (zero slope at x_{n-1}).
class SecondDerivativeSystem {
public:
    explicit SecondDerivativeSystem(const std::vector<double>& x) : n_(x.size()), h_(n_ - 1), l_(n_), u_(n_) {
        for (std::size_t j = 0; j + 1 < n_; ++j) h_[j] = x[j + 1] - x[j];
        // T = L U without pivoting: u_j = diag_j - l_j h_{j-1}, l_j = h_{j-1} / u_{j-1}.
        u_[0] = 2.0 * h_[0];
        for (std::size_t j = 1; j < n_; ++j) {
            const double diag = j + 1 < n_ ? 2.0 * (h_[j - 1] + h_[j]) : 2.0 * h_[j - 1];
            l_[j] = h_[j - 1] / u_[j - 1];
            u_[j] = diag - l_[j] * h_[j - 1];
        }
    }

    // Row q of T^-1 R: the weights of the knot values in M_q.
    void Row(std::size_t q, std::vector<double>& z, std::vector<double>& row) const {
        // T z = e_q (row q of T^-1, T being symmetric).
        z.assign(n_, 0.0);
        z[q] = 1.0;
        for (std::size_t j = q + 1; j < n_; ++j) z[j] = -l_[j] * z[j - 1];
        z[n_ - 1] /= u_[n_ - 1];
        for (std::size_t j = n_ - 1; j-- > 0;) z[j] = (z[j] - h_[j] * z[j + 1]) / u_[j];
        // row = z^T R, column by column (R has three entries per column).
        row.assign(n_, 0.0);
        for (std::size_t r = 0; r < n_; ++r) {
            const double below = r > 0 ? 6.0 / h_[r - 1] : 0.0;   // R[r][r-1]
            const double above = r + 1 < n_ ? 6.0 / h_[r] : 0.0;  // R[r][r+1]
            if (r > 0) row[r - 1] += z[r] * below;
            row[r] -= z[r] * (below + above);
            if (r + 1 < n_) row[r + 1] += z[r] * above;
        }
    }

private:
    std::size_t n_;
    std::vector<double> h_, l_, u_;
};

}  // namespace

void ZKCSpectralSampling_CubicSpline::Free::operator()(double* p) const { std::free(p); }

ZKCSpectralSampling_CubicSpline::ZKCSpectralSampling_CubicSpline(const std::vector<double>& wavelengths)
    : ZKCSpectralSampling_Linear(wavelengths), variant_(ActiveKernelVariant()) {
    const std::vector<double>& x = wavelengths_;
    const std::size_t n = x.size();
    constexpr std::size_t kAlign = 64;
    if (n > (static_cast<std::size_t>(-1) - kAlign) / (kMapStride * sizeof(double))) throw std::bad_alloc();
    const std::size_t bytes = n * kMapStride * sizeof(double);
    map_.reset(static_cast<double*>(std::aligned_alloc(kAlign, (bytes + kAlign - 1) / kAlign * kAlign)));
    if (!map_) throw std::bad_alloc();
    double* W = map_.get();
    std::memset(W, 0, bytes);

    // The value part of each output, (a y_k + b y_{k+1}) / h, and the factors
    // of M_k and M_{k+1}.
    double cLower[kSpectralValues], cUpper[kSpectralValues];
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        const std::size_t k = lower_[i];
        const double v = OutputWavelength(i);
        const double h = x[k + 1] - x[k];
        const double a = x[k + 1] - v, b = v - x[k];
        W[k * kMapStride + i] += a / h;
        W[(k + 1) * kMapStride + i] += b / h;
        cLower[i] = (a * a * a / h - a * h) / 6.0;
        cUpper[i] = (b * b * b / h - b * h) / 6.0;
    }
    // Every knot q that an output uses as k or k + 1: its row of T^-1 R,
    // weighted, added to those outputs. Knots in ascending order, each once.
    std::vector<std::size_t> knots;
    for (unsigned int i = 0; i < kSpectralValues; ++i)
        for (std::size_t q : {std::size_t{lower_[i]}, std::size_t{lower_[i]} + 1})
            if (knots.empty() || knots.back() < q) knots.push_back(q);
    const SecondDerivativeSystem system(x);
    std::vector<double> z, row;
    for (std::size_t q : knots) {
        system.Row(q, z, row);
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            if (lower_[i] != q && lower_[i] + std::size_t{1} != q) continue;
            const double c = lower_[i] == q ? cLower[i] : cUpper[i];
            for (std::size_t j = 0; j < n; ++j) W[j * kMapStride + i] += c * row[j];
        }
    }
}

void ZKCSpectralSampling_CubicSpline::Calculate() { CalculateWith(variant_); }

void ZKCSpectralSampling_CubicSpline::CalculateWith(KERNEL_VARIANT variant) {
    ApplyResamplingMap(variant, map_.get(), wavelengths_.size(), input_, output_, count_);
}

}  // namespace KELMA_NAMESPACE
