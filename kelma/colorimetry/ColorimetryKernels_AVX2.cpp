// The AVX2 colour-byte loop of the lighting matrix: four triples per vector
// (LabBytes_AVX2.h), several groups in lockstep. The XYZ of this variant are
// the four-lane dot products of SpectralDot_SSE.h (ColorimetryKernels.cpp).
#include <algorithm>
#include <cstring>

#include "kelma/colorimetry/ColorimetryKernels.h"
#include "kelma/colorimetry/LabBytes_AVX2.h"
#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/colorspace/Lab2000hlTables.h"

namespace KELMA_NAMESPACE {

namespace {

// v >= lo ? (v > hi ? hi : v) : lo; NaN gives lo.
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline __m256d Clamp(__m256d v, double lo, double hi) {
    const __m256d vlo = _mm256_set1_pd(lo), vhi = _mm256_set1_pd(hi);
    const __m256d r = _mm256_blendv_pd(vlo, v, _mm256_cmp_pd(v, vlo, _CMP_GE_OQ));
    return _mm256_blendv_pd(r, vhi, _mm256_cmp_pd(r, vhi, _CMP_GT_OQ));
}

// (int)((v > 255 ? 255 : (v >= 0 ? v : 0)) + 0.5)
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline __m128i Encode(__m256d v) {
    __m256d c = _mm256_blendv_pd(_mm256_setzero_pd(), v, _mm256_cmp_pd(v, _mm256_setzero_pd(), _CMP_GE_OQ));
    c = _mm256_blendv_pd(c, _mm256_set1_pd(255.0), _mm256_cmp_pd(v, _mm256_set1_pd(255.0), _CMP_GT_OQ));
    return _mm256_cvttpd_epi32(_mm256_add_pd(c, _mm256_set1_pd(0.5)));
}

// Lanes (bits 0-3) whose byte value v lies within `margin` of a rounding
// boundary k - 0.5 (k = 1..255).
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline unsigned int NearBoundary(__m256d v, double margin) {
    const __m256d r = _mm256_add_pd(v, _mm256_set1_pd(0.5));
    const __m256d d = _mm256_andnot_pd(
        _mm256_set1_pd(-0.0), _mm256_sub_pd(r, _mm256_round_pd(r, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC)));
    const __m256d near = _mm256_and_pd(
        _mm256_and_pd(_mm256_cmp_pd(d, _mm256_set1_pd(margin), _CMP_LT_OQ),
                      _mm256_cmp_pd(v, _mm256_set1_pd(0.5 - margin), _CMP_GT_OQ)),
        _mm256_cmp_pd(v, _mm256_set1_pd(254.5 + margin), _CMP_LT_OQ));
    return static_cast<unsigned int>(_mm256_movemask_pd(near));
}

// lo[l] = table[index[l]], hi[l] = table[index[l] + 1], one 16-byte load per
// lane: a holds lanes 0 and 2, b lanes 1 and 3, so that the in-lane unpacks
// put them in order.
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline void LoadNeighbours(const double* table, const int* index, __m256d* lo,
                                                                 __m256d* hi) {
    const __m256d a =
        _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(table + index[0])), _mm_loadu_pd(table + index[2]), 1);
    const __m256d b =
        _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(table + index[1])), _mm_loadu_pd(table + index[3]), 1);
    *lo = _mm256_unpacklo_pd(a, b);
    *hi = _mm256_unpackhi_pd(a, b);
}

// Up to four triples of the batch: where they are, the inverse whites of
// their lanes (4 of 1/Xn at lanes[0], of 1/Yn at lanes[8], of 1/Zn at
// lanes[16]: half of an eight-lane phase of ZKSWhiteLanes), each lane's
// illuminant (for the twin) and where their 3 bytes each go.
struct LabGroup4 {
    const float* xyz;
    unsigned int count;  // 1..4
    const double* lanes;
    const unsigned int* illuminant;
    unsigned char* out;
};

