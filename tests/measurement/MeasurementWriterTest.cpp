// The CGATS writer against the library's own reader: write -> read gives the
// same values bit for bit and the same header, for the real chart and for
// values chosen to be awkward (IDs that need quoting, doubles with 17
// digits, tiny and huge magnitudes, negative zero), and every table CGATS
// cannot hold is refused before anything is written.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelma/common/AtomicFile.h"
#include "kelma/measurement/ZKCMeasurementWriter.h"
#include "tests/support/ScratchFiles.h"

using namespace kelma;

namespace {

const std::string kChart = std::string(KELMA_TEST_DATA_DIR) + "/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";

template <class T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

void ExpectSameData(const ZKSMeasurementData& a, const ZKSMeasurementData& b) {
    EXPECT_EQ(a.sampleIds, b.sampleIds);
    EXPECT_EQ(a.channelNames, b.channelNames);
    EXPECT_TRUE(SameBits(a.deviceValues, b.deviceValues));
    EXPECT_TRUE(SameBits(a.xyz, b.xyz));
    EXPECT_TRUE(SameBits(a.lab, b.lab));
    EXPECT_TRUE(SameBits(a.wavelengths, b.wavelengths));
    EXPECT_TRUE(SameBits(a.spectra, b.spectra));
}

// A table with everything: IDs that need quoting, device values, XYZ (0-100),
// CIELAB and 31 bands, values with all 17 digits of a double.
ZKSMeasurementData AwkwardTable() {
    ZKSMeasurementData d;
    d.sampleIds = {"1", "paper white", "A#1", "", "'quoted", "Caf\xC3\xA9", "007", "x,y"};
    d.channelNames = {"CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"};
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const std::size_t n = d.sampleIds.size();
    for (std::size_t p = 0; p < n; ++p) {
        for (int c = 0; c < 4; ++c) d.deviceValues.push_back(100.0 * unit(rng));
        for (int c = 0; c < 3; ++c) d.xyz.push_back(100.0 * unit(rng));
        d.lab.push_back(100.0 * unit(rng));
        d.lab.push_back(200.0 * unit(rng) - 100.0);
        d.lab.push_back(200.0 * unit(rng) - 100.0);
        for (int b = 0; b < 31; ++b) d.spectra.push_back(static_cast<float>(1.2 * unit(rng)));
    }
    // Magnitudes that tempt exponent notation, which the CGATS parser misreads.
    d.deviceValues[0] = 0.1 + 0.2;
    d.deviceValues[1] = 1e-7;
    d.deviceValues[2] = -0.0;
    d.deviceValues[3] = 12345678901234.5;
    d.lab[0] = 1e20;
    d.spectra[0] = 1e-6f;
    d.spectra[1] = 0.0f;
    d.spectra[2] = -0.05f;
    d.spectra[3] = std::nextafter(1.0f, 2.0f);
    for (int b = 0; b < 31; ++b) d.wavelengths.push_back(400.0 + 10.0 * b);
    return d;
}

std::string ErrorOf(const ZKCMeasurementWriter& w) {
    try {
        w.Text();
    } catch (const ZKCMeasurementError& e) {
        EXPECT_EQ(e.File(), "CGATS output");
        return e.Problem();
    }
    return "";
}

}  // namespace

TEST(MeasurementWriter, AwkwardTableReadsBackBitForBit) {
    const ZKSMeasurementData d = AwkwardTable();
    const ZKSMeasurementKeywords keywords = {{"ORIGINATOR", "kelma tests"},
                                            {"DESCRIPTOR", "tab\there, caf\xC3\xA9"},
                                            {"ILLUMINATION_NAME", "D50"},
                                            {"OBSERVER_ANGLE", "2"},
                                            {"WEIGHTING_FUNCTION", "ILLUMINANT, D50"},
                                            {"WEIGHTING_FUNCTION", "OBSERVER, 2 degree"},
                                            {"NUMBER_OF_SETS", "99"},  // the table's own count wins
                                            {"MY_OWN_KEYWORD", "value"}};
    const std::string text = ZKCMeasurementWriter(d, keywords).Text();
    EXPECT_EQ(text.compare(0, 9, "CGATS.17\n"), 0);
    // No exponent form anywhere (the CGATS parser misreads 1e-07).
    EXPECT_EQ(text.find("e-"), std::string::npos);
    EXPECT_EQ(text.find("e+"), std::string::npos);

    const ZKCMeasurementFile back = ZKCMeasurementFile::FromText(
        "back", text, MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_LAB | MEASUREMENT_CONTENT_DEVICE);
    ExpectSameData(d, back.Data());
    EXPECT_TRUE(std::signbit(back.Data().deviceValues[2]));
    EXPECT_EQ(back.Property("ORIGINATOR"), "kelma tests");
    EXPECT_EQ(back.Property("DESCRIPTOR"), "tab\there, caf\xC3\xA9");
    EXPECT_EQ(back.Property("ILLUMINATION_NAME"), "D50");
    EXPECT_EQ(back.Property("OBSERVER_ANGLE"), "2");
    EXPECT_EQ(back.Property("MY_OWN_KEYWORD"), "value");
    EXPECT_EQ(back.Property("NUMBER_OF_SETS"), "8");
    EXPECT_EQ(back.Property("SPECTRAL_BANDS"), "31");
    EXPECT_EQ(back.Property("SPECTRAL_START_NM"), "400");
    EXPECT_EQ(back.Property("SPECTRAL_END_NM"), "700");
    std::vector<std::string> weighting;
    for (const auto& p : back.Properties())
        if (p.first == "WEIGHTING_FUNCTION") weighting.push_back(p.second);
    EXPECT_EQ(weighting, (std::vector<std::string>{"ILLUMINANT, D50", "OBSERVER, 2 degree"}));
}

