// The stages of a build, each on its own inputs: the n search, the library's
// split, the corner structure of the rows, the sparse node least squares
// (exact recovery, the prior's closed form, singular systems), the overprint
// rule on Beer-Lambert nodes, the classic fit as a pure function of n, and
// the fine-grid fit's limits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kelma/modelbuilding/ClassicFit.h"
#include "kelma/modelbuilding/FineGridFit.h"
#include "kelma/modelbuilding/ModelAssembly.h"
#include "kelma/modelbuilding/NSearch.h"
#include "kelma/modelbuilding/NodeEstimation.h"
#include "kelma/modelbuilding/NodeLeastSquares.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "tests/modelbuilding/SyntheticChart.h"
#include "tests/support/ModelGenerator.h"

using namespace kelma;
using namespace kelma::modelbuilding;
using kelma_test::ChartMaker;
using kelma_test::MakeTestModel;
using kelma_test::ZKSTestModel;

namespace {

// A resolved grid of the same levels for every ink.
ResolvedGrid Grid(unsigned int inks, const std::vector<unsigned int>& levels) {
    ResolvedGrid g;
    g.points = static_cast<unsigned int>(levels.size());
    for (unsigned int i = 0; i < inks; ++i)
        for (unsigned int t : levels) {
            g.levels.push_back(t);
            g.percent.push_back(t / 2.55);
        }
    return g;
}

// Rows at the given digital levels, reflectance 0.5 (no colours: for the least squares only).
TrainingSet Rows(unsigned int inks, const std::vector<std::vector<unsigned char>>& levels) {
    TrainingSet set;
    set.inks = inks;
    for (std::size_t r = 0; r < levels.size(); ++r) {
        set.patches.push_back(r);
        set.levels.insert(set.levels.end(), levels[r].begin(), levels[r].end());
        set.reflectance.insert(set.reflectance.end(), kBands, 0.5);
    }
    set.lab.assign(levels.size() * 3, 0.0);
    set.metric.assign(levels.size() * 9, 0.0);
    return set;
}

InkCoordinates StraightCoordinates(const GridLayout& grid) {
    std::vector<double> ramps;
    for (unsigned int i = 0; i < grid.inks; ++i)
        for (unsigned int t = 0; t < 256; ++t) ramps.push_back(t / 255.0);
    return CoordinatesFromRamps(grid, ramps);
}

}  // namespace

TEST(NSearch, FindsTheMinimumAndKeepsTheBoundary) {
    unsigned int calls = 0;
    const NSearchResult r = SearchN(
        [&](double n) {
            ++calls;
            return (n - 2.345) * (n - 2.345);
        },
        1.0, 10.0);
    EXPECT_NEAR(r.n, 2.345, 1e-4);
    EXPECT_EQ(r.evaluations, calls);
    EXPECT_GT(calls, 19u + 2u);
    // A cost falling towards the upper end stays inside the range.
    const NSearchResult edge = SearchN([](double n) { return -n; }, 1.0, 3.0);
    EXPECT_LE(edge.n, 3.0);
    EXPECT_GT(edge.n, 3.0 - 1e-4);
}

TEST(ValidationSplit, GridItemsTrainBothFoldsAndRecipesAlternate) {
    // Two inks, grid {0, 255}: items 0 and 3 are on the grid; recipes
    // (10, 0), (20, 0), (10, 0) again, (0, 30) alternate by first appearance.
    const std::vector<unsigned char> levels{0, 255, 10, 0, 20, 0, 255, 255, 10, 0, 0, 30};
    const std::vector<unsigned int> grid{0, 255, 0, 255};
    const ZKSValidationSplit split = SplitByRecipe(levels.data(), 2, 6, 2, grid);
    EXPECT_EQ(split.gridPatches, (std::vector<std::size_t>{0, 3}));
    EXPECT_EQ(split.half[0], (std::vector<std::size_t>{1, 4, 5}));
    EXPECT_EQ(split.half[1], (std::vector<std::size_t>{2}));
    EXPECT_EQ(split.Training(1), (std::vector<std::size_t>{0, 2, 3}));
}

