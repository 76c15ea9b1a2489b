// Independent reference computations for the colorimetry tests: lighting
// weights in double, the fixed-order single-precision dot product, CIELAB and
// its byte encodings, and the media-relative decode.
#pragma once

#include <cmath>
#include <vector>

#include "tests/colorimetry/CieTables.h"
#include "tests/colorspace/Lab2000hlReference.h"

namespace color_ref {

// One 96-float block: rows cmf * S / k, k = sum ybar * S (wavelength order), pads 0.
inline std::vector<float> Block(const cie_ref::Row& x, const cie_ref::Row& y, const cie_ref::Row& z,
                                const cie_ref::Row& s) {
    double k = 0.0;
    for (int i = 0; i < 31; ++i) k += y[i] * s[i];
    std::vector<float> b(96, 0.0f);
    for (int i = 0; i < 31; ++i) {
        b[i] = static_cast<float>(x[i] * s[i] / k);
        b[32 + i] = static_cast<float>(y[i] * s[i] / k);
        b[64 + i] = static_cast<float>(z[i] * s[i] / k);
    }
    return b;
}

// Eight 4-lane products, tree ((p0+p1)+(p2+p3))+((p4+p5)+(p6+p7)) per lane,
// then the lanes left to right.
inline float Dot(const float* r, const float* w) {
    float lane[4];
    for (int l = 0; l < 4; ++l) {
        float p[8];
        for (int k = 0; k < 8; ++k) p[k] = r[4 * k + l] * w[4 * k + l];
        lane[l] = ((p[0] + p[1]) + (p[2] + p[3])) + ((p[4] + p[5]) + (p[6] + p[7]));
    }
    return ((lane[0] + lane[1]) + lane[2]) + lane[3];
}

// XYZ of `count` spectra through `n` blocks of weights, optional factor.
inline std::vector<float> XYZ(const float* weights, unsigned n, const float* spectra, unsigned count,
                              const std::vector<float>* factor) {
    std::vector<float> out(static_cast<std::size_t>(count) * n * 3);
    for (unsigned s = 0; s < count; ++s)
        for (unsigned j = 0; j < n; ++j)
            for (unsigned c = 0; c < 3; ++c) {
                float f = factor ? (*factor)[3 * j + c] : 1.0f;
                out[(s * n + j) * 3 + c] = Dot(spectra + 32 * s, weights + 96 * j + 32 * c) * f;
            }
    return out;
}

// The perfect reflector's XYZ (spectrum of 32 ones) per illuminant.
inline std::vector<float> White(const float* weights, unsigned n) {
    alignas(16) float ones[32];
    for (float& v : ones) v = 1.0f;
    return XYZ(weights, n, ones, 1, nullptr);
}

inline double F(double t) { return t > 0.008856 ? std::pow(t, 0.3333333333333333) : 7.787 * t + 0.13793103448275862; }

// CIE 1976 L*a*b* with the rounded constants, t_c = xyz_c * inverseWhite_c.
inline void Lab(double* lab, const float* xyz, const double* inv) {
    double tx = static_cast<double>(xyz[0]) * inv[0];
    double ty = static_cast<double>(xyz[1]) * inv[1];
    double tz = static_cast<double>(xyz[2]) * inv[2];
    lab[0] = ty > 0.008856 ? 116.0 * F(ty) - 16.0 : 903.3 * ty;
    lab[1] = 500.0 * (F(tx) - F(ty));
    lab[2] = 200.0 * (F(ty) - F(tz));
}

// Bytes of `count` x n XYZ triples as the lighting matrix encodes them.
inline std::vector<unsigned char> Bytes(const float* weights, unsigned n, const float* xyz, unsigned count,
                                        bool cielabBytes) {
    std::vector<float> w = White(weights, n);
    std::vector<double> inv(3 * n);
    for (unsigned i = 0; i < 3 * n; ++i) inv[i] = 1.0 / static_cast<double>(w[i]);
    std::vector<unsigned char> out(static_cast<std::size_t>(count) * n * 3);
    for (unsigned s = 0; s < count; ++s)
        for (unsigned j = 0; j < n; ++j) {
            std::size_t o = (static_cast<std::size_t>(s) * n + j) * 3;
            double lab[3];
            Lab(lab, xyz + o, &inv[3 * j]);
            if (cielabBytes) {
                out[o] = lab2000hl_ref::EncodeByte(2.55 * lab[0]);
                out[o + 1] = lab2000hl_ref::EncodeByte(lab[1] + 128.0);
                out[o + 2] = lab2000hl_ref::EncodeByte(lab[2] + 128.0);
            } else {
                double lhl[3];
                lab2000hl_ref::Lab2Lab2000hl(lhl, lab);
                lab2000hl_ref::Lab2000hlBytes(lhl, &out[o]);
            }
        }
    return out;
}

// Encoded CIELAB decodes.
inline void Decode8(double* lab, const unsigned char* in) {
    lab[0] = 0.39215686274509803 * in[0];
    lab[1] = in[1] - 128.0;
    lab[2] = in[2] - 128.0;
}
inline void Decode16(double* lab, const unsigned short* in) {
    lab[0] = (in[0] * 100.390625) / 65535.0;
    lab[1] = (255.99609375 * in[1]) * 1.5259021896696422e-05 - 128.0;
    lab[2] = (255.99609375 * in[2]) * 1.5259021896696422e-05 - 128.0;
}

// Inverse CIELAB with the rounded thresholds 7.9996 (L*) and 0.2069 (f).
// `linearBelow` moves the L* threshold, so a test can show which branch matters.
inline void LabToXYZ(double* xyz, const double* lab, double linearBelow = 7.9996) {
    const double k = 0.13793103448275862;
    double fy, Y;
    if (lab[0] > linearBelow) {
        fy = (lab[0] + 16.0) / 116.0;
        Y = fy * fy * fy;
    } else {
        Y = lab[0] / 903.3;
        fy = 7.787 * Y + k;
    }
    double fx = lab[1] / 500.0 + fy;
    double fz = fy - lab[2] / 200.0;
    xyz[0] = fx > 0.2069 ? fx * fx * fx : (fx - k) / 7.787;
    xyz[1] = Y;
    xyz[2] = fz > 0.2069 ? fz * fz * fz : (fz - k) / 7.787;
}

// Media-relative encoded CIELAB -> scaled XYZ floats -> LAB2000HL bytes.
template <class T, class DecodeFn>
std::vector<unsigned char> MediaRelative(const float* weights, unsigned n, const T* in, unsigned count,
                                         const std::vector<float>* factor, DecodeFn decode,
                                         double linearBelow = 7.9996) {
    std::vector<float> w = White(weights, n);
    std::vector<float> s = factor ? *factor : std::vector<float>(3 * n, 1.0f);
    for (unsigned i = 0; i < 3 * n; ++i) s[i] = s[i] * w[i];
    std::vector<float> tmp(static_cast<std::size_t>(count) * n * 3);
    for (unsigned q = 0; q < count * n; ++q) {
        unsigned j = q % n;
        double lab[3], xyz[3];
        decode(lab, in + 3 * q);
        LabToXYZ(xyz, lab, linearBelow);
        for (unsigned c = 0; c < 3; ++c) tmp[3 * q + c] = static_cast<float>(xyz[c] * static_cast<double>(s[3 * j + c]));
    }
    return Bytes(weights, n, tmp.data(), count, false);
}

}  // namespace color_ref
