#include "kelma/measurement/ZKCMeasurementFile.h"

#include <lcms2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kelma/common/LibraryErrors.h"
#include "kelma/common/NumberText.h"
#include "kelma/measurement/SpectralPlausibility.h"
#include "kelma/sampling/ZKCSpectralSampling_Thread.h"

namespace KELMA_NAMESPACE {

ZKCMeasurementError::ZKCMeasurementError(const std::string& file, const std::string& problem)
    : std::runtime_error(file + ": " + problem), file_(file), problem_(problem) {}

ZKCMeasurementError::~ZKCMeasurementError() = default;

namespace {

// A file descriptor closed on every path out.
struct FileDescriptor {
    int fd;
    ~FileDescriptor() {
        if (fd >= 0) ::close(fd);
    }
};

std::string SystemError(const char* what) { return std::string(what) + " (" + std::strerror(errno) + ")"; }

// Only regular files are read: a directory cannot be, and a device or FIFO
// may never end (/dev/zero) or block (a FIFO without a writer).
void CheckRegularFile(const std::string& path, const struct stat& info) {
    if (S_ISDIR(info.st_mode)) throw ZKCMeasurementError(path, "is a directory, not a measurement file");
    if (!S_ISREG(info.st_mode))
        throw ZKCMeasurementError(path, "is not a regular file (a device, FIFO or socket); give a measurement file");
}

std::string TooLarge(std::uint64_t bytes) {
    return "file is " + std::to_string(bytes) + " bytes, larger than the " +
           std::to_string(kMaxMeasurementFileBytes >> 20) + " MiB a measurement file may have";
}

std::string ReadWholeFile(const std::string& path) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) throw ZKCMeasurementError(path, SystemError("cannot open the file"));
    CheckRegularFile(path, info);
    // O_NONBLOCK: should the name turn into a FIFO after the check, open does not wait for a writer.
    FileDescriptor f{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (f.fd < 0) throw ZKCMeasurementError(path, SystemError("cannot open the file"));
    if (::fstat(f.fd, &info) != 0) throw ZKCMeasurementError(path, SystemError("cannot read the file"));
    CheckRegularFile(path, info);
    if (static_cast<std::uint64_t>(info.st_size) > kMaxMeasurementFileBytes)
        throw ZKCMeasurementError(path, TooLarge(static_cast<std::uint64_t>(info.st_size)));
    // Read to the end (the size may have changed since fstat), never past the bound.
    std::string text(static_cast<std::size_t>(info.st_size) + 1, '\0');
    std::size_t got = 0;
    for (;;) {
        if (got == text.size()) {
            if (text.size() > kMaxMeasurementFileBytes) throw ZKCMeasurementError(path, TooLarge(text.size()));
            text.resize(std::min(2 * text.size(), kMaxMeasurementFileBytes + 1));
        }
        const ssize_t n = ::read(f.fd, &text[got], text.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw ZKCMeasurementError(path, SystemError("cannot read the file"));
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    return text;
}

void AppendUtf8(std::string& out, std::uint32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(const std::string& s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const std::size_t n = s.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned c = p[i];
        std::size_t len;
        std::uint32_t min, cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2, min = 0x80, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3, min = 0x800, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4, min = 0x10000, cp = c & 0x07;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += len;
    }
    return true;
}

// Windows-1252, which instrument software on Windows writes: Latin-1 with
// typographic characters at 0x80-0x9F (the five unassigned codes stay C1 controls).
std::string Windows1252ToUtf8(const std::string& s) {
    static const std::uint16_t k80[32] = {
        0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
        0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
        0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
    std::string out;
    out.reserve(s.size() + s.size() / 8);
    for (char ch : s) {
        const unsigned c = static_cast<unsigned char>(ch);
        AppendUtf8(out, c >= 0x80 && c < 0xA0 ? k80[c - 0x80] : c);
    }
    return out;
}

std::string Utf16ToUtf8(const std::string& file, const std::string& s, bool bigEndian) {
    if (s.size() % 2 != 0) throw ZKCMeasurementError(file, "is marked as UTF-16 but has an odd number of bytes");
    auto unit = [&](std::size_t i) {
        const unsigned a = static_cast<unsigned char>(s[i]), b = static_cast<unsigned char>(s[i + 1]);
        return static_cast<std::uint32_t>(bigEndian ? (a << 8) | b : (b << 8) | a);
    };
    std::string out;
    out.reserve(s.size() / 2);
    for (std::size_t i = 0; i < s.size(); i += 2) {
        std::uint32_t c = unit(i);
        if (c >= 0xD800 && c <= 0xDBFF && i + 3 < s.size() && unit(i + 2) >= 0xDC00 && unit(i + 2) <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
            i += 2;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            throw ZKCMeasurementError(file, "is marked as UTF-16 but holds an unpaired surrogate at byte " +
                                                std::to_string(i));
        }
        AppendUtf8(out, c);
    }
    return out;
}

// The file's bytes as UTF-8 text (see the header for the encodings read).
std::string DecodedText(const std::string& file, const std::string& raw) {
    std::string text;
    if (raw.compare(0, 2, "\xFF\xFE") == 0) {
        text = Utf16ToUtf8(file, raw.substr(2), false);
    } else if (raw.compare(0, 2, "\xFE\xFF") == 0) {
        text = Utf16ToUtf8(file, raw.substr(2), true);
    } else {
        text = raw.compare(0, 3, "\xEF\xBB\xBF") == 0 ? raw.substr(3) : raw;
        if (!IsUtf8(text)) text = Windows1252ToUtf8(text);
    }
    const std::size_t nul = text.find('\0');
    if (nul != std::string::npos)
        throw ZKCMeasurementError(file, "holds a NUL character (at line " +
                                            std::to_string(1 + std::count(text.begin(), text.begin() + nul, '\n')) +
                                            "): not a text file");
    if (text.empty()) throw ZKCMeasurementError(file, "file is empty");
    return text;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

bool IsQuote(char c) { return c == '"' || c == '\''; }

// Tokens of one line: blank-separated, "..." or '...' kept as one token
// (quotes included), '#' outside quotes starts a comment.
std::vector<std::string> Tokens(const std::string& line) {
    std::vector<std::string> tokens;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && IsBlank(line[i])) ++i;
        if (i >= line.size() || line[i] == '#') break;
        std::size_t start = i;
        if (IsQuote(line[i])) {
            std::size_t close = line.find(line[i], i + 1);
            i = close == std::string::npos ? line.size() : close + 1;
        } else {
            while (i < line.size() && !IsBlank(line[i]) && line[i] != '#') ++i;
        }
        tokens.push_back(line.substr(start, i - start));
    }
    return tokens;
}

struct DataLine {
    std::size_t lineNumber;  // 1-based, in the file
    std::vector<std::string> tokens;
};

// The file text with the tolerated deviations made strict, line for line (so
// the parser's line numbers stay the file's), plus the first table's field
// names and data lines as written, for the checks the parser does not make.
struct PreparedText {
    std::string text;
    std::vector<std::string> formatFields;
    std::vector<DataLine> dataLines;
    // The first table's header keywords and values as written, in order: the
    // parser sees non-ASCII characters as '?' and keeps only the value of a
    // pair (WEIGHTING_FUNCTION "ILLUMINANT, D50" gives "D50").
    std::vector<std::pair<std::string, std::string>> headerValues;
};

std::string Unquoted(const std::string& token) {
    if (token.size() >= 2 && IsQuote(token.front()) && token.back() == token.front())
        return token.substr(1, token.size() - 2);
    return token;
}

PreparedText Prepare(const std::string& file, const std::string& raw) {
    enum { kHeader, kFormat, kData } state = kHeader;
    int dataSections = 0, formatSections = 0;
    PreparedText out;
    out.text.reserve(raw.size() + 256);
    std::size_t lineNumber = 0;
    for (std::size_t pos = 0; pos < raw.size();) {
        std::size_t end = raw.find('\n', pos);
        if (end == std::string::npos) end = raw.size();
        std::string line = raw.substr(pos, end - pos);
        pos = end + 1;
        ++lineNumber;
        while (!line.empty() && (IsBlank(line.back()) || line.back() == '\r')) line.pop_back();

        const std::string original = line;
        std::vector<std::string> tokens = Tokens(line);
        const std::string first = tokens.empty() ? std::string() : tokens.front();
        if (first == "BEGIN_DATA" && state == kFormat)
            throw ZKCMeasurementError(file, "line " + std::to_string(lineNumber) +
                                                ": BEGIN_DATA before END_DATA_FORMAT closes the data format");
        if (first == "BEGIN_DATA_FORMAT") {
            state = kFormat;
            ++formatSections;
            tokens.erase(tokens.begin());
        } else if (first == "BEGIN_DATA") {
            state = kData;
            ++dataSections;
            tokens.erase(tokens.begin());
        } else if (first == "END_DATA" || first == "END_DATA_FORMAT") {
            state = kHeader;
            tokens.clear();
        } else if (state == kHeader && tokens.size() > 1 && !IsQuote(first[0])) {
            // KEYWORD value with blanks, unquoted -> KEYWORD "value" (a
            // trailing # comment stays outside the quotes).
            std::size_t valueStart = line.find(first) + first.size();
            while (valueStart < line.size() && IsBlank(line[valueStart])) ++valueStart;
            std::size_t valueEnd = std::min(line.find('#', valueStart), line.size());
            std::string comment = line.substr(valueEnd);
            while (valueEnd > valueStart && IsBlank(line[valueEnd - 1])) --valueEnd;
            std::string value = line.substr(valueStart, valueEnd - valueStart);
            if (value.find_first_of(" \t") != std::string::npos && value.find_first_of("\"'") == std::string::npos)
                line = line.substr(0, valueStart) + '"' + value + '"' + (comment.empty() ? "" : " " + comment);
        }
        if (state == kHeader && dataSections == 0 && tokens.size() > 1 && !IsQuote(first[0])) {
            // The value as written: one (quoted) token, or the rest of the line
            // up to a comment (blanks kept), or its tokens when quotes are mixed in.
            std::string value = Unquoted(tokens[1]);
            if (tokens.size() > 2) {
                std::string rest = original.substr(original.find(first) + first.size());
                rest = rest.substr(0, rest.find('#'));
                const std::size_t a = rest.find_first_not_of(" \t"), b = rest.find_last_not_of(" \t");
                rest = a == std::string::npos ? std::string() : rest.substr(a, b - a + 1);
                if (rest.find_first_of("\"'") == std::string::npos) {
                    value = rest;
                } else {
                    for (std::size_t k = 2; k < tokens.size(); ++k) value += ' ' + tokens[k];
                }
            }
            out.headerValues.emplace_back(first, value);
        }
        if (state == kFormat && formatSections == 1) {
            if (!tokens.empty() && tokens.back() == "END_DATA_FORMAT") {
                tokens.pop_back();
                state = kHeader;
            }
            for (const auto& t : tokens) out.formatFields.push_back(Unquoted(t));
        } else if (state == kData && dataSections == 1 && !tokens.empty()) {
            out.dataLines.push_back({lineNumber, tokens});
        }
        // The parser takes ASCII only (it refuses any byte above 0x7E outside
        // quotes, UTF-8 included); names, IDs and header values with other
        // characters are taken from the tokens above instead.
        for (char& c : line)
            if (static_cast<unsigned char>(c) >= 0x80) c = '?';
        out.text += line;
        out.text += '\n';
    }
    return out;
}

bool AllDigits(const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A count as the file gives it, any double (the parser reads it as one).
std::string WrittenCount(double v) {
    char text[32];
    std::snprintf(text, sizeof text, std::fabs(v) < 1e15 ? "%.0f" : "%g", v);
    return text;
}

// Case-insensitive matches of an upper-case ASCII key in a word.
bool MatchesNoCaseAt(const std::string& word, std::size_t at, const char* upper) {
    const std::size_t n = std::strlen(upper);
    if (at > word.size() || word.size() - at < n) return false;
    for (std::size_t k = 0; k < n; ++k)
        if (std::toupper(static_cast<unsigned char>(word[at + k])) != upper[k]) return false;
    return true;
}

bool StartsWithNoCase(const std::string& word, const char* upper) { return MatchesNoCaseAt(word, 0, upper); }

bool EqualsNoCase(const std::string& word, const char* upper) {
    return word.size() == std::strlen(upper) && MatchesNoCaseAt(word, 0, upper);
}

bool ContainsNoCase(const std::string& word, const char* upper) {
    for (std::size_t i = 0; i < word.size(); ++i)
        if (MatchesNoCaseAt(word, i, upper)) return true;
    return false;
}

// Symbols of the text as Little CMS's IT8 parser splits it, as far as the
// checks below need: strings ("..." or '...', ended by their quote or a line
// break, '\r' included, as the parser ends them) and words (runs outside
// strings and comments). The parser splits some words further
// ("1.5NUMBER_OF_FIELDS" is a number and a name), so the checks treat a word
// that contains a keyword as that keyword.
struct ParserSymbol {
    std::string text;
    bool quoted;
    std::size_t line;  // 1-based
    std::size_t end;   // offset just past the symbol
};

std::vector<ParserSymbol> ParserSymbols(const std::string& text) {
    std::vector<ParserSymbol> symbols;
    std::size_t line = 1, end = 0;
    std::string word;
    auto endWord = [&] {
        if (!word.empty()) symbols.push_back({word, false, line, end});
        word.clear();
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        end = i;
        if (c == '#' || IsQuote(c)) {
            endWord();
            std::size_t j = i + 1;
            while (j < text.size() && text[j] != '\n' && text[j] != '\r' && !(IsQuote(c) && text[j] == c)) ++j;
            if (IsQuote(c)) symbols.push_back({text.substr(i + 1, j - i - 1), true, line, j + 1});
            i = (j < text.size() && text[j] == c) ? j : j - 1;  // a line break is counted next round
        } else if (IsBlank(c) || c == '\n' || c == '\r') {
            endWord();
            if (c == '\n') ++line;
        } else {
            word += c;
        }
    }
    end = text.size();
    endWord();
    return symbols;
}

// What Little CMS 2.14's IT8 parser must not see. Only the first table is
// read, so the parser gets the text up to the end of the line where that
// table's data ends: more than 254 tables made it write past its table
// array, and nothing after the first table can reach it. Before that point,
// it reads the file named by a $INCLUDE or .INCLUDE directive (anywhere, data
// included) from the disk, relative to the working directory: a measurement
// file that reaches into other files, or blocks on a device or FIFO, is
// refused. It trusts NUMBER_OF_FIELDS and NUMBER_OF_SETS: it sizes the field
// names by NUMBER_OF_FIELDS when it meets BEGIN_DATA_FORMAT, the rows by both
// when it meets BEGIN_DATA (in 32-bit arithmetic), and a count that
// overflows that size, or a larger NUMBER_OF_FIELDS given after the data
// format, makes it write or read past its arrays. So each count is a whole
// number written on its keyword's line, the counts promise no more values
// than the text could hold (each value takes a character and a separator, so
// a readable file always keeps this), and NUMBER_OF_FIELDS never follows the
// data format. Where these symbols differ from the parser's they err on the
// strict side: a word containing a directive's or a count's name is that
// directive or count, a word containing BEGIN_DATA_FORMAT starts the data
// format, a data section starts only at the exact word BEGIN_DATA and ends at
// any word containing END_DATA. Such a file may be refused (or cut short
// where the parser would have read on) though the parser would have read it
// safely, never the other way round. Returns the length of text to parse.
std::size_t FirstTableForTheParser(const std::string& file, const std::string& text) {
    const std::vector<ParserSymbol> symbols = ParserSymbols(text);
    const double maxValues = static_cast<double>(text.size() / 2 + 1);
    bool inData = false;
    std::size_t formatLine = 0;  // 0: this table has no data format yet
    double fields = 0, sets = 0;  // as the table's counts stand
    auto Refuse = [&](std::size_t line, const std::string& problem) {
        throw ZKCMeasurementError(file, "line " + std::to_string(line) + ": " + problem);
    };
    for (std::size_t k = 0; k < symbols.size(); ++k) {
        const ParserSymbol& s = symbols[k];
        if (s.quoted) continue;
        if (ContainsNoCase(s.text, "$INCLUDE") || ContainsNoCase(s.text, ".INCLUDE"))
            Refuse(s.line, "a measurement file must hold all its data; it cannot include another file (" +
                               s.text + ")");
        if (inData) {
            if (ContainsNoCase(s.text, "END_DATA")) {
                const std::size_t eol = text.find('\n', s.end);
                return eol == std::string::npos ? text.size() : eol + 1;
            }
            continue;
        }
        const bool isFields = ContainsNoCase(s.text, "NUMBER_OF_FIELDS");
        if (isFields || ContainsNoCase(s.text, "NUMBER_OF_SETS")) {
            const char* name = isFields ? "NUMBER_OF_FIELDS" : "NUMBER_OF_SETS";
            if (isFields && formatLine != 0)
                Refuse(s.line, std::string(name) + " follows the data format (line " +
                                   std::to_string(formatLine) + "); give it once, before BEGIN_DATA_FORMAT");
            if (k + 1 == symbols.size() || symbols[k + 1].line != s.line)
                Refuse(s.line, std::string(name) + " has no value");
            const std::string& written = symbols[k + 1].text;
            if (!AllDigits(written)) Refuse(s.line, std::string(name) + " '" + written + "' is not a whole number");
            // Compared as doubles: exact far beyond any bound here, and a
            // count too large for a double is infinite, so refused.
            const double count = std::strtod(written.c_str(), nullptr);
            (isFields ? fields : sets) = count;
            const double other = isFields ? sets : fields;
            if (count > maxValues || count * other > maxValues) {
                std::string problem = std::string(name) + " is " +
                                      (std::isfinite(count) ? WrittenCount(count) : written.substr(0, 20) + "...");
                if (other != 0)
                    problem += std::string(": with ") + (isFields ? "NUMBER_OF_SETS " : "NUMBER_OF_FIELDS ") +
                               WrittenCount(other) + " that is";
                else
                    problem += ",";
                Refuse(s.line, problem + " more values than a file of " + std::to_string(text.size()) +
                                   " bytes can hold");
            }
            ++k;  // the value
        } else if (ContainsNoCase(s.text, "BEGIN_DATA_FORMAT")) {
            if (formatLine == 0) formatLine = s.line;
        } else if (EqualsNoCase(s.text, "BEGIN_DATA")) {
            inData = true;
        }
    }
    return text.size();
}

// Strict decimal number (optional sign, digits, point, exponent), finite.
bool ParseNumber(const char* text, double& value) {
    if (text == nullptr) return false;
    const char* first = text;
    const char* last = text + std::strlen(text);
    if (first != last && *first == '+') ++first;
    if (first == last) return false;
    auto result = std::from_chars(first, last, value, std::chars_format::general);
    return result.ec == std::errc() && result.ptr == last && std::isfinite(value);
}

// A decimal number too large for any double (1e99999); underflow is not.
bool OutOfDoubleRange(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789+-.eE") != std::string::npos) return false;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size() && std::isinf(v);
}

struct LcmsContext {
    std::string firstError;
};

void CollectError(cmsContext context, cmsUInt32Number, const char* text) {
    auto* state = static_cast<LcmsContext*>(cmsGetContextUserData(context));
    if (state == nullptr || !state->firstError.empty() || text == nullptr) return;
    // Loaded from memory, the parser's messages start with an empty file name.
    state->firstError = std::strncmp(text, ": ", 2) == 0 ? text + 2 : text;
    // Some messages end in a line break; the error is one line.
    while (!state->firstError.empty() && std::isspace(static_cast<unsigned char>(state->firstError.back())))
        state->firstError.pop_back();
}

struct ContextDeleter {
    void operator()(cmsContext c) const { cmsDeleteContext(c); }
};
struct IT8Deleter {
    void operator()(void* h) const { cmsIT8Free(static_cast<cmsHANDLE>(h)); }
};

// The wavelength of a spectral field name, in the forms instruments and
// profiling tools write (prefixes in any case, zero padding allowed):
// SPECTRAL_NM400, SPECTRAL_NM_400, SPECTRAL_400, SPEC_400 (prefixes that only
// spectral fields carry: a suffix that is not whole nanometres throws), and
// NM400, NM_400, R400, R_400 (taken only when digits follow, so RGB_R or
// NAME stay other fields). Returns false for other names.
bool SpectralWavelength(const std::string& file, const std::string& name, double& nm) {
    static const char* const kStrong[] = {"SPECTRAL_NM", "SPECTRAL_", "SPEC_"};
    static const char* const kWeak[] = {"NM", "R"};
    std::string digits;
    bool strong = false;
    for (const char* prefix : kStrong) {
        if (StartsWithNoCase(name, prefix)) {
            digits = name.substr(std::strlen(prefix));
            strong = true;
            break;
        }
    }
    if (!strong) {
        for (const char* prefix : kWeak) {
            if (!StartsWithNoCase(name, prefix)) continue;
            std::string rest = name.substr(std::strlen(prefix));
            if (!rest.empty() && rest[0] == '_') rest.erase(0, 1);
            // R1, NM2 ... outside the plausible wavelengths are some other numbering.
            if (!AllDigits(rest) || rest.size() > 5 || !WavelengthProblem(std::stod(rest)).empty()) continue;
            digits = rest;
            break;
        }
        if (digits.empty()) return false;
    }
    if (!digits.empty() && digits[0] == '_') digits.erase(0, 1);
    if (digits.size() > 5 || !AllDigits(digits)) {
        // A decimal name (SPECTRAL_NM0.40) is most likely another unit.
        double value = 0.0;
        std::string hint;
        if (ParseNumber(digits.c_str(), value) && !WavelengthProblem(value).empty())
            hint = "; " + WavelengthProblem(value);
        throw ZKCMeasurementError(file, "cannot read the wavelength of field " + name +
                                            " (spectral fields name whole nanometres, e.g. SPECTRAL_NM400)" + hint);
    }
    nm = std::stod(digits);
    if (!WavelengthProblem(nm).empty()) throw ZKCMeasurementError(file, "field " + name + ": " + WavelengthProblem(nm));
    return true;
}

// Device channel family of a field name ("CMYK", "RGB", "5CLR", ...) and its
// member ("C", "R", "3", ...); false when the name is not a device channel.
bool DeviceChannel(const std::string& name, std::string& family, std::string& member) {
    std::size_t underscore = name.find('_');
    if (underscore == std::string::npos || underscore + 1 >= name.size()) return false;
    family = name.substr(0, underscore);
    member = name.substr(underscore + 1);
    if (family == "CMYK" || family == "CMY" || family == "RGB") return true;
    return family.size() == 4 && family.compare(1, 3, "CLR") == 0 &&
           ((family[0] >= '2' && family[0] <= '9') || (family[0] >= 'A' && family[0] <= 'F'));
}

std::vector<std::string> FamilyMembers(const std::string& family) {
    if (family == "CMYK") return {"C", "M", "Y", "K"};
    if (family == "CMY") return {"C", "M", "Y"};
    if (family == "RGB") return {"R", "G", "B"};
    int n = family[0] <= '9' ? family[0] - '0' : family[0] - 'A' + 10;
    std::vector<std::string> members;
    for (int i = 1; i <= n; ++i) members.push_back(std::to_string(i));
    return members;
}

std::string Join(const std::vector<std::string>& items) {
    std::string s;
    for (const auto& item : items) s += (s.empty() ? "" : ", ") + item;
    return s;
}

}  // namespace

ZKCMeasurementFile::ZKCMeasurementFile(const std::string& path, std::uint32_t required,
                                       const ZKSMeasurementOptions& options)
    : options_(options) {
    data_.file = path;
    Read(ReadWholeFile(path), required);
}

ZKCMeasurementFile::ZKCMeasurementFile(FromContents, const std::string& name, const std::string& contents,
                                       std::uint32_t required, const ZKSMeasurementOptions& options)
    : options_(options) {
    data_.file = name;
    if (contents.size() > kMaxMeasurementFileBytes) throw ZKCMeasurementError(name, TooLarge(contents.size()));
    Read(contents, required);
}

ZKCMeasurementFile ZKCMeasurementFile::FromText(const std::string& name, const std::string& contents,
                                                std::uint32_t required, const ZKSMeasurementOptions& options) {
    return ZKCMeasurementFile(FromContents(), name, contents, required, options);
}

void ZKCMeasurementFile::Read(const std::string& contents, std::uint32_t required) {
    const std::string& file = data_.file;
    PreparedText prepared = Prepare(file, DecodedText(file, contents));

    prepared.text.resize(FirstTableForTheParser(file, prepared.text));
    // Ragged rows next: the parser reads the data as one stream of values,
    // so a short row would otherwise shift every later value into the wrong field.
    const std::size_t formatCount = prepared.formatFields.size();
    for (const DataLine& line : prepared.dataLines) {
        if (formatCount != 0 && line.tokens.size() != formatCount)
            throw ZKCMeasurementError(file, "line " + std::to_string(line.lineNumber) + " has " +
                                                std::to_string(line.tokens.size()) + " values, expected " +
                                                std::to_string(formatCount) +
                                                " (one per field of the data format)");
    }

    LcmsContext errors;
    std::unique_ptr<std::remove_pointer_t<cmsContext>, ContextDeleter> context(cmsCreateContext(nullptr, &errors));
    if (!context) throw std::bad_alloc();
    cmsSetLogErrorHandlerTHR(context.get(), &CollectError);
    std::unique_ptr<void, IT8Deleter> it8(cmsIT8LoadFromMem(
        context.get(), prepared.text.data(), static_cast<cmsUInt32Number>(prepared.text.size())));
    if (!it8)
        throw ZKCMeasurementError(file, "not a readable CGATS file: " +
                                            (errors.firstError.empty() ? std::string("parse error")
                                                                       : errors.firstError));
    cmsHANDLE h = it8.get();
    cmsIT8SetTable(h, 0);  // the first table; a loaded file has at least one

    const int fieldCount = cmsIT8EnumDataFormat(h, nullptr);
    if (fieldCount <= 0 || formatCount == 0)
        throw ZKCMeasurementError(file, "no data format (BEGIN_DATA_FORMAT ... END_DATA_FORMAT)");
    // Field names as written: Little CMS 2.14 garbles names that begin with a
    // digit (5CLR_1 comes back glued to the previous name). The parser's
    // fields and sets must be the names and lines seen above, which are then
    // looked up by the parser's indices.
    const std::vector<std::string>& fields = prepared.formatFields;
    if (static_cast<std::size_t>(fieldCount) != formatCount)
        throw ZKCMeasurementError(file, "data format lists " + std::to_string(formatCount) +
                                            " fields, the parser found " + std::to_string(fieldCount));

    // Like the field count, a guard for the line lookups by the parser's row.
    const double declaredSets = cmsIT8GetPropertyDbl(h, "NUMBER_OF_SETS");
    const std::size_t patches = prepared.dataLines.size();
    if (patches == 0) throw ZKCMeasurementError(file, "no patches in the data section");
    if (declaredSets != static_cast<double>(patches))
        throw ZKCMeasurementError(file, "NUMBER_OF_SETS is " + WrittenCount(declaredSets) +
                                            " but the data section has " + std::to_string(patches) + " lines");

    auto Where = [&](std::size_t row, int col) {
        return "line " + std::to_string(prepared.dataLines[row].lineNumber) + ", field " +
               fields[static_cast<std::size_t>(col)] + ": ";
    };
    // Every value must be a finite number a float can hold: spectra are kept
    // in single precision, and every computation downstream is.
    const std::string outsideFloat = "is outside the range of a 32-bit float (magnitude at most " +
                                     NumberText(static_cast<double>(std::numeric_limits<float>::max())) + ")";
    auto Value = [&](std::size_t row, int col) {
        const char* text = cmsIT8GetDataRowCol(h, static_cast<int>(row), col);
        const std::string& written = prepared.dataLines[row].tokens[static_cast<std::size_t>(col)];
        double v = 0.0, asWritten = 0.0;
        const bool parsed = ParseNumber(text, v);
        if (parsed && FloatRangeProblem(v).empty()) {
            // The parser keeps 10 significant digits; the value as written
            // keeps them all (a file written by ZKCMeasurementWriter reads
            // back exactly). It is taken when both agree to those digits.
            if (ParseNumber(written.c_str(), asWritten) && std::fabs(asWritten - v) <= 1e-9 * std::fabs(asWritten) &&
                FloatRangeProblem(asWritten).empty())
                return asWritten;
            return v;
        }
        // The parser misreads some exponent forms ("3e-1", "1e+300"): what was
        // written decides the message.
        const bool number = ParseNumber(written.c_str(), asWritten);
        std::string problem = "is not a number";
        if (parsed || OutOfDoubleRange(written) || (number && !FloatRangeProblem(asWritten).empty()))
            problem = outsideFloat;
        else if (number)
            problem += " (the CGATS parser misreads this exponent form; write it as a plain decimal)";
        throw ZKCMeasurementError(file, Where(row, col) + "'" + written + "' " + problem);
    };

    // Classify the fields.
    int idColumn = -1, nameColumn = -1;
    int labColumn[3] = {-1, -1, -1};
    int xyzColumn[3] = {-1, -1, -1};
    std::vector<std::pair<double, int>> spectral;
    std::vector<int> deviceColumns;
    std::vector<std::string> families;
    std::vector<std::vector<std::string>> familyMembers;
    for (int c = 0; c < fieldCount; ++c) {
        const std::string& name = fields[static_cast<std::size_t>(c)];
        double nm = 0.0;
        std::string family, member;
        if (name == "SAMPLE_ID") {
            idColumn = c;
        } else if (name == "SAMPLE_NAME") {
            nameColumn = c;
        } else if (name == "LAB_L" || name == "LAB_A" || name == "LAB_B") {
            int k = name == "LAB_L" ? 0 : (name == "LAB_A" ? 1 : 2);
            if (labColumn[k] >= 0) throw ZKCMeasurementError(file, "field " + name + " appears twice");
            labColumn[k] = c;
        } else if (name == "XYZ_X" || name == "XYZ_Y" || name == "XYZ_Z") {
            const int k = name[4] - 'X';
            if (xyzColumn[k] >= 0) throw ZKCMeasurementError(file, "field " + name + " appears twice");
            xyzColumn[k] = c;
        } else if (SpectralWavelength(file, name, nm)) {
            spectral.push_back({nm, c});
        } else if (DeviceChannel(name, family, member)) {
            std::size_t f = std::find(families.begin(), families.end(), family) - families.begin();
            if (f == families.size()) {
                families.push_back(family);
                familyMembers.emplace_back();
            }
            familyMembers[f].push_back(member);
            deviceColumns.push_back(c);
        }
    }

    // Device channel families must be complete, each member once.
    for (std::size_t f = 0; f < families.size(); ++f) {
        std::vector<std::string> expected = FamilyMembers(families[f]);
        std::vector<std::string> missing;
        for (const auto& m : expected)
            if (std::count(familyMembers[f].begin(), familyMembers[f].end(), m) == 0)
                missing.push_back(families[f] + "_" + m);
        for (const auto& m : familyMembers[f]) {
            if (std::count(expected.begin(), expected.end(), m) == 0)
                throw ZKCMeasurementError(file, "unknown device channel field " + families[f] + "_" + m);
            if (std::count(familyMembers[f].begin(), familyMembers[f].end(), m) > 1)
                throw ZKCMeasurementError(file, "field " + families[f] + "_" + m + " appears twice");
        }
        if (!missing.empty())
            throw ZKCMeasurementError(file, "device channel fields incomplete, missing " + Join(missing));
    }
    const int labFound = (labColumn[0] >= 0) + (labColumn[1] >= 0) + (labColumn[2] >= 0);
    if (labFound != 0 && labFound != 3) {
        std::vector<std::string> missing;
        for (int k = 0; k < 3; ++k)
            if (labColumn[k] < 0) missing.push_back(std::string("LAB_") + "LAB"[k]);
        throw ZKCMeasurementError(file, "CIELAB fields incomplete, missing " + Join(missing));
    }
    const int xyzFound = (xyzColumn[0] >= 0) + (xyzColumn[1] >= 0) + (xyzColumn[2] >= 0);
    if (xyzFound != 0 && xyzFound != 3) {
        std::vector<std::string> missing;
        for (int k = 0; k < 3; ++k)
            if (xyzColumn[k] < 0) missing.push_back(std::string("XYZ_") + "XYZ"[k]);
        throw ZKCMeasurementError(file, "CIE XYZ fields incomplete, missing " + Join(missing));
    }
    std::sort(spectral.begin(), spectral.end());
    for (std::size_t k = 1; k < spectral.size(); ++k)
        if (spectral[k].first == spectral[k - 1].first)
            throw ZKCMeasurementError(file, "wavelength " + std::to_string(static_cast<int>(spectral[k].first)) +
                                                " nm appears in two spectral fields");

    if ((required & MEASUREMENT_CONTENT_SPECTRA) && spectral.empty())
        throw ZKCMeasurementError(file, "no spectral fields (SPECTRAL_NM<wavelength>)");
    if ((required & MEASUREMENT_CONTENT_LAB) && labFound == 0)
        throw ZKCMeasurementError(file, "no CIELAB fields (LAB_L, LAB_A, LAB_B)");
    if ((required & MEASUREMENT_CONTENT_DEVICE) && deviceColumns.empty())
        throw ZKCMeasurementError(file, "no device channel fields (CMYK_, CMY_, RGB_ or nCLR_)");

    // Values, patch by patch.
    data_.sampleIds.reserve(patches);
    // IDs as written, for the same reason as the names (and so "007" stays "007").
    const int idCol = idColumn >= 0 ? idColumn : nameColumn;
    for (std::size_t r = 0; r < patches; ++r)
        data_.sampleIds.push_back(idCol >= 0 ? Unquoted(prepared.dataLines[r].tokens[static_cast<std::size_t>(idCol)])
                                             : std::to_string(r + 1));
    for (int c : deviceColumns) data_.channelNames.push_back(fields[static_cast<std::size_t>(c)]);
    data_.deviceValues.reserve(patches * deviceColumns.size());
    for (std::size_t r = 0; r < patches; ++r)
        for (int c : deviceColumns) data_.deviceValues.push_back(Value(r, c));
    for (const auto& s : spectral) data_.wavelengths.push_back(s.first);
    data_.spectra.reserve(patches * spectral.size());
    for (std::size_t r = 0; r < patches; ++r)
        for (const auto& s : spectral) data_.spectra.push_back(static_cast<float>(Value(r, s.second)));
    const ZKSValueProblem reflectance = FindReflectanceProblem(data_.spectra.data(), data_.spectra.size());
    if (reflectance.found)
        throw ZKCMeasurementError(file, Where(reflectance.index / spectral.size(),
                                              spectral[reflectance.index % spectral.size()].second) +
                                            reflectance.problem);
    if (labFound == 3) {
        data_.lab.reserve(patches * 3);
        for (std::size_t r = 0; r < patches; ++r)
            for (int k = 0; k < 3; ++k) data_.lab.push_back(Value(r, labColumn[k]));
    }
    if (xyzFound == 3) {
        data_.xyz.reserve(patches * 3);
        for (std::size_t r = 0; r < patches; ++r)
            for (int k = 0; k < 3; ++k) data_.xyz.push_back(Value(r, xyzColumn[k]));
    }

    char** propertyNames = nullptr;
    cmsUInt32Number propertyCount = cmsIT8EnumProperties(h, &propertyNames);
    for (cmsUInt32Number i = 0; i < propertyCount && propertyNames != nullptr; ++i) {
        // The k-th listing of a keyword (pairs are listed once per line) is its k-th line.
        const std::string name = propertyNames[i];
        const auto k = std::count_if(properties_.begin(), properties_.end(),
                                     [&](const auto& p) { return p.first == name; });
        auto written = prepared.headerValues.begin();
        for (long seen = -1; written != prepared.headerValues.end(); ++written)
            if (written->first == name && ++seen == k) break;
        const char* value = cmsIT8GetProperty(h, propertyNames[i]);
        properties_.emplace_back(name, written != prepared.headerValues.end()
                                           ? written->second
                                           : std::string(value != nullptr ? value : ""));
    }
}

ZKCMeasurementFile::~ZKCMeasurementFile() = default;

std::string ZKCMeasurementFile::Property(const std::string& keyword) const {
    for (const auto& p : properties_)
        if (p.first == keyword) return p.second;
    return "";
}

AlignedBuffer<float> ZKCMeasurementFile::Resample(SPECTRALSAMPLING_METHOD method) const {
    if (!data_.HasSpectra()) throw ZKCMeasurementError(data_.file, "no spectral fields to resample");
    if (!options_.extrapolate) {
        const std::string gap = SpectralCoverageProblem(data_.wavelengths.data(), data_.wavelengths.size());
        if (!gap.empty()) throw ZKCMeasurementError(data_.file, "spectral fields: " + gap);
    }
    std::unique_ptr<ZKCSpectralSampling_Thread> sampler;
    try {
        sampler.reset(new ZKCSpectralSampling_Thread(data_.wavelengths, method));
    } catch (const char* text) {
        if (std::strcmp(text, "DefaultCase") == 0) throw;
        throw ZKCMeasurementError(data_.file, "spectral fields " + std::to_string(static_cast<int>(data_.wavelengths.front())) +
                                                  "-" + std::to_string(static_cast<int>(data_.wavelengths.back())) +
                                                  " nm: " + ExplainLibraryError(text));
    }
    AlignedBuffer<float> out(data_.PatchCount() * kSpectrumStride);
    sampler->Init(data_.spectra.data(), out.data(), data_.PatchCount());
    sampler->Calculate();
    return out;
}

}  // namespace KELMA_NAMESPACE
