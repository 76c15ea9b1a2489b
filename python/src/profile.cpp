// ICC profiles of a model (kelma/profile): every argument is checked here,
// the library builds the profile through Little CMS.
#include <sstream>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

// A whole number in [lo, hi] (a Python or numpy integer, not a bool).
unsigned WholeNumber(const py::handle& obj, const char* name, long long lo, long long hi) {
    const bool integer = (py::isinstance<py::int_>(obj) && !py::isinstance<py::bool_>(obj)) ||
                         py::isinstance(obj, py::module_::import("numpy").attr("integer"));
    if (!integer) ThrowType(std::string(name) + " must be a whole number");
    const long long v = obj.cast<long long>();
    if (v < lo || v > hi) {
        std::ostringstream s;
        s << name << " must be " << lo << ".." << hi << ", got " << v;
        ThrowValue(s.str());
    }
    return static_cast<unsigned>(v);
}

// Text arguments: a str, or None for the library's default.
void TextArgument(const py::object& obj, const char* name, std::string* out) {
    if (obj.is_none()) return;
    if (!py::isinstance<py::str>(obj)) ThrowType(std::string(name) + " must be a string or None");
    *out = Utf8(obj, name);
}

// The options every profile takes; the model's ink count decides the names' count.
kelma::ZKSICCProfileOptions ProfileOptions(const kelma::ZKCSSE_KELMA_Data& model, const py::object& illuminant,
                                           const py::object& gridPoints, const py::object& iccVersion,
                                           const py::object& description, const py::object& copyright,
                                           const py::object& target, const py::object& inkNames) {
    const unsigned N = model.NumberOfInks();
    if (N != 4 && N != 6 && N != 7)
        ThrowValue("an ICC profile needs a model of 4, 6 or 7 inks, the model has " + std::to_string(N));
    kelma::ZKSICCProfileOptions o;
    o.illuminant = IlluminantArgument(model, illuminant);
    o.gridPoints = WholeNumber(gridPoints, "grid_points", 2, 255);
    const unsigned version = WholeNumber(iccVersion, "icc_version", 2, 4);
    if (version == 3) ThrowValue("icc_version must be 4 or 2, got 3");
    o.iccVersion = version;
    TextArgument(description, "description", &o.description);
    TextArgument(copyright, "copyright", &o.copyright);
    TextArgument(target, "target", &o.characterizationTarget);
    if (!inkNames.is_none()) o.inkNames = NameList(inkNames, N);
    return o;
}

py::bytes Bytes(const std::vector<unsigned char>& v) {
    return py::bytes(reinterpret_cast<const char*>(v.data()), v.size());
}

// The separation of the colour-to-device tables (as kelma.Separation checks
// it): total coverage and maximum black in percent, GCR, or black length and
// width (either selects that mode).
void SeparationArguments(const kelma::ZKCSSE_KELMA_Data& model, const py::object& totalCoverage,
                         const py::object& maxBlack, const py::object& gcr, const py::object& blackLength,
                         const py::object& blackWidth, kelma::ZKCUserParameter_Output* p) {
    const unsigned N = model.NumberOfInks();
    const unsigned coverage = WholeNumber(totalCoverage, "total_coverage", 0, 100LL * N);
    if (coverage == 0)
        ThrowValue("total_coverage=0 leaves no gamut: nothing but the paper is reachable; give at least 1 (percent)");
    p->SetColorantCoverage(coverage);
    p->SetMaxBlack(WholeNumber(maxBlack, "max_black", 0, 100));
    p->SetGCR(WholeNumber(gcr, "gcr", 0, 100));
    if (!blackLength.is_none() || !blackWidth.is_none()) {
        p->SetBlackLength(blackLength.is_none() ? 0 : WholeNumber(blackLength, "black_length", 0, 100));
        p->SetBlackWidth(blackWidth.is_none() ? 0 : WholeNumber(blackWidth, "black_width", 0, 100));
    }
}

kelma::ZKSICCProfileOptions OutputOptions(const kelma::ZKCSSE_KELMA_Data& model, const py::object& illuminant,
                                          const py::object& totalCoverage, const py::object& maxBlack,
                                          const py::object& gcr, const py::object& blackLength,
                                          const py::object& blackWidth, const py::object& gridPoints,
                                          const py::object& iccVersion, const py::object& description,
                                          const py::object& copyright, const py::object& target,
                                          const py::object& inkNames) {
    kelma::ZKSICCProfileOptions o =
        ProfileOptions(model, illuminant, gridPoints, iccVersion, description, copyright, target, inkNames);
    SeparationArguments(model, totalCoverage, maxBlack, gcr, blackLength, blackWidth, &o.separation);
    return o;
}

py::bytes ProofProfile(const ModelPtr& model, const py::object& illuminant, const py::object& gridPoints,
                       const py::object& iccVersion, const py::object& description, const py::object& copyright,
                       const py::object& target, const py::object& inkNames) {
    const kelma::ZKSICCProfileOptions o =
        ProfileOptions(*model, illuminant, gridPoints, iccVersion, description, copyright, target, inkNames);
    std::vector<unsigned char> bytes;
    {
        py::gil_scoped_release release;
        bytes = WithContext("kelma.icc_proof_profile", [&] { return kelma::ICCProofProfile(*model, o); });
    }
    return Bytes(bytes);
}

