"""Shared pieces of the subcommands: the user-error type, progress steps and
the loading of models, charts and images."""
import re
import sys
import threading
import time
from pathlib import Path

import numpy as np

import kelma

# The checkout this package sits in, if any (its data folder holds the real
# chart of the main job); an installed package has none.
ROOT = Path(__file__).resolve().parents[2]


class UserError(Exception):
    """A problem with the user's input: reported without a traceback."""


# A number as tables and options write it: decimal digits with an optional
# sign, point and exponent, or nan/inf (which the callers then refuse by
# name). Python's float() also takes "1_0" and non-ASCII digits, which no
# other tool reading the same file would take as a number.
_NUMBER = re.compile(r"[+-]?(?:\d+(?:\.\d*)?|\.\d+)(?:[eE][+-]?\d+)?|[+-]?(?:nan|inf|infinity)",
                     re.ASCII | re.IGNORECASE)


def parse_number(text):
    """The float a table field or option value writes, or None when the text
    (surrounding blanks aside) is not a number."""
    text = text.strip()
    return float(text) if _NUMBER.fullmatch(text) else None


def number_text(v):
    """v in a message: whole numbers as integers (150), others as the
    shortest text that reads back as v (100.0000001, 1e+39), as the library's
    messages write them, so a value just beyond a limit never reads as the limit."""
    v = float(v)
    return "%d" % v if v.is_integer() and abs(v) < 1e16 else repr(v)


class Step:
    """Prints a step, a progress line every 2 s while it runs, and its time."""

    timings = []

    def __init__(self, title):
        self.title = title

    def __enter__(self):
        print("== %s" % self.title, flush=True)
        self.start = time.perf_counter()
        self.done = threading.Event()
        self.ticker = threading.Thread(target=self._tick, daemon=True)
        self.ticker.start()
        return self

    def _tick(self):
        while not self.done.wait(2.0):
            print("   ... %s: %.0f s" % (self.title, time.perf_counter() - self.start), flush=True)

    def __exit__(self, *exc):
        self.done.set()
        self.ticker.join()
        elapsed = time.perf_counter() - self.start
        Step.timings.append((self.title, elapsed))
        print("   done in %.2f s" % elapsed, flush=True)
        return False


def load_model(path, illuminant="D50", observer=2):
    """A kelma.Model under one illuminant and observer: from a model file (as
    'kelma fit' writes it; its arrays and lookup table kept exactly), or the
    embedded press model when path is None."""
    if path is None:
        return kelma.default_press_model(illuminant, observer)
    p = Path(path)
    if not p.is_file():
        raise UserError("model file %s does not exist" % p)
    try:
        model = kelma.load_model(p)
    except kelma.ModelFileError as exc:
        # The library's text names the file and what is wrong with it.
        raise UserError(str(exc))
    return model.with_illuminants(illuminant, observer)


def add_colorimetry_options(parser):
    """--illuminant, --observer and --relative, as every colour output takes them."""
    parser.add_argument("--illuminant", default="D50", type=str.upper,
                        choices=("A", "D50", "D65", "E", "F1", "F2", "F11"),
                        help="illuminant of the colorimetry (default D50)")
    parser.add_argument("--observer", type=int, choices=(2, 10), default=2,
                        help="CIE 1931 2 degree or CIE 1964 10 degree observer (default 2)")
    parser.add_argument("--relative", choices=("illuminant", "paper"), default="illuminant",
                        help="colours relative to the illuminant's white (default) or to the paper")


def add_extrapolate_option(parser):
    """--extrapolate, for every subcommand that reads a chart's spectra."""
    parser.add_argument("--extrapolate", action="store_true",
                        help="accept spectra that leave more than 10 nm of 400-700 nm uncovered, extrapolating "
                             "them from their end intervals (refused otherwise); the wavelengths must still "
                             "start at or below 400 nm or end at or above 700 nm")


def check_ink_amounts(values, digital, where):
    """values (samples x inks); where(row, col) names the place of a bad one."""
    if digital:
        bad = ~np.isfinite(values) | (values < 0) | (values > 255) | (values != np.floor(values))
        if bad.any():
            r, c = np.argwhere(bad)[0]
            raise UserError("%s holds %s; --digital takes whole levels 0-255" % (where(r, c), number_text(values[r, c])))
        return
    bad = ~np.isfinite(values) | (values < 0) | (values > 100)
    if bad.any():
        r, c = np.argwhere(bad)[0]
        raise UserError("%s holds %s; ink amounts are percent 0-100 (give 0-255 levels with --digital)"
                        % (where(r, c), number_text(values[r, c])))


def read_chart(path, required="spectra", extrapolate=False):
    """A kelma.MeasurementFile of a path, or of standard input for '-'; the
    reader refuses what is not a chart (a directory, a device, implausible
    spectra) with a message naming it, and so are device values that are not
    percentages, naming the file, the sample and the field."""
    if str(path) == "-":
        name = "<stdin>"
        chart = kelma.MeasurementFile.from_text(sys.stdin.buffer.read(), name, required, extrapolate=extrapolate)
    else:
        p = Path(path)
        if not p.exists():
            raise UserError("chart %s does not exist" % p)
        name = str(p)
        chart = kelma.MeasurementFile(p, required=required, extrapolate=extrapolate)
    if "device" in ([required] if isinstance(required, str) else required):
        ids, channels = chart.sample_ids, chart.channel_names
        check_ink_amounts(chart.device_values, False,
                          lambda r, c: "%s: sample %s, field %s" % (name, ids[r], channels[c]))
    return chart


def save_figure(fig, path, dpi=None):
    """A matplotlib figure as PNG at exactly `path`, written atomically."""
    import io
    buffer = io.BytesIO()
    fig.savefig(buffer, format="png", dpi=dpi)
    kelma.write_file_atomically(path, buffer.getvalue())


def check_separation_limits(args, inks):
    """--tac, --max-black and --gcr of a separation of `inks` inks, as
    kelma separate and kelma profile take them."""
    if not 1 <= args.tac <= 100 * inks:
        raise UserError("--tac %d: the total coverage must be 1..%d percent (0 leaves nothing but the paper)"
                        % (args.tac, 100 * inks))
    if not 0 <= args.max_black <= 100:
        raise UserError("--max-black %d: the black limit must be 0..100 percent" % args.max_black)
    if not 0 <= args.gcr <= 100:
        raise UserError("--gcr %d: the grey component replacement must be 0..100 percent" % args.gcr)


def parse_grid(text):
    levels = [parse_number(v) for v in text.split(",")]
    if None in levels:
        raise UserError("--grid takes comma-separated percentages, e.g. 0,40,100")
    return levels
