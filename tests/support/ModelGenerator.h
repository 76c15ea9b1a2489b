// Physically plausible printer models for tests and benchmarks.
//
// Node spectra of a G^N grid follow a Beer-Lambert style mixture
// R(lambda) = paper(lambda) prod_k exp(-a_k(lambda) d_k), d_k = level_k / 255,
// so every reflectance is in (0, 1]. Each cell's corner values r = R^(1/n)
// become the multilinear coefficient block by Moebius inversion,
// c_j = sum_{k subset of j} (-1)^(|j|-|k|) r_k, in the model's memory layout.
// The effective ramps carry dot gain: x + gain x (1 - x), x = t / 255.
#pragma once

#include <cstdint>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace kelma_test {

struct ZKSTestModel {
    unsigned int inks = 0;
    unsigned int gridPoints = 0;
    double n = 2.0;
    std::vector<double> grid;    // inks x G whole levels, 0 .. 255
    std::vector<double> ramps;   // inks x 256
    std::vector<double> scheme;  // 31 x (G-1)^N x 2^N
    std::vector<double> paper;   // 31
    std::vector<double> absorption;  // inks x 31

    // Spectrum (31 values) of the node with per-ink grid indices `node`.
    std::vector<double> NodeSpectrum(const std::vector<unsigned int>& node) const;
    // Independent double-precision prediction of one sample: find each ink's
    // cell by searching the grid, interpolate the corner values r = R^(1/n)
    // with Demichel weights, raise to n. Shares no code with the library.
    std::vector<double> Reference(const unsigned char* sample) const;

    std::vector<float> GridF() const { return {grid.begin(), grid.end()}; }
    std::vector<float> RampsF() const { return {ramps.begin(), ramps.end()}; }
    std::vector<float> SchemeF() const { return {scheme.begin(), scheme.end()}; }

    // The library model from the float arrays (D50 / 2 degree unless given).
    kelma::ZKCSSE_KELMA_Data Build(bool mediaRelative = false) const;
    kelma::ZKCSSE_KELMA_Data Build(const kelma::ZKCLighting_Matrix& matrix, bool mediaRelative) const;
};

ZKSTestModel MakeTestModel(unsigned int inks, unsigned int gridPoints, double n, std::uint32_t seed);
// A press-like model (no randomness): inks C, M, Y, K, then orange, green and
// violet (6 inks: orange and green), each with the absorption band of its
// name, a near-white paper and 15-20 % dot gain, on an even grid.
ZKSTestModel MakePressLikeModel(unsigned int inks, unsigned int gridPoints, double n);
// Computes m.scheme from the node spectra of m's grid, paper and absorption.
void FillScheme(ZKSTestModel& m);

kelma::ZKCLighting_Matrix D50Matrix();

}  // namespace kelma_test
