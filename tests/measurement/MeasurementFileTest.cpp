#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

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

namespace {

// One row of data/bad_files.tsv: a file with one fault and what the reader says.
struct BadFile {
    std::string file, stage, problem;
    bool sameWithDevice;
};

std::vector<BadFile> BadFiles() {
    std::ifstream in(kDataDir + "bad_files.tsv");
    std::vector<BadFile> rows;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> f;
        std::stringstream ss(line);
        std::string item;
        while (std::getline(ss, item, '\t')) f.push_back(item);
        if (f.size() == 4) rows.push_back({f[0], f[1], f[3], f[2] == "y"});
    }
    return rows;
}

}  // namespace

TEST(MeasurementFile, BadFilesThrowAnErrorNamingFileAndProblem) {
    const std::vector<BadFile> rows = BadFiles();
    ASSERT_GE(rows.size(), 26u);
    for (const BadFile& c : rows) {
        const std::string path = kDataDir + c.file;
        std::vector<std::uint32_t> masks = {MEASUREMENT_CONTENT_SPECTRA};
        if (c.sameWithDevice) masks.push_back(MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
        for (std::uint32_t mask : masks) {
            std::string what;
            if (c.stage == "read") {
                what = MeasurementError([&] { ZKCMeasurementFile f(path, mask); }, path);
            } else {
                ZKCMeasurementFile f(path, mask);
                what = MeasurementError([&] { f.Resample(SPECTRALSAMPLING_LINEAR); }, path);
            }
            EXPECT_NE(what.find(c.problem), std::string::npos) << c.file << " gave: " << what;
            // One line, and never a bare library tag.
            EXPECT_EQ(what.find('\n'), std::string::npos) << what;
        }
    }
    // Hosts can catch the standard base.
    EXPECT_THROW(ZKCMeasurementFile(kDataDir + "bad_ragged.txt"), std::runtime_error);
}

TEST(MeasurementFile, ResamplingRefusalsExplainTheLibraryText) {
    const std::string range = kDataDir + "bad_wavelength_range.txt";
    ZKCMeasurementFile narrow(range);  // 410-690 nm reads fine
    EXPECT_NE(MeasurementError([&] { narrow.Resample(SPECTRALSAMPLING_CUBICSPLINE); }, range)
                  .find("spectral fields 410-690 nm: the wavelengths must start at or below 400 nm or end at or above "
                        "700 nm (library error \"Invalid wavelength range\")"),
              std::string::npos);
    const std::string oneBand = kDataDir + "bad_one_band.txt";
    ZKCMeasurementFile single(oneBand);
    EXPECT_NE(MeasurementError([&] { single.Resample(SPECTRALSAMPLING_LINEAR); }, oneBand)
                  .find("(library error \"Wavelength-list has less than 2 elements\")"),
              std::string::npos);
}

namespace {

// A scratch folder for files the tests make (FIFOs, sparse files), removed afterwards.
class ScratchDir {
public:
    ScratchDir() {
        char name[] = "/tmp/kelma_measurement_XXXXXX";
        path_ = ::mkdtemp(name) != nullptr ? name : "";
    }
    ~ScratchDir() {
        if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
    }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace

TEST(MeasurementFile, OnlyRegularFilesWithinTheSizeBoundAreRead) {
    ScratchDir dir;
    ASSERT_FALSE(dir.Path().empty());
    const std::string fifo = dir.Path() + "/chart.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // A sparse file one byte over the bound: refused from its size, not read.
    const std::string big = dir.Path() + "/big.txt";
    {
        std::ofstream out(big);
        out << "CGATS.17\n";
    }
    ASSERT_EQ(::truncate(big.c_str(), static_cast<off_t>(kMaxMeasurementFileBytes + 1)), 0);
    const std::string atBound = dir.Path() + "/at_bound.txt";
    {
        std::ofstream out(atBound);
        out << "CGATS.17\n";
    }
    ASSERT_EQ(::truncate(atBound.c_str(), static_cast<off_t>(kMaxMeasurementFileBytes)), 0);

    struct Case {
        std::string path, problem;
    };
    const Case cases[] = {
        {kDataDir + "no_such_file.txt", "cannot open the file (No such file or directory)"},
        {dir.Path(), "is a directory, not a measurement file"},
        {"/dev/zero", "is not a regular file (a device, FIFO or socket)"},
        {"/dev/null", "is not a regular file (a device, FIFO or socket)"},
        {fifo, "is not a regular file (a device, FIFO or socket)"},
        {big, "file is 67108865 bytes, larger than the 64 MiB a measurement file may have"},
        // At the bound the file is read: its NUL padding makes it no text file.
        {atBound, "holds a NUL character (at line 2): not a text file"},
    };
    for (const Case& c : cases) {
        const std::string what = MeasurementError([&] { ZKCMeasurementFile f(c.path); }, c.path);
        EXPECT_NE(what.find(c.problem), std::string::npos) << c.path << " gave: " << what;
    }
    // Contents in memory have the same bound.
    const std::string tooMuch(kMaxMeasurementFileBytes + 1, ' ');
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile::FromText("memory", tooMuch); }, "memory").find("larger than"),
              std::string::npos);
}

