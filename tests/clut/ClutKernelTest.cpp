// The CLUT kernel of the variant under test (ActiveKernelVariant(): the suite
// runs once per variant) against the reference loop, byte for byte: every
// 256^3 input of the three-input kernels, large random and structured sets
// for the four-input kernel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "tests/clut/ClutOracle.h"

using namespace kelma;

namespace {

// The variant under test, or a skip with the reason when it has no kernel of
// its own to compare with the reference loop. (A variant that runs a lower
// variant's kernels, AVX-512 today, compares those again: a run under the
// processor's best variant alone then still covers its kernels.)
#define KELMA_CLUT_VARIANT_OR_SKIP(variant)                                                                   \
    const KERNEL_VARIANT variant = ActiveKernelVariant();                                                     \
    if (ClutKernelVariant(variant) == KERNEL_REFERENCE)                                                       \
        GTEST_SKIP() << "the " << KernelVariantName(variant)                                                  \
                     << " variant runs the reference loop itself (no CLUT kernel of its own to compare)";

// Under AddressSanitizer the reference loop runs several times slower; that
// build looks for memory errors, and the exhaustive comparisons run in full
// in the normal build, so it takes every 17th slab and fewer random pixels.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

std::vector<std::uint8_t> Apply(ZKCWorkerCLUT_Base& w, const std::uint8_t* px, std::size_t count,
                              KERNEL_VARIANT variant) {
    std::vector<std::uint8_t> out(count * w.OutputChannels(), 0xA5);
    w.SetBuffers(px, out.data(), count);
    w.InterpolateWith(variant);
    return out;
}

template <class W>
std::unique_ptr<ZKCWorkerCLUT_Base> Make(const std::vector<std::uint8_t>& nodes, std::uint32_t n) {
    return std::make_unique<W>(nodes.data(), static_cast<CLUT_ACCURACY>(n));
}

// First differing pixel of two runs, described for a failure message.
std::string FirstDifference(const std::vector<std::uint8_t>& got, const std::vector<std::uint8_t>& want,
                            const std::uint8_t* px, unsigned inputs, unsigned outputs) {
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (got[i] == want[i]) continue;
        const std::size_t p = i / outputs;
        std::string s = "pixel " + std::to_string(p) + " (";
        for (unsigned a = 0; a < inputs; ++a) s += std::to_string(px[p * inputs + a]) + (a + 1 < inputs ? "," : ")");
        return s + " channel " + std::to_string(i % outputs) + ": " + std::to_string(got[i]) + " instead of " +
               std::to_string(want[i]);
    }
    return "";
}

// All 256^3 inputs, one 256 x 256 slab per first byte (the first and last
// bytes and every 17th under a sanitizer).
void ExpectEveryInputMatches(ZKCWorkerCLUT_Base& w, KERNEL_VARIANT variant, const char* name) {
    std::vector<std::uint8_t> slab(256 * 256 * 3);
    for (unsigned c0 = 0; c0 < 256; ++c0) {
        if (kSanitized && c0 % 17 != 0 && c0 != 1 && c0 != 254) continue;
        for (unsigned i = 0; i < 256 * 256; ++i) {
            slab[i * 3] = static_cast<std::uint8_t>(c0);
            slab[i * 3 + 1] = static_cast<std::uint8_t>(i >> 8);
            slab[i * 3 + 2] = static_cast<std::uint8_t>(i & 255);
        }
        const std::vector<std::uint8_t> want = Apply(w, slab.data(), 256 * 256, KERNEL_REFERENCE);
        const std::vector<std::uint8_t> got = Apply(w, slab.data(), 256 * 256, variant);
        if (got != want) {
            ADD_FAILURE() << name << ": " << FirstDifference(got, want, slab.data(), 3, w.OutputChannels());
            return;
        }
    }
}

