// kelma.ModelFile, kelma.load_model and Model.save: the library's model file
// format (kelma/modelfile/ZKSModelFile.h), and the pickling, copying and
// comparison of models, which go through the same description.
#include <cmath>
#include <limits>
#include <memory>
#include <sstream>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKSModelFile;
using kelma::ZKSModelIlluminant;
using FilePtr = std::shared_ptr<ZKSModelFile>;

constexpr unsigned kValues = kelma::kSpectralValues;
// Version of the pickled state of Model and ModelFile.
constexpr int kStateVersion = 1;

std::string ModelFileText(const ZKSModelFile& f) { return f.Format(); }

py::array_t<double> Doubles(const std::vector<double>& v, Shape shape) {
    py::array_t<double> out(shape);
    std::copy(v.begin(), v.end(), out.mutable_data());
    return out;
}

py::array_t<float> Floats(const std::vector<float>& v, Shape shape) {
    py::array_t<float> out(shape);
    std::copy(v.begin(), v.end(), out.mutable_data());
    return out;
}

std::string OneLine(const py::object& text, const char* name) {
    if (!py::isinstance<py::str>(text)) ThrowType(std::string(name) + " must be a string");
    return Utf8(text, name);
}

// Provenance and names given as keyword arguments; None leaves a field as it is.
void Describe(ZKSModelFile& f, const py::object& inkNames, const py::object& description, const py::object& chart,
              const py::object& fitMethod, const py::object& fitPatches, const py::object& fitError,
              const py::object& software) {
    if (!inkNames.is_none()) f.inkNames = NameList(inkNames, f.numberOfInks);
    kelma::ZKSModelProvenance& p = f.provenance;
    if (!description.is_none()) p.description = OneLine(description, "description");
    if (!chart.is_none()) p.chart = OneLine(py::str(py::module_::import("os").attr("fsdecode")(chart)), "chart");
    if (!fitMethod.is_none()) p.fitMethod = OneLine(fitMethod, "fit_method");
    if (!software.is_none()) p.software = OneLine(software, "software");
    if (!fitPatches.is_none()) {
        const long long count = fitPatches.cast<long long>();
        if (count < 0) ThrowValue("fit_patches must be >= 0, got " + std::to_string(count));
        p.fitPatches = static_cast<std::size_t>(count);
    }
    if (!fitError.is_none()) {
        if (!py::isinstance<py::dict>(fitError))
            ThrowType("fit_error must be a dict with mean, p95 and max (CIEDE2000), as BuiltModel.fit_error");
        py::dict d = fitError.cast<py::dict>();
        for (const char* key : {"mean", "p95", "max"})
            if (!d.contains(key)) ThrowValue(std::string("fit_error needs the key '") + key + "'");
        p.fitErrorMean = d["mean"].cast<double>();
        p.fitErrorP95 = d["p95"].cast<double>();
        p.fitErrorMax = d["max"].cast<double>();
    }
}

py::object IlluminantObject(const ZKSModelIlluminant& il) {
    if (il.name == "spd") return py::make_tuple("spd", Doubles(il.spd, {kValues}));
    if (il.name == "weights") return py::make_tuple("weights", Floats(il.weights, {3, kValues}));
    return py::str(il.name);
}

// ---- state: every field of a model file, arrays in binary (exact) ----

py::tuple State(const ZKSModelFile& f) {
    const py::ssize_t N = f.numberOfInks, G = f.numberOfGridPoints;
    py::list illuminants;
    for (const ZKSModelIlluminant& il : f.illuminants)
        illuminants.append(py::make_tuple(il.name, Doubles(il.spd, {py::ssize_t(il.spd.size())}),
                                          Floats(il.weights, {py::ssize_t(il.weights.size())})));
    const kelma::ZKSModelProvenance& p = f.provenance;
    return py::make_tuple(
        kStateVersion, static_cast<unsigned>(f.precision), f.numberOfInks, f.numberOfGridPoints, f.inkNames,
        Doubles(f.gridPoints, {N * G}), Doubles(f.effectiveRamps, {N * 256}),
        Doubles(f.matrixScheme, {py::ssize_t(f.matrixScheme.size())}), f.n,
        Floats(f.rampWeights, {py::ssize_t(f.rampWeights.size())}), static_cast<std::uint32_t>(f.inkSet),
        f.isMediaRelative, f.printAbsolutColorimetric, f.observer, illuminants,
        py::make_tuple(p.description, p.chart, p.fitMethod, p.fitPatches, p.fitErrorMean, p.fitErrorP95,
                       p.fitErrorMax, p.software));
}

