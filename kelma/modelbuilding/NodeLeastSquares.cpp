#include "kelma/modelbuilding/NodeLeastSquares.h"

#include <algorithm>
#include <cmath>

#include <Eigen/Core>
#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>

namespace KELMA_NAMESPACE {
namespace modelbuilding {

using SparseMatrix = Eigen::SparseMatrix<double, Eigen::ColMajor, int>;

struct NodeLeastSquares::Pattern {
    SparseMatrix matrix;            // lower triangle, zero values
    std::vector<int> rowPairs;      // per row, per corner pair (a >= b): position in the value array
    std::vector<int> diagonal;      // per node: position of its diagonal entry
};

struct NodeLeastSquares::Solver {
    SparseMatrix matrix;
    Eigen::SimplicialLLT<SparseMatrix, Eigen::Lower, Eigen::AMDOrdering<int>> llt;
    explicit Solver(const SparseMatrix& pattern) : matrix(pattern) { llt.analyzePattern(matrix); }
};

namespace {

int Position(const SparseMatrix& m, std::size_t row, std::size_t col) {
    const int* begin = m.innerIndexPtr() + m.outerIndexPtr()[col];
    const int* end = m.innerIndexPtr() + m.outerIndexPtr()[col + 1];
    return static_cast<int>(std::lower_bound(begin, end, static_cast<int>(row)) - m.innerIndexPtr());
}

}  // namespace

NodeLeastSquares::NodeLeastSquares(const GridLayout& grid, const TrainingSet& set, const CornerStructure& structure,
                                   const NodePrior& prior)
    : set_(set), structure_(structure), prior_(prior) {
    auto pattern = std::make_shared<Pattern>();
    std::vector<Eigen::Triplet<double, int>> entries;
    for (std::size_t k = 0; k < grid.nodes; ++k) entries.emplace_back(int(k), int(k), 0.0);
    for (std::size_t r = 0; r < set.Count(); ++r)
        for (std::size_t a = structure.cornerStart[r]; a < structure.cornerStart[r + 1]; ++a)
            for (std::size_t b = structure.cornerStart[r]; b < a; ++b)
                entries.emplace_back(int(structure.node[a]), int(structure.node[b]), 0.0);
    pattern->matrix.resize(int(grid.nodes), int(grid.nodes));
    // Duplicates collapse into one stored entry (their zeros summed).
    pattern->matrix.setFromTriplets(entries.begin(), entries.end());
    pattern->matrix.makeCompressed();
    const SparseMatrix& m = pattern->matrix;
    for (std::size_t k = 0; k < grid.nodes; ++k) pattern->diagonal.push_back(Position(m, k, k));
    for (std::size_t r = 0; r < set.Count(); ++r)
        for (std::size_t a = structure.cornerStart[r]; a < structure.cornerStart[r + 1]; ++a)
            for (std::size_t b = structure.cornerStart[r]; b <= a; ++b)
                pattern->rowPairs.push_back(Position(m, structure.node[a], structure.node[b]));
    pattern_ = pattern;
    solver_.reset(new Solver(pattern_->matrix));
}

NodeLeastSquares::NodeLeastSquares(const NodeLeastSquares& other)
    : set_(other.set_),
      structure_(other.structure_),
      prior_(other.prior_),
      pattern_(other.pattern_),
      solver_(new Solver(other.pattern_->matrix)) {}

NodeLeastSquares::~NodeLeastSquares() = default;

void NodeLeastSquares::UpdateYuleNielsen(double n) {
    if (ynExponent_ == n && yn_.size() == set_.reflectance.size()) return;
    const double inv = 1.0 / n;
    yn_.resize(set_.reflectance.size());
    for (std::size_t i = 0; i < yn_.size(); ++i) yn_[i] = std::pow(set_.reflectance[i], inv);
    priorYn_.resize(prior_.reflectance.size());
    for (std::size_t i = 0; i < priorYn_.size(); ++i) priorYn_[i] = std::pow(prior_.reflectance[i], inv);
    ynExponent_ = n;
}

bool NodeLeastSquares::Solve(double n, const std::vector<double>& weights, std::vector<double>& nodes) {
    UpdateYuleNielsen(n);
    SparseMatrix& m = solver_->matrix;
    double* value = m.valuePtr();
    std::fill(value, value + m.nonZeros(), 0.0);
    const std::size_t count = static_cast<std::size_t>(m.rows());
    Eigen::Matrix<double, Eigen::Dynamic, kBands> rhs = Eigen::Matrix<double, Eigen::Dynamic, kBands>::Zero(count, kBands);
    const int* pair = pattern_->rowPairs.data();
    for (std::size_t r = 0; r < set_.Count(); ++r) {
        const std::size_t first = structure_.cornerStart[r], last = structure_.cornerStart[r + 1];
        const double* y = &yn_[r * kBands];
        for (std::size_t a = first; a < last; ++a) {
            const double da = weights[a];
            for (std::size_t b = first; b <= a; ++b) value[*pair++] += da * weights[b];
            const std::size_t node = structure_.node[a];
            for (unsigned int w = 0; w < kBands; ++w) rhs(node, w) += da * y[w];
        }
    }
    for (std::size_t k = 0; k < prior_.weight.size(); ++k) {
        const double p = prior_.weight[k];
        if (!(p > 0.0)) continue;
        value[pattern_->diagonal[k]] += p;
        for (unsigned int w = 0; w < kBands; ++w) rhs(k, w) += p * priorYn_[k * kBands + w];
    }
    solver_->llt.factorize(m);
    if (solver_->llt.info() != Eigen::Success) return false;
    const Eigen::Matrix<double, Eigen::Dynamic, kBands> x = solver_->llt.solve(rhs);
    if (solver_->llt.info() != Eigen::Success || !x.allFinite()) return false;
    nodes.resize(count * kBands);
    for (std::size_t k = 0; k < count; ++k)
        for (unsigned int w = 0; w < kBands; ++w) nodes[k * kBands + w] = x(k, w);
    return true;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
