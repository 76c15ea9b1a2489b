// Float colorimetry of predictions: against an independent double-precision
// chain (the generator's reference prediction, CIE tables typed in from the
// publications, Little CMS's CIELAB), the paper-relative contract, and
// invariance to batch size, position and thread count.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "tests/colorimetry/CieTables.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

std::vector<unsigned char> RandomInks(unsigned inks, std::size_t count, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> v(count * inks);
    for (auto& b : v) b = static_cast<unsigned char>(rng() & 0xFF);
    return v;
}

// XYZ (perfect reflector Y = 1) of a double spectrum with the CIE tables.
void ReferenceXYZ(const std::vector<double>& r, const cie_ref::Row& s, double* xyz) {
    double k = 0, x = 0, y = 0, z = 0;
    for (int i = 0; i < 31; ++i) {
        k += cie_ref::kY2[i] * s[i];
        x += cie_ref::kX2[i] * s[i] * r[i];
        y += cie_ref::kY2[i] * s[i] * r[i];
        z += cie_ref::kZ2[i] * s[i] * r[i];
    }
    xyz[0] = x / k;
    xyz[1] = y / k;
    xyz[2] = z / k;
}

void LittleCMSLab(const double* xyz, const double* white, double* lab) {
    const cmsCIEXYZ w{white[0], white[1], white[2]}, v{xyz[0], xyz[1], xyz[2]};
    cmsCIELab out;
    cmsXYZ2Lab(&w, &out, &v);
    lab[0] = out.L;
    lab[1] = out.a;
    lab[2] = out.b;
}

ZKCLighting_Matrix TwoIlluminants() {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    return ZKCLighting_Matrix(observer, std::vector<ZKCIlluminant_Base*>{&d50, &a});
}

}  // namespace

TEST(PredictColorimetry, AgreesWithAnIndependentDoublePrecisionChain) {
    for (unsigned inks : {4u, 6u, 7u}) {
        const kelma_test::ZKSTestModel truth = kelma_test::MakeTestModel(inks, 3, 2.1, 40 + inks);
        const ZKCSSE_KELMA_Data model = truth.Build(TwoIlluminants(), false);
        const std::size_t count = 400;
        const std::vector<unsigned char> samples = RandomInks(inks, count, inks);
        for (unsigned illuminant : {0u, 1u}) {
            const cie_ref::Row& spd = illuminant == 0 ? cie_ref::kD50 : cie_ref::kA;
            std::vector<double> xyz(3 * count), lab(3 * count);
            PredictColorimetry(model, count, samples.data(), illuminant, false, xyz.data(), lab.data());
            const std::vector<double> one(31, 1.0);
            double white[3];
            ReferenceXYZ(one, spd, white);
            double worst = 0;
            for (std::size_t s = 0; s < count; ++s) {
                double refXYZ[3], refLab[3];
                ReferenceXYZ(truth.Reference(&samples[s * inks]), spd, refXYZ);
                LittleCMSLab(refXYZ, white, refLab);
                for (int c = 0; c < 3; ++c) EXPECT_NEAR(xyz[3 * s + c], refXYZ[c], 2e-5) << inks << " inks, " << s;
                worst = std::max(worst, DeltaE2000(&lab[3 * s], refLab));
            }
            EXPECT_LT(worst, 5e-3) << inks << " inks, illuminant " << illuminant;
        }
    }
}

