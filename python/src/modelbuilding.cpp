// Fitting a model to a measured chart, and the embedded default press model.
#include <cmath>
#include <limits>
#include <memory>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKSBuiltModel;

// A fit and what the model file records about its chart.
struct BuiltModel : ZKSBuiltModel {
    std::string chart;                  // the chart's file name ('' for arrays)
    std::vector<std::string> inkNames;  // the chart's channel names (may be empty)
};

kelma::ZKSModelFile FileOf(const BuiltModel& b, const py::object& chart, const py::object& inkNames) {
    std::vector<std::string> names = b.inkNames;
    if (!inkNames.is_none()) {
        if (py::isinstance<py::str>(inkNames)) ThrowType("ink_names must be a sequence of strings, one per ink");
        names = inkNames.cast<std::vector<std::string>>();
    }
    const std::string chartName = chart.is_none() ? b.chart : PathString(chart);
    return kelma::ZKSModelFile::FromBuiltModel(b, chartName, names);
}

constexpr unsigned kValues = kelma::kSpectralValues;

template <class T>
py::array_t<T> Array(const std::vector<T>& v, Shape shape) {
    py::array_t<T> out(shape);
    std::copy(v.begin(), v.end(), out.mutable_data());
    return out;
}

py::dict ArraysDict(const kelma::ZKSPrinterModelArrays& m) {
    const py::ssize_t N = m.numberOfInks, G = m.numberOfGridPoints;
    const py::ssize_t corners = py::ssize_t(1) << N;
    py::dict d;
    d["grid"] = Array(m.gridPoints, {N, G});
    d["ramps"] = Array(m.effectiveRamps, {N, 256});
    d["scheme"] = Array(m.matrixScheme, {py::ssize_t(m.matrixScheme.size()) / (kValues * corners), kValues, corners});
    d["n"] = m.n;
    return d;
}

std::shared_ptr<kelma::ZKCSSE_KELMA_Data> ModelOf(const kelma::ZKSPrinterModelArrays& arrays,
                                                  const py::object& illuminants, const py::object& observer,
                                                  bool mediaRelative, std::uint32_t inkSet, bool absolute) {
    kelma::ZKCLighting_Matrix lm = MakeLightingMatrix(illuminants, observer);
    py::gil_scoped_release release;
    return std::make_shared<kelma::ZKCSSE_KELMA_Data>(
        arrays.Model(lm, static_cast<kelma::INK_SET>(inkSet), mediaRelative, absolute));
}

BuiltModel Build(const py::object& chartObj, const py::object& grid, const std::string& method,
                    const py::object& training, double fixedN, bool fitN, double nMin, double nMax,
                    bool estimateMissing, const py::object& coarse, const py::object& maxIterations,
                    const py::object& inkNames, const py::object& fineBase, const py::object& finePrior) {
    kelma::ZKSModelChart chart = ChartArgument(chartObj, inkNames);
    kelma::ZKSModelBuildOptions o;
    auto g = AsNumeric<double>(grid, "grid_percent", kFloat | kInteger);
    if (g.ndim() == 1)
        o.gridPercent.assign(g.data(), g.data() + g.size());
    else if (g.ndim() == 2)
        o.perInkGridPercent.assign(g.data(), g.data() + g.size());
    else
        ThrowValue("grid_percent must be (G,) levels for every ink or (inks, G) per ink, got shape " +
                   ShapeString(g));
    if (method == "refined")
        o.method = kelma::MODELFIT_REFINED;
    else if (method == "classic")
        o.method = kelma::MODELFIT_CLASSIC;
    else
        ThrowValue("method must be 'refined' or 'classic', got '" + method + "'");
    if (!training.is_none()) {
        if (py::isinstance<py::str>(training) || !py::hasattr(training, "__iter__"))
            ThrowType("training_patches must be a sequence of patch indices");
        for (const auto& p : training) {
            const long long i = IntegerArgument(p, "a training patch index", 0, std::numeric_limits<long long>::max(),
                                                "a patch index 0 or more");
            o.trainingPatches.push_back(static_cast<std::size_t>(i));
        }
    }
    for (double v : {fixedN, nMin, nMax})
        if (!std::isfinite(v)) ThrowValue("fixed_n, n_min and n_max must be finite");
    o.fixedN = fixedN;
    o.fitN = fitN;
    o.nMin = nMin;
    o.nMax = nMax;
    o.estimateMissingNodes = estimateMissing;
    if (!coarse.is_none()) {
        auto c = AsNumeric<double>(coarse, "coarse_grid_percent", kFloat | kInteger);
        o.coarseGridPercent.assign(c.data(), c.data() + c.size());
    }
    o.maxIterations = static_cast<unsigned>(IntegerArgument(maxIterations, "max_iterations", 1, 100000, "1..100000"));
    BuiltModel result;
    if (py::isinstance<kelma::ZKCMeasurementFile>(chartObj)) {
        const std::string path = chartObj.cast<const kelma::ZKCMeasurementFile&>().Data().file;
        result.chart = path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
    }
    result.inkNames = chart.inkNames;
    if (!fineBase.is_none()) {
        auto b = AsNumeric<double>(fineBase, "fine_base_grid_percent", kFloat | kInteger);
        if (b.ndim() != 1)
            ThrowValue("fine_base_grid_percent must be (G,) levels in percent for every ink, got shape " +
                       ShapeString(b));
        o.fineBaseGridPercent.assign(b.data(), b.data() + b.size());
    }
    if (py::isinstance<py::str>(finePrior)) {
        if (finePrior.cast<std::string>() != "auto")
            ThrowValue("fine_prior must be 'auto' or a positive number of patches per node, got '" +
                       finePrior.cast<std::string>() + "'");
    } else {
        if (py::isinstance<py::bool_>(finePrior) ||
            !(py::isinstance<py::float_>(finePrior) || py::isinstance<py::int_>(finePrior) ||
              py::isinstance(finePrior, py::module_::import("numpy").attr("number"))))
            ThrowType("fine_prior must be 'auto' or a positive number of patches per node");
        const double w = finePrior.cast<double>();
        if (!(w > 0.0 && std::isfinite(w)))
            ThrowValue("fine_prior must be 'auto' or a positive number of patches per node, got " + std::to_string(w));
        if (o.fineBaseGridPercent.empty()) ThrowValue("fine_prior needs fine_base_grid_percent (the fine-grid fit)");
        o.finePriorWeight = w;
    }
    py::gil_scoped_release release;
    kelma::ZKCModelBuilder builder(chart);
    static_cast<ZKSBuiltModel&>(result) = builder.Build(o);
    return result;
}

}  // namespace

