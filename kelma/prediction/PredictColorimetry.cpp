#include "kelma/prediction/PredictColorimetry.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

namespace {

// Samples predicted per driver run: 8 MiB of spectra, whatever the batch.
constexpr std::size_t kChunk = 65536;
// Below this a chunk's colorimetry runs on the calling thread.
constexpr std::size_t kInlineBelow = 4096;

// XYZ and CIELAB of one share of a chunk's spectra.
struct ColorimetryShare {
    const ZKCLighting_Matrix* matrix;
    const std::vector<float>* factor;  // null: relative to the illuminant
    const double* white;
    const float* spectra;  // 32 floats per sample
    std::size_t count;
    double* xyz;
    double* lab;

    void operator()() const {
        std::vector<float> xyzF(3 * count);
        matrix->CalculateCIEXYZ(xyzF.data(), spectra, static_cast<unsigned int>(count), factor);
        for (std::size_t s = 0; s < count; ++s) {
            const double v[3] = {xyzF[3 * s], xyzF[3 * s + 1], xyzF[3 * s + 2]};
            if (xyz != nullptr) std::copy(v, v + 3, xyz + 3 * s);
            if (lab != nullptr) XYZToCIELAB(v, white, lab + 3 * s);
        }
    }
};

}  // namespace

void PredictColorimetry(const ZKCSSE_KELMA_Data& model, std::size_t count, const unsigned char* inks,
                        unsigned int illuminant, bool mediaRelative, double* xyz, double* lab) {
    if (count == 0) return;
    ZKCLighting_Matrix matrix;
    model.Lighting_Matrix().ExtractSingleIlluminant_Lighting_Matrix(matrix, illuminant);
    const std::vector<float> whiteF = ZKCWhitePoint(matrix).Values();
    const double white[3] = {whiteF[0], whiteF[1], whiteF[2]};
    std::vector<float> factor;
    if (mediaRelative) {
        ZKCWhitePoint paper = model.MediaWhitePoint();
        paper.ReduceToSingleIlluminant(illuminant);
        matrix.GetMediaRelativeTransformFactor(factor, paper);
    }
    const unsigned int N = model.NumberOfInks();
    const std::size_t chunk = std::min(count, kChunk);
    AlignedBuffer<float> spectra(chunk * kSpectrumStride);

    // One driver for the full-size chunks (re-run with Init + Calculate, so
    // the model is copied once), another for a shorter last chunk.
    std::unique_ptr<ZKCSSE_KELMA_Thread> driver;
    std::size_t driverCount = 0;
    for (std::size_t start = 0; start < count; start += chunk) {
        const std::size_t n = std::min(chunk, count - start);
        unsigned char* in = const_cast<unsigned char*>(inks + start * N);
        if (driver && driverCount == n) {
            driver->Init(in, nullptr, false);
            driver->Calculate();
        } else {
            driver.reset();
            driver = std::make_unique<ZKCSSE_KELMA_Thread>(model, static_cast<unsigned int>(n), in, spectra.data());
            driverCount = n;
            driver->Wait();
        }
        const std::vector<ZKSWorkShare> shares =
            SplitWork(n, n < kInlineBelow ? 1 : CPUCount());
        std::vector<ColorimetryShare> work;
        for (const ZKSWorkShare& s : shares)
            work.push_back({&matrix, mediaRelative ? &factor : nullptr, white, spectra.data() + s.start * kSpectrumStride,
                            s.count, xyz != nullptr ? xyz + 3 * (start + s.start) : nullptr,
                            lab != nullptr ? lab + 3 * (start + s.start) : nullptr});
        if (work.size() == 1) {
            work[0]();
        } else {
            ZKCWorkerThreads threads(work.size());
            for (std::size_t i = 0; i < work.size(); ++i) threads.Start(i, work[i]);
            threads.JoinAll(work.size());
        }
    }
}

}  // namespace KELMA_NAMESPACE
