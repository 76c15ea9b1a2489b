"""Resampling onto the 31-point grid and CGATS measurement files."""
import os

import numpy as np
import pytest
from scipy.interpolate import CubicSpline

import kelma
import reference as ref
from bad_charts import SPECIAL_LABELS, bad_files, special_files

CHART = os.path.join(ref.DATA, "aptec_pc10")
SPECTRAL = os.path.join(CHART, "APTEC_PC10_CardBoard_2023_v1_Spectral.txt")
LAB = os.path.join(CHART, "APTEC_PC10_CardBoard_2023_v1.txt")
BAD = os.path.join(ref.REPO, "tests", "measurement", "data")
BAD_FILES = bad_files()


def read_cgats_table(path):
    """Field names and rows of the data table, by plain text parsing."""
    with open(path) as f:
        lines = [line.rstrip("\n").split("\t") for line in f]
    start = next(i for i, l in enumerate(lines) if l[0] == "BEGIN_DATA_FORMAT")
    names = [v for v in lines[start + 1] if v]
    begin = next(i for i, l in enumerate(lines) if l[0] == "BEGIN_DATA")
    end = next(i for i, l in enumerate(lines) if l[0] == "END_DATA")
    rows = [[v for v in l if v != ""] for l in lines[begin + 1:end]]
    return names, rows


class TestResample:
    def test_linear_against_numpy(self, rng):
        w = np.sort(rng.choice(np.arange(360.0, 760.0, 1.0), 25, replace=False))
        w[0], w[-1] = 372.0, 741.0
        spectra = rng.random((4, 5, 25))
        got = kelma.resample(spectra, w)
        assert got.shape == (4, 5, 31) and got.dtype == np.float32
        np.testing.assert_allclose(got, ref.resample_linear(spectra.astype(np.float32), w), rtol=0, atol=3e-6)

    def test_linear_extrapolates_from_the_end_intervals(self):
        w = np.array([380.0, 450.0, 600.0, 690.0])
        y = np.array([[0.1, 0.5, 0.3, 0.9]])
        got = kelma.resample(y, w)[0]
        np.testing.assert_allclose(got, ref.resample_linear(y, w)[0], atol=2e-6)
        assert got[-1] == pytest.approx(0.9 + 10 * 0.6 / 90, abs=2e-6)

    def test_knots_on_the_grid_come_back(self, rng):
        w = np.arange(380.0, 731.0, 10.0)
        y = rng.random((10, 36)).astype(np.float32)
        np.testing.assert_allclose(kelma.resample(y, w), y[:, 2:33], rtol=0, atol=6e-8)
        np.testing.assert_allclose(kelma.resample(y, w, method="spline"), y[:, 2:33], rtol=0, atol=2e-6)

    def test_spline_is_the_clamped_cubic_spline(self, rng):
        w = np.array([380.0, 395, 420, 445, 470, 500, 530, 555, 590, 620, 650, 680, 705, 730])
        y = rng.random((20, len(w)))
        got = kelma.resample(y, w, method="spline")
        expected = CubicSpline(w, y.astype(np.float32), axis=1, bc_type="clamped")(ref.WAVELENGTHS)
        np.testing.assert_allclose(got, expected, rtol=0, atol=2e-7)

    def test_spline_on_thousands_of_wavelengths(self, rng):
        # Any list length costs one precomputed map: 4001 knots at 0.1 nm.
        w = np.linspace(380.0, 780.0, 4001)
        y = (0.5 + 0.3 * np.sin(w[None, :] / rng.uniform(5, 40, (50, 1)))).astype(np.float32)
        got = kelma.resample(y, w, method="spline")
        expected = CubicSpline(w, y.astype(np.float64), axis=1, bc_type="clamped")(ref.WAVELENGTHS)
        np.testing.assert_allclose(got, expected, rtol=0, atol=2e-7)

    def test_thread_count_and_chunks_do_not_change_results(self, rng):
        w = np.arange(380.0, 731.0, 5.0)
        y = rng.random((70000, len(w))).astype(np.float32)
        kelma.set_cpu_count_override(1)
        one = kelma.resample(y, w, "spline")
        kelma.set_cpu_count_override(3)
        np.testing.assert_array_equal(kelma.resample(y, w, "spline"), one)
        np.testing.assert_array_equal(kelma.resample(y[-2:], w, "spline"), one[-2:])


