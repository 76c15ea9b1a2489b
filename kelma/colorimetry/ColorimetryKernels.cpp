#include "kelma/colorimetry/ColorimetryKernels.h"

#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/colorimetry/SpectralDot_SSE.h"
#include "kelma/colorimetry/SpectralDot_Scalar.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

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

void SpectraToXYZ(KERNEL_VARIANT variant, const float* weights, unsigned int n, const float* factor,
                  const float* spectra, unsigned int count, float* xyz) {
    switch (variant) {
        case KERNEL_REFERENCE: return SpectraToXYZ_Scalar(weights, n, factor, spectra, count, xyz);
        case KERNEL_SSE2:
        case KERNEL_SSSE3:
        case KERNEL_AVX2: return SpectraToXYZ_SSE2(weights, n, factor, spectra, count, xyz);
        case KERNEL_AVX512: return SpectraToXYZ_AVX512(weights, n, factor, spectra, count, xyz);
    }
}

void XYZToLabBytes(KERNEL_VARIANT variant, unsigned int n, const double* inverseWhite, const float* xyz,
                   unsigned int count, bool cielab, unsigned char* out) {
    if (variant == KERNEL_AVX512)
        XYZToLabBytes_AVX512(n, inverseWhite, xyz, count, cielab, out);
    else
        XYZToLabBytes_Scalar(n, inverseWhite, xyz, count, cielab, out);
}

}  // namespace KELMA_NAMESPACE
