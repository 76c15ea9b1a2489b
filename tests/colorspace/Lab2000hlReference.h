// Double-precision reference of CIELAB -> LAB2000HL and its byte encoding,
// reading the raw published tables from data/lab2000hl (not the copy the
// library embeds), for comparison with the library.
#pragma once

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab2000hl_ref {

inline std::vector<double> ReadF64(const std::string& path, std::size_t count, std::size_t zeroPad) {
    std::vector<double> v(count + zeroPad, 0.0);
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    std::size_t got = std::fread(v.data(), sizeof(double), count, f);
    std::fclose(f);
    if (got != count) throw std::runtime_error("short read " + path);
    return v;
}

// The three tables, each followed by the zero entries the interpolation reads
// with weight 0 at the upper edges.
struct Tables {
    std::vector<double> L, A, B;
    Tables()
        : L(ReadF64(KELMA_TEST_DATA_DIR "/lab2000hl/LUT_L.f64", 10001, 1)),
          A(ReadF64(KELMA_TEST_DATA_DIR "/lab2000hl/LUT_A.f64", 257 * 257, 258)),
          B(ReadF64(KELMA_TEST_DATA_DIR "/lab2000hl/LUT_B.f64", 257 * 257, 258)) {}
};

inline const Tables& Get() {
    static const Tables t;
    return t;
}

inline double Clamp(double v, double lo, double hi) { return v > hi ? hi : (v < lo ? lo : v); }

// Linear interpolation in L*, bilinear in (a*, b*) on the 257 x 257 grid.
inline void Lab2Lab2000hl(double* out, const double* lab) {
    const Tables& t = Get();
    const double L = Clamp(lab[0], 0.0, 100.0);
    const double a = Clamp(lab[1], -128.0, 128.0);
    const double b = Clamp(lab[2], -128.0, 128.0);

    const double u = L / 100.0 * 10000.0;
    const long i = static_cast<long>(u);
    const double f = u - static_cast<double>(i);
    out[0] = (1.0 - f) * t.L[i] + f * t.L[i + 1];

    const double p = a + 128.0, q = b + 128.0;
    const long ia = static_cast<long>(p), ib = static_cast<long>(q);
    const double fa = p - static_cast<double>(ia), fb = q - static_cast<double>(ib);
    const long k = ia + 257 * ib;
    const double w00 = (1.0 - fa) * (1.0 - fb), w10 = fa * (1.0 - fb), w01 = (1.0 - fa) * fb, w11 = fa * fb;
    out[1] = w00 * t.A[k] + w10 * t.A[k + 1] + w01 * t.A[k + 257] + w11 * t.A[k + 258];
    out[2] = w00 * t.B[k] + w10 * t.B[k + 1] + w01 * t.B[k + 257] + w11 * t.B[k + 258];
}

// Clamp to [0, 255] (NaN -> 0), round half up.
inline unsigned char EncodeByte(double v) {
    double c = v > 255.0 ? 255.0 : (v >= 0.0 ? v : 0.0);
    return static_cast<unsigned char>(static_cast<int>(c + 0.5));
}

inline void Lab2000hlBytes(const double* lhl, unsigned char* out) {
    out[0] = EncodeByte(3.3931 * lhl[0]);
    out[1] = EncodeByte(2.6771 * lhl[1] + 128.0);
    out[2] = EncodeByte(2.6771 * lhl[2] + 128.0);
}

}  // namespace lab2000hl_ref
