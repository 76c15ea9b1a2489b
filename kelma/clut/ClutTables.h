// Tables of the 8-bit CLUT workers, all built once at construction so that the
// per-pixel path is table loads and integer multiply-adds only.
//
// Grid: n points per input axis (2 <= n <= 256, see kClutMaxGridPoints); every
// axis spans the input bytes 0..255 in n - 1 equal cells. Node order of every
// node array: axis 0 outermost, the last axis innermost,
// node = ((g0 n + g1) n + g2) [n + g3].
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

// Smallest and largest grid accepted (others throw "DefaultCase"): below 2
// points the maps divide by zero; above 256 the nodes of a four-input table
// (n^4 > 2^32) no longer fit the 32-bit cell index and strides. One bound for
// both shapes keeps one rule.
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

// Shared interpolation weights of one input shape, d = 3 or 4 inputs: 32^d + 1
// rows of 2^d unsigned 32-bit weights. Row r holds, for corner k, the product
// over the axes a of (f_a if bit a of k is set, else 32 - f_a), the positions
// f_a (0..31, in 1/32 of a cell) being 5-bit fields of r, axis 0 the highest:
//   three inputs: r = f0 1024 + f1 32 + f2,            weights sum to 32768
//   four inputs:  r = f0 32768 + f1 1024 + f2 32 + f3, weights sum to 1048576
// The extra last row (r = 32^d, read as f0 = 32, the others 0) is built like
// the others and never read. Sizes: 1 MiB (three inputs), 64 MiB (four).
//
// The optimised kernels do not read the rows: each row is the product of two
// small factor tables, derived here with the rows and kept with them, that stay
// in the first-level cache where the rows would be read at random:
//   three inputs: W[r][k] = P[f0 32 + f1][k & 3] * A[f2][k >> 2]
//   four inputs:  W[r][k] = P[f0 32 + f1][k & 3] * P[f2 32 + f3][k >> 2]
// with the pair row P[fa 32 + fb] = {(32-fa)(32-fb), fa (32-fb), (32-fa) fb, fa fb}
// (1024 rows of 4, 8 KiB) and A[f] = {32 - f, f} (stored SIMD-ready as
// {32 - f} four times, then {f} four times: 32 rows of 8). The four-input
// kernels that read node-major tables use the three-input product
// P[f0 32 + f1][k & 3] * A[f2][(k >> 2) & 1] for corners k = 0..7 and the
// axis-3 pair {32 - f3, f3} for bit 3 of k; the products are the same integers.
//
// Lifetime: one table per shape and process, shared by every worker of that
// shape (AcquireClutWeightTable) and freed with the last of them; any thread
// may acquire and release tables at any time.
using ClutPairWeight = std::uint16_t;  // <= 1024

class ZKCClutWeightTable {
public:
    // inputs: 3 or 4, anything else throws "DefaultCase".
    explicit ZKCClutWeightTable(unsigned inputs);
    ZKCClutWeightTable(const ZKCClutWeightTable&) = delete;
    ZKCClutWeightTable& operator=(const ZKCClutWeightTable&) = delete;
    virtual ~ZKCClutWeightTable();

    unsigned Inputs() const { return inputs_; }
    unsigned Corners() const { return 1u << inputs_; }
    // 32^d + 1.
    std::size_t RowCount() const { return rowCount_; }
    // RowCount() rows of Corners() weights; rows start on 64-byte boundaries.
    const std::uint32_t* Rows() const { return rows_.get(); }
    const std::uint32_t* Row(std::size_t r) const { return rows_.get() + r * Corners(); }

    // Derived factors for the optimised kernels (see above).
    const ClutPairWeight* Pairs() const { return pairs_.data(); }
    const ClutPairWeight* AxisFactors() const { return axis_.data(); }

private:
    struct Free {
        void operator()(std::uint32_t* p) const;
    };

    unsigned inputs_;
    std::size_t rowCount_;
    std::unique_ptr<std::uint32_t[], Free> rows_;
    AlignedBuffer<ClutPairWeight> pairs_;
    AlignedBuffer<ClutPairWeight> axis_;
};

// The process-wide table of `inputs` (3 or 4) axes: the live one if any
// worker still holds it, else a new one. Thread-safe: concurrent callers of one
// shape get the same table (the first builds it while the others wait); the
// table is freed when the last holder lets go, on whichever thread that is.
std::shared_ptr<const ZKCClutWeightTable> AcquireClutWeightTable(unsigned inputs);
// The live table of that shape, or null when no holder exists (for tests and
// diagnostics; the answer may be stale as soon as it returns when other
// threads create or release CLUTs).
std::shared_ptr<const ZKCClutWeightTable> LiveClutWeightTable(unsigned inputs);

// Nodes on an axis of n points raised to the power d, in size_t.
std::size_t ClutNodeCount(std::uint32_t n, unsigned inputs);

// Bytes a node array needs: (n^d + n^(d-1) + ... + n + 1) m. Cell blocks of the
// nodes on the upper faces read corners past the last node (see BuildCellTable).
std::size_t ClutNodeArrayBytes(std::uint32_t n, unsigned inputs, unsigned outputs);

// Cell table: for every node c (all n^d, upper faces included) a block of 2^d m
// bytes holding the 2^d corners of the cell whose lowest corner is c, corner k
// at bytes k m .. k m + m - 1 (corner-major):
//   cells[c 2^d m + k m + j] = nodes[(c + offset(k)) m + j],
// offset(k) = sum over axes a with bit a of k set of n^(d - 1 - a).
// The blocks lie back to back in one array (block c at c 2^d m).
// For nodes on an upper face some corners lie past that face (wrapping to the
// next row) or past the last node; they are read from the array at that flat
// position all the same, which is why `nodes` must hold ClutNodeArrayBytes.
// With the standard maps those corners always get weight 0.
void BuildCellTable(const std::uint8_t* nodes, std::uint32_t n, unsigned inputs, unsigned outputs,
                    std::uint8_t* cells);

}  // namespace KELMA_NAMESPACE
