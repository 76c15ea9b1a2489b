// Observers, illuminants, lighting matrices (spectra -> XYZ -> CIELAB or
// LAB2000HL bytes), white points, and the LAB2000HL transformation.
#include <algorithm>
#include <cmath>
#include <memory>

#include "common.h"

namespace kelma_py {

namespace {

using kelma::ZKCLighting_Matrix;
using MatrixPtr = std::shared_ptr<ZKCLighting_Matrix>;

constexpr unsigned kValues = kelma::kSpectralValues;  // 31
constexpr unsigned kStride = kelma::kSpectrumStride;  // 32

const char* const kIlluminantNames = "'A', 'D50', 'D65', 'E', 'F1', 'F2', 'F11'";

std::unique_ptr<kelma::ZKCIlluminant_Base> NamedIlluminant(const std::string& name) {
    std::unique_ptr<kelma::ZKCIlluminant_Base> illuminant = kelma::MakeStandardIlluminant(name);
    if (!illuminant)
        ThrowValue("unknown illuminant '" + name + "': expected one of " + kIlluminantNames +
                   " or a measured spectral power distribution of 31 values (400-700 nm, 10 nm)");
    return illuminant;
}

kelma::ZKCObserver MakeObserver(const py::object& observer) {
    long long type = 2;
    if (!observer.is_none()) {
        const py::object integer = py::module_::import("numpy").attr("integer");
        if (py::isinstance<py::bool_>(observer) ||
            !(py::isinstance<py::int_>(observer) || py::isinstance(observer, integer)))
            ThrowType("observer must be an integer, 2 (CIE 1931 2 degree) or 10 (CIE 1964 10 degree)");
        type = observer.cast<long long>();
    }
    const std::string context =
        "observer must be 2 (CIE 1931 2 degree) or 10 (CIE 1964 10 degree), got " + std::to_string(type);
    if (type < 0 || type > 0xFFFFFFFFLL) ThrowValue(context);
    return WithContext(context,
                       [&] { return kelma::ZKCObserver(static_cast<kelma::OBSERVER_TYPE>(type)); });
}

bool IsScalar(const py::handle& h) {
    const py::object generic = py::module_::import("numpy").attr("generic");
    return py::isinstance<py::int_>(h) || py::isinstance<py::float_>(h) || py::isinstance(h, generic);
}

// One measured SPD: 31 finite, non-negative values whose luminance under the
// observer is positive (the lighting matrix divides by it).
std::unique_ptr<kelma::ZKCIlluminant_Base> MeasuredIlluminant(const py::handle& obj, const kelma::ZKCObserver& obs,
                                                              std::size_t index) {
    const std::string name = "illuminant " + std::to_string(index);
    auto a = AsNumeric<double>(obj, name.c_str(), kFloat | kInteger);
    if (a.ndim() != 1 || a.shape(0) != kValues)
        ThrowValue(name + " must be a name (" + kIlluminantNames +
                   ") or 31 relative spectral power values (400-700 nm, 10 nm), got shape " + ShapeString(a));
    const double* p = a.data();
    CheckFinite(p, kValues, name.c_str());
    double k = 0.0;
    for (unsigned i = 0; i < kValues; ++i) {
        if (p[i] < 0.0) ThrowValue(name + " must be non-negative, found " + std::to_string(p[i]) + " at index " +
                                   std::to_string(i));
        k += obs.Observer()[kValues + i] * p[i];
    }
    if (!(k > 0.0))
        ThrowValue(name + " has no luminance under the observer (sum of ybar x S is 0): nothing to normalise by");
    return std::make_unique<kelma::ZKCIlluminant_Measure>(std::vector<double>(p, p + kValues));
}

}  // namespace

kelma::ZKCLighting_Matrix MakeLightingMatrix(const py::object& illuminants, const py::object& observer) {
    if (py::isinstance<ZKCLighting_Matrix>(illuminants)) {
        if (!observer.is_none())
            ThrowValue("observer cannot be given with a LightingMatrix: the matrix already folds one in");
        return illuminants.cast<const ZKCLighting_Matrix&>();
    }
    kelma::ZKCObserver obs = MakeObserver(observer);
    std::vector<std::unique_ptr<kelma::ZKCIlluminant_Base>> owned;
    if (py::isinstance<py::str>(illuminants)) {
        owned.push_back(NamedIlluminant(illuminants.cast<std::string>()));
    } else if (py::isinstance<py::list>(illuminants) || py::isinstance<py::tuple>(illuminants)) {
        py::sequence seq = py::reinterpret_borrow<py::sequence>(illuminants);
        if (seq.size() == 0) ThrowValue("illuminants is empty: give at least one illuminant");
        bool allScalars = true;
        for (const auto& item : seq) allScalars = allScalars && IsScalar(item);
        if (allScalars) {
            owned.push_back(MeasuredIlluminant(illuminants, obs, 0));
        } else {
            std::size_t i = 0;
            for (const auto& item : seq) {
                if (py::isinstance<py::str>(item))
                    owned.push_back(NamedIlluminant(item.cast<std::string>()));
                else
                    owned.push_back(MeasuredIlluminant(item, obs, i));
                ++i;
            }
        }
    } else {
        py::array a = AsNdarray(illuminants, "illuminants");
        if (a.ndim() == 2) {
            if (a.shape(0) == 0) ThrowValue("illuminants is empty: give at least one illuminant");
            for (py::ssize_t i = 0; i < a.shape(0); ++i)
                owned.push_back(MeasuredIlluminant(a[py::int_(i)], obs, static_cast<std::size_t>(i)));
        } else {
            owned.push_back(MeasuredIlluminant(a, obs, 0));
        }
    }
    std::vector<kelma::ZKCIlluminant_Base*> pointers;
    for (auto& p : owned) pointers.push_back(p.get());
    return ZKCLighting_Matrix(obs, pointers);
}

namespace {

std::size_t CheckIlluminantAxes(const py::array& a, const char* name, unsigned illuminants, Shape* leading) {
    const py::ssize_t nd = a.ndim();
    if (nd < 2 || a.shape(nd - 1) != 3 || a.shape(nd - 2) != static_cast<py::ssize_t>(illuminants))
        ThrowValue(std::string(name) + " must have shape (..., " + std::to_string(illuminants) +
                   ", 3): one triple per illuminant of the matrix, got " + ShapeString(a));
    std::size_t count = 1;
    Shape lead;
    for (py::ssize_t i = 0; i + 2 < nd; ++i) {
        lead.push_back(a.shape(i));
        count *= static_cast<std::size_t>(a.shape(i));
    }
    if (count == 0) ThrowValue(std::string(name) + " holds no sample (shape " + ShapeString(a) + "): empty batch");
    *leading = lead;
    return count;
}

// A (L, 3) per-illuminant triple argument (factor, media white).
std::vector<float> Triples(const py::handle& obj, const char* name, unsigned illuminants, bool positive) {
    auto a = AsNumeric<float>(obj, name, kFloat | kInteger);
    const Shape want{static_cast<py::ssize_t>(illuminants), 3};
    if (Shape(a.shape(), a.shape() + a.ndim()) != want)
        ThrowValue(std::string(name) + " must have shape " + ShapeString(want) + " (X, Y, Z per illuminant), got " +
                   ShapeString(a));
    CheckFinite(a.data(), a.size(), name);
    if (positive)
        for (py::ssize_t i = 0; i < a.size(); ++i)
            if (!(a.data()[i] > 0.0f)) ThrowValue(std::string(name) + " must be positive (it is divided by)");
    return std::vector<float>(a.data(), a.data() + a.size());
}

py::array_t<float> WhiteArray(const std::vector<float>& values) {
    py::array_t<float> out({static_cast<py::ssize_t>(values.size() / 3), py::ssize_t{3}});
    std::copy(values.begin(), values.end(), out.mutable_data());
    return out;
}

// The optional per-illuminant factor (L, 3), parsed into `storage`; null when absent.
const std::vector<float>* OptionalFactor(const py::object& factor, unsigned L, std::vector<float>& storage) {
    if (factor.is_none()) return nullptr;
    storage = Triples(factor, "factor", L, false);
    return &storage;
}

// Result shape (..., L, 3): one triple per illuminant after the leading axes.
Shape PerIlluminantTriples(Shape lead, unsigned L) {
    lead.push_back(L);
    lead.push_back(3);
    return lead;
}

py::array_t<float> XYZ(const ZKCLighting_Matrix& lm, const py::object& spectra, const py::object& factor) {
    auto s = AsNumeric<float>(spectra, "spectra", kFloat);
    const py::ssize_t width = s.ndim() ? s.shape(s.ndim() - 1) : 0;
    Shape lead;
    const std::size_t count =
        BatchCount(s, "spectra", width == kStride ? kStride : kValues, "reflectance at 400-700 nm, 10 nm", &lead);
    // The last value of a 32-wide record is padding and is ignored.
    for (std::size_t r = 0; r < count; ++r) CheckFinite(s.data() + r * width, kValues, "spectra");
    const unsigned L = lm.IlluminantNumber();
    std::vector<float> f;
    const std::vector<float>* fp = OptionalFactor(factor, L, f);
    const Shape shape = PerIlluminantTriples(lead, L);
    py::array_t<float> out(shape);
    const float* in = s.data();
    float* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        ParallelFor(count, [&](std::size_t start, std::size_t n) {
            constexpr std::size_t kBlock = 4096;
            kelma::AlignedBuffer<float> block(std::min(n, kBlock) * kStride);
            for (std::size_t b = 0; b < n; b += kBlock) {
                const std::size_t c = std::min(kBlock, n - b);
                for (std::size_t i = 0; i < c; ++i) {
                    // The pad is zeroed: a NaN there would leak through its 0.0 weight.
                    std::copy_n(in + (start + b + i) * width, kValues, block.data() + i * kStride);
                    block[i * kStride + kValues] = 0.0f;
                }
                lm.CalculateCIEXYZ(o + (start + b) * 3 * L, block.data(), static_cast<unsigned>(c), fp);
            }
        });
    }
    return out;
}

py::array_t<std::uint8_t> Bytes(const ZKCLighting_Matrix& lm, const py::object& xyz, bool cielab) {
    auto a = AsNumeric<float>(xyz, "xyz", kFloat);
    const unsigned L = lm.IlluminantNumber();
    Shape lead;
    const std::size_t count = CheckIlluminantAxes(a, "xyz", L, &lead);
    for (py::ssize_t i = 0; i < a.size(); ++i)
        if (std::isnan(a.data()[i])) ThrowValue("xyz contains NaN at flat index " + std::to_string(i));
    const Shape shape = PerIlluminantTriples(lead, L);
    py::array_t<std::uint8_t> out(shape);
    // CalculateCIELAB only reads its XYZ argument.
    float* in = const_cast<float*>(a.data());
    std::uint8_t* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        ParallelFor(count, [&](std::size_t start, std::size_t n) {
            lm.CalculateCIELAB(o + start * 3 * L, in + start * 3 * L, static_cast<unsigned>(n), cielab);
        });
    }
    return out;
}

