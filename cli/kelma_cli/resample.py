"""kelma resample: a chart's spectra on 400-700 nm in 10 nm steps."""
from .common import read_chart


def register(sub):
    p = sub.add_parser("resample", help="resample a chart's spectra onto 400-700 nm / 10 nm (CSV)")
    p.add_argument("chart")
    p.add_argument("out")
    p.add_argument("--method", choices=("linear", "spline"), default="linear")
    p.set_defaults(run=run)


def run(args):
    chart = read_chart(args.chart)
    spectra = chart.resample(args.method)
    header = "SAMPLE_ID," + ",".join("NM%d" % w for w in range(400, 701, 10))
    with open(args.out, "w") as f:
        f.write(header + "\n")
        for sid, row in zip(chart.sample_ids, spectra):
            f.write(sid + "," + ",".join("%.6f" % v for v in row) + "\n")
    print("resampled %d spectra (%s) -> %s" % (len(spectra), args.method, args.out))
