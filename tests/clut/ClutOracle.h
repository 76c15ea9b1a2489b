// An independent CLUT evaluator for the tests: input maps in exact integer
// arithmetic, node values read straight from the caller's node array (flat
// position of the lower corner plus the corner's node offset, upper faces
// included), weights formed as products per pixel. Shares no code with the
// library's tables or kernels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace clut_test {

// floor(i (n - 1) 2^24 / den + 1/2) >> 19, exactly.
inline std::uint32_t ExactMapEntry(unsigned i, std::uint32_t n, std::uint64_t den) {
    std::uint64_t num = 2ull * i * (n - 1) * (1ull << 24) + den;
    return static_cast<std::uint32_t>((num / (2 * den)) >> 19);
}

inline std::uint32_t StandardEntry(unsigned i, std::uint32_t n) { return ExactMapEntry(i, n, 255); }

inline std::uint32_t LabChromaEntry(unsigned i, std::uint32_t n) {
    return ExactMapEntry(i, n, i <= 128 ? 256 : 254);
}

inline std::size_t Power(std::size_t base, unsigned e) {
    std::size_t r = 1;
    while (e-- > 0) r *= base;
    return r;
}

struct Oracle {
    std::uint32_t n;
    unsigned inputs;
    unsigned outputs;
    bool lab;  // CIELAB maps on channels 1 and 2 (three inputs only)
    const std::vector<std::uint8_t>* nodes;

    std::uint32_t Entry(unsigned axis, unsigned byte) const {
        return lab && axis > 0 ? LabChromaEntry(byte, n) : StandardEntry(byte, n);
    }

    void Apply(const std::uint8_t* pixel, std::uint8_t* out) const {
        std::uint32_t g[4], f[4];
        std::size_t base = 0;
        for (unsigned a = 0; a < inputs; ++a) {
            std::uint32_t e = Entry(a, pixel[a]);
            g[a] = e / 32;
            f[a] = e % 32;
            base += g[a] * Power(n, inputs - 1 - a);
        }
        for (unsigned j = 0; j < outputs; ++j) {
            std::uint64_t acc = 0;
            for (unsigned k = 0; k < (1u << inputs); ++k) {
                std::uint64_t w = 1;
                std::size_t node = base;
                for (unsigned a = 0; a < inputs; ++a) {
                    bool upper = (k >> a) & 1u;
                    w *= upper ? f[a] : 32 - f[a];
                    if (upper) node += Power(n, inputs - 1 - a);
                }
                acc += w * (*nodes)[node * outputs + j];
            }
            out[j] = static_cast<std::uint8_t>(acc >> (5 * inputs));
        }
    }
};

// Node array of the size the workers need, filled with random bytes.
inline std::vector<std::uint8_t> RandomNodes(std::uint32_t n, unsigned inputs, unsigned outputs,
                                             std::uint32_t seed) {
    std::size_t count = 0;
    for (unsigned e = 0; e <= inputs; ++e) count += Power(n, e);
    std::vector<std::uint8_t> nodes(count * outputs);
    std::mt19937 rng(seed);
    for (auto& b : nodes) b = static_cast<std::uint8_t>(rng() & 0xFF);
    return nodes;
}

// Random pixels, then every combination of the edge bytes 0, 1, 127, 128,
// 129, 254, 255 (the map boundaries and the CIELAB split).
inline std::vector<std::uint8_t> TestPixels(unsigned inputs, std::size_t randomCount, std::uint32_t seed) {
    std::vector<std::uint8_t> px;
    std::mt19937 rng(seed);
    for (std::size_t i = 0; i < randomCount * inputs; ++i) px.push_back(static_cast<std::uint8_t>(rng() & 0xFF));
    const std::uint8_t edges[] = {0, 1, 127, 128, 129, 254, 255};
    std::size_t combos = Power(7, inputs);
    for (std::size_t c = 0; c < combos; ++c) {
        std::size_t rest = c;
        for (unsigned a = 0; a < inputs; ++a) {
            px.push_back(edges[rest % 7]);
            rest /= 7;
        }
    }
    return px;
}

}  // namespace clut_test