// Combinations of the bytes that matter for an n-point grid on every axis:
// both ends, the CIELAB split, and each byte that lands on or next to a node.
std::vector<std::uint8_t> StructuredBytes(std::uint32_t n) {
    std::vector<std::uint8_t> bytes = {0, 1, 2, 127, 128, 129, 253, 254, 255};
    const std::vector<InputMapEntry> map = StandardInputMap(n);
    for (unsigned b = 1; b < 256; ++b)
        if ((map[b] >> kClutPositionBits) != (map[b - 1] >> kClutPositionBits)) {
            bytes.push_back(static_cast<std::uint8_t>(b - 1));
            bytes.push_back(static_cast<std::uint8_t>(b));
        }
    std::sort(bytes.begin(), bytes.end());
    bytes.erase(std::unique(bytes.begin(), bytes.end()), bytes.end());
    return bytes;
}

std::vector<std::uint8_t> Product4(const std::vector<std::uint8_t>& bytes, std::size_t limit) {
    std::vector<std::uint8_t> px;
    const std::size_t b = bytes.size();
    for (std::size_t i = 0; i < b * b * b * b && px.size() < limit * 4; ++i) {
        px.push_back(bytes[i % b]);
        px.push_back(bytes[(i / b) % b]);
        px.push_back(bytes[(i / (b * b)) % b]);
        px.push_back(bytes[i / (b * b * b)]);
    }
    return px;
}

}  // namespace

TEST(ClutKernels, WorkersRunTheVariantActiveAtTheirConstruction) {
    const KERNEL_VARIANT active = ActiveKernelVariant();
    auto nodes = clut_test::RandomNodes(5, 4, 3, 1);
    ZKCWorkerCLUT_4x3 w(nodes.data(), CLUT_ACCURACY_5);
    EXPECT_EQ(w.Variant(), active);
    const KERNEL_VARIANT cap = KernelVariantCap();
    SetKernelVariantCap(KERNEL_REFERENCE);
    ZKCWorkerCLUT_4x3 capped(nodes.data(), CLUT_ACCURACY_5);
    ZKCWorkerCLUT_4x3 copyUnderCap(w);
    SetKernelVariantCap(cap);
    EXPECT_EQ(capped.Variant(), KERNEL_REFERENCE);
    EXPECT_EQ(copyUnderCap.Variant(), active);  // a copy keeps its source's choice
    ZKCWorkerCLUT_4x3 copyOfCapped(capped);
    EXPECT_EQ(copyOfCapped.Variant(), KERNEL_REFERENCE);

    // Each variant maps to a kernel of its own level or the reference loop.
    EXPECT_EQ(ClutKernelVariant(KERNEL_REFERENCE), KERNEL_REFERENCE);
    EXPECT_EQ(ClutKernelVariant(KERNEL_SSE2), KERNEL_REFERENCE);
    EXPECT_EQ(ClutKernelVariant(KERNEL_SSSE3), KERNEL_SSSE3);
    EXPECT_EQ(ClutKernelVariant(KERNEL_AVX2), KERNEL_AVX2);
    EXPECT_GE(ClutKernelVariant(KERNEL_AVX512), KERNEL_AVX2);
}

TEST(ClutKernels, EveryThreeInputByteTripleMatchesTheReferenceLoop) {
    KELMA_CLUT_VARIANT_OR_SKIP(variant);
    const std::uint32_t n = 17;
    struct Case {
        const char* name;
        std::unique_ptr<ZKCWorkerCLUT_Base> w;
    } cases[] = {
        {"3x3", Make<ZKCWorkerCLUT_3x3>(clut_test::RandomNodes(n, 3, 3, 1), n)},
        {"3x4", Make<ZKCWorkerCLUT_3x4>(clut_test::RandomNodes(n, 3, 4, 2), n)},
        {"3x7", Make<ZKCWorkerCLUT_3x7>(clut_test::RandomNodes(n, 3, 7, 3), n)},
        // CIELAB maps reach past the last node on the a and b axes.
        {"3x3_InLAB", Make<ZKCWorkerCLUT_3x3_InLAB>(clut_test::RandomNodes(n, 3, 3, 4), n)},
    };
    for (Case& c : cases) ExpectEveryInputMatches(*c.w, variant, c.name);
}