template <class T>
py::array_t<std::uint8_t> MediaRelative(const ZKCLighting_Matrix& lm, const CArray<T>& lab, const py::object& factor) {
    const unsigned L = lm.IlluminantNumber();
    Shape lead;
    const std::size_t count = CheckIlluminantAxes(lab, "lab", L, &lead);
    std::vector<float> f;
    const std::vector<float>* fp = OptionalFactor(factor, L, f);
    const Shape shape = PerIlluminantTriples(lead, L);
    py::array_t<std::uint8_t> out(shape);
    const T* in = lab.data();
    std::uint8_t* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        ParallelFor(count, [&](std::size_t start, std::size_t n) {
            lm.CalculateMediaRelativeCIELAB(o + start * 3 * L, in + start * 3 * L, static_cast<unsigned>(n), fp);
        });
    }
    return out;
}

MatrixPtr FromWeights(const py::object& weights) {
    auto w = AsNumeric<float>(weights, "weights", kFloat);
    if (w.ndim() != 3 || w.shape(0) < 1 || w.shape(1) != 3 || w.shape(2) != kValues)
        ThrowValue("weights must have shape (illuminants, 3, 31): X, Y, Z weights per illuminant at 400-700 nm, got " +
                   ShapeString(w));
    CheckFinite(w.data(), w.size(), "weights");
    const std::size_t L = static_cast<std::size_t>(w.shape(0));
    std::vector<float> buffer(L * kelma::kLightingBlock, 0.0f);
    for (std::size_t r = 0; r < 3 * L; ++r) std::copy_n(w.data() + r * kValues, kValues, buffer.data() + r * kStride);
    return std::make_shared<ZKCLighting_Matrix>(buffer.data(), static_cast<unsigned long>(L));
}

