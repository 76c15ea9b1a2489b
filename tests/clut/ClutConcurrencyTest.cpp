// Host threads that build, apply and destroy CLUTs at the same time: the
// shared weight tables and the tables the workers share are created and freed
// under those threads' feet. Runs in the normal suite (the results must not
// change) and, built alone, under ThreadSanitizer (scripts/test.sh --tsan).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelma/clut/ZKCKELMA_SubModel_Dispatcher.h"
#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "tests/clut/ClutOracle.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

struct Job {
    unsigned inputs, outputs;
    std::uint32_t n;
    bool lab;
    std::vector<std::uint8_t> nodes;
    std::vector<std::uint8_t> pixels;
    std::vector<std::uint8_t> expected;  // made on the test's thread, alone
};

std::vector<std::uint8_t> Apply(ZKCWorkerCLUT_Thread& clut, const std::vector<std::uint8_t>& px, unsigned inputs,
                                unsigned outputs) {
    std::vector<std::uint8_t> out(px.size() / inputs * outputs);
    clut.Init(px.data(), out.data(), px.size() / inputs);
    clut.Calculate();
    return out;
}

}  // namespace

TEST(ClutConcurrency, TwoHostThreadsBuildApplyAndDestroyCLUTsAtOnce) {
    kelma_test::ScopedCPUCount workers(2);
    std::vector<Job> jobs = {{3, 3, 9, false, {}, {}, {}}, {4, 3, 5, false, {}, {}, {}}, {3, 7, 5, true, {}, {}, {}},
                             {4, 3, 3, false, {}, {}, {}}, {3, 4, 2, false, {}, {}, {}}};
    for (std::size_t j = 0; j < jobs.size(); ++j) {
        Job& job = jobs[j];
        job.nodes = clut_test::RandomNodes(job.n, job.inputs, job.outputs, 10 + static_cast<std::uint32_t>(j));
        job.pixels = clut_test::TestPixels(job.inputs, 500, 20 + static_cast<std::uint32_t>(j));
        ZKCWorkerCLUT_Thread clut(job.nodes.data(), job.inputs, job.outputs, static_cast<CLUT_ACCURACY>(job.n),
                                  job.lab);
        job.expected = Apply(clut, job.pixels, job.inputs, job.outputs);
    }
    // A CLUT predicted from a model, and a dispatcher walking two subsets.
    const ZKCSSE_KELMA_Data model = kelma_test::MakeTestModel(5, 2, 2.0, 5).Build();
    const std::vector<std::uint8_t> modelPixels = clut_test::TestPixels(4, 300, 30);
    std::vector<std::uint8_t> modelExpected;
    {
        ZKCKELMA_SubModel_Dispatcher d(model, {0x0Fu, 0x1Eu}, CLUT_ACCURACY_3);
        std::vector<std::uint8_t> out(modelPixels.size() / 4 * 3);
        d.Next();
        d.Init(modelPixels.data(), out.data(), modelPixels.size() / 4);
        d.Calculate();
        modelExpected = out;
    }
    ASSERT_EQ(ZKCWorkerCLUT_4xn::Instances(), 0u);

    constexpr int kRounds = 24;
    std::atomic<int> mismatches{0};
    std::vector<std::string> errors(2);
    auto host = [&](int id) {
        try {
            for (int round = 0; round < kRounds; ++round) {
                if (id == 1 && round % 6 == 0) {
                    ZKCKELMA_SubModel_Dispatcher d(model, {0x0Fu, 0x1Eu}, CLUT_ACCURACY_3);
                    d.Next();
                    std::vector<std::uint8_t> out(modelPixels.size() / 4 * 3);
                    d.Init(modelPixels.data(), out.data(), modelPixels.size() / 4);
                    d.Calculate();
                    if (out != modelExpected) ++mismatches;
                    continue;
                }
                const Job& job = jobs[(round + 2 * id) % jobs.size()];
                auto clut = std::make_unique<ZKCWorkerCLUT_Thread>(job.nodes.data(), job.inputs, job.outputs,
                                                                   static_cast<CLUT_ACCURACY>(job.n), job.lab);
                // A copy of the driver shares its workers; the original goes first.
                ZKCWorkerCLUT_Thread copy(*clut);
                if (Apply(*clut, job.pixels, job.inputs, job.outputs) != job.expected) ++mismatches;
                clut.reset();  // the copy is now the one owner
                if (Apply(copy, job.pixels, job.inputs, job.outputs) != job.expected) ++mismatches;
            }
        } catch (const char* text) {
            errors[id] = text;
        } catch (const std::exception& e) {
            errors[id] = e.what();
        }
    };
    std::thread a(host, 0), b(host, 1);
    a.join();
    b.join();
    EXPECT_EQ(errors[0], "");
    EXPECT_EQ(errors[1], "");
    EXPECT_EQ(mismatches.load(), 0);
    // Everything was given back: no worker counted, no table kept.
    EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 0u);
    EXPECT_EQ(ZKCWorkerCLUT_4xn::Instances(), 0u);
    EXPECT_EQ(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);
    EXPECT_EQ(ZKCWorkerCLUT_4xn::SharedWeights(), nullptr);
}

// Concurrent first users of a shape get one table, built once.
TEST(ClutConcurrency, ConcurrentFirstUsersShareOneWeightTable) {
    for (int round = 0; round < 4; ++round) {
        ASSERT_EQ(ZKCWorkerCLUT_3xn::SharedWeights(), nullptr);
        const ZKCClutWeightTable* seen[4] = {};
        std::vector<std::unique_ptr<ZKCWorkerCLUT_3x3>> held(4);
        auto nodes = clut_test::RandomNodes(3, 3, 3, 1);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] {
                held[i] = std::make_unique<ZKCWorkerCLUT_3x3>(nodes.data(), CLUT_ACCURACY_3);
                seen[i] = &held[i]->Weights();
            });
        for (auto& t : threads) t.join();
        for (int i = 1; i < 4; ++i) EXPECT_EQ(seen[i], seen[0]);
        EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 4u);
        // Released on other threads than the one that built it.
        threads.clear();
        for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { held[i].reset(); });
        for (auto& t : threads) t.join();
        EXPECT_EQ(ZKCWorkerCLUT_3xn::Instances(), 0u);
    }
}
