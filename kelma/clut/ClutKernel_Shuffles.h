// Byte shuffles that turn corner-major cell blocks (corner k at bytes
// k m .. k m + m - 1) into the 16-bit lanes that pmaddwd multiplies with the
// weights, shared by the SSSE3 and AVX2 kernels.
//
// pmaddwd adds lane pairs, so each 32-bit "slot" of a shuffled vector holds one
// output channel j of two corners a, b: the 16-bit lanes (v_aj, v_bj) with zero
// high bytes; its weight slot holds (w_a, w_b). The products of a slot are
// w_a v_aj + w_b v_bj. A pshufb picks bytes from one 16-byte window of the
// block; index -128 writes a zero byte. Windows never reach past their block.
//
// Three outputs (3x3, and each half of 4x3's 16 corners): 8 corners are 4
// corner pairs P0 = (0,1) .. P3 = (6,7) times 3 channels = 12 slots, in three
// vectors of 4 slots, each from one window:
//   r0 (window 0, corners 0..3): P0 j0, P0 j1, P0 j2, P1 j0
//   r1 (window 6, corners 2..5): P1 j1, P1 j2, P2 j0, P2 j1
//   r2 (window 8, corners 4..7): P3 j0, P3 j1, P2 j2, P3 j2
// Weight slots pick the pairs with pshufd: [P0 P0 P0 P1], [P1 P1 P2 P2],
// [P3 P3 P2 P3] (kPick3). The channel sums are then
//   acc = (r0 + r2) + [r0.3 r1.0 r1.1 .] + [r1.2 r1.3 r2.3 .]   (lanes 0..2)
// Four outputs: window 0 holds corners 0..3, window 16 corners 4..7; slot j
// of each vector is channel j (pairs (0,1) | (2,3), then (4,5) | (6,7)).
// Seven outputs: corner pair i (bytes 14 i .. 14 i + 13) from the window at
// kWindow7[i], channels 0..3 then 4..6 and an empty slot.
#pragma once

#include <cstdint>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {
namespace clut_shuffles {

constexpr std::int8_t Z = -128;  // pshufb: zero byte

// Three outputs, per 8 corners: window offsets and masks of r0, r1, r2.
inline constexpr unsigned kWindow3[3] = {0, 6, 8};
alignas(16) inline constexpr std::int8_t kSlots3[3][16] = {
    {0, Z, 3, Z, 1, Z, 4, Z, 2, Z, 5, Z, 6, Z, 9, Z},        // P0 j0, P0 j1, P0 j2, P1 j0 (window 0)
    {1, Z, 4, Z, 2, Z, 5, Z, 6, Z, 9, Z, 7, Z, 10, Z},       // P1 j1, P1 j2, P2 j0, P2 j1 (window 6)
    {10, Z, 13, Z, 11, Z, 14, Z, 6, Z, 9, Z, 12, Z, 15, Z},  // P3 j0, P3 j1, P2 j2, P3 j2 (window 8)
};
// r0 | r1 in one 256-bit vector (3x3 with AVX2).
alignas(32) inline constexpr std::int8_t kSlots3Pair01[32] = {
    0, Z, 3, Z, 1, Z, 4, Z, 2, Z, 5, Z, 6, Z, 9, Z,  //
    1, Z, 4, Z, 2, Z, 5, Z, 6, Z, 9, Z, 7, Z, 10, Z};
// pshufd selectors of the weight slots of r0, r1, r2 (32-bit lane i = P_i).
inline constexpr int kPick3[3] = {(1 << 6) | (0 << 4) | (0 << 2) | 0,   // P0 P0 P0 P1
                                  (2 << 6) | (2 << 4) | (1 << 2) | 1,   // P1 P1 P2 P2
                                  (3 << 6) | (2 << 4) | (3 << 2) | 3};  // P3 P3 P2 P3

// Four outputs: pairs (0,1) channels 0..3 | pairs (2,3) channels 0..3 of a
// 16-byte window of 4 corners.
alignas(32) inline constexpr std::int8_t kSlots4[32] = {
    0, Z, 4, Z,  1, Z, 5,  Z, 2,  Z, 6,  Z, 3,  Z, 7,  Z,  //
    8, Z, 12, Z, 9, Z, 13, Z, 10, Z, 14, Z, 11, Z, 15, Z};

// Seven outputs: windows of the four corner pairs; the last starts 2 bytes
// before its pair so that it ends with the 56-byte block.
inline constexpr unsigned kWindow7[4] = {0, 14, 28, 40};
// [0]: pair at window byte 0, [1]: at window byte 2. Channels 0..3 | 4..6, empty.
alignas(32) inline constexpr std::int8_t kSlots7[2][32] = {
    {0, Z, 7, Z, 1, Z, 8, Z, 2, Z, 9, Z, 3, Z, 10, Z,  //
     4, Z, 11, Z, 5, Z, 12, Z, 6, Z, 13, Z, Z, Z, Z, Z},
    {2, Z, 9, Z, 3, Z, 10, Z, 4, Z, 11, Z, 5, Z, 12, Z,  //
     6, Z, 13, Z, 7, Z, 14, Z, 8, Z, 15, Z, Z, Z, Z, Z},
};

}  // namespace clut_shuffles
}  // namespace KELMA_NAMESPACE
