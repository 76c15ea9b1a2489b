#include "kelma/separation/ZKCSeparation_Samples.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace KELMA_NAMESPACE {

namespace {

double Distance(const double* a, const double* b) {
    const double d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
    return std::sqrt(d0 * d0 + d1 * d1 + d2 * d2);
}

}  // namespace

void ZKCSeparation_SampleIndex::Build(const std::vector<double>& lab) {
    lab_ = lab;
    const std::size_t n = lab.size() / 3;
    double hi[3];
    for (int c = 0; c < 3; ++c) {
        lo_[c] = std::numeric_limits<double>::infinity();
        hi[c] = -lo_[c];
    }
    for (std::size_t i = 0; i < n; ++i)
        for (int c = 0; c < 3; ++c) {
            lo_[c] = std::min(lo_[c], lab[3 * i + c]);
            hi[c] = std::max(hi[c], lab[3 * i + c]);
        }
    // About four points per bucket.
    cells_ = std::max(1, std::min(kMaxCells, static_cast<int>(std::cbrt(static_cast<double>(n) / 4.0))));
    minCell_ = std::numeric_limits<double>::infinity();
    for (int c = 0; c < 3; ++c) {
        cell_[c] = std::max((hi[c] - lo_[c]) / cells_, 1e-6) * (1.0 + 1e-9);
        minCell_ = std::min(minCell_, cell_[c]);
    }
    buckets_.assign(cells_ * cells_ * cells_, {});
    for (std::size_t i = 0; i < n; ++i) {
        int b[3];
        for (int c = 0; c < 3; ++c)
            b[c] = std::min(cells_ - 1, std::max(0, static_cast<int>((lab[3 * i + c] - lo_[c]) / cell_[c])));
        buckets_[(b[0] * cells_ + b[1]) * cells_ + b[2]].push_back(static_cast<unsigned int>(i));
    }
}

long ZKCSeparation_SampleIndex::Nearest(const double* t, double maxDistance, double* distance) const {
    int home[3];
    double outside = 0.0;  // distance from t to the grid's box
    for (int c = 0; c < 3; ++c) {
        const double u = (t[c] - lo_[c]) / cell_[c];
        home[c] = std::min(cells_ - 1, std::max(0, static_cast<int>(std::floor(u))));
        const double below = lo_[c] - t[c], above = t[c] - (lo_[c] + cells_ * cell_[c]);
        const double o = std::max(0.0, std::max(below, above));
        outside += o * o;
    }
    outside = std::sqrt(outside);
    long best = -1;
    double bestD = maxDistance;
    for (int r = 0; r < cells_; ++r) {
        // Every point in shell r or beyond is at least this far.
        const double bound = std::max(outside, (r - 1) * minCell_);
        if (bound > bestD) break;
        for (int i = home[0] - r; i <= home[0] + r; ++i) {
            if (i < 0 || i >= cells_) continue;
            for (int j = home[1] - r; j <= home[1] + r; ++j) {
                if (j < 0 || j >= cells_) continue;
                for (int k = home[2] - r; k <= home[2] + r; ++k) {
                    if (k < 0 || k >= cells_) continue;
                    if (std::max(std::abs(i - home[0]), std::max(std::abs(j - home[1]), std::abs(k - home[2]))) != r)
                        continue;
                    for (unsigned int idx : buckets_[(i * cells_ + j) * cells_ + k]) {
                        const double d = Distance(t, &lab_[3 * idx]);
                        if (d <= bestD) {
                            bestD = d;
                            best = idx;
                        }
                    }
                }
            }
        }
    }
    if (distance != nullptr) *distance = bestD;
    return best;
}

