// CLUT workers built from node tables: every class, through the kernel the
// worker dispatches to (the suite runs once per kernel variant; the kernels
// themselves against the reference loop: ClutKernelTest.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "tests/clut/ClutOracle.h"

using namespace kelma;

namespace {

struct Shape {
    const char* name;
    unsigned inputs;
    unsigned outputs;
    bool labMaps;   // CIELAB input maps on channels 1 and 2
    bool isInLAB;   // what IsInLAB() answers
    std::function<std::unique_ptr<ZKCWorkerCLUT_Base>(const std::uint8_t*, CLUT_ACCURACY)> make;
};

template <class W>
std::unique_ptr<ZKCWorkerCLUT_Base> Make(const std::uint8_t* nodes, CLUT_ACCURACY n) {
    return std::make_unique<W>(nodes, n);
}

const std::vector<Shape>& Shapes() {
    static const std::vector<Shape> shapes = {
        {"3x3", 3, 3, false, false, Make<ZKCWorkerCLUT_3x3>},
        {"3x3_InLAB", 3, 3, true, true, Make<ZKCWorkerCLUT_3x3_InLAB>},
        {"3x4", 3, 4, false, false, Make<ZKCWorkerCLUT_3x4>},
        {"3x4_InLAB", 3, 4, true, true, Make<ZKCWorkerCLUT_3x4_InLAB>},
        {"3x7", 3, 7, false, false, Make<ZKCWorkerCLUT_3x7>},
        {"3x7_InLAB", 3, 7, true, false, Make<ZKCWorkerCLUT_3x7_InLAB>},
        {"4x3", 4, 3, false, false, Make<ZKCWorkerCLUT_4x3>},
    };
    return shapes;
}

std::vector<std::uint8_t> RunKernel(ZKCWorkerCLUT_Base& w, const std::vector<std::uint8_t>& px,
                                    KERNEL_VARIANT variant) {
    const std::size_t count = px.size() / w.InputChannels();
    std::vector<std::uint8_t> out(count * w.OutputChannels(), 0xA5);
    w.SetBuffers(px.data(), out.data(), count);
    w.InterpolateWith(variant);
    return out;
}

std::vector<std::uint8_t> RunBest(ZKCWorkerCLUT_Base& w, const std::vector<std::uint8_t>& px) {
    const std::size_t count = px.size() / w.InputChannels();
    std::vector<std::uint8_t> out(count * w.OutputChannels(), 0xA5);
    w.SetBuffers(px.data(), out.data(), count);
    w.Interpolate();
    return out;
}

// An affine node table: value_j(g) = c_j + sum_a s_ja g_a with small integer
// slopes, offsets chosen so that every node stays in 0..255.
struct Affine {
    std::vector<int> c;                // per output
    std::vector<std::vector<int>> s;   // [output][axis]
};

Affine MakeAffine(std::uint32_t n, unsigned inputs, unsigned outputs, std::mt19937& rng) {
    Affine f;
    const int maxSlope = static_cast<int>(200 / (inputs * (n - 1)));  // span below 200
    std::uniform_int_distribution<int> slope(-maxSlope, maxSlope);
    for (unsigned j = 0; j < outputs; ++j) {
        std::vector<int> s(inputs);
        int lo = 0, hi = 0;
        for (unsigned a = 0; a < inputs; ++a) {
            s[a] = slope(rng);
            (s[a] < 0 ? lo : hi) += s[a] * static_cast<int>(n - 1);
        }
        f.s.push_back(s);
        f.c.push_back(-lo + static_cast<int>(rng() % static_cast<unsigned>(256 - (hi - lo))));
    }
    return f;
}

}  // namespace

TEST(ClutWorker, ChannelsAndInLabFlagPerClass) {
    for (const Shape& shape : Shapes()) {
        auto nodes = clut_test::RandomNodes(3, shape.inputs, shape.outputs, 3);
        auto w = shape.make(nodes.data(), CLUT_ACCURACY_3);
        EXPECT_EQ(w->InputChannels(), shape.inputs) << shape.name;
        EXPECT_EQ(w->OutputChannels(), shape.outputs) << shape.name;
        EXPECT_EQ(w->IsInLAB(), shape.isInLAB) << shape.name;
        EXPECT_EQ(w->GridPoints(), 3u);
        EXPECT_EQ(w->Input(), nullptr);
        EXPECT_EQ(w->Output(), nullptr);
        EXPECT_EQ(w->Count(), 0u);
    }
}

