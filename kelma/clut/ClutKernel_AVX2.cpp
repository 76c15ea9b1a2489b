// AVX2 twin of ClutKernel_Reference.cpp, compiled for that target only and
// reached through the AVX2 dispatch variant (ClutKernel.cpp). The three-input
// kernels read the corner-major cell blocks directly (byte shuffles shared
// with the SSSE3 kernel, described in ClutKernel_Shuffles.h); the four-input
// kernel reads the node array (see its comment).
//
// Weights of the three-input kernels: the products of the factor tables
// (ZKCClutWeightTable), equal to the rows of the shared table. pmaddwd
// multiplies signed 16-bit lanes, and a weight reaches 32768, so each weight
// is split into halves:
//   w = 2^8 hi + lo  (hi <= 128, lo <= 255)
//   acc_j = sum_k w_k v_kj = 2^8 sum_k hi_k v_kj + sum_k lo_k v_kj
// Every partial sum is below 2^31, so acc_j is the reference's integer exactly.
#include <immintrin.h>

#include <cstring>

#include "kelma/clut/ClutKernel.h"
#include "kelma/clut/ClutKernel_Shuffles.h"
#include "kelma/common/LibraryErrors.h"

#define KELMA_AVX2 __attribute__((target("avx2")))

namespace KELMA_NAMESPACE {

namespace {

using namespace clut_shuffles;

// One pair row (4 x 16 bits) repeated over the whole vector.
KELMA_AVX2 inline __m256i BroadcastRow(const ClutPairWeight* row) {
    long long bits;
    std::memcpy(&bits, row, sizeof bits);
    return _mm256_set1_epi64x(bits);
}

KELMA_AVX2 inline __m128i Load16(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
KELMA_AVX2 inline __m256i Mask(const std::int8_t* bytes) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
}
// [16 bytes at lo | 16 bytes at hi]
KELMA_AVX2 inline __m256i LoadPair(const std::uint8_t* lo, const std::uint8_t* hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(Load16(lo)), Load16(hi), 1);
}
// The same 16 bytes in both halves.
KELMA_AVX2 inline __m256i LoadBoth(const void* p) { return _mm256_broadcastsi128_si256(Load16(p)); }

// 2^s (x . hi) + (x . lo) per 32-bit lane, x . w = pmaddwd.
template <int S>
KELMA_AVX2 inline __m256i Products(__m256i x, __m256i hi, __m256i lo) {
    return _mm256_add_epi32(_mm256_slli_epi32(_mm256_madd_epi16(x, hi), S), _mm256_madd_epi16(x, lo));
}
template <int S>
KELMA_AVX2 inline __m128i Products(__m128i x, __m128i hi, __m128i lo) {
    return _mm_add_epi32(_mm_slli_epi32(_mm_madd_epi16(x, hi), S), _mm_madd_epi16(x, lo));
}

// The three slot vectors of a three-output layout (ClutKernel_Shuffles.h) to
// the channel sums: lanes 0..2 = acc_0..2, lane 3 is not used.
//   u = r0 + r2, v = [r0.3 r1.0 r1.1 .], w = [r1.2 r1.3 r2.3 .]
KELMA_AVX2 inline __m128i Gather3(__m128i r0, __m128i r1, __m128i r2) {
    const __m128i u = _mm_add_epi32(r0, r2);
    const __m128i v = _mm_alignr_epi8(r1, r0, 12);
    const __m128i w = _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(r1), _mm_castsi128_ps(r2), _MM_SHUFFLE(3, 3, 3, 2)));
    return _mm_add_epi32(_mm_add_epi32(u, v), w);
}
KELMA_AVX2 inline __m256i Gather3(__m256i r0, __m256i r1, __m256i r2) {
    const __m256i u = _mm256_add_epi32(r0, r2);
    const __m256i v = _mm256_alignr_epi8(r1, r0, 12);
    const __m256i w = _mm256_castps_si256(
        _mm256_shuffle_ps(_mm256_castsi256_ps(r1), _mm256_castsi256_ps(r2), _MM_SHUFFLE(3, 3, 3, 2)));
    return _mm256_add_epi32(_mm256_add_epi32(u, v), w);
}

