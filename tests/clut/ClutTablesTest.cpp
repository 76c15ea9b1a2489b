// Input and output maps, the shared weight tables and the cell table layout.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <numeric>

#include "kelma/clut/ClutTables.h"
#include "kelma/clut/ZKCWorkerCLUT.h"
#include "tests/clut/ClutOracle.h"

using namespace kelma;

TEST(ClutInputMap, StandardMapAtSeventeenPoints) {
    std::vector<InputMapEntry> map = StandardInputMap(17);
    ASSERT_EQ(map.size(), 257u);
    EXPECT_EQ(map[0], 0u);
    EXPECT_EQ(map[255], 16u << 5);  // last node, position 0
    EXPECT_EQ(map[256], map[255]);
    // 16 cells over 255 bytes: byte 16 is node 1 plus 16*16/255 of a cell -> 1/32 steps floor to 0.
    EXPECT_EQ(map[16], (1u << 5) | 0u);
    // Byte 143 lies just below node 9 (143.4375): cell 8 at position 31/32.
    EXPECT_EQ(map[143], (8u << 5) | 31u);
    EXPECT_EQ(map[128], (8u << 5) | 1u);
}

TEST(ClutInputMap, MapsMatchExactRationalArithmeticForAllGridSizes) {
    for (std::uint32_t n : {2u, 3u, 5u, 9u, 16u, 17u, 18u, 33u, 52u, 255u, 256u}) {
        std::vector<InputMapEntry> standard = StandardInputMap(n);
        std::vector<InputMapEntry> chroma = LabChromaInputMap(n);
        for (unsigned i = 0; i < 256; ++i) {
            ASSERT_EQ(standard[i], clut_test::StandardEntry(i, n)) << "n=" << n << " i=" << i;
            ASSERT_EQ(chroma[i], clut_test::LabChromaEntry(i, n)) << "n=" << n << " i=" << i;
            if (i > 0) {
                ASSERT_GE(standard[i], standard[i - 1]);
            }
        }
        EXPECT_EQ(standard[255], (n - 1) << 5) << n;
        EXPECT_EQ(standard[256], standard[255]);
        EXPECT_EQ(chroma[256], chroma[255]);
    }
}

TEST(ClutInputMap, CielabChromaMapSplitsAt128) {
    std::vector<InputMapEntry> map = LabChromaInputMap(17);
    EXPECT_EQ(map[0], 0u);
    EXPECT_EQ(map[128], 8u << 5);               // a* = 0 is exactly the middle node
    EXPECT_EQ(map[254], 16u << 5);              // last node
    EXPECT_EQ(map[255], (16u << 5) | 2u);       // past the last node by 2/32
    EXPECT_EQ(map[256], map[255]);
    // Bytes 0..128 advance by 16/256 of a node, 129..254 by 16/254.
    // In 1/32 units: 2 per byte up to 128, 512/254 per byte above (no remainder reaches the rounding).
    for (unsigned i = 0; i <= 128; ++i) EXPECT_EQ(map[i], 2 * i) << i;
    for (unsigned i = 129; i <= 254; ++i) EXPECT_EQ(map[i], i * 512u / 254u) << i;
    EXPECT_EQ(map[129], (8u << 5) | 4u);
}

TEST(ClutOutputMap, IdentityWithGuard) {
    std::vector<OutputMapEntry> map = IdentityOutputMap();
    ASSERT_EQ(map.size(), 257u);
    for (unsigned i = 0; i < 256; ++i) EXPECT_EQ(map[i], i);
    EXPECT_EQ(map[256], 255);
}

namespace {
// Corner weight straight from the definition: per axis f (above) or 32 - f (below).
std::uint32_t DefinedWeight(const unsigned* f, unsigned inputs, unsigned k) {
    std::uint32_t w = 1;
    for (unsigned a = 0; a < inputs; ++a) w *= (k >> a) & 1u ? f[a] : 32u - f[a];
    return w;
}

// Every row of a shared table against the definition: f0 = r >> 5 (d - 1) (32 in
// the extra last row), the other axes the next 5-bit fields; the weights of
// every row sum to 32^d.
void ExpectRowsAsDefined(const ZKCClutWeightTable& t, unsigned inputs) {
    ASSERT_EQ(t.Inputs(), inputs);
    ASSERT_EQ(t.Corners(), 1u << inputs);
    ASSERT_EQ(t.RowCount(), (std::size_t(1) << (5 * inputs)) + 1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(t.Rows()) % 64, 0u);
    const std::uint32_t total = 1u << (5 * inputs);
    for (std::size_t r = 0; r < t.RowCount(); ++r) {
        unsigned f[4];
        for (unsigned a = 0; a < inputs; ++a) {
            const unsigned shift = 5 * (inputs - 1 - a);
            f[a] = static_cast<unsigned>(a == 0 ? r >> shift : (r >> shift) % 32);
        }
        const std::uint32_t* row = t.Rows() + r * t.Corners();
        ASSERT_EQ(row, t.Row(r));
        std::uint32_t sum = 0;
        for (unsigned k = 0; k < t.Corners(); ++k) {
            if (row[k] != DefinedWeight(f, inputs, k)) FAIL() << "inputs " << inputs << " row " << r << " k=" << k;
            sum += row[k];
        }
        if (sum != total) FAIL() << "inputs " << inputs << " row " << r << " sums to " << sum;
    }
}
}  // namespace

