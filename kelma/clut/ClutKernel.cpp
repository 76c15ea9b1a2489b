// Kernel choice: the workers read ActiveKernelVariant() once at construction
// and pass it here on every call; the optimised files are compiled for their
// targets only.
//
// The AVX-512 variant runs the AVX2 kernels. A kernel's time goes into the
// per-pixel map, stride and table loads and the scalar address arithmetic,
// not into vector width: measured on Zen 4, the AVX2 kernels compiled for
// AVX-512 (32 vector registers, EVEX forms) were 3-10 % slower, and two
// pixels per 512-bit vector would need more lane inserts than they save.
#include "kelma/clut/ClutKernel.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

KERNEL_VARIANT ClutKernelVariant(KERNEL_VARIANT variant) {
    switch (variant) {
        case KERNEL_REFERENCE:
        case KERNEL_SSE2: return KERNEL_REFERENCE;
        case KERNEL_SSSE3: return KERNEL_SSSE3;
        case KERNEL_AVX2:
        case KERNEL_AVX512: return KERNEL_AVX2;
    }
    throw kErrorDefaultCase;
}

void InterpolateClut3(KERNEL_VARIANT variant, const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                      std::uint8_t* out, std::uint32_t count) {
    switch (ClutKernelVariant(variant)) {
        case KERNEL_SSSE3: InterpolateClut3_SSSE3(t, m, in, out, count); return;
        case KERNEL_AVX2: InterpolateClut3_AVX2(t, m, in, out, count); return;
        default: InterpolateClut3_Reference(t, m, in, out, count); return;
    }
}

void InterpolateClut4x3(KERNEL_VARIANT variant, const ZKSClutTables4& t, const std::uint8_t* in,
                        std::uint8_t* out, std::uint32_t count) {
    switch (ClutKernelVariant(variant)) {
        case KERNEL_SSSE3: InterpolateClut4x3_SSSE3(t, in, out, count); return;
        case KERNEL_AVX2: InterpolateClut4x3_AVX2(t, in, out, count); return;
        default: InterpolateClut4x3_Reference(t, in, out, count); return;
    }
}

}  // namespace KELMA_NAMESPACE
