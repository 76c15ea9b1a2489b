// Spectral and colorimetric prediction of ink samples through the library's
// threaded prediction driver.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "common.h"
#include "model.h"

namespace kelma_py {

namespace {

using kelma::ZKCSSE_KELMA_Data;
using kelma::ZKCSSE_KELMA_Thread;

constexpr unsigned kValues = kelma::kSpectralValues;
constexpr unsigned kStride = kelma::kSpectrumStride;

// Samples per driver run (the driver counts them in 32 bits).
constexpr std::size_t kDirectChunk = std::size_t(1) << 20;

// Small batches run on the calling thread with the caller's model (no copy,
// no threads); the library decides what is small.
bool OnCallingThread(const ZKCSSE_KELMA_Data& model, std::size_t count) {
    return !ZKCSSE_KELMA_Thread::WorthThreads(model, count);
}

std::size_t InkBatch(const ZKCSSE_KELMA_Data& model, const CArray<std::uint8_t>& inks, Shape* leading) {
    return BatchCount(inks, "inks", model.NumberOfInks(), "one byte 0..255 per ink", leading);
}

// The driver reads its input only; its signature predates const.
unsigned char* Input(const std::uint8_t* p) { return const_cast<unsigned char*>(p); }

void PredictSpectra(const ZKCSSE_KELMA_Data& model, const std::uint8_t* inks, std::size_t count, float* out,
                    bool padded) {
    // Straight into the caller's array: 32-float records, or 31 values packed.
    const unsigned N = model.NumberOfInks();
    const std::size_t stride = padded ? kStride : kValues;
    const kelma::SPECTRUM_LAYOUT layout = padded ? kelma::SPECTRUM_PADDED : kelma::SPECTRUM_PACKED;
    if (OnCallingThread(model, count)) {
        for (std::size_t start = 0; start < count; start += kDirectChunk)
            ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, static_cast<unsigned>(std::min(kDirectChunk, count - start)),
                                                          inks + start * N, out + start * stride, layout);
        return;
    }
    for (std::size_t start = 0; start < count; start += kDirectChunk) {
        const std::size_t c = std::min(kDirectChunk, count - start);
        ZKCSSE_KELMA_Thread driver(model, static_cast<unsigned>(c), Input(inks + start * N), out + start * stride,
                                   layout);
        driver.Wait();
    }
}

// Colorimetric bytes, 3 per illuminant per sample. The driver starts in
// LAB2000HL; CIELAB re-runs each share with Init/Calculate, so one driver is
// reused for every full chunk and its first LAB2000HL run is the only extra.
void PredictBytes(const ZKCSSE_KELMA_Data& model, const std::uint8_t* inks, std::size_t count, std::uint8_t* out,
                  bool cielab) {
    const unsigned N = model.NumberOfInks();
    const std::size_t B = 3 * std::size_t{model.Lighting_Matrix().IlluminantNumber()};
    if (OnCallingThread(model, count)) {
        for (std::size_t start = 0; start < count; start += kDirectChunk)
            ZKCSSE_KELMA_Thread::CalculateOnCallingThread(model, static_cast<unsigned>(std::min(kDirectChunk, count - start)),
                                                          inks + start * N, out + start * B, cielab);
        return;
    }
    std::unique_ptr<ZKCSSE_KELMA_Thread> driver;
    std::size_t driverCount = 0;
    for (std::size_t start = 0; start < count; start += kDirectChunk) {
        const std::size_t c = std::min(kDirectChunk, count - start);
        unsigned char* in = Input(inks + start * N);
        unsigned char* o = out + start * B;
        if (!cielab) {
            ZKCSSE_KELMA_Thread d(model, static_cast<unsigned>(c), in, o, kValues, kStride);
            d.Wait();
            continue;
        }
        if (!driver || driverCount != c) {
            driver.reset();
            driver = std::make_unique<ZKCSSE_KELMA_Thread>(model, static_cast<unsigned>(c), in, o, kValues, kStride);
            driverCount = c;
            driver->Wait();
        }
        driver->Init(in, o, true);
        driver->Calculate();
    }
}

py::array PredictSpectraPy(const ZKCSSE_KELMA_Data& model, const py::object& inksObj, bool padded,
                                    const py::object& outObj) {
    auto inks = AsExact<std::uint8_t>(inksObj, "inks");
    Shape shape;
    const std::size_t count = InkBatch(model, inks, &shape);
    shape.push_back(padded ? kStride : kValues);
    auto out = OutputArray<float>(outObj, shape, "out");
    const std::uint8_t* in = inks.data();
    float* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        PredictSpectra(model, in, count, o, padded);
    }
    return out;
}

