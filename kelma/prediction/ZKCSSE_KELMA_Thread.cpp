#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"

#include "kelma/prediction/LaneMajorScheme.h"
#include "kelma/prediction/ZKCSSE_KELMA_4D.h"
#include "kelma/prediction/ZKCSSE_KELMA_6D.h"
#include "kelma/prediction/ZKCSSE_KELMA_7D.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

std::unique_ptr<ZKCSSE_KELMA_Base> MakeKernel(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                              unsigned char* input, float* spectra, unsigned char* bytes,
                                              unsigned long valuesPerSample, unsigned long spectrumStride) {
    switch (data.NumberOfInks()) {
        case 4:
            return std::make_unique<ZKCSSE_KELMA_4D>(data, count, input, spectra, bytes, valuesPerSample,
                                                     spectrumStride);
        case 6:
            return std::make_unique<ZKCSSE_KELMA_6D>(data, count, input, spectra, bytes, valuesPerSample,
                                                     spectrumStride);
        case 7:
            return std::make_unique<ZKCSSE_KELMA_7D>(data, count, input, spectra, bytes, valuesPerSample,
                                                     spectrumStride);
        default:
            throw kErrorDefaultCase;
    }
}

bool HasKernel(unsigned int inks) { return inks == 4 || inks == 6 || inks == 7; }

}  // namespace

ZKCSSE_KELMA_Thread::ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input,
                                         float* output)
    : model_(data) {
    ThreadDistribution(model_, count, input, output, nullptr, kSpectralValues, kSpectrumStride);
}

ZKCSSE_KELMA_Thread::ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input,
                                         float* output, SPECTRUM_LAYOUT layout)
    : model_(data) {
    if (layout != SPECTRUM_PACKED && layout != SPECTRUM_PADDED) throw kErrorDefaultCase;
    packed_ = layout == SPECTRUM_PACKED;
    ThreadDistribution(model_, count, input, output, nullptr, kSpectralValues,
                       packed_ ? kSpectralValues : kSpectrumStride);
}

ZKCSSE_KELMA_Thread::ZKCSSE_KELMA_Thread(const ZKCSSE_KELMA_Data& data, unsigned int count, unsigned char* input,
                                         unsigned char* output, unsigned long valuesPerSample,
                                         unsigned long spectrumStride)
    : model_(data) {
    // No shared spectra buffer: each share works through a block buffer of its own.
    ThreadDistribution(model_, count, input, nullptr, output, valuesPerSample, spectrumStride);
}

ZKCSSE_KELMA_Thread::~ZKCSSE_KELMA_Thread() {
    threads_.JoinAllNoThrow();
    kernels_.clear();  // before the lane-major rows they read
}

unsigned int ZKCSSE_KELMA_Thread::CPUCount() { return KELMA_NAMESPACE::CPUCount(); }

void ZKCSSE_KELMA_Thread::ThreadDistribution(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                             unsigned char* input, float* spectra, unsigned char* bytes,
                                             unsigned long valuesPerSample, unsigned long spectrumStride) {
    std::vector<ZKSWorkShare> shares = SplitWork(count, CPUCount());
    kernels_.clear();
    kernels_.resize(shares.size());
    threads_.Resize(shares.size());
    const unsigned int N = data.NumberOfInks();
    std::size_t bytesPerSample = valuesPerSample;
    if (bytes != nullptr && valuesPerSample == kSpectralValues)
        bytesPerSample = 3 * std::size_t{data.Lighting_Matrix().IlluminantNumber()};
    if (!HasKernel(N)) throw kErrorDefaultCase;
    // One choice of kernels for every share and every later Calculate.
    variant_ = ActiveKernelVariant();
    laneScheme_.reset();
    if (variant_ >= KERNEL_AVX2 && ZKCLaneMajorScheme::Worthwhile(data, count, static_cast<unsigned int>(shares.size())))
        laneScheme_ = std::make_unique<ZKCLaneMajorScheme>(data);
    for (std::size_t i = 0; i < shares.size(); ++i) {
        const ZKSWorkShare& share = shares[i];
        kernels_[i] = MakeKernel(data, static_cast<unsigned int>(share.count), input + share.start * N,
                                 spectra != nullptr ? spectra + share.start * spectrumStride : nullptr,
                                 bytes != nullptr ? bytes + share.start * bytesPerSample : nullptr,
                                 valuesPerSample, spectrumStride);
        kernels_[i]->SetPackedSpectra(packed_);
        kernels_[i]->SetKernelPlan(variant_, laneScheme_ ? laneScheme_->Rows() : nullptr);
        threads_.Start(i, *kernels_[i]);
    }
}

