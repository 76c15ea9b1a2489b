// ZKCSeparation's contracts: errors, limits at every output, black
// generation (GCR, Kmin, black length and width), the gamut mapping's
// definition, round trips on small device grids, independence of batch and
// threads, node order of the tables and their CLUT drivers, 6 and 7 inks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/common/InkLevels.h"
#include "kelma/evaluation/Statistics.h"
#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/separation/ZKCSeparation.h"
#include "kelma/separation/ZKCSeparation_Evaluator.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

ZKCUserParameter_Output Limits(unsigned long tac, unsigned long maxBlack, unsigned long gcr = 50) {
    ZKCUserParameter_Output p;
    p.SetColorantCoverage(tac);
    p.SetMaxBlack(maxBlack);
    p.SetGCR(gcr);
    return p;
}

const ZKCSeparation& Press() {
    static const ZKCSeparation sep(DefaultPressModel(), Limits(300, 100), 0, true);
    return sep;
}

const ZKCSSE_KELMA_Data& SevenInkModel() {
    static const ZKCSSE_KELMA_Data model = kelma_test::MakePressLikeModel(7, 3, 2.0).Build(false);
    return model;
}

const ZKCSeparation& Seven() {
    static const ZKCSeparation sep(SevenInkModel(), Limits(300, 100), 0, true);
    return sep;
}

std::vector<ZKSSeparationResult> Analyse(const ZKCSeparation& sep, const std::vector<double>& lab) {
    std::vector<ZKSSeparationResult> r(lab.size() / 3);
    sep.Analyse(lab.data(), r.size(), r.data());
    return r;
}

bool InGamut(const ZKCSeparation& sep, const double* lab) {
    bool in = false;
    sep.InGamut(lab, 1, &in);
    return in;
}

// Every output within the limits (sum, black) of the separation.
void ExpectWithinLimits(const ZKCSeparation& sep, const unsigned char* inks, std::size_t count, const char* what) {
    const unsigned int N = sep.NumberOfInks();
    std::size_t bad = 0;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned int sum = 0;
        for (unsigned int k = 0; k < N; ++k) sum += inks[i * N + k];
        if (sum > sep.TotalLimit() || inks[i * N + sep.BlackInk()] > sep.BlackLimit()) ++bad;
    }
    EXPECT_EQ(bad, 0u) << what;
}

// A grid of CIELAB colours, most of them out of any gamut.
std::vector<double> LabGrid(double stepL, double stepAB) {
    std::vector<double> lab;
    for (double L = 0.0; L <= 100.0; L += stepL)
        for (double a = -128.0; a <= 127.0; a += stepAB)
            for (double b = -128.0; b <= 127.0; b += stepAB) lab.insert(lab.end(), {L, a, b});
    return lab;
}

// CIELAB of every combination of `levels` amounts per ink within the limits.
std::vector<double> DeviceColours(const ZKCSSE_KELMA_Data& model, const ZKCSeparation& sep, unsigned int levels) {
    const unsigned int N = model.NumberOfInks();
    std::vector<unsigned char> inks;
    std::size_t total = 1;
    for (unsigned int k = 0; k < N; ++k) total *= levels;
    for (std::size_t q = 0; q < total; ++q) {
        std::size_t r = q;
        unsigned int sum = 0;
        std::vector<unsigned char> s(N);
        for (unsigned int k = 0; k < N; ++k) {
            s[k] = static_cast<unsigned char>(DigitalLevel(100.0 * (r % levels) / (levels - 1)));
            r /= levels;
            sum += s[k];
        }
        if (sum <= sep.TotalLimit() && s[3] <= sep.BlackLimit()) inks.insert(inks.end(), s.begin(), s.end());
    }
    std::vector<double> lab(inks.size() / N * 3);
    PredictColorimetry(model, inks.size() / N, inks.data(), 0, true, nullptr, lab.data());
    return lab;
}

std::vector<double> Predict(const ZKCSSE_KELMA_Data& model, const std::vector<unsigned char>& inks) {
    std::vector<double> lab(inks.size() / model.NumberOfInks() * 3);
    PredictColorimetry(model, lab.size() / 3, inks.data(), 0, true, nullptr, lab.data());
    return lab;
}

}  // namespace

