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
    *out = obj.cast<std::string>();
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
    if (!inkNames.is_none()) {
        if (py::isinstance<py::str>(inkNames) || !py::hasattr(inkNames, "__iter__"))
            ThrowType("ink_names must be a sequence of strings, one per ink");
        for (const auto& item : inkNames) {
            if (!py::isinstance<py::str>(item)) ThrowType("ink_names must hold strings");
            o.inkNames.push_back(item.cast<std::string>());
        }
        if (o.inkNames.size() != N)
            ThrowValue("ink_names must name each of the " + std::to_string(N) + " inks, got " +
                       std::to_string(o.inkNames.size()) + " names");
    }
    return o;
}

py::bytes Bytes(const std::vector<unsigned char>& v) {
    return py::bytes(reinterpret_cast<const char*>(v.data()), v.size());
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
}

}  // namespace kelma_py