TEST(MeasurementFile, TextThatIsNotUtf8IsReadAndComesBackAsUtf8) {
    // The same chart in Latin-1, in UTF-8 behind a byte order mark, and in UTF-16LE behind one.
    const std::string latin1 = kDataDir + "good_latin1.txt";
    const ZKCMeasurementFile reference(latin1, MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
    const ZKSMeasurementData& d = reference.Data();
    EXPECT_EQ(d.sampleIds, (std::vector<std::string>{"Caf\xC3\xA9 cr\xC3\xA8me", "Schwarz_gr\xC3\xB6\xC3\x9Fte"}));
    EXPECT_EQ(reference.Property("DESCRIPTOR"), "Pr\xC3\xBC" "fdruck f\xC3\xBCr \xC3\x96l");
    EXPECT_EQ(reference.Property("ORIGINATOR"), "kelma tests");
    EXPECT_EQ(d.channelNames, (std::vector<std::string>{"CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"}));
    EXPECT_EQ(std::vector<float>(d.spectra.begin(), d.spectra.begin() + 3), (std::vector<float>{0.81f, 0.87f, 0.88f}));
    for (const char* other : {"good_utf8_bom.txt", "good_utf16le_bom.txt"}) {
        const ZKCMeasurementFile f(kDataDir + other);
        EXPECT_EQ(f.Data().sampleIds, d.sampleIds) << other;
        EXPECT_EQ(f.Data().spectra, d.spectra) << other;
        EXPECT_EQ(f.Data().deviceValues, d.deviceValues) << other;
        EXPECT_EQ(f.Property("DESCRIPTOR"), reference.Property("DESCRIPTOR")) << other;
    }
    // Windows-1252's typographic characters (0x80-0x9F) become their Unicode letters.
    const std::string cp1252 =
        "CGATS.17\nNUMBER_OF_FIELDS 3\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400 SPECTRAL_NM700\nEND_DATA_FORMAT\n"
        "NUMBER_OF_SETS 2\nBEGIN_DATA\n\x80uro 0.5 0.6\n\"\x93q\x94\" 0.4 0.5\nEND_DATA\n";
    const ZKCMeasurementFile quoted = ZKCMeasurementFile::FromText("cp1252", cp1252);
    EXPECT_EQ(quoted.Data().sampleIds, (std::vector<std::string>{"\xE2\x82\xACuro", "\xE2\x80\x9Cq\xE2\x80\x9D"}));
}

TEST(MeasurementFile, FromTextReadsLikeTheFile) {
    const std::string path = kDataDir + "good_6clr_crlf.txt";
    std::ifstream in(path, std::ios::binary);
    const std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const ZKCMeasurementFile fromFile(path, MEASUREMENT_CONTENT_ANY);
    const ZKCMeasurementFile fromText = ZKCMeasurementFile::FromText("six colours", contents, MEASUREMENT_CONTENT_ANY);
    EXPECT_EQ(fromText.Data().file, "six colours");
    EXPECT_EQ(fromText.Data().sampleIds, fromFile.Data().sampleIds);
    EXPECT_EQ(fromText.Data().spectra, fromFile.Data().spectra);
    EXPECT_EQ(fromText.Data().lab, fromFile.Data().lab);
    EXPECT_EQ(fromText.Property("CREATED"), fromFile.Property("CREATED"));
}

TEST(MeasurementFile, SpectraShortOfTheGridAreExtrapolatedOnlyWhenAsked) {
    // 450-730 nm, linear in wavelength: 0.5 at 450 nm rising 0.001 per nm.
    std::string text =
        "CGATS.17\nNUMBER_OF_FIELDS 5\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM450 SPECTRAL_NM550 SPECTRAL_NM650 "
        "SPECTRAL_NM730\nEND_DATA_FORMAT\nNUMBER_OF_SETS 1\nBEGIN_DATA\n1 0.5 0.6 0.7 0.78\nEND_DATA\n";
    const ZKCMeasurementFile strict = ZKCMeasurementFile::FromText("gap", text);
    EXPECT_FALSE(strict.Options().extrapolate);
    EXPECT_EQ(MeasurementError([&] { strict.Resample(SPECTRALSAMPLING_LINEAR); }, "gap"),
              "gap: spectral fields: wavelengths 450-730 nm do not reach down to 400 nm: 400-440 nm would be "
              "extrapolated, more than the 10 nm allowed at either end; measure 400-700 nm, or enable the extrapolate "
              "option to extrapolate from the end intervals");
    ZKSMeasurementOptions options;
    options.extrapolate = true;
    const ZKCMeasurementFile lenient = ZKCMeasurementFile::FromText("gap", text, MEASUREMENT_CONTENT_SPECTRA, options);
    EXPECT_EQ(lenient.Data().spectra, strict.Data().spectra);
    for (SPECTRALSAMPLING_METHOD method : {SPECTRALSAMPLING_LINEAR, SPECTRALSAMPLING_CUBICSPLINE}) {
        AlignedBuffer<float> out = lenient.Resample(method);
        // The linear method continues the first interval's line down to 400 nm.
        if (method == SPECTRALSAMPLING_LINEAR) {
            for (unsigned i = 0; i < kSpectralValues; ++i) EXPECT_NEAR(out[i], 0.45 + 0.01 * i, 2e-6) << i;
        }
        for (unsigned i = 0; i < kSpectralValues; ++i) EXPECT_TRUE(std::isfinite(out[i]));
    }
    // One 10 nm step at either end is no gap: 410-690 nm passes this rule (and the resampler's own then refuses it).
    const std::string oneStep = kDataDir + "bad_wavelength_range.txt";
    EXPECT_EQ(MeasurementError([&] { ZKCMeasurementFile(oneStep).Resample(SPECTRALSAMPLING_LINEAR); }, oneStep)
                  .find("would be extrapolated"),
              std::string::npos);
}

TEST(MeasurementFile, ValuesAFloatCannotHoldAreRefusedWithTheirLineAndField) {
    // One CIELAB value per case: device values, CIELAB and spectra share the rule.
    auto Chart = [](const std::string& labA) {
        return "CGATS.17\nNUMBER_OF_FIELDS 6\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400 SPECTRAL_NM700 LAB_L LAB_A "
               "LAB_B\nEND_DATA_FORMAT\nNUMBER_OF_SETS 2\nBEGIN_DATA\n1 0.5 0.6 50 0 0\n2 0.5 0.6 50 " +
               labA + " 0\nEND_DATA\n";
    };
    struct Case {
        const char* written;
        const char* problem;
    };
    const Case refused[] = {
        {"1.0e300", "line 9, field LAB_A: '1.0e300' is outside the range of a 32-bit float (magnitude at most "
                    "3.4028234663852886e+38)"},
        // The parser misreads this form; what was written decides the message.
        {"1e+300", "line 9, field LAB_A: '1e+300' is outside the range of a 32-bit float"},
        {"-3.5e38", "'-3.5e38' is outside the range of a 32-bit float"},
        {"1e99999", "'1e99999' is outside the range of a 32-bit float"},
        {"-inf", "'-inf' is not a number"},
    };
    for (const Case& c : refused) {
        const std::string what = MeasurementError([&] { ZKCMeasurementFile::FromText("m", Chart(c.written)); }, "m");
        EXPECT_NE(what.find(c.problem), std::string::npos) << c.written << " gave: " << what;
    }
    for (const char* fine : {"3.4e38", "-1.0e-300", "0.5e1"}) {
        const ZKCMeasurementFile f = ZKCMeasurementFile::FromText("m", Chart(fine), MEASUREMENT_CONTENT_LAB);
        EXPECT_EQ(f.Data().lab[4], std::strtod(fine, nullptr)) << fine;
    }
}

TEST(MeasurementFile, BrokenUtf16IsRefusedNamingWhere) {
    std::string text = "\xFF\xFE";
    for (char c : std::string("CGATS.17\n")) text += std::string(1, c) + '\0';
    text += std::string("\x00\xD8", 2);  // a high surrogate with nothing after it
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile::FromText("u", text); }, "u")
                  .find("is marked as UTF-16 but holds an unpaired surrogate at byte 18"),
              std::string::npos);
}

