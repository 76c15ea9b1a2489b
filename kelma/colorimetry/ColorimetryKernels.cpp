#include "kelma/colorimetry/ColorimetryKernels.h"

#include <algorithm>
#include <cmath>

#include "kelma/colorimetry/LabBytesMargins.h"
#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/colorimetry/SpectralDot_SSE.h"
#include "kelma/colorimetry/SpectralDot_Scalar.h"
#include "kelma/colorspace/Lab2000hlTables.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

const ZKSLabMargins& LabMargins() {
    static const ZKSLabMargins margins = [] {
        // Steepest step of each table along each axis (per unit of L*, a*, b*).
        const double* L = Lab2000hlLutL();
        const double* A = Lab2000hlLutA();
        const double* B = Lab2000hlLutB();
        double sL = 0.0, sAa = 0.0, sAb = 0.0, sBa = 0.0, sBb = 0.0;
        for (unsigned int i = 0; i + 1 < kLab2000hlLSize; ++i) sL = std::max(sL, std::fabs(L[i + 1] - L[i]) * 100.0);
        for (unsigned int b = 0; b < kLab2000hlGridSide; ++b)
            for (unsigned int a = 0; a < kLab2000hlGridSide; ++a) {
                const unsigned int k = a + kLab2000hlGridSide * b;
                if (a + 1 < kLab2000hlGridSide) {
                    sAa = std::max(sAa, std::fabs(A[k + 1] - A[k]));
                    sBa = std::max(sBa, std::fabs(B[k + 1] - B[k]));
                }
                if (b + 1 < kLab2000hlGridSide) {
                    sAb = std::max(sAb, std::fabs(A[k + kLab2000hlGridSide] - A[k]));
                    sBb = std::max(sBb, std::fabs(B[k + kLab2000hlGridSide] - B[k]));
                }
            }
        // |d L*| <= 116 e, |d a*| <= 1000 e, |d b*| <= 400 e for cube roots
        // off by e; four times the resulting bound, plus the rounding noise
        // of two evaluations of a few dozen operations on values below 300.
        const double e = kCubeRootError;
        const double noise = 1e-9;
        ZKSLabMargins m;
        m.cielab[0] = 4.0 * kCIELABByteScaleL * 116.0 * e + noise;
        m.cielab[1] = 4.0 * 1000.0 * e + noise;
        m.cielab[2] = 4.0 * 400.0 * e + noise;
        m.lab2000hl[0] = 4.0 * kLab2000hlByteScaleL * sL * 116.0 * e + noise;
        m.lab2000hl[1] = 4.0 * kLab2000hlByteScaleAB * (sAa * 1000.0 + sAb * 400.0) * e + noise;
        m.lab2000hl[2] = 4.0 * kLab2000hlByteScaleAB * (sBa * 1000.0 + sBb * 400.0) * e + noise;
        return m;
    }();
    return margins;
}

namespace {

inline float Factor(const float* factor, std::size_t i) { return factor != nullptr ? factor[i] : 1.0f; }

void SpectraToXYZ_Scalar(const float* weights, unsigned int n, const float* factor, const float* spectra,
                         unsigned int count, float* xyz) {
    for (unsigned int s = 0; s < count; ++s, spectra += kSpectrumStride)
        for (unsigned int j = 0; j < n; ++j)
            for (unsigned int c = 0; c < 3; ++c)
                *xyz++ = SpectralDot_Scalar(spectra, weights + j * kLightingBlock + c * kSpectrumStride) *
                         Factor(factor, 3 * j + c);
}

void SpectraToXYZ_SSE2(const float* weights, unsigned int n, const float* factor, const float* spectra,
                       unsigned int count, float* xyz) {
    for (unsigned int s = 0; s < count; ++s, spectra += kSpectrumStride) {
        // The spectrum's eight vectors are loaded once and reused for all 3n rows.
        ZKSSpectrumVectors r = LoadSpectrum_SSE(spectra);
        for (unsigned int j = 0; j < n; ++j)
            for (unsigned int c = 0; c < 3; ++c)
                *xyz++ = SpectralDot_SSE(r, weights + j * kLightingBlock + c * kSpectrumStride) *
                         Factor(factor, 3 * j + c);
    }
}

void XYZToLabBytes_Scalar(unsigned int n, const double* inverseWhite, const float* xyz, unsigned int count,
                          bool cielab, unsigned char* out) {
    for (unsigned int s = 0; s < count; ++s)
        for (unsigned int j = 0; j < n; ++j, xyz += 3, out += 3) LabBytes_Scalar(xyz, inverseWhite + 3 * j, cielab, out);
}

}  // namespace

