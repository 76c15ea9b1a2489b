// ICC profiles of a printer model, assembled with Little CMS (pipelines,
// CLUT stages and tags; the file is serialised by Little CMS), so that colour
// management engines and their tools (transicc, tificc) can use a model.
//
// Device side. The model's inks in the model's order, 8-bit device values
// (0 = no ink, 255 = full coverage): ICC CMYK for 4 inks, the ICC n-colour
// spaces 6CLR and 7CLR for 6 and 7 inks. PCS: CIELAB (D50), as
// ZKCProfileConnection defines it from one illuminant of the model.
//
// Device-to-PCS tables (A2B0, A2B1, A2B2). One table serves all three tags
// (A2B0 and A2B2 are linked to A2B1, ICC.1 tag sharing): the media-relative
// PCS CIELAB the model predicts. The model has no perceptual rendering of its
// own, so perceptual and saturation are the colorimetric table; the ICC v4
// perceptual reference medium is not applied.
//   pipeline: per-ink input curves (A curves) -> CLUT of G^N nodes, 16-bit
//             -> identity output curves.
//   nodes:    along each ink, G whole device values b_0 = 0 < ... < b_(G-1)
//             = 255 at which the model is predicted exactly (PredictColorimetry
//             and ZKCProfileConnection; no interpolation of the model). They
//             follow the model's own coordinate along the ink, m(t) = cell +
//             weight of its ramp lookup table (ZKSSSE_EffectiveRampEntry: 0 at
//             the first grid level, 1 at the second, ..., G_model - 1 at 255):
//             the model's grid levels are nodes; each model cell gets an equal
//             share of the G - 1 intervals, the remainder going to the cells
//             widest in device values; inside a cell of s intervals node k is
//             the device value whose m is nearest to cell + k / s (distinct).
//   curves:   256 entries, one per device value t: u(t) = (j + (m(t) -
//             m(b_j)) / (m(b_(j+1)) - m(b_j))) / (G - 1) for b_j <= t <=
//             b_(j+1), encoded as round(65535 u). Node j sits exactly at b_j,
//             and between nodes the table interpolates in the model's
//             coordinate, in which the model is multilinear before its
//             Yule-Nielsen power: with 33 nodes the press model's A2B is
//             within 0.003 CIEDE2000 (mean over its chart) of the model,
//             against 0.05 with nodes and curves uniform in device values.
//             Where m does not rise between two nodes (a flat ramp) u is
//             linear in t there. When the table has fewer intervals than the
//             model has cells, or a cell fewer device values than intervals,
//             the axis is uniform: b_j = floor(255 j / (G - 1) + 1/2), u
//             linear in t.
//   CLUT values: PCS CIELAB in the ICC's 16-bit encoding of the profile's
//             version (v4: L* 0..100 onto 0..65535, a*, b* -128..127 onto
//             0..65535; v2: the legacy encoding, L* 100 at 0xFF00, as
//             lut16Type readers expect), through Little CMS
//             (cmsFloat2LabEncoded, cmsFloat2LabEncodedV2).
//   grid:     G is the largest count not above gridPoints with G^N <=
//             kMaxDeviceTableNodes: gridPoints for 4 inks up to 45; a table
//             of 6 or 7 inks cannot have 33 points per ink (33^7 nodes), so
//             it gets at most 12 (6 inks) or 8 (7 inks), or
//             multiInkGridPoints when that is set.
//
// PCS-to-device tables (B2A0, B2A1, B2A2; one table, B2A0 and B2A2 linked
// to B2A1), from the library's separation (ZKCSeparation) of the model under
// options.separation (total coverage, maximum black, GCR or black length and
// width), for the profile's illuminant, relative to the paper:
//   pipeline: input curves (B curves) -> CLUT of G^3 nodes (G = gridPoints),
//             N 16-bit inks per node -> identity output curves.
//   nodes:    L* (slowest), a*, b* in the ICC encoding of the version: node g
//             at encoded position g / (G - 1) for L* (v4: L* = 100 g / (G -
//             1)); for a* and b* of an odd G the curve is piecewise linear
//             with a* = 0 on the middle node, -128 on the first and the
//             largest encodable value (v4: 127, v2: 127.996) on the last,
//             the nodes evenly spread on either side (v4, 33 points: -128,
//             -120, ..., -8, 0, 7.94, ..., 127), so neutral colours fall on
//             nodes; an even G gets identity curves. Curves: 4096 entries.
//   values:   each node's PCS colour is taken to the model's paper-relative
//             CIELAB (ZKCProfileConnection::PCSLabToModelLab) and separated
//             (ZKCSeparation::Analyse): in-gamut colours reproduced, others
//             gamut-mapped by method 0 (the most chromatic reproducible colour
//             of the target's lightness and hue). The node holds the
//             continuous solution, 257 x ink bytes, rounded (rounded down
//             where rounding would take the sum above the total limit), so
//             every node meets the total and black limits; an engine's
//             interpolated and rounded 8-bit outputs may exceed the total
//             limit by rounding, at most half a byte per ink.
//   The separation has no perceptual rendering: perceptual and saturation
//   are the colorimetric table.
// Gamut tag (gamt): the same curves and grid, one 16-bit output: 0 where the
// separation's gamut test finds the node's colour reproducible, else the
// distance to its mapped colour, 65535 per 100 Delta E*ab (at least 1):
// colours inside the gamut by a cell read 0, colours outside read more than 0.
//
// Tags: desc (description), cprt (copyright), wtpt (the paper in the PCS,
// ZKCProfileConnection::MediaWhitePoint), chad (v4 only: the chromatic
// adaptation from the illuminant's white to D50), A2B0-2, B2A0-2 and gamt
// (the output profile), targ (the
// characterisation data, when given), clrt (v4 only: ink names and the PCS
// CIELAB of each solid ink on the paper). Header: output device class,
// profile version 4.3 or 2.1, rendering intent relative colorimetric, and
// for v4 the profile ID (MD5).
//
// Texts: description and copyright are UTF-8, written as Unicode in v4; v2's
// text types are ASCII, so there other characters become '?'. The
// characterisation target is ASCII text (a CGATS file): other bytes become
// '?'. Ink names longer than 31 bytes are cut (the colorant table's field).
//
// Failures: options out of range, and anything Little CMS refuses, throw
// ZKCICCProfileError naming the option or Little CMS's message. The model
// must have 4, 6 or 7 inks ("DefaultCase" from the prediction otherwise), the
// illuminant must exist ("Invalid IlluminantIndex") and the separation must
// accept its parameters (its texts, e.g. "Limits leave no gamut").
//
// Threads: the model is predicted and separated on the library's worker
// threads (PredictColorimetry, ZKCSeparation); the tables do not depend on
// the thread count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelma/clut/ZKCUserParameter_Output.h"
#include "kelma/common/Config.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