py::array_t<std::uint8_t> PredictColorsPy(const ModelPtr& model, const py::object& inksObj,
                                          const std::string& encoding, const py::object& illuminant,
                                          const py::object& mediaRelative) {
    std::string enc = encoding;
    std::transform(enc.begin(), enc.end(), enc.begin(), [](unsigned char c) { return std::tolower(c); });
    if (enc != "lab2000hl" && enc != "cielab")
        ThrowValue("encoding must be 'lab2000hl' or 'cielab', got '" + encoding + "'");
    auto inks = AsExact<std::uint8_t>(inksObj, "inks");
    Shape shape;
    const std::size_t count = InkBatch(*model, inks, &shape);

    ModelPtr use = model;
    if (!illuminant.is_none()) {
        use = WithSingleIlluminant(*model, illuminant);
    }
    if (!mediaRelative.is_none()) {
        const bool flag = FlagArgument(mediaRelative, "media_relative");
        if (flag != use->IsMediaRelative()) {
            if (use == model) use = std::make_shared<ZKCSSE_KELMA_Data>(*model);
            use->SetIsMediaRelative(flag);
        }
    }
    if (illuminant.is_none()) shape.push_back(use->Lighting_Matrix().IlluminantNumber());
    shape.push_back(3);
    py::array_t<std::uint8_t> out(shape);
    const std::uint8_t* in = inks.data();
    std::uint8_t* o = out.mutable_data();
    {
        py::gil_scoped_release release;
        PredictBytes(*use, in, count, o, enc == "cielab");
    }
    return out;
}

}  // namespace

void RegisterPrediction(py::module_& m) {
    m.def("predict_spectra", &PredictSpectraPy, py::arg("model"), py::arg("inks"), py::kw_only(),
          py::arg("padded") = false, py::arg("out") = py::none(),
          R"doc(Predicted spectral reflectance of ink samples, on all processors (small
batches on the calling thread, with the same results).

model: a kelma.Model.
inks: uint8 (..., N): one byte 0..255 per ink on the last axis (N =
    model.inks), at least one sample.
padded: False -> float32 (..., 31), reflectance factors at 400-700 nm
    (kelma.WAVELENGTHS); True -> float32 (..., 32), the library's records
    with a 0.0 in the last place (written directly, no compaction).
out: optional C-contiguous float32 array of the result's shape to write into.
Values are not clamped (normally 0..1; NaN where the cell sum is negative
and n is not an integer).)doc");

    m.def("predict_colors", &PredictColorsPy, py::arg("model"), py::arg("inks"), py::kw_only(),
          py::arg("encoding") = "lab2000hl", py::arg("illuminant") = py::none(),
          py::arg("media_relative") = py::none(),
          R"doc(Predicted colour of ink samples as bytes, on all processors (small
batches on the calling thread, with the same results).

model: a kelma.Model; inks: uint8 (..., N) as for predict_spectra.
encoding: 'lab2000hl' (3.3931 L, 2.6771 a + 128, 2.6771 b + 128 of LAB2000HL)
    or 'cielab' (2.55 L*, a* + 128, b* + 128); both clamped to 0..255 and
    rounded half up.
illuminant: None -> every illuminant of the model, result uint8 (..., L, 3);
    an index -> that illuminant only, result uint8 (..., 3).
media_relative: None -> the model's flag; True/False -> relative to the
    paper white / to the illuminant white.)doc");
}

}  // namespace kelma_py
