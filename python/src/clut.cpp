// 8-bit colour look-up tables (from a model or a node table) and the
// sub-model dispatcher. One driver must not run on two threads at once, so each
// object serialises its calls (the GIL is released while it computes).
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <sstream>
#include <type_traits>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKCKELMA_SubModel_Dispatcher;
using kelma::ZKCWorkerCLUT_Thread;

// The workers count pixels in 32 bits.
constexpr std::size_t kMaxPixels = std::size_t(1) << 30;

unsigned GridPoints(long long n) {
    if (n < 2 || n > 256)
        ThrowValue("grid_points must be 2..256 (nodes per input axis), got " + std::to_string(n));
    return static_cast<unsigned>(n);
}

// A grid_points argument as Python gives it (an int of any size).
unsigned GridPoints(const py::handle& n) {
    return static_cast<unsigned>(IntegerArgument(n, "grid_points", 2, 256, "2..256 (nodes per input axis)"));
}

// Refuses tables that would not fit in memory, rather than letting the
// process run out of it. The driver's workers share one table: its cell
// blocks (2^inputs corners per node) and, for four inputs, the node array.
void CheckMemory(unsigned n, unsigned inputs, unsigned outputs, bool fromModel) {
    long double nodes = 1;
    for (unsigned i = 0; i < inputs; ++i) nodes *= n;
    long double bytes = nodes * ((1u << inputs) + 2) * outputs;
    if (fromModel) bytes += nodes * (kelma::kSpectrumStride * sizeof(float) + inputs + outputs);
    const long double physical =
        static_cast<long double>(::sysconf(_SC_PHYS_PAGES)) * static_cast<long double>(::sysconf(_SC_PAGE_SIZE));
    if (physical > 0 && bytes > physical / 2) {
        std::ostringstream s;
        s << "a " << inputs << "-input table of " << n << " points per axis needs about "
          << static_cast<double>(bytes / (1 << 20)) << " MiB, more than half of the "
          << static_cast<double>(physical / (1 << 20)) << " MiB of memory: use fewer grid points";
        PyErr_SetString(PyExc_MemoryError, s.str().c_str());
        throw py::error_already_set();
    }
}

bool Overlap(const void* a, std::size_t an, const void* b, std::size_t bn) {
    auto pa = reinterpret_cast<std::uintptr_t>(a), pb = reinterpret_cast<std::uintptr_t>(b);
    return pa < pb + bn && pb < pa + an;
}

// Pixels in, output array ready: (..., inputs) uint8 -> (..., outputs) uint8.
struct Pixels {
    CArray<std::uint8_t> in;
    CArray<std::uint8_t> out;
    std::size_t count;
};

Pixels PreparePixels(const py::object& pixels, const py::object& outObj, unsigned inputs, unsigned outputs) {
    auto in = AsExact<std::uint8_t>(pixels, "pixels");
    Shape shape;
    const std::size_t count = BatchCount(in, "pixels", inputs, "one byte per input channel", &shape);
    shape.push_back(outputs);
    auto out = OutputArray<std::uint8_t>(outObj, shape, "out");
    if (Overlap(in.data(), in.nbytes(), out.data(), out.nbytes()))
        ThrowValue("out must not share memory with pixels");
    return {in, out, count};
}

// A table's small batch (any batch on one processor) runs on this thread,
// without threads it cannot use; the sub-model dispatcher runs its driver.
template <class Driver>
void Apply(Driver& driver, const std::uint8_t* in, std::uint8_t* out, std::size_t count, unsigned inputs,
           unsigned outputs) {
    bool callingThread = false;
    if constexpr (std::is_same_v<Driver, ZKCWorkerCLUT_Thread>)
        callingThread = !ZKCWorkerCLUT_Thread::WorthThreads(count);
    for (std::size_t start = 0; start < count; start += kMaxPixels) {
        const std::size_t c = std::min(kMaxPixels, count - start);
        if constexpr (std::is_same_v<Driver, ZKCWorkerCLUT_Thread>) {
            if (callingThread) {
                driver.CalculateOnCallingThread(in + start * inputs, out + start * outputs, c);
                continue;
            }
        }
        driver.Init(in + start * inputs, out + start * outputs, c);
        driver.Calculate();
    }
}

struct Clut {
    std::unique_ptr<ZKCWorkerCLUT_Thread> driver;
    unsigned inputs = 0, outputs = 0, grid = 0;
    bool inLab = false;
    std::mutex mutex;
    // How the table was made, to make it again (pickling, copies): the model
    // (reduced to its illuminant) or the node bytes as given.
    ModelPtr model;
    std::vector<std::uint8_t> nodes;
    Shape nodeShape;
};

