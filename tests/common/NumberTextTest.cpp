// Numbers in messages read back as the value they report: every text parses
// (strtod) to exactly its double, and no decimal with fewer significant
// digits would.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelma/common/NumberText.h"

using namespace kelma;

TEST(NumberText, ReadsBackAsTheSameDoubleAndIsTheShortestThatDoes) {
    std::mt19937_64 rng(7);
    std::vector<double> values = {0.0, -0.0, 1.0, 100.0, 1e-300, DBL_MIN, DBL_MAX, FLT_MAX, 4.9e-324, 0.1 + 0.2};
    for (int i = 0; i < 20000; ++i) {
        const std::uint64_t bits = rng();
        double v;
        std::memcpy(&v, &bits, 8);
        if (std::isfinite(v)) values.push_back(v);
        values.push_back(std::ldexp(static_cast<double>(rng() % 100000), -static_cast<int>(rng() % 20)));
    }
    for (double v : values) {
        const std::string text = NumberText(v);
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), v) << text;
        ASSERT_EQ(std::signbit(std::strtod(text.c_str(), nullptr)), std::signbit(v)) << text;
        // One significant digit fewer (as %.{d-1}g writes it) no longer reads
        // back. Whole numbers written out in full (fixed form, shorter than
        // their exponent form) show their exact digits instead.
        if (text.find_first_of(".e") == std::string::npos) continue;
        std::string mantissa;
        for (char c : text.substr(0, text.find_first_of("eE")))
            if (c >= '0' && c <= '9') mantissa += c;
        mantissa.erase(0, mantissa.find_first_not_of('0'));
        mantissa.erase(mantissa.find_last_not_of('0') + 1);
        const int digits = static_cast<int>(mantissa.size());  // significant digits
        if (digits > 1) {
            char shorter[400];
            std::snprintf(shorter, sizeof shorter, "%.*g", digits - 1, v);
            EXPECT_NE(std::strtod(shorter, nullptr), v) << text << " vs " << shorter;
        }
    }
}

TEST(NumberText, ValuesJustBeyondALimitDoNotLookLikeTheLimit) {
    EXPECT_EQ(NumberText(100.0), "100");
    EXPECT_EQ(NumberText(100.0000001), "100.0000001");
    EXPECT_EQ(NumberText(std::nextafter(100.0, 200.0)), "100.00000000000001");
    EXPECT_EQ(NumberText(40.1), "40.1");
    EXPECT_EQ(NumberText(1e-05), "1e-05");
    EXPECT_EQ(NumberText(-1e300), "-1e+300");
    EXPECT_EQ(NumberText(std::nan("")), "nan");
    EXPECT_EQ(NumberText(-std::numeric_limits<double>::infinity()), "-inf");
}
