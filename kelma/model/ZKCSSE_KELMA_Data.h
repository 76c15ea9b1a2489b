// One fitted cellular Yule-Nielsen modified spectral Neugebauer printer model
// in the layout the SSE prediction kernels read.
#pragma once

#include <cstdint>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

// Per ink and 8-bit value: the ink's contribution to the cell number and the
// local coordinate inside that cell (0 at the lower grid point, 1 at the upper).
struct ZKSSSE_EffectiveRampEntry {
    std::uint32_t cellOffset;  // cell index along the ink x (G-1)^ink
    float weight;              // local coordinate in [0, 1] for monotone ramps
};

struct ZKSModelFile;

// Layouts (N inks, G grid points per ink, K spectral values, 31 everywhere):
//  - grid points [i][g] at i G + g: whole digital levels, strictly ascending,
//    first 0, last 255 (the lookup table relies on meeting every level);
//  - effective ramps [i][t] at i 256 + t: model-space coverage of ink i at t;
//  - matrix scheme [q][w][k] at (q K + w) 2^N + k, 16-byte aligned: for cell
//    q (q = sum_i cell_i (G-1)^i, ink 0 fastest), wavelength w and corner k
//    (bit i = upper grid point along ink i), the coefficient of the monomial
//    prod_{i in k} w_i. The prediction is (sum_k c_k prod w_i)^n.
// Nothing is validated: a malformed grid gives meaningless (but memory-safe)
// lookup entries. With K = 31 the constructor predicts the blank paper and
// stores its XYZ as the media white point; a model whose ink count has no
// prediction kernel (1, 2 or 3 inks) therefore throws "DefaultCase" while
// being built, and a 5-ink model builds (its paper is predicted on its
// 4-ink sub-model) but cannot be predicted.
class KELMA_API ZKCSSE_KELMA_Data {
public:
    ZKCSSE_KELMA_Data(unsigned int numberOfInks, unsigned int numberOfGridPoints, const float* gridPoints,
                      const float* effectiveRamps, const float* matrixScheme, float n,
                      const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, bool isMediaRelative,
                      bool printAbsolutColorimetric, unsigned long numberOfSpectralValues);
    // Same from doubles: arrays and n are narrowed to float on copy; the
    // lookup table is computed from the caller's doubles.
    ZKCSSE_KELMA_Data(unsigned int numberOfInks, unsigned int numberOfGridPoints, const double* gridPoints,
                      const double* effectiveRamps, const double* matrixScheme, double n,
                      const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, bool isMediaRelative,
                      bool printAbsolutColorimetric, unsigned long numberOfSpectralValues);
    ZKCSSE_KELMA_Data(const ZKCSSE_KELMA_Data& other);
    virtual ~ZKCSSE_KELMA_Data();

    float n() const { return n_; }
    unsigned int NumberOfInks() const { return numberOfInks_; }
    unsigned int NumberOfGridPoints() const { return numberOfGridPoints_; }
    unsigned int NumberOfSpectralValues() const { return numberOfSpectralValues_; }
    const float* GridPoints() const { return gridPoints_.data(); }
    const float* EffectiveRamps() const { return effectiveRamps_.data(); }
    const float* MatrixScheme() const { return matrixScheme_.data(); }
    // Number of floats in MatrixScheme(): K (G-1)^N 2^N.
    std::size_t MatrixSchemeSize() const { return matrixScheme_.size(); }
    const ZKCLighting_Matrix& Lighting_Matrix() const { return lightingMatrix_; }
    const ZKCWhitePoint& MediaWhitePoint() const { return mediaWhitePoint_; }
    INK_SET Total_InkSet() const { return inkSet_; }
    bool IsMediaRelative() const { return isMediaRelative_; }
    bool PrintAbsolutColorimetric() const { return printAbsolutColorimetric_; }
    const std::vector<ZKSSSE_EffectiveRampEntry>& EffectiveRampsLUT() const { return effectiveRampsLUT_; }

    void SetIsMediaRelative(bool v) { isMediaRelative_ = v; }
    void SetPrintAbsolutColorimetric(bool v) { printAbsolutColorimetric_ = v; }
    // Keeps only illuminant k in the lighting matrix and the media white point.
    // Throws "Invalid IlluminantIndex" when k is not below the illuminant count.
    void ReduceToSingleIlluminant(unsigned long illuminantIndex);

private:
    // The model file rebuilds a model whose lookup table came from float64
    // ramps (kept in the file) and compares a table with the float32 one.
    friend struct ZKSModelFile;

    // A model object is never assigned.
    ZKCSSE_KELMA_Data& operator=(const ZKCSSE_KELMA_Data&) { return *this; }

    static std::vector<float> Copy_Float_Matrix(const float* source, unsigned int count);
    static AlignedBuffer<float> Copy_SSE_Matrix(const float* source, unsigned int count);
    static std::vector<float> Copy_Double_To_Float_Matrix(const double* source, unsigned int count);
    static AlignedBuffer<float> Copy_Double_To_SSE_Matrix(const double* source, unsigned int count);
    static std::vector<float> CopyToFloat(const float* s, unsigned int count);
    static std::vector<float> CopyToFloat(const double* s, unsigned int count);
    static AlignedBuffer<float> CopyToSSE(const float* s, unsigned int count);
    static AlignedBuffer<float> CopyToSSE(const double* s, unsigned int count);
    template <class T>
    ZKCSSE_KELMA_Data(const T* gridPoints, const T* effectiveRamps, const T* matrixScheme, unsigned int numberOfInks,
                      unsigned int numberOfGridPoints, float n, const ZKCLighting_Matrix& lightingMatrix,
                      INK_SET inkSet, bool isMediaRelative, bool printAbsolutColorimetric,
                      unsigned long numberOfSpectralValues);
    static unsigned int MatrixSchemeCount(unsigned int K, unsigned int N, unsigned int G);
    template <class T>
    static std::vector<ZKSSSE_EffectiveRampEntry> BuildEffectiveRampsLUT(unsigned int N, unsigned int G,
                                                                         const T* gridPoints,
                                                                         const T* effectiveRamps);
    static ZKCWhitePoint CalculateWhitePoint(const ZKCSSE_KELMA_Data& data);

    unsigned int numberOfSpectralValues_;
    unsigned int numberOfInks_;
    unsigned int numberOfGridPoints_;
    std::vector<float> gridPoints_;
    std::vector<float> effectiveRamps_;
    AlignedBuffer<float> matrixScheme_;
    float n_;
    ZKCLighting_Matrix lightingMatrix_;
    ZKCWhitePoint mediaWhitePoint_;
    INK_SET inkSet_;
    bool isMediaRelative_;
    bool printAbsolutColorimetric_;
    std::vector<ZKSSSE_EffectiveRampEntry> effectiveRampsLUT_;
};

}  // namespace KELMA_NAMESPACE
