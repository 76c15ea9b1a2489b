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

namespace {

// A component's value at encoded position x in [0, 1] (x = 16-bit value /
// 65535) and back: v4 L* = 100 x, a* = 255 x - 128; v2 L* = 100 x 65535 /
// 65280, a* = x 65535 / 256 - 128.
double Decode(unsigned int component, double x, unsigned int iccVersion) {
    if (component == 0) return iccVersion == 2 ? 100.0 * x * 65535.0 / 65280.0 : 100.0 * x;
    return iccVersion == 2 ? x * 65535.0 / 256.0 - 128.0 : 255.0 * x - 128.0;
}

double Encode(unsigned int component, double v, unsigned int iccVersion) {
    if (component == 0) return iccVersion == 2 ? v / 100.0 * 65280.0 / 65535.0 : v / 100.0;
    return iccVersion == 2 ? (v + 128.0) * 256.0 / 65535.0 : (v + 128.0) / 255.0;
}

constexpr unsigned int kPCSCurveEntries = 4096;

}  // namespace

namespace {

// Encoded position x of grid position y in [0, 1] along a PCS axis, and the
// inverse (the input curve): identity, except for a* and b* of an odd grid,
// piecewise linear with a* = 0 (x0) at the middle.
struct AxisMap {
    bool split;
    double x0;
    AxisMap(unsigned int component, unsigned int points, unsigned int iccVersion)
        : split(component != 0 && points % 2 == 1), x0(Encode(component, 0.0, iccVersion)) {}
    double Position(double y) const {
        if (!split) return y;
        return y <= 0.5 ? x0 * y / 0.5 : x0 + (1.0 - x0) * (y - 0.5) / 0.5;
    }
    double Grid(double x) const {
        if (!split) return x;
        return x <= x0 ? 0.5 * x / x0 : 0.5 + 0.5 * (x - x0) / (1.0 - x0);
    }
};

}  // namespace

double PCSAxisValue(unsigned int component, double position, unsigned int points, unsigned int iccVersion) {
    const AxisMap map(component, points, iccVersion);
    const double y = position / (points - 1);
    // The middle node exactly at 0 (no rounding through the encoding).
    if (map.split && 2.0 * position == points - 1) return 0.0;
    return Decode(component, map.Position(y), iccVersion);
}

ZKSPCSAxis PCSAxis(unsigned int component, unsigned int points, unsigned int iccVersion) {
    ZKSPCSAxis axis;
    const AxisMap map(component, points, iccVersion);
    for (unsigned int g = 0; g < points; ++g) axis.nodes.push_back(PCSAxisValue(component, g, points, iccVersion));
    for (unsigned int k = 0; k < kPCSCurveEntries; ++k) {
        const double y = map.Grid(double(k) / (kPCSCurveEntries - 1));
        axis.curve.push_back(static_cast<std::uint16_t>(std::floor(65535.0 * y + 0.5)));
    }
    return axis;
}

ZKSColourToDeviceTables ColourToDeviceTables(const ZKCSeparation& separation, const ZKCProfileConnection& pcs,
                                             unsigned int points, unsigned int iccVersion) {
    const unsigned int N = separation.NumberOfInks();
    // The PCS colour of a grid position as the separation sees it: the
    // model's paper-relative CIELAB.
    const ZKCSeparation::GridColour colourAt = [&](const double* position, double* modelLab) {
        double lab[3];
        for (unsigned int c = 0; c < 3; ++c) lab[c] = PCSAxisValue(c, position[c], points, iccVersion);
        pcs.PCSLabToModelLab(lab, modelLab, 1);
    };
    std::vector<ZKSSeparationResult> nodes;
    const std::vector<double> values = separation.NodeValues(points, colourAt, &nodes);

    ZKSColourToDeviceTables t;
    const std::size_t total = nodes.size();
    t.inks.resize(total * N);
    t.gamut.resize(total);
    t.inGamut.resize(total);
    const double limit = 257.0 * separation.TotalLimit();
    for (std::size_t node = 0; node < total; ++node) {
        // 257 per byte (255 -> 65535), rounded; rounded down where rounding
        // would take the sum over the total limit.
        const double* v = &values[node * N];
        double sum = 0;
        for (unsigned int i = 0; i < N; ++i) sum += std::floor(257.0 * v[i] + 0.5);
        const bool down = sum > limit;
        for (unsigned int i = 0; i < N; ++i) {
            const double scaled = 257.0 * v[i];
            const double w = std::min(65535.0, std::max(0.0, down ? std::floor(scaled) : std::floor(scaled + 0.5)));
            t.inks[node * N + i] = static_cast<std::uint16_t>(w);
        }
        const ZKSSeparationResult& r = nodes[node];
        t.inGamut[node] = r.inGamut;
        if (r.inGamut) continue;
        const double position[3] = {double(node / (points * points)), double(node / points % points),
                                    double(node % points)};
        double target[3];
        colourAt(position, target);
        double d = 0;
        for (int c = 0; c < 3; ++c) d += (r.mapped[c] - target[c]) * (r.mapped[c] - target[c]);
        // Distance to the mapped colour, 65535 per 100 Delta E*ab, never 0.
        const double g = std::ceil(65535.0 * std::min(1.0, std::sqrt(d) / 100.0));
        t.gamut[node] = static_cast<std::uint16_t>(std::max(1.0, g));
    }
    return t;
}

}  // namespace profile
}  // namespace KELMA_NAMESPACE
