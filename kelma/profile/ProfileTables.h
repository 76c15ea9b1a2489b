// Internal: the device-to-PCS table of an ICC profile of a model (the nodes,
// input curves and CLUT values that ICCOutputProfile.h describes), built
// without Little CMS so that tests can check it value by value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/profile/ZKCProfileConnection.h"

namespace KELMA_NAMESPACE {
namespace profile {

// One ink axis of a device table of `points` nodes (2..256).
struct ZKSDeviceAxis {
    std::vector<unsigned char> nodes;  // b_j: strictly ascending, 0 first, 255 last
    std::vector<std::uint16_t> curve;  // 256 entries, round(65535 u(t))
};

ZKSDeviceAxis DeviceAxis(unsigned int points);

// The CLUT of the device-to-PCS table: points^N nodes, ink 0 slowest (Little
// CMS's order), 3 16-bit values each: the PCS CIELAB (media-relative) of
// the model at the node's device values, in the ICC encoding of iccVersion.
std::vector<std::uint16_t> DeviceToPCSTable(const ZKCSSE_KELMA_Data& model, unsigned int illuminant,
                                            const ZKCProfileConnection& pcs, const ZKSDeviceAxis& axis,
                                            unsigned int iccVersion);

// PCS CIELAB to its 16-bit ICC encoding (v4 or the v2 legacy one), by Little
// CMS; out-of-range values are clamped to the encodable range.
void EncodePCSLab(const double* lab, unsigned int iccVersion, std::uint16_t* encoded);

}  // namespace profile
}  // namespace KELMA_NAMESPACE
