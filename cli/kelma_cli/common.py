"""Shared pieces of the subcommands: the user-error type, progress steps and
the loading of models, charts and images."""
import threading
import time
from pathlib import Path

import numpy as np

import kelma

# The repository's data folder (the real chart of the main job).
ROOT = Path(__file__).resolve().parents[2]


class UserError(Exception):
    """A problem with the user's input: reported without a traceback."""


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
    """A kelma.Model under one illuminant and observer, from a .npz written by
    'kelma fit', or the embedded press model when path is None."""
    if path is None:
        return kelma.default_press_model(illuminant, observer)
    p = Path(path)
    if not p.is_file():
        raise UserError("model file %s does not exist" % p)
    try:
        with np.load(p) as data:
            return kelma.Model(data["grid"], data["ramps"], data["scheme"], float(data["n"]),
                               illuminants=illuminant, observer=observer)
    except (KeyError, OSError, ValueError) as exc:
        raise UserError("%s is not a kelma model (.npz with grid, ramps, scheme, n): %s" % (p, exc))


def add_colorimetry_options(parser):
    """--illuminant, --observer and --relative, as every colour output takes them."""
    parser.add_argument("--illuminant", default="D50", type=str.upper,
                        choices=("A", "D50", "D65", "E", "F1", "F2", "F11"),
                        help="illuminant of the colorimetry (default D50)")
    parser.add_argument("--observer", type=int, choices=(2, 10), default=2,
                        help="CIE 1931 2 degree or CIE 1964 10 degree observer (default 2)")
    parser.add_argument("--relative", choices=("illuminant", "paper"), default="illuminant",
                        help="colours relative to the illuminant's white (default) or to the paper")


def read_chart(path, required="spectra"):
    p = Path(path)
    if not p.is_file():
        raise UserError("chart %s does not exist" % p)
    return kelma.MeasurementFile(p, required=required)


def parse_grid(text):
    try:
        levels = [float(v) for v in text.split(",")]
    except ValueError:
        raise UserError("--grid takes comma-separated percentages, e.g. 0,40,100")
    return levels
