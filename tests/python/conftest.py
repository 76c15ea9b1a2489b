"""Shared fixtures: the built module (not the C++ source folder of the same
name), test models and a thread-count guard."""
import numpy as np
import pytest

import kelma
from reference import BeerLambertModel

if not hasattr(kelma, "Model"):
    raise ImportError(f"'kelma' resolved to {getattr(kelma, '__path__', kelma)}, not the extension module: "
                      "put the build's python/ folder first on PYTHONPATH")


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
    """Runs `call` on a thread while this thread counts Python steps; with the
    GIL released during the computation many steps fall inside the call."""
    import threading
    import time
    window = []

    def work():
        t0 = time.perf_counter()
        call()
        window.extend([t0, time.perf_counter()])

    t = threading.Thread(target=work)
    stamps = []
    t.start()
    while t.is_alive():
        stamps.append(time.perf_counter())
    t.join()
    t0, t1 = window
    assert t1 - t0 > 10 * margin, "the call is too short to observe"
    inside = sum(1 for s in stamps if t0 + margin < s < t1 - margin)
    assert inside > 100, f"only {inside} Python steps ran during a {t1 - t0:.3f} s call"
