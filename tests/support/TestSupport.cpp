#include "tests/support/TestSupport.h"

#include <cstdio>
#include <cstdlib>

#include "kelma/threading/Threading.h"

namespace kelma_test {

kelma::AlignedBuffer<float> RandomSpectra(std::size_t count, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(0.001f, 1.0f);
    kelma::AlignedBuffer<float> spectra(count * kelma::kSpectrumStride);
    for (std::size_t s = 0; s < count; ++s)
        for (unsigned int i = 0; i < kelma::kSpectralValues; ++i) spectra[s * kelma::kSpectrumStride + i] = value(rng);
    return spectra;
}

bool CapKernelVariant(const char* source, const char* name) {
    kelma::KERNEL_VARIANT variant;
    if (!kelma::ParseKernelVariant(name, &variant)) {
        std::fprintf(stderr, "%s=%s is not a kernel variant; use reference, sse2, ssse3, avx2 or avx512\n", source,
                     name);
        return false;
    }
    kelma::SetKernelVariantCap(variant);
    return true;
}

bool CapKernelVariantFromEnvironment() {
    const char* name = std::getenv("KELMA_KERNELS");
    return name == nullptr || *name == '\0' || CapKernelVariant("KELMA_KERNELS", name);
}

ScopedCPUCount::ScopedCPUCount(unsigned int n) { kelma::SetCPUCountOverride(n); }
ScopedCPUCount::~ScopedCPUCount() { kelma::SetCPUCountOverride(0); }

}  // namespace kelma_test