void RegisterModelBuilding(py::module_& m) {
    py::register_exception<kelma::ZKCModelBuildingError>(m, "ModelBuildingError", PyExc_ValueError);

    m.def(
        "default_press_model",
        [](const py::object& illuminants, const py::object& observer, bool mediaRelative, const py::object& inkSet,
           bool absolute) {
            return ModelOf(kelma::DefaultPressModelArrays(), illuminants, observer, mediaRelative,
                           InkSetArgument(inkSet), absolute);
        },
        py::arg("illuminants") = "D50", py::arg("observer") = py::none(), py::kw_only(),
        py::arg("media_relative") = false, py::arg("ink_set") = static_cast<int>(kelma::INK_SET_CMYK),
        py::arg("absolute_colorimetric") = false,
        R"doc(The embedded default press model: sheet-fed offset CMYK (4 inks, 3 grid
points) fitted to the APTEC PC10 chart, as a kelma.Model under the given
illuminants and observer (default D50, 2 degree; ink_set 15, CMYK).)doc");
    m.def(
        "default_press_model_arrays", [] { return ArraysDict(kelma::DefaultPressModelArrays()); },
        "The default press model's arrays as fitted (float64): dict grid (4, 3), ramps (4, 256), scheme, n.");

    py::class_<BuiltModel, std::shared_ptr<BuiltModel>>(m, "BuiltModel",
                                                             "A model fitted by kelma.build_model, with its fit report.")
        .def_property_readonly("arrays", [](const BuiltModel& b) { return ArraysDict(b.model); },
                               "dict grid (N, G), ramps (N, 256), scheme (cells, 31, 2^N) as float64, and n.")
        .def_property_readonly("n", [](const BuiltModel& b) { return b.model.n; })
        .def_property_readonly("method",
                               [](const BuiltModel& b) { return b.method == kelma::MODELFIT_REFINED ? "refined" : "classic"; })
        .def_property_readonly("training_patches", [](const BuiltModel& b) { return b.trainingPatches; })
        .def_property_readonly("node_patches", [](const BuiltModel& b) { return b.nodePatches; })
        .def_property_readonly("ramp_patches", [](const BuiltModel& b) { return b.rampPatches; })
        .def_property_readonly("estimated_nodes", [](const BuiltModel& b) { return b.estimatedNodes; })
        .def_property_readonly(
            "training_delta_e",
            [](const BuiltModel& b) { return Array(b.trainingDeltaE, {py::ssize_t(b.trainingDeltaE.size())}); },
            "CIEDE2000 of each training patch as the library predicts it (D50, 2 degree).")
        .def_property_readonly("fit_error", [](const BuiltModel& b) { return StatisticsDict(b.fitError); },
                               "dict count, mean, p95, max of training_delta_e.")
        .def_property_readonly("iterations", [](const BuiltModel& b) { return b.iterations; })
        .def_property_readonly("clamped_node_values", [](const BuiltModel& b) { return b.clampedNodeValues; })
        .def_property_readonly("fine_prior", [](const BuiltModel& b) { return b.finePriorWeight; },
                               "The fine-grid fit's prior weight in patches per node (0.0 for a direct fit).")
        .def(
            "model",
            [](const BuiltModel& b, const py::object& illuminants, const py::object& observer, bool mediaRelative,
               const py::object& inkSet, bool absolute) {
                return ModelOf(b.model, illuminants, observer, mediaRelative, InkSetArgument(inkSet), absolute);
            },
            py::arg("illuminants") = "D50", py::arg("observer") = py::none(), py::kw_only(),
            py::arg("media_relative") = false, py::arg("ink_set") = 127, py::arg("absolute_colorimetric") = false,
            "The fitted model as a kelma.Model (from its float arrays) under the given illuminants.")
        .def_property_readonly("chart", [](const BuiltModel& b) { return b.chart; },
                               "File name of the chart it was fitted to ('' for a chart given as arrays).")
        .def_property_readonly("ink_names", [](const BuiltModel& b) { return b.inkNames; },
                               "The chart's channel names ([] for a chart given as arrays without names).")
        .def(
            "model_file",
            [](const BuiltModel& b, const py::object& chart, const py::object& inkNames) {
                return ModelFileObject(FileOf(b, chart, inkNames));
            },
            py::kw_only(), py::arg("chart") = py::none(), py::arg("ink_names") = py::none(),
            R"doc(The fit as a kelma.ModelFile: the float64 arrays as fitted (the model is their
float32 rounding, as model() builds it), D50 / 2 degree, the chart, fit method,
training patch count and CIEDE2000. chart and ink_names default to the chart's.)doc")
        .def(
            "save",
            [](const BuiltModel& b, const py::object& path, const py::object& chart, const py::object& inkNames) {
                WriteModelFile(FileOf(b, chart, inkNames), path);
            },
            py::arg("path"), py::kw_only(), py::arg("chart") = py::none(), py::arg("ink_names") = py::none(),
            "Writes model_file(...) at exactly `path` (atomically).");

    m.def("build_model", &Build, py::arg("chart"), py::arg("grid_percent"), py::kw_only(),
          py::arg("method") = "refined", py::arg("training_patches") = py::none(), py::arg("fixed_n") = 0.0,
          py::arg("fit_n") = true, py::arg("n_min") = 1.0, py::arg("n_max") = 10.0,
          py::arg("estimate_missing_nodes") = false, py::arg("coarse_grid_percent") = py::none(),
          py::arg("max_iterations") = 100, py::arg("ink_names") = py::none(),
          py::arg("fine_base_grid_percent") = py::none(), py::arg("fine_prior") = "auto",
          R"doc(Fits a cellular Yule-Nielsen modified spectral Neugebauer model to a chart.

chart: a kelma.MeasurementFile (device channels are the inks, spectra
    resampled linearly) or a tuple (device_values (patches, N) in percent
    0-100, spectra (patches, 31) reflectance at 400-700 nm); N is 4, 6 or 7.
grid_percent: (G,) grid levels in percent for every ink, or (N, G) per ink;
    first 0, last 100; every grid node must be a measured patch unless
    estimate_missing_nodes (from a classic model on coarse_grid_percent,
    default [0, 100]; by the overprint rule where that grid is not coarser)
    or the fine-grid fit is used.
method: 'refined' (least-squares nodes, Levenberg-Marquardt on CIEDE2000)
    or 'classic' (measured nodes, ramps from single-ink patches).
training_patches: patch indices to fit to (default all).
fixed_n: > 0 to fix (classic) or start (refined) n; 0 searches [n_min, n_max].
fine_base_grid_percent: (G,) levels of a base model: the model is fitted by
    `method` on this grid, then the nodes of grid_percent are fitted by
    regularised least squares toward its prediction, keeping its ramps and
    n; only the base grid's nodes must be measured.
fine_prior: the weight of that prior in patches per node (a positive
    number), or 'auto' to choose it from the training patches alone.
Returns a kelma.BuiltModel; problems raise kelma.ModelBuildingError (a
ValueError) naming them.)doc");
}

}  // namespace kelma_py
