#include "kelma/separation/ZKCSeparation_Subset.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "kelma/separation/SeparationLinearAlgebra.h"

namespace KELMA_NAMESPACE {

using separation_detail::DampedStep;
using separation_detail::SolveDense;

namespace {

constexpr double kFull = 255.0;
// Limits are met to this many bytes along the black range's curve.
constexpr double kSlackTolerance = 0.01;
// Newton at fixed black: converged residual (Delta E*ab).
constexpr double kNewtonTolerance = 5e-5;

ZKCSSE_KELMA_Data SubModel(const ZKCSSE_KELMA_Data& model, unsigned int code) {
    if (code == 0xFFFFFFFFu) return model;
    ZKCSSE_KELMA_Datafilter filter(model, code);
    return filter.GetKELMA_Data();
}

double Norm3(const double* v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

}  // namespace

ZKCSeparation_Subset::ZKCSeparation_Subset(const ZKCSSE_KELMA_Data& model, unsigned int code, unsigned int blackInk,
                                           unsigned long illuminant, bool mediaRelative, double totalLimit,
                                           double blackLimit)
    : evaluator_(SubModel(model, code), illuminant, mediaRelative),
      code_(code),
      black_(0),
      total_(totalLimit),
      blackLimit_(blackLimit) {
    unsigned int j = 0;
    for (unsigned int i = 0; i < model.NumberOfInks() && j < 4; ++i) {
        if (((code >> i) & 1u) == 0) continue;
        if (i == blackInk) black_ = j;
        modelInk_[j++] = i;
    }
}

ZKCSeparation_Subset::~ZKCSeparation_Subset() = default;

double ZKCSeparation_Subset::Slack(const double* x) const {
    double m = total_;
    for (unsigned int j = 0; j < 4; ++j) m -= x[j];
    for (unsigned int j = 0; j < 4; ++j)
        if (j != black_) m = std::min(m, std::min(x[j], kFull - x[j]));
    return m;
}

void ZKCSeparation_Subset::Project(double* x, double blackLow, double blackHigh) const {
    double lo[4], hi[4];
    for (unsigned int j = 0; j < 4; ++j) {
        lo[j] = 0.0;
        hi[j] = kFull;
    }
    lo[black_] = blackLow;
    hi[black_] = std::min(blackHigh, blackLimit_);
    double sum = 0.0;
    double y[4];
    for (unsigned int j = 0; j < 4; ++j) {
        y[j] = std::isnan(x[j]) ? lo[j] : x[j];
        x[j] = std::min(std::max(y[j], lo[j]), hi[j]);
        sum += x[j];
    }
    if (sum <= total_) return;
    double loSum = 0.0;
    for (unsigned int j = 0; j < 4; ++j) loSum += lo[j];
    if (loSum >= total_) {
        for (unsigned int j = 0; j < 4; ++j) x[j] = lo[j];
        return;
    }
    // sum_j clamp(y_j - t) is piecewise linear and decreasing in t: find the
    // t >= 0 where it equals the limit between its sorted breakpoints.
    double br[9];
    unsigned int nb = 0;
    br[nb++] = 0.0;
    for (unsigned int j = 0; j < 4; ++j) {
        if (y[j] - hi[j] > 0.0) br[nb++] = y[j] - hi[j];
        if (y[j] - lo[j] > 0.0) br[nb++] = y[j] - lo[j];
    }
    for (unsigned int i = 1; i < nb; ++i)
        for (unsigned int j = i; j > 0 && br[j - 1] > br[j]; --j) std::swap(br[j - 1], br[j]);
    auto total = [&](double t) {
        double s = 0.0;
        for (unsigned int j = 0; j < 4; ++j) s += std::min(std::max(y[j] - t, lo[j]), hi[j]);
        return s;
    };
    double t = br[nb - 1];
    for (unsigned int b = 0; b + 1 < nb; ++b) {
        const double s0 = total(br[b]), s1 = total(br[b + 1]);
        if (s0 >= total_ && s1 <= total_) {
            t = s0 == s1 ? br[b] : br[b] + (s0 - total_) * (br[b + 1] - br[b]) / (s0 - s1);
            break;
        }
    }
    sum = 0.0;
    for (unsigned int j = 0; j < 4; ++j) {
        x[j] = std::min(std::max(y[j] - t, lo[j]), hi[j]);
        sum += x[j];
    }
    // Rounding can leave the sum a few ulps above the limit: take it off the
    // largest free ink.
    if (sum > total_) {
        unsigned int big = 0;
        for (unsigned int j = 1; j < 4; ++j)
            if (x[j] - lo[j] > x[big] - lo[big]) big = j;
        x[big] = std::max(lo[big], x[big] - (sum - total_));
    }
}

double ZKCSeparation_Subset::LeastSquares(const double* target, double* x, double blackLow, double blackHigh,
                                          double stop) const {
    const double bHigh = std::min(blackHigh, blackLimit_);
    double lo[4], hi[4];
    for (unsigned int j = 0; j < 4; ++j) {
        lo[j] = 0.0;
        hi[j] = kFull;
    }
    lo[black_] = blackLow;
    hi[black_] = bHigh;
    Project(x, blackLow, bHigh);
    double lab[3], J[12], F[3];
    if (!evaluator_.Lab(x, lab, J)) return std::numeric_limits<double>::infinity();
    for (unsigned int c = 0; c < 3; ++c) F[c] = lab[c] - target[c];
    double f = Norm3(F);
    for (int it = 0; it < 60 && f > stop; ++it) {
        double g[4];
        for (unsigned int j = 0; j < 4; ++j) g[j] = J[j] * F[0] + J[4 + j] * F[1] + J[8 + j] * F[2];
        // Working set: inks at a bound that the gradient pushes outward.
        unsigned int freeIdx[4], p = 0;
        double sum = 0.0;
        for (unsigned int j = 0; j < 4; ++j) {
            sum += x[j];
            const bool atLo = x[j] <= lo[j] + 1e-9 && g[j] > 0.0;
            const bool atHi = x[j] >= hi[j] - 1e-9 && g[j] < 0.0;
            if (!atLo && !atHi) freeIdx[p++] = j;
        }
        double d[4] = {0.0, 0.0, 0.0, 0.0};
        double A[12], step[4];
        for (unsigned int r = 0; r < 3; ++r)
            for (unsigned int k = 0; k < p; ++k) A[r * p + k] = J[r * 4 + freeIdx[k]];
        bool ok = DampedStep(A, p, F, step);
        if (ok) {
            double stepSum = 0.0;
            for (unsigned int k = 0; k < p; ++k) stepSum += step[k];
            if (sum >= total_ - 1e-9 && stepSum > 0.0) {
                // On the sum limit: steps along it (the free inks' sum fixed).
                ok = false;
                if (p >= 2) {
                    double Z[12];
                    const unsigned int last = freeIdx[p - 1];
                    for (unsigned int r = 0; r < 3; ++r)
                        for (unsigned int k = 0; k + 1 < p; ++k)
                            Z[r * (p - 1) + k] = J[r * 4 + freeIdx[k]] - J[r * 4 + last];
                    double z[4];
                    if (DampedStep(Z, p - 1, F, z)) {
                        double zs = 0.0;
                        for (unsigned int k = 0; k + 1 < p; ++k) {
                            step[k] = z[k];
                            zs += z[k];
                        }
                        step[p - 1] = -zs;
                        ok = true;
                    }
                }
            }
        }
        if (!ok) break;
        double norm = 0.0;
        for (unsigned int k = 0; k < p; ++k) {
            d[freeIdx[k]] = step[k];
            norm = std::max(norm, std::fabs(step[k]));
        }
        if (norm < 1e-12) break;
        // Projected backtracking: accept a sufficient decrease against the
        // linear model of the step actually taken.
        bool accepted = false;
        double xn[4], labn[3], Jn[12], Fn[3], fn = f;
        double alpha = 1.0;
        for (int ls = 0; ls < 12; ++ls, alpha *= 0.5) {
            for (unsigned int j = 0; j < 4; ++j) xn[j] = x[j] + alpha * d[j];
            Project(xn, blackLow, bHigh);
            if (!evaluator_.Lab(xn, labn, Jn)) continue;
            for (unsigned int c = 0; c < 3; ++c) Fn[c] = labn[c] - target[c];
            fn = Norm3(Fn);
            double pred[3];
            for (unsigned int c = 0; c < 3; ++c) {
                pred[c] = F[c];
                for (unsigned int j = 0; j < 4; ++j) pred[c] += J[c * 4 + j] * (xn[j] - x[j]);
            }
            const double predicted = Norm3(pred);
            if (fn < f && fn * fn <= f * f - 1e-4 * (f * f - predicted * predicted)) {
                accepted = true;
                break;
            }
        }
        if (!accepted) break;
        const double progress = (f - fn) / f;
        std::copy(xn, xn + 4, x);
        std::copy(Jn, Jn + 12, J);
        std::copy(Fn, Fn + 3, F);
        f = fn;
        // A positive residual that no longer shrinks: the nearest point.
        if (progress < (f > 10.0 * stop + 1e-3 ? 1e-2 : 1e-4)) break;
    }
    return f;
}

bool ZKCSeparation_Subset::SolveAtBlack(const double* target, double k, double* x) const {
    x[black_] = k;
    unsigned int other[3], n = 0;
    for (unsigned int j = 0; j < 4; ++j)
        if (j != black_) other[n++] = j;
    double lab[3], J[12], F[3];
    if (!evaluator_.Lab(x, lab, J)) return false;
    for (unsigned int c = 0; c < 3; ++c) F[c] = lab[c] - target[c];
    double f = Norm3(F);
    for (int it = 0; it < 20; ++it) {
        if (f <= kNewtonTolerance) return true;
        double A[9], b[3];
        for (unsigned int r = 0; r < 3; ++r) {
            for (unsigned int c = 0; c < 3; ++c) A[r * 3 + c] = J[r * 4 + other[c]];
            b[r] = -F[r];
        }
        if (!SolveDense(3, A, b)) return false;
        double alpha = 1.0;
        bool accepted = false;
        for (int ls = 0; ls < 8; ++ls, alpha *= 0.5) {
            double xn[4] = {x[0], x[1], x[2], x[3]}, labn[3], Jn[12], Fn[3];
            for (unsigned int c = 0; c < 3; ++c) xn[other[c]] += alpha * b[c];
            if (!evaluator_.Lab(xn, labn, Jn)) continue;
            for (unsigned int c = 0; c < 3; ++c) Fn[c] = labn[c] - target[c];
            const double fn = Norm3(Fn);
            if (fn < f) {
                std::copy(xn, xn + 4, x);
                std::copy(Jn, Jn + 12, J);
                std::copy(Fn, Fn + 3, F);
                f = fn;
                accepted = true;
                break;
            }
        }
        if (!accepted) return f <= kNewtonTolerance;
    }
    return f <= kNewtonTolerance;
}

bool ZKCSeparation_Subset::Trace(const double* target, ZKSSubsetPoint start, int direction,
                                 std::vector<ZKSSubsetPoint>& path) const {
    unsigned int other[3], n = 0;
    for (unsigned int j = 0; j < 4; ++j)
        if (j != black_) other[n++] = j;
    const double kEnd = direction > 0 ? blackLimit_ : 0.0;
    ZKSSubsetPoint cur = start;
    double h = 16.0;
    // Margins: the three inks above 0, below 255, and the sum below its limit.
    auto margins = [&](const double* x, double* phi) {
        double sum = 0.0;
        for (unsigned int j = 0; j < 4; ++j) sum += x[j];
        for (unsigned int c = 0; c < 3; ++c) {
            phi[c] = x[other[c]];
            phi[3 + c] = kFull - x[other[c]];
        }
        phi[6] = total_ - sum;
    };
    auto minMargin = [&](const double* x) {
        double phi[7];
        margins(x, phi);
        return *std::min_element(phi, phi + 7);
    };
    for (int iter = 0; iter < 200; ++iter) {
        const double k = cur.x[black_];
        const double room = direction > 0 ? kEnd - k : k - kEnd;
        if (room <= 1e-9) return true;
        // Tangent of the curve: d(inks)/d(black) = -J_inks^-1 J_black.
        double lab[3], J[12];
        if (!evaluator_.Lab(cur.x, lab, J)) return true;
        double A[9], v[3];
        for (unsigned int r = 0; r < 3; ++r) {
            for (unsigned int c = 0; c < 3; ++c) A[r * 3 + c] = J[r * 4 + other[c]];
            v[r] = -J[r * 4 + black_];
        }
        if (!SolveDense(3, A, v)) return true;
        double phi[7], rate[7];
        margins(cur.x, phi);
        double vs = 0.0;
        for (unsigned int c = 0; c < 3; ++c) {
            rate[c] = direction * v[c];
            rate[3 + c] = -direction * v[c];
            vs += v[c];
        }
        rate[6] = -direction * (1.0 + vs);
        double delta = std::min(h, room);
        bool limited = false;
        for (unsigned int j = 0; j < 7; ++j) {
            if (rate[j] >= 0.0) continue;
            if (phi[j] <= kSlackTolerance) return true;  // at a limit, moving into it
            const double dj = phi[j] / -rate[j];
            if (dj < delta) {
                delta = dj;
                limited = true;
            }
        }
        ZKSSubsetPoint next = cur;
        const double kn = k + direction * delta;
        for (unsigned int c = 0; c < 3; ++c) next.x[other[c]] += direction * delta * v[c];
        if (!SolveAtBlack(target, kn, next.x)) {
            h = delta / 2;
            if (h < 1e-3) return true;
            continue;
        }
        const double m = minMargin(next.x);
        if (m >= -kSlackTolerance) {
            cur = next;
            path.push_back(cur);
            if (limited && m <= kSlackTolerance) return true;
            if (!limited && delta >= room) return true;
            h = std::min(2.0 * h, 64.0);
            continue;
        }
        // The step crossed a limit: regula falsi (Illinois) on the smallest
        // margin between the last feasible point and the crossing.
        ZKSSubsetPoint a = cur, b = next;
        double ma = std::max(minMargin(a.x), 0.0), mb = m;
        int side = 0;
        for (int r = 0; r < 40; ++r) {
            const double ka = a.x[black_], kb = b.x[black_];
            double t = ma / (ma - mb);
            t = std::min(std::max(t, 0.02), 0.98);
            ZKSSubsetPoint trial;
            for (unsigned int j = 0; j < 4; ++j) trial.x[j] = a.x[j] + t * (b.x[j] - a.x[j]);
            const double kt = ka + t * (kb - ka);
            if (!SolveAtBlack(target, kt, trial.x)) break;
            const double mt = minMargin(trial.x);
            if (mt >= -kSlackTolerance) {
                a = trial;
                ma = std::max(mt, 0.0);
                if (mt <= kSlackTolerance) break;
                if (side == 1) mb *= 0.5;
                side = 1;
            } else {
                b = trial;
                mb = mt;
                if (side == -1) ma *= 0.5;
                side = -1;
            }
            if (std::fabs(kb - ka) < 1e-6) break;
        }
        if (a.x[black_] != cur.x[black_]) path.push_back(a);
        return true;
    }
    return true;
}

bool ZKCSeparation_Subset::BlackRange(const double* target, const double* x, ZKSBlackRange& range) const {
    range.path.clear();
    ZKSSubsetPoint start;
    std::copy(x, x + 4, start.x);
    ZKSSubsetPoint polished = start;
    const bool onCurve =
        SolveAtBlack(target, start.x[black_], polished.x) && Slack(polished.x) >= -kSlackTolerance;
    if (!onCurve) {
        range.kMin = range.kMax = start.x[black_];
        range.path.push_back(start);
        return false;
    }
    std::vector<ZKSSubsetPoint> down, up;
    Trace(target, polished, -1, down);
    Trace(target, polished, +1, up);
    range.path.assign(down.rbegin(), down.rend());
    range.path.push_back(polished);
    range.path.insert(range.path.end(), up.begin(), up.end());
    range.kMin = range.path.front().x[black_];
    range.kMax = range.path.back().x[black_];
    return true;
}

ZKSSubsetPoint ZKCSeparation_Subset::PointAtBlack(const double* target, const ZKSBlackRange& range,
                                                  double k) const {
    const std::vector<ZKSSubsetPoint>& path = range.path;
    // The path point at or below k and the next one.
    std::size_t i = 0;
    while (i + 1 < path.size() && path[i + 1].x[black_] <= k) ++i;
    auto feasible = [&](ZKSSubsetPoint q) {
        Project(q.x, 0.0, blackLimit_);
        return q;
    };
    if (i + 1 >= path.size() || path[i].x[black_] == k) return feasible(path[i]);
    const ZKSSubsetPoint& a = path[i];
    const ZKSSubsetPoint& b = path[i + 1];
    const double t = (k - a.x[black_]) / (b.x[black_] - a.x[black_]);
    ZKSSubsetPoint p;
    for (unsigned int j = 0; j < 4; ++j) p.x[j] = a.x[j] + t * (b.x[j] - a.x[j]);
    p.x[black_] = k;
    ZKSSubsetPoint solved = p;
    if (SolveAtBlack(target, k, solved.x) && Slack(solved.x) >= -kSlackTolerance) return feasible(solved);
    // Not reachable in between (a kink of the curve): the nearer end.
    return feasible(t < 0.5 ? a : b);
}

}  // namespace KELMA_NAMESPACE