ZKSQuadRows MakeQuadRows(const float* weights, unsigned int n, const float* factor) {
    ZKSQuadRows t;
    t.rows = 3 * n;
    t.quads = (t.rows + 3) / 4;
    t.weights = AlignedBuffer<float, 64>(std::size_t{t.quads} * 8 * 16);
    t.factor = AlignedBuffer<float, 64>(std::size_t{t.quads} * 4);
    t.valid.assign(t.quads, 0);
    for (unsigned int q = 0; q < t.quads; ++q) {
        for (unsigned int j = 0; j < 4; ++j) {
            const unsigned int r = 4 * q + j;
            if (r >= t.rows) {
                t.factor[4 * q + j] = 1.0f;  // the padding rows' weights stay 0.0
                continue;
            }
            t.valid[q] = static_cast<std::uint16_t>(t.valid[q] | (1u << j));
            t.factor[4 * q + j] = Factor(factor, r);
            for (unsigned int k = 0; k < 8; ++k)
                for (unsigned int l = 0; l < 4; ++l)
                    t.weights[(std::size_t{q} * 8 + k) * 16 + 4 * j + l] =
                        weights[std::size_t{kSpectrumStride} * r + 4 * k + l];
        }
    }
    return t;
}

ZKSWhiteLanes MakeWhiteLanes(const double* inverseWhite, unsigned int n) {
    ZKSWhiteLanes t;
    t.n = n;
    t.lanes = AlignedBuffer<double, 64>(24 * std::size_t{n});
    t.illuminant.resize(8 * std::size_t{n});
    for (unsigned int phase = 0; phase < n; ++phase)
        for (unsigned int l = 0; l < 8; ++l) {
            const unsigned int j = (8 * phase + l) % n;
            t.illuminant[8 * phase + l] = j;
            for (int c = 0; c < 3; ++c) t.lanes[24 * phase + 8 * c + l] = inverseWhite[3 * j + c];
        }
    return t;
}

ZKCColorimetryPlan::ZKCColorimetryPlan(KERNEL_VARIANT variant, const float* weights, unsigned int n,
                                       const float* factor, const double* inverseWhite)
    : variant_(variant), weights_(weights), n_(n) {
    if (factor != nullptr) factor_.assign(factor, factor + 3 * std::size_t{n});
    if (inverseWhite != nullptr) inverseWhite_.assign(inverseWhite, inverseWhite + 3 * std::size_t{n});
    if (variant_ == KERNEL_AVX512 && weights != nullptr) quads_ = MakeQuadRows(weights, n, factor);
    if ((variant_ == KERNEL_AVX2 || variant_ == KERNEL_AVX512) && inverseWhite != nullptr)
        whiteLanes_ = MakeWhiteLanes(inverseWhite, n);
}

void ZKCColorimetryPlan::SpectraToXYZ(const float* spectra, unsigned int count, float* xyz) const {
    const float* factor = factor_.empty() ? nullptr : factor_.data();
    switch (variant_) {
        case KERNEL_REFERENCE: return SpectraToXYZ_Scalar(weights_, n_, factor, spectra, count, xyz);
        case KERNEL_SSE2:
        case KERNEL_SSSE3:
        case KERNEL_AVX2: return SpectraToXYZ_SSE2(weights_, n_, factor, spectra, count, xyz);
        case KERNEL_AVX512: return SpectraToXYZ_AVX512(quads_, weights_, factor, spectra, count, xyz);
    }
}

void ZKCColorimetryPlan::XYZToLabBytes(const float* xyz, unsigned int count, bool cielab, unsigned char* out) const {
    if (variant_ == KERNEL_AVX512)
        XYZToLabBytes_AVX512(whiteLanes_, inverseWhite_.data(), xyz, count, cielab, out, LabMargins());
    else if (variant_ == KERNEL_AVX2)
        XYZToLabBytes_AVX2(whiteLanes_, inverseWhite_.data(), xyz, count, cielab, out, LabMargins());
    else
        XYZToLabBytes_Scalar(n_, inverseWhite_.data(), xyz, count, cielab, out);
}

void SpectraToXYZ(KERNEL_VARIANT variant, const float* weights, unsigned int n, const float* factor,
                  const float* spectra, unsigned int count, float* xyz) {
    ZKCColorimetryPlan(variant, weights, n, factor, nullptr).SpectraToXYZ(spectra, count, xyz);
}

void XYZToLabBytes(KERNEL_VARIANT variant, unsigned int n, const double* inverseWhite, const float* xyz,
                   unsigned int count, bool cielab, unsigned char* out) {
    ZKCColorimetryPlan(variant, nullptr, n, nullptr, inverseWhite).XYZToLabBytes(xyz, count, cielab, out);
}

}  // namespace KELMA_NAMESPACE
