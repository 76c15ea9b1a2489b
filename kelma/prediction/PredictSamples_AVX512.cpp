// The AVX-512 prediction loop: lane-major sums (CellSums_AVX512.h) and the
// AVX-512 power (YuleNielsenPower_AVX512.h) on the two 16-lane vectors of each
// sample, stored straight into the output record.
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#if defined(__GNUC__) && !defined(__clang__)  // GCC only; clang has no such warning
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>

#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/CellSums_AVX512.h"
#include "kelma/prediction/PredictSamples.h"
#include "kelma/prediction/YuleNielsenPower.h"
#include "kelma/prediction/YuleNielsenPower_AVX512.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

// The power of S samples' sums (sums[2 s] = wavelengths 0-15 of sample s,
// sums[2 s + 1] = 16-30), each stored to its record out[s]. Lane 15 of each
// upper half is wavelength 31, the pad: it holds 1.0 for the power (keeping
// it on the fast path) and 0.0 in the record, or is not stored at all in
// packed records. The 4 S chains of eight doubles run in lockstep
// (YuleNielsenPowerVectors_AVX512).
template <int S, bool Packed>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void PowerAndStore_AVX512(const ZKSPredictionJob& job,
                                                                        const ZKSPowerTables_AVX512& T,
                                                                        const __m512* sums, float* const* out) {
    constexpr __mmask16 kPad = 0x8000;
    constexpr __mmask16 kPacked = 0x7FFF;
    __m512 x[2 * S], r[2 * S];
    for (int s = 0; s < S; ++s) {
        x[2 * s] = sums[2 * s];
        x[2 * s + 1] = _mm512_mask_mov_ps(sums[2 * s + 1], kPad, _mm512_set1_ps(1.0f));
    }
    YuleNielsenPowerVectors_AVX512<2 * S, 4 * S>(T, x, job.n, r);
    for (int s = 0; s < S; ++s) {
        _mm512_storeu_ps(out[s], r[2 * s]);
        const __m512 hi = _mm512_mask_mov_ps(r[2 * s + 1], kPad, _mm512_setzero_ps());
        // A full record's upper half is a plain store: the masked store with
        // every lane set, at 64-byte aligned records, measured 15 % slower
        // for 4 inks on AVX-512 (Zen 5) than this one.
        if (Packed)
            _mm512_mask_storeu_ps(out[s] + 16, kPacked, hi);
        else
            _mm512_storeu_ps(out[s] + 16, hi);
    }
}

// The rows of cell q in the lane-major rows.
template <int NV>
inline const float* CellRows(const ZKSPredictionJob& job, std::uint32_t q) {
    return job.laneRows + static_cast<std::size_t>(q) * (4 * NV) * kLaneRow;
}

// Samples in input order, one at a time (6 inks, and 7 inks without the
// cell order).
template <int NV, bool Packed>
KELMA_TARGET_AVX512 void LaneMajorInOrder_AVX512(const ZKSPredictionJob& caller, unsigned int count,
                                                 const unsigned char* input, float* out) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    // A local copy: the records written cannot alias it, so its fields stay
    // in registers across samples.
    const ZKSPredictionJob job = caller;
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    const std::size_t stride = job.outStride;
    // Each sample's monomials are prepared one sample ahead, into the other
    // half of a double buffer: the lookups, products and stores of the next
    // sample then run beside this sample's sums instead of ahead of its first
    // broadcast. Measured on AVX-512 (Zen 5): 6 inks 2 % faster; 4 inks,
    // which then went this way too, 13 %. (The 7-ink pairs of
    // LaneMajorByCell_AVX512 gained nothing from it.)
    if (count == 0) return;
    alignas(64) float mono[2][4 * NV];
    std::uint32_t cell = PrepareSample_AVX512<NV>(job.lut, input, mono[0]);
    for (unsigned int s = 0; s < count; ++s, input += N, out += stride) {
        std::uint32_t next = 0;
        if (s + 1 < count) next = PrepareSample_AVX512<NV>(job.lut, input + N, mono[(s + 1) & 1]);
        __m512 sums[2];
        CellSums_AVX512<NV>(CellRows<NV>(job, cell), mono[s & 1], &sums[0], &sums[1]);
        PowerAndStore_AVX512<1, Packed>(job, T, sums, &out);
        cell = next;
    }
}

