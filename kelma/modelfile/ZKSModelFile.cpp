#include "kelma/modelfile/ZKSModelFile.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>

#include "kelma/colorimetry/StandardIlluminants.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/common/AlignedBuffer.h"
#include "kelma/common/AtomicFile.h"
#include "kelma/common/Version.h"
#include "kelma/model/ModelValidation.h"
#include "kelma/modelbuilding/DefaultPressModelData.h"
#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

namespace KELMA_NAMESPACE {

ZKCModelFileError::ZKCModelFileError(const std::string& message) : std::runtime_error(message) {}
ZKCModelFileError::~ZKCModelFileError() = default;

ZKSModelProvenance::ZKSModelProvenance()
    : fitErrorMean(std::numeric_limits<double>::quiet_NaN()),
      fitErrorP95(std::numeric_limits<double>::quiet_NaN()),
      fitErrorMax(std::numeric_limits<double>::quiet_NaN()) {}

namespace {

constexpr std::size_t kBands = kSpectralValues;
constexpr std::size_t kWeightsPerIlluminant = 3 * kSpectralValues;
const char* const kMagic = "kelma-model";

// The library's standard illuminants, under their canonical names only (a
// file names them exactly as it was written).
std::unique_ptr<ZKCIlluminant_Base> NamedIlluminant(const std::string& name) {
    for (const std::string& known : StandardIlluminantNames())
        if (known == name) return MakeStandardIlluminant(name);
    return nullptr;
}

bool IsNamedIlluminant(const std::string& name) { return NamedIlluminant(name) != nullptr; }

// Coefficients of a model: 31 (G-1)^N 2^N, in long double so that overflow of
// the library's 32-bit count can be detected first.
long double CoefficientCount(unsigned int inks, unsigned int gridPoints) {
    long double cells = 1;
    for (unsigned int i = 0; i < inks; ++i) cells *= static_cast<long double>(gridPoints) - 1;
    return cells * kBands * static_cast<long double>(1u << inks);
}

bool SupportedInks(unsigned int n) { return n == 4 || n == 6 || n == 7; }

std::uint64_t Fnv1a64(std::string_view bytes) {
    std::uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : bytes) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

std::string Hex16(std::uint64_t v) {
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(v));
    return buf;
}

// Shortest decimal form that reads back to the same float32 / float64.
void AppendNumber(std::string& out, double v, MODELFILE_PRECISION precision) {
    char buf[40];
    const std::to_chars_result r = precision == MODELFILE_FLOAT32
                                       ? std::to_chars(buf, buf + sizeof buf, static_cast<float>(v))
                                       : std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

std::string Quote(std::string_view text) {
    std::string shown;
    for (char c : text.substr(0, 40)) shown += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    if (text.size() > 40) shown += "...";
    return "'" + shown + "'";
}

bool HasControlCharacter(const std::string& s) {
    for (unsigned char c : s)
        if (c < 0x20 || c == 0x7f) return true;
    return false;
}

std::string Ordinal(std::size_t i) { return std::to_string(i + 1); }

// ---------------------------------------------------------------------------
// Reading

enum class Key {
    Precision, Inks, GridPoints, Ink, N, InkSet, MediaRelative, Absolute, Observer, Illuminant,
    Description, Chart, FitMethod, FitPatches, FitError, Software,
};

const std::map<std::string_view, Key>& HeaderKeys() {
    static const std::map<std::string_view, Key> keys = {
        {"precision", Key::Precision},       {"inks", Key::Inks},
        {"grid_points", Key::GridPoints},    {"ink", Key::Ink},
        {"n", Key::N},                       {"ink_set", Key::InkSet},
        {"media_relative", Key::MediaRelative}, {"absolute_colorimetric", Key::Absolute},
        {"observer", Key::Observer},         {"illuminant", Key::Illuminant},
        {"description", Key::Description},   {"chart", Key::Chart},
        {"fit_method", Key::FitMethod},      {"fit_patches", Key::FitPatches},
        {"fit_error_de2000", Key::FitError}, {"software", Key::Software},
    };
    return keys;
}

bool IsSectionWord(std::string_view word) {
    return word == "grid_levels" || word == "effective_ramps" || word == "matrix_scheme" ||
           word == "ramp_weights" || word == "checksum" || word == "end";
}

class Parser {
public:
    Parser(std::string_view text, std::string source) : text_(text), source_(std::move(source)) {}

    ZKSModelFile Run();

private:
    struct Line {
        std::string_view text;
        std::size_t number = 0;  // 1-based
        std::size_t offset = 0;  // first byte in the text
        bool last = false;       // the file ends in this line, without a line end
    };

    [[noreturn]] void Fail(const std::string& problem) const { throw ZKCModelFileError(source_ + ": " + problem); }
    [[noreturn]] void FailAt(const Line& line, const std::string& problem) const {
        Fail("line " + std::to_string(line.number) + ": " + problem);
    }

    // The next line that is neither blank nor a comment; false at the end.
    bool Next(Line& line);
    void CheckStart();
    void VerifyChecksum(std::size_t checksumOffset, std::string_view stated, const Line* line);
    void PrecheckTail();

    void Header(ZKSModelFile& f, Line& line);
    void HeaderLine(ZKSModelFile& f, const Line& line, std::string_view key, std::string_view value);
    // `rows` lines of `perRow` numbers into doubles (in `precision`) or floats.
    void Rows(std::string_view name, std::size_t rows, std::size_t perRow, MODELFILE_PRECISION precision,
              std::vector<double>* doubles, std::vector<float>* floats);
    template <class T>
    T Number(const Line& line, std::string_view token, std::string_view what) const;
    template <class T>
    std::vector<T> Numbers(const Line& line, std::string_view values, std::size_t expected,
                           std::string_view what) const;
    unsigned long long Integer(const Line& line, std::string_view token, std::string_view what,
                               unsigned long long max) const;
    double Value(const Line& line, std::string_view token, MODELFILE_PRECISION precision,
                 std::string_view what) const;

    std::string_view text_;
    std::string source_;
    std::size_t pos_ = 0;
    std::size_t lineNumber_ = 0;
    std::map<Key, std::size_t> seen_;  // key -> first line
};

bool Parser::Next(Line& line) {
    while (pos_ < text_.size()) {
        const std::size_t end = text_.find('\n', pos_);
        const std::size_t stop = end == std::string_view::npos ? text_.size() : end;
        line.text = text_.substr(pos_, stop - pos_);
        line.offset = pos_;
        line.number = ++lineNumber_;
        line.last = end == std::string_view::npos;
        pos_ = end == std::string_view::npos ? text_.size() : end + 1;
        const std::size_t first = line.text.find_first_not_of(" \t");
        if (first == std::string_view::npos || line.text[first] == '#') continue;
        // Trailing blanks are not part of any item.
        const std::size_t last = line.text.find_last_not_of(" \t");
        line.text = line.text.substr(0, last + 1);
        return true;
    }
    return false;
}

void Parser::CheckStart() {
    if (text_.find_first_not_of(" \t\r\n") == std::string_view::npos)
        Fail("the file is empty, not a kelma model file");
    if (text_.substr(0, 4) == std::string_view("PK\x03\x04", 4))
        Fail("this is a zip archive (a NumPy .npz?), not a kelma model file; the .npz models of kelma 0.1 are "
             "not read: fit the chart again with 'kelma fit'");
    if (text_.substr(0, 4096).find('\0') != std::string_view::npos)
        Fail("this is a binary file, not a kelma model file");
    const std::size_t eol = text_.find('\n');
    std::string_view first = text_.substr(0, eol == std::string_view::npos ? text_.size() : eol);
    const std::string_view magic(kMagic);
    if (first.substr(0, magic.size()) != magic) {
        // The text format of kelma 0.1: comment lines, then INKS / GRID_POINTS / N.
        Line probe;
        std::size_t savePos = pos_, saveLine = lineNumber_;
        if (Next(probe) && probe.text.substr(0, 5) == "INKS ")
            Fail("this is a kelma 0.1 text model (INKS, GRID_POINTS, MATRIX_SCHEME sections), which this version "
                 "no longer reads; fit the chart again with 'kelma fit' or tools/kelma_fit_model");
        pos_ = savePos;
        lineNumber_ = saveLine;
        Fail("not a kelma model file: it starts with " + Quote(first) + ", a model file with '" + kMagic + " " +
             std::to_string(kModelFileVersion) + "'");
    }
    std::string_view rest = first.substr(magic.size());
    while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t')) rest.remove_suffix(1);
    unsigned long long version = 0;
    const auto r = std::from_chars(rest.data() + (rest.empty() ? 0 : 1), rest.data() + rest.size(), version);
    if (rest.empty() || rest[0] != ' ' || r.ec != std::errc() || r.ptr != rest.data() + rest.size())
        Fail("line 1: malformed version line " + Quote(first) + " (expected '" + kMagic + " " +
             std::to_string(kModelFileVersion) + "')");
    if (version > kModelFileVersion)
        Fail("this is a version " + std::to_string(version) + " model file, written by a newer kelma; this kelma (" +
             KELMA_VERSION + ") reads version " + std::to_string(kModelFileVersion));
    if (version != kModelFileVersion)
        Fail("line 1: model file version " + std::to_string(version) + " does not exist (this kelma reads version " +
             std::to_string(kModelFileVersion) + ")");
    pos_ = eol == std::string_view::npos ? text_.size() : eol + 1;
    lineNumber_ = 1;
}

void Parser::VerifyChecksum(std::size_t checksumOffset, std::string_view stated, const Line* line) {
    const std::string actual = Hex16(Fnv1a64(text_.substr(0, checksumOffset)));
    if (stated != actual) {
        const std::string where = line != nullptr ? "line " + std::to_string(line->number) + ": " : "";
        Fail(where + "checksum mismatch: the content hashes to " + actual + " but the file records " +
             std::string(stated) + "; the file was damaged or edited after it was written");
    }
}

// A complete file ends with its checksum and 'end' lines: check the checksum
// before anything else, so that damage is reported as damage rather than as
// whatever a changed byte happens to break.
void Parser::PrecheckTail() {
    std::string_view t = text_;
    auto lastLine = [](std::string_view& s, std::size_t& offset) -> std::string_view {
        while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
        const std::size_t nl = s.rfind('\n');
        offset = nl == std::string_view::npos ? 0 : nl + 1;
        std::string_view line = s.substr(offset);
        s = s.substr(0, offset);
        return line;
    };
    std::size_t endOffset = 0, checksumOffset = 0;
    const std::string_view last = lastLine(t, endOffset);
    if (last != "end") return;
    const std::string_view before = lastLine(t, checksumOffset);
    const std::string_view prefix = "checksum fnv1a64 ";
    if (before.substr(0, prefix.size()) != prefix) return;
    VerifyChecksum(checksumOffset, before.substr(prefix.size()), nullptr);
}

template <class T>
T Parser::Number(const Line& line, std::string_view token, std::string_view what) const {
    T v{};
    const auto r = std::from_chars(token.data(), token.data() + token.size(), v);
    if (r.ec == std::errc::result_out_of_range)
        FailAt(line, std::string(what) + ": " + Quote(token) + " is out of the " +
                         (sizeof(T) == 4 ? "float32" : "float64") + " range");
    if (r.ec != std::errc() || r.ptr != token.data() + token.size())
        FailAt(line, std::string(what) + ": " + Quote(token) + " is not a number");
    if (!std::isfinite(v)) FailAt(line, std::string(what) + ": " + Quote(token) + " is not a finite number");
    return v;
}

double Parser::Value(const Line& line, std::string_view token, MODELFILE_PRECISION precision,
                     std::string_view what) const {
    return precision == MODELFILE_FLOAT32 ? static_cast<double>(Number<float>(line, token, what))
                                          : Number<double>(line, token, what);
}

template <class T>
std::vector<T> Parser::Numbers(const Line& line, std::string_view values, std::size_t expected,
                               std::string_view what) const {
    std::vector<T> out;
    out.reserve(expected);
    std::size_t p = 0;
    while (p < values.size()) {
        const std::size_t start = values.find_first_not_of(" \t", p);
        if (start == std::string_view::npos) break;
        std::size_t stop = values.find_first_of(" \t", start);
        if (stop == std::string_view::npos) stop = values.size();
        if (out.size() == expected)
            FailAt(line, std::string(what) + " has more than the " + std::to_string(expected) + " values expected");
        out.push_back(Number<T>(line, values.substr(start, stop - start), what));
        p = stop;
    }
    if (out.size() != expected)
        FailAt(line, std::string(what) + " has " + std::to_string(out.size()) + " values, " +
                         std::to_string(expected) + " expected");
    return out;
}

unsigned long long Parser::Integer(const Line& line, std::string_view token, std::string_view what,
                                   unsigned long long max) const {
    unsigned long long v = 0;
    const auto r = std::from_chars(token.data(), token.data() + token.size(), v);
    if (r.ec != std::errc() || r.ptr != token.data() + token.size() || token.empty())
        FailAt(line, std::string(what) + " must be a whole number, got " + Quote(token));
    if (v > max) FailAt(line, std::string(what) + " must be at most " + std::to_string(max) + ", got " + Quote(token));
    return v;
}

void Parser::HeaderLine(ZKSModelFile& f, const Line& line, std::string_view key, std::string_view value) {
    const auto found = HeaderKeys().find(key);
    if (found == HeaderKeys().end()) {
        if (IsSectionWord(key)) FailAt(line, "section '" + std::string(key) + "' before grid_levels");
        FailAt(line, "unknown keyword " + Quote(key));
    }
    const Key k = found->second;
    if (k != Key::Ink && k != Key::Illuminant) {
        const auto [it, fresh] = seen_.emplace(k, line.number);
        if (!fresh)
            FailAt(line, "'" + std::string(key) + "' appears twice (also on line " + std::to_string(it->second) + ")");
    } else {
        seen_.emplace(k, line.number);
    }
    auto needPrecision = [&] {
        if (!seen_.count(Key::Precision)) FailAt(line, "'" + std::string(key) + "' before the precision line");
        return f.precision;
    };
    auto flag = [&](bool& out) {
        if (value == "yes") out = true;
        else if (value == "no") out = false;
        else FailAt(line, std::string(key) + " must be yes or no, got " + Quote(value));
    };
    switch (k) {
        case Key::Precision:
            if (value == "float32") f.precision = MODELFILE_FLOAT32;
            else if (value == "float64") f.precision = MODELFILE_FLOAT64;
            else FailAt(line, "precision must be float32 or float64, got " + Quote(value));
            break;
        case Key::Inks:
            f.numberOfInks = static_cast<unsigned int>(Integer(line, value, "inks", 64));
            if (!SupportedInks(f.numberOfInks))
                FailAt(line, "inks must be 4, 6 or 7, got " + std::to_string(f.numberOfInks));
            break;
        case Key::GridPoints:
            f.numberOfGridPoints = static_cast<unsigned int>(Integer(line, value, "grid_points", 256));
            if (f.numberOfGridPoints < 2) FailAt(line, "grid_points must be at least 2, got " + std::string(value));
            break;
        case Key::Ink:
            if (value.empty()) FailAt(line, "an ink line needs a name");
            f.inkNames.emplace_back(value);
            break;
        case Key::N:
            f.n = Value(line, value, needPrecision(), "n");
            break;
        case Key::InkSet:
            f.inkSet = static_cast<INK_SET>(Integer(line, value, "ink_set", 0xFFFFFFFFull));
            break;
        case Key::MediaRelative:
            flag(f.isMediaRelative);
            break;
        case Key::Absolute:
            flag(f.printAbsolutColorimetric);
            break;
        case Key::Observer:
            if (value == "2") f.observer = OBSERVER_CIE1931_2;
            else if (value == "10") f.observer = OBSERVER_CIE1964_10;
            else if (value == "unknown") f.observer = 0;
            else FailAt(line, "observer must be 2, 10 or unknown, got " + Quote(value));
            break;
        case Key::Illuminant: {
            ZKSModelIlluminant il;
            const std::size_t space = value.find(' ');
            const std::string_view kind = value.substr(0, space);
            const std::string_view rest = space == std::string_view::npos ? std::string_view() : value.substr(space + 1);
            if (kind == "spd") {
                il.name = "spd";
                il.spd = Numbers<double>(line, rest, kBands, "illuminant spd");
            } else if (kind == "weights") {
                il.name = "weights";
                il.weights = Numbers<float>(line, rest, kWeightsPerIlluminant, "illuminant weights");
            } else if (space == std::string_view::npos && IsNamedIlluminant(std::string(kind))) {
                il.name = std::string(kind);
            } else {
                FailAt(line, "unknown illuminant " + Quote(value) +
                                 " (A, D50, D65, E, F1, F2, F11, spd with 31 values or weights with 93)");
            }
            f.illuminants.push_back(std::move(il));
            break;
        }
        case Key::Description:
            f.provenance.description = std::string(value);
            break;
        case Key::Chart:
            f.provenance.chart = std::string(value);
            break;
        case Key::FitMethod:
            f.provenance.fitMethod = std::string(value);
            break;
        case Key::FitPatches:
            f.provenance.fitPatches = static_cast<std::size_t>(Integer(line, value, "fit_patches", 1ull << 40));
            break;
        case Key::FitError: {
            const std::vector<double> e = Numbers<double>(line, value, 3, "fit_error_de2000 (mean, p95, max)");
            f.provenance.fitErrorMean = e[0];
            f.provenance.fitErrorP95 = e[1];
            f.provenance.fitErrorMax = e[2];
            break;
        }
        case Key::Software:
            f.provenance.software = std::string(value);
            break;
    }
}

void Parser::Header(ZKSModelFile& f, Line& line) {
    while (true) {
        if (!Next(line))
            Fail("the file ends after line " + std::to_string(lineNumber_) +
                 " before the grid_levels section: it is truncated");
        if (line.text == "grid_levels") break;
        const std::size_t space = line.text.find(' ');
        const std::string_view key = line.text.substr(0, space);
        const std::string_view value =
            space == std::string_view::npos ? std::string_view() : line.text.substr(space + 1);
        HeaderLine(f, line, key, value);
    }
    static const std::pair<Key, const char*> required[] = {
        {Key::Precision, "precision"}, {Key::Inks, "inks"},     {Key::GridPoints, "grid_points"},
        {Key::N, "n"},                 {Key::InkSet, "ink_set"}, {Key::MediaRelative, "media_relative"},
        {Key::Absolute, "absolute_colorimetric"}, {Key::Observer, "observer"}, {Key::Illuminant, "illuminant"},
        {Key::Ink, "ink"},
    };
    for (const auto& [key, name] : required)
        if (!seen_.count(key)) FailAt(line, std::string("no '") + name + "' line before grid_levels");
    if (f.inkNames.size() != f.numberOfInks)
        FailAt(line, std::to_string(f.inkNames.size()) + " ink lines for " + std::to_string(f.numberOfInks) +
                         " inks (one name per ink)");
    if (CoefficientCount(f.numberOfInks, f.numberOfGridPoints) >= 4294967296.0L)
        FailAt(line, std::to_string(f.numberOfInks) + " inks on " + std::to_string(f.numberOfGridPoints) +
                         " grid points need more coefficients than the library can address (2^32)");
}

void Parser::Rows(std::string_view name, std::size_t rows, std::size_t perRow, MODELFILE_PRECISION precision,
                  std::vector<double>* doubles, std::vector<float>* floats) {
    Line line;
    const std::string sectionName(name);
    if (doubles) doubles->reserve(rows * perRow);
    if (floats) floats->reserve(rows * perRow);
    for (std::size_t r = 0; r < rows; ++r) {
        if (!Next(line))
            Fail("the file ends inside " + sectionName + " after " + std::to_string(r) + " of " +
                 std::to_string(rows) + " lines: it is truncated");
        const std::size_t space = line.text.find_first_of(" \t");
        const std::string_view first = line.text.substr(0, space);
        if (IsSectionWord(first))
            FailAt(line, sectionName + " has " + std::to_string(r) + " lines, " + std::to_string(rows) + " expected");
        const std::string what = sectionName + " line " + Ordinal(r);
        std::size_t p = 0, count = 0;
        while (true) {
            const std::size_t start = line.text.find_first_not_of(" \t", p);
            if (start == std::string_view::npos) break;
            std::size_t stop = line.text.find_first_of(" \t", start);
            if (stop == std::string_view::npos) stop = line.text.size();
            if (count == perRow)
                FailAt(line, what + " has more than the " + std::to_string(perRow) + " values expected");
            const std::string_view token = line.text.substr(start, stop - start);
            if (floats) floats->push_back(Number<float>(line, token, what));
            else doubles->push_back(Value(line, token, precision, what));
            ++count;
            p = stop;
        }
        if (count != perRow && line.last)
            FailAt(line, "the file ends in the middle of " + what + ": it is truncated");
        if (count != perRow)
            FailAt(line, what + " has " + std::to_string(count) + " values, " + std::to_string(perRow) + " expected");
    }
}

ZKSModelFile Parser::Run() {
    CheckStart();
    PrecheckTail();
    ZKSModelFile f;
    Line line;
    Header(f, line);
    const std::size_t N = f.numberOfInks, G = f.numberOfGridPoints;
    std::size_t cells = 1;
    for (std::size_t i = 0; i < N; ++i) cells *= G - 1;

    Rows("grid_levels", N, G, f.precision, &f.gridPoints, nullptr);
    auto expectSection = [&](const char* name) {
        if (!Next(line)) Fail(std::string("the file ends before the ") + name + " section: it is truncated");
        if (line.text != name) FailAt(line, std::string("expected the ") + name + " section, got " + Quote(line.text));
    };
    expectSection("effective_ramps");
    Rows("effective_ramps", N, 256, f.precision, &f.effectiveRamps, nullptr);
    expectSection("matrix_scheme");
    Rows("matrix_scheme", cells * kBands, std::size_t{1} << N, f.precision, &f.matrixScheme, nullptr);

    if (!Next(line)) Fail("the file ends after matrix_scheme, without its checksum: it is truncated");
    if (line.text == "ramp_weights") {
        Rows("ramp_weights", N, 256, MODELFILE_FLOAT32, nullptr, &f.rampWeights);
        if (!Next(line)) Fail("the file ends after ramp_weights, without its checksum: it is truncated");
    }
    const std::string_view prefix = "checksum fnv1a64 ";
    if (line.text.substr(0, prefix.size()) != prefix)
        FailAt(line, "expected the checksum line ('checksum fnv1a64 ...'), got " + Quote(line.text));
    VerifyChecksum(line.offset, line.text.substr(prefix.size()), &line);
    if (!Next(line)) Fail("the file ends after its checksum, without the 'end' line: it is truncated");
    if (line.text != "end") FailAt(line, "expected 'end', got " + Quote(line.text));
    if (Next(line)) FailAt(line, "text after 'end': " + Quote(line.text));

    try {
        f.Check();
    } catch (const ZKCModelFileError& e) {
        Fail(e.what());
    }
    return f;
}

std::string NormalizeLineEnds(const std::string& text) {
    if (text.find('\r') == std::string::npos) return text;
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) out += text[i];
    return out;
}

// ---------------------------------------------------------------------------
// Checking

[[noreturn]] void Invalid(const std::string& what) { throw ZKCModelFileError(what); }

void CheckValues(const std::vector<double>& v, std::size_t expected, const char* name, MODELFILE_PRECISION p) {
    if (v.size() != expected)
        Invalid(std::string(name) + ": " + std::to_string(v.size()) + " values, " + std::to_string(expected) +
                " expected");
    for (std::size_t i = 0; i < v.size(); ++i) {
        const float f = static_cast<float>(v[i]);
        if (!std::isfinite(v[i]) || !std::isfinite(f)) {
            std::ostringstream s;
            s << name << ": value " << i << " (" << v[i] << ") is not a finite float32 number";
            Invalid(s.str());
        }
        if (p == MODELFILE_FLOAT32 && static_cast<double>(f) != v[i]) {
            std::ostringstream s;
            s.precision(17);
            s << name << ": value " << i << " (" << v[i] << ") is not a float32 number (precision is float32)";
            Invalid(s.str());
        }
    }
}

}  // namespace

