// AVX-512 twin of ApplyResamplingMap_Reference: the 32 sums of one spectrum
// in four 8-double vectors (lane i = output i; lane 31 sums the map's 0.0 pad
// and is masked off at the store). Per input value j: broadcast double(y[j]),
// multiply by map row j, add to the sums: the reference's operations, in its
// order.
#include <immintrin.h>

#include "kelma/sampling/ResamplingMap.h"

#define KELMA_AVX512 __attribute__((target("avx512f,avx512vl")))

namespace KELMA_NAMESPACE {

namespace {

// 8 doubles to 8 floats, rounded to nearest. (The zero-masking form of the
// conversion: the plain one trips a false "uninitialised" warning in GCC 12.)
KELMA_AVX512 inline __m256 ToFloat(__m512d x) { return _mm512_maskz_cvtpd_ps(0xFF, x); }

}  // namespace

KELMA_AVX512 void ApplyResamplingMap_AVX512(const double* map, std::size_t n, const float* in, float* out,
                                            unsigned long count) {
    for (unsigned long s = 0; s < count; ++s, in += n, out += kSpectrumStride) {
        __m512d acc0 = _mm512_setzero_pd(), acc1 = _mm512_setzero_pd(), acc2 = _mm512_setzero_pd(),
                acc3 = _mm512_setzero_pd();
        const double* row = map;
        for (std::size_t j = 0; j < n; ++j, row += kResamplingMapStride) {
            const __m512d y = _mm512_set1_pd(static_cast<double>(in[j]));
            acc0 = _mm512_add_pd(acc0, _mm512_mul_pd(_mm512_load_pd(row), y));
            acc1 = _mm512_add_pd(acc1, _mm512_mul_pd(_mm512_load_pd(row + 8), y));
            acc2 = _mm512_add_pd(acc2, _mm512_mul_pd(_mm512_load_pd(row + 16), y));
            acc3 = _mm512_add_pd(acc3, _mm512_mul_pd(_mm512_load_pd(row + 24), y));
        }
        _mm256_storeu_ps(out, ToFloat(acc0));
        _mm256_storeu_ps(out + 8, ToFloat(acc1));
        _mm256_storeu_ps(out + 16, ToFloat(acc2));
        _mm256_mask_storeu_ps(out + 24, 0x7F, ToFloat(acc3));  // outputs 24-30
    }
}

}  // namespace KELMA_NAMESPACE