TEST(MeasurementFile, SpectralFieldNamesOtherToolsWriteAreRead) {
    // The same two-patch chart under every naming of its three bands.
    auto Chart = [](const std::string& a, const std::string& b) {
        return "CGATS.17\nNUMBER_OF_FIELDS 6\nBEGIN_DATA_FORMAT\nSAMPLE_ID RGB_R RGB_G RGB_B " + a + " " + b +
               "\nEND_DATA_FORMAT\nNUMBER_OF_SETS 2\nBEGIN_DATA\n1 0 0 0 0.5 0.6\n2 1 1 1 0.25 0.75\nEND_DATA\n";
    };
    const std::vector<std::pair<std::string, std::string>> names = {
        {"SPECTRAL_NM400", "SPECTRAL_NM700"}, {"SPECTRAL_NM_400", "SPECTRAL_NM_700"},
        {"SPECTRAL_NM0400", "SPECTRAL_NM0700"}, {"spectral_nm400", "Spectral_Nm700"},
        {"SPECTRAL_400", "SPECTRAL_700"}, {"SPEC_400", "SPEC_0700"}, {"spec_400", "spec_700"},
        {"nm400", "nm700"}, {"NM_400", "NM0700"}, {"R400", "R700"}, {"R_0400", "r_700"}};
    for (const auto& n : names) {
        const ZKCMeasurementFile f = ZKCMeasurementFile::FromText("names", Chart(n.first, n.second), MEASUREMENT_CONTENT_SPECTRA |
                                                                                      MEASUREMENT_CONTENT_DEVICE);
        EXPECT_EQ(f.Data().wavelengths, (std::vector<double>{400, 700})) << n.first;
        EXPECT_EQ(f.Data().spectra, (std::vector<float>{0.5f, 0.6f, 0.25f, 0.75f})) << n.first;
        EXPECT_EQ(f.Data().channelNames, (std::vector<std::string>{"RGB_R", "RGB_G", "RGB_B"})) << n.first;
    }
    // Names that only look like the short forms are other fields: a replicate
    // number, a name, a bare prefix.
    const std::string other =
        "CGATS.17\nNUMBER_OF_FIELDS 7\nBEGIN_DATA_FORMAT\nSAMPLE_ID R1 NAME NM R nm400 nm700\nEND_DATA_FORMAT\n"
        "NUMBER_OF_SETS 1\nBEGIN_DATA\n1 3 x 4 5 0.5 0.6\nEND_DATA\n";
    EXPECT_EQ(ZKCMeasurementFile::FromText("other", other).Data().wavelengths, (std::vector<double>{400, 700}));
    // The long prefixes mark spectral fields: a suffix that is not whole nm is an error.
    const std::string badSpec =
        "CGATS.17\nNUMBER_OF_FIELDS 3\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPEC_40O SPEC_700\nEND_DATA_FORMAT\n"
        "NUMBER_OF_SETS 1\nBEGIN_DATA\n1 0.5 0.6\nEND_DATA\n";
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile::FromText("bad", badSpec); }, "bad")
                  .find("cannot read the wavelength of field SPEC_40O"),
              std::string::npos);
    // Two names for one wavelength.
    const std::string twice =
        "CGATS.17\nNUMBER_OF_FIELDS 3\nBEGIN_DATA_FORMAT\nSAMPLE_ID R400 SPECTRAL_NM400\nEND_DATA_FORMAT\n"
        "NUMBER_OF_SETS 1\nBEGIN_DATA\n1 0.5 0.6\nEND_DATA\n";
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile::FromText("twice", twice); }, "twice")
                  .find("wavelength 400 nm appears in two spectral fields"),
              std::string::npos);
}

