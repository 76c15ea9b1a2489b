// Separation: the ink amounts that reproduce CIELAB colours on a printer
// model of 4, 6 or 7 inks, under the limits and black generation of a
// ZKCUserParameter_Output, for one illuminant of the model, relative to the
// illuminant's white or to the paper. The inverse of the prediction.
//
// Inks and limits
//  - Ink order is the model's: C, M, Y, K first, further inks after; black
//    is ink 3. Amounts are bytes (255 = 100 %).
//  - Limits in bytes: total = floor(255 x ColorantCoverage / 100), black =
//    min(255, floor(255 x MaxBlack / 100)). Every byte vector this class
//    returns has a sum <= total and black <= black limit, and so does every
//    output of its CLUTs (their interpolation is a convex combination of
//    nodes, each output rounded down). A coverage of 0 leaves nothing but the
//    paper: the constructor throws "Limits leave no gamut".
//
// Ink subsets
//  - A 4-ink model is separated with all four inks. A 6- or 7-ink model is
//    separated, per colour, with black and three other inks (the others at
//    0): the first subset that reaches the colour, tried in this order:
//      1. CMYK;
//      2. for each extra ink (4, 5, 6), nearest in hue to the colour first:
//         CMYK with the ink of C, M, Y farthest from the extra ink in hue
//         replaced by it (its complement: orange replaces cyan, green
//         magenta, violet yellow);
//      3. every other subset of black and three inks, in a fixed order (one
//         of C, M, Y replaced by one extra ink, C first and extra inks in
//         model order; then two replaced; then all three).
//    Hues are those of the solid inks and of the colour about the paper and
//    the grey axis (below). So CMYK colours are separated exactly as the
//    CMYK sub-model would separate them, extra inks are used only where CMYK
//    cannot reach the colour, and where a CMYK solution loses its
//    complementary ink at the CMYK gamut's edge the next subset continues it
//    without a jump. The gamut is the union of the subsets' gamuts (each
//    under the same limits): colours that need four non-black inks at once
//    are outside it.
//  - Other ink counts throw "DefaultCase", as does a GamutMapperMethod other
//    than 0.
//
// Reachability ("in gamut"): a colour is in gamut when some subset has a
// point inside the limits whose colour (ZKCSeparation_Evaluator: the model
// between byte levels) is within 0.001 Delta E*ab of it. In-gamut colours
// are reproduced by the continuous solution to that accuracy, before the
// bytes are chosen. The point is found by least squares from device samples
// of the subset (ZKCSeparation_Samples), restarted from every band of black
// that may reach the colour.
//
// Black generation, for the colour to reproduce (the target, or its mapped
// colour) and its subset: [Kmin, Kmax] is the range of black over which it is
// reachable within the limits, found by following the curve of its
// solutions (the other three inks as functions of black, unique where the
// subset's colour is invertible) until a limit stops it.
//  - GCR mode: K = Kmin + min(GCR, 100) / 100 x (Kmax - Kmin). GCR 0 gives
//    Kmin, GCR 100 gives Kmax.
//  - Black length/width mode: with D = 100 x (L_paper - L*) / (L_paper -
//    L_black) clamped to 0..100 (the darkness of the colour on the scale
//    from the paper, 0, to the darkest reachable colour, 100), z = (D -
//    BlackLength) / BlackWidth and the smoothstep s(z) = 0 for z <= 0,
//    3 z^2 - 2 z^3 for 0 < z < 1, 1 for z >= 1:
//        K = Kmin + s(z) x (Kmax - Kmin).
//    Black starts at darkness BlackLength and reaches Kmax at BlackLength +
//    BlackWidth; a width of 0 is the step s = (D > BlackLength).
//  - NoneBlackColorantCoverageSteps has no meaning here and is ignored: the
//    other inks are solved as continuous amounts and then chosen byte by
//    byte, so there are no coverage steps to count.
//  - The bytes then hold black within one byte of K (see below).
//
// Gamut mapping, method 0 (the only one). In-gamut colours are kept. For any
// other colour T = (L*, a*, b*):
//  - the grey axis is the straight segment from the paper P (all inks 0) to
//    the darkest reachable colour B (the least L* inside the limits);
//  - when L* is above L*(P) or below L*(B), T maps to P or B: no other
//    colour has that lightness;
//  - otherwise the anchor A is the point of the grey axis with lightness
//    L*, u the unit vector of (a* - a*(A), b* - b*(A)) (T's hue about the
//    grey axis; (1, 0) when T lies on it), and T maps to
//        M = A + s* (0, u),  s* the largest s for which A + s (0, u) is in
//    gamut: the most chromatic reproducible colour of T's lightness in T's
//    hue direction. It keeps T's lightness, lies on the gamut boundary and
//    is in gamut.
//  - s* is bracketed to 0.01: M is in gamut and a point at most 0.01 farther
//    along the ray was found out of gamut. A colour close to the gamut
//    (within 2.56 of it) is first stepped back from along the ray (by 0.01,
//    0.04, ... 2.56), so that the crossing found is the one next to it; the
//    bracket then closes between the anchor's side and the target's. The
//    search assumes that the gamut's constant-lightness sections are
//    star-shaped about the grey axis, so that the crossing it brackets is the
//    last one; where the total limit folds a dark section, the crossing next
//    to the colour is taken.
//  In media-relative colour the paper is L* 100, a* = b* = 0.
//
// Bytes: the continuous solution x is turned into bytes by predicting, with
// the library's prediction (PredictColorimetry), the candidates
//  - every rounding down or up of each of the subset's four inks, and
//  - with black rounded down or up to a whole byte and the other three inks
//    solved again for that black, every rounding of those three,
// that meet the limits (rounding every ink down always does), and taking the
// one of least CIEDE2000 from the colour to reproduce (the first on ties).
//
// CLUTs: node tables for ZKCWorkerCLUT_3x4_InLAB / _3x7_InLAB: n^3 nodes in
// their order (L* outermost, b* innermost), N bytes each; node g of the L*
// axis is L* = 100 g / (n - 1); node g of the a* and b* axes is the value
// its input map puts there: 256 g / (n - 1) - 128 while that is <= 0 (128 on
// the middle node when n is odd), else 254 g / (n - 1) - 128.
//  - Every node first holds the bytes the batch call gives its colour (its
//    mapped colour's when out of gamut).
//  - Then the table is fitted where the gamut is: the separation is also
//    computed halfway between nodes (the grid of half the spacing) in the
//    cells that have an in-gamut corner and in the cells around them, and
//    the nodes of those cells get the least-squares values with which the
//    table's multilinear interpolation reproduces the in-gamut separations,
//    each residual weighted by its colour (J^T J + 0.001 I, J the colour's
//    derivatives by the inks there, in Delta E*ab per byte), with a small
//    second-difference penalty (1e-4) and every ink kept within 0..255
//    (black within its limit) (ZKCSeparation_TableFit.h); then moved into
//    the total limit and stored as round(v + 1/2) bytes (the workers truncate
//    their interpolated outputs, half a byte down on average). A fitted node
//    may so hold inks of two subsets, and its black follows the black
//    generation only as far as colour accuracy allows.
//  So in-gamut colours are reproduced also in cells that straddle the gamut
//  boundary, where interpolating toward mapped colours would pull them
//  toward the boundary; out-of-gamut colours in those cells get the fitted
//  extension rather than their mapped colour's inks. Every node, and so
//  every output of the table, meets the limits.
//
// Results depend on nothing but the colour and the settings: not on batch
// size, position or thread count. Tables are built line by line along b*,
// each node starting its searches from its solved neighbour (the results
// are those of a cold start up to the searches' tolerances, and the choices
// stay on one branch of solutions along a line); lines are independent, so
// tables do not depend on the thread count either.
//
// NaN policy: the batch calls throw "Non-finite CIELAB" for any non-finite
// input component before computing anything.
//
// Threads: every batch call and table build runs on CPUCount() threads
// (SplitWork, ZKCWorkerThreads). A constructed object is immutable; copies
// share it; const calls may run concurrently.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "kelma/clut/ZKCUserParameter_Output.h"
#include "kelma/common/Types.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

