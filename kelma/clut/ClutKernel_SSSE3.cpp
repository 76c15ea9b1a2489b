// SSSE3 twin of ClutKernel_Reference.cpp (128-bit), compiled for that target
// only and reached through the SSSE3 dispatch variant (ClutKernel.cpp). It
// reads the corner-major cell blocks directly with the byte shuffles of
// ClutKernel_Shuffles.h.
//
// Weights: the products of the factor tables (ZKCClutWeightTable), equal to
// the rows of the shared table, split for pmaddwd (signed 16-bit lanes):
//   w = 2^s hi + lo,  s = 8  (three inputs: hi <= 128, lo <= 255)
//                     s = 15 (four inputs:  hi <= 32,  lo <= 32767)
//   acc_j = sum_k w_k v_kj = 2^s sum_k hi_k v_kj + sum_k lo_k v_kj
// Every partial sum is below 2^31, so acc_j is the reference's integer exactly.
#include <tmmintrin.h>

#include "kelma/clut/ClutKernel.h"
#include "kelma/clut/ClutKernel_Shuffles.h"
#include "kelma/common/LibraryErrors.h"

#define KELMA_SSSE3 __attribute__((target("ssse3")))

namespace KELMA_NAMESPACE {

namespace {

using namespace clut_shuffles;

KELMA_SSSE3 inline __m128i Load16(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }

// 2^s (x . hi) + (x . lo) per 32-bit lane, x . w = pmaddwd.
template <int S>
KELMA_SSSE3 inline __m128i Products(__m128i x, __m128i hi, __m128i lo) {
    return _mm_add_epi32(_mm_slli_epi32(_mm_madd_epi16(x, hi), S), _mm_madd_epi16(x, lo));
}

// Channel sums of the three-output slot vectors (ClutKernel_Shuffles.h), lanes 0..2:
//   (r0 + r2) + [r0.3 r1.0 r1.1 .] + [r1.2 r1.3 r2.3 .]
KELMA_SSSE3 inline __m128i Gather3(__m128i r0, __m128i r1, __m128i r2) {
    const __m128i u = _mm_add_epi32(r0, r2);
    const __m128i v = _mm_alignr_epi8(r1, r0, 12);
    const __m128i w = _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(r1), _mm_castsi128_ps(r2), _MM_SHUFFLE(3, 3, 3, 2)));
    return _mm_add_epi32(_mm_add_epi32(u, v), w);
}

// w_k = P[f0 32 + f1][k & 3] * A[f2][k >> 2] <= 32768 (exact in unsigned 16 bits);
// hi_k = w_k >> 8, lo_k = w_k & 255. 32-bit lane i holds the pair P_i = (w_2i, w_2i+1).
struct Weights3 {
    __m128i hi, lo;
};
KELMA_SSSE3 inline Weights3 MakeWeights3(const ZKSClutTables3& t, InputMapEntry e0, InputMapEntry e1,
                                         InputMapEntry e2) {
    const __m128i p = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(
        t.pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4));
    const __m128i a = _mm_load_si128(reinterpret_cast<const __m128i*>(t.axis + (e2 & kClutPositionMask) * 8));
    const __m128i w = _mm_mullo_epi16(_mm_unpacklo_epi64(p, p), a);
    return {_mm_srli_epi16(w, 8), _mm_and_si128(w, _mm_set1_epi16(255))};
}

KELMA_SSSE3 inline void Store(const OutputMapEntry* const* map, const std::uint32_t* index, unsigned m,
                              std::uint8_t* out) {
    for (unsigned j = 0; j < m; ++j) out[j] = map[j][index[j]];
}

template <unsigned M>
struct Cell3 {
    static const std::uint8_t* Block(const ZKSClutTables3& t, InputMapEntry e0, InputMapEntry e1,
                                     InputMapEntry e2) {
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   (e2 >> kClutPositionBits);
        return t.cells + std::size_t(cell) * (8 * M);
    }
};

