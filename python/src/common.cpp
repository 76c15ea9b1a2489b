#include "common.h"

#include <cmath>
#include <limits>
#include <sstream>
#include <type_traits>

namespace kelma_py {

void ThrowValue(const std::string& message) { throw py::value_error(message); }
void ThrowType(const std::string& message) { throw py::type_error(message); }

std::string ShapeString(const Shape& shape) {
    std::ostringstream s;
    s << '(';
    for (std::size_t i = 0; i < shape.size(); ++i) s << (i ? ", " : "") << shape[i];
    if (shape.size() == 1) s << ',';
    s << ')';
    return s.str();
}

std::string ShapeString(const py::array& a) { return ShapeString(Shape(a.shape(), a.shape() + a.ndim())); }

std::string DtypeString(const py::array& a) { return py::str(a.dtype()).cast<std::string>(); }

long long IntegerArgument(const py::handle& obj, const char* name, long long lo, long long hi,
                          const std::string& what) {
    const bool integer = (py::isinstance<py::int_>(obj) && !py::isinstance<py::bool_>(obj)) ||
                         py::isinstance(obj, py::module_::import("numpy").attr("integer"));
    if (!integer)
        ThrowType(std::string(name) + " must be an integer (" + what + "), got " +
                  py::str(py::type::of(obj).attr("__name__")).cast<std::string>());
    // Python integers have no size limit: compare before narrowing.
    const py::int_ value(py::reinterpret_borrow<py::object>(obj));
    if (value < py::int_(lo) || value > py::int_(hi))
        ThrowValue(std::string(name) + " must be " + what + ", got " + py::str(static_cast<const py::handle&>(value)).cast<std::string>());
    return value.cast<long long>();
}

bool FlagArgument(const py::handle& obj, const char* name) {
    if (!py::isinstance<py::bool_>(obj) && !py::isinstance(obj, py::module_::import("numpy").attr("bool_")))
        ThrowType(std::string(name) + " must be True or False, got " +
                  py::str(py::type::of(obj).attr("__name__")).cast<std::string>());
    return py::reinterpret_borrow<py::object>(obj).cast<bool>();
}

namespace {

// numpy's conversion of `a` to a C-contiguous array of T. An allocation
// failure (a batch too large to copy) stays a MemoryError; any other failure
// becomes `message` as a TypeError. (pybind11's ensure() would swallow the
// MemoryError and return null.)
template <class T>
CArray<T> Contiguous(const py::array& a, const std::string& message) {
    try {
        return CArray<T>(a);
    } catch (py::error_already_set& e) {
        if (e.matches(PyExc_MemoryError)) throw;
        ThrowType(message);
    }
}

}  // namespace

py::array AsNdarray(const py::handle& obj, const char* name) {
    if (py::isinstance<py::array>(obj)) return py::reinterpret_borrow<py::array>(obj);
    if (obj.is_none()) ThrowType(std::string(name) + " must be an array, got None");
    try {
        return py::array(py::module_::import("numpy").attr("asarray")(obj));
    } catch (py::error_already_set& e) {
        if (e.matches(PyExc_MemoryError)) throw;
        ThrowType(std::string(name) + " must be an array (or a nested sequence of numbers)");
    }
}

namespace {

std::string KindsText(unsigned kinds) {
    return (kinds & kInteger) ? "a real (integer or floating-point) array" : "a floating-point array";
}

}  // namespace

template <class T>
CArray<T> AsNumeric(const py::handle& obj, const char* name, unsigned kinds) {
    py::array a = AsNdarray(obj, name);
    const char k = a.dtype().kind();
    const bool ok = (k == 'f' && (kinds & kFloat)) || ((k == 'i' || k == 'u') && (kinds & kInteger));
    if (!ok) ThrowType(std::string(name) + " must be " + KindsText(kinds) + ", got dtype " + DtypeString(a));
    if (std::is_same<T, float>::value && k == 'f' && a.itemsize() > 4) {
        // A finite value beyond float's range would become inf in the cast
        // (numpy only warns): name it instead.
        const CArray<double> d = Contiguous<double>(a, std::string(name) + ": cannot convert dtype " + DtypeString(a));
        for (std::size_t i = 0, n = static_cast<std::size_t>(d.size()); i < n; ++i) {
            const double v = d.data()[i];
            if (std::isfinite(v) && std::fabs(v) > static_cast<double>(std::numeric_limits<float>::max()))
                ThrowValue(IndexString(d, name, i) + " = " + kelma::FloatRangeProblem(v));
        }
    }
    return Contiguous<T>(a, std::string(name) + ": cannot convert dtype " + DtypeString(a));
}

template CArray<float> AsNumeric<float>(const py::handle&, const char*, unsigned);
template CArray<double> AsNumeric<double>(const py::handle&, const char*, unsigned);

template <class T>
CArray<T> AsExact(const py::handle& obj, const char* name) {
    py::array a = AsNdarray(obj, name);
    if (!a.dtype().equal(py::dtype::of<T>())) {
        const std::string want = py::str(py::dtype::of<T>()).cast<std::string>();
        std::string hint = std::is_same<T, std::uint8_t>::value
                               ? " of digital levels 0..255 (ink amounts in percent become levels with "
                                 "kelma.digital_levels)"
                               : "";
        ThrowType(std::string(name) + " must be a " + want + " array" + hint + ", got dtype " + DtypeString(a));
    }
    return Contiguous<T>(a, std::string(name) + ": cannot make a contiguous copy");
}

template CArray<std::uint8_t> AsExact<std::uint8_t>(const py::handle&, const char*);
template CArray<std::uint16_t> AsExact<std::uint16_t>(const py::handle&, const char*);

std::size_t BatchCount(const py::array& a, const char* name, py::ssize_t channels, const std::string& what,
                       Shape* leading) {
    if (a.ndim() < 1 || a.shape(a.ndim() - 1) != channels) {
        std::ostringstream s;
        s << name << " must have " << channels << " values (" << what << ") on its last axis, got shape "
          << ShapeString(a);
        ThrowValue(s.str());
    }
    std::size_t count = 1;
    Shape lead;
    for (py::ssize_t i = 0; i + 1 < a.ndim(); ++i) {
        lead.push_back(a.shape(i));
        count *= static_cast<std::size_t>(a.shape(i));
    }
    if (count == 0) ThrowValue(std::string(name) + " holds no record (shape " + ShapeString(a) + "): empty batch");
    if (leading != nullptr) *leading = lead;
    return count;
}

template <class T>
CArray<T> OutputArray(const py::object& out, const Shape& shape, const char* name) {
    if (out.is_none()) return CArray<T>(shape);
    if (!py::isinstance<py::array>(out)) ThrowType(std::string(name) + " must be a numpy array or None");
    py::array a = py::reinterpret_borrow<py::array>(out);
    const std::string want = py::str(py::dtype::of<T>()).cast<std::string>();
    if (!a.dtype().equal(py::dtype::of<T>()))
        ThrowType(std::string(name) + " must be a " + want + " array, got dtype " + DtypeString(a));
    if (Shape(a.shape(), a.shape() + a.ndim()) != shape)
        ThrowValue(std::string(name) + " must have shape " + ShapeString(shape) + ", got " + ShapeString(a));
    if (!(a.flags() & py::array::c_style)) ThrowValue(std::string(name) + " must be C-contiguous");
    if (!a.writeable()) ThrowValue(std::string(name) + " must be writeable");
    return py::reinterpret_borrow<CArray<T>>(a);
}

template CArray<float> OutputArray<float>(const py::object&, const Shape&, const char*);
template CArray<std::uint8_t> OutputArray<std::uint8_t>(const py::object&, const Shape&,
                                                                                 const char*);

namespace {

template <class T>
void CheckFiniteImpl(const T* p, std::size_t n, const char* name) {
    for (std::size_t i = 0; i < n; ++i)
        if (!std::isfinite(p[i])) {
            std::ostringstream s;
            s << name << " must be finite, found " << kelma::NumberText(p[i]) << " at flat index " << i;
            ThrowValue(s.str());
        }
}

}  // namespace

void CheckFinite(const float* p, std::size_t n, const char* name) { CheckFiniteImpl(p, n, name); }
void CheckFinite(const double* p, std::size_t n, const char* name) { CheckFiniteImpl(p, n, name); }

std::string Utf8(const py::handle& str, const std::string& name) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(str.ptr(), &size);
    if (data == nullptr) {
        PyErr_Clear();
        ThrowValue(name + " is not valid Unicode text: it holds an unpaired surrogate (bytes of a command line "
                          "that are not UTF-8 arrive so)");
    }
    return std::string(data, static_cast<std::size_t>(size));
}

