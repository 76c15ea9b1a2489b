// The colour core on numpy arrays: float colorimetry of predictions, exact
// CIELAB both ways, CIEDE2000, ink percent <-> digital levels, statistics,
// the validation split and a model's evaluation against a chart. Every
// formula is the library's; this file checks arguments and broadcasts.
#include <cmath>
#include <sstream>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKCSSE_KELMA_Data;

// Arrays of colour triples broadcast against each other like numpy: both as
// C-contiguous float64 arrays of the broadcast shape (..., 3).
struct Broadcast {
    CArray<double> a, b;
    Shape shape;
    std::size_t count;
};

CArray<double> Triples(const py::object& obj, const char* name) {
    CArray<double> a = AsNumeric<double>(obj, name, kFloat | kInteger);
    if (a.ndim() < 1 || a.shape(a.ndim() - 1) != 3)
        ThrowValue(std::string(name) + " must have 3 values on its last axis, got shape " + ShapeString(a));
    CheckFinite(a.data(), static_cast<std::size_t>(a.size()), name);
    return a;
}

Broadcast BroadcastTriples(const py::object& x, const char* xName, const py::object& y, const char* yName) {
    CArray<double> a = Triples(x, xName), b = Triples(y, yName);
    py::module_ np = py::module_::import("numpy");
    py::tuple both;
    try {
        both = np.attr("broadcast_arrays")(a, b);
    } catch (const py::error_already_set&) {
        ThrowValue(std::string(xName) + " of shape " + ShapeString(a) + " and " + yName + " of shape " +
                   ShapeString(b) + " do not broadcast together");
    }
    Broadcast r;
    r.a = CArray<double>::ensure(np.attr("ascontiguousarray")(both[0]));
    r.b = CArray<double>::ensure(np.attr("ascontiguousarray")(both[1]));
    r.shape = Shape(r.a.shape(), r.a.shape() + r.a.ndim());
    r.count = static_cast<std::size_t>(r.a.size()) / 3;
    return r;
}

void CheckWhites(const CArray<double>& white, const char* name) {
    const double* w = white.data();
    for (py::ssize_t i = 0; i < white.size(); ++i)
        if (!(w[i] > 0.0)) {
            std::ostringstream s;
            s << name << " must be positive (X, Y, Z of a white), found " << kelma::NumberText(w[i])
              << " at flat index " << i;
            ThrowValue(s.str());
        }
}

template <class F>
py::array_t<double> PerTriple(const py::object& x, const char* xName, const py::object& y, const char* yName,
                              bool whiteIsY, F f) {
    Broadcast in = BroadcastTriples(x, xName, y, yName);
    if (whiteIsY) CheckWhites(in.b, yName);
    py::array_t<double> out(in.shape);
    const double* a = in.a.data();
    const double* b = in.b.data();
    double* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        ParallelFor(in.count, [&](std::size_t start, std::size_t n) {
            for (std::size_t i = start; i < start + n; ++i) f(a + 3 * i, b + 3 * i, o + 3 * i);
        });
    }
    return out;
}

}  // namespace

// An illuminant argument: an index of the model's lighting matrix or the name
// of a standard illuminant the model holds.
unsigned IlluminantArgument(const ZKCSSE_KELMA_Data& model, const py::object& illuminant) {
    const kelma::ZKCLighting_Matrix& lm = model.Lighting_Matrix();
    const unsigned count = lm.IlluminantNumber();
    auto holds = [&] {
        std::string list;
        for (unsigned k = 0; k < count; ++k) {
            const std::string name = kelma::StandardIlluminantName(lm, k);
            list += (k ? ", " : "") + std::to_string(k) + (name.empty() ? " (measured)" : " (" + name + ")");
        }
        return list;
    };
    if (py::isinstance<py::str>(illuminant)) {
        const std::string name = illuminant.cast<std::string>();
        if (!kelma::MakeStandardIlluminant(name))
            ThrowValue("illuminant '" + name + "' is not a standard illuminant (A, D50, D65, E, F1, F2, F11)");
        const long k = kelma::FindStandardIlluminant(lm, name);
        if (k < 0) ThrowValue("the model has no " + name + " illuminant; its illuminants are " + holds());
        return static_cast<unsigned>(k);
    }
    if (!(py::isinstance<py::int_>(illuminant) && !py::isinstance<py::bool_>(illuminant)) &&
        !py::isinstance(illuminant, py::module_::import("numpy").attr("integer")))
        ThrowType("illuminant must be an index or a name such as 'D65'");
    return static_cast<unsigned>(IntegerArgument(illuminant, "illuminant index", 0, static_cast<long long>(count) - 1,
                                                 "in 0.." + std::to_string(count - 1) + " (the model's illuminants are " +
                                                     holds() + ")"));
}

