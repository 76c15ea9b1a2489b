// The AVX2 array form of the Yule-Nielsen power (YuleNielsenPower_AVX2.h).
// GCC 12 warns about the intrinsics' own "undefined vector" idiom when they
// are inlined (a false positive); nothing in this file reads uninitialised data.
#if defined(__GNUC__) && !defined(__clang__)  // GCC only; clang has no such warning
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "kelma/prediction/YuleNielsenPower_AVX2.h"

#include "kelma/prediction/YuleNielsenPower.h"

namespace KELMA_NAMESPACE {

KELMA_TARGET_AVX2 void YuleNielsenPower_AVX2(const float* in, float y, float* out, unsigned int count) {
    const yule_nielsen_power::ZKSPowerTables& T = yule_nielsen_power::PowerTables();
    unsigned int i = 0;
    for (; i + 8 <= count; i += 8) _mm256_storeu_ps(out + i, YuleNielsenPower8_AVX2(T, _mm256_loadu_ps(in + i), y));
    if (i < count) {
        // Tail through a padded copy; the pad lanes (1.0) are never stored.
        alignas(32) float x[8] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
        for (unsigned int j = i; j < count; ++j) x[j - i] = in[j];
        alignas(32) float r[8];
        _mm256_store_ps(r, YuleNielsenPower8_AVX2(T, _mm256_load_ps(x), y));
        for (unsigned int j = i; j < count; ++j) out[j] = r[j - i];
    }
}

}  // namespace KELMA_NAMESPACE
