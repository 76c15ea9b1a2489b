#!/usr/bin/python3
"""scipy's clamped cubic spline (and linear interp1d for context) on the same
batch as bench_sampling: the APTEC PC10 chart's 36-band spectra tiled 16 times,
resampled onto 400-700 nm in 10 nm steps. Prints one JSON object with the
median spectra per second over --runs runs (run it with /usr/bin/python3).
"""
import argparse
import json
import os
import statistics
import time

import numpy as np
from scipy.interpolate import CubicSpline, interp1d

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_CHART = os.path.join(HERE, "..", "data", "aptec_pc10", "APTEC_PC10_CardBoard_2023_v1_Spectral.txt")
TILES = 16
GRID = np.arange(400.0, 701.0, 10.0)


def read_chart(path):
    """Wavelengths and spectra of a tab-separated CGATS chart (this layout only)."""
    fields, rows, section = None, [], None
    with open(path) as f:
        for line in f:
            cells = [c for c in line.rstrip("\r\n").split("\t") if c]
            if not cells:
                continue
            if cells[0] in ("BEGIN_DATA_FORMAT", "BEGIN_DATA"):
                section = cells[0]
            elif cells[0] in ("END_DATA_FORMAT", "END_DATA"):
                section = None
            elif section == "BEGIN_DATA_FORMAT":
                fields = cells
            elif section == "BEGIN_DATA":
                rows.append(cells)
    cols = [(int(name[len("SPECTRAL_NM"):].lstrip("_")), i) for i, name in enumerate(fields)
            if name.startswith("SPECTRAL_NM")]
    cols.sort()
    wavelengths = np.array([w for w, _ in cols], dtype=float)
    spectra = np.array([[float(r[i]) for _, i in cols] for r in rows], dtype=np.float32)
    return wavelengths, spectra


def rate(fn, count, runs):
    rates = []
    for _ in range(runs):
        t0 = time.perf_counter()
        out = fn()
        dt = time.perf_counter() - t0
        assert out.shape == (count, GRID.size)
        rates.append(count / dt)
    return statistics.median(rates), rates


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--chart", default=os.environ.get("KELMA_BENCH_CHART", DEFAULT_CHART))
    ap.add_argument("--runs", type=int, default=5)
    args = ap.parse_args()

    x, spectra = read_chart(args.chart)
    batch = np.tile(spectra, (TILES, 1)).astype(np.float64)
    count = batch.shape[0]
    spline_median, spline_all = rate(
        lambda: CubicSpline(x, batch, axis=1, bc_type="clamped")(GRID), count, args.runs)
    linear_median, linear_all = rate(
        lambda: interp1d(x, batch, axis=1, kind="linear", assume_sorted=True)(GRID), count, args.runs)
    print(json.dumps({
        "spectra": count,
        "bands_in": int(x.size),
        "spline_spectra_per_second": spline_median,
        "spline_runs": spline_all,
        "linear_spectra_per_second": linear_median,
        "linear_runs": linear_all,
    }))


if __name__ == "__main__":
    main()
