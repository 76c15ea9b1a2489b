// CGATS / ISO 28178 files written through Little CMS's IT8 functions: the
// counterpart of ZKCMeasurementFile, which reads every file written here back
// to the same values.
//
// The table is a ZKSMeasurementData (the reader's own record) plus header
// keywords. Fields, in this order, each group only when it has values:
//   SAMPLE_ID; the device channels under their names (CMYK_C ... or
//   nCLR_1 ...); XYZ_X, XYZ_Y, XYZ_Z; LAB_L, LAB_A, LAB_B; SPECTRAL_NM<nm>
//   for each wavelength (whole nm).
// Values are written as the shortest decimal that reads back to the same
// number: doubles (device values, XYZ, CIELAB) to the same double, spectra
// (floats) to the same float; so write -> read is exact.
//
// Header: CGATS.17, then the keywords in the order given (ORIGINATOR,
// DESCRIPTOR, ILLUMINATION_NAME, OBSERVER_ANGLE, ...; values written quoted).
// Keywords the table itself determines are written from it and ignored when
// given: NUMBER_OF_FIELDS, NUMBER_OF_SETS and, with spectra, SPECTRAL_BANDS,
// SPECTRAL_START_NM, SPECTRAL_END_NM (the last two only for evenly spaced
// wavelengths).
//
// What CGATS cannot hold is refused with ZKCMeasurementError naming the
// target ("CGATS output" for Text) and the sample, field or keyword: a
// sample ID with a double quote or a control character, a keyword that is
// not a name (letters, digits, '_'), a keyword value with a double quote or
// a line break, a field name that is not a name or appears twice, a value
// that is not finite, wavelengths that are not whole nm or not strictly
// ascending, no patches, more patches or fields than kMaxMeasurementTableSize. Arrays whose sizes disagree with the patch count
// are a caller error: std::invalid_argument.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "kelma/measurement/ZKCMeasurementFile.h"

namespace KELMA_NAMESPACE {

using ZKSMeasurementKeywords = std::vector<std::pair<std::string, std::string>>;

// Little CMS 2.14 holds at most this many patches, and fields, in one table
// (it reads no larger file either).
constexpr std::size_t kMaxMeasurementTableSize = 0x7FFE;

class KELMA_API ZKCMeasurementWriter {
public:
    // `data.file` is ignored; every check is made here, before anything is
    // written. Sizes: sampleIds gives the patch count P; deviceValues P x
    // channels; xyz and lab P x 3 or empty; spectra P x wavelengths.
    ZKCMeasurementWriter(const ZKSMeasurementData& data, const ZKSMeasurementKeywords& keywords);
    virtual ~ZKCMeasurementWriter();

    // The whole file as text (UTF-8 where IDs or keyword values are; ASCII otherwise).
    std::string Text() const;
    // Writes Text() to exactly `path`, atomically (WriteFileAtomically:
    // ZKCFileWriteError when it cannot, the target left as it was).
    void Write(const std::string& path) const;

private:
    void Check(const std::string& name) const;
    std::string Render(const std::string& name) const;

    ZKSMeasurementData data_;
    ZKSMeasurementKeywords keywords_;
};

}  // namespace KELMA_NAMESPACE
