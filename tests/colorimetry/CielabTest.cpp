#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "tests/colorimetry/ColorReference.h"

using namespace kelma;

namespace {

// Reaches the protected CIELAB helpers.
class LabProbe : public ZKCLighting_Matrix {
public:
    using ZKCLighting_Matrix::ZKCLighting_Matrix;
    using ZKCLighting_Matrix::EncodeCIELABByte;
    void Lab(double* lab, const float* xyz, const std::vector<double>& inv, unsigned long index) const {
        XYZ2CIELAB(lab, xyz, inv, index);
    }
};

std::vector<float> WhiteOf(const ZKCLighting_Matrix& m) {
    alignas(16) float ones[32];
    for (float& v : ones) v = 1.0f;
    std::vector<float> w(3 * m.IlluminantNumber());
    m.CalculateCIEXYZ(w.data(), ones, 1, nullptr);
    return w;
}

std::size_t CountDiff(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b,
                      const std::vector<float>& xyz, const char* what) {
    std::size_t bad = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && ++bad <= 5) {
            std::size_t t = i / 3 * 3;
            ADD_FAILURE() << what << " byte " << i << ": " << int(a[i]) << " vs ref " << int(b[i]) << " xyz ("
                          << xyz[t] << ", " << xyz[t + 1] << ", " << xyz[t + 2] << ")";
        }
    return bad;
}

}  // namespace

TEST(CalculateCIELAB, WhiteIsL100AndEncodesTo255_128_128InBothEncodings) {
    ZKCObserver obs2(OBSERVER_CIE1931_2), obs10(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIED50 d50;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIEF11 f11;
    for (const ZKCObserver* obs : {&obs2, &obs10}) {
        LabProbe m(*obs, std::vector<ZKCIlluminant_Base*>{&d50, &a, &f11});
        std::vector<float> white = WhiteOf(m);
        std::vector<double> inv(9);
        for (int i = 0; i < 9; ++i) inv[i] = 1.0 / static_cast<double>(white[i]);
        for (unsigned long j = 0; j < 3; ++j) {
            double lab[3];
            m.Lab(lab, &white[3 * j], inv, 3 * j);
            EXPECT_NEAR(lab[0], 100.0, 1e-9);
            EXPECT_NEAR(lab[1], 0.0, 1e-9);
            EXPECT_NEAR(lab[2], 0.0, 1e-9);
        }
        for (bool cielab : {true, false}) {
            std::vector<float> xyz = white;
            std::vector<unsigned char> out(9, 7);
            m.CalculateCIELAB(out.data(), xyz.data(), 1, cielab);
            for (int j = 0; j < 3; ++j) {
                EXPECT_EQ(out[3 * j], 255) << cielab;
                EXPECT_EQ(out[3 * j + 1], 128) << cielab;
                EXPECT_EQ(out[3 * j + 2], 128) << cielab;
            }
        }
        // Black is L* 0 in both encodings.
        std::vector<float> black(9, 0.0f);
        std::vector<unsigned char> out(9, 7);
        m.CalculateCIELAB(out.data(), black.data(), 1, true);
        EXPECT_EQ(out, (std::vector<unsigned char>{0, 128, 128, 0, 128, 128, 0, 128, 128}));
        m.CalculateCIELAB(out.data(), black.data(), 1, false);
        EXPECT_EQ(out, (std::vector<unsigned char>{0, 128, 128, 0, 128, 128, 0, 128, 128}));
    }
}

TEST(CalculateCIELAB, BytesEqualAnIndependentDoubleImplementation) {
    ZKCObserver obs2(OBSERVER_CIE1931_2), obs10(OBSERVER_CIE1964_10);
    ZKCIlluminant_CIED65 d65;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIEF2 f2;
    const ZKCLighting_Matrix matrices[] = {
        ZKCLighting_Matrix(obs2, &d65),
        ZKCLighting_Matrix(obs2, std::vector<ZKCIlluminant_Base*>{&a, &f2, &d65}),
        ZKCLighting_Matrix(obs10, std::vector<ZKCIlluminant_Base*>{&f2, &a}),
    };
    std::mt19937 rng(2024);
    for (const ZKCLighting_Matrix& m : matrices) {
        const unsigned n = m.IlluminantNumber();
        const unsigned count = 20000;
        std::vector<float> w = WhiteOf(m);
        std::vector<float> xyz(3 * n * count);
        std::uniform_real_distribution<float> wide(-0.05f, 1.3f), dark(0.0f, 0.02f);
        for (std::size_t i = 0; i < xyz.size(); ++i) {
            // Every fourth triple near black, for the linear branch.
            bool isDark = (i / (3 * n)) % 4 == 0;
            xyz[i] = (isDark ? dark(rng) : wide(rng)) * w[i % (3 * n)];
        }
        for (bool cielab : {true, false}) {
            std::vector<float> in = xyz;
            std::vector<unsigned char> got(xyz.size(), 7);
            m.CalculateCIELAB(got.data(), in.data(), count, cielab);
            std::vector<unsigned char> ref = color_ref::Bytes(m.Weights(), n, xyz.data(), count, cielab);
            EXPECT_EQ(CountDiff(got, ref, xyz, cielab ? "CIELAB bytes" : "LAB2000HL bytes"), 0u)
                << "n=" << n;
        }
    }
}

TEST(XYZ2CIELAB, ThresholdItselfTakesTheLinearBranch) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    LabProbe m(obs, &d50);
    // t = xyz * inverseWhite; with xyz 1.0 the inverse white sets t exactly.
    const float one[3] = {1.0f, 1.0f, 1.0f};
    const double above = std::nextafter(0.008856, 1.0);
    struct Case {
        double tx, ty, tz;
    } cases[] = {{0.5, 0.008856, 0.008856}, {0.008856, 0.008856, 0.9}, {0.5, above, 0.008856}, {0.2, 0.3, 0.4}};
    for (const Case& c : cases) {
        // Put the triple at the second illuminant slot to exercise `index`.
        std::vector<double> inv = {9.0, 9.0, 9.0, c.tx, c.ty, c.tz};
        double lab[3];
        m.Lab(lab, one, inv, 3);
        double ref[3];
        color_ref::Lab(ref, one, &inv[3]);
        EXPECT_EQ(lab[0], ref[0]) << c.ty;
        EXPECT_EQ(lab[1], ref[1]) << c.tx;
        EXPECT_EQ(lab[2], ref[2]) << c.tz;
    }
    double lab[3];
    std::vector<double> inv = {0.5, 0.008856, 0.008856};
    m.Lab(lab, one, inv, 0);
    EXPECT_EQ(lab[0], 903.3 * 0.008856);
    // The cube-root form would give 116 * 0.008856^(1/3) - 16 = 7.9995920, not 7.9996248.
    EXPECT_NEAR(lab[0], 7.9996248, 1e-9);
    EXPECT_EQ(lab[1], 500.0 * (std::pow(0.5, 0.3333333333333333) - (7.787 * 0.008856 + 0.13793103448275862)));
    EXPECT_EQ(lab[2], 0.0);
    inv[1] = above;
    m.Lab(lab, one, inv, 0);
    EXPECT_EQ(lab[0], 116.0 * std::pow(above, 0.3333333333333333) - 16.0);
}

