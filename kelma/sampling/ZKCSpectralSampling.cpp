// uBLAS's debug checks would make the numbers depend on the build type: its
// type check re-multiplies L U and throws when the badly scaled spline system
// (entries 1 .. 4e8) misses a tolerance, and it throws on a zero pivot that
// the release build lets through. Both are off in every build.
#define BOOST_UBLAS_NDEBUG 1

#include "kelma/sampling/ZKCSpectralSampling.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>

#include <boost/numeric/ublas/lu.hpp>
#include <boost/numeric/ublas/matrix.hpp>

namespace KELMA_NAMESPACE {

namespace ublas = boost::numeric::ublas;

ZKCSpectralSampling_Base::ZKCSpectralSampling_Base(const std::vector<double>& wavelengths)
    : wavelengths_(wavelengths) {
    if (wavelengths_.size() < 2) throw "Wavelength-list has less than 2 elements";
    // A NaN would also break the sort's ordering (and with it its bounds).
    for (double w : wavelengths_)
        if (!std::isfinite(w)) throw "Invalid wavelength range";
    if (wavelengths_.front() > 400.0 && wavelengths_.back() < 700.0) throw "Invalid wavelength range";
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

// Spline system of order m = 4 (n - 1) in absolute wavelength, row-major;
// unknowns a_0, b_0, c_0, d_0, a_1, ... (piece k in columns 4k .. 4k+3).
ublas::matrix<double> SplineSystem(const std::vector<double>& x) {
    const std::size_t n = x.size();
    const std::size_t m = 4 * (n - 1);
    ublas::matrix<double> A(m, m);
    A.clear();
    auto value = [&A](std::size_t row, std::size_t col, double v, double sign) {
        A(row, col) = sign;
        A(row, col + 1) = sign * v;
        A(row, col + 2) = sign * v * v;
        A(row, col + 3) = sign * v * v * v;
    };
    auto slope = [&A](std::size_t row, std::size_t col, double v, double sign) {
        A(row, col + 1) = sign;
        A(row, col + 2) = sign * 2.0 * v;
        A(row, col + 3) = sign * 3.0 * v * v;
    };
    auto curvature = [&A](std::size_t row, std::size_t col, double v, double sign) {
        A(row, col + 2) = sign * 2.0;
        A(row, col + 3) = sign * 6.0 * v;
    };
    // p_0(x_0) = y_0 and p_0'(x_0) = 0.
    value(0, 0, x[0], 1.0);
    slope(1, 0, x[0], 1.0);
    // Interior knot j joins piece j-1 (columns q-4..q-1) and piece j (q..q+3).
    for (std::size_t j = 1; j + 1 < n; ++j) {
        const std::size_t r = 4 * j - 2;
        const std::size_t q = 4 * j;
        value(r, q - 4, x[j], 1.0);
        curvature(r + 1, q - 4, x[j], 1.0);
        curvature(r + 1, q, x[j], -1.0);
        slope(r + 2, q - 4, x[j], 1.0);
        slope(r + 2, q, x[j], -1.0);
        value(r + 3, q, x[j], 1.0);
    }
    // p_{n-2}(x_{n-1}) = y_{n-1} and p_{n-2}'(x_{n-1}) = 0.
    value(m - 2, m - 4, x[n - 1], 1.0);
    slope(m - 1, m - 4, x[n - 1], 1.0);
    return A;
}

// One block of kBlockRows coefficient rows, 2 rows per SSE2 vector:
//   coef[r] = sum over p ascending of M[p][r] * x[p], starting from 0.0
// (no fused multiply-add: the per-row sums round exactly like the scalar loop).
template <unsigned int Rows>
inline void MultiplyBlock(const double* block, const double* x, std::size_t positions, double* coef) {
    __m128d acc[Rows / 2];
    for (unsigned int v = 0; v < Rows / 2; ++v) acc[v] = _mm_setzero_pd();
    for (std::size_t p = 0; p < positions; ++p, block += Rows) {
        const __m128d xp = _mm_set1_pd(x[p]);
        for (unsigned int v = 0; v < Rows / 2; ++v)
            acc[v] = _mm_add_pd(acc[v], _mm_mul_pd(_mm_load_pd(block + 2 * v), xp));
    }
    for (unsigned int v = 0; v < Rows / 2; ++v) _mm_store_pd(coef + 2 * v, acc[v]);
}

// a + b x + c x^2 + d x^3 at x = lambda (nm) by Horner in double, rounded
// once to float; a non-finite coefficient gives a non-finite result.
inline float EvaluateCubic(const double* abcd, double lambda) {
    return static_cast<float>(((abcd[3] * lambda + abcd[2]) * lambda + abcd[1]) * lambda + abcd[0]);
}

}  // namespace

ZKCSpectralSampling_CubicSpline::ZKCSpectralSampling_CubicSpline(const std::vector<double>& wavelengths)
    : ZKCSpectralSampling_Linear(wavelengths) {
    const std::vector<double>& x = wavelengths_;
    const std::size_t n = x.size();
    const std::size_t m = 4 * (n - 1);
    order_ = static_cast<unsigned int>(m);

    // Invert once: L U = P A with partial pivoting, then solve for the identity.
    ublas::matrix<double> A = SplineSystem(x);
    ublas::permutation_matrix<std::size_t> pivots(m);
    ublas::lu_factorize(A, pivots);
    ublas::matrix<double> inverse = ublas::identity_matrix<double>(m);
    ublas::lu_substitute(A, pivots, inverse);
    inverse_.resize(m * m);
    for (std::size_t r = 0; r < m; ++r)
        for (std::size_t c = 0; c < m; ++c) inverse_[r * m + c] = inverse(r, c);
    coefficients_.assign(m, 0.0);

    // Rows of the right-hand side that carry knot values, ascending: row 0
    // (knot 0), rows 4j-2 and 4j+1 (interior knot j), row m-2 (last knot).
    rhsRows_.push_back(0);
    rhsKnots_.push_back(0);
    for (std::size_t j = 1; j + 1 < n; ++j) {
        rhsRows_.push_back(static_cast<std::uint32_t>(4 * j - 2));
        rhsKnots_.push_back(static_cast<std::uint32_t>(j));
        rhsRows_.push_back(static_cast<std::uint32_t>(4 * j + 1));
        rhsKnots_.push_back(static_cast<std::uint32_t>(j));
    }
    rhsRows_.push_back(static_cast<std::uint32_t>(m - 2));
    rhsKnots_.push_back(static_cast<std::uint32_t>(n - 1));
    const std::size_t positions = rhsRows_.size();

    // Intervals used by the outputs (lower_ is non-decreasing in i).
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        if (usedIntervals_.empty() || usedIntervals_.back() != lower_[i]) usedIntervals_.push_back(lower_[i]);
        outputSlot_[i] = static_cast<std::uint32_t>(usedIntervals_.size() - 1);
    }
    const std::size_t usedRows = 4 * usedIntervals_.size();
    blocks_ = static_cast<unsigned int>((usedRows + kBlockRows - 1) / kBlockRows);