KELMA_SSSE3 void Interpolate3x3(const ZKSClutTables3 t, const std::uint8_t* in, std::uint8_t* out,
                                std::uint32_t count) {
    const __m128i mask0 = Load16(kSlots3[0]);
    const __m128i mask1 = Load16(kSlots3[1]);
    const __m128i mask2 = Load16(kSlots3[2]);
    alignas(16) std::uint32_t index[4];
    for (std::uint32_t px = 0; px < count; ++px, in += 3, out += 3) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const std::uint8_t* block = Cell3<3>::Block(t, e0, e1, e2);
        const Weights3 w = MakeWeights3(t, e0, e1, e2);
        const __m128i x0 = _mm_shuffle_epi8(Load16(block + kWindow3[0]), mask0);
        const __m128i x1 = _mm_shuffle_epi8(Load16(block + kWindow3[1]), mask1);
        const __m128i x2 = _mm_shuffle_epi8(Load16(block + kWindow3[2]), mask2);
        const __m128i r0 = Products<8>(x0, _mm_shuffle_epi32(w.hi, kPick3[0]), _mm_shuffle_epi32(w.lo, kPick3[0]));
        const __m128i r1 = Products<8>(x1, _mm_shuffle_epi32(w.hi, kPick3[1]), _mm_shuffle_epi32(w.lo, kPick3[1]));
        const __m128i r2 = Products<8>(x2, _mm_shuffle_epi32(w.hi, kPick3[2]), _mm_shuffle_epi32(w.lo, kPick3[2]));
        // index_j = acc_j >> 15
        _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_srli_epi32(Gather3(r0, r1, r2), 15));
        Store(t.outputMap, index, 3, out);
    }
}

KELMA_SSSE3 void Interpolate3x4(const ZKSClutTables3 t, const std::uint8_t* in, std::uint8_t* out,
                                std::uint32_t count) {
    const __m128i maskA = Load16(kSlots4);       // corner pair (0,1) of a 4-corner window
    const __m128i maskB = Load16(kSlots4 + 16);  // corner pair (2,3)
    alignas(16) std::uint32_t index[4];
    for (std::uint32_t px = 0; px < count; ++px, in += 3, out += 4) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const std::uint8_t* block = Cell3<4>::Block(t, e0, e1, e2);
        const Weights3 w = MakeWeights3(t, e0, e1, e2);
        const __m128i y0 = Load16(block);
        const __m128i y1 = Load16(block + 16);
        // Slot j of every vector is channel j; pair i's weights P_i in every slot.
        const __m128i x[4] = {_mm_shuffle_epi8(y0, maskA), _mm_shuffle_epi8(y0, maskB),
                              _mm_shuffle_epi8(y1, maskA), _mm_shuffle_epi8(y1, maskB)};
        __m128i hi = _mm_madd_epi16(x[0], _mm_shuffle_epi32(w.hi, 0x00));
        __m128i lo = _mm_madd_epi16(x[0], _mm_shuffle_epi32(w.lo, 0x00));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(x[1], _mm_shuffle_epi32(w.hi, 0x55)));
        lo = _mm_add_epi32(lo, _mm_madd_epi16(x[1], _mm_shuffle_epi32(w.lo, 0x55)));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(x[2], _mm_shuffle_epi32(w.hi, 0xAA)));
        lo = _mm_add_epi32(lo, _mm_madd_epi16(x[2], _mm_shuffle_epi32(w.lo, 0xAA)));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(x[3], _mm_shuffle_epi32(w.hi, 0xFF)));
        lo = _mm_add_epi32(lo, _mm_madd_epi16(x[3], _mm_shuffle_epi32(w.lo, 0xFF)));
        const __m128i acc = _mm_add_epi32(_mm_slli_epi32(hi, 8), lo);
        _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_srli_epi32(acc, 15));
        Store(t.outputMap, index, 4, out);
    }
}

