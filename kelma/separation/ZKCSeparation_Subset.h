// One ink subset of a separation: black and three other inks of the model,
// the others held at 0, with the limits, and the searches on its continuous
// colour (ZKCSeparation_Evaluator).
//
// Units: ink amounts in byte units (255 = 100 %), as doubles; colours in
// CIELAB; residuals are Euclidean CIELAB distances (Delta E*ab).
//
// The feasible set of a subset is the polytope
//   0 <= x_i <= 255 (the three non-black inks), 0 <= x_K <= black limit,
//   sum of the four <= total limit,
// with both limits whole bytes (floor(2.55 x percent), so that every byte
// vector at or below a feasible point is feasible too).
//
// Thread safety: const member functions only read; one object serves every
// thread.
#pragma once

#include <vector>

#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/separation/ZKCSeparation_Evaluator.h"

namespace KELMA_NAMESPACE {

// A point of the subset: its four ink amounts, subset order (ascending model
// ink index; black at ZKCSeparation_Subset::Black()).
struct ZKSSubsetPoint {
    double x[4];
};

class ZKCSeparation_Subset {
public:
    // code: the subset's ink mask over the model (4 bits, black among them;
    // 0xFFFFFFFF for a 4-ink model). blackInk: the model's black ink.
    // limits in bytes: totalLimit for the sum, blackLimit for black.
    ZKCSeparation_Subset(const ZKCSSE_KELMA_Data& model, unsigned int code, unsigned int blackInk,
                         unsigned long illuminant, bool mediaRelative, double totalLimit, double blackLimit);
    virtual ~ZKCSeparation_Subset();

    unsigned int Code() const { return code_; }
    // Model ink index of subset ink j.
    unsigned int ModelInk(unsigned int j) const { return modelInk_[j]; }
    unsigned int Black() const { return black_; }
    double TotalLimit() const { return total_; }
    double BlackLimit() const { return blackLimit_; }
    const ZKCSeparation_Evaluator& Evaluator() const { return evaluator_; }

    bool Lab(const double* x, double* lab, double* jac) const { return evaluator_.Lab(x, lab, jac); }

    // Nearest reachable colour: minimises |Lab(x) - target| over the feasible
    // set with black further held in [blackLow, blackHigh], from the start in
    // x (moved into the set first) by projected Gauss-Newton steps with an
    // active set. x receives the best point found (always feasible); returns
    // its residual. A target within `stop` is accepted at once.
    double LeastSquares(const double* target, double* x, double blackLow, double blackHigh,
                        double stop = 5e-5) const;

    // The three non-black inks that give `target` with black k, by Newton's
    // method from the amounts in x (black is set to k). No limits are applied
    // (the amounts may leave 0..255 slightly); false when it does not
    // converge to 5e-5 (Delta E*ab).
    bool SolveAtBlack(const double* target, double k, double* x) const;

    // The range of black over which the target stays reachable inside the
    // limits, found by following the curve of solutions (the non-black inks
    // as functions of black) from the solution x in both directions until a
    // limit stops it: an ink reaching 0 or 255, the sum reaching its limit,
    // or black reaching 0 or its limit. The constraints are met to 0.01 byte.
    // Returns false when x is not on the curve (then min = max = x's black).
    // path receives the solutions met, ordered by black.
    struct ZKSBlackRange {
        double kMin, kMax;
        std::vector<ZKSSubsetPoint> path;
    };
    bool BlackRange(const double* target, const double* x, ZKSBlackRange& range) const;

    // The solution on the range's curve at black k (kMin <= k <= kMax): Newton
    // from the path's interpolation, kept within the limits.
    ZKSSubsetPoint PointAtBlack(const double* target, const ZKSBlackRange& range, double k) const;

    // Limit margins of the non-black inks and the sum at a point (>= 0 inside).
    double Slack(const double* x) const;
    // Moves x into the feasible set with black in [blackLow, blackHigh]
    // (Euclidean projection).
    void Project(double* x, double blackLow, double blackHigh) const;

private:
    bool Trace(const double* target, ZKSSubsetPoint start, int direction, std::vector<ZKSSubsetPoint>& path) const;

    ZKCSeparation_Evaluator evaluator_;
    unsigned int code_;
    unsigned int modelInk_[4];
    unsigned int black_;
    double total_;
    double blackLimit_;
};

}  // namespace KELMA_NAMESPACE
