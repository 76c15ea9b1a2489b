// The lighting matrix's batch loops in every kernel variant against the
// scalar twins (SpectralDot_Scalar.h, LabBytes_Scalar.h), bit for bit.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kelma/colorimetry/ColorimetryKernels.h"
#include "kelma/colorimetry/LabBytes_AVX2.h"
#include "kelma/colorimetry/LabBytes_AVX512.h"
#include "kelma/colorimetry/LabBytes_Scalar.h"
#include "kelma/colorimetry/SpectralDot_Scalar.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using kelma_test::SameBits;
using kelma_test::UnsupportedVariant;

namespace {

ZKCLighting_Matrix Matrix(unsigned int illuminants) {
    static ZKCObserver observer(OBSERVER_CIE1931_2);
    static ZKCIlluminant_CIED50 d50;
    static ZKCIlluminant_CIEA a;
    static ZKCIlluminant_CIEF11 f11;
    std::vector<ZKCIlluminant_Base*> all = {&d50, &a, &f11};
    all.resize(illuminants);
    return ZKCLighting_Matrix(observer, all);
}

std::vector<double> InverseWhite(const ZKCLighting_Matrix& m) {
    const ZKCWhitePoint white(m);
    std::vector<double> inv;
    for (float w : white.Values()) inv.push_back(1.0 / static_cast<double>(w));
    return inv;
}

// XYZ triples over every branch: dark (linear branch), ordinary, above the
// white, huge (beyond the fast cube root's range), negative, zero, NaN, inf.
std::vector<float> MixedXYZ(std::size_t triples, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> ordinary(0.0f, 1.1f), dark(0.0f, 0.012f), wide(-0.2f, 3.0f);
    const float special[] = {0.0f, -0.0f, std::numeric_limits<float>::quiet_NaN(),
                             std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                             70.0f, 1e30f, FLT_TRUE_MIN, -1.0f, 0.008856f};
    std::vector<float> xyz(3 * triples);
    for (std::size_t i = 0; i < xyz.size(); ++i) {
        const unsigned int kind = rng() % 100;
        xyz[i] = kind < 70 ? ordinary(rng) : kind < 85 ? dark(rng) : kind < 97 ? wide(rng) : special[rng() % 10];
    }
    return xyz;
}

// Next float towards +inf.
float Up(float v) { return std::nextafter(v, std::numeric_limits<float>::infinity()); }

class ColorimetryVariant : public ::testing::TestWithParam<KERNEL_VARIANT> {
protected:
    void SetUp() override {
        if (!KernelVariantSupported(GetParam())) GTEST_SKIP() << UnsupportedVariant(GetParam());
    }
};

}  // namespace

// Every count (tails of the 16-dot groups), one to three illuminants, with
// and without a factor, spectra with NaN, inf and negative values.
TEST_P(ColorimetryVariant, XYZEqualsTheScalarTwinBitForBit) {
    AlignedBuffer<float> spectra = kelma_test::RandomSpectra(53, 7);
    spectra[3 * 32 + 4] = std::numeric_limits<float>::quiet_NaN();
    spectra[5 * 32 + 30] = std::numeric_limits<float>::infinity();
    spectra[8 * 32 + 0] = -0.25f;
    spectra[9 * 32 + 17] = 7.5f;
    for (unsigned int n = 1; n <= 3; ++n) {
        const ZKCLighting_Matrix m = Matrix(n);
        const std::vector<float> factor = {1.25f, 0.75f, 1.0f / 3.0f, 2.0f, 0.5f, 1.5f, 0.9f, 1.1f, 3.0f};
        for (const float* f : {static_cast<const float*>(nullptr), factor.data()}) {
            for (unsigned int count : {0u, 1u, 2u, 5u, 6u, 16u, 17u, 53u}) {
                std::vector<float> xyz(3 * n * count + 4, -9.0f);
                SpectraToXYZ(GetParam(), m.Weights(), n, f, spectra.data(), count, xyz.data());
                for (unsigned int s = 0; s < count; ++s)
                    for (unsigned int r = 0; r < 3 * n; ++r) {
                        const float twin =
                            SpectralDot_Scalar(spectra.data() + 32 * s, m.Weights() + 32 * r) * (f ? f[r] : 1.0f);
                        ASSERT_TRUE(SameBits(xyz[3 * n * s + r], twin) ||
                                    (std::isnan(twin) && std::isnan(xyz[3 * n * s + r])))
                            << "n " << n << " count " << count << " sample " << s << " row " << r;
                    }
                for (std::size_t i = 3 * n * count; i < xyz.size(); ++i) ASSERT_EQ(xyz[i], -9.0f);
            }
        }
    }
}