TEST(ClutWeightTable, ThreeInputRowsMatchTheDefinition) {
    ZKCClutWeightTable t(3);
    ExpectRowsAsDefined(t, 3);
    // Spot values: f = (1, 2, 3) is row 1 * 1024 + 2 * 32 + 3; bit 0 of the corner is axis 0.
    const std::uint32_t* row = t.Row(1091);
    EXPECT_EQ(row[0], 31u * 30u * 29u);
    EXPECT_EQ(row[1], 1u * 30u * 29u);
    EXPECT_EQ(row[4], 31u * 30u * 3u);
    EXPECT_EQ(t.Row(0)[0], 32768u);
    // The extra last row: f0 = 32, so all weight is on corner 1.
    const std::uint32_t last[8] = {0, 32768, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(std::equal(last, last + 8, t.Row(32768)));
}

TEST(ClutWeightTable, FourInputRowsMatchTheDefinition) {
    ZKCClutWeightTable t(4);
    ExpectRowsAsDefined(t, 4);
    const std::uint32_t* row = t.Row(1 * 32768 + 2 * 1024 + 3 * 32 + 4);
    EXPECT_EQ(row[8], 31u * 30u * 29u * 4u);  // bit 3 is axis 3
    EXPECT_EQ(row[15], 1u * 2u * 3u * 4u);
    EXPECT_EQ(t.Row(0)[0], 1048576u);
    EXPECT_EQ(t.Row(1048576)[1], 1048576u);
    EXPECT_EQ(t.Row(1048576)[0] + t.Row(1048576)[15], 0u);
}

TEST(ClutWeightTable, OnlyThreeAndFourInputs) {
    for (unsigned inputs : {0u, 2u, 5u}) {
        try {
            ZKCClutWeightTable t(inputs);
            ADD_FAILURE() << inputs;
        } catch (const char* e) {
            EXPECT_STREQ(e, "DefaultCase");
        }
    }
}

// The optimised kernels multiply the factor tables instead of reading rows:
// every row of both tables must be exactly those products.
TEST(ClutWeightTable, FactorTablesReproduceEveryRow) {
    ZKCClutWeightTable t3(3);
    const ClutPairWeight* P = t3.Pairs();
    const ClutPairWeight* A = t3.AxisFactors();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(A) % 16, 0u);
    for (std::uint32_t r = 0; r < 32768; ++r)
        for (unsigned k = 0; k < 8; ++k)
            ASSERT_EQ(t3.Row(r)[k], std::uint32_t{P[(r >> 5) * 4 + (k & 3)]} * A[(r & 31) * 8 + (k >> 2) * 4])
                << r << " " << k;

    // Four inputs, both factorings: pair rows P Q (SSSE3), and the three-input
    // product P A times the axis-3 pair {32 - f3, f3} (node-major kernels).
    ZKCClutWeightTable t4(4);
    const ClutPairWeight* Q = t4.Pairs();
    const ClutPairWeight* A4 = t4.AxisFactors();
    EXPECT_EQ(std::memcmp(A4, A, 32 * 8 * sizeof(ClutPairWeight)), 0);
    for (std::uint32_t r = 0; r < 1048576; ++r)
        for (unsigned k = 0; k < 16; ++k) {
            if (t4.Row(r)[k] != std::uint32_t{Q[(r >> 10) * 4 + (k & 3)]} * Q[(r & 1023) * 4 + (k >> 2)])
                FAIL() << r << " " << k;
            const std::uint32_t f2 = (r >> 5) & 31, f3 = r & 31;
            const std::uint32_t threeInput = std::uint32_t{Q[(r >> 10) * 4 + (k & 3)]} * A4[f2 * 8 + ((k >> 2) & 1) * 4];
            if (t4.Row(r)[k] != threeInput * (k >> 3 ? f3 : 32 - f3)) FAIL() << "node-major factoring " << r << " " << k;
        }

    // SIMD layout: pair row fa 32 + fb = {(32-fa)(32-fb), fa(32-fb), (32-fa)fb, fa fb};
    // axis row f = {32 - f} x4, {f} x4.
    const ClutPairWeight* row = P + (5 * 32 + 7) * 4;
    EXPECT_EQ(row[0], 27u * 25u);
    EXPECT_EQ(row[1], 5u * 25u);
    EXPECT_EQ(row[2], 27u * 7u);
    EXPECT_EQ(row[3], 5u * 7u);
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(A[9 * 8 + i], 23u);
        EXPECT_EQ(A[9 * 8 + 4 + i], 9u);
    }
}

