#include "kelma/colorspace/Lab2000hlTables.h"

// Defined by the assembled Lab2000hlTables.S (see cmake/Lab2000hlTables.S.in).
extern "C" {
extern const double kelma_lab2000hl_lut_l[];
extern const double kelma_lab2000hl_lut_a[];
extern const double kelma_lab2000hl_lut_b[];
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the embedded tables are little-endian float64");

namespace KELMA_NAMESPACE {

const double* Lab2000hlLutL() { return kelma_lab2000hl_lut_l; }
const double* Lab2000hlLutA() { return kelma_lab2000hl_lut_a; }
const double* Lab2000hlLutB() { return kelma_lab2000hl_lut_b; }

}  // namespace KELMA_NAMESPACE
