// Threaded spectral resampling: batches of spectra on an instrument's
// wavelength list -> 32-float records on the 400-700 nm / 10 nm grid.
//
// The wavelength list follows the rules in ZKCSpectralSampling.h: at least 2
// finite wavelengths (nm), not both starting above 400 and ending below 700
// nm, strictly ascending (only the list is sorted, never the values), and
// output wavelengths outside it are extrapolated from the first or last
// interval. Linear output at a knot equals the knot's value up to float
// rounding (the neighbours' difference is taken in float: half an ulp of that
// difference, plus the final rounding); the spline passes through the knots
// and has zero slope at both ends of the list.
#pragma once

#include <memory>
#include <vector>

#include "kelma/common/Types.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

class ZKCSpectralSampling_Base;

class KELMA_API ZKCSpectralSampling_Thread {
public:
    // One worker per processor (CPUCount()), each validating and preparing
    // its own copy of the list (a spline worker builds its own 31 x n map,
    // O(n) work per knot the outputs use; any list length is cheap).
    // Throws "Wavelength-list has less than 2 elements", "Invalid wavelength
    // range", or "DefaultCase" for a method other than linear (0) or cubic
    // spline (1).
    ZKCSpectralSampling_Thread(const std::vector<double>& wavelengths, SPECTRALSAMPLING_METHOD method);
    ZKCSpectralSampling_Thread(const ZKCSpectralSampling_Thread&) = delete;
    ZKCSpectralSampling_Thread& operator=(const ZKCSpectralSampling_Thread&) = delete;
    virtual ~ZKCSpectralSampling_Thread();

    // `in`: count x n floats (n = list size); `out`: count x 32 floats, of
    // which slots 0-30 of each record are written and slot 31 is untouched.
    // Splits the batch over min(workers, count) workers; may be repeated.
    // Both arrays must stay valid until Calculate returns.
    void Init(const float* in, float* out, unsigned long count);
    // Runs each used worker on its own thread and joins them all, in order.
    // Output does not depend on the number of threads.
    void Calculate();

    // The same resampling on the calling thread with one worker: no thread,
    // no worker per processor. For small batches, where preparing the workers
    // and starting threads cost more than the work; the output does not
    // depend on the split, so it is the driver's bit for bit. Throws what the
    // constructor throws; `in` and `out` as for Init.
    static void CalculateOnCallingThread(const std::vector<double>& wavelengths, SPECTRALSAMPLING_METHOD method,
                                         const float* in, float* out, unsigned long count);
    // Whether `count` spectra are worth the driver rather than the calling
    // thread: more than one processor and more than 1024 spectra (about
    // 30-40 us of work on one core, the cost of starting a thread).
    static bool WorthThreads(unsigned long count);

    SPECTRALSAMPLING_METHOD Method() const { return method_; }
    unsigned int WorkerCount() const { return static_cast<unsigned int>(workers_.size()); }
    unsigned int ThreadsInUse() const { return used_; }
    // The split made by the last Init (first spectrum and count per worker).
    const std::vector<ZKSWorkShare>& Shares() const { return shares_; }

protected:
    void ThreadDistribution(const std::vector<double>& wavelengths);
    static unsigned int CPUCount();

private:
    // Declared before the threads so that the threads are joined and freed first.
    std::vector<std::unique_ptr<ZKCSpectralSampling_Base>> workers_;
    ZKCWorkerThreads threads_;
    std::vector<ZKSWorkShare> shares_;
    unsigned int used_ = 0;
    unsigned long bands_ = 0;
    SPECTRALSAMPLING_METHOD method_;
};

}  // namespace KELMA_NAMESPACE
