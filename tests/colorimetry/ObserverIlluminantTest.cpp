#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "tests/colorimetry/CieTables.h"

using namespace kelma;

namespace {

double Sum(const std::vector<double>& v, std::size_t first, std::size_t n) {
    return std::accumulate(v.begin() + first, v.begin() + first + n, 0.0);
}

void ExpectRow(const std::vector<double>& table, std::size_t first, const cie_ref::Row& expected,
               const char* what) {
    for (std::size_t i = 0; i < 31; ++i)
        EXPECT_EQ(table[first + i], expected[i]) << what << " at " << 400 + 10 * i << " nm";
}

}  // namespace

TEST(ZKCObserver, TwoDegreeTableMatchesTheRoundedCIE1931Functions) {
    ZKCObserver o(OBSERVER_CIE1931_2);
    const std::vector<double>& t = o.Observer();
    ASSERT_EQ(t.size(), 93u);
    ExpectRow(t, 0, cie_ref::kX2, "2deg xbar");
    ExpectRow(t, 31, cie_ref::kY2, "2deg ybar");
    ExpectRow(t, 62, cie_ref::kZ2, "2deg zbar");
    EXPECT_EQ(t[47], 1.0);  // ybar at 560 nm
    EXPECT_EQ(t[0], 0.01);
    EXPECT_EQ(t[62], 0.07);
    EXPECT_EQ(t[62 + 5], 1.77);  // zbar at 450 nm
    EXPECT_EQ(t[30], 0.01);      // xbar at 700 nm
    EXPECT_NEAR(Sum(t, 0, 31), 10.64, 1e-12);
    EXPECT_NEAR(Sum(t, 31, 31), 10.67, 1e-12);
    EXPECT_NEAR(Sum(t, 62, 31), 10.66, 1e-12);
}

TEST(ZKCObserver, TenDegreeTableMatchesTheRoundedCIE1964Functions) {
    ZKCObserver o(OBSERVER_CIE1964_10);
    const std::vector<double>& t = o.Observer();
    ASSERT_EQ(t.size(), 93u);
    ExpectRow(t, 0, cie_ref::kX10, "10deg xbar");
    ExpectRow(t, 31, cie_ref::kY10, "10deg ybar");
    ExpectRow(t, 62, cie_ref::kZ10, "10deg zbar");
    EXPECT_EQ(t[0], 0.02);
    EXPECT_EQ(t[47], 1.0);
    EXPECT_EQ(t[62], 0.09);
    EXPECT_EQ(t[62 + 5], 1.99);
    EXPECT_NEAR(Sum(t, 0, 31), 11.65, 1e-12);
    EXPECT_NEAR(Sum(t, 31, 31), 11.68, 1e-12);
    EXPECT_NEAR(Sum(t, 62, 31), 11.65, 1e-12);
}

TEST(ZKCObserver, UnknownTypeThrowsDefaultCase) {
    for (unsigned type : {0u, 1u, 5u, 3u, 11u}) {
        try {
            ZKCObserver o(static_cast<OBSERVER_TYPE>(type));
            ADD_FAILURE() << "type " << type << " was accepted";
        } catch (const char* e) {
            EXPECT_EQ(std::string(e), "DefaultCase") << "type " << type;
        }
    }
}

TEST(ZKCObserver, CopyOutlivesItsSource) {
    // Copies must not free the table their source still holds (or vice versa).
    auto source = std::make_unique<ZKCObserver>(OBSERVER_CIE1964_10);
    ZKCObserver copy(*source);
    ZKCObserver assigned(OBSERVER_CIE1931_2);
    assigned = *source;
    source.reset();
    EXPECT_EQ(copy.Observer().size(), 93u);
    EXPECT_EQ(copy.Observer()[62], 0.09);
    EXPECT_EQ(assigned.Observer()[62], 0.09);
}

