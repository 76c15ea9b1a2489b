"""kelma fit: build a model from a measured chart."""
import math
from pathlib import Path

import numpy as np

import kelma

from .common import UserError, add_extrapolate_option, parse_grid, parse_number, read_chart
from .tables import check_output_path


def register(sub):
    p = sub.add_parser("fit", help="build a model from a measured chart (CGATS)")
    p.add_argument("chart", help="measured chart (CGATS with spectra and device values), or - for standard input")
    p.add_argument("--grid", required=True,
                   help="grid levels in percent, e.g. 0,40,100; per ink separated by ';', e.g. "
                        "'0,40,100;0,40,100;0,40,100;0,50,100'")
    p.add_argument("--method", choices=("refined", "classic"), default="refined",
                   help="refined (default): nodes, ramps and n fitted together to all patches; classic: nodes "
                        "are the measured grid patches, ramps from the single-ink patches, n searched")
    p.add_argument("--estimate-missing", action="store_true",
                   help="estimate grid nodes the chart lacks (from a classic model on --coarse-grid)")
    p.add_argument("--coarse-grid", help="grid of the model that estimates missing nodes (default 0,100)")
    p.add_argument("--fine-base",
                   help="fine-grid fit: fit the model on these levels first, then the --grid nodes toward it")
    p.add_argument("--fine-prior", default="auto",
                   help="weight of the fine-grid prior in patches per node, or auto (default: chosen from the chart)")
    p.add_argument("--out", required=True, help="model file to write (exactly this name; e.g. press.kelma)")
    add_extrapolate_option(p)
    p.set_defaults(run=run)


def grid_argument(text):
    """Levels for every ink (list), or per ink (rows of equal length) when ';' separates them."""
    if ";" not in text:
        return parse_grid(text)
    rows = [parse_grid(part) for part in text.split(";")]
    if len({len(r) for r in rows}) != 1:
        raise UserError("--grid per ink needs the same number of levels for every ink, got %s"
                        % ", ".join(str(len(r)) for r in rows))
    return np.array(rows)


def prior_argument(text, fine_base):
    if text == "auto":
        return "auto"
    weight = parse_number(text)
    if weight is None:
        weight = math.nan
    if not (weight > 0 and math.isfinite(weight)):
        raise UserError("--fine-prior takes auto or a positive number of patches per node, got %r" % text)
    if fine_base is None:
        raise UserError("--fine-prior needs --fine-base (the grid the fine grid is fitted toward)")
    return weight


def run(args):
    check_output_path(args.out, "--out", (args.chart,))
    chart = read_chart(args.chart, required=["spectra", "device"], extrapolate=args.extrapolate)
    fine_base = parse_grid(args.fine_base) if args.fine_base else None
    built = kelma.build_model(
        chart, grid_argument(args.grid), method=args.method,
        estimate_missing_nodes=args.estimate_missing,
        coarse_grid_percent=parse_grid(args.coarse_grid) if args.coarse_grid else None,
        fine_base_grid_percent=fine_base, fine_prior=prior_argument(args.fine_prior, fine_base))
    # The file records how it was fitted; the library writes it beside the
    # target and renames it when complete.
    how = ["kelma fit --grid %s --method %s" % (args.grid, args.method)]
    if args.estimate_missing:
        how.append("--estimate-missing --coarse-grid %s" % (args.coarse_grid or "0,100"))
    if fine_base is not None:
        how.append("--fine-base %s (prior %g patches per node)" % (args.fine_base, built.fine_prior))
    built.model_file(chart=Path(args.chart).name).with_description(description=" ".join(how)).write(args.out)
    e = built.fit_error
    print("fitted %s model: n = %.4f, training CIEDE2000 mean %.3f, p95 %.3f, max %.3f (%d patches) -> %s"
          % (args.method, built.n, e["mean"], e["p95"], e["max"], e["count"], args.out))
    if len(built.estimated_nodes):
        print("  %d grid nodes without a patch: %s" % (
            len(built.estimated_nodes),
            "fitted toward the base model" if fine_base is not None else "estimated"))
    if fine_base is not None:
        print("  fine-grid prior: %g patches per node" % built.fine_prior)