class TestMeasurementFile:
    def test_the_aptec_chart(self):
        f = kelma.MeasurementFile(SPECTRAL, required=["spectra", "device"])
        names, rows = read_cgats_table(SPECTRAL)
        assert f.patch_count == len(rows) == 1617
        assert f.channel_names == ["CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"]
        assert f.sample_ids == [r[0] for r in rows]
        assert f.property("ILLUMINATION_NAME") == "D50" and f.property("NO_SUCH_KEY") == ""
        np.testing.assert_array_equal(f.wavelengths, np.arange(380.0, 731.0, 10.0))
        values = np.array([[float(v) for v in r[1:]] for r in rows])
        np.testing.assert_array_equal(f.device_values, values[:, :4])
        np.testing.assert_array_equal(f.spectra, values[:, 4:].astype(np.float32))
        assert f.lab is None
        resampled = f.resample()
        assert resampled.shape == (1617, 31)
        np.testing.assert_allclose(resampled, f.spectra[:, 2:33], rtol=0, atol=6e-8)
        np.testing.assert_array_equal(kelma.resample(f.spectra, f.wavelengths), resampled)

    def test_chart_colorimetry_matches_its_lab_file(self):
        spectral = kelma.MeasurementFile(SPECTRAL)
        lab_file = kelma.MeasurementFile(LAB, required="lab")
        assert lab_file.sample_ids == spectral.sample_ids
        np.testing.assert_array_equal(lab_file.device_values, spectral.device_values)
        lm = kelma.LightingMatrix("D50", observer=2)
        xyz = lm.xyz(spectral.resample())[:, 0]
        lab = ref.cielab(xyz, lm.white_point[0])
        de = np.linalg.norm(lab - lab_file.lab, axis=1)
        # The library's observer is rounded to two decimals and spans 400-700 nm only.
        assert de.mean() < 0.15 and de.max() < 0.6
        # The bytes the module encodes agree with the chart's own L*a*b*.
        got = lm.cielab_bytes(xyz[:, None])[:, 0].astype(int)
        assert np.max(np.abs(got - ref.cielab_bytes(lab_file.lab).astype(int))) <= 1

    def test_missing_file_and_bad_requirements(self, tmp_path):
        with pytest.raises(FileNotFoundError):
            kelma.MeasurementFile(tmp_path / "nothing.txt")
        with pytest.raises(kelma.MeasurementError, match="LAB"):
            kelma.MeasurementFile(SPECTRAL, required="lab")
        with pytest.raises(ValueError, match="'spectra', 'lab', 'device'"):
            kelma.MeasurementFile(SPECTRAL, required="colour")
        with pytest.raises(TypeError):
            kelma.MeasurementFile(SPECTRAL, required=[1])
        # A LAB-only file has nothing to resample.
        with pytest.raises(kelma.MeasurementError, match="no spectral"):
            kelma.MeasurementFile(LAB, required="lab").resample()


class TestBadCharts:
    """Every bad file is a MeasurementError (a ValueError) of one line that
    names the file and the fault, when it is read or, for spectra the
    resampler refuses, when it is resampled."""

    @pytest.mark.parametrize("bad", BAD_FILES, ids=[b.name for b in BAD_FILES])
    def test_bad_file(self, bad):
        required = [["spectra"], ["spectra", "device"]] if bad.same_with_device else [["spectra"]]
        for req in required:
            with pytest.raises(kelma.MeasurementError) as info:
                f = kelma.MeasurementFile(bad.path, required=req)
                assert bad.stage == "resample", "read without an error"
                f.resample()
            message = str(info.value)
            assert message.startswith(bad.path + ": ") and bad.problem in message, message
            assert "\n" not in message and isinstance(info.value, ValueError)

    @pytest.mark.parametrize("label", SPECIAL_LABELS)
    def test_what_is_not_a_regular_file_is_refused_before_reading(self, tmp_path, label):
        _, path, problem = next(c for c in special_files(tmp_path) if c[0] == label)
        with pytest.raises(kelma.MeasurementError, match=problem.replace("(", r"\(").replace(")", r"\)")):
            kelma.MeasurementFile(path)

    @pytest.mark.parametrize("name", ["good_latin1.txt", "good_utf8_bom.txt", "good_utf16le_bom.txt"])
    def test_text_that_is_not_utf8_is_read(self, name):
        f = kelma.MeasurementFile(os.path.join(BAD, name), required=["spectra", "device"])
        assert f.sample_ids == ["Café crème", "Schwarz_größte"]
        assert f.property("DESCRIPTOR") == "Prüfdruck für Öl"
        np.testing.assert_array_equal(f.spectra[0, :3], np.float32([0.81, 0.87, 0.88]))

    def test_spectra_short_of_the_grid_are_extrapolated_only_when_asked(self):
        path = os.path.join(BAD, "bad_gap_blue.txt")
        strict = kelma.MeasurementFile(path)
        assert strict.extrapolate is False
        with pytest.raises(kelma.MeasurementError, match="400-440 nm would be extrapolated"):
            strict.resample()
        lenient = kelma.MeasurementFile(path, extrapolate=True)
        assert lenient.extrapolate is True
        np.testing.assert_allclose(lenient.resample(), ref.resample_linear(lenient.spectra, lenient.wavelengths),
                                   rtol=0, atol=2e-6)
        with pytest.raises(TypeError):
            kelma.MeasurementFile(path, "spectra", True)  # keyword only


