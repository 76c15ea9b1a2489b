// Internal: the tables of an ICC profile of a model (the nodes, input curves
// and CLUT values that ICCOutputProfile.h describes), computed without Little
// CMS so that tests can check them value by value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/profile/ZKCProfileConnection.h"
#include "kelma/separation/ZKCSeparation.h"

namespace KELMA_NAMESPACE {
namespace profile {

// One ink axis of a device table of `points` nodes (2..256): the device
// values of the nodes and the input curve that puts node j at j / (points - 1).
struct ZKSDeviceAxis {
    std::vector<unsigned char> nodes;  // b_j: strictly ascending, 0 first, 255 last
    std::vector<std::uint16_t> curve;  // 256 entries, round(65535 u(t))
};

// Nodes and curve uniform in device values.
ZKSDeviceAxis UniformDeviceAxis(unsigned int points);
// Nodes and curve in the model's own coordinate along the ink, or the
// uniform axis where that cannot be had (ICCOutputProfile.h).
ZKSDeviceAxis ModelDeviceAxis(const ZKCSSE_KELMA_Data& model, unsigned int ink, unsigned int points);

// The CLUT of the device-to-PCS table on one axis per ink (all of the same
// number of nodes, `points`): points^N nodes, ink 0 slowest (Little
// CMS's order), 3 16-bit values each: the PCS CIELAB (media-relative) of
// the model at the node's device values, in the ICC encoding of iccVersion.
std::vector<std::uint16_t> DeviceToPCSTable(const ZKCSSE_KELMA_Data& model, unsigned int illuminant,
                                            const ZKCProfileConnection& pcs, const std::vector<ZKSDeviceAxis>& axes,
                                            unsigned int iccVersion);

// One PCS axis (component 0 = L*, 1 = a*, 2 = b*) of a colour-to-device or
// gamut table of `points` nodes (2..255) in the ICC encoding of iccVersion.
struct ZKSPCSAxis {
    std::vector<double> nodes;         // the component's value at node g
    std::vector<std::uint16_t> curve;  // 4096 entries, the input curve
};

ZKSPCSAxis PCSAxis(unsigned int component, unsigned int points, unsigned int iccVersion);
// The component's value at a grid position (0 .. points - 1, fractional
// between nodes): what the input curve maps there.
double PCSAxisValue(unsigned int component, double position, unsigned int points, unsigned int iccVersion);

// The colour-to-device table (points^3 nodes, L* slowest, N 16-bit inks
// each; ZKCSeparation::NodeValues on the PCS grid) and the gamut table (one
// 16-bit value per node) on the PCS axes of `points` nodes.
struct ZKSColourToDeviceTables {
    std::vector<std::uint16_t> inks;
    std::vector<std::uint16_t> gamut;
    std::vector<bool> inGamut;  // per node: the separation's gamut test
};

ZKSColourToDeviceTables ColourToDeviceTables(const ZKCSeparation& separation, const ZKCProfileConnection& pcs,
                                             unsigned int points, unsigned int iccVersion);

// PCS CIELAB to its 16-bit ICC encoding (v4 or the v2 legacy one), by Little
// CMS; out-of-range values are clamped to the encodable range.
void EncodePCSLab(const double* lab, unsigned int iccVersion, std::uint16_t* encoded);

}  // namespace profile
}  // namespace KELMA_NAMESPACE
