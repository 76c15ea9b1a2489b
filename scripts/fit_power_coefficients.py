#!/usr/bin/python3
"""Coefficients of the logarithm in the Yule-Nielsen power
(kelma/prediction/YuleNielsenPower_Scalar.h, kLog2):

    /usr/bin/python3 scripts/fit_power_coefficients.py

P(r) is the degree-4 polynomial that interpolates log2(1 + r) / r at the five
Chebyshev nodes of [-1/33, 1/33], the range of the reduced argument r = m c_i - 1
(|r| is largest, 1/33, in the first of the 16 table intervals). Interpolation at
Chebyshev nodes is within a small factor of the minimax polynomial, which is all
the power needs: the printed error of log2(1 + r) ~ r P(r) is the absolute error
of log2 x before it is multiplied by the exponent.
"""
import math

import numpy as np

DEGREE = 4
HALF_WIDTH = 1.0 / 33.0


def coefficients():
    k = np.arange(DEGREE + 1)
    r = HALF_WIDTH * np.cos((2 * k + 1) * np.pi / (2 * (DEGREE + 1)))
    return np.polyfit(r, np.log1p(r) / r / math.log(2.0), DEGREE)[::-1]


def main():
    c = coefficients()
    r = np.linspace(-HALF_WIDTH, HALF_WIDTH, 200001)
    r = r[r != 0.0]
    error = np.max(np.abs(r * np.polyval(c[::-1], r) - np.log2(1.0 + r)))
    print("kLog2 = {" + ", ".join(repr(float(v)) for v in c) + "}")
    print("largest absolute error of log2(1 + r): %.2g" % error)


if __name__ == "__main__":
    main()
