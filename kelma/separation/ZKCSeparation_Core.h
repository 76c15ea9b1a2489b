// The shared, immutable state of a ZKCSeparation and the per-colour work:
// reachability over the ink subsets, gamut mapping, black generation and the
// byte candidates. Internal to the separation subsystem.
#pragma once

#include <memory>
#include <vector>

#include "kelma/clut/ZKCUserParameter_Output.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/separation/ZKCSeparation.h"
#include "kelma/separation/ZKCSeparation_Samples.h"
#include "kelma/separation/ZKCSeparation_Subset.h"

namespace KELMA_NAMESPACE {

// A colour counts as reachable within this many Delta E*ab.
constexpr double kSeparationReachTolerance = 1e-3;
// The gamut boundary is bracketed to this width along the mapping ray.
constexpr double kSeparationBoundaryTolerance = 0.01;

struct ZKCSeparation::Core {
    Core(const ZKCSSE_KELMA_Data& model, const ZKCUserParameter_Output& parameters, unsigned long illuminant,
         bool mediaRelative);

    // Warm starts carried from one colour to the next along a table line.
    struct Context {
        std::vector<ZKSSubsetPoint> warm;
        std::vector<bool> hasWarm;
        bool hasRay = false;
        double lastS = 0;
        // Per subset: the distance of its gamut from a colour searched
        // before (a local search's residual, so at least the true distance
        // wherever that search found the nearest point), for skipping subsets
        // that cannot reach colours close to it.
        std::vector<double> distance;
        std::vector<double> distanceFrom;
        explicit Context(std::size_t subsets)
            : warm(subsets), hasWarm(subsets, false), distance(subsets, 0.0), distanceFrom(3 * subsets, 0.0) {}
    };

    // Reachability of t: in gamut -> true with the subset and solution; out
    // of gamut -> false with the nearest colour found and its distance.
    struct Reach {
        unsigned int subset = 0;
        ZKSSubsetPoint x{};
        double nearest[3] = {0, 0, 0};
        double residual = 0;
        bool found = false;  // any subset searched (nearest is meaningful)
    };
    // restart: search again from other black bands when the first search
    // ends short (for colours whose warm start is not a close neighbour).
    bool Reachable(const double* t, Context& ctx, Reach& reach, bool restart) const;

    // Gamut mapping of an out-of-gamut colour (reach: its failed Reachable).
    void Map(const double* t, const Reach& outside, Context& ctx, double* mapped, Reach& inside) const;

    // Replaces a colour that is not reachable by a reachable one near it.
    void Settle(double* colour, Context& ctx, Reach& reach) const;

    // The continuous separation of one colour and its byte candidates
    // (appended, N bytes each).
    void Solve(const double* t, Context& ctx, ZKSSeparationResult& result,
               std::vector<unsigned char>& candidates) const;

    // The continuous separation of an in-gamut colour (model order, 7
    // values); false, with nothing computed, when it is out of gamut.
    bool SolveInGamut(const double* t, Context& ctx, double* inks) const;

    // Chooses each result's bytes among its candidates by the library's
    // prediction; candidateCount[i] candidates belong to result i, in order.
    void ChooseBytes(std::size_t count, ZKSSeparationResult* results, const std::vector<unsigned char>& candidates,
                     const std::vector<unsigned int>& candidateCount) const;

    double BlackAmount(double kMin, double kMax, double lightness) const;
    // The colour of least L* reached from x in the subset (projected
    // steepest descent of L*).
    void Darkest(const ZKCSeparation_Subset& sub, ZKSSubsetPoint x, double* lab) const;
    // The subsets in the order they are tried for colour t; returns their count.
    std::size_t SubsetOrder(const double* t, std::size_t* order) const;
    void Anchor(double lightness, double* anchor) const;

    ZKCSSE_KELMA_Data model;
    unsigned long illuminant;
    bool mediaRelative;
    unsigned int inks;
    unsigned int totalLimit;
    unsigned int blackLimit;
    bool isGCR;
    double gcr, blackLength, blackWidth;
    std::vector<unsigned int> codes;
    std::vector<std::shared_ptr<const ZKCSeparation_Subset>> subsets;
    std::vector<std::shared_ptr<const ZKCSeparation_Samples>> samples;
    // The whole model (all inks), for derivatives across subsets.
    std::shared_ptr<const ZKCSeparation_Evaluator> full;
    std::vector<double> inkHue;               // radians, each ink's solid about the paper
    std::vector<std::size_t> naturalSubset;   // per extra ink: CMYK with its complement replaced
    double paper[3];
    double blackPoint[3];
};

}  // namespace KELMA_NAMESPACE
