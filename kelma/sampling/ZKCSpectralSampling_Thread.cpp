#include "kelma/sampling/ZKCSpectralSampling_Thread.h"

#include "kelma/sampling/ZKCSpectralSampling.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

ZKCSpectralSampling_Thread::ZKCSpectralSampling_Thread(const std::vector<double>& wavelengths,
                                                       SPECTRALSAMPLING_METHOD method)
    : method_(method) {
    ThreadDistribution(wavelengths);
}

ZKCSpectralSampling_Thread::~ZKCSpectralSampling_Thread() { threads_.JoinAllNoThrow(); }

unsigned int ZKCSpectralSampling_Thread::CPUCount() { return KELMA_NAMESPACE::CPUCount(); }

namespace {

// One worker of the method for the list; validates it.
std::unique_ptr<ZKCSpectralSampling_Base> MakeWorker(const std::vector<double>& wavelengths,
                                                     SPECTRALSAMPLING_METHOD method) {
    switch (method) {
        case SPECTRALSAMPLING_LINEAR:
            return std::make_unique<ZKCSpectralSampling_Linear>(wavelengths);
        case SPECTRALSAMPLING_CUBICSPLINE:
            return std::make_unique<ZKCSpectralSampling_CubicSpline>(wavelengths);
        default:
            throw kErrorDefaultCase;
    }
}

}  // namespace

void ZKCSpectralSampling_Thread::ThreadDistribution(const std::vector<double>& wavelengths) {
    const unsigned int n = CPUCount();
    workers_.clear();
    workers_.resize(n);
    threads_.Resize(n);
    for (auto& worker : workers_) worker = MakeWorker(wavelengths, method_);
    bands_ = static_cast<unsigned long>(workers_.front()->Wavelengths().size());
}

void ZKCSpectralSampling_Thread::CalculateOnCallingThread(const std::vector<double>& wavelengths,
                                                          SPECTRALSAMPLING_METHOD method, const float* in,
                                                          float* out, unsigned long count) {
    const std::unique_ptr<ZKCSpectralSampling_Base> worker = MakeWorker(wavelengths, method);
    worker->Init(in, out, count);
    worker->Calculate();
}

bool ZKCSpectralSampling_Thread::WorthThreads(unsigned long count) {
    constexpr unsigned long kCallingThreadSpectra = 1024;
    return KELMA_NAMESPACE::WorthThreads(count, kCallingThreadSpectra);
}

void ZKCSpectralSampling_Thread::Init(const float* in, float* out, unsigned long count) {
    shares_ = SplitWork(count, workers_.size());
    used_ = static_cast<unsigned int>(shares_.size());
    for (std::size_t j = 0; j < shares_.size(); ++j)
        workers_[j]->Init(in + shares_[j].start * bands_, out + shares_[j].start * kSpectrumStride,
                          shares_[j].count);
}

void ZKCSpectralSampling_Thread::Calculate() {
    for (unsigned int j = 0; j < used_; ++j) threads_.Start(j, *workers_[j]);
    threads_.JoinAll(used_);
}

}  // namespace KELMA_NAMESPACE
