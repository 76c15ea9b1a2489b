// One thread's share of a prediction job: ink samples -> spectra (-> bytes).
// Internal: the driver makes one kernel per share and runs it on a thread.
#pragma once

#include <memory>
#include <vector>

#include "kelma/colorimetry/ColorimetryKernels.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/KernelVariant.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

class ZKCSSE_KELMA_Base {
public:
    // valuesPerSample 31 selects colorimetric bytes (3 per illuminant);
    // any other value is the number of spectral bytes per sample. With a
    // byte pointer and no spectra pointer the kernel predicts its share in
    // blocks through a small buffer of its own. The kernel variant is the
    // active one (ActiveKernelVariant()) until SetKernelPlan chooses another.
    ZKCSSE_KELMA_Base(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input, float* spectra,
                      unsigned char* bytes, unsigned long valuesPerSample, unsigned long spectrumStride);
    virtual ~ZKCSSE_KELMA_Base();
    ZKCSSE_KELMA_Base(const ZKCSSE_KELMA_Base&) = delete;
    ZKCSSE_KELMA_Base& operator=(const ZKCSSE_KELMA_Base&) = delete;

    // The ink-count specific prediction: `count` samples of N bytes to spectra
    // of 31 values and a 0.0 pad. Values are (sum)^n unclamped: a negative sum
    // with a non-integer n gives NaN, values above 1 are kept.
    virtual void CalculateSpectra(unsigned int count, const unsigned char* input, float* spectra) = 0;
    // Spectra (stride 32) -> XYZ (media-relative when the model says so and
    // has a paper white) -> 3 bytes per illuminant, LAB2000HL or CIELAB.
    virtual void CalculateColorimetry(const ZKCSSE_KELMA_Data& data, unsigned int count, const float* spectra,
                                      unsigned char* bytes);
    // Each of the first valuesPerSample values: round-half-away(255 v) with
    // the low 8 bits kept, no clamp (1.003 -> 256 -> 0). NaN gives 0.
    virtual void SpectraToBytes(unsigned int count, const float* spectra, unsigned char* bytes);

    void SetInputOutput(unsigned char* input, unsigned char* bytes, bool cielab);
    // Thread body: spectra, then bytes when a byte pointer is set.
    void operator()();

    unsigned int SampleCount() const { return count_; }
    // Packed spectra: 31 values per sample with no pad, for callers that want
    // a dense (count, 31) array. Spectra mode only; set before the first run.
    void SetPackedSpectra(bool packed) { packed_ = packed; }
    // The variant every run of this kernel uses (one the processor runs) and
    // the lane-major copy of the model's blocks for the wide variants (or
    // null; it must outlive the kernel). Set before the first run.
    void SetKernelPlan(KERNEL_VARIANT variant, const float* laneRows) {
        variant_ = variant;
        laneRows_ = laneRows;
    }
    KERNEL_VARIANT Variant() const { return variant_; }

protected:
    // Samples per block in byte mode without a shared spectra buffer: the
    // block's spectra (16 KiB) stay in the first-level cache between the two
    // steps. Kernels that visit a block cell by cell (CellOrder.h) take
    // blocks of their own size, so the block revisits its cells.
    static constexpr unsigned int kByteBlock = 128;

    void EncodeBytes(unsigned int count, const float* spectra, unsigned char* bytes);

    const ZKCSSE_KELMA_Data& data_;
    unsigned int count_;
    unsigned char* input_;
    float* spectra_;
    unsigned char* bytes_;
    unsigned int valuesPerSample_;
    unsigned int spectrumStride_;
    bool cielab_;
    bool packed_ = false;
    KERNEL_VARIANT variant_;
    const float* laneRows_ = nullptr;
    // Byte mode: one block of spectra, allocated and first touched on the
    // worker's thread, reused by later runs.
    AlignedBuffer<float, 64> block_;
    // Colorimetric bytes: the model they were prepared for, the colorimetry
    // tables for it (factor, white, the variant's layouts) and an XYZ scratch.
    const ZKCSSE_KELMA_Data* colorimetryModel_ = nullptr;
    std::unique_ptr<ZKCColorimetryPlan> colorimetry_;
    std::vector<float> xyz_;
};

}  // namespace KELMA_NAMESPACE