TEST(MeasurementFile, XyzFieldsAreReadAsWrittenAllThreeOrNone) {
    const std::string xyz =
        "CGATS.17\nNUMBER_OF_FIELDS 5\nBEGIN_DATA_FORMAT\nSAMPLE_ID XYZ_X XYZ_Y XYZ_Z SPECTRAL_NM400\n"
        "END_DATA_FORMAT\nNUMBER_OF_SETS 2\nBEGIN_DATA\n1 96.42 100 82.49 0.9\n2 0.123456789012345 1.5 2.25 0.1\n"
        "END_DATA\n";
    const ZKCMeasurementFile f = ZKCMeasurementFile::FromText("xyz", xyz);
    // All digits as written, beyond the ten the CGATS parser keeps.
    EXPECT_EQ(f.Data().xyz, (std::vector<double>{96.42, 100, 82.49, 0.123456789012345, 1.5, 2.25}));
    EXPECT_FALSE(f.Data().HasLab());
    std::string partial = xyz;
    partial.replace(partial.find("XYZ_Z"), 5, "XYZ_Q");
    EXPECT_NE(MeasurementError([&] { ZKCMeasurementFile::FromText("partial", partial); }, "partial")
                  .find("CIE XYZ fields incomplete, missing XYZ_Z"),
              std::string::npos);
}

