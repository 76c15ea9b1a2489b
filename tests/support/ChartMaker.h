// Charts "measured" on the test generator's models: node patches from the
// generator's node spectra, other patches from its independent double
// reference prediction. Shared by the tests and the benchmarks.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "kelma/modelbuilding/ChartImport.h"
#include "tests/support/ModelGenerator.h"

namespace kelma_test {

class ChartMaker {
public:
    explicit ChartMaker(const ZKSTestModel& truth) : truth_(truth) { chart_.numberOfInks = truth.inks; }

    // One patch at digital levels `sample`, written in percent (level / 2.55).
    void Add(const std::vector<unsigned char>& sample, const std::vector<double>& spectrum) {
        for (unsigned char v : sample) chart_.deviceValues.push_back(v / 2.55);
        chart_.spectra.insert(chart_.spectra.end(), spectrum.begin(), spectrum.end());
    }
    void AddReference(const std::vector<unsigned char>& sample) { Add(sample, truth_.Reference(sample.data())); }
    // Every node of the generator's grid, from its node spectra.
    void AddNodes() {
        const unsigned int g = truth_.gridPoints;
        std::size_t count = 1;
        for (unsigned int i = 0; i < truth_.inks; ++i) count *= g;
        for (std::size_t node = 0; node < count; ++node) {
            std::vector<unsigned int> index(truth_.inks);
            std::vector<unsigned char> sample(truth_.inks);
            std::size_t rest = node;
            for (unsigned int i = 0; i < truth_.inks; ++i) {
                index[i] = rest % g;
                rest /= g;
                sample[i] = static_cast<unsigned char>(truth_.grid[i * g + index[i]]);
            }
            Add(sample, truth_.NodeSpectrum(index));
        }
    }
    // Single-ink patches at every non-grid level in [first, last] with the given step.
    void AddRamps(unsigned int first = 1, unsigned int last = 254, unsigned int step = 1) {
        for (unsigned int i = 0; i < truth_.inks; ++i)
            for (unsigned int t = first; t <= last; t += step) {
                bool onGrid = false;
                for (unsigned int g = 0; g < truth_.gridPoints; ++g) onGrid |= truth_.grid[i * truth_.gridPoints + g] == t;
                if (onGrid) continue;
                std::vector<unsigned char> sample(truth_.inks, 0);
                sample[i] = static_cast<unsigned char>(t);
                AddReference(sample);
            }
    }
    // Random mixtures at levels first + k step (at most 255).
    void AddRandom(std::size_t count, std::uint32_t seed, unsigned int first = 0, unsigned int step = 1) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<unsigned int> level(0, (255 - first) / step);
        for (std::size_t k = 0; k < count; ++k) {
            std::vector<unsigned char> sample(truth_.inks);
            for (unsigned char& v : sample) v = static_cast<unsigned char>(first + step * level(rng));
            AddReference(sample);
        }
    }
    // The generator's grid in percent, ink-major.
    std::vector<double> GridPercent() const {
        std::vector<double> p;
        for (double level : truth_.grid) p.push_back(level / 2.55);
        return p;
    }
    kelma::ZKSModelChart& Chart() { return chart_; }

private:
    const ZKSTestModel& truth_;
    kelma::ZKSModelChart chart_;
};

// The chart of a 6- or 7-ink model (inks C, M, Y, K, then orange, green and
// violet) as extended-gamut charts lay them out, never the full grid: an
// ISO 12642-2-like CMYK part (C, M, Y in {0, 10, 20, 40, 70, 100} % without
// black, in {0, 20, 40, 70, 100} % with black at 20, 40, 70, 100 %); the
// same layout for each extra ink with the two process inks beside its hue
// and black (orange: M, Y, K; green: C, Y, K; violet: C, M, K), without the
// patches the CMYK part already holds; two-ink overprints of every extra ink
// with every ink outside its layout at {20, 40, 70, 100} %; single-ink ramps
// at 2, 4, 6, ..., 98 %. Recipes are distinct; 4-ink charts get the CMYK
// part and the ramps. Device values are written in percent as charts are
// (e.g. 40 %, so the digital level is 102).
kelma::ZKSModelChart MultiInkChart(const ZKSTestModel& truth);

}  // namespace kelma_test
