// Instruction-set variants of the SIMD kernels and the one place that decides
// which of them run.
//
// Every dispatching computation (prediction kernels, the Yule-Nielsen power,
// colorimetry, CLUT interpolation, resampling) asks ActiveKernelVariant() once,
// when its driver or worker is constructed, and keeps that choice for all its
// calls; no hot loop tests processor features. Each variant gives results
// bit-identical to the scalar twin (KERNEL_REFERENCE), so the choice changes
// speed only.
//
// A host or a test may cap the choice (SetKernelVariantCap); the library reads
// no environment itself, front ends map KELMA_KERNELS=reference|sse2|ssse3|
// avx2|avx512 onto the cap with ParseKernelVariant.
#pragma once

#include <cstdint>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Ordered from narrowest to widest; each needs the features of those before it.
enum KERNEL_VARIANT : std::uint32_t {
    KERNEL_REFERENCE = 0,  // plain C++: the scalar twins, the oracle of the others
    KERNEL_SSE2 = 1,       // 128-bit, the x86-64 baseline
    KERNEL_SSSE3 = 2,      // 128-bit with byte shuffles
    KERNEL_AVX2 = 3,       // 256-bit, AVX2 and FMA-free integer/float ops
    KERNEL_AVX512 = 4,     // 512-bit, AVX-512 F/BW/DQ/VL
};

// True when this processor (and its operating system) runs `variant`.
KELMA_API bool KernelVariantSupported(KERNEL_VARIANT variant);
// The widest variant this processor runs; decided once per process.
KELMA_API KERNEL_VARIANT BestKernelVariant();
// The variant dispatch chooses now: the processor's best, lowered to the cap.
// A dispatch with no implementation at that level takes its widest one below.
KELMA_API KERNEL_VARIANT ActiveKernelVariant();
// Caps the variant of every dispatch made after this call (drivers and
// workers already constructed keep theirs). KERNEL_AVX512 removes the cap.
// Thread-safe; results never depend on it.
KELMA_API void SetKernelVariantCap(KERNEL_VARIANT cap);
KELMA_API KERNEL_VARIANT KernelVariantCap();

// "reference", "sse2", "ssse3", "avx2", "avx512".
KELMA_API const char* KernelVariantName(KERNEL_VARIANT variant);
// Parses one of the names above (exactly, lower case); false for anything else.
KELMA_API bool ParseKernelVariant(const char* name, KERNEL_VARIANT* variant);

}  // namespace KELMA_NAMESPACE
