// SSE2 twin of ClutKernel_Reference.cpp: the same look-ups per pixel, the
// weight products formed in 16-bit lanes, the corner sums done by pmaddwd.
//
// pmaddwd multiplies signed 16-bit lanes, and a weight reaches 32^d (32768 or
// 2^20), so each weight is split into two halves that fit:
//   w = 2^s hi + lo,  s = 8  (three inputs: hi <= 128, lo <= 255)
//                     s = 15 (four inputs:  hi <= 32,  lo <= 32767)
//   acc_j = sum_k w_k v_jk = 2^s sum_k hi_k v_jk + sum_k lo_k v_jk
// Every partial sum is below 2^31, so acc_j is the reference's integer exactly.
#include <emmintrin.h>

#include "kelma/clut/ClutKernel.h"

namespace KELMA_NAMESPACE {

namespace {

// [sum a, sum b, sum c, sum d] of four vectors of four 32-bit lanes.
inline __m128i Reduce4(__m128i a, __m128i b, __m128i c, __m128i d) {
    __m128i ab = _mm_add_epi32(_mm_unpacklo_epi32(a, b), _mm_unpackhi_epi32(a, b));
    __m128i cd = _mm_add_epi32(_mm_unpacklo_epi32(c, d), _mm_unpackhi_epi32(c, d));
    return _mm_add_epi32(_mm_unpacklo_epi64(ab, cd), _mm_unpackhi_epi64(ab, cd));
}

template <unsigned M>
void Interpolate3(const ZKSClutTables3& t, const std::uint8_t* in, std::uint8_t* out, std::uint32_t count) {
    constexpr unsigned kGroups = (M + 3) / 4;
    const __m128i zero = _mm_setzero_si128();
    const __m128i lowMask = _mm_set1_epi16(255);
    alignas(16) std::uint32_t index[4 * kGroups];
    for (std::uint32_t px = 0; px < count; ++px, in += 3, out += M) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   (e2 >> kClutPositionBits);
        const std::uint8_t* block = t.cells + std::size_t(cell) * (8 * M);

        // w_k = P[k & 3] * A[k >> 2] <= 32768: exact in an unsigned 16-bit lane.
        const __m128i p = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(
            t.pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4));
        const __m128i a =
            _mm_load_si128(reinterpret_cast<const __m128i*>(t.axis + (e2 & kClutPositionMask) * 8));
        const __m128i w = _mm_mullo_epi16(_mm_unpacklo_epi64(p, p), a);
        // hi_k = w_k >> 8, lo_k = w_k & 255
        const __m128i hi = _mm_srli_epi16(w, 8);
        const __m128i lo = _mm_and_si128(w, lowMask);

        // s_j lanes: 256 (hi v) + (lo v) over corner pairs; the four lanes sum to acc_j.
        __m128i s[4 * kGroups];
        for (unsigned j = 0; j < M; j += 2) {
            __m128i v0, v1 = zero;
            if (j + 1 < M) {
                const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 8 * j));
                v0 = _mm_unpacklo_epi8(x, zero);
                v1 = _mm_unpackhi_epi8(x, zero);
            } else {
                v0 = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(block + 8 * j)), zero);
            }
            s[j] = _mm_add_epi32(_mm_slli_epi32(_mm_madd_epi16(v0, hi), 8), _mm_madd_epi16(v0, lo));
            if (j + 1 < M)
                s[j + 1] = _mm_add_epi32(_mm_slli_epi32(_mm_madd_epi16(v1, hi), 8), _mm_madd_epi16(v1, lo));
        }
        for (unsigned j = M; j < 4 * kGroups; ++j) s[j] = zero;

        // index_j = acc_j >> 15
        for (unsigned g = 0; g < kGroups; ++g) {
            const __m128i acc = Reduce4(s[4 * g], s[4 * g + 1], s[4 * g + 2], s[4 * g + 3]);
            _mm_store_si128(reinterpret_cast<__m128i*>(index + 4 * g), _mm_srli_epi32(acc, 15));
        }
        for (unsigned j = 0; j < M; ++j) out[j] = t.outputMap[j][index[j]];
    }
}

}  // namespace

void InterpolateClut3_SSE2(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in, std::uint8_t* out,
                           std::uint32_t count) {
    switch (m) {
        case 3: Interpolate3<3>(t, in, out, count); break;
        case 4: Interpolate3<4>(t, in, out, count); break;
        case 7: Interpolate3<7>(t, in, out, count); break;
        default: throw "DefaultCase";
    }
}

void InterpolateClut4x3_SSE2(const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                             std::uint32_t count) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lowMask = _mm_set1_epi16(0x7FFF);
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

        // s_j lanes: 32768 (hi v) + (lo v) over corner pairs; the four lanes sum to acc_j.
        __m128i s[3];
        for (unsigned j = 0; j < 3; ++j) {
            const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 16 * j));
            const __m128i v0 = _mm_unpacklo_epi8(x, zero);
            const __m128i v1 = _mm_unpackhi_epi8(x, zero);
            const __m128i h = _mm_add_epi32(_mm_madd_epi16(v0, hi0), _mm_madd_epi16(v1, hi1));
            const __m128i l = _mm_add_epi32(_mm_madd_epi16(v0, lo0), _mm_madd_epi16(v1, lo1));
            s[j] = _mm_add_epi32(_mm_slli_epi32(h, 15), l);
        }
        // index_j = acc_j >> 20
        const __m128i acc = Reduce4(s[0], s[1], s[2], zero);
        _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_srli_epi32(acc, 20));
        out[0] = t.outputMap[0][index[0]];
        out[1] = t.outputMap[1][index[1]];
        out[2] = t.outputMap[2][index[2]];
    }
}

}  // namespace KELMA_NAMESPACE