TEST(ClutKernels, ThreeInputKernelsMatchTheReferenceOnEveryGridAndClass) {
    KELMA_CLUT_VARIANT_OR_SKIP(variant);
    using Maker = std::unique_ptr<ZKCWorkerCLUT_Base> (*)(const std::vector<std::uint8_t>&, std::uint32_t);
    const struct {
        const char* name;
        unsigned outputs;
        Maker make;
    } classes[] = {{"3x3", 3, Make<ZKCWorkerCLUT_3x3>},           {"3x3_InLAB", 3, Make<ZKCWorkerCLUT_3x3_InLAB>},
                   {"3x4", 4, Make<ZKCWorkerCLUT_3x4>},           {"3x4_InLAB", 4, Make<ZKCWorkerCLUT_3x4_InLAB>},
                   {"3x7", 7, Make<ZKCWorkerCLUT_3x7>},           {"3x7_InLAB", 7, Make<ZKCWorkerCLUT_3x7_InLAB>}};
    for (const auto& c : classes) {
        for (std::uint32_t n : {2u, 3u, 9u, 16u, 33u, 65u}) {
            auto w = c.make(clut_test::RandomNodes(n, 3, c.outputs, 100 + n), n);
            auto px = clut_test::TestPixels(3, 30000, 200 + n);
            const std::size_t count = px.size() / 3;
            const auto want = Apply(*w, px.data(), count, KERNEL_REFERENCE);
            const auto got = Apply(*w, px.data(), count, variant);
            ASSERT_EQ(got, want) << c.name << " n=" << n << ": " << FirstDifference(got, want, px.data(), 3, c.outputs);
        }
    }
}

TEST(ClutKernels, FourInputKernelMatchesTheReferenceOnRandomAndStructuredPixels) {
    KELMA_CLUT_VARIANT_OR_SKIP(variant);
    for (std::uint32_t n : {2u, 3u, 5u, 16u, 17u, 33u}) {
        auto nodes = clut_test::RandomNodes(n, 4, 3, 300 + n);
        ZKCWorkerCLUT_4x3 w(nodes.data(), static_cast<CLUT_ACCURACY>(n));
        std::vector<std::uint8_t> px = Product4(StructuredBytes(n), kSanitized ? 1u << 17 : 1u << 20);
        std::mt19937 rng(400 + n);
        const std::size_t random = (n == 17 ? (1u << 21) : (1u << 17)) >> (kSanitized ? 3 : 0);
        for (std::size_t i = 0; i < random * 4; ++i) px.push_back(static_cast<std::uint8_t>(rng()));
        const std::size_t count = px.size() / 4;
        const auto want = Apply(w, px.data(), count, KERNEL_REFERENCE);
        const auto got = Apply(w, px.data(), count, variant);
        ASSERT_EQ(got, want) << "n=" << n << ": " << FirstDifference(got, want, px.data(), 4, 3);
    }
}

