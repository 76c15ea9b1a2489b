// Writes test models (4, 6, 7 inks), samples and the C++ front end's
// prediction through the gateway body, for the Octave test to compare with
// the real MEX file bit for bit.
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "kelma/common/Version.h"
#include "kelma/mex/ZKCMexGateway.h"
#include "kelma/modelbuilding/ZKCDefaultPressModel.h"
#include "kelma/modelfile/ZKSModelFile.h"
#include "tests/support/ModelGenerator.h"
#include "tests/support/VectorMexHost.h"

namespace {

template <class T>
bool Write(const std::string& path, const T* data, std::size_t count) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    bool ok = std::fwrite(data, sizeof(T), count, f) == count;
    return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const unsigned int shapes[3][2] = {{4, 5}, {6, 3}, {7, 3}};
    for (const auto& shape : shapes) {
        const unsigned int inks = shape[0], G = shape[1], count = 301;
        auto tm = kelma_test::MakeTestModel(inks, G, 1.9, 1000 + inks);
        std::mt19937 rng(inks);
        std::vector<unsigned char> samples(std::size_t{count} * inks);
        for (auto& v : samples) v = static_cast<unsigned char>(rng());

        kelma_test::VectorMexHost host;
        const void* prhs[5] = {
            host.Make<float>({G, inks}, tm.GridF()), host.Make<float>({256, inks}, tm.RampsF()),
            host.Make<float>({tm.scheme.size(), 1}, tm.SchemeF()),
            host.Make<float>({1, 1}, std::vector<float>{static_cast<float>(tm.n)}),
            host.Make<unsigned char>({inks, count}, samples)};
        void* plhs[1] = {nullptr};
        kelma::MexGatewayBody(host, plhs, prhs);
        const float* out = static_cast<const float*>(host.GetPr(plhs[0]));

        const std::string p = dir + "/ink" + std::to_string(inks) + "_";
        std::vector<float> grid = tm.GridF(), ramps = tm.RampsF(), scheme = tm.SchemeF();
        float n = static_cast<float>(tm.n);
        unsigned int meta[3] = {G, inks, count};
        if (!Write(p + "meta.u32", meta, 3) || !Write(p + "grid.f32", grid.data(), grid.size()) ||
            !Write(p + "ramps.f32", ramps.data(), ramps.size()) ||
            !Write(p + "scheme.f32", scheme.data(), scheme.size()) || !Write(p + "n.f32", &n, 1) ||
            !Write(p + "inks.u8", samples.data(), samples.size()) ||
            !Write(p + "expected.f32", out, std::size_t{count} * 32)) {
            std::fprintf(stderr, "cannot write the fixture into %s\n", dir.c_str());
            return 1;
        }
    }
    // The embedded press model through the gateway, for the Octave loader.
    kelma::ZKSPrinterModelArrays press = kelma::DefaultPressModelArrays();
    const unsigned int count = 81;
    std::vector<unsigned char> samples(std::size_t{count} * 4);
    for (unsigned int s = 0; s < count; ++s)
        for (unsigned int k = 0, rest = s; k < 4; ++k, rest /= 3) samples[s * 4 + k] = (rest % 3) * 127;
    kelma_test::VectorMexHost host;
    float n = static_cast<float>(press.n);
    const void* prhs[5] = {host.Make<float>({press.numberOfGridPoints, 4}, press.gridPointsF),
                           host.Make<float>({256, 4}, press.effectiveRampsF),
                           host.Make<float>({press.matrixSchemeF.size(), 1}, press.matrixSchemeF),
                           host.Make<float>({1, 1}, std::vector<float>{n}),
                           host.Make<unsigned char>({4, count}, samples)};
    void* plhs[1] = {nullptr};
    kelma::MexGatewayBody(host, plhs, prhs);
    if (!Write(dir + "/press_inks.u8", samples.data(), samples.size()) ||
        !Write(dir + "/press_expected.f32", static_cast<const float*>(host.GetPr(plhs[0])), count * 32)) {
        std::fprintf(stderr, "cannot write the fixture into %s\n", dir.c_str());
        return 1;
    }
    // The library's version, and a model whose lookup table came from float64
    // ramps (its file keeps the table, which kelma_predict cannot use).
    const std::string version = KELMA_VERSION;
    const auto tm = kelma_test::MakeTestModel(4, 5, 2.0, 77);
    const kelma::ZKCSSE_KELMA_Data fromDoubles(4, 5, tm.grid.data(), tm.ramps.data(), tm.scheme.data(), tm.n,
                                               kelma_test::D50Matrix(), kelma::INK_SET_CMYK, false, false, 31);
    if (!Write(dir + "/version.txt", version.data(), version.size())) return 1;
    kelma::ZKSModelFile::Describe(fromDoubles).Write(dir + "/lut64.kelma");
    return 0;
}