template <class T>
std::vector<T> VectorOf(const py::handle& a) {
    CArray<T> c = a.cast<CArray<T>>();
    return std::vector<T>(c.data(), c.data() + c.size());
}

ZKSModelFile FromState(const py::tuple& t) {
    if (t.size() != 16 || t[0].cast<int>() != kStateVersion)
        ThrowValue("cannot restore a kelma model from this pickled state (another kelma version?)");
    ZKSModelFile f;
    f.precision = static_cast<kelma::MODELFILE_PRECISION>(t[1].cast<unsigned>());
    f.numberOfInks = t[2].cast<unsigned>();
    f.numberOfGridPoints = t[3].cast<unsigned>();
    f.inkNames = t[4].cast<std::vector<std::string>>();
    f.gridPoints = VectorOf<double>(t[5]);
    f.effectiveRamps = VectorOf<double>(t[6]);
    f.matrixScheme = VectorOf<double>(t[7]);
    f.n = t[8].cast<double>();
    f.rampWeights = VectorOf<float>(t[9]);
    f.inkSet = static_cast<kelma::INK_SET>(t[10].cast<std::uint32_t>());
    f.isMediaRelative = t[11].cast<bool>();
    f.printAbsolutColorimetric = t[12].cast<bool>();
    f.observer = t[13].cast<unsigned>();
    for (const auto& item : t[14].cast<py::list>()) {
        py::tuple il = item.cast<py::tuple>();
        f.illuminants.push_back(ZKSModelIlluminant{il[0].cast<std::string>(), VectorOf<double>(il[1]),
                                                   VectorOf<float>(il[2])});
    }
    py::tuple p = t[15].cast<py::tuple>();
    f.provenance.description = p[0].cast<std::string>();
    f.provenance.chart = p[1].cast<std::string>();
    f.provenance.fitMethod = p[2].cast<std::string>();
    f.provenance.fitPatches = p[3].cast<std::size_t>();
    f.provenance.fitErrorMean = p[4].cast<double>();
    f.provenance.fitErrorP95 = p[5].cast<double>();
    f.provenance.fitErrorMax = p[6].cast<double>();
    f.provenance.software = p[7].cast<std::string>();
    return f;
}

ModelPtr BuildModel(const ZKSModelFile& f) {
    py::gil_scoped_release release;
    // The constructor predicts the paper on worker threads.
    return std::make_shared<kelma::ZKCSSE_KELMA_Data>(f.Model());
}

ZKSModelFile Described(const kelma::ZKCSSE_KELMA_Data& model) { return ZKSModelFile::Describe(model); }

FilePtr MakeFile(const ModelPtr& model, const py::object& inkNames, const py::object& description,
                 const py::object& chart, const py::object& fitMethod, const py::object& fitPatches,
                 const py::object& fitError, const py::object& software) {
    auto f = std::make_shared<ZKSModelFile>(Described(*model));
    Describe(*f, inkNames, description, chart, fitMethod, fitPatches, fitError, software);
    f->Check();
    return f;
}

}  // namespace

std::string PathString(const py::object& path) {
    if (!py::isinstance<py::str>(path) && !py::isinstance<py::bytes>(path) && !py::hasattr(path, "__fspath__"))
        ThrowType("a path must be a str or os.PathLike, got " + std::string(py::str(path.get_type().attr("__name__"))));
    return py::str(py::module_::import("os").attr("fsdecode")(path)).cast<std::string>();
}

void WriteModelFile(const ZKSModelFile& f, const py::object& path) {
    const std::string p = PathString(path);
    py::gil_scoped_release release;
    f.Write(p);
}

py::object ModelFileObject(const ZKSModelFile& f) { return py::cast(std::make_shared<ZKSModelFile>(f)); }