TEST(CornerStructure, RowsTouchTheCornersOfTheirInksOffTheGrid) {
    const GridLayout grid(4, Grid(4, {0, 102, 255}));
    const TrainingSet set = Rows(4, {{0, 0, 0, 0}, {255, 102, 0, 0}, {50, 0, 0, 255}, {50, 150, 20, 200}});
    const InkCoordinates coords = StraightCoordinates(grid);
    const CornerStructure s = MakeCornerStructure(grid, set, coords, NonGridLevels(grid));
    ASSERT_EQ(s.cornerStart.size(), 5u);
    EXPECT_EQ(s.Corners(0), 1u);
    EXPECT_EQ(s.Corners(1), 1u);
    EXPECT_EQ(s.Corners(2), 2u);
    EXPECT_EQ(s.Corners(3), 16u);
    EXPECT_EQ(s.node[0], 0u);
    // (255, 102, 0, 0): the upper node of C's last cell, M's node 1.
    EXPECT_EQ(s.node[1], 2u + 1u * 3u);
    // (50, 0, 0, 255): C between nodes 0 and 1, K on its top node (2 x 27).
    EXPECT_EQ(s.node[2], 54u);
    EXPECT_EQ(s.node[3], 55u);
    for (std::size_t c = s.cornerStart[3] + 1; c < s.cornerStart[4]; ++c) EXPECT_GT(s.node[c], s.node[c - 1]);
    // With nothing variable, an ink on a grid level or at a coordinate of 0 sits on one corner.
    const CornerStructure fixed = MakeCornerStructure(grid, set, coords, VariableCoordinates(4 * 256, 0));
    EXPECT_EQ(fixed.Corners(3), 16u);
    EXPECT_EQ(fixed.Corners(2), 2u);

    // Demichel weights sum to 1 and give each corner its product of coordinates.
    const Colorimeter colorimeter(D50Matrix());
    const YuleNielsenEvaluator evaluator(grid, set, colorimeter, s);
    std::vector<double> weights;
    evaluator.Demichel(coords, weights);
    double sum = 0.0;
    for (std::size_t c = s.cornerStart[3]; c < s.cornerStart[4]; ++c) sum += weights[c];
    EXPECT_NEAR(sum, 1.0, 1e-15);
    EXPECT_EQ(weights[s.cornerStart[2]], 1.0 - coords.w[50]);
    EXPECT_EQ(weights[s.cornerStart[2] + 1], coords.w[50]);
}

TEST(NodeLeastSquares, RecoversNodesAndHonoursThePrior) {
    // Random rows of a 4-ink, 3-level grid predicted from known node values:
    // the least squares give them back.
    const GridLayout grid(4, Grid(4, {0, 102, 255}));
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> level(0, 255);
    std::vector<std::vector<unsigned char>> levels;
    for (std::size_t node = 0; node < grid.nodes; ++node) {
        std::vector<unsigned char> lv(4);
        grid.NodeLevels(node, lv.data());
        levels.push_back(lv);
    }
    for (int r = 0; r < 300; ++r) levels.push_back({(unsigned char)level(rng), (unsigned char)level(rng),
                                                    (unsigned char)level(rng), (unsigned char)level(rng)});
    TrainingSet set = Rows(4, levels);
    const InkCoordinates coords = StraightCoordinates(grid);
    const Colorimeter colorimeter(D50Matrix());
    const YuleNielsenEvaluator evaluator(grid, set, colorimeter, MakeCornerStructure(grid, set, coords, NonGridLevels(grid)));
    std::vector<double> weights;
    evaluator.Demichel(coords, weights);
    std::uniform_real_distribution<double> u(0.2, 0.9);
    std::vector<double> truth(grid.nodes * kBands);
    for (double& v : truth) v = u(rng);
    const double n = 2.0;
    // Rows' reflectance = (sum of weighted node values)^n.
    for (std::size_t r = 0; r < set.Count(); ++r) {
        double s[kBands] = {};
        for (std::size_t c = evaluator.Structure().cornerStart[r]; c < evaluator.Structure().cornerStart[r + 1]; ++c)
            for (unsigned int w = 0; w < kBands; ++w) s[w] += weights[c] * truth[evaluator.Structure().node[c] * kBands + w];
        for (unsigned int w = 0; w < kBands; ++w) set.reflectance[r * kBands + w] = s[w] * s[w];
    }
    NodePrior none;
    NodeLeastSquares solver(grid, set, evaluator.Structure(), none);
    std::vector<double> nodes;
    ASSERT_TRUE(solver.Solve(n, weights, nodes));
    for (std::size_t k = 0; k < truth.size(); ++k) ASSERT_NEAR(nodes[k], truth[k], 1e-10) << k;
    // A solver copied for another thread gives the same bits.
    NodeLeastSquares copy(solver);
    std::vector<double> again;
    ASSERT_TRUE(copy.Solve(n, weights, again));
    EXPECT_EQ(again, nodes);

    // One row at each node and a prior p x0: node = (y + p x0) / (1 + p).
    const GridLayout small(4, Grid(4, {0, 255}));
    std::vector<std::vector<unsigned char>> corners;
    for (std::size_t node = 0; node < small.nodes; ++node) {
        std::vector<unsigned char> lv(4);
        small.NodeLevels(node, lv.data());
        corners.push_back(lv);
    }
    const TrainingSet nodeRows = Rows(4, corners);  // reflectance 0.5
    const YuleNielsenEvaluator at(small, nodeRows, colorimeter,
                                  MakeCornerStructure(small, nodeRows, StraightCoordinates(small), NonGridLevels(small)));
    at.Demichel(StraightCoordinates(small), weights);
    NodePrior prior;
    prior.weight.assign(small.nodes, 0.0);
    prior.weight[5] = 3.0;
    prior.reflectance.assign(small.nodes * kBands, 0.16);
    NodeLeastSquares withPrior(small, nodeRows, at.Structure(), prior);
    ASSERT_TRUE(withPrior.Solve(2.0, weights, nodes));
    EXPECT_NEAR(nodes[5 * kBands], (std::sqrt(0.5) + 3.0 * 0.4) / 4.0, 1e-14);
    EXPECT_NEAR(nodes[4 * kBands], std::sqrt(0.5), 1e-14);

    // A node without rows or prior makes the system singular.
    const TrainingSet fewer = SubsetOf(nodeRows, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14});
    const YuleNielsenEvaluator partial(small, fewer, colorimeter,
                                       MakeCornerStructure(small, fewer, StraightCoordinates(small), NonGridLevels(small)));
    partial.Demichel(StraightCoordinates(small), weights);
    NodeLeastSquares singular(small, fewer, partial.Structure(), none);
    EXPECT_FALSE(singular.Solve(2.0, weights, nodes));
    prior.weight[15] = 1.0;
    NodeLeastSquares held(small, fewer, partial.Structure(), prior);
    ASSERT_TRUE(held.Solve(2.0, weights, nodes));
    EXPECT_NEAR(nodes[15 * kBands], 0.4, 1e-14);
}

