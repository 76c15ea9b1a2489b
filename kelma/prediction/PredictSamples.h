// Shared body of the 4-, 6- and 7-ink kernels: per sample, the cell sums
// (CellSums_SSE.h) and then the Yule-Nielsen power of each.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "kelma/prediction/CellSums_SSE.h"
#include "kelma/prediction/YuleNielsenPower.h"

namespace KELMA_NAMESPACE {

// out[w] = s_w^n in single precision for w < values, then out[values] = 0.0
// unless the records are packed (values floats per sample, no pad); nothing
// is clamped. The power (YuleNielsenPower.h) stays within 2 ulp of
// powf and keeps powf's special cases: s = 0 -> 0, s = 1 -> 1, s < 0 with a
// non-integer n -> NaN. input advances N bytes and out `outStride` floats
// per sample.
template <int NV, int PASS>
void PredictSamples(const ZKCSSE_KELMA_Data& data, unsigned int count, const unsigned char* input, float* out,
                    unsigned int values, unsigned int outStride, bool packed = false) {
    constexpr int N = NV == 4 ? 4 : (NV == 16 ? 6 : 7);
    const ZKSSSE_EffectiveRampEntry* lut = data.EffectiveRampsLUT().data();
    const float* scheme = data.MatrixScheme();
    const float n = data.n();
    // The power runs on whole 8-lane groups when the output record has room
    // (31 values in a 32-float record); the extra lane holds 1.0 and its
    // result is overwritten by the pad.
    const unsigned int padded = (values + 7) / 8 * 8;
    const unsigned int powerCount = padded <= outStride ? padded : values;
    std::vector<float> sums(std::max(values + PASS, padded), 1.0f);
    if (packed) {
        // Whole groups into a scratch record, then only the values go out.
        std::vector<float> record(padded);
        for (unsigned int s = 0; s < count; ++s, input += N, out += outStride) {
            CellSums_SSE<NV, PASS>(lut, scheme, input, values, sums.data());
            YuleNielsenPower(sums.data(), n, record.data(), padded);
            std::copy(record.begin(), record.begin() + values, out);
        }
        return;
    }
    for (unsigned int s = 0; s < count; ++s, input += N, out += outStride) {
        CellSums_SSE<NV, PASS>(lut, scheme, input, values, sums.data());
        YuleNielsenPower(sums.data(), n, out, powerCount);
        out[values] = 0.0f;
    }
}

}  // namespace KELMA_NAMESPACE
