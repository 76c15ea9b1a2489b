// The AVX-512 loops of the lighting matrix: four rows of one spectrum per
// vector, sixteen dot products finished per step (SpectralDot_AVX512.h), and
// colour bytes eight triples per vector, four vectors per step
// (LabBytes_AVX512.h).
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#if defined(__GNUC__) && !defined(__clang__)  // GCC only; clang has no such warning
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>

#include "kelma/colorimetry/ColorimetryKernels.h"
#include "kelma/colorimetry/LabBytes_AVX512.h"
#include "kelma/colorimetry/SpectralDot_AVX512.h"
#include "kelma/colorimetry/SpectralDot_Scalar.h"
#include "kelma/colorspace/Lab2000hlTables.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

namespace {

// v >= lo ? (v > hi ? hi : v) : lo; NaN gives lo.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m512d Clamp(__m512d v, double lo, double hi) {
    const __m512d vlo = _mm512_set1_pd(lo), vhi = _mm512_set1_pd(hi);
    const __m512d r = _mm512_mask_blend_pd(_mm512_cmp_pd_mask(v, vlo, _CMP_GE_OQ), vlo, v);
    return _mm512_mask_blend_pd(_mm512_cmp_pd_mask(r, vhi, _CMP_GT_OQ), r, vhi);
}

// (int)((v > 255 ? 255 : (v >= 0 ? v : 0)) + 0.5)
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __m256i Encode(__m512d v) {
    __m512d c = _mm512_mask_blend_pd(_mm512_cmp_pd_mask(v, _mm512_setzero_pd(), _CMP_GE_OQ), _mm512_setzero_pd(), v);
    c = _mm512_mask_blend_pd(_mm512_cmp_pd_mask(v, _mm512_set1_pd(255.0), _CMP_GT_OQ), c, _mm512_set1_pd(255.0));
    return _mm512_cvttpd_epi32(_mm512_add_pd(c, _mm512_set1_pd(0.5)));
}

// Lanes whose byte value v lies within `margin` of a rounding boundary k - 0.5
// (k = 1..255).
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline __mmask8 NearBoundary(__m512d v, double margin) {
    const __m512d r = _mm512_add_pd(v, _mm512_set1_pd(0.5));
    const __m512d d = _mm512_abs_pd(_mm512_sub_pd(r, _mm512_roundscale_pd(r, _MM_FROUND_TO_NEAREST_INT |
                                                                              _MM_FROUND_NO_EXC)));
    return _mm512_cmp_pd_mask(d, _mm512_set1_pd(margin), _CMP_LT_OQ) &
           _mm512_cmp_pd_mask(v, _mm512_set1_pd(0.5 - margin), _CMP_GT_OQ) &
           _mm512_cmp_pd_mask(v, _mm512_set1_pd(254.5 + margin), _CMP_LT_OQ);
}

// lo[l] = table[index[l]], hi[l] = table[index[l] + 1]: the two neighbours
// an interpolation reads, one 16-byte load per lane. Two gathers cost about
// 31 cycles on this family of processors (each element is its own load
// uop, and the gather's own overhead comes on top); eight loads, six inserts
// and two permutes cost about a third of that. The values are the gathers'.
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void LoadNeighbours(const double* table, const int* index,
                                                                   __m512d* lo, __m512d* hi) {
    // a = (t[i0], t[i0+1], t[i1], t[i1+1], .. i3), b the same for lanes 4-7
    __m512d a = _mm512_castpd128_pd512(_mm_loadu_pd(table + index[0]));
    __m512d b = _mm512_castpd128_pd512(_mm_loadu_pd(table + index[4]));
    a = _mm512_insertf64x2(a, _mm_loadu_pd(table + index[1]), 1);
    b = _mm512_insertf64x2(b, _mm_loadu_pd(table + index[5]), 1);
    a = _mm512_insertf64x2(a, _mm_loadu_pd(table + index[2]), 2);
    b = _mm512_insertf64x2(b, _mm_loadu_pd(table + index[6]), 2);
    a = _mm512_insertf64x2(a, _mm_loadu_pd(table + index[3]), 3);
    b = _mm512_insertf64x2(b, _mm_loadu_pd(table + index[7]), 3);
    *lo = _mm512_permutex2var_pd(a, _mm512_setr_epi64(0, 2, 4, 6, 8, 10, 12, 14), b);
    *hi = _mm512_permutex2var_pd(a, _mm512_setr_epi64(1, 3, 5, 7, 9, 11, 13, 15), b);
}

