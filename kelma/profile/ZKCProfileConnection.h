// The colorimetry of a printer model as an ICC output profile states it: the
// profile connection space (PCS) of ICC.1 (D50, CIELAB), relative to the
// medium, for one illuminant of the model.
//
// The model's colorimetry under illuminant I (observer folded into the
// lighting matrix): X, the XYZ of a print relative to the illuminant (the
// lighting matrix's scale, perfect reflector Y = 1; PredictColorimetry with
// mediaRelative = false); W, the XYZ of the perfect reflector under I
// (ZKCWhitePoint of the matrix); P, the XYZ of the paper (the model's media
// white point).
//
// Chromatic adaptation, the 3 x 3 matrix M written as the profile's
// chromatic adaptation tag (chad); M maps W to D50 exactly.
//  - An illuminant that is not D50: colours seen under I are taken to the
//    PCS illuminant D50 of ICC.1 (X 0.9642, Y 1.0, Z 0.8249) by the
//    linearised Bradford transform that ICC.1 recommends, from W to D50
//    (Little CMS, cmsAdaptToIlluminant).
//  - D50 (the library's table, recognised by StandardIlluminantName, under
//    either observer): no adaptation. W is D50 as the library tabulates it
//    (2 degree: X 0.96204, Z 0.82500), so M = diag(D50 / W) only gives it
//    the ICC's numbers, and the PCS colours below are exactly the model's
//    paper-relative CIELAB. (A Bradford transform between the two D50 whites
//    would move colours by up to 0.06 CIEDE2000.) A D50 given as a measured
//    spectrum is not recognised and is adapted by Bradford.
//
// Media-relative PCS (ICC.1 colorimetric intents):
//     XYZ_pcs = D50 * (M X) / (M P)    (component by component)
//     Lab_pcs = CIELAB of XYZ_pcs against D50 (XYZToCIELAB, exact constants).
// The paper is L* = 100, a* = b* = 0. The media white point tag (wtpt) is
// M P, the paper adapted to D50; a colour management engine's absolute
// colorimetric intent scales XYZ_pcs by wtpt / D50 and so recovers M X.
//
// The model's own paper-relative CIELAB (PredictColorimetry, mediaRelative =
// true) is CIELAB of X * W / P against W. ModelLabToPCSLab and
// PCSLabToModelLab convert between the two, exactly inverse to rounding:
// the colour-to-device tables separate the model's paper-relative CIELAB of
// each PCS colour.
//
// Units: XYZ on the scale Y(white) = 1; CIELAB L* 0..100. NaN in gives NaN
// out; nothing is clamped.
#pragma once

#include <cstddef>

#include "kelma/common/Config.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

class KELMA_API ZKCProfileConnection {
public:
    // illuminant indexes the model's lighting matrix ("Invalid
    // IlluminantIndex" when it has no such illuminant).
    ZKCProfileConnection(const ZKCSSE_KELMA_Data& model, unsigned int illuminant);
    virtual ~ZKCProfileConnection();

    // The PCS illuminant of ICC.1: 0.9642, 1.0, 0.8249.
    static const double* PCSWhite();

    // Whether the illuminant is the library's D50 (no adaptation).
    bool IsD50() const { return isD50_; }
    const double* IlluminantWhite() const { return white_; }  // W
    const double* Paper() const { return paper_; }             // P
    // M, row-major (XYZ_D50 = M XYZ_I): the chromatic adaptation tag.
    const double* Adaptation() const { return adaptation_; }
    // M P: the media white point tag.
    const double* MediaWhitePoint() const { return mediaWhite_; }

    // count colours, 3 doubles each (in and out may not overlap).
    // X (illuminant-relative XYZ of the model) to media-relative PCS CIELAB.
    void XYZToPCSLab(const double* xyz, double* lab, std::size_t count) const;
    // The model's paper-relative CIELAB to PCS CIELAB and back.
    void ModelLabToPCSLab(const double* modelLab, double* pcsLab, std::size_t count) const;
    void PCSLabToModelLab(const double* pcsLab, double* modelLab, std::size_t count) const;

private:
    bool isD50_;
    double white_[3];
    double paper_[3];
    double adaptation_[9];
    double mediaWhite_[3];
    // XYZ_pcs = toPCS_ X (M scaled by D50 / (M P) per row); fromPCS_ its inverse.
    double toPCS_[9];
    double fromPCS_[9];
};

}  // namespace KELMA_NAMESPACE
