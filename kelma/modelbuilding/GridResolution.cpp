#include "kelma/modelbuilding/GridResolution.h"

#include "kelma/common/InkLevels.h"
#include "kelma/modelbuilding/ModelBuildingCommon.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

ResolvedGrid ResolveGrid(const ZKSModelChart& chart, const std::vector<double>& shared,
                         const std::vector<double>& perInk, const char* what) {
    const unsigned int inks = chart.numberOfInks;
    ResolvedGrid grid;
    if (!perInk.empty()) {
        if (perInk.size() % inks != 0)
            Fail(std::string(what) + " per ink holds " + std::to_string(perInk.size()) +
                 " values, not a multiple of the " + std::to_string(inks) + " inks");
        grid.points = static_cast<unsigned int>(perInk.size() / inks);
        grid.percent = perInk;
    } else {
        grid.points = static_cast<unsigned int>(shared.size());
        for (unsigned int i = 0; i < inks; ++i) grid.percent.insert(grid.percent.end(), shared.begin(), shared.end());
    }
    if (grid.points < 2)
        Fail(std::string(what) + " needs at least 2 levels per ink (0 and 100 %), got " + std::to_string(grid.points));
    for (unsigned int i = 0; i < inks; ++i) {
        const double* p = &grid.percent[i * grid.points];
        for (unsigned int g = 0; g < grid.points; ++g)
            if (!(p[g] >= 0.0 && p[g] <= 100.0))
                Fail(std::string(what) + " of " + InkName(chart, i) + ": level " + Number(p[g]) +
                     " is not a percentage in [0, 100]");
        if (p[0] != 0.0 || p[grid.points - 1] != 100.0)
            Fail(std::string(what) + " of " + InkName(chart, i) + " must start at 0 % and end at 100 % (got " +
                 Number(p[0]) + " % ... " + Number(p[grid.points - 1]) + " %)");
        for (unsigned int g = 0; g < grid.points; ++g) {
            grid.levels.push_back(DigitalLevel(p[g]));
            if (g > 0 && grid.levels.back() <= grid.levels[grid.levels.size() - 2])
                Fail(std::string(what) + " of " + InkName(chart, i) + ": levels " + Number(p[g - 1]) + " % and " +
                     Number(p[g]) + " % are not strictly ascending as digital levels (" +
                     std::to_string(grid.levels[grid.levels.size() - 2]) + ", " +
                     std::to_string(grid.levels.back()) + ")");
        }
    }
    return grid;
}

std::string NodeText(const ResolvedGrid& grid, unsigned int inks, std::size_t node) {
    std::string s = "(";
    for (unsigned int i = 0; i < inks; ++i) {
        if (i) s += ", ";
        s += Number(grid.percent[i * grid.points + node % grid.points]);
        node /= grid.points;
    }
    return s + ")";
}

std::size_t IntPower(std::size_t base, unsigned int exponent) {
    std::size_t r = 1;
    for (unsigned int i = 0; i < exponent; ++i) r *= base;
    return r;
}

GridLayout::GridLayout(unsigned int inkCount, const ResolvedGrid& grid)
    : GridLayout(inkCount, grid.points, grid.levels) {}

GridLayout::GridLayout(unsigned int inkCount, unsigned int pointCount, const std::vector<unsigned int>& gridLevels)
    : inks(inkCount), points(pointCount), levels(gridLevels) {
    nodes = IntPower(points, inks);
    for (unsigned int i = 0; i < inks; ++i) stride.push_back(IntPower(points, i));
    cornerOffset.assign(std::size_t{1} << inks, 0);
    for (std::size_t k = 0; k < cornerOffset.size(); ++k)
        for (unsigned int i = 0; i < inks; ++i)
            if (k & (std::size_t{1} << i)) cornerOffset[k] += stride[i];
}

unsigned int GridLayout::Cell(unsigned int ink, unsigned int level) const {
    const unsigned int* g = &levels[ink * points];
    unsigned int c = 0;
    while (c + 2 < points && g[c + 1] <= level) ++c;
    return c;
}

int GridLayout::GridIndex(unsigned int ink, unsigned int level) const {
    for (unsigned int g = 0; g < points; ++g)
        if (levels[ink * points + g] == level) return static_cast<int>(g);
    return -1;
}

void GridLayout::NodeLevels(std::size_t node, unsigned char* sample) const {
    for (unsigned int i = 0; i < inks; ++i) {
        sample[i] = static_cast<unsigned char>(levels[i * points + node % points]);
        node /= points;
    }
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
