"""kelma predict: colours and spectra of ink combinations read from a CSV or
CGATS file (or standard input), written as CGATS or CSV."""
from pathlib import Path

import kelma

from .common import UserError, add_colorimetry_options, load_model
from .tables import FORMATS, STDIO, check_output_path, csv_text, emit, input_name, output_format, read_ink_table

OUTPUTS = ("lab", "xyz", "spectra", "lab2000hl")
WAVELENGTHS = list(range(400, 701, 10))


def register(sub):
    p = sub.add_parser("predict", help="predict ink combinations read from a CSV or CGATS file",
                       description="Predicts the prints of ink combinations. Input: a CGATS file with device "
                                   "fields (CMYK_C ... or nCLR_k, percent), or CSV with one sample per line and "
                                   "one column per ink, an optional header row (e.g. SAMPLE_ID,C,M,Y,K) and an "
                                   "optional sample ID column; - reads standard input. Output: CGATS with sample "
                                   "IDs, device values, XYZ (0-100), CIELAB and spectra, or CSV.")
    p.add_argument("inks", help="CSV or CGATS file of ink amounts (percent 0-100), or - for standard input")
    p.add_argument("--out", default=STDIO,
                   help="file to write (exactly this name, written atomically), or - for standard output (default)")
    p.add_argument("--format", choices=FORMATS,
                   help="output format (default: csv for an --out ending in .csv, else cgats)")
    p.add_argument("--output", metavar="LIST",
                   help="comma-separated columns among lab, xyz, spectra, lab2000hl (CSV only) "
                        "(default: xyz,lab,spectra for CGATS, lab for CSV)")
    p.add_argument("--model", help="model file from 'kelma fit' (default: the embedded press model)")
    p.add_argument("--digital", action="store_true", help="CSV ink values are whole 0-255 digital levels")
    p.add_argument("--whitespace", action="store_true", help="CSV columns separated by white space, not commas")
    add_colorimetry_options(p)
    p.set_defaults(run=run)


def output_columns(text, fmt):
    if text is None:
        return ["xyz", "lab", "spectra"] if fmt == "cgats" else ["lab"]
    columns = [c.strip().lower() for c in text.split(",")]
    for c in columns:
        if c not in OUTPUTS:
            raise UserError("--output takes a comma-separated list of %s, got %r" % (", ".join(OUTPUTS), c))
    if len(set(columns)) != len(columns):
        raise UserError("--output names a column twice: %s" % text)
    if fmt == "cgats" and "lab2000hl" in columns:
        raise UserError("--output lab2000hl: LAB2000HL bytes have no CGATS field; use --format csv")
    return columns


def run(args):
    fmt = output_format(args.format, args.out)
    columns = output_columns(args.output, fmt)
    check_output_path(args.out, "--out", (args.inks, args.model))
    model = load_model(args.model, args.illuminant, args.observer)
    table = read_ink_table(args.inks, model.inks, args.digital, args.whitespace)
    if fmt == "cgats" and len(table.ids) > kelma.CGATS_MAX_PATCHES:
        raise UserError("%s holds %d samples; a CGATS file holds at most %d (a limit of Little CMS): use --format csv"
                        % (input_name(args.inks), len(table.ids), kelma.CGATS_MAX_PATCHES))
    paper = args.relative == "paper"
    levels = table.levels
    results = {}
    if "xyz" in columns:
        # CGATS files hold XYZ on the 0-100 scale (perfect reflector Y = 100).
        results["xyz"] = 100.0 * kelma.predict_xyz(model, levels, media_relative=paper)
    if "lab" in columns:
        results["lab"] = kelma.predict_lab(model, levels, media_relative=paper)
    if "spectra" in columns:
        results["spectra"] = kelma.predict_spectra(model, levels)
    if "lab2000hl" in columns:
        results["lab2000hl"] = kelma.predict_colors(model, levels, illuminant=0, media_relative=paper)

    if fmt == "csv":
        fields = {"lab": (["LAB_L", "LAB_A", "LAB_B"], "%.4f"), "xyz": (["XYZ_X", "XYZ_Y", "XYZ_Z"], "%.4f"),
                  "spectra": (["SPECTRAL_NM%d" % w for w in WAVELENGTHS], "%.6f"),
                  "lab2000hl": (["LAB2000HL_L", "LAB2000HL_A", "LAB2000HL_B"], "%d")}
        groups = [(fields[c][0], results[c], fields[c][1]) for c in columns]
        text = csv_text(table.ids, table.channel_names, table.percent, groups)
    else:
        model_name = "the embedded press model" if args.model is None else Path(args.model).name
        keywords = [
            ("ORIGINATOR", "kelma %s" % kelma.__version__),
            ("DESCRIPTOR", "kelma predict: %s, inks from %s; colorimetry relative to the %s"
             % (model_name, input_name(args.inks), "paper" if paper else "illuminant's white")),
            ("ILLUMINATION_NAME", args.illuminant),
            ("OBSERVER_ANGLE", str(args.observer)),
            ("WEIGHTING_FUNCTION", "ILLUMINANT, %s" % args.illuminant),
            ("WEIGHTING_FUNCTION", "OBSERVER, %d degree" % args.observer),
        ]
        spectra = results.get("spectra")
        text = kelma.measurement_file_text(
            table.ids, channel_names=table.channel_names, device_values=table.percent, xyz=results.get("xyz"),
            lab=results.get("lab"), wavelengths=WAVELENGTHS if spectra is not None else None, spectra=spectra,
            keywords=keywords)
    emit(args.out, text, "--out")
    if args.out != STDIO:
        print("predicted %d samples -> %s (%s)" % (len(table.ids), args.out, fmt.upper() if fmt == "csv" else "CGATS"))
