#include "kelma/prediction/ZKCSSE_KELMA_Base.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace KELMA_NAMESPACE {

ZKCSSE_KELMA_Base::ZKCSSE_KELMA_Base(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input,
                                     float* spectra, unsigned char* bytes, unsigned long valuesPerSample,
                                     unsigned long spectrumStride)
    : data_(data),
      count_(count),
      input_(input),
      spectra_(spectra),
      bytes_(bytes),
      valuesPerSample_(static_cast<unsigned int>(valuesPerSample)),
      spectrumStride_(static_cast<unsigned int>(spectrumStride)),
      cielab_(false) {}

ZKCSSE_KELMA_Base::~ZKCSSE_KELMA_Base() = default;

void ZKCSSE_KELMA_Base::SetInputOutput(unsigned char* input, unsigned char* bytes, bool cielab) {
    input_ = input;
    bytes_ = bytes;
    cielab_ = cielab;
}

void ZKCSSE_KELMA_Base::operator()() {
    CalculateSpectra(count_, input_, spectra_);
    if (bytes_ == nullptr) return;
    if (valuesPerSample_ == kSpectralValues)
        CalculateColorimetry(data_, count_, spectra_, bytes_);
    else
        SpectraToBytes(count_, spectra_, bytes_);
}

void ZKCSSE_KELMA_Base::CalculateColorimetry(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                             const float* spectra, unsigned char* bytes) {
    const ZKCLighting_Matrix& matrix = data.Lighting_Matrix();
    const std::size_t L = matrix.IlluminantNumber();
    std::vector<float> xyz(3 * L * count);
    // A model without a paper white (K other than 31) stays illuminant-relative.
    if (data.IsMediaRelative() && data.MediaWhitePoint().Values().size() >= 3 * L) {
        std::vector<float> factor;
        matrix.GetMediaRelativeTransformFactor(factor, data.MediaWhitePoint());
        matrix.CalculateCIEXYZ(xyz.data(), spectra, count, &factor);
    } else {
        matrix.CalculateCIEXYZ(xyz.data(), spectra, count, nullptr);
    }
    matrix.CalculateCIELAB(bytes, xyz.data(), count, cielab_);
}

void ZKCSSE_KELMA_Base::SpectraToBytes(unsigned int count, const float* spectra, unsigned char* bytes) {
    for (unsigned int s = 0; s < count; ++s, spectra += spectrumStride_, bytes += valuesPerSample_) {
        for (unsigned int j = 0; j < valuesPerSample_; ++j) {
            double v = static_cast<double>(spectra[j]) * 255.0;
            v = v >= 0.0 ? v + 0.5 : v - 0.5;
            // Keep the conversion defined for NaN and huge values; the low
            // byte of anything in range is unchanged by this.
            if (!(std::fabs(v) < 9.0e18)) v = 0.0;
            bytes[j] = static_cast<unsigned char>(static_cast<std::uint64_t>(static_cast<std::int64_t>(v)));
        }
    }
}

}  // namespace KELMA_NAMESPACE
