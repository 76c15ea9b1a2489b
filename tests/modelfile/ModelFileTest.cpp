// The model file: every value round-trips bit for bit in both precisions, a
// described model comes back with the same content and predictions, each
// kind of damage is a clear error naming the file, and writing is atomic.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelma/kelma.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/ScratchFiles.h"
#include "tests/support/TestSupport.h"
#include "tests/support/Fnv1a64.h"

using namespace kelma;
using kelma_test::MakeTestModel;
using kelma_test::ZKSTestModel;
using kelma_test::DirEntries;
using kelma_test::ScratchDir;

namespace {

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool SameDoubles(const std::vector<double>& a, const std::vector<double>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

// Replaces the checksum so that it matches the (altered) content again.
std::string Reseal(const std::string& text) {
    const std::size_t at = text.rfind("checksum fnv1a64 ");
    if (at == std::string::npos) return text;
    const std::size_t eol = text.find('\n', at);
    return text.substr(0, at) + "checksum fnv1a64 " + kelma_test::Fnv1a64Hex(text.substr(0, at)) + text.substr(eol);
}

std::string ReplaceOnce(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

// A CMYK file in float32 precision from the test model generator.
ZKSModelFile SmallFile() {
    const ZKSTestModel t = MakeTestModel(4, 3, 2.2, 11);
    const ZKCSSE_KELMA_Data model = t.Build();
    ZKSModelFile f = ZKSModelFile::Describe(model);
    f.inkNames = {"Cyan", "Magenta", "Yellow", "Black"};
    f.provenance.chart = "chart.txt";
    f.provenance.fitMethod = "refined";
    f.provenance.fitPatches = 81;
    f.provenance.fitErrorMean = 0.25;
    f.provenance.fitErrorP95 = 0.5;
    f.provenance.fitErrorMax = 1.25;
    return f;
}

// Raises each block's constant coefficient (corner 0) so that every corner
// sum is positive, whatever the other coefficients: a valid model holding
// arbitrary values. float32: the raised value is a float.
void MakeCornerSumsPositive(std::vector<double>& scheme, unsigned int inks, bool float32) {
    const std::size_t corners = std::size_t{1} << inks;
    for (std::size_t b = 0; b < scheme.size(); b += corners) {
        double others = 0.0;
        for (std::size_t k = 1; k < corners; ++k) others += std::fabs(scheme[b + k]);
        double c0 = std::max(scheme[b], 2.0 * others + 1.0);
        if (float32) c0 = std::nextafter(static_cast<float>(c0), std::numeric_limits<float>::infinity());
        scheme[b] = c0;
    }
}

std::vector<float> Predict(const ZKCSSE_KELMA_Data& model, const std::vector<unsigned char>& inks) {
    const unsigned int count = static_cast<unsigned int>(inks.size() / model.NumberOfInks());
    AlignedBuffer<float> out(std::size_t{count} * kSpectrumStride);
    std::vector<unsigned char> in(inks);
    ZKCSSE_KELMA_Thread driver(model, count, in.data(), out.data());
    driver.Wait();
    return std::vector<float>(out.data(), out.data() + out.size());
}

std::vector<unsigned char> RandomInks(unsigned int inks, unsigned int count, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> v(std::size_t{inks} * count);
    for (auto& b : v) b = static_cast<unsigned char>(rng() & 0xFF);
    return v;
}

bool SameFloats(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

std::string ErrorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ZKCModelFileError& e) {
        return e.what();
    }
    return "";
}

}  // namespace

// ---------------------------------------------------------------------------
// Exactness

TEST(ModelFile, Float32ValuesRoundTripBitForBit) {
    ZKSModelFile f = SmallFile();
    // Awkward float32 values: the smallest subnormal, -0, 0.1f, 1/3, values
    // whose shortest form needs 9 digits, random bit patterns (any sign and
    // mantissa, exponents from 2^-126 to 2^-4: a valid model predicts no
    // reflectance above the check's bound, which keeps coefficients small).
    const float specials[] = {std::numeric_limits<float>::denorm_min(), -0.0f, 0.1f, 1.0f / 3.0f, 0.0123456789f,
                              -1.17549435e-38f, 8.589973e-9f, 1.0000001f, 0.99999994f, -3.4028233e-30f};
    std::mt19937 rng(5);
    for (std::size_t k = 0; k < f.matrixScheme.size(); ++k) {
        std::uint32_t bits = rng();
        bits = (bits & 0x807FFFFFu) | ((1u + (bits >> 23 & 0xFFu) % 123u) << 23);
        float v;
        std::memcpy(&v, &bits, 4);
        f.matrixScheme[k] = k >= 1 && k <= std::size(specials) ? specials[k - 1] : v;
    }
    MakeCornerSumsPositive(f.matrixScheme, 4, true);
    // One block whose terms span the whole float range below it.
    const std::size_t lastBlock = f.matrixScheme.size() - 16;
    for (std::size_t k = 1; k < 16; ++k) f.matrixScheme[lastBlock + k] = std::ldexp(1.0, -120 - int(k));
    const std::string text = f.Format();
    const ZKSModelFile back = ZKSModelFile::Parse(text, "<memory>");
    EXPECT_TRUE(SameDoubles(back.matrixScheme, f.matrixScheme));
    EXPECT_TRUE(SameDoubles(back.effectiveRamps, f.effectiveRamps));
    EXPECT_TRUE(SameDoubles(back.gridPoints, f.gridPoints));
    EXPECT_EQ(std::memcmp(&back.n, &f.n, sizeof(double)), 0);
    EXPECT_EQ(back.Format(), text);
    EXPECT_EQ(std::signbit(back.matrixScheme[2]), true);
    EXPECT_EQ(back.matrixScheme[1], std::numeric_limits<float>::denorm_min());
    // Shortest forms: 0.1f is written "0.1", not its 17-digit double.
    EXPECT_NE(text.find(" 0.1 "), std::string::npos);
    EXPECT_NE(text.find(" 8.589973e-09 "), std::string::npos);
}

TEST(ModelFile, Float64ValuesRoundTripBitForBit) {
    ZKSModelFile f = SmallFile();
    f.precision = MODELFILE_FLOAT64;
    std::mt19937_64 rng(9);
    std::uniform_real_distribution<double> u(-4.0, 4.0);
    // Magnitudes from 4e-42 to 0.4 (a valid model's coefficients stay small).
    for (double& v : f.matrixScheme) v = u(rng) * std::pow(10.0, static_cast<int>(rng() % 41) - 42);
    f.matrixScheme[1] = 5e-324;  // float32 rounding 0: still a finite float
    f.matrixScheme[2] = 0.1;
    MakeCornerSumsPositive(f.matrixScheme, 4, false);
    f.n = 2.2000000000000002;
    const std::string text = f.Format();
    const ZKSModelFile back = ZKSModelFile::Parse(text, "<memory>");
    EXPECT_TRUE(SameDoubles(back.matrixScheme, f.matrixScheme));
    EXPECT_EQ(back.n, f.n);
    EXPECT_EQ(back.precision, MODELFILE_FLOAT64);
    EXPECT_EQ(back.Format(), text);
}

TEST(ModelFile, DescribedModelsComeBackWithTheSameContentAndPredictions) {
    ZKCIlluminant_CIED65 d65;
    ZKCIlluminant_CIEA a;
    ZKCIlluminant_CIEF11 f11;
    const ZKCLighting_Matrix tenDegree(ZKCObserver(OBSERVER_CIE1964_10), {&d65, &a, &f11});
    struct Case {
        unsigned int inks, grid;
        bool mediaRelative;
    };
    for (const Case c : {Case{4, 4, false}, Case{6, 3, true}, Case{7, 2, false}}) {
        const ZKSTestModel t = MakeTestModel(c.inks, c.grid, 1.7, c.inks);
        const ZKCSSE_KELMA_Data model = t.Build(tenDegree, c.mediaRelative);
        const ZKSModelFile f = ZKSModelFile::Describe(model);
        ASSERT_EQ(f.illuminants.size(), 3u);
        EXPECT_EQ(f.observer, 10u);
        EXPECT_EQ(f.illuminants[0].name, "D65");
        EXPECT_EQ(f.illuminants[1].name, "A");
        EXPECT_EQ(f.illuminants[2].name, "F11");
        EXPECT_TRUE(f.rampWeights.empty());
        const ZKSModelFile back = ZKSModelFile::Parse(f.Format(), "<memory>");
        const ZKCSSE_KELMA_Data rebuilt = back.Model();
        EXPECT_TRUE(SameModelContent(rebuilt, model)) << c.inks << " inks";
        const std::vector<unsigned char> inks = RandomInks(c.inks, 500, 3);
        EXPECT_TRUE(SameFloats(Predict(rebuilt, inks), Predict(model, inks)));
    }
}

TEST(ModelFile, ALookupTableFromFloat64RampsIsKept) {
    const ZKSTestModel t = MakeTestModel(4, 5, 2.0, 21);
    const ZKCSSE_KELMA_Data fromDoubles(4, 5, t.grid.data(), t.ramps.data(), t.scheme.data(), t.n,
                                        kelma_test::D50Matrix(), INK_SET_CMYK, false, false, kSpectralValues);
    const ZKCSSE_KELMA_Data fromFloats = t.Build();
    // The premise: the two constructors give different tables for these ramps.
    ASSERT_FALSE(SameModelContent(fromDoubles, fromFloats));
    const ZKSModelFile f = ZKSModelFile::Describe(fromDoubles);
    ASSERT_EQ(f.rampWeights.size(), 4u * 256u);
    const std::string text = f.Format();
    EXPECT_NE(text.find("\nramp_weights\n"), std::string::npos);
    const ZKCSSE_KELMA_Data rebuilt = ZKSModelFile::Parse(text, "<memory>").Model();
    EXPECT_TRUE(SameModelContent(rebuilt, fromDoubles));
    const std::vector<unsigned char> inks = RandomInks(4, 2000, 8);
    EXPECT_TRUE(SameFloats(Predict(rebuilt, inks), Predict(fromDoubles, inks)));
    EXPECT_FALSE(SameFloats(Predict(fromFloats, inks), Predict(fromDoubles, inks)));
}

TEST(ModelFile, IlluminantsOfUnknownOriginAndMeasuredSpectra) {
    const ZKSTestModel t = MakeTestModel(4, 3, 2.0, 4);
    // A matrix nobody can name: D50 weights, one value nudged.
    std::vector<float> weights(kLightingBlock);
    std::copy_n(kelma_test::D50Matrix().Weights(), kLightingBlock, weights.data());
    weights[40] = std::nextafter(weights[40], 1.0f);
    const ZKCSSE_KELMA_Data model = t.Build(ZKCLighting_Matrix(weights.data(), 1), false);
    const ZKSModelFile f = ZKSModelFile::Describe(model);
    EXPECT_EQ(f.observer, 0u);
    ASSERT_EQ(f.illuminants.size(), 1u);
    EXPECT_EQ(f.illuminants[0].name, "weights");
    const std::string text = f.Format();
    EXPECT_NE(text.find("\nobserver unknown\n"), std::string::npos);
    EXPECT_TRUE(SameModelContent(ZKSModelFile::Parse(text, "<memory>").Model(), model));

    // An spd illuminant gives the lighting matrix of ZKCIlluminant_Measure.
    std::vector<double> spd(31);
    for (int w = 0; w < 31; ++w) spd[w] = 0.5 + 0.01 * w + 1e-9 * w * w;
    ZKSModelFile s = SmallFile();
    s.illuminants.assign(1, ZKSModelIlluminant{"spd", spd, {}});
    const ZKSModelFile sBack = ZKSModelFile::Parse(s.Format(), "<memory>");
    EXPECT_TRUE(SameDoubles(sBack.illuminants[0].spd, spd));
    ZKCIlluminant_Measure measured(spd);
    const ZKCLighting_Matrix expected(ZKCObserver(OBSERVER_CIE1931_2), &measured);
    EXPECT_EQ(std::memcmp(sBack.LightingMatrix().Weights(), expected.Weights(), kLightingBlock * sizeof(float)), 0);
}

TEST(ModelFile, ProvenanceAndNamesAreKept) {
    const ZKSModelFile f = SmallFile();
    const ZKSModelFile back = ZKSModelFile::Parse(f.Format(), "<memory>");
    EXPECT_EQ(back.inkNames, f.inkNames);
    EXPECT_EQ(back.provenance.chart, "chart.txt");
    EXPECT_EQ(back.provenance.fitMethod, "refined");
    EXPECT_EQ(back.provenance.fitPatches, 81u);
    EXPECT_EQ(back.provenance.fitErrorMean, 0.25);
    EXPECT_EQ(back.provenance.fitErrorP95, 0.5);
    EXPECT_EQ(back.provenance.fitErrorMax, 1.25);
    EXPECT_EQ(back.provenance.software, std::string("kelma ") + KELMA_VERSION);
    EXPECT_TRUE(std::isnan(ZKSModelProvenance().fitErrorMean));
}

TEST(ModelFile, WindowsLineEndsReadTheSame) {
    const std::string text = SmallFile().Format();
    std::string crlf;
    for (char c : text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    EXPECT_EQ(ZKSModelFile::Parse(crlf, "crlf").Format(), text);
}

TEST(ModelFile, SameModelContentSeesEveryField) {
    const ZKSTestModel t = MakeTestModel(4, 3, 2.0, 4);
    const ZKCSSE_KELMA_Data a = t.Build();
    EXPECT_TRUE(SameModelContent(a, t.Build()));
    EXPECT_TRUE(SameModelContent(a, ZKCSSE_KELMA_Data(a)));
    ZKCSSE_KELMA_Data flag(a);
    flag.SetIsMediaRelative(true);
    EXPECT_FALSE(SameModelContent(a, flag));
    ZKSTestModel nudged = t;
    nudged.scheme[100] = std::nextafter(static_cast<float>(nudged.scheme[100]), 9.0f);
    EXPECT_FALSE(SameModelContent(a, nudged.Build()));
    ZKCIlluminant_CIED50 d50;
    EXPECT_FALSE(SameModelContent(a, t.Build(ZKCLighting_Matrix(ZKCObserver(OBSERVER_CIE1964_10), &d50), false)));
}

// ---------------------------------------------------------------------------
// Damage: every kind is an error that names the file and the problem.

TEST(ModelFile, EachKindOfDamageIsAClearError) {
    const std::string good = SmallFile().Format();
    const std::size_t scheme = good.find("\nmatrix_scheme\n");
    ASSERT_NE(scheme, std::string::npos);
    struct Case {
        const char* kind;
        std::function<std::string()> make;
        const char* expected;
    };
    auto lineAfter = [&](const std::string& marker) {
        const std::size_t at = good.find(marker) + marker.size();
        return good.substr(at, good.find('\n', at) - at);
    };
    const std::string firstSchemeLine = lineAfter("\nmatrix_scheme\n");
    const std::vector<Case> cases = {
        {"empty", [] { return std::string(); }, "is empty"},
        {"blank", [] { return std::string("\n \n"); }, "is empty"},
        {"zip archive", [] {
             static const char zip[] = "PK\x03\x04rest of an npz";
             return std::string(zip, sizeof zip - 1);
         },
         "zip archive"},
        {"binary", [] {
             static const char elf[] = "\x7f" "ELF\x02\x01\x01\0\0\0";
             return std::string(elf, sizeof elf - 1);
         },
         "binary file"},
        {"old text model", [] { return std::string("# kelma printer model\nINKS 4\nGRID_POINTS 3\n"); },
         "kelma 0.1 text model"},
        {"foreign text", [] { return std::string("CGATS.17\nORIGINATOR \"x\"\n"); }, "not a kelma model file"},
        {"newer version", [&] { return ReplaceOnce(good, "kelma-model 1\n", "kelma-model 2\n"); },
         "version 2 model file, written by a newer kelma"},
        {"malformed version", [&] { return ReplaceOnce(good, "kelma-model 1\n", "kelma-model one\n"); },
         "malformed version line"},
        {"truncated in the coefficients", [&] { return good.substr(0, scheme + 5000); }, "truncated"},
        {"truncated at a line end", [&] { return good.substr(0, good.find('\n', scheme + 5000) + 1); },
         "the file ends inside matrix_scheme after"},
        {"truncated in the header", [&] { return good.substr(0, good.find("\ngrid_levels")); },
         "before the grid_levels section: it is truncated"},
        {"no end line", [&] { return good.substr(0, good.rfind("end\n")); }, "without the 'end' line"},
        {"checksum mismatch", [&] { return ReplaceOnce(good, firstSchemeLine, "1" + firstSchemeLine); },
         "checksum mismatch"},
        {"altered checksum", [&] { return ReplaceOnce(good, "checksum fnv1a64 ", "checksum fnv1a64 0"); },
         "checksum mismatch"},
        {"not a number", [&] { return Reseal(ReplaceOnce(good, firstSchemeLine, "x" + firstSchemeLine)); },
         "is not a number"},
        {"not finite", [&] { return Reseal(ReplaceOnce(good, "\nn 2.2\n", "\nn nan\n")); }, "not a finite number"},
        {"out of float32 range",
         [&] { return Reseal(ReplaceOnce(good, "\ngrid_levels\n0 ", "\ngrid_levels\n1e39 ")); },
         "out of the float32 range"},
        {"short row", [&] {
             const std::size_t cut = firstSchemeLine.rfind(' ');
             return Reseal(ReplaceOnce(good, firstSchemeLine, firstSchemeLine.substr(0, cut)));
         },
         "has 15 values, 16 expected"},
        {"missing rows", [&] { return Reseal(ReplaceOnce(good, firstSchemeLine + "\n", "")); },
         "matrix_scheme has 495 lines, 496 expected"},
        {"unknown keyword", [&] { return Reseal(ReplaceOnce(good, "\nink_set", "\ncolour red\nink_set")); },
         "unknown keyword 'colour'"},
        {"duplicate keyword", [&] { return Reseal(ReplaceOnce(good, "\nink_set", "\nn 2\nink_set")); },
         "'n' appears twice"},
        {"missing keyword", [&] { return Reseal(ReplaceOnce(good, "\nn 2.2\n", "\n")); },
         "no 'n' line before grid_levels"},
        {"unsupported ink count", [&] { return Reseal(ReplaceOnce(good, "\ninks 4\n", "\ninks 5\n")); },
         "inks must be 4, 6 or 7"},
        {"ink names missing", [&] { return Reseal(ReplaceOnce(good, "\nink Black\n", "\n")); },
         "3 ink lines for 4 inks"},
        {"grid not from 0", [&] { return Reseal(ReplaceOnce(good, "\ngrid_levels\n0 ", "\ngrid_levels\n1 ")); },
         "model arrays: the grid of ink 1 must start at 0 and end at 255"},
        {"unknown illuminant", [&] { return Reseal(ReplaceOnce(good, "illuminant D50", "illuminant D55")); },
         "unknown illuminant 'D55'"},
        {"bad observer", [&] { return Reseal(ReplaceOnce(good, "observer 2", "observer 5")); },
         "observer must be 2, 10 or unknown"},
        {"bad flag", [&] { return Reseal(ReplaceOnce(good, "media_relative no", "media_relative maybe")); },
         "media_relative must be yes or no"},
        {"text after end", [&] { return good + "more\n"; }, "text after 'end'"},
        {"duplicate ink names", [&] { return Reseal(ReplaceOnce(good, "ink Black", "ink Cyan")); },
         "are both 'Cyan'"},
    };
    for (const Case& c : cases) {
        const std::string message = ErrorOf([&] { ZKSModelFile::Parse(c.make(), "damaged.kelma"); });
        EXPECT_EQ(message.rfind("damaged.kelma: ", 0), 0u) << c.kind << ": " << message;
        EXPECT_NE(message.find(c.expected), std::string::npos) << c.kind << ": " << message;
    }
    // Ascending grid: ink 1's levels 0 m 255 become 0 255 m.
    const std::string levels = lineAfter("\ngrid_levels\n");
    const std::string middle = levels.substr(2, levels.rfind(' ') - 2);
    const std::string descending = Reseal(ReplaceOnce(good, "\ngrid_levels\n" + levels + "\n",
                                                      "\ngrid_levels\n0 255 " + middle + "\n"));
    EXPECT_NE(ErrorOf([&] { ZKSModelFile::Parse(descending, "g"); }).find("strictly ascending"), std::string::npos);
    // A missing file names the file.
    const std::string missing = ErrorOf([] { ZKSModelFile::Read("/nonexistent/dir/model.kelma"); });
    EXPECT_EQ(missing.rfind("/nonexistent/dir/model.kelma: cannot open", 0), 0u) << missing;
}

TEST(ModelFile, ContentThatNoFileMayHoldIsRefusedWhenWriting) {
    struct Case {
        const char* field;
        std::function<void(ZKSModelFile&)> spoil;
    };
    const std::vector<Case> cases = {
        {"ink name", [](ZKSModelFile& f) { f.inkNames[1] = "Mag\nenta"; }},
        {"ink names", [](ZKSModelFile& f) { f.inkNames.pop_back(); }},
        {"matrix_scheme", [](ZKSModelFile& f) { f.matrixScheme[7] = std::nan(""); }},
        {"matrix_scheme", [](ZKSModelFile& f) { f.matrixScheme.pop_back(); }},
        {"effective_ramps", [](ZKSModelFile& f) { f.effectiveRamps[3] = 0.1; }},  // not a float32
        {"model arrays: n", [](ZKSModelFile& f) { f.n = -1.0; }},
        {"model arrays: grid level 2 of ink 1", [](ZKSModelFile& f) { f.gridPoints[1] = 101.5; }},
        {"model arrays: cell 0 predicts", [](ZKSModelFile& f) { f.matrixScheme[16] = -5.0; }},
        {"model arrays: the ramp of ink 2 falls", [](ZKSModelFile& f) { f.effectiveRamps[256 + 5] = 0.75; }},
        {"illuminant 1", [](ZKSModelFile& f) { f.illuminants[0].name = "D55"; }},
        {"illuminants", [](ZKSModelFile& f) { f.illuminants.clear(); }},
        {"chart", [](ZKSModelFile& f) { f.provenance.chart = "two\nlines"; }},
        {"fit_error_de2000", [](ZKSModelFile& f) { f.provenance.fitErrorMax = std::nan(""); }},
        {"ramp_weights", [](ZKSModelFile& f) { f.rampWeights.assign(4 * 256, 0.5f); }},
        // A paper of 1e-40 (every corner of cell 0 at 1e-20, squared):
        // paper-relative colours would be infinite.
        {"illuminants: illuminant 1: the paper's X", [](ZKSModelFile& f) {
             for (std::size_t w = 0; w < 31; ++w)
                 for (std::size_t k = 0; k < 16; ++k) f.matrixScheme[w * 16 + k] = k == 0 ? double{1e-20f} : 0.0;
         }},
        // A second illuminant whose white has no Z.
        {"illuminants: illuminant 2: its white's Z", [](ZKSModelFile& f) {
             const ZKCLighting_Matrix d50 = kelma_test::D50Matrix();
             ZKSModelIlluminant il{"weights", {}, {}};
             il.weights.assign(d50.Weights(), d50.Weights() + 31);                        // X
             il.weights.insert(il.weights.end(), d50.Weights() + 32, d50.Weights() + 63);  // Y
             il.weights.resize(93, 0.0f);                                                  // Z
             f.illuminants.push_back(il);
         }},
    };
    for (const Case& c : cases) {
        ZKSModelFile f = SmallFile();
        c.spoil(f);
        const std::string message = ErrorOf([&] { f.Format(); });
        EXPECT_NE(message.find(c.field), std::string::npos) << c.field << ": '" << message << "'";
    }
}

// ---------------------------------------------------------------------------
// Writing

TEST(ModelFile, WritesExactlyTheNameGivenAtomically) {
    const std::string dir = ScratchDir("modelfile-write");
    const ZKSModelFile f = SmallFile();
    // No extension is added, and nothing else stays behind.
    f.Write(dir + "/press");
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"press"});
    EXPECT_EQ(Slurp(dir + "/press"), f.Format());
    EXPECT_TRUE(SameModelContent(ZKSModelFile::Read(dir + "/press").Model(), f.Model()));

