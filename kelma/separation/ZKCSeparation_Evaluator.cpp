#include "kelma/separation/ZKCSeparation_Evaluator.h"

#include <algorithm>
#include <cmath>

#include "kelma/colorimetry/CIELAB.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/prediction/YuleNielsenPower.h"

namespace KELMA_NAMESPACE {

namespace {

// Relative step of the forward difference of CIELAB in XYZ.
constexpr double kXYZStep = 1e-7;

}  // namespace

ZKCSeparation_Evaluator::ZKCSeparation_Evaluator(const ZKCSSE_KELMA_Data& model, unsigned long illuminant,
                                                 bool mediaRelative)
    : inks_(model.NumberOfInks()),
      gridPoints_(model.NumberOfGridPoints()),
      corners_(1u << model.NumberOfInks()),
      n_(model.n()) {
    // Coefficients per cell corner-major, 32 wavelengths per corner (the
    // last 0): the sums of all wavelengths are then loops over contiguous
    // doubles.
    const std::size_t cells = model.MatrixSchemeSize() / (std::size_t{kSpectralValues} << model.NumberOfInks());
    scheme_.assign(cells * corners_ * kLanes, 0.0f);
    const float* src = model.MatrixScheme();
    for (std::size_t q = 0; q < cells; ++q)
        for (unsigned int l = 0; l < kSpectralValues; ++l)
            for (unsigned int k = 0; k < corners_; ++k)
                scheme_[(q * corners_ + k) * kLanes + l] = src[(q * kSpectralValues + l) * corners_ + k];
    const unsigned int N = inks_, G = gridPoints_;
    ramps_.assign(model.EffectiveRamps(), model.EffectiveRamps() + std::size_t{N} * 256);
    cellOfByte_.assign(std::size_t{N} * 256, 0);
    cellBase_.assign(std::size_t{N} * (G - 1), 0.0);
    cellScale_.assign(std::size_t{N} * (G - 1), 1.0);
    stride_.assign(N, 1);
    for (unsigned int i = 0; i < N; ++i) {
        const float* grid = model.GridPoints() + std::size_t{i} * G;
        const double* ramp = &ramps_[std::size_t{i} * 256];
        for (unsigned int g = 0; g + 1 < G; ++g) {
            const unsigned int lo = static_cast<unsigned int>(grid[g]), hi = static_cast<unsigned int>(grid[g + 1]);
            const double d = ramp[hi] - ramp[lo];
            cellBase_[i * (G - 1) + g] = ramp[lo];
            cellScale_[i * (G - 1) + g] = d != 0.0 ? 1.0 / d : 1.0;
            for (unsigned int t = lo; t < hi && t < 256; ++t) cellOfByte_[i * 256 + t] = static_cast<unsigned char>(g);
        }
        cellOfByte_[i * 256 + 255] = static_cast<unsigned char>(G - 2);
        if (i > 0) stride_[i] = stride_[i - 1] * (G - 1);
    }

    ZKCLighting_Matrix matrix;
    model.Lighting_Matrix().ExtractSingleIlluminant_Lighting_Matrix(matrix, illuminant);
    const std::vector<float> white = ZKCWhitePoint(matrix).Values();
    std::vector<float> factor(3, 1.0f);
    if (mediaRelative) {
        ZKCWhitePoint paper = model.MediaWhitePoint();
        paper.ReduceToSingleIlluminant(illuminant);
        matrix.GetMediaRelativeTransformFactor(factor, paper);
    }
    for (unsigned int c = 0; c < 3; ++c) {
        white_[c] = white[c];
        for (unsigned int w = 0; w < kLanes; ++w)
            weights_[c][w] = w < kSpectralValues ? static_cast<double>(matrix.Weights()[c * kSpectrumStride + w]) * factor[c] : 0.0;
    }
}

ZKCSeparation_Evaluator::~ZKCSeparation_Evaluator() = default;

bool ZKCSeparation_Evaluator::XYZ(const double* x, double* xyz, double* jac) const {
    const unsigned int N = inks_, G = gridPoints_, K = corners_;
    double w[kMaxInks], dw[kMaxInks];
    std::size_t cell = 0;
    for (unsigned int i = 0; i < N; ++i) {
        if (std::isnan(x[i])) return false;
        // Ramp segment [t, t+1] holding x (the end segments extend outward).
        const double v = x[i];
        const int t = v <= 0.0 ? 0 : (v >= 254.0 ? 254 : static_cast<int>(v));
        const double* ramp = &ramps_[std::size_t{i} * 256];
        const double slope = ramp[t + 1] - ramp[t];
        const double r = ramp[t] + (v - t) * slope;
        const unsigned int g =
            v < 0.0 ? 0u : (v >= 255.0 ? G - 2 : cellOfByte_[i * 256 + static_cast<unsigned int>(v)]);
        const double scale = cellScale_[i * (G - 1) + g];
        w[i] = (r - cellBase_[i * (G - 1) + g]) * scale;
        dw[i] = slope * scale;
        cell += std::size_t{g} * stride_[i];
    }
    // Monomials m_k = prod_{i in k} w_i; d m_k / d w_i = m_{k without i}.
    double m[1u << kMaxInks];
    m[0] = 1.0;
    for (unsigned int k = 1; k < K; ++k) m[k] = m[k & (k - 1)] * w[__builtin_ctz(k)];
    // Spectral sums s_l = sum_k c_kl m_k and their derivatives by each
    // ink's local coordinate, all wavelengths at once.
    const float* block = scheme_.data() + cell * K * kLanes;
    alignas(16) double sum[kLanes] = {};
    alignas(16) double dsum[kMaxInks][kLanes] = {};
    for (unsigned int k = 0; k < K; ++k) {
        const float* c = block + std::size_t{k} * kLanes;
        const double mk = m[k];
        for (unsigned int l = 0; l < kLanes; ++l) sum[l] += c[l] * mk;
        if (jac == nullptr) continue;
        for (unsigned int bits = k; bits != 0; bits &= bits - 1) {
            const unsigned int i = static_cast<unsigned int>(__builtin_ctz(bits));
            const double d = m[k ^ (1u << i)];
            double* ds = dsum[i];
            for (unsigned int l = 0; l < kLanes; ++l) ds[l] += c[l] * d;
        }
    }
    // R_l = s_l^n with the library's own power (single precision).
    alignas(16) float sumF[kLanes], powerF[kLanes];
    for (unsigned int l = 0; l < kSpectralValues; ++l) {
        if (!(sum[l] > 0.0)) return false;
        sumF[l] = static_cast<float>(sum[l]);
    }
    sumF[kSpectralValues] = 1.0f;
    YuleNielsenPower(sumF, static_cast<float>(n_), powerF, kLanes);
    alignas(16) double R[kLanes], dRds[kLanes];
    for (unsigned int l = 0; l < kLanes; ++l) {
        R[l] = l < kSpectralValues ? powerF[l] : 0.0;
        dRds[l] = l < kSpectralValues ? n_ * R[l] / sum[l] : 0.0;
    }
    double sumXYZ[3] = {0.0, 0.0, 0.0};
    double dXYZ[3][kMaxInks] = {};
    for (unsigned int ch = 0; ch < 3; ++ch) {
        const double* W = weights_[ch];
        double acc = 0.0;
        for (unsigned int l = 0; l < kLanes; ++l) acc += W[l] * R[l];
        sumXYZ[ch] = acc;
    }
    if (jac != nullptr) {
        alignas(16) double WdR[3][kLanes];
        for (unsigned int ch = 0; ch < 3; ++ch)
            for (unsigned int l = 0; l < kLanes; ++l) WdR[ch][l] = weights_[ch][l] * dRds[l];
        for (unsigned int i = 0; i < N; ++i)
            for (unsigned int ch = 0; ch < 3; ++ch) {
                double acc = 0.0;
                for (unsigned int l = 0; l < kLanes; ++l) acc += WdR[ch][l] * dsum[i][l];
                dXYZ[ch][i] = acc * dw[i];
            }
    }
    for (unsigned int ch = 0; ch < 3; ++ch) {
        xyz[ch] = sumXYZ[ch];
        if (jac != nullptr)
            for (unsigned int i = 0; i < N; ++i) jac[ch * N + i] = dXYZ[ch][i];
    }
    return true;
}

bool ZKCSeparation_Evaluator::Lab(const double* x, double* lab, double* jac) const {
    const unsigned int N = inks_;
    double xyz[3], jXYZ[3 * kMaxInks];
    if (!XYZ(x, xyz, jac != nullptr ? jXYZ : nullptr)) return false;
    XYZToCIELAB(xyz, white_, lab);
    if (jac == nullptr) return true;
    // d Lab / d XYZ by forward differences of the one CIELAB formula.
    double dLab[3][3];
    for (unsigned int c = 0; c < 3; ++c) {
        double p[3] = {xyz[0], xyz[1], xyz[2]};
        const double h = kXYZStep * std::max(std::fabs(xyz[c]), 1e-4);
        p[c] += h;
        double labP[3];
        XYZToCIELAB(p, white_, labP);
        for (unsigned int r = 0; r < 3; ++r) dLab[r][c] = (labP[r] - lab[r]) / h;
    }
    for (unsigned int r = 0; r < 3; ++r)
        for (unsigned int i = 0; i < N; ++i)
            jac[r * N + i] = dLab[r][0] * jXYZ[i] + dLab[r][1] * jXYZ[N + i] + dLab[r][2] * jXYZ[2 * N + i];
    return true;
}

}  // namespace KELMA_NAMESPACE