TEST(Separation, RefusesWhatItCannotSeparate) {
    const ZKCSSE_KELMA_Data five = kelma_test::MakeTestModel(5, 2, 2.0, 1).Build(false);
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSeparation s(five, Limits(300, 100), 0, true); }), "DefaultCase");
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSeparation s(DefaultPressModel(), Limits(0, 100), 0, true); }),
              "Limits leave no gamut");
    ZKCUserParameter_Output other = Limits(300, 100);
    other.SetGamutMapperMethod(static_cast<GAMUTMAPPER_METHOD>(1));
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSeparation s(DefaultPressModel(), other, 0, true); }), "DefaultCase");
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSeparation s(DefaultPressModel(), Limits(300, 100), 1, true); }),
              "Invalid IlluminantIndex");
    // A coverage of 1 % still leaves a (small) gamut.
    ZKCSeparation tiny(DefaultPressModel(), Limits(1, 100), 0, true);
    EXPECT_EQ(tiny.TotalLimit(), 2u);
}

TEST(Separation, NonFiniteCIELABIsRefusedBeforeAnythingIsWritten) {
    const ZKCSeparation& sep = Press();
    for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        const double lab[6] = {50, 0, 0, 50, bad, 0};
        const float labF[6] = {50, 0, 0, 50, static_cast<float>(bad), 0};
        unsigned char inks[8] = {7, 7, 7, 7, 7, 7, 7, 7};
        bool in[2] = {true, true};
        double mapped[6] = {1, 1, 1, 1, 1, 1};
        ZKSSeparationResult r[2];
        EXPECT_EQ(kelma_test::ThrownText([&] { sep.Separate(labF, 2, inks); }), "Non-finite CIELAB");
        EXPECT_EQ(kelma_test::ThrownText([&] { sep.Analyse(lab, 2, r); }), "Non-finite CIELAB");
        EXPECT_EQ(kelma_test::ThrownText([&] { sep.InGamut(lab, 2, in); }), "Non-finite CIELAB");
        EXPECT_EQ(kelma_test::ThrownText([&] { sep.GamutMap(lab, 2, mapped); }), "Non-finite CIELAB");
        EXPECT_EQ(inks[0], 7);
        EXPECT_TRUE(in[0]);
        EXPECT_EQ(mapped[0], 1.0);
    }
}

TEST(Separation, LimitsHoldAtEveryOutput) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const std::vector<double> lab = LabGrid(10.0, 16.0);
    std::vector<float> labF(lab.begin(), lab.end());
    struct Setting {
        unsigned long tac, black;
        unsigned int totalBytes, blackBytes;
    } settings[] = {{300, 100, 765, 255}, {240, 80, 612, 204}, {150, 40, 382, 102}, {400, 150, 1020, 255}};
    for (const Setting& s : settings) {
        const ZKCSeparation sep(model, Limits(s.tac, s.black), 0, true);
        EXPECT_EQ(sep.TotalLimit(), s.totalBytes);
        EXPECT_EQ(sep.BlackLimit(), s.blackBytes);
        std::vector<unsigned char> inks(labF.size() / 3 * 4);
        sep.Separate(labF.data(), labF.size() / 3, inks.data());
        ExpectWithinLimits(sep, inks.data(), inks.size() / 4, "batch call");
        const std::vector<unsigned char> table = sep.NodeTable(9);
        ExpectWithinLimits(sep, table.data(), table.size() / 4, "node table");
        // The CLUT on every byte of a coarse lattice of CIELAB bytes.
        std::unique_ptr<ZKCWorkerCLUT_Thread> clut = sep.CLUT(CLUT_ACCURACY_9);
        std::vector<unsigned char> pixels, out;
        for (int L = 0; L < 256; L += 15)
            for (int a = 0; a < 256; a += 15)
                for (int b = 0; b < 256; b += 15) pixels.insert(pixels.end(), {(unsigned char)L, (unsigned char)a, (unsigned char)b});
        pixels.insert(pixels.end(), {255, 255, 255, 255, 0, 255, 128, 128, 128});
        out.resize(pixels.size() / 3 * 4);
        clut->Init(pixels.data(), out.data(), pixels.size() / 3);
        clut->Calculate();
        ExpectWithinLimits(sep, out.data(), out.size() / 4, "CLUT");
    }
}

