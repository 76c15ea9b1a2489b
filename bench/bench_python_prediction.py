#!/usr/bin/python3
"""Throughput of the kelma Python module against the C++ benchmarks of the same
work, measured in one run:

    /usr/bin/python3 bench/bench_python_prediction.py --build build-py

- spectral prediction, 4 inks, G = 5, 1<<20 samples per call (Beer-Lambert
  test model, n = 2.2), against build/bench/bench_prediction
  (BM_Predict/inks:0/bytes:0/all:1, 4 inks G = 5, all processors);
- CLUT application, CMYK -> 3 on 17^4 nodes, 4M random pixels per call,
  against build/bench/bench_clut (BM_Kelma/4/0/1, same node table, random
  pixels, all processors).

Then the cost of one call with a single sample (predict_spectra and
predict_colors, 4 inks G = 5 and 7 inks G = 3): the median over rounds of the
mean time of 2000 back-to-back calls, in microseconds (target: at most 20).
Such calls run on the calling thread with the caller's model.

Prints the median rate of each case over the rounds and the median of the
per-round ratios Python / C++ (each round runs every Python case five times,
taking the median, and each C++ benchmark once, so that load from other
processes hits both); the target for
these large batches is a ratio of at least 0.90. The Python cases that write
into a preallocated `out` do the same work as the C++ loops (which reuse their
buffers); the others include numpy's allocation of the result (first-touch
page faults).
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

import numpy as np

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))


def rate(call, items, calls=5):
    """Items per second of `call`: the median of several back-to-back calls,
    so that one call's page faults or a scheduler hiccup do not decide."""
    rates = []
    for _ in range(calls):
        start = time.perf_counter()
        call()
        rates.append(items / (time.perf_counter() - start))
    return float(np.median(rates))


def cmyk_nodes():
    """The node table of bench_clut: smooth, non-linear, 17^4 x 3 bytes."""
    g = np.arange(17) / 16.0
    C, M, Y, K = np.meshgrid(g, g, g, g, indexing="ij")
    w = (1.0 - K) * (1.0 - 0.1 * C * M)
    nodes = np.stack([255.0 * w * (1.0 - C) ** 1.2, 255.0 * w * (1.0 - M) ** 1.1,
                      255.0 * w * (1.0 - Y) * (1.0 - 0.05 * C)], axis=-1)
    return np.floor(nodes + 0.5).astype(np.uint8)  # lround of non-negative values


def python_cases(kelma):
    """(name, call, items) of every Python case, each called once as warm-up."""
    sys.path.insert(0, os.path.join(REPO, "tests", "python"))
    from reference import BeerLambertModel

    rng = np.random.default_rng(1)
    ref = BeerLambertModel(4, 5, 2.2, seed=42)
    model = kelma.Model(ref.grid, ref.ramps, ref.scheme.astype(np.float32), ref.n, media_relative=True)
    samples = 1 << 20
    inks = rng.integers(0, 256, (samples, 4), dtype=np.uint8)
    records = np.empty((samples, 32), np.float32)
    clut = kelma.Clut.from_nodes(cmyk_nodes())
    pixels = 1 << 22
    px = rng.integers(0, 256, (2048, 2048, 4), dtype=np.uint8)
    out = np.empty((2048, 2048, 3), np.uint8)
    cases = [
        ("predict_spectra(padded=True, out=...)",
         lambda: kelma.predict_spectra(model, inks, padded=True, out=records), samples),
        ("predict_spectra(padded=True)", lambda: kelma.predict_spectra(model, inks, padded=True), samples),
        ("predict_spectra() -> (n, 31)", lambda: kelma.predict_spectra(model, inks), samples),
        ("Clut.apply(out=...)", lambda: clut.apply(px, out=out), pixels),
        ("Clut.apply()", lambda: clut.apply(px), pixels),
    ]
    for _, call, _ in cases:
        call()
    return cases