// Running pmaddwd sums of the seven-output kernel: channels 0..3 (a), 4..6 (b).
struct Sums7 {
    __m128i aHi, aLo, bHi, bLo;
};
KELMA_SSSE3 inline void AddPair7(Sums7& s, __m128i window, __m128i maskA, __m128i maskB, __m128i wHi,
                                 __m128i wLo) {
    const __m128i xa = _mm_shuffle_epi8(window, maskA);
    const __m128i xb = _mm_shuffle_epi8(window, maskB);
    s.aHi = _mm_add_epi32(s.aHi, _mm_madd_epi16(xa, wHi));
    s.aLo = _mm_add_epi32(s.aLo, _mm_madd_epi16(xa, wLo));
    s.bHi = _mm_add_epi32(s.bHi, _mm_madd_epi16(xb, wHi));
    s.bLo = _mm_add_epi32(s.bLo, _mm_madd_epi16(xb, wLo));
}

KELMA_SSSE3 void Interpolate3x7(const ZKSClutTables3 t, const std::uint8_t* in, std::uint8_t* out,
                                std::uint32_t count) {
    const __m128i lo0 = Load16(kSlots7[0]), hi0 = Load16(kSlots7[0] + 16);  // pair at window byte 0
    const __m128i lo2 = Load16(kSlots7[1]), hi2 = Load16(kSlots7[1] + 16);  // pair at window byte 2
    alignas(16) std::uint32_t index[8];
    for (std::uint32_t px = 0; px < count; ++px, in += 3, out += 7) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const std::uint8_t* block = Cell3<7>::Block(t, e0, e1, e2);
        const Weights3 w = MakeWeights3(t, e0, e1, e2);
        // Channels 0..3 (a) and 4..6 (b) of corner pair i, weighted by P_i.
        Sums7 sums{};
        AddPair7(sums, Load16(block + kWindow7[0]), lo0, hi0, _mm_shuffle_epi32(w.hi, 0x00),
                 _mm_shuffle_epi32(w.lo, 0x00));
        AddPair7(sums, Load16(block + kWindow7[1]), lo0, hi0, _mm_shuffle_epi32(w.hi, 0x55),
                 _mm_shuffle_epi32(w.lo, 0x55));
        AddPair7(sums, Load16(block + kWindow7[2]), lo0, hi0, _mm_shuffle_epi32(w.hi, 0xAA),
                 _mm_shuffle_epi32(w.lo, 0xAA));
        AddPair7(sums, Load16(block + kWindow7[3]), lo2, hi2, _mm_shuffle_epi32(w.hi, 0xFF),
                 _mm_shuffle_epi32(w.lo, 0xFF));
        const __m128i aHi = sums.aHi, aLo = sums.aLo, bHi = sums.bHi, bLo = sums.bLo;
        _mm_store_si128(reinterpret_cast<__m128i*>(index),
                        _mm_srli_epi32(_mm_add_epi32(_mm_slli_epi32(aHi, 8), aLo), 15));
        _mm_store_si128(reinterpret_cast<__m128i*>(index + 4),
                        _mm_srli_epi32(_mm_add_epi32(_mm_slli_epi32(bHi, 8), bLo), 15));
        Store(t.outputMap, index, 7, out);
    }
}

}  // namespace

KELMA_SSSE3 void InterpolateClut3_SSSE3(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                                        std::uint8_t* out, std::uint32_t count) {
    switch (m) {
        case 3: Interpolate3x3(t, in, out, count); break;
        case 4: Interpolate3x4(t, in, out, count); break;
        case 7: Interpolate3x7(t, in, out, count); break;
        default: throw kErrorDefaultCase;
    }
}

