"""kelma separate: ink amounts (percent) that reproduce CIELAB colours read from a CSV file."""
import math
import sys
from pathlib import Path

import numpy as np

import kelma

from .common import (UserError, add_colorimetry_options, check_separation_limits, load_model, number_text,
                     parse_number)
from .tables import STDIO, check_output_path, emit


FLOAT32_MAX = float(np.finfo(np.float32).max)


def register(sub):
    p = sub.add_parser("separate", help="separate CIELAB colours (CSV: L*,a*,b* per line) into ink percent")
    p.add_argument("colours", help="CSV with one colour per line: L*, a*, b* (a header line is allowed), or - for standard input")
    p.add_argument("--out", default=STDIO,
                   help="CSV file to write (exactly this name, written atomically), or - for standard output "
                        "(default)")
    p.add_argument("--model", help="model file from 'kelma fit' (default: the embedded press model)")
    p.add_argument("--tac", type=int, default=300, help="total ink coverage limit in percent (default 300)")
    p.add_argument("--max-black", type=int, default=100, help="black limit in percent (default 100)")
    p.add_argument("--gcr", type=int, default=50, help="grey component replacement in percent (default 50)")
    add_colorimetry_options(p)
    # Separations take colours relative to the paper unless told otherwise.
    p.set_defaults(run=run, relative="paper")


def read_colours(path):
    """(count, 3) float64 from a CSV of L*, a*, b*; errors name the file and line."""
    if str(path) == "-":
        p, lines = Path("<stdin>"), sys.stdin.buffer.read().decode("utf-8", errors="replace").splitlines()
    else:
        p = Path(path)
        if not p.exists():
            raise UserError("colour file %s does not exist" % p)
        if p.is_dir():
            raise UserError("colour file %s is a directory; give a CSV file" % p)
        with open(p, encoding="utf-8", errors="replace") as f:
            lines = f.read().splitlines()
    rows = []
    for number, line in enumerate(lines, start=1):
        text = line.split("#", 1)[0].strip()
        if not text:
            continue
        fields = [v.strip() for v in text.replace(";", ",").split(",")]
        if len(fields) == 1:
            fields = text.split()
        values = [parse_number(v) for v in fields]
        if None in values:
            if not rows and number == 1:
                continue  # a header
            raise UserError("%s line %d: expected three numbers L*, a*, b*, got %r" % (p, number, text))
        if len(values) != 3:
            raise UserError("%s line %d: expected three values L*, a*, b*, got %d" % (p, number, len(values)))
        if not all(math.isfinite(v) for v in values):
            raise UserError("%s line %d: L*, a*, b* must be finite numbers, got %r" % (p, number, text))
        big = [v for v in values if abs(v) > FLOAT32_MAX]
        if big:
            raise UserError("%s line %d: %s is outside the range of a 32-bit float, in which colours are separated"
                            % (p, number, number_text(big[0])))
        rows.append(values)
    if not rows:
        raise UserError("%s holds no colour" % p)
    return np.array(rows, dtype=np.float64)


def run(args):
    check_output_path(args.out, "output", (args.colours, args.model))
    model = load_model(args.model, args.illuminant, args.observer)
    check_separation_limits(args, model.inks)
    lab = read_colours(args.colours)
    separation = kelma.Separation(model, total_coverage=args.tac, max_black=args.max_black, gcr=args.gcr,
                                  media_relative=args.relative == "paper")
    percent = kelma.ink_percent(separation.inks(lab))
    emit(args.out, "".join(",".join("%.2f" % v for v in row) + "\n" for row in percent.tolist()), "output")
