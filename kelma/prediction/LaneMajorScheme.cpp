#include "kelma/prediction/LaneMajorScheme.h"

namespace KELMA_NAMESPACE {

namespace {

std::size_t CellCount(const ZKCSSE_KELMA_Data& data) {
    return data.MatrixSchemeSize() / (std::size_t{kSpectralValues} << data.NumberOfInks());
}

}  // namespace

ZKCLaneMajorScheme::ZKCLaneMajorScheme(const ZKCSSE_KELMA_Data& data) {
    const std::size_t corners = std::size_t{1} << data.NumberOfInks();
    const std::size_t cells = CellCount(data);
    // Rows are written whole below, slot 31 included: no need to clear first.
    rows_ = AlignedBuffer<float, 64>(AlignedBuffer<float, 64>::Uninitialised(), cells * corners * kLaneRow);
    const float* scheme = data.MatrixScheme();
    for (std::size_t q = 0; q < cells; ++q) {
        const float* block = scheme + q * kSpectralValues * corners;
        float* cell = rows_.data() + q * corners * kLaneRow;
        for (std::size_t j = 0; j < corners; ++j) {
            float* out = cell + std::size_t{LaneRowOfCorner(static_cast<unsigned int>(j),
                                                            static_cast<unsigned int>(corners))} * kLaneRow;
            for (unsigned int w = 0; w < kSpectralValues; ++w) out[w] = block[w * corners + j];
            out[kSpectralValues] = 0.0f;
        }
    }
}

bool ZKCLaneMajorScheme::Worthwhile(const ZKCSSE_KELMA_Data& data, unsigned long count, unsigned int threads) {
    const unsigned int N = data.NumberOfInks();
    if (data.NumberOfSpectralValues() != kSpectralValues || (N != 4 && N != 6 && N != 7)) return false;
    const std::size_t floats = (CellCount(data) << N) * kLaneRow;
    return count / (threads == 0 ? 1 : threads) >= floats / 64;
}

}  // namespace KELMA_NAMESPACE