using ClutPtr = std::shared_ptr<Clut>;

ModelPtr ClutModel(const ModelPtr& model, const py::object& illuminant) {
    if (model->NumberOfInks() != 4)
        ThrowValue("a CLUT from a model needs 4 inks (4 ink bytes in, 3 bytes out), the model has " +
                   std::to_string(model->NumberOfInks()) + ": take a 4-ink sub_model first");
    const unsigned L = model->Lighting_Matrix().IlluminantNumber();
    if (illuminant.is_none()) {
        if (L != 1)
            ThrowValue("the model has " + std::to_string(L) +
                       " illuminants and a CLUT holds one: pass illuminant=0.." + std::to_string(L - 1));
        return model;
    }
    return WithSingleIlluminant(*model, illuminant);
}

ClutPtr FromModel(const ModelPtr& model, const py::object& gridPoints, const py::object& illuminant) {
    const unsigned n = GridPoints(gridPoints);
    ModelPtr use = ClutModel(model, illuminant);
    CheckMemory(n, 4, 3, true);
    auto clut = std::make_shared<Clut>();
    clut->inputs = 4;
    clut->outputs = 3;
    clut->grid = n;
    clut->model = use;
    py::gil_scoped_release release;
    clut->driver = WithContext("a CLUT from a model needs a 4-ink model",
                               [&] { return std::make_unique<ZKCWorkerCLUT_Thread>(*use, kelma::CLUT_ACCURACY(n)); });
    return clut;
}

ClutPtr FromNodes(const py::object& nodesObj, bool inLab) {
    auto nodes = AsExact<std::uint8_t>(nodesObj, "nodes");
    const py::ssize_t nd = nodes.ndim();
    const unsigned inputs = nd >= 1 ? static_cast<unsigned>(nd - 1) : 0;
    const unsigned outputs = nd >= 1 ? static_cast<unsigned>(nodes.shape(nd - 1)) : 0;
    const bool shapeOk = (inputs == 3 && (outputs == 3 || outputs == 4 || outputs == 7)) ||
                         (inputs == 4 && outputs == 3);
    bool cube = shapeOk;
    for (unsigned a = 1; cube && a < inputs; ++a) cube = nodes.shape(a) == nodes.shape(0);
    if (!shapeOk || !cube)
        ThrowValue("nodes must have shape (n, n, n, m) with m = 3, 4 or 7, or (n, n, n, n, 3): n nodes per input "
                   "axis (axis 0 outermost), m output bytes per node; got " +
                   ShapeString(nodes));
    const unsigned n = GridPoints(nodes.shape(0));
    if (inLab && inputs != 3) ThrowValue("in_lab applies to 3-input (CIELAB) tables only");
    CheckMemory(n, inputs, outputs, false);
    auto clut = std::make_shared<Clut>();
    clut->inputs = inputs;
    clut->outputs = outputs;
    clut->grid = n;
    clut->inLab = inLab;
    const std::size_t need = ZKCWorkerCLUT_Thread::NodeArrayBytes(inputs, outputs, kelma::CLUT_ACCURACY(n));
    const std::uint8_t* p = nodes.data();
    const std::size_t have = static_cast<std::size_t>(nodes.size());
    clut->nodes.assign(p, p + have);
    clut->nodeShape.assign(nodes.shape(), nodes.shape() + nodes.ndim());
    py::gil_scoped_release release;
    // The workers read the corners of the top cells past the last node: give
    // them zeros there rather than memory beyond the caller's array.
    std::vector<std::uint8_t> padded(need, 0);
    std::copy_n(p, std::min(have, need), padded.data());
    clut->driver = WithContext("nodes of shape (n,)*inputs + (outputs,)", [&] {
        return std::make_unique<ZKCWorkerCLUT_Thread>(padded.data(), inputs, outputs, kelma::CLUT_ACCURACY(n),
                                                      inLab);
    });
    return clut;
}

// The recipe of a table: ("model", model, grid points) or ("nodes", nodes, in_lab).
py::tuple ClutState(const Clut& c) {
    if (c.model) return py::make_tuple(1, "model", c.model, c.grid);
    py::array_t<std::uint8_t> nodes(c.nodeShape);
    std::copy(c.nodes.begin(), c.nodes.end(), nodes.mutable_data());
    return py::make_tuple(1, "nodes", nodes, c.inLab);
}

ClutPtr ClutFromState(const py::tuple& t) {
    if (t.size() != 4 || t[0].cast<int>() != 1)
        ThrowValue("cannot restore a kelma.Clut from this pickled state (another kelma version?)");
    const std::string kind = t[1].cast<std::string>();
    if (kind == "model") return FromModel(t[2].cast<ModelPtr>(), t[3], py::none());
    return FromNodes(t[2], t[3].cast<bool>());
}

