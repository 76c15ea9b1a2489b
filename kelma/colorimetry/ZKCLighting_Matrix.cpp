#include "kelma/colorimetry/ZKCLighting_Matrix.h"

#include <cmath>
#include <cstring>

#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/ColorimetryKernels.h"
#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/common/KernelVariant.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

// Inverse of the CIELAB companding with the encodings' rounded thresholds
// (kCIELABEncodingLInverseThreshold for L*, kCIELABEncodingFInverseThreshold
// for f), as the media-relative decoding defines it.
void InverseCIELAB(double L, double a, double b, double xyz[3]) {
    double fy, Y;
    if (L > kCIELABEncodingLInverseThreshold) {
        fy = (L + 16.0) / 116.0;
        Y = fy * fy * fy;
    } else {
        Y = L / kCIELABEncodingKappa;
        fy = kCIELABEncodingSlope * Y + kSixteenOver116;
    }
    double fx = a / 500.0 + fy;
    double fz = fy - b / 200.0;
    xyz[0] = fx > kCIELABEncodingFInverseThreshold ? fx * fx * fx : (fx - kSixteenOver116) / kCIELABEncodingSlope;
    xyz[1] = Y;
    xyz[2] = fz > kCIELABEncodingFInverseThreshold ? fz * fz * fz : (fz - kSixteenOver116) / kCIELABEncodingSlope;
}

}  // namespace

ZKCLighting_Matrix::ZKCLighting_Matrix() = default;

ZKCLighting_Matrix::ZKCLighting_Matrix(const ZKCObserver& observer, const ZKCIlluminant_Base* illuminant)
    : weights_(CreateLighting_Matrix(observer, illuminant)), count_(1) {}

ZKCLighting_Matrix::ZKCLighting_Matrix(const ZKCObserver& observer,
                                       const std::vector<ZKCIlluminant_Base*>& illuminants)
    : weights_(CreateLighting_Matrix_MultipleIlluminants(observer, illuminants)),
      count_(static_cast<unsigned int>(illuminants.size())) {}

ZKCLighting_Matrix::ZKCLighting_Matrix(const float* weights, unsigned long illuminantCount)
    : weights_(weights, illuminantCount * kLightingBlock), count_(static_cast<unsigned int>(illuminantCount)) {}

ZKCLighting_Matrix::ZKCLighting_Matrix(const ZKCLighting_Matrix& other) = default;

ZKCLighting_Matrix& ZKCLighting_Matrix::operator=(const ZKCLighting_Matrix& other) {
    weights_ = other.weights_;
    count_ = other.count_;
    return *this;
}

ZKCLighting_Matrix::~ZKCLighting_Matrix() = default;

ZKCLighting_Matrix& ZKCLighting_Matrix::operator+=(const ZKCLighting_Matrix& other) {
    AlignedBuffer<float> joined((count_ + other.count_) * std::size_t{kLightingBlock});
    if (count_ != 0) std::memcpy(joined.data(), weights_.data(), count_ * sizeof(float) * kLightingBlock);
    if (other.count_ != 0)
        std::memcpy(joined.data() + count_ * std::size_t{kLightingBlock}, other.weights_.data(),
                    other.count_ * sizeof(float) * kLightingBlock);
    weights_.swap(joined);
    count_ += other.count_;
    return *this;
}

void ZKCLighting_Matrix::ExtractSingleIlluminant_Lighting_Matrix(ZKCLighting_Matrix& out,
                                                                 unsigned long index) const {
    if (index >= count_) throw kErrorInvalidIlluminantIndex;
    out = ZKCLighting_Matrix(weights_.data() + index * kLightingBlock, 1);
}

void ZKCLighting_Matrix::FillLightingMatrixOneIlluminant(float* block, const ZKCObserver& observer,
                                                         const ZKCIlluminant_Base* illuminant) {
    const std::vector<double>& cmf = observer.Observer();
    const std::vector<double>& spd = illuminant->Illuminant();
    double scratch[kLightingBlock] = {};
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        scratch[i] = cmf[i] * spd[i];
        scratch[kSpectrumStride + i] = cmf[kSpectralValues + i] * spd[i];
        scratch[2 * kSpectrumStride + i] = cmf[2 * kSpectralValues + i] * spd[i];
    }
    double k = 0.0;
    for (unsigned int i = 0; i < kSpectralValues; ++i) k += scratch[kSpectrumStride + i];
    for (unsigned int i = 0; i < kLightingBlock; ++i) block[i] = static_cast<float>(scratch[i] / k);
}

AlignedBuffer<float> ZKCLighting_Matrix::CreateLighting_Matrix(const ZKCObserver& observer,
                                                               const ZKCIlluminant_Base* illuminant) {
    AlignedBuffer<float> block(kLightingBlock);
    FillLightingMatrixOneIlluminant(block.data(), observer, illuminant);
    return block;
}

