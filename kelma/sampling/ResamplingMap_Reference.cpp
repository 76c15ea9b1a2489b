// Scalar twin of the resampling-map kernels (ResamplingMap.h) and the
// dispatch between them.
#include "kelma/sampling/ResamplingMap.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

KERNEL_VARIANT ResamplingMapVariant(KERNEL_VARIANT variant) {
    switch (variant) {
        case KERNEL_REFERENCE:
        case KERNEL_SSE2:
        case KERNEL_SSSE3: return KERNEL_REFERENCE;
        case KERNEL_AVX2: return KERNEL_AVX2;
        case KERNEL_AVX512: return KERNEL_AVX512;
    }
    throw kErrorDefaultCase;
}

void ApplyResamplingMap(KERNEL_VARIANT variant, const double* map, std::size_t n, const float* in, float* out,
                        unsigned long count) {
    switch (ResamplingMapVariant(variant)) {
        case KERNEL_AVX2: ApplyResamplingMap_AVX2(map, n, in, out, count); return;
        case KERNEL_AVX512: ApplyResamplingMap_AVX512(map, n, in, out, count); return;
        default: ApplyResamplingMap_Reference(map, n, in, out, count); return;
    }
}

void ApplyResamplingMap_Reference(const double* map, std::size_t n, const float* in, float* out,
                                  unsigned long count) {
    for (unsigned long s = 0; s < count; ++s, in += n, out += kSpectrumStride) {
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            double sum = 0.0;
            for (std::size_t j = 0; j < n; ++j) sum += map[j * kResamplingMapStride + i] * static_cast<double>(in[j]);
            out[i] = static_cast<float>(sum);
        }
    }
}

}  // namespace KELMA_NAMESPACE
