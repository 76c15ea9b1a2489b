// A batch of no samples: the drivers and the calling-thread entries start no
// worker and write nothing, in every layout and encoding.
#include <gtest/gtest.h>

#include <vector>

#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

TEST(EmptyBatch, PredictionOfNoSamplesWritesNothing) {
    kelma_test::ScopedCPUCount three(3);
    for (unsigned int inks : {4u, 6u, 7u}) {
        const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(inks, 3, 2.0, inks).Build(true);
        std::vector<unsigned char> samples(inks, 9);
        std::vector<float> spectra(64, -2.0f);
        std::vector<unsigned char> bytes(64, 0x77);
        for (SPECTRUM_LAYOUT layout : {SPECTRUM_PADDED, SPECTRUM_PACKED}) {
            ZKCSSE_KELMA_Thread driver(model, 0, samples.data(), spectra.data(), layout);
            driver.Wait();
            EXPECT_EQ(driver.ThreadsInUse(), 0u) << inks << " inks";
            ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, 0, samples.data(), spectra.data(), layout);
        }
        {
            ZKCSSE_KELMA_Thread driver(model, 0, samples.data(), bytes.data(), 31, 32);
            driver.Init(samples.data(), bytes.data(), true);
            driver.Calculate();
            EXPECT_EQ(driver.ThreadsInUse(), 0u) << inks << " inks";
        }
        for (bool cielab : {false, true})
            ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, 0, samples.data(), bytes.data(), cielab);
        double xyz[3] = {-1, -1, -1}, lab[3] = {-1, -1, -1};
        PredictColorimetry(model, 0, samples.data(), 0, true, xyz, lab);
        for (float v : spectra) ASSERT_EQ(v, -2.0f) << inks << " inks";
        for (unsigned char b : bytes) ASSERT_EQ(b, 0x77) << inks << " inks";
        for (int c = 0; c < 3; ++c) EXPECT_TRUE(xyz[c] == -1 && lab[c] == -1) << inks << " inks";
    }
}