TEST(Separation, RoundTripOfDeviceColours) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const ZKCSeparation& sep = Press();
    const std::vector<double> target = DeviceColours(model, sep, 5);
    const std::vector<ZKSSeparationResult> res = Analyse(sep, target);
    const ZKCSeparation_Evaluator evaluator(model, 0, true);
    std::vector<unsigned char> bytes;
    std::vector<double> continuous;
    for (std::size_t i = 0; i < res.size(); ++i) {
        ASSERT_TRUE(res[i].inGamut) << i;
        for (int c = 0; c < 3; ++c) EXPECT_EQ(res[i].mapped[c], target[3 * i + c]);
        double lab[3];
        evaluator.Lab(res[i].inks, lab, nullptr);
        continuous.push_back(DeltaE2000(lab, &target[3 * i]));
        bytes.insert(bytes.end(), res[i].bytes, res[i].bytes + 4);
    }
    const std::vector<double> predicted = Predict(model, bytes);
    std::vector<double> dE(res.size());
    DeltaE2000(predicted.data(), target.data(), dE.data(), dE.size());
    const ZKSStatistics s = Summarize(dE);
    EXPECT_LE(Summarize(continuous).max, 0.01);
    EXPECT_LE(s.mean, 0.1);
    EXPECT_LE(s.max, 0.5);
    // The reported difference is that of the chosen bytes.
    for (std::size_t i = 0; i < res.size(); ++i) EXPECT_NEAR(res[i].deltaE, dE[i], 1e-9);
}

TEST(Separation, ResultsDependOnTheColourAlone) {
    const ZKCSeparation& sep = Press();
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> L(0, 100), ab(-90, 90);
    std::vector<float> lab;
    for (int i = 0; i < 60; ++i) lab.insert(lab.end(), {L(rng), ab(rng) * 0.3f, ab(rng) * 0.3f});
    for (int i = 0; i < 20; ++i) lab.insert(lab.end(), {L(rng), ab(rng), ab(rng)});
    const std::size_t n = lab.size() / 3;
    std::vector<unsigned char> all(n * 4), one(n * 4), reversed(n * 4), threaded(n * 4);
    {
        kelma_test::ScopedCPUCount single(1);
        sep.Separate(lab.data(), n, all.data());
    }
    {
        kelma_test::ScopedCPUCount three(3);
        sep.Separate(lab.data(), n, threaded.data());
    }
    for (std::size_t i = 0; i < n; ++i) sep.Separate(&lab[3 * i], 1, &one[4 * i]);
    std::vector<float> back;
    for (std::size_t i = n; i-- > 0;) back.insert(back.end(), &lab[3 * i], &lab[3 * i] + 3);
    sep.Separate(back.data(), n, reversed.data());
    for (std::size_t i = 0; i < n; ++i)
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(all[4 * i + k], one[4 * i + k]) << i;
            EXPECT_EQ(all[4 * i + k], threaded[4 * i + k]) << i;
            EXPECT_EQ(all[4 * i + k], reversed[4 * (n - 1 - i) + k]) << i;
        }
}