py::dict StatisticsDict(const kelma::ZKSStatistics& s) {
    py::dict d;
    d["count"] = s.count;
    d["mean"] = s.mean;
    d["median"] = s.median;
    d["p95"] = s.p95;
    d["max"] = s.max;
    return d;
}

namespace {

py::array_t<double> PredictColorimetryPy(const ZKCSSE_KELMA_Data& model, const py::object& inksObj,
                                         const py::object& illuminant, const py::object& mediaRelative, bool lab) {
    const unsigned k = IlluminantArgument(model, illuminant);
    const bool relative = FlagArgument(mediaRelative, "media_relative");
    auto inks = AsExact<std::uint8_t>(inksObj, "inks");
    Shape shape;
    const std::size_t count = BatchCount(inks, "inks", model.NumberOfInks(), "one byte 0..255 per ink", &shape);
    shape.push_back(3);
    py::array_t<double> out(shape);
    const std::uint8_t* in = inks.data();
    double* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        kelma::PredictColorimetry(model, count, in, k, relative, lab ? nullptr : o, lab ? o : nullptr);
    }
    return out;
}

py::array_t<std::uint8_t> DigitalLevels(const py::object& percentObj) {
    CArray<double> p = AsNumeric<double>(percentObj, "percent", kFloat | kInteger);
    const double* v = p.data();
    for (py::ssize_t i = 0; i < p.size(); ++i)
        if (!std::isfinite(v[i]) || v[i] < 0.0 || v[i] > 100.0) {
            std::ostringstream s;
            s << "percent must be ink amounts 0..100, found " << kelma::NumberText(v[i]) << " at flat index " << i
              << " (digital levels 0..255 are given to the prediction functions as uint8 directly)";
            ThrowValue(s.str());
        }
    py::array_t<std::uint8_t> out(Shape(p.shape(), p.shape() + p.ndim()));
    std::uint8_t* o = out.mutable_data();
    for (py::ssize_t i = 0; i < p.size(); ++i) o[i] = static_cast<std::uint8_t>(kelma::DigitalLevel(v[i]));
    return out;
}

py::array_t<double> InkPercent(const py::object& levelsObj) {
    py::array a = AsNdarray(levelsObj, "levels");
    const char kind = a.dtype().kind();
    if (kind != 'u' && kind != 'i')
        ThrowType("levels must be an integer array of digital levels 0..255, got dtype " + DtypeString(a));
    CArray<double> l = AsNumeric<double>(a, "levels", kInteger);
    const double* v = l.data();
    py::array_t<double> out(Shape(l.shape(), l.shape() + l.ndim()));
    double* o = out.mutable_data();
    for (py::ssize_t i = 0; i < l.size(); ++i) {
        if (v[i] < 0.0 || v[i] > 255.0) {
            std::ostringstream s;
            s << "levels must be 0..255, found " << kelma::NumberText(v[i]) << " at flat index " << i;
            ThrowValue(s.str());
        }
        o[i] = kelma::InkPercent(static_cast<unsigned>(v[i]));
    }
    return out;
}