class ZKCWorkerCLUT_Thread;

// Everything the separation decided for one colour.
struct KELMA_API ZKSSeparationResult {
    bool inGamut = false;           // the colour itself is reachable
    double mapped[3] = {0, 0, 0};   // the colour reproduced: the target or its mapped colour
    unsigned int code = 0;          // the ink subset used (model ink mask)
    double kMin = 0, kMax = 0;      // black range of the colour in that subset (bytes)
    double black = 0;               // black chosen by black generation (bytes)
    double inks[7] = {0, 0, 0, 0, 0, 0, 0};  // continuous solution, model order (bytes)
    unsigned char bytes[7] = {0, 0, 0, 0, 0, 0, 0};  // the chosen bytes
    double deltaE = 0;              // CIEDE2000 from mapped to the prediction of bytes
};

// The smoothness figure of a node table: over every grid line along each
// of the three axes and every node g with both neighbours, the second
// difference |v[g-1] - 2 v[g] + v[g+1]| of each ink, in percent (100/255
// per byte). max, 99th percentile and mean over all of them; inGamutMax and
// inGamutP99: over the triples of nodes whose colours are all in gamut.
struct KELMA_API ZKSTableSmoothness {
    double max = 0, p99 = 0, mean = 0, inGamutMax = 0, inGamutP99 = 0;
};