void ZKSModelFile::Check() const {
    if (precision != MODELFILE_FLOAT32 && precision != MODELFILE_FLOAT64)
        Invalid("precision must be float32 or float64");
    const unsigned int N = numberOfInks, G = numberOfGridPoints;
    if (!SupportedInks(N)) Invalid("inks: a model has 4, 6 or 7 inks, got " + std::to_string(N));
    if (G < 2 || G > 256) Invalid("grid_points: 2 to 256 levels per ink, got " + std::to_string(G));
    const long double coefficients = CoefficientCount(N, G);
    if (coefficients >= 4294967296.0L)
        Invalid("grid_points: " + std::to_string(N) + " inks on " + std::to_string(G) +
                " levels need more coefficients than the library can address (2^32)");

    if (inkNames.size() != N)
        Invalid("ink names: " + std::to_string(inkNames.size()) + " names for " + std::to_string(N) + " inks");
    for (std::size_t i = 0; i < N; ++i) {
        const std::string& name = inkNames[i];
        if (name.empty() || name.front() == ' ' || name.back() == ' ' || HasControlCharacter(name))
            Invalid("ink name " + Ordinal(i) + " " + Quote(name) +
                    " must be non-empty, without control characters or spaces at either end");
        for (std::size_t j = 0; j < i; ++j)
            if (inkNames[j] == name) Invalid("ink names " + Ordinal(j) + " and " + Ordinal(i) + " are both " + Quote(name));
    }

    CheckValues(gridPoints, std::size_t{N} * G, "grid_levels", precision);
    CheckValues(effectiveRamps, std::size_t{N} * 256, "effective_ramps", precision);
    CheckValues(matrixScheme, static_cast<std::size_t>(coefficients), "matrix_scheme", precision);
    CheckValues(std::vector<double>{n}, 1, "n", precision);
    // The model itself, as every front end checks a model's arrays: the
    // float32 values it is built from.
    const std::vector<float> gridF(gridPoints.begin(), gridPoints.end()),
        rampsF(effectiveRamps.begin(), effectiveRamps.end()), schemeF(matrixScheme.begin(), matrixScheme.end());
    const std::string problem = CheckModelArrays(N, G, gridF.data(), rampsF.data(), schemeF.data(), schemeF.size(),
                                                 static_cast<float>(n));
    if (!problem.empty()) Invalid("model arrays: " + problem);

    if (!rampWeights.empty()) {
        if (rampWeights.size() != std::size_t{N} * 256)
            Invalid("ramp_weights: " + std::to_string(rampWeights.size()) + " values, " +
                    std::to_string(N * 256) + " expected");
        for (float w : rampWeights)
            if (!std::isfinite(w)) Invalid("ramp_weights: every weight must be finite");
        // At a grid level (below 255) every table has weight 0: the paper and
        // the nodes are predicted exactly as the ramps say.
        for (unsigned int i = 0; i < N; ++i)
            for (unsigned int g = 0; g + 1 < G; ++g) {
                const std::size_t t = static_cast<std::size_t>(gridPoints[std::size_t{i} * G + g]);
                if (rampWeights[std::size_t{i} * 256 + t] != 0.0f)
                    Invalid("ramp_weights: ink " + Ordinal(i) + " has weight " +
                            std::to_string(rampWeights[std::size_t{i} * 256 + t]) + " at its grid level " +
                            std::to_string(t) + ", where it must be 0");
            }
    }

    if (observer != 0 && observer != OBSERVER_CIE1931_2 && observer != OBSERVER_CIE1964_10)
        Invalid("observer: 2, 10 or unknown, got " + std::to_string(observer));
    if (illuminants.empty()) Invalid("illuminants: a model needs at least one illuminant");
    for (std::size_t k = 0; k < illuminants.size(); ++k) {
        const ZKSModelIlluminant& il = illuminants[k];
        const std::string which = "illuminant " + Ordinal(k);
        if (il.name == "spd") {
            if (il.spd.size() != kBands || !il.weights.empty())
                Invalid(which + ": an spd illuminant has 31 values, got " + std::to_string(il.spd.size()));
            if (observer == 0) Invalid(which + ": an spd illuminant needs the observer (2 or 10)");
            double weighted = 0.0;
            const ZKCObserver cie(static_cast<OBSERVER_TYPE>(observer));
            const std::vector<double>& cmf = cie.Observer();
            for (std::size_t w = 0; w < kBands; ++w) {
                if (!std::isfinite(il.spd[w]) || il.spd[w] < 0.0)
                    Invalid(which + ": spd values must be finite and >= 0, value " + std::to_string(w) + " is " +
                            std::to_string(il.spd[w]));
                weighted += cmf[kBands + w] * il.spd[w];
            }
            if (!(weighted > 0.0)) Invalid(which + ": the spd gives no luminance (sum of ybar x spd is 0)");
        } else if (il.name == "weights") {
            if (il.weights.size() != kWeightsPerIlluminant || !il.spd.empty())
                Invalid(which + ": a weights illuminant has 93 values, got " + std::to_string(il.weights.size()));
            for (float w : il.weights)
                if (!std::isfinite(w)) Invalid(which + ": weights must be finite");
        } else {
            if (!IsNamedIlluminant(il.name))
                Invalid(which + ": unknown name " + Quote(il.name) + " (A, D50, D65, E, F1, F2, F11, spd, weights)");
            if (!il.spd.empty() || !il.weights.empty()) Invalid(which + ": a named illuminant carries no values");
            if (observer == 0) Invalid(which + ": a named illuminant needs the observer (2 or 10)");
        }
    }

    const ZKSModelProvenance& p = provenance;
    const std::pair<const std::string*, const char*> texts[] = {
        {&p.description, "description"}, {&p.chart, "chart"}, {&p.fitMethod, "fit_method"}, {&p.software, "software"}};
    for (const auto& [text, name] : texts)
        if (HasControlCharacter(*text) || (!text->empty() && (text->front() == ' ' || text->back() == ' ')))
            Invalid(std::string(name) + ": one line of text without control characters or spaces at either end, got " +
                    Quote(*text));
    const double errors[] = {p.fitErrorMean, p.fitErrorP95, p.fitErrorMax};
    const int known = std::isnan(errors[0]) ? 0 : 1;
    for (double e : errors) {
        if (std::isnan(e) != (known == 0)) Invalid("fit_error_de2000: give mean, p95 and max together");
        if (!std::isnan(e) && (!std::isfinite(e) || e < 0.0))
            Invalid("fit_error_de2000: CIEDE2000 values are finite and >= 0, got " + std::to_string(e));
    }

    // The colorimetry the model will have: the blank paper (every ink at 0)
    // is cell 0 at local coordinates 0, its spectrum corner 0 of cell 0 to
    // the power n.
    const ZKCLighting_Matrix lighting = LightingMatrix();
    const std::size_t corners = std::size_t{1} << N;
    AlignedBuffer<float> paper(kSpectrumStride);
    for (std::size_t w = 0; w < kBands; ++w)
        paper[w] = std::pow(static_cast<float>(matrixScheme[w * corners]), static_cast<float>(n));
    paper[kBands] = 0.0f;
    std::vector<float> paperXYZ(3 * std::size_t{lighting.IlluminantNumber()});
    lighting.CalculateCIEXYZ(paperXYZ.data(), paper.data(), 1, nullptr);
    const std::string colorimetry = CheckLighting(lighting, paperXYZ.data());
    if (!colorimetry.empty()) Invalid("illuminants: " + colorimetry);
}