TEST(EncodeCIELABByte, ClampsThenRoundsHalfUp) {
    // a* values, encoded as a* + 128.
    EXPECT_EQ(LabProbe::EncodeCIELABByte(-200.0 + 128.0), 0);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(127.6 + 128.0), 255);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(-0.5 + 128.0), 128);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(-0.6 + 128.0), 127);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(0.0), 0);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(254.5), 255);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(254.49), 254);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(255.0), 255);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(1e300), 255);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(-1e-300), 0);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(std::numeric_limits<double>::infinity()), 255);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(-std::numeric_limits<double>::infinity()), 0);
    EXPECT_EQ(LabProbe::EncodeCIELABByte(std::numeric_limits<double>::quiet_NaN()), 0);
    for (int k = 0; k <= 255; ++k) {
        EXPECT_EQ(LabProbe::EncodeCIELABByte(k - 0.5), k == 0 ? 0 : k);
        EXPECT_EQ(LabProbe::EncodeCIELABByte(k + 0.4999), k);
    }
}

TEST(CalculateCIELAB, NaNAndZeroWhiteComponentsGiveClampedBytes) {
    ZKCObserver obs(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCLighting_Matrix m(obs, &d50);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    float xyz[3] = {nan, nan, nan};
    unsigned char out[3] = {7, 7, 7};
    m.CalculateCIELAB(out, xyz, 1, true);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 0);
    EXPECT_EQ(out[2], 0);
    float xyz2[3] = {nan, nan, nan};
    m.CalculateCIELAB(out, xyz2, 1, false);
    EXPECT_EQ(out[0], 0);  // L* NaN clamps to the lower bound: LAB2000HL L 0

    // A zero white component: the inverse is infinite and the bytes clamp.
    std::vector<float> w(96, 0.0f);
    std::copy(m.Weights(), m.Weights() + 96, w.begin());
    for (int i = 0; i < 32; ++i) w[64 + i] = 0.0f;  // Z row gone: Zn = 0
    ZKCLighting_Matrix noZ(w.data(), 1);
    float xyz3[3] = {0.5f, 0.5f, 0.5f};
    noZ.CalculateCIELAB(out, xyz3, 1, true);
    EXPECT_EQ(out[2], 0);  // b* = 200 (f(tY) - inf) -> -inf -> 0
}
