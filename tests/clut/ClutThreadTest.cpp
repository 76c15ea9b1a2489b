// The threaded CLUT driver over node tables: shape choice, slicing, and
// results that do not depend on thread count, slice layout or batch size.
#include <gtest/gtest.h>

#include <functional>

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/clut/ZKCWorkerCLUT_Thread.h"
#include "tests/clut/ClutOracle.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

void ExpectDefaultCase(const std::function<void()>& f, const char* what) {
    EXPECT_EQ(kelma_test::ThrownText(f), "DefaultCase") << what;
}

// The table applied by one worker with the reference loop.
std::vector<std::uint8_t> ReferenceResult(const ZKCWorkerCLUT_Base& prototype, const std::vector<std::uint8_t>& px) {
    std::vector<std::uint8_t> out(px.size() / prototype.InputChannels() * prototype.OutputChannels());
    std::unique_ptr<ZKCWorkerCLUT_Base> w;
    if (auto* p = dynamic_cast<const ZKCWorkerCLUT_4x3*>(&prototype)) w = std::make_unique<ZKCWorkerCLUT_4x3>(*p);
    if (auto* p = dynamic_cast<const ZKCWorkerCLUT_3x3*>(&prototype)) w = std::make_unique<ZKCWorkerCLUT_3x3>(*p);
    if (auto* p = dynamic_cast<const ZKCWorkerCLUT_3x4*>(&prototype)) w = std::make_unique<ZKCWorkerCLUT_3x4>(*p);
    if (auto* p = dynamic_cast<const ZKCWorkerCLUT_3x7*>(&prototype)) w = std::make_unique<ZKCWorkerCLUT_3x7>(*p);
    w->SetBuffers(px.data(), out.data(), px.size() / prototype.InputChannels());
    w->InterpolateWith(KERNEL_REFERENCE);
    return out;
}

}  // namespace

TEST(ClutThread, ChoosesTheWorkerClassByShape) {
    struct Case {
        unsigned in, out;
        bool lab;
        bool expectLab;
    } cases[] = {{3, 3, false, false}, {3, 3, true, true},  {3, 4, false, false}, {3, 4, true, true},
                 {3, 7, false, false}, {3, 7, true, false}, {4, 3, false, false}, {4, 3, true, false}};
    kelma_test::ScopedCPUCount cpus(3);
    for (const Case& c : cases) {
        auto nodes = clut_test::RandomNodes(5, c.in, c.out, 1);
        ZKCWorkerCLUT_Thread driver(nodes.data(), c.in, c.out, CLUT_ACCURACY_5, c.lab);
        ASSERT_EQ(driver.WorkerCount(), 3u);
        EXPECT_EQ(driver.ActiveCount(), 3u);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(driver.Worker(i).InputChannels(), c.in);
            EXPECT_EQ(driver.Worker(i).OutputChannels(), c.out);
            EXPECT_EQ(driver.Worker(i).IsInLAB(), c.expectLab);
        }
        // Every slot holds its own worker; all read one copy of the table.
        EXPECT_NE(&driver.Worker(0), &driver.Worker(1));
        const std::uint8_t* cells[2];
        for (std::size_t i = 0; i < 2; ++i) {
            if (c.in == 4)
                cells[i] = dynamic_cast<const ZKCWorkerCLUT_4xn&>(driver.Worker(i)).CellBlock(0);
            else
                cells[i] = dynamic_cast<const ZKCWorkerCLUT_3xn&>(driver.Worker(i)).CellBlock(0);
        }
        EXPECT_EQ(cells[0], cells[1]);
    }
    // 3x7 with CIELAB maps answers false, but its maps are the CIELAB ones.
    auto nodes = clut_test::RandomNodes(17, 3, 7, 2);
    ZKCWorkerCLUT_Thread lab(nodes.data(), 3, 7, CLUT_ACCURACY_17, true);
    const auto& w = dynamic_cast<const ZKCWorkerCLUT_3xn&>(lab.Worker(0));
    EXPECT_EQ(w.InputMap(1)[255], (16u << 5) | 2u);
    EXPECT_EQ(w.InputMap(0)[255], 16u << 5);
}