// The bytes of G groups, every step written for all of them (KELMA_LOCKSTEP),
// with the operations of the AVX-512 loop (ColorimetryKernels_AVX512.cpp) on
// four lanes. Each lane's bytes are the same whatever G.
template <int G, bool Cielab>
KELMA_TARGET_AVX2 KELMA_ALWAYS_INLINE inline void LabBytesGroups(const LabGroup4* group, const double* inverseWhite,
                                                                 const ZKSLabMargins& margins) {
    __m256d t[3 * G];  // channel c of group g at 3 g + c, times the lanes' inverse white
    KELMA_LOCKSTEP(g, G) {
        // f0 = x0 y0 z0 x1, f1 = y1 z1 x2 y2, f2 = z2 x3 y3 z3; missing
        // triples read as 0 (the linear branch, harmless).
        float padded[12] = {};
        const float* p = group[g].xyz;
        if (group[g].count < 4) {
            std::memcpy(padded, p, sizeof(float) * 3 * group[g].count);
            p = padded;
        }
        const __m128 f0 = _mm_loadu_ps(p), f1 = _mm_loadu_ps(p + 4), f2 = _mm_loadu_ps(p + 8);
        __m128 v[3];
        v[0] = _mm_blend_ps(_mm_blend_ps(f0, f1, 0x4), f2, 0x2);  // x0 x3 x2 x1
        v[1] = _mm_blend_ps(_mm_blend_ps(f0, f1, 0x9), f2, 0x4);  // y1 y0 y3 y2
        v[2] = _mm_blend_ps(_mm_blend_ps(f0, f1, 0x2), f2, 0x9);  // z2 z1 z0 z3
        v[0] = _mm_shuffle_ps(v[0], v[0], _MM_SHUFFLE(1, 2, 3, 0));
        v[1] = _mm_shuffle_ps(v[1], v[1], _MM_SHUFFLE(2, 3, 0, 1));
        v[2] = _mm_shuffle_ps(v[2], v[2], _MM_SHUFFLE(3, 0, 1, 2));
        for (int c = 0; c < 3; ++c)
            t[3 * g + c] = _mm256_mul_pd(_mm256_cvtps_pd(v[c]), _mm256_loadu_pd(group[g].lanes + 8 * c));
    }
    // f(t) of the twin with the fast cube root. `cube`: the group's lanes that
    // used it; `twin`: those that must take the twin (t above kCubeRootMaxT,
    // which get a harmless root of 1.0 here).
    __m256d big[3 * G], f[3 * G];
    unsigned int cube[G] = {}, twin[G] = {};
    KELMA_LOCKSTEP(i, 3 * G) {
        big[i] = _mm256_cmp_pd(t[i], _mm256_set1_pd(kCIELABEncodingEpsilon), _CMP_GT_OQ);
        const __m256d inRange = _mm256_cmp_pd(t[i], _mm256_set1_pd(kCubeRootMaxT), _CMP_LE_OQ);
        cube[i / 3] |= static_cast<unsigned int>(_mm256_movemask_pd(big[i]));
        twin[i / 3] |= static_cast<unsigned int>(_mm256_movemask_pd(_mm256_andnot_pd(inRange, big[i])));
        f[i] = _mm256_blendv_pd(_mm256_set1_pd(1.0), t[i], _mm256_and_pd(big[i], inRange));
    }
    CubeRoots4_AVX2<3 * G>(f, f);
    KELMA_LOCKSTEP(i, 3 * G) {
        const __m256d linear = _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(kCIELABEncodingSlope), t[i]),
                                             _mm256_set1_pd(kSixteenOver116));
        f[i] = _mm256_blendv_pd(linear, f[i], big[i]);
    }
    // L*, a*, b*, then the byte values v[3 g + c] of group g.
    __m256d v[3 * G];
    KELMA_LOCKSTEP(g, G) {
        const __m256d fX = f[3 * g], fY = f[3 * g + 1], fZ = f[3 * g + 2];
        v[3 * g] = _mm256_blendv_pd(_mm256_mul_pd(_mm256_set1_pd(kCIELABEncodingKappa), t[3 * g + 1]),
                                    _mm256_sub_pd(_mm256_mul_pd(_mm256_set1_pd(116.0), fY), _mm256_set1_pd(16.0)),
                                    big[3 * g + 1]);
        v[3 * g + 1] = _mm256_mul_pd(_mm256_set1_pd(500.0), _mm256_sub_pd(fX, fY));
        v[3 * g + 2] = _mm256_mul_pd(_mm256_set1_pd(200.0), _mm256_sub_pd(fY, fZ));
    }
    const double* margin;
    if constexpr (Cielab) {
        KELMA_LOCKSTEP(g, G) {
            v[3 * g] = _mm256_mul_pd(_mm256_set1_pd(kCIELABByteScaleL), v[3 * g]);
            v[3 * g + 1] = _mm256_add_pd(v[3 * g + 1], _mm256_set1_pd(kCIELABByteOffsetAB));
            v[3 * g + 2] = _mm256_add_pd(v[3 * g + 2], _mm256_set1_pd(kCIELABByteOffsetAB));
        }
        margin = margins.cielab;
    } else {
        // LAB2LAB2000HL: L linear in the 0.01 steps, a and b bilinear. The
        // clamps keep every index inside the tables, whose zero pads hold the
        // neighbours past the last entry (i + 1, k + 1, k + 257, k + 258).
        const __m256d one = _mm256_set1_pd(1.0);
        alignas(16) int iL[G][4], iAB[G][4];
        __m256d fL[G], w00[G], w10[G], w01[G], w11[G];
        KELMA_LOCKSTEP(g, G) {
            const __m256d u = _mm256_mul_pd(_mm256_div_pd(Clamp(v[3 * g], 0.0, 100.0), _mm256_set1_pd(100.0)),
                                            _mm256_set1_pd(10000.0));
            const __m128i i = _mm256_cvttpd_epi32(u);
            fL[g] = _mm256_sub_pd(u, _mm256_cvtepi32_pd(i));
            _mm_store_si128(reinterpret_cast<__m128i*>(iL[g]), i);
            const __m256d p = _mm256_add_pd(Clamp(v[3 * g + 1], -128.0, 128.0), _mm256_set1_pd(128.0));
            const __m256d q = _mm256_add_pd(Clamp(v[3 * g + 2], -128.0, 128.0), _mm256_set1_pd(128.0));
            const __m128i ia = _mm256_cvttpd_epi32(p);
            const __m128i ib = _mm256_cvttpd_epi32(q);
            const __m256d fa = _mm256_sub_pd(p, _mm256_cvtepi32_pd(ia));
            const __m256d fb = _mm256_sub_pd(q, _mm256_cvtepi32_pd(ib));
            _mm_store_si128(reinterpret_cast<__m128i*>(iAB[g]),
                            _mm_add_epi32(ia, _mm_mullo_epi32(ib, _mm_set1_epi32(257))));
            w00[g] = _mm256_mul_pd(_mm256_sub_pd(one, fa), _mm256_sub_pd(one, fb));
            w10[g] = _mm256_mul_pd(fa, _mm256_sub_pd(one, fb));
            w01[g] = _mm256_mul_pd(_mm256_sub_pd(one, fa), fb);
            w11[g] = _mm256_mul_pd(fa, fb);
        }
        const double* tables[2] = {Lab2000hlLutA(), Lab2000hlLutB()};
        KELMA_LOCKSTEP(g, G) {
            __m256d L0, L1;
            LoadNeighbours(Lab2000hlLutL(), iL[g], &L0, &L1);
            const __m256d lhl0 = _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(one, fL[g]), L0), _mm256_mul_pd(fL[g], L1));
            __m256d lhl[2];
            for (int c = 0; c < 2; ++c) {
                __m256d t00, t10, t01, t11;  // T[k], T[k + 1], T[k + 257], T[k + 258]
                LoadNeighbours(tables[c], iAB[g], &t00, &t10);
                LoadNeighbours(tables[c] + kLab2000hlGridSide, iAB[g], &t01, &t11);
                lhl[c] = _mm256_add_pd(
                    _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(w00[g], t00), _mm256_mul_pd(w10[g], t10)),
                                  _mm256_mul_pd(w01[g], t01)),
                    _mm256_mul_pd(w11[g], t11));
            }
            v[3 * g] = _mm256_mul_pd(_mm256_set1_pd(kLab2000hlByteScaleL), lhl0);
            v[3 * g + 1] = _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(kLab2000hlByteScaleAB), lhl[0]),
                                         _mm256_set1_pd(kLab2000hlByteOffsetAB));
            v[3 * g + 2] = _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(kLab2000hlByteScaleAB), lhl[1]),
                                         _mm256_set1_pd(kLab2000hlByteOffsetAB));
        }
        margin = margins.lab2000hl;
    }
    KELMA_LOCKSTEP(g, G) {
        const __m128i e0 = Encode(v[3 * g]), e1 = Encode(v[3 * g + 1]), e2 = Encode(v[3 * g + 2]);
        twin[g] |= cube[g] & (NearBoundary(v[3 * g], margin[0]) | NearBoundary(v[3 * g + 1], margin[1]) |
                              NearBoundary(v[3 * g + 2], margin[2]));
        const LabGroup4& grp = group[g];
        unsigned char* out = grp.out;
        if (grp.count == 4 && twin[g] == 0) {
            // The common case: bytes e0 0-3, e1 0-3, e2 0-3 (all in 0..255,
            // so the saturating packs keep them), interleaved as 12 bytes.
            const __m128i packed = _mm_packus_epi16(_mm_packus_epi32(e0, e1), _mm_packus_epi32(e2, e2));
            const __m128i triples =
                _mm_shuffle_epi8(packed, _mm_setr_epi8(0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11, -1, -1, -1, -1));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out), triples);
            const int last = _mm_extract_epi32(triples, 2);
            std::memcpy(out + 8, &last, 4);
            continue;
        }
        alignas(16) int bytes[3][4];
        _mm_store_si128(reinterpret_cast<__m128i*>(bytes[0]), e0);
        _mm_store_si128(reinterpret_cast<__m128i*>(bytes[1]), e1);
        _mm_store_si128(reinterpret_cast<__m128i*>(bytes[2]), e2);
        for (unsigned int l = 0; l < grp.count; ++l, out += 3) {
            if (twin[g] & (1u << l)) {
                LabBytes_Scalar(grp.xyz + 3 * l, inverseWhite + 3 * grp.illuminant[l], Cielab, out);
            } else {
                out[0] = static_cast<unsigned char>(bytes[0][l]);
                out[1] = static_cast<unsigned char>(bytes[1][l]);
                out[2] = static_cast<unsigned char>(bytes[2][l]);
            }
        }
    }
}

