"""The colour core from Python: float colorimetry of predictions, CIELAB both
ways, CIEDE2000, ink levels, statistics, evaluation and the validation split,
against independent numpy formulas, published values and exact arithmetic."""
from fractions import Fraction
from pathlib import Path

import numpy as np
import pytest

import kelma
from reference import cielab_exact

ROOT = Path(__file__).resolve().parents[2]
CHART = ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"

# Sharma, Wu and Dalal (2005), Table 1: L1 a1 b1 L2 a2 b2 dE00.
SHARMA = np.array([
    [50.0000, 2.6772, -79.7751, 50.0000, 0.0000, -82.7485, 2.0425],
    [50.0000, 3.1571, -77.2803, 50.0000, 0.0000, -82.7485, 2.8615],
    [50.0000, 2.8361, -74.0200, 50.0000, 0.0000, -82.7485, 3.4412],
    [50.0000, -1.3802, -84.2814, 50.0000, 0.0000, -82.7485, 1.0000],
    [50.0000, -1.1848, -84.8006, 50.0000, 0.0000, -82.7485, 1.0000],
    [50.0000, -0.9009, -85.5211, 50.0000, 0.0000, -82.7485, 1.0000],
    [50.0000, 0.0000, 0.0000, 50.0000, -1.0000, 2.0000, 2.3669],
    [50.0000, -1.0000, 2.0000, 50.0000, 0.0000, 0.0000, 2.3669],
    [50.0000, 2.4900, -0.0010, 50.0000, -2.4900, 0.0009, 7.1792],
    [50.0000, 2.4900, -0.0010, 50.0000, -2.4900, 0.0010, 7.1792],
    [50.0000, 2.4900, -0.0010, 50.0000, -2.4900, 0.0011, 7.2195],
    [50.0000, 2.4900, -0.0010, 50.0000, -2.4900, 0.0012, 7.2195],
    [50.0000, -0.0010, 2.4900, 50.0000, 0.0009, -2.4900, 4.8045],
    [50.0000, -0.0010, 2.4900, 50.0000, 0.0010, -2.4900, 4.8045],
    [50.0000, -0.0010, 2.4900, 50.0000, 0.0011, -2.4900, 4.7461],
    [50.0000, 2.5000, 0.0000, 50.0000, 0.0000, -2.5000, 4.3065],
    [50.0000, 2.5000, 0.0000, 73.0000, 25.0000, -18.0000, 27.1492],
    [50.0000, 2.5000, 0.0000, 61.0000, -5.0000, 29.0000, 22.8977],
    [50.0000, 2.5000, 0.0000, 56.0000, -27.0000, -3.0000, 31.9030],
    [50.0000, 2.5000, 0.0000, 58.0000, 24.0000, 15.0000, 19.4535],
    [50.0000, 2.5000, 0.0000, 50.0000, 3.1736, 0.5854, 1.0000],
    [50.0000, 2.5000, 0.0000, 50.0000, 3.2972, 0.0000, 1.0000],
    [50.0000, 2.5000, 0.0000, 50.0000, 1.8634, 0.5757, 1.0000],
    [50.0000, 2.5000, 0.0000, 50.0000, 3.2592, 0.3350, 1.0000],
    [60.2574, -34.0099, 36.2677, 60.4626, -34.1751, 39.4387, 1.2644],
    [63.0109, -31.0961, -5.8663, 62.8187, -29.7946, -4.0864, 1.2630],
    [61.2901, 3.7196, -5.3901, 61.4292, 2.2480, -4.9620, 1.8731],
    [35.0831, -44.1164, 3.7933, 35.0232, -40.0716, 1.5901, 1.8645],
    [22.7233, 20.0904, -46.6940, 23.0331, 14.9730, -42.5619, 2.0373],
    [36.4612, 47.8580, 18.3852, 36.2715, 50.5065, 21.2231, 1.4146],
    [90.8027, -2.0831, 1.4410, 91.1528, -1.6435, 0.0447, 1.4441],
    [90.9257, -0.5406, -0.9208, 88.6381, -0.8985, -0.7239, 1.5381],
    [6.7747, -0.2908, -2.4247, 5.8714, -0.0985, -2.2286, 0.6377],
    [2.0776, 0.0795, -1.1350, 0.9033, -0.0636, -0.5514, 0.9082]])