py::dict Statistics(const py::object& valuesObj) {
    CArray<double> v = AsNumeric<double>(valuesObj, "values", kFloat | kInteger);
    // The library summarises an empty subset as count 0 (a report's empty
    // K = 0 group); asked for directly, nothing to summarise is a mistake.
    if (v.size() == 0) ThrowValue("values holds no value to summarise");
    return StatisticsDict(kelma::Summarize(std::vector<double>(v.data(), v.data() + v.size())));
}

std::vector<std::size_t> PatchList(const py::object& patches, std::size_t count) {
    std::vector<std::size_t> list;
    if (patches.is_none()) return list;
    CArray<double> p = AsNumeric<double>(patches, "patches", kInteger);
    for (py::ssize_t i = 0; i < p.size(); ++i) {
        const double v = p.data()[i];
        if (v < 0 || v >= static_cast<double>(count)) {
            std::ostringstream s;
            s << "patches must be indices 0.." << count - 1 << " of the chart, found " << kelma::NumberText(v)
              << " at position " << i;
            ThrowValue(s.str());
        }
        list.push_back(static_cast<std::size_t>(v));
    }
    if (list.empty()) ThrowValue("patches holds no index");
    return list;
}

py::array_t<std::int64_t> IndexArray(const std::vector<std::size_t>& v) {
    py::array_t<std::int64_t> out(static_cast<py::ssize_t>(v.size()));
    std::copy(v.begin(), v.end(), out.mutable_data());
    return out;
}

py::dict EvaluateModelPy(const ZKCSSE_KELMA_Data& model, const py::object& chartObj, const py::object& patches,
                         const py::object& illuminant) {
    const kelma::ZKSModelChart chart = ChartArgument(chartObj, py::none());
    if (chart.numberOfInks != model.NumberOfInks())
        ThrowValue("the chart has " + std::to_string(chart.numberOfInks) + " inks and the model " +
                   std::to_string(model.NumberOfInks()));
    const unsigned k = IlluminantArgument(model, illuminant);
    const std::vector<std::size_t> list = PatchList(patches, chart.PatchCount());
    kelma::ZKSModelEvaluation e;
    {
        py::gil_scoped_release release;
        e = kelma::EvaluateModel(model, chart, list, k);
    }
    py::dict d;
    d["patches"] = IndexArray(e.patches);
    py::array_t<double> de(static_cast<py::ssize_t>(e.deltaE.size()));
    std::copy(e.deltaE.begin(), e.deltaE.end(), de.mutable_data());
    d["delta_e"] = de;
    d["all"] = StatisticsDict(e.all);
    d["k_zero"] = StatisticsDict(e.blackZero);
    d["k_positive"] = StatisticsDict(e.blackPositive);
    return d;
}

py::tuple ValidationSplitPy(const py::object& chartObj, const py::object& grid) {
    const kelma::ZKSModelChart chart = ChartArgument(chartObj, py::none());
    CArray<double> g = AsNumeric<double>(grid, "grid_percent", kFloat | kInteger);
    if (g.ndim() != 1) ThrowValue("grid_percent must be (G,) levels in percent, got shape " + ShapeString(g));
    const std::vector<double> levels(g.data(), g.data() + g.size());
    kelma::ZKSValidationSplit split;
    {
        py::gil_scoped_release release;
        kelma::ZKCModelBuilder builder(chart);
        split = builder.ValidationSplit(levels);
    }
    return py::make_tuple(IndexArray(split.gridPatches), IndexArray(split.half[0]), IndexArray(split.half[1]));
}

CArray<double> OneColour(const py::object& obj, const char* name) {
    CArray<double> a = Triples(obj, name);
    if (a.size() != 3) ThrowValue(std::string(name) + " must be one colour (3,), got shape " + ShapeString(a));
    return a;
}

