// kelma.Model: a cellular Yule-Nielsen modified spectral Neugebauer model
// built from numpy arrays, and its ink-subset sub-models.
#include <cmath>
#include <memory>
#include <sstream>

#include "common.h"
#include "kelma/model/ModelValidation.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKCSSE_KELMA_Data;

constexpr unsigned kValues = kelma::kSpectralValues;

bool SupportedInks(std::size_t n) { return n == 4 || n == 6 || n == 7; }

template <class T>
std::shared_ptr<ZKCSSE_KELMA_Data> Build(const py::object& ramps, const CArray<double>& g,
                                         const py::array& schemeIn, double n, const kelma::ZKCLighting_Matrix& lm,
                                         std::uint32_t inkSet, bool mediaRelative, bool absolute, unsigned N,
                                         unsigned G) {
    CArray<T> gridT = AsNumeric<T>(g, "grid", kFloat | kInteger);
    CArray<T> rampsT = AsNumeric<T>(ramps, "ramps", kFloat | kInteger);
    CArray<T> scheme = AsNumeric<T>(schemeIn, "scheme", kFloat);
    const T nT = static_cast<T>(n);
    if (std::isfinite(n) && !std::isfinite(nT))
        ThrowValue("n (the Yule-Nielsen exponent) = " + std::to_string(n) +
                   " does not fit in float32, the precision this model is built in");
    // The library's one check of a model (the values, after conversion to the
    // precision the model is built from).
    std::string problem;
    {
        py::gil_scoped_release release;
        problem = kelma::CheckModelArrays(N, G, gridT.data(), rampsT.data(), scheme.data(),
                                          static_cast<std::size_t>(scheme.size()), nT);
    }
    if (!problem.empty()) ThrowValue("not a usable model: " + problem);
    std::shared_ptr<ZKCSSE_KELMA_Data> model;
    {
        py::gil_scoped_release release;
        // The constructor predicts the blank paper on worker threads.
        model = std::make_shared<ZKCSSE_KELMA_Data>(N, G, gridT.data(), rampsT.data(), scheme.data(), nT, lm,
                                                    static_cast<kelma::INK_SET>(inkSet), mediaRelative, absolute,
                                                    kValues);
        problem = kelma::CheckModelLighting(*model);
    }
    if (!problem.empty()) ThrowValue("not a usable model under these illuminants: " + problem);
    return model;
}

