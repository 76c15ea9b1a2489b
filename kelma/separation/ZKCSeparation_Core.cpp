#include "kelma/separation/ZKCSeparation_Core.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "kelma/colorimetry/CIEDE2000.h"
#include "kelma/common/LibraryErrors.h"
#include "kelma/prediction/PredictColorimetry.h"

namespace KELMA_NAMESPACE {

namespace {

double Distance(const double* a, const double* b) {
    const double d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
    return std::sqrt(d0 * d0 + d1 * d1 + d2 * d2);
}

// A subset whose gamut was found farther from an earlier colour than the new
// colour is from that one, by more than this margin, cannot reach the new
// colour (triangle inequality) and is not searched.
constexpr double kSeparationSkipMargin = 1.0;

constexpr double kPi = 3.14159265358979323846;

// Levels per ink of the device samples of each subset.
constexpr unsigned int kSampleLevels = 9;

// Index sets of size r from 0..n-1 in lexicographic order.
std::vector<std::vector<unsigned int>> Combinations(unsigned int n, unsigned int r) {
    std::vector<std::vector<unsigned int>> out;
    std::vector<unsigned int> pick(r);
    for (unsigned int i = 0; i < r; ++i) pick[i] = i;
    if (r > n) return out;
    while (true) {
        out.push_back(pick);
        int i = static_cast<int>(r) - 1;
        while (i >= 0 && pick[i] == n - r + i) --i;
        if (i < 0) return out;
        ++pick[i];
        for (unsigned int j = i + 1; j < r; ++j) pick[j] = pick[j - 1] + 1;
    }
}

// Subset codes in the order they are tried (see ZKCSeparation.h): CMYK, then
// r = 1, 2, 3 of C, M, Y replaced by r extra inks, the replaced inks and the
// extra inks each in lexicographic order.
std::vector<unsigned int> SubsetCodesFor(unsigned int inks) {
    if (inks == 4) return {0xFFFFFFFFu};
    const unsigned int extras = inks - 4;
    std::vector<unsigned int> codes{0x0Fu};
    for (unsigned int r = 1; r <= 3; ++r) {
        for (const auto& replaced : Combinations(3, r)) {
            for (const auto& extra : Combinations(extras, r)) {
                unsigned int code = 0x0Fu;
                for (unsigned int i : replaced) code &= ~(1u << i);
                for (unsigned int e : extra) code |= 1u << (4 + e);
                codes.push_back(code);
            }
        }
    }
    return codes;
}

// floor(255 x percent / 100) in integers (percentages beyond 10^6 cap there).
unsigned int LimitBytes(unsigned long percent) {
    const unsigned long long p = std::min<unsigned long long>(percent, 1000000ull);
    return static_cast<unsigned int>(255ull * p / 100ull);
}

}  // namespace

ZKCSeparation::Core::Core(const ZKCSSE_KELMA_Data& m, const ZKCUserParameter_Output& p, unsigned long illum,
                          bool relative)
    : model(m), illuminant(illum), mediaRelative(relative), inks(m.NumberOfInks()) {
    if (inks != 4 && inks != 6 && inks != 7) throw kErrorDefaultCase;
    if (p.GamutMapperMethod() != GAMUTMAPPER_DEFAULT) throw kErrorDefaultCase;
    totalLimit = LimitBytes(p.ColorantCoverage());
    blackLimit = std::min(255u, LimitBytes(p.MaxBlack()));
    if (totalLimit == 0) throw kErrorLimitsLeaveNoGamut;
    totalLimit = std::min(totalLimit, 255u * inks);
    isGCR = p.IsGCR();
    gcr = std::min<unsigned long>(p.GCR(), 100ul);
    blackLength = static_cast<double>(p.BlackLength());
    blackWidth = static_cast<double>(p.BlackWidth());
    codes = SubsetCodesFor(inks);
    full = std::make_shared<ZKCSeparation_Evaluator>(model, illuminant, mediaRelative);
    for (unsigned int code : codes)
        subsets.push_back(std::make_shared<ZKCSeparation_Subset>(model, code, 3u, illuminant, mediaRelative,
                                                                 static_cast<double>(totalLimit),
                                                                 static_cast<double>(blackLimit)));

    // Device samples of every subset.
    for (std::size_t s = 0; s < subsets.size(); ++s)
        samples.push_back(std::make_shared<ZKCSeparation_Samples>(*subsets[s], kSampleLevels));

    // Paper: all inks 0.
    const double zero[4] = {0, 0, 0, 0};
    subsets[0]->Lab(zero, paper, nullptr);

    // Hue of each ink's solid about the paper, and for each extra ink the
    // subset in which it replaces the base ink farthest from it in hue.
    inkHue.assign(inks, 0.0);
    for (unsigned int ink = 0; ink < inks; ++ink) {
        for (std::size_t s = 0; s < subsets.size(); ++s) {
            const ZKCSeparation_Subset& sub = *subsets[s];
            double x[4] = {0, 0, 0, 0}, lab[3];
            unsigned int j = 0;
            while (j < 4 && sub.ModelInk(j) != ink) ++j;
            if (j == 4) continue;
            x[j] = 255.0;
            if (sub.Lab(x, lab, nullptr)) inkHue[ink] = std::atan2(lab[2] - paper[2], lab[1] - paper[1]);
            break;
        }
    }
    for (unsigned int e = 4; e < inks; ++e) {
        unsigned int replaced = 0;
        double farthest = -1.0;
        for (unsigned int b = 0; b < 3; ++b) {
            const double d = std::fabs(std::remainder(inkHue[e] - inkHue[b], 2.0 * kPi));
            if (d > farthest) {
                farthest = d;
                replaced = b;
            }
        }
        const unsigned int code = (0x0Fu & ~(1u << replaced)) | (1u << e);
        naturalSubset.push_back(static_cast<std::size_t>(std::find(codes.begin(), codes.end(), code) - codes.begin()));
    }

    // Darkest colour: the least L* inside the limits, by projected steepest
    // descent in each subset from its darkest sample (subsets whose darkest
    // sample is 5 L* above the darkest found are skipped).
    std::vector<std::size_t> order(subsets.size());
    std::vector<double> sampleL(subsets.size(), std::numeric_limits<double>::infinity());
    std::vector<std::size_t> sampleAt(subsets.size(), 0);
    for (std::size_t s = 0; s < subsets.size(); ++s) {
        order[s] = s;
        for (std::size_t i = 0; i < samples[s]->Size(); ++i)
            if (samples[s]->Lab(i)[0] < sampleL[s]) {
                sampleL[s] = samples[s]->Lab(i)[0];
                sampleAt[s] = i;
            }
    }
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return sampleL[a] < sampleL[b]; });
    blackPoint[0] = std::numeric_limits<double>::infinity();
    for (std::size_t s : order) {
        if (samples[s]->Size() == 0 || sampleL[s] > blackPoint[0] + 5.0) continue;
        double lab[3];
        Darkest(*subsets[s], samples[s]->Point(sampleAt[s]), lab);
        if (lab[0] < blackPoint[0]) std::copy(lab, lab + 3, blackPoint);
    }
}

