// Threaded CLUT driver: builds one CLUT worker of the right shape, clones it
// once per processor and applies it to a pixel buffer split into contiguous
// slices. The clones share the table itself (it is immutable once built), so
// all threads read one copy that stays in every core's caches; each clone has
// its own slice.
//
// Threads: construction, Init and Calculate's start and join run on the
// caller's thread, and so does destruction; one driver must not be used from
// two threads at once. Different drivers (and sub-model dispatchers) may be
// created, used and destroyed on different host threads at the same time: the
// workers of one input shape share one weight table (1 MiB for three inputs,
// 64 MiB for four) that is created under a lock by the first worker that needs
// it and reference counted, so the last one to let go frees it, on any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "kelma/common/Types.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

class ZKCSSE_KELMA_Data;
class ZKCWorkerCLUT_Base;

class KELMA_API ZKCWorkerCLUT_Thread {
public:
    // CLUT from a printer model: 4 inks give a 4 -> 3 table of the prediction
    // driver's 3 output bytes per node (reduce the model to one illuminant
    // first). 3 inks throw "DefaultCase" (the prediction driver has no 3-ink
    // kernel), as does any other ink count.
    ZKCWorkerCLUT_Thread(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy);

    // CLUT from node values: outputChannels bytes per node, axis 0 outermost,
    // NodeArrayBytes(inputChannels, outputChannels, accuracy) bytes. Shapes
    // (in, out): (3, 3), (3, 4), (3, 7) and (4, 3); inLAB selects CIELAB input
    // maps for three inputs and is ignored for four. Other shapes, and grids
    // outside 2..256 points, throw "DefaultCase".
    ZKCWorkerCLUT_Thread(const unsigned char* nodes, unsigned long inputChannels, unsigned long outputChannels,
                         CLUT_ACCURACY accuracy, bool inLAB);

    // A copy shares its source's workers and threads (and keeps its own active
    // count): Init on one re-points the other's workers. The last owner frees them.
    ZKCWorkerCLUT_Thread(const ZKCWorkerCLUT_Thread&) = default;
    ZKCWorkerCLUT_Thread& operator=(const ZKCWorkerCLUT_Thread&) = default;
    virtual ~ZKCWorkerCLUT_Thread();

    // Splits count pixels over min(workers, count) workers: equal slices of
    // count / used pixels, the remainder joining the last slice. input and
    // output must hold count pixels and stay valid until Calculate returns.
    void Init(const unsigned char* input, unsigned char* output, unsigned long count);
    // Runs the used workers in parallel and waits for all of them.
    void Calculate();
    // The count pixels at input through the first worker on the calling
    // thread: no thread. For small batches, where starting threads costs more
    // than the work; the bytes are Init and Calculate's (each pixel depends
    // on itself alone). Re-points the first worker as Init does, so a later
    // Calculate needs an Init first (until then it runs no worker).
    void CalculateOnCallingThread(const unsigned char* input, unsigned char* output, unsigned long count);
    // Whether `count` pixels are worth the threads rather than the calling
    // thread: more than one processor and more than 16384 pixels (about
    // 40-70 us of work on one core, the cost of starting a thread).
    static bool WorthThreads(unsigned long count);

    // Bytes a node array needs: (n^d + ... + n + 1) * outputChannels, d = inputChannels.
    static std::size_t NodeArrayBytes(unsigned long inputChannels, unsigned long outputChannels,
                                      CLUT_ACCURACY accuracy);

    unsigned long ActiveCount() const { return active_; }
    std::size_t WorkerCount() const { return workers_.size(); }
    const ZKCWorkerCLUT_Base& Worker(std::size_t i) const { return *workers_[i]; }

protected:
    static unsigned long CPUCount();
    void ThreadDistribution_KELMA_Data(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy);
    void ThreadDistribution(const unsigned char* nodes, unsigned long inputChannels, unsigned long outputChannels,
                            CLUT_ACCURACY accuracy, bool inLAB);

private:
    template <class W>
    void FillWith(std::shared_ptr<W> prototype);

    // Threads are declared after the workers, so a last owner joins before freeing them.
    std::vector<std::shared_ptr<ZKCWorkerCLUT_Base>> workers_;
    std::shared_ptr<ZKCWorkerThreads> threads_;
    unsigned long active_ = 0;
};

}  // namespace KELMA_NAMESPACE