TEST(ZKCIlluminant, StandardTablesMatchThePublishedValues) {
    struct Case {
        const char* name;
        std::unique_ptr<ZKCIlluminant_Base> ill;
        const cie_ref::Row& expected;
    };
    Case cases[] = {
        {"A", std::make_unique<ZKCIlluminant_CIEA>(), cie_ref::kA},
        {"D50", std::make_unique<ZKCIlluminant_CIED50>(), cie_ref::kD50},
        {"D65", std::make_unique<ZKCIlluminant_CIED65>(), cie_ref::kD65},
        {"E", std::make_unique<ZKCIlluminant_CIEE>(), cie_ref::kE},
        {"F1", std::make_unique<ZKCIlluminant_CIEF1>(), cie_ref::kF1},
        {"F2", std::make_unique<ZKCIlluminant_CIEF2>(), cie_ref::kF2},
        {"F11", std::make_unique<ZKCIlluminant_CIEF11>(), cie_ref::kF11},
    };
    for (const Case& c : cases) {
        const std::vector<double>& v = c.ill->Illuminant();
        ASSERT_EQ(v.size(), 31u) << c.name;
        ExpectRow(v, 0, c.expected, c.name);
    }
}

TEST(ZKCIlluminant, SpotValuesAt400And560And700nm) {
    struct Spot {
        std::unique_ptr<ZKCIlluminant_Base> ill;
        double at400, at560, at700;
    };
    Spot spots[] = {
        {std::make_unique<ZKCIlluminant_CIEA>(), 0.14708, 1.0, 1.98261},
        {std::make_unique<ZKCIlluminant_CIED50>(), 0.4931, 1.0, 0.916},
        {std::make_unique<ZKCIlluminant_CIED65>(), 0.827549, 1.0, 0.716091},
        {std::make_unique<ZKCIlluminant_CIEE>(), 1.0, 1.0, 1.0},
        {std::make_unique<ZKCIlluminant_CIEF1>(), 0.0517, 0.1433, 0.0129},
        {std::make_unique<ZKCIlluminant_CIEF2>(), 0.0344, 0.1616, 0.011},
        {std::make_unique<ZKCIlluminant_CIEF11>(), 0.0129, 0.0283, 0.0135},
    };
    for (const Spot& s : spots) {
        const std::vector<double>& v = s.ill->Illuminant();
        EXPECT_EQ(v[0], s.at400);
        EXPECT_EQ(v[16], s.at560);
        EXPECT_EQ(v[30], s.at700);
    }
    // F2 keeps the 10 nm point samples, not the mercury lines at 5 nm.
    ZKCIlluminant_CIEF2 f2;
    EXPECT_EQ(f2.Illuminant()[4], 0.1181);
    EXPECT_EQ(f2.Illuminant()[18], 0.2279);
}

TEST(ZKCIlluminant, CopyConstructorCopiesTheTable) {
    ZKCIlluminant_CIED65 d65;
    ZKCIlluminant_CIED65 copy(d65);
    EXPECT_EQ(copy.Illuminant(), d65.Illuminant());
    EXPECT_NE(copy.Illuminant().data(), d65.Illuminant().data());
}

TEST(ZKCIlluminant_Measure, FromPointerReadsExactlyThirtyOneValues) {
    // Exactly 31 doubles on the heap: a 32nd read is an overflow the
    // sanitizer build reports.
    std::unique_ptr<double[]> spd(new double[31]);
    for (int i = 0; i < 31; ++i) spd[i] = 0.25 + 0.125 * i - (i % 3) * 1e-9;
    ZKCIlluminant_Measure m(spd.get());
    ASSERT_EQ(m.Illuminant().size(), 31u);
    for (int i = 0; i < 31; ++i) EXPECT_EQ(m.Illuminant()[i], spd[i]) << i;

    // A value that differs from the initial 1.0 everywhere, including zero.
    std::vector<double> zeros(31, 0.0);
    ZKCIlluminant_Measure z(zeros.data());
    EXPECT_EQ(z.Illuminant(), zeros);
}

TEST(ZKCIlluminant_Measure, FromVectorTakesItAsItIs) {
    std::vector<double> five = {0.1, 0.2, 0.3, 0.4, 0.5};
    EXPECT_EQ(ZKCIlluminant_Measure(five).Illuminant(), five);
    std::vector<double> d50(cie_ref::kD50.begin(), cie_ref::kD50.end());
    EXPECT_EQ(ZKCIlluminant_Measure(d50).Illuminant(), ZKCIlluminant_CIED50().Illuminant());
}