class TestResamplePlausibility:
    """kelma.resample applies the reader's rules to arrays, naming the argument and index."""

    W = np.arange(400.0, 701.0, 50.0)

    @pytest.mark.parametrize("spectra,wavelengths,match", [
        (np.array([[0.5] * 7, [0.5, 0.5, 1.0e300, 0.5, 0.5, 0.5, 0.5]]), W,
         r"spectra\[1, 2\] = 1e\+300 is outside the range of a 32-bit float"),
        (np.full((2, 3, 7), 0.5) + np.eye(7)[4] * -1e39, W, r"spectra\[0, 0, 4\] = -1e\+39 is outside the range"),
        (np.array([[81.2, 87.5, 88.3, 88.9, 89.0, 89.4, 89.6]]), W,
         r"spectra\[0, 0\] = 81.2 is far outside the reflectance range 0-1: the spectra look like percent, "
         r"divide them by 100"),
        (np.array([[0.5, 0.5, -3.5, 0.5, 0.5, 0.5, 0.5]]), W, r"spectra\[0, 2\] = -3.5 is far outside"),
        (np.array([[0, 0, 0, 0, 0, 0, 2**62]]), W, r"spectra\[0, 6\] = 4611686018427387904 is far outside"),
        (np.full((1, 7), 0.5), W / 1000, r"wavelengths\[0\]: wavelength 0.4 is outside 300-1100 nm: it looks like "
                                         r"micrometres, multiply the wavelengths by 1000"),
        (np.full((1, 7), 0.5), W * 10, r"wavelengths\[0\]: .*looks like angstrom, divide the wavelengths by 10"),
        (np.full((1, 7), 0.5), W * 1e-9, r"looks like metres, multiply the wavelengths by 1e9"),
        (np.full((1, 3), 0.5), [400.0, 700.0, 1200.0], r"wavelengths\[2\]: wavelength 1200 is outside 300-1100 nm"),
        (np.full((1, 8), 0.5), np.arange(450.0, 731.0, 40.0),
         "wavelengths 450-730 nm do not reach down to 400 nm: 400-440 nm would be extrapolated"),
        (np.full((1, 8), 0.5), np.arange(380.0, 451.0, 10.0),
         "wavelengths 380-450 nm do not reach up to 700 nm: 460-700 nm would be extrapolated"),
    ])
    def test_implausible_arrays(self, spectra, wavelengths, match):
        for method in ("linear", "spline"):
            with pytest.raises(ValueError, match=match):
                kelma.resample(spectra, wavelengths, method)

    def test_extrapolation_when_asked(self):
        w = np.arange(450.0, 731.0, 40.0)
        y = np.linspace(0.2, 0.9, 8)[None, :]
        got = kelma.resample(y, w, extrapolate=True)
        np.testing.assert_allclose(got, ref.resample_linear(y.astype(np.float32), w), rtol=0, atol=2e-6)
        # Up to one 10 nm grid step at either end needs no permission.
        assert np.isfinite(kelma.resample(y, np.linspace(410.0, 700.0, 8))).all()
        assert np.isfinite(kelma.resample(y, np.linspace(400.0, 690.0, 8), "spline")).all()

    def test_extrapolation_still_needs_the_resampler_range(self):
        with pytest.raises(ValueError, match="Invalid wavelength range"):
            kelma.resample(np.full((1, 2), 0.5), [450.0, 650.0], extrapolate=True)


class TestChartArrays:
    """A chart given as arrays to build_model / evaluate_model meets the same rules."""

    def chart(self):
        f = kelma.MeasurementFile(SPECTRAL, required=["spectra", "device"])
        return f.device_values[:200], f.resample().astype(np.float64)[:200]

    @pytest.mark.parametrize("edit,match", [
        (lambda d, s: (d, s * 100.0), r"spectra\[0, 0\] = .* look like percent, divide them by 100"),
        (lambda d, s: (d, np.where(np.arange(31) == 5, 1.0e300, s)), r"spectra\[0, 5\] = 1e\+300 is outside the range"),
        (lambda d, s: (np.where(np.arange(4) == 3, 1.0e300, d), s), r"device_values\[0, 3\] = 1e\+300 is outside the range"),
    ])
    def test_bad_chart_arrays(self, edit, match):
        device, spectra = edit(*self.chart())
        with pytest.raises(ValueError, match=match):
            kelma.build_model((device, spectra), [0, 100], method="classic")
        with pytest.raises(ValueError, match=match):
            kelma.evaluate_model(kelma.default_press_model(), (device, spectra))