void RegisterModelFile(py::module_& m) {
    auto& error = py::register_exception<kelma::ZKCModelFileError>(m, "ModelFileError", PyExc_ValueError);
    error.attr("__doc__") =
        "A model file that cannot be read or written: the text names the file (or field) and the problem.";
    m.attr("MODEL_FILE_VERSION") = kelma::kModelFileVersion;

    py::class_<ZKSModelFile, FilePtr>(m, "ModelFile", R"doc(
A kelma model file: one printer model with its ink names, colorimetry and
provenance, in the library's own versioned text format (the format every
front end reads: Python, the command line, Octave and C++). Numbers are kept
exactly (float32 or float64, bit for bit); the model is built from their
float32 rounding.

ModelFile(model, *, ink_names=None, description=None, chart=None,
          fit_method=None, fit_patches=None, fit_error=None, software=None)
    describes a kelma.Model; its illuminants are recorded by name when they
    are the library's (under the 2 or 10 degree observer), as weights
    otherwise. ink_names default to "ink 1", "ink 2", ...
ModelFile.read(path), ModelFile.parse(text) read one; write(path) writes
exactly that path (a temporary file beside it, renamed when complete).
)doc")
        .def(py::init(&MakeFile), py::arg("model"), py::kw_only(), py::arg("ink_names") = py::none(),
             py::arg("description") = py::none(), py::arg("chart") = py::none(), py::arg("fit_method") = py::none(),
             py::arg("fit_patches") = py::none(), py::arg("fit_error") = py::none(),
             py::arg("software") = py::none())
        .def_static(
            "read",
            [](const py::object& path) {
                const std::string p = PathString(path);
                py::gil_scoped_release release;
                return std::make_shared<ZKSModelFile>(ZKSModelFile::Read(p));
            },
            py::arg("path"), "Reads a model file; ModelFileError names the file and what is wrong.")
        .def_static(
            "parse",
            [](const std::string& text, const std::string& source) {
                return std::make_shared<ZKSModelFile>(ZKSModelFile::Parse(text, source));
            },
            py::arg("text"), py::arg("source") = "<string>",
            "A model file from its text; `source` names it in error messages.")
        .def("text", &ModelFileText, "The file's text, as write() writes it.")
        .def(
            "write", [](const ZKSModelFile& f, const py::object& path) { WriteModelFile(f, path); }, py::arg("path"),
            "Writes exactly `path` (no extension added), atomically.")
        .def("model", &BuildModel, "The kelma.Model the file describes.")
        .def(
            "with_description",
            [](const ZKSModelFile& f, const py::object& inkNames, const py::object& description,
               const py::object& chart, const py::object& fitMethod, const py::object& fitPatches,
               const py::object& fitError, const py::object& software) {
                auto copy = std::make_shared<ZKSModelFile>(f);
                Describe(*copy, inkNames, description, chart, fitMethod, fitPatches, fitError, software);
                copy->Check();
                return copy;
            },
            py::kw_only(), py::arg("ink_names") = py::none(), py::arg("description") = py::none(),
            py::arg("chart") = py::none(), py::arg("fit_method") = py::none(), py::arg("fit_patches") = py::none(),
            py::arg("fit_error") = py::none(), py::arg("software") = py::none(),
            "A copy with the given names and provenance (None keeps a field).")
        .def_property_readonly("version", [](const ZKSModelFile&) { return kelma::kModelFileVersion; },
                               "Format version of the file (MODEL_FILE_VERSION).")
        .def_property_readonly(
            "precision", [](const ZKSModelFile& f) { return f.precision == kelma::MODELFILE_FLOAT32 ? "float32" : "float64"; },
            "'float32' or 'float64': the precision the values are kept in.")
        .def_property_readonly("inks", [](const ZKSModelFile& f) { return f.numberOfInks; })
        .def_property_readonly("grid_points", [](const ZKSModelFile& f) { return f.numberOfGridPoints; })
        .def_property_readonly("ink_names", [](const ZKSModelFile& f) { return f.inkNames; })
        .def_property_readonly(
            "grid", [](const ZKSModelFile& f) { return Doubles(f.gridPoints, {f.numberOfInks, f.numberOfGridPoints}); },
            "float64 (N, G): grid levels per ink, as stored.")
        .def_property_readonly(
            "ramps", [](const ZKSModelFile& f) { return Doubles(f.effectiveRamps, {f.numberOfInks, 256}); },
            "float64 (N, 256): effective ramps, as stored.")
        .def_property_readonly(
            "scheme",
            [](const ZKSModelFile& f) {
                const py::ssize_t corners = py::ssize_t(1) << f.numberOfInks;
                return Doubles(f.matrixScheme, {py::ssize_t(f.matrixScheme.size()) / (kValues * corners), kValues, corners});
            },
            "float64 (cells, 31, 2^N): coefficients, as stored.")
        .def_property_readonly("n", [](const ZKSModelFile& f) { return f.n; }, "Yule-Nielsen exponent, as stored.")
        .def_property_readonly(
            "ramp_weights",
            [](const ZKSModelFile& f) -> py::object {
                if (f.rampWeights.empty()) return py::none();
                return Floats(f.rampWeights, {f.numberOfInks, 256});
            },
            "float32 (N, 256) lookup weights kept from float64 ramps, or None (they follow from the ramps).")
        .def_property_readonly("ink_set", [](const ZKSModelFile& f) { return std::uint32_t(f.inkSet); })
        .def_property_readonly("media_relative", [](const ZKSModelFile& f) { return f.isMediaRelative; })
        .def_property_readonly("absolute_colorimetric", [](const ZKSModelFile& f) { return f.printAbsolutColorimetric; })
        .def_property_readonly(
            "observer", [](const ZKSModelFile& f) -> py::object { return f.observer == 0 ? py::object(py::none()) : py::object(py::int_(f.observer)); },
            "2 or 10 (degrees), or None when the illuminants are weights of unknown origin.")
        .def_property_readonly(
            "illuminants",
            [](const ZKSModelFile& f) {
                py::list out;
                for (const ZKSModelIlluminant& il : f.illuminants) out.append(IlluminantObject(il));
                return out;
            },
            "Per illuminant: its name ('D50', 'A', ...), ('spd', float64 (31,)) or ('weights', float32 (3, 31)).")
        .def_property_readonly("description", [](const ZKSModelFile& f) { return f.provenance.description; })
        .def_property_readonly("chart", [](const ZKSModelFile& f) { return f.provenance.chart; },
                               "The measured chart the model was fitted to ('' when not recorded).")
        .def_property_readonly("fit_method", [](const ZKSModelFile& f) { return f.provenance.fitMethod; })
        .def_property_readonly("fit_patches", [](const ZKSModelFile& f) { return f.provenance.fitPatches; })
        .def_property_readonly(
            "fit_error",
            [](const ZKSModelFile& f) -> py::object {
                if (std::isnan(f.provenance.fitErrorMean)) return py::none();
                py::dict d;
                d["mean"] = f.provenance.fitErrorMean;
                d["p95"] = f.provenance.fitErrorP95;
                d["max"] = f.provenance.fitErrorMax;
                return d;
            },
            "dict mean, p95, max of the training CIEDE2000, or None.")
        .def_property_readonly("software", [](const ZKSModelFile& f) { return f.provenance.software; })
        .def("__eq__",
             [](const ZKSModelFile& a, const py::object& other) -> py::object {
                 if (!py::isinstance<ZKSModelFile>(other)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                 return py::bool_(ModelFileText(a) == ModelFileText(other.cast<const ZKSModelFile&>()));
             })
        .def(py::pickle([](const ZKSModelFile& f) { return State(f); },
                        [](const py::tuple& t) { return std::make_shared<ZKSModelFile>(FromState(t)); }))
        .def("__copy__", [](const ZKSModelFile& f) { return std::make_shared<ZKSModelFile>(f); })
        .def("__deepcopy__", [](const ZKSModelFile& f, const py::object&) { return std::make_shared<ZKSModelFile>(f); },
             py::arg("memo"))
        .def("__repr__", [](const ZKSModelFile& f) {
            std::ostringstream s;
            s << "<kelma.ModelFile " << f.numberOfInks << " inks (";
            for (std::size_t i = 0; i < f.inkNames.size(); ++i) s << (i ? ", " : "") << f.inkNames[i];
            s << "), " << f.numberOfGridPoints << " grid points, "
              << (f.precision == kelma::MODELFILE_FLOAT32 ? "float32" : "float64");
            if (!f.provenance.chart.empty()) s << ", fitted to " << f.provenance.chart;
            s << ">";
            return s.str();
        });

    m.def(
        "load_model",
        [](const py::object& path) {
            const std::string p = PathString(path);
            py::gil_scoped_release release;
            return std::make_shared<kelma::ZKCSSE_KELMA_Data>(ZKSModelFile::Read(p).Model());
        },
        py::arg("path"),
        R"doc(The kelma.Model of a model file (ModelFile.read(path).model()).
ModelFileError (a ValueError) names the file and what is wrong with it.)doc");

    // Model: saving, pickling, copying and comparison by content.
    auto model = py::reinterpret_borrow<py::class_<kelma::ZKCSSE_KELMA_Data, ModelPtr>>(m.attr("Model"));
    model
        .def(
            "save",
            [](const ModelPtr& self, const py::object& path, const py::object& inkNames, const py::object& description,
               const py::object& chart, const py::object& fitMethod, const py::object& fitPatches,
               const py::object& fitError, const py::object& software) {
                FilePtr f = MakeFile(self, inkNames, description, chart, fitMethod, fitPatches, fitError, software);
                WriteModelFile(*f, path);
            },
            py::arg("path"), py::kw_only(), py::arg("ink_names") = py::none(), py::arg("description") = py::none(),
            py::arg("chart") = py::none(), py::arg("fit_method") = py::none(), py::arg("fit_patches") = py::none(),
            py::arg("fit_error") = py::none(), py::arg("software") = py::none(),
            R"doc(Writes the model as a kelma model file at exactly `path` (atomically):
ModelFile(self, ...).write(path). kelma.load_model(path) == self.)doc")
        .def(
            "with_illuminants",
            [](const kelma::ZKCSSE_KELMA_Data& d, const py::object& illuminants, const py::object& observer) {
                const kelma::ZKCLighting_Matrix lm = MakeLightingMatrix(illuminants, observer);
                ZKSModelFile f = Described(d);
                f.observer = 0;
                f.illuminants.clear();
                for (unsigned b = 0; b < lm.IlluminantNumber(); ++b) {
                    ZKSModelIlluminant il{"weights", {}, {}};
                    const float* block = lm.Weights() + std::size_t{b} * kelma::kLightingBlock;
                    for (std::size_t row = 0; row < 3; ++row)
                        il.weights.insert(il.weights.end(), block + row * kelma::kSpectrumStride,
                                          block + row * kelma::kSpectrumStride + kValues);
                    f.illuminants.push_back(std::move(il));
                }
                return BuildModel(f);
            },
            py::arg("illuminants") = "D50", py::arg("observer") = py::none(),
            R"doc(A copy whose colorimetric output is computed under other illuminants and
observer (as for Model); the arrays, n, lookup table, ink set and flags are kept
bit for bit, the media white point is that of the new illuminants.)doc")
        .def(py::pickle([](const kelma::ZKCSSE_KELMA_Data& d) { return State(Described(d)); },
                        [](const py::tuple& t) { return BuildModel(FromState(t)); }))
        .def("__copy__", [](const kelma::ZKCSSE_KELMA_Data& d) { return std::make_shared<kelma::ZKCSSE_KELMA_Data>(d); })
        .def(
            "__deepcopy__",
            [](const kelma::ZKCSSE_KELMA_Data& d, const py::object&) {
                return std::make_shared<kelma::ZKCSSE_KELMA_Data>(d);
            },
            py::arg("memo"))
        .def("__eq__",
             [](const kelma::ZKCSSE_KELMA_Data& a, const py::object& other) -> py::object {
                 if (!py::isinstance<kelma::ZKCSSE_KELMA_Data>(other))
                     return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                 return py::bool_(kelma::SameModelContent(a, other.cast<const kelma::ZKCSSE_KELMA_Data&>()));
             })
        .def("__hash__", [](const kelma::ZKCSSE_KELMA_Data& d) {
            // Consistent with ==: equal content gives equal hashes.
            std::uint64_t h = 1469598103934665603ull;
            auto mix = [&h](const void* p, std::size_t bytes) {
                const unsigned char* c = static_cast<const unsigned char*>(p);
                for (std::size_t k = 0; k < bytes; ++k) h = (h ^ c[k]) * 1099511628211ull;
            };
            const float n = d.n();
            mix(&n, sizeof n);
            mix(d.MatrixScheme(), sizeof(float) * std::min<std::size_t>(d.MatrixSchemeSize(), 4096));
            return static_cast<py::ssize_t>(h >> 1);
        });
}

}  // namespace kelma_py
