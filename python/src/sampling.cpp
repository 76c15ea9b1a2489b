// Spectral resampling onto the 31-point grid and CGATS measurement files.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <sstream>
#include <sys/stat.h>

#include "common.h"

namespace kelma_py {

namespace {

constexpr unsigned kValues = kelma::kSpectralValues;
constexpr unsigned kStride = kelma::kSpectrumStride;

kelma::SPECTRALSAMPLING_METHOD Method(const std::string& name) {
    std::string m = name;
    std::transform(m.begin(), m.end(), m.begin(), [](unsigned char c) { return std::tolower(c); });
    if (m == "linear") return kelma::SPECTRALSAMPLING_LINEAR;
    if (m == "spline") return kelma::SPECTRALSAMPLING_CUBICSPLINE;
    ThrowValue("method must be 'linear' or 'spline' (clamped cubic spline), got '" + name + "'");
}

std::string Range(const std::vector<double>& w) {
    std::ostringstream s;
    s << w.front() << ".." << w.back() << " nm";
    return s.str();
}

// What the library's own checks of a list mean, said with what is expected.
std::string ListContext(const std::vector<double>& w) {
    if (w.size() < 2) return "wavelengths must list at least 2 values (nm), got " + std::to_string(w.size());
    return "wavelengths must start at or below 400 nm or end at or above 700 nm, got " + Range(w);
}

// Resamples count spectra of n floats into count x 31 floats through 32-float
// records: a small batch on this thread (no worker per processor, no thread),
// a large one through the driver, in chunks.
void ResampleInto(const std::vector<double>& w, kelma::SPECTRALSAMPLING_METHOD method, const float* in,
                  std::size_t count, float* out) {
    using kelma::ZKCSpectralSampling_Thread;
    const std::size_t n = w.size();
    constexpr std::size_t kChunk = std::size_t(1) << 16;
    kelma::AlignedBuffer<float> records(std::min(count, kChunk) * kStride);
    std::unique_ptr<ZKCSpectralSampling_Thread> sampler;
    if (ZKCSpectralSampling_Thread::WorthThreads(count))
        sampler = WithContext(ListContext(w), [&] { return std::make_unique<ZKCSpectralSampling_Thread>(w, method); });
    // At least one turn: the calling-thread entry validates the list even for
    // an empty batch, as the driver's constructor does.
    std::size_t start = 0;
    do {
        const std::size_t c = std::min(kChunk, count - start);
        if (sampler) {
            sampler->Init(in + start * n, records.data(), c);
            sampler->Calculate();
        } else {
            WithContext(ListContext(w), [&] {
                ZKCSpectralSampling_Thread::CalculateOnCallingThread(w, method, in + start * n, records.data(), c);
                return 0;
            });
        }
        for (std::size_t i = 0; i < c; ++i)
            std::memcpy(out + (start + i) * kValues, records.data() + i * kStride, kValues * sizeof(float));
        start += c;
    } while (start < count);
}

py::array_t<float> Resample(const py::object& spectraObj, const py::object& wavelengthsObj,
                            const std::string& methodName, bool extrapolate) {
    const kelma::SPECTRALSAMPLING_METHOD method = Method(methodName);
    auto wl = AsNumeric<double>(wavelengthsObj, "wavelengths", kFloat | kInteger);
    if (wl.ndim() != 1) ThrowValue("wavelengths must be 1-D (nm), got shape " + ShapeString(wl));
    const std::size_t n = static_cast<std::size_t>(wl.shape(0));
    std::vector<double> w(wl.data(), wl.data() + n);
    CheckFinite(w.data(), n, "wavelengths");
    for (std::size_t i = 1; i < n; ++i)
        if (!(w[i] > w[i - 1])) {
            std::ostringstream s;
            s << "wavelengths must be strictly ascending, got " << w[i - 1] << " then " << w[i] << " at index " << i;
            ThrowValue(s.str());
        }
    // The library's plausibility rules, as the measurement-file reader applies them.
    for (std::size_t i = 0; i < n; ++i) {
        const std::string problem = kelma::WavelengthProblem(w[i]);
        if (!problem.empty()) ThrowValue("wavelengths[" + std::to_string(i) + "]: " + problem);
    }
    if (!extrapolate) {
        const std::string gap = kelma::SpectralCoverageProblem(w.data(), n);
        if (!gap.empty()) ThrowValue(gap);
    }
    // Checked in double, before single precision could turn 1e300 into inf.
    auto spectra = AsNumeric<double>(spectraObj, "spectra", kFloat | kInteger);
    Shape shape;
    const std::size_t count =
        BatchCount(spectra, "spectra", static_cast<py::ssize_t>(n), "one value per wavelength", &shape);
    CheckFinite(spectra.data(), spectra.size(), "spectra");
    CheckFloatRange(spectra, "spectra");
    CheckReflectance(spectra, "spectra");
    std::vector<float> single(spectra.data(), spectra.data() + spectra.size());
    shape.push_back(kValues);
    py::array_t<float> out(shape);
    const float* in = single.data();
    float* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        ResampleInto(w, method, in, count, o);
    }
    return out;
}

std::uint32_t Required(const py::object& required) {
    if (required.is_none()) return kelma::MEASUREMENT_CONTENT_ANY;
    std::vector<std::string> names;
    if (py::isinstance<py::str>(required))
        names.push_back(required.cast<std::string>());
    else
        for (const auto& item : required) {
            if (!py::isinstance<py::str>(item)) ThrowType("required must be a string or a sequence of strings");
            names.push_back(item.cast<std::string>());
        }
    std::uint32_t mask = 0;
    for (const auto& name : names) {
        if (name == "spectra")
            mask |= kelma::MEASUREMENT_CONTENT_SPECTRA;
        else if (name == "lab")
            mask |= kelma::MEASUREMENT_CONTENT_LAB;
        else if (name == "device")
            mask |= kelma::MEASUREMENT_CONTENT_DEVICE;
        else if (name != "any")
            ThrowValue("required content must be among 'spectra', 'lab', 'device' (or 'any'), got '" + name + "'");
    }
    return mask;
}

using FilePtr = std::shared_ptr<kelma::ZKCMeasurementFile>;

FilePtr OpenFile(const py::object& pathObj, const py::object& required, bool extrapolate) {
    const std::string path = py::str(py::module_::import("os").attr("fspath")(pathObj)).cast<std::string>();
    const std::uint32_t mask = Required(required);
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
        throw py::error_already_set();
    }
    kelma::ZKSMeasurementOptions options;
    options.extrapolate = extrapolate;
    py::gil_scoped_release release;
    return std::make_shared<kelma::ZKCMeasurementFile>(path, mask, options);
}