TEST(ClutWorker, GridSizesOutsideTwoTo256AreRejected) {
    auto nodes = clut_test::RandomNodes(2, 3, 3, 1);
    for (std::uint32_t n : {0u, 1u, 257u}) {
        try {
            ZKCWorkerCLUT_3x3 w(nodes.data(), static_cast<CLUT_ACCURACY>(n));
            ADD_FAILURE() << "accepted n=" << n;
        } catch (const char* e) {
            EXPECT_STREQ(e, "DefaultCase");
        }
    }
}

// The reference loop against an evaluator written from the definitions
// (exact maps, per-pixel weight products, node bytes at flat positions).
TEST(ClutWorker, MatchesAnIndependentEvaluatorIncludingReadsPastTheLastNode) {
    for (const Shape& shape : Shapes()) {
        for (std::uint32_t n : {2u, 3u, 9u, 17u, 33u}) {
            auto nodes = clut_test::RandomNodes(n, shape.inputs, shape.outputs, 300 + n);
            auto w = shape.make(nodes.data(), static_cast<CLUT_ACCURACY>(n));
            auto px = clut_test::TestPixels(shape.inputs, 3000, 400 + n);
            std::vector<std::uint8_t> out = RunKernel(*w, px, KERNEL_REFERENCE);
            clut_test::Oracle oracle{n, shape.inputs, shape.outputs, shape.labMaps, &nodes};
            std::uint8_t expected[7];
            for (std::size_t p = 0; p < px.size() / shape.inputs; ++p) {
                oracle.Apply(&px[p * shape.inputs], expected);
                for (unsigned j = 0; j < shape.outputs; ++j)
                    ASSERT_EQ(out[p * shape.outputs + j], expected[j]) << shape.name << " n=" << n << " pixel " << p;
            }
        }
    }
}

TEST(ClutWorker, InLabChromaByte255MixesInTheCornerPastTheLastNode) {
    const std::uint32_t n = 17;
    auto nodes = clut_test::RandomNodes(n, 3, 3, 11);
    ZKCWorkerCLUT_3x3_InLAB w(nodes.data(), CLUT_ACCURACY_17);
    const std::uint8_t px[3] = {0, 255, 0};  // L node 0, a: node 16 + 2/32, b node 0
    std::uint8_t out[3];
    w.SetBuffers(px, out, 1);
    w.Interpolate();
    // The upper neighbour of (0, 16, 0) along a is flat node 17 = (1, 0, 0).
    for (unsigned j = 0; j < 3; ++j) {
        unsigned expected = (30u * 32 * 32 * nodes[16 * 17 * 3 + j] + 2u * 32 * 32 * nodes[17 * 17 * 3 + j]) >> 15;
        EXPECT_EQ(out[j], expected) << j;
    }
}

TEST(ClutWorker, AffineTablesAreReproducedExactlyAtTheirQuantisedPositions) {
    std::mt19937 rng(5);
    for (const Shape& shape : Shapes()) {
        for (std::uint32_t n : {9u, 16u, 17u, 18u, 33u}) {
            Affine f = MakeAffine(n, shape.inputs, shape.outputs, rng);
            auto nodes = clut_test::RandomNodes(n, shape.inputs, shape.outputs, 17);  // random tail
            const std::size_t count = clut_test::Power(n, shape.inputs);
            for (std::size_t c = 0; c < count; ++c) {
                for (unsigned j = 0; j < shape.outputs; ++j) {
                    int v = f.c[j];
                    std::size_t rest = c;
                    for (unsigned a = shape.inputs; a-- > 0;) {
                        v += f.s[j][a] * static_cast<int>(rest % n);
                        rest /= n;
                    }
                    ASSERT_TRUE(v >= 0 && v <= 255);
                    nodes[c * shape.outputs + j] = static_cast<std::uint8_t>(v);
                }
            }
            auto w = shape.make(nodes.data(), static_cast<CLUT_ACCURACY>(n));
            auto px = clut_test::TestPixels(shape.inputs, 20000, 23 + n);
            // A CIELAB chroma byte of 255 reaches past the grid, where the table is not affine.
            if (shape.labMaps)
                for (std::size_t i = 0; i < px.size(); ++i)
                    if (i % 3 != 0 && px[i] == 255) px[i] = 254;
            std::vector<std::uint8_t> out = RunBest(*w, px);
            for (std::size_t p = 0; p < px.size() / shape.inputs; ++p) {
                const std::uint8_t* pixel = &px[p * shape.inputs];
                for (unsigned j = 0; j < shape.outputs; ++j) {
                    // Multilinear interpolation of an affine function is that function:
                    // out = floor(c + sum s_a e_a / 32), e_a the map entry in 1/32 cells.
                    long quantised = 32L * f.c[j];
                    double continuous = f.c[j];
                    double slack = 0.0;
                    for (unsigned a = 0; a < shape.inputs; ++a) {
                        bool chroma = shape.labMaps && a > 0;
                        quantised += f.s[j][a] * static_cast<long>(chroma ? clut_test::LabChromaEntry(pixel[a], n)
                                                                          : clut_test::StandardEntry(pixel[a], n));
                        double den = chroma ? (pixel[a] <= 128 ? 256.0 : 254.0) : 255.0;
                        continuous += f.s[j][a] * static_cast<double>(pixel[a]) * (n - 1.0) / den;
                        slack += std::abs(f.s[j][a]) / 32.0;
                    }
                    const int got = out[p * shape.outputs + j];
                    ASSERT_EQ(got, static_cast<int>(std::floor(quantised / 32.0)))
                        << shape.name << " n=" << n << " pixel " << p << " channel " << j;
                    // Positions are cut to 1/32 of a cell, the result to a whole byte.
                    ASSERT_LT(std::abs(got - continuous), 1.0 + slack + 1e-9) << shape.name;
                }
            }
        }
    }
}