// Up to eight triples of the batch: where they are, the inverse whites of
// their lanes (24 doubles, 64-byte aligned: 8 lanes of 1/Xn, of 1/Yn, of
// 1/Zn), each lane's illuminant (its inverse white for the twin is
// inverseWhite + 3 illuminant[l]) and where their 3 bytes each go.
struct LabGroup {
    const float* xyz;
    unsigned int count;  // 1..8
    const double* lanes;
    const unsigned int* illuminant;
    unsigned char* out;
};

// The bytes of G groups, every step written for all of them
// (KELMA_LOCKSTEP): one group is a chain of some 140 cycles (deinterleave,
// cube root, L*a*b*, the LAB2000HL tables, encoding), so that a group alone
// leaves the processor waiting, and its three cube roots side by side still
// only fill a third of the pipes. Each lane's bytes are the same whatever G.
template <int G, bool Cielab>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void LabBytesGroups(const LabGroup* group, const double* inverseWhite,
                                                                   const ZKSLabMargins& margins) {
    // t[3 g + c]: channel c of group g's triples times the lanes' inverse white.
    __m512d t[3 * G];
    KELMA_LOCKSTEP(g, G) {
        // Deinterleave up to 24 floats into X, Y and Z vectors of 8 lanes;
        // missing triples read as 0 (the linear branch, harmless).
        const unsigned int floats = 3 * group[g].count;
        const __m512 first = _mm512_maskz_loadu_ps(
            static_cast<__mmask16>(floats >= 16 ? 0xFFFF : (1u << floats) - 1), group[g].xyz);
        const __m512 second = _mm512_maskz_loadu_ps(
            static_cast<__mmask16>(floats > 16 ? (1u << (floats - 16)) - 1 : 0), group[g].xyz + 16);
        for (int c = 0; c < 3; ++c) {
            const __m512i index = _mm512_setr_epi32(c, c + 3, c + 6, c + 9, c + 12, c + 15, c + 18, c + 21, 0, 0, 0,
                                                    0, 0, 0, 0, 0);
            const __m256 v = _mm512_castps512_ps256(_mm512_permutex2var_ps(first, index, second));
            t[3 * g + c] = _mm512_mul_pd(_mm512_cvtps_pd(v), _mm512_load_pd(group[g].lanes + 8 * c));
        }
    }
    // f(t) of the twin with the fast cube root. `cube`: the group's lanes that
    // used it; `twin`: those that must take the twin (t above kCubeRootMaxT,
    // which get a harmless root of 1.0 here).
    __mmask8 big[3 * G], cube[G] = {}, twin[G] = {};
    __m512d f[3 * G];
    KELMA_LOCKSTEP(i, 3 * G) {
        big[i] = _mm512_cmp_pd_mask(t[i], _mm512_set1_pd(kCIELABEncodingEpsilon), _CMP_GT_OQ);
        const __mmask8 inRange = _mm512_cmp_pd_mask(t[i], _mm512_set1_pd(kCubeRootMaxT), _CMP_LE_OQ);
        cube[i / 3] |= big[i];
        twin[i / 3] |= big[i] & static_cast<__mmask8>(~inRange);
        f[i] = _mm512_mask_blend_pd(big[i] & inRange, _mm512_set1_pd(1.0), t[i]);
    }
    CubeRoots8_AVX512<3 * G>(f, f);
    KELMA_LOCKSTEP(i, 3 * G) {
        const __m512d linear = _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(kCIELABEncodingSlope), t[i]),
                                             _mm512_set1_pd(kSixteenOver116));
        f[i] = _mm512_mask_blend_pd(big[i], linear, f[i]);
    }
    // L*, a*, b*, then the byte values v[3 g + c] of group g.
    __m512d v[3 * G];
    KELMA_LOCKSTEP(g, G) {
        const __m512d fX = f[3 * g], fY = f[3 * g + 1], fZ = f[3 * g + 2];
        v[3 * g] = _mm512_mask_blend_pd(big[3 * g + 1], _mm512_mul_pd(_mm512_set1_pd(kCIELABEncodingKappa), t[3 * g + 1]),
                                        _mm512_sub_pd(_mm512_mul_pd(_mm512_set1_pd(116.0), fY), _mm512_set1_pd(16.0)));
        v[3 * g + 1] = _mm512_mul_pd(_mm512_set1_pd(500.0), _mm512_sub_pd(fX, fY));
        v[3 * g + 2] = _mm512_mul_pd(_mm512_set1_pd(200.0), _mm512_sub_pd(fY, fZ));
    }
    const double* margin;
    if constexpr (Cielab) {
        KELMA_LOCKSTEP(g, G) {
            v[3 * g] = _mm512_mul_pd(_mm512_set1_pd(kCIELABByteScaleL), v[3 * g]);
            v[3 * g + 1] = _mm512_add_pd(v[3 * g + 1], _mm512_set1_pd(kCIELABByteOffsetAB));
            v[3 * g + 2] = _mm512_add_pd(v[3 * g + 2], _mm512_set1_pd(kCIELABByteOffsetAB));
        }
        margin = margins.cielab;
    } else {
        // LAB2LAB2000HL: L linear in the 0.01 steps, a and b bilinear. The
        // clamps keep every index inside the tables, whose zero pads hold the
        // neighbours past the last entry (i + 1, k + 1, k + 257, k + 258).
        const __m512d one = _mm512_set1_pd(1.0);
        alignas(32) int iL[G][8], iAB[G][8];
        __m512d fL[G], w00[G], w10[G], w01[G], w11[G];
        KELMA_LOCKSTEP(g, G) {
            const __m512d u = _mm512_mul_pd(_mm512_div_pd(Clamp(v[3 * g], 0.0, 100.0), _mm512_set1_pd(100.0)),
                                            _mm512_set1_pd(10000.0));
            const __m256i i = _mm512_cvttpd_epi32(u);
            fL[g] = _mm512_sub_pd(u, _mm512_cvtepi32_pd(i));
            _mm256_store_si256(reinterpret_cast<__m256i*>(iL[g]), i);
            const __m512d p = _mm512_add_pd(Clamp(v[3 * g + 1], -128.0, 128.0), _mm512_set1_pd(128.0));
            const __m512d q = _mm512_add_pd(Clamp(v[3 * g + 2], -128.0, 128.0), _mm512_set1_pd(128.0));
            const __m256i ia = _mm512_cvttpd_epi32(p);
            const __m256i ib = _mm512_cvttpd_epi32(q);
            const __m512d fa = _mm512_sub_pd(p, _mm512_cvtepi32_pd(ia));
            const __m512d fb = _mm512_sub_pd(q, _mm512_cvtepi32_pd(ib));
            _mm256_store_si256(reinterpret_cast<__m256i*>(iAB[g]),
                               _mm256_add_epi32(ia, _mm256_mullo_epi32(ib, _mm256_set1_epi32(257))));
            w00[g] = _mm512_mul_pd(_mm512_sub_pd(one, fa), _mm512_sub_pd(one, fb));
            w10[g] = _mm512_mul_pd(fa, _mm512_sub_pd(one, fb));
            w01[g] = _mm512_mul_pd(_mm512_sub_pd(one, fa), fb);
            w11[g] = _mm512_mul_pd(fa, fb);
        }
        const double* tables[2] = {Lab2000hlLutA(), Lab2000hlLutB()};
        KELMA_LOCKSTEP(g, G) {
            __m512d L0, L1;
            LoadNeighbours(Lab2000hlLutL(), iL[g], &L0, &L1);
            const __m512d lhl0 = _mm512_add_pd(_mm512_mul_pd(_mm512_sub_pd(one, fL[g]), L0), _mm512_mul_pd(fL[g], L1));
            __m512d lhl[2];
            for (int c = 0; c < 2; ++c) {
                __m512d t00, t10, t01, t11;  // T[k], T[k + 1], T[k + 257], T[k + 258]
                LoadNeighbours(tables[c], iAB[g], &t00, &t10);
                LoadNeighbours(tables[c] + kLab2000hlGridSide, iAB[g], &t01, &t11);
                lhl[c] = _mm512_add_pd(
                    _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(w00[g], t00), _mm512_mul_pd(w10[g], t10)),
                                  _mm512_mul_pd(w01[g], t01)),
                    _mm512_mul_pd(w11[g], t11));
            }
            v[3 * g] = _mm512_mul_pd(_mm512_set1_pd(kLab2000hlByteScaleL), lhl0);
            v[3 * g + 1] = _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(kLab2000hlByteScaleAB), lhl[0]),
                                         _mm512_set1_pd(kLab2000hlByteOffsetAB));
            v[3 * g + 2] = _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(kLab2000hlByteScaleAB), lhl[1]),
                                         _mm512_set1_pd(kLab2000hlByteOffsetAB));
        }
        margin = margins.lab2000hl;
    }
    KELMA_LOCKSTEP(g, G) {
        const __m256i e0 = Encode(v[3 * g]), e1 = Encode(v[3 * g + 1]), e2 = Encode(v[3 * g + 2]);
        twin[g] |= cube[g] & (NearBoundary(v[3 * g], margin[0]) | NearBoundary(v[3 * g + 1], margin[1]) |
                              NearBoundary(v[3 * g + 2], margin[2]));
        const LabGroup& grp = group[g];
        unsigned char* out = grp.out;
        if (grp.count == 8 && twin[g] == 0) {
            // The common case: eight triples interleaved as 24 ints (lanes 0-7
            // of e0e1 are e0, 8-15 are e1; 16 and up index e2), narrowed to bytes.
            const __m512i e01 = _mm512_inserti64x4(_mm512_castsi256_si512(e0), e1, 1);
            const __m512i e2w = _mm512_castsi256_si512(e2);
            const __m512i first = _mm512_permutex2var_epi32(
                e01, _mm512_setr_epi32(0, 8, 16, 1, 9, 17, 2, 10, 18, 3, 11, 19, 4, 12, 20, 5), e2w);
            const __m512i second = _mm512_permutex2var_epi32(
                e01, _mm512_setr_epi32(13, 21, 6, 14, 22, 7, 15, 23, 0, 0, 0, 0, 0, 0, 0, 0), e2w);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm512_cvtepi32_epi8(first));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm512_cvtepi32_epi8(second));
            continue;
        }
        alignas(32) int bytes[3][8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(bytes[0]), e0);
        _mm256_store_si256(reinterpret_cast<__m256i*>(bytes[1]), e1);
        _mm256_store_si256(reinterpret_cast<__m256i*>(bytes[2]), e2);
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

