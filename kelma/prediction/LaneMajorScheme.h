// The model's coefficient blocks rearranged with the wavelengths across
// vector lanes, for the AVX2 and AVX-512 prediction kernels (CellSums_AVX2.h,
// CellSums_AVX512.h). Internal; a prediction driver builds one for its model
// copy when the batch is large enough to pay for it.
//
// Layout: for cell q and corner j (0 .. 2^N - 1), one row of 32 floats: the
// coefficients of wavelengths 0..30 and 0.0 in slot 31. Inside a cell the
// rows are in the order the kernels read them: corner j = 4 i + l is row
// l 2^N / 4 + i (all corners of lane 0 of the monomial vectors, then lane 1,
// ...), so a sample's cell is read front to back. Row r of cell q starts at
// (q 2^N + r) 32 floats, on a 64-byte boundary: two aligned 16-float vectors
// (or four 8-float vectors). The model's own layout is wavelength-major inside
// a cell ((q 31 + w) 2^N + j); both hold the same floats.
#pragma once

#include "kelma/common/AlignedBuffer.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

constexpr unsigned int kLaneRow = 32;  // floats per (cell, corner) row

// Row of corner 4 i + l inside a cell of `corners` corners.
constexpr unsigned int LaneRowOfCorner(unsigned int corner, unsigned int corners) {
    return (corner % 4) * (corners / 4) + corner / 4;
}

class ZKCLaneMajorScheme {
public:
    // The kernels read 31 wavelengths per cell, whatever the model's K.
    explicit ZKCLaneMajorScheme(const ZKCSSE_KELMA_Data& data);

    const float* Rows() const { return rows_.data(); }

    // Whether building it (on one thread) pays off for `count` samples
    // predicted on `threads` threads. Measured on AVX-512: the copy costs about
    // 0.3 ns per float of the rows, the kernels save 25 ns (4 inks) to 90 ns
    // (7 inks) per sample; the rule asks for about twice the break-even.
    static bool Worthwhile(const ZKCSSE_KELMA_Data& data, unsigned long count, unsigned int threads);

private:
    AlignedBuffer<float, 64> rows_;
};

}  // namespace KELMA_NAMESPACE