TEST(MeasurementFile, FieldCountAfterTheDataFormatIsRefusedBeforeTheParserReadsIt) {
    // A larger NUMBER_OF_FIELDS between the data format and the data made the
    // parser read field names past their array (found by the fuzzer; this
    // first text is its finding, reduced).
    struct Case {
        const char* name;
        std::string text;
        const char* problem;
    };
    const std::string format = "NUMBER_OF_FIELDS 3\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400 SPECTRAL_NM700\n"
                               "END_DATA_FORMAT\n";
    // Six values in rows of three: one set of six fields to the parser, as the count says.
    const std::string data = "NUMBER_OF_SETS 1\nBEGIN_DATA\n1 0.5 0.6\n0.7 0.8 0.9\nEND_DATA\n";
    const Case refused[] = {
        {"fuzzer", "NUMBER_OF_FIELDS\t3\nBEGIN_DATA_FORMAT\nA\tS0\t\x95\nEND_DATA_FORMAT\nNUMBER_OF_SETS\t1\n\n"
                   "NUMBER_OF_FIELDS\t6\nBEGIN_DATA",
         "line 7: NUMBER_OF_FIELDS follows the data format (line 2); give it once, before "
         "BEGIN_DATA_FORMAT"},
        {"lower case", "CGATS.17\n" + format + "number_of_fields 6\n" + data, "line 6: NUMBER_OF_FIELDS follows"},
        // The parser reads two pairs from this line: ORIGINATOR "x" and NUMBER_OF_FIELDS 6.
        {"second pair", "CGATS.17\n" + format + "ORIGINATOR \"x\" NUMBER_OF_FIELDS 6\n" + data,
         "line 6: NUMBER_OF_FIELDS follows"},
        // A carriage return ends the parser's string, so the count is read.
        {"string ended by CR", "CGATS.17\n" + format + "ORIGINATOR \"x\rNUMBER_OF_FIELDS 6\n" + data,
         "line 6: NUMBER_OF_FIELDS follows"},
        {"second format", "CGATS.17\n" + format + "NUMBER_OF_FIELDS 6\n" + format + data,
         "line 6: NUMBER_OF_FIELDS follows the data format (line 3)"},
    };
    for (const Case& c : refused) {
        const std::string what = MeasurementError([&] { ZKCMeasurementFile::FromText("m", c.text); }, "m");
        EXPECT_NE(what.find(c.problem), std::string::npos) << c.name << " gave: " << what;
    }
    // The name in a string, a comment, a sample ID, or as the next table's own count.
    const std::string rows = "NUMBER_OF_SETS 2\nBEGIN_DATA\n1 0.5 0.6\nNUMBER_OF_FIELDS 0.4 0.5\nEND_DATA\n";
    const std::string fine[] = {
        "CGATS.17\n" + format + "ORIGINATOR \"NUMBER_OF_FIELDS 6\"\n" + rows,
        "CGATS.17\n" + format + "# NUMBER_OF_FIELDS 6\n" + rows,
        "CGATS.17\n" + format + rows + "CGATS.17\nNUMBER_OF_FIELDS 2\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400\n"
                                       "END_DATA_FORMAT\nNUMBER_OF_SETS 1\nBEGIN_DATA\n1 0.5\nEND_DATA\n",
    };
    for (const std::string& text : fine) {
        const ZKCMeasurementFile f = ZKCMeasurementFile::FromText("m", text);
        EXPECT_EQ(f.Data().sampleIds, (std::vector<std::string>{"1", "NUMBER_OF_FIELDS"})) << text;
        EXPECT_EQ(f.Data().spectra, (std::vector<float>{0.5f, 0.6f, 0.4f, 0.5f})) << text;
    }
}

