// Input and output maps, the shared weight tables and the cell table layout.
#include <gtest/gtest.h>

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
}  // namespace

TEST(ClutWeightTable, ThreeInputWeightsMatchTheDefinitionAndSumTo32768) {
    ZKCClutWeightTable t;
    unsigned f[3];
    for (f[0] = 0; f[0] < 32; ++f[0])
        for (f[1] = 0; f[1] < 32; ++f[1])
            for (f[2] = 0; f[2] < 32; ++f[2]) {
                std::uint32_t sum = 0;
                for (unsigned k = 0; k < 8; ++k) {
                    std::uint32_t w = t.Weight3(f[0], f[1], f[2], k);
                    ASSERT_EQ(w, DefinedWeight(f, 3, k)) << f[0] << " " << f[1] << " " << f[2] << " k=" << k;
                    sum += w;
                }
                ASSERT_EQ(sum, 32768u);
            }
    // Spot values: f = (1, 2, 3); bit 0 of the corner is axis 0.
    EXPECT_EQ(t.Weight3(1, 2, 3, 0), 31u * 30u * 29u);
    EXPECT_EQ(t.Weight3(1, 2, 3, 1), 1u * 30u * 29u);
    EXPECT_EQ(t.Weight3(1, 2, 3, 4), 31u * 30u * 3u);
    EXPECT_EQ(t.Weight3(0, 0, 0, 0), 32768u);
}

TEST(ClutWeightTable, FourInputWeightsMatchTheDefinitionAndSumTo1048576) {
    ZKCClutWeightTable t;
    unsigned f[4];
    for (f[0] = 0; f[0] < 32; ++f[0])
        for (f[1] = 0; f[1] < 32; ++f[1])
            for (f[2] = 0; f[2] < 32; ++f[2])
                for (f[3] = 0; f[3] < 32; ++f[3]) {
                    std::uint32_t sum = 0;
                    for (unsigned k = 0; k < 16; ++k) {
                        std::uint32_t w = t.Weight4(f[0], f[1], f[2], f[3], k);
                        if (w != DefinedWeight(f, 4, k)) FAIL() << "k=" << k;
                        sum += w;
                    }
                    if (sum != 1048576u) FAIL() << f[0] << " " << f[1] << " " << f[2] << " " << f[3];
                }
    EXPECT_EQ(t.Weight4(1, 2, 3, 4, 8), 31u * 30u * 29u * 4u);  // bit 3 is axis 3
    EXPECT_EQ(t.Weight4(1, 2, 3, 4, 15), 1u * 2u * 3u * 4u);
    EXPECT_EQ(t.Weight4(0, 0, 0, 0, 0), 1048576u);
}

TEST(ClutWeightTable, SimdLayoutOfTheFactors) {
    ZKCClutWeightTable t;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(t.AxisFactors()) % 16, 0u);
    const ClutPairWeight* row = t.Pairs() + (5 * 32 + 7) * 4;  // fa = 5, fb = 7
    EXPECT_EQ(row[0], 27u * 25u);
    EXPECT_EQ(row[1], 5u * 25u);
    EXPECT_EQ(row[2], 27u * 7u);
    EXPECT_EQ(row[3], 5u * 7u);
    const ClutPairWeight* axis = t.AxisFactors() + 9 * 8;  // f = 9
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(axis[i], 23u);
        EXPECT_EQ(axis[4 + i], 9u);
    }
}

TEST(ClutWeightTable, SharedByAllWorkersAndFreedWithTheLast) {
    ASSERT_EQ(ClutWeightTableUsers(), 0);
    std::vector<std::uint8_t> nodes = clut_test::RandomNodes(5, 3, 3, 1);
    {
        ZKCWorkerCLUT_3x3 a(nodes.data(), CLUT_ACCURACY_5);
        EXPECT_EQ(ClutWeightTableUsers(), 1);
        ZKCWorkerCLUT_3x3 copy(a);
        ZKCWorkerCLUT_4x3 other(clut_test::RandomNodes(5, 4, 3, 2).data(), CLUT_ACCURACY_5);
        EXPECT_EQ(ClutWeightTableUsers(), 3);
        EXPECT_EQ(&a.Weights(), &copy.Weights());
        EXPECT_EQ(&a.Weights(), &other.Weights());
    }
    EXPECT_EQ(ClutWeightTableUsers(), 0);
    ZKCWorkerCLUT_3x3 again(nodes.data(), CLUT_ACCURACY_5);  // recreated on demand
    EXPECT_EQ(ClutWeightTableUsers(), 1);
    EXPECT_EQ(again.Weights().Weight3(0, 0, 0, 0), 32768u);
}

TEST(ClutNodeArray, SizeCoversTheReadsPastTheLastNode) {
    EXPECT_EQ(ClutNodeArrayBytes(17, 3, 3), (17u * 17 * 17 + 17 * 17 + 17 + 1) * 3);
    EXPECT_EQ(ClutNodeArrayBytes(17, 4, 3), (17u * 17 * 17 * 17 + 17 * 17 * 17 + 17 * 17 + 17 + 1) * 3);
    EXPECT_EQ(ClutNodeArrayBytes(9, 3, 7), (729u + 81 + 9 + 1) * 7);
}

TEST(ClutCellTable, BlocksHoldTheCornerNodesChannelMajorIncludingWrappedReads) {
    for (unsigned inputs : {3u, 4u}) {
        const std::uint32_t n = 4;
        const unsigned m = 3;
        std::vector<std::uint8_t> nodes = clut_test::RandomNodes(n, inputs, m, 7 + inputs);
        const std::size_t count = clut_test::Power(n, inputs);
        const unsigned corners = 1u << inputs;
        std::vector<std::uint8_t> cells(count * corners * m);
        BuildCellTable(nodes.data(), n, inputs, m, cells.data());
        for (std::size_t c = 0; c < count; ++c) {
            for (unsigned k = 0; k < corners; ++k) {
                std::size_t node = c;
                for (unsigned a = 0; a < inputs; ++a)
                    if ((k >> a) & 1u) node += clut_test::Power(n, inputs - 1 - a);
                for (unsigned j = 0; j < m; ++j)
                    ASSERT_EQ(cells[c * corners * m + j * corners + k], nodes[node * m + j])
                        << "inputs " << inputs << " cell " << c << " corner " << k;
            }
        }
        // The last block's far corner is the very last byte group of the array.
        EXPECT_EQ(cells[(count - 1) * corners * m + (m - 1) * corners + corners - 1], nodes.back());
    }
}