// Eight-triple groups as in the AVX-512 loop (group g has the lanes of phase
// g mod n), each in two halves of four; kGroupsAtOnce halves go through
// LabBytesGroups together, the last ones alone.
constexpr int kGroupsAtOnce = 4;
static_assert(kGroupsAtOnce % 2 == 0, "whole eight-triple groups, so that the phases stay in step");

template <bool Cielab>
KELMA_TARGET_AVX2 void LabBytesLoop(const ZKSWhiteLanes& lanes, const double* inverseWhite, const float* xyz,
                                    std::size_t triples, unsigned char* out, const ZKSLabMargins& margins) {
    const unsigned int n = lanes.n;
    unsigned int phase = 0;
    // Half h of the eight-triple group that starts at triple g.
    auto half = [&](std::size_t g, unsigned int h) {
        const std::size_t first = g + 4 * h;
        return LabGroup4{xyz + 3 * first, static_cast<unsigned int>(std::min<std::size_t>(4, triples - first)),
                         lanes.lanes.data() + 24 * phase + 4 * h, &lanes.illuminant[8 * phase + 4 * h],
                         out + 3 * first};
    };
    auto advance = [&] {
        if (++phase == n) phase = 0;
    };
    std::size_t g = 0;
    constexpr std::size_t kStep = 4 * kGroupsAtOnce;  // triples, a whole number of eight-triple groups
    for (; g + kStep <= triples; g += kStep) {
        LabGroup4 groups[kGroupsAtOnce];
        for (int k = 0; k < kGroupsAtOnce; k += 2) {
            groups[k] = half(g + 4 * k, 0);
            groups[k + 1] = half(g + 4 * k, 1);
            advance();
        }
        LabBytesGroups<kGroupsAtOnce, Cielab>(groups, inverseWhite, margins);
    }
    for (; g < triples; g += 8) {
        for (unsigned int h = 0; h < 2 && g + 4 * h < triples; ++h) {
            const LabGroup4 one = half(g, h);
            LabBytesGroups<1, Cielab>(&one, inverseWhite, margins);
        }
        advance();
    }
}

}  // namespace

KELMA_TARGET_AVX2 void CubeRoots_AVX2(const double* in, double* out, unsigned int count) {
    for (unsigned int i = 0; i < count; i += 4) {
        alignas(32) double t[4] = {1.0, 1.0, 1.0, 1.0}, r[4];
        const unsigned int k = std::min(4u, count - i);
        std::copy(in + i, in + i + k, t);
        const __m256d v = _mm256_load_pd(t);
        __m256d root;
        CubeRoots4_AVX2<1>(&v, &root);
        _mm256_store_pd(r, root);
        std::copy(r, r + k, out + i);
    }
}

KELMA_TARGET_AVX2 void XYZToLabBytes_AVX2(const ZKSWhiteLanes& lanes, const double* inverseWhite, const float* xyz,
                                          unsigned int count, bool cielab, unsigned char* out,
                                          const ZKSLabMargins& margins) {
    if (lanes.n == 0 || count == 0) return;
    const std::size_t triples = std::size_t{count} * lanes.n;
    if (cielab)
        LabBytesLoop<true>(lanes, inverseWhite, xyz, triples, out, margins);
    else
        LabBytesLoop<false>(lanes, inverseWhite, xyz, triples, out, margins);
}

}  // namespace KELMA_NAMESPACE
