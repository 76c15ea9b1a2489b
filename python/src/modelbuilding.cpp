// Fitting a model to a measured chart, and the embedded default press model.
#include <cmath>
#include <memory>

#include "common.h"

namespace kelma_py {

namespace {

using kelma::ZKSBuiltModel;

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

ZKSBuiltModel Build(const py::object& chartObj, const py::object& grid, const std::string& method,
                    const py::object& training, double fixedN, bool fitN, double nMin, double nMax,
                    bool estimateMissing, const py::object& coarse, unsigned maxIterations,
                    const py::object& inkNames) {
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
            if (!py::isinstance<py::int_>(p) && !py::isinstance(p, py::module_::import("numpy").attr("integer")))
                ThrowType("training_patches must hold integer patch indices");
            const long long i = p.cast<long long>();
            if (i < 0) ThrowValue("training patch indices must be non-negative, got " + std::to_string(i));
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
    o.maxIterations = maxIterations;
    py::gil_scoped_release release;
    kelma::ZKCModelBuilder builder(chart);
    return builder.Build(o);
}

py::dict Stats(const kelma::ZKSStatistics& s) {
    py::dict d;
    d["count"] = s.count;
    d["mean"] = s.mean;
    d["median"] = s.median;
    d["p95"] = s.p95;
    d["max"] = s.max;
    return d;
}

}  // namespace

void RegisterModelBuilding(py::module_& m) {
    py::register_exception<kelma::ZKCModelBuildingError>(m, "ModelBuildingError", PyExc_ValueError);

    m.def(
        "default_press_model",
        [](const py::object& illuminants, const py::object& observer, bool mediaRelative, std::uint32_t inkSet,
           bool absolute) {
            return ModelOf(kelma::DefaultPressModelArrays(), illuminants, observer, mediaRelative, inkSet, absolute);
        },
        py::arg("illuminants") = "D50", py::arg("observer") = py::none(), py::kw_only(),
        py::arg("media_relative") = false, py::arg("ink_set") = std::uint32_t(kelma::INK_SET_CMYK),
        py::arg("absolute_colorimetric") = false,
        R"doc(The embedded default press model: sheet-fed offset CMYK (4 inks, 3 grid
points) fitted to the APTEC PC10 chart, as a kelma.Model under the given
illuminants and observer (default D50, 2 degree; ink_set 15, CMYK).)doc");
    m.def(
        "default_press_model_arrays", [] { return ArraysDict(kelma::DefaultPressModelArrays()); },
        "The default press model's arrays as fitted (float64): dict grid (4, 3), ramps (4, 256), scheme, n.");

    py::class_<ZKSBuiltModel, std::shared_ptr<ZKSBuiltModel>>(m, "BuiltModel",
                                                             "A model fitted by kelma.build_model, with its fit report.")
        .def_property_readonly("arrays", [](const ZKSBuiltModel& b) { return ArraysDict(b.model); },
                               "dict grid (N, G), ramps (N, 256), scheme (cells, 31, 2^N) as float64, and n.")
        .def_property_readonly("n", [](const ZKSBuiltModel& b) { return b.model.n; })
        .def_property_readonly("method",
                               [](const ZKSBuiltModel& b) { return b.method == kelma::MODELFIT_REFINED ? "refined" : "classic"; })
        .def_property_readonly("training_patches", [](const ZKSBuiltModel& b) { return b.trainingPatches; })
        .def_property_readonly("node_patches", [](const ZKSBuiltModel& b) { return b.nodePatches; })
        .def_property_readonly("ramp_patches", [](const ZKSBuiltModel& b) { return b.rampPatches; })
        .def_property_readonly("estimated_nodes", [](const ZKSBuiltModel& b) { return b.estimatedNodes; })
        .def_property_readonly(
            "training_delta_e",
            [](const ZKSBuiltModel& b) { return Array(b.trainingDeltaE, {py::ssize_t(b.trainingDeltaE.size())}); },
            "CIEDE2000 of each training patch as the library predicts it (D50, 2 degree).")
        .def_property_readonly("fit_error", [](const ZKSBuiltModel& b) { return Stats(b.fitError); },
                               "dict count, mean, p95, max of training_delta_e.")
        .def_property_readonly("iterations", [](const ZKSBuiltModel& b) { return b.iterations; })
        .def_property_readonly("clamped_node_values", [](const ZKSBuiltModel& b) { return b.clampedNodeValues; })
        .def(
            "model",
            [](const ZKSBuiltModel& b, const py::object& illuminants, const py::object& observer, bool mediaRelative,
               std::uint32_t inkSet, bool absolute) {
                return ModelOf(b.model, illuminants, observer, mediaRelative, inkSet, absolute);
            },
            py::arg("illuminants") = "D50", py::arg("observer") = py::none(), py::kw_only(),
            py::arg("media_relative") = false, py::arg("ink_set") = 127u, py::arg("absolute_colorimetric") = false,
            "The fitted model as a kelma.Model (from its float arrays) under the given illuminants.");

    m.def("build_model", &Build, py::arg("chart"), py::arg("grid_percent"), py::kw_only(),
          py::arg("method") = "refined", py::arg("training_patches") = py::none(), py::arg("fixed_n") = 0.0,
          py::arg("fit_n") = true, py::arg("n_min") = 1.0, py::arg("n_max") = 10.0,
          py::arg("estimate_missing_nodes") = false, py::arg("coarse_grid_percent") = py::none(),
          py::arg("max_iterations") = 100u, py::arg("ink_names") = py::none(),
          R"doc(Fits a cellular Yule-Nielsen modified spectral Neugebauer model to a chart.

chart: a kelma.MeasurementFile (device channels are the inks, spectra
    resampled linearly) or a tuple (device_values (patches, N) in percent
    0-100, spectra (patches, 31) reflectance at 400-700 nm); N is 4, 6 or 7.
grid_percent: (G,) grid levels in percent for every ink, or (N, G) per ink;
    first 0, last 100; every grid node must be a measured patch unless
    estimate_missing_nodes (from a classic model on coarse_grid_percent).
method: 'refined' (least-squares nodes, Levenberg-Marquardt on CIEDE2000)
    or 'classic' (measured nodes, ramps from single-ink patches).
training_patches: patch indices to fit to (default all).
fixed_n: > 0 to fix (classic) or start (refined) n; 0 searches [n_min, n_max].
Returns a kelma.BuiltModel; problems raise kelma.ModelBuildingError (a
ValueError) naming them.)doc");
}

}  // namespace kelma_py