TEST(Separation, BlackGrowsWithGCRAndWithDarknessOnTheNeutralAxis) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    std::vector<double> lab;
    for (double L = 95.0; L >= 15.0; L -= 5.0) lab.insert(lab.end(), {L, 0.0, 0.0});
    std::vector<std::vector<ZKSSeparationResult>> byGcr;
    for (unsigned long gcr : {0ul, 25ul, 50ul, 75ul, 100ul, 150ul}) {
        const ZKCSeparation sep(model, Limits(300, 100, gcr), 0, true);
        byGcr.push_back(Analyse(sep, lab));
    }
    for (std::size_t i = 0; i < lab.size() / 3; ++i) {
        for (std::size_t g = 0; g < byGcr.size(); ++g) {
            const ZKSSeparationResult& r = byGcr[g][i];
            ASSERT_TRUE(r.inGamut) << lab[3 * i];
            EXPECT_LE(std::fabs(r.bytes[3] - r.black), 1.0) << "black byte within one of the chosen black";
            if (g > 0) {
                EXPECT_GE(r.black, byGcr[g - 1][i].black - 1e-9) << "GCR step " << g << " at L* " << lab[3 * i];
            }
            if (i > 0) {
                EXPECT_GE(r.black, byGcr[g][i - 1].black - 1e-9) << "darker, GCR step " << g;
            }
        }
        // GCR 0 is Kmin, GCR 100 is Kmax, GCR 50 halfway, above 100 as 100.
        const ZKSSeparationResult& r = byGcr[2][i];
        EXPECT_EQ(byGcr[0][i].black, byGcr[0][i].kMin);
        EXPECT_EQ(byGcr[4][i].black, byGcr[4][i].kMax);
        EXPECT_DOUBLE_EQ(r.black, r.kMin + 0.5 * (r.kMax - r.kMin));
        EXPECT_EQ(byGcr[5][i].black, byGcr[4][i].black);
    }
    // Light greys need no black; dark ones need some.
    EXPECT_EQ(byGcr[0].front().kMin, 0.0);
    EXPECT_GT(byGcr[0].back().kMin, 100.0);
}

// Kmin is the least black that reaches a colour: with the black limit below
// it the colour is out of gamut, above it in gamut.
TEST(Separation, KminIsTheLeastBlackThatReaches) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    for (double L : {15.0, 20.0}) {
        const double lab[3] = {L, 0.0, 0.0};
        ZKSSeparationResult r;
        Press().Analyse(lab, 1, &r);
        ASSERT_GT(r.kMin, 20.0);
        const unsigned long below = static_cast<unsigned long>(std::floor(100.0 * (r.kMin - 3.0) / 255.0));
        const unsigned long above = static_cast<unsigned long>(std::ceil(100.0 * (r.kMin + 3.0) / 255.0));
        EXPECT_FALSE(InGamut(ZKCSeparation(model, Limits(300, below), 0, true), lab)) << L;
        EXPECT_TRUE(InGamut(ZKCSeparation(model, Limits(300, above), 0, true), lab)) << L;
    }
}

TEST(Separation, BlackLengthAndWidthFollowTheirCurve) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    ZKCUserParameter_Output p = Limits(300, 100);
    p.SetBlackLength(30);
    p.SetBlackWidth(40);
    const ZKCSeparation sep(model, p, 0, true);
    const double Lp = sep.PaperCIELAB()[0], Lb = sep.BlackPointCIELAB()[0];
    // The curve itself: 0 before the length, smoothstep over the width.
    auto darknessL = [&](double D) { return Lp - D / 100.0 * (Lp - Lb); };
    EXPECT_EQ(sep.BlackAmount(10, 110, darknessL(20)), 10.0);
    EXPECT_EQ(sep.BlackAmount(10, 110, darknessL(30)), 10.0);
    EXPECT_NEAR(sep.BlackAmount(10, 110, darknessL(50)), 60.0, 1e-9);                      // z = 1/2
    EXPECT_NEAR(sep.BlackAmount(10, 110, darknessL(40)), 10.0 + 100.0 * 0.15625, 1e-9);   // z = 1/4
    EXPECT_NEAR(sep.BlackAmount(10, 110, darknessL(70)), 110.0, 1e-9);
    EXPECT_NEAR(sep.BlackAmount(10, 110, darknessL(95)), 110.0, 1e-9);
    EXPECT_EQ(sep.BlackAmount(10, 110, 105.0), 10.0);  // lighter than the paper
    // The separation uses it.
    std::vector<double> lab;
    for (double L = 95.0; L >= 20.0; L -= 7.5) lab.insert(lab.end(), {L, 0.0, 0.0});
    for (const ZKSSeparationResult& r : Analyse(sep, lab))
        EXPECT_DOUBLE_EQ(r.black, sep.BlackAmount(r.kMin, r.kMax, r.mapped[0]));
    // Width 0: a step at the length.
    ZKCUserParameter_Output step = Limits(300, 100);
    step.SetBlackLength(50);
    step.SetBlackWidth(0);
    const ZKCSeparation stepSep(model, step, 0, true);
    EXPECT_EQ(stepSep.BlackAmount(10, 110, darknessL(49.9)), 10.0);
    EXPECT_EQ(stepSep.BlackAmount(10, 110, darknessL(50.1)), 110.0);
}

