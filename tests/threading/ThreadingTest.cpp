#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "kelma/threading/Threading.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {
std::vector<unsigned long> Counts(const std::vector<ZKSWorkShare>& shares) {
    std::vector<unsigned long> c;
    for (const auto& s : shares) c.push_back(s.count);
    return c;
}
}  // namespace

TEST(SplitWork, RemainderGoesToTheLastShare) {
    auto shares = SplitWork(10, 4);
    EXPECT_EQ(Counts(shares), (std::vector<unsigned long>{2, 2, 2, 4}));
    EXPECT_EQ(shares[3].start, 6u);
    EXPECT_EQ(Counts(SplitWork(3, 4)), (std::vector<unsigned long>{1, 1, 1}));
    EXPECT_TRUE(SplitWork(0, 4).empty());
    EXPECT_TRUE(SplitWork(5, 0).empty());
}

TEST(SplitWork, SharesTileTheBatchForManySizes) {
    for (unsigned long workers = 1; workers <= 9; ++workers) {
        for (unsigned long items = 1; items <= 200; items += 7) {
            auto shares = SplitWork(items, workers);
            ASSERT_EQ(shares.size(), std::min(items, workers));
            unsigned long next = 0;
            for (const auto& s : shares) {
                EXPECT_EQ(s.start, next);
                EXPECT_GE(s.count, items / shares.size());
                next += s.count;
            }
            EXPECT_EQ(next, items);
        }
    }
}

TEST(CPUCount, ReportsAtLeastOneAndHonoursTheOverride) {
    EXPECT_GE(CPUCount(), 1u);
    {
        kelma_test::ScopedCPUCount forced(7);
        EXPECT_EQ(CPUCount(), 7u);
    }
    EXPECT_GE(CPUCount(), 1u);
}

namespace {
struct CountingWorker {
    std::atomic<int>* runs;
    bool fail = false;
    void operator()() {
        runs->fetch_add(1);
        if (fail) throw std::runtime_error("worker failed");
    }
};
}  // namespace

TEST(ZKCWorkerThreads, RunsEveryWorkerAndRethrowsAFailureOnTheCaller) {
    std::atomic<int> runs{0};
    std::vector<CountingWorker> workers(4, CountingWorker{&runs});
    ZKCWorkerThreads threads(workers.size());
    for (std::size_t i = 0; i < workers.size(); ++i) threads.Start(i, workers[i]);
    threads.JoinAll(workers.size());
    EXPECT_EQ(runs.load(), 4);

    workers[2].fail = true;
    for (std::size_t i = 0; i < workers.size(); ++i) threads.Start(i, workers[i]);
    EXPECT_THROW(threads.JoinAll(workers.size()), std::runtime_error);
    EXPECT_EQ(runs.load(), 8);

    // The failure is reported once; the slots are usable again.
    workers[2].fail = false;
    threads.Start(0, workers[0]);
    EXPECT_NO_THROW(threads.JoinAll(1));
}
