"""kelma profile: an ICC output profile of a model (fitted from a chart, or a
model file), written through the library (Little CMS)."""
import codecs
import time
from pathlib import Path

import kelma

from .common import UserError, add_extrapolate_option, check_separation_limits, read_chart
from .fit import grid_argument
from .tables import check_output_path

ILLUMINANTS = ("A", "D50", "D65", "E", "F1", "F2", "F11")


def register(sub):
    p = sub.add_parser("profile", help="write an ICC output profile of a model (A2B from the model, B2A from "
                                       "the separation)")
    p.add_argument("chart", nargs="?", help="measured chart (CGATS) to fit the model to (or give --model)")
    p.add_argument("--model", help="model file from 'kelma fit' instead of a chart")
    p.add_argument("--grid", help="with a chart: grid levels in percent of the fit, e.g. 0,40,100 (as kelma fit)")
    p.add_argument("--method", choices=("refined", "classic"), default="refined", help="with a chart: the fit")
    p.add_argument("--out", required=True, help="ICC profile to write (exactly this name; e.g. press.icc)")
    p.add_argument("--tac", type=int, default=300, help="total ink coverage limit in percent (default 300)")
    p.add_argument("--max-black", type=int, default=95, help="black limit in percent (default 95)")
    p.add_argument("--gcr", type=int, default=50, help="grey component replacement in percent (default 50)")
    p.add_argument("--illuminant", default="D50", type=str.upper, choices=ILLUMINANTS,
                   help="illuminant of the profile's colorimetry (default D50; others are adapted to the D50 "
                        "PCS by Bradford)")
    p.add_argument("--observer", type=int, choices=(2, 10), default=2,
                   help="CIE 1931 2 degree or CIE 1964 10 degree observer (default 2)")
    p.add_argument("--grid-points", type=int, default=33,
                   help="nodes per axis of the tables, 2..255 (default 33; 6 and 7 inks get fewer in A2B)")
    p.add_argument("--icc-version", type=int, choices=(4, 2), default=4, help="ICC version 4 (default) or 2")
    p.add_argument("--description", help="profile description (default: what it was made from)")
    p.add_argument("--copyright", help="copyright text (default: none claimed)")
    p.add_argument("--target", help="CGATS file to embed as the measurement data (targ) (default: the chart, or "
                                    "the chart a model file records when it lies beside the model file)")
    add_extrapolate_option(p)
    p.set_defaults(run=run)


def chart_text(path):
    """A CGATS file's text for the profile's targ tag, decoded as the
    measurement reader decodes it (a byte order mark, else UTF-8, else
    Windows-1252); the library keeps its ASCII."""
    p = Path(path)
    try:
        data = p.read_bytes()
    except OSError as exc:
        raise UserError("cannot read %s: %s" % (p, exc.strerror or exc))
    if data.startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE)):
        return data.decode("utf-16", errors="replace")
    try:
        return data.decode("utf-8-sig")
    except UnicodeDecodeError:
        return data.decode("cp1252", errors="replace")


def check_ranges(args, inks):
    check_separation_limits(args, inks)
    if not 2 <= args.grid_points <= 255:
        raise UserError("--grid-points %d: the tables take 2..255 nodes per axis" % args.grid_points)


def from_chart(args):
    if args.grid is None:
        raise UserError("a chart needs --grid (the fit's grid levels in percent, e.g. 0,40,100)")
    chart = read_chart(args.chart, required=["spectra", "device"], extrapolate=args.extrapolate)
    built = kelma.build_model(chart, grid_argument(args.grid), method=args.method)
    e = built.fit_error
    print("fitted %s model on %s: training CIEDE2000 mean %.3f, p95 %.3f, max %.3f (%d patches)"
          % (args.method, Path(args.chart).name, e["mean"], e["p95"], e["max"], e["count"]))
    model = built.model(args.illuminant, args.observer)
    return model, built.ink_names, Path(args.chart).name, chart_text(args.chart)


def from_model_file(args):
    if args.grid is not None:
        raise UserError("--grid fits a chart; a model file (--model) is already fitted")
    path = Path(args.model)
    if not path.is_file():
        raise UserError("model file %s does not exist" % path)
    try:
        file = kelma.ModelFile.read(path)
    except kelma.ModelFileError as exc:
        raise UserError(str(exc))
    model = file.model().with_illuminants(args.illuminant, args.observer)
    target = None
    if file.chart and args.target is None:
        recorded = path.parent / file.chart
        if recorded.is_file():
            target = chart_text(recorded)
        else:
            print("note: %s records the chart %s, which is not beside it: the profile holds no measurement "
                  "data (give --target CHART)" % (path.name, file.chart))
    return model, file.ink_names, path.name, target


def run(args):
    if (args.chart is None) == (args.model is None):
        raise UserError("give a chart to fit or --model with a model file (one of them)")
    check_output_path(args.out, "--out", (args.chart, args.model, args.target))
    for option in ("description", "copyright"):
        text = getattr(args, option)
        try:
            if text is not None:
                text.encode("utf-8")
        except UnicodeEncodeError:
            raise UserError("--%s is not valid UTF-8 text (the shell passed bytes of another encoding): give it "
                            "in UTF-8" % option)
    model, ink_names, source, target = from_chart(args) if args.chart is not None else from_model_file(args)
    check_ranges(args, model.inks)
    if args.target is not None:
        read_chart(args.target, required="device", extrapolate=True)  # refuses what is not a chart
        target = chart_text(args.target)
    description = args.description or (
        "kelma %s: %s, %s %d deg, TAC %d%%, max black %d%%, GCR %d"
        % (kelma.__version__, source, args.illuminant, args.observer, args.tac, args.max_black, args.gcr))
    start = time.perf_counter()
    kelma.write_icc_profile(model, args.out, total_coverage=args.tac, max_black=args.max_black, gcr=args.gcr,
                            grid_points=args.grid_points, icc_version=args.icc_version, description=description,
                            copyright=args.copyright, target=target, ink_names=ink_names)
    seconds = time.perf_counter() - start
    size = Path(args.out).stat().st_size
    space = {4: "CMYK", 6: "6CLR", 7: "7CLR"}[model.inks]
    print("wrote %s: ICC v%d output profile, %s to CIELAB D50, %d-point tables, %.1f MB, in %.1f s"
          % (args.out, args.icc_version, space, args.grid_points, size / 1e6, seconds))