class KELMA_API ZKCSeparation {
public:
    // illuminant indexes the model's lighting matrix ("Invalid
    // IlluminantIndex"); mediaRelative: CIELAB relative to the paper.
    ZKCSeparation(const ZKCSSE_KELMA_Data& model, const ZKCUserParameter_Output& parameters,
                  unsigned long illuminant, bool mediaRelative);
    virtual ~ZKCSeparation();

    unsigned int NumberOfInks() const;
    unsigned int BlackInk() const { return 3; }
    unsigned int TotalLimit() const;  // bytes
    unsigned int BlackLimit() const;  // bytes
    // CIELAB of the paper and of the darkest reachable colour (3 doubles).
    const double* PaperCIELAB() const;
    const double* BlackPointCIELAB() const;
    // The ink subsets in the order they are tried.
    const std::vector<unsigned int>& SubsetCodes() const;

    // count CIELAB colours (3 floats each) -> count x N ink bytes.
    void Separate(const float* lab, std::size_t count, unsigned char* inks) const;
    // The same with every decision reported.
    void Analyse(const double* lab, std::size_t count, ZKSSeparationResult* results) const;
    // Whether each colour is reachable.
    void InGamut(const double* lab, std::size_t count, bool* inGamut) const;
    // The colour each is reproduced as (itself when in gamut), 3 doubles each.
    void GamutMap(const double* lab, std::size_t count, double* mapped) const;

    // Black for a black range and a lightness, by the black-generation rule.
    double BlackAmount(double kMin, double kMax, double lightness) const;

    // The node table of a CIELAB-input CLUT of gridPoints (2..256) nodes per
    // axis: gridPoints^3 x N bytes in node order. inGamut, when not null,
    // receives one flag per node.
    std::vector<unsigned char> NodeTable(unsigned int gridPoints, std::vector<bool>* inGamut = nullptr) const;
    // A ready CLUT driver from NodeTable: CIELAB bytes (L* 2.55, a* + 128,
    // b* + 128) in, N ink bytes out (ZKCWorkerCLUT_3x4_InLAB for 4 inks,
    // ZKCWorkerCLUT_3x7_InLAB for 7; 6 inks have no such worker:
    // "DefaultCase").
    std::unique_ptr<ZKCWorkerCLUT_Thread> CLUT(CLUT_ACCURACY accuracy) const;

    // CIELAB component of node g on an axis (0 = L*, 1 = a*, 2 = b*) of a
    // table of gridPoints nodes per axis.
    static double NodeCIELAB(unsigned int axis, unsigned int g, unsigned int gridPoints);
    static ZKSTableSmoothness TableSmoothness(const unsigned char* nodes, unsigned int gridPoints,
                                              unsigned int inks, const std::vector<bool>* inGamut);

    struct Core;

private:
    void FitBoundaryAndInside(unsigned int gridPoints, const std::vector<ZKSSeparationResult>& results,
                              std::vector<unsigned char>& table) const;

    std::shared_ptr<const Core> core_;
};

}  // namespace KELMA_NAMESPACE
