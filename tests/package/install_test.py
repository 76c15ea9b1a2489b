"""Installs the build into a fresh prefix inside the build tree and uses it as
a newcomer would, from that prefix only: every installed file under the
prefix, only public headers, a C++ host through find_package(kelma 0.2) and
one through pkg-config, the README's Python and Octave examples with the
installed module and Octave files, the installed kelma command, and model
files written by Python read by Octave and by C++ with bit-identical spectra.

    install_test.py --build DIR --source DIR --work DIR --pythondir REL --version X.Y.Z [--octave octave-cli]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

# Headers that must never be installed: kernels, tables, fitting internals.
PRIVATE = ["prediction/CellSums_SSE.h", "prediction/ZKCSSE_KELMA_4D.h", "prediction/YuleNielsenPower_SSE.h",
           "clut/ClutTables.h", "clut/ZKCWorkerCLUT.h", "clut/ClutKernel.h", "colorimetry/SpectralDot_SSE.h",
           "colorspace/Lab2000hlTables.h", "modelbuilding/YuleNielsenFit.h", "modelbuilding/ModelBuildingMath.h",
           "modelbuilding/DefaultPressModelData.h", "sampling/ZKCSpectralSampling.h"]


class Failure(Exception):
    pass


def step(title):
    print("== " + title, flush=True)


def run(cmd, env, cwd, what, timeout=300):
    r = subprocess.run([str(c) for c in cmd], env=env, cwd=str(cwd), capture_output=True, text=True,
                       timeout=timeout)
    if r.returncode != 0:
        raise Failure("%s failed (exit %d): %s\n%s\n%s" % (what, r.returncode, " ".join(map(str, cmd)),
                                                            r.stdout[-3000:], r.stderr[-3000:]))
    return r


def clean_env(work, **extra):
    """Nothing of the build tree: system PATH, a home, temp and caches in the work folder."""
    env = {"PATH": "/usr/bin:/bin", "HOME": str(work / "home"), "TMPDIR": str(work / "tmp"),
           "MPLCONFIGDIR": str(work / "mpl"), "LANG": "C.UTF-8", "PYTHONDONTWRITEBYTECODE": "1"}
    env.update({k: str(v) for k, v in extra.items()})
    return env


def readme_blocks(source, language):
    text = (source / "README.md").read_text()
    return re.findall(r"```%s\n(.*?)```" % language, text, re.S)


def install(a, prefix):
    step("cmake --install into %s" % prefix)
    run(["cmake", "--install", a.build, "--prefix", prefix], os.environ, a.work, "install")
    manifest = (Path(a.build) / "install_manifest.txt").read_text().split()
    outside = [p for p in manifest if not p.startswith(str(prefix) + "/")]
    if outside:
        raise Failure("installed outside the prefix: %s" % outside[:10])
    for expected in ["lib/pkgconfig/kelma.pc", "include/kelma/kelma.h", "include/kelma/common/Version.h",
                     "share/kelma/octave/private/kelma_mex.mex", "share/kelma/octave/private/kelma_model_mex.mex",
                     "share/kelma/octave/private/kelma_checked_mex.mex",
                     "share/kelma/octave/kelma_version.m", "share/kelma/models/aptec_pc10_cmyk.kelma",
                     "bin/kelma", a.pythondir + "/kelma/__init__.py", a.pythondir + "/kelma/_kelma.pyi",
                     a.pythondir + "/kelma/py.typed", a.pythondir + "/kelma/dask.py",
                     a.pythondir + "/kelma_cli/main.py"]:
        if not (prefix / expected).exists():
            raise Failure("not installed: %s" % expected)
    if not list(prefix.glob("lib*/cmake/kelma/kelmaConfig.cmake")) + list(prefix.glob("lib*/*/cmake/kelma/kelmaConfig.cmake")):
        raise Failure("no kelmaConfig.cmake under the prefix")


def check_headers(prefix):
    step("installed headers: exactly what kelma/kelma.h needs, no internals")
    include = prefix / "include"
    installed = {str(p.relative_to(include)) for p in include.rglob("*.h")}
    needed, pending = set(), ["kelma/kelma.h"]
    while pending:
        h = pending.pop()
        if h in needed:
            continue
        needed.add(h)
        if not (include / h).is_file():
            raise Failure("%s includes %s, which is not installed" % (sorted(needed)[0], h))
        pending += re.findall(r'^#include "(kelma/[^"]+)"', (include / h).read_text(), re.M)
    if installed != needed:
        raise Failure("installed headers differ from those kelma/kelma.h includes: extra %s, missing %s"
                      % (sorted(installed - needed), sorted(needed - installed)))
    leaked = [h for h in PRIVATE if (include / "kelma" / h).exists()]
    if leaked:
        raise Failure("internal headers installed: %s" % leaked)


def cxx_hosts(a, prefix, work, env):
    step("C++ host through find_package(kelma 0.2)")
    src = work / "host"
    src.mkdir()
    blocks = readme_blocks(Path(a.source), "cpp")
    if not blocks:
        raise Failure("the README has no C++ example")
    (src / "main.cpp").write_text(blocks[0])
    for name in ("CMakeLists.txt", "read_model.cpp"):
        shutil.copy(Path(a.source) / "tests" / "package" / name, src / name)
    run(["cmake", "-S", src, "-B", work / "host-build", "-G", "Ninja", "-DCMAKE_PREFIX_PATH=%s" % prefix],
        env, work, "configuring the host project")
    run(["cmake", "--build", work / "host-build"], env, work, "building the host project")
    out = run([work / "host-build" / "kelma_host"], env, work, "the host program").stdout
    print("   " + out.strip())

    step("C++ host through pkg-config")
    pc_env = dict(env, PKG_CONFIG_PATH=str(next(prefix.glob("lib*/pkgconfig"))))
    version = run(["pkg-config", "--modversion", "kelma"], pc_env, work, "pkg-config").stdout.strip()
    if version != a.version:
        raise Failure("pkg-config says kelma %s, the project is %s" % (version, a.version))
    flags = run(["pkg-config", "--cflags", "--libs", "kelma"], pc_env, work, "pkg-config").stdout.split()
    libdir = run(["pkg-config", "--variable=libdir", "kelma"], pc_env, work, "pkg-config").stdout.strip()
    if Path(libdir).resolve() != next(prefix.glob("lib*/libkelma.so")).parent.resolve():
        raise Failure("pkg-config's libdir %s is not the prefix's" % libdir)
    run(["c++", "-std=c++17", src / "main.cpp", "-o", work / "kelma_host_pc", *flags, "-Wl,-rpath," + libdir],
        pc_env, work, "compiling with pkg-config's flags")
    run([work / "kelma_host_pc"], env, work, "the pkg-config host program")
    return work / "host-build" / "kelma_read_model"


def python_examples(a, prefix, work, env):
    step("the README's Python examples with the installed module")
    site = prefix / a.pythondir
    where = run([a.python, "-c", "import kelma, kelma.dask; print(kelma.__file__, kelma.__version__)"],
                env, work, "importing the installed module").stdout.split()
    if not where[0].startswith(str(site)) or where[1] != a.version:
        raise Failure("imported %s (version %s), not the installed %s" % (where[0], where[1], site))
    blocks = readme_blocks(Path(a.source), "python")
    if not blocks:
        raise Failure("the README has no Python example")
    for i, code in enumerate(blocks):
        # As a reader runs them: saved as a script (the Dask example's worker
        # processes import it again).
        script = work / ("python_example_%d.py" % (i + 1))
        script.write_text(code)
        run([a.python, script], env, work, "README Python example %d" % (i + 1), timeout=120)
    print("   %d examples ran" % len(blocks))


def octave_examples(a, prefix, work, env):
    step("the README's Octave examples with the installed Octave files")
    octave_dir = prefix / "share" / "kelma" / "octave"
    for mex in octave_dir.rglob("*.mex"):
        dynamic = run(["readelf", "-d", mex], env, work, "readelf").stdout
        libdir = next(prefix.glob("lib*/libkelma.so")).parent
        if "$ORIGIN/" + os.path.relpath(libdir, mex.parent) not in dynamic:
            raise Failure("%s has no RUNPATH to the prefix's library:\n%s" % (mex, dynamic))
    script = ["addpath ('%s');" % octave_dir,
              "assert (strncmp (which ('kelma_predict'), '%s', %d));" % (octave_dir, len(str(octave_dir))),
              "assert (isempty (which ('kelma_mex')));",
              "assert (strcmp (kelma_version (), '%s'));" % a.version]
    blocks = readme_blocks(Path(a.source), "octave")
    if not blocks:
        raise Failure("the README has no Octave example")
    for i, code in enumerate(blocks):
        path = work / ("octave_example_%d.m" % (i + 1))
        path.write_text(code)
        script.append("try, eval (fileread ('%s')); catch err, disp (err.message); exit (1); end" % path)
    run([a.octave, "--no-history", "--no-window-system", "--quiet", "--eval", "\n".join(script)], env, work,
        "the Octave examples")
    print("   %d examples ran" % len(blocks))


def command_line(a, prefix, work, env):
    step("the installed kelma command")
    kelma = prefix / "bin" / "kelma"
    out = run([kelma, "--version"], env, work, "kelma --version").stdout.strip()
    if out != "kelma " + a.version:
        raise Failure("kelma --version printed %r" % out)
    inks = work / "inks.csv"
    inks.write_text("0,0,0,0\n100,0,0,0\n20,40,60,10\n")
    embedded = run([kelma, "predict", inks], env, work, "kelma predict").stdout
    shipped = run([kelma, "predict", inks, "--model", prefix / "share/kelma/models/aptec_pc10_cmyk.kelma"], env,
                  work, "kelma predict --model (the shipped file)").stdout
    # The CGATS output names its model in DESCRIPTOR; everything else must agree.
    def numbers(text):
        return [line for line in text.splitlines() if not line.startswith("DESCRIPTOR")]
    if numbers(embedded) != numbers(shipped) or "NUMBER_OF_SETS\t3" not in embedded:
        raise Failure("the shipped model file predicts differently from the embedded model")
    chart = Path(a.source) / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"
    run([kelma, "fit", chart, "--grid", "0,100", "--method", "classic", "--out", work / "fit.kelma"], env, work,
        "kelma fit")
    run([kelma, "predict", inks, "--model", work / "fit.kelma", "--output", "spectra"], env, work,
        "kelma predict with the fitted model")


# Written by the installed Python module: three models, inks and spectra.
WRITE_MODELS = r'''
import sys
from pathlib import Path
import numpy as np
import kelma

out = Path(sys.argv[1]); chart = sys.argv[2]
rng = np.random.default_rng(7)
# A six-ink model from arrays: positive sums everywhere.
grid = np.tile([0.0, 128.0, 255.0], (6, 1))
ramps = np.tile(np.linspace(0.0, 1.0, 256) ** 0.9, (6, 1))
scheme = rng.uniform(0.0, 0.004, (2 ** 6, 31, 64))
scheme[:, :, 0] = rng.uniform(0.3, 0.9, (2 ** 6, 31))
models = {
    "press_d65_a.kelma": kelma.default_press_model(illuminants=["D65", "A"], observer=10),
    "six_inks.kelma": kelma.Model(grid, ramps, scheme.astype(np.float32), 1.8, illuminants="D50"),
}
for name, model in models.items():
    model.save(out / name, ink_names=["ink %c" % c for c in "ABCDEFG"[:model.inks]], chart="python")
built = kelma.build_model(kelma.MeasurementFile(chart, required=["spectra", "device"]), [0, 100], method="classic")
built.save(out / "fitted.kelma")
for name in list(models) + ["fitted.kelma"]:
    model = kelma.load_model(out / name)
    inks = rng.integers(0, 256, (1000, model.inks), dtype=np.uint8)
    (out / (name + ".inks.u8")).write_bytes(inks.tobytes())
    (out / (name + ".expected.f32")).write_bytes(kelma.predict_spectra(model, inks).tobytes())
    print(name, model.inks)
'''


def cross_frontends(a, prefix, work, env, reader):
    step("model files written by Python, read by C++ and Octave: bit-identical spectra")
    out = work / "models"
    out.mkdir()
    chart = Path(a.source) / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"
    (work / "write_models.py").write_text(WRITE_MODELS)
    listing = run([a.python, work / "write_models.py", out, chart], env, work, "writing models from Python").stdout
    names = [line.split() for line in listing.splitlines()]
    for name, _ in names:
        m = out / name
        print("   " + run([reader, m, str(m) + ".inks.u8", str(m) + ".expected.f32"], env, work,
                          "C++ reading %s" % name).stdout.strip())
    if not a.octave:
        print("   octave-cli not found: the Octave half is skipped")
        return
    lines = ["addpath ('%s');" % (prefix / "share" / "kelma" / "octave")]
    for name, inks in names:
        m = out / name
        lines += [
            "m = kelma_load_model ('%s');" % m,
            "fid = fopen ('%s.inks.u8'); inks = reshape (fread (fid, Inf, 'uint8=>uint8'), %s, []); fclose (fid);"
            % (m, inks),
            "fid = fopen ('%s.expected.f32'); want = reshape (fread (fid, Inf, 'single=>single'), 31, []); fclose (fid);"
            % m,
            "got = kelma_predict (m.grid, m.ramps, m.scheme, m.n, inks);",
            "if (! isequal (typecast (reshape (got(1:31,:), [], 1), 'uint32'), typecast (want(:), 'uint32')))",
            "  disp ('%s: Octave spectra differ'); exit (1);" % name,
            "end",
            "printf ('   %s: %%d spectra bit-identical in Octave\\n', columns (got));" % name,
        ]
    print(run([a.octave, "--no-history", "--no-window-system", "--quiet", "--eval", "\n".join(lines)], env, work,
              "Octave reading the models").stdout.rstrip())


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", required=True)
    p.add_argument("--source", required=True)
    p.add_argument("--work", required=True)
    p.add_argument("--pythondir", required=True)
    p.add_argument("--version", required=True)
    p.add_argument("--octave", default="")
    p.add_argument("--python", default=sys.executable)
    a = p.parse_args()
    a.source, a.build = str(Path(a.source).resolve()), str(Path(a.build).resolve())
    work = Path(a.work).resolve()
    shutil.rmtree(work, ignore_errors=True)
    for d in ("home", "tmp", "mpl"):
        (work / d).mkdir(parents=True)
    prefix = work / "prefix"
    site = prefix / a.pythondir
    env = clean_env(work, PYTHONPATH=site)
    try:
        install(a, prefix)
        check_headers(prefix)
        reader = cxx_hosts(a, prefix, work, env)
        python_examples(a, prefix, work, env)
        if a.octave:
            octave_examples(a, prefix, work, env)
        else:
            print("== octave-cli not found: the Octave examples are skipped")
        command_line(a, prefix, work, clean_env(work))
        cross_frontends(a, prefix, work, env, reader)
    except (Failure, subprocess.TimeoutExpired) as exc:
        print("FAILED: %s" % exc)
        return 1
    print("installed package works from %s" % prefix)
    return 0


if __name__ == "__main__":
    sys.exit(main())