TEST(Separation, NonBlackCoverageStepsChangeNothing) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    ZKCUserParameter_Output one = Limits(300, 100), many = Limits(300, 100);
    one.SetNoneBlackColorantCoverageSteps(1);
    many.SetNoneBlackColorantCoverageSteps(50);
    const std::vector<double> lab = LabGrid(20.0, 32.0);
    std::vector<float> labF(lab.begin(), lab.end());
    std::vector<unsigned char> a(labF.size() / 3 * 4), b(a.size());
    ZKCSeparation(model, one, 0, true).Separate(labF.data(), labF.size() / 3, a.data());
    ZKCSeparation(model, many, 0, true).Separate(labF.data(), labF.size() / 3, b.data());
    EXPECT_EQ(a, b);
}

// Method 0: lightness kept, hue about the grey axis kept, on the boundary,
// in gamut; beyond the lightness range the paper or the darkest colour.
TEST(Separation, GamutMappingMethodZero) {
    const ZKCSeparation& sep = Press();
    const double* P = sep.PaperCIELAB();
    const double* B = sep.BlackPointCIELAB();
    std::vector<double> targets;
    for (double L : {25.0, 45.0, 65.0, 85.0})
        for (int h = 0; h < 360; h += 45) {
            const double r = h * 3.14159265358979 / 180.0;
            targets.insert(targets.end(), {L, 110.0 * std::cos(r), 110.0 * std::sin(r)});
        }
    std::vector<double> mapped(targets.size());
    sep.GamutMap(targets.data(), targets.size() / 3, mapped.data());
    for (std::size_t i = 0; i < targets.size() / 3; ++i) {
        const double* t = &targets[3 * i];
        const double* m = &mapped[3 * i];
        ASSERT_FALSE(InGamut(sep, t));
        EXPECT_TRUE(InGamut(sep, m)) << i;
        EXPECT_EQ(m[0], t[0]);
        const double s = (P[0] - t[0]) / (P[0] - B[0]);
        const double A[2] = {P[1] + s * (B[1] - P[1]), P[2] + s * (B[2] - P[2])};
        const double u[2] = {t[1] - A[0], t[2] - A[1]}, v[2] = {m[1] - A[0], m[2] - A[1]};
        const double nu = std::hypot(u[0], u[1]), nv = std::hypot(v[0], v[1]);
        EXPECT_NEAR((u[0] * v[1] - u[1] * v[0]) / (nu * nv), 0.0, 1e-9) << "same hue direction";
        EXPECT_GT(u[0] * v[0] + u[1] * v[1], 0.0);
        // On the boundary: a little farther along the ray is out of gamut.
        const double beyond[3] = {m[0], m[1] + 0.02 * u[0] / nu, m[2] + 0.02 * u[1] / nu};
        EXPECT_FALSE(InGamut(sep, beyond)) << i;
    }
    // In-gamut colours are kept; outside the lightness range: P or B.
    const double in[3] = {50, 5, 5}, light[3] = {100.5, 30, 0}, dark[3] = {3, -20, 10};
    double m[3];
    sep.GamutMap(in, 1, m);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(m[c], in[c]);
    sep.GamutMap(light, 1, m);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m[c], P[c], 1e-9);
    sep.GamutMap(dark, 1, m);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m[c], B[c], 1e-9);
    // A colour just outside maps next to itself (the crossing nearest it),
    // also where the gamut is dark and folded by the total limit.
    const ZKCSSE_KELMA_Data& seven = SevenInkModel();
    const unsigned char edges[][7] = {{153, 0, 153, 255, 0, 204, 0}, {255, 255, 0, 255, 0, 0, 0}, {0, 255, 255, 0, 0, 0, 0}};
    for (const auto& e : edges) {
        double lab[3];
        PredictColorimetry(seven, 1, e, 0, true, nullptr, lab);
        const double Ls = (P[0] - lab[0]) / (P[0] - Seven().BlackPointCIELAB()[0]);
        const double* B7 = Seven().BlackPointCIELAB();
        const double A7[2] = {Ls * B7[1], Ls * B7[2]};
        const double d[2] = {lab[1] - A7[0], lab[2] - A7[1]};
        const double len = std::hypot(d[0], d[1]);
        const double out[3] = {lab[0], lab[1] + 0.05 * d[0] / len, lab[2] + 0.05 * d[1] / len};
        double mappedOut[3];
        Seven().GamutMap(out, 1, mappedOut);
        EXPECT_LT(std::hypot(mappedOut[1] - lab[1], mappedOut[2] - lab[2]), 0.1) << int(e[0]) << " " << int(e[1]);
    }
    // The batch call reproduces the mapped colour.
    ZKSSeparationResult r;
    sep.Analyse(&targets[0], 1, &r);
    EXPECT_FALSE(r.inGamut);
    EXPECT_LT(r.deltaE, 0.5);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(r.mapped[c], mapped[c]);
}

