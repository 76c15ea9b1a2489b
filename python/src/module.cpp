// The `kelma` extension module: spectral printer-model prediction,
// colorimetry, resampling, measurement files and CLUTs on numpy arrays.
#include <cstdlib>
#include <cstring>
#include <string>

#include "common.h"

namespace {

namespace py = pybind11;


}  // namespace

PYBIND11_MODULE(_kelma, m) {
    m.doc() = R"doc(Spectral printer-model library: cellular Yule-Nielsen modified spectral
Neugebauer prediction of halftone prints (4, 6 or 7 inks), colorimetry
(CIE XYZ, CIELAB, LAB2000HL), spectral resampling, CGATS measurement files
and 8-bit colour look-up tables, on numpy arrays.

Conventions: spectra are reflectance factors at 400-700 nm in 10 nm steps
(kelma.WAVELENGTHS, 31 values); XYZ is on a 0-1 scale (perfect reflector
Y = 1); ink values and colour bytes are uint8 with the channels on the last
axis. Every computation runs on all processors (see set_cpu_count_override)
with the GIL released. Bad arguments raise TypeError or ValueError.)doc";

    m.attr("__version__") = KELMA_VERSION;
    py::register_exception<kelma::ZKCMeasurementError>(m, "MeasurementError", PyExc_ValueError);
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const char* text) {
            // The library's fixed texts, explained (kelma/common/LibraryErrors.h).
            const kelma::ZKSLibraryError e = kelma::FindLibraryError(text);
            PyErr_SetString(e.kind == kelma::LIBRARY_ERROR_ARGUMENT ? PyExc_ValueError : PyExc_RuntimeError,
                            kelma::ExplainLibraryError(text).c_str());
        }
    });

    m.def("cpu_count", &kelma::CPUCount,
          "Worker threads the library starts per computation: the processors online, or the override.");
    m.def(
        "set_cpu_count_override",
        [](const py::object& count) {
            kelma::SetCPUCountOverride(static_cast<unsigned>(kelma_py::IntegerArgument(
                count, "the thread count override", 0, 1024, "0 (use the processor count) .. 1024")));
        },
        py::arg("count"),
        R"doc(Caps (or raises) the number of worker threads of every later computation;
0 restores the processor count. Results do not depend on it. 0..1024.)doc");

    // KELMA_KERNELS=reference|sse2|ssse3|avx2|avx512 caps the kernel variant
    // of every computation (results do not depend on it; for testing each path).
    if (const char* name = std::getenv("KELMA_KERNELS"); name != nullptr && *name != '\0') {
        kelma::KERNEL_VARIANT variant;
        if (!kelma::ParseKernelVariant(name, &variant))
            throw py::value_error(std::string("KELMA_KERNELS is '") + name +
                                  "', not one of reference, sse2, ssse3, avx2, avx512");
        kelma::SetKernelVariantCap(variant);
    }
    m.def(
        "kernel_variant", [] { return std::string(kelma::KernelVariantName(kelma::ActiveKernelVariant())); },
        "The SIMD kernels computations use: 'reference', 'sse2', 'ssse3', 'avx2' or 'avx512' (the widest the\n"
        "processor runs, lowered by the environment variable KELMA_KERNELS read at import).");

    kelma_py::RegisterColorimetry(m);
    kelma_py::RegisterModel(m);
    kelma_py::RegisterPrediction(m);
    kelma_py::RegisterSampling(m);
    kelma_py::RegisterClut(m);
    kelma_py::RegisterModelBuilding(m);
    kelma_py::RegisterModelFile(m);
    kelma_py::RegisterColour(m);
    kelma_py::RegisterFiles(m);
    kelma_py::RegisterSeparation(m);
    kelma_py::RegisterProfile(m);
}