std::shared_ptr<ZKCSSE_KELMA_Data> MakeModel(const py::object& grid, const py::object& ramps,
                                             const py::object& scheme, double n, const py::object& illuminants,
                                             const py::object& observer, bool mediaRelative,
                                             const py::object& inkSetObj, bool absolute) {
    const std::uint32_t inkSet = InkSetArgument(inkSetObj);
    CArray<double> g = AsNumeric<double>(grid, "grid", kFloat | kInteger);
    if (g.ndim() != 2)
        ThrowValue("grid must be 2-D (inks, grid points): one row of levels per ink, got shape " + ShapeString(g));
    const std::size_t N = static_cast<std::size_t>(g.shape(0)), G = static_cast<std::size_t>(g.shape(1));
    if (!SupportedInks(N)) {
        std::string hint = SupportedInks(G) ? " (a (grid points, inks) array? pass grid.T)" : "";
        ThrowValue("grid must have one row per ink and a model needs 4, 6 or 7 inks, got " + std::to_string(N) +
                   " rows" + hint);
    }
    if (G < 2) ThrowValue("grid needs at least 2 levels (0 and 255) per ink, got " + std::to_string(G));

    py::array r = AsNdarray(ramps, "ramps");
    const Shape rampShape{static_cast<py::ssize_t>(N), 256};
    if (Shape(r.shape(), r.shape() + r.ndim()) != rampShape) {
        std::string hint = (r.ndim() == 2 && r.shape(0) == 256 && r.shape(1) == static_cast<py::ssize_t>(N))
                               ? " (one row per ink: pass ramps.T)"
                               : "";
        ThrowValue("ramps must have shape " + ShapeString(rampShape) +
                   ": the effective coverage of each ink at 0..255, got " + ShapeString(r) + hint);
    }

    // Coefficients: 31 x (G-1)^N x 2^N; the library counts them in 32 bits.
    long double cells = 1;
    for (std::size_t i = 0; i < N; ++i) cells *= static_cast<long double>(G - 1);
    const long double expected = cells * kValues * static_cast<long double>(1u << N);
    if (expected >= 4294967296.0L) {
        std::ostringstream s;
        s << "a model of " << N << " inks and " << G << " grid points needs " << static_cast<double>(expected)
          << " coefficients, more than the 2^32 - 1 the library can address";
        ThrowValue(s.str());
    }
    py::array sa = AsNdarray(scheme, "scheme");
    const py::ssize_t want = static_cast<py::ssize_t>(expected);
    const Shape blockShape{static_cast<py::ssize_t>(cells), kValues, static_cast<py::ssize_t>(1u << N)};
    const Shape shape(sa.shape(), sa.shape() + sa.ndim());
    if (!((sa.ndim() == 1 && sa.size() == want) || shape == blockShape)) {
        ThrowValue("scheme must hold 31 x (G-1)^N x 2^N = " + std::to_string(want) +
                   " coefficients, flat or shaped " + ShapeString(blockShape) +
                   " (cells, wavelengths, corners), got shape " + ShapeString(sa));
    }
    kelma::ZKCLighting_Matrix lm = MakeLightingMatrix(illuminants, observer);
    if (sa.dtype().kind() == 'f' && sa.dtype().itemsize() == 8)
        return Build<double>(ramps, g, sa, n, lm, inkSet, mediaRelative, absolute, unsigned(N), unsigned(G));
    return Build<float>(ramps, g, sa, n, lm, inkSet, mediaRelative, absolute, unsigned(N), unsigned(G));
}

template <class T>
py::array_t<T> Copy(const T* p, Shape shape) {
    py::array_t<T> out(shape);
    std::copy_n(p, out.size(), out.mutable_data());
    return out;
}

unsigned SelectedInks(unsigned N, std::uint32_t code) {
    if (code == 0xFFFFFFFFu) return N;
    unsigned count = 0;
    for (unsigned i = 0; i < N; ++i) count += (code >> i) & 1u;
    return count;
}

}  // namespace

std::uint32_t CheckCode(const ZKCSSE_KELMA_Data& model, const py::handle& codeObj, const unsigned* required) {
    const long long code = IntegerArgument(codeObj, "an ink-subset code", 0, 0xFFFFFFFFLL,
                                           "a 32-bit mask 0..0xFFFFFFFF (bit i keeps ink i)");
    const unsigned N = model.NumberOfInks();
    const unsigned selected = SelectedInks(N, static_cast<std::uint32_t>(code));
    const bool ok = required != nullptr ? selected == *required : SupportedInks(selected);
    if (!ok) {
        std::ostringstream s;
        s << "code 0x" << std::hex << code << std::dec << " selects " << selected << " of the model's " << N
          << " inks; " << (required != nullptr ? "exactly " + std::to_string(*required) : std::string("4, 6 or 7"))
          << " are needed";
        ThrowValue(s.str());
    }
    return static_cast<std::uint32_t>(code);
}

std::uint32_t InkSetArgument(const py::handle& inkSet) {
    return static_cast<std::uint32_t>(IntegerArgument(inkSet, "ink_set", 0, 0xFFFFFFFFLL, "a 32-bit value 0..0xFFFFFFFF"));
}

ModelPtr WithSingleIlluminant(const ZKCSSE_KELMA_Data& model, const py::handle& index) {
    const long long last = static_cast<long long>(model.Lighting_Matrix().IlluminantNumber()) - 1;
    const long long k = IntegerArgument(index, "illuminant index", 0, last, "in 0.." + std::to_string(last));
    auto copy = std::make_shared<ZKCSSE_KELMA_Data>(model);
    copy->ReduceToSingleIlluminant(static_cast<unsigned long>(k));
    return copy;
}