TEST(Separation, NodeCIELABIsWhereTheInputMapsPutTheNodes) {
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(0, 0, 33), 0.0);
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(0, 32, 33), 100.0);
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(1, 0, 33), -128.0);
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(1, 16, 33), 0.0);   // byte 128 on the middle node
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(2, 8, 17), 0.0);
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(2, 32, 33), 126.0);  // byte 254
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(2, 17, 33), 254.0 * 17 / 32 - 128.0);
    EXPECT_EQ(ZKCSeparation::NodeCIELAB(1, 15, 33), 256.0 * 15 / 32 - 128.0);
}

// Node (g0, g1, g2) holds inks for (L*(g0), a*(g1), b*(g2)), and the CLUT
// driver is built from exactly that table.
TEST(Separation, TablesAreInTheWorkersNodeOrder) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const ZKCSeparation& sep = Press();
    const unsigned int n = 9;
    std::vector<bool> inGamut;
    const std::vector<unsigned char> table = sep.NodeTable(n, &inGamut);
    ASSERT_EQ(table.size(), n * n * n * 4u);
    std::vector<unsigned char> inside;
    std::vector<double> colours;
    for (std::size_t g = 0; g < n * n * n; ++g) {
        if (!inGamut[g]) continue;
        inside.insert(inside.end(), &table[4 * g], &table[4 * g] + 4);
        colours.insert(colours.end(), {ZKCSeparation::NodeCIELAB(0, g / (n * n), n),
                                       ZKCSeparation::NodeCIELAB(1, g / n % n, n), ZKCSeparation::NodeCIELAB(2, g % n, n)});
    }
    ASSERT_GT(inside.size(), 40u);
    const std::vector<double> predicted = Predict(model, inside);
    std::vector<double> dE(colours.size() / 3);
    DeltaE2000(predicted.data(), colours.data(), dE.data(), dE.size());
    EXPECT_LT(Summarize(dE).mean, 1.0);  // a permuted axis is tens of units off
    EXPECT_LT(Summarize(dE).max, 4.0);
    // The CLUT at inputs that fall exactly on nodes returns the node bytes.
    std::unique_ptr<ZKCWorkerCLUT_Thread> clut = sep.CLUT(CLUT_ACCURACY_9);
    const int Lbytes[2] = {0, 255}, abBytes[6] = {0, 32, 64, 96, 128, 254};
    const int Lnode[2] = {0, 8}, abNode[6] = {0, 1, 2, 3, 4, 8};
    std::vector<unsigned char> pixels, expect;
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 6; ++j)
            for (int k = 0; k < 6; ++k) {
                pixels.insert(pixels.end(), {(unsigned char)Lbytes[i], (unsigned char)abBytes[j], (unsigned char)abBytes[k]});
                const std::size_t g = (std::size_t(Lnode[i]) * n + abNode[j]) * n + abNode[k];
                expect.insert(expect.end(), &table[4 * g], &table[4 * g] + 4);
            }
    std::vector<unsigned char> out(expect.size());
    clut->Init(pixels.data(), out.data(), pixels.size() / 3);
    clut->Calculate();
    EXPECT_EQ(out, expect);
}

