#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "kelma/measurement/SpectralPlausibility.h"

using namespace kelma;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string Coverage(std::vector<double> w) { return SpectralCoverageProblem(w.data(), w.size()); }

}  // namespace

TEST(SpectralPlausibility, FloatRangeEndsAtTheLargestFloat) {
    const double largest = std::numeric_limits<float>::max();
    EXPECT_EQ(FloatRangeProblem(largest), "");
    EXPECT_EQ(FloatRangeProblem(-largest), "");
    EXPECT_EQ(FloatRangeProblem(1e-300), "");  // underflows to 0 in float: harmless
    EXPECT_EQ(FloatRangeProblem(std::nextafter(largest, 1e300)),
              "3.402823466385289e+38 is outside the range of a 32-bit float (magnitude at most 3.4028234663852886e+38)");
    EXPECT_EQ(FloatRangeProblem(-1e300), "-1e+300 is outside the range of a 32-bit float (magnitude at most 3.4028234663852886e+38)");
    EXPECT_EQ(FloatRangeProblem(std::numeric_limits<double>::infinity()), "inf is not a finite number");
    EXPECT_EQ(FloatRangeProblem(std::nan("")), "nan is not a finite number");
}

TEST(SpectralPlausibility, WavelengthsOutsideTheRangeNameTheUnitTheyLookLike) {
    for (double nm : {300.0, 380.0, 400.0, 700.0, 730.0, 1100.0}) EXPECT_EQ(WavelengthProblem(nm), "") << nm;
    struct Case {
        double value;
        const char* problem;
    };
    const Case cases[] = {
        {0.38, "wavelength 0.38 is outside 300-1100 nm: it looks like micrometres, multiply the wavelengths by 1000"},
        {0.3, "looks like micrometres"},
        {1.1, "looks like micrometres"},
        {4000, "wavelength 4000 is outside 300-1100 nm: it looks like angstrom, divide the wavelengths by 10"},
        {11000, "looks like angstrom"},
        {5.5e-7, "wavelength 5.5e-07 is outside 300-1100 nm: it looks like metres, multiply the wavelengths by 1e9"},
        {299.9, "wavelength 299.9 is outside 300-1100 nm (wavelengths are given in nm)"},
        {1100.5, "(wavelengths are given in nm)"},
        {50, "(wavelengths are given in nm)"},
        {-400, "(wavelengths are given in nm)"},
        {std::numeric_limits<double>::infinity(), "wavelength inf is not a finite number"},
    };
    for (const Case& c : cases) EXPECT_TRUE(Has(WavelengthProblem(c.value), c.problem)) << WavelengthProblem(c.value);
}

TEST(SpectralPlausibility, AtMostOneGridStepAtEitherEndIsLeftToExtrapolation) {
    // Covered, or short by at most 10 nm.
    for (auto w : std::vector<std::vector<double>>{{400, 700}, {380, 730}, {410, 700}, {400, 690}, {410, 690},
                                                   {300, 550, 1100}, {405, 695}})
        EXPECT_EQ(Coverage(w), "") << w.front() << "-" << w.back();
    EXPECT_EQ(Coverage({411, 700}),
              "wavelengths 411-700 nm do not reach down to 400 nm: 400-410 nm would be extrapolated, more than the "
              "10 nm allowed at either end; measure 400-700 nm, or enable the extrapolate option to extrapolate from "
              "the end intervals");
    EXPECT_TRUE(Has(Coverage({400, 689}), "wavelengths 400-689 nm do not reach up to 700 nm: 690-700 nm would be "
                                          "extrapolated, more than"));
    EXPECT_TRUE(Has(Coverage({450, 460, 650}), "400-440 nm would be extrapolated, and do not reach up to 700 nm: "
                                               "660-700 nm would be extrapolated"));
    EXPECT_TRUE(Has(Coverage({750, 800}), "do not reach down to 400 nm: 400-700 nm would be extrapolated"));
    EXPECT_TRUE(Has(Coverage({300, 350}), "do not reach up to 700 nm: 400-700 nm would be extrapolated"));
    // Too short for any rule of this kind: the resampler reports it.
    EXPECT_EQ(Coverage({550}), "");
    EXPECT_EQ(Coverage({}), "");
}

TEST(SpectralPlausibility, ReflectanceFarOutsideZeroToOneIsFoundWithItsIndex) {
    const std::vector<float> fine = {-0.1f, 0.0f, 0.5f, 1.0f, 1.5f, 2.0f};
    EXPECT_FALSE(FindReflectanceProblem(fine.data(), fine.size()).found);
    EXPECT_FALSE(FindReflectanceProblem(fine.data(), 0).found);

    // Percent: the first offending value is named, the whole set gives the hint.
    const std::vector<double> percent = {1.5, 2.0, 85.3, 91.0, 3.0};
    ZKSValueProblem p = FindReflectanceProblem(percent.data(), percent.size());
    ASSERT_TRUE(p.found);
    EXPECT_EQ(p.index, 2u);
    EXPECT_EQ(p.problem, "85.3 is far outside the reflectance range 0-1: the spectra look like percent, divide them by 100");
    // Fluorescent data in percent reach 200 %; beyond that it is no percentage either.
    const std::vector<double> fluorescent = {0.5, 180.0};
    EXPECT_TRUE(Has(FindReflectanceProblem(fluorescent.data(), 2).problem, "look like percent"));
    const std::vector<double> counts = {0.5, 4095.0, 150.0};
    p = FindReflectanceProblem(counts.data(), counts.size());
    EXPECT_EQ(p.index, 1u);
    EXPECT_EQ(p.problem, "4095 is far outside the reflectance range 0-1 (reflectance factors from -0.1 to 2 are accepted)");
    const std::vector<double> negative = {0.5, -0.2};
    p = FindReflectanceProblem(negative.data(), negative.size());
    EXPECT_EQ(p.index, 1u);
    EXPECT_TRUE(Has(p.problem, "-0.2 is far outside the reflectance range 0-1 (reflectance factors from -0.1 to 2"));
    const std::vector<float> slightly = {2.0001f};
    EXPECT_TRUE(FindReflectanceProblem(slightly.data(), 1).found);
    const std::vector<float> nan = {0.5f, std::nanf(""), 50.0f};
    p = FindReflectanceProblem(nan.data(), nan.size());
    EXPECT_EQ(p.index, 1u);
    EXPECT_EQ(p.problem, "nan is not a finite number");
}
