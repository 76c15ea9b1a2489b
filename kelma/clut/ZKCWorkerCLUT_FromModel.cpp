// CLUT workers built by predicting every grid node with a printer model.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "kelma/clut/ZKCWorkerCLUT.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

// Node bytes of a d-ink model on an n-point grid: the inputs are the ink
// bytes round(g 255 / (n - 1)) (double, halves away from zero) of every node
// in node order; the prediction driver turns them into 3 bytes per node and
// illuminant. Returns 3 bytes per node (the first illuminant when the model
// has several; hosts reduce it to the one they want beforehand), padded with
// zeros to (n + 1)^d * 3 bytes for the cells that read past the last node.
std::vector<unsigned char> PredictNodes(const ZKCSSE_KELMA_Data& model, std::uint32_t n, unsigned d) {
    if (model.NumberOfInks() != d) throw kErrorDefaultCase;
    const std::size_t nodes = ClutNodeCount(n, d);
    if (nodes > std::numeric_limits<unsigned int>::max()) throw std::bad_alloc();

    std::vector<unsigned char> levels(n);
    for (std::uint32_t g = 0; g < n; ++g) levels[g] = static_cast<unsigned char>(std::round(g * 255.0 / (n - 1)));
    std::vector<unsigned char> inputs(nodes * d);
    for (std::size_t c = 0; c < nodes; ++c) {
        std::size_t rest = c;
        for (unsigned a = d; a-- > 0;) {  // last axis innermost
            inputs[c * d + a] = levels[rest % n];
            rest /= n;
        }
    }

    const std::size_t illuminants = model.Lighting_Matrix().IlluminantNumber();
    const std::size_t padded = ClutNodeCount(n + 1, d) * 3;
    const std::size_t predicted = nodes * 3 * illuminants;
    std::vector<unsigned char> outputs(predicted > padded ? predicted : padded, 0);
    {
        ZKCSSE_KELMA_Thread driver(model, static_cast<unsigned int>(nodes), inputs.data(), outputs.data(),
                                   kSpectralValues, kSpectrumStride);
        driver.Wait();
    }
    if (illuminants > 1) {
        for (std::size_t c = 1; c < nodes; ++c) std::memmove(&outputs[c * 3], &outputs[c * 3 * illuminants], 3);
        std::fill(outputs.begin() + nodes * 3, outputs.end(), 0);
    }
    return outputs;
}

}  // namespace

ZKCWorkerCLUT_3x3::ZKCWorkerCLUT_3x3(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_3xn(accuracy, 3) {
    BuildCells(PredictNodes(model, gridPoints_, 3).data());
}

ZKCWorkerCLUT_4x3::ZKCWorkerCLUT_4x3(const ZKCSSE_KELMA_Data& model, CLUT_ACCURACY accuracy)
    : ZKCWorkerCLUT_4xn(accuracy, 3) {
    BuildCells(PredictNodes(model, gridPoints_, 4).data());
}

}  // namespace KELMA_NAMESPACE