TEST(Separation, TableCLUTReproducesInGamutColours) {
    const ZKCSSE_KELMA_Data model = DefaultPressModel();
    const ZKCSeparation& sep = Press();
    std::unique_ptr<ZKCWorkerCLUT_Thread> clut = sep.CLUT(CLUT_ACCURACY_17);
    const std::vector<double> target = DeviceColours(model, sep, 4);
    std::vector<unsigned char> pixels;
    std::vector<double> decoded;
    for (std::size_t i = 0; i < target.size() / 3; ++i) {
        const unsigned char L = static_cast<unsigned char>(std::floor(2.55 * target[3 * i] + 0.5));
        const unsigned char a = static_cast<unsigned char>(std::floor(target[3 * i + 1] + 128.5));
        const unsigned char b = static_cast<unsigned char>(std::floor(target[3 * i + 2] + 128.5));
        pixels.insert(pixels.end(), {L, a, b});
        decoded.insert(decoded.end(), {L / 2.55, a - 128.0, b - 128.0});
    }
    std::vector<unsigned char> out(pixels.size() / 3 * 4);
    clut->Init(pixels.data(), out.data(), pixels.size() / 3);
    clut->Calculate();
    const std::vector<double> predicted = Predict(model, out);
    std::vector<double> dE(decoded.size() / 3);
    DeltaE2000(predicted.data(), decoded.data(), dE.data(), dE.size());
    // 17 points: coarser than the 33 of the benchmark (a table in the wrong
    // order is tens of units off).
    EXPECT_LT(Summarize(dE).mean, 1.5);
    EXPECT_LT(Summarize(dE).p95, 3.5);
}

TEST(Separation, TableSmoothnessFigure) {
    const unsigned int n = 5;
    std::vector<unsigned char> table(n * n * n);
    for (unsigned int g = 0; g < n * n * n; ++g) table[g] = static_cast<unsigned char>(10 * (g / 25 + g / 5 % 5 + g % 5));
    ZKSTableSmoothness s = ZKCSeparation::TableSmoothness(table.data(), n, 1, nullptr);
    EXPECT_EQ(s.max, 0.0);
    table[62] += 51;  // the centre node, 20 %
    s = ZKCSeparation::TableSmoothness(table.data(), n, 1, nullptr);
    EXPECT_NEAR(s.max, 40.0, 1e-9);
    // Only triples of in-gamut nodes count for the in-gamut figure.
    std::vector<bool> inGamut(n * n * n, true);
    s = ZKCSeparation::TableSmoothness(table.data(), n, 1, &inGamut);
    EXPECT_NEAR(s.inGamutMax, 40.0, 1e-9);
    inGamut[62] = false;
    s = ZKCSeparation::TableSmoothness(table.data(), n, 1, &inGamut);
    EXPECT_EQ(s.inGamutMax, 0.0);
    EXPECT_NEAR(s.max, 40.0, 1e-9);
}

TEST(Separation, RelativeToTheIlluminantAndUnderAnotherIlluminant) {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    const ZKCLighting_Matrix matrix(observer, std::vector<ZKCIlluminant_Base*>{&d50, &a});
    const ZKCSSE_KELMA_Data model = DefaultPressModel(matrix, INK_SET_CMYK, false, false);
    for (unsigned long illuminant : {0ul, 1ul}) {
        const ZKCSeparation sep(model, Limits(300, 100), illuminant, false);
        EXPECT_LT(sep.PaperCIELAB()[0], 99.0);  // the paper is not the white
        const unsigned char device[4] = {40, 90, 150, 30};
        double target[3];
        PredictColorimetry(model, 1, device, static_cast<unsigned int>(illuminant), false, nullptr, target);
        ZKSSeparationResult r;
        sep.Analyse(target, 1, &r);
        EXPECT_TRUE(r.inGamut);
        double got[3];
        PredictColorimetry(model, 1, r.bytes, static_cast<unsigned int>(illuminant), false, nullptr, got);
        EXPECT_LT(DeltaE2000(got, target), 0.5) << illuminant;
    }
    EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSeparation s(model, Limits(300, 100), 2, false); }),
              "Invalid IlluminantIndex");
}

