// Prints the embedded press model's evaluation against a chart file, every
// statistic to 17 significant digits: the C++ side of the test that the
// front ends all report the library's numbers.
#include <cstdio>
#include <exception>

#include "kelma/kelma.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CHART\n", argv[0]);
        return 2;
    }
    try {
        const kelma::ZKCMeasurementFile file(argv[1], kelma::MEASUREMENT_CONTENT_SPECTRA |
                                                          kelma::MEASUREMENT_CONTENT_DEVICE);
        const kelma::ZKSModelEvaluation e =
            kelma::EvaluateModel(kelma::DefaultPressModel(), kelma::ChartFromMeasurementFile(file));
        for (const kelma::ZKSStatistics* s : {&e.all, &e.blackZero, &e.blackPositive})
            std::printf("%zu %.17g %.17g %.17g %.17g\n", s->count, s->mean, s->median, s->p95, s->max);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