// Node values at the extremes give the largest partial sums (all 255) and the
// sharpest cancellations between neighbours (0 and 255 alternating).
TEST(ClutKernels, ExtremeNodeValuesMatchTheReferenceLoop) {
    KELMA_CLUT_VARIANT_OR_SKIP(variant);
    const std::uint32_t n = 17;
    auto px4 = Product4(StructuredBytes(n), 1u << 20);
    auto px3 = clut_test::TestPixels(3, 50000, 9);
    for (int pattern = 0; pattern < 3; ++pattern) {
        auto fill = [pattern](std::vector<std::uint8_t>& nodes, unsigned outputs) {
            for (std::size_t i = 0; i < nodes.size(); ++i)
                nodes[i] = pattern == 0 ? 255 : pattern == 1 ? ((i / outputs) % 2 ? 255 : 0) : ((i * 7919) % 3 ? 0 : 255);
        };
        auto nodes4 = clut_test::RandomNodes(n, 4, 3, 1);
        fill(nodes4, 3);
        ZKCWorkerCLUT_4x3 w4(nodes4.data(), CLUT_ACCURACY_17);
        const auto want4 = Apply(w4, px4.data(), px4.size() / 4, KERNEL_REFERENCE);
        EXPECT_EQ(Apply(w4, px4.data(), px4.size() / 4, variant), want4) << "4x3 pattern " << pattern;
        if (pattern == 0) {
            EXPECT_EQ(want4, std::vector<std::uint8_t>(want4.size(), 255));
        }
        for (unsigned outputs : {3u, 4u, 7u}) {
            auto nodes3 = clut_test::RandomNodes(n, 3, outputs, 2);
            fill(nodes3, outputs);
            std::unique_ptr<ZKCWorkerCLUT_Base> w3 = outputs == 3   ? Make<ZKCWorkerCLUT_3x3>(nodes3, n)
                                                     : outputs == 4 ? Make<ZKCWorkerCLUT_3x4>(nodes3, n)
                                                                    : Make<ZKCWorkerCLUT_3x7>(nodes3, n);
            const auto want3 = Apply(*w3, px3.data(), px3.size() / 3, KERNEL_REFERENCE);
            EXPECT_EQ(Apply(*w3, px3.data(), px3.size() / 3, variant), want3)
                << "3x" << outputs << " pattern " << pattern;
        }
    }
}

// The kernels read the output maps (identity in every worker) rather than
// assuming them: with other maps they still agree with the reference loop.
TEST(ClutKernels, KernelsApplyTheOutputMaps) {
    KELMA_CLUT_VARIANT_OR_SKIP(variant);
    std::vector<OutputMapEntry> reversed(kOutputMapSize), halved(kOutputMapSize), squared(kOutputMapSize);
    for (unsigned i = 0; i < kOutputMapSize; ++i) {
        reversed[i] = static_cast<OutputMapEntry>(255 - std::min(i, 255u));
        halved[i] = static_cast<OutputMapEntry>(i / 2);
        squared[i] = static_cast<OutputMapEntry>(std::min(i, 255u) * std::min(i, 255u) / 255);
    }
    const OutputMapEntry* maps[7] = {reversed.data(), halved.data(), squared.data(), reversed.data(),
                                     halved.data(),   squared.data(), reversed.data()};

    const std::uint32_t n = 17;
    auto nodes4 = clut_test::RandomNodes(n, 4, 3, 5);
    ZKCWorkerCLUT_4x3 w4(nodes4.data(), CLUT_ACCURACY_17);
    ZKSClutTables4 t4{};
    for (unsigned a = 0; a < 4; ++a) t4.inputMap[a] = w4.InputMap(a);
    for (unsigned j = 0; j < 3; ++j) t4.outputMap[j] = maps[j];
    const std::vector<std::uint32_t> s0 = {0, n * n * n}, s1 = {0, n * n}, s2 = {0, n};
    std::vector<std::uint32_t> stride0(n), stride1(n), stride2(n);
    for (std::uint32_t g = 0; g < n; ++g) {
        stride0[g] = g * n * n * n;
        stride1[g] = g * n * n;
        stride2[g] = g * n;
    }
    t4.stride0 = stride0.data();
    t4.stride1 = stride1.data();
    t4.stride2 = stride2.data();
    t4.cells = w4.CellBlock(0);
    t4.weights = w4.Weights().Rows();
    t4.pairs = w4.Weights().Pairs();
    t4.axis = w4.Weights().AxisFactors();
    t4.nodes = w4.Nodes();
    for (unsigned k = 0; k < 8; ++k) t4.cornerOffset[k] = 3 * ((k & 1) * n * n * n + (k >> 1 & 1) * n * n + (k >> 2 & 1) * n);
    auto px4 = clut_test::TestPixels(4, 50000, 6);
    std::vector<std::uint8_t> want(px4.size() / 4 * 3), got(want.size());
    InterpolateClut4x3(KERNEL_REFERENCE, t4, px4.data(), want.data(), static_cast<std::uint32_t>(px4.size() / 4));
    InterpolateClut4x3(variant, t4, px4.data(), got.data(), static_cast<std::uint32_t>(px4.size() / 4));
    EXPECT_EQ(got, want);
    // The maps did change the bytes: channel 0 is reversed.
    std::vector<std::uint8_t> identity = Apply(w4, px4.data(), px4.size() / 4, KERNEL_REFERENCE);
    for (std::size_t p = 0; p < 1000; ++p) ASSERT_EQ(want[p * 3], 255 - identity[p * 3]);

    for (unsigned outputs : {3u, 4u, 7u}) {
        auto nodes3 = clut_test::RandomNodes(n, 3, outputs, 7);
        std::unique_ptr<ZKCWorkerCLUT_3xn> w3;
        if (outputs == 3) w3 = std::make_unique<ZKCWorkerCLUT_3x3>(nodes3.data(), CLUT_ACCURACY_17);
        if (outputs == 4) w3 = std::make_unique<ZKCWorkerCLUT_3x4_InLAB>(nodes3.data(), CLUT_ACCURACY_17);
        if (outputs == 7) w3 = std::make_unique<ZKCWorkerCLUT_3x7>(nodes3.data(), CLUT_ACCURACY_17);
        ZKSClutTables3 t3{};
        for (unsigned a = 0; a < 3; ++a) t3.inputMap[a] = w3->InputMap(a);
        for (unsigned j = 0; j < outputs; ++j) t3.outputMap[j] = maps[j];
        t3.stride0 = stride1.data();  // g n^2
        t3.stride1 = stride2.data();  // g n
        t3.cells = w3->CellBlock(0);
        t3.weights = w3->Weights().Rows();
        t3.pairs = w3->Weights().Pairs();
        t3.axis = w3->Weights().AxisFactors();
        auto px3 = clut_test::TestPixels(3, 50000, 8);
        std::vector<std::uint8_t> want3(px3.size() / 3 * outputs), got3(want3.size());
        InterpolateClut3(KERNEL_REFERENCE, t3, outputs, px3.data(), want3.data(),
                         static_cast<std::uint32_t>(px3.size() / 3));
        InterpolateClut3(variant, t3, outputs, px3.data(), got3.data(), static_cast<std::uint32_t>(px3.size() / 3));
        EXPECT_EQ(got3, want3) << "3x" << outputs;
    }
}

