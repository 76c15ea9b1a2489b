#include "kelma/evaluation/ToneValue.h"

#include <cmath>

#include "kelma/colorimetry/CIELAB.h"

namespace KELMA_NAMESPACE {

namespace {

void Coordinates(const double* xyz, const double* white, double* v) {
    for (int c = 0; c < 3; ++c) v[c] = 116.0 * CIELABCompand(xyz[c] / white[c]) - 16.0;
}

double Distance(const double* a, const double* b) {
    const double d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
    return std::sqrt(d0 * d0 + d1 * d1 + d2 * d2);
}

}  // namespace

void SpotColourToneValue(const double* xyz, std::size_t count, const double* paper, const double* solid,
                         const double* white, double* toneValue) {
    double vp[3], vs[3], vt[3];
    Coordinates(paper, white, vp);
    Coordinates(solid, white, vs);
    // No scale without a difference between paper and solid: NaN, never infinity.
    const double full = Distance(vs, vp) > 0.0 ? Distance(vs, vp) : std::nan("");
    for (std::size_t i = 0; i < count; ++i) {
        Coordinates(xyz + 3 * i, white, vt);
        toneValue[i] = 100.0 * Distance(vt, vp) / full;
    }
}

double SpotColourToneValue(const double* xyz, const double* paper, const double* solid, const double* white) {
    double tv = 0.0;
    SpotColourToneValue(xyz, 1, paper, solid, white, &tv);
    return tv;
}

int MurrayDaviesChannel(const double* paper, const double* solid) {
    int channel = -1;
    double best = 1.0;  // a ratio P / S must exceed 1: the solid darker than the paper
    for (int c = 0; c < 3; ++c) {
        const double ratio = paper[c] / solid[c];
        if (std::isnan(ratio)) return -1;
        if (ratio > best) best = ratio, channel = c;
    }
    return channel;
}

void MurrayDaviesToneValue(const double* xyz, std::size_t count, const double* paper, const double* solid,
                           double* toneValue) {
    const int c = MurrayDaviesChannel(paper, solid);
    const double full = c < 0 ? std::nan("") : 1.0 - solid[c] / paper[c];
    for (std::size_t i = 0; i < count; ++i)
        toneValue[i] = c < 0 ? std::nan("") : 100.0 * (1.0 - xyz[3 * i + c] / paper[c]) / full;
}

}  // namespace KELMA_NAMESPACE