namespace {

// One kernel over the whole batch, run here. Lane-major rows only when the
// batch pays for copying the blocks (it is not the model copy the driver makes).
void RunOnCallingThread(const ZKCSSE_KELMA_Data& data, unsigned int count, const unsigned char* input,
                        float* spectra, unsigned char* bytes, bool packed, bool cielab) {
    if (!HasKernel(data.NumberOfInks())) throw kErrorDefaultCase;
    if (count == 0) return;
    const KERNEL_VARIANT variant = ActiveKernelVariant();
    std::unique_ptr<ZKCLaneMajorScheme> lanes;
    if (variant >= KERNEL_AVX2 && ZKCLaneMajorScheme::Worthwhile(data, count, 1))
        lanes = std::make_unique<ZKCLaneMajorScheme>(data);
    // The kernels never write their input.
    unsigned char* in = const_cast<unsigned char*>(input);
    std::unique_ptr<ZKCSSE_KELMA_Base> kernel =
        MakeKernel(data, count, in, spectra, bytes, kSpectralValues, packed ? kSpectralValues : kSpectrumStride);
    kernel->SetPackedSpectra(packed);
    kernel->SetKernelPlan(variant, lanes ? lanes->Rows() : nullptr);
    if (bytes != nullptr) kernel->SetInputOutput(in, bytes, cielab);
    (*kernel)();
}

}  // namespace

void ZKCSSE_KELMA_Thread::CalculateOnCallingThread(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                                   const unsigned char* input, float* output,
                                                   SPECTRUM_LAYOUT layout) {
    if (layout != SPECTRUM_PACKED && layout != SPECTRUM_PADDED) throw kErrorDefaultCase;
    RunOnCallingThread(data, count, input, output, nullptr, layout == SPECTRUM_PACKED, false);
}

void ZKCSSE_KELMA_Thread::CalculateOnCallingThread(const ZKCSSE_KELMA_Data& data, unsigned int count,
                                                   const unsigned char* input, unsigned char* output,
                                                   bool cielab) {
    RunOnCallingThread(data, count, input, nullptr, output, false, cielab);
}

bool ZKCSSE_KELMA_Thread::WorthThreads(const ZKCSSE_KELMA_Data& data, unsigned long count) {
    constexpr unsigned long kCallingThreadWork = 1ul << 15;
    return KELMA_NAMESPACE::WorthThreads(count << data.NumberOfInks(), kCallingThreadWork);
}

void ZKCSSE_KELMA_Thread::Wait() { threads_.JoinAll(kernels_.size()); }

void ZKCSSE_KELMA_Thread::Init(unsigned char* input, unsigned char* output, bool cielab) {
    threads_.JoinAllNoThrow();
    const unsigned int N = model_.NumberOfInks();
    const std::size_t bytesPerSample = 3 * std::size_t{model_.Lighting_Matrix().IlluminantNumber()};
    for (auto& kernel : kernels_) {
        kernel->SetInputOutput(input, output, cielab);
        input += std::size_t{kernel->SampleCount()} * N;
        if (output != nullptr) output += kernel->SampleCount() * bytesPerSample;
    }
}

void ZKCSSE_KELMA_Thread::Calculate() {
    for (std::size_t i = 0; i < kernels_.size(); ++i) {
        if (!HasKernel(model_.NumberOfInks())) throw kErrorDefaultCase;
        threads_.Start(i, *kernels_[i]);
    }
    threads_.JoinAll(kernels_.size());
}

}  // namespace KELMA_NAMESPACE
