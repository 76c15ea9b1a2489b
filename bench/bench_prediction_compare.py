#!/usr/bin/python3
"""Prediction throughput of kelma against the strongest numpy implementation a
user would write for the same model shapes, measured in one run:

    /usr/bin/python3 bench/bench_prediction_compare.py build/bench/bench_prediction

The numpy peer is tuned: per-ink lookup tables of cell offsets and local
coordinates (as the model holds them), the 2^N monomials built by doubling,
and the cell sums as one float32 einsum over chunks of 1024 samples (chunks
keep the gathered coefficient blocks in cache; float32 halves the traffic),
then np.power into a preallocated output. It runs on one thread.

Shapes: 4 inks (G = 5), 6 inks (G = 3), 7 inks (G = 3). Every round runs the
numpy peer once per shape and each kelma case once (spectral output and byte
output on one thread, spectral output on all processors), so that load from
other processes hits both sides alike; the table shows medians over the
rounds of the rates and of the per-round ratios. The one-thread rates are
given per wall-clock second and per CPU second of the process (the second
stays meaningful when other processes share the processors):
    kelma / numpy        spectra, one thread each (target 4 inks >= 8x, 7 inks >= 14x)
    bytes / spectra      kelma's colorimetric-byte mode against its spectral mode (target >= 0.70)
    all / one            spectra on all processors against one (target on 2 processors >= 1.8x)
"""
import json
import subprocess
import sys
import time

import numpy as np

SHAPES = [(4, 5), (6, 3), (7, 3)]
ROUNDS = 5
CHUNK = 1024


def numpy_model(inks, grid, rng):
    cells = (grid - 1) ** inks
    scheme = rng.uniform(0.0, 0.3, size=(cells, 31, 2 ** inks)).astype(np.float32)
    scheme[:, :, 0] += 0.5
    levels = np.round(np.linspace(0, 255, grid)).astype(np.int64)
    t = np.arange(256)
    cell = np.clip(np.searchsorted(levels, t, side="right") - 1, 0, grid - 2)
    weight = ((t - levels[cell]) / (levels[cell + 1] - levels[cell])).astype(np.float32)
    strides = (grid - 1) ** np.arange(inks)
    # Per ink and byte value: the ink's contribution to the cell number and
    # its local coordinate (the model's lookup table).
    offsets = (strides[:, None] * cell[None, :]).astype(np.intp)
    weights = np.repeat(weight[None, :], inks, axis=0)
    return scheme, offsets, weights


def numpy_predict(samples, scheme, offsets, weights, n, out):
    inks = samples.shape[1]
    ink = np.arange(inks)
    mono = np.empty((CHUNK, 2 ** inks), np.float32)
    for start in range(0, samples.shape[0], CHUNK):
        x = samples[start:start + CHUNK]
        m = mono[:x.shape[0]]
        q = offsets[ink, x].sum(axis=1)
        w = weights[ink, x]
        m[:, 0] = 1.0
        for k in range(inks):  # monomials: corner j is the product of w_k over the bits of j
            np.multiply(m[:, :1 << k], w[:, k:k + 1], out=m[:, 1 << k:2 << k])
        sums = np.einsum("swk,sk->sw", scheme[q], m)
        np.power(sums, np.float32(n), out=out[start:start + x.shape[0]])
    return out


class NumpyPeer:
    def __init__(self, inks, grid):
        rng = np.random.default_rng(1)
        self.model = numpy_model(inks, grid, rng)
        self.count = 1 << 16
        self.samples = rng.integers(0, 256, size=(self.count, inks), dtype=np.uint8)
        self.out = np.empty((self.count, 31), np.float32)
        self.rate()  # warm-up

    def rate(self):
        """(samples per wall-clock second, samples per CPU second)"""
        start, cpu = time.perf_counter(), time.process_time()
        numpy_predict(self.samples, *self.model, 2.2, self.out)
        return (self.count / (time.perf_counter() - start), self.count / (time.process_time() - cpu))


SAMPLES_PER_ITERATION = 1 << 18  # bench_prediction.cpp


def kelma_rates(binary):
    """{(shape index, bytes, all processors): (samples per wall-clock second,
    samples per process CPU second)} from one run of each case."""
    out = subprocess.run(
        [binary, "--benchmark_filter=BM_Predict/inks:[0-9]/bytes:[01]/all:[01]", "--benchmark_min_time=0.2",
         "--benchmark_format=json"], check=True, capture_output=True, text=True).stdout
    rates = {}
    for b in json.loads(out)["benchmarks"]:
        args = dict(part.split(":") for part in b["name"].split("/")[1:4])
        cpu_seconds = b["cpu_time"] / 1000.0  # milliseconds per iteration, all threads
        rates[(int(args["inks"]), int(args["bytes"]), int(args["all"]))] = (b["items_per_second"],
                                                                            SAMPLES_PER_ITERATION / cpu_seconds)
        if int(args["all"]):
            rates["threads"] = int(b["label"].split(", ")[-1].split()[0])
    return rates


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: bench_prediction_compare.py PATH/TO/bench_prediction")
    peers = [NumpyPeer(inks, grid) for inks, grid in SHAPES]
    keys = ("kelma", "numpy", "ratio", "kelma_cpu", "numpy_cpu", "ratio_cpu", "bytes", "bytes_cpu", "all")
    rows = {i: {k: [] for k in keys} for i in range(len(SHAPES))}
    threads = 1
    for _ in range(ROUNDS):
        numpy_rates = [peer.rate() for peer in peers]
        ours = kelma_rates(sys.argv[1])
        threads = ours["threads"]
        for i in range(len(SHAPES)):
            r = rows[i]
            spectra, spectra_cpu = ours[(i, 0, 0)]
            bytes_, bytes_cpu = ours[(i, 1, 0)]
            r["kelma"].append(spectra)
            r["kelma_cpu"].append(spectra_cpu)
            r["numpy"].append(numpy_rates[i][0])
            r["numpy_cpu"].append(numpy_rates[i][1])
            r["ratio"].append(spectra / numpy_rates[i][0])
            r["ratio_cpu"].append(spectra_cpu / numpy_rates[i][1])
            r["bytes"].append(bytes_ / spectra)
            r["bytes_cpu"].append(bytes_cpu / spectra_cpu)
            r["all"].append(ours[(i, 0, 1)][0] / spectra)
    med = lambda v: float(np.median(v))
    print("medians of %d rounds; all processors = %d" % (ROUNDS, threads))
    print("%-10s %-9s %12s %12s %12s %14s" % ("inks", "per", "kelma 1 thr", "numpy tuned", "kelma/numpy",
                                             "bytes/spectra"))
    for i, (inks, grid) in enumerate(SHAPES):
        r = rows[i]
        for per, suffix in (("wall s", ""), ("CPU s", "_cpu")):
            print("%-10s %-9s %11.2fM %11.2fM %11.1fx %14.2f" % (
                "%d (G=%d)" % (inks, grid), per, med(r["kelma" + suffix]) / 1e6, med(r["numpy" + suffix]) / 1e6,
                med(r["ratio" + suffix]), med(r["bytes" + suffix])))
    print("spectra on %d threads / 1 thread (wall clock): %s" % (
        threads, ", ".join("%d inks %.2fx" % (inks, med(rows[i]["all"])) for i, (inks, _) in enumerate(SHAPES))))


if __name__ == "__main__":
    main()
