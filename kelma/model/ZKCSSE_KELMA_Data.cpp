#include "kelma/model/ZKCSSE_KELMA_Data.h"

#include <cmath>
#include <cstring>

#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"

namespace KELMA_NAMESPACE {

namespace {

// Digital level of a grid point: truncated toward zero, kept inside the ramp
// (NaN and out-of-range levels only occur for malformed grids).
template <class T>
unsigned int LevelOf(T gridPoint) {
    double v = static_cast<double>(gridPoint);
    if (!(v >= 0.0)) return 0;
    if (v >= 255.0) return 255;
    return static_cast<unsigned int>(v);
}

}  // namespace

// Both public constructors: arrays copied (narrowed to float), the lookup
// table built from the caller's own values, then the paper white.
template <class T>
ZKCSSE_KELMA_Data::ZKCSSE_KELMA_Data(const T* gridPoints, const T* effectiveRamps, const T* matrixScheme,
                                     unsigned int numberOfInks, unsigned int numberOfGridPoints, float n,
                                     const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet, bool isMediaRelative,
                                     bool printAbsolutColorimetric, unsigned long numberOfSpectralValues)
    : numberOfSpectralValues_(static_cast<unsigned int>(numberOfSpectralValues)),
      numberOfInks_(numberOfInks),
      numberOfGridPoints_(numberOfGridPoints),
      gridPoints_(CopyToFloat(gridPoints, numberOfInks * numberOfGridPoints)),
      effectiveRamps_(CopyToFloat(effectiveRamps, numberOfInks * 256)),
      matrixScheme_(CopyToSSE(matrixScheme,
                              MatrixSchemeCount(numberOfSpectralValues_, numberOfInks, numberOfGridPoints))),
      n_(n),
      lightingMatrix_(lightingMatrix),
      inkSet_(inkSet),
      isMediaRelative_(isMediaRelative),
      printAbsolutColorimetric_(printAbsolutColorimetric),
      effectiveRampsLUT_(BuildEffectiveRampsLUT(numberOfInks, numberOfGridPoints, gridPoints, effectiveRamps)) {
    // The lighting matrices work on 31-value spectra, so only such a model
    // gets its paper white; any other K keeps the empty default white point.
    if (numberOfSpectralValues_ == kSpectralValues) mediaWhitePoint_ = CalculateWhitePoint(*this);
}

ZKCSSE_KELMA_Data::ZKCSSE_KELMA_Data(unsigned int numberOfInks, unsigned int numberOfGridPoints,
                                     const float* gridPoints, const float* effectiveRamps,
                                     const float* matrixScheme, float n, const ZKCLighting_Matrix& lightingMatrix,
                                     INK_SET inkSet, bool isMediaRelative, bool printAbsolutColorimetric,
                                     unsigned long numberOfSpectralValues)
    : ZKCSSE_KELMA_Data(gridPoints, effectiveRamps, matrixScheme, numberOfInks, numberOfGridPoints, n,
                        lightingMatrix, inkSet, isMediaRelative, printAbsolutColorimetric, numberOfSpectralValues) {}

ZKCSSE_KELMA_Data::ZKCSSE_KELMA_Data(unsigned int numberOfInks, unsigned int numberOfGridPoints,
                                     const double* gridPoints, const double* effectiveRamps,
                                     const double* matrixScheme, double n, const ZKCLighting_Matrix& lightingMatrix,
                                     INK_SET inkSet, bool isMediaRelative, bool printAbsolutColorimetric,
                                     unsigned long numberOfSpectralValues)
    : ZKCSSE_KELMA_Data(gridPoints, effectiveRamps, matrixScheme, numberOfInks, numberOfGridPoints,
                        static_cast<float>(n), lightingMatrix, inkSet, isMediaRelative, printAbsolutColorimetric,
                        numberOfSpectralValues) {}

ZKCSSE_KELMA_Data::ZKCSSE_KELMA_Data(const ZKCSSE_KELMA_Data& other) = default;

ZKCSSE_KELMA_Data::~ZKCSSE_KELMA_Data() = default;

unsigned int ZKCSSE_KELMA_Data::MatrixSchemeCount(unsigned int K, unsigned int N, unsigned int G) {
    unsigned int cells = static_cast<unsigned int>(std::pow(static_cast<double>(G) - 1.0, static_cast<double>(N)));
    return (K * cells) << N;
}

std::vector<float> ZKCSSE_KELMA_Data::Copy_Float_Matrix(const float* source, unsigned int count) {
    return std::vector<float>(source, source + count);
}

AlignedBuffer<float> ZKCSSE_KELMA_Data::Copy_SSE_Matrix(const float* source, unsigned int count) {
    return AlignedBuffer<float>(source, count);
}

std::vector<float> ZKCSSE_KELMA_Data::Copy_Double_To_Float_Matrix(const double* source, unsigned int count) {
    std::vector<float> out(count);
    for (unsigned int i = 0; i < count; ++i) out[i] = static_cast<float>(source[i]);
    return out;
}

AlignedBuffer<float> ZKCSSE_KELMA_Data::Copy_Double_To_SSE_Matrix(const double* source, unsigned int count) {
    AlignedBuffer<float> out(count);
    for (unsigned int i = 0; i < count; ++i) out[i] = static_cast<float>(source[i]);
    return out;
}

std::vector<float> ZKCSSE_KELMA_Data::CopyToFloat(const float* s, unsigned int count) { return Copy_Float_Matrix(s, count); }
std::vector<float> ZKCSSE_KELMA_Data::CopyToFloat(const double* s, unsigned int count) {
    return Copy_Double_To_Float_Matrix(s, count);
}
AlignedBuffer<float> ZKCSSE_KELMA_Data::CopyToSSE(const float* s, unsigned int count) { return Copy_SSE_Matrix(s, count); }
AlignedBuffer<float> ZKCSSE_KELMA_Data::CopyToSSE(const double* s, unsigned int count) {
    return Copy_Double_To_SSE_Matrix(s, count);
}

// Per ink: walk t = 0..255; at each grid level (not 255) a new cell starts:
// cell += 1 (the unsigned counter starts at -1, so the first level gives 0),
// base = ramp[level], scale = 1 / (ramp[next level] - ramp[level]) or 1.0 for
// a flat segment. weight(t) = (ramp[t] - base) scale in double, stored as
// float: 0 at a grid level (the upper cell is chosen), 1 at 255.
template <class T>
std::vector<ZKSSSE_EffectiveRampEntry> ZKCSSE_KELMA_Data::BuildEffectiveRampsLUT(unsigned int N, unsigned int G,
                                                                                 const T* gridPoints,
                                                                                 const T* effectiveRamps) {
    std::vector<ZKSSSE_EffectiveRampEntry> lut(std::size_t{N} * 256);
    for (unsigned int i = 0; i < N; ++i) {
        const T* grid = gridPoints + std::size_t{i} * G;
        const T* ramp = effectiveRamps + std::size_t{i} * 256;
        std::uint32_t stride =
            static_cast<std::uint32_t>(std::pow(static_cast<double>(G) - 1.0, static_cast<double>(i)));
        std::uint32_t cell = 0xFFFFFFFFu;
        double base = G > 0 ? static_cast<double>(ramp[LevelOf(grid[0])]) : 0.0;
        double scale = 0.0;
        unsigned int p = 0;
        for (unsigned int t = 0; t < 256; ++t) {
            if (p < G && t == LevelOf(grid[p])) {
                if (t != 255) {
                    cell = cell + 1;
                    // A last grid point below 255 (malformed) closes its cell at 255.
                    unsigned int next = p + 1 < G ? LevelOf(grid[p + 1]) : 255;
                    double d = static_cast<double>(ramp[next]) - static_cast<double>(ramp[t]);
                    base = static_cast<double>(ramp[t]);
                    scale = d != 0.0 ? 1.0 / d : 1.0;
                }
                ++p;
            }
            ZKSSSE_EffectiveRampEntry& e = lut[std::size_t{i} * 256 + t];
            e.cellOffset = cell * stride;
            e.weight = static_cast<float>((static_cast<double>(ramp[t]) - base) * scale);
        }
    }
    return lut;
}

// Used by the model file as well (a friend), so both are instantiated here.
template std::vector<ZKSSSE_EffectiveRampEntry> ZKCSSE_KELMA_Data::BuildEffectiveRampsLUT<float>(
    unsigned int, unsigned int, const float*, const float*);
template std::vector<ZKSSSE_EffectiveRampEntry> ZKCSSE_KELMA_Data::BuildEffectiveRampsLUT<double>(
    unsigned int, unsigned int, const double*, const double*);

ZKCWhitePoint ZKCSSE_KELMA_Data::CalculateWhitePoint(const ZKCSSE_KELMA_Data& data) {
    std::vector<unsigned char> paper(data.NumberOfInks(), 0);
    AlignedBuffer<float> spectrum(kSpectrumStride);
    if (data.NumberOfInks() > 4) {
        // The blank substrate is the same in every sub-model: inks 0-3 suffice.
        ZKCSSE_KELMA_Datafilter cmyk(data, 0xFFFFFF0Fu);
        ZKCSSE_KELMA_Thread driver(cmyk.GetKELMA_Data(), 1, paper.data(), spectrum.data());
        driver.Wait();
    } else {
        ZKCSSE_KELMA_Thread driver(data, 1, paper.data(), spectrum.data());
        driver.Wait();
    }
    const ZKCLighting_Matrix& matrix = data.Lighting_Matrix();
    std::vector<float> xyz(3 * std::size_t{matrix.IlluminantNumber()});
    matrix.CalculateCIEXYZ(xyz.data(), spectrum.data(), 1, nullptr);
    return ZKCWhitePoint(xyz);
}

void ZKCSSE_KELMA_Data::ReduceToSingleIlluminant(unsigned long illuminantIndex) {
    ZKCLighting_Matrix single;
    lightingMatrix_.ExtractSingleIlluminant_Lighting_Matrix(single, illuminantIndex);
    lightingMatrix_ = single;
    mediaWhitePoint_.ReduceToSingleIlluminant(illuminantIndex);
}

}  // namespace KELMA_NAMESPACE
