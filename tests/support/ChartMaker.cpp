#include "tests/support/ChartMaker.h"

#include <set>

#include "kelma/common/InkLevels.h"

namespace kelma_test {

kelma::ZKSModelChart MultiInkChart(const ZKSTestModel& truth) {
    const unsigned int inks = truth.inks;
    std::vector<std::vector<double>> recipes;
    std::set<std::vector<double>> seen;
    auto add = [&](const std::vector<double>& r) {
        if (seen.insert(r).second) recipes.push_back(r);
    };
    // The ISO 12642-2-like layout of three chromatic inks and black.
    auto layout = [&](unsigned int a, unsigned int b, unsigned int c, int newInk) {
        const std::vector<double> noBlack{0, 10, 20, 40, 70, 100}, withBlack{0, 20, 40, 70, 100};
        for (double k : {0.0, 20.0, 40.0, 70.0, 100.0}) {
            const std::vector<double>& levels = k == 0.0 ? noBlack : withBlack;
            for (double va : levels)
                for (double vb : levels)
                    for (double vc : levels) {
                        std::vector<double> r(inks, 0.0);
                        r[a] = va;
                        r[b] = vb;
                        r[c] = vc;
                        r[3] = k;
                        // The extra ink's layout leaves what the CMYK part holds.
                        if (newInk >= 0 && r[newInk] == 0.0) continue;
                        add(r);
                    }
        }
    };
    layout(0, 1, 2, -1);
    // Orange beside magenta and yellow, green beside cyan and yellow, violet beside cyan and magenta.
    const unsigned int neighbours[3][2] = {{1, 2}, {0, 2}, {0, 1}};
    for (unsigned int x = 4; x < inks; ++x) layout(x, neighbours[x - 4][0], neighbours[x - 4][1], int(x));
    for (unsigned int x = 4; x < inks; ++x)
        for (unsigned int j = 0; j < inks; ++j) {
            if (j == x || j == 3 || j == neighbours[x - 4][0] || j == neighbours[x - 4][1]) continue;
            for (double vx : {20.0, 40.0, 70.0, 100.0})
                for (double vj : {20.0, 40.0, 70.0, 100.0}) {
                    std::vector<double> r(inks, 0.0);
                    r[x] = vx;
                    r[j] = vj;
                    add(r);
                }
        }
    for (unsigned int i = 0; i < inks; ++i)
        for (double v = 2.0; v < 100.0; v += 2.0) {
            std::vector<double> r(inks, 0.0);
            r[i] = v;
            add(r);
        }
    kelma::ZKSModelChart chart;
    chart.numberOfInks = inks;
    std::vector<unsigned char> levels(inks);
    for (const std::vector<double>& r : recipes) {
        for (unsigned int i = 0; i < inks; ++i) levels[i] = static_cast<unsigned char>(kelma::DigitalLevel(r[i]));
        const std::vector<double> spectrum = truth.Reference(levels.data());
        chart.deviceValues.insert(chart.deviceValues.end(), r.begin(), r.end());
        chart.spectra.insert(chart.spectra.end(), spectrum.begin(), spectrum.end());
    }
    return chart;
}

}  // namespace kelma_test