TEST(MeasurementFile, CountsAreWholeNumbersTheTextCanHold) {
    // 3000 fields and one row of 3000 values: rows the right length, so only
    // the count is wrong. The parser sized its field names by (count + 1) * 8
    // bytes in 32 bits: 2^29 wrapped to 8 bytes and the names overran them.
    std::string names = "SAMPLE_ID", row = "1";
    for (int k = 1; k < 3000; ++k) names += " F" + std::to_string(k), row += " 0.5";
    auto Chart = [&](const std::string& fields, const std::string& sets) {
        return "CGATS.17\nNUMBER_OF_FIELDS " + fields + "\nBEGIN_DATA_FORMAT\n" + names + "\nEND_DATA_FORMAT\n" +
               "NUMBER_OF_SETS " + sets + "\nBEGIN_DATA\n" + row + "\nEND_DATA\n";
    };
    const std::string bytes = std::to_string(Chart("536870912", "1").size());
    struct Case {
        std::string fields, sets, problem;
    };
    const Case refused[] = {
        {"536870912", "1", "line 2: NUMBER_OF_FIELDS is 536870912, more values than a file of " + bytes +
                               " bytes can hold"},
        {"3000", "2147483647", "line 6: NUMBER_OF_SETS is 2147483647: with NUMBER_OF_FIELDS 3000 that is more"},
        {"3000", "7", "line 6: NUMBER_OF_SETS is 7: with NUMBER_OF_FIELDS 3000 that is more values"},
        {"3000", std::string(400, '9'),
         "line 6: NUMBER_OF_SETS is 99999999999999999999...: with NUMBER_OF_FIELDS 3000"},
        {"0x0BB8", "1", "line 2: NUMBER_OF_FIELDS '0x0BB8' is not a whole number"},
        {"3e3", "1", "line 2: NUMBER_OF_FIELDS '3e3' is not a whole number"},
        {"3000", "\n1", "line 6: NUMBER_OF_SETS has no value"},
    };
    for (const Case& c : refused) {
        const std::string what =
            MeasurementError([&] { ZKCMeasurementFile::FromText("m", Chart(c.fields, c.sets)); }, "m");
        EXPECT_NE(what.find(c.problem), std::string::npos)
            << c.fields << " x " << c.sets.substr(0, 20) << " gave: " << what;
    }
    // Written as the parser reads them too: quoted, or with leading zeros.
    for (const auto& counts : {std::make_pair("3000", "1"), std::make_pair("\"3000\"", "\"1\""),
                               std::make_pair("003000", "01")}) {
        const ZKCMeasurementFile f =
            ZKCMeasurementFile::FromText("m", Chart(counts.first, counts.second), MEASUREMENT_CONTENT_ANY);
        EXPECT_EQ(f.Data().sampleIds, std::vector<std::string>{"1"}) << counts.first;
    }
}

