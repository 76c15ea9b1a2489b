// The colour of a printer model at continuous ink amounts, with its
// derivatives, in double precision: the function the separation inverts.
//
// The model is the library's cellular Yule-Nielsen modified spectral
// Neugebauer model read between byte levels:
//  - ink amounts x_i are in byte units (0 = paper, 255 = full coverage), any
//    real value;
//  - the effective ramp of ink i is interpolated linearly between its 256
//    byte values (and extended beyond 0 and 255 with its end slopes);
//  - the cell along ink i is the one whose lower grid level is the largest at
//    or below x_i (x_i >= 255: the last cell, x_i < 0: the first), and the
//    local coordinate is (ramp(x_i) - ramp(lower level)) / (ramp(upper level)
//    - ramp(lower level)), or ramp(x_i) - ramp(lower level) when the cell's
//    ramp is flat: exactly the lookup table's rule at whole bytes;
//  - the spectrum is (sum_k c_k prod_{i in k} w_i)^n per wavelength, XYZ its
//    dot product with the lighting matrix of one illuminant (times the
//    media-relative factor when relative to the paper), CIELAB that of
//    XYZToCIELAB against the illuminant's white.
// Everything is computed in double except the power, which is the
// prediction kernels' own (YuleNielsenPower, single precision, within 2 ulp
// of powf): evaluations carry a relative noise of about 1e-7, at most about
// 1e-5 in L*a*b*, and the separation's searches stop well above it. At whole
// bytes inside 0..255 this is the prediction of PredictColorimetry (they
// agree to about 1e-4 in L*a*b*).
// Outside 0..255 the cells' polynomials are extended; the separation only
// steps there while it searches.
//
// Derivatives are exact for the multilinear part and the power; the
// derivative of CIELAB with respect to XYZ is a forward difference of
// XYZToCIELAB (relative step 1e-7), so there is one CIELAB formula.
//
// An evaluation fails (returns false, outputs unspecified) when a spectral
// sum is not positive, which only happens far outside 0..255, or when x holds
// NaN. Thread safety: const member functions only read.
#pragma once

#include <vector>

#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

class ZKCSeparation_Evaluator {
public:
    static constexpr unsigned int kMaxInks = 7;

    // Any model of up to 7 inks (a sub-model of ZKCSSE_KELMA_Datafilter in the
    // separation). illuminant indexes the model's lighting matrix ("Invalid
    // IlluminantIndex" otherwise); mediaRelative: colour relative to the paper.
    ZKCSeparation_Evaluator(const ZKCSSE_KELMA_Data& model, unsigned long illuminant, bool mediaRelative);
    virtual ~ZKCSeparation_Evaluator();

    unsigned int Inks() const { return inks_; }
    // XYZ of the illuminant's perfect reflector: the CIELAB reference white.
    const double* White() const { return white_; }

    // XYZ of ink amounts x (Inks() values). jac, when not null, receives
    // d XYZ_c / d x_i at [c * Inks() + i].
    bool XYZ(const double* x, double* xyz, double* jac) const;
    // CIELAB of x; jac: d Lab_c / d x_i at [c * Inks() + i].
    bool Lab(const double* x, double* lab, double* jac) const;

private:
    unsigned int inks_;
    unsigned int gridPoints_;
    unsigned int corners_;
    double n_;
    // Wavelengths per coefficient row: 31 and a 0.
    static constexpr unsigned int kLanes = 32;
    std::vector<float> scheme_;
    // Per ink: the ramp (256 values), the cell of each whole byte, per cell its
    // lower ramp value and scale, and the cell stride (G-1)^i.
    std::vector<double> ramps_;
    std::vector<unsigned char> cellOfByte_;
    std::vector<double> cellBase_;
    std::vector<double> cellScale_;
    std::vector<unsigned int> stride_;
    double weights_[3][kLanes];
    double white_[3];
};

}  // namespace KELMA_NAMESPACE