// LAB2000HL of CIELAB triples through the threaded driver.
py::array_t<double> LabToLab2000hl(const py::object& lab) {
    auto a = AsNumeric<double>(lab, "lab", kFloat | kInteger);
    Shape lead;
    const std::size_t count = BatchCount(a, "lab", 3, "L*, a*, b*", &lead);
    CheckNotNaN(a.data(), a.size(), "lab");
    Shape shape = lead;
    shape.push_back(3);
    py::array_t<double> out(shape);
    const double* in = a.data();
    double* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        kelma::ZKCColorSpaceTransformationLUT_Thread driver(kelma::COLORSPACETRANSFORMATION_LAB2LAB2000HL);
        constexpr std::size_t kMax = std::size_t(1) << 30;  // the workers count in 32 bits
        for (std::size_t start = 0; start < count; start += kMax) {
            const std::size_t n = std::min(kMax, count - start);
            driver.Init(in + 3 * start, o + 3 * start, n);
            driver.Calculate();
        }
    }
    return out;
}

py::array_t<std::uint8_t> Lab2000hlToBytes(const py::object& lhl, bool clamp) {
    auto a = AsNumeric<double>(lhl, "lab2000hl", kFloat | kInteger);
    Shape lead;
    const std::size_t count = BatchCount(a, "lab2000hl", 3, "L, a, b of LAB2000HL", &lead);
    if (clamp) {
        CheckNotNaN(a.data(), a.size(), "lab2000hl");
    } else {
        // The unclamped encoding converts to a 32-bit integer: keep inside it.
        CheckFinite(a.data(), a.size(), "lab2000hl");
        for (py::ssize_t i = 0; i < a.size(); ++i)
            if (std::fabs(a.data()[i]) > 1e8)
                ThrowValue("lab2000hl values must be within +-1e8 for clamp=False, found " +
                           std::to_string(a.data()[i]));
    }
    Shape shape = lead;
    shape.push_back(3);
    py::array_t<std::uint8_t> out(shape);
    const double* in = a.data();
    std::uint8_t* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        ParallelFor(count, [&](std::size_t start, std::size_t n) {
            if (clamp) {
                for (std::size_t i = start; i < start + n; ++i)
                    kelma::ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::LAB2000HL_BYTE(in + 3 * i, o + 3 * i);
            } else {
                kelma::ZKCColorSpaceTransformationLUT_LAB2LAB2000HL worker;
                worker.TransformToByte(in + 3 * start, o + 3 * start, n);
            }
        });
    }
    return out;
}

}  // namespace

