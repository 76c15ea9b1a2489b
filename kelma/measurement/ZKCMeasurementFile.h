// Characterisation data from CGATS / ISO 28178 measurement files, read with
// Little CMS's IT8 parser, and their spectra resampled onto the library's
// 31-point grid. This front end is the only part of the library that opens
// files; the computing classes take everything as arguments.
//
// Columns recognised in the (first) data table:
//  - SAMPLE_ID (else SAMPLE_NAME) -> sample IDs; without either, "1", "2", ...
//  - device channels: CMYK_C/M/Y/K, CMY_C/M/Y, RGB_R/G/B and nCLR_1..nCLR_n
//    (n = 2..9 or A..F); a family must be complete;
//  - spectral fields -> spectra, values as written (reflectance factors 0-1
//    in usual files), in the names instruments and tools write, whole nm with
//    or without zero padding, prefixes in any case: SPECTRAL_NM400,
//    SPECTRAL_NM_400, SPECTRAL_400, SPEC_400, NM400, NM_400, R400, R_400;
//    the columns are sorted by wavelength, which must be distinct;
//  - LAB_L, LAB_A, LAB_B, all three or none; XYZ_X, XYZ_Y, XYZ_Z likewise.
// Other columns are ignored. Every value read must be a finite decimal
// number within the range of a float. Each data line must hold exactly one
// set (as many values as the format has fields).
//
// Plausibility (kelma/measurement/SpectralPlausibility.h): spectral fields
// must name wavelengths of 300-1100 nm and hold reflectance factors (-0.1 to
// 2; percent is refused with "divide by 100"). Resample() refuses a list that
// leaves more than 10 nm of 400-700 nm at either end to extrapolation unless
// the file was opened with ZKSMeasurementOptions::extrapolate.
//
// Files: only regular files of at most kMaxMeasurementFileBytes are read (a
// directory, a device or a FIFO is refused before reading). Text that is not
// UTF-8 is read as Windows-1252 (Latin-1 plus typographic characters), a
// UTF-8 or UTF-16 byte order mark is honoured, and every string the reader
// returns (sample IDs, names, header values) is UTF-8. A file holding NUL
// bytes is not a text file and is refused.
//
// Tolerated beyond strict CGATS: header keyword values with blanks but no
// quotes (e.g. `CREATED  July 2023`), which instrument software writes, are
// read as if quoted; trailing blanks and tabs are ignored.
//
// Limits of the underlying parser (Little CMS 2.14): numbers keep 10
// significant digits (the reader takes the digits as written where the
// parser's value agrees with them, so nothing written is lost), and a mantissa without a decimal point followed by an
// exponent (`3e-1`) is misread, so such values are rejected as not numeric
// (write `0.3` or `3.0e-1`). It also garbles names that begin with a digit
// (`5CLR_1`) and rewrites integers (`007` -> `7`), so field names and sample
// IDs are taken as written in the file.
//
// Every problem with a file (missing, unreadable, malformed, incomplete,
// non-numeric, ragged, implausible) throws ZKCMeasurementError naming the
// file, and the line and field where there is one.
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

// Largest file read: real charts stay well below a megabyte (the 1617-patch
// APTEC chart with 36 bands is about 400 kB); this bounds the memory a
// mistaken path can take.
constexpr std::size_t kMaxMeasurementFileBytes = std::size_t(64) << 20;

struct KELMA_API ZKSMeasurementOptions {
    // Resample() extrapolates spectra that leave more than 10 nm of 400-700 nm
    // uncovered from their end intervals instead of refusing them.
    bool extrapolate = false;
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
    // CIE XYZ as written (X, Y, Z per patch; CGATS files hold them on the
    // 0-100 scale, a perfect reflector having Y = 100), empty when none.
    std::vector<double> xyz;

    std::size_t PatchCount() const { return sampleIds.size(); }
    std::size_t ChannelCount() const { return channelNames.size(); }
    std::size_t BandCount() const { return wavelengths.size(); }
    bool HasSpectra() const { return !wavelengths.empty(); }
    bool HasLab() const { return !lab.empty(); }
    bool HasXYZ() const { return !xyz.empty(); }
};

class KELMA_API ZKCMeasurementFile {
public:
    // Reads and checks the whole file. `required` lists content whose absence
    // is an error (by default: spectral columns).
    explicit ZKCMeasurementFile(const std::string& path,
                                std::uint32_t required = MEASUREMENT_CONTENT_SPECTRA,
                                const ZKSMeasurementOptions& options = ZKSMeasurementOptions());
    // The same checks on a file's contents already in memory; `name` stands
    // for the file in messages.
    static ZKCMeasurementFile FromText(const std::string& name, const std::string& contents,
                                       std::uint32_t required = MEASUREMENT_CONTENT_SPECTRA,
                                       const ZKSMeasurementOptions& options = ZKSMeasurementOptions());
    ZKCMeasurementFile(const ZKCMeasurementFile&) = default;
    ZKCMeasurementFile(ZKCMeasurementFile&&) = default;
    ZKCMeasurementFile& operator=(const ZKCMeasurementFile&) = default;
    ZKCMeasurementFile& operator=(ZKCMeasurementFile&&) = default;
    virtual ~ZKCMeasurementFile();

    const ZKSMeasurementOptions& Options() const { return options_; }

    const ZKSMeasurementData& Data() const { return data_; }
    // Header keyword value as written (e.g. "D50" for ILLUMINATION_NAME;
    // "ILLUMINANT, D50" for a pair such as WEIGHTING_FUNCTION), "" when
    // absent; the first occurrence when a keyword repeats.
    std::string Property(const std::string& keyword) const;
    // Every header keyword and its value, in file order.
    const std::vector<std::pair<std::string, std::string>>& Properties() const { return properties_; }

    // The spectra on 400-700 nm / 10 nm through ZKCSpectralSampling_Thread:
    // PatchCount() records of 32 floats (slot 31 = 0.0), 16-byte aligned.
    // Throws ZKCMeasurementError when the file has no spectra, when its
    // wavelengths leave more than 10 nm of 400-700 nm at either end uncovered
    // (unless the options ask for extrapolation: grid wavelengths outside the
    // file's range then extrapolate from its first or last interval) or the
    // resampler rejects the list ("... has less than 2 elements", "Invalid
    // wavelength range"); "DefaultCase" for an unknown method.
    AlignedBuffer<float> Resample(SPECTRALSAMPLING_METHOD method) const;

private:
    struct FromContents {};
    ZKCMeasurementFile(FromContents, const std::string& name, const std::string& contents, std::uint32_t required,
                       const ZKSMeasurementOptions& options);
    void Read(const std::string& contents, std::uint32_t required);

    ZKSMeasurementOptions options_;
    ZKSMeasurementData data_;
    std::vector<std::pair<std::string, std::string>> properties_;
};

}  // namespace KELMA_NAMESPACE
