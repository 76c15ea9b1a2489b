// The three LAB2000HL tables (Lissner & Urban, IEEE TIP 21(3), 2012), as
// embedded from data/lab2000hl at build time. Constant, process-wide.
#pragma once

#include "kelma/common/Config.h"

namespace KELMA_NAMESPACE {

constexpr unsigned int kLab2000hlLSize = 10001;        // L* = 0.00 .. 100.00, index 100 L*
constexpr unsigned int kLab2000hlGridSide = 257;        // a*, b* = -128 .. 128
constexpr unsigned int kLab2000hlABSize = 257 * 257;    // index (a*+128) + 257 (b*+128)
constexpr unsigned int kLab2000hlLPad = 1;              // zero entries after LUT_L
constexpr unsigned int kLab2000hlABPad = 258;           // zero entries after LUT_A, LUT_B

const double* Lab2000hlLutL();  // kLab2000hlLSize + kLab2000hlLPad values
const double* Lab2000hlLutA();  // kLab2000hlABSize + kLab2000hlABPad values
const double* Lab2000hlLutB();

}  // namespace KELMA_NAMESPACE
