#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "kelma/colorspace/Lab2000hlTables.h"
#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"
#include "tests/colorspace/Lab2000hlReference.h"

using namespace kelma;
using LHL = ZKCColorSpaceTransformationLUT_LAB2LAB2000HL;

namespace {

struct Triple {
    double v[3];
};

Triple Transform(double L, double a, double b) {
    const double lab[3] = {L, a, b};
    Triple t;
    LHL::LAB2LAB2000HL(t.v, lab);
    return t;
}

std::vector<unsigned char> Bytes(const Triple& t) {
    std::vector<unsigned char> out(3, 7);
    LHL::LAB2000HL_BYTE(t.v, out.data());
    return out;
}

}  // namespace

TEST(LAB2LAB2000HL, LightnessTableSpotValues) {
    EXPECT_EQ(Transform(0, 0, 0).v[0], 0.0);
    EXPECT_NEAR(Transform(25, 0, 0).v[0], 16.1214226542034, 1e-12);
    EXPECT_NEAR(Transform(50, 0, 0).v[0], 37.5765932090684, 1e-12);
    EXPECT_NEAR(Transform(100, 0, 0).v[0], 75.1531864183417, 1e-12);
    // Halfway between two grid points interpolates linearly.
    const auto& ref = lab2000hl_ref::Get();
    EXPECT_NEAR(Transform(50.005, 0, 0).v[0], 0.5 * (ref.L[5000] + ref.L[5001]), 1e-9);
}

TEST(LAB2LAB2000HL, ChromaTableSpotValues) {
    Triple t = Transform(50, 10, 0);
    EXPECT_NEAR(t.v[0], 37.5765932090684, 1e-12);
    EXPECT_NEAR(t.v[1], 10.2841132430096, 1e-12);
    EXPECT_NEAR(t.v[2], 0.0570774145422605, 1e-15);
    EXPECT_NEAR(Transform(50, 0, 10).v[2], 8.59897781399109, 1e-12);
    t = Transform(50, -128, -128);
    EXPECT_NEAR(t.v[1], -40.6151287290575, 1e-12);
    EXPECT_NEAR(t.v[2], -36.3431248062011, 1e-12);
    t = Transform(50, 0, 0);
    EXPECT_EQ(t.v[1], 0.0);
    EXPECT_EQ(t.v[2], 0.0);
    // The upper corner is the last grid entry (neighbours beyond get weight 0).
    const auto& ref = lab2000hl_ref::Get();
    t = Transform(100, 128, 128);
    EXPECT_EQ(t.v[1], ref.A[257 * 257 - 1]);
    EXPECT_EQ(t.v[2], ref.B[257 * 257 - 1]);
    t = Transform(100, 128, -128);
    EXPECT_EQ(t.v[1], ref.A[256]);
    t = Transform(100, -128, 128);
    EXPECT_EQ(t.v[2], ref.B[257 * 256]);
}

TEST(LAB2LAB2000HL, InputsAreClampedToTheTableRange) {
    auto same = [](const Triple& x, const Triple& y) { return std::memcmp(x.v, y.v, sizeof x.v) == 0; };
    EXPECT_TRUE(same(Transform(150, -300, 200), Transform(100, -128, 128)));
    EXPECT_TRUE(same(Transform(-5, 129, -1e9), Transform(0, 128, -128)));
    EXPECT_TRUE(same(Transform(100.0000001, 0, 0), Transform(100, 0, 0)));
}

TEST(LAB2000HL_BYTE, EncodesWhiteBlackAndClamps) {
    Triple black = Transform(0, 0, 0);
    EXPECT_EQ(black.v[0], 0.0);
    EXPECT_EQ(black.v[1], 0.0);
    EXPECT_EQ(black.v[2], 0.0);
    EXPECT_EQ(Bytes(black), (std::vector<unsigned char>{0, 128, 128}));
    EXPECT_EQ(Bytes(Transform(100, 0, 0)), (std::vector<unsigned char>{255, 128, 128}));

    // Scale, clamp and half-up rounding of each channel.
    const double l1[3] = {100.6 / 3.3931, (10.6 - 128.0) / 2.6771, -0.4 / 2.6771};
    unsigned char out[3];
    LHL::LAB2000HL_BYTE(l1, out);
    EXPECT_EQ(out[0], 101);
    EXPECT_EQ(out[1], 11);
    EXPECT_EQ(out[2], 128);
    const double l1b[3] = {100.4 / 3.3931, (10.4 - 128.0) / 2.6771, -0.6 / 2.6771};
    LHL::LAB2000HL_BYTE(l1b, out);
    EXPECT_EQ(out[0], 100);
    EXPECT_EQ(out[1], 10);
    EXPECT_EQ(out[2], 127);
    const double l2[3] = {80.0, 100.0, -100.0};
    LHL::LAB2000HL_BYTE(l2, out);
    EXPECT_EQ(out[0], 255);
    EXPECT_EQ(out[1], 255);
    EXPECT_EQ(out[2], 0);
    const double l3[3] = {std::nan(""), std::nan(""), std::nan("")};
    LHL::LAB2000HL_BYTE(l3, out);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 0);
    EXPECT_EQ(out[2], 0);
}

