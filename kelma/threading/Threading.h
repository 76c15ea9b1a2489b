// The one work split and thread runner that every threaded driver uses.
//
// Pattern: T = min(workers, items) shares; S = items / T (integer division);
// share i starts at i * S and holds S items, the last share takes the rest.
// Each used worker runs on its own Boost thread through its call operator and
// the caller's thread joins them all, in order.
#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <vector>

#include <boost/thread/thread.hpp>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// Processors reported by the operating system (online processors, asked once
// per process), at least 1.
// A host (or a test) may cap it with SetCPUCountOverride; 0 restores the OS value.
KELMA_API unsigned int CPUCount();
KELMA_API void SetCPUCountOverride(unsigned int count);

// Whether a batch of `work` units is worth the drivers' worker threads rather
// than the calling thread: more than `callingThreadWork` units (the work a
// thread start costs, in the caller's units) and more than one processor.
KELMA_API bool WorthThreads(unsigned long work, unsigned long callingThreadWork);

// One contiguous share of a batch: first item and number of items.
struct ZKSWorkShare {
    unsigned long start;
    unsigned long count;
};

// Splits `items` over at most `workers` shares as described above. Returns no
// share when items or workers is 0 (the callers' "count 0 starts nothing").
KELMA_API std::vector<ZKSWorkShare> SplitWork(unsigned long items, unsigned long workers);

// Thread slots of a driver. A slot's thread runs one worker; an exception that
// escapes a worker is kept and rethrown on the caller's thread by JoinAll, so a
// failing worker never terminates the process.
class KELMA_API ZKCWorkerThreads {
public:
    ZKCWorkerThreads() = default;
    explicit ZKCWorkerThreads(std::size_t slots) { Resize(slots); }
    ZKCWorkerThreads(const ZKCWorkerThreads&) = delete;
    ZKCWorkerThreads& operator=(const ZKCWorkerThreads&) = delete;
    virtual ~ZKCWorkerThreads();

    // Joins whatever still runs, then sets the number of slots.
    void Resize(std::size_t slots);
    std::size_t Size() const { return slots_.size(); }

    // Starts `worker()` on a new thread in `slot`. A thread still running in
    // that slot is joined first: two threads on one worker would race. When
    // the thread cannot be started, every slot is joined before the error
    // (Boost's resource error, or bad_alloc) is rethrown, so a caller that
    // unwinds never releases memory a worker still uses.
    template <class Worker>
    void Start(std::size_t slot, Worker& worker) {
        Slot& s = slots_[slot];
        JoinSlot(s);
        s.error = nullptr;
        Worker* w = &worker;
        std::exception_ptr* error = &s.error;
        try {
            s.thread.reset(new boost::thread([w, error]() {
                try {
                    (*w)();
                } catch (...) {
                    *error = std::current_exception();
                }
            }));
        } catch (...) {
            // The system refused the thread (boost::thread_resource_error) or
            // memory ran out. Workers started earlier still write into the
            // caller's buffers: join them all before the failure travels up
            // and frees what they use.
            JoinAllNoThrow();
            throw;
        }
    }

    // Joins slots 0 .. used-1 in order, then rethrows the first worker failure.
    void JoinAll(std::size_t used);
    // Joins every slot; never throws (for destructors).
    void JoinAllNoThrow() noexcept;

private:
    struct Slot {
        std::unique_ptr<boost::thread> thread;
        std::exception_ptr error;
    };
    static void JoinSlot(Slot& slot);

    std::vector<Slot> slots_;
};

}  // namespace KELMA_NAMESPACE
