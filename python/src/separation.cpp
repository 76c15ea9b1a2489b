// kelma.Separation: the inks that reproduce CIELAB colours on a model, under
// total-coverage and black limits and a black generation, and its CLUT.
// Every argument is checked here; the library computes.
#include <memory>
#include <sstream>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKCSeparation;

struct Separation {
    ModelPtr model;
    std::shared_ptr<ZKCSeparation> sep;
    unsigned long totalCoverage = 0, maxBlack = 0, gcr = 0, illuminant = 0;
    py::object blackLength, blackWidth;
    bool mediaRelative = true;
};

using SeparationPtr = std::shared_ptr<Separation>;

// A whole number in [lo, hi] (a Python or numpy integer, not a bool).
unsigned long WholeNumber(const py::handle& obj, const char* name, long long lo, long long hi, const char* unit) {
    const bool integer = (py::isinstance<py::int_>(obj) && !py::isinstance<py::bool_>(obj)) ||
                         py::isinstance(obj, py::module_::import("numpy").attr("integer"));
    if (!integer) ThrowType(std::string(name) + " must be a whole number of " + unit);
    const long long v = obj.cast<long long>();
    if (v < lo || v > hi) {
        std::ostringstream s;
        s << name << " must be " << lo << ".." << hi << " (" << unit << "), got " << v;
        ThrowValue(s.str());
    }
    return static_cast<unsigned long>(v);
}

SeparationPtr MakeSeparation(const ModelPtr& model, const py::object& totalCoverage, const py::object& maxBlack,
                             const py::object& gcr, const py::object& blackLength, const py::object& blackWidth,
                             const py::object& illuminant, bool mediaRelative) {
    const unsigned N = model->NumberOfInks();
    if (N != 4 && N != 6 && N != 7)
        ThrowValue("a separation needs a model of 4, 6 or 7 inks, the model has " + std::to_string(N));
    auto s = std::make_shared<Separation>();
    s->model = model;
    s->totalCoverage = WholeNumber(totalCoverage, "total_coverage", 0, 100LL * N, "percent, the sum over all inks");
    if (s->totalCoverage == 0)
        ThrowValue("total_coverage=0 leaves no gamut: nothing but the paper is reachable; give at least 1 (percent)");
    s->maxBlack = WholeNumber(maxBlack, "max_black", 0, 100, "percent");
    s->gcr = WholeNumber(gcr, "gcr", 0, 100, "percent of the black range");
    const long long L = model->Lighting_Matrix().IlluminantNumber();
    s->illuminant = WholeNumber(illuminant, "illuminant", 0, L - 1, "the model's illuminants, 0-based");
    s->mediaRelative = mediaRelative;
    s->blackLength = blackLength;
    s->blackWidth = blackWidth;
    kelma::ZKCUserParameter_Output p;
    p.SetColorantCoverage(s->totalCoverage);
    p.SetMaxBlack(s->maxBlack);
    p.SetGCR(s->gcr);
    // Either of black_length / black_width selects that mode; the other is 0.
    if (!blackLength.is_none() || !blackWidth.is_none()) {
        p.SetBlackLength(blackLength.is_none() ? 0 : WholeNumber(blackLength, "black_length", 0, 100, "percent of darkness"));
        p.SetBlackWidth(blackWidth.is_none() ? 0 : WholeNumber(blackWidth, "black_width", 0, 100, "percent of darkness"));
    }
    py::gil_scoped_release release;
    s->sep = WithContext("kelma.Separation", [&] {
        return std::make_shared<ZKCSeparation>(*model, p, s->illuminant, mediaRelative);
    });
    return s;
}

// CIELAB colours: real (..., 3), finite.
template <class T>
CArray<T> LabArray(const py::object& obj, std::size_t* count, Shape* leading) {
    CArray<T> lab = AsNumeric<T>(obj, "lab", kFloat | kInteger);
    *count = BatchCount(lab, "lab", 3, "L*, a*, b*", leading);
    CheckFinite(lab.data(), 3 * *count, "lab");
    return lab;
}

