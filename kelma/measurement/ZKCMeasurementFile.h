// Characterisation data from CGATS / ISO 28178 measurement files, read with
// Little CMS's IT8 parser, and their spectra resampled onto the library's
// 31-point grid. This front end is the only part of the library that opens
// files; the computing classes take everything as arguments.
//
// Columns recognised in the (first) data table:
//  - SAMPLE_ID (else SAMPLE_NAME) -> sample IDs; without either, "1", "2", ...
//  - device channels: CMYK_C/M/Y/K, CMY_C/M/Y, RGB_R/G/B and nCLR_1..nCLR_n
//    (n = 2..9 or A..F); a family must be complete;
//  - SPECTRAL_NM<nm> or SPECTRAL_NM_<nm> (integer nm) -> spectra, values as
//    written (reflectance factors 0-1 in usual files); the columns are sorted
//    by wavelength, which must be distinct;
//  - LAB_L, LAB_A, LAB_B, all three or none.
// Other columns are ignored. Every value read must be a finite decimal
// number. Each data line must hold exactly one set (as many values as the
// format has fields).
//
// Tolerated beyond strict CGATS: header keyword values with blanks but no
// quotes (e.g. `CREATED  July 2023`), which instrument software writes, are
// read as if quoted; trailing blanks and tabs are ignored.
//
// Limits of the underlying parser (Little CMS 2.14): numbers keep 10
// significant digits, and a mantissa without a decimal point followed by an
// exponent (`3e-1`) is misread, so such values are rejected as not numeric
// (write `0.3` or `3.0e-1`). It also garbles names that begin with a digit
// (`5CLR_1`) and rewrites integers (`007` -> `7`), so field names and sample
// IDs are taken as written in the file.
//
// Every problem with a file (missing, unreadable, malformed, incomplete,
// non-numeric, ragged) throws ZKCMeasurementError naming the file.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class KELMA_API ZKCMeasurementError : public std::runtime_error {
public:
    // what() is "<file>: <problem>".
    ZKCMeasurementError(const std::string& file, const std::string& problem);
    ~ZKCMeasurementError() override;

    const std::string& File() const { return file_; }
    const std::string& Problem() const { return problem_; }

private:
    std::string file_;
    std::string problem_;
};

// What a file must contain; combine with |.
enum MEASUREMENT_CONTENT : std::uint32_t {
    MEASUREMENT_CONTENT_ANY = 0,
    MEASUREMENT_CONTENT_SPECTRA = 1,
    MEASUREMENT_CONTENT_LAB = 2,
    MEASUREMENT_CONTENT_DEVICE = 4,
};

// One file's patches. Per-patch arrays are patch-major, in file order.
struct ZKSMeasurementData {
    std::string file;
    std::vector<std::string> sampleIds;
    // Device channel columns in file order, e.g. CMYK_C, CMYK_M, CMYK_Y, CMYK_K,
    // and their values as written (CMYK usually 0-100 %): channels per patch.
    std::vector<std::string> channelNames;
    std::vector<double> deviceValues;
    // Strictly ascending wavelengths (nm) and the spectra on them, as floats:
    // wavelengths.size() values per patch (the resampler's input layout).
    std::vector<double> wavelengths;
    std::vector<float> spectra;
    // CIELAB as written (L*, a*, b* per patch), empty when the file has none.
    std::vector<double> lab;

    std::size_t PatchCount() const { return sampleIds.size(); }
    std::size_t ChannelCount() const { return channelNames.size(); }
    std::size_t BandCount() const { return wavelengths.size(); }
    bool HasSpectra() const { return !wavelengths.empty(); }
    bool HasLab() const { return !lab.empty(); }
};

class KELMA_API ZKCMeasurementFile {
public:
    // Reads and checks the whole file. `required` lists content whose absence
    // is an error (by default: spectral columns).
    explicit ZKCMeasurementFile(const std::string& path,
                                std::uint32_t required = MEASUREMENT_CONTENT_SPECTRA);
    virtual ~ZKCMeasurementFile();

    const ZKSMeasurementData& Data() const { return data_; }
    // Header keyword value (e.g. "ILLUMINATION_NAME"), "" when absent; the
    // first occurrence when a keyword repeats.
    std::string Property(const std::string& keyword) const;

    // The spectra on 400-700 nm / 10 nm through ZKCSpectralSampling_Thread:
    // PatchCount() records of 32 floats (slot 31 = 0.0), 16-byte aligned.
    // Wavelengths outside the file's range extrapolate from its first or last
    // interval. Throws ZKCMeasurementError when the file has no spectra or its
    // wavelength list is rejected ("... has less than 2 elements", "Invalid
    // wavelength range"), "DefaultCase" for an unknown method.
    AlignedBuffer<float> Resample(SPECTRALSAMPLING_METHOD method) const;

private:
    ZKSMeasurementData data_;
    std::vector<std::pair<std::string, std::string>> properties_;
};

}  // namespace KELMA_NAMESPACE
