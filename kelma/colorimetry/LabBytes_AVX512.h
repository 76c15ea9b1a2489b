// Colour bytes of XYZ triples in AVX-512 (doubles, eight triples per
// vector): the fast path of LabBytesMargins.h, whose comment says why its
// bytes are the scalar twin's (LabBytes_Scalar.h) exactly.
#pragma once

#include <immintrin.h>

#include "kelma/colorimetry/LabBytesMargins.h"
#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/common/SimdTarget.h"

namespace KELMA_NAMESPACE {

// The cube roots of N vectors of t > 0 normal (LabBytesMargins.h), in
// lockstep. Every lane's result is the same whatever N is.
template <int N>
KELMA_TARGET_AVX512 KELMA_ALWAYS_INLINE inline void CubeRoots8_AVX512(const __m512d* t, __m512d* root) {
    const double* c = kCubeRootPoly;
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
                                         _mm512_set1_pd(kCubeRootTwoToMinusThird));
        s = _mm512_mask_blend_pd(_mm512_cmp_pd_mask(r, _mm512_set1_pd(2.0), _CMP_GE_OQ), s,
                                 _mm512_set1_pd(kCubeRootTwoToMinusTwoThirds));
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