// Four inputs: corners 0..7 and 8..15 (24 bytes further) each through the
// three-output slots, both halves summed per slot before regrouping.
KELMA_SSSE3 void InterpolateClut4x3_SSSE3(const ZKSClutTables4 t, const std::uint8_t* in, std::uint8_t* out,
                                          std::uint32_t count) {
    const __m128i lowMask = _mm_set1_epi16(0x7FFF);
    const __m128i mask[3] = {Load16(kSlots3[0]), Load16(kSlots3[1]), Load16(kSlots3[2])};
    alignas(16) std::uint32_t index[4];
    for (std::uint32_t px = 0; px < count; ++px, in += 4, out += 3) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const InputMapEntry e3 = t.inputMap[3][in[3]];
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   t.stride2[e2 >> kClutPositionBits] + (e3 >> kClutPositionBits);
        const std::uint8_t* block = t.cells + std::size_t(cell) * 48;

        // P = [P0 P1 P2 P3] twice; Q spread as [Q0 x4, Q1 x4] (corners 0-7) and
        // [Q2 x4, Q3 x4] (corners 8-15), so that lane k holds P[k & 3] and Q[k >> 2].
        const __m128i p = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(
            t.pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4));
        const __m128i q = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(
            t.pairs + ((e2 & kClutPositionMask) * 32 + (e3 & kClutPositionMask)) * 4));
        const __m128i pp = _mm_unpacklo_epi64(p, p);
        const __m128i qq = _mm_unpacklo_epi16(q, q);
        const __m128i q0 = _mm_unpacklo_epi32(qq, qq);
        const __m128i q1 = _mm_unpackhi_epi32(qq, qq);
        // w_k = P Q < 2^21 as its exact low and high 16 bits; then
        // hi_k = w_k >> 15 = (high << 1) | (low >> 15), lo_k = w_k & 32767.
        const __m128i low0 = _mm_mullo_epi16(pp, q0);
        const __m128i low1 = _mm_mullo_epi16(pp, q1);
        const __m128i high0 = _mm_mulhi_epu16(pp, q0);
        const __m128i high1 = _mm_mulhi_epu16(pp, q1);
        const __m128i hi0 = _mm_or_si128(_mm_slli_epi16(high0, 1), _mm_srli_epi16(low0, 15));
        const __m128i hi1 = _mm_or_si128(_mm_slli_epi16(high1, 1), _mm_srli_epi16(low1, 15));
        const __m128i lo0 = _mm_and_si128(low0, lowMask);
        const __m128i lo1 = _mm_and_si128(low1, lowMask);

        // r_s = 2^15 (x_s0 . hi + x_s1 . hi) + (x_s0 . lo + x_s1 . lo), the weight
        // slots picked from corners 0-7 (h0, l0) and 8-15 (h1, l1).
        __m128i r[3];
        for (unsigned s = 0; s < 3; ++s) {
            const __m128i x0 = _mm_shuffle_epi8(Load16(block + kWindow3[s]), mask[s]);
            const __m128i x1 = _mm_shuffle_epi8(Load16(block + 24 + kWindow3[s]), mask[s]);
            __m128i h0, h1, l0, l1;
            switch (s) {  // pshufd takes its selector as an immediate
                case 0:
                    h0 = _mm_shuffle_epi32(hi0, kPick3[0]), h1 = _mm_shuffle_epi32(hi1, kPick3[0]);
                    l0 = _mm_shuffle_epi32(lo0, kPick3[0]), l1 = _mm_shuffle_epi32(lo1, kPick3[0]);
                    break;
                case 1:
                    h0 = _mm_shuffle_epi32(hi0, kPick3[1]), h1 = _mm_shuffle_epi32(hi1, kPick3[1]);
                    l0 = _mm_shuffle_epi32(lo0, kPick3[1]), l1 = _mm_shuffle_epi32(lo1, kPick3[1]);
                    break;
                default:
                    h0 = _mm_shuffle_epi32(hi0, kPick3[2]), h1 = _mm_shuffle_epi32(hi1, kPick3[2]);
                    l0 = _mm_shuffle_epi32(lo0, kPick3[2]), l1 = _mm_shuffle_epi32(lo1, kPick3[2]);
                    break;
            }
            const __m128i h = _mm_add_epi32(_mm_madd_epi16(x0, h0), _mm_madd_epi16(x1, h1));
            const __m128i l = _mm_add_epi32(_mm_madd_epi16(x0, l0), _mm_madd_epi16(x1, l1));
            r[s] = _mm_add_epi32(_mm_slli_epi32(h, 15), l);
        }
        // index_j = acc_j >> 20
        _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_srli_epi32(Gather3(r[0], r[1], r[2]), 20));
        out[0] = t.outputMap[0][index[0]];
        out[1] = t.outputMap[1][index[1]];
        out[2] = t.outputMap[2][index[2]];
    }
}

}  // namespace KELMA_NAMESPACE