// Output bytes of one pixel from its m indices acc_j >> (5 d) <= 255.
//
// With identity output maps (every worker's) the indices are the bytes: they
// are packed and stored with one store of 4 (m = 3, 4) or 8 (m = 7) bytes,
// which for m = 3 and 7 also writes the first byte of the next pixel; that
// byte is rewritten by the next pixel, so only the last pixel of a run, whose
// next byte may belong to another slice, is stored byte-exactly. With other
// maps, each index goes through its map.
KELMA_AVX2 inline void StoreMapped(const OutputMapEntry* const* map, __m128i index, unsigned m, std::uint8_t* out) {
    alignas(16) std::uint32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), index);
    for (unsigned j = 0; j < m; ++j) out[j] = map[j][lanes[j]];
}
KELMA_AVX2 inline void StoreMapped(const OutputMapEntry* const* map, __m256i index, unsigned m, std::uint8_t* out) {
    alignas(32) std::uint32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), index);
    for (unsigned j = 0; j < m; ++j) out[j] = map[j][lanes[j]];
}
// Bytes of lanes 0..3 (index <= 255) in the low 32 bits.
KELMA_AVX2 inline std::uint32_t Pack4(__m128i index) {
    const __m128i w = _mm_packus_epi32(index, index);
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(w, w)));
}
// Bytes of lanes 0..7 in the low 64 bits.
KELMA_AVX2 inline std::uint64_t Pack8(__m256i index) {
    const __m128i w = _mm_packus_epi32(_mm256_castsi256_si128(index), _mm256_extracti128_si256(index, 1));
    return static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_packus_epi16(w, w)));
}

// Runs `pixel` (in -> index vector) over count pixels of I input bytes and
// stores M output bytes each (see StoreMapped above).
template <unsigned I, unsigned M, class Pixel>
KELMA_AVX2 inline void Drive(const Pixel& pixel, const OutputMapEntry* const* map, bool identity,
                             const std::uint8_t* in, std::uint8_t* out, std::uint32_t count) {
    if (count == 0) return;
    if (!identity) {
        for (std::uint32_t px = 0; px < count; ++px, in += I, out += M) StoreMapped(map, pixel(in), M, out);
        return;
    }
    for (std::uint32_t px = 0; px + 1 < count; ++px, in += I, out += M) {
        if constexpr (M == 7) {
            const std::uint64_t bytes = Pack8(pixel(in));
            std::memcpy(out, &bytes, 8);
        } else {
            const std::uint32_t bytes = Pack4(pixel(in));
            std::memcpy(out, &bytes, 4);
        }
    }
    // The last pixel: exactly M bytes.
    if constexpr (M == 7) {
        const std::uint64_t bytes = Pack8(pixel(in));
        std::memcpy(out, &bytes, 7);
    } else {
        const std::uint32_t bytes = Pack4(pixel(in));
        std::memcpy(out, &bytes, M);
    }
}

// The three-input tables a kernel reads, copied into the kernel's own frame:
// the byte stores to `out` may alias anything, and the compiler would
// otherwise reload every table pointer for every pixel.
struct Local3 {
    const InputMapEntry *map0, *map1, *map2;
    const std::uint32_t *stride0, *stride1;
    const std::uint8_t* cells;
    const ClutPairWeight *pairs, *axis;

    explicit Local3(const ZKSClutTables3& t)
        : map0(t.inputMap[0]), map1(t.inputMap[1]), map2(t.inputMap[2]), stride0(t.stride0), stride1(t.stride1),
          cells(t.cells), pairs(t.pairs), axis(t.axis) {}

    // The cell block of the pixel (block bytes per cell) and its 8 weights
    // w_k = P[f0 32 + f1][k & 3] * A[f2][k >> 2] <= 32768 (exact in unsigned
    // 16 bits) in both halves, split as hi_k = w_k >> 8, lo_k = w_k & 255.
    KELMA_AVX2 inline const std::uint8_t* Cell(const std::uint8_t* in, std::size_t blockBytes, __m256i& hi,
                                               __m256i& lo) const {
        const InputMapEntry e0 = map0[in[0]];
        const InputMapEntry e1 = map1[in[1]];
        const InputMapEntry e2 = map2[in[2]];
        const std::uint32_t cell =
            stride0[e0 >> kClutPositionBits] + stride1[e1 >> kClutPositionBits] + (e2 >> kClutPositionBits);
        const __m256i pp = BroadcastRow(pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4);
        const __m256i aa = _mm256_broadcastsi128_si256(
            _mm_load_si128(reinterpret_cast<const __m128i*>(axis + (e2 & kClutPositionMask) * 8)));
        const __m256i w = _mm256_mullo_epi16(pp, aa);
        hi = _mm256_srli_epi16(w, 8);
        lo = _mm256_and_si256(w, _mm256_set1_epi16(255));
        return cells + std::size_t(cell) * blockBytes;
    }
};