TEST(MeasurementFile, IncludeDirectivesAreRefusedWhereverTheParserWouldFollowThem) {
    // The parser would open the named file from the disk; this one exists, so
    // only the refusal stops it.
    const std::string included = kDataDir + "good_latin1.txt";
    auto Chart = [](const std::string& header, const std::string& row) {
        return "CGATS.17\nNUMBER_OF_FIELDS 2\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400\nEND_DATA_FORMAT\n" + header +
               "NUMBER_OF_SETS 1\nBEGIN_DATA\n" + row + "\nEND_DATA\n";
    };
    const std::string directive = "\"" + included + "\"";
    const std::pair<std::string, const char*> refused[] = {
        {Chart(".INCLUDE " + directive + "\n", "1 0.5"), "line 6: a measurement file must hold all its data; it "
                                                           "cannot include another file (.INCLUDE)"},
        {Chart("$include " + directive + "\n", "1 0.5"), "line 6: "},
        {Chart("", "$INCLUDE " + directive), "line 8: "},  // in the data section too
        {Chart("ORIGINATOR \"x\" .INCLUDE " + directive + "\n", "1 0.5"), "line 6: "},
    };
    for (const auto& c : refused) {
        const std::string what = MeasurementError([&] { ZKCMeasurementFile::FromText("m", c.first); }, "m");
        EXPECT_NE(what.find(c.second), std::string::npos) << c.first << " gave: " << what;
        EXPECT_NE(what.find("cannot include another file"), std::string::npos) << what;
    }
    // Only a directive counts: the words in a value or a comment do not.
    for (const std::string& header : {"ORIGINATOR \".INCLUDE " + included + "\"\n", std::string("# $INCLUDE x\n")}) {
        const ZKCMeasurementFile f = ZKCMeasurementFile::FromText("m", Chart(header, "1 0.5"));
        EXPECT_EQ(f.Data().spectra, std::vector<float>{0.5f}) << header;
    }
}

TEST(MeasurementFile, OnlyTheFirstTableReachesTheParser) {
    auto Table = [](const std::string& value) {
        return "NUMBER_OF_FIELDS 2\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400\nEND_DATA_FORMAT\nNUMBER_OF_SETS 1\n"
               "BEGIN_DATA\n1 " + value + "\nEND_DATA\n";
    };
    // 300 tables made the parser write past its table array.
    std::string many = "CGATS.17\n";
    for (int k = 0; k < 300; ++k) many += Table(k == 0 ? "0.5" : "0.25");
    // What would be refused in the first table does not matter after it.
    const std::string later[] = {
        many,
        "CGATS.17\n" + Table("0.5") + "NUMBER_OF_FIELDS 2\nBEGIN_DATA_FORMAT\nA B\nEND_DATA_FORMAT\nNUMBER_OF_FIELDS 9\n",
        "CGATS.17\n" + Table("0.5") + ".INCLUDE \"/dev/stdin\"\n",
        "CGATS.17\n" + Table("0.5") + "not CGATS at all: \x01\x02 {}\n",
    };
    for (const std::string& text : later) {
        const ZKCMeasurementFile f = ZKCMeasurementFile::FromText("m", text);
        EXPECT_EQ(f.Data().spectra, std::vector<float>{0.5f}) << text.substr(0, 200);
    }
}
