#include "tests/support/TestSupport.h"

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

ScopedCPUCount::ScopedCPUCount(unsigned int n) { kelma::SetCPUCountOverride(n); }
ScopedCPUCount::~ScopedCPUCount() { kelma::SetCPUCountOverride(0); }

}  // namespace kelma_test
