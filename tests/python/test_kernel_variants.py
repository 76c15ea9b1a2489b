"""Every kernel variant the processor runs, chosen with KELMA_KERNELS at
import, gives the reference variant's bits for the module's computations:
prediction of 4, 6 and 7 inks (spectra, colour bytes, XYZ and CIELAB),
resampling, CLUTs and the lighting matrix. Each variant runs in a process of
its own (the variable is read when the module is imported); the spline is
also held against scipy's clamped CubicSpline in every variant, and the
batch size, the position in the batch and the thread count change nothing."""
import os
import subprocess
import sys

import numpy as np
import pytest
from scipy.interpolate import CubicSpline

import kelma

HERE = os.path.dirname(os.path.abspath(__file__))
VARIANTS = ("reference", "sse2", "ssse3", "avx2", "avx512")

# Wavelength lists of the resampling cases: name -> (list, extrapolate).
LISTS = {
    "36 bands": (np.arange(380.0, 731.0, 10.0), False),
    "uneven": (np.array([381.0, 389.5, 402.0, 433.25, 470.0, 471.0, 512.0, 561.0, 600.5, 622.0, 651.0,
                         690.0, 704.0, 739.0]), False),
    "two bands": (np.array([395.0, 705.0]), False),
    "three bands": (np.array([392.0, 551.0, 708.0]), False),
    "starts after 400": (np.arange(430.0, 751.0, 20.0), True),
    "ends before 700": (np.arange(350.0, 681.0, 15.0), True),
    "ends 5 nm short": (np.arange(400.0, 696.0, 5.0), False),
    "starts 4 nm late": (np.arange(404.0, 701.0, 8.0), False),
    "0.5 nm": (np.arange(380.0, 780.25, 0.5), False),
}
BATCH_SIZES = (1, 2, 3, 5, 15, 16, 17, 8191, 8192, 8193)

SCRIPT = r"""
import sys
import numpy as np
import kelma
sys.path.insert(0, HERE)
from reference import BeerLambertModel
from test_kernel_variants import LISTS, BATCH_SIZES, inks_for, nodes_for

out = {"variant": np.array(kelma.kernel_variant())}
kelma.set_cpu_count_override(3)
for inks, grid, n, seed in ((4, 5, 2.2, 42), (6, 3, 1.8, 7), (7, 3, 2.6, 3)):
    ref = BeerLambertModel(inks, grid, n, seed=seed)
    model = kelma.Model(ref.grid, ref.ramps.astype(np.float32), ref.scheme.astype(np.float32), ref.n,
                        illuminants=["D50", "A", "F11"], observer=10)
    samples = inks_for(model, 20000)
    key = f"{inks} inks"
    out[key + " spectra"] = kelma.predict_spectra(model, samples)
    out[key + " padded"] = kelma.predict_spectra(model, samples, padded=True)
    out[key + " lab2000hl"] = kelma.predict_colors(model, samples)
    out[key + " cielab paper"] = kelma.predict_colors(model, samples, encoding="cielab", media_relative=True)
    out[key + " lab"] = kelma.predict_lab(model, samples, illuminant=1, media_relative=True)
    out[key + " xyz"] = kelma.predict_xyz(model, samples, illuminant=2)
    # The same samples in batches of awkward sizes, at odd places.
    for size in BATCH_SIZES:
        start = (37 * size) % (20000 - size)
        part = samples[start:start + size]
        out[f"{key} spectra {size} at {start}"] = kelma.predict_spectra(model, part)
        out[f"{key} cielab paper {size} at {start}"] = kelma.predict_colors(model, part, encoding="cielab",
                                                                            media_relative=True)
    kelma.set_cpu_count_override(1)
    out[key + " spectra 1 thread"] = kelma.predict_spectra(model, samples)
    out[key + " lab2000hl 1 thread"] = kelma.predict_colors(model, samples)
    kelma.set_cpu_count_override(3)

rng = np.random.default_rng(11)
for name, (w, extrapolate) in LISTS.items():
    y = (0.45 + 0.4 * np.sin(w[None, :] / rng.uniform(8.0, 60.0, (3001, 1)) + rng.uniform(0, 6, (3001, 1))))
    y = y.astype(np.float32)
    out["resample input " + name] = y
    out["spline " + name] = kelma.resample(y, w, "spline", extrapolate=extrapolate)
    out["linear " + name] = kelma.resample(y, w, "linear", extrapolate=extrapolate)
    out["spline one " + name] = kelma.resample(y[1234:1235], w, "spline", extrapolate=extrapolate)

for name, nodes, in_lab in nodes_for():
    clut = kelma.Clut.from_nodes(nodes, in_lab=in_lab)
    d = clut.input_channels
    pixels = np.random.default_rng(d + nodes.shape[0]).integers(0, 256, (100003, d), dtype=np.uint8)
    pixels[:256] = np.arange(256, dtype=np.uint8)[:, None]
    out["clut " + name] = clut.apply(pixels)
    out["clut one " + name] = clut.apply(pixels[77])
press = kelma.default_press_model()
out["clut from model"] = kelma.Clut.from_model(press, 9).apply(inks_for(press, 5000))

lm = kelma.LightingMatrix(["D65", "A"], 10)
spectra = np.random.default_rng(5).random((9001, 31)).astype(np.float32)
xyz = lm.xyz(spectra, lm.media_relative_factor(press.with_illuminants(["D65", "A"], 10).media_white_point))
out["xyz"] = xyz
out["cielab bytes"] = lm.cielab_bytes(xyz)
out["lab2000hl bytes"] = lm.lab2000hl_bytes(xyz)
np.savez(sys.argv[1], **out)
"""


