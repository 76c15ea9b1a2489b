#include "kelma/measurement/ZKCMeasurementWriter.h"

#include <lcms2.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>

#include "kelma/common/AtomicFile.h"

namespace KELMA_NAMESPACE {

namespace {

// Keywords the table determines.
const char* const kOwnKeywords[] = {"NUMBER_OF_FIELDS", "NUMBER_OF_SETS", "SPECTRAL_BANDS", "SPECTRAL_START_NM",
                                    "SPECTRAL_END_NM"};

bool IsOwnKeyword(const std::string& keyword) {
    return std::any_of(std::begin(kOwnKeywords), std::end(kOwnKeywords),
                       [&](const char* k) { return keyword == k; });
}

// Field and keyword names: letters, digits and '_' (nCLR_1 starts with a digit).
bool IsName(const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

bool HasControl(const std::string& s, bool tabAllowed) {
    return std::any_of(s.begin(), s.end(), [&](char ch) {
        const unsigned c = static_cast<unsigned char>(ch);
        return (c < 0x20 && !(tabAllowed && c == '\t')) || c == 0x7F;
    });
}

// The shortest decimal that reads back to `v`, in fixed notation: Little CMS
// misreads exponent forms without a decimal point (1e-05), so none is
// written. For floats this reads back exactly through double as well (every
// float of magnitude 2^-20 to 4 was checked).
template <class T>
std::string Shortest(T v) {
    char text[512];
    const auto result = std::to_chars(text, text + sizeof text, v, std::chars_format::fixed);
    if (result.ec != std::errc()) throw std::length_error("number too long to write");
    return std::string(text, result.ptr);
}

// A sample ID as a data token. Little CMS quotes values holding a blank
// itself; an ID that would otherwise not be one token (empty, a '#' that
// starts a comment, a leading quote) is quoted here.
std::string IdToken(const std::string& id) {
    if (id.find(' ') != std::string::npos) return id;
    if (id.empty() || id.find('#') != std::string::npos || id[0] == '\'') return '"' + id + '"';
    return id;
}

struct Errors {
    std::string first;
};

void CollectError(cmsContext context, cmsUInt32Number, const char* text) {
    auto* errors = static_cast<Errors*>(cmsGetContextUserData(context));
    if (errors != nullptr && errors->first.empty() && text != nullptr) errors->first = text;
}

struct ContextDeleter {
    void operator()(cmsContext c) const { cmsDeleteContext(c); }
};
struct IT8Deleter {
    void operator()(void* h) const { cmsIT8Free(static_cast<cmsHANDLE>(h)); }
};

std::string Number(std::size_t n) { return std::to_string(n); }

}  // namespace

ZKCMeasurementWriter::ZKCMeasurementWriter(const ZKSMeasurementData& data, const ZKSMeasurementKeywords& keywords)
    : data_(data), keywords_(keywords) {
    const std::size_t patches = data_.sampleIds.size();
    auto CheckSize = [&](std::size_t got, std::size_t per, const char* what) {
        if (got != patches * per)
            throw std::invalid_argument(std::string("ZKCMeasurementWriter: ") + what + " holds " + Number(got) +
                                        " values, expected " + Number(patches * per));
    };
    CheckSize(data_.deviceValues.size(), data_.channelNames.size(), "deviceValues");
    if (!data_.xyz.empty()) CheckSize(data_.xyz.size(), 3, "xyz");
    if (!data_.lab.empty()) CheckSize(data_.lab.size(), 3, "lab");
    CheckSize(data_.spectra.size(), data_.wavelengths.size(), "spectra");
}

ZKCMeasurementWriter::~ZKCMeasurementWriter() = default;

void ZKCMeasurementWriter::Check(const std::string& name) const {
    const ZKSMeasurementData& d = data_;
    const std::size_t patches = d.sampleIds.size();
    if (patches == 0) throw ZKCMeasurementError(name, "no patches to write");
    if (patches > kMaxMeasurementTableSize)
        throw ZKCMeasurementError(name, Number(patches) + " patches are more than the " +
                                            Number(kMaxMeasurementTableSize) +
                                            " a CGATS table holds (a limit of Little CMS)");
    for (std::size_t i = 0; i < keywords_.size(); ++i) {
        const std::string& k = keywords_[i].first;
        const std::string& v = keywords_[i].second;
        if (!IsName(k))
            throw ZKCMeasurementError(name, "header keyword '" + k + "' is not a name (letters, digits and _)");
        if (v.find('"') != std::string::npos || HasControl(v, true))
            throw ZKCMeasurementError(name, "header keyword " + k +
                                                ": the value holds a double quote or a line break, which CGATS "
                                                "cannot write");
        const auto repeats = std::count_if(keywords_.begin(), keywords_.end(),
                                           [&](const auto& p) { return p.first == k; });
        if (repeats > 1 && !IsOwnKeyword(k) && v.find(',') == std::string::npos)
            throw ZKCMeasurementError(name, "header keyword " + k +
                                                " is given more than once; CGATS repeats only pair values "
                                                "(\"NAME, value\")");
    }
    for (std::size_t p = 0; p < patches; ++p) {
        const std::string& id = d.sampleIds[p];
        if (id.find('"') != std::string::npos || HasControl(id, false))
            throw ZKCMeasurementError(name, "sample " + Number(p + 1) +
                                                ": the ID holds a double quote or a control character, which "
                                                "CGATS cannot write");
    }
    std::vector<std::string> fields{"SAMPLE_ID"};
    for (const auto& c : d.channelNames) {
        if (!IsName(c))
            throw ZKCMeasurementError(name, "device channel '" + c + "' is not a field name (letters, digits and _)");
        fields.push_back(c);
    }
    if (d.HasXYZ()) fields.insert(fields.end(), {"XYZ_X", "XYZ_Y", "XYZ_Z"});
    if (d.HasLab()) fields.insert(fields.end(), {"LAB_L", "LAB_A", "LAB_B"});
    for (std::size_t b = 0; b < d.wavelengths.size(); ++b) {
        const double nm = d.wavelengths[b];
        if (!(nm > 0 && nm < 1e5 && nm == std::floor(nm)))
            throw ZKCMeasurementError(name, "wavelength " + Shortest(nm) +
                                                " is not a whole number of nanometres (CGATS names SPECTRAL_NM<nm>)");
        if (b > 0 && !(nm > d.wavelengths[b - 1]))
            throw ZKCMeasurementError(name, "wavelengths must be strictly ascending, " + Shortest(nm) +
                                                " follows " + Shortest(d.wavelengths[b - 1]));
        fields.push_back("SPECTRAL_NM" + Shortest(nm));
    }
    if (fields.size() > kMaxMeasurementTableSize)
        throw ZKCMeasurementError(name, Number(fields.size()) + " fields are more than the " +
                                            Number(kMaxMeasurementTableSize) +
                                            " a CGATS table holds (a limit of Little CMS)");
    for (std::size_t i = 0; i < fields.size(); ++i)
        if (std::count(fields.begin(), fields.end(), fields[i]) > 1)
            throw ZKCMeasurementError(name, "field " + fields[i] + " appears twice");

    auto CheckFinite = [&](const auto& values, std::size_t per, const std::vector<std::string>& names) {
        for (std::size_t i = 0; i < values.size(); ++i)
            if (!std::isfinite(values[i]))
                throw ZKCMeasurementError(name, "sample " + d.sampleIds[i / per] + ", field " + names[i % per] +
                                                    ": " + (std::isnan(values[i]) ? "NaN" : "an infinite value") +
                                                    " cannot be written");
    };
    CheckFinite(d.deviceValues, d.channelNames.size(), d.channelNames);
    CheckFinite(d.xyz, 3, {"XYZ_X", "XYZ_Y", "XYZ_Z"});
    CheckFinite(d.lab, 3, {"LAB_L", "LAB_A", "LAB_B"});
    std::vector<std::string> spectralNames;
    for (double nm : d.wavelengths) spectralNames.push_back("SPECTRAL_NM" + Shortest(nm));
    CheckFinite(d.spectra, d.wavelengths.size(), spectralNames);
}

std::string ZKCMeasurementWriter::Render(const std::string& name) const {
    Check(name);
    const ZKSMeasurementData& d = data_;
    const std::size_t patches = d.sampleIds.size();
    const std::size_t bands = d.wavelengths.size();
    const std::size_t fieldCount = 1 + d.channelNames.size() + (d.HasXYZ() ? 3 : 0) + (d.HasLab() ? 3 : 0) + bands;

    Errors errors;
    std::unique_ptr<std::remove_pointer_t<cmsContext>, ContextDeleter> context(cmsCreateContext(nullptr, &errors));
    if (!context) throw std::bad_alloc();
    cmsSetLogErrorHandlerTHR(context.get(), &CollectError);
    std::unique_ptr<void, IT8Deleter> it8(cmsIT8Alloc(context.get()));
    if (!it8) throw std::bad_alloc();
    cmsHANDLE h = it8.get();
    auto Require = [&](cmsBool ok) {
        if (!ok)
            throw ZKCMeasurementError(name, "Little CMS could not build the CGATS table" +
                                                (errors.first.empty() ? std::string() : ": " + errors.first));
    };

    Require(cmsIT8SetSheetType(h, "CGATS.17"));
    for (const auto& kv : keywords_) {
        const std::string& k = kv.first;
        if (IsOwnKeyword(k)) continue;
        const auto repeats = std::count_if(keywords_.begin(), keywords_.end(),
                                           [&](const auto& p) { return p.first == k; });
        if (repeats > 1) {
            // A pair keyword (WEIGHTING_FUNCTION "ILLUMINANT, D50"): one line per pair.
            const std::size_t comma = kv.second.find(',');
            Require(cmsIT8SetPropertyMulti(h, k.c_str(), kv.second.substr(0, comma).c_str(),
                                           kv.second.substr(comma + 1).c_str()));
        } else {
            Require(cmsIT8SetPropertyStr(h, k.c_str(), kv.second.c_str()));
        }
    }
    if (bands > 0) {
        Require(cmsIT8SetPropertyDbl(h, "SPECTRAL_BANDS", static_cast<double>(bands)));
        bool even = bands > 1;
        for (std::size_t b = 2; b < bands && even; ++b)
            even = d.wavelengths[b] - d.wavelengths[b - 1] == d.wavelengths[1] - d.wavelengths[0];
        if (even) {
            Require(cmsIT8SetPropertyDbl(h, "SPECTRAL_START_NM", d.wavelengths.front()));
            Require(cmsIT8SetPropertyDbl(h, "SPECTRAL_END_NM", d.wavelengths.back()));
        }
    }
    Require(cmsIT8SetPropertyDbl(h, "NUMBER_OF_FIELDS", static_cast<double>(fieldCount)));
    Require(cmsIT8SetPropertyDbl(h, "NUMBER_OF_SETS", static_cast<double>(patches)));

    int column = 0;
    auto Field = [&](const std::string& field) { Require(cmsIT8SetDataFormat(h, column++, field.c_str())); };
    Field("SAMPLE_ID");
    for (const auto& c : d.channelNames) Field(c);
    if (d.HasXYZ()) Field("XYZ_X"), Field("XYZ_Y"), Field("XYZ_Z");
    if (d.HasLab()) Field("LAB_L"), Field("LAB_A"), Field("LAB_B");
    for (double nm : d.wavelengths) Field("SPECTRAL_NM" + Shortest(nm));

    const std::size_t channels = d.channelNames.size();
    for (std::size_t p = 0; p < patches; ++p) {
        const int row = static_cast<int>(p);
        int col = 0;
        auto Set = [&](const std::string& text) { Require(cmsIT8SetDataRowCol(h, row, col++, text.c_str())); };
        Set(IdToken(d.sampleIds[p]));
        for (std::size_t c = 0; c < channels; ++c) Set(Shortest(d.deviceValues[p * channels + c]));
        if (d.HasXYZ())
            for (int k = 0; k < 3; ++k) Set(Shortest(d.xyz[p * 3 + k]));
        if (d.HasLab())
            for (int k = 0; k < 3; ++k) Set(Shortest(d.lab[p * 3 + k]));
        for (std::size_t b = 0; b < bands; ++b) Set(Shortest(d.spectra[p * bands + b]));
    }

    cmsUInt32Number size = 0;
    Require(cmsIT8SaveToMem(h, nullptr, &size));
    std::string text(size, '\0');
    Require(cmsIT8SaveToMem(h, &text[0], &size));
    // The size counts the terminating NUL.
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
    return text;
}

std::string ZKCMeasurementWriter::Text() const { return Render("CGATS output"); }

void ZKCMeasurementWriter::Write(const std::string& path) const { WriteFileAtomically(path, Render(path)); }

}  // namespace KELMA_NAMESPACE
