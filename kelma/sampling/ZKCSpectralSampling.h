// Resampling workers: spectra on an arbitrary wavelength list -> the 31-point
// grid (400-700 nm, 10 nm), by piecewise-linear interpolation or by a clamped
// cubic spline. Internal: hosts use ZKCSpectralSampling_Thread.
//
// Wavelength list (nm, doubles), as every worker takes it:
//  - at least 2 elements, else "Wavelength-list has less than 2 elements";
//  - every element finite, and not (first > 400 and last < 700), else
//    "Invalid wavelength range". The range test is deliberately lenient: a list
//    that starts at or below 400 nm passes whatever its end, one that ends at
//    or above 700 nm passes whatever its start;
//  - the worker sorts its copy of the list, but never the values: input
//    spectra must already be in the order of an ascending list. Pass the list
//    strictly ascending; an unsorted list pairs values with wrong wavelengths.
//    Equal neighbours make the spline system singular (non-finite output)
//    and, at either end of the list, give the linear method a zero-width
//    interval (division by zero: non-finite output there).
//
// Output wavelengths outside the list are extrapolated, never read beyond it:
// below the first knot from the first interval, at or above the last knot
// from the last interval (e.g. 700 nm on a list 380-690 nm uses the
// polynomial of 680-690 nm). Lists that end below 700 nm are therefore
// accepted when they start at or below 400 nm, as the range test allows.
//
// Layouts: input spectra are runs of n floats (n = list size, in list order);
// output spectra are runs of 32 floats, slots 0-30 written, slot 31 untouched.
// NaN or infinite input values propagate: in the linear method to the outputs
// whose interval has that knot at an end, in the spline to the whole output
// spectrum (every coefficient depends on every knot).
#pragma once

#include <cstdint>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class ZKCSpectralSampling_Base {
public:
    // Workers keep pointers into their own buffers: never copied.
    ZKCSpectralSampling_Base(const ZKCSpectralSampling_Base&) = delete;
    ZKCSpectralSampling_Base& operator=(const ZKCSpectralSampling_Base&) = delete;
    virtual ~ZKCSpectralSampling_Base();
    // Resamples the spectra given to Init.
    virtual void Calculate() = 0;
    // `in` holds count x n floats, `out` count x 32; both must stay valid
    // until Calculate returns.
    virtual void Init(const float* in, float* out, unsigned long count);

    // Thread body.
    void operator()() { Calculate(); }

    // The validated, sorted list (nm).
    const std::vector<double>& Wavelengths() const { return wavelengths_; }

protected:
    // Validates and sorts a copy of the list (see the top of this file).
    explicit ZKCSpectralSampling_Base(const std::vector<double>& wavelengths);

    std::vector<double> wavelengths_;
    const float* input_ = nullptr;
    float* output_ = nullptr;
    unsigned long count_ = 0;
};

class ZKCSpectralSampling_Linear : public ZKCSpectralSampling_Base {
public:
    explicit ZKCSpectralSampling_Linear(const std::vector<double>& wavelengths);

    // For output i at lambda_i = 400 + 10 i nm, with lo = Lower(i), hi = lo + 1:
    //   slope = double(y[hi] - y[lo]) / (w[hi] - w[lo])   (difference in float)
    //   out[i] = float((slope lambda_i + y[hi]) - slope w[hi])
    void Calculate() override;

    // Interval of output i: knots Lower(i) and Upper(i) = Lower(i) + 1. A
    // wavelength equal to a knot uses the interval that starts at it (the
    // last knot excepted: it has no interval of its own).
    std::uint32_t Lower(unsigned int i) const { return lower_[i]; }
    std::uint32_t Upper(unsigned int i) const { return upper_[i]; }

protected:
    static double OutputWavelength(unsigned int i) { return 400.0 + 10.0 * i; }

    std::uint32_t lower_[kSpectralValues];
    std::uint32_t upper_[kSpectralValues];
};

// One cubic per interval in absolute wavelength,
//   p_k(x) = a_k + b_k x + c_k x^2 + d_k x^3   (k = 0 .. n-2),
// through the knots, with continuous first and second derivatives at interior
// knots and zero slope at both ends (clamped, not natural). The system of
// order m = 4 (n - 1) is LU-factorised with partial pivoting and inverted once
// per worker at construction (a zero pivot is not reported: the inverse, and
// so the output, becomes non-finite). Per spectrum the coefficients are the
// inverse times the right-hand side, and out[i] = ((d lambda + c) lambda + b)
// lambda + a in double, stored as float.
//
// The right-hand side is zero except at 2 (n - 1) fixed rows (each knot value
// once or twice), and the 31 outputs use at most 31 intervals, so Calculate
// multiplies only those columns into only those coefficient rows. Per
// coefficient the products are summed in ascending column order, exactly as
// the dense product does; the skipped terms are products of a finite inverse
// entry with 0.0, which change no sum. Calculate therefore matches
// CalculateReference bit for bit (for any finite inverse).
class ZKCSpectralSampling_CubicSpline : public ZKCSpectralSampling_Linear {
public:
    explicit ZKCSpectralSampling_CubicSpline(const std::vector<double>& wavelengths);

    void Calculate() override;
    // The same result by the literal dense method (full right-hand side, full
    // inverse times it, every coefficient): the scalar reference of Calculate.
    void CalculateReference();

    unsigned int Order() const { return order_; }
    // Row-major inverse of the system matrix, Order() x Order().
    const std::vector<double>& Inverse() const { return inverse_; }

private:
    // Number of coefficient rows computed together (4 intervals).
    static constexpr unsigned int kBlockRows = 16;

    // Doubles in one cache line (the scratch padding).
    static constexpr unsigned int kLineDoubles = 8;

    unsigned int order_ = 0;
    std::vector<double> inverse_;
    // Dense coefficient vector of order m (reference path).
    std::vector<double> coefficients_;

    // Right-hand side rows that can be non-zero, ascending, and the knot whose
    // value each one takes.
    std::vector<std::uint32_t> rhsRows_;
    std::vector<std::uint32_t> rhsKnots_;
    // Intervals the outputs use (ascending, distinct) and, per output, its
    // position in that list.
    std::vector<std::uint32_t> usedIntervals_;
    std::uint32_t outputSlot_[kSpectralValues];
    // The inverse's entries for (used coefficient rows) x (rhsRows_), in
    // blocks of kBlockRows rows: block b, rhs position p, row r of the block
    // at ((b * P + p) * kBlockRows + r). Rows past the last used interval are 0.
    AlignedBuffer<double> packed_;
    unsigned int blocks_ = 0;
    // Per-spectrum scratch, written for every spectrum: the right-hand side
    // values, then the compact coefficients, with a cache line of padding on
    // both sides so that workers on other cores never share a line with it.
    AlignedBuffer<double> scratch_;
    double* rhsValues_ = nullptr;
    double* compactCoefficients_ = nullptr;
};

}  // namespace KELMA_NAMESPACE