def one_sample_costs(kelma, rounds, calls=2000):
    """Microseconds per call of a one-sample prediction (median over rounds)."""
    sys.path.insert(0, os.path.join(REPO, "tests", "python"))
    from reference import BeerLambertModel

    rows = []
    for inks, grid in ((4, 5), (7, 3)):
        ref = BeerLambertModel(inks, grid, 2.2, seed=42)
        model = kelma.Model(ref.grid, ref.ramps, ref.scheme.astype(np.float32), ref.n, media_relative=True)
        one = np.full((1, inks), 100, np.uint8)
        for name, call in (("predict_spectra", lambda: kelma.predict_spectra(model, one)),
                           ("predict_colors", lambda: kelma.predict_colors(model, one))):
            call()
            means = []
            for _ in range(rounds):
                start = time.perf_counter()
                for _ in range(calls):
                    call()
                means.append((time.perf_counter() - start) / calls * 1e6)
            rows.append(("%s, 1 sample, %d inks (G=%d)" % (name, inks, grid), float(np.median(means))))
    return rows


def cxx_rate(binary, name_filter, repeats):
    with tempfile.NamedTemporaryFile(suffix=".json") as report:
        subprocess.run([binary, "--benchmark_filter=" + name_filter, "--benchmark_repetitions=%d" % repeats,
                        "--benchmark_out=" + report.name,
                        "--benchmark_out_format=json"], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        results = json.load(open(report.name))["benchmarks"]
    rates = [b["items_per_second"] for b in results if b.get("run_type") == "iteration"]
    if not rates:
        sys.exit("%s: no result for %s" % (binary, name_filter))
    return float(np.median(rates))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(REPO, "build"),
                        help="build folder holding python/ and bench/ (default: build)")
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--no-cxx", action="store_true", help="skip the C++ benchmarks")
    parser.add_argument("--one-sample-only", action="store_true", help="only the one-sample call costs")
    args = parser.parse_args()
    sys.path.insert(0, os.path.join(args.build, "python"))
    import kelma
    if not hasattr(kelma, "Model"):
        sys.exit("the kelma module was not found in %s/python" % args.build)

    print("processors used: %d, kernels: %s" % (kelma.cpu_count(), kelma.kernel_variant()))
    print("%-48s %10s" % ("one-sample call (median)", "us/call"))
    for name, micros in one_sample_costs(kelma, args.repeats):
        print("%-48s %10.2f" % (name, micros))
    if args.one_sample_only:
        return
    # Rounds alternate the Python cases and the C++ runs, so that load from
    # other processes affects both sides alike; medians over the rounds.
    cases = python_cases(kelma)
    ours = {name: [] for name, _, _ in cases}
    ratios = {name: [] for name, _, _ in cases}
    theirs = {"prediction": [], "clut": []}
    for _ in range(args.repeats):
        round_rates = {name: rate(call, items) for name, call, items in cases}
        if not args.no_cxx:
            theirs["prediction"].append(cxx_rate(os.path.join(args.build, "bench", "bench_prediction"),
                                                 "BM_Predict/inks:0/bytes:0/all:1", 1))
            theirs["clut"].append(cxx_rate(os.path.join(args.build, "bench", "bench_clut"), "BM_Kelma/4/0/1", 1))
        for name, value in round_rates.items():
            ours[name].append(value)
            if not args.no_cxx:
                peer = theirs["clut" if name.startswith("Clut") else "prediction"][-1]
                ratios[name].append(value / peer)
    print("%-40s %14s %14s %8s" % ("case (medians)", "Python /s", "C++ /s", "ratio"))
    for name in ours:
        peer = theirs["clut" if name.startswith("Clut") else "prediction"]
        peer_text = "%13.2fM" % (np.median(peer) / 1e6) if peer else "%14s" % "-"
        ratio = "%7.2f" % np.median(ratios[name]) if ratios[name] else "      -"
        print("%-40s %13.2fM %s %s" % (name, np.median(ours[name]) / 1e6, peer_text, ratio))


if __name__ == "__main__":
    main()
