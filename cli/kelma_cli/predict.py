"""kelma predict: colours or spectra of ink combinations read from a CSV file."""
import sys

import numpy as np

import kelma

from .colour import digital, lab_from_xyz
from .common import UserError, load_model


def register(sub):
    p = sub.add_parser("predict", help="predict ink combinations read from a CSV file")
    p.add_argument("inks", help="CSV with one sample per line, one column per ink (percent 0-100)")
    p.add_argument("--model", help="model file from 'kelma fit' (default: the embedded press model)")
    p.add_argument("--output", choices=("lab", "spectra", "lab2000hl"), default="lab")
    p.add_argument("--digital", action="store_true", help="ink values are 0-255 digital levels")
    p.add_argument("--whitespace", action="store_true", help="columns separated by white space")
    p.set_defaults(run=run)


def run(args):
    model = load_model(args.model)
    try:
        values = np.loadtxt(args.inks, delimiter=None if args.whitespace else ",", ndmin=2)
    except (OSError, ValueError) as exc:
        raise UserError("cannot read ink values from %s: %s" % (args.inks, exc))
    if values.shape[1] != model.inks:
        raise UserError("%s has %d columns; the model has %d inks" % (args.inks, values.shape[1], model.inks))
    limit = 255 if args.digital else 100
    if not np.all(np.isfinite(values)) or values.min() < 0 or values.max() > limit:
        raise UserError("ink values must be %s" % ("0-255 digital levels" if args.digital else "0-100 %"))
    inks = np.floor(values + 0.5).astype(np.uint8) if args.digital else digital(values)
    if args.output == "lab2000hl":
        rows = kelma.predict_colors(model, inks).reshape(len(inks), -1)
        fmt = "%d"
    else:
        spectra = kelma.predict_spectra(model, inks)
        if args.output == "spectra":
            rows, fmt = spectra, "%.6f"
        else:
            matrix = kelma.LightingMatrix("D50", 2)
            rows, fmt = lab_from_xyz(matrix.xyz(spectra)[:, 0, :], matrix.white_point[0]), "%.4f"
    np.savetxt(sys.stdout, rows, fmt=fmt, delimiter=",")