// One table per shape, created by the first worker of the shape, counted by
// every constructor (copies included) and freed by the last destructor.
TEST(ClutWeightTable, OneTablePerShapeSharedAndFreedWithTheLastWorker) {
    ASSERT_EQ(ZKCWorkerCLUT_3xn::Instances(), 0u);
    ASSERT_EQ(ZKCWorkerCLUT_4xn::Instances(), 0u);
    ASSERT_EQ(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);
    ASSERT_EQ(ZKCWorkerCLUT_4xn::SharedWeights(), nullptr);
    std::vector<std::uint8_t> nodes3 = clut_test::RandomNodes(5, 3, 3, 1);
    std::vector<std::uint8_t> nodes7 = clut_test::RandomNodes(5, 3, 7, 3);
    std::vector<std::uint8_t> nodes4 = clut_test::RandomNodes(5, 4, 3, 2);
    {
        ZKCWorkerCLUT_3x3 a(nodes3.data(), CLUT_ACCURACY_5);
        EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 1u);
        ASSERT_NE(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);
        EXPECT_EQ(&a.Weights(), ZKCWorkerCLUT_3xn::SharedWeights().get());
        EXPECT_EQ(a.Weights().Inputs(), 3u);
        // A three-input worker leaves the 64 MiB four-input table alone.
        EXPECT_EQ(ZKCWorkerCLUT_4xn::SharedWeights(), nullptr);

        ZKCWorkerCLUT_3x3 copy(a);
        ZKCWorkerCLUT_3x7_InLAB b(nodes7.data(), CLUT_ACCURACY_5);
        EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 3u);
        EXPECT_EQ(&copy.Weights(), &a.Weights());
        EXPECT_EQ(&b.Weights(), &a.Weights());
        {
            ZKCWorkerCLUT_4x3 c(nodes4.data(), CLUT_ACCURACY_5);
            ZKCWorkerCLUT_4x3 d(c);
            EXPECT_EQ(ZKCWorkerCLUT_4xn::Instances(), 2u);
            EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 3u);
            EXPECT_EQ(&c.Weights(), ZKCWorkerCLUT_4xn::SharedWeights().get());
            EXPECT_EQ(&d.Weights(), &c.Weights());
            EXPECT_EQ(c.Weights().Inputs(), 4u);
        }
        EXPECT_EQ(ZKCWorkerCLUT_4xn::Instances(), 0u);
        EXPECT_EQ(ZKCWorkerCLUT_4xn::SharedWeights(), nullptr);
        EXPECT_EQ(ZKCWorkerCLUT_3xn::SharedWeights().get(), &a.Weights());
    }
    EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 0u);
    EXPECT_EQ(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);

    // A constructor that throws before counting itself leaves nothing behind.
    try {
        ZKCWorkerCLUT_4x3 bad(nodes4.data(), static_cast<CLUT_ACCURACY>(1));
        ADD_FAILURE() << "n = 1 accepted";
    } catch (const char*) {
    }
    EXPECT_EQ(ZKCWorkerCLUT_4xn::Instances(), 0u);
    EXPECT_EQ(ZKCWorkerCLUT_4xn::SharedWeights(), nullptr);

    ZKCWorkerCLUT_3x4 again(clut_test::RandomNodes(5, 3, 4, 4).data(), CLUT_ACCURACY_5);  // recreated on demand
    EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 1u);
    ASSERT_NE(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);
    EXPECT_EQ(again.Weights().Row(0)[0], 32768u);
}

// Positions are 5-bit fields, so no pixel reaches the extra last row: spoiling
// it changes no output of the reference loop, edge bytes included.
TEST(ClutWeightTable, TheExtraLastRowIsNeverRead) {
    auto spoilAndCompare = [](ZKCWorkerCLUT_Base& w, const ZKCClutWeightTable& table) {
        auto px = clut_test::TestPixels(w.InputChannels(), 5000, 31);
        const std::size_t count = px.size() / w.InputChannels();
        std::vector<std::uint8_t> before(count * w.OutputChannels()), after(before.size());
        w.SetBuffers(px.data(), before.data(), count);
        w.InterpolateWith(KERNEL_REFERENCE);
        std::uint32_t* last = const_cast<std::uint32_t*>(table.Row(table.RowCount() - 1));
        std::vector<std::uint32_t> saved(last, last + table.Corners());
        std::fill(last, last + table.Corners(), 0x5A5A5A5Au);
        w.SetBuffers(px.data(), after.data(), count);
        w.InterpolateWith(KERNEL_REFERENCE);
        std::copy(saved.begin(), saved.end(), last);
        EXPECT_EQ(after, before) << w.InputChannels() << " inputs";
    };
    ZKCWorkerCLUT_3x3_InLAB lab(clut_test::RandomNodes(17, 3, 3, 5).data(), CLUT_ACCURACY_17);
    spoilAndCompare(lab, lab.Weights());
    ZKCWorkerCLUT_4x3 cmyk(clut_test::RandomNodes(17, 4, 3, 6).data(), CLUT_ACCURACY_17);
    spoilAndCompare(cmyk, cmyk.Weights());
}