std::vector<std::string> NameList(const py::object& names, std::size_t inks) {
    if (py::isinstance<py::str>(names) || !py::hasattr(names, "__iter__"))
        ThrowType("ink_names must be a sequence of strings, one per ink");
    std::vector<std::string> out;
    for (const auto& item : names) {
        if (!py::isinstance<py::str>(item)) ThrowType("ink_names must hold strings");
        out.push_back(Utf8(item, "ink_names[" + std::to_string(out.size()) + "]"));
    }
    if (out.size() != inks)
        ThrowValue("ink_names must name each of the " + std::to_string(inks) + " inks, got " +
                   std::to_string(out.size()) + " names");
    return out;
}

void CheckNotNaN(const double* p, std::size_t n, const char* name) {
    for (std::size_t i = 0; i < n; ++i)
        if (std::isnan(p[i])) ThrowValue(std::string(name) + " contains NaN at flat index " + std::to_string(i));
}

std::string IndexString(const py::array& a, const char* name, std::size_t flat) {
    std::vector<std::size_t> index(static_cast<std::size_t>(a.ndim()));
    for (py::ssize_t d = a.ndim() - 1; d >= 0; --d) {
        const auto extent = static_cast<std::size_t>(a.shape(d));
        index[static_cast<std::size_t>(d)] = extent == 0 ? 0 : flat % extent;
        flat = extent == 0 ? 0 : flat / extent;
    }
    std::string s = std::string(name) + "[";
    for (std::size_t d = 0; d < index.size(); ++d) s += (d ? ", " : "") + std::to_string(index[d]);
    return s + "]";
}