// Groups of eight triples; group g has the lanes of phase g mod n. Four
// groups go through LabBytesGroups together (twelve cube roots side by side;
// measured on Zen 5 against two and three at a time: 2.8 against 2.9 ns per
// CIELAB triple, 5.5 against 6.0 ns per LAB2000HL triple), the last ones
// alone.
template <bool Cielab>
KELMA_TARGET_AVX512 void LabBytesLoop(const ZKSWhiteLanes& lanes, const double* inverseWhite, const float* xyz,
                                      std::size_t triples, unsigned char* out, const ZKSLabMargins& margins) {
    const unsigned int n = lanes.n;
    unsigned int phase = 0;
    auto next = [&](std::size_t g) {
        LabGroup grp{xyz + 3 * g, static_cast<unsigned int>(std::min<std::size_t>(8, triples - g)),
                     lanes.lanes.data() + 24 * phase, &lanes.illuminant[8 * phase], out + 3 * g};
        if (++phase == n) phase = 0;
        return grp;
    };
    std::size_t g = 0;
    for (; g + 32 <= triples; g += 32) {
        const LabGroup four[4] = {next(g), next(g + 8), next(g + 16), next(g + 24)};
        LabBytesGroups<4, Cielab>(four, inverseWhite, margins);
    }
    for (; g < triples; g += 8) {
        const LabGroup one = next(g);
        LabBytesGroups<1, Cielab>(&one, inverseWhite, margins);
    }
}

}  // namespace