py::array Inks(const Separation& s, const py::object& obj) {
    std::size_t count = 0;
    Shape shape;
    CArray<float> lab = LabArray<float>(obj, &count, &shape);
    const unsigned N = s.model->NumberOfInks();
    shape.push_back(N);
    CArray<std::uint8_t> out(shape);
    const float* in = lab.data();
    std::uint8_t* o = out.mutable_data();
    py::gil_scoped_release release;
    WithContext("Separation.inks", [&] {
        s.sep->Separate(in, count, o);
        return 0;
    });
    return out;
}

py::array InGamut(const Separation& s, const py::object& obj) {
    std::size_t count = 0;
    Shape shape;
    CArray<double> lab = LabArray<double>(obj, &count, &shape);
    py::array_t<bool> out(shape);
    const double* in = lab.data();
    bool* o = out.mutable_data();
    py::gil_scoped_release release;
    WithContext("Separation.in_gamut", [&] {
        s.sep->InGamut(in, count, o);
        return 0;
    });
    return out;
}

py::array GamutMap(const Separation& s, const py::object& obj) {
    std::size_t count = 0;
    Shape shape;
    CArray<double> lab = LabArray<double>(obj, &count, &shape);
    shape.push_back(3);
    py::array_t<double> out(shape);
    const double* in = lab.data();
    double* o = out.mutable_data();
    py::gil_scoped_release release;
    WithContext("Separation.gamut_map", [&] {
        s.sep->GamutMap(in, count, o);
        return 0;
    });
    return out;
}

py::array NodeTable(const Separation& s, const py::object& gridPoints) {
    const unsigned n = static_cast<unsigned>(WholeNumber(gridPoints, "grid_points", 2, 65, "nodes per axis"));
    const unsigned N = s.model->NumberOfInks();
    std::vector<unsigned char> table;
    {
        py::gil_scoped_release release;
        table = WithContext("Separation.node_table", [&] { return s.sep->NodeTable(n); });
    }
    const py::ssize_t m = n;
    py::array_t<std::uint8_t> out(Shape{m, m, m, static_cast<py::ssize_t>(N)});
    std::copy(table.begin(), table.end(), out.mutable_data());
    return out;
}

py::object Clut(const Separation& s, const py::object& gridPoints) {
    const unsigned N = s.model->NumberOfInks();
    if (N != 4 && N != 7)
        ThrowValue("CIELAB-input CLUTs have 4 or 7 outputs; this separation has " + std::to_string(N) +
                   " inks (node_table gives its nodes)");
    py::array nodes = NodeTable(s, gridPoints);
    return py::module_::import("kelma._kelma").attr("Clut").attr("from_nodes")(nodes, py::arg("in_lab") = true);
}

}  // namespace

