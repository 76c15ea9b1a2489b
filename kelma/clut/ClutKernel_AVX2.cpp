// AVX2 twin of ClutKernel_Reference.cpp, compiled for that target only and
// reached through BestClutKernel() when the processor has AVX2.
//
// Same weights and split as the SSE2 kernel (pmaddwd takes signed 16-bit):
//   w = 2^s hi + lo,  s = 8 for three inputs, 15 for four inputs
//   acc_j = 2^s sum_k hi_k v_jk + sum_k lo_k v_jk   (exact, below 2^31)
// Three inputs: one 256-bit vector carries the 8 corners of two channels.
// Four inputs: one 256-bit vector carries the 16 corners of one channel.
#include <immintrin.h>

#include <cstring>

#include "kelma/clut/ClutKernel.h"

#define KELMA_AVX2 __attribute__((target("avx2")))

namespace KELMA_NAMESPACE {

namespace {

// [sum a, sum b, sum c, sum d] of four vectors of four 32-bit lanes.
KELMA_AVX2 inline __m128i Reduce4(__m128i a, __m128i b, __m128i c, __m128i d) {
    __m128i ab = _mm_add_epi32(_mm_unpacklo_epi32(a, b), _mm_unpackhi_epi32(a, b));
    __m128i cd = _mm_add_epi32(_mm_unpacklo_epi32(c, d), _mm_unpackhi_epi32(c, d));
    return _mm_add_epi32(_mm_unpacklo_epi64(ab, cd), _mm_unpackhi_epi64(ab, cd));
}

// One pair row (4 x 16 bits) repeated over the whole vector.
KELMA_AVX2 inline __m256i BroadcastRow(const ClutPairWeight* row) {
    long long bits;
    std::memcpy(&bits, row, sizeof bits);
    return _mm256_set1_epi64x(bits);
}

template <unsigned M>
KELMA_AVX2 void Interpolate3(const ZKSClutTables3& t, const std::uint8_t* in, std::uint8_t* out,
                             std::uint32_t count) {
    constexpr unsigned kPairs = (M + 1) / 2;
    constexpr unsigned kGroups = (M + 3) / 4;
    const __m256i lowMask = _mm256_set1_epi16(255);
    alignas(16) std::uint32_t index[4 * kGroups];
    for (std::uint32_t px = 0; px < count; ++px, in += 3, out += M) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   (e2 >> kClutPositionBits);
        const std::uint8_t* block = t.cells + std::size_t(cell) * (8 * M);

        // w_k = P[k & 3] * A[k >> 2] <= 32768 (exact in unsigned 16 bits), the
        // 8 corners in both 128-bit halves; hi_k = w_k >> 8, lo_k = w_k & 255.
        const __m256i pp =
            BroadcastRow(t.pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4);
        const __m256i aa = _mm256_broadcastsi128_si256(
            _mm_load_si128(reinterpret_cast<const __m128i*>(t.axis + (e2 & kClutPositionMask) * 8)));
        const __m256i w = _mm256_mullo_epi16(pp, aa);
        const __m256i hi = _mm256_srli_epi16(w, 8);
        const __m256i lo = _mm256_and_si256(w, lowMask);

        // Channels j and j+1: lanes 0-3 hold 256 (hi v) + (lo v) of channel j, lanes 4-7 of j+1.
        __m128i s[4 * kGroups];
        for (unsigned q = 0; q < kPairs; ++q) {
            const unsigned j = 2 * q;
            const __m128i bytes =
                j + 1 < M ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 8 * j))
                          : _mm_loadl_epi64(reinterpret_cast<const __m128i*>(block + 8 * j));
            const __m256i v = _mm256_cvtepu8_epi16(bytes);
            const __m256i sum = _mm256_add_epi32(_mm256_slli_epi32(_mm256_madd_epi16(v, hi), 8),
                                                 _mm256_madd_epi16(v, lo));
            s[j] = _mm256_castsi256_si128(sum);
            if (j + 1 < 4 * kGroups) s[j + 1] = _mm256_extracti128_si256(sum, 1);
        }
        for (unsigned j = 2 * kPairs; j < 4 * kGroups; ++j) s[j] = _mm_setzero_si128();

        // index_j = acc_j >> 15
        for (unsigned g = 0; g < kGroups; ++g) {
            const __m128i acc = Reduce4(s[4 * g], s[4 * g + 1], s[4 * g + 2], s[4 * g + 3]);
            _mm_store_si128(reinterpret_cast<__m128i*>(index + 4 * g), _mm_srli_epi32(acc, 15));
        }
        for (unsigned j = 0; j < M; ++j) out[j] = t.outputMap[j][index[j]];
    }
}

}  // namespace

KELMA_AVX2 void InterpolateClut3_AVX2(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                                      std::uint8_t* out, std::uint32_t count) {
    switch (m) {
        case 3: Interpolate3<3>(t, in, out, count); break;
        case 4: Interpolate3<4>(t, in, out, count); break;
        case 7: Interpolate3<7>(t, in, out, count); break;
        default: throw "DefaultCase";
    }
}

KELMA_AVX2 void InterpolateClut4x3_AVX2(const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                                        std::uint32_t count) {
    const __m256i lowMask = _mm256_set1_epi16(0x7FFF);
    // Spreads Q0..Q3 (bytes 0-7 of each half) to Q0 x4, Q1 x4 | Q2 x4, Q3 x4.
    const __m256i spreadQ = _mm256_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3,  //
                                             4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7);
    alignas(16) std::uint32_t index[4];
    for (std::uint32_t px = 0; px < count; ++px, in += 4, out += 3) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const InputMapEntry e3 = t.inputMap[3][in[3]];
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   t.stride2[e2 >> kClutPositionBits] + (e3 >> kClutPositionBits);
        const std::uint8_t* block = t.cells + std::size_t(cell) * 48;

        // Lane k holds P[k & 3] and Q[k >> 2]; w_k = P Q < 2^21 as its exact low
        // and high 16 bits; hi_k = w_k >> 15 = (high << 1) | (low >> 15), lo_k = w_k & 32767.
        const __m256i pp =
            BroadcastRow(t.pairs + ((e0 & kClutPositionMask) * 32 + (e1 & kClutPositionMask)) * 4);
        const __m256i qq = _mm256_shuffle_epi8(
            BroadcastRow(t.pairs + ((e2 & kClutPositionMask) * 32 + (e3 & kClutPositionMask)) * 4), spreadQ);
        const __m256i low = _mm256_mullo_epi16(pp, qq);
        const __m256i high = _mm256_mulhi_epu16(pp, qq);
        const __m256i hi = _mm256_or_si256(_mm256_slli_epi16(high, 1), _mm256_srli_epi16(low, 15));
        const __m256i lo = _mm256_and_si256(low, lowMask);

        // s_j lanes: 32768 (hi v) + (lo v) over corner pairs; the eight lanes sum to acc_j.
        __m128i s[3];
        for (unsigned j = 0; j < 3; ++j) {
            const __m256i v =
                _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 16 * j)));
            const __m256i sum = _mm256_add_epi32(_mm256_slli_epi32(_mm256_madd_epi16(v, hi), 15),
                                                 _mm256_madd_epi16(v, lo));
            s[j] = _mm_add_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
        }
        // index_j = acc_j >> 20
        const __m128i acc = Reduce4(s[0], s[1], s[2], _mm_setzero_si128());
        _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_srli_epi32(acc, 20));
        out[0] = t.outputMap[0][index[0]];
        out[1] = t.outputMap[1][index[1]];
        out[2] = t.outputMap[2][index[2]];
    }
}

}  // namespace KELMA_NAMESPACE