// ---------------------------------------------------------------------------
// Writing

std::string ZKSModelFile::Format() const {
    Check();
    const unsigned int N = numberOfInks, G = numberOfGridPoints;
    std::string out;
    out.reserve(64 * 1024 + (gridPoints.size() + effectiveRamps.size() + matrixScheme.size()) * 12);
    out += std::string(kMagic) + " " + std::to_string(kModelFileVersion) + "\n";
    out += "# kelma printer model: cellular Yule-Nielsen modified spectral Neugebauer, spectra at\n"
           "# 400-700 nm in 10 nm steps. grid_levels: one line of levels per ink; effective_ramps:\n"
           "# one line of 256 per ink; matrix_scheme: one line of 2^inks corner coefficients per\n"
           "# cell and wavelength, cell q = sum_i cell_i (grid_points - 1)^i (ink 0 fastest).\n"
           "# The model predicts from the float32 rounding of every value. Read and written by\n"
           "# the kelma library (kelma/modelfile/ZKSModelFile.h describes the format).\n";
    out += std::string("precision ") + (precision == MODELFILE_FLOAT32 ? "float32" : "float64") + "\n";
    out += "inks " + std::to_string(N) + "\n";
    out += "grid_points " + std::to_string(G) + "\n";
    for (const std::string& name : inkNames) out += "ink " + name + "\n";
    out += "n ";
    AppendNumber(out, n, precision);
    out += "\nink_set " + std::to_string(static_cast<std::uint32_t>(inkSet)) + "\n";
    out += std::string("media_relative ") + (isMediaRelative ? "yes" : "no") + "\n";
    out += std::string("absolute_colorimetric ") + (printAbsolutColorimetric ? "yes" : "no") + "\n";
    out += "observer " + (observer == 0 ? std::string("unknown") : std::to_string(observer)) + "\n";
    for (const ZKSModelIlluminant& il : illuminants) {
        out += "illuminant " + il.name;
        for (double v : il.spd) {
            out += ' ';
            AppendNumber(out, v, MODELFILE_FLOAT64);
        }
        for (float v : il.weights) {
            out += ' ';
            AppendNumber(out, v, MODELFILE_FLOAT32);
        }
        out += '\n';
    }
    const ZKSModelProvenance& p = provenance;
    if (!p.description.empty()) out += "description " + p.description + "\n";
    if (!p.chart.empty()) out += "chart " + p.chart + "\n";
    if (!p.fitMethod.empty()) out += "fit_method " + p.fitMethod + "\n";
    if (p.fitPatches != 0) out += "fit_patches " + std::to_string(p.fitPatches) + "\n";
    if (!std::isnan(p.fitErrorMean)) {
        out += "fit_error_de2000";
        for (double e : {p.fitErrorMean, p.fitErrorP95, p.fitErrorMax}) {
            out += ' ';
            AppendNumber(out, e, MODELFILE_FLOAT64);
        }
        out += '\n';
    }
    if (!p.software.empty()) out += "software " + p.software + "\n";

    auto rows = [&](const char* name, const double* v, std::size_t count, std::size_t perRow) {
        out += name;
        out += '\n';
        for (std::size_t k = 0; k < count; ++k) {
            AppendNumber(out, v[k], precision);
            out += (k + 1) % perRow == 0 ? '\n' : ' ';
        }
    };
    rows("grid_levels", gridPoints.data(), gridPoints.size(), G);
    rows("effective_ramps", effectiveRamps.data(), effectiveRamps.size(), 256);
    rows("matrix_scheme", matrixScheme.data(), matrixScheme.size(), std::size_t{1} << N);
    if (!rampWeights.empty()) {
        out += "ramp_weights\n";
        for (std::size_t k = 0; k < rampWeights.size(); ++k) {
            AppendNumber(out, rampWeights[k], MODELFILE_FLOAT32);
            out += (k + 1) % 256 == 0 ? '\n' : ' ';
        }
    }
    const std::string checksum = Hex16(Fnv1a64(out));
    out += "checksum fnv1a64 " + checksum + "\nend\n";
    return out;
}