AlignedBuffer<float> ZKCLighting_Matrix::CreateLighting_Matrix_MultipleIlluminants(
    const ZKCObserver& observer, const std::vector<ZKCIlluminant_Base*>& illuminants) {
    AlignedBuffer<float> blocks(illuminants.size() * kLightingBlock);
    for (std::size_t j = 0; j < illuminants.size(); ++j)
        FillLightingMatrixOneIlluminant(blocks.data() + j * kLightingBlock, observer, illuminants[j]);
    return blocks;
}

void ZKCLighting_Matrix::CalculateCIEXYZ(float* xyz, const float* spectra, unsigned int count,
                                         const std::vector<float>* factor) const {
    // The factor is taken as it is (at least 3n values); without one, 1.0.
    SpectraToXYZ(ActiveKernelVariant(), weights_.data(), count_, factor != nullptr ? factor->data() : nullptr, spectra,
                 count, xyz);
}

std::vector<float> ZKCLighting_Matrix::IlluminantWhite() const { return ZKCWhitePoint(*this).Values(); }

unsigned char ZKCLighting_Matrix::EncodeCIELABByte(double v) { return EncodeByte_Scalar(v); }

void ZKCLighting_Matrix::XYZ2CIELAB(double* lab, const float* xyz, const std::vector<double>& inverseWhite,
                                    unsigned long index) const {
    CIELAB_Scalar(lab, xyz, inverseWhite.data() + index);
}

void ZKCLighting_Matrix::CalculateCIELAB(unsigned char* out, float* xyz, unsigned int count,
                                         bool cielabBytes) const {
    std::vector<float> white = IlluminantWhite();
    std::vector<double> inverseWhite(white.size());
    for (std::size_t i = 0; i < white.size(); ++i) inverseWhite[i] = 1.0 / static_cast<double>(white[i]);
    XYZToLabBytes(ActiveKernelVariant(), count_, inverseWhite.data(), xyz, count, cielabBytes, out);
}

void ZKCLighting_Matrix::GetMediaRelativeTransformFactor(std::vector<float>& factor,
                                                         const ZKCWhitePoint& media) const {
    factor.assign(3 * std::size_t{count_}, 1.0f);
    std::vector<float> white = IlluminantWhite();
    const std::vector<float>& m = media.Values();
    for (std::size_t i = 0; i < factor.size(); ++i) factor[i] = white[i] / m[i];
}

template <class Decode>
void ZKCLighting_Matrix::MediaRelativeToLAB2000HL(unsigned char* out, unsigned int count,
                                                  const std::vector<float>* factor, Decode decode) const {
    const std::size_t n3 = 3 * std::size_t{count_};
    std::vector<float> scale(n3, 1.0f);
    if (factor != nullptr) scale = *factor;
    std::vector<float> white = IlluminantWhite();
    for (std::size_t i = 0; i < n3; ++i) scale[i] = scale[i] * white[i];
    // Owned so that it cannot leak if the encoding below throws.
    std::vector<float> xyz(n3 * count);
    float* dst = xyz.data();
    for (unsigned int s = 0; s < count; ++s) {
        for (unsigned int j = 0; j < count_; ++j, dst += 3) {
            double lab[3];
            decode(s * std::size_t{count_} + j, lab);
            double rel[3];
            InverseCIELAB(lab[0], lab[1], lab[2], rel);
            for (int c = 0; c < 3; ++c) dst[c] = static_cast<float>(rel[c] * scale[3 * j + c]);
        }
    }
    CalculateCIELAB(out, xyz.data(), count, false);
}

void ZKCLighting_Matrix::CalculateMediaRelativeCIELAB(unsigned char* out, const unsigned char* lab,
                                                      unsigned int count, const std::vector<float>* factor) const {
    MediaRelativeToLAB2000HL(out, count, factor, [lab](std::size_t triple, double* decoded) {
        const unsigned char* p = lab + 3 * triple;
        decoded[0] = 0.39215686274509803 * p[0];
        decoded[1] = static_cast<double>(p[1]) - 128.0;
        decoded[2] = static_cast<double>(p[2]) - 128.0;
    });
}

void ZKCLighting_Matrix::CalculateMediaRelativeCIELAB(unsigned char* out, const unsigned short* lab,
                                                      unsigned int count, const std::vector<float>* factor) const {
    MediaRelativeToLAB2000HL(out, count, factor, [lab](std::size_t triple, double* decoded) {
        const unsigned short* p = lab + 3 * triple;
        decoded[0] = (p[0] * 100.390625) / 65535.0;
        decoded[1] = (255.99609375 * p[1]) * 1.5259021896696422e-05 - 128.0;
        decoded[2] = (255.99609375 * p[2]) * 1.5259021896696422e-05 - 128.0;
    });
}

}  // namespace KELMA_NAMESPACE
