"""pip installs the package from the checkout, without the network, and a clean
process imports it from there: `pip install . --no-build-isolation` into a
--target folder (with --no-deps: numpy is Debian's, outside the target) and
into a virtual environment that sees the system's packages, whose console
entry point `kelma` must work.

By default setup.py reuses the configured build tree (KELMA_CMAKE_BUILD_DIR),
so nothing is compiled again; --fresh builds the extension from scratch (the
library included: minutes on two cores).

    pip_test.py --build DIR --source DIR --work DIR --version X.Y.Z [--fresh]
"""
import argparse
import shutil
import subprocess
import sys
from pathlib import Path


def run(cmd, env, cwd, what):
    print("== " + what, flush=True)
    r = subprocess.run([str(c) for c in cmd], env=env, cwd=str(cwd), capture_output=True, text=True, timeout=1800)
    if r.returncode != 0:
        print("FAILED: %s (exit %d): %s\n%s\n%s" % (what, r.returncode, " ".join(map(str, cmd)), r.stdout[-4000:],
                                                   r.stderr[-4000:]))
        sys.exit(1)
    return r.stdout


CHECK = r'''
import sys
import numpy as np
import kelma, kelma.dask
root, version = sys.argv[1], sys.argv[2]
assert kelma.__file__.startswith(root), kelma.__file__
assert kelma.__version__ == version, kelma.__version__
model = kelma.default_press_model()
assert kelma.predict_spectra(model, np.zeros((1, 4), np.uint8)).shape == (1, 31)
print("kelma", kelma.__version__, "from", kelma.__file__)
'''


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", required=True)
    p.add_argument("--source", required=True)
    p.add_argument("--work", required=True)
    p.add_argument("--version", required=True)
    p.add_argument("--fresh", action="store_true")
    p.add_argument("--python", default=sys.executable)
    a = p.parse_args()
    a.source, a.build = str(Path(a.source).resolve()), str(Path(a.build).resolve())
    work = Path(a.work).resolve()
    shutil.rmtree(work, ignore_errors=True)
    (work / "tmp").mkdir(parents=True)
    (work / "home").mkdir()
    base = {"PATH": "/usr/bin:/bin", "HOME": str(work / "home"), "TMPDIR": str(work / "tmp"), "LANG": "C.UTF-8",
            "PIP_DISABLE_PIP_VERSION_CHECK": "1", "PIP_NO_INPUT": "1", "PYTHONDONTWRITEBYTECODE": "1"}
    build_env = dict(base, KELMA_SETUPTOOLS_DIR=str(work / "setuptools"))
    if not a.fresh:
        build_env["KELMA_CMAKE_BUILD_DIR"] = str(Path(a.build).resolve())
    pip = ["-m", "pip", "install", "--no-build-isolation", "--no-cache-dir", "--quiet"]

    target = work / "target"
    run([a.python, *pip, "--no-deps", "--target", target, a.source], build_env, work,
        "pip install . --no-build-isolation --no-deps --target T")
    print(run([a.python, "-c", CHECK, target, a.version], dict(base, PYTHONPATH=str(target)), work,
              "import kelma from T in a clean process").strip())
    print(run([target / "bin" / "kelma", "--version"], dict(base, PYTHONPATH=str(target)), work,
              "T/bin/kelma --version").strip())

    venv = work / "venv"
    run([a.python, "-m", "venv", "--system-site-packages", "--without-pip", venv], base, work,
        "a virtual environment with the system's packages")
    python = venv / "bin" / "python"
    # The system's pip, run by the environment's interpreter, installs into it.
    run([python, *pip, a.source], build_env, work, "pip install . --no-build-isolation (in the environment)")
    print(run([python, "-c", CHECK, venv, a.version], base, work, "import kelma in the environment").strip())
    version = run([venv / "bin" / "kelma", "--version"], base, work, "the console entry point kelma").strip()
    if version != "kelma " + a.version:
        print("FAILED: kelma --version printed %r" % version)
        return 1
    print(version)
    return 0


if __name__ == "__main__":
    sys.exit(main())
