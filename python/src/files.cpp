// Files other tools read: CGATS measurement files (ZKCMeasurementWriter) and
// any content written atomically (WriteFileAtomically), so that the command
// line and Python users write every output through the library.
#include "common.h"

namespace kelma_py {

namespace {

std::vector<std::string> Strings(const py::handle& obj, const char* name) {
    if (py::isinstance<py::str>(obj) || py::isinstance<py::bytes>(obj))
        ThrowType(std::string(name) + " must be a sequence of str, got a single string");
    if (!py::hasattr(obj, "__iter__")) ThrowType(std::string(name) + " must be a sequence of str");
    std::vector<std::string> out;
    for (const py::handle item : obj) {
        if (py::isinstance<py::bytes>(item)) {
            out.push_back(item.cast<std::string>());
            continue;
        }
        if (!py::isinstance<py::str>(item)) ThrowType(std::string(name) + " must be a sequence of str");
        out.push_back(Utf8(item, std::string(name) + "[" + std::to_string(out.size()) + "]"));
    }
    return out;
}

// A (patches, columns) table of finite reals; columns < 0: any count.
CArray<double> Table(const py::object& obj, const char* name, std::size_t patches, py::ssize_t columns,
                     const std::string& what) {
    CArray<double> a = AsNumeric<double>(obj, name, kFloat | kInteger);
    if (a.ndim() != 2 || a.shape(0) != static_cast<py::ssize_t>(patches) || (columns >= 0 && a.shape(1) != columns))
        ThrowValue(std::string(name) + " must be (" + std::to_string(patches) + ", " +
                   (columns >= 0 ? std::to_string(columns) : std::string("columns")) + "): " + what +
                   ", one row per sample ID, got shape " + ShapeString(a));
    CheckFinite(a.data(), static_cast<std::size_t>(a.size()), name);
    return a;
}

kelma::ZKSMeasurementKeywords Keywords(const py::object& obj) {
    kelma::ZKSMeasurementKeywords keywords;
    if (obj.is_none()) return keywords;
    py::object items = py::isinstance<py::dict>(obj) ? obj.attr("items")() : obj;
    try {
        for (const py::handle item : items) {
            const py::tuple pair = py::reinterpret_borrow<py::object>(item).cast<py::tuple>();
            if (pair.size() != 2) throw py::cast_error();
            const py::object value = pair[1];
            if (!py::isinstance<py::str>(pair[0]) ||
                !(py::isinstance<py::str>(value) || py::isinstance<py::int_>(value) ||
                  py::isinstance<py::float_>(value)) ||
                py::isinstance<py::bool_>(value))
                throw py::cast_error();
            keywords.emplace_back(Utf8(pair[0], "keywords"), Utf8(py::str(value), "keywords"));
        }
    } catch (const py::cast_error&) {
        ThrowType("keywords must be a dict or a sequence of (keyword, value) pairs of str (numbers are written "
                  "as str() gives them)");
    } catch (const py::error_already_set&) {
        ThrowType("keywords must be a dict or a sequence of (keyword, value) pairs");
    }
    return keywords;
}

kelma::ZKSMeasurementData TableArgument(const py::object& sampleIds, const py::object& channelNames,
                                        const py::object& deviceValues, const py::object& xyz,
                                        const py::object& lab, const py::object& wavelengths,
                                        const py::object& spectra) {
    kelma::ZKSMeasurementData d;
    d.sampleIds = Strings(sampleIds, "sample_ids");
    const std::size_t patches = d.sampleIds.size();
    if (patches == 0) ThrowValue("sample_ids holds no sample: a CGATS file needs at least one");
    if (channelNames.is_none() != deviceValues.is_none())
        ThrowValue("channel_names and device_values go together (the names of the device value columns)");
    if (!channelNames.is_none()) {
        d.channelNames = Strings(channelNames, "channel_names");
        CArray<double> v = Table(deviceValues, "device_values", patches,
                                 static_cast<py::ssize_t>(d.channelNames.size()), "one column per channel name");
        d.deviceValues.assign(v.data(), v.data() + v.size());
    }
    if (!xyz.is_none()) {
        CArray<double> v = Table(xyz, "xyz", patches, 3, "X, Y, Z on the 0-100 scale of CGATS files");
        d.xyz.assign(v.data(), v.data() + v.size());
    }
    if (!lab.is_none()) {
        CArray<double> v = Table(lab, "lab", patches, 3, "L*, a*, b*");
        d.lab.assign(v.data(), v.data() + v.size());
    }
    if (wavelengths.is_none() != spectra.is_none())
        ThrowValue("wavelengths and spectra go together (the wavelength of each spectral column)");
    if (!wavelengths.is_none()) {
        CArray<double> w = AsNumeric<double>(wavelengths, "wavelengths", kFloat | kInteger);
        if (w.ndim() != 1 || w.size() < 1)
            ThrowValue("wavelengths must be (bands,) in nm, got shape " + ShapeString(w));
        CheckFinite(w.data(), static_cast<std::size_t>(w.size()), "wavelengths");
        d.wavelengths.assign(w.data(), w.data() + w.size());
        CArray<double> s = Table(spectra, "spectra", patches, w.size(), "one reflectance factor per wavelength");
        CheckFloatRange(s, "spectra");
        d.spectra.assign(s.data(), s.data() + s.size());
    }
    return d;
}

std::string Text(const py::object& sampleIds, const py::object& channelNames, const py::object& deviceValues,
                 const py::object& xyz, const py::object& lab, const py::object& wavelengths,
                 const py::object& spectra, const py::object& keywords) {
    const kelma::ZKSMeasurementData d =
        TableArgument(sampleIds, channelNames, deviceValues, xyz, lab, wavelengths, spectra);
    const kelma::ZKSMeasurementKeywords k = Keywords(keywords);
    py::gil_scoped_release release;
    return kelma::ZKCMeasurementWriter(d, k).Text();
}

constexpr const char* kTableDoc = R"doc(
sample_ids: sequence of str, one per patch (at least one). IDs with blanks,
    '#' or a leading quote are quoted; a double quote or a control character
    cannot be written (MeasurementError).
channel_names, device_values: the device columns' names (e.g. CMYK_C ...
    CMYK_K, or 6CLR_1 ...) and their values, (patches, channels), usually
    percent.
xyz: (patches, 3) CIE XYZ on the 0-100 scale CGATS files use (100 x the
    library's XYZ).
lab: (patches, 3) CIELAB.
wavelengths, spectra: whole nm, strictly ascending, (bands,); reflectance
    factors (patches, bands), written as float32.
keywords: header keywords and values in order, a dict or (keyword, value)
    pairs (e.g. ILLUMINATION_NAME 'D50', OBSERVER_ANGLE '2'); a keyword given
    twice must hold pairs ('ILLUMINANT, D50'). NUMBER_OF_FIELDS,
    NUMBER_OF_SETS and the SPECTRAL_ counts come from the table.
Every value is written as the shortest decimal that reads back to the same
number: kelma.MeasurementFile reads the file back exactly.)doc";

}  // namespace