// The second sample of the pair that starts at sample a of `count`: a + 1,
// or a itself when it is the last.
inline unsigned int PairPartner(unsigned int a, unsigned int count) { return a + 1 < count ? a + 1 : a; }

// The monomials of the pair of 4-ink samples that starts at a to mono[0] and
// mono[1], and their cells.
struct ZKSCellPair {
    std::uint32_t a, b;
};
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline ZKSCellPair PreparePair4_AVX512(const ZKSPredictionJob& job,
                                                                               const unsigned char* input,
                                                                               unsigned int a, unsigned int count,
                                                                               float (*mono)[16]) {
    const unsigned int b = PairPartner(a, count);
    const std::uint32_t qa = PrepareSample_AVX512<4>(job.lut, input + std::size_t{a} * 4, mono[0]);
    return {qa, PrepareSample_AVX512<4>(job.lut, input + std::size_t{b} * 4, mono[1])};
}

// 4 inks in input order, two samples at a time; an odd count's last sample
// is paired with itself and its record written twice with the same floats.
// The next pair's lookups and monomials are prepared one pair ahead, into the
// other half of a double buffer, and each pair's power (eight chains in
// lockstep) runs one step late, before the next pair's sums, as in the 7-ink
// loop below. On AVX-512 (Zen 4), where a 512-bit operation takes a 256-bit
// pipe for two cycles, the power of 32 floats alone costs 112 cycles as four
// chains and 100-102 per 32 as eight, and the loop went from 177 cycles per
// sample (one sample at a time, its four chains one after the other) to 163
// (4096 samples with their records in L2, the best of 400 calls). Each
// sample's sums and power are the single sample's, so the bits are too.
template <bool Packed>
KELMA_TARGET_AVX512 void LaneMajorPairs4_AVX512(const ZKSPredictionJob& caller, unsigned int count,
                                                const unsigned char* input, float* output) {
    const ZKSPredictionJob job = caller;
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    const std::size_t stride = job.outStride;
    if (count == 0) return;
    alignas(64) float mono[2][2][16];
    ZKSCellPair cells = PreparePair4_AVX512(job, input, 0, count, mono[0]);
    __m512 sums[4];
    float* out[2] = {nullptr, nullptr};  // the records of the pair in `sums`
    for (unsigned int a = 0, k = 0; a < count; a += 2, k ^= 1) {
        ZKSCellPair next{0, 0};
        if (a + 2 < count) next = PreparePair4_AVX512(job, input, a + 2, count, mono[k ^ 1]);
        if (out[0] != nullptr) PowerAndStore_AVX512<2, Packed>(job, T, sums, out);
        CellSums_AVX512<4>(CellRows<4>(job, cells.a), mono[k][0], &sums[0], &sums[1]);
        CellSums_AVX512<4>(CellRows<4>(job, cells.b), mono[k][1], &sums[2], &sums[3]);
        out[0] = output + a * stride;
        out[1] = output + PairPartner(a, count) * stride;
        cells = next;
    }
    PowerAndStore_AVX512<2, Packed>(job, T, sums, out);
}

