// The main job while the printer model is being built up: shows the colour
// basis the library computes with (white points, CIELAB and LAB2000HL bytes).
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "kelma/kelma.h"

using namespace kelma;

namespace {

struct NamedIlluminant {
    const char* name;
    std::unique_ptr<ZKCIlluminant_Base> spd;
};

std::vector<NamedIlluminant> AllIlluminants() {
    std::vector<NamedIlluminant> all;
    all.push_back({"A", std::make_unique<ZKCIlluminant_CIEA>()});
    all.push_back({"D50", std::make_unique<ZKCIlluminant_CIED50>()});
    all.push_back({"D65", std::make_unique<ZKCIlluminant_CIED65>()});
    all.push_back({"E", std::make_unique<ZKCIlluminant_CIEE>()});
    all.push_back({"F1", std::make_unique<ZKCIlluminant_CIEF1>()});
    all.push_back({"F2", std::make_unique<ZKCIlluminant_CIEF2>()});
    all.push_back({"F11", std::make_unique<ZKCIlluminant_CIEF11>()});
    return all;
}

}  // namespace

int main() {
    std::vector<NamedIlluminant> illuminants = AllIlluminants();
    std::vector<ZKCIlluminant_Base*> pointers;
    for (auto& i : illuminants) pointers.push_back(i.spd.get());

    std::printf("Illuminant white points (perfect reflector, Y = 1):\n");
    std::printf("%-6s %-8s %10s %10s %10s\n", "illum", "observer", "X", "Y", "Z");
    for (OBSERVER_TYPE type : {OBSERVER_CIE1931_2, OBSERVER_CIE1964_10}) {
        ZKCObserver observer(type);
        ZKCLighting_Matrix matrix(observer, pointers);
        ZKCWhitePoint white(matrix);
        for (std::size_t j = 0; j < illuminants.size(); ++j)
            std::printf("%-6s %-8s %10.6f %10.6f %10.6f\n", illuminants[j].name,
                        type == OBSERVER_CIE1931_2 ? "2 deg" : "10 deg", white.Values()[3 * j],
                        white.Values()[3 * j + 1], white.Values()[3 * j + 2]);
    }

    // A few reflectance spectra on the 31-point grid (400-700 nm).
    const char* names[] = {"white", "grey 50%", "cyan-like", "red-like"};
    const std::size_t count = 4;
    AlignedBuffer<float> spectra(count * kSpectrumStride);
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        double nm = 400.0 + 10.0 * i;
        spectra[0 * kSpectrumStride + i] = 1.0f;
        spectra[1 * kSpectrumStride + i] = 0.5f;
        spectra[2 * kSpectrumStride + i] = static_cast<float>(0.05 + 0.8 * std::exp(-std::pow((nm - 480.0) / 60.0, 2)));
        spectra[3 * kSpectrumStride + i] = static_cast<float>(0.05 + 0.85 / (1.0 + std::exp(-(nm - 600.0) / 12.0)));
    }

    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    ZKCLighting_Matrix matrix(observer, &d50);
    std::vector<float> xyz(3 * count);
    matrix.CalculateCIEXYZ(xyz.data(), spectra.data(), count, nullptr);
    std::vector<unsigned char> cielab(3 * count), lab2000hl(3 * count);
    matrix.CalculateCIELAB(cielab.data(), xyz.data(), count, true);
    matrix.CalculateCIELAB(lab2000hl.data(), xyz.data(), count, false);

    std::printf("\nSpectra under D50 / 2 deg:\n");
    std::printf("%-10s %26s %16s %16s\n", "spectrum", "XYZ", "CIELAB bytes", "LAB2000HL bytes");
    for (std::size_t s = 0; s < count; ++s)
        std::printf("%-10s %8.5f %8.5f %8.5f    %3u %3u %3u      %3u %3u %3u\n", names[s], xyz[3 * s],
                    xyz[3 * s + 1], xyz[3 * s + 2], cielab[3 * s], cielab[3 * s + 1], cielab[3 * s + 2],
                    lab2000hl[3 * s], lab2000hl[3 * s + 1], lab2000hl[3 * s + 2]);
    return 0;
}