KELMA_TARGET_AVX512 void CubeRoots_AVX512(const double* in, double* out, unsigned int count) {
    unsigned int i = 0;
    for (; i < count; i += 8) {
        const __mmask8 m = static_cast<__mmask8>(count - i >= 8 ? 0xFF : (1u << (count - i)) - 1);
        const __m512d t = _mm512_mask_loadu_pd(_mm512_set1_pd(1.0), m, in + i);
        __m512d root;
        CubeRoots8_AVX512<1>(&t, &root);
        _mm512_mask_storeu_pd(out + i, m, root);
    }
}

KELMA_TARGET_AVX512 void XYZToLabBytes_AVX512(const ZKSWhiteLanes& lanes, const double* inverseWhite,
                                              const float* xyz, unsigned int count, bool cielab,
                                              unsigned char* out, const ZKSLabMargins& margins) {
    if (lanes.n == 0 || count == 0) return;
    const std::size_t triples = std::size_t{count} * lanes.n;
    if (cielab)
        LabBytesLoop<true>(lanes, inverseWhite, xyz, triples, out, margins);
    else
        LabBytesLoop<false>(lanes, inverseWhite, xyz, triples, out, margins);
}

KELMA_TARGET_AVX512 void SpectraToXYZ_AVX512(const ZKSQuadRows& quads, const float* weights, const float* factor,
                                             const float* spectra, unsigned int count, float* xyz) {
    // Quad q of sample s is one call of QuadDots_AVX512; four quads at a time
    // finish their lane sums together and their existing rows are stored in
    // order (sample-major, then illuminant, then X, Y, Z).
    const unsigned int Q = quads.quads;
    // Result lane 4 j + k (row j of quad k) to position 4 k + j.
    const __m512i toQuadMajor = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const std::size_t total = std::size_t{count} * Q;
    const float* s = spectra;
    unsigned int q = 0;
    std::size_t g = 0;
    if (Q == 1) {
        // One illuminant: the quad's weights stay in registers, and the loop
        // loads only the spectra (it was bound by loads).
        __m512 W[8];
        for (int k = 0; k < 8; ++k) W[k] = _mm512_load_ps(quads.weights.data() + 16 * k);
        const __m512 f = _mm512_broadcast_f32x4(_mm_load_ps(quads.factor.data()));
        const unsigned int valid = quads.valid[0] * 0x1111u;
        const unsigned int written = static_cast<unsigned int>(__builtin_popcount(valid));
        for (; g + 4 <= total; g += 4, s += 4 * kSpectrumStride, xyz += written) {
            __m512 V[4];
            for (int k = 0; k < 4; ++k) V[k] = QuadDots_AVX512(s + k * kSpectrumStride, W);
            const __m512 dots = _mm512_mul_ps(_mm512_permutexvar_ps(toQuadMajor, FinishQuads_AVX512(V)), f);
            _mm512_mask_storeu_ps(xyz, static_cast<__mmask16>((1u << written) - 1),
                                  _mm512_maskz_compress_ps(static_cast<__mmask16>(valid), dots));
        }
    }
    for (; g + 4 <= total; g += 4) {
        __m512 V[4];
        alignas(64) float f[16];
        unsigned int valid = 0;
        for (int k = 0; k < 4; ++k) {
            V[k] = QuadDots_AVX512(s, quads.weights.data() + std::size_t{q} * 128);
            _mm_store_ps(f + 4 * k, _mm_load_ps(quads.factor.data() + 4 * q));
            valid |= static_cast<unsigned int>(quads.valid[q]) << (4 * k);
            if (++q == Q) {
                q = 0;
                s += kSpectrumStride;
            }
        }
        const __m512 dots = _mm512_mul_ps(_mm512_permutexvar_ps(toQuadMajor, FinishQuads_AVX512(V)), _mm512_load_ps(f));
        const unsigned int written = static_cast<unsigned int>(__builtin_popcount(valid));
        _mm512_mask_storeu_ps(xyz, static_cast<__mmask16>((1u << written) - 1),
                              _mm512_maskz_compress_ps(static_cast<__mmask16>(valid), dots));
        xyz += written;
    }
    // The last quads through the scalar twin.
    for (; g < total; ++g) {
        for (unsigned int j = 0; j < 4 && 4 * q + j < quads.rows; ++j) {
            const unsigned int r = 4 * q + j;
            *xyz++ = SpectralDot_Scalar(s, weights + std::size_t{kSpectrumStride} * r) *
                     (factor != nullptr ? factor[r] : 1.0f);
        }
        if (++q == Q) {
            q = 0;
            s += kSpectrumStride;
        }
    }
}

}  // namespace KELMA_NAMESPACE
