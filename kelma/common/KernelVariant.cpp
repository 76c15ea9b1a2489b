#include "kelma/common/KernelVariant.h"

#include <atomic>
#include <cstring>

namespace KELMA_NAMESPACE {

namespace {

std::atomic<std::uint32_t> g_cap{KERNEL_AVX512};

const char* const kNames[] = {"reference", "sse2", "ssse3", "avx2", "avx512"};

}  // namespace

bool KernelVariantSupported(KERNEL_VARIANT variant) {
    // __builtin_cpu_supports also checks that the OS saves the wide registers.
    switch (variant) {
        case KERNEL_REFERENCE: return true;
        case KERNEL_SSE2: return __builtin_cpu_supports("sse2");
        case KERNEL_SSSE3: return __builtin_cpu_supports("sse2") && __builtin_cpu_supports("ssse3");
        case KERNEL_AVX2: return KernelVariantSupported(KERNEL_SSSE3) && __builtin_cpu_supports("avx2");
        case KERNEL_AVX512:
            return KernelVariantSupported(KERNEL_AVX2) && __builtin_cpu_supports("avx512f") &&
                   __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
                   __builtin_cpu_supports("avx512vl");
    }
    return false;
}

KERNEL_VARIANT BestKernelVariant() {
    static const KERNEL_VARIANT best = [] {
        for (std::uint32_t v = KERNEL_AVX512; v > KERNEL_REFERENCE; --v)
            if (KernelVariantSupported(static_cast<KERNEL_VARIANT>(v))) return static_cast<KERNEL_VARIANT>(v);
        return KERNEL_REFERENCE;
    }();
    return best;
}

KERNEL_VARIANT ActiveKernelVariant() {
    const std::uint32_t cap = g_cap.load(std::memory_order_relaxed);
    const std::uint32_t best = BestKernelVariant();
    return static_cast<KERNEL_VARIANT>(cap < best ? cap : best);
}

void SetKernelVariantCap(KERNEL_VARIANT cap) {
    g_cap.store(cap > KERNEL_AVX512 ? KERNEL_AVX512 : cap, std::memory_order_relaxed);
}

KERNEL_VARIANT KernelVariantCap() { return static_cast<KERNEL_VARIANT>(g_cap.load(std::memory_order_relaxed)); }

const char* KernelVariantName(KERNEL_VARIANT variant) {
    return variant <= KERNEL_AVX512 ? kNames[variant] : "unknown";
}

bool ParseKernelVariant(const char* name, KERNEL_VARIANT* variant) {
    if (name == nullptr) return false;
    for (std::uint32_t v = 0; v <= KERNEL_AVX512; ++v) {
        if (std::strcmp(name, kNames[v]) == 0) {
            *variant = static_cast<KERNEL_VARIANT>(v);
            return true;
        }
    }
    return false;
}

}  // namespace KELMA_NAMESPACE