void RegisterColorimetry(py::module_& m) {
    {
        py::array_t<double> w(kValues);
        for (unsigned i = 0; i < kValues; ++i) w.mutable_data()[i] = 400.0 + 10.0 * i;
        w.attr("flags").attr("writeable") = false;
        m.attr("WAVELENGTHS") = w;
    }
    m.attr("ILLUMINANTS") = py::make_tuple("A", "D50", "D65", "E", "F1", "F2", "F11");

    m.def(
        "observer",
        [](const py::object& type) {
            kelma::ZKCObserver obs = MakeObserver(type);
            py::array_t<double> out({py::ssize_t{3}, py::ssize_t{kValues}});
            std::copy(obs.Observer().begin(), obs.Observer().end(), out.mutable_data());
            return out;
        },
        py::arg("observer") = 2,
        R"doc(Colour-matching functions of a CIE standard observer as the library holds them.

observer: 2 (CIE 1931, 2 degree) or 10 (CIE 1964, 10 degree).
Returns float64 (3, 31): rows xbar, ybar, zbar at 400-700 nm in 10 nm steps
(kelma.WAVELENGTHS), each value rounded to two decimals (ybar(560 nm) = 1.0).)doc");

    m.def(
        "illuminant",
        [](const std::string& name) {
            auto ill = NamedIlluminant(name);
            py::array_t<double> out(kValues);
            std::copy(ill->Illuminant().begin(), ill->Illuminant().end(), out.mutable_data());
            return out;
        },
        py::arg("name"),
        R"doc(Relative spectral power distribution of a CIE illuminant.

name: one of kelma.ILLUMINANTS ('A', 'D50', 'D65', 'E', 'F1', 'F2', 'F11'),
case-insensitive. Returns float64 (31,) at 400-700 nm (10 nm): the CIE table
divided by 100, so A, D50, D65 and E read 1.0 at 560 nm; the fluorescent
tables are point samples of the 5 nm tables, not renormalised.)doc");

    py::class_<ZKCLighting_Matrix, MatrixPtr>(m, "LightingMatrix", R"doc(
Observer x illuminant weights that turn reflectance spectra into CIE XYZ
(perfect reflector: Y = 1.0, not 100) and XYZ into CIELAB or LAB2000HL bytes.
A matrix may hold several illuminants; every result then has an illuminant
axis of that length, in the order the illuminants were given.

LightingMatrix(illuminants='D50', observer=2)
    illuminants: a name from kelma.ILLUMINANTS, a measured relative spectral
        power distribution (31 non-negative values at 400-700 nm, 10 nm), or a
        list of those; a 2-D array (L, 31) gives L measured illuminants.
    observer: 2 (CIE 1931 2 degree) or 10 (CIE 1964 10 degree).
)doc")
        .def(py::init([](const py::object& illuminants, const py::object& observer) {
                 return std::make_shared<ZKCLighting_Matrix>(MakeLightingMatrix(illuminants, observer));
             }),
             py::arg("illuminants") = "D50", py::arg("observer") = py::none())
        .def_static("from_weights", &FromWeights, py::arg("weights"),
                    R"doc(A matrix from exported weights: float (L, 3, 31), the X, Y and Z rows of each
illuminant at 400-700 nm, as LightingMatrix.weights returns them.)doc")
        .def_property_readonly("illuminant_count", &ZKCLighting_Matrix::IlluminantNumber,
                               "Number of illuminants L held by the matrix.")
        .def_property_readonly(
            "weights",
            [](const ZKCLighting_Matrix& lm) {
                const py::ssize_t L = lm.IlluminantNumber();
                py::array_t<float> out({L, py::ssize_t{3}, py::ssize_t{kValues}});
                for (py::ssize_t r = 0; r < 3 * L; ++r)
                    std::copy_n(lm.Weights() + r * kStride, kValues, out.mutable_data() + r * kValues);
                return out;
            },
            R"doc(float32 (L, 3, 31): X, Y, Z weights per illuminant, cmf(i) S(i) / sum(ybar S),
so that XYZ = weights @ reflectance and a perfect reflector has Y = 1.)doc")
        .def_property_readonly(
            "white_point", [](const ZKCLighting_Matrix& lm) { return WhiteArray(kelma::ZKCWhitePoint(lm).Values()); },
            "float32 (L, 3): XYZ of the perfect reflector under each illuminant (Y = 1.0).")
        .def("xyz", &XYZ, py::arg("spectra"), py::arg("factor") = py::none(),
             R"doc(CIE XYZ of reflectance spectra.

spectra: float (..., 31) reflectance factors (0-1) at 400-700 nm, 10 nm; a
    32-wide record (as predict_spectra(padded=True) returns) is accepted and
    its last value ignored. Must be finite.
factor: optional float (L, 3) multiplier per illuminant and component (the
    media-relative factor of media_relative_factor).
Returns float32 (..., L, 3), Y = 1.0 for a perfect reflector.)doc")
        .def(
            "cielab_bytes", [](const ZKCLighting_Matrix& lm, const py::object& xyz) { return Bytes(lm, xyz, true); },
            py::arg("xyz"),
            R"doc(CIELAB bytes of XYZ (..., L, 3), relative to each illuminant's white:
2.55 L*, a* + 128, b* + 128, clamped to 0..255 and rounded half up.
Returns uint8 (..., L, 3).)doc")
        .def(
            "lab2000hl_bytes", [](const ZKCLighting_Matrix& lm, const py::object& xyz) { return Bytes(lm, xyz, false); },
            py::arg("xyz"),
            R"doc(LAB2000HL bytes of XYZ (..., L, 3), relative to each illuminant's white:
3.3931 L, 2.6771 a + 128, 2.6771 b + 128 of LAB2000HL, clamped to 0..255 and
rounded half up (white is (255, 128, 128)). Returns uint8 (..., L, 3).)doc")
        .def(
            "media_relative_factor",
            [](const ZKCLighting_Matrix& lm, const py::object& media) {
                std::vector<float> values = Triples(media, "media_white", lm.IlluminantNumber(), true);
                std::vector<float> factor;
                lm.GetMediaRelativeTransformFactor(factor, kelma::ZKCWhitePoint(values));
                return WhiteArray(factor);
            },
            py::arg("media_white"),
            R"doc(Factor white / media per illuminant and component, float32 (L, 3).
media_white: float (L, 3), positive XYZ of the paper (Model.media_white_point).)doc")
        .def(
            "media_relative_lab2000hl_bytes",
            [](const ZKCLighting_Matrix& lm, const py::object& lab, const py::object& factor) {
                py::array a = AsNdarray(lab, "lab");
                if (a.dtype().is(py::dtype::of<std::uint16_t>()))
                    return MediaRelative<std::uint16_t>(lm, AsExact<std::uint16_t>(a, "lab"), factor);
                if (!a.dtype().is(py::dtype::of<std::uint8_t>()))
                    ThrowType("lab must be a uint8 or uint16 array of encoded CIELAB, got dtype " + DtypeString(a));
                return MediaRelative<std::uint8_t>(lm, AsExact<std::uint8_t>(a, "lab"), factor);
            },
            py::arg("lab"), py::arg("factor") = py::none(),
            R"doc(Media-relative encoded CIELAB to LAB2000HL bytes of this matrix.

lab: (..., L, 3) uint8 (L* = 100/255 byte, a* = byte - 128) or uint16
    (0xFF00 is L* = 100, 0x8000 is a* = 0).
factor: optional float (L, 3), usually media_relative_factor(media white).
Returns uint8 (..., L, 3).)doc")
        .def(
            "illuminant",
            [](const ZKCLighting_Matrix& lm, long long k) {
                auto out = std::make_shared<ZKCLighting_Matrix>();
                const std::string context = "illuminant index must be in 0.." +
                                            std::to_string(static_cast<long long>(lm.IlluminantNumber()) - 1) +
                                            ", got " + std::to_string(k);
                if (k < 0) ThrowValue("Invalid IlluminantIndex: " + context);
                WithContext(context, [&] {
                    lm.ExtractSingleIlluminant_Lighting_Matrix(*out, static_cast<unsigned long>(k));
                    return 0;
                });
                return out;
            },
            py::arg("index"), "The one-illuminant matrix of illuminant `index` (0-based).")
        .def(
            "__add__",
            [](const ZKCLighting_Matrix& a, const ZKCLighting_Matrix& b) {
                auto out = std::make_shared<ZKCLighting_Matrix>(a);
                *out += b;
                return out;
            },
            py::arg("other"), "A matrix with this matrix's illuminants followed by the other's.")
        .def("__repr__", [](const ZKCLighting_Matrix& lm) {
            return "<kelma.LightingMatrix with " + std::to_string(lm.IlluminantNumber()) + " illuminant(s)>";
        });

    m.def("lab_to_lab2000hl", &LabToLab2000hl, py::arg("lab"),
          R"doc(CIELAB to LAB2000HL through the published tables, on all processors.

lab: float (..., 3) L* (0-100), a*, b* (-128..128); values outside are
    clamped to those ranges; NaN is rejected.
Returns float64 (..., 3): L in 0..75.1531864183417, a and b about -44..48.)doc");
    m.def("lab2000hl_to_bytes", &Lab2000hlToBytes, py::arg("lab2000hl"), py::arg("clamp") = true,
          R"doc(Byte encoding of LAB2000HL triples (..., 3) -> uint8 (..., 3):
3.3931 L, 2.6771 a + 128, 2.6771 b + 128.

clamp=True: clamped to 0..255 and rounded half up (the library's colour
    output encoding).
clamp=False: truncated toward zero and wrapped to the low 8 bits, unclamped
    (the array form of the threaded transformation); values must be finite.)doc");
}

}  // namespace kelma_py
