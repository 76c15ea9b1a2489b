// Device samples of one ink subset of a separation: where its searches start
// and which colours it cannot reach at all.
//
// The feasible polytope of the subset (ZKCSeparation_Subset) is cut by a
// regular grid of `levels` levels per ink (black up to its limit). Samples
// are the grid points inside the limits and the points where grid edges
// cross the total limit; every grid cell's feasible part is the convex hull
// of its samples. The reach map marks every voxel (2 x 2 x 2 in CIELAB) that
// the colours of a cell may cover: the bounding box of the colours of the
// cell's samples, widened by twice the distance between the colour of the
// samples' centroid and the mean of their colours (the map's curvature over
// the cell) plus 1, and records the cell's black band (levels b to b + 1,
// at most 8 bands). A colour in an unmarked voxel is out of the subset's
// reach; the separation skips the subset for it.
//
// Searches start from samples: a colour is reachable over a range of black,
// and a start far from that range can end in a local minimum on a limit (for
// example a dark colour, reachable with much black, searched from full
// non-black inks and little black). So the grid points of each black level
// are also indexed on their own, and a failed search starts again in each
// black band that may reach the colour.
#pragma once

#include <cstdint>
#include <vector>

#include "kelma/separation/ZKCSeparation_Subset.h"

namespace KELMA_NAMESPACE {

// Nearest-neighbour lookup of CIELAB points on a uniform bucket grid.
class ZKCSeparation_SampleIndex {
public:
    void Build(const std::vector<double>& lab);
    // Index of the point nearest to t, or -1 when none lies within maxDistance.
    long Nearest(const double* t, double maxDistance, double* distance) const;

private:
    static constexpr int kMaxCells = 24;
    int cells_ = 1;
    double lo_[3] = {0, 0, 0}, cell_[3] = {1, 1, 1}, minCell_ = 1;
    std::vector<double> lab_;
    std::vector<std::vector<unsigned int>> buckets_;
};

class ZKCSeparation_Samples {
public:
    ZKCSeparation_Samples(const ZKCSeparation_Subset& subset, unsigned int levels);
    virtual ~ZKCSeparation_Samples();

    std::size_t Size() const { return points_.size(); }
    const ZKSSubsetPoint& Point(std::size_t i) const { return points_[i]; }
    const double* Lab(std::size_t i) const { return &lab_[3 * i]; }

    // Black bands (bit b: black between levels b and b + 1) whose cells may
    // reach t; 0 when t is certainly out of the subset's reach.
    unsigned int ReachBands(const double* t) const;
    // The sample whose colour is nearest to t (-1 when there is none).
    long Nearest(const double* t, double* distance) const;
    // Black levels of the grid, and the grid point at black level k nearest
    // to t (-1 when there is none).
    unsigned int BlackLevels() const { return static_cast<unsigned int>(levelIndex_.size()); }
    long NearestAtLevel(const double* t, unsigned int k, double* distance) const;

private:
    static constexpr double kVoxel = 2.0;
    std::vector<ZKSSubsetPoint> points_;
    std::vector<double> lab_;
    ZKCSeparation_SampleIndex index_;
    std::vector<ZKCSeparation_SampleIndex> levelIndex_;
    std::vector<std::vector<unsigned int>> levelPoints_;
    double origin_[3] = {0, 0, 0};
    int dims_[3] = {0, 0, 0};
    std::vector<std::uint8_t> reach_;
};

}  // namespace KELMA_NAMESPACE