class KELMA_API ZKCICCProfileError : public std::runtime_error {
public:
    explicit ZKCICCProfileError(const std::string& message);
    ~ZKCICCProfileError() override;
};

// Largest node count of a device-to-PCS table (16-bit CIELAB: 6 bytes a node).
constexpr std::size_t kMaxDeviceTableNodes = std::size_t{1} << 22;

struct KELMA_API ZKSICCProfileOptions {
    // Index into the model's lighting matrix: the illuminant (and observer)
    // of the profile's colorimetry.
    unsigned int illuminant = 0;
    // Nodes per axis of the tables, 2..255.
    unsigned int gridPoints = 33;
    // Nodes per ink of the device-to-PCS table of 6 and 7 inks (2..255, and
    // at most kMaxDeviceTableNodes nodes in all); 0: chosen as above.
    unsigned int multiInkGridPoints = 0;
    // 4 (ICC.1:2010, version 4.3) or 2 (version 2.1).
    unsigned int iccVersion = 4;
    // The colour-to-device tables' separation: ColorantCoverage, MaxBlack
    // (percent), GCR or BlackLength / BlackWidth, GamutMapperMethod 0.
    ZKCUserParameter_Output separation;
    std::string description = "kelma printer model";
    std::string copyright = "No copyright, use freely";
    // The measurement data the model came from (a CGATS text), written as
    // the characterisation target tag; empty: no tag.
    std::string characterizationTarget;
    // One name per ink for the colorant table; empty: "ink 1", "ink 2", ...
    std::vector<std::string> inkNames;
};

// Nodes per ink of the device-to-PCS table these options give a model of
// `inks` inks (checks the options).
KELMA_API unsigned int DeviceTableGridPoints(unsigned int inks, const ZKSICCProfileOptions& options);

// The device-to-PCS half of the output profile: header, desc, cprt, wtpt,
// chad, A2B0-2, targ and clrt as above, and no colour-to-device tables. Little
// CMS and other engines use it as the source profile of a transform (a soft
// proof, converting device values to CIELAB or to a display); it is not a
// complete output profile. The ICC file's bytes.
KELMA_API std::vector<unsigned char> ICCProofProfile(const ZKCSSE_KELMA_Data& model,
                                                     const ZKSICCProfileOptions& options);

// The complete output profile: ICCProofProfile's tags and B2A0-2 and gamt
// from the separation. The ICC file's bytes.
KELMA_API std::vector<unsigned char> ICCOutputProfile(const ZKCSSE_KELMA_Data& model,
                                                      const ZKSICCProfileOptions& options);
// ICCOutputProfile written to exactly `path`, atomically (WriteFileAtomically:
// ZKCFileWriteError naming the file when it cannot be written).
KELMA_API void WriteICCOutputProfile(const std::string& path, const ZKCSSE_KELMA_Data& model,
                                     const ZKSICCProfileOptions& options);

}  // namespace KELMA_NAMESPACE
