// Small dense linear algebra of the separation's searches (systems of at most
// 5 unknowns), in double precision.
#pragma once

#include <cmath>
#include <utility>

namespace KELMA_NAMESPACE {
namespace separation_detail {

// Solves A y = b for n <= 8 by Gaussian elimination with partial pivoting;
// A (n x n, row-major) and b are overwritten, y = b on return. False when a
// pivot is below `tiny` times the largest entry of A (singular for our use).
inline bool SolveDense(unsigned int n, double* A, double* b, double tiny = 1e-13) {
    double scale = 0.0;
    for (unsigned int i = 0; i < n * n; ++i) scale = std::fmax(scale, std::fabs(A[i]));
    if (!(scale > 0.0)) return false;
    for (unsigned int col = 0; col < n; ++col) {
        unsigned int pivot = col;
        for (unsigned int r = col + 1; r < n; ++r)
            if (std::fabs(A[r * n + col]) > std::fabs(A[pivot * n + col])) pivot = r;
        if (!(std::fabs(A[pivot * n + col]) > tiny * scale)) return false;
        if (pivot != col) {
            for (unsigned int c = 0; c < n; ++c) std::swap(A[col * n + c], A[pivot * n + c]);
            std::swap(b[col], b[pivot]);
        }
        for (unsigned int r = col + 1; r < n; ++r) {
            const double f = A[r * n + col] / A[col * n + col];
            if (f == 0.0) continue;
            for (unsigned int c = col; c < n; ++c) A[r * n + c] -= f * A[col * n + c];
            b[r] -= f * b[col];
        }
    }
    for (unsigned int i = n; i-- > 0;) {
        double s = b[i];
        for (unsigned int c = i + 1; c < n; ++c) s -= A[i * n + c] * b[c];
        b[i] = s / A[i * n + i];
    }
    return true;
}

// Damped least-squares step of 3 equations in p unknowns (p <= 4): d
// minimising |A d + F|^2 + lambda |d|^2, lambda = 1e-12 x the mean squared
// column norm (a regulariser, not a trust region). A is 3 x p row-major.
// With p >= 3 it is the minimum-norm solution of A d = -F in the limit.
inline bool DampedStep(const double* A, unsigned int p, const double* F, double* d) {
    if (p == 0) return false;
    double trace = 0.0;
    for (unsigned int i = 0; i < 3 * p; ++i) trace += A[i] * A[i];
    const double lambda = 1e-12 * trace / p + 1e-300;
    if (p >= 3) {
        double M[9], y[3];
        for (unsigned int r = 0; r < 3; ++r) {
            for (unsigned int c = 0; c < 3; ++c) {
                double s = 0.0;
                for (unsigned int k = 0; k < p; ++k) s += A[r * p + k] * A[c * p + k];
                M[r * 3 + c] = s + (r == c ? lambda : 0.0);
            }
            y[r] = -F[r];
        }
        if (!SolveDense(3, M, y, 1e-15)) return false;
        for (unsigned int k = 0; k < p; ++k) d[k] = A[k] * y[0] + A[p + k] * y[1] + A[2 * p + k] * y[2];
        return true;
    }
    double M[4], y[2];
    for (unsigned int r = 0; r < p; ++r) {
        for (unsigned int c = 0; c < p; ++c) {
            double s = 0.0;
            for (unsigned int k = 0; k < 3; ++k) s += A[k * p + r] * A[k * p + c];
            M[r * p + c] = s + (r == c ? lambda : 0.0);
        }
        double s = 0.0;
        for (unsigned int k = 0; k < 3; ++k) s += A[k * p + r] * F[k];
        y[r] = -s;
    }
    if (!SolveDense(p, M, y, 1e-15)) return false;
    for (unsigned int k = 0; k < p; ++k) d[k] = y[k];
    return true;
}

}  // namespace separation_detail
}  // namespace KELMA_NAMESPACE