TEST(MeasurementWriter, RealChartAndItsHeaderSurviveARoundTrip) {
    const ZKCMeasurementFile chart(kChart, MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
    ASSERT_EQ(chart.Data().PatchCount(), 1617u);
    const std::string text = ZKCMeasurementWriter(chart.Data(), chart.Properties()).Text();
    const ZKCMeasurementFile back = ZKCMeasurementFile::FromText("back", text);
    ExpectSameData(chart.Data(), back.Data());
    // Every keyword of the original comes back with its value, in order (the
    // counts and spectral keywords being the table's own).
    std::vector<std::pair<std::string, std::string>> original, again;
    for (const auto& p : chart.Properties())
        if (p.first.compare(0, 7, "NUMBER_") != 0 && p.first.compare(0, 9, "SPECTRAL_") != 0) original.push_back(p);
    for (const auto& p : back.Properties())
        if (p.first.compare(0, 7, "NUMBER_") != 0 && p.first.compare(0, 9, "SPECTRAL_") != 0) again.push_back(p);
    EXPECT_EQ(original, again);
    EXPECT_EQ(chart.Property("WEIGHTING_FUNCTION"), "ILLUMINANT,\tD50");
    EXPECT_EQ(back.Property("SPECTRAL_BANDS"), "36");
    // Writing what was read back gives the same text again.
    EXPECT_EQ(ZKCMeasurementWriter(back.Data(), back.Properties()).Text(), text);
}

TEST(MeasurementWriter, SpectralFieldsOnlyAndUnevenBands) {
    ZKSMeasurementData d;
    d.sampleIds = {"a", "b"};
    d.wavelengths = {380, 400, 405, 700, 730};
    d.spectra = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.7f, 0.8f, 0.9f, 1.0f};
    const std::string text = ZKCMeasurementWriter(d, {}).Text();
    EXPECT_NE(text.find("SAMPLE_ID\tSPECTRAL_NM380\tSPECTRAL_NM400\tSPECTRAL_NM405"), std::string::npos) << text;
    const ZKCMeasurementFile back = ZKCMeasurementFile::FromText("back", text);
    ExpectSameData(d, back.Data());
    EXPECT_EQ(back.Property("SPECTRAL_BANDS"), "5");
    EXPECT_EQ(back.Property("SPECTRAL_START_NM"), "");  // uneven spacing: no start and end
}