def inks_for(model, count):
    """count samples: scattered bytes, with runs crowded into the first cell
    of every ink and runs at the top corner (byte 255)."""
    rng = np.random.default_rng(model.inks * 1000 + count)
    samples = rng.integers(0, 256, (count, model.inks), dtype=np.uint8)
    first_cell = (rng.random((count, model.inks)) * model.grid[:, 1]).astype(np.uint8)
    crowded = (np.arange(count) // 500) % 3 == 1
    samples[crowded] = first_cell[crowded]
    samples[(np.arange(count) // 500) % 3 == 2, 0] = 255
    return samples


def nodes_for():
    rng = np.random.default_rng(2)
    shapes = (("3x3", (17, 17, 17, 3), False), ("3x4 lab", (9, 9, 9, 4), True), ("3x7", (5, 5, 5, 7), False),
              ("3x7 lab", (6, 6, 6, 7), True), ("4x3", (17, 17, 17, 17, 3), False), ("4x3 coarse", (2, 2, 2, 2, 3), False))
    return [(name, rng.integers(0, 256, shape, dtype=np.uint8), in_lab) for name, shape, in_lab in shapes]


def _run(variant, path):
    env = dict(os.environ, KELMA_KERNELS=variant, PYTHONPATH=os.pathsep.join([HERE, os.environ.get("PYTHONPATH", "")]))
    code = f"HERE = {HERE!r}\n" + SCRIPT
    run = subprocess.run([sys.executable, "-c", code, str(path)], env=env, capture_output=True, text=True,
                         timeout=600)
    assert run.returncode == 0, run.stderr
    with np.load(path) as f:
        return {k: f[k] for k in f.files}


def _best():
    env = {k: v for k, v in os.environ.items() if k != "KELMA_KERNELS"}
    run = subprocess.run([sys.executable, "-c", "import kelma; print(kelma.kernel_variant())"], env=env,
                         capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    return run.stdout.strip()


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    best = _best()
    assert best in VARIANTS
    folder = tmp_path_factory.mktemp("variants")
    results = {}
    for variant in VARIANTS[:VARIANTS.index(best) + 1]:
        results[variant] = _run(variant, folder / f"{variant}.npz")
    return best, results


@pytest.mark.parametrize("variant", VARIANTS[1:])
def test_every_variant_gives_the_reference_bits(runs, variant):
    best, results = runs
    if variant not in results:
        pytest.skip(f"this processor cannot run the {variant} kernels (its widest are {best})")
    got, want = results[variant], results["reference"]
    # The module says which kernels it runs: the one asked for.
    assert str(got["variant"]) == variant
    assert str(want["variant"]) == "reference"
    assert sorted(got) == sorted(want)
    differing = [k for k in want if k != "variant" and not np.array_equal(got[k].view(np.uint8), want[k].view(np.uint8))]
    assert differing == [], f"{variant} differs from reference in: {differing}"


def test_a_cap_above_the_processor_reports_the_variant_that_runs(tmp_path):
    # KELMA_KERNELS caps the choice: asking for more than the processor has
    # runs (and reports) its widest, never a variant it cannot run.
    best = _best()
    for variant in VARIANTS:
        env = dict(os.environ, KELMA_KERNELS=variant)
        run = subprocess.run([sys.executable, "-c", "import kelma; print(kelma.kernel_variant())"], env=env,
                             capture_output=True, text=True, timeout=120)
        assert run.returncode == 0, run.stderr
        expected = VARIANTS[min(VARIANTS.index(variant), VARIANTS.index(best))]
        assert run.stdout.strip() == expected, variant


def test_results_do_not_depend_on_batch_position_or_threads(runs):
    _, results = runs
    for variant, r in results.items():
        for inks in (4, 6, 7):
            key = f"{inks} inks"
            np.testing.assert_array_equal(r[key + " spectra"], r[key + " padded"][:, :31], err_msg=variant)
            assert np.all(r[key + " padded"][:, 31] == 0)
            np.testing.assert_array_equal(r[key + " spectra 1 thread"], r[key + " spectra"], err_msg=variant)
            np.testing.assert_array_equal(r[key + " lab2000hl 1 thread"], r[key + " lab2000hl"], err_msg=variant)
            for size in BATCH_SIZES:
                start = (37 * size) % (20000 - size)
                for name, whole in (("spectra", r[key + " spectra"]), ("cielab paper", r[key + " cielab paper"])):
                    part = r[f"{key} {name} {size} at {start}"]
                    assert np.array_equal(part, whole[start:start + size]), (variant, key, name, size, start)
        for name in LISTS:
            np.testing.assert_array_equal(r["spline one " + name][0], r["spline " + name][1234], err_msg=variant)
        for name, _, _ in nodes_for():
            d = r["clut one " + name]
            np.testing.assert_array_equal(d, r["clut " + name][77], err_msg=f"{variant} {name}")


def test_colour_bytes_are_the_lighting_matrix_of_the_spectra_in_every_variant(runs):
    # Byte mode against the module's own colorimetry of the predicted spectra.
    from reference import BeerLambertModel
    _, results = runs
    for inks, grid, n, seed in ((4, 5, 2.2, 42), (6, 3, 1.8, 7), (7, 3, 2.6, 3)):
        ref = BeerLambertModel(inks, grid, n, seed=seed)
        model = kelma.Model(ref.grid, ref.ramps.astype(np.float32), ref.scheme.astype(np.float32), ref.n,
                            illuminants=["D50", "A", "F11"], observer=10)
        lm = model.lighting_matrix
        factor = lm.media_relative_factor(model.media_white_point)
        for variant, r in results.items():
            spectra = r[f"{inks} inks spectra"]
            np.testing.assert_array_equal(r[f"{inks} inks lab2000hl"], lm.lab2000hl_bytes(lm.xyz(spectra)),
                                          err_msg=f"{variant}, {inks} inks")
            np.testing.assert_array_equal(r[f"{inks} inks cielab paper"], lm.cielab_bytes(lm.xyz(spectra, factor)),
                                          err_msg=f"{variant}, {inks} inks")


def test_spline_agrees_with_scipy_clamped_cubic_spline_in_every_variant(runs):
    # Outside the list the first or last interval's cubic is continued, as
    # scipy's spline extrapolates by default.
    _, results = runs
    for variant, r in results.items():
        for name, (w, _) in LISTS.items():
            y = r["resample input " + name]
            expected = CubicSpline(w, y.astype(np.float64), axis=1, bc_type="clamped")(kelma.WAVELENGTHS)
            got = r["spline " + name].astype(np.float64)
            tolerance = 1e-5 * np.maximum(1.0, np.abs(expected))
            worst = np.max(np.abs(got - expected) - tolerance)
            assert worst <= 0, f"{variant}, {name}: {np.max(np.abs(got - expected)):.3g} from scipy"
            linear = np.stack([np.interp(kelma.WAVELENGTHS, w, s) for s in y[:50].astype(np.float64)])
            inside = (kelma.WAVELENGTHS >= w[0]) & (kelma.WAVELENGTHS <= w[-1])
            np.testing.assert_allclose(r["linear " + name][:50, inside], linear[:, inside], rtol=0, atol=1e-6,
                                       err_msg=f"{variant}, {name}")


def test_lists_that_leave_the_grid_uncovered_need_extrapolate():
    y = np.full((2, 18), 0.5, np.float32)
    for w in (np.arange(420.0, 761.0, 20.0), np.arange(350.0, 606.0, 15.0)):
        with pytest.raises(ValueError, match="wavelengths"):
            kelma.resample(y, w, "spline")
        assert kelma.resample(y, w, "spline", extrapolate=True).shape == (2, 31)
    # Neither end reaches the grid: refused even when asked to extrapolate.
    with pytest.raises(ValueError, match="wavelengths"):
        kelma.resample(y, np.linspace(420.0, 680.0, 18), "spline", extrapolate=True)


def test_command_line_outputs_are_the_same_in_every_variant(tmp_path):
    # The command line imports the module, so KELMA_KERNELS reaches it too:
    # predictions of the whole chart (threaded) and a spline resampling of
    # its measured spectra are the same files in every variant.
    root = os.path.abspath(os.path.join(HERE, "..", ".."))
    cli = os.path.join(root, "cli", "kelma")
    chart = os.path.join(root, "data", "aptec_pc10", "APTEC_PC10_CardBoard_2023_v1_Spectral.txt")
    best = _best()
    outputs = {}
    for variant in VARIANTS[:VARIANTS.index(best) + 1]:
        env = dict(os.environ, KELMA_KERNELS=variant)
        files = []
        for args in (["predict", chart, "--format", "csv", "--output", "lab,lab2000hl,xyz,spectra",
                      "--illuminant", "F11", "--relative", "paper"],
                     ["resample", chart, "-", "--method", "spline", "--format", "csv"]):
            run = subprocess.run([sys.executable, cli, *args], env=env, capture_output=True, timeout=300)
            assert run.returncode == 0, run.stderr.decode()
            assert run.stdout.count(b"\n") > 1617, run.stdout[:200]
            files.append(run.stdout)
        outputs[variant] = files
    for variant, files in outputs.items():
        assert files == outputs["reference"], variant