template <class T>
py::array_t<T> Table(const std::vector<T>& v, py::ssize_t rows, py::ssize_t columns) {
    py::array_t<T> out({rows, columns});
    std::copy(v.begin(), v.end(), out.mutable_data());
    return out;
}

}  // namespace

void RegisterSampling(py::module_& m) {
    m.def("resample", &Resample, py::arg("spectra"), py::arg("wavelengths"), py::arg("method") = "linear",
          py::kw_only(), py::arg("extrapolate") = false,
          R"doc(Resamples reflectance spectra onto 400-700 nm in 10 nm steps (kelma.WAVELENGTHS), on all processors.

spectra: real (..., n), one reflectance factor per wavelength on the last
    axis: finite, within float32 range, and between -0.1 and 2 (values in
    percent are refused: divide them by 100).
wavelengths: n strictly ascending wavelengths in nm (n >= 2), within
    300-1100 nm (micrometres or angstrom are refused with the factor to
    convert them).
method: 'linear' (piecewise linear) or 'spline' (cubic spline with zero
    slope at both ends).
extrapolate: the list must always start at or below 400 nm or end at or
    above 700 nm (405-695 nm is refused); without extrapolate it must also
    reach to within 10 nm of 400 nm and of 700 nm. Grid wavelengths outside
    the list are extrapolated from its first or last interval.
Returns float32 (..., 31).)doc");

    py::class_<kelma::ZKCMeasurementFile, FilePtr>(m, "MeasurementFile", R"doc(
Patches of a CGATS / ISO 28178 measurement file (e.g. a characterisation
chart), as numpy arrays.

MeasurementFile(path, required='spectra', *, extrapolate=False)
    path: str or os.PathLike of a regular file of at most 64 MiB. Text that
        is not UTF-8 is read as Windows-1252 (Latin-1); a byte order mark
        (UTF-8 or UTF-16) is honoured; strings come back as str.
    required: 'spectra', 'lab', 'device', a sequence of those, or None/'any':
        content whose absence is an error.
    extrapolate: resample() refuses spectra whose wavelengths leave more than
        10 nm of 400-700 nm uncovered at either end, unless this is True
        (grid wavelengths outside the file's range are then extrapolated
        from its first or last interval). Either way the wavelengths must
        start at or below 400 nm or end at or above 700 nm.
Every value must be a finite number within float32 range; spectral fields
must name wavelengths of 300-1100 nm and hold reflectance factors (-0.1 to 2;
percent is refused). Problems with the file raise kelma.MeasurementError (a
ValueError) naming it, with the line and field where there is one; a missing
file raises FileNotFoundError.
)doc")
        .def(py::init(&OpenFile), py::arg("path"), py::arg("required") = "spectra", py::kw_only(),
             py::arg("extrapolate") = false)
        .def_static(
            "from_text",
            [](const py::object& text, const std::string& name, const py::object& required, bool extrapolate) {
                std::string contents;
                if (py::isinstance<py::str>(text))
                    contents = text.cast<std::string>();
                else if (py::isinstance<py::bytes>(text) || py::isinstance<py::bytearray>(text))
                    contents = py::bytes(text).cast<std::string>();
                else
                    ThrowType("text must be str or bytes (the file's contents)");
                const std::uint32_t mask = Required(required);
                kelma::ZKSMeasurementOptions options;
                options.extrapolate = extrapolate;
                py::gil_scoped_release release;
                return std::make_shared<kelma::ZKCMeasurementFile>(
                    kelma::ZKCMeasurementFile::FromText(name, contents, mask, options));
            },
            py::arg("text"), py::arg("name") = "<text>", py::arg("required") = "spectra", py::kw_only(),
            py::arg("extrapolate") = false,
            R"doc(from_text(text, name='<text>', required='spectra', *, extrapolate=False) -> MeasurementFile

A measurement file's contents (str, or bytes in any encoding the reader
takes), read and checked as a file; `name` stands for the file in errors
(e.g. '<stdin>'). At most 64 MiB.)doc")
        .def_property_readonly("extrapolate",
                               [](const kelma::ZKCMeasurementFile& f) { return f.Options().extrapolate; })
        .def_property_readonly("path", [](const kelma::ZKCMeasurementFile& f) { return f.Data().file; })
        .def_property_readonly("patch_count", [](const kelma::ZKCMeasurementFile& f) { return f.Data().PatchCount(); })
        .def_property_readonly("sample_ids", [](const kelma::ZKCMeasurementFile& f) { return f.Data().sampleIds; },
                               "Sample IDs as written (list of str), in file order.")
        .def_property_readonly("channel_names",
                               [](const kelma::ZKCMeasurementFile& f) { return f.Data().channelNames; },
                               "Device channel columns in file order, e.g. ['CMYK_C', 'CMYK_M', 'CMYK_Y', 'CMYK_K'].")
        .def_property_readonly(
            "device_values",
            [](const kelma::ZKCMeasurementFile& f) {
                const auto& d = f.Data();
                return Table(d.deviceValues, py::ssize_t(d.PatchCount()), py::ssize_t(d.ChannelCount()));
            },
            "float64 (patches, channels): device values as written (CMYK usually 0-100 %).")
        .def_property_readonly(
            "wavelengths",
            [](const kelma::ZKCMeasurementFile& f) {
                const auto& w = f.Data().wavelengths;
                py::array_t<double> out(py::ssize_t(w.size()));
                std::copy(w.begin(), w.end(), out.mutable_data());
                return out;
            },
            "float64 (bands,): strictly ascending wavelengths (nm) of the spectral columns; empty without spectra.")
        .def_property_readonly(
            "spectra",
            [](const kelma::ZKCMeasurementFile& f) {
                const auto& d = f.Data();
                return Table(d.spectra, py::ssize_t(d.PatchCount()), py::ssize_t(d.BandCount()));
            },
            "float32 (patches, bands): spectral values as written (reflectance factors 0-1 usually).")
        .def_property_readonly(
            "lab",
            [](const kelma::ZKCMeasurementFile& f) -> py::object {
                const auto& d = f.Data();
                if (!d.HasLab()) return py::none();
                return Table(d.lab, py::ssize_t(d.PatchCount()), 3);
            },
            "float64 (patches, 3): L*, a*, b* as written, or None when the file has none.")
        .def_property_readonly(
            "xyz",
            [](const kelma::ZKCMeasurementFile& f) -> py::object {
                const auto& d = f.Data();
                if (!d.HasXYZ()) return py::none();
                return Table(d.xyz, py::ssize_t(d.PatchCount()), 3);
            },
            "float64 (patches, 3): X, Y, Z as written (CGATS files: 0-100 scale), or None when the file has none.")
        .def("property", &kelma::ZKCMeasurementFile::Property, py::arg("keyword"),
             "Header keyword value as written (e.g. 'D50' for ILLUMINATION_NAME, 'ILLUMINANT, D50' for a "
             "WEIGHTING_FUNCTION pair), '' when absent; the first when a keyword repeats.")
        .def_property_readonly(
            "properties", [](const kelma::ZKCMeasurementFile& f) { return f.Properties(); },
            "Every header keyword and its value as written, [(keyword, value), ...] in file order (a pair keyword "
            "once per line).")
        .def(
            "resample",
            [](const kelma::ZKCMeasurementFile& f, const std::string& method) {
                const kelma::SPECTRALSAMPLING_METHOD mm = Method(method);
                const std::size_t count = f.Data().PatchCount();
                if (!f.Data().HasSpectra())
                    throw kelma::ZKCMeasurementError(f.Data().file, "no spectral fields to resample");
                py::array_t<float> out({py::ssize_t(count), py::ssize_t(kValues)});
                float* o = out.mutable_data();
                {
                    py::gil_scoped_release release;
                    kelma::AlignedBuffer<float> records = f.Resample(mm);
                    for (std::size_t i = 0; i < count; ++i)
                        std::memcpy(o + i * kValues, records.data() + i * kStride, kValues * sizeof(float));
                }
                return out;
            },
            py::arg("method") = "linear",
            "The spectra resampled onto 400-700 nm / 10 nm ('linear' or 'spline'): float32 (patches, 31).")
        .def("__repr__", [](const kelma::ZKCMeasurementFile& f) {
            const auto& d = f.Data();
            return "<kelma.MeasurementFile '" + d.file + "': " + std::to_string(d.PatchCount()) + " patches, " +
                   std::to_string(d.BandCount()) + " bands, " + std::to_string(d.ChannelCount()) + " channels" +
                   (d.HasLab() ? ", Lab" : "") + ">";
        });
}

}  // namespace kelma_py