py::array_t<double> ToneValuePy(const py::object& xyzObj, const py::object& paperObj, const py::object& solidObj,
                                const py::object& whiteObj) {
    CArray<double> xyz = Triples(xyzObj, "xyz");
    CArray<double> paper = OneColour(paperObj, "paper"), solid = OneColour(solidObj, "solid");
    CArray<double> white = OneColour(whiteObj, "white");
    CheckWhites(white, "white");
    const double* p = paper.data();
    const double* s = solid.data();
    if (p[0] == s[0] && p[1] == s[1] && p[2] == s[2])
        ThrowValue("paper and solid are the same colour: a tone value needs the solid to differ from the paper");
    py::array_t<double> out(Shape(xyz.shape(), xyz.shape() + xyz.ndim() - 1));
    kelma::SpotColourToneValue(xyz.data(), static_cast<std::size_t>(xyz.size()) / 3, p, s, white.data(),
                               out.mutable_data());
    return out;
}

py::array_t<double> MurrayDaviesPy(const py::object& xyzObj, const py::object& paperObj,
                                   const py::object& solidObj) {
    CArray<double> xyz = Triples(xyzObj, "xyz");
    CArray<double> paper = OneColour(paperObj, "paper"), solid = OneColour(solidObj, "solid");
    if (kelma::MurrayDaviesChannel(paper.data(), solid.data()) < 0)
        ThrowValue("the solid is not darker than the paper in any of X, Y, Z: no Murray-Davies tone value");
    py::array_t<double> out(Shape(xyz.shape(), xyz.shape() + xyz.ndim() - 1));
    kelma::MurrayDaviesToneValue(xyz.data(), static_cast<std::size_t>(xyz.size()) / 3, paper.data(), solid.data(),
                                 out.mutable_data());
    return out;
}

}  // namespace