void ZKCSeparation::Core::Darkest(const ZKCSeparation_Subset& sub, ZKSSubsetPoint x, double* lab) const {
    double J[12];
    sub.Lab(x.x, lab, J);
    double step = 16.0;
    for (int it = 0; it < 2000 && step > 1e-6; ++it) {
        const double norm = std::sqrt(J[0] * J[0] + J[1] * J[1] + J[2] * J[2] + J[3] * J[3]);
        if (!(norm > 0.0)) break;
        ZKSSubsetPoint y = x;
        for (unsigned int j = 0; j < 4; ++j) y.x[j] -= step * J[j] / norm;
        sub.Project(y.x, 0.0, blackLimit);
        double labY[3], JY[12];
        if (sub.Lab(y.x, labY, JY) && labY[0] < lab[0] - 1e-12) {
            x = y;
            std::copy(labY, labY + 3, lab);
            std::copy(JY, JY + 12, J);
            step *= 1.5;
        } else {
            step *= 0.5;
        }
    }
}

void ZKCSeparation::Core::Anchor(double lightness, double* anchor) const {
    const double span = paper[0] - blackPoint[0];
    const double l = std::min(std::max(lightness, blackPoint[0]), paper[0]);
    const double t = span > 0.0 ? (paper[0] - l) / span : 0.0;
    anchor[0] = l;
    anchor[1] = paper[1] + t * (blackPoint[1] - paper[1]);
    anchor[2] = paper[2] + t * (blackPoint[2] - paper[2]);
}

