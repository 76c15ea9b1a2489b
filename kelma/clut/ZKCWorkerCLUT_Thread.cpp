#include "kelma/clut/ZKCWorkerCLUT_Thread.h"

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

ZKCWorkerCLUT_Thread::ZKCWorkerCLUT_Thread(const unsigned char* nodes, unsigned long inputChannels,
                                           unsigned long outputChannels, CLUT_ACCURACY accuracy, bool inLAB) {
    ThreadDistribution(nodes, inputChannels, outputChannels, accuracy, inLAB);
}

ZKCWorkerCLUT_Thread::ZKCWorkerCLUT_Thread(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy) {
    ThreadDistribution_KELMA_Data(model, accuracy);
}

ZKCWorkerCLUT_Thread::~ZKCWorkerCLUT_Thread() = default;

unsigned long ZKCWorkerCLUT_Thread::CPUCount() { return KELMA_NAMESPACE::CPUCount(); }

std::size_t ZKCWorkerCLUT_Thread::NodeArrayBytes(unsigned long inputChannels, unsigned long outputChannels,
                                                 CLUT_ACCURACY accuracy) {
    return ClutNodeArrayBytes(static_cast<std::uint32_t>(accuracy), static_cast<unsigned>(inputChannels),
                              static_cast<unsigned>(outputChannels));
}

// Slot 0 takes the prototype itself and every other slot a deep copy of it, so
// the build never holds more than one table per slot; all share their shape's weight table.
template <class W>
void ZKCWorkerCLUT_Thread::FillWith(std::shared_ptr<W> prototype) {
    for (std::size_t i = 1; i < workers_.size(); ++i) workers_[i] = std::make_shared<W>(*prototype);
    workers_[0] = std::move(prototype);
}

void ZKCWorkerCLUT_Thread::ThreadDistribution_KELMA_Data(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy) {
    active_ = CPUCount();
    workers_.assign(active_, nullptr);
    threads_ = std::make_shared<ZKCWorkerThreads>(active_);
    switch (model.NumberOfInks()) {
        case 3: FillWith(std::make_shared<ZKCWorkerCLUT_3x3>(model, accuracy)); return;
        case 4: FillWith(std::make_shared<ZKCWorkerCLUT_4x3>(model, accuracy)); return;
        default: throw kErrorDefaultCase;
    }
}

void ZKCWorkerCLUT_Thread::ThreadDistribution(const unsigned char* nodes, unsigned long inputChannels,
                                              unsigned long outputChannels, CLUT_ACCURACY accuracy, bool inLAB) {
    active_ = CPUCount();
    workers_.assign(active_, nullptr);
    threads_ = std::make_shared<ZKCWorkerThreads>(active_);
    if (inputChannels == 4) {
        if (outputChannels != 3) throw kErrorDefaultCase;
        FillWith(std::make_shared<ZKCWorkerCLUT_4x3>(nodes, accuracy));
        return;
    }
    if (inputChannels != 3) throw kErrorDefaultCase;
    switch (outputChannels) {
        case 3:
            if (inLAB)
                FillWith(std::make_shared<ZKCWorkerCLUT_3x3_InLAB>(nodes, accuracy));
            else
                FillWith(std::make_shared<ZKCWorkerCLUT_3x3>(nodes, accuracy));
            return;
        case 4:
            if (inLAB)
                FillWith(std::make_shared<ZKCWorkerCLUT_3x4_InLAB>(nodes, accuracy));
            else
                FillWith(std::make_shared<ZKCWorkerCLUT_3x4>(nodes, accuracy));
            return;
        case 7:
            if (inLAB)
                FillWith(std::make_shared<ZKCWorkerCLUT_3x7_InLAB>(nodes, accuracy));
            else
                FillWith(std::make_shared<ZKCWorkerCLUT_3x7>(nodes, accuracy));
            return;
        default:
            throw kErrorDefaultCase;
    }
}

void ZKCWorkerCLUT_Thread::Init(const unsigned char* input, unsigned char* output, unsigned long count) {
    const std::vector<ZKSWorkShare> shares = SplitWork(count, workers_.size());
    active_ = shares.size();
    if (shares.empty()) return;
    const unsigned long in = workers_[0]->InputChannels();
    const unsigned long out = workers_[0]->OutputChannels();
    for (std::size_t i = 0; i < shares.size(); ++i)
        workers_[i]->SetBuffers(input + shares[i].start * in, output + shares[i].start * out, shares[i].count);
}

// Each worker runs its own shape's loop through its call operator (a virtual
// Interpolate), so one thread body serves every shape.
void ZKCWorkerCLUT_Thread::Calculate() {
    for (unsigned long i = 0; i < active_; ++i) threads_->Start(i, *workers_[i]);
    threads_->JoinAll(active_);
}

void ZKCWorkerCLUT_Thread::CalculateOnCallingThread(const unsigned char* input, unsigned char* output,
                                                    unsigned long count) {
    active_ = 0;
    if (count == 0) return;
    workers_[0]->SetBuffers(input, output, count);
    (*workers_[0])();
}

bool ZKCWorkerCLUT_Thread::WorthThreads(unsigned long count) {
    constexpr unsigned long kCallingThreadPixels = 1ul << 14;
    return KELMA_NAMESPACE::WorthThreads(count, kCallingThreadPixels);
}

}  // namespace KELMA_NAMESPACE
