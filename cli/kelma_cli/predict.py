"""kelma predict: colours or spectra of ink combinations read from a CSV file."""
import sys

import numpy as np

import kelma

from .common import UserError, add_colorimetry_options, load_model

OUTPUTS = ("lab", "xyz", "spectra", "lab2000hl")


def register(sub):
    p = sub.add_parser("predict", help="predict ink combinations read from a CSV file")
    p.add_argument("inks", help="CSV with one sample per line, one column per ink (percent 0-100)")
    p.add_argument("--model", help="model .npz from 'kelma fit' (default: the embedded press model)")
    p.add_argument("--output", choices=OUTPUTS, default="lab",
                   help="CIELAB or XYZ (float), spectra at 400-700 nm, or LAB2000HL bytes (default lab)")
    p.add_argument("--digital", action="store_true", help="ink values are whole 0-255 digital levels")
    p.add_argument("--whitespace", action="store_true", help="columns separated by white space")
    add_colorimetry_options(p)
    p.set_defaults(run=run)


def ink_levels(values, digital, path):
    """Digital levels of the CSV's ink values (percent, or levels with --digital)."""
    if digital:
        bad = ~np.isfinite(values) | (values < 0) | (values > 255) | (values != np.floor(values))
        if bad.any():
            row, col = np.argwhere(bad)[0]
            raise UserError("%s row %d column %d holds %g; --digital takes whole levels 0-255"
                            % (path, row + 1, col + 1, values[row, col]))
        return values.astype(np.uint8)
    bad = ~np.isfinite(values) | (values < 0) | (values > 100)
    if bad.any():
        row, col = np.argwhere(bad)[0]
        raise UserError("%s row %d column %d holds %g; ink amounts are percent 0-100 "
                        "(give 0-255 levels with --digital)" % (path, row + 1, col + 1, values[row, col]))
    return kelma.digital_levels(values)


def run(args):
    model = load_model(args.model, args.illuminant, args.observer)
    try:
        values = np.loadtxt(args.inks, delimiter=None if args.whitespace else ",", ndmin=2)
    except (OSError, ValueError) as exc:
        raise UserError("cannot read ink values from %s: %s" % (args.inks, exc))
    if values.shape[1] != model.inks:
        raise UserError("%s has %d columns; the model has %d inks" % (args.inks, values.shape[1], model.inks))
    inks = ink_levels(values, args.digital, args.inks)
    paper = args.relative == "paper"
    if args.output == "lab2000hl":
        rows, fmt = kelma.predict_colors(model, inks, illuminant=0, media_relative=paper), "%d"
    elif args.output == "spectra":
        rows, fmt = kelma.predict_spectra(model, inks), "%.6f"
    elif args.output == "xyz":
        rows, fmt = kelma.predict_xyz(model, inks, media_relative=paper), "%.6f"
    else:
        rows, fmt = kelma.predict_lab(model, inks, media_relative=paper), "%.4f"
    np.savetxt(sys.stdout, rows.reshape(len(inks), -1), fmt=fmt, delimiter=",")