std::size_t ZKCSeparation::Core::SubsetOrder(const double* t, std::size_t* order) const {
    const std::size_t n = subsets.size();
    order[0] = 0;
    if (n == 1) return 1;
    // The extra inks' own subsets, nearest in hue first, then the rest in
    // their fixed order.
    double A[3];
    Anchor(t[0], A);
    const double hue = std::atan2(t[2] - A[2], t[1] - A[1]);
    std::size_t k = 1;
    std::size_t extra[3];
    const std::size_t extras = inks - 4;
    for (std::size_t e = 0; e < extras; ++e) extra[e] = e;
    auto distance = [&](std::size_t e) {
        const double d = std::fabs(std::remainder(hue - inkHue[4 + e], 2.0 * kPi));
        return d;
    };
    std::stable_sort(extra, extra + extras, [&](std::size_t a, std::size_t b) { return distance(a) < distance(b); });
    for (std::size_t e = 0; e < extras; ++e) order[k++] = naturalSubset[extra[e]];
    for (std::size_t s = 1; s < n; ++s)
        if (std::find(order, order + k, s) == order + k) order[k++] = s;
    return k;
}

double ZKCSeparation::Core::BlackAmount(double kMin, double kMax, double lightness) const {
    double s;
    if (isGCR) {
        s = gcr / 100.0;
    } else {
        const double span = paper[0] - blackPoint[0];
        double darkness = span > 0.0 ? 100.0 * (paper[0] - lightness) / span : 0.0;
        darkness = std::min(std::max(darkness, 0.0), 100.0);
        if (blackWidth <= 0.0) {
            s = darkness > blackLength ? 1.0 : 0.0;
        } else {
            const double z = (darkness - blackLength) / blackWidth;
            s = z <= 0.0 ? 0.0 : (z >= 1.0 ? 1.0 : z * z * (3.0 - 2.0 * z));
        }
    }
    return kMin + s * (kMax - kMin);
}

bool ZKCSeparation::Core::Reachable(const double* t, Context& ctx, Reach& reach, bool restart) const {
    reach.found = false;
    reach.residual = std::numeric_limits<double>::infinity();
    std::size_t order[32];
    const std::size_t count = SubsetOrder(t, order);
    for (std::size_t o = 0; o < count; ++o) {
        const std::size_t s = order[o];
        const ZKCSeparation_Subset& sub = *subsets[s];
        const ZKCSeparation_Samples& set = *samples[s];
        // Out of this subset's reach: no search.
        const unsigned int bands = set.ReachBands(t);
        if (bands == 0) continue;
        // Far from this subset's gamut by the triangle inequality (with a
        // margin for searches that stopped at a local minimum).
        if (ctx.distance[s] > 0.0 &&
            ctx.distance[s] - Distance(t, &ctx.distanceFrom[3 * s]) > kSeparationSkipMargin)
            continue;
        // From the warm start (the neighbour's solution) or the nearest
        // sample; when that ends short of the colour, again from the nearest
        // grid point of every black band that may reach it.
        ZKSSubsetPoint x;
        double dNear = 0.0;
        long first = -1;
        if (ctx.hasWarm[s]) {
            x = ctx.warm[s];
        } else {
            first = set.Nearest(t, &dNear);
            if (first < 0) continue;
            x = set.Point(static_cast<std::size_t>(first));
        }
        double r = sub.LeastSquares(t, x.x, 0.0, static_cast<double>(blackLimit));
        for (unsigned int b = 0; restart && b < 8 && r > kSeparationReachTolerance; ++b) {
            if (((bands >> b) & 1u) == 0) continue;
            double d0 = 0.0, d1 = 0.0;
            const long i0 = set.NearestAtLevel(t, b, &d0);
            const long i1 = b + 1 < set.BlackLevels() ? set.NearestAtLevel(t, b + 1, &d1) : -1;
            const long start = i1 < 0 || (i0 >= 0 && d0 <= d1) ? i0 : i1;
            if (start < 0 || start == first) continue;
            ZKSSubsetPoint y = set.Point(static_cast<std::size_t>(start));
            const double ry = sub.LeastSquares(t, y.x, 0.0, static_cast<double>(blackLimit));
            if (ry < r) {
                r = ry;
                x = y;
            }
        }
        ctx.warm[s] = x;
        ctx.hasWarm[s] = true;
        ctx.distance[s] = r;
        std::copy(t, t + 3, &ctx.distanceFrom[3 * s]);
        if (r < reach.residual) {
            reach.residual = r;
            sub.Lab(x.x, reach.nearest, nullptr);
            reach.found = true;
            reach.subset = static_cast<unsigned int>(s);
            reach.x = x;
        }
        if (r <= kSeparationReachTolerance) {
            reach.subset = static_cast<unsigned int>(s);
            reach.x = x;
            return true;
        }
    }
    return false;
}

