"""kelma fit: build a model from a measured chart."""
import numpy as np

import kelma

from .common import parse_grid, read_chart


def register(sub):
    p = sub.add_parser("fit", help="build a model from a measured chart (CGATS)")
    p.add_argument("chart")
    p.add_argument("--grid", required=True, help="grid levels in percent, e.g. 0,40,100")
    p.add_argument("--method", choices=("refined", "classic"), default="refined")
    p.add_argument("--out", required=True, help="model file to write (.npz)")
    p.set_defaults(run=run)


def run(args):
    chart = read_chart(args.chart, required=["spectra", "device"])
    built = kelma.build_model(chart, parse_grid(args.grid), method=args.method)
    a = built.arrays
    np.savez(args.out, grid=a["grid"], ramps=a["ramps"], scheme=a["scheme"], n=a["n"])
    e = built.fit_error
    print("fitted %s model: n = %.4f, training CIEDE2000 mean %.3f, p95 %.3f, max %.3f (%d patches) -> %s"
          % (args.method, built.n, e["mean"], e["p95"], e["max"], e["count"], args.out))