void ZKSModelFile::Write(const std::string& path) const {
    std::string text;
    try {
        text = Format();
    } catch (const ZKCModelFileError& e) {
        throw ZKCModelFileError("cannot write " + path + ": " + e.what());
    }
    try {
        WriteFileAtomically(path, text);
    } catch (const ZKCFileWriteError& e) {
        throw ZKCModelFileError(e.what());
    }
}

ZKSModelFile ZKSModelFile::Parse(const std::string& text, const std::string& source) {
    const std::string normalized = NormalizeLineEnds(text);
    return Parser(normalized, source).Run();
}

ZKSModelFile ZKSModelFile::Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ZKCModelFileError(path + ": cannot open the file (" + std::strerror(errno) + ")");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw ZKCModelFileError(path + ": cannot read the file");
    return Parse(text, path);
}

// ---------------------------------------------------------------------------
// Models

ZKCLighting_Matrix ZKSModelFile::LightingMatrix() const {
    if (illuminants.empty()) Invalid("illuminants: a model needs at least one illuminant");
    std::vector<float> weights(illuminants.size() * kLightingBlock, 0.0f);
    for (std::size_t k = 0; k < illuminants.size(); ++k) {
        const ZKSModelIlluminant& il = illuminants[k];
        float* block = weights.data() + k * kLightingBlock;
        if (il.name == "weights") {
            if (il.weights.size() != kWeightsPerIlluminant) Invalid("illuminant weights: 93 values expected");
            for (std::size_t row = 0; row < 3; ++row)
                std::copy_n(il.weights.data() + row * kBands, kBands, block + row * kSpectrumStride);
            continue;
        }
        if (observer != OBSERVER_CIE1931_2 && observer != OBSERVER_CIE1964_10)
            Invalid("observer: 2 or 10 needed for named and spd illuminants");
        std::unique_ptr<ZKCIlluminant_Base> source =
            il.name == "spd" ? std::make_unique<ZKCIlluminant_Measure>(il.spd) : NamedIlluminant(il.name);
        if (!source) Invalid("illuminant: unknown name " + Quote(il.name));
        const ZKCLighting_Matrix single(ZKCObserver(static_cast<OBSERVER_TYPE>(observer)), source.get());
        std::copy_n(single.Weights(), kLightingBlock, block);
    }
    return ZKCLighting_Matrix(weights.data(), illuminants.size());
}

