// out[i] = in[i]^y for the Yule-Nielsen step of the prediction kernels, one
// array function per kernel variant. Every variant performs the operations of
// the scalar twin (YuleNielsenPower_Scalar.h) and gives its results bit for
// bit, so the choice of variant changes speed only:
//   KERNEL_REFERENCE  the scalar twin, one value at a time
//   KERNEL_SSE2       four values per step (YuleNielsenPower_SSE.h)
//   KERNEL_AVX2       eight values per step (YuleNielsenPower_AVX2.h)
//   KERNEL_AVX512     sixteen values per step (YuleNielsenPower_AVX512.h)
// KERNEL_SSSE3 has no form of its own and runs the SSE2 one.
//
// Accuracy: within 2 ulp of powf (nearly always the same float) for the
// bases and exponents a model produces; every base outside [FLT_MIN,
// FLT_MAX] (0, negative, subnormal, inf, NaN) and every exponent outside
// (0, 64] goes to powf itself, so powf's special cases hold.
#pragma once

#include "kelma/common/KernelVariant.h"

namespace KELMA_NAMESPACE {

// `in` and `out` hold `count` floats (any alignment; they may be the same).
// The caller chooses the variant once (ActiveKernelVariant()) and must pass
// one the processor runs.
void YuleNielsenPower(KERNEL_VARIANT variant, const float* in, float y, float* out, unsigned int count);

void YuleNielsenPower_Reference(const float* in, float y, float* out, unsigned int count);
void YuleNielsenPower_SSE2(const float* in, float y, float* out, unsigned int count);
void YuleNielsenPower_AVX2(const float* in, float y, float* out, unsigned int count);
void YuleNielsenPower_AVX512(const float* in, float y, float* out, unsigned int count);

}  // namespace KELMA_NAMESPACE
