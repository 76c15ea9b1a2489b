// Visiting order of the lane-major kernels. When a model's lane-major rows
// are larger than a core's own cache (a 7-ink model of 3 grid points holds
// 2 MiB of them, 16 KiB per cell), random samples fetch a cell's rows from the
// shared cache or memory for nearly every sample. The kernels then take the
// samples in blocks of kCellOrderBlock and visit each block cell by cell
// (a counting sort on the cell number, stable), so the samples of one cell
// reuse its rows while they are near, and neighbours in the order that share
// a cell can share the rows' loads. Each sample is computed by the same
// operations as in input order and stored at its own place: the order
// changes the speed only, never a result.
//
// Block size, measured with the 7-ink kernel (128 cells) on AVX-512: 512
// samples (4 per cell) run at 0.64 of 2048 (16 per cell), 8192 (64 per cell)
// at 1.07 and 32768 at 0.93-0.97, where the records written in cell order
// spread over 4 MiB.
#pragma once

#include <cstdint>

#include "kelma/prediction/CellSums_Scalar.h"

namespace KELMA_NAMESPACE {

constexpr unsigned int kCellOrderBlock = 8192;

// In cell order the records are written scattered over the block's output,
// so the kernels prefetch each one (with the write hint; without the prfchw
// target that is prefetcht0) kRecordPrefetch samples ahead: every line it
// touches, which is three for a record that does not start a line (the
// output of a 16-byte aligned allocation). Measured for 7 inks on Zen 5: on
// AVX-512 prefetching costs 4 % of the time, and with a record's third line
// left out, records that do not start a line ran 10 % slower than those that
// do; the AVX2 kernel runs 24 % faster with the prefetches than without.
constexpr unsigned int kRecordPrefetch = 16;

// `record` is the first float of a record of 17 to 32 floats and `last` the
// index of its last: floats 0, 16 and `last` lie in the (at most three) lines
// the record touches, wherever it starts.
inline void PrefetchRecord(const float* record, unsigned int last) {
    __builtin_prefetch(record, 1, 3);
    __builtin_prefetch(record + 16, 1, 3);
    __builtin_prefetch(record + last, 1, 3);
}

// Grouping pays when a block holds several samples of a cell on average
// (at least 8 in blocks of 2048, where this bound was measured).
constexpr unsigned int kCellOrderMaxCells = 256;
// Rows up to this size stay in a core's own cache.
constexpr std::size_t kCellOrderMinRowBytes = std::size_t{1} << 20;

// The number of cells to group by for a model whose lane-major rows take
// `rowBytes`, or 0 to keep the input order.
inline unsigned int CellOrderCells(std::size_t cells, std::size_t rowBytes) {
    return rowBytes > kCellOrderMinRowBytes && cells <= kCellOrderMaxCells ? static_cast<unsigned int>(cells) : 0u;
}

// order[0 .. count) = the sample indices 0 .. count-1 of `input` (N bytes per
// sample, count <= kCellOrderBlock) by ascending cell, input order within a
// cell; orderedCells[j] = the cell of sample order[j]. `cells`
// (1 .. kCellOrderMaxCells) bounds the cell numbers.
template <int N>
inline void CellOrder(const ZKSSSE_EffectiveRampEntry* lut, unsigned int cells, const unsigned char* input,
                      unsigned int count, std::uint16_t* order, std::uint16_t* orderedCells) {
    std::uint32_t start[kCellOrderMaxCells + 1] = {};
    std::uint16_t cell[kCellOrderBlock];
    float w[N];  // unused here
    for (unsigned int s = 0; s < count; ++s, input += N) {
        const std::uint32_t q = LocateSample<N>(lut, input, w);
        cell[s] = static_cast<std::uint16_t>(q);
        ++start[q + 1];
    }
    for (unsigned int c = 0; c < cells; ++c) start[c + 1] += start[c];
    for (unsigned int s = 0; s < count; ++s) {
        const std::uint32_t j = start[cell[s]]++;
        order[j] = static_cast<std::uint16_t>(s);
        orderedCells[j] = cell[s];
    }
}

}  // namespace KELMA_NAMESPACE