void RegisterFiles(py::module_& m) {
    m.attr("CGATS_MAX_PATCHES") = kelma::kMaxMeasurementTableSize;
    auto& writeError = py::register_exception<kelma::ZKCFileWriteError>(m, "FileWriteError", PyExc_OSError);
    writeError.attr("__doc__") = "A file that cannot be written; the text names it and the reason.";

    m.def(
        "write_file_atomically",
        [](const py::object& path, const py::object& data) {
            const std::string p = PathString(path);
            std::string content;
            if (py::isinstance<py::str>(data))
                content = Utf8(data, "data");
            else if (py::isinstance<py::bytes>(data) || py::isinstance<py::bytearray>(data) ||
                     py::isinstance<py::memoryview>(data))
                content = py::bytes(data).cast<std::string>();
            else
                ThrowType("data must be str (written as UTF-8) or bytes");
            py::gil_scoped_release release;
            kelma::WriteFileAtomically(p, content);
        },
        py::arg("path"), py::arg("data"),
        R"doc(write_file_atomically(path, data)

Writes data (bytes, or str as UTF-8) to exactly `path`: to a temporary file
beside it, flushed to disk, then renamed over it. On failure the target is
left as it was and kelma.FileWriteError (an OSError) names the file.)doc");

    // pybind11 keeps the pointers: the texts live as long as the module.
    static const std::string textDoc = std::string(R"doc(measurement_file_text(sample_ids, *, channel_names=None,
    device_values=None, xyz=None, lab=None, wavelengths=None, spectra=None, keywords=None) -> str

A CGATS.17 measurement file, built through Little CMS: fields SAMPLE_ID,
the device channels, XYZ_X/Y/Z, LAB_L/A/B and SPECTRAL_NM<nm>, each group
when given.)doc") + kTableDoc;
    static const std::string writeDoc = std::string(R"doc(write_measurement_file(path, sample_ids, *, ...) -> None

measurement_file_text(...) written to exactly `path`, atomically
(kelma.FileWriteError, an OSError, when it cannot be).)doc") + kTableDoc;
    m.def("measurement_file_text", &Text, py::arg("sample_ids"), py::kw_only(), py::arg("channel_names") = py::none(),
          py::arg("device_values") = py::none(), py::arg("xyz") = py::none(), py::arg("lab") = py::none(),
          py::arg("wavelengths") = py::none(), py::arg("spectra") = py::none(), py::arg("keywords") = py::none(),
          textDoc.c_str());
    m.def(
        "write_measurement_file",
        [](const py::object& path, const py::object& sampleIds, const py::object& channelNames,
           const py::object& deviceValues, const py::object& xyz, const py::object& lab,
           const py::object& wavelengths, const py::object& spectra, const py::object& keywords) {
            const std::string p = PathString(path);
            const kelma::ZKSMeasurementData d =
                TableArgument(sampleIds, channelNames, deviceValues, xyz, lab, wavelengths, spectra);
            const kelma::ZKSMeasurementKeywords k = Keywords(keywords);
            py::gil_scoped_release release;
            kelma::ZKCMeasurementWriter(d, k).Write(p);
        },
        py::arg("path"), py::arg("sample_ids"), py::kw_only(), py::arg("channel_names") = py::none(),
        py::arg("device_values") = py::none(), py::arg("xyz") = py::none(), py::arg("lab") = py::none(),
        py::arg("wavelengths") = py::none(), py::arg("spectra") = py::none(), py::arg("keywords") = py::none(),
        writeDoc.c_str());
}

}  // namespace kelma_py
