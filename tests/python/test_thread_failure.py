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