    packed_ = AlignedBuffer<double>(static_cast<std::size_t>(blocks_) * positions * kBlockRows);
    for (std::size_t b = 0; b < blocks_; ++b) {
        for (std::size_t p = 0; p < positions; ++p) {
            double* dst = packed_.data() + (b * positions + p) * kBlockRows;
            for (std::size_t r = 0; r < kBlockRows; ++r) {
                const std::size_t compactRow = b * kBlockRows + r;
                if (compactRow >= usedRows) break;  // padding stays 0.0
                const std::size_t row = 4 * usedIntervals_[compactRow / 4] + compactRow % 4;
                dst[r] = inverse_[row * m + rhsRows_[p]];
            }
        }
    }

    // Both parts start on 16-byte boundaries (even offsets from an aligned base).
    const std::size_t rhsSlots = (positions + 1) / 2 * 2;
    scratch_ = AlignedBuffer<double>(kLineDoubles + rhsSlots + static_cast<std::size_t>(blocks_) * kBlockRows +
                                     kLineDoubles);
    rhsValues_ = scratch_.data() + kLineDoubles;
    compactCoefficients_ = rhsValues_ + rhsSlots;
}

void ZKCSpectralSampling_CubicSpline::Calculate() {
    const std::size_t n = wavelengths_.size();
    const std::size_t positions = rhsRows_.size();
    const float* y = input_;
    float* out = output_;
    double* coef = compactCoefficients_;
    for (unsigned long s = 0; s < count_; ++s, y += n, out += kSpectrumStride) {
        for (std::size_t p = 0; p < positions; ++p) rhsValues_[p] = static_cast<double>(y[rhsKnots_[p]]);
        for (unsigned int b = 0; b < blocks_; ++b)
            MultiplyBlock<kBlockRows>(packed_.data() + static_cast<std::size_t>(b) * positions * kBlockRows,
                                      rhsValues_, positions, coef + b * kBlockRows);
        for (unsigned int i = 0; i < kSpectralValues; ++i)
            out[i] = EvaluateCubic(coef + 4 * outputSlot_[i], OutputWavelength(i));
    }
}

void ZKCSpectralSampling_CubicSpline::CalculateReference() {
    const std::size_t n = wavelengths_.size();
    const std::size_t m = order_;
    std::vector<double> rhs(m);
    const float* y = input_;
    float* out = output_;
    for (unsigned long s = 0; s < count_; ++s, y += n, out += kSpectrumStride) {
        std::fill(rhs.begin(), rhs.end(), 0.0);
        rhs[0] = y[0];
        for (std::size_t j = 1; j + 1 < n; ++j) {
            rhs[4 * j - 2] = y[j];
            rhs[4 * j + 1] = y[j];
        }
        rhs[m - 2] = y[n - 1];
        for (std::size_t r = 0; r < m; ++r) {
            double sum = 0.0;
            for (std::size_t c = 0; c < m; ++c) sum += inverse_[r * m + c] * rhs[c];
            coefficients_[r] = sum;
        }
        for (unsigned int i = 0; i < kSpectralValues; ++i)
            out[i] = EvaluateCubic(coefficients_.data() + 4 * lower_[i], OutputWavelength(i));
    }
}

}  // namespace KELMA_NAMESPACE
