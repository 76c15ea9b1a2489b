#include "kelma/threading/Threading.h"

#include <unistd.h>

#include <atomic>

namespace KELMA_NAMESPACE {

namespace {
std::atomic<unsigned int> g_cpuCountOverride{0};
}

unsigned int CPUCount() {
    unsigned int forced = g_cpuCountOverride.load(std::memory_order_relaxed);
    if (forced != 0) return forced;
    // Asked once per process: sysconf reads /sys on every call (about 10 us
    // here), which small batches would pay every time.
    static const unsigned int online = [] {
        const long n = ::sysconf(_SC_NPROCESSORS_ONLN);
        return n > 0 ? static_cast<unsigned int>(n) : 1u;
    }();
    return online;
}

void SetCPUCountOverride(unsigned int count) {
    g_cpuCountOverride.store(count, std::memory_order_relaxed);
}

bool WorthThreads(unsigned long work, unsigned long callingThreadWork) {
    return work > callingThreadWork && CPUCount() > 1;
}

std::vector<ZKSWorkShare> SplitWork(unsigned long items, unsigned long workers) {
    std::vector<ZKSWorkShare> shares;
    unsigned long used = workers < items ? workers : items;
    if (used == 0) return shares;
    unsigned long size = items / used;
    shares.reserve(used);
    for (unsigned long i = 0; i < used; ++i) {
        unsigned long start = i * size;
        shares.push_back({start, i + 1 == used ? items - start : size});
    }
    return shares;
}

ZKCWorkerThreads::~ZKCWorkerThreads() { JoinAllNoThrow(); }

void ZKCWorkerThreads::Resize(std::size_t slots) {
    JoinAllNoThrow();
    slots_.clear();
    slots_.resize(slots);
}

void ZKCWorkerThreads::JoinSlot(Slot& slot) {
    if (slot.thread && slot.thread->joinable()) slot.thread->join();
}

void ZKCWorkerThreads::JoinAll(std::size_t used) {
    for (std::size_t i = 0; i < used && i < slots_.size(); ++i) JoinSlot(slots_[i]);
    for (std::size_t i = 0; i < used && i < slots_.size(); ++i) {
        if (slots_[i].error) {
            std::exception_ptr error = slots_[i].error;
            slots_[i].error = nullptr;
            std::rethrow_exception(error);
        }
    }
}

void ZKCWorkerThreads::JoinAllNoThrow() noexcept {
    for (Slot& s : slots_) {
        try {
            JoinSlot(s);
        } catch (...) {
            // join only throws for a thread joining itself or a lost thread; nothing to do.
        }
    }
}

}  // namespace KELMA_NAMESPACE