void ZKCSeparation::Core::Map(const double* t, const Reach& outside, Context& ctx, double* mapped,
                              Reach& inside) const {
    double A[3];
    Anchor(t[0], A);
    // Lightness beyond the paper or the darkest colour: those colours are
    // the only ones of their lightness.
    if (A[0] != t[0]) {
        std::copy(A, A + 3, mapped);
        if (!Reachable(mapped, ctx, inside, true)) Settle(mapped, ctx, inside);
        return;
    }
    double u[2] = {t[1] - A[1], t[2] - A[2]};
    const double sT = std::hypot(u[0], u[1]);
    if (sT > 0.0) {
        u[0] /= sT;
        u[1] /= sT;
    } else {
        u[0] = 1.0;
        u[1] = 0.0;
    }
    auto point = [&](double s, double* q) {
        q[0] = A[0];
        q[1] = A[1] + s * u[0];
        q[2] = A[2] + s * u[1];
    };
    const double tol = kSeparationBoundaryTolerance;
    // lo: in gamut (the anchor, s = 0, on the grey axis); hi: out of gamut
    // (the target itself, s = sT).
    double lo = 0.0, hi = sT;
    bool haveLo = false;
    Reach loReach, hiReach = outside;
    double q[3];
    bool restart = true;  // the first search does not start near its colour
    auto test = [&](double s) {
        point(s, q);
        Reach r;
        const bool in = Reachable(q, ctx, r, restart);
        restart = false;
        if (in) {
            lo = s;
            loReach = r;
            haveLo = true;
        } else {
            hi = s;
            hiReach = r;
        }
        return in;
    };
    // A colour just outside the gamut (a small residual): step back from it
    // along the ray first, so that the crossing found is the one next to it.
    if (outside.found && outside.residual < 2.56 && A[0] == t[0]) {
        for (double back = tol; back < 2.56 + tol && hi - back > lo; back *= 4.0)
            if (test(hi - back)) break;
    }
    // Start just outside the neighbour's boundary: an outside point close to
    // the boundary tells where the ray crosses it.
    if (ctx.hasRay && !(lo > 0.0)) {
        const double guess = ctx.lastS + 0.5;
        if (guess < hi - tol) {
            if (test(guess))
                for (double step = 2.0; hi - lo > tol && lo + step < hi && test(lo + step);) step *= 2.0;
        }
    }
    int stalls = 0;
    for (int it = 0; it < 60 && hi - lo > tol; ++it) {
        const double width = hi - lo;
        double s = 0.5 * (lo + hi);
        // The tangent plane at the nearest colour of the outside point: where
        // the ray crosses it (bisection instead after two slow steps).
        const bool estimate = stalls < 2;
        if (estimate && hiReach.found && hiReach.residual > 0.0) {
            point(hi, q);
            double n[3];
            for (int c = 0; c < 3; ++c) n[c] = (q[c] - hiReach.nearest[c]) / hiReach.residual;
            const double un = u[0] * n[1] + u[1] * n[2];
            if (un > 0.05) s = hi - hiReach.residual / un - tol / 4;
        }
        s = std::min(std::max(s, lo + tol / 4), hi - tol / 4);
        if (test(s) && lo + 0.9 * tol < hi) test(lo + 0.9 * tol);
        stalls = !estimate ? 0 : (hi - lo > 0.5 * width ? stalls + 1 : 0);
    }
    ctx.hasRay = true;
    ctx.lastS = lo;
    point(lo, mapped);
    if (haveLo) {
        inside = loReach;
        return;
    }
    // Only the anchor is left: the grey axis is inside the gamut.
    if (!Reachable(mapped, ctx, inside, true)) Settle(mapped, ctx, inside);
}

void ZKCSeparation::Core::Settle(double* colour, Context& ctx, Reach& reach) const {
    // A grey-axis colour out of reach (not expected of a printer's gamut):
    // the nearest colour found instead.
    if (reach.found) {
        std::copy(reach.nearest, reach.nearest + 3, colour);
        if (Reachable(colour, ctx, reach, true)) return;
    }
    // Still short by rounding: keep the point found, reproduced as it is.
    const ZKCSeparation_Subset& sub = *subsets[reach.subset];
    sub.Lab(reach.x.x, colour, nullptr);
    reach.residual = 0.0;
}