TEST(Separation, SevenInksUseBlackAndThreeOthersAndWidenTheGamut) {
    const ZKCSSE_KELMA_Data& model = SevenInkModel();
    const ZKCSeparation& sep = Seven();
    const std::vector<unsigned int>& codes = sep.SubsetCodes();
    ASSERT_EQ(codes.size(), 20u);
    EXPECT_EQ(codes[0], 0x0Fu);
    for (unsigned int c : codes) {
        EXPECT_EQ(__builtin_popcount(c), 4) << c;
        EXPECT_TRUE(c & 0x08u) << "black in every subset";
    }
    // Round trip of device colours made with black and up to three others.
    const std::vector<double> target = DeviceColours(model, sep, 3);
    const std::vector<ZKSSeparationResult> res = Analyse(sep, target);
    std::vector<unsigned char> bytes;
    std::vector<double> inTarget;
    std::size_t outside = 0;
    for (std::size_t i = 0; i < res.size(); ++i) {
        for (unsigned int k = 0; k < 7; ++k)
            if (!((res[i].code >> k) & 1u)) {
                EXPECT_EQ(res[i].bytes[k], 0) << "ink outside the subset";
            }
        if (!res[i].inGamut) {
            ++outside;
            continue;
        }
        bytes.insert(bytes.end(), res[i].bytes, res[i].bytes + 7);
        inTarget.insert(inTarget.end(), &target[3 * i], &target[3 * i] + 3);
    }
    EXPECT_LT(outside, res.size() / 50) << "colours needing four non-black inks at once";
    ExpectWithinLimits(sep, bytes.data(), bytes.size() / 7, "7 inks");
    const std::vector<double> predicted = Predict(model, bytes);
    std::vector<double> dE(inTarget.size() / 3);
    DeltaE2000(predicted.data(), inTarget.data(), dE.data(), dE.size());
    EXPECT_LE(Summarize(dE).mean, 0.1);
    EXPECT_LE(Summarize(dE).max, 0.5);
    // Orange and yellow solids: beyond CMYK, within the 7-ink gamut, and
    // separated with orange.
    const unsigned char orange[7] = {0, 0, 255, 0, 255, 0, 0};
    double lab[3];
    PredictColorimetry(model, 1, orange, 0, true, nullptr, lab);
    ZKCSSE_KELMA_Datafilter cmykModel(model, 0x0Fu);
    const ZKCSeparation cmyk(cmykModel.GetKELMA_Data(), Limits(300, 100), 0, true);
    EXPECT_FALSE(InGamut(cmyk, lab));
    ZKSSeparationResult r;
    sep.Analyse(lab, 1, &r);
    EXPECT_TRUE(r.inGamut);
    EXPECT_GT(r.bytes[4], 200);
    EXPECT_LT(r.deltaE, 0.5);
    // Inside CMYK's gamut, CMYK alone.
    const double grey[3] = {60.0, 0.0, 0.0};
    sep.Analyse(grey, 1, &r);
    EXPECT_EQ(r.code, 0x0Fu);
}

TEST(Separation, SixInksHaveNoCIELABWorkerButSeparate) {
    const ZKCSSE_KELMA_Data model = kelma_test::MakePressLikeModel(6, 3, 2.0).Build(false);
    const ZKCSeparation sep(model, Limits(300, 100), 0, true);
    EXPECT_EQ(sep.SubsetCodes().size(), 10u);
    EXPECT_EQ(kelma_test::ThrownText([&] { sep.CLUT(CLUT_ACCURACY_9); }), "DefaultCase");
    const unsigned char device[6] = {30, 60, 200, 20, 100, 0};
    double target[3];
    PredictColorimetry(model, 1, device, 0, true, nullptr, target);
    ZKSSeparationResult r;
    sep.Analyse(target, 1, &r);
    EXPECT_TRUE(r.inGamut);
    EXPECT_LT(r.deltaE, 0.5);
    EXPECT_EQ(sep.NodeTable(5).size(), 125u * 6);
}
