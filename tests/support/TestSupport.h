// Shared helpers for the tests and benchmarks.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace kelma_test {

// Bitwise equality of floats (distinguishes -0/+0, matches NaN payloads).
inline bool SameBits(float a, float b) {
    std::uint32_t x, y;
    std::memcpy(&x, &a, 4);
    std::memcpy(&y, &b, 4);
    return x == y;
}

// `count` reflectance spectra in (0, 1], 32 floats each with slot 31 = 0.
kelma::AlignedBuffer<float> RandomSpectra(std::size_t count, std::uint32_t seed);

// Text of the plain character-string exception (the library's failure
// convention) that `f` throws; "" when it throws nothing.
template <class F>
std::string ThrownText(F f) {
    try {
        f();
    } catch (const char* text) {
        return text;
    }
    return "";
}

// Runs the enclosing scope with the processor count forced to `n`.
class ScopedCPUCount {
public:
    explicit ScopedCPUCount(unsigned int n);
    ~ScopedCPUCount();
};

}  // namespace kelma_test