// Random triples over every branch, both encodings, one to three
// illuminants, counts that leave tails of the 8-triple groups.
TEST_P(ColorimetryVariant, BytesEqualTheScalarTwin) {
    for (unsigned int n = 1; n <= 3; ++n) {
        const ZKCLighting_Matrix m = Matrix(n);
        const std::vector<double> inv = InverseWhite(m);
        for (unsigned int count : {1u, 3u, 7u, 8u, 9u, 20000u}) {
            const std::vector<float> xyz = MixedXYZ(std::size_t{count} * n, count + n);
            for (bool cielab : {false, true}) {
                std::vector<unsigned char> out(3 * n * count + 5, 0xEE), twin(3 * n * count);
                XYZToLabBytes(GetParam(), n, inv.data(), xyz.data(), count, cielab, out.data());
                for (std::size_t t = 0; t < std::size_t{count} * n; ++t)
                    LabBytes_Scalar(&xyz[3 * t], &inv[3 * (t % n)], cielab, &twin[3 * t]);
                for (std::size_t i = 0; i < twin.size(); ++i)
                    ASSERT_EQ(out[i], twin[i]) << "triple " << i / 3 << " (" << xyz[i / 3 * 3] << ", "
                                               << xyz[i / 3 * 3 + 1] << ", " << xyz[i / 3 * 3 + 2] << ") n " << n
                                               << (cielab ? " CIELAB" : " LAB2000HL");
                for (std::size_t i = twin.size(); i < out.size(); ++i) ASSERT_EQ(out[i], 0xEE);
            }
        }
    }
}

// The hardest inputs: for every byte boundary of L (and of a and b), the
// adjacent floats where the twin's byte changes, and their neighbours.
TEST_P(ColorimetryVariant, BytesEqualTheTwinAtTheirRoundingBoundaries) {
    const ZKCLighting_Matrix m = Matrix(1);
    const std::vector<double> inv = InverseWhite(m);
    const float white[3] = {static_cast<float>(1.0 / inv[0]), static_cast<float>(1.0 / inv[1]),
                            static_cast<float>(1.0 / inv[2])};
    std::vector<float> xyz;
    for (bool cielab : {false, true}) {
        for (int c = 0; c < 3; ++c) {
            // Vary Y (c = 0), X (c = 1) or Z (c = 2) from a mid grey.
            const int axis = c == 0 ? 1 : (c == 1 ? 0 : 2);
            auto byteAt = [&](float v) {
                float p[3] = {0.4f * white[0], 0.4f * white[1], 0.4f * white[2]};
                p[axis] = v;
                unsigned char b[3];
                LabBytes_Scalar(p, inv.data(), cielab, b);
                return b[c];
            };
            float lo = 0.0f;
            const float top = 1.2f * white[axis];
            while (lo < top) {
                // Bisect over floats for the last one with the byte of `lo`.
                const unsigned char b = byteAt(lo);
                float a = lo, z = top;
                if (byteAt(z) == b) break;
                while (Up(a) < z) {
                    float mid = a + (z - a) / 2;
                    if (mid <= a) mid = Up(a);
                    if (mid >= z) break;
                    (byteAt(mid) == b ? a : z) = mid;
                }
                for (float v = std::nextafter(a, 0.0f), k = 0; k < 4; v = Up(v), ++k) {
                    float p[3] = {0.4f * white[0], 0.4f * white[1], 0.4f * white[2]};
                    p[axis] = v;
                    xyz.insert(xyz.end(), p, p + 3);
                }
                lo = z;
            }
        }
    }
    // Six axes and encodings, most of the 255 boundaries each, four floats per boundary.
    ASSERT_GT(xyz.size(), 3u * 4 * 1000) << xyz.size() / 12 << " boundaries";
    const unsigned int count = static_cast<unsigned int>(xyz.size() / 3);
    for (bool cielab : {false, true}) {
        std::vector<unsigned char> out(3 * count), twin(3 * count);
        XYZToLabBytes(GetParam(), 1, inv.data(), xyz.data(), count, cielab, out.data());
        for (unsigned int t = 0; t < count; ++t) LabBytes_Scalar(&xyz[3 * t], inv.data(), cielab, &twin[3 * t]);
        ASSERT_EQ(out, twin) << (cielab ? "CIELAB" : "LAB2000HL");
    }
}

