// Kernel choice at run time: AVX2 when the processor has it, else SSSE3, else
// the reference loop (the optimised files are compiled for their targets only;
// the build's baseline, SSE2, has no byte shuffle to read corner-major blocks).
#include "kelma/clut/ClutKernel.h"

namespace KELMA_NAMESPACE {

bool ClutKernelSupported(ZKEClutKernel kernel) {
    switch (kernel) {
        case ZKEClutKernel::Reference: return true;
        case ZKEClutKernel::SSSE3: return __builtin_cpu_supports("ssse3");
        case ZKEClutKernel::AVX2: return __builtin_cpu_supports("avx2");
    }
    return false;
}

ZKEClutKernel BestClutKernel() {
    static const ZKEClutKernel best = ClutKernelSupported(ZKEClutKernel::AVX2)    ? ZKEClutKernel::AVX2
                                      : ClutKernelSupported(ZKEClutKernel::SSSE3) ? ZKEClutKernel::SSSE3
                                                                                  : ZKEClutKernel::Reference;
    return best;
}

void InterpolateClut3(ZKEClutKernel kernel, const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                      std::uint8_t* out, std::uint32_t count) {
    switch (kernel) {
        case ZKEClutKernel::Reference: InterpolateClut3_Reference(t, m, in, out, count); return;
        case ZKEClutKernel::SSSE3: InterpolateClut3_SSSE3(t, m, in, out, count); return;
        case ZKEClutKernel::AVX2: InterpolateClut3_AVX2(t, m, in, out, count); return;
    }
    throw "DefaultCase";
}

void InterpolateClut4x3(ZKEClutKernel kernel, const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                        std::uint32_t count) {
    switch (kernel) {
        case ZKEClutKernel::Reference: InterpolateClut4x3_Reference(t, in, out, count); return;
        case ZKEClutKernel::SSSE3: InterpolateClut4x3_SSSE3(t, in, out, count); return;
        case ZKEClutKernel::AVX2: InterpolateClut4x3_AVX2(t, in, out, count); return;
    }
    throw "DefaultCase";
}

}  // namespace KELMA_NAMESPACE
