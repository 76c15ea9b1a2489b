// The linear least squares of the node values (internal): with the local
// coordinates and n fixed, a prediction in the Yule-Nielsen domain is linear
// in the node values, so the nodes minimise, for every band at once,
//
//   sum_rows | sum_corners d_rc x_node(c) - y_r |^2 + sum_nodes p_k | x_k - x0_k |^2
//
// (y = reflectance^(1/n) of the rows, x0 = prior reflectance^(1/n), p_k the
// prior weight of node k in patches: a row exactly at a node weighs 1). The
// normal matrix is sparse: a row couples only its own 2^k corners. It is kept
// in Eigen's compressed lower triangle, whose pattern (every coupled pair and
// every diagonal) is fixed by the corner structure, and factored by Eigen's
// simplicial Cholesky (LL^T) after a minimum-degree ordering computed once.
// Assembly adds the rows in order and then the prior, so a matrix entry is
// the same sum in every evaluation.
//
// Cost per solve: sum over rows of 4^k (k inks off the grid) multiply-adds
// to assemble, then the sparse factorisation (a dense 81 x 81 block for a
// 4-ink chart on 3 levels; a row of 7 inks off the grid alone couples 128
// nodes).
#pragma once

#include <memory>
#include <vector>

#include "kelma/modelbuilding/YuleNielsenEvaluator.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

// A prior on node values: reflectance spectra and their weight in patches.
struct NodePrior {
    std::vector<double> weight;       // per node; 0 = no prior
    std::vector<double> reflectance;  // nodes x 31 (or empty when no weight is positive), positive
};

class NodeLeastSquares {
public:
    NodeLeastSquares(const GridLayout& grid, const TrainingSet& set, const CornerStructure& structure,
                     const NodePrior& prior);
    // A solver of its own on the same pattern (one per thread).
    NodeLeastSquares(const NodeLeastSquares& other);
    NodeLeastSquares& operator=(const NodeLeastSquares&) = delete;
    ~NodeLeastSquares();

    // Node values (nodes x 31 Yule-Nielsen values) for the corner weights
    // `weights` and exponent n. False when the normal matrix is not positive
    // definite (a node no row weighs and no prior holds) or the solution is
    // not finite.
    bool Solve(double n, const std::vector<double>& weights, std::vector<double>& nodes);

private:
    struct Pattern;
    struct Solver;
    void UpdateYuleNielsen(double n);

    const TrainingSet& set_;
    const CornerStructure& structure_;
    const NodePrior& prior_;
    std::shared_ptr<const Pattern> pattern_;
    std::unique_ptr<Solver> solver_;
    std::vector<double> yn_, priorYn_;
    double ynExponent_ = 0.0;
};

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
