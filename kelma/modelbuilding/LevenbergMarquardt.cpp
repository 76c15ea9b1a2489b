#include "kelma/modelbuilding/LevenbergMarquardt.h"

#include <algorithm>
#include <cmath>

#include <Eigen/Cholesky>
#include <Eigen/Core>

#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

namespace {

// Jacobian columns [start, start + count) by forward differences.
struct JacobianWorker {
    const ResidualFunction* evaluate = nullptr;
    const std::vector<double>* x = nullptr;
    const std::vector<double>* r0 = nullptr;
    const std::vector<double>* upper = nullptr;
    std::vector<double>* jacobian = nullptr;  // residuals x parameters, column-major
    std::size_t start = 0, count = 0;
    unsigned int slot = 0;

    void operator()() {
        const std::size_t m = r0->size();
        std::vector<double> xp(*x), r(m);
        for (std::size_t j = start; j < start + count; ++j) {
            double h = 1e-6 * std::max(1.0, std::fabs(xp[j]));
            // Step backwards at the upper bound.
            if (xp[j] + h > (*upper)[j]) h = -h;
            const double saved = xp[j];
            xp[j] = saved + h;
            double* col = &(*jacobian)[j * m];
            if ((*evaluate)(xp.data(), r.data(), slot)) {
                for (std::size_t i = 0; i < m; ++i) col[i] = (r[i] - (*r0)[i]) / h;
            } else {
                std::fill(col, col + m, 0.0);
            }
            xp[j] = saved;
        }
    }
};

}  // namespace

unsigned int LevenbergMarquardt(const ResidualFunction& evaluate, std::size_t residualCount, std::vector<double>& x,
                                const std::vector<double>& lower, const std::vector<double>& upper,
                                unsigned int maxIterations, unsigned int threads) {
    const std::size_t np = x.size();
    const std::size_t m = residualCount;
    std::vector<double> r(m), rNew(m), xNew(np), jac(np * m), a(np * np), g(np), step(np);
    if (!evaluate(x.data(), r.data(), 0)) return 0;
    auto cost = [](const std::vector<double>& v) {
        double s = 0.0;
        for (double e : v) s += e * e;
        return s;
    };
    double c = cost(r);
    double lambda = 1e-3;
    threads = std::max(1u, std::min<unsigned int>(threads, static_cast<unsigned int>(np)));
    ZKCWorkerThreads pool(threads);
    std::vector<JacobianWorker> workers(threads);
    unsigned int iteration = 0;
    // A residual norm of 1e-6 per residual (in CIEDE2000 units) is an exact fit.
    const double exact = 1e-12 * static_cast<double>(m);
    while (iteration < maxIterations && c > exact) {
        const std::vector<ZKSWorkShare> shares = SplitWork(np, threads);
        for (std::size_t s = 0; s < shares.size(); ++s) {
            workers[s] = JacobianWorker{&evaluate, &x, &r, &upper, &jac, shares[s].start, shares[s].count,
                                        static_cast<unsigned int>(s)};
            pool.Start(s, workers[s]);
        }
        pool.JoinAll(shares.size());
        // Normal equations J^T J and gradient J^T r.
        for (std::size_t i = 0; i < np; ++i) {
            const double* ci = &jac[i * m];
            double gi = 0.0;
            for (std::size_t k = 0; k < m; ++k) gi += ci[k] * r[k];
            g[i] = gi;
            for (std::size_t j = 0; j <= i; ++j) {
                const double* cj = &jac[j * m];
                double s = 0.0;
                for (std::size_t k = 0; k < m; ++k) s += ci[k] * cj[k];
                a[i * np + j] = a[j * np + i] = s;
            }
        }
        double maxDiag = 0.0;
        for (std::size_t i = 0; i < np; ++i) maxDiag = std::max(maxDiag, a[i * np + i]);
        if (!(maxDiag > 0.0)) break;
        // Parameters held at a bound by the descent direction -g stay there
        // this iteration (their rows and columns drop out of the step).
        std::vector<bool> held(np, false);
        for (std::size_t i = 0; i < np; ++i)
            held[i] = (x[i] >= upper[i] && g[i] < 0.0) || (x[i] <= lower[i] && g[i] > 0.0);
        bool accepted = false;
        double cNew = c;
        while (lambda <= 1e12) {
            std::vector<double> damped(a);
            for (std::size_t i = 0; i < np; ++i)
                damped[i * np + i] += lambda * std::max(a[i * np + i], 1e-9 * maxDiag);
            for (std::size_t i = 0; i < np; ++i) {
                step[i] = held[i] ? 0.0 : -g[i];
                if (!held[i]) continue;
                for (std::size_t j = 0; j < np; ++j) damped[i * np + j] = damped[j * np + i] = 0.0;
                damped[i * np + i] = 1.0;
            }
            const Eigen::LLT<Eigen::MatrixXd> llt(Eigen::Map<const Eigen::MatrixXd>(damped.data(), np, np));
            const Eigen::VectorXd solved = llt.solve(Eigen::Map<const Eigen::VectorXd>(step.data(), np));
            if (llt.info() == Eigen::Success && solved.allFinite()) {
                Eigen::Map<Eigen::VectorXd>(step.data(), np) = solved;
                for (std::size_t i = 0; i < np; ++i) xNew[i] = std::min(upper[i], std::max(lower[i], x[i] + step[i]));
                if (evaluate(xNew.data(), rNew.data(), 0)) {
                    cNew = cost(rNew);
                    if (cNew < c) {
                        accepted = true;
                        break;
                    }
                }
            }
            lambda *= 4.0;
        }
        if (!accepted) break;
        ++iteration;
        x.swap(xNew);
        r.swap(rNew);
        const double decrease = (c - cNew) / c;
        c = cNew;
        lambda = std::max(lambda / 3.0, 1e-12);
        if (decrease < 1e-7) break;
    }
    return iteration;
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