namespace {

std::vector<float> ToFloat(const std::vector<double>& v) { return std::vector<float>(v.begin(), v.end()); }

std::vector<std::string> DefaultInkNames(unsigned int inks) {
    std::vector<std::string> names;
    for (unsigned int i = 0; i < inks; ++i) names.push_back("ink " + std::to_string(i + 1));
    return names;
}

bool SameBits(const void* a, const void* b, std::size_t bytes) { return bytes == 0 || std::memcmp(a, b, bytes) == 0; }

}  // namespace

ZKCSSE_KELMA_Data ZKSModelFile::Model() const {
    Check();
    const std::vector<float> grid = ToFloat(gridPoints), ramps = ToFloat(effectiveRamps),
                             scheme = ToFloat(matrixScheme);
    ZKCSSE_KELMA_Data model(numberOfInks, numberOfGridPoints, grid.data(), ramps.data(), scheme.data(),
                            static_cast<float>(n), LightingMatrix(), inkSet, isMediaRelative,
                            printAbsolutColorimetric, kSpectralValues);
    // Weights at the grid levels are 0 in every table (Check), so the paper
    // white the constructor predicted holds for the replaced table too.
    for (std::size_t k = 0; k < rampWeights.size(); ++k) model.effectiveRampsLUT_[k].weight = rampWeights[k];
    return model;
}