ZKCSeparation_Samples::ZKCSeparation_Samples(const ZKCSeparation_Subset& subset, unsigned int levels) {
    const unsigned int L = levels;
    const unsigned int black = subset.Black();
    const double total = subset.TotalLimit();
    double top[4];
    for (unsigned int j = 0; j < 4; ++j) top[j] = j == black ? subset.BlackLimit() : 255.0;
    const unsigned int stride[4] = {1, L, L * L, L * L * L};
    const unsigned int nodes = L * L * L * L;
    auto gridPoint = [&](unsigned int q, ZKSSubsetPoint& p) {
        double sum = 0.0;
        for (unsigned int j = 0; j < 4; ++j) {
            p.x[j] = top[j] * (q / stride[j] % L) / (L - 1);
            sum += p.x[j];
        }
        return sum;
    };
    auto add = [&](const ZKSSubsetPoint& p) -> long {
        double lab[3];
        if (!subset.Lab(p.x, lab, nullptr)) return -1;
        points_.push_back(p);
        lab_.insert(lab_.end(), lab, lab + 3);
        return static_cast<long>(points_.size() - 1);
    };
    // Grid points inside the limits, then the crossings of grid edges with
    // the total limit (along an edge only one ink changes).
    std::vector<long> node(nodes, -1), crossing(std::size_t{nodes} * 4, -1);
    for (unsigned int q = 0; q < nodes; ++q) {
        ZKSSubsetPoint p;
        if (gridPoint(q, p) <= total) node[q] = add(p);
    }
    for (unsigned int q = 0; q < nodes; ++q) {
        for (unsigned int j = 0; j < 4; ++j) {
            if (q / stride[j] % L + 1 >= L) continue;
            const unsigned int r = q + stride[j];
            if ((node[q] >= 0) == (node[r] >= 0)) continue;
            ZKSSubsetPoint p;
            const double sum = gridPoint(q, p);
            p.x[j] = std::max(0.0, total - (sum - p.x[j]));
            crossing[std::size_t{q} * 4 + j] = add(p);
        }
    }
    index_.Build(lab_);
    levelPoints_.assign(L, {});
    for (unsigned int q = 0; q < nodes; ++q)
        if (node[q] >= 0) levelPoints_[q / stride[black] % L].push_back(static_cast<unsigned int>(node[q]));
    levelIndex_.resize(L);
    for (unsigned int k = 0; k < L; ++k) {
        std::vector<double> lab;
        for (unsigned int i : levelPoints_[k]) lab.insert(lab.end(), &lab_[3 * i], &lab_[3 * i] + 3);
        levelIndex_[k].Build(lab);
    }

    // The colours each cell may cover: its samples' box, widened.
    std::vector<double> boxes;
    for (unsigned int q = 0; q < nodes; ++q) {
        bool inner = true;
        for (unsigned int j = 0; j < 4; ++j) inner = inner && q / stride[j] % L + 1 < L;
        if (!inner) continue;
        long members[16 + 32];
        unsigned int count = 0;
        for (unsigned int k = 0; k < 16; ++k) {
            unsigned int corner = q;
            for (unsigned int j = 0; j < 4; ++j)
                if ((k >> j) & 1u) corner += stride[j];
            if (node[corner] >= 0) members[count++] = node[corner];
            for (unsigned int j = 0; j < 4; ++j)
                if (((k >> j) & 1u) == 0 && crossing[std::size_t{corner} * 4 + j] >= 0)
                    members[count++] = crossing[std::size_t{corner} * 4 + j];
        }
        if (count == 0) continue;
        double lo[3], hi[3], mean[3] = {0, 0, 0};
        ZKSSubsetPoint centroid{};
        for (int c = 0; c < 3; ++c) {
            lo[c] = std::numeric_limits<double>::infinity();
            hi[c] = -lo[c];
        }
        for (unsigned int i = 0; i < count; ++i) {
            const double* lab = &lab_[3 * members[i]];
            for (int c = 0; c < 3; ++c) {
                lo[c] = std::min(lo[c], lab[c]);
                hi[c] = std::max(hi[c], lab[c]);
                mean[c] += lab[c] / count;
            }
            for (unsigned int j = 0; j < 4; ++j) centroid.x[j] += points_[members[i]].x[j] / count;
        }
        double centre[3];
        double margin = 1.0;
        if (subset.Lab(centroid.x, centre, nullptr)) margin += 2.0 * Distance(centre, mean);
        else margin += hi[0] - lo[0] + hi[1] - lo[1] + hi[2] - lo[2];
        for (int c = 0; c < 3; ++c) {
            boxes.push_back(lo[c] - margin);
            boxes.push_back(hi[c] + margin);
        }
        boxes.push_back(static_cast<double>(q / stride[black] % L));
    }
    double lo[3], hi[3];
    for (int c = 0; c < 3; ++c) {
        lo[c] = std::numeric_limits<double>::infinity();
        hi[c] = -lo[c];
    }
    for (std::size_t b = 0; b < boxes.size(); b += 7)
        for (int c = 0; c < 3; ++c) {
            lo[c] = std::min(lo[c], boxes[b + 2 * c]);
            hi[c] = std::max(hi[c], boxes[b + 2 * c + 1]);
        }
    if (boxes.empty()) return;
    for (int c = 0; c < 3; ++c) {
        origin_[c] = std::floor(lo[c] / kVoxel) * kVoxel;
        dims_[c] = static_cast<int>(std::ceil((hi[c] - origin_[c]) / kVoxel)) + 1;
    }
    reach_.assign(std::size_t(dims_[0]) * dims_[1] * dims_[2], 0);
    for (std::size_t b = 0; b < boxes.size(); b += 7) {
        int from[3], to[3];
        const std::uint8_t bit = static_cast<std::uint8_t>(1u << std::min(7, static_cast<int>(boxes[b + 6])));
        for (int c = 0; c < 3; ++c) {
            from[c] = std::max(0, static_cast<int>(std::floor((boxes[b + 2 * c] - origin_[c]) / kVoxel)));
            to[c] = std::min(dims_[c] - 1, static_cast<int>(std::floor((boxes[b + 2 * c + 1] - origin_[c]) / kVoxel)));
        }
        for (int i = from[0]; i <= to[0]; ++i)
            for (int j = from[1]; j <= to[1]; ++j)
                for (int k = from[2]; k <= to[2]; ++k)
                    reach_[(std::size_t(i) * dims_[1] + j) * dims_[2] + k] |= bit;
    }
}

ZKCSeparation_Samples::~ZKCSeparation_Samples() = default;

long ZKCSeparation_Samples::NearestAtLevel(const double* t, unsigned int k, double* distance) const {
    if (levelPoints_[k].empty()) return -1;
    const long i = levelIndex_[k].Nearest(t, std::numeric_limits<double>::infinity(), distance);
    return i < 0 ? -1 : static_cast<long>(levelPoints_[k][static_cast<std::size_t>(i)]);
}

unsigned int ZKCSeparation_Samples::ReachBands(const double* t) const {
    std::size_t at = 0;
    for (int c = 0; c < 3; ++c) {
        const double v = std::floor((t[c] - origin_[c]) / kVoxel);
        if (!(v >= 0.0 && v < dims_[c])) return 0;
        at = at * dims_[c] + static_cast<std::size_t>(v);
    }
    return reach_[at];
}

long ZKCSeparation_Samples::Nearest(const double* t, double* distance) const {
    return index_.Nearest(t, std::numeric_limits<double>::infinity(), distance);
}

}  // namespace KELMA_NAMESPACE