@pytest.fixture(scope="module")
def press():
    return kelma.default_press_model(["D50", "D65", "A"])


@pytest.fixture(scope="module")
def chart():
    return kelma.MeasurementFile(CHART)


class TestPredictedColorimetry:
    def test_lab_is_the_exact_cielab_of_the_predicted_xyz(self, press, rng):
        inks = rng.integers(0, 256, (7, 300, 4), dtype=np.uint8)
        for k in range(3):
            white = kelma.LightingMatrix(["D50", "D65", "A"][k]).white_point[0].astype(np.float64)
            xyz = kelma.predict_xyz(press, inks, illuminant=k)
            lab = kelma.predict_lab(press, inks, illuminant=k)
            assert xyz.shape == lab.shape == (7, 300, 3) and lab.dtype == np.float64
            np.testing.assert_allclose(lab, cielab_exact(xyz, white), rtol=0, atol=1e-10)
            # The same float XYZ as the spectra through the lighting matrix.
            spectra = kelma.predict_spectra(press, inks)
            lm = kelma.LightingMatrix(["D50", "D65", "A"][k])
            np.testing.assert_array_equal(xyz, lm.xyz(spectra)[..., 0, :].astype(np.float64))

    def test_illuminants_by_name_and_paper_relative(self, press):
        inks = np.array([[0, 0, 0, 0], [255, 0, 0, 0], [30, 200, 90, 10]], np.uint8)
        for k, name in enumerate(["D50", "d65", "A"]):
            np.testing.assert_array_equal(kelma.predict_lab(press, inks, illuminant=name),
                                          kelma.predict_lab(press, inks, illuminant=k))
        paper = kelma.predict_lab(press, inks[:1], illuminant="D65", media_relative=True)[0]
        np.testing.assert_allclose(paper, [100.0, 0.0, 0.0], atol=2e-4)
        absolute = kelma.predict_lab(press, inks[:1], illuminant="D65")[0]
        assert absolute[0] < 99.0  # the paper is darker than the perfect white

    @pytest.mark.parametrize("kwargs, error, match", [
        (dict(illuminant="F11"), ValueError, r"has no F11 illuminant; its illuminants are 0 \(D50\), 1 \(D65\), 2 \(A\)"),
        (dict(illuminant="D70"), ValueError, "not a standard illuminant"),
        (dict(illuminant=3), ValueError, r"illuminant index must be in 0\.\.2 .*, got 3"),
        (dict(illuminant=-1), ValueError, "got -1"),
        (dict(illuminant=2 ** 70), ValueError, "got 1180591620717411303424"),
        (dict(illuminant=True), TypeError, "index or a name"),
        (dict(illuminant=1.0), TypeError, "index or a name"),
        (dict(media_relative="yes"), TypeError, "media_relative must be True or False"),
    ])
    def test_bad_arguments(self, press, kwargs, error, match):
        with pytest.raises(error, match=match):
            kelma.predict_lab(press, np.zeros((2, 4), np.uint8), **kwargs)

    def test_inks_must_be_bytes_of_the_model(self, press):
        with pytest.raises(TypeError, match="inks must be a uint8 array"):
            kelma.predict_xyz(press, np.zeros((2, 4)))
        with pytest.raises(ValueError, match="4 values"):
            kelma.predict_xyz(press, np.zeros((2, 3), np.uint8))