TEST(PredictColorimetry, PaperRelativeMapsThePaperToTheWhite) {
    const kelma_test::ZKSTestModel truth = kelma_test::MakeTestModel(4, 5, 1.9, 5);
    const ZKCSSE_KELMA_Data model = truth.Build(TwoIlluminants(), false);
    std::vector<unsigned char> samples = RandomInks(4, 300, 9);
    std::fill(samples.begin(), samples.begin() + 4, 0);  // sample 0 is bare paper
    for (unsigned illuminant : {0u, 1u}) {
        std::vector<double> xyzAbs(900), xyzRel(900), labRel(900);
        PredictColorimetry(model, 300, samples.data(), illuminant, false, xyzAbs.data(), nullptr);
        PredictColorimetry(model, 300, samples.data(), illuminant, true, xyzRel.data(), labRel.data());
        EXPECT_NEAR(labRel[0], 100.0, 2e-4);
        EXPECT_NEAR(labRel[1], 0.0, 2e-4);
        EXPECT_NEAR(labRel[2], 0.0, 2e-4);
        // Every sample is scaled by the same per-component factor white / paper.
        const float* paper = &model.MediaWhitePoint().Values()[3 * illuminant];
        for (int c = 0; c < 3; ++c) {
            const double factor = xyzRel[c] / xyzAbs[c];
            for (int s = 1; s < 300; ++s)
                EXPECT_NEAR(xyzRel[3 * s + c] / xyzAbs[3 * s + c], factor, 1e-6 * factor);
            EXPECT_NEAR(xyzAbs[c], paper[c], 1e-6);
        }
    }
}

TEST(PredictColorimetry, ResultsDoNotDependOnBatchPositionOrThreads) {
    const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(4, 5, 2.0, 21).Build(true);
    // More than one internal chunk of 65536 samples, with a short last chunk.
    const std::size_t count = 70001;
    const std::vector<unsigned char> samples = RandomInks(4, count, 77);
    std::vector<double> all(3 * count);
    PredictColorimetry(model, count, samples.data(), 0, true, nullptr, all.data());
    for (unsigned threads : {1u, 2u, 3u, 7u}) {
        kelma_test::ScopedCPUCount cpus(threads);
        for (std::size_t start : {std::size_t{0}, std::size_t{1}, std::size_t{65535}, std::size_t{69990}}) {
            for (std::size_t n : {std::size_t{1}, std::size_t{5}, std::size_t{11}}) {
                std::vector<double> part(3 * n);
                PredictColorimetry(model, n, &samples[4 * start], 0, true, nullptr, part.data());
                EXPECT_EQ(0, std::memcmp(part.data(), &all[3 * start], part.size() * sizeof(double)))
                    << threads << " threads, start " << start << ", " << n << " samples";
            }
        }
        std::vector<double> again(3 * 9000);
        PredictColorimetry(model, 9000, &samples[4 * 60000], 0, true, nullptr, again.data());
        EXPECT_EQ(0, std::memcmp(again.data(), &all[3 * 60000], again.size() * sizeof(double))) << threads;
    }
}

TEST(PredictColorimetry, IlluminantChoiceAndFailures) {
    const kelma_test::ZKSTestModel truth = kelma_test::MakeTestModel(4, 3, 2.0, 8);
    const ZKCSSE_KELMA_Data both = truth.Build(TwoIlluminants(), false);
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIEA a;
    const ZKCSSE_KELMA_Data onlyA = truth.Build(ZKCLighting_Matrix(observer, &a), false);
    const std::vector<unsigned char> samples = RandomInks(4, 50, 3);
    std::vector<double> x(150), y(150);
    PredictColorimetry(both, 50, samples.data(), 1, true, nullptr, x.data());
    PredictColorimetry(onlyA, 50, samples.data(), 0, true, nullptr, y.data());
    EXPECT_EQ(x, y);
    EXPECT_EQ(kelma_test::ThrownText([&] { PredictColorimetry(both, 50, samples.data(), 2, false, x.data(), nullptr); }),
              "Invalid IlluminantIndex");
    const ZKCSSE_KELMA_Data five = kelma_test::MakeTestModel(5, 2, 2.0, 1).Build();
    std::vector<unsigned char> five_inks(5 * 4, 10);
    EXPECT_EQ(kelma_test::ThrownText([&] { PredictColorimetry(five, 4, five_inks.data(), 0, false, x.data(), nullptr); }),
              "DefaultCase");
}