ZKSModelFile ZKSModelFile::Describe(const ZKCSSE_KELMA_Data& model) {
    ZKSModelFile f;
    const unsigned int N = model.NumberOfInks(), G = model.NumberOfGridPoints();
    f.precision = MODELFILE_FLOAT32;
    f.numberOfInks = N;
    f.numberOfGridPoints = G;
    f.inkNames = DefaultInkNames(N);
    f.gridPoints.assign(model.GridPoints(), model.GridPoints() + std::size_t{N} * G);
    f.effectiveRamps.assign(model.EffectiveRamps(), model.EffectiveRamps() + std::size_t{N} * 256);
    f.matrixScheme.assign(model.MatrixScheme(), model.MatrixScheme() + model.MatrixSchemeSize());
    f.n = model.n();
    f.inkSet = model.Total_InkSet();
    f.isMediaRelative = model.IsMediaRelative();
    f.printAbsolutColorimetric = model.PrintAbsolutColorimetric();
    f.provenance.software = std::string("kelma ") + KELMA_VERSION;

    // Lookup table: kept only where it is not the one of the float32 ramps.
    if (model.NumberOfSpectralValues() != kSpectralValues)
        Invalid("a model file holds 31-value models, this model has " +
                std::to_string(model.NumberOfSpectralValues()) + " spectral values");
    const std::vector<ZKSSSE_EffectiveRampEntry>& own = model.EffectiveRampsLUT();
    const std::vector<ZKSSSE_EffectiveRampEntry> fromFloats =
        ZKCSSE_KELMA_Data::BuildEffectiveRampsLUT(N, G, model.GridPoints(), model.EffectiveRamps());
    bool same = true;
    for (std::size_t k = 0; k < own.size(); ++k) {
        if (own[k].cellOffset != fromFloats[k].cellOffset)
            Invalid("the model's lookup table does not follow from its float32 grid levels (levels that are not "
                    "whole numbers?)");
        same = same && SameBits(&own[k].weight, &fromFloats[k].weight, sizeof(float));
    }
    if (!same)
        for (const ZKSSSE_EffectiveRampEntry& e : own) f.rampWeights.push_back(e.weight);

    // Colorimetry: each block is a standard illuminant under one observer
    // (the one most blocks were built with), or raw weights.
    const ZKCLighting_Matrix& lm = model.Lighting_Matrix();
    const unsigned int L = lm.IlluminantNumber();
    unsigned int counts[2] = {0, 0};
    for (unsigned int b = 0; b < L; ++b) {
        const unsigned int obs = StandardIlluminantObserver(lm, b);
        if (obs == OBSERVER_CIE1931_2) ++counts[0];
        if (obs == OBSERVER_CIE1964_10) ++counts[1];
    }
    f.observer = counts[0] == 0 && counts[1] == 0 ? 0
                 : counts[1] > counts[0]          ? unsigned(OBSERVER_CIE1964_10)
                                                  : unsigned(OBSERVER_CIE1931_2);
    for (unsigned int b = 0; b < L; ++b) {
        ZKSModelIlluminant il;
        if (f.observer != 0 && StandardIlluminantObserver(lm, b) == f.observer) {
            il.name = StandardIlluminantName(lm, b);
        } else {
            il.name = "weights";
            const float* block = lm.Weights() + std::size_t{b} * kLightingBlock;
            for (std::size_t row = 0; row < 3; ++row)
                il.weights.insert(il.weights.end(), block + row * kSpectrumStride, block + row * kSpectrumStride + kBands);
        }
        f.illuminants.push_back(std::move(il));
    }
    return f;
}

