// The clamped cubic spline solved the long way, as the resampler did before
// it precomputed its map: one cubic per interval in absolute wavelength,
// p_k(x) = a_k + b_k x + c_k x^2 + d_k x^3, the system of order 4 (n - 1)
// (values, matched first and second derivatives, zero end slopes) inverted by
// LU with partial pivoting (Boost.uBLAS), then per spectrum the dense product
// of the inverse with the right-hand side and Horner's rule at each output
// wavelength. Costs O(n^3) to build: for lists up to about a hundred knots.
#pragma once

// uBLAS's debug checks re-multiply L U and throw on this badly scaled system.
#ifndef BOOST_UBLAS_NDEBUG
#define BOOST_UBLAS_NDEBUG 1
#endif

#include <algorithm>
#include <cstddef>
#include <vector>

#include <boost/numeric/ublas/lu.hpp>
#include <boost/numeric/ublas/matrix.hpp>

namespace sampling_test {

class DenseSplineOracle {
public:
    // x: strictly ascending knots (nm).
    explicit DenseSplineOracle(const std::vector<double>& x) : x_(x) {
        namespace ublas = boost::numeric::ublas;
        const std::size_t n = x.size();
        m_ = 4 * (n - 1);
        ublas::matrix<double> A(m_, m_);
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
        value(0, 0, x[0], 1.0);
        slope(1, 0, x[0], 1.0);
        for (std::size_t j = 1; j + 1 < n; ++j) {
            const std::size_t r = 4 * j - 2, q = 4 * j;
            value(r, q - 4, x[j], 1.0);
            curvature(r + 1, q - 4, x[j], 1.0);
            curvature(r + 1, q, x[j], -1.0);
            slope(r + 2, q - 4, x[j], 1.0);
            slope(r + 2, q, x[j], -1.0);
            value(r + 3, q, x[j], 1.0);
        }
        value(m_ - 2, m_ - 4, x[n - 1], 1.0);
        slope(m_ - 1, m_ - 4, x[n - 1], 1.0);
        ublas::permutation_matrix<std::size_t> pivots(m_);
        ublas::lu_factorize(A, pivots);
        ublas::matrix<double> inverse = ublas::identity_matrix<double>(m_);
        ublas::lu_substitute(A, pivots, inverse);
        inverse_.resize(m_ * m_);
        for (std::size_t r = 0; r < m_; ++r)
            for (std::size_t c = 0; c < m_; ++c) inverse_[r * m_ + c] = inverse(r, c);
    }

    // The 31 outputs at 400, 410, ..., 700 nm for knot values y, in float.
    std::vector<float> Resample(const float* y) const {
        const std::size_t n = x_.size();
        std::vector<double> rhs(m_, 0.0), coef(m_);
        rhs[0] = y[0];
        for (std::size_t j = 1; j + 1 < n; ++j) rhs[4 * j - 2] = rhs[4 * j + 1] = y[j];
        rhs[m_ - 2] = y[n - 1];
        for (std::size_t r = 0; r < m_; ++r) {
            double sum = 0.0;
            for (std::size_t c = 0; c < m_; ++c) sum += inverse_[r * m_ + c] * rhs[c];
            coef[r] = sum;
        }
        std::vector<float> out(31);
        for (unsigned i = 0; i < 31; ++i) {
            const double v = 400.0 + 10.0 * i;
            // Interval: the last knot at or below v (the first one below the
            // list), never past the last interval.
            std::size_t k = std::upper_bound(x_.begin(), x_.end(), v) - x_.begin();
            k = k == 0 ? 0 : std::min(k - 1, n - 2);
            const double* p = &coef[4 * k];
            out[i] = static_cast<float>(((p[3] * v + p[2]) * v + p[1]) * v + p[0]);
        }
        return out;
    }

private:
    std::vector<double> x_;
    std::size_t m_;
    std::vector<double> inverse_;
};

}  // namespace sampling_test
