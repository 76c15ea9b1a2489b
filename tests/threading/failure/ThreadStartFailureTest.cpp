// Every threaded computation of the library under a system that refuses
// threads after the k-th start (the LD_PRELOAD shim FailPthreadCreate.c, as
// `ulimit -u` does): the failure must reach the caller as Boost's resource
// error only after every started worker has been joined (AddressSanitizer
// reports any write into memory released on the way out), and the same call
// repeated with threads available must give the bit-identical result.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include <boost/thread/exceptions.hpp>

#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/sampling/ZKCSpectralSampling_Thread.h"
#include "kelma/threading/Threading.h"
#include "tests/modelbuilding/SyntheticChart.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

using FailAfterFn = void (*)(long);

FailAfterFn Shim() {
    static FailAfterFn fn = reinterpret_cast<FailAfterFn>(dlsym(RTLD_DEFAULT, "kelma_test_fail_threads_after"));
    return fn;
}

// Thread starts allowed before the shim refuses; restored on scope exit.
class ScopedThreadLimit {
public:
    explicit ScopedThreadLimit(long starts) { Shim()(starts); }
    ~ScopedThreadLimit() { Shim()(-1); }
};

constexpr unsigned kThreads = 4;
const long kLimits[] = {0, 1, 2, 3};

class ThreadStartFailure : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(Shim(), nullptr) << "run this test with LD_PRELOAD naming the FailPthreadCreate shim";
    }
    kelma_test::ScopedCPUCount cpus_{kThreads};
};

// `run` computes into its own output; under every limit it must throw the
// resource error, and afterwards reproduce `reference` exactly.
template <class T>
void ExpectFailsThenRecovers(const std::function<std::vector<T>()>& run) {
    const std::vector<T> reference = run();
    for (long limit : kLimits) {
        {
            ScopedThreadLimit refuse(limit);
            EXPECT_THROW(run(), boost::thread_resource_error) << "after " << limit << " thread starts";
        }
        const std::vector<T> again = run();
        ASSERT_EQ(again.size(), reference.size());
        EXPECT_EQ(0, std::memcmp(again.data(), reference.data(), again.size() * sizeof(T)))
            << "repeat after a failure at " << limit << " starts differs";
    }
}

std::vector<unsigned char> Samples(unsigned inks, std::size_t count) {
    std::vector<unsigned char> s(count * inks);
    for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<unsigned char>((i * 37 + i / 7) & 0xFF);
    return s;
}

}  // namespace

TEST_F(ThreadStartFailure, PredictionDriverConstructorJoinsStartedKernels) {
    const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(4, 3, 2.0, 11).Build();
    std::vector<unsigned char> inks = Samples(4, 4000);
    ExpectFailsThenRecovers<float>([&] {
        kelma::AlignedBuffer<float> out(4000 * 32);
        ZKCSSE_KELMA_Thread driver(model, 4000, inks.data(), out.data());
        driver.Wait();
        return std::vector<float>(out.data(), out.data() + 4000 * 32);
    });
    // Byte mode owns a spectra buffer that the kernels write into.
    ExpectFailsThenRecovers<unsigned char>([&] {
        std::vector<unsigned char> out(4000 * 3);
        ZKCSSE_KELMA_Thread driver(model, 4000, inks.data(), out.data(), 31, 32);
        driver.Wait();
        return out;
    });
}

TEST_F(ThreadStartFailure, PredictionDriverCalculateJoinsStartedKernels) {
    const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(7, 3, 2.0, 12).Build();
    std::vector<unsigned char> inks = Samples(7, 3000);
    std::vector<unsigned char> first(3000 * 3);
    ZKCSSE_KELMA_Thread driver(model, 3000, inks.data(), first.data(), 31, 32);
    driver.Wait();
    ExpectFailsThenRecovers<unsigned char>([&] {
        std::vector<unsigned char> out(3000 * 3);
        driver.Init(inks.data(), out.data(), true);
        driver.Calculate();
        return out;
    });
}

TEST_F(ThreadStartFailure, ClutDriverJoinsStartedWorkers) {
    const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(4, 3, 2.0, 13).Build();
    ZKCWorkerCLUT_Thread clut(model, CLUT_ACCURACY_9);
    std::vector<unsigned char> pixels = Samples(4, 20000);
    ExpectFailsThenRecovers<unsigned char>([&] {
        std::vector<unsigned char> out(20000 * 3);
        clut.Init(pixels.data(), out.data(), 20000);
        clut.Calculate();
        return out;
    });
}

TEST_F(ThreadStartFailure, SamplingDriverJoinsStartedWorkers) {
    std::vector<double> wavelengths;
    for (int w = 380; w <= 730; w += 10) wavelengths.push_back(w);
    const std::size_t n = wavelengths.size(), count = 5000;
    std::vector<float> in(count * n);
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = 0.05f + 0.9f * static_cast<float>((i * 7919) % 1000) / 1000.f;
    for (SPECTRALSAMPLING_METHOD method : {SPECTRALSAMPLING_LINEAR, SPECTRALSAMPLING_CUBICSPLINE}) {
        ZKCSpectralSampling_Thread sampling(wavelengths, method);
        ExpectFailsThenRecovers<float>([&] {
            std::vector<float> out(count * 32, 0.0f);
            sampling.Init(in.data(), out.data(), count);
            sampling.Calculate();
            return out;
        });
    }
}

TEST_F(ThreadStartFailure, Lab2000hlDriverJoinsStartedWorkers) {
    const std::size_t count = 30000;
    std::vector<double> lab(count * 3);
    for (std::size_t i = 0; i < count; ++i) {
        lab[3 * i] = static_cast<double>(i % 101);
        lab[3 * i + 1] = static_cast<double>(i % 257) - 128.0;
        lab[3 * i + 2] = static_cast<double>((i * 7) % 257) - 128.0;
    }
    ZKCColorSpaceTransformationLUT_Thread hl(COLORSPACETRANSFORMATION_LAB2LAB2000HL);
    ExpectFailsThenRecovers<double>([&] {
        std::vector<double> out(count * 3);
        hl.Init(lab.data(), out.data(), count);
        hl.Calculate();
        return out;
    });
}

TEST_F(ThreadStartFailure, ModelBuildingJoinsStartedWorkers) {
    const kelma_test::ZKSTestModel truth = kelma_test::MakeTestModel(4, 3, 2.2, 14);
    kelma_test::ChartMaker maker(truth);
    maker.AddNodes();
    maker.AddRamps(5, 250, 10);
    maker.AddRandom(60, 5, 0, 5);
    const ZKCModelBuilder builder(maker.Chart());
    ZKSModelBuildOptions options;
    for (double level : truth.grid) options.perInkGridPercent.push_back(level / 2.55);
    options.method = MODELFIT_REFINED;
    options.maxIterations = 3;
    ExpectFailsThenRecovers<double>([&] {
        ZKSBuiltModel built = builder.Build(options);
        std::vector<double> result = built.model.matrixScheme;
        result.push_back(built.model.n);
        return result;
    });
}