ZKSModelFile ZKSModelFile::FromArrays(const ZKSPrinterModelArrays& arrays) {
    ZKSModelFile f;
    f.precision = MODELFILE_FLOAT64;
    f.numberOfInks = arrays.numberOfInks;
    f.numberOfGridPoints = arrays.numberOfGridPoints;
    f.inkNames = DefaultInkNames(arrays.numberOfInks);
    f.gridPoints = arrays.gridPoints;
    f.effectiveRamps = arrays.effectiveRamps;
    f.matrixScheme = arrays.matrixScheme;
    f.n = arrays.n;
    f.inkSet = static_cast<INK_SET>(arrays.numberOfInks >= 32 ? 0xFFFFFFFFu : (1u << arrays.numberOfInks) - 1u);
    f.observer = OBSERVER_CIE1931_2;
    ZKSModelIlluminant d50;
    d50.name = "D50";
    f.illuminants.push_back(d50);
    f.provenance.software = std::string("kelma ") + KELMA_VERSION;
    return f;
}

ZKSModelFile ZKSModelFile::FromBuiltModel(const ZKSBuiltModel& built, const std::string& chart,
                                          const std::vector<std::string>& inkNames) {
    ZKSModelFile f = FromArrays(built.model);
    if (!inkNames.empty()) {
        if (inkNames.size() != f.numberOfInks)
            Invalid("ink names: " + std::to_string(inkNames.size()) + " names for " +
                    std::to_string(f.numberOfInks) + " inks");
        f.inkNames = inkNames;
    }
    f.provenance.chart = chart;
    f.provenance.fitMethod = built.method == MODELFIT_REFINED ? "refined" : "classic";
    f.provenance.fitPatches = built.trainingPatches.size();
    f.provenance.fitErrorMean = built.fitError.mean;
    f.provenance.fitErrorP95 = built.fitError.p95;
    f.provenance.fitErrorMax = built.fitError.max;
    return f;
}