    // An existing file is replaced whole and keeps its permissions.
    ::chmod((dir + "/press").c_str(), 0640);
    ZKSModelFile g = f;
    g.provenance.chart = "another.txt";
    g.Write(dir + "/press");
    struct stat st {};
    ASSERT_EQ(::stat((dir + "/press").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(ZKSModelFile::Read(dir + "/press").provenance.chart, "another.txt");

    // Invalid content leaves the old file untouched and no temporary file.
    ZKSModelFile bad = f;
    bad.n = 0.0;
    const std::string before = Slurp(dir + "/press");
    const std::string message = ErrorOf([&] { bad.Write(dir + "/press"); });
    EXPECT_EQ(message.rfind("cannot write " + dir + "/press: model arrays: n (the Yule-Nielsen exponent)", 0), 0u)
        << message;
    EXPECT_EQ(Slurp(dir + "/press"), before);
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"press"});

    // A directory that does not exist, and a directory in the way, are named.
    const std::string nodir = ErrorOf([&] { f.Write(dir + "/missing/press.kelma"); });
    EXPECT_NE(nodir.find(dir + "/missing/press.kelma"), std::string::npos) << nodir;
    ::mkdir((dir + "/sub").c_str(), 0755);
    const std::string isdir = ErrorOf([&] { f.Write(dir + "/sub"); });
    EXPECT_NE(isdir.find("is a directory"), std::string::npos) << isdir;
    EXPECT_EQ(DirEntries(dir + "/sub").size(), 0u);
}
