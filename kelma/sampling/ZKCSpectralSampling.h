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
//    Equal neighbours divide the spline by a zero interval (non-finite
//    output) and, at either end of the list, give the linear method a
//    zero-width interval (division by zero: non-finite output there).
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
#include <memory>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/KernelVariant.h"
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

// Clamped cubic spline: one cubic per interval through the knots, with
// continuous first and second derivatives at interior knots and zero slope at
// both ends (clamped, not natural); outside the list the first or last
// interval's cubic is continued.
//
// The spline is linear in the knot values, so each output is a fixed
// combination of them: out[i] = sum over j of W[i][j] y[j]. The constructor
// computes this 31 x n map once, in double, from the classic tridiagonal
// system for the second derivatives M (Thomas algorithm; the system is
// strictly diagonally dominant for strictly ascending knots, so no pivoting):
//   with h_j = x[j+1] - x[j], for output wavelength v in interval k,
//   a = x[k+1] - v, b = v - x[k], h = h_k:
//   S(v) = (a y_k + b y_{k+1}) / h + (a^3 / h - a h) M_k / 6 + (b^3 / h - b h) M_{k+1} / 6,
//   M = T^-1 R y  (T the n x n tridiagonal spline matrix, R the second
//   differences of the knot values), and only the rows of T^-1 R for the
//   knots the outputs use are formed (T is symmetric: row q of T^-1 is the
//   solution of T z = e_q).
// Building costs O(n) per used knot (at most 62) and 32 n doubles; each
// spectrum costs 31 n multiply-adds (ResamplingMap.h), the same for every
// list of the same length. The map reproduces the dense spline system of
// absolute-wavelength cubics to well within 1e-5 (the same polynomials,
// computed without its cancellation in x^3 ~ 3e8).
//
// A repeated wavelength divides by a zero interval: the map, and so the
// output, becomes non-finite.
class ZKCSpectralSampling_CubicSpline : public ZKCSpectralSampling_Linear {
public:
    // Also reads ActiveKernelVariant() for Calculate.
    explicit ZKCSpectralSampling_CubicSpline(const std::vector<double>& wavelengths);

    // The map applied with the kernel chosen at construction.
    void Calculate() override;
    // The same with another variant's kernel (the processor must run it);
    // every kernel gives the same bits.
    void CalculateWith(KERNEL_VARIANT variant);

    KERNEL_VARIANT Variant() const { return variant_; }
    // Weight of input value j (sorted list) in output i.
    double Weight(unsigned int i, std::size_t j) const { return map_.get()[j * kMapStride + i]; }

private:
    static constexpr std::size_t kMapStride = kSpectrumStride;

    struct Free {
        void operator()(double* p) const;
    };
    // n rows of kMapStride doubles (knot-major, output 31 = 0.0), 64-byte aligned.
    std::unique_ptr<double[], Free> map_;
    KERNEL_VARIANT variant_;
};

}  // namespace KELMA_NAMESPACE
