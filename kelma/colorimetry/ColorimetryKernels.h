// The batch loops of the lighting matrix, one per kernel variant: spectra to
// XYZ, and XYZ to colour bytes. Every variant gives the scalar twins' results
// bit for bit (SpectralDot_Scalar.h, LabBytes_Scalar.h):
//   KERNEL_REFERENCE  the scalar twins
//   KERNEL_SSE2 .. KERNEL_AVX2  four-lane dot products (SpectralDot_SSE.h), scalar bytes
//   KERNEL_AVX512     sixteen dot products at once (SpectralDot_AVX512.h) and
//                     eight triples at once (LabBytes_AVX512.h)
// The caller chooses the variant once (one the processor runs) and passes it.
#pragma once

#include "kelma/common/KernelVariant.h"

namespace KELMA_NAMESPACE {

// xyz[(s n + j) 3 + c] = dot(spectrum s, row c of block j) factor[3 j + c]
// (factor null: 1.0). `weights`: n blocks of 96 floats; spectra 32 floats
// apart; both 16-byte aligned.
void SpectraToXYZ(KERNEL_VARIANT variant, const float* weights, unsigned int n, const float* factor,
                  const float* spectra, unsigned int count, float* xyz);

// Bytes of count x n XYZ triples against inverseWhite (3 n doubles: 1/Xn,
// 1/Yn, 1/Zn per illuminant): CIELAB bytes or LAB2000HL bytes.
void XYZToLabBytes(KERNEL_VARIANT variant, unsigned int n, const double* inverseWhite, const float* xyz,
                   unsigned int count, bool cielab, unsigned char* out);

void SpectraToXYZ_AVX512(const float* weights, unsigned int n, const float* factor, const float* spectra,
                         unsigned int count, float* xyz);
void XYZToLabBytes_AVX512(unsigned int n, const double* inverseWhite, const float* xyz, unsigned int count,
                          bool cielab, unsigned char* out);

}  // namespace KELMA_NAMESPACE
