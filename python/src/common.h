// Helpers shared by the binding sources: argument checks that turn every bad
// input into a ValueError or TypeError naming what was expected, array
// conversion, and a small parallel loop over the library's thread split.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kelma/kelma.h"

namespace kelma_py {

namespace py = pybind11;

using Shape = std::vector<py::ssize_t>;

// A C-contiguous array of T (numpy casts and copies on the way in when needed).
template <class T>
using CArray = py::array_t<T, py::array::c_style | py::array::forcecast>;

[[noreturn]] void ThrowValue(const std::string& message);
[[noreturn]] void ThrowType(const std::string& message);

std::string ShapeString(const Shape& shape);
std::string ShapeString(const py::array& a);
std::string DtypeString(const py::array& a);

// A whole-number argument (a Python or numpy integer, not a bool) in
// [lo, hi]: TypeError for another type, ValueError (naming the value, however
// large) outside the range; `what` completes "name must be ...".
long long IntegerArgument(const py::handle& obj, const char* name, long long lo, long long hi,
                          const std::string& what);
// True or False (Python or numpy bool); anything else is a TypeError.
bool FlagArgument(const py::handle& obj, const char* name);

// Kinds of numeric input an argument may have ('b' bool, 'i'/'u' integers,
// 'f' floating); anything else (complex, object, strings) is a TypeError.
enum NumericKinds : unsigned { kFloat = 1, kInteger = 2 };

// Any array-like as an ndarray, without conversion.
py::array AsNdarray(const py::handle& obj, const char* name);

// A C-contiguous array of T from `obj`, whose dtype must be of the allowed
// kinds (copied and cast when needed; never a view the library could write).
template <class T>
CArray<T> AsNumeric(const py::handle& obj, const char* name, unsigned kinds);

// A C-contiguous uint8 (or uint16) array; other dtypes are a TypeError.
template <class T>
CArray<T> AsExact(const py::handle& obj, const char* name);

// Shape of a batch of records whose last axis has `channels` values: returns
// the number of records (at least 1) and the leading shape.
std::size_t BatchCount(const py::array& a, const char* name, py::ssize_t channels, const std::string& what,
                       Shape* leading);

// An optional caller-supplied output: C-contiguous, writable, of dtype T and
// exactly this shape; otherwise a new array.
template <class T>
CArray<T> OutputArray(const py::object& out, const Shape& shape, const char* name);

void CheckFinite(const float* p, std::size_t n, const char* name);
void CheckFinite(const double* p, std::size_t n, const char* name);
void CheckNotNaN(const double* p, std::size_t n, const char* name);
// The library's plausibility rules (kelma/measurement/SpectralPlausibility.h)
// on an argument, naming the first offending element as name[i, j, ...]:
// every value within float32 range; reflectance factors (-0.1 to 2).
void CheckFloatRange(const py::array_t<double>& a, const char* name);
void CheckReflectance(const py::array_t<double>& a, const char* name);
std::string IndexString(const py::array& a, const char* name, std::size_t flat);

// Runs f(start, count) over [0, total) split as the library's drivers split
// work (one share per processor, remainder on the last); small batches run on
// the calling thread. Worker failures are rethrown here.
void ParallelFor(std::size_t total, const std::function<void(std::size_t, std::size_t)>& f,
                 std::size_t inlineBelow = 4096);

// Runs `call`; a library failure (a plain character-string exception) comes
// back as a ValueError: `context`, then the library's explanation of its text.
template <class F>
auto WithContext(const std::string& context, F&& call) -> decltype(call()) {
    try {
        return call();
    } catch (const char* text) {
        ThrowValue(context + ": " + kelma::ExplainLibraryError(text));
    }
}

// Lighting matrix from an illuminant description (a name, a 31-value SPD, a
// sequence of those, or a LightingMatrix) and an observer (2 or 10).
kelma::ZKCLighting_Matrix MakeLightingMatrix(const py::object& illuminants, const py::object& observer);

// An illuminant of `model`: an index of its lighting matrix or the name of a
// standard illuminant it holds ('D65'); otherwise a ValueError or TypeError
// listing the model's illuminants.
unsigned IlluminantArgument(const kelma::ZKCSSE_KELMA_Data& model, const py::object& illuminant);

// Statistics of colour differences as a dict: count, mean, median, p95, max.
py::dict StatisticsDict(const kelma::ZKSStatistics& s);

// A filesystem path argument (str, bytes or os.PathLike) as a string.
std::string PathString(const py::object& path);

// The UTF-8 of a Python str; ValueError naming the argument when the str
// cannot be encoded (an unpaired surrogate: how Python holds command-line
// bytes that are not UTF-8).
std::string Utf8(const py::handle& str, const std::string& name);

// ink_names: a sequence of exactly `inks` str.
std::vector<std::string> NameList(const py::object& names, std::size_t inks);
// Writes a model file at `path` (atomically), the GIL released.
void WriteModelFile(const kelma::ZKSModelFile& file, const py::object& path);
// A kelma.ModelFile holding a copy of `file`.
py::object ModelFileObject(const kelma::ZKSModelFile& file);
// A chart argument: a kelma.MeasurementFile (its device channels are the
// inks, in percent; spectra resampled linearly) or a tuple (device_values
// (patches, N) in percent, spectra (patches, 31)). ink_names only with a tuple.
kelma::ZKSModelChart ChartArgument(const py::object& chart, const py::object& inkNames);

// Registration of each part of the module.
void RegisterColorimetry(py::module_& m);
void RegisterModel(py::module_& m);
void RegisterPrediction(py::module_& m);
void RegisterSampling(py::module_& m);
void RegisterClut(py::module_& m);
void RegisterModelBuilding(py::module_& m);
void RegisterModelFile(py::module_& m);
void RegisterColour(py::module_& m);
void RegisterFiles(py::module_& m);
void RegisterSeparation(py::module_& m);
void RegisterProfile(py::module_& m);

}  // namespace kelma_py
