"""Resampling onto the 31-point grid and CGATS measurement files."""
import os

import numpy as np
import pytest
from scipy.interpolate import CubicSpline

import kelma
import reference as ref

CHART = os.path.join(ref.DATA, "aptec_pc10")
SPECTRAL = os.path.join(CHART, "APTEC_PC10_CardBoard_2023_v1_Spectral.txt")
LAB = os.path.join(CHART, "APTEC_PC10_CardBoard_2023_v1.txt")
BAD = os.path.join(ref.REPO, "tests", "measurement", "data")


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

    @pytest.mark.parametrize("name", ["bad_empty.txt", "bad_nan.txt", "bad_ragged.txt", "bad_one_band.txt",
                                      "bad_no_spectral.txt", "bad_not_cgats.txt"])
    def test_bad_files_raise_measurement_error_naming_the_file(self, name):
        path = os.path.join(BAD, name)
        with pytest.raises(kelma.MeasurementError) as info:
            kelma.MeasurementFile(path).resample()
        assert name in str(info.value)
        assert isinstance(info.value, ValueError)

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