// m = 3: slots of corners 0..3 (window 0) and 2..5 (window 6) in one vector,
// 4..7 (window 8) in a second; 24 bytes per block, all read within it.
struct Pixel3x3 {
    Local3 t;
    __m256i mask01;
    __m128i mask2;
    // Slot weights: [P0 P0 P0 P1 | P1 P1 P2 P2] and [P3 P3 P2 P3], P_i = (w_2i, w_2i+1).
    __m256i pick01;

    KELMA_AVX2 explicit Pixel3x3(const ZKSClutTables3& tables)
        : t(tables), mask01(Mask(kSlots3Pair01)), mask2(Load16(kSlots3[2])),
          pick01(_mm256_setr_epi32(0, 0, 0, 1, 1, 1, 2, 2)) {}

    // Lanes 0..2: acc_j >> 15.
    KELMA_AVX2 inline __m128i operator()(const std::uint8_t* in) const {
        __m256i hi, lo;
        const std::uint8_t* block = t.Cell(in, 24, hi, lo);
        const __m256i x01 = _mm256_shuffle_epi8(LoadPair(block, block + kWindow3[1]), mask01);
        const __m128i x2 = _mm_shuffle_epi8(Load16(block + kWindow3[2]), mask2);
        const __m256i r01 =
            Products<8>(x01, _mm256_permutevar8x32_epi32(hi, pick01), _mm256_permutevar8x32_epi32(lo, pick01));
        const __m128i r2 = Products<8>(x2, _mm_shuffle_epi32(_mm256_castsi256_si128(hi), kPick3[2]),
                                       _mm_shuffle_epi32(_mm256_castsi256_si128(lo), kPick3[2]));
        const __m128i acc = Gather3(_mm256_castsi256_si128(r01), _mm256_extracti128_si256(r01, 1), r2);
        return _mm_srli_epi32(acc, 15);
    }
};

// m = 4: one 16-byte window holds corners 0..3, the next 4..7; lane j of
// every slot vector is channel j, so no regrouping is needed.
struct Pixel3x4 {
    Local3 t;
    __m256i mask, pickA, pickB;

    KELMA_AVX2 explicit Pixel3x4(const ZKSClutTables3& tables)
        : t(tables), mask(Mask(kSlots4)), pickA(_mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1)),
          pickB(_mm256_setr_epi32(2, 2, 2, 2, 3, 3, 3, 3)) {}

    // Lanes 0..3: acc_j >> 15.
    KELMA_AVX2 inline __m128i operator()(const std::uint8_t* in) const {
        __m256i wHi, wLo;
        const std::uint8_t* block = t.Cell(in, 32, wHi, wLo);
        // Halves: corner pairs (0,1) | (2,3), then (4,5) | (6,7).
        const __m256i xa = _mm256_shuffle_epi8(LoadBoth(block), mask);
        const __m256i xb = _mm256_shuffle_epi8(LoadBoth(block + 16), mask);
        const __m256i hi = _mm256_add_epi32(_mm256_madd_epi16(xa, _mm256_permutevar8x32_epi32(wHi, pickA)),
                                            _mm256_madd_epi16(xb, _mm256_permutevar8x32_epi32(wHi, pickB)));
        const __m256i lo = _mm256_add_epi32(_mm256_madd_epi16(xa, _mm256_permutevar8x32_epi32(wLo, pickA)),
                                            _mm256_madd_epi16(xb, _mm256_permutevar8x32_epi32(wLo, pickB)));
        const __m256i sum = _mm256_add_epi32(_mm256_slli_epi32(hi, 8), lo);
        const __m128i acc = _mm_add_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
        return _mm_srli_epi32(acc, 15);
    }
};

// m = 7: corner pair i (bytes 14 i .. 14 i + 13) in one window, channels 0..3
// in the low half and 4..6 in the high half of its slot vector.
struct Pixel3x7 {
    Local3 t;
    __m256i mask0, mask2;  // mask2: the last window starts 2 bytes before its pair

    KELMA_AVX2 explicit Pixel3x7(const ZKSClutTables3& tables)
        : t(tables), mask0(Mask(kSlots7[0])), mask2(Mask(kSlots7[1])) {}

