// Reads a kelma model file with the installed library, predicts the spectra of
// raw uint8 ink samples and compares them bit for bit with raw float32
// spectra (31 per sample) written by another front end.
//   kelma_read_model MODEL INKS.u8 EXPECTED.f32
#include <kelma/kelma.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

std::vector<char> Slurp(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s MODEL INKS.u8 EXPECTED.f32\n", argv[0]);
        return 2;
    }
    try {
        const kelma::ZKSModelFile file = kelma::ZKSModelFile::Read(argv[1]);
        const kelma::ZKCSSE_KELMA_Data model = file.Model();
        std::vector<char> inks = Slurp(argv[2]);
        const std::vector<char> expected = Slurp(argv[3]);
        const unsigned int count = static_cast<unsigned int>(inks.size() / model.NumberOfInks());
        if (count == 0 || expected.size() != std::size_t{count} * 31 * sizeof(float)) {
            std::fprintf(stderr, "inputs do not match: %u samples, %zu expected bytes\n", count, expected.size());
            return 1;
        }
        std::vector<float> spectra(std::size_t{count} * 31);
        kelma::ZKCSSE_KELMA_Thread driver(model, count, reinterpret_cast<unsigned char*>(inks.data()), spectra.data(),
                                          kelma::SPECTRUM_PACKED);
        driver.Wait();
        if (std::memcmp(spectra.data(), expected.data(), expected.size()) != 0) {
            std::fprintf(stderr, "%s: spectra differ from the other front end's\n", argv[1]);
            return 1;
        }
        std::printf("%s: %u inks (%s ...), %u spectra bit-identical\n", argv[1], model.NumberOfInks(),
                    file.inkNames[0].c_str(), count);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
