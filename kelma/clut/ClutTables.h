// Tables of the 8-bit CLUT workers, all built once at construction so that the
// per-pixel path is table loads and integer multiply-adds only.
//
// Grid: n points per input axis (2 <= n <= 256); every axis spans the input
// bytes 0..255 in n - 1 equal cells. Node order of every node array: axis 0
// outermost, the last axis innermost, node = ((g0 n + g1) n + g2) [n + g3].
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Input map entry: bits 5 and up: grid index g of the lower cell corner;
// bits 0-4: position f inside the cell in 1/32 steps.
using InputMapEntry = std::uint32_t;
// Output map entry: the output byte for an interpolated value 0..256.
using OutputMapEntry = std::uint8_t;

constexpr unsigned kClutPositionBits = 5;
constexpr unsigned kClutPositionMask = 31;
constexpr std::size_t kInputMapSize = 257;   // 256 bytes and a guard entry
constexpr std::size_t kOutputMapSize = 257;  // 256 values and a guard entry

// Smallest and largest grid accepted; beyond 256 points the node count of a
// four-input table no longer fits the 32-bit cell index.
constexpr std::uint32_t kClutMinGridPoints = 2;
constexpr std::uint32_t kClutMaxGridPoints = 256;

// Standard map: S = 2^24 (n - 1) / 255 in double; entry i = floor(i S + 0.5) >> 19
// for i = 0..255; entry 256 = entry 255. Byte 0 is node 0, byte 255 node n - 1,
// both at position 0.
std::vector<InputMapEntry> StandardInputMap(std::uint32_t n);

// Map of the a and b bytes of CIELAB input: bytes 0..128 use S = 2^24 (n - 1) / 256,
// bytes 129..255 use S = 2^24 (n - 1) / 254, same rounding and shift; entry 256 =
// entry 255. Byte 128 lands on the middle node when n - 1 is even; bytes above 254
// reach past the last node (n = 17: byte 255 is index 16, position 2/32).
std::vector<InputMapEntry> LabChromaInputMap(std::uint32_t n);

// Identity on 0..255; entry 256 = 255 guards the top.
std::vector<OutputMapEntry> IdentityOutputMap();

// Interpolation weights. A corner weight is a product of one factor per axis,
// f_a (corner above along axis a) or 32 - f_a (below), f_a the 5-bit position:
//   three inputs: w_k = P[f0 32 + f1][k & 3] * A[f2][k >> 2]          (sum 32768)
//   four inputs:  w_k = P[f0 32 + f1][k & 3] * P[f2 32 + f3][k >> 2]  (sum 1048576)
// with the pair row P[fa 32 + fb] = {(32-fa)(32-fb), fa (32-fb), (32-fa) fb, fa fb}
// and A[f] = {32 - f, f}; bit a of k belongs to axis a. These are exactly the
// rows of a full table indexed by all positions at once (32769 rows of 8, or
// 1048577 rows of 16), held as their two factors: 8 KiB that stay in the first
// level cache instead of 1 MiB / 64 MiB read at random rows.
using ClutPairWeight = std::uint16_t;  // <= 1024

class ZKCClutWeightTable {
public:
    ZKCClutWeightTable();
    ZKCClutWeightTable(const ZKCClutWeightTable&) = delete;
    ZKCClutWeightTable& operator=(const ZKCClutWeightTable&) = delete;

    // 1024 rows of 4 pair weights, row fa 32 + fb; rows start on 8-byte boundaries.
    const ClutPairWeight* Pairs() const { return pairs_.data(); }
    // 32 rows of 8: {32 - f} four times, then {f} four times (SIMD-ready axis factors).
    const ClutPairWeight* AxisFactors() const { return axis_.data(); }

    // Weight of corner k in the full row of the given positions (tests, tools).
    std::uint32_t Weight3(unsigned f0, unsigned f1, unsigned f2, unsigned k) const;
    std::uint32_t Weight4(unsigned f0, unsigned f1, unsigned f2, unsigned f3, unsigned k) const;

private:
    AlignedBuffer<ClutPairWeight> pairs_;
    AlignedBuffer<ClutPairWeight> axis_;
};

// The process-wide table, created by the first caller when none is alive and
// freed when the last holder lets go; every worker holds one reference, copies
// included. Guarded by a lock, although the drivers create and free workers
// on the caller's thread anyway.
std::shared_ptr<const ZKCClutWeightTable> AcquireClutWeightTable();
// Number of holders of the shared table (0 when none exists).
long ClutWeightTableUsers();

// Nodes on an axis of n points raised to the power d, in size_t.
std::size_t ClutNodeCount(std::uint32_t n, unsigned inputs);

// Bytes a node array needs: (n^d + n^(d-1) + ... + n + 1) m. Cell blocks of the
// nodes on the upper faces read corners past the last node (see BuildCellTable).
std::size_t ClutNodeArrayBytes(std::uint32_t n, unsigned inputs, unsigned outputs);

// Cell table: for every node c (all n^d, upper faces included) a block of 2^d m
// bytes holding the 2^d corners of the cell whose lowest corner is c, stored
// channel-major so that one channel's corners are adjacent for SIMD loads:
//   cells[c 2^d m + j 2^d + k] = nodes[(c + offset(k)) m + j],
// offset(k) = sum over axes a with bit a of k set of n^(d - 1 - a).
// For nodes on an upper face some corners lie past that face (wrapping to the
// next row) or past the last node; they are read from the array at that flat
// position all the same, which is why `nodes` must hold ClutNodeArrayBytes.
// With the standard maps those corners always get weight 0.
void BuildCellTable(const std::uint8_t* nodes, std::uint32_t n, unsigned inputs, unsigned outputs,
                    std::uint8_t* cells);

}  // namespace KELMA_NAMESPACE
