// Grid resolution (stage, internal): the caller's grid levels in percent
// become checked whole digital levels per ink, and the G^N node grid gets its
// numbering (the matrix scheme's: node index sum_i g_i G^i, ink 0 fastest).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kelma/modelbuilding/ChartImport.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// Per-ink grid levels in percent and as digital levels.
struct ResolvedGrid {
    unsigned int points = 0;           // G
    std::vector<double> percent;       // N x G, as the caller wrote them
    std::vector<unsigned int> levels;  // N x G, DigitalLevel of each
};

// `shared` (G levels for every ink) unless `perInk` (N x G, ink-major) is
// given. Every ink needs at least 2 levels, the first 0 %, the last 100 %,
// strictly ascending as digital levels. `what` names the grid in messages
// ("the grid", "the coarse grid").
ResolvedGrid ResolveGrid(const ZKSModelChart& chart, const std::vector<double>& shared,
                         const std::vector<double>& perInk, const char* what);

// The ink combination (in the caller's percent) of a node: "(40, 0, 0, 100)".
std::string NodeText(const ResolvedGrid& grid, unsigned int inks, std::size_t node);

// Integer power b^e for grid counts (exact while it fits 64 bits).
std::size_t IntPower(std::size_t base, unsigned int exponent);

// The G^N node grid of digital levels.
struct GridLayout {
    unsigned int inks = 0;
    unsigned int points = 0;                // G
    std::vector<unsigned int> levels;       // N x G digital levels, ascending, 0 .. 255
    std::size_t nodes = 0;                  // G^N
    std::vector<std::size_t> stride;        // G^i
    std::vector<std::size_t> cornerOffset;  // node offset of cell corner k: sum over bits i of G^i

    GridLayout(unsigned int inks, const ResolvedGrid& grid);
    GridLayout(unsigned int inks, unsigned int points, const std::vector<unsigned int>& levels);
    // Cell along ink i holding level t, as the library's lookup table does:
    // the last grid point at or below t, but never the top one (255 is in the
    // last cell with coordinate 1).
    unsigned int Cell(unsigned int ink, unsigned int level) const;
    // Grid index of a level, or -1 when it is not a grid level.
    int GridIndex(unsigned int ink, unsigned int level) const;
    // Grid index of ink i at a node.
    unsigned int NodeIndex(std::size_t node, unsigned int ink) const { return (node / stride[ink]) % points; }
    // Digital levels (N bytes) of a node.
    void NodeLevels(std::size_t node, unsigned char* sample) const;
};

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
