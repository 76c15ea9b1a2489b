// Shared body of the 4-, 6- and 7-ink kernels: per sample, the cell sums
// (CellSums_SSE.h) and then the Yule-Nielsen power of each.
#pragma once

#include <cmath>
#include <vector>

#include "kelma/prediction/CellSums_SSE.h"

namespace KELMA_NAMESPACE {

// out[w] = powf(s_w, n) in single precision for w < values, out[values] = 0.0;
// input advances N bytes and out `outStride` floats per sample. powf keeps
// its special cases: s = 0 -> 0 (n > 0), s = 1 -> 1, s < 0 with a
// non-integer n -> NaN; nothing is clamped.
template <int NV, int PASS>
void PredictSamples(const ZKCSSE_KELMA_Data& data, unsigned int count, const unsigned char* input, float* out,
                    unsigned int values, unsigned int outStride) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    const ZKSSSE_EffectiveRampEntry* lut = data.EffectiveRampsLUT().data();
    const float* scheme = data.MatrixScheme();
    const float n = data.n();
    std::vector<float> sums(values + PASS);
    for (unsigned int s = 0; s < count; ++s, input += N, out += outStride) {
        CellSums_SSE<NV, PASS>(lut, scheme, input, values, sums.data());
        for (unsigned int w = 0; w < values; ++w) out[w] = std::pow(sums[w], n);
        out[values] = 0.0f;
    }
}

}  // namespace KELMA_NAMESPACE
