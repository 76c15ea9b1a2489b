// The AVX-512 array form of the Yule-Nielsen power (YuleNielsenPower_AVX512.h).
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#if defined(__GNUC__) && !defined(__clang__)  // GCC only; clang has no such warning
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "kelma/prediction/YuleNielsenPower_AVX512.h"

#include "kelma/prediction/YuleNielsenPower.h"

namespace KELMA_NAMESPACE {

KELMA_TARGET_AVX512 void YuleNielsenPower_AVX512(const float* in, float y, float* out, unsigned int count) {
    const ZKSPowerTables_AVX512 T = LoadPowerTables_AVX512();
    unsigned int i = 0;
    for (; i + 64 <= count; i += 64) {
        __m512 x[4], r[4];
        for (int v = 0; v < 4; ++v) x[v] = _mm512_loadu_ps(in + i + 16 * v);
        YuleNielsenPowerVectors_AVX512<4>(T, x, y, r);
        for (int v = 0; v < 4; ++v) _mm512_storeu_ps(out + i + 16 * v, r[v]);
    }
    for (; i + 16 <= count; i += 16) _mm512_storeu_ps(out + i, YuleNielsenPower16_AVX512(T, _mm512_loadu_ps(in + i), y));
    if (i < count) {
        // The tail with masked loads and stores; the idle lanes hold 1.0.
        const __mmask16 tail = static_cast<__mmask16>((1u << (count - i)) - 1u);
        const __m512 x = _mm512_mask_loadu_ps(_mm512_set1_ps(1.0f), tail, in + i);
        _mm512_mask_storeu_ps(out + i, tail, YuleNielsenPower16_AVX512(T, x, y));
    }
}

}  // namespace KELMA_NAMESPACE
