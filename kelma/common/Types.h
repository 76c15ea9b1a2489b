// Enumerations and fixed sizes shared by every subsystem.
#pragma once

#include <cstdint>

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

// The spectral grid: 31 samples, 400-700 nm in 10 nm steps (index i is 400 + 10 i nm).
constexpr unsigned int kSpectralValues = 31;
// One spectrum record: 31 values and a 0.0 pad, i.e. eight 4-float SSE vectors.
constexpr unsigned int kSpectrumStride = 32;
// Floats in one illuminant block of a lighting matrix: X, Y and Z rows of 32.
constexpr unsigned int kLightingBlock = 3 * kSpectrumStride;

// Ink set of a model. Carried unchanged; only the full seven-ink value is used.
enum INK_SET : std::uint32_t {
    INK_SET_NONE = 0,
    INK_SET_CMYK = 15,
    INK_SET_SEVEN_INKS = 127,
};

// Numeric value is the field of view in degrees.
enum OBSERVER_TYPE : std::uint32_t {
    OBSERVER_CIE1931_2 = 2,
    OBSERVER_CIE1964_10 = 10,
};

enum COLORSPACETRANSFORMATION : std::uint32_t {
    COLORSPACETRANSFORMATION_NONE = 0,
    COLORSPACETRANSFORMATION_LAB2LAB2000HL = 1,
};

enum SPECTRALSAMPLING_METHOD : std::uint32_t {
    SPECTRALSAMPLING_LINEAR = 0,
    SPECTRALSAMPLING_CUBICSPLINE = 1,
};

// Numeric value = grid points per CLUT input axis (at least 2). Any value of
// the underlying type may be passed; these are the sizes users usually want.
enum CLUT_ACCURACY : std::uint32_t {
    CLUT_ACCURACY_2 = 2,
    CLUT_ACCURACY_3 = 3,
    CLUT_ACCURACY_5 = 5,
    CLUT_ACCURACY_9 = 9,
    CLUT_ACCURACY_17 = 17,
    CLUT_ACCURACY_33 = 33,
};

enum GAMUTMAPPER_METHOD : std::uint32_t {
    GAMUTMAPPER_DEFAULT = 0,
};

}  // namespace KELMA_NAMESPACE
