// libFuzzer harness: any bytes as the contents of a measurement file. The
// reader must either throw ZKCMeasurementError or return data that keeps
// every promise of its header; resampling what it returns gives finite
// spectra. Anything else (a crash, a sanitizer report, another exception, a
// broken promise) is a finding.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kelma/measurement/SpectralPlausibility.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/threading/Threading.h"

#include "FuzzPromise.h"

using namespace kelma;

namespace {

bool IsUtf8(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const std::size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (len == 0 || i + len > s.size()) return false;
        for (std::size_t k = 1; k < len; ++k)
            if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
        i += len;
    }
    return true;
}

bool FitsFloat(double v) { return FloatRangeProblem(v).empty(); }

void CheckData(const ZKCMeasurementFile& file) {
    const ZKSMeasurementData& d = file.Data();
    const std::size_t patches = d.PatchCount();
    Require(patches > 0, "at least one patch");
    Require(d.deviceValues.size() == patches * d.ChannelCount(), "channels per patch");
    Require(d.spectra.size() == patches * d.BandCount(), "bands per patch");
    Require(d.lab.empty() || d.lab.size() == 3 * patches, "three CIELAB values per patch");
    for (const auto& id : d.sampleIds) Require(IsUtf8(id), "sample IDs are UTF-8");
    for (const auto& name : d.channelNames) Require(IsUtf8(name), "channel names are UTF-8");
    for (std::size_t k = 0; k < d.BandCount(); ++k) {
        Require(WavelengthProblem(d.wavelengths[k]).empty(), "wavelengths are plausible");
        Require(k == 0 || d.wavelengths[k] > d.wavelengths[k - 1], "wavelengths strictly ascending");
    }
    for (double v : d.deviceValues) Require(FitsFloat(v), "device values fit a float");
    for (double v : d.lab) Require(FitsFloat(v), "CIELAB values fit a float");
    Require(!FindReflectanceProblem(d.spectra.data(), d.spectra.size()).found, "spectra are reflectance factors");
}

void CheckResampled(const ZKCMeasurementFile& file, SPECTRALSAMPLING_METHOD method) {
    AlignedBuffer<float> out = file.Resample(method);
    Require(out.size() == file.Data().PatchCount() * kSpectrumStride, "one record per patch");
    for (std::size_t p = 0; p < file.Data().PatchCount(); ++p)
        for (unsigned i = 0; i < kSpectralValues; ++i)
            Require(std::isfinite(out[p * kSpectrumStride + i]), "resampled spectra are finite");
}

// Without the extrapolate option the same contents read the same, and
// resampling is refused exactly when the coverage rule says so.
void CheckExtrapolationRule(const std::string& contents, const ZKCMeasurementFile& lenient) {
    const ZKCMeasurementFile strict = ZKCMeasurementFile::FromText("fuzz.txt", contents, MEASUREMENT_CONTENT_ANY);
    Require(strict.Data().spectra == lenient.Data().spectra, "options do not change what is read");
    const auto& w = lenient.Data().wavelengths;
    const bool gap = !SpectralCoverageProblem(w.data(), w.size()).empty();
    bool refused = false;
    try {
        strict.Resample(SPECTRALSAMPLING_LINEAR);
    } catch (const ZKCMeasurementError& e) {
        refused = e.Problem().find("would be extrapolated") != std::string::npos;
    }
    Require(refused == gap, "refused exactly when 400-700 nm is not covered");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // One worker per resampling: the harness measures the reader, not thread starts.
    SetCPUCountOverride(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string contents(reinterpret_cast<const char*>(data), size);
    try {
        ZKSMeasurementOptions options;
        options.extrapolate = true;
        const ZKCMeasurementFile file =
            ZKCMeasurementFile::FromText("fuzz.txt", contents, MEASUREMENT_CONTENT_ANY, options);
        CheckData(file);
        for (const auto& p : {"DESCRIPTOR", "CREATED", "ORIGINATOR"}) Require(IsUtf8(file.Property(p)), "UTF-8 header");
        if (!file.Data().HasSpectra()) return 0;
        CheckExtrapolationRule(contents, file);
        CheckResampled(file, SPECTRALSAMPLING_LINEAR);
        // The spline solves a system of order 4 (bands - 1): small lists only.
        if (file.Data().BandCount() <= 40) CheckResampled(file, SPECTRALSAMPLING_CUBICSPLINE);
    } catch (const ZKCMeasurementError&) {
        // A clear refusal naming the file is a correct answer.
    }
    return 0;
}