void RegisterColour(py::module_& m) {
    m.def("tone_value", &ToneValuePy, py::arg("xyz"), py::arg("paper"), py::arg("solid"), py::arg("white"),
          R"doc(tone_value(xyz, paper, solid, white) -> float64 (...)

Tone value in percent of tints of one ink (ISO 20654 spot colour tone
value, from CIE XYZ): 0 for the paper, 100 for the solid. xyz (..., 3);
paper, solid and the illuminant's white (3,), all on one scale (e.g. the
library's, Y = 1 for a perfect reflector). The tone value increase of a
tint printed at p % is tone_value - p.)doc");
    m.def("murray_davies_tone_value", &MurrayDaviesPy, py::arg("xyz"), py::arg("paper"), py::arg("solid"),
          R"doc(murray_davies_tone_value(xyz, paper, solid) -> float64 (...)

Colorimetric Murray-Davies tone value in percent (effective dot area): the
Murray-Davies equation on the tristimulus value with the largest solid
density (X for cyan, Y for magenta, Z for yellow), 0 for the paper, 100
for the solid. Its excess over the nominal value is the tone value
increase (dot gain) press standards tabulate. xyz (..., 3); paper and
solid (3,), on one scale.)doc");
    m.def(
        "predict_lab",
        [](const ZKCSSE_KELMA_Data& model, const py::object& inks, const py::object& illuminant,
           const py::object& mediaRelative) { return PredictColorimetryPy(model, inks, illuminant, mediaRelative, true); },
        py::arg("model"), py::arg("inks"), py::kw_only(), py::arg("illuminant") = 0,
        py::arg("media_relative") = false,
        R"doc(predict_lab(model, inks, *, illuminant=0, media_relative=False) -> float64 (..., 3)

CIELAB (exact CIE 15 constants, double precision) of predicted prints.
inks: uint8 (..., N), one byte 0..255 per ink. illuminant: an index of the
model's illuminants or a standard name it holds ('D65'). media_relative:
relative to the model's paper (paper = L* 100, a* b* 0) instead of the
illuminant's white.)doc");
    m.def(
        "predict_xyz",
        [](const ZKCSSE_KELMA_Data& model, const py::object& inks, const py::object& illuminant,
           const py::object& mediaRelative) { return PredictColorimetryPy(model, inks, illuminant, mediaRelative, false); },
        py::arg("model"), py::arg("inks"), py::kw_only(), py::arg("illuminant") = 0,
        py::arg("media_relative") = false,
        R"doc(predict_xyz(model, inks, *, illuminant=0, media_relative=False) -> float64 (..., 3)

CIE XYZ of predicted prints (perfect reflector Y = 1; paper-relative: the
paper has the XYZ of the perfect reflector), as predict_lab.)doc");
    m.def(
        "xyz_to_lab",
        [](const py::object& xyz, const py::object& white) {
            return PerTriple(xyz, "xyz", white, "white", true,
                             [](const double* x, const double* w, double* o) { kelma::XYZToCIELAB(x, w, o); });
        },
        py::arg("xyz"), py::arg("white"),
        R"doc(xyz_to_lab(xyz, white) -> float64 (..., 3)

CIE 1976 L*a*b* of XYZ against a white on the same scale (exact CIE 15
constants). xyz and white (..., 3) broadcast like numpy.)doc");
    m.def(
        "lab_to_xyz",
        [](const py::object& lab, const py::object& white) {
            return PerTriple(lab, "lab", white, "white", true,
                             [](const double* l, const double* w, double* o) { kelma::CIELABToXYZ(l, w, o); });
        },
        py::arg("lab"), py::arg("white"),
        R"doc(lab_to_xyz(lab, white) -> float64 (..., 3)

The inverse of xyz_to_lab: XYZ on the white's scale. Broadcasts like numpy.)doc");
    m.def(
        "delta_e_2000",
        [](const py::object& lab1, const py::object& lab2) {
            Broadcast in = BroadcastTriples(lab1, "lab1", lab2, "lab2");
            Shape shape(in.shape.begin(), in.shape.end() - 1);
            py::array_t<double> out(shape);
            const double* a = in.a.data();
            const double* b = in.b.data();
            double* o = out.mutable_data();
            {
                py::gil_scoped_release release;
                ParallelFor(in.count, [&](std::size_t start, std::size_t n) {
                    kelma::DeltaE2000(a + 3 * start, b + 3 * start, o + start, n);
                });
            }
            return out;
        },
        py::arg("lab1"), py::arg("lab2"),
        R"doc(delta_e_2000(lab1, lab2) -> float64 (...)

CIEDE2000 (kL = kC = kH = 1) between CIELAB arrays (..., 3) that broadcast
like numpy.)doc");
    m.def("digital_levels", &DigitalLevels, py::arg("percent"),
          R"doc(digital_levels(percent) -> uint8

The digital level of ink amounts in percent (0..100): round half up of
2.55 x percent, exact for every value with two decimals (50 -> 128).)doc");
    m.def("ink_percent", &InkPercent, py::arg("levels"),
          R"doc(ink_percent(levels) -> float64

Ink amounts in percent of digital levels 0..255 (100 level / 255).)doc");
    m.def("statistics", &Statistics, py::arg("values"),
          R"doc(statistics(values) -> dict

count, mean, median, p95 (linear interpolation, as numpy) and max of the
values (at least one); NaN in any value makes every statistic NaN.)doc");
    m.def("evaluate_model", &EvaluateModelPy, py::arg("model"), py::arg("chart"), py::kw_only(),
          py::arg("patches") = py::none(), py::arg("illuminant") = 0,
          R"doc(evaluate_model(model, chart, *, patches=None, illuminant=0) -> dict

CIEDE2000 between a measured chart (a MeasurementFile or (device_values,
spectra)) and the model's prediction of its patches, relative to the
illuminant: dict patches, delta_e, and the statistics all, k_zero and
k_positive (black, ink 4, at 0 or above).)doc");
    m.def("validation_split", &ValidationSplitPy, py::arg("chart"), py::arg("grid_percent"),
          R"doc(validation_split(chart, grid_percent) -> (grid_patches, half0, half1)

The library's held-out split of a chart: the patches on the grid train
both folds; the others, grouped by recipe, alternate between two halves.
Fold f trains on grid_patches + half f and tests on the other half.)doc");
}

}  // namespace kelma_py
