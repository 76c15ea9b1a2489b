// Shared helpers for the tests and benchmarks.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/KernelVariant.h"
#include "kelma/common/Types.h"

namespace kelma_test {

// Bitwise equality of floats (distinguishes -0/+0, matches NaN payloads).
inline bool SameBits(float a, float b) {
    std::uint32_t x, y;
    std::memcpy(&x, &a, 4);
    std::memcpy(&y, &b, 4);
    return x == y;
}

// `count` reflectance spectra in (0, 1], 32 floats each with slot 31 = 0.
kelma::AlignedBuffer<float> RandomSpectra(std::size_t count, std::uint32_t seed);

// Text of the plain character-string exception (the library's failure
// convention) that `f` throws; "" when it throws nothing.
template <class F>
std::string ThrownText(F f) {
    try {
        f();
    } catch (const char* text) {
        return text;
    }
    return "";
}

// Every kernel variant, narrowest first, for tests parameterised over them
// (INSTANTIATE_TEST_SUITE_P(..., AllKernelVariants(), KernelVariantParamName)).
// A case whose variant the processor lacks must say so:
//   if (!kelma::KernelVariantSupported(v)) GTEST_SKIP() << UnsupportedVariant(v);
inline const kelma::KERNEL_VARIANT kAllKernelVariants[] = {kelma::KERNEL_REFERENCE, kelma::KERNEL_SSE2,
                                                           kelma::KERNEL_SSSE3, kelma::KERNEL_AVX2,
                                                           kelma::KERNEL_AVX512};
inline std::string UnsupportedVariant(kelma::KERNEL_VARIANT v) {
    return std::string("this processor cannot run the ") + kelma::KernelVariantName(v) + " kernels";
}

// Caps the kernel variant at the one `name` names (reference, sse2, ssse3,
// avx2, avx512), as the test binaries' --kelma_kernels and every binary's
// KELMA_KERNELS do. A name that is no variant: false, after one line on
// stderr naming `source` (the argument or variable it came from).
bool CapKernelVariant(const char* source, const char* name);
// The cap from KELMA_KERNELS when it is set and not empty (the benchmarks);
// true when it is unset.
bool CapKernelVariantFromEnvironment();

// Names the cases of a suite parameterised over kAllKernelVariants.
template <class ParamInfo>
std::string KernelVariantParamName(const ParamInfo& info) {
    return kelma::KernelVariantName(info.param);
}

// Runs the enclosing scope with the kernel variant capped at `v`.
class ScopedKernelCap {
public:
    explicit ScopedKernelCap(kelma::KERNEL_VARIANT v) : before_(kelma::KernelVariantCap()) {
        kelma::SetKernelVariantCap(v);
    }
    ~ScopedKernelCap() { kelma::SetKernelVariantCap(before_); }

private:
    kelma::KERNEL_VARIANT before_;
};

// Runs the enclosing scope with the processor count forced to `n`.
class ScopedCPUCount {
public:
    explicit ScopedCPUCount(unsigned int n);
    ~ScopedCPUCount();
};

}  // namespace kelma_test