void RegisterModel(py::module_& m) {
    py::class_<ZKCSSE_KELMA_Data, std::shared_ptr<ZKCSSE_KELMA_Data>>(m, "Model", R"doc(
A cellular Yule-Nielsen modified spectral Neugebauer printer model of 4, 6 or
7 inks, immutable once built (the with_/sub_model methods return new models).

Model(grid, ramps, scheme, n, illuminants='D50', observer=2,
      media_relative=False, ink_set=127, absolute_colorimetric=False)

grid: (N, G) real array, one row per ink: the ink's G digital levels (whole
    numbers, strictly ascending, 0 first, 255 last) that divide its axis into
    G - 1 cells. N is 4, 6 or 7.
ramps: (N, 256) real array, one row per ink: the effective coverage of ink i
    at each 8-bit value (only differences inside a cell matter).
scheme: float32 or float64, 31 x (G-1)^N x 2^N coefficients, flat or shaped
    (cells, 31, 2^N): per cell q (q = sum_i cell_i (G-1)^i, ink 0 fastest),
    wavelength w (400 + 10 w nm) and corner k (bit i: upper grid point along
    ink i) the coefficient of the monomial prod_{i in k} x_i in the local
    coordinates; a spectral value is (sum_k c_k prod x_i)^n. float64 arrays
    build through the double path (lookup table from the doubles).
n: the Yule-Nielsen exponent, finite and > 0.
illuminants, observer: as for LightingMatrix (or a LightingMatrix, then
    without observer): the illuminants colorimetric output is computed under.
media_relative: colorimetric output relative to the paper white instead of
    the illuminant white.
ink_set: 32-bit ink-set value carried unchanged (127: seven inks).
absolute_colorimetric: a flag carried unchanged.
On construction the model predicts the blank paper and keeps its XYZ as
media_white_point.
)doc")
        .def(py::init(&MakeModel), py::arg("grid"), py::arg("ramps"), py::arg("scheme"), py::arg("n"),
             py::arg("illuminants") = "D50", py::arg("observer") = py::none(), py::arg("media_relative") = false,
             py::arg("ink_set") = 127, py::arg("absolute_colorimetric") = false)
        .def_property_readonly("inks", &ZKCSSE_KELMA_Data::NumberOfInks, "Number of inks N (4, 6 or 7).")
        .def_property_readonly("grid_points", &ZKCSSE_KELMA_Data::NumberOfGridPoints, "Grid points G per ink.")
        .def_property_readonly("n", &ZKCSSE_KELMA_Data::n, "Yule-Nielsen exponent (float32 value).")
        .def_property_readonly(
            "grid",
            [](const ZKCSSE_KELMA_Data& d) {
                return Copy(d.GridPoints(), {py::ssize_t(d.NumberOfInks()), py::ssize_t(d.NumberOfGridPoints())});
            },
            "float32 (N, G): grid levels per ink.")
        .def_property_readonly(
            "ramps",
            [](const ZKCSSE_KELMA_Data& d) { return Copy(d.EffectiveRamps(), {py::ssize_t(d.NumberOfInks()), 256}); },
            "float32 (N, 256): effective ramps per ink.")
        .def_property_readonly(
            "scheme",
            [](const ZKCSSE_KELMA_Data& d) {
                const py::ssize_t corners = py::ssize_t(1) << d.NumberOfInks();
                const py::ssize_t cells = static_cast<py::ssize_t>(d.MatrixSchemeSize()) / (kValues * corners);
                return Copy(d.MatrixScheme(), {cells, kValues, corners});
            },
            "float32 (cells, 31, 2^N): the coefficient blocks.")
        .def_property_readonly(
            "ramp_lut",
            [](const ZKCSSE_KELMA_Data& d) {
                const auto& lut = d.EffectiveRampsLUT();
                Shape shape{py::ssize_t(d.NumberOfInks()), 256};
                py::array_t<std::uint32_t> offsets(shape);
                py::array_t<float> weights(shape);
                for (std::size_t i = 0; i < lut.size(); ++i) {
                    offsets.mutable_data()[i] = lut[i].cellOffset;
                    weights.mutable_data()[i] = lut[i].weight;
                }
                return py::make_tuple(offsets, weights);
            },
            R"doc((cell_offsets uint32 (N, 256), weights float32 (N, 256)): per ink and 8-bit
value, the ink's contribution cell_i (G-1)^i to the cell number and the local
coordinate in the cell (0 at the lower grid level, 1 at the upper).)doc")
        .def_property_readonly(
            "lighting_matrix",
            [](const ZKCSSE_KELMA_Data& d) { return std::make_shared<kelma::ZKCLighting_Matrix>(d.Lighting_Matrix()); },
            "A copy of the model's LightingMatrix.")
        .def_property_readonly(
            "illuminant_count", [](const ZKCSSE_KELMA_Data& d) { return d.Lighting_Matrix().IlluminantNumber(); },
            "Number of illuminants L of the colorimetric output.")
        .def_property_readonly(
            "media_white_point",
            [](const ZKCSSE_KELMA_Data& d) {
                const auto& v = d.MediaWhitePoint().Values();
                return Copy(v.data(), {py::ssize_t(v.size() / 3), 3});
            },
            "float32 (L, 3): XYZ of the blank paper (all inks 0) under each illuminant (Y = 1 is white).")
        .def_property_readonly("media_relative", &ZKCSSE_KELMA_Data::IsMediaRelative,
                               "Whether colorimetric output is relative to the paper white.")
        .def_property_readonly("absolute_colorimetric", &ZKCSSE_KELMA_Data::PrintAbsolutColorimetric)
        .def_property_readonly("ink_set", [](const ZKCSSE_KELMA_Data& d) { return std::uint32_t(d.Total_InkSet()); })
        .def(
            "sub_model",
            [](const ZKCSSE_KELMA_Data& d, const py::object& code) {
                const std::uint32_t c = CheckCode(d, code, nullptr);
                py::gil_scoped_release release;
                kelma::ZKCSSE_KELMA_Datafilter filter(d, c);
                return std::make_shared<ZKCSSE_KELMA_Data>(filter.GetKELMA_Data());
            },
            py::arg("code"),
            R"doc(The model of the inks selected by `code` (bit i keeps ink i; 0xFFFFFFFF is a
copy), the others held at 0. Sub-model ink j is the j-th kept ink; the code
must select 4, 6 or 7 inks. Illuminants and flags are kept.)doc")
        .def(
            "single_illuminant",
            [](const ZKCSSE_KELMA_Data& d, const py::object& k) { return WithSingleIlluminant(d, k); }, py::arg("index"),
            "A copy holding only illuminant `index` (0-based) in its lighting matrix and media white point.")
        .def(
            "with_media_relative",
            [](const ZKCSSE_KELMA_Data& d, bool flag) {
                auto copy = std::make_shared<ZKCSSE_KELMA_Data>(d);
                copy->SetIsMediaRelative(flag);
                return copy;
            },
            py::arg("media_relative"), "A copy with the media-relative flag set to the given value.")
        .def("__repr__", [](const ZKCSSE_KELMA_Data& d) {
            std::ostringstream s;
            s << "<kelma.Model " << d.NumberOfInks() << " inks, " << d.NumberOfGridPoints() << " grid points, n="
              << d.n() << ", " << d.Lighting_Matrix().IlluminantNumber() << " illuminant(s)"
              << (d.IsMediaRelative() ? ", media-relative" : "") << ">";
            return s.str();
        });
}

}  // namespace kelma_py