TEST(ClutNodeArray, SizeCoversTheReadsPastTheLastNode) {
    EXPECT_EQ(ClutNodeArrayBytes(17, 3, 3), (17u * 17 * 17 + 17 * 17 + 17 + 1) * 3);
    EXPECT_EQ(ClutNodeArrayBytes(17, 4, 3), (17u * 17 * 17 * 17 + 17 * 17 * 17 + 17 * 17 + 17 + 1) * 3);
    EXPECT_EQ(ClutNodeArrayBytes(9, 3, 7), (729u + 81 + 9 + 1) * 7);
}

namespace {
// Corner k of the block of node c holds node c + offset(k), offset(k) = sum of
// n^(d - 1 - a) over the set bits a of k (wrapping past upper faces and past
// the last node, into the array's tail).
void ExpectCornerMajorBlocks(const std::vector<std::uint8_t>& nodes, std::uint32_t n, unsigned inputs, unsigned m,
                             const std::function<const std::uint8_t*(std::size_t)>& block) {
    const std::size_t count = clut_test::Power(n, inputs);
    const unsigned corners = 1u << inputs;
    for (std::size_t c = 0; c < count; ++c) {
        const std::uint8_t* b = block(c);
        for (unsigned k = 0; k < corners; ++k) {
            std::size_t node = c;
            for (unsigned a = 0; a < inputs; ++a)
                if ((k >> a) & 1u) node += clut_test::Power(n, inputs - 1 - a);
            for (unsigned j = 0; j < m; ++j)
                ASSERT_EQ(b[k * m + j], nodes[node * m + j])
                    << inputs << "x" << m << " cell " << c << " corner " << k << " channel " << j;
        }
    }
    // The last block's far corner is the very last byte group of the array.
    EXPECT_EQ(block(count - 1)[corners * m - 1], nodes.back());
}
}  // namespace

TEST(ClutCellTable, BlocksHoldTheCornerNodesCornerMajorIncludingWrappedReads) {
    const std::uint32_t n = 4;
    for (unsigned inputs : {3u, 4u}) {
        std::vector<std::uint8_t> nodes = clut_test::RandomNodes(n, inputs, 3, 7 + inputs);
        std::vector<std::uint8_t> cells(clut_test::Power(n, inputs) * (3u << inputs));
        BuildCellTable(nodes.data(), n, inputs, 3, cells.data());
        ExpectCornerMajorBlocks(nodes, n, inputs, 3, [&](std::size_t c) { return &cells[c * (3u << inputs)]; });
    }
    // The workers' own tables, every output count.
    auto n3 = clut_test::RandomNodes(n, 3, 3, 21), n4 = clut_test::RandomNodes(n, 3, 4, 22),
         n7 = clut_test::RandomNodes(n, 3, 7, 23), c3 = clut_test::RandomNodes(n, 4, 3, 24);
    ZKCWorkerCLUT_3x3 w3(n3.data(), static_cast<CLUT_ACCURACY>(4));
    ZKCWorkerCLUT_3x4 w4(n4.data(), static_cast<CLUT_ACCURACY>(4));
    ZKCWorkerCLUT_3x7_InLAB w7(n7.data(), static_cast<CLUT_ACCURACY>(4));
    ZKCWorkerCLUT_4x3 wc(c3.data(), static_cast<CLUT_ACCURACY>(4));
    ExpectCornerMajorBlocks(n3, n, 3, 3, [&](std::size_t c) { return w3.CellBlock(c); });
    ExpectCornerMajorBlocks(n4, n, 3, 4, [&](std::size_t c) { return w4.CellBlock(c); });
    ExpectCornerMajorBlocks(n7, n, 3, 7, [&](std::size_t c) { return w7.CellBlock(c); });
    ExpectCornerMajorBlocks(c3, n, 4, 3, [&](std::size_t c) { return wc.CellBlock(c); });
    // Blocks lie back to back.
    EXPECT_EQ(w7.CellBlock(5) - w7.CellBlock(4), 56);
    EXPECT_EQ(wc.CellBlock(5) - wc.CellBlock(4), 48);
}
