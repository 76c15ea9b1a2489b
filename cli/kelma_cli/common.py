"""Shared pieces of the subcommands: the user-error type, progress steps and
the loading of models, charts and images."""
import threading
import time
from pathlib import Path

import kelma

# The checkout this package sits in, if any (its data folder holds the real
# chart of the main job); an installed package has none.
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


def load_model(path):
    """The kelma.Model of a model file (as 'kelma fit' writes it), or the embedded one."""
    if path is None:
        return kelma.default_press_model()
    p = Path(path)
    if not p.is_file():
        raise UserError("model file %s does not exist" % p)
    try:
        return kelma.load_model(p)
    except kelma.ModelFileError as exc:
        # The library's text names the file and what is wrong with it.
        raise UserError(str(exc))


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
