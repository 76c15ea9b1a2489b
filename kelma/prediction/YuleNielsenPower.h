// out[i] = in[i]^y for the Yule-Nielsen step of the prediction kernels: the
// power of YuleNielsenPower_Scalar.h, eight lanes at a time with AVX-512 when
// the processor has it, four with SSE2 otherwise; both are bit-identical to
// the scalar twin, so results do not depend on the processor.
#pragma once

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// `in` and `out` hold `count` floats (any alignment; they may be the same).
void YuleNielsenPower(const float* in, float y, float* out, unsigned int count);
void YuleNielsenPower_SSE2(const float* in, float y, float* out, unsigned int count);
void YuleNielsenPower_AVX512(const float* in, float y, float* out, unsigned int count);
bool HasYuleNielsenPower_AVX512();

}  // namespace KELMA_NAMESPACE