INSTANTIATE_TEST_SUITE_P(Variants, ColorimetryVariant, ::testing::ValuesIn(kelma_test::kAllKernelVariants),
                         kelma_test::KernelVariantParamName<::testing::TestParamInfo<KERNEL_VARIANT>>);

// The fast byte paths: AVX2 (four lanes) and AVX-512 (eight).
class FastLabBytes : public ::testing::TestWithParam<KERNEL_VARIANT> {
protected:
    void SetUp() override {
        if (!KernelVariantSupported(GetParam())) GTEST_SKIP() << UnsupportedVariant(GetParam());
    }
    void CubeRoots(const std::vector<double>& t, std::vector<double>& root) const {
        root.assign(t.size(), 0.0);
        const auto n = static_cast<unsigned int>(t.size());
        if (GetParam() == KERNEL_AVX2)
            CubeRoots_AVX2(t.data(), root.data(), n);
        else
            CubeRoots_AVX512(t.data(), root.data(), n);
    }
    void Bytes(const ZKSWhiteLanes& lanes, const std::vector<double>& inv, const std::vector<float>& xyz,
               unsigned int count, bool cielab, unsigned char* out, const ZKSLabMargins& margins) const {
        if (GetParam() == KERNEL_AVX2)
            XYZToLabBytes_AVX2(lanes, inv.data(), xyz.data(), count, cielab, out, margins);
        else
            XYZToLabBytes_AVX512(lanes, inv.data(), xyz.data(), count, cielab, out, margins);
    }
};

// The fast cube root stays far inside the error the margins assume (about
// 2e-15 against 1e-13), over a dense sweep of its range; the two variants'
// roots are the same doubles (one algorithm, the same operations).
TEST_P(FastLabBytes, CubeRootIsFarInsideTheAssumedErrorAndTheSameInBothVariants) {
    std::vector<double> t;
    for (double v = 0.008856; v <= kCubeRootMaxT; v *= 1.0000037) t.push_back(v);
    t.push_back(kCubeRootMaxT);
    std::vector<double> root;
    CubeRoots(t, root);
    double worst = 0.0;
    for (std::size_t i = 0; i < t.size(); ++i)
        worst = std::max(worst, std::fabs(root[i] - std::pow(t[i], 0.3333333333333333)));
    EXPECT_LT(worst, kCubeRootError / 20) << "worst " << worst;
    if (GetParam() == KERNEL_AVX2 && KernelVariantSupported(KERNEL_AVX512)) {
        std::vector<double> wide(t.size());
        CubeRoots_AVX512(t.data(), wide.data(), static_cast<unsigned int>(t.size()));
        for (std::size_t i = 0; i < t.size(); ++i) ASSERT_EQ(root[i], wide[i]) << "t = " << t[i];
    }
}

// With margins so wide that every triple that used the fast cube root goes
// to the twin, the bytes are still the twin's: the fallback path (lane to
// illuminant mapping, output positions) is right, at every count that ends
// a group of four or eight triples differently.
TEST_P(FastLabBytes, TheFallbackPathGivesTheTwinsBytes) {
    const ZKCLighting_Matrix m = Matrix(3);
    const std::vector<double> inv = InverseWhite(m);
    const std::vector<float> xyz = MixedXYZ(std::size_t{1001} * 3, 5);
    ZKSLabMargins everything;
    for (int c = 0; c < 3; ++c) everything.cielab[c] = everything.lab2000hl[c] = 1.0;
    for (unsigned int count : {1u, 2u, 5u, 11u, 1001u})
        for (bool cielab : {false, true}) {
            std::vector<unsigned char> out(9 * count + 7, 0xEE), twin(9 * count + 7, 0xEE);
            Bytes(MakeWhiteLanes(inv.data(), 3), inv, xyz, count, cielab, out.data(), everything);
            for (std::size_t t = 0; t < std::size_t{count} * 3; ++t)
                LabBytes_Scalar(&xyz[3 * t], &inv[3 * (t % 3)], cielab, &twin[3 * t]);
            ASSERT_EQ(out, twin) << "count " << count << (cielab ? " CIELAB" : " LAB2000HL");
        }
}

INSTANTIATE_TEST_SUITE_P(Variants, FastLabBytes, ::testing::Values(KERNEL_AVX2, KERNEL_AVX512),
                         kelma_test::KernelVariantParamName<::testing::TestParamInfo<KERNEL_VARIANT>>);