TEST(MeasurementWriter, TablesCgatsCannotHoldAreRefused) {
    const ZKSMeasurementData good = AwkwardTable();
    struct Case {
        const char* what;
        void (*spoil)(ZKSMeasurementData&, ZKSMeasurementKeywords&);
        const char* problem;
    };
    const Case cases[] = {
        {"no patches",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) {
             d = ZKSMeasurementData();
         },
         "no patches to write"},
        {"quote in an ID", [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.sampleIds[2] = "say \"hi\""; },
         "sample 3: the ID holds a double quote or a control character"},
        {"line break in an ID", [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.sampleIds[0] = "a\nb"; },
         "sample 1: the ID holds"},
        {"tab in an ID", [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.sampleIds[1] = "a\tb"; },
         "sample 2: the ID holds"},
        {"keyword not a name", [](ZKSMeasurementData&, ZKSMeasurementKeywords& k) { k = {{"MY KEY", "v"}}; },
         "header keyword 'MY KEY' is not a name"},
        {"quote in a keyword value",
         [](ZKSMeasurementData&, ZKSMeasurementKeywords& k) { k = {{"DESCRIPTOR", "a \"b\""}}; },
         "header keyword DESCRIPTOR: the value holds a double quote"},
        {"line break in a keyword value",
         [](ZKSMeasurementData&, ZKSMeasurementKeywords& k) { k = {{"DESCRIPTOR", "a\nb"}}; },
         "header keyword DESCRIPTOR: the value holds"},
        {"repeated keyword without a pair",
         [](ZKSMeasurementData&, ZKSMeasurementKeywords& k) { k = {{"CREATED", "today"}, {"CREATED", "now"}}; },
         "header keyword CREATED is given more than once"},
        {"channel not a name", [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.channelNames[1] = "CMYK M"; },
         "device channel 'CMYK M' is not a field name"},
        {"channel twice", [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.channelNames[1] = "CMYK_C"; },
         "field CMYK_C appears twice"},
        {"channel named like a colour field",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.channelNames[3] = "LAB_L"; },
         "field LAB_L appears twice"},
        {"NaN device value",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.deviceValues[5] = std::nan(""); },
         "sample paper white, field CMYK_M: NaN cannot be written"},
        {"infinite Lab",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) {
             d.lab[4] = std::numeric_limits<double>::infinity();
         },
         "sample paper white, field LAB_A: an infinite value cannot be written"},
        {"NaN in a spectrum",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.spectra[31 + 30] = std::nanf(""); },
         "sample paper white, field SPECTRAL_NM700: NaN"},
        {"fractional wavelength",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.wavelengths[3] = 430.5; },
         "wavelength 430.5 is not a whole number of nanometres"},
        {"descending wavelengths",
         [](ZKSMeasurementData& d, ZKSMeasurementKeywords&) { d.wavelengths[3] = 410; },
         "wavelengths must be strictly ascending, 410 follows 420"},
    };
    for (const Case& c : cases) {
        ZKSMeasurementData d = good;
        ZKSMeasurementKeywords k;
        c.spoil(d, k);
        EXPECT_NE(ErrorOf(ZKCMeasurementWriter(d, k)).find(c.problem), std::string::npos)
            << c.what << ": " << ErrorOf(ZKCMeasurementWriter(d, k));
    }
    // Little CMS's table size: 32766 patches are written and read, one more is refused.
    ZKSMeasurementData large;
    large.channelNames = {"CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"};
    for (std::size_t p = 0; p < kMaxMeasurementTableSize; ++p) {
        large.sampleIds.push_back(std::to_string(p));
        large.deviceValues.insert(large.deviceValues.end(), {double(p % 101), 0.0, 50.0, 100.0});
    }
    const ZKCMeasurementFile largeBack = ZKCMeasurementFile::FromText(
        "large", ZKCMeasurementWriter(large, {}).Text(), MEASUREMENT_CONTENT_DEVICE);
    EXPECT_TRUE(SameBits(largeBack.Data().deviceValues, large.deviceValues));
    large.sampleIds.push_back("one more");
    large.deviceValues.insert(large.deviceValues.end(), {0.0, 0.0, 0.0, 0.0});
    EXPECT_EQ(ErrorOf(ZKCMeasurementWriter(large, {})),
              "32767 patches are more than the 32766 a CGATS table holds (a limit of Little CMS)");

    // Sizes that disagree with the patch count are the caller's error.
    ZKSMeasurementData shortLab = good;
    shortLab.lab.pop_back();
    EXPECT_THROW(ZKCMeasurementWriter(shortLab, {}), std::invalid_argument);
    ZKSMeasurementData shortSpectra = good;
    shortSpectra.wavelengths.pop_back();
    EXPECT_THROW(ZKCMeasurementWriter(shortSpectra, {}), std::invalid_argument);
}

TEST(MeasurementWriter, WriteIsAtomicAndLeavesNothingOnFailure) {
    const std::string dir = kelma_test::ScratchDir("cgats_writer");
    const std::string path = dir + "/out.txt";
    const ZKSMeasurementData d = AwkwardTable();
    ZKCMeasurementWriter(d, {{"ORIGINATOR", "first"}}).Write(path);
    ExpectSameData(d, ZKCMeasurementFile(path).Data());

    // A table refused: the earlier file stays, nothing beside it.
    ZKSMeasurementData bad = d;
    bad.lab[0] = std::nan("");
    EXPECT_THROW(ZKCMeasurementWriter(bad, {}).Write(path), ZKCMeasurementError);
    EXPECT_EQ(ZKCMeasurementFile(path).Property("ORIGINATOR"), "first");
    // A folder that does not exist: the file system's error, naming the file.
    try {
        ZKCMeasurementWriter(d, {}).Write(dir + "/missing/out.txt");
        ADD_FAILURE() << "no error";
    } catch (const ZKCFileWriteError& e) {
        EXPECT_NE(std::string(e.what()).find(dir + "/missing/out.txt"), std::string::npos) << e.what();
    }
    EXPECT_EQ(kelma_test::DirEntries(dir), std::vector<std::string>{"out.txt"});
}
