#include "kelma/modelbuilding/ValidationSplit.h"

#include <algorithm>
#include <map>

#include "kelma/evaluation/ModelEvaluation.h"
#include "kelma/modelbuilding/FitColorimetry.h"

namespace KELMA_NAMESPACE {

std::vector<std::size_t> ZKSValidationSplit::Training(unsigned int fold) const {
    std::vector<std::size_t> t(gridPatches);
    t.insert(t.end(), half[fold & 1u].begin(), half[fold & 1u].end());
    std::sort(t.begin(), t.end());
    return t;
}

std::vector<double> PredictionDeltaE00(const ZKSPrinterModelArrays& model, const ZKSModelChart& chart,
                                       const std::vector<std::size_t>& patches) {
    if (patches.empty()) return {};
    for (std::size_t p : patches)
        if (p >= chart.PatchCount()) modelbuilding::Fail("patch " + std::to_string(p) + " is outside the chart");
    return ModelDeltaE2000(model.Model(modelbuilding::D50Matrix(), INK_SET_SEVEN_INKS), chart, patches);
}

namespace modelbuilding {

ZKSValidationSplit SplitByRecipe(const unsigned char* levels, unsigned int inks, std::size_t count,
                                 unsigned int gridPoints, const std::vector<unsigned int>& gridLevels) {
    ZKSValidationSplit split;
    std::map<std::vector<unsigned char>, unsigned int> recipeHalf;
    for (std::size_t p = 0; p < count; ++p) {
        const std::vector<unsigned char> recipe(&levels[p * inks], &levels[p * inks] + inks);
        bool onGrid = true;
        for (unsigned int i = 0; i < inks; ++i)
            onGrid = onGrid && std::count(&gridLevels[i * gridPoints], &gridLevels[i * gridPoints] + gridPoints,
                                          unsigned{recipe[i]}) > 0;
        if (onGrid) {
            split.gridPatches.push_back(p);
            continue;
        }
        auto it = recipeHalf.find(recipe);
        if (it == recipeHalf.end())
            it = recipeHalf.emplace(recipe, static_cast<unsigned int>(recipeHalf.size() % 2)).first;
        split.half[it->second].push_back(p);
    }
    return split;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