py::bytes OutputProfile(const ModelPtr& model, const py::object& illuminant, const py::object& totalCoverage,
                        const py::object& maxBlack, const py::object& gcr, const py::object& blackLength,
                        const py::object& blackWidth, const py::object& gridPoints, const py::object& iccVersion,
                        const py::object& description, const py::object& copyright, const py::object& target,
                        const py::object& inkNames) {
    const kelma::ZKSICCProfileOptions o =
        OutputOptions(*model, illuminant, totalCoverage, maxBlack, gcr, blackLength, blackWidth, gridPoints,
                      iccVersion, description, copyright, target, inkNames);
    std::vector<unsigned char> bytes;
    {
        py::gil_scoped_release release;
        bytes = WithContext("kelma.icc_profile", [&] { return kelma::ICCOutputProfile(*model, o); });
    }
    return Bytes(bytes);
}

void WriteOutputProfile(const ModelPtr& model, const py::object& path, const py::object& illuminant,
                        const py::object& totalCoverage, const py::object& maxBlack, const py::object& gcr,
                        const py::object& blackLength, const py::object& blackWidth, const py::object& gridPoints,
                        const py::object& iccVersion, const py::object& description, const py::object& copyright,
                        const py::object& target, const py::object& inkNames) {
    const std::string p = PathString(path);
    const kelma::ZKSICCProfileOptions o =
        OutputOptions(*model, illuminant, totalCoverage, maxBlack, gcr, blackLength, blackWidth, gridPoints,
                      iccVersion, description, copyright, target, inkNames);
    py::gil_scoped_release release;
    WithContext("kelma.write_icc_profile", [&] {
        kelma::WriteICCOutputProfile(p, *model, o);
        return 0;
    });
}

}  // namespace

void RegisterProfile(py::module_& m) {
    py::register_exception<kelma::ZKCICCProfileError>(m, "ICCProfileError", PyExc_ValueError);

    m.def("icc_proof_profile", &ProofProfile, py::arg("model"), py::kw_only(), py::arg("illuminant") = 0,
          py::arg("grid_points") = 33, py::arg("icc_version") = 4, py::arg("description") = py::none(),
          py::arg("copyright") = py::none(), py::arg("target") = py::none(), py::arg("ink_names") = py::none(),
          R"doc(The device-to-PCS half of the model's ICC output profile, as bytes: tables
A2B0-2 from the model (CMYK, or 6CLR / 7CLR for 6 and 7 inks, to media-relative
CIELAB D50, adapted by Bradford from other illuminants), media white point,
description, copyright, characterisation target and colorant names. It has no
colour-to-device tables: use it as the source profile of a transform (soft
proofs, device values to CIELAB or a display), e.g. with PIL.ImageCms.

illuminant: index or name of one of the model's illuminants.
grid_points: nodes per ink of the tables (2..255; 6 and 7 inks get fewer).
icc_version: 4 or 2. target: the chart's CGATS text (the 'targ' tag).)doc");

    static const std::string outputDoc = R"doc(
The model's ICC output profile (Little CMS): device CMYK (6CLR, 7CLR for 6
and 7 inks) and PCS CIELAB D50, media-relative.
  A2B0-2: the model at exact table nodes (as icc_proof_profile).
  B2A0-2: the library's separation (kelma.Separation) of each PCS colour,
          in-gamut colours reproduced, others mapped to the gamut boundary at
          their lightness and hue; fitted where the gamut ends.
  gamt:   0 where the separation finds the colour reproducible.
illuminant: index or name of one of the model's illuminants (colours under
    another one are adapted to D50 by Bradford).
total_coverage, max_black: limits in percent (sum over the inks; black).
gcr: grey component replacement 0..100, or black_length / black_width
    (percent of darkness) for that black generation.
grid_points: nodes per axis of the tables (2..255; the device-to-PCS table
    of 6 and 7 inks gets fewer). icc_version: 4 or 2.
description, copyright: the profile's texts. target: the measurement data
    (CGATS text) of the chart, for the 'targ' tag. ink_names: one per ink.)doc";
    m.def("icc_profile", &OutputProfile, py::arg("model"), py::kw_only(), py::arg("illuminant") = 0,
          py::arg("total_coverage") = 300, py::arg("max_black") = 95, py::arg("gcr") = 50,
          py::arg("black_length") = py::none(), py::arg("black_width") = py::none(), py::arg("grid_points") = 33,
          py::arg("icc_version") = 4, py::arg("description") = py::none(), py::arg("copyright") = py::none(),
          py::arg("target") = py::none(), py::arg("ink_names") = py::none(),
          ("The ICC output profile's bytes.\n" + outputDoc).c_str());
    m.def("write_icc_profile", &WriteOutputProfile, py::arg("model"), py::arg("path"), py::kw_only(),
          py::arg("illuminant") = 0, py::arg("total_coverage") = 300, py::arg("max_black") = 95, py::arg("gcr") = 50,
          py::arg("black_length") = py::none(), py::arg("black_width") = py::none(), py::arg("grid_points") = 33,
          py::arg("icc_version") = 4, py::arg("description") = py::none(), py::arg("copyright") = py::none(),
          py::arg("target") = py::none(), py::arg("ink_names") = py::none(),
          ("Writes the ICC output profile to exactly `path`, atomically.\n" + outputDoc).c_str());
}

}  // namespace kelma_py
