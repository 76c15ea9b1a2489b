// Application of a precomputed resampling map: every output value is a fixed
// linear combination of the input spectrum's values,
//   out[i] = float( sum over j = 0 .. n-1 of map[j][i] * double(y[j]) ),  i = 0 .. 30,
// the sum taken in double from +0.0 in ascending j, each product and each sum
// rounded on its own (no fused multiply-add), one rounding to float at the
// end. The map is knot-major: row j holds the 31 weights of input value j and
// a 0.0 pad (kResamplingMapStride doubles, rows 64-byte aligned).
//
// Kernels: a plain reference loop (the scalar twin) and AVX2 / AVX-512 twins
// that keep the 31 sums of one spectrum in vector lanes; lane i does exactly
// the reference's operations for output i, so every kernel gives the same
// bits. Slot 31 of each 32-float output record is never written. NaN or
// infinite inputs propagate to every output (0.0 * inf is NaN).
#pragma once

#include <cstddef>

#include "kelma/common/KernelVariant.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

constexpr std::size_t kResamplingMapStride = kSpectrumStride;  // doubles per map row

// count spectra of n floats (`in`) to count records of 32 floats (`out`).
void ApplyResamplingMap(KERNEL_VARIANT variant, const double* map, std::size_t n, const float* in, float* out,
                        unsigned long count);

// The kernel that serves a variant: reference below AVX2, then AVX2, AVX-512.
KERNEL_VARIANT ResamplingMapVariant(KERNEL_VARIANT variant);

void ApplyResamplingMap_Reference(const double* map, std::size_t n, const float* in, float* out,
                                  unsigned long count);
void ApplyResamplingMap_AVX2(const double* map, std::size_t n, const float* in, float* out, unsigned long count);
void ApplyResamplingMap_AVX512(const double* map, std::size_t n, const float* in, float* out,
                               unsigned long count);

}  // namespace KELMA_NAMESPACE