void RegisterSeparation(py::module_& m) {
    py::class_<Separation, SeparationPtr>(m, "Separation", R"doc(
Separation: the ink amounts that reproduce CIELAB colours on a printer model
of 4, 6 or 7 inks (C, M, Y, K first; black is ink 3), within a total ink
coverage and a black limit, with grey-component replacement or black
length/width, for one illuminant of the model.

Separation(model, *, total_coverage=300, max_black=100, gcr=50,
           black_length=None, black_width=None, illuminant=0,
           media_relative=True)

total_coverage: the most ink of all inks together, in percent (1 ..
    100 x inks; 0 leaves nothing but the paper and is refused).
max_black: the most black, in percent (0..100).
gcr: black as a share of the black range, in percent (0..100): for a colour
    reachable with black from Kmin to Kmax, black = Kmin + gcr/100 (Kmax -
    Kmin).
black_length, black_width: giving either selects that mode instead of gcr
    (the other is then 0): black rises from Kmin to Kmax along the colour's
    darkness D (0 at the paper, 100 at the darkest reachable colour),
    starting at D = black_length and over black_width, as a smoothstep.
illuminant: which of the model's illuminants (0-based).
media_relative: CIELAB relative to the paper (L* 100 for the paper) rather
    than to the illuminant's white.
Out-of-gamut colours are mapped to the gamut boundary at their own
lightness and hue (see gamut_map). A 6- or 7-ink model is separated per
colour with black and three other inks. Every output meets the limits.
)doc")
        .def(py::init(&MakeSeparation), py::arg("model"), py::kw_only(), py::arg("total_coverage") = 300,
             py::arg("max_black") = 100, py::arg("gcr") = 50, py::arg("black_length") = py::none(),
             py::arg("black_width") = py::none(), py::arg("illuminant") = 0, py::arg("media_relative") = true)
        .def("inks", &Inks, py::arg("lab"),
             R"doc(Ink bytes for CIELAB colours.

lab: real array (..., 3) of L*, a*, b* (finite).
Returns uint8 (..., inks): 0..255 per ink (255 = 100 %), in the model's ink
order, each within the limits.)doc")
        .def("in_gamut", &InGamut, py::arg("lab"),
             "bool (...): whether each colour of lab (..., 3) is reachable within the limits.")
        .def("gamut_map", &GamutMap, py::arg("lab"),
             R"doc(float64 (..., 3): the colour each of lab (..., 3) is reproduced as: itself
when in gamut, otherwise the most chromatic reachable colour of its lightness
in its hue direction about the grey axis (paper to darkest colour); beyond
the lightness range, the paper or the darkest colour.)doc")
        .def("node_table", &NodeTable, py::arg("grid_points") = 33,
             R"doc(uint8 (n, n, n, inks): the nodes of a CIELAB-input CLUT of grid_points (2..65)
nodes per axis (axis 0 L*, then a*, b*; the a* and b* axes put byte 128 on
the middle node when n is odd).)doc")
        .def("clut", &Clut, py::arg("grid_points") = 33,
             R"doc(A kelma.Clut from node_table(grid_points): CIELAB bytes (2.55 L*, a* + 128,
b* + 128) in, ink bytes out. 4 and 7 inks (there is no 6-output worker).)doc")
        .def_property_readonly("model", [](const Separation& s) { return s.model; })
        .def_property_readonly("ink_count", [](const Separation& s) { return s.model->NumberOfInks(); })
        .def_property_readonly("total_coverage", [](const Separation& s) { return s.totalCoverage; })
        .def_property_readonly("max_black", [](const Separation& s) { return s.maxBlack; })
        .def_property_readonly("gcr", [](const Separation& s) { return s.gcr; })
        .def_property_readonly("black_length", [](const Separation& s) { return s.blackLength; })
        .def_property_readonly("black_width", [](const Separation& s) { return s.blackWidth; })
        .def_property_readonly("illuminant", [](const Separation& s) { return s.illuminant; })
        .def_property_readonly("media_relative", [](const Separation& s) { return s.mediaRelative; })
        .def_property_readonly("total_limit", [](const Separation& s) { return s.sep->TotalLimit(); },
                               "The total coverage in bytes: floor(2.55 x total_coverage).")
        .def_property_readonly("black_limit", [](const Separation& s) { return s.sep->BlackLimit(); },
                               "The black limit in bytes: floor(2.55 x max_black).")
        .def_property_readonly(
            "paper_lab",
            [](const Separation& s) {
                py::array_t<double> out(3);
                std::copy_n(s.sep->PaperCIELAB(), 3, out.mutable_data());
                return out;
            },
            "CIELAB of the paper (all inks 0).")
        .def_property_readonly(
            "darkest_lab",
            [](const Separation& s) {
                py::array_t<double> out(3);
                std::copy_n(s.sep->BlackPointCIELAB(), 3, out.mutable_data());
                return out;
            },
            "CIELAB of the darkest colour within the limits.")
        .def_property_readonly("subsets", [](const Separation& s) { return s.sep->SubsetCodes(); },
                               "Ink-subset masks tried (bit i: ink i), in their fixed order.")
        .def("__repr__", [](const Separation& s) {
            std::ostringstream o;
            o << "<kelma.Separation " << s.model->NumberOfInks() << " inks, total " << s.totalCoverage
              << " %, black " << s.maxBlack << " %, ";
            if (s.blackLength.is_none() && s.blackWidth.is_none())
                o << "GCR " << s.gcr;
            else
                o << "black length " << (s.blackLength.is_none() ? "0" : py::str(s.blackLength).cast<std::string>())
                  << " width " << (s.blackWidth.is_none() ? "0" : py::str(s.blackWidth).cast<std::string>());
            o << ", illuminant " << s.illuminant << (s.mediaRelative ? ", media-relative" : "") << ">";
            return o.str();
        });
}

}  // namespace kelma_py
