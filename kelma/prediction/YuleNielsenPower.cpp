#include "kelma/prediction/YuleNielsenPower.h"

#include "kelma/prediction/YuleNielsenPower_SSE.h"

namespace KELMA_NAMESPACE {

namespace yule_nielsen_power {

const ZKSPowerTables& PowerTables() {
    static const ZKSPowerTables tables = [] {
        ZKSPowerTables t;
        for (int i = 0; i < 16; ++i) {
            t.invC[i] = 1.0 / (1.0 + (i + 0.5) / 16.0);
            t.log2C[i] = std::log2(t.invC[i]);
            t.exp2Frac[i] = std::exp2(i / 16.0);
        }
        return t;
    }();
    return tables;
}

}  // namespace yule_nielsen_power

void YuleNielsenPower_Reference(const float* in, float y, float* out, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) out[i] = YuleNielsenPowerLane_Scalar(in[i], y);
}

void YuleNielsenPower_SSE2(const float* in, float y, float* out, unsigned int count) {
    const yule_nielsen_power::ZKSPowerTables& T = yule_nielsen_power::PowerTables();
    unsigned int i = 0;
    for (; i + 4 <= count; i += 4) _mm_storeu_ps(out + i, YuleNielsenPower4_SSE(T, _mm_loadu_ps(in + i), y));
    if (i < count) {
        // Tail through a padded copy; the pad lanes (1.0) are never stored.
        alignas(16) float x[4] = {1.0f, 1.0f, 1.0f, 1.0f};
        for (unsigned int j = i; j < count; ++j) x[j - i] = in[j];
        alignas(16) float r[4];
        _mm_store_ps(r, YuleNielsenPower4_SSE(T, _mm_load_ps(x), y));
        for (unsigned int j = i; j < count; ++j) out[j] = r[j - i];
    }
}

void YuleNielsenPower(KERNEL_VARIANT variant, const float* in, float y, float* out, unsigned int count) {
    switch (variant) {
        case KERNEL_REFERENCE: return YuleNielsenPower_Reference(in, y, out, count);
        case KERNEL_SSE2:
        case KERNEL_SSSE3: return YuleNielsenPower_SSE2(in, y, out, count);
        case KERNEL_AVX2: return YuleNielsenPower_AVX2(in, y, out, count);
        case KERNEL_AVX512: return YuleNielsenPower_AVX512(in, y, out, count);
    }
}

}  // namespace KELMA_NAMESPACE