    // Lanes 0..6: acc_j >> 15.
    KELMA_AVX2 inline __m256i operator()(const std::uint8_t* in) const {
        __m256i wHi, wLo;
        const std::uint8_t* block = t.Cell(in, 56, wHi, wLo);
        const __m256i x0 = _mm256_shuffle_epi8(LoadBoth(block + kWindow7[0]), mask0);
        const __m256i x1 = _mm256_shuffle_epi8(LoadBoth(block + kWindow7[1]), mask0);
        const __m256i x2 = _mm256_shuffle_epi8(LoadBoth(block + kWindow7[2]), mask0);
        const __m256i x3 = _mm256_shuffle_epi8(LoadBoth(block + kWindow7[3]), mask2);
        // Pair i's weights P_i in every lane.
        __m256i hi = _mm256_madd_epi16(x0, _mm256_shuffle_epi32(wHi, 0x00));
        __m256i lo = _mm256_madd_epi16(x0, _mm256_shuffle_epi32(wLo, 0x00));
        hi = _mm256_add_epi32(hi, _mm256_madd_epi16(x1, _mm256_shuffle_epi32(wHi, 0x55)));
        lo = _mm256_add_epi32(lo, _mm256_madd_epi16(x1, _mm256_shuffle_epi32(wLo, 0x55)));
        hi = _mm256_add_epi32(hi, _mm256_madd_epi16(x2, _mm256_shuffle_epi32(wHi, 0xAA)));
        lo = _mm256_add_epi32(lo, _mm256_madd_epi16(x2, _mm256_shuffle_epi32(wLo, 0xAA)));
        hi = _mm256_add_epi32(hi, _mm256_madd_epi16(x3, _mm256_shuffle_epi32(wHi, 0xFF)));
        lo = _mm256_add_epi32(lo, _mm256_madd_epi16(x3, _mm256_shuffle_epi32(wLo, 0xFF)));
        return _mm256_srli_epi32(_mm256_add_epi32(_mm256_slli_epi32(hi, 8), lo), 15);
    }
};

}  // namespace

KELMA_AVX2 void InterpolateClut3_AVX2(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                                      std::uint8_t* out, std::uint32_t count) {
    const OutputMapEntry* map[7];
    for (unsigned j = 0; j < 7; ++j) map[j] = t.outputMap[j];
    switch (m) {
        case 3: Drive<3, 3>(Pixel3x3(t), map, t.identityOutput, in, out, count); break;
        case 4: Drive<3, 4>(Pixel3x4(t), map, t.identityOutput, in, out, count); break;
        case 7: Drive<3, 7>(Pixel3x7(t), map, t.identityOutput, in, out, count); break;
        default: throw kErrorDefaultCase;
    }
}

// Four inputs, node-major (ClutKernel.h): the pixel's 16 corners are 8 runs
// of two adjacent nodes (b3 = 0, 1) at node offsets cornerOffset[k'],
// k' = b0 + 2 b1 + 4 b2. A 16-byte load at a run holds
//   bytes 0-2: corner k' channels 0-2,  bytes 3-5: corner k' + 8 channels 0-2
// and the `slots` shuffle turns it into the 32-bit slots (v_k'j, v_k'+8,j),
// j = 0..2 (slot 3 zero). Vector i (i = 0..3) holds run i in its low half and
// run i + 4 in its high half.
//   inner_k'j = pmaddwd(slot, {32 - f3, f3})       <= 32 * 255 (exact)
//   R_k'      = P[f0 32 + f1][k' & 3] * A[f2][k' >> 2]   <= 32768 (16-bit product)
//   acc_j     = sum over k' of R_k' * inner_k'j   (pmulld; every partial sum < 2^28)
// R_k' inner_k'j = sum over b3 of W[r][k' + 8 b3] v: the reference's integer.
//
// Memory: a 17^4 table's node array (245 KiB) stays in each core's
// second-level cache, where its 48-byte corner-major blocks (3.8 MiB, the
// reference's layout) would be read from the shared last-level cache or
// memory at random pixels, and all threads read the same copy. No pixel
// depends on another, so the out-of-order core overlaps the loads of the
// next pixels with the arithmetic of the current one.
namespace {

struct Pixel4x3 {
    const InputMapEntry *map0, *map1, *map2, *map3;
    const std::uint32_t *stride0, *stride1, *stride2;
    const std::uint8_t* nodes;
    const ClutPairWeight *pairs, *axis;
    // Corner k' = b0 + 2 b1 + 4 b2 lies s0 b0 + s1 b1 + s2 b2 bytes past the cell's node.
    std::size_t s0, s1, s2;
    __m256i slots;
    // R_i in the low half, R_{i+4} in the high half of vector i.
    __m256i pick0, pick1, pick2, pick3;

