// A measured chart argument: a kelma.MeasurementFile or (device_values, spectra).
#include "common.h"

namespace kelma_py {

namespace {
constexpr unsigned kValues = kelma::kSpectralValues;
}  // namespace

kelma::ZKSModelChart ChartArgument(const py::object& chart, const py::object& inkNames) {
    if (py::isinstance<kelma::ZKCMeasurementFile>(chart)) {
        if (!inkNames.is_none()) ThrowValue("ink_names come from the measurement file's channel names");
        const auto& file = chart.cast<const kelma::ZKCMeasurementFile&>();
        py::gil_scoped_release release;
        return kelma::ChartFromMeasurementFile(file);
    }
    if (!py::isinstance<py::tuple>(chart) || py::len(chart) != 2)
        ThrowType("chart must be a MeasurementFile or a tuple (device_values, spectra)");
    py::tuple t = chart.cast<py::tuple>();
    auto device = AsNumeric<double>(t[0], "device_values", kFloat | kInteger);
    auto spectra = AsNumeric<double>(t[1], "spectra", kFloat | kInteger);
    if (device.ndim() != 2 || device.shape(0) < 1)
        ThrowValue("device_values must be (patches, inks) in percent, got shape " + ShapeString(device));
    const Shape want{device.shape(0), kValues};
    if (Shape(spectra.shape(), spectra.shape() + spectra.ndim()) != want)
        ThrowValue("spectra must be " + ShapeString(want) +
                   ": one reflectance spectrum at 400-700 nm (10 nm) per patch, got " + ShapeString(spectra));
    CheckFinite(spectra.data(), static_cast<std::size_t>(spectra.size()), "spectra");
    CheckFloatRange(spectra, "spectra");
    CheckReflectance(spectra, "spectra");
    CheckFinite(device.data(), static_cast<std::size_t>(device.size()), "device_values");
    CheckFloatRange(device, "device_values");
    kelma::ZKSModelChart c;
    c.numberOfInks = static_cast<unsigned>(device.shape(1));
    c.deviceValues.assign(device.data(), device.data() + device.size());
    c.spectra.assign(spectra.data(), spectra.data() + spectra.size());
    if (!inkNames.is_none()) c.inkNames = NameList(inkNames, c.numberOfInks);
    // The model builder's own check (device values in percent, ...), its
    // error naming the argument.
    try {
        kelma::ChartDigitalLevels(c);
    } catch (const kelma::ZKCModelBuildingError& e) {
        throw kelma::ZKCModelBuildingError(std::string("chart (device_values, spectra): ") + e.what());
    }
    return c;
}

}  // namespace kelma_py