ZKSModelFile DefaultPressModelFile() {
    using namespace modelbuilding;
    ZKSModelFile f = ZKSModelFile::FromArrays(DefaultPressModelArrays());
    f.inkNames.assign(kDefaultPressInkNames, kDefaultPressInkNames + kDefaultPressInks);
    f.inkSet = INK_SET_CMYK;
    f.provenance.description = kDefaultPressDescription;
    f.provenance.chart = kDefaultPressChart;
    f.provenance.fitMethod = kDefaultPressFitMethod;
    f.provenance.fitPatches = kDefaultPressFitPatches;
    f.provenance.fitErrorMean = kDefaultPressFitErrorMean;
    f.provenance.fitErrorP95 = kDefaultPressFitErrorP95;
    f.provenance.fitErrorMax = kDefaultPressFitErrorMax;
    f.provenance.software = kDefaultPressSoftware;
    return f;
}

bool SameModelContent(const ZKCSSE_KELMA_Data& a, const ZKCSSE_KELMA_Data& b) {
    const unsigned int N = a.NumberOfInks(), G = a.NumberOfGridPoints();
    if (N != b.NumberOfInks() || G != b.NumberOfGridPoints() ||
        a.NumberOfSpectralValues() != b.NumberOfSpectralValues() || a.MatrixSchemeSize() != b.MatrixSchemeSize() ||
        a.Total_InkSet() != b.Total_InkSet() || a.IsMediaRelative() != b.IsMediaRelative() ||
        a.PrintAbsolutColorimetric() != b.PrintAbsolutColorimetric())
        return false;
    const float na = a.n(), nb = b.n();
    if (!SameBits(&na, &nb, sizeof na)) return false;
    if (!SameBits(a.GridPoints(), b.GridPoints(), sizeof(float) * N * G) ||
        !SameBits(a.EffectiveRamps(), b.EffectiveRamps(), sizeof(float) * N * 256) ||
        !SameBits(a.MatrixScheme(), b.MatrixScheme(), sizeof(float) * a.MatrixSchemeSize()))
        return false;
    const ZKCLighting_Matrix &la = a.Lighting_Matrix(), &lb = b.Lighting_Matrix();
    if (la.IlluminantNumber() != lb.IlluminantNumber() ||
        !SameBits(la.Weights(), lb.Weights(), sizeof(float) * kLightingBlock * la.IlluminantNumber()))
        return false;
    const std::vector<float>&wa = a.MediaWhitePoint().Values(), &wb = b.MediaWhitePoint().Values();
    if (wa.size() != wb.size() || !SameBits(wa.data(), wb.data(), sizeof(float) * wa.size())) return false;
    const auto &ta = a.EffectiveRampsLUT(), &tb = b.EffectiveRampsLUT();
    if (ta.size() != tb.size()) return false;
    for (std::size_t k = 0; k < ta.size(); ++k)
        if (ta[k].cellOffset != tb[k].cellOffset || !SameBits(&ta[k].weight, &tb[k].weight, sizeof(float)))
            return false;
    return true;
}

}  // namespace KELMA_NAMESPACE
