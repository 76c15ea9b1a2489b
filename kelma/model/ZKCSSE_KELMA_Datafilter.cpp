#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"

#include <cmath>

namespace KELMA_NAMESPACE {

namespace {
constexpr unsigned int kWholeModel = 0xFFFFFFFFu;
}

ZKCSSE_KELMA_Datafilter::~ZKCSSE_KELMA_Datafilter() = default;

unsigned int ZKCSSE_KELMA_Datafilter::GetSubSet_NumberOfInks(unsigned int numberOfInks, unsigned int code) {
    unsigned int n = 0;
    for (unsigned int i = 0; i < numberOfInks && i < 32; ++i)
        if (code & (1u << i)) ++n;
    return n;
}

std::vector<double> ZKCSSE_KELMA_Datafilter::GetBase(unsigned int numberOfInks, unsigned int numberOfGridPoints) {
    std::vector<double> base(numberOfInks);
    for (unsigned int i = 0; i < numberOfInks; ++i)
        base[i] = std::pow(static_cast<double>(numberOfGridPoints) - 1.0, static_cast<double>(i));
    return base;
}

unsigned int ZKCSSE_KELMA_Datafilter::GetCode(unsigned int cell, unsigned int numberOfInks,
                                              const std::vector<double>& base) {
    unsigned int code = 0;
    double taken = 0.0;
    for (unsigned int i = numberOfInks; i-- > 0;) {
        double digit = std::floor((static_cast<double>(cell) - taken) / base[i]);
        taken += digit * base[i];
        if (digit != 0.0) code |= 1u << i;
    }
    return code;
}

template <class T>
ZKCSSE_KELMA_Datafilter::Filtered<T> ZKCSSE_KELMA_Datafilter::Filter(unsigned int N, unsigned int G,
                                                                     const T* gridPoints, const T* effectiveRamps,
                                                                     const T* matrixScheme, unsigned int code) {
    Filtered<T> f;
    f.inks = GetSubSet_NumberOfInks(N, code);
    for (unsigned int i = 0; i < N; ++i) {
        if (!(code & (1u << i))) continue;
        f.gridPoints.insert(f.gridPoints.end(), gridPoints + std::size_t{i} * G, gridPoints + std::size_t{i + 1} * G);
        f.effectiveRamps.insert(f.effectiveRamps.end(), effectiveRamps + std::size_t{i} * 256,
                                effectiveRamps + std::size_t{i + 1} * 256);
    }
    const std::vector<double> base = GetBase(N, G);
    const unsigned int cells = static_cast<unsigned int>(std::pow(static_cast<double>(G) - 1.0, static_cast<double>(N)));
    const unsigned int corners = 1u << N;
    f.matrixScheme.reserve(std::size_t{kSpectralValues}
                           * static_cast<std::size_t>(std::pow(static_cast<double>(G) - 1.0, f.inks)) << f.inks);
    for (unsigned int q = 0; q < cells; ++q) {
        if ((code | GetCode(q, N, base)) != code) continue;
        // Every model of the library has 31 values per corner group.
        const T* block = matrixScheme + std::size_t{q} * corners * kSpectralValues;
        for (unsigned int w = 0; w < kSpectralValues; ++w)
            for (unsigned int k = 0; k < corners; ++k)
                if ((code | k) == code) f.matrixScheme.push_back(block[std::size_t{w} * corners + k]);
    }
    return f;
}

ZKCSSE_KELMA_Datafilter::ZKCSSE_KELMA_Datafilter(const ZKCSSE_KELMA_Data& fullModel, unsigned int code) {
    if (code == kWholeModel) {
        data_ = std::make_shared<ZKCSSE_KELMA_Data>(fullModel);
        return;
    }
    Filtered<float> f = Filter(fullModel.NumberOfInks(), fullModel.NumberOfGridPoints(), fullModel.GridPoints(),
                               fullModel.EffectiveRamps(), fullModel.MatrixScheme(), code);
    data_ = std::make_shared<ZKCSSE_KELMA_Data>(
        f.inks, fullModel.NumberOfGridPoints(), f.gridPoints.data(), f.effectiveRamps.data(), f.matrixScheme.data(),
        fullModel.n(), fullModel.Lighting_Matrix(), fullModel.Total_InkSet(), fullModel.IsMediaRelative(),
        fullModel.PrintAbsolutColorimetric(), kSpectralValues);
}

ZKCSSE_KELMA_Datafilter::ZKCSSE_KELMA_Datafilter(unsigned int numberOfInks, unsigned int numberOfGridPoints,
                                                 const double* gridPoints, const double* effectiveRamps,
                                                 const double* matrixScheme, double n,
                                                 const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet,
                                                 unsigned int code, bool isMediaRelative,
                                                 bool printAbsolutColorimetric) {
    if (code == kWholeModel) {
        data_ = std::make_shared<ZKCSSE_KELMA_Data>(numberOfInks, numberOfGridPoints, gridPoints, effectiveRamps,
                                                    matrixScheme, n, lightingMatrix, inkSet, isMediaRelative,
                                                    printAbsolutColorimetric, kSpectralValues);
        return;
    }
    Filtered<double> f = Filter(numberOfInks, numberOfGridPoints, gridPoints, effectiveRamps, matrixScheme, code);
    data_ = std::make_shared<ZKCSSE_KELMA_Data>(f.inks, numberOfGridPoints, f.gridPoints.data(),
                                                f.effectiveRamps.data(), f.matrixScheme.data(), n, lightingMatrix,
                                                inkSet, isMediaRelative, printAbsolutColorimetric, kSpectralValues);
}

}  // namespace KELMA_NAMESPACE
