// Colour bytes of XYZ triples in AVX-512 (doubles, eight triples per
// vector), with the operations of the scalar twin LabBytes_Scalar.h except
// one: the twin's pow(t, 0.3333333333333333) is replaced by a fast cube root
// (CubeRoots8_AVX512).
// The bytes are still the twin's, exactly:
//
//  - Everything else is the twin's sequence of IEEE operations (no FMA); the
//    branches test t, which both compute identically; the clamps keep NaN at
//    the lower bound as the twin does; table reads load the same entries.
//  - The cube root is within kCubeRootError (absolute; measured at most
//    2.2e-15, see the tests) of pow for t in (0.008856, 64]. Every other t > 0.008856
//    (large, inf) takes the twin for that triple.
//  - A byte is floor(clamp(v) + 0.5): it changes only where v crosses k - 0.5.
//    v depends on the three f values through continuous piecewise-linear
//    steps (L* = 116 fY - 16, a* = 500 (fX - fY), the table interpolations)
//    with known slopes, so |v - v_twin| <= slope x 2 kCubeRootError plus the
//    two computations' rounding noise (ZKSLabMargins). A triple with any v
//    closer than that to a rounding boundary is recomputed by the twin.
// The fallbacks are rare (about 1 triple in 10^6 for random colours) and
// only cost time.
#pragma once

#include <immintrin.h>

#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/common/SimdTarget.h"

namespace KELMA_NAMESPACE {

// Bound on |CubeRoots8_AVX512(t) - pow(t, 0.3333333333333333)| for t in
// (0.008856, 64], where the result is below 4: about fifty times the largest
// error the tests measure (2.2e-15, a few ulp), so that the margins below
// hold with room to spare.
constexpr double kCubeRootError = 1e-13;
constexpr double kCubeRootMaxT = 64.0;

// Distance from a rounding boundary below which a byte value v (one of 2.55 L*,
// a* + 128, b* + 128 or the LAB2000HL ones) is not trusted to the fast path.
struct ZKSLabMargins {
    double cielab[3];
    double lab2000hl[3];
};
// From the LAB2000HL tables' steepest steps (computed once).
const ZKSLabMargins& LabMargins();

// t^(1/3) for t > 0 normal, for N vectors at once: t = m 2^e, e = 3 q + r
// (r = 0, 1, 2), u = m 2^r in [1, 8); z ~ u^(-1/3) = m^(-1/3) 2^(-r/3) from
// the degree-5 polynomial that interpolates m^(-1/3) at the six Chebyshev
// nodes of [1, 2] (relative error 6.9e-6) times 2^(-r/3), then two Newton
// steps z += z (1 - u z^3) / 3, each squaring the relative error (to below
// 1e-19, under the double's own rounding); u^(1/3) = u z z, times 2^q.
// One root is a chain of some 25 dependent operations (the polynomial is in
// Estrin's form to keep it short); the N roots advance in lockstep
// (KELMA_LOCKSTEP). Every lane's result is the same whatever N is.
template <int N>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void CubeRoots8_AVX512(const __m512d* t, __m512d* root) {
    // m^(-1/3) ~ sum c[j] m^j, j = 0..5
    constexpr double c[6] = {1.7776471684890938,  -1.554027407710867,  1.2271496200208474,
                             -0.5865141615889647, 0.15224956438217788, -0.016511679091276852};
    __m512d q[N], u[N], z[N];
    KELMA_LOCKSTEP(i, N) {
        const __m512d e = _mm512_getexp_pd(t[i]);
        const __m512d m = _mm512_getmant_pd(t[i], _MM_MANT_NORM_1_2, _MM_MANT_SIGN_zero);
        q[i] = _mm512_roundscale_pd(_mm512_mul_pd(_mm512_add_pd(e, _mm512_set1_pd(0.5)), _mm512_set1_pd(1.0 / 3.0)),
                                    _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
        const __m512d r = _mm512_sub_pd(e, _mm512_mul_pd(q[i], _mm512_set1_pd(3.0)));
        u[i] = _mm512_scalef_pd(m, r);
        const __m512d m2 = _mm512_mul_pd(m, m);
        const __m512d m4 = _mm512_mul_pd(m2, m2);
        const __m512d p01 = _mm512_add_pd(_mm512_set1_pd(c[0]), _mm512_mul_pd(m, _mm512_set1_pd(c[1])));
        const __m512d p23 = _mm512_add_pd(_mm512_set1_pd(c[2]), _mm512_mul_pd(m, _mm512_set1_pd(c[3])));
        const __m512d p45 = _mm512_add_pd(_mm512_set1_pd(c[4]), _mm512_mul_pd(m, _mm512_set1_pd(c[5])));
        const __m512d p = _mm512_add_pd(_mm512_add_pd(p01, _mm512_mul_pd(m2, p23)), _mm512_mul_pd(m4, p45));
        // 2^(-r/3): 1, 2^(-1/3) or 2^(-2/3)
        __m512d s = _mm512_mask_blend_pd(_mm512_cmp_pd_mask(r, _mm512_set1_pd(1.0), _CMP_GE_OQ), _mm512_set1_pd(1.0),
                                         _mm512_set1_pd(0.79370052598409979));
        s = _mm512_mask_blend_pd(_mm512_cmp_pd_mask(r, _mm512_set1_pd(2.0), _CMP_GE_OQ), s,
                                 _mm512_set1_pd(0.62996052494743658));
        z[i] = _mm512_mul_pd(p, s);
    }
    const __m512d one = _mm512_set1_pd(1.0), third = _mm512_set1_pd(1.0 / 3.0);
    for (int k = 0; k < 2; ++k) {
        KELMA_LOCKSTEP(i, N) {
            const __m512d z3 = _mm512_mul_pd(_mm512_mul_pd(z[i], z[i]), z[i]);
            z[i] = _mm512_add_pd(z[i],
                                 _mm512_mul_pd(_mm512_mul_pd(z[i], _mm512_sub_pd(one, _mm512_mul_pd(u[i], z3))), third));
        }
    }
    KELMA_LOCKSTEP(i, N) root[i] = _mm512_scalef_pd(_mm512_mul_pd(_mm512_mul_pd(u[i], z[i]), z[i]), q[i]);
}

// out[i] = the cube root of in[i] (CubeRoots8_AVX512), for measuring its error.
void CubeRoots_AVX512(const double* in, double* out, unsigned int count);

}  // namespace KELMA_NAMESPACE
