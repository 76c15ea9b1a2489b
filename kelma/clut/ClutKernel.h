// The per-pixel interpolation loops of the CLUT workers: a plain reference loop
// (ClutKernel_Reference.cpp) and optimised twins (ClutKernel_SSSE3.cpp,
// ClutKernel_AVX2.cpp; the AVX-512 variant runs the AVX2 kernels, see
// ClutKernel.cpp). All arithmetic is unsigned
// 32-bit integer and exact, so every kernel gives the same bytes as the
// reference loop.
//
// Per pixel, three inputs and m outputs:
//   e_a  = inputMap[a][c_a]                  (grid index << 5 | position f_a = e_a & 31)
//   w_k  = W[f0 1024 + f1 32 + f2][k]        (the shared three-input table, 8 weights
//                                             summing to 32768)
//   cell = stride0[e0 >> 5] + stride1[e1 >> 5] + (e2 >> 5)
//   acc_j = sum over corners k of w_k * block[k m + j]   (block = cells + cell 8 m,
//                                                          corner-major)
//   out_j = outputMap[j][acc_j >> 15]   (identity in every worker; the AVX2
//                                        kernels then store acc_j >> 15 itself)
// Four inputs: w_k = W[f0 32768 + f1 1024 + f2 32 + f3][k] (the shared
// four-input table, 16 weights summing to 2^20), cell = three strides +
// (e3 >> 5), block = cells + cell 16 m, shift 20. acc_j <= 255 * 32^d, so the
// sum never wraps and acc_j >> (5 d) <= 255. Pixels are interleaved on both sides.
//
// The reference loop reads W and the corner-major blocks itself; the optimised
// kernels form the same integers from the two factor tables of
// ZKCClutWeightTable:
//   W[r][k] = P[f0 32 + f1][k & 3] * A[f2][k >> 2]          (three inputs)
//   W[r][k] = P[f0 32 + f1][k & 3] * P[f2 32 + f3][k >> 2]  (four inputs, SSSE3)
//   W[r][k] = P[f0 32 + f1][k & 3] * A[f2][(k >> 2) & 1] * {32 - f3, f3}[k >> 3]
//                                                           (four inputs, AVX2)
// The AVX2 four-input kernel reads the node array itself (3 bytes
// per node, 17^4 nodes: 245 KiB, which stays in a core's second-level cache)
// instead of the corner-major blocks (48 bytes per node: 3.8 MiB): corner k is
// node cell + offset(k), and the two corners that differ in axis 3 only are
// adjacent nodes, so each pixel reads 8 runs of 6 bytes.
#pragma once

#include <cstdint>

#include "kelma/clut/ClutTables.h"
#include "kelma/common/KernelVariant.h"

namespace KELMA_NAMESPACE {

// Read-only views of one worker's tables.
struct ZKSClutTables3 {
    const InputMapEntry* inputMap[3];
    const OutputMapEntry* outputMap[7];  // m entries used
    const std::uint32_t* stride0;        // g n^2
    const std::uint32_t* stride1;        // g n
    const std::uint8_t* cells;           // 8 m bytes per node, corner-major
    const std::uint32_t* weights;        // ZKCClutWeightTable::Rows(), 32769 rows of 8
    const ClutPairWeight* pairs;         // ZKCClutWeightTable::Pairs()
    const ClutPairWeight* axis;          // ZKCClutWeightTable::AxisFactors()
    // True when every used output map is the identity (IdentityOutputMap):
    // kernels may then store the indices acc_j >> 15 as the bytes.
    bool identityOutput;
};

// Bytes readable past the end of a node array given to the node-major
// kernels (they load 16 bytes where they need 6).
constexpr std::size_t kClutNodeSlack = 16;

struct ZKSClutTables4 {
    const InputMapEntry* inputMap[4];
    const OutputMapEntry* outputMap[3];
    const std::uint32_t* stride0;  // g n^3
    const std::uint32_t* stride1;  // g n^2
    const std::uint32_t* stride2;  // g n
    const std::uint8_t* cells;     // 48 bytes per node, corner-major
    const std::uint32_t* weights;  // ZKCClutWeightTable::Rows(), 1048577 rows of 16
    const ClutPairWeight* pairs;   // ZKCClutWeightTable::Pairs()
    const ClutPairWeight* axis;    // ZKCClutWeightTable::AxisFactors()
    // Node array, 3 bytes per node in node order, ClutNodeArrayBytes(n, 4, 3)
    // bytes followed by kClutNodeSlack readable bytes.
    const std::uint8_t* nodes;
    // Byte offset from node c to corner k = b0 + 2 b1 + 4 b2 (b3 = 0):
    // 3 (b0 n^3 + b1 n^2 + b2 n); corner k + 8 follows 3 bytes later.
    std::uint32_t cornerOffset[8];
    bool identityOutput;  // as in ZKSClutTables3
};

// The kernel that serves a dispatch variant: the reference loop for
// KERNEL_REFERENCE and KERNEL_SSE2 (the SSE2 baseline has no byte shuffle to
// read the blocks), SSSE3, and AVX2 for both KERNEL_AVX2 and KERNEL_AVX512.
KERNEL_VARIANT ClutKernelVariant(KERNEL_VARIANT variant);

// count pixels of 3 bytes in, m bytes out; m is 3, 4 or 7 (others throw
// "DefaultCase"). The processor must run `variant` (KernelVariantSupported).
void InterpolateClut3(KERNEL_VARIANT variant, const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                      std::uint8_t* out, std::uint32_t count);
// count pixels of 4 bytes in, 3 bytes out.
void InterpolateClut4x3(KERNEL_VARIANT variant, const ZKSClutTables4& t, const std::uint8_t* in,
                        std::uint8_t* out, std::uint32_t count);

// The individual loops, named by kernel.
void InterpolateClut3_Reference(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in, std::uint8_t* out,
                                std::uint32_t count);
void InterpolateClut4x3_Reference(const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                                  std::uint32_t count);
void InterpolateClut3_SSSE3(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in, std::uint8_t* out,
                           std::uint32_t count);
void InterpolateClut4x3_SSSE3(const ZKSClutTables4 t, const std::uint8_t* in, std::uint8_t* out,
                             std::uint32_t count);
void InterpolateClut3_AVX2(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in, std::uint8_t* out,
                           std::uint32_t count);
void InterpolateClut4x3_AVX2(const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                             std::uint32_t count);


}  // namespace KELMA_NAMESPACE
