#!/usr/bin/python3
"""Prediction throughput of kelma against a plain vectorised numpy
implementation of the same model shapes, measured in one run.

    /usr/bin/python3 bench/bench_prediction_compare.py build/bench/bench_prediction

Prints samples per second (median of several runs) for 4 inks (G = 5),
6 inks (G = 3) and 7 inks (G = 3), spectral output on one thread, and the
ratio kelma / numpy.
"""
import json
import subprocess
import sys
import time

import numpy as np

SHAPES = [(4, 5), (6, 3), (7, 3)]
REPEATS = 5


def numpy_model(inks, grid, rng):
    cells = (grid - 1) ** inks
    scheme = rng.uniform(0.0, 0.3, size=(cells, 31, 2 ** inks)).astype(np.float32)
    scheme[:, :, 0] += 0.5
    levels = np.round(np.linspace(0, 255, grid)).astype(np.int64)
    # Per ink and byte: cell offset and local coordinate, as a lookup table.
    t = np.arange(256)
    cell = np.clip(np.searchsorted(levels, t, side="right") - 1, 0, grid - 2)
    weight = ((t - levels[cell]) / (levels[cell + 1] - levels[cell])).astype(np.float32)
    strides = (grid - 1) ** np.arange(inks)
    return scheme, cell, weight, strides


def numpy_predict(samples, scheme, cell, weight, strides, n):
    inks = samples.shape[1]
    q = (cell[samples] * strides).sum(axis=1)
    w = weight[samples]                                  # count x inks
    corners = np.arange(2 ** inks)
    bits = ((corners[:, None] >> np.arange(inks)) & 1).astype(bool)   # corners x inks
    mono = np.where(bits[None, :, :], w[:, None, :], np.float32(1.0)).prod(axis=2)  # count x corners
    sums = np.einsum("swk,sk->sw", scheme[q], mono)
    out = np.zeros((samples.shape[0], 32), dtype=np.float32)
    out[:, :31] = np.power(sums, np.float32(n))
    return out


def numpy_rate(inks, grid):
    rng = np.random.default_rng(1)
    scheme, cell, weight, strides = numpy_model(inks, grid, rng)
    count = 1 << 16
    samples = rng.integers(0, 256, size=(count, inks), dtype=np.int64)
    rates = []
    for _ in range(REPEATS):
        start = time.perf_counter()
        numpy_predict(samples, scheme, cell, weight, strides, 2.2)
        rates.append(count / (time.perf_counter() - start))
    return float(np.median(rates))


def kelma_rates(binary):
    out = subprocess.run(
        [binary, "--benchmark_filter=BM_Predict/inks:[0-9]/bytes:0/all:0",
         "--benchmark_repetitions=%d" % REPEATS, "--benchmark_report_aggregates_only=true",
         "--benchmark_format=json"], check=True, capture_output=True, text=True).stdout
    rates = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("aggregate_name") == "median":
            rates[int(b["name"].split("inks:")[1].split("/")[0])] = b["items_per_second"]
    return rates


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: bench_prediction_compare.py PATH/TO/bench_prediction")
    ours = kelma_rates(sys.argv[1])
    print("%-8s %16s %16s %8s" % ("inks", "kelma (1 thread)", "numpy", "ratio"))
    for index, (inks, grid) in enumerate(SHAPES):
        theirs = numpy_rate(inks, grid)
        print("%-8s %14.2fM %14.2fM %7.1fx" % ("%d (G=%d)" % (inks, grid), ours[index] / 1e6, theirs / 1e6,
                                              ours[index] / theirs))


if __name__ == "__main__":
    main()
