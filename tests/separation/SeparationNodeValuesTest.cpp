// NodeValues: the node table's solve and fit on a caller's grid. On the
// table's own grid it is NodeTable before rounding; on another grid its
// nodes separate that grid's colours.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/separation/ZKCSeparation.h"

using namespace kelma;

TEST(SeparationNodeValues, OnTheTablesOwnGridTheyAreNodeTableBeforeRounding) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    ZKCUserParameter_Output p;
    p.SetColorantCoverage(300);
    const ZKCSeparation sep(model, p, 0, true);
    const unsigned int n = 9;
    std::vector<bool> inGamut;
    const std::vector<unsigned char> table = sep.NodeTable(n, &inGamut);
    std::vector<ZKSSeparationResult> nodes;
    const std::vector<double> values = sep.NodeValues(
        n,
        [n](const double* position, double* lab) {
            // The table's grid (ZKCSeparation.h) at any position.
            const double steps = n - 1.0;
            lab[0] = 100.0 * position[0] / steps;
            for (unsigned int axis = 1; axis < 3; ++axis) {
                const double lower = 256.0 * position[axis] / steps;
                lab[axis] = (lower <= 128.0 ? lower : 254.0 * position[axis] / steps) - 128.0;
            }
            for (unsigned int axis = 0; axis < 3; ++axis) {
                if (position[axis] == std::floor(position[axis])) {
                    EXPECT_EQ(lab[axis], ZKCSeparation::NodeCIELAB(axis, static_cast<unsigned int>(position[axis]), n));
                }
            }
        },
        &nodes);
    ASSERT_EQ(values.size(), table.size());
    ASSERT_EQ(nodes.size(), inGamut.size());
    std::size_t fitted = 0;
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        EXPECT_EQ(nodes[node].inGamut, bool(inGamut[node])) << node;
        // Nodes the fit left alone: the continuous solution here, its chosen
        // bytes there. Fitted nodes: rounded up by up to a byte there, and
        // taken down by one where the sum was over the limit.
        bool alone = true;
        for (unsigned int i = 0; i < 4; ++i) alone = alone && values[node * 4 + i] == nodes[node].inks[i];
        double sum = 0;
        for (unsigned int i = 0; i < 4; ++i) {
            const double v = values[node * 4 + i];
            sum += v;
            if (alone) {
                EXPECT_EQ(table[node * 4 + i], nodes[node].bytes[i]) << node << " ink " << i;
            } else {
                EXPECT_GT(table[node * 4 + i], v - 1.0) << node << " ink " << i;
                EXPECT_LE(table[node * 4 + i], v + 1.0) << node << " ink " << i;
            }
        }
        fitted += !alone;
        EXPECT_LE(sum, sep.TotalLimit() + 1e-9) << node;
        EXPECT_LE(values[node * 4 + 3], sep.BlackLimit() + 1e-9) << node;
    }
    EXPECT_GT(fitted, 20u);
    EXPECT_LT(fitted, nodes.size());
}

TEST(SeparationNodeValues, NodesOfAnotherGridSeparateItsColours) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const ZKCSeparation sep(model, ZKCUserParameter_Output(), 0, true);
    // L* 20..80, a* and b* -20..20: the grid's own colours.
    auto colour = [](const double* position, double* lab) {
        lab[0] = 20.0 + 15.0 * position[0];
        lab[1] = -20.0 + 10.0 * position[1];
        lab[2] = -20.0 + 10.0 * position[2];
    };
    std::vector<ZKSSeparationResult> nodes;
    const std::vector<double> values = sep.NodeValues(5, colour, &nodes);
    ASSERT_EQ(nodes.size(), 125u);
    std::vector<double> lab(3 * 125);
    for (std::size_t node = 0; node < 125; ++node) {
        const double position[3] = {double(node / 25), double(node / 5 % 5), double(node % 5)};
        colour(position, &lab[3 * node]);
    }
    std::vector<ZKSSeparationResult> direct(125);
    sep.Analyse(lab.data(), 125, direct.data());
    for (std::size_t node = 0; node < 125; ++node) {
        EXPECT_EQ(nodes[node].inGamut, direct[node].inGamut) << node;
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(nodes[node].mapped[c], direct[node].mapped[c], 0.02) << node;
    }
    EXPECT_THROW(sep.NodeValues(1, colour), const char*);
}
