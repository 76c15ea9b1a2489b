#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kelma/measurement/ZKCMeasurementFile.h"

using namespace kelma;

namespace {

const std::string kDataDir = std::string(KELMA_TEST_DATA_DIR) + "/../tests/measurement/data/";

// Rows between BEGIN_DATA and END_DATA of a tab-separated chart, split on
// tabs with empty fields dropped: a plain reader for this file layout only.
std::vector<std::vector<std::string>> TabRows(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    bool data = false;
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::stringstream ss(line);
        std::string f;
        while (std::getline(ss, f, '\t'))
            if (!f.empty()) fields.push_back(f);
        if (fields.empty()) continue;
        if (fields[0] == "BEGIN_DATA") {
            data = true;
        } else if (fields[0] == "END_DATA") {
            data = false;
        } else if (data) {
            rows.push_back(fields);
        }
    }
    return rows;
}

// what() of the ZKCMeasurementError that `f` throws (checking that it names
// `file`), or "" when nothing is thrown.
template <class F>
std::string MeasurementError(F f, const std::string& file) {
    try {
        f();
    } catch (const ZKCMeasurementError& e) {
        EXPECT_EQ(e.File(), file);
        EXPECT_EQ(std::string(e.what()), file + ": " + e.Problem());
        return e.what();
    }
    return "";
}

}  // namespace

TEST(MeasurementFile, ExcerptMatchesAPlainReadingOfItsText) {
    const std::string path = kDataDir + "pc10_excerpt_spectral.txt";
    ZKCMeasurementFile file(path, MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
    const ZKSMeasurementData& d = file.Data();
    std::vector<std::vector<std::string>> rows = TabRows(path);
    ASSERT_EQ(rows.size(), 20u);
    ASSERT_EQ(d.PatchCount(), 20u);
    EXPECT_EQ(d.file, path);
    EXPECT_EQ(d.channelNames, (std::vector<std::string>{"CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"}));
    ASSERT_EQ(d.BandCount(), 36u);
    for (std::size_t k = 0; k < 36; ++k) EXPECT_EQ(d.wavelengths[k], 380.0 + 10.0 * k);
    EXPECT_FALSE(d.HasLab());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        ASSERT_EQ(rows[r].size(), 41u);
        EXPECT_EQ(d.sampleIds[r], rows[r][0]);
        for (std::size_t c = 0; c < 4; ++c)
            EXPECT_EQ(d.deviceValues[r * 4 + c], std::strtod(rows[r][1 + c].c_str(), nullptr)) << r;
        for (std::size_t k = 0; k < 36; ++k)
            EXPECT_EQ(d.spectra[r * 36 + k], static_cast<float>(std::strtod(rows[r][5 + k].c_str(), nullptr)))
                << "row " << r << ", band " << k;
    }
    // Paper white and the black solid are among them.
    EXPECT_EQ(d.sampleIds[2], "27");
    EXPECT_EQ(std::vector<double>(d.deviceValues.begin() + 8, d.deviceValues.begin() + 12),
              (std::vector<double>{0, 0, 0, 0}));
    EXPECT_EQ(d.spectra[2 * 36 + 2], 0.598f);
}

TEST(MeasurementFile, HeaderValuesWithBlanksAreReadAsWritten) {
    ZKCMeasurementFile file(kDataDir + "pc10_excerpt_spectral.txt");
    // Both are unquoted in the file.
    EXPECT_EQ(file.Property("DESCRIPTOR"), "APTEC PC10_CardBoard_2023_v1");
    EXPECT_EQ(file.Property("CREATED"), "July 2023");
    EXPECT_EQ(file.Property("ILLUMINATION_NAME"), "D50");
    EXPECT_EQ(file.Property("NO_SUCH_KEYWORD"), "");
}

