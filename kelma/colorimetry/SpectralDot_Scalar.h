// Scalar twin of SpectralDot_SSE.h and SpectralDot_AVX512.h: the same
// single-precision operations in the same order, lane by lane. It is the
// reference variant, the documentation and the test oracle.
#pragma once

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Dot product of two 32-float records (a spectrum and a weight row).
//   p_k[l] = r[4k+l] * w[4k+l]                          (k = 0..7, l = 0..3)
//   v[l]   = ((p0+p1)+(p2+p3)) + ((p4+p5)+(p6+p7))      lane-wise
//   result = ((v[0]+v[1])+v[2])+v[3]
// Units follow the inputs; NaN or inf in any slot propagates. Exact order:
// results are bit-identical to the vector versions (contraction is off).
inline float SpectralDot_Scalar(const float* r, const float* w) {
    float v[4];
    for (int l = 0; l < 4; ++l) {
        float p[8];
        for (int k = 0; k < 8; ++k) p[k] = r[4 * k + l] * w[4 * k + l];
        v[l] = ((p[0] + p[1]) + (p[2] + p[3])) + ((p[4] + p[5]) + (p[6] + p[7]));
    }
    return ((v[0] + v[1]) + v[2]) + v[3];
}

}  // namespace KELMA_NAMESPACE
