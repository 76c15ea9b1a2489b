// The PCS of the profiles: Bradford adaptation against an independent
// computation from the published cone matrix, the paper as the PCS white,
// the model's own paper-relative CIELAB for D50, and exact inverses.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/StandardIlluminants.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/profile/ZKCProfileConnection.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;

namespace {

ZKCLighting_Matrix Matrix(const std::vector<const char*>& names) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    std::vector<std::unique_ptr<ZKCIlluminant_Base>> owned;
    std::vector<ZKCIlluminant_Base*> list;
    for (const char* name : names) {
        owned.push_back(MakeStandardIlluminant(name));
        list.push_back(owned.back().get());
    }
    return ZKCLighting_Matrix(observer, list);
}

// Linearised Bradford from `source` to `target` white, from the published
// cone response matrix (Lam 1985; ICC.1:2010 Annex E), row-major.
void Bradford(const double* source, const double* target, double* m) {
    const double B[9] = {0.8951, 0.2664, -0.1614, -0.7502, 1.7135, 0.0367, 0.0389, -0.0685, 1.0296};
    const double Binv[9] = {0.9869929, -0.1470543, 0.1599627, 0.4323053, 0.5183603,
                            0.0492912, -0.0085287, 0.0400428, 0.9684867};
    double s[3], t[3];
    for (int r = 0; r < 3; ++r) {
        s[r] = B[3 * r] * source[0] + B[3 * r + 1] * source[1] + B[3 * r + 2] * source[2];
        t[r] = B[3 * r] * target[0] + B[3 * r + 1] * target[1] + B[3 * r + 2] * target[2];
    }
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            double v = 0;
            for (int k = 0; k < 3; ++k) v += Binv[3 * r + k] * (t[k] / s[k]) * B[3 * k + c];
            m[3 * r + c] = v;
        }
}

std::vector<unsigned char> RandomInks(std::size_t count, unsigned int inks, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> level(0, 255);
    std::vector<unsigned char> out(count * inks);
    for (auto& v : out) v = static_cast<unsigned char>(level(rng));
    return out;
}

}  // namespace

TEST(ProfileConnection, AdaptationIsBradfordFromTheIlluminantWhiteToD50) {
    const kelma_test::ZKSTestModel generated = kelma_test::MakeTestModel(4, 3, 2.2, 5);
    for (const char* name : {"D65", "A", "F11", "D50"}) {
        const ZKCSSE_KELMA_Data model = generated.Build(Matrix({name}), false);
        const ZKCProfileConnection pcs(model, 0);
        const bool d50 = std::string(name) == "D50";
        EXPECT_EQ(pcs.IsD50(), d50);
        double expected[9];
        Bradford(pcs.IlluminantWhite(), ZKCProfileConnection::PCSWhite(), expected);
        // D50 is not adapted: its white only takes the ICC's numbers.
        for (int k = 0; k < 9 && d50; ++k)
            expected[k] = k % 4 == 0 ? ZKCProfileConnection::PCSWhite()[k / 4] / pcs.IlluminantWhite()[k / 4] : 0.0;
        for (int k = 0; k < 9; ++k) EXPECT_NEAR(pcs.Adaptation()[k], expected[k], 2e-6) << name << " element " << k;
        // The illuminant's white goes to D50 exactly (to rounding).
        const double* m = pcs.Adaptation();
        const double* w = pcs.IlluminantWhite();
        for (int r = 0; r < 3; ++r)
            EXPECT_NEAR(m[3 * r] * w[0] + m[3 * r + 1] * w[1] + m[3 * r + 2] * w[2], ZKCProfileConnection::PCSWhite()[r],
                        1e-12)
                << name;
        // wtpt is the paper adapted: M P.
        const double* p = pcs.Paper();
        for (int r = 0; r < 3; ++r)
            EXPECT_NEAR(pcs.MediaWhitePoint()[r], m[3 * r] * p[0] + m[3 * r + 1] * p[1] + m[3 * r + 2] * p[2], 1e-15);
    }
    EXPECT_DOUBLE_EQ(ZKCProfileConnection::PCSWhite()[0], 0.9642);
    EXPECT_DOUBLE_EQ(ZKCProfileConnection::PCSWhite()[2], 0.8249);
}

TEST(ProfileConnection, PaperIsThePCSWhiteAndD50IsTheModelsOwnPaperRelativeCIELAB) {
    const kelma_test::ZKSTestModel generated = kelma_test::MakeTestModel(4, 3, 2.2, 6);
    const ZKCSSE_KELMA_Data model = generated.Build(Matrix({"D65", "D50"}), false);
    const std::vector<unsigned char> inks = RandomInks(500, 4, 1);
    const std::size_t count = 500;
    for (unsigned int illuminant : {0u, 1u}) {
        const ZKCProfileConnection pcs(model, illuminant);
        // The paper: PCS white.
        const unsigned char paper[4] = {0, 0, 0, 0};
        double xyz[3], lab[3];
        PredictColorimetry(model, 1, paper, illuminant, false, xyz, nullptr);
        pcs.XYZToPCSLab(xyz, lab, 1);
        EXPECT_NEAR(lab[0], 100.0, 1e-9);
        EXPECT_NEAR(lab[1], 0.0, 1e-9);
        EXPECT_NEAR(lab[2], 0.0, 1e-9);

        std::vector<double> X(3 * count), modelLab(3 * count), viaXYZ(3 * count), viaLab(3 * count), back(3 * count);
        PredictColorimetry(model, count, inks.data(), illuminant, false, X.data(), nullptr);
        PredictColorimetry(model, count, inks.data(), illuminant, true, nullptr, modelLab.data());
        pcs.XYZToPCSLab(X.data(), viaXYZ.data(), count);
        pcs.ModelLabToPCSLab(modelLab.data(), viaLab.data(), count);
        pcs.PCSLabToModelLab(viaLab.data(), back.data(), count);
        double worstModel = 0, worstPaths = 0, worstInverse = 0;
        for (std::size_t s = 0; s < count; ++s) {
            worstModel = std::max(worstModel, DeltaE2000(&viaXYZ[3 * s], &modelLab[3 * s]));
            worstPaths = std::max(worstPaths, DeltaE2000(&viaXYZ[3 * s], &viaLab[3 * s]));
            for (int c = 0; c < 3; ++c) worstInverse = std::max(worstInverse, std::abs(back[3 * s + c] - modelLab[3 * s + c]));
        }
        // Model paper-relative CIELAB and PCS differ only by the adaptation:
        // nothing for D50 (the library's paper factor is single precision),
        // a visible amount for D65.
        if (illuminant == 1) EXPECT_LT(worstModel, 1e-4);
        else EXPECT_GT(worstModel, 0.05);
        // From the model's XYZ or its paper-relative CIELAB: the same PCS
        // colour (the library's paper factor is single precision).
        EXPECT_LT(worstPaths, 1e-4);
        EXPECT_LT(worstInverse, 1e-9);
    }
}
