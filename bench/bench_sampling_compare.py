#!/usr/bin/python3
"""Runs bench_sampling (kelma) and bench_sampling_scipy.py on the same batch and
prints spectra per second and the kelma / scipy ratio, each the median of
--repetitions runs.

    /usr/bin/python3 bench/bench_sampling_compare.py --bench build/bench/bench_sampling
"""
import argparse
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))


def kelma_rates(binary, repetitions):
    out = subprocess.run(
        [binary, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
         "--benchmark_report_aggregates_only=true", "--benchmark_filter=BM_Resample"],
        check=True, capture_output=True, text=True).stdout
    rates = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        name = b["run_name"]  # BM_Resample/method:M/threads:T/real_time
        method = "linear" if "/method:0/" in name else "spline"
        threads = "1 thread" if "/threads:1/" in name else f"all ({int(b['workers'])}) threads"
        rates[(method, threads)] = b["items_per_second"]
    return rates


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--bench", default=os.path.join(HERE, "..", "build", "bench", "bench_sampling"))
    ap.add_argument("--repetitions", type=int, default=5)
    args = ap.parse_args()

    kelma = kelma_rates(args.bench, args.repetitions)
    scipy = json.loads(subprocess.run(
        [sys.executable, os.path.join(HERE, "bench_sampling_scipy.py"), "--runs", str(args.repetitions)],
        check=True, capture_output=True, text=True).stdout)

    print(f"batch: {scipy['spectra']} spectra, {scipy['bands_in']} bands in, 31 out; "
          f"medians of {args.repetitions} runs, spectra per second")
    print(f"{'method':8} {'kelma':>22} {'rate':>12} {'scipy':>12} {'kelma/scipy':>12}")
    for (method, threads), rate in sorted(kelma.items()):
        ref = scipy[f"{method}_spectra_per_second"]
        print(f"{method:8} {threads:>22} {rate:12.4g} {ref:12.4g} {rate / ref:12.2f}")


if __name__ == "__main__":
    main()