TEST(LAB2LAB2000HL, MatchesAnIndependentBilinearReadingTheRawTables) {
    std::mt19937 rng(77);
    std::uniform_real_distribution<double> L(-10.0, 110.0), ab(-140.0, 140.0);
    const double edgesL[] = {0.0, 0.005, 25.0, 99.995, 99.999999, 100.0};
    const double edgesAB[] = {-128.0, -127.999999, -0.5, 0.0, 0.25, 127.0, 127.5, 127.999999, 128.0};
    std::vector<double> in;
    for (double l : edgesL)
        for (double a : edgesAB)
            for (double b : edgesAB) in.insert(in.end(), {l, a, b});
    for (int i = 0; i < 100000; ++i) in.insert(in.end(), {L(rng), ab(rng), ab(rng)});
    // Integer grid nodes, where the table values come through unchanged.
    std::uniform_int_distribution<int> node(-128, 128), lnode(0, 10000);
    for (int i = 0; i < 5000; ++i) in.insert(in.end(), {lnode(rng) / 100.0, double(node(rng)), double(node(rng))});

    std::size_t bad = 0;
    for (std::size_t i = 0; i < in.size(); i += 3) {
        double got[3], ref[3];
        LHL::LAB2LAB2000HL(got, &in[i]);
        lab2000hl_ref::Lab2Lab2000hl(ref, &in[i]);
        for (int c = 0; c < 3; ++c)
            if (!(std::fabs(got[c] - ref[c]) <= 1e-12) && ++bad <= 5)
                ADD_FAILURE() << "(" << in[i] << ", " << in[i + 1] << ", " << in[i + 2] << ") channel " << c
                              << ": " << got[c] << " vs " << ref[c];
        unsigned char gb[3], rb[3];
        LHL::LAB2000HL_BYTE(got, gb);
        lab2000hl_ref::Lab2000hlBytes(ref, rb);
        if (std::memcmp(gb, rb, 3) != 0 && ++bad <= 5)
            ADD_FAILURE() << "bytes of (" << in[i] << ", " << in[i + 1] << ", " << in[i + 2] << ")";
    }
    EXPECT_EQ(bad, 0u);
}

TEST(Lab2000hlTables, EmbeddedTablesEqualTheRawFilesAndEndInZeros) {
    const auto& ref = lab2000hl_ref::Get();
    EXPECT_EQ(std::memcmp(Lab2000hlLutL(), ref.L.data(), (kLab2000hlLSize + kLab2000hlLPad) * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(Lab2000hlLutA(), ref.A.data(), (kLab2000hlABSize + kLab2000hlABPad) * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(Lab2000hlLutB(), ref.B.data(), (kLab2000hlABSize + kLab2000hlABPad) * sizeof(double)), 0);
    EXPECT_EQ(Lab2000hlLutL()[10001], 0.0);
    EXPECT_EQ(Lab2000hlLutA()[257 * 257 + 257], 0.0);
    EXPECT_EQ(Lab2000hlLutB()[257 * 257 + 257], 0.0);
}

TEST(TransformToByte, ArrayFormTruncatesWithoutClampingOrRounding) {
    LHL worker;
    const double lhl[] = {80.0, 0.0, 0.0,                            // 271.448 -> 271 -> low byte 15
                          75.1531864183417, 47.0, -43.0,             // inside the range
                          100.9 / 3.3931, 0.99 / 2.6771, -0.99 / 2.6771};  // no rounding up
    unsigned char out[9];
    std::memset(out, 7, sizeof out);
    worker.TransformToByte(lhl, out, 3);
    EXPECT_EQ(out[0], 15);
    EXPECT_EQ(out[1], 128);
    EXPECT_EQ(out[2], 128);
    EXPECT_EQ(out[3], 255);  // trunc(255.0000...) = 255
    EXPECT_EQ(out[4], static_cast<unsigned char>(static_cast<long>(2.6771 * 47.0 + 128.0)));
    EXPECT_EQ(out[5], static_cast<unsigned char>(static_cast<long>(2.6771 * -43.0 + 128.0)));
    EXPECT_EQ(out[6], 100);
    EXPECT_EQ(out[7], 128);
    EXPECT_EQ(out[8], 127);

    unsigned char clamped[3];
    LHL::LAB2000HL_BYTE(lhl, clamped);
    EXPECT_EQ(clamped[0], 255);

    // Count 0 writes nothing.
    unsigned char untouched[3] = {1, 2, 3};
    worker.TransformToByte(lhl, untouched, 0);
    EXPECT_EQ(untouched[0], 1);
    EXPECT_EQ(worker.GetColorSpaceTransformation(), COLORSPACETRANSFORMATION_LAB2LAB2000HL);
}

namespace {
class BaseProbe : public ZKCColorSpaceTransformationLUT_Base {
public:
    void Calculate() const override {}
};
}  // namespace

TEST(ZKCColorSpaceTransformationLUT_Base, ReportsNoTransformationAndWritesNoBytes) {
    BaseProbe base;
    EXPECT_EQ(base.GetColorSpaceTransformation(), COLORSPACETRANSFORMATION_NONE);
    const double lhl[3] = {50, 1, 1};
    unsigned char out[3] = {1, 2, 3};
    base.TransformToByte(lhl, out, 1);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[1], 2);
    EXPECT_EQ(out[2], 3);
}

TEST(ZKCColorSpaceTransformationLUT_LAB2LAB2000HL, CalculateTransformsItsRange) {
    std::vector<double> lab = {100, 0, 0, 50, 10, 0, 20, -30, 40, 0, 0, 0};
    std::vector<double> out(12, -1.0);
    LHL worker;
    worker.Init(lab.data() + 3, out.data() + 3, 2);
    worker();
    EXPECT_EQ(out[0], -1.0);
    EXPECT_EQ(out[9], -1.0);
    for (int t = 1; t <= 2; ++t) {
        double ref[3];
        LHL::LAB2LAB2000HL(ref, &lab[3 * t]);
        EXPECT_EQ(std::memcmp(ref, &out[3 * t], sizeof ref), 0) << t;
    }
}