TEST(MeasurementFile, LabExcerptPairsWithTheSpectralExcerpt) {
    ZKCMeasurementFile spectral(kDataDir + "pc10_excerpt_spectral.txt");
    ZKCMeasurementFile lab(kDataDir + "pc10_excerpt_lab.txt", MEASUREMENT_CONTENT_LAB | MEASUREMENT_CONTENT_DEVICE);
    const ZKSMeasurementData& d = lab.Data();
    EXPECT_FALSE(d.HasSpectra());
    ASSERT_TRUE(d.HasLab());
    EXPECT_EQ(d.sampleIds, spectral.Data().sampleIds);
    EXPECT_EQ(d.deviceValues, spectral.Data().deviceValues);
    EXPECT_EQ(std::vector<double>(d.lab.begin(), d.lab.begin() + 3), (std::vector<double>{48.02, 75, -2.04}));
    std::vector<std::vector<std::string>> rows = TabRows(kDataDir + "pc10_excerpt_lab.txt");
    for (std::size_t r = 0; r < rows.size(); ++r)
        for (std::size_t k = 0; k < 3; ++k) EXPECT_EQ(d.lab[3 * r + k], std::strtod(rows[r][5 + k].c_str(), nullptr));
}

TEST(MeasurementFile, ResampleReturnsTheGridValuesOfTheChart) {
    ZKCMeasurementFile file(kDataDir + "pc10_excerpt_spectral.txt");
    const ZKSMeasurementData& d = file.Data();
    AlignedBuffer<float> linear = file.Resample(SPECTRALSAMPLING_LINEAR);
    AlignedBuffer<float> spline = file.Resample(SPECTRALSAMPLING_CUBICSPLINE);
    ASSERT_EQ(linear.size(), d.PatchCount() * kSpectrumStride);
    ASSERT_EQ(spline.size(), d.PatchCount() * kSpectrumStride);
    for (std::size_t s = 0; s < d.PatchCount(); ++s) {
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            EXPECT_NEAR(linear[s * kSpectrumStride + i], d.spectra[s * 36 + i + 2], 6e-8);
            EXPECT_NEAR(spline[s * kSpectrumStride + i], d.spectra[s * 36 + i + 2], 2e-7);
        }
        EXPECT_EQ(linear[s * kSpectrumStride + 31], 0.0f);
        EXPECT_EQ(spline[s * kSpectrumStride + 31], 0.0f);
    }
    EXPECT_EQ(std::string([&] {
                  try {
                      file.Resample(static_cast<SPECTRALSAMPLING_METHOD>(5));
                  } catch (const char* text) {
                      return text;
                  }
                  return "";
              }()),
              "DefaultCase");
}

TEST(MeasurementFile, ToleratedLayoutCrlfCommentsQuotedNamesSixColoursUnsortedBands) {
    ZKCMeasurementFile file(kDataDir + "good_6clr_crlf.txt", MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_LAB |
                                                                 MEASUREMENT_CONTENT_DEVICE);
    const ZKSMeasurementData& d = file.Data();
    EXPECT_EQ(d.sampleIds, (std::vector<std::string>{"Paper white", "Orange solid", "Mix"}));
    EXPECT_EQ(d.channelNames,
              (std::vector<std::string>{"6CLR_1", "6CLR_2", "6CLR_3", "6CLR_4", "6CLR_5", "6CLR_6"}));
    EXPECT_EQ(std::vector<double>(d.deviceValues.begin() + 12, d.deviceValues.end()),
              (std::vector<double>{10.5, 20, 30, 40, 50, 60.25}));
    EXPECT_EQ(d.wavelengths, (std::vector<double>{400, 450, 500, 550, 600, 650, 700}));
    // Columns run 700 .. 400 in the file; values follow their wavelengths.
    EXPECT_EQ(std::vector<float>(d.spectra.begin(), d.spectra.begin() + 7),
              (std::vector<float>{0.80f, 0.85f, 0.86f, 0.87f, 0.88f, 0.89f, 0.90f}));
    EXPECT_EQ(std::vector<double>(d.lab.begin() + 3, d.lab.begin() + 6), (std::vector<double>{65.25, 55, 70.5}));
    EXPECT_EQ(file.Property("DESCRIPTOR"), "six-colour test");
    EXPECT_EQ(file.Property("CREATED"), "2 March 2024");

    AlignedBuffer<float> out = file.Resample(SPECTRALSAMPLING_LINEAR);
    // 410 nm lies a fifth of the way from 400 (0.80) to 450 (0.85).
    EXPECT_NEAR(out[1], 0.81f, 1e-7);
    EXPECT_NEAR(out[30], 0.90f, 1e-7);
    // "Mix" falls from 0.33 at 550 nm to 0.32 at 600 nm.
    EXPECT_NEAR(out[2 * kSpectrumStride + 16], 0.328f, 1e-7);
}