// 7 inks, block by block in cell order: neighbours in the order that share a
// cell go as a pair (CellSumsPair_AVX512); a sample without one is paired
// with itself and its record written twice with the same floats. Each pair's
// power runs one step late, after the next pair's lookups and monomials and
// before its sums: the power's eight chains in lockstep then overlap the
// preparation, a chain of dependent loads and products, and the start of the
// tree. Measured on AVX-512 (Zen 5), with the lockstep power: 12.1-13.5 ->
// 13.7-15.7 M/s; the power right after its own sums, or inside a later turn
// of the next pair's tree, gains nothing, and neither does prefetching the
// next cell's rows.
template <bool Packed>
KELMA_TARGET_AVX512 void LaneMajorByCell_AVX512(const ZKSPredictionJob& caller, unsigned int count,
                                                const unsigned char* input, float* output) {
    constexpr int N = 7;
    const ZKSPredictionJob job = caller;
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    const std::size_t stride = job.outStride;
    const unsigned int last = Packed ? kSpectralValues - 1 : kSpectrumStride - 1;  // a record's last float
    std::uint16_t order[kCellOrderBlock], cells[kCellOrderBlock];
    alignas(64) float mono[2][128];
    __m512 sums[4];
    for (unsigned int first = 0; first < count; first += kCellOrderBlock) {
        const unsigned int m = std::min(kCellOrderBlock, count - first);
        const unsigned char* in = input + std::size_t{first} * N;
        float* o = output + first * stride;
        CellOrder<N>(job.lut, job.cellOrderCells, in, m, order, cells);
        float* out[2] = {nullptr, nullptr};  // the records of the pair in `sums`
        for (unsigned int j = 0; j < m;) {
            for (unsigned int k = j + kRecordPrefetch; k < j + kRecordPrefetch + 2 && k < m; ++k)
                PrefetchRecord(o + order[k] * stride, last);
            const unsigned int a = order[j];
            const unsigned int b = j + 1 < m && cells[j] == cells[j + 1] ? order[j + 1] : a;
            j += b == a ? 1 : 2;
            const std::uint32_t q = PrepareSample_AVX512<32>(job.lut, in + a * N, mono[0]);
            PrepareSample_AVX512<32>(job.lut, in + b * N, mono[1]);
            if (out[0] != nullptr) PowerAndStore_AVX512<2, Packed>(job, T, sums, out);
            CellSumsPair_AVX512(CellRows<32>(job, q), mono[0], mono[1], sums);
            out[0] = o + a * stride;
            out[1] = o + b * stride;
        }
        if (out[0] != nullptr) PowerAndStore_AVX512<2, Packed>(job, T, sums, out);
    }
}

// CellOrderCells groups models of at most 256 cells whose rows exceed 1 MiB:
// only 7 inks (3 grid points) are such, as 4 and 6 inks with at most 256
// cells hold at most 512 KiB of rows. Any other model goes in input order,
// which changes the speed, never a result.
template <int NV>
void LaneMajor_AVX512(const ZKSPredictionJob& job, unsigned int count, const unsigned char* input, float* out) {
    if constexpr (NV == 4) {
        job.packed ? LaneMajorPairs4_AVX512<true>(job, count, input, out)
                   : LaneMajorPairs4_AVX512<false>(job, count, input, out);
    } else if (NV == 32 && job.cellOrderCells != 0) {
        job.packed ? LaneMajorByCell_AVX512<true>(job, count, input, out)
                   : LaneMajorByCell_AVX512<false>(job, count, input, out);
    } else {
        job.packed ? LaneMajorInOrder_AVX512<NV, true>(job, count, input, out)
                   : LaneMajorInOrder_AVX512<NV, false>(job, count, input, out);
    }
}

}  // namespace

void PredictSamples_AVX512(unsigned int inks, const ZKSPredictionJob& job, unsigned int count,
                           const unsigned char* input, float* out) {
    const bool lanes = LaneMajorApplies(job);
    switch (inks) {
        case 4:
            return lanes ? LaneMajor_AVX512<4>(job, count, input, out)
                         : PredictSamples_SSESums<4, 5>(job, count, input, out, YuleNielsenPower_AVX512);
        case 6:
            return lanes ? LaneMajor_AVX512<16>(job, count, input, out)
                         : PredictSamples_SSESums<16, 3>(job, count, input, out, YuleNielsenPower_AVX512);
        case 7:
            return lanes ? LaneMajor_AVX512<32>(job, count, input, out)
                         : PredictSamples_SSESums<32, 3>(job, count, input, out, YuleNielsenPower_AVX512);
        default:
            throw kErrorDefaultCase;
    }
}

}  // namespace KELMA_NAMESPACE
