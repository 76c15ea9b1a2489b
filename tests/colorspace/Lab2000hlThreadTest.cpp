#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"
#include "tests/support/TestSupport.h"

using namespace kelma;
using LHL = ZKCColorSpaceTransformationLUT_LAB2LAB2000HL;

namespace {

std::vector<double> RandomLab(std::size_t count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> L(-5.0, 105.0), ab(-135.0, 135.0);
    std::vector<double> v(3 * count);
    for (std::size_t i = 0; i < count; ++i) {
        v[3 * i] = L(rng);
        v[3 * i + 1] = ab(rng);
        v[3 * i + 2] = ab(rng);
    }
    return v;
}

// Output with a guard region after `count` triples, all set to a sentinel.
constexpr double kSentinel = -12345.0;
constexpr std::size_t kGuard = 12;

std::vector<double> RunDriver(unsigned cpus, const std::vector<double>& lab, std::size_t count,
                              unsigned* threadsUsed = nullptr) {
    kelma_test::ScopedCPUCount forced(cpus);
    ZKCColorSpaceTransformationLUT_Thread driver(COLORSPACETRANSFORMATION_LAB2LAB2000HL);
    std::vector<double> out(3 * count + kGuard, kSentinel);
    driver.Init(lab.data(), out.data(), count);
    if (threadsUsed) *threadsUsed = driver.ThreadsInUse();
    driver.Calculate();
    return out;
}

void ExpectEveryTripleTransformed(const std::vector<double>& lab, const std::vector<double>& out, std::size_t count,
                                  const std::string& what) {
    std::size_t bad = 0;
    for (std::size_t t = 0; t < count; ++t) {
        double ref[3];
        LHL::LAB2LAB2000HL(ref, &lab[3 * t]);
        if (std::memcmp(ref, &out[3 * t], sizeof ref) != 0 && ++bad <= 3)
            ADD_FAILURE() << what << ": triple " << t << " not transformed";
    }
    EXPECT_EQ(bad, 0u) << what;
    for (std::size_t i = 3 * count; i < out.size(); ++i) EXPECT_EQ(out[i], kSentinel) << what << " guard " << i;
}

}  // namespace

TEST(ZKCColorSpaceTransformationLUT_Thread, SplitsOverAtMostOneWorkerPerProcessor) {
    struct Case {
        unsigned cpus;
        std::size_t count;
        unsigned expectedThreads;
    } cases[] = {{4, 10, 4}, {4, 3, 3}, {4, 0, 0}, {1, 10, 1}, {3, 7, 3}, {4, 4, 4}, {2, 1, 1}};
    for (const Case& c : cases) {
        std::vector<double> lab = RandomLab(c.count, 17 + c.count);
        unsigned used = 99;
        std::vector<double> out = RunDriver(c.cpus, lab, c.count, &used);
        std::string what = std::to_string(c.count) + " over " + std::to_string(c.cpus);
        EXPECT_EQ(used, c.expectedThreads) << what;
        ExpectEveryTripleTransformed(lab, out, c.count, what);
    }
}

TEST(ZKCColorSpaceTransformationLUT_Thread, ZeroCountStartsNothing) {
    kelma_test::ScopedCPUCount forced(4);
    ZKCColorSpaceTransformationLUT_Thread driver(COLORSPACETRANSFORMATION_LAB2LAB2000HL);
    driver.Init(nullptr, nullptr, 0);
    EXPECT_EQ(driver.ThreadsInUse(), 0u);
    driver.Calculate();  // null arrays: any started worker would fault
}

TEST(ZKCColorSpaceTransformationLUT_Thread, ResultsAreBitIdenticalForOneToFourThreads) {
    const std::size_t count = 10007;
    std::vector<double> lab = RandomLab(count, 4242);
    std::vector<double> one = RunDriver(1, lab, count);
    ExpectEveryTripleTransformed(lab, one, count, "1 thread");
    for (unsigned cpus = 2; cpus <= 4; ++cpus) {
        std::vector<double> many = RunDriver(cpus, lab, count);
        EXPECT_EQ(std::memcmp(one.data(), many.data(), one.size() * sizeof(double)), 0) << cpus << " threads";
    }
}

TEST(ZKCColorSpaceTransformationLUT_Thread, InitAndCalculateCanBeRepeated) {
    kelma_test::ScopedCPUCount forced(3);
    ZKCColorSpaceTransformationLUT_Thread driver(COLORSPACETRANSFORMATION_LAB2LAB2000HL);
    for (std::size_t count : {50u, 2u, 1000u}) {
        std::vector<double> lab = RandomLab(count, static_cast<unsigned>(count));
        std::vector<double> out(3 * count + kGuard, kSentinel);
        driver.Init(lab.data(), out.data(), count);
        driver.Calculate();
        driver.Calculate();
        ExpectEveryTripleTransformed(lab, out, count, "repeat " + std::to_string(count));
    }
}

TEST(ZKCColorSpaceTransformationLUT_Thread, UnknownTransformationThrowsDefaultCase) {
    for (unsigned type : {0u, 2u, 7u}) {
        for (unsigned cpus : {1u, 4u}) {
            kelma_test::ScopedCPUCount forced(cpus);
            try {
                ZKCColorSpaceTransformationLUT_Thread driver(static_cast<COLORSPACETRANSFORMATION>(type));
                ADD_FAILURE() << "type " << type << " accepted";
            } catch (const char* e) {
                EXPECT_EQ(std::string(e), "DefaultCase") << type;
            }
        }
    }
}

TEST(ZKCColorSpaceTransformationLUT_Thread, TransformToByteUsesTheArrayEncoding) {
    kelma_test::ScopedCPUCount forced(2);
    ZKCColorSpaceTransformationLUT_Thread driver(COLORSPACETRANSFORMATION_LAB2LAB2000HL);
    const double lhl[6] = {80.0, 0.0, 0.0, 37.5765932090684, 10.2841132430096, 0.0570774145422605};
    unsigned char out[6];
    driver.TransformToByte(lhl, out, 2);
    EXPECT_EQ(out[0], 15);  // trunc(271.448) = 271, low byte
    EXPECT_EQ(out[1], 128);
    EXPECT_EQ(out[2], 128);
    EXPECT_EQ(out[3], 127);  // trunc(127.50...) - no rounding
    EXPECT_EQ(out[4], 155);  // trunc(155.53)
    EXPECT_EQ(out[5], 128);
    unsigned char clamped[3];
    LHL::LAB2000HL_BYTE(lhl, clamped);
    EXPECT_EQ(clamped[0], 255);
}
