// The colour bytes' fast paths (LabBytes_AVX2.h, LabBytes_AVX512.h): the
// operations of the scalar twin LabBytes_Scalar.h except one, the twin's
// pow(t, 0.3333333333333333) is replaced by a fast cube root, one algorithm
// written for both (CubeRoots4_AVX2, CubeRoots8_AVX512: the same IEEE
// operations, so the same roots). The bytes are still the twin's, exactly:
//
//  - Everything else is the twin's sequence of IEEE operations (no FMA); the
//    branches test t, which both compute identically; the clamps keep NaN at
//    the lower bound as the twin does; table reads load the same entries.
//  - The cube root is within kCubeRootError (absolute; measured at most
//    2.2e-15, see the tests) of pow for t in (0.008856, 64]. Every other
//    t > 0.008856 (large, inf) takes the twin for that triple.
//  - A byte is floor(clamp(v) + 0.5): it changes only where v crosses k - 0.5.
//    v depends on the three f values through continuous piecewise-linear
//    steps (L* = 116 fY - 16, a* = 500 (fX - fY), the table interpolations)
//    with known slopes, so |v - v_twin| <= slope x 2 kCubeRootError plus the
//    two computations' rounding noise (ZKSLabMargins). A triple with any v
//    closer than that to a rounding boundary is recomputed by the twin.
// The fallbacks are rare (about 1 triple in 10^6 for random colours) and
// only cost time.
//
// The cube root: t^(1/3) for t > 0 normal, t = m 2^e, e = 3 q + r
// (r = 0, 1, 2), u = m 2^r in [1, 8); z ~ u^(-1/3) = m^(-1/3) 2^(-r/3) from
// the degree-5 polynomial that interpolates m^(-1/3) at the six Chebyshev
// nodes of [1, 2] (relative error 6.9e-6, kCubeRootPoly) times 2^(-r/3),
// then two Newton steps z += z (1 - u z^3) / 3, each squaring the relative
// error (to below 1e-19, under the double's own rounding); u^(1/3) = u z z,
// times 2^q. One root is a chain of some 25 dependent operations (the
// polynomial is in Estrin's form to keep it short); the kernels advance
// several roots in lockstep (KELMA_LOCKSTEP).
#pragma once

namespace KELMA_NAMESPACE {

// Bound on |fast cube root(t) - pow(t, 0.3333333333333333)| for t in
// (0.008856, 64], where the result is below 4: about fifty times the largest
// error the tests measure (2.2e-15, a few ulp), so that the margins below
// hold with room to spare.
constexpr double kCubeRootError = 1e-13;
constexpr double kCubeRootMaxT = 64.0;
// m^(-1/3) ~ sum kCubeRootPoly[j] m^j, j = 0..5, m in [1, 2)
constexpr double kCubeRootPoly[6] = {1.7776471684890938,  -1.554027407710867,  1.2271496200208474,
                                     -0.5865141615889647, 0.15224956438217788, -0.016511679091276852};
// 2^(-1/3), 2^(-2/3)
constexpr double kCubeRootTwoToMinusThird = 0.79370052598409979;
constexpr double kCubeRootTwoToMinusTwoThirds = 0.62996052494743658;

// Distance from a rounding boundary below which a byte value v (one of 2.55 L*,
// a* + 128, b* + 128 or the LAB2000HL ones) is not trusted to the fast path.
struct ZKSLabMargins {
    double cielab[3];
    double lab2000hl[3];
};
// From the LAB2000HL tables' steepest steps (computed once).
const ZKSLabMargins& LabMargins();

}  // namespace KELMA_NAMESPACE
