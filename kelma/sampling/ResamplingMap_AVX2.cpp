// AVX2 twin of ApplyResamplingMap_Reference: the 32 sums of one spectrum in
// eight 4-double vectors (lane i = output i; lane 31 sums the map's 0.0 pad
// and is never stored). Per input value j: broadcast double(y[j]), multiply
// by map row j, add to the sums: the reference's operations, in its order.
#include <immintrin.h>

#include "kelma/sampling/ResamplingMap.h"

#define KELMA_AVX2 __attribute__((target("avx2")))

namespace KELMA_NAMESPACE {

KELMA_AVX2 void ApplyResamplingMap_AVX2(const double* map, std::size_t n, const float* in, float* out,
                                        unsigned long count) {
    for (unsigned long s = 0; s < count; ++s, in += n, out += kSpectrumStride) {
        __m256d acc[8];
        for (unsigned int v = 0; v < 8; ++v) acc[v] = _mm256_setzero_pd();
        const double* row = map;
        for (std::size_t j = 0; j < n; ++j, row += kResamplingMapStride) {
            const __m256d y = _mm256_set1_pd(static_cast<double>(in[j]));
            for (unsigned int v = 0; v < 8; ++v)
                acc[v] = _mm256_add_pd(acc[v], _mm256_mul_pd(_mm256_load_pd(row + 4 * v), y));
        }
        for (unsigned int v = 0; v < 7; ++v) _mm_storeu_ps(out + 4 * v, _mm256_cvtpd_ps(acc[v]));
        // Outputs 28-30; slot 31 stays untouched.
        const __m128 last = _mm256_cvtpd_ps(acc[7]);
        _mm_storel_pi(reinterpret_cast<__m64*>(out + 28), last);
        _mm_store_ss(out + 30, _mm_movehl_ps(last, last));
    }
}

}  // namespace KELMA_NAMESPACE