TEST(ClutThread, UnknownShapesThrowDefaultCase) {
    auto nodes = clut_test::RandomNodes(3, 4, 7, 1);  // large enough for all shapes below
    for (auto shape : {std::pair<unsigned, unsigned>{4, 4}, {4, 7}, {3, 5}, {3, 1}, {2, 3}, {5, 3}, {0, 0}})
        ExpectDefaultCase(
            [&] { ZKCWorkerCLUT_Thread d(nodes.data(), shape.first, shape.second, CLUT_ACCURACY_3, false); },
            "unknown shape");
    ExpectDefaultCase([&] { ZKCWorkerCLUT_Thread d(nodes.data(), 3, 3, static_cast<CLUT_ACCURACY>(1), false); },
                      "one grid point");
}

TEST(ClutThread, InitSlicesPixelsWithTheRemainderOnTheLastWorker) {
    kelma_test::ScopedCPUCount cpus(4);
    auto nodes = clut_test::RandomNodes(3, 3, 4, 1);
    ZKCWorkerCLUT_Thread driver(nodes.data(), 3, 4, CLUT_ACCURACY_3, false);
    std::vector<std::uint8_t> in(10 * 3), out(10 * 4);
    driver.Init(in.data(), out.data(), 10);
    EXPECT_EQ(driver.ActiveCount(), 4u);
    const std::uint32_t counts[] = {2, 2, 2, 4};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(driver.Worker(i).Count(), counts[i]);
        EXPECT_EQ(driver.Worker(i).Input(), in.data() + 2 * i * 3);
        EXPECT_EQ(driver.Worker(i).Output(), out.data() + 2 * i * 4);
    }
    // Fewer pixels than workers: one pixel each.
    driver.Init(in.data(), out.data(), 3);
    EXPECT_EQ(driver.ActiveCount(), 3u);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(driver.Worker(i).Count(), 1u);
    // No pixels: nothing runs.
    driver.Init(in.data(), out.data(), 0);
    EXPECT_EQ(driver.ActiveCount(), 0u);
    std::fill(out.begin(), out.end(), 0x5A);
    driver.Calculate();
    EXPECT_EQ(out, std::vector<std::uint8_t>(out.size(), 0x5A));
}

TEST(ClutThread, CalculateBeforeInitRunsEveryWorkerOnNothing) {
    kelma_test::ScopedCPUCount cpus(2);
    auto nodes = clut_test::RandomNodes(3, 4, 3, 1);
    ZKCWorkerCLUT_Thread driver(nodes.data(), 4, 3, CLUT_ACCURACY_3, false);
    EXPECT_EQ(driver.ActiveCount(), 2u);
    driver.Calculate();  // no buffers, count 0
    EXPECT_EQ(driver.Worker(1).Count(), 0u);
}

// The same bytes whatever the processor count, the batch size, or where in
// the buffer a pixel sits; and the same as the reference loop of one worker.
TEST(ClutThread, ResultIndependentOfThreadsSlicesAndBatches) {
    struct Case {
        unsigned in, out;
        bool lab;
        std::uint32_t n;
    } cases[] = {{4, 3, false, 17}, {3, 3, false, 33}, {3, 4, true, 17}, {3, 7, false, 9}};
    for (const Case& c : cases) {
        auto nodes = clut_test::RandomNodes(c.n, c.in, c.out, 40 + c.n);
        auto px = clut_test::TestPixels(c.in, 4099, 41);
        const std::size_t count = px.size() / c.in;
        std::vector<std::uint8_t> expected;
        {
            kelma_test::ScopedCPUCount one(1);
            ZKCWorkerCLUT_Thread d(nodes.data(), c.in, c.out, static_cast<CLUT_ACCURACY>(c.n), c.lab);
            expected = ReferenceResult(d.Worker(0), px);
        }
        for (unsigned cpus : {1u, 2u, 3u, 4u, 7u, 16u}) {
            kelma_test::ScopedCPUCount forced(cpus);
            ZKCWorkerCLUT_Thread driver(nodes.data(), c.in, c.out, static_cast<CLUT_ACCURACY>(c.n), c.lab);
            std::vector<std::uint8_t> out(count * c.out, 0);
            driver.Init(px.data(), out.data(), count);
            driver.Calculate();
            ASSERT_EQ(out, expected) << "cpus " << cpus;
            // Odd batches at odd offsets, reusing the driver with new buffers.
            std::vector<std::uint8_t> batched(count * c.out, 0);
            std::size_t start = 0, batch = 1;
            while (start < count) {
                std::size_t len = std::min(batch, count - start);
                driver.Init(px.data() + start * c.in, batched.data() + start * c.out, len);
                driver.Calculate();
                start += len;
                batch = batch * 3 + 1;
            }
            ASSERT_EQ(batched, expected) << "cpus " << cpus << " batched";
        }
    }
}

