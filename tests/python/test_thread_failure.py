"""The module's computations when the system refuses worker threads (the
LD_PRELOAD shim of tests/threading/failure): a clear RuntimeError, the
process intact, and the same call afterwards bit-identical to before."""
import os
import subprocess
import sys
import textwrap

import pytest

SHIM = os.environ.get("KELMA_THREAD_SHIM")

SCRIPT = textwrap.dedent("""
    import ctypes, sys
    import numpy as np
    import kelma
    fail_after = ctypes.CDLL(None).kelma_test_fail_threads_after
    kelma.set_cpu_count_override(4)
    model = kelma.default_press_model()
    rng = np.random.default_rng(5)
    inks = rng.integers(0, 256, (50000, 4), dtype=np.uint8)
    spectra = rng.random((50000, 31)).astype(np.float32)
    lm = kelma.LightingMatrix("D50", 2)
    calls = {
        "predict_spectra": lambda: kelma.predict_spectra(model, inks),
        "predict_colors": lambda: kelma.predict_colors(model, inks),
        "xyz": lambda: lm.xyz(spectra),
    }
    for name, call in calls.items():
        reference = call()
        for limit in (0, 1, 2, 3):
            fail_after(limit)
            try:
                call()
            except RuntimeError as exc:
                assert "thread" in str(exc).lower() or "resource" in str(exc).lower(), (name, str(exc))
            else:
                sys.exit(f"{name}: no error with {limit} thread starts allowed")
            finally:
                fail_after(-1)
            again = call()
            if not np.array_equal(again.view(np.uint8), reference.view(np.uint8)):
                sys.exit(f"{name}: repeat after a failure at {limit} starts differs")
    print("ok")
""")


@pytest.mark.skipif(SHIM is None, reason="KELMA_THREAD_SHIM (set by ctest) names the pthread_create shim")
def test_refused_threads_raise_and_a_repeat_is_identical():
    env = dict(os.environ, LD_PRELOAD=SHIM)
    result = subprocess.run([sys.executable, "-c", SCRIPT], env=env, capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.strip() == "ok"


SMALL_SCRIPT = textwrap.dedent("""
    import ctypes, sys
    import numpy as np
    import kelma
    sys.path.insert(0, sys.argv[1])
    from reference import BeerLambertModel
    fail_after = ctypes.CDLL(None).kelma_test_fail_threads_after
    kelma.set_cpu_count_override(4)
    press = kelma.default_press_model(illuminants=["D50", "A"])
    ref = BeerLambertModel(7, 3, 2.0, seed=3)
    seven = kelma.Model(ref.grid, ref.ramps.astype(np.float32), ref.scheme.astype(np.float32), ref.n)
    rng = np.random.default_rng(8)
    one4, few4 = rng.integers(0, 256, (1, 4), dtype=np.uint8), rng.integers(0, 256, (16, 4), dtype=np.uint8)
    one7 = rng.integers(0, 256, (1, 7), dtype=np.uint8)
    clut = kelma.Clut.from_nodes(rng.integers(0, 256, (9, 9, 9, 9, 3), dtype=np.uint8))
    clut3 = kelma.Clut.from_nodes(rng.integers(0, 256, (17, 17, 17, 7), dtype=np.uint8))
    rng3 = rng.integers(0, 256, (1000, 3), dtype=np.uint8)
    lm = kelma.LightingMatrix("D50", 2)
    spectrum = rng.random((1, 31)).astype(np.float32)
    w = np.arange(380.0, 731.0, 10.0)
    measured = rng.random((1, 36)).astype(np.float32)
    small = {
        "predict_spectra, 1 sample, 4 inks": lambda: kelma.predict_spectra(press, one4),
        "predict_spectra, 1 sample, 7 inks": lambda: kelma.predict_spectra(seven, one7),
        "predict_spectra, 16 samples": lambda: kelma.predict_spectra(press, few4),
        "predict_colors, 1 sample": lambda: kelma.predict_colors(press, one4),
        "predict_colors, 1 sample, 7 inks, CIELAB": lambda: kelma.predict_colors(seven, one7, encoding="cielab"),
        "predict_lab, 1 sample": lambda: kelma.predict_lab(press, one4, illuminant=1, media_relative=True),
        "predict_xyz, 1 sample": lambda: kelma.predict_xyz(press, one4),
        "LightingMatrix.xyz, 1 spectrum": lambda: lm.xyz(spectrum),
        "resample, 1 spectrum, spline": lambda: kelma.resample(measured, w, "spline"),
        "resample, 1000 spectra, linear": lambda: kelma.resample(np.tile(measured, (1000, 1)), w, "linear"),
        "Clut.apply, 1 pixel, 4 inputs": lambda: clut.apply(one4),
        "Clut.apply, 1000 pixels, 3 inputs": lambda: clut3.apply(rng3),
    }
    def same(a, b):
        return np.array_equal(a.view(np.uint8), b.view(np.uint8))
    expected = {name: call() for name, call in small.items()}
    failures = []
    fail_after(0)
    for name, call in small.items():
        try:
            if not same(call(), expected[name]):
                failures.append(f"{name}: different result")
        except BaseException as exc:
            failures.append(f"{name}: {type(exc).__name__}: {exc}")
    # A batch that needs the workers fails with one sentence, and nothing is lost.
    big4 = rng.integers(0, 256, (200000, 4), dtype=np.uint8)
    big = {
        "predict_spectra": lambda: kelma.predict_spectra(press, big4),
        "predict_lab": lambda: kelma.predict_lab(press, big4),
        "resample": lambda: kelma.resample(np.tile(measured, (200000, 1)), w, "spline"),
        "Clut.apply": lambda: clut.apply(np.tile(big4, (10, 1))),
    }
    for name, call in big.items():
        fail_after(-1)
        reference = call()
        fail_after(0)
        try:
            call()
        except RuntimeError as exc:
            text = str(exc)
            if "\\n" in text.strip() or not ("thread" in text.lower() or "resource" in text.lower()):
                failures.append(f"large {name}: unclear error {text!r}")
        except BaseException as exc:
            failures.append(f"large {name}: {type(exc).__name__} instead of RuntimeError: {exc}")
        else:
            failures.append(f"large {name}: no error with every thread refused")
        fail_after(-1)
        if not same(call(), reference):
            failures.append(f"large {name}: the repeat differs")
    print("\\n".join(failures) if failures else "ok")
""")


@pytest.mark.skipif(SHIM is None, reason="KELMA_THREAD_SHIM (set by ctest) names the pthread_create shim")
def test_small_predictions_need_no_thread_and_large_batches_fail_cleanly():
    # Every thread start refused: a handful of samples still gives the bits
    # it gave before (the models are built beforehand); a large batch raises
    # one clear RuntimeError and the next call is unchanged.
    here = os.path.dirname(os.path.abspath(__file__))
    env = dict(os.environ, LD_PRELOAD=SHIM)
    result = subprocess.run([sys.executable, "-c", SMALL_SCRIPT, here], env=env,
                            capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.strip().splitlines()[-1:] == ["ok"], result.stdout