class TestCielab:
    def test_matches_an_independent_formula_and_round_trips(self, rng):
        white = np.array([0.9642, 1.0, 0.8249])
        xyz = rng.random((5000, 3)) * np.where(rng.random((5000, 1)) < 0.5, 0.01, 1.0)
        lab = kelma.xyz_to_lab(xyz, white)
        np.testing.assert_allclose(lab, cielab_exact(xyz, white), rtol=0, atol=1e-12)
        np.testing.assert_allclose(kelma.lab_to_xyz(lab, white), xyz, rtol=1e-12, atol=1e-15)

    def test_broadcasts_like_numpy(self, rng):
        xyz = rng.random((2, 1, 3))
        whites = rng.random((4, 3)) + 0.5
        lab = kelma.xyz_to_lab(xyz, whites)
        assert lab.shape == (2, 4, 3)
        np.testing.assert_allclose(lab, cielab_exact(np.broadcast_to(xyz, (2, 4, 3)), whites), atol=1e-12)
        assert kelma.xyz_to_lab([0.3, 0.4, 0.5], [1, 1, 1]).shape == (3,)
        with pytest.raises(ValueError, match="do not broadcast"):
            kelma.xyz_to_lab(np.ones((3, 3)), np.ones((2, 3)))

    @pytest.mark.parametrize("xyz, white, match", [
        ([0.5, 0.5], [1, 1, 1], "xyz must have 3 values on its last axis"),
        ([0.5, np.nan, 0.5], [1, 1, 1], "xyz must be finite, found nan at flat index 1"),
        ([0.5, 0.5, 0.5], [1, 0, 1], "white must be positive"),
    ])
    def test_bad_values_are_named(self, xyz, white, match):
        with pytest.raises(ValueError, match=match):
            kelma.xyz_to_lab(xyz, white)


class TestDeltaE2000:
    def test_published_pairs(self):
        d = kelma.delta_e_2000(SHARMA[:, :3], SHARMA[:, 3:6])
        np.testing.assert_allclose(d, SHARMA[:, 6], atol=1e-4)
        np.testing.assert_array_equal(kelma.delta_e_2000(SHARMA[:, 3:6], SHARMA[:, :3]), d)

    def test_broadcasting_and_shape(self, rng):
        lab = np.stack([rng.random((3, 5)) * 100, rng.random((3, 5)) * 60 - 30, rng.random((3, 5)) * 60 - 30], -1)
        ref = np.array([50.0, 0.0, 0.0])
        d = kelma.delta_e_2000(lab, ref)
        assert d.shape == (3, 5)
        np.testing.assert_array_equal(d[1], kelma.delta_e_2000(lab[1], np.broadcast_to(ref, (5, 3))))
        assert kelma.delta_e_2000(ref, ref).shape == () and float(kelma.delta_e_2000(ref, ref)) == 0.0