TEST(NodeEstimation, OverprintRuleIsExactForBeerLambertNodes) {
    // Generator nodes are paper x prod exp(-a_k d_k): from the paper and the
    // single-ink nodes the rule rebuilds every other node of 6 inks.
    const ZKSTestModel truth = MakeTestModel(6, 3, 2.0, 9);
    std::vector<unsigned int> levels(truth.grid.begin(), truth.grid.end());
    ResolvedGrid resolved;
    resolved.points = 3;
    resolved.levels = levels;
    for (unsigned int t : levels) resolved.percent.push_back(t / 2.55);
    const GridLayout grid(6, resolved);
    std::vector<double> spectra(grid.nodes * kBands, 0.0);
    std::vector<std::size_t> missing;
    for (std::size_t node = 0; node < grid.nodes; ++node) {
        unsigned int held = 0;
        std::vector<unsigned int> index(6);
        for (unsigned int i = 0; i < 6; ++i) held += (index[i] = grid.NodeIndex(node, i)) > 0;
        if (held > 1) {
            missing.push_back(node);
            continue;
        }
        const std::vector<double> r = truth.NodeSpectrum(index);
        std::copy(r.begin(), r.end(), spectra.begin() + node * kBands);
    }
    ZKSModelChart chart;
    chart.numberOfInks = 6;
    EstimateByOverprint(grid, missing, spectra, chart, resolved);
    for (std::size_t node : missing) {
        std::vector<unsigned int> index(6);
        for (unsigned int i = 0; i < 6; ++i) index[i] = grid.NodeIndex(node, i);
        const std::vector<double> r = truth.NodeSpectrum(index);
        for (unsigned int w = 0; w < kBands; ++w)
            ASSERT_NEAR(spectra[node * kBands + w], std::max(r[w], kReflectanceFloor), 1e-12 * r[w] + 1e-15) << node;
    }
    // A missing single-ink node cannot be estimated.
    std::vector<std::size_t> single{2 * grid.stride[4]};
    kelma_test::ExpectBuildError([&] { EstimateByOverprint(grid, single, spectra, chart, resolved); },
                                 {"no patch of ink 5 alone", "(0, 0, 0, 0, 100, 0)"});
}