// The calling-thread entry gives Init and Calculate's bytes for every shape
// and count, and leaves nothing for a later Calculate to run on its buffers.
TEST(ClutThread, CallingThreadGivesTheThreadsBytesAndDisarmsCalculate) {
    kelma_test::ScopedCPUCount cpus(3);
    struct Case {
        unsigned in, out;
        bool lab;
        std::uint32_t n;
    } cases[] = {{4, 3, false, 9}, {3, 3, false, 17}, {3, 4, true, 5}, {3, 7, false, 9}};
    for (const Case& c : cases) {
        auto nodes = clut_test::RandomNodes(c.n, c.in, c.out, 70 + c.n);
        ZKCWorkerCLUT_Thread driver(nodes.data(), c.in, c.out, static_cast<CLUT_ACCURACY>(c.n), c.lab);
        for (std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{1000}}) {
            auto px = clut_test::TestPixels(c.in, std::max<std::size_t>(count, 1), 71 + count);
            std::vector<std::uint8_t> threaded(count * c.out + 1, 0x5A), direct(count * c.out + 1, 0x5A);
            driver.Init(px.data(), threaded.data(), count);
            driver.Calculate();
            driver.CalculateOnCallingThread(px.data(), direct.data(), count);
            ASSERT_EQ(direct, threaded) << c.in << "x" << c.out << ", " << count << " pixels";
            EXPECT_EQ(driver.ActiveCount(), 0u);
            std::fill(direct.begin(), direct.end(), 0x5A);
            driver.Calculate();  // no Init since: runs no worker, writes nothing
            EXPECT_EQ(direct, std::vector<std::uint8_t>(direct.size(), 0x5A));
        }
    }
    EXPECT_FALSE(ZKCWorkerCLUT_Thread::WorthThreads(1u << 14));
    EXPECT_TRUE(ZKCWorkerCLUT_Thread::WorthThreads((1u << 14) + 1));
    kelma_test::ScopedCPUCount one(1);
    EXPECT_FALSE(ZKCWorkerCLUT_Thread::WorthThreads(1u << 30));
}

TEST(ClutThread, CopiesShareTheirWorkers) {
    kelma_test::ScopedCPUCount cpus(2);
    auto nodes = clut_test::RandomNodes(5, 3, 3, 1);
    auto px = clut_test::TestPixels(3, 100, 2);
    std::vector<std::uint8_t> a(px.size()), b(px.size());
    auto original = std::make_unique<ZKCWorkerCLUT_Thread>(nodes.data(), 3, 3, CLUT_ACCURACY_5, false);
    ZKCWorkerCLUT_Thread copy(*original);
    EXPECT_EQ(&copy.Worker(0), &original->Worker(0));
    copy.Init(px.data(), a.data(), px.size() / 3);
    EXPECT_EQ(original->Worker(0).Output(), a.data());  // re-pointed through the copy
    original->Calculate();
    original.reset();  // the copy keeps the shared workers alive
    copy.Init(px.data(), b.data(), px.size() / 3);
    copy.Calculate();
    EXPECT_EQ(a, b);
    EXPECT_EQ(b, ReferenceResult(copy.Worker(0), px));
}

TEST(ClutThread, NodeArrayBytesIncludesTheTail) {
    EXPECT_EQ(ZKCWorkerCLUT_Thread::NodeArrayBytes(3, 7, CLUT_ACCURACY_9), (729u + 81 + 9 + 1) * 7);
    EXPECT_EQ(ZKCWorkerCLUT_Thread::NodeArrayBytes(4, 3, CLUT_ACCURACY_2), (16u + 8 + 4 + 2 + 1) * 3);
}
