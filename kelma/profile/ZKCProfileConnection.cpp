#include "kelma/profile/ZKCProfileConnection.h"

#include <lcms2.h>

#include <vector>

#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/StandardIlluminants.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"

namespace KELMA_NAMESPACE {

namespace {

void Multiply(const double* m, const double* v, double* out) {
    for (int r = 0; r < 3; ++r) out[r] = m[3 * r] * v[0] + m[3 * r + 1] * v[1] + m[3 * r + 2] * v[2];
}

// Inverse of a 3 x 3 matrix by cofactors (the matrices here are far from
// singular: a Bradford matrix scaled by positive factors).
void Invert(const double* m, double* inv) {
    const double c00 = m[4] * m[8] - m[5] * m[7];
    const double c01 = m[5] * m[6] - m[3] * m[8];
    const double c02 = m[3] * m[7] - m[4] * m[6];
    const double det = m[0] * c00 + m[1] * c01 + m[2] * c02;
    inv[0] = c00 / det;
    inv[1] = (m[2] * m[7] - m[1] * m[8]) / det;
    inv[2] = (m[1] * m[5] - m[2] * m[4]) / det;
    inv[3] = c01 / det;
    inv[4] = (m[0] * m[8] - m[2] * m[6]) / det;
    inv[5] = (m[2] * m[3] - m[0] * m[5]) / det;
    inv[6] = c02 / det;
    inv[7] = (m[1] * m[6] - m[0] * m[7]) / det;
    inv[8] = (m[0] * m[4] - m[1] * m[3]) / det;
}

}  // namespace

const double* ZKCProfileConnection::PCSWhite() {
    static const double white[3] = {cmsD50X, cmsD50Y, cmsD50Z};
    return white;
}

ZKCProfileConnection::ZKCProfileConnection(const ZKCSSE_KELMA_Data& model, unsigned int illuminant) {
    ZKCLighting_Matrix matrix;
    model.Lighting_Matrix().ExtractSingleIlluminant_Lighting_Matrix(matrix, illuminant);
    const std::vector<float> white = ZKCWhitePoint(matrix).Values();
    ZKCWhitePoint paper = model.MediaWhitePoint();
    paper.ReduceToSingleIlluminant(illuminant);
    for (int c = 0; c < 3; ++c) {
        white_[c] = white[c];
        paper_[c] = paper.Values()[c];
    }

    const cmsCIEXYZ source = {white_[0], white_[1], white_[2]};
    const cmsCIEXYZ* d50 = cmsD50_XYZ();
    isD50_ = StandardIlluminantName(model.Lighting_Matrix(), illuminant) == "D50";
    // D50 colorimetry needs no adaptation: its white only takes the ICC's numbers.
    for (int k = 0; k < 9; ++k) adaptation_[k] = 0.0;
    for (int k = 0; k < 3 && isD50_; ++k) adaptation_[4 * k] = PCSWhite()[k] / white_[k];
    // Bradford is linear: column k of M is the adapted unit vector e_k.
    for (int k = 0; k < 3 && !isD50_; ++k) {
        const cmsCIEXYZ unit = {k == 0 ? 1.0 : 0.0, k == 1 ? 1.0 : 0.0, k == 2 ? 1.0 : 0.0};
        cmsCIEXYZ adapted;
        cmsAdaptToIlluminant(&adapted, &source, d50, &unit);
        adaptation_[k] = adapted.X;
        adaptation_[3 + k] = adapted.Y;
        adaptation_[6 + k] = adapted.Z;
    }
    Multiply(adaptation_, paper_, mediaWhite_);
    const double* pcsWhite = PCSWhite();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) toPCS_[3 * r + c] = adaptation_[3 * r + c] * pcsWhite[r] / mediaWhite_[r];
    Invert(toPCS_, fromPCS_);
}

ZKCProfileConnection::~ZKCProfileConnection() = default;

void ZKCProfileConnection::XYZToPCSLab(const double* xyz, double* lab, std::size_t count) const {
    for (std::size_t s = 0; s < count; ++s) {
        double pcs[3];
        Multiply(toPCS_, xyz + 3 * s, pcs);
        XYZToCIELAB(pcs, PCSWhite(), lab + 3 * s);
    }
}

void ZKCProfileConnection::ModelLabToPCSLab(const double* modelLab, double* pcsLab, std::size_t count) const {
    for (std::size_t s = 0; s < count; ++s) {
        double relative[3], xyz[3];
        CIELABToXYZ(modelLab + 3 * s, white_, relative);
        for (int c = 0; c < 3; ++c) xyz[c] = relative[c] * paper_[c] / white_[c];
        XYZToPCSLab(xyz, pcsLab + 3 * s, 1);
    }
}

void ZKCProfileConnection::PCSLabToModelLab(const double* pcsLab, double* modelLab, std::size_t count) const {
    for (std::size_t s = 0; s < count; ++s) {
        double pcs[3], xyz[3], relative[3];
        CIELABToXYZ(pcsLab + 3 * s, PCSWhite(), pcs);
        Multiply(fromPCS_, pcs, xyz);
        for (int c = 0; c < 3; ++c) relative[c] = xyz[c] * white_[c] / paper_[c];
        XYZToCIELAB(relative, white_, modelLab + 3 * s);
    }
}

}  // namespace KELMA_NAMESPACE