void ZKCSeparation::Core::Solve(const double* t, Context& ctx, ZKSSeparationResult& result,
                                std::vector<unsigned char>& candidates) const {
    Reach reach;
    result.inGamut = Reachable(t, ctx, reach, true);
    if (result.inGamut) {
        std::copy(t, t + 3, result.mapped);
    } else {
        Reach inside;
        Map(t, reach, ctx, result.mapped, inside);
        reach = inside;
    }
    const ZKCSeparation_Subset& sub = *subsets[reach.subset];
    const double* goal = result.mapped;
    ZKCSeparation_Subset::ZKSBlackRange range;
    sub.BlackRange(goal, reach.x.x, range);
    const unsigned int black = sub.Black();
    result.code = sub.Code();
    result.kMin = range.kMin;
    result.kMax = range.kMax;
    result.black = BlackAmount(range.kMin, range.kMax, goal[0]);
    const ZKSSubsetPoint x = sub.PointAtBlack(goal, range, result.black);
    std::fill(result.inks, result.inks + 7, 0.0);
    for (unsigned int j = 0; j < 4; ++j) result.inks[sub.ModelInk(j)] = x.x[j];
    ctx.warm[reach.subset] = x;
    ctx.hasWarm[reach.subset] = true;

    // Byte candidates: roundings of x, and of the solution for black rounded
    // down and up.
    std::vector<std::array<unsigned char, 4>> local;
    auto addRoundings = [&](const double* y) {
        unsigned int lo[4], hi[4];
        for (unsigned int j = 0; j < 4; ++j) {
            const double v = std::min(std::max(y[j], 0.0), 255.0);
            lo[j] = static_cast<unsigned int>(std::floor(v));
            hi[j] = static_cast<unsigned int>(std::ceil(v));
        }
        for (unsigned int k = 0; k < 16; ++k) {
            std::array<unsigned char, 4> b;
            unsigned int sum = 0;
            for (unsigned int j = 0; j < 4; ++j) {
                b[j] = static_cast<unsigned char>(((k >> j) & 1u) ? hi[j] : lo[j]);
                sum += b[j];
            }
            if (sum > totalLimit || b[black] > blackLimit) continue;
            if (std::find(local.begin(), local.end(), b) == local.end()) local.push_back(b);
        }
    };
    addRoundings(x.x);
    const double kFloor = std::floor(x.x[black]), kCeil = std::ceil(x.x[black]);
    for (double k : {kFloor, kCeil}) {
        if (k > blackLimit || k < 0.0) continue;
        ZKSSubsetPoint y = x;
        if (sub.SolveAtBlack(goal, k, y.x) && sub.Slack(y.x) >= -1.0) addRoundings(y.x);
        if (k == kCeil) break;
    }
    for (const auto& b : local) {
        const std::size_t at = candidates.size();
        candidates.resize(at + inks, 0);
        for (unsigned int j = 0; j < 4; ++j) candidates[at + sub.ModelInk(j)] = b[j];
    }
}

bool ZKCSeparation::Core::SolveInGamut(const double* t, Context& ctx, double* inks) const {
    Reach reach;
    if (!Reachable(t, ctx, reach, true)) return false;
    const ZKCSeparation_Subset& sub = *subsets[reach.subset];
    ZKCSeparation_Subset::ZKSBlackRange range;
    sub.BlackRange(t, reach.x.x, range);
    const ZKSSubsetPoint x = sub.PointAtBlack(t, range, BlackAmount(range.kMin, range.kMax, t[0]));
    std::fill(inks, inks + 7, 0.0);
    for (unsigned int j = 0; j < 4; ++j) inks[sub.ModelInk(j)] = x.x[j];
    ctx.warm[reach.subset] = x;
    ctx.hasWarm[reach.subset] = true;
    return true;
}

void ZKCSeparation::Core::ChooseBytes(std::size_t count, ZKSSeparationResult* results,
                                      const std::vector<unsigned char>& candidates,
                                      const std::vector<unsigned int>& candidateCount) const {
    const std::size_t total = candidates.size() / inks;
    std::vector<double> lab(3 * total);
    PredictColorimetry(model, total, candidates.data(), static_cast<unsigned int>(illuminant), mediaRelative,
                       nullptr, lab.data());
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        ZKSSeparationResult& r = results[i];
        double best = std::numeric_limits<double>::infinity();
        std::size_t bestAt = at;
        for (unsigned int c = 0; c < candidateCount[i]; ++c) {
            const double d = DeltaE2000(r.mapped, &lab[3 * (at + c)]);
            if (d < best) {
                best = d;
                bestAt = at + c;
            }
        }
        std::copy(&candidates[bestAt * inks], &candidates[bestAt * inks] + inks, r.bytes);
        std::fill(r.bytes + inks, r.bytes + 7, 0);
        r.deltaE = best;
        at += candidateCount[i];
    }
}

}  // namespace KELMA_NAMESPACE