class TestInkLevels:
    def test_every_hundredth_against_exact_rational_arithmetic(self):
        texts = ["%d.%02d" % (k // 100, k % 100) for k in range(10001)]
        levels = kelma.digital_levels(np.array([float(t) for t in texts]))
        expected = [int(Fraction(t) * Fraction(255, 100) + Fraction(1, 2)) for t in texts]
        assert levels.dtype == np.uint8
        np.testing.assert_array_equal(levels, expected)
        assert kelma.digital_levels(50) == 128 and kelma.digital_levels(90) == 230

    def test_levels_round_trip_and_errors(self):
        t = np.arange(256, dtype=np.uint8)
        np.testing.assert_array_equal(kelma.digital_levels(kelma.ink_percent(t)), t)
        np.testing.assert_allclose(kelma.ink_percent(t), t.astype(float) * 100 / 255, rtol=1e-15)
        with pytest.raises(ValueError, match=r"0\.\.100, found 120.*flat index 1.*uint8 directly"):
            kelma.digital_levels([50, 120])
        with pytest.raises(ValueError, match="found nan"):
            kelma.digital_levels([np.nan])
        # Just beyond the limit: the message shows the value, not the limit.
        with pytest.raises(ValueError, match=r"found 100\.0000001 at"):
            kelma.digital_levels([100.0000001])
        with pytest.raises(TypeError, match="integer array"):
            kelma.ink_percent([0.5])
        with pytest.raises(ValueError, match="0..255, found 256"):
            kelma.ink_percent(np.array([256]))


class TestStatisticsAndEvaluation:
    def test_statistics_are_numpy_s(self, rng):
        v = rng.random(1001) * 3
        s = kelma.statistics(v)
        assert s["count"] == 1001
        assert s["mean"] == pytest.approx(np.mean(v), rel=1e-14)
        assert s["median"] == np.median(v) and s["max"] == v.max()
        assert s["p95"] == pytest.approx(np.percentile(v, 95), rel=1e-14)
        assert np.isnan(kelma.statistics([1.0, np.nan])["p95"])
        with pytest.raises(ValueError, match="values holds no value"):
            kelma.statistics([])

    def test_evaluation_equals_the_colour_core_chain(self, chart):
        model = kelma.default_press_model()
        e = kelma.evaluate_model(model, chart)
        assert len(e["delta_e"]) == chart.patch_count == e["all"]["count"]
        assert e["k_zero"]["count"] + e["k_positive"]["count"] == chart.patch_count
        inks = kelma.digital_levels(chart.device_values)
        predicted = kelma.predict_lab(model, inks)
        lm = kelma.LightingMatrix("D50")
        measured = kelma.xyz_to_lab(lm.xyz(chart.resample("linear"))[:, 0, :].astype(np.float64),
                                    lm.white_point[0].astype(np.float64))
        np.testing.assert_allclose(e["delta_e"], kelma.delta_e_2000(measured, predicted), atol=1e-5)
        assert 0.15 < e["all"]["mean"] < 0.25
        some = kelma.evaluate_model(model, chart, patches=[5, 2])
        np.testing.assert_array_equal(some["delta_e"], e["delta_e"][[5, 2]])
        with pytest.raises(ValueError, match="patches must be indices 0..1616"):
            kelma.evaluate_model(model, chart, patches=[1617])

    def test_validation_split(self, chart):
        grid, half0, half1 = kelma.validation_split(chart, [0, 40, 100])
        levels = kelma.digital_levels(chart.device_values)
        assert np.isin(levels[grid], [0, 102, 255]).all()
        assert not np.isin(levels[half0], [0, 102, 255]).all(axis=1).any()
        assert len(set(grid) | set(half0) | set(half1)) == chart.patch_count
        assert not set(half0) & set(half1)
        # Repeats of a recipe never straddle the halves.
        recipes0 = {tuple(r) for r in levels[half0]}
        assert not recipes0 & {tuple(r) for r in levels[half1]}
        assert abs(len(half0) - len(half1)) < 20


def test_every_front_end_reports_the_same_evaluation(tmp_path):
    """C++, Python, the command line and Octave evaluate the embedded model
    against the real chart through the one library function."""
    import os
    import subprocess
    import sys
    printer, octave_dir = os.environ.get("KELMA_PRINT_EVALUATION"), os.environ.get("KELMA_OCTAVE_DIR")
    if not printer or not octave_dir:
        pytest.skip("KELMA_PRINT_EVALUATION and KELMA_OCTAVE_DIR (set by ctest) name the C++ and Octave front ends")
    cpp = [line.split() for line in subprocess.run([printer, str(CHART)], capture_output=True, text=True,
                                                    check=True).stdout.splitlines()]
    e = kelma.evaluate_model(kelma.default_press_model(), kelma.MeasurementFile(CHART))
    rows = [e["all"], e["k_zero"], e["k_positive"]]
    python = [[str(r["count"])] + ["%.17g" % r[k] for k in ("mean", "median", "p95", "max")] for r in rows]
    assert cpp == python

    script = tmp_path / "evaluate.m"
    script.write_text('addpath("%s"); s = kelma_evaluate (kelma_default_model (), "%s");\n'
                      'for f = {"all", "k_zero", "k_positive"}, r = s.(f{1}); '
                      'printf ("%%d %%.17g %%.17g %%.17g %%.17g\\n", r.count, r.mean, r.median, r.p95, r.max); end\n'
                      % (octave_dir, CHART))
    octave = subprocess.run(["octave-cli", "--no-history", "--quiet", str(script)], capture_output=True, text=True)
    assert octave.returncode == 0, octave.stderr
    assert [line.split() for line in octave.stdout.splitlines()] == python

    cli = subprocess.run([sys.executable, str(ROOT / "cli" / "kelma"), "evaluate", "default", str(CHART)],
                         capture_output=True, text=True)
    assert cli.returncode == 0, cli.stderr
    table = [line.split()[-5:] for line in cli.stdout.splitlines()[2:]]
    assert table == [[r["count"] and str(r["count"])] + ["%.3f" % r[k] for k in ("mean", "median", "p95", "max")]
                     for r in rows]
