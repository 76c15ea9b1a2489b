"""kelma evaluate: how well a model predicts a measured chart."""
from pathlib import Path

import kelma

from .common import UserError, load_model, read_chart


def register(sub):
    p = sub.add_parser("evaluate", help="CIEDE2000 statistics of a model against a measured chart")
    p.add_argument("model", help="model .npz from 'kelma fit', or 'default' for the embedded press model")
    p.add_argument("chart", help="measured chart (CGATS) with device values in percent and spectra")
    p.add_argument("--illuminant", default="D50", type=str.upper,
                   choices=("A", "D50", "D65", "E", "F1", "F2", "F11"),
                   help="illuminant of the comparison (default D50)")
    p.add_argument("--observer", type=int, choices=(2, 10), default=2,
                   help="CIE 1931 2 degree or CIE 1964 10 degree observer (default 2)")
    p.set_defaults(run=run)


def run(args):
    model = load_model(None if args.model == "default" else args.model, args.illuminant, args.observer)
    chart = read_chart(args.chart, required=["spectra", "device"])
    if chart.device_values.shape[1] != model.inks:
        raise UserError("%s has %d device channels; the model has %d inks"
                        % (args.chart, chart.device_values.shape[1], model.inks))
    e = kelma.evaluate_model(model, chart)
    name = "the embedded press model" if args.model == "default" else Path(args.model).name
    print("CIEDE2000 (%s / %d deg) of %s against %s" % (args.illuminant, args.observer, name, Path(args.chart).name))
    print("%-14s %6s %7s %7s %7s %7s" % ("", "count", "mean", "median", "p95", "max"))
    for label, key in (("all patches", "all"), ("  K = 0", "k_zero"), ("  K > 0", "k_positive")):
        s = e[key]
        if s["count"]:
            print("%-14s %6d %7.3f %7.3f %7.3f %7.3f" % (label, s["count"], s["mean"], s["median"], s["p95"], s["max"]))