// Where a byte lands exactly on a node (position 0), the node's bytes come
// back unchanged, whatever the table holds. With n - 1 dividing 255 every
// node is reachable.
TEST(ClutWorker, NodesAreReproducedExactlyWhereAByteLandsOnThem) {
    for (const Shape& shape : Shapes()) {
        for (std::uint32_t n : {4u, 6u, 16u, 17u, 18u}) {
            if (shape.inputs == 4 && n > 17) continue;
            auto nodes = clut_test::RandomNodes(n, shape.inputs, shape.outputs, 900 + n);
            auto w = shape.make(nodes.data(), static_cast<CLUT_ACCURACY>(n));
            // Byte of each grid index on each axis, if one maps to position 0.
            std::vector<std::vector<int>> byteOf(shape.inputs, std::vector<int>(n, -1));
            for (unsigned a = 0; a < shape.inputs; ++a)
                for (unsigned b = 0; b < 256; ++b) {
                    std::uint32_t e = shape.labMaps && a > 0 ? clut_test::LabChromaEntry(b, n)
                                                             : clut_test::StandardEntry(b, n);
                    if (e % 32 == 0 && e / 32 < n && byteOf[a][e / 32] < 0) byteOf[a][e / 32] = static_cast<int>(b);
                }
            std::vector<std::uint8_t> px;
            std::vector<std::size_t> nodeOf;
            const std::size_t count = clut_test::Power(n, shape.inputs);
            for (std::size_t c = 0; c < count; ++c) {
                std::size_t rest = c;
                std::uint8_t pixel[4];
                bool reachable = true;
                for (unsigned a = shape.inputs; a-- > 0;) {
                    int b = byteOf[a][rest % n];
                    reachable = reachable && b >= 0;
                    pixel[a] = static_cast<std::uint8_t>(b);
                    rest /= n;
                }
                if (!reachable) continue;
                px.insert(px.end(), pixel, pixel + shape.inputs);
                nodeOf.push_back(c);
            }
            if ((255 % (n - 1)) == 0 && !shape.labMaps) {
                ASSERT_EQ(nodeOf.size(), count) << shape.name << " n=" << n;
            }
            ASSERT_FALSE(nodeOf.empty());
            std::vector<std::uint8_t> out = RunBest(*w, px);
            for (std::size_t p = 0; p < nodeOf.size(); ++p)
                for (unsigned j = 0; j < shape.outputs; ++j)
                    ASSERT_EQ(out[p * shape.outputs + j], nodes[nodeOf[p] * shape.outputs + j])
                        << shape.name << " n=" << n << " node " << nodeOf[p];
        }
    }
}

TEST(ClutWorker, ConstantTableGivesItsValueEverywhere) {
    for (const Shape& shape : Shapes()) {
        for (std::uint32_t n : {2u, 17u}) {
            auto nodes = clut_test::RandomNodes(n, shape.inputs, shape.outputs, 1);
            const std::uint8_t values[7] = {0, 255, 1, 128, 254, 77, 200};
            for (std::size_t i = 0; i < nodes.size(); ++i) nodes[i] = values[i % shape.outputs];
            auto w = shape.make(nodes.data(), static_cast<CLUT_ACCURACY>(n));
            auto px = clut_test::TestPixels(shape.inputs, 5000, 2);
            std::vector<std::uint8_t> out = RunBest(*w, px);
            for (std::size_t i = 0; i < out.size(); ++i)
                ASSERT_EQ(out[i], values[i % shape.outputs]) << shape.name << " n=" << n << " byte " << i;
        }
    }
}