    KELMA_AVX2 explicit Pixel4x3(const ZKSClutTables4& t)
        : map0(t.inputMap[0]), map1(t.inputMap[1]), map2(t.inputMap[2]), map3(t.inputMap[3]), stride0(t.stride0),
          stride1(t.stride1), stride2(t.stride2), nodes(t.nodes), pairs(t.pairs), axis(t.axis),
          s0(t.cornerOffset[1]), s1(t.cornerOffset[2]), s2(t.cornerOffset[4]),
          slots(_mm256_setr_epi8(0, Z, 3, Z, 1, Z, 4, Z, 2, Z, 5, Z, Z, Z, Z, Z,  //
                                 0, Z, 3, Z, 1, Z, 4, Z, 2, Z, 5, Z, Z, Z, Z, Z)),
          pick0(_mm256_setr_epi32(0, 0, 0, 0, 4, 4, 4, 4)), pick1(_mm256_setr_epi32(1, 1, 1, 1, 5, 5, 5, 5)),
          pick2(_mm256_setr_epi32(2, 2, 2, 2, 6, 6, 6, 6)), pick3(_mm256_setr_epi32(3, 3, 3, 3, 7, 7, 7, 7)) {}

    // Lanes 0..2: acc_j >> 20.
    KELMA_AVX2 inline __m128i operator()(const std::uint8_t* in) const {
        const InputMapEntry e0 = map0[in[0]];
        const InputMapEntry e1 = map1[in[1]];
        const InputMapEntry e2 = map2[in[2]];
        const InputMapEntry e3 = map3[in[3]];
        const std::uint32_t cell = stride0[e0 >> kClutPositionBits] + stride1[e1 >> kClutPositionBits] +
                                   stride2[e2 >> kClutPositionBits] + (e3 >> kClutPositionBits);
        const std::uint8_t* node = nodes + std::size_t(cell) * 3;

        const std::uint32_t f3 = e3 & kClutPositionMask;
        const __m256i axis3 = _mm256_set1_epi32(static_cast<int>((f3 << 16) | (32 - f3)));
        const __m128i p = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(
            pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4));
        const __m128i a = _mm_load_si128(reinterpret_cast<const __m128i*>(axis + (e2 & kClutPositionMask) * 8));
        const __m256i r = _mm256_cvtepu16_epi32(_mm_mullo_epi16(_mm_unpacklo_epi64(p, p), a));

        const std::uint8_t* node1 = node + s0;  // b0 = 1
        const std::uint8_t* node2 = node + s1;  // b1 = 1
        const std::uint8_t* node3 = node1 + s1;
        const __m256i x0 = _mm256_shuffle_epi8(LoadPair(node, node + s2), slots);
        const __m256i x1 = _mm256_shuffle_epi8(LoadPair(node1, node1 + s2), slots);
        const __m256i x2 = _mm256_shuffle_epi8(LoadPair(node2, node2 + s2), slots);
        const __m256i x3 = _mm256_shuffle_epi8(LoadPair(node3, node3 + s2), slots);
        const __m256i y0 = _mm256_mullo_epi32(_mm256_madd_epi16(x0, axis3), _mm256_permutevar8x32_epi32(r, pick0));
        const __m256i y1 = _mm256_mullo_epi32(_mm256_madd_epi16(x1, axis3), _mm256_permutevar8x32_epi32(r, pick1));
        const __m256i y2 = _mm256_mullo_epi32(_mm256_madd_epi16(x2, axis3), _mm256_permutevar8x32_epi32(r, pick2));
        const __m256i y3 = _mm256_mullo_epi32(_mm256_madd_epi16(x3, axis3), _mm256_permutevar8x32_epi32(r, pick3));
        const __m256i acc = _mm256_add_epi32(_mm256_add_epi32(y0, y1), _mm256_add_epi32(y2, y3));
        return _mm_srli_epi32(_mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1)), 20);
    }
};

}  // namespace

KELMA_AVX2 void InterpolateClut4x3_AVX2(const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                                        std::uint32_t count) {
    const OutputMapEntry* map[3] = {t.outputMap[0], t.outputMap[1], t.outputMap[2]};
    Drive<4, 3>(Pixel4x3(t), map, t.identityOutput, in, out, count);
}

}  // namespace KELMA_NAMESPACE