TEST(MeasurementFile, RequiredContentIsChecked) {
    const std::string noSpectra = kDataDir + "bad_no_spectral.txt";
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile f(noSpectra); }, noSpectra).find("no spectral fields"),
              std::string::npos);
    // The same file is fine when only CIELAB and device values are asked for.
    ZKCMeasurementFile labOnly(noSpectra, MEASUREMENT_CONTENT_LAB | MEASUREMENT_CONTENT_DEVICE);
    EXPECT_EQ(labOnly.Data().PatchCount(), 2u);
    EXPECT_NE(MeasurementError([&] { labOnly.Resample(SPECTRALSAMPLING_LINEAR); }, noSpectra).find("no spectral"),
              std::string::npos);

    const std::string spectral = kDataDir + "pc10_excerpt_spectral.txt";
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile f(spectral, MEASUREMENT_CONTENT_LAB); }, spectral)
                  .find("no CIELAB fields"),
              std::string::npos);
    const std::string oneBand = kDataDir + "bad_one_band.txt";
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile f(oneBand, MEASUREMENT_CONTENT_DEVICE); }, oneBand)
                  .find("no device channel fields"),
              std::string::npos);
}

TEST(MeasurementFile, BadFilesThrowAnErrorNamingFileAndProblem) {
    struct Case {
        const char* file;
        const char* problem;
    };
    const Case cases[] = {
        {"no_such_file.txt", "cannot open the file (No such file or directory)"},
        {"bad_empty.txt", "file is empty"},
        {"bad_not_cgats.txt", "no data format"},
        {"bad_unclosed_format.txt", "line 6: BEGIN_DATA before END_DATA_FORMAT"},
        {"bad_set_count.txt", "not a readable CGATS file: Line 13, Count mismatch. NUMBER_OF_SETS was 4, found 3"},
        {"bad_ragged.txt", "line 10 has 6 values, expected 7"},
        {"bad_nonnumeric.txt", "line 10, field SPECTRAL_NM700: 'abc' is not a number"},
        {"bad_nan.txt", "line 10, field SPECTRAL_NM700: 'nan' is not a number"},
        {"bad_exponent.txt", "'3e-1' is not a number (the CGATS parser misreads this exponent form"},
        {"bad_missing_channel.txt", "device channel fields incomplete, missing CMYK_K"},
        {"bad_missing_lab.txt", "CIELAB fields incomplete, missing LAB_B"},
        {"bad_duplicate_wavelength.txt", "wavelength 400 nm appears in two spectral fields"},
        {"bad_wavelength_name.txt", "cannot read the wavelength of field SPECTRAL_NM40O"},
    };
    for (const Case& c : cases) {
        const std::string path = kDataDir + c.file;
        std::string what = MeasurementError([&] { ZKCMeasurementFile f(path); }, path);
        EXPECT_NE(what.find(c.problem), std::string::npos) << c.file << " gave: " << what;
    }
    // A directory opens but cannot be read.
    std::string what = MeasurementError([&] { ZKCMeasurementFile f(kDataDir); }, kDataDir);
    EXPECT_NE(what.find("cannot read the file"), std::string::npos) << what;
    // Hosts can catch the standard base.
    EXPECT_THROW(ZKCMeasurementFile(kDataDir + "bad_ragged.txt"), std::runtime_error);
}

TEST(MeasurementFile, WavelengthListsTheResamplerRejectsAreFileErrors) {
    const std::string range = kDataDir + "bad_wavelength_range.txt";
    ZKCMeasurementFile narrow(range);  // 410-690 nm reads fine
    EXPECT_NE(MeasurementError([&] { narrow.Resample(SPECTRALSAMPLING_CUBICSPLINE); }, range)
                  .find("spectral fields 410-690 nm: Invalid wavelength range"),
              std::string::npos);
    const std::string oneBand = kDataDir + "bad_one_band.txt";
    ZKCMeasurementFile single(oneBand);
    EXPECT_NE(MeasurementError([&] { single.Resample(SPECTRALSAMPLING_LINEAR); }, oneBand)
                  .find("Wavelength-list has less than 2 elements"),
              std::string::npos);
}