py::array ClutApply(Clut& clut, const py::object& pixels, const py::object& out) {
    Pixels px = PreparePixels(pixels, out, clut.inputs, clut.outputs);
    const std::uint8_t* in = px.in.data();
    std::uint8_t* o = px.out.mutable_data();
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(clut.mutex);
        Apply(*clut.driver, in, o, px.count, clut.inputs, clut.outputs);
    }
    return px.out;
}

struct Dispatcher {
    ModelPtr model;
    std::unique_ptr<ZKCKELMA_SubModel_Dispatcher> d;
    unsigned grid = 0;
    mutable std::mutex mutex;

    // Reads while no rebuild runs (a rebuild may replace the code list).
    template <class F>
    auto Read(F&& f) const -> decltype(f()) {
        std::lock_guard<std::mutex> lock(mutex);
        return f();
    }

    // Moves and illuminant choices rebuild the CLUT driver.
    template <class F>
    void Rebuild(F&& f) {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(mutex);
        f();
    }

    template <class F>
    void Locked(F&& f) {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(mutex);
        f();
    }
};

using DispatcherPtr = std::shared_ptr<Dispatcher>;

std::vector<unsigned long> Codes(const kelma::ZKCSSE_KELMA_Data& model, const py::object& codes) {
    if (py::isinstance<py::str>(codes) || !py::hasattr(codes, "__iter__"))
        ThrowType("codes must be a sequence of ink-subset codes (integer bit masks)");
    static const unsigned four = 4;
    std::vector<unsigned long> out;
    for (const auto& c : codes) out.push_back(CheckCode(model, c, &four));
    if (out.empty()) ThrowValue("codes is empty: give at least one ink-subset code");
    return out;
}

DispatcherPtr MakeDispatcher(const ModelPtr& model, const py::object& codes, const py::object& gridPoints) {
    const unsigned n = GridPoints(gridPoints);
    std::vector<unsigned long> list = Codes(*model, codes);
    CheckMemory(n, 4, 3, true);
    auto d = std::make_shared<Dispatcher>();
    d->model = model;
    d->grid = n;
    d->Rebuild([&] {
        d->d = std::make_unique<ZKCKELMA_SubModel_Dispatcher>(*model, list, kelma::CLUT_ACCURACY(n));
    });
    return d;
}

}  // namespace

