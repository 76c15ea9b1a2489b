// Visiting order of the lane-major kernels. When a model's lane-major rows
// are larger than a core's own cache (a 7-ink model of 3 grid points holds
// 2 MiB of them, 16 KiB per cell), random samples fetch a cell's rows from the
// shared cache or memory for nearly every sample. The kernels then take the
// samples in blocks of kCellOrderBlock and visit each block cell by cell
// (a counting sort on the cell number, stable), so the samples of one cell
// reuse its rows while they are near. Each sample is computed by the same
// operations as in input order and stored at its own place: the order
// changes the speed only, never a result.
#pragma once

#include <cstdint>

#include "kelma/prediction/CellSums_Scalar.h"

namespace KELMA_NAMESPACE {

constexpr unsigned int kCellOrderBlock = 2048;
// Grouping pays when a block holds several samples of a cell on average.
constexpr unsigned int kCellOrderMaxCells = kCellOrderBlock / 8;
// Rows up to this size stay in a core's own cache.
constexpr std::size_t kCellOrderMinRowBytes = std::size_t{1} << 20;

// The number of cells to group by for a model whose lane-major rows take
// `rowBytes`, or 0 to keep the input order.
inline unsigned int CellOrderCells(std::size_t cells, std::size_t rowBytes) {
    return rowBytes > kCellOrderMinRowBytes && cells <= kCellOrderMaxCells ? static_cast<unsigned int>(cells) : 0u;
}

// order[0 .. count) = the sample indices 0 .. count-1 of `input` (N bytes per
// sample, count <= kCellOrderBlock) by ascending cell, input order within a
// cell. `cells` (1 .. kCellOrderMaxCells) bounds the cell numbers.
template <int N>
inline void CellOrder(const ZKSSSE_EffectiveRampEntry* lut, unsigned int cells, const unsigned char* input,
                      unsigned int count, std::uint16_t* order) {
    std::uint32_t start[kCellOrderMaxCells + 1] = {};
    std::uint16_t cell[kCellOrderBlock];
    float w[N];  // unused here
    for (unsigned int s = 0; s < count; ++s, input += N) {
        const std::uint32_t q = LocateSample<N>(lut, input, w);
        cell[s] = static_cast<std::uint16_t>(q);
        ++start[q + 1];
    }
    for (unsigned int c = 0; c < cells; ++c) start[c + 1] += start[c];
    for (unsigned int s = 0; s < count; ++s) order[start[cell[s]]++] = static_cast<std::uint16_t>(s);
}

}  // namespace KELMA_NAMESPACE
