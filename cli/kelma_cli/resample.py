"""kelma resample: a chart's spectra on 400-700 nm in 10 nm steps, with its
sample IDs, device values, colorimetry and header keywords, as CGATS (which
'kelma fit' reads) or CSV."""
import kelma

from .common import add_extrapolate_option, read_chart
from .tables import FORMATS, STDIO, check_output_path, csv_text, emit, input_name, output_format

WAVELENGTHS = list(range(400, 701, 10))


def register(sub):
    p = sub.add_parser("resample", help="resample a chart's spectra onto 400-700 nm / 10 nm (CGATS or CSV)")
    p.add_argument("chart", help="measured chart (CGATS), or - for standard input")
    p.add_argument("out", help="file to write (exactly this name, written atomically), or - for standard output")
    p.add_argument("--method", choices=("linear", "spline"), default="linear",
                   help="piecewise linear or cubic spline interpolation (default linear)")
    p.add_argument("--format", choices=FORMATS,
                   help="output format (default: csv for a name ending in .csv, else cgats)")
    add_extrapolate_option(p)
    p.set_defaults(run=run)


def run(args):
    fmt = output_format(args.format, args.out)
    check_output_path(args.out, "output", (args.chart,))
    chart = read_chart(args.chart, "spectra", extrapolate=args.extrapolate)
    spectra = chart.resample(args.method)
    channels = list(chart.channel_names)
    if fmt == "csv":
        groups = [(["SPECTRAL_NM%d" % w for w in WAVELENGTHS], spectra, "%.6f")]
        text = csv_text(chart.sample_ids, channels, chart.device_values, groups)
    else:
        # The header as it was, but for what the table itself determines (the
        # writer sets the counts and the spectral keywords); a keyword repeated
        # without being a pair keeps its first value.
        keywords, seen = [], set()
        for keyword, value in chart.properties:
            if keyword in seen and "," not in value:
                continue
            seen.add(keyword)
            keywords.append((keyword, value))
        text = kelma.measurement_file_text(
            chart.sample_ids, channel_names=channels if channels else None,
            device_values=chart.device_values if channels else None, xyz=chart.xyz, lab=chart.lab,
            wavelengths=WAVELENGTHS, spectra=spectra, keywords=keywords)
    emit(args.out, text, "output")
    if args.out != STDIO:
        print("resampled %d spectra of %s (%s) -> %s" % (len(spectra), input_name(args.chart), args.method, args.out))
