#include "kelma/prediction/ZKCSSE_KELMA_Base.h"

#include "kelma/colorimetry/ColorimetryKernels.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/PredictSamples.h"

#include <algorithm>
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
      cielab_(false),
      variant_(ActiveKernelVariant()) {}

ZKCSSE_KELMA_Base::~ZKCSSE_KELMA_Base() = default;

void ZKCSSE_KELMA_Base::SetInputOutput(unsigned char* input, unsigned char* bytes, bool cielab) {
    input_ = input;
    bytes_ = bytes;
    cielab_ = cielab;
}

void ZKCSSE_KELMA_Base::EncodeBytes(unsigned int count, const float* spectra, unsigned char* bytes) {
    if (valuesPerSample_ == kSpectralValues)
        CalculateColorimetry(data_, count, spectra, bytes);
    else
        SpectraToBytes(count, spectra, bytes);
}

void ZKCSSE_KELMA_Base::operator()() {
    if (bytes_ == nullptr || spectra_ != nullptr) {
        CalculateSpectra(count_, input_, spectra_);
        if (bytes_ != nullptr) EncodeBytes(count_, spectra_, bytes_);
        return;
    }
    // Bytes only: predict and encode block by block. A record is at least 32
    // floats apart (the 4- and 6-ink kernels write 32) and the last one
    // reaches index valuesPerSample (the 7-ink kernel's pad).
    const std::size_t stride = std::max(spectrumStride_, kSpectrumStride);
    const bool byCell =
        MakePredictionJob(data_, laneRows_, valuesPerSample_, spectrumStride_, packed_).cellOrderCells != 0;
    const unsigned int block = std::min(byCell ? kCellOrderBlock : kByteBlock, count_);
    const std::size_t blockFloats =
        block == 0 ? 0 : (block - 1) * stride + std::max<std::size_t>(valuesPerSample_ + 1, stride);
    if (block_.size() < blockFloats) block_ = AlignedBuffer<float, 64>(blockFloats);
    const unsigned int N = data_.NumberOfInks();
    const std::size_t bytesPerSample =
        valuesPerSample_ == kSpectralValues ? 3 * std::size_t{data_.Lighting_Matrix().IlluminantNumber()}
                                            : valuesPerSample_;
    for (unsigned int start = 0; start < count_; start += block) {
        const unsigned int c = std::min(block, count_ - start);
        CalculateSpectra(c, input_ + std::size_t{start} * N, block_.data());
        EncodeBytes(c, block_.data(), bytes_ + start * bytesPerSample);
    }
}

void ZKCSSE_KELMA_Base::CalculateColorimetry(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                             const float* spectra, unsigned char* bytes) {
    const ZKCLighting_Matrix& matrix = data.Lighting_Matrix();
    const unsigned int L = matrix.IlluminantNumber();
    if (colorimetryModel_ != &data) {
        // Once per kernel and model: the media-relative factor (a model
        // without a paper white, K other than 31, stays illuminant-relative),
        // the inverse illuminant white, and the tables of the kernel's variant.
        std::vector<float> factor;
        if (data.IsMediaRelative() && data.MediaWhitePoint().Values().size() >= 3 * std::size_t{L})
            matrix.GetMediaRelativeTransformFactor(factor, data.MediaWhitePoint());
        const ZKCWhitePoint white(matrix);
        std::vector<double> inverseWhite(white.Values().size());
        for (std::size_t i = 0; i < inverseWhite.size(); ++i)
            inverseWhite[i] = 1.0 / static_cast<double>(white.Values()[i]);
        colorimetry_ = std::make_unique<ZKCColorimetryPlan>(variant_, matrix.Weights(), L,
                                                            factor.empty() ? nullptr : factor.data(),
                                                            inverseWhite.data());
        colorimetryModel_ = &data;
    }
    xyz_.resize(3 * std::size_t{L} * count);
    colorimetry_->SpectraToXYZ(spectra, count, xyz_.data());
    colorimetry_->XYZToLabBytes(xyz_.data(), count, cielab_, bytes);
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