TEST(ClassicFit, IsAFunctionOfNAlone) {
    // Fits at n = 2 before and after a fit at n = 3 are the same bits.
    const ZKSTestModel truth = MakeTestModel(4, 3, 2.0, 13);
    ChartMaker maker(truth);
    maker.AddNodes();
    maker.AddRamps(3, 252, 7);
    maker.AddRandom(50, 5);
    const ZKSModelChart& chart = maker.Chart();
    const std::vector<unsigned char> levels = ChartDigitalLevels(chart);
    const ResolvedGrid resolved = ResolveGrid(chart, {}, maker.GridPercent(), "the grid");
    const GridLayout grid(4, resolved);
    const Colorimeter colorimeter(D50Matrix());
    std::vector<std::size_t> all(chart.PatchCount());
    for (std::size_t p = 0; p < all.size(); ++p) all[p] = p;
    const TrainingSet set = MakeTrainingSet(chart, levels, all, colorimeter);
    const NodeMeasurements measured = MeasureNodes(grid, set);
    ASSERT_TRUE(measured.missing.empty());
    const std::vector<RampPatch> ramps = FindRampPatches(grid, set);
    const YuleNielsenEvaluator evaluator(grid, set, colorimeter,
                                        MakeCornerStructure(grid, set, StraightCoordinates(grid), NonGridLevels(grid)));
    const ClassicInputs inputs{chart, resolved, grid, measured.spectra, ramps, evaluator};
    const ClassicFit first = FitClassic(inputs, 2.0);
    const ClassicFit other = FitClassic(inputs, 3.0);
    const ClassicFit second = FitClassic(inputs, 2.0);
    EXPECT_EQ(first.ramps, second.ramps);
    EXPECT_EQ(first.nodes, second.nodes);
    EXPECT_EQ(first.meanDeltaE, second.meanDeltaE);
    EXPECT_NE(first.ramps, other.ramps);
    // At the generator's n the ramp patches lie on its ramps: nearly no error.
    EXPECT_LT(first.meanDeltaE, 0.02);
    EXPECT_GT(other.meanDeltaE, first.meanDeltaE);
}

TEST(FineGridFit, AHeavyPriorKeepsTheBaseModelAndTheChoiceIsACandidate) {
    // A 5-level print fitted on 3 levels; the fine grid adds 70 %.
    const ZKSTestModel press = MakeTestModel(4, 5, 2.2, 31);
    ChartMaker maker(press);
    const unsigned char steps[] = {0, 26, 51, 102, 179, 255};
    for (unsigned char c : steps)
        for (unsigned char m : steps)
            for (unsigned char y : steps)
                for (unsigned char k : {0, 102, 179, 255}) maker.AddReference({c, m, y, k});
    maker.AddRamps(5, 250, 15);
    const ZKCModelBuilder builder(maker.Chart());
    ZKSModelBuildOptions options;
    options.gridPercent = {0.0, 40.0, 100.0};
    const ZKSBuiltModel base = builder.Build(options);

    const ResolvedGrid resolved = ResolveGrid(builder.Chart(), {0.0, 40.0, 70.0, 100.0}, {}, "the grid");
    const GridLayout fine(4, resolved);
    const Colorimeter colorimeter(D50Matrix());
    const TrainingSet set = MakeTrainingSet(builder.Chart(), builder.DigitalLevels(), base.trainingPatches, colorimeter);
    const FineGridFit heavy = FitFineGrid(base.model, fine, set, colorimeter, 1e9);
    const ZKSPrinterModelArrays heavyModel = AssembleModel(fine, base.model.effectiveRamps, heavy.nodes, base.model.n);
    double worst = 0.0;
    for (std::size_t r = 0; r < set.Count(); r += 7) {
        double a[kBands], b[kBands];
        PredictFromArrays(base.model, set.Levels(r), a);
        PredictFromArrays(heavyModel, set.Levels(r), b);
        for (unsigned int w = 0; w < kBands; ++w) worst = std::max(worst, std::fabs(a[w] - b[w]));
    }
    EXPECT_LT(worst, 1e-7);

    const FineGridFit chosen = FitFineGrid(base.model, fine, set, colorimeter, 0.0);
    const std::vector<double> candidates = FinePriorCandidates();
    ASSERT_EQ(chosen.candidateMeanDeltaE.size(), candidates.size());
    const std::size_t best = std::find(candidates.begin(), candidates.end(), chosen.priorWeight) - candidates.begin();
    ASSERT_LT(best, candidates.size());
    for (double e : chosen.candidateMeanDeltaE) EXPECT_GE(e, chosen.candidateMeanDeltaE[best]);
    // Free fine nodes fit the training rows better than the base model.
    const ZKSPrinterModelArrays fineModel = AssembleModel(fine, base.model.effectiveRamps, chosen.nodes, base.model.n);
    EXPECT_LT(Summarize(PredictionDeltaE00(fineModel, builder.Chart(), base.trainingPatches)).mean,
              base.fitError.mean);
}
