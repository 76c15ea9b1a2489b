"""Shared fixtures: the built module (not the C++ source folder of the same
name), test models and a thread-count guard."""
import numpy as np
import pytest

import kelma
from reference import BeerLambertModel

if not hasattr(kelma, "Model"):
    raise ImportError(f"'kelma' resolved to {getattr(kelma, '__path__', kelma)}, not the extension module: "
                      "put the build's python/ folder first on PYTHONPATH")


def pytest_configure(config):
    # distributed's event loop on Debian's tornado; not ours to fix.
    config.addinivalue_line("filterwarnings", "ignore:make_current is deprecated:DeprecationWarning")


@pytest.fixture(autouse=True)
def _restore_thread_count():
    yield
    kelma.set_cpu_count_override(0)


def build(ref, dtype=np.float32, **kwargs):
    return kelma.Model(ref.grid, ref.ramps.astype(dtype), ref.scheme.astype(dtype), ref.n, **kwargs)


@pytest.fixture(scope="session")
def ref4():
    return BeerLambertModel(4, 5, 2.2, seed=42)


@pytest.fixture(scope="session")
def ref6():
    return BeerLambertModel(6, 3, 1.8, seed=7)


@pytest.fixture(scope="session")
def ref7():
    return BeerLambertModel(7, 3, 2.0, seed=3)


@pytest.fixture(scope="session")
def model4(ref4):
    return build(ref4)


@pytest.fixture
def rng():
    return np.random.default_rng(12345)


def assert_runs_without_gil(call, margin=0.004):
    """Runs `call` repeatedly on a thread (until 0.2 s of calls have passed,
    however fast the machine) while this thread counts Python steps; with the
    GIL released during the computation many steps fall inside the calls."""
    import threading
    import time
    windows = []

    def work():
        spent = 0.0
        while spent < 0.2 and len(windows) < 500:
            t0 = time.perf_counter()
            call()
            t1 = time.perf_counter()
            windows.append((t0, t1))
            spent += t1 - t0

    t = threading.Thread(target=work)
    stamps = []
    t.start()
    while t.is_alive():
        stamps.append(time.perf_counter())
    t.join()
    import bisect
    starts = [t0 for t0, _ in windows]
    inside = 0
    for s in stamps:
        i = bisect.bisect_right(starts, s) - 1
        if i >= 0 and windows[i][0] + margin < s < windows[i][1] - margin:
            inside += 1
    total = sum(t1 - t0 for t0, t1 in windows)
    assert inside > 100, f"only {inside} Python steps ran during {len(windows)} calls of {total:.3f} s"
