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

ZKSDeviceAxis DeviceAxis(unsigned int points) {
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

std::vector<std::uint16_t> DeviceToPCSTable(const ZKCSSE_KELMA_Data& model, unsigned int illuminant,
                                            const ZKCProfileConnection& pcs, const ZKSDeviceAxis& axis,
                                            unsigned int iccVersion) {
    const unsigned int N = model.NumberOfInks();
    const std::size_t points = axis.nodes.size();
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
                inks[s * N + i] = axis.nodes[index % points];
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
