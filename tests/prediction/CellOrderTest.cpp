#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "kelma/prediction/CellOrder.h"
#include "kelma/prediction/LaneMajorScheme.h"
#include "kelma/prediction/PredictSamples.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;
using kelma_test::MakeTestModel;

namespace {

// The cell of a sample found from the grid itself: per ink, the number of
// interior grid levels at or below the byte (255 stays in the last cell),
// weighted by (G - 1)^ink.
std::uint32_t CellFromGrid(const kelma_test::ZKSTestModel& tm, const unsigned char* sample) {
    const unsigned int G = tm.gridPoints;
    std::uint32_t cell = 0, stride = 1;
    for (unsigned int k = 0; k < tm.inks; ++k, stride *= G - 1) {
        unsigned int digit = 0;
        while (digit + 1 < G - 1 && sample[k] >= tm.grid[k * G + digit + 1]) ++digit;
        cell += digit * stride;
    }
    return cell;
}

}  // namespace

// The visiting order is a permutation of the block, by ascending cell and in
// input order within a cell, with each position's cell, for full and partial
// blocks.
TEST(CellOrder, SortsABlockByCellAndKeepsInputOrderWithinACell) {
    const kelma_test::ZKSTestModel tm = MakeTestModel(7, 3, 2.0, 5);
    const ZKCSSE_KELMA_Data model = tm.Build();
    std::mt19937 rng(9);
    std::vector<unsigned char> samples(std::size_t{kCellOrderBlock} * 7);
    for (auto& v : samples) v = static_cast<unsigned char>(rng());
    for (unsigned int k = 0; k < 7; ++k) samples[k] = 255;        // the last cell
    for (unsigned int k = 0; k < 7; ++k) samples[7 + k] = 0;      // the first
    for (unsigned int count : {kCellOrderBlock, 1u, 2u, 777u}) {
        std::vector<std::uint16_t> order(count, 0xFFFF);
        std::vector<std::uint16_t> cells(count, 0xFFFF);
        CellOrder<7>(model.EffectiveRampsLUT().data(), 128, samples.data(), count, order.data(), cells.data());
        std::vector<bool> seen(count, false);
        for (unsigned int j = 0; j < count; ++j) {
            ASSERT_LT(order[j], count);
            ASSERT_FALSE(seen[order[j]]) << "sample " << order[j] << " visited twice";
            seen[order[j]] = true;
            const std::uint32_t cell = CellFromGrid(tm, &samples[order[j] * 7u]);
            ASSERT_EQ(cells[j], cell) << "position " << j << " of " << count;
            if (j == 0) continue;
            const std::uint32_t before = CellFromGrid(tm, &samples[order[j - 1] * 7u]);
            ASSERT_LE(before, cell) << "position " << j << " of " << count;
            if (before == cell) {
                ASSERT_LT(order[j - 1], order[j]) << "position " << j << " of " << count;
            }
        }
        if (count > 1) {
            EXPECT_EQ(order[0], 1u);  // all zeros: cell 0, before sample 0 of the last cell
        }
    }
}

// Grouping is asked for only where it pays: rows beyond a core's own cache and
// few enough cells for a block to revisit them; never without lane-major rows.
TEST(CellOrder, GroupsOnlyLargeRowsOfFewCells) {
    struct Case {
        unsigned int inks, grid, cells;
    };
    for (const Case& c : {Case{7, 3, 128}, Case{4, 5, 0}, Case{6, 3, 0}, Case{4, 9, 0}, Case{7, 2, 0}}) {
        const ZKCSSE_KELMA_Data model = MakeTestModel(c.inks, c.grid, 2.0, 3).Build();
        const ZKCLaneMajorScheme lanes(model);
        EXPECT_EQ(MakePredictionJob(model, lanes.Rows(), 31, 32, false).cellOrderCells, c.cells)
            << c.inks << " inks, " << c.grid << " grid points";
        EXPECT_EQ(MakePredictionJob(model, nullptr, 31, 32, false).cellOrderCells, 0u);
    }
}