void CheckFloatRange(const py::array_t<double>& a, const char* name) {
    const double* p = a.data();
    for (std::size_t i = 0, n = static_cast<std::size_t>(a.size()); i < n; ++i) {
        const std::string problem = kelma::FloatRangeProblem(p[i]);
        if (!problem.empty()) ThrowValue(IndexString(a, name, i) + " = " + problem);
    }
}

void CheckReflectance(const py::array_t<double>& a, const char* name) {
    const kelma::ZKSValueProblem problem =
        kelma::FindReflectanceProblem(a.data(), static_cast<std::size_t>(a.size()));
    if (problem.found) ThrowValue(IndexString(a, name, problem.index) + " = " + problem.problem);
}

void ParallelFor(std::size_t total, const std::function<void(std::size_t, std::size_t)>& f,
                 std::size_t inlineBelow) {
    if (total == 0) return;
    std::vector<kelma::ZKSWorkShare> shares = kelma::SplitWork(total, kelma::CPUCount());
    if (shares.size() <= 1 || total < inlineBelow) {
        f(0, total);
        return;
    }
    struct Job {
        const std::function<void(std::size_t, std::size_t)>* f;
        std::size_t start, count;
        void operator()() { (*f)(start, count); }
    };
    std::vector<Job> jobs;
    jobs.reserve(shares.size());
    for (const auto& s : shares) jobs.push_back({&f, s.start, s.count});
    kelma::ZKCWorkerThreads threads(jobs.size());
    for (std::size_t i = 0; i < jobs.size(); ++i) threads.Start(i, jobs[i]);
    threads.JoinAll(jobs.size());
}

}  // namespace kelma_py
