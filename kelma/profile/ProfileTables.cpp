#include "kelma/profile/ProfileTables.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>

#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {
namespace profile {

namespace {

// Nodes predicted per PredictColorimetry call: 6 MiB of XYZ.
constexpr std::size_t kChunk = std::size_t{1} << 18;

// XYZ to encoded PCS CIELAB for one share of a chunk.
struct EncodeShare {
    const ZKCProfileConnection* pcs;
    unsigned int iccVersion;
    const double* xyz;
    std::size_t count;
    std::uint16_t* out;

    void operator()() const {
        for (std::size_t s = 0; s < count; ++s) {
            double lab[3];
            pcs->XYZToPCSLab(xyz + 3 * s, lab, 1);
            EncodePCSLab(lab, iccVersion, out + 3 * s);
        }
    }
};

}  // namespace

ZKSDeviceAxis UniformDeviceAxis(unsigned int points) {
    ZKSDeviceAxis axis;
    const unsigned int last = points - 1;
    for (unsigned int j = 0; j < points; ++j)
        axis.nodes.push_back(static_cast<unsigned char>(std::floor(255.0 * j / last + 0.5)));
    axis.curve.resize(256);
    for (unsigned int j = 0; j < last; ++j) {
        const unsigned int lo = axis.nodes[j], hi = axis.nodes[j + 1];
        for (unsigned int t = lo; t <= hi; ++t) {
            const double u = (j + double(t - lo) / double(hi - lo)) / last;
            axis.curve[t] = static_cast<std::uint16_t>(std::floor(65535.0 * u + 0.5));
        }
    }
    return axis;
}

void EncodePCSLab(const double* lab, unsigned int iccVersion, std::uint16_t* encoded) {
    const cmsCIELab v = {lab[0], lab[1], lab[2]};
    if (iccVersion == 2)
        cmsFloat2LabEncodedV2(encoded, &v);
    else
        cmsFloat2LabEncoded(encoded, &v);
}

ZKSDeviceAxis ModelDeviceAxis(const ZKCSSE_KELMA_Data& model, unsigned int ink, unsigned int points) {
    const unsigned int G = model.NumberOfGridPoints();
    const unsigned int cells = G - 1;
    const unsigned int last = points - 1;
    if (last < cells) return UniformDeviceAxis(points);
    std::size_t stride = 1;
    for (unsigned int i = 0; i < ink; ++i) stride *= cells;
    // The model's coordinate along the ink: cell index + weight in the cell.
    double m[256];
    for (unsigned int t = 0; t < 256; ++t) {
        const ZKSSSE_EffectiveRampEntry& e = model.EffectiveRampsLUT()[ink * 256 + t];
        m[t] = double(e.cellOffset / stride) + e.weight;
    }
    std::vector<unsigned int> level(G);
    for (unsigned int c = 0; c < G; ++c) level[c] = static_cast<unsigned int>(model.GridPoints()[ink * G + c]);
    // Intervals per model cell: an equal share, the rest to the widest cells.
    std::vector<unsigned int> share(cells, last / cells);
    std::vector<unsigned int> order(cells);
    for (unsigned int c = 0; c < cells; ++c) order[c] = c;
    std::stable_sort(order.begin(), order.end(), [&](unsigned int a, unsigned int b) {
        return level[a + 1] - level[a] > level[b + 1] - level[b];
    });
    for (unsigned int r = 0; r < last % cells; ++r) ++share[order[r]];
    ZKSDeviceAxis axis;
    axis.nodes.push_back(0);
    for (unsigned int c = 0; c < cells; ++c) {
        const unsigned int lo = level[c], hi = level[c + 1];
        if (share[c] > hi - lo) return UniformDeviceAxis(points);
        for (unsigned int k = 1; k < share[c]; ++k) {
            const double target = c + double(k) / share[c];
            // Nearest level in (previous node, hi - (share - k)) keeps nodes distinct.
            unsigned int best = axis.nodes.back() + 1;
            for (unsigned int t = best; t <= hi - (share[c] - k); ++t)
                if (std::abs(m[t] - target) < std::abs(m[best] - target)) best = t;
            axis.nodes.push_back(static_cast<unsigned char>(best));
        }
        axis.nodes.push_back(static_cast<unsigned char>(hi));
    }
    axis.curve.resize(256);
    for (unsigned int j = 0; j < last; ++j) {
        const unsigned int lo = axis.nodes[j], hi = axis.nodes[j + 1];
        // m is continuous across a grid level (weight 1 of the cell below is
        // weight 0 of the cell above); a flat stretch gives u linear in t.
        const double span = m[hi] - m[lo];
        for (unsigned int t = lo; t <= hi; ++t) {
            const double f = span > 0 ? (m[t] - m[lo]) / span : double(t - lo) / double(hi - lo);
            const double u = std::min(1.0, std::max(0.0, (j + f) / last));
            axis.curve[t] = static_cast<std::uint16_t>(std::floor(65535.0 * u + 0.5));
        }
    }
    return axis;
}

std::vector<std::uint16_t> DeviceToPCSTable(const ZKCSSE_KELMA_Data& model, unsigned int illuminant,
                                            const ZKCProfileConnection& pcs, const std::vector<ZKSDeviceAxis>& axes,
                                            unsigned int iccVersion) {
    const unsigned int N = model.NumberOfInks();
    const std::size_t points = axes[0].nodes.size();
    std::size_t total = 1;
    for (unsigned int i = 0; i < N; ++i) total *= points;
    std::vector<std::uint16_t> table(3 * total);

    std::vector<unsigned char> inks;
    std::vector<double> xyz;
    for (std::size_t start = 0; start < total; start += kChunk) {
        const std::size_t count = std::min(kChunk, total - start);
        inks.resize(count * N);
        for (std::size_t s = 0; s < count; ++s) {
            // Node index in base `points`, ink N-1 the least significant digit.
            std::size_t index = start + s;
            for (unsigned int i = N; i-- > 0;) {
                inks[s * N + i] = axes[i].nodes[index % points];
                index /= points;
            }
        }
        xyz.resize(3 * count);
        PredictColorimetry(model, count, inks.data(), illuminant, false, xyz.data(), nullptr);

        const std::vector<ZKSWorkShare> shares = SplitWork(count, count < 4096 ? 1 : CPUCount());
        std::vector<EncodeShare> work;
        for (const ZKSWorkShare& share : shares)
            work.push_back({&pcs, iccVersion, xyz.data() + 3 * share.start, share.count,
                            table.data() + 3 * (start + share.start)});
        ZKCWorkerThreads threads(work.size());
        for (std::size_t k = 0; k < work.size(); ++k) threads.Start(k, work[k]);
        threads.JoinAll(work.size());
    }
    return table;
}

}  // namespace profile
}  // namespace KELMA_NAMESPACE
