// Kernel choice: the build's baseline is SSE2; AVX2 is used when the processor
// has it (checked at run time, the AVX2 file is compiled for that target only).
#include "kelma/clut/ClutKernel.h"

namespace KELMA_NAMESPACE {

bool ClutKernelSupported(ZKEClutKernel kernel) {
    switch (kernel) {
        case ZKEClutKernel::Reference:
        case ZKEClutKernel::SSE2: return true;
        case ZKEClutKernel::AVX2: return __builtin_cpu_supports("avx2");
    }
    return false;
}

ZKEClutKernel BestClutKernel() {
    static const ZKEClutKernel best =
        ClutKernelSupported(ZKEClutKernel::AVX2) ? ZKEClutKernel::AVX2 : ZKEClutKernel::SSE2;
    return best;
}

void InterpolateClut3(ZKEClutKernel kernel, const ZKSClutTables3& t, unsigned m, const std::uint8_t* in,
                      std::uint8_t* out, std::uint32_t count) {
    switch (kernel) {
        case ZKEClutKernel::Reference: InterpolateClut3_Reference(t, m, in, out, count); return;
        case ZKEClutKernel::SSE2: InterpolateClut3_SSE2(t, m, in, out, count); return;
        case ZKEClutKernel::AVX2: InterpolateClut3_AVX2(t, m, in, out, count); return;
    }
    throw "DefaultCase";
}

void InterpolateClut4x3(ZKEClutKernel kernel, const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                        std::uint32_t count) {
    switch (kernel) {
        case ZKEClutKernel::Reference: InterpolateClut4x3_Reference(t, in, out, count); return;
        case ZKEClutKernel::SSE2: InterpolateClut4x3_SSE2(t, in, out, count); return;
        case ZKEClutKernel::AVX2: InterpolateClut4x3_AVX2(t, in, out, count); return;
    }
    throw "DefaultCase";
}

}  // namespace KELMA_NAMESPACE
