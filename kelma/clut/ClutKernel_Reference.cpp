// Plain reference loops: the formulas of ClutKernel.h, one pixel, one output
// and one corner at a time, reading the shared weight table row by row and the
// corner-major cell blocks. The optimised kernels are checked against these.
#include "kelma/clut/ClutKernel.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

template <unsigned M>
void Interpolate3(const ZKSClutTables3& t, const std::uint8_t* in, std::uint8_t* out, std::uint32_t count) {
    for (std::uint32_t px = 0; px < count; ++px, in += 3, out += M) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        // row = f0 1024 + f1 32 + f2
        const std::uint32_t row = (e0 & kClutPositionMask) * 1024 + (e1 & kClutPositionMask) * 32 +
                                  (e2 & kClutPositionMask);
        const std::uint32_t* w = t.weights + std::size_t(row) * 8;
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   (e2 >> kClutPositionBits);
        const std::uint8_t* block = t.cells + std::size_t(cell) * (8 * M);
        for (unsigned j = 0; j < M; ++j) {
            std::uint32_t acc = 0;
            for (unsigned k = 0; k < 8; ++k) acc += w[k] * block[k * M + j];
            out[j] = t.outputMap[j][acc >> 15];
        }
    }
}

}  // namespace

void InterpolateClut3_Reference(const ZKSClutTables3& t, unsigned m, const std::uint8_t* in, std::uint8_t* out,
                                std::uint32_t count) {
    switch (m) {
        case 3: Interpolate3<3>(t, in, out, count); break;
        case 4: Interpolate3<4>(t, in, out, count); break;
        case 7: Interpolate3<7>(t, in, out, count); break;
        default: throw kErrorDefaultCase;
    }
}

void InterpolateClut4x3_Reference(const ZKSClutTables4& t, const std::uint8_t* in, std::uint8_t* out,
                                  std::uint32_t count) {
    for (std::uint32_t px = 0; px < count; ++px, in += 4, out += 3) {
        const InputMapEntry e0 = t.inputMap[0][in[0]];
        const InputMapEntry e1 = t.inputMap[1][in[1]];
        const InputMapEntry e2 = t.inputMap[2][in[2]];
        const InputMapEntry e3 = t.inputMap[3][in[3]];
        // row = f0 32768 + f1 1024 + f2 32 + f3
        const std::uint32_t row = (e0 & kClutPositionMask) * 32768 + (e1 & kClutPositionMask) * 1024 +
                                  (e2 & kClutPositionMask) * 32 + (e3 & kClutPositionMask);
        const std::uint32_t* w = t.weights + std::size_t(row) * 16;
        const std::uint32_t cell = t.stride0[e0 >> kClutPositionBits] + t.stride1[e1 >> kClutPositionBits] +
                                   t.stride2[e2 >> kClutPositionBits] + (e3 >> kClutPositionBits);
        const std::uint8_t* block = t.cells + std::size_t(cell) * 48;
        for (unsigned j = 0; j < 3; ++j) {
            std::uint32_t acc = 0;
            for (unsigned k = 0; k < 16; ++k) acc += w[k] * block[k * 3 + j];
            out[j] = t.outputMap[j][acc >> 20];
        }
    }
}

}  // namespace KELMA_NAMESPACE
