// libFuzzer harness: any bytes as a kelma model file. The first byte chooses
// whether the rest is taken as it is or signed first (the checksum and end
// lines a writer would add appended, so that edits inside a file reach the
// parser instead of stopping at the checksum). The reader must either throw
// ZKCModelFileError or return a file whose model builds and predicts finite
// spectra and finite colours (under each illuminant, relative to it and to
// the paper), and whose text reads back to the same model bit for bit.
// Anything else (a crash, a sanitizer report, another exception, a broken
// promise) is a finding.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelma/modelfile/ZKSModelFile.h"
#include "kelma/prediction/PredictColorimetry.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/threading/Threading.h"
#include "tests/support/Fnv1a64.h"

#include "FuzzPromise.h"

using namespace kelma;

namespace {

// The paper, every single ink, all inks, and a few mid tones.
std::vector<unsigned char> Samples(unsigned int inks) {
    std::vector<unsigned char> s(inks, 0);
    for (unsigned int i = 0; i < inks; ++i) {
        std::vector<unsigned char> one(inks, 0);
        one[i] = 255;
        s.insert(s.end(), one.begin(), one.end());
    }
    for (unsigned char v : {255, 128, 37, 200})
        for (unsigned int i = 0; i < inks; ++i) s.push_back(static_cast<unsigned char>(v + 29 * i));
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // One worker per prediction: the harness measures the reader, not thread starts.
    SetCPUCountOverride(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] & 1) {
        if (!text.empty() && text.back() != '\n') text += '\n';
        text += "checksum fnv1a64 " + kelma_test::Fnv1a64Hex(text) + "\nend\n";
    }
    try {
        const ZKSModelFile file = ZKSModelFile::Parse(text, "fuzz.kelma");
        const ZKCSSE_KELMA_Data model = file.Model();
        const unsigned int inks = file.numberOfInks;
        std::vector<unsigned char> samples = Samples(inks);
        const unsigned int count = static_cast<unsigned int>(samples.size() / inks);
        AlignedBuffer<float> spectra(std::size_t{count} * kSpectrumStride);
        {
            ZKCSSE_KELMA_Thread driver(model, count, samples.data(), spectra.data());
        }
        for (std::size_t k = 0; k < spectra.size(); ++k)
            Require(std::isfinite(spectra[k]), "a readable model predicts finite spectra");
        // Colours are finite under every illuminant a readable file gives
        // (named, spd and weights), relative to the illuminant and to the paper.
        for (unsigned int illuminant = 0; illuminant < file.illuminants.size(); ++illuminant) {
            for (bool paperRelative : {false, true}) {
                std::vector<double> xyz(3 * count), lab(3 * count);
                PredictColorimetry(model, count, samples.data(), illuminant, paperRelative, xyz.data(), lab.data());
                for (std::size_t k = 0; k < xyz.size(); ++k)
                    Require(std::isfinite(xyz[k]) && std::isfinite(lab[k]), "a readable model predicts finite colours");
            }
        }
        const ZKSModelFile again = ZKSModelFile::Parse(file.Format(), "formatted");
        Require(SameModelContent(again.Model(), model), "the formatted file reads back to the same model");
    } catch (const ZKCModelFileError&) {
        // A clear refusal naming the file and line is a correct answer.
    }
    return 0;
}