// A kernel writes the stored number of pixels and not one byte more, so slices
// of the driver never touch their neighbours' output.
TEST(ClutKernels, KernelsWriteExactlyTheStoredPixelCount) {
    KELMA_CLUT_VARIANT_OR_SKIP(variant);
    for (unsigned outputs : {3u, 4u, 7u, 0u}) {
        const unsigned inputs = outputs == 0 ? 4 : 3;
        const unsigned m = outputs == 0 ? 3 : outputs;
        auto nodes = clut_test::RandomNodes(5, inputs, m, 4);
        std::unique_ptr<ZKCWorkerCLUT_Base> w = inputs == 4 ? Make<ZKCWorkerCLUT_4x3>(nodes, 5)
                                                : m == 3    ? Make<ZKCWorkerCLUT_3x3>(nodes, 5)
                                                : m == 4    ? Make<ZKCWorkerCLUT_3x4>(nodes, 5)
                                                            : Make<ZKCWorkerCLUT_3x7>(nodes, 5);
        auto px = clut_test::TestPixels(inputs, 40, 4);
        for (std::uint32_t count : {0u, 1u, 2u, 3u, 17u}) {
            std::vector<std::uint8_t> out(40 * m, 0xEE);
            w->SetBuffers(px.data(), out.data(), count);
            w->InterpolateWith(variant);
            const auto want = Apply(*w, px.data(), count, KERNEL_REFERENCE);
            ASSERT_TRUE(std::equal(want.begin(), want.end(), out.begin())) << inputs << "x" << m << " count " << count;
            for (std::size_t i = count * m; i < out.size(); ++i)
                ASSERT_EQ(out[i], 0xEE) << inputs << "x" << m << " count " << count << " byte " << i;
        }
    }
}