TEST(ClutWorker, ExtremeInputsLandOnTheFirstAndLastNodes) {
    for (const Shape& shape : Shapes()) {
        const std::uint32_t n = 17;
        auto nodes = clut_test::RandomNodes(n, shape.inputs, shape.outputs, 8);
        auto w = shape.make(nodes.data(), CLUT_ACCURACY_17);
        std::vector<std::uint8_t> px(shape.inputs, 0);
        std::vector<std::uint8_t> out = RunBest(*w, px);
        for (unsigned j = 0; j < shape.outputs; ++j) EXPECT_EQ(out[j], nodes[j]) << shape.name;
        if (shape.labMaps) continue;  // chroma 255 lies past the last node
        std::fill(px.begin(), px.end(), 255);
        out = RunBest(*w, px);
        const std::size_t last = clut_test::Power(n, shape.inputs) - 1;
        for (unsigned j = 0; j < shape.outputs; ++j)
            EXPECT_EQ(out[j], nodes[last * shape.outputs + j]) << shape.name;
    }
}

TEST(ClutWorker, WritesExactlyTheStoredPixelCount) {
    for (const Shape& shape : Shapes()) {
        auto nodes = clut_test::RandomNodes(5, shape.inputs, shape.outputs, 4);
        auto w = shape.make(nodes.data(), CLUT_ACCURACY_5);
        auto px = clut_test::TestPixels(shape.inputs, 10, 4);
        std::vector<std::uint8_t> out(10 * shape.outputs, 0xEE);
        w->SetBuffers(px.data(), out.data(), 0);
        w->Interpolate();
        EXPECT_EQ(out, std::vector<std::uint8_t>(out.size(), 0xEE)) << shape.name;
        w->SetBuffers(px.data(), out.data(), 3);
        w->Interpolate();
        for (std::size_t i = 3 * shape.outputs; i < out.size(); ++i) ASSERT_EQ(out[i], 0xEE) << shape.name;
        EXPECT_EQ(std::vector<std::uint8_t>(out.begin(), out.begin() + 3 * shape.outputs),
                  RunKernel(*w, std::vector<std::uint8_t>(px.begin(), px.begin() + 3 * shape.inputs),
                            KERNEL_REFERENCE))
            << shape.name;
    }
}

// A copy shares the immutable tables of its source (cells, node array, weight
// table) instead of duplicating them, keeps its own buffers, and outlives the
// source.
TEST(ClutWorker, CopiesShareTheTablesKeepTheirOwnBuffersAndOutliveTheirSource) {
    auto nodes = clut_test::RandomNodes(9, 4, 3, 12);
    auto px = clut_test::TestPixels(4, 1000, 13);
    auto source = std::make_unique<ZKCWorkerCLUT_4x3>(nodes.data(), CLUT_ACCURACY_9);
    std::vector<std::uint8_t> expected = RunBest(*source, px);
    ZKCWorkerCLUT_4x3 copy(*source);
    EXPECT_EQ(copy.CellBlock(0), source->CellBlock(0));
    EXPECT_EQ(copy.Nodes(), source->Nodes());
    EXPECT_EQ(&copy.Weights(), &source->Weights());
    EXPECT_EQ(copy.Variant(), source->Variant());
    // Buffers are per copy: re-pointing the source leaves the copy alone.
    std::vector<std::uint8_t> other(3);
    source->SetBuffers(px.data() + 4, other.data(), 1);
    EXPECT_EQ(copy.Input(), px.data());
    EXPECT_EQ(copy.Count(), static_cast<std::uint32_t>(px.size() / 4));
    source.reset();
    EXPECT_EQ(RunBest(copy, px), expected);
    // The node array the node-major kernels read is the caller's, byte for byte.
    EXPECT_EQ(std::memcmp(copy.Nodes(), nodes.data(), nodes.size()), 0);

    auto nodes3 = clut_test::RandomNodes(9, 3, 7, 14);
    auto px3 = clut_test::TestPixels(3, 1000, 15);
    auto source3 = std::make_unique<ZKCWorkerCLUT_3x7_InLAB>(nodes3.data(), CLUT_ACCURACY_9);
    std::vector<std::uint8_t> expected3 = RunBest(*source3, px3);
    ZKCWorkerCLUT_3x7_InLAB copy3(*source3);
    EXPECT_EQ(copy3.CellBlock(0), source3->CellBlock(0));
    source3.reset();
    EXPECT_EQ(RunBest(copy3, px3), expected3);
}
