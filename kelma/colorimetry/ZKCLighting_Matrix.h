// Observer x illuminant weights that turn 31-value reflectance spectra into
// CIE XYZ (perfect reflector Y = 1.0), CIELAB and encoded bytes.
#pragma once

#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class ZKCWhitePoint;

// Weight buffer: one block of 96 floats per illuminant (X, Y, Z rows of 32,
// slot 31 of each row 0.0), 16-byte aligned. Row[i] = cmf(i) S(i) / k with
// k = sum_i ybar(i) S(i), computed in double and stored as float.
class KELMA_API ZKCLighting_Matrix {
public:
    ZKCLighting_Matrix();
    ZKCLighting_Matrix(const ZKCObserver& observer, const ZKCIlluminant_Base* illuminant);
    ZKCLighting_Matrix(const ZKCObserver& observer, const std::vector<ZKCIlluminant_Base*>& illuminants);
    // Copies illuminantCount x 96 floats laid out as above.
    ZKCLighting_Matrix(const float* weights, unsigned long illuminantCount);
    ZKCLighting_Matrix(const ZKCLighting_Matrix& other);
    ZKCLighting_Matrix& operator=(const ZKCLighting_Matrix& other);
    virtual ~ZKCLighting_Matrix();

    // Appends the other's blocks after this matrix's own.
    ZKCLighting_Matrix& operator+=(const ZKCLighting_Matrix& other);

    // Replaces `out` by the one-illuminant matrix of block `index`.
    // Throws "Invalid IlluminantIndex" (out untouched) when index >= IlluminantNumber().
    void ExtractSingleIlluminant_Lighting_Matrix(ZKCLighting_Matrix& out, unsigned long index) const;

    unsigned int IlluminantNumber() const { return count_; }
    // The weight buffer (IlluminantNumber() x 96 floats), e.g. to export it.
    const float* Weights() const { return weights_.data(); }

    // XYZ of `count` spectra (32 floats each, 16-byte aligned; slot 31 is
    // ignored). Output: count x n triples, sample-major, illuminant-minor,
    // each value multiplied by factor[3j + c] when factor is given (it must
    // hold 3n values). Summation order fixed (see SpectralDot_Scalar.h), so
    // results are reproducible bit for bit. NaN in a spectrum propagates.
    void CalculateCIEXYZ(float* xyz, const float* spectra, unsigned int count,
                         const std::vector<float>* factor) const;

    // XYZ (0-1 scale) to bytes, 3 per (sample, illuminant), relative to each
    // illuminant's white. cielabBytes: 2.55 L*, a* + 128, b* + 128; otherwise
    // LAB2000HL bytes. Clamped to 0..255, rounded half up; NaN gives 0.
    void CalculateCIELAB(unsigned char* out, float* xyz, unsigned int count, bool cielabBytes) const;

    // factor[3j + c] = white[3j + c] / media[3j + c] (float), white being this
    // matrix's illuminant white; media must hold 3n values.
    void GetMediaRelativeTransformFactor(std::vector<float>& factor, const ZKCWhitePoint& media) const;

    // Media-relative encoded CIELAB (8-bit: L = 100/255 byte, a = byte - 128;
    // 16-bit: 0xFF00 is L* 100, 0x8000 is a* 0) to LAB2000HL bytes, rescaled
    // by `factor` (or by nothing) into this matrix's illuminant-relative terms.
    void CalculateMediaRelativeCIELAB(unsigned char* out, const unsigned char* lab, unsigned int count,
                                      const std::vector<float>* factor) const;
    void CalculateMediaRelativeCIELAB(unsigned char* out, const unsigned short* lab, unsigned int count,
                                      const std::vector<float>* factor) const;

protected:
    // CIE 1976 L*a*b* of one XYZ triple against inverseWhite[index .. index+2]
    // with the byte encodings' rounded constants (CIELAB.h):
    // f(t) = pow(t, 0.3333333333333333) if t > 0.008856 else 7.787 t + 16/116;
    // L* = 116 f(tY) - 16 if tY > 0.008856 else 903.3 tY. All in double. The
    // exact float colorimetry of the library is XYZToCIELAB.
    void XYZ2CIELAB(double* lab, const float* xyz, const std::vector<double>& inverseWhite,
                    unsigned long index) const;

    // One CIELAB byte from 2.55 L*, a* + 128 or b* + 128: clamped to
    // [0, 255] (NaN -> 0), then rounded half up.
    static unsigned char EncodeCIELABByte(double v);

    static void FillLightingMatrixOneIlluminant(float* block, const ZKCObserver& observer,
                                                const ZKCIlluminant_Base* illuminant);
    static AlignedBuffer<float> CreateLighting_Matrix(const ZKCObserver& observer,
                                                      const ZKCIlluminant_Base* illuminant);
    static AlignedBuffer<float> CreateLighting_Matrix_MultipleIlluminants(
        const ZKCObserver& observer, const std::vector<ZKCIlluminant_Base*>& illuminants);

private:
    // XYZ of the perfect reflector, 3 per illuminant.
    std::vector<float> IlluminantWhite() const;
    template <class Decode>
    void MediaRelativeToLAB2000HL(unsigned char* out, unsigned int count, const std::vector<float>* factor,
                                  Decode decode) const;

    AlignedBuffer<float> weights_;
    unsigned int count_ = 0;
};

}  // namespace KELMA_NAMESPACE
