// Predicts an array of ink samples with a printer model on one thread per
// processor: spectra (32 floats per sample) or bytes per sample.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/KernelVariant.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

class ZKCSSE_KELMA_Base;
class ZKCLaneMajorScheme;

// Spectra records of the spectral-output driver: 31 values and a 0.0 pad
// (32 floats, 16-byte aligned records) or the 31 values alone, packed.
enum SPECTRUM_LAYOUT : std::uint32_t {
    SPECTRUM_PACKED = 31,
    SPECTRUM_PADDED = 32,
};

// The work starts in the constructor: the model is copied, the samples are
// split into T = min(processors, count) contiguous shares (the last takes the
// remainder) and each share's kernel (4, 6 or 7 inks) runs on its own thread.
// The destructor (or Wait) waits for them. Any other ink count throws
// "DefaultCase" before a kernel is made.
//
// Preconditions (not checked): count >= 1 (with 0 nothing runs); `input`
// holds count x N bytes; the output holds count x 32 floats (spectra) or the
// bytes described below; both live until the driver is destroyed.
// Not copyable: two handles on one set of running kernels would race.
class KELMA_API ZKCSSE_KELMA_Thread {
public:
    // Spectra: 31 values and a 0.0 per sample, 32 floats apart.
    ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input, float* output);
    // Spectra in the given layout: SPECTRUM_PADDED is the constructor above;
    // SPECTRUM_PACKED writes count x 31 floats with no pad (for dense arrays,
    // without a second pass over the output). Other values throw "DefaultCase".
    ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input, float* output,
                        SPECTRUM_LAYOUT layout);
    // Bytes: with valuesPerSample 31, 3 x L colorimetric bytes per sample (L =
    // the model's illuminant count; LAB2000HL until Init asks for CIELAB);
    // otherwise valuesPerSample spectral bytes. Each share predicts its
    // samples block by block into a small buffer of its own, with
    // `spectrumStride` floats per sample (32 in every use), and encodes them.
    ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input,
                        unsigned char* output, unsigned long valuesPerSample, unsigned long spectrumStride);
    ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Thread&) = delete;
    ZKCSSE_KELMA_Thread& operator=(const ZKCSSE_KELMA_Thread&) = delete;
    virtual ~ZKCSSE_KELMA_Thread();

    // Re-points every share at a new input and byte output (3 x L bytes per
    // sample) and chooses CIELAB (true) or LAB2000HL (false) bytes. Waits for
    // running work first. Starts nothing.
    void Init(unsigned char* input, unsigned char* output, bool cielab);
    // Runs every share again and waits for all of them.
    void Calculate();
    // Waits for the running work; rethrows a failure of any share (for
    // example an allocation failure), which the destructor cannot report.
    void Wait();

    // The same prediction on the calling thread with the caller's model: no
    // copy of the model, no thread. For small batches, where copying the
    // model and starting threads cost more than the work; the results are
    // the driver's bit for bit. Spectra in the given layout, or 3 x L
    // colorimetric bytes per sample (CIELAB bytes when `cielab`, else
    // LAB2000HL). A model of other than 4, 6 or 7 inks throws "DefaultCase".
    static void CalculateOnCallingThread(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                         const unsigned char* input, float* output,
                                         SPECTRUM_LAYOUT layout = SPECTRUM_PADDED);
    static void CalculateOnCallingThread(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                         const unsigned char* input, unsigned char* output, bool cielab);
    // Whether `count` samples are worth the driver (a model copy and threads)
    // rather than the calling thread: more than one processor and more than
    // 2^15 multiply-adds per wavelength in the batch (2048 samples of 4 inks,
    // 256 of 7); below that, copying the model and starting threads cost more
    // than they save.
    static bool WorthThreads(const ZKCSSE_KELMA_Data& data, unsigned long count);

    unsigned int ThreadsInUse() const { return static_cast<unsigned int>(kernels_.size()); }
    // The kernel variant of every share, chosen when the driver was made.
    KERNEL_VARIANT Variant() const { return variant_; }

protected:
    static unsigned int CPUCount();
    void ThreadDistribution(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input,
                            float* spectra, unsigned char* bytes, unsigned long valuesPerSample,
                            unsigned long spectrumStride);

private:
    ZKCSSE_KELMA_Data model_;
    KERNEL_VARIANT variant_ = KERNEL_REFERENCE;
    // The model copy's blocks laid out for the wide kernels, when the batch pays for it.
    std::unique_ptr<ZKCLaneMajorScheme> laneScheme_;
    std::vector<std::unique_ptr<ZKCSSE_KELMA_Base>> kernels_;
    ZKCWorkerThreads threads_;
    bool packed_ = false;
};

}  // namespace KELMA_NAMESPACE
