// The batch loops of the lighting matrix, one per kernel variant: spectra to
// XYZ, and XYZ to colour bytes. Every variant gives the scalar twins' results
// bit for bit (SpectralDot_Scalar.h, LabBytes_Scalar.h):
//   KERNEL_REFERENCE  the scalar twins
//   KERNEL_SSE2, KERNEL_SSSE3  four-lane dot products (SpectralDot_SSE.h), scalar bytes
//   KERNEL_AVX2       four-lane dot products, four triples at once (LabBytes_AVX2.h)
//   KERNEL_AVX512     four rows per vector (SpectralDot_AVX512.h) and eight
//                     triples at once (LabBytes_AVX512.h)
// A plan holds the variant and the tables its loops read, prepared once for
// one lighting matrix (its weights must outlive the plan); the byte mode of
// the prediction kernels keeps one per kernel.
#pragma once

#include <cstdint>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/KernelVariant.h"

namespace KELMA_NAMESPACE {

// The 3n rows of a lighting matrix in quads of four for SpectralDot_AVX512.h.
struct ZKSQuadRows {
    unsigned int rows = 0, quads = 0;
    AlignedBuffer<float, 64> weights;   // quad q, slot quarter k: 16 floats, entry 4 j + l = slot 4 k + l of row 4 q + j
    AlignedBuffer<float, 64> factor;    // quad q: 4 factors (1.0 past the last row or without a factor)
    std::vector<std::uint16_t> valid;   // quad q: bit j set when row 4 q + j exists
};
ZKSQuadRows MakeQuadRows(const float* weights, unsigned int n, const float* factor);

// Inverse whites per lane for the AVX2 and AVX-512 bytes: group g of eight triples
// has the illuminants (8 g + l) mod n, which repeat with g mod n (the phase).
struct ZKSWhiteLanes {
    unsigned int n = 0;
    AlignedBuffer<double, 64> lanes;        // phase p: 8 lanes of 1/Xn, of 1/Yn, of 1/Zn (24 doubles)
    std::vector<unsigned int> illuminant;   // phase p: the illuminant of each of the 8 lanes
};
ZKSWhiteLanes MakeWhiteLanes(const double* inverseWhite, unsigned int n);

class ZKCColorimetryPlan {
public:
    // `weights`: n blocks of 96 floats (16-byte aligned), or null for bytes
    // only; `factor`: 3n floats or null (1.0); `inverseWhite`: 3n doubles
    // (1/Xn, 1/Yn, 1/Zn per illuminant) or null for XYZ only. The variant must
    // be one the processor runs.
    ZKCColorimetryPlan(KERNEL_VARIANT variant, const float* weights, unsigned int n, const float* factor,
                       const double* inverseWhite);

    // xyz[(s n + j) 3 + c] = dot(spectrum s, row c of block j) factor[3 j + c];
    // spectra 32 floats apart, 16-byte aligned.
    void SpectraToXYZ(const float* spectra, unsigned int count, float* xyz) const;
    // Bytes of count x n XYZ triples: CIELAB bytes or LAB2000HL bytes.
    void XYZToLabBytes(const float* xyz, unsigned int count, bool cielab, unsigned char* out) const;

    KERNEL_VARIANT Variant() const { return variant_; }

private:
    KERNEL_VARIANT variant_;
    const float* weights_;
    unsigned int n_;
    std::vector<float> factor_;  // empty: none
    std::vector<double> inverseWhite_;
    ZKSQuadRows quads_;          // AVX-512, with weights
    ZKSWhiteLanes whiteLanes_;   // AVX2 and AVX-512, with inverse whites
};

// One-call forms (a plan made for the call).
void SpectraToXYZ(KERNEL_VARIANT variant, const float* weights, unsigned int n, const float* factor,
                  const float* spectra, unsigned int count, float* xyz);
void XYZToLabBytes(KERNEL_VARIANT variant, unsigned int n, const double* inverseWhite, const float* xyz,
                   unsigned int count, bool cielab, unsigned char* out);

// The AVX2 and AVX-512 loops (SpectraToXYZ_AVX512's `weights` and `factor` also serve
// its scalar tail).
void SpectraToXYZ_AVX512(const ZKSQuadRows& quads, const float* weights, const float* factor, const float* spectra,
                         unsigned int count, float* xyz);
struct ZKSLabMargins;
void XYZToLabBytes_AVX2(const ZKSWhiteLanes& lanes, const double* inverseWhite, const float* xyz,
                        unsigned int count, bool cielab, unsigned char* out, const ZKSLabMargins& margins);
void XYZToLabBytes_AVX512(const ZKSWhiteLanes& lanes, const double* inverseWhite, const float* xyz,
                          unsigned int count, bool cielab, unsigned char* out, const ZKSLabMargins& margins);

}  // namespace KELMA_NAMESPACE