void RegisterClut(py::module_& m) {
    py::class_<Clut, ClutPtr>(m, "Clut", R"doc(
An 8-bit colour look-up table applied by multilinear interpolation in fixed
point (1/32 of a cell per axis), on all processors. Build it with
Clut.from_model or Clut.from_nodes.
)doc")
        .def_static("from_model", &FromModel, py::arg("model"), py::arg("grid_points") = py::int_(17), py::kw_only(),
                    py::arg("illuminant") = py::none(),
                    R"doc(CLUT of a 4-ink model: 4 ink bytes in, the 3 LAB2000HL bytes the model
predicts (illuminant- or media-relative as the model says) out.

grid_points: nodes per ink axis, 2..256 (node g of an axis is ink byte
    round(255 g / (grid_points - 1))).
illuminant: which illuminant of a multi-illuminant model (required then).)doc")
        .def_static("from_nodes", &FromNodes, py::arg("nodes"), py::kw_only(), py::arg("in_lab") = false,
                    R"doc(CLUT from a table of node bytes.

nodes: uint8 (n, n, n, m) with m = 3, 4 or 7, or (n, n, n, n, 3); axis 0 is
    the first input channel, n (2..256) nodes per axis spanning 0..255.
in_lab: 3 inputs only: the inputs are CIELAB bytes (L, a + 128, b + 128) and
    the a and b axes put byte 128 on the middle node.)doc")
        .def_property_readonly("input_channels", [](const Clut& c) { return c.inputs; })
        .def_property_readonly("output_channels", [](const Clut& c) { return c.outputs; })
        .def_property_readonly("grid_points", [](const Clut& c) { return c.grid; })
        .def_property_readonly("in_lab", [](const Clut& c) { return c.inLab; })
        .def("apply", &ClutApply, py::arg("pixels"), py::kw_only(), py::arg("out") = py::none(),
             R"doc(Applies the table to pixels of any shape with the channels last.

pixels: uint8 (..., input_channels), at least one pixel.
out: optional C-contiguous uint8 array of shape (..., output_channels) that
    does not overlap pixels.
Returns uint8 (..., output_channels).)doc")
        .def(py::pickle([](const Clut& c) { return ClutState(c); }, [](const py::tuple& t) { return ClutFromState(t); }))
        .def("__copy__", [](const Clut& c) { return ClutFromState(ClutState(c)); },
             "A new table made the same way (its own workers).")
        .def("__deepcopy__", [](const Clut& c, const py::object&) { return ClutFromState(ClutState(c)); },
             py::arg("memo"))
        .def("__repr__", [](const Clut& c) {
            return "<kelma.Clut " + std::to_string(c.inputs) + " -> " + std::to_string(c.outputs) + ", " +
                   std::to_string(c.grid) + " points per axis" + (c.inLab ? ", CIELAB input" : "") + ">";
        });

    py::class_<Dispatcher, DispatcherPtr>(m, "SubModelDispatcher", R"doc(
Walks a list of 4-ink subsets of a model and holds, for the current one, the
CLUT (4 ink bytes -> 3 LAB2000HL bytes) of that sub-model under one
illuminant. Every move and every illuminant choice rebuilds the CLUT; a move
resets the illuminant to 0. Moves wrap around at both ends.

SubModelDispatcher(model, codes, grid_points=17)
    codes: non-empty sequence of ink-subset masks (bit i keeps ink i), each
        selecting exactly 4 of the model's inks.
)doc")
        .def(py::init(&MakeDispatcher), py::arg("model"), py::arg("codes"), py::arg("grid_points") = py::int_(17))
        .def_property_readonly("code", [](const Dispatcher& d) { return d.Read([&] { return d.d->Code(); }); }, "Code at the current index.")
        .def_property_readonly("index", [](const Dispatcher& d) { return d.Read([&] { return d.d->CurrentIndex(); }); })
        .def_property_readonly("illuminant", [](const Dispatcher& d) { return d.Read([&] { return d.d->IlluminantIndex(); }); })
        .def_property_readonly("illuminant_count", [](const Dispatcher& d) { return d.Read([&] { return d.d->IlluminantNumber(); }); })
        .def_property_readonly("is_last", [](const Dispatcher& d) { return d.Read([&] { return d.d->IsLast(); }); })
        .def_property_readonly("grid_points", [](const Dispatcher& d) { return d.grid; })
        .def_property_readonly("ink_set", [](const Dispatcher& d) { return std::uint32_t(d.d->Total_InkSet()); })
        .def_property_readonly("model", [](const Dispatcher& d) { return d.model; })
        .def("first", [](Dispatcher& d) { d.Rebuild([&] { d.d->First(); }); }, "Index 0, illuminant 0.")
        .def("next", [](Dispatcher& d) { d.Rebuild([&] { d.d->Next(); }); },
             "Next code (the first after the last), illuminant 0.")
        .def("previous", [](Dispatcher& d) { d.Rebuild([&] { d.d->Previous(); }); },
             "Previous code (the last before the first), illuminant 0.")
        .def(
            "set_illuminant",
            [](Dispatcher& d, const py::object& index) {
                const long long L = d.d->IlluminantNumber();
                const long long k = IntegerArgument(index, "illuminant index", 0, L - 1,
                                                    "in 0.." + std::to_string(L - 1));
                d.Rebuild([&] { d.d->SetIlluminant(static_cast<unsigned long>(k)); });
            },
            py::arg("index"), "Rebuilds the current CLUT under illuminant `index` of the model.")
        .def(
            "set_codes",
            [](Dispatcher& d, const py::object& codes) {
                std::vector<unsigned long> list = Codes(*d.model, codes);
                d.Rebuild([&] { d.d->SetCodeList(list); });
            },
            py::arg("codes"), "Replaces the code list and moves to its first code.")
        .def(
            "apply",
            [](Dispatcher& d, const py::object& pixels, const py::object& out) {
                Pixels px = PreparePixels(pixels, out, 4, 3);
                const std::uint8_t* in = px.in.data();
                std::uint8_t* o = px.out.mutable_data();
                d.Locked([&] { Apply(*d.d, in, o, px.count, 4, 3); });
                return px.out;
            },
            py::arg("pixels"), py::kw_only(), py::arg("out") = py::none(),
            "Applies the current CLUT: uint8 (..., 4) ink bytes -> uint8 (..., 3).")
        .def("__repr__", [](const Dispatcher& d) {
            return d.Read([&] {
                std::ostringstream s;
                s << "<kelma.SubModelDispatcher code 0x" << std::hex << d.d->Code() << std::dec << " ("
                  << d.d->CurrentIndex() << "), illuminant " << d.d->IlluminantIndex() << ">";
                return s.str();
            });
        });
}

}  // namespace kelma_py
