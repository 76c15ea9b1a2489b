"""Observers, illuminants, lighting matrices, white points and LAB2000HL."""
import numpy as np
import pytest

import kelma
import reference as ref
from conftest import assert_runs_without_gil


class TestTables:
    def test_observers_are_the_rounded_cie_functions(self):
        np.testing.assert_array_equal(kelma.observer(2), ref.CIE2)
        np.testing.assert_array_equal(kelma.observer(10), ref.CIE10)
        np.testing.assert_allclose(kelma.observer(2).sum(axis=1), [10.64, 10.67, 10.66])
        np.testing.assert_allclose(kelma.observer(10).sum(axis=1), [11.65, 11.68, 11.65])

    @pytest.mark.parametrize("name", ["A", "D50", "D65", "E", "F1", "F2", "F11"])
    def test_illuminants_are_the_cie_tables(self, name):
        np.testing.assert_array_equal(kelma.illuminant(name), ref.ILLUMINANTS[name])
        np.testing.assert_array_equal(kelma.illuminant(name.lower()), ref.ILLUMINANTS[name])

    def test_grid(self):
        np.testing.assert_array_equal(kelma.WAVELENGTHS, np.arange(400, 701, 10))
        assert set(kelma.ILLUMINANTS) == set(ref.ILLUMINANTS)


class TestLightingMatrix:
    @pytest.mark.parametrize("observer", [2, 10])
    @pytest.mark.parametrize("name", ["A", "D50", "D65", "E", "F1", "F2", "F11"])
    def test_weights_and_white(self, name, observer):
        lm = kelma.LightingMatrix(name, observer=observer)
        w = ref.lighting_weights(observer, ref.ILLUMINANTS[name])
        np.testing.assert_allclose(lm.weights[0], w, rtol=1e-7, atol=1e-9)
        np.testing.assert_allclose(lm.white_point[0], w.sum(axis=1), rtol=1e-6)
        assert lm.white_point[0, 1] == pytest.approx(1.0, abs=1e-6)

    def test_published_d50_white(self):
        # With the rounded 2 degree functions at 10 nm the D50 white is near the
        # familiar (0.9642, 1, 0.8251).
        np.testing.assert_allclose(kelma.LightingMatrix("D50").white_point[0], [0.9642, 1.0, 0.8251], atol=3e-3)

    def test_xyz_against_numpy(self, rng):
        lm = kelma.LightingMatrix(["D65", "F2", ref.ILLUMINANTS["A"]], observer=10)
        spectra = rng.random((5, 7, 31))
        w = np.stack([ref.lighting_weights(10, ref.ILLUMINANTS[k]) for k in ("D65", "F2", "A")])
        got = lm.xyz(spectra)
        assert got.shape == (5, 7, 3, 3) and got.dtype == np.float32
        np.testing.assert_allclose(got, ref.xyz(spectra.astype(np.float32), w), rtol=2e-6, atol=1e-7)
        # 32-wide records: the last value is ignored, even when it is NaN.
        padded = np.concatenate([spectra, np.full((5, 7, 1), np.nan)], axis=-1)
        np.testing.assert_array_equal(lm.xyz(padded), got)
        factor = np.array([[1, 2, 3], [0.5, 1, 1], [2, 2, 2]], np.float32)
        np.testing.assert_allclose(lm.xyz(spectra, factor), got * factor, rtol=1e-6)

    def test_large_xyz_split_over_threads_is_exact(self, rng):
        lm = kelma.LightingMatrix(["D50", "A"])
        spectra = rng.random((20011, 31)).astype(np.float32)
        kelma.set_cpu_count_override(1)
        one = lm.xyz(spectra)
        kelma.set_cpu_count_override(3)
        np.testing.assert_array_equal(lm.xyz(spectra), one)
        np.testing.assert_array_equal(lm.xyz(spectra[:1]), one[:1])

    def test_byte_encodings(self, rng):
        lm = kelma.LightingMatrix(["D50", "F11"])
        white = lm.white_point
        np.testing.assert_array_equal(lm.cielab_bytes(white[None]), [[[255, 128, 128]] * 2])
        np.testing.assert_array_equal(lm.lab2000hl_bytes(white[None]), [[[255, 128, 128]] * 2])
        xyz = lm.xyz(rng.random((3000, 31)))
        lab = ref.cielab(xyz, white)
        got = lm.cielab_bytes(xyz).astype(int)
        expected = ref.cielab_bytes(lab)
        assert np.max(np.abs(got - expected)) <= 1 and np.mean(got == expected) > 0.99
        got = lm.lab2000hl_bytes(xyz).astype(int)
        expected = ref.lab2000hl_bytes(ref.lab2000hl(lab))
        assert np.max(np.abs(got - expected)) <= 1 and np.mean(got == expected) > 0.99

    def test_cielab_clamping(self):
        lm = kelma.LightingMatrix("E")
        white = lm.white_point[0]
        # Y above the white clamps L to 255; X far below the white clamps a* to 0.
        xyz = np.array([[[white[0], 2 * white[1], white[2]]], [[0.0, white[1], white[2]]]], np.float32)
        out = lm.cielab_bytes(xyz)
        assert out[0, 0, 0] == 255 and out[1, 0, 1] == 0

    def test_extraction_and_concatenation(self, rng):
        a = kelma.LightingMatrix(["D50", "A"])
        b = kelma.LightingMatrix("F11", observer=2)
        both = a + b
        assert both.illuminant_count == 3
        np.testing.assert_array_equal(both.weights, np.concatenate([a.weights, b.weights]))
        np.testing.assert_array_equal(both.illuminant(2).weights, b.weights)
        np.testing.assert_array_equal(both.illuminant(1).weights, a.weights[1:])
        again = kelma.LightingMatrix.from_weights(both.weights)
        spectra = rng.random((50, 31))
        np.testing.assert_array_equal(again.xyz(spectra), both.xyz(spectra))

    def test_measured_illuminant(self):
        lm = kelma.LightingMatrix(np.array(ref.ILLUMINANTS["D65"]) * 7.0)
        np.testing.assert_allclose(lm.weights, kelma.LightingMatrix("D65").weights, rtol=1e-6)
        rows = kelma.LightingMatrix(np.stack([ref.ILLUMINANTS["A"], ref.ILLUMINANTS["E"]]))
        np.testing.assert_array_equal(rows.weights, kelma.LightingMatrix(["A", "E"]).weights)
        mixed = kelma.LightingMatrix(["A", list(ref.ILLUMINANTS["E"])])
        np.testing.assert_array_equal(mixed.weights, rows.weights)


class TestMediaRelative:
    def test_factor(self):
        lm = kelma.LightingMatrix(["D50", "A"])
        np.testing.assert_array_equal(lm.media_relative_factor(lm.white_point), np.ones((2, 3)))
        media = lm.white_point * np.array([0.9, 0.8, 0.7], np.float32)
        np.testing.assert_allclose(lm.media_relative_factor(media), 1.0 / np.array([[0.9, 0.8, 0.7]] * 2), rtol=1e-6)

    def test_encoded_cielab_to_lab2000hl(self):
        lm = kelma.LightingMatrix("D50")
        np.testing.assert_array_equal(lm.media_relative_lab2000hl_bytes(np.array([[[255, 128, 128]]], np.uint8)),
                                      [[[255, 128, 128]]])
        words = np.array([[[0xFF00, 0x8000, 0x8000]]], np.uint16)
        np.testing.assert_array_equal(lm.media_relative_lab2000hl_bytes(words), [[[255, 128, 128]]])
        # Mid-range values decode to L*a*b* and come back through LAB2000HL.
        lab8 = np.array([[[128, 150, 100]]], np.uint8)
        lab = np.array([128 * 100 / 255, 22.0, -28.0])
        expected = ref.lab2000hl_bytes(ref.lab2000hl(lab))
        assert np.max(np.abs(lm.media_relative_lab2000hl_bytes(lab8)[0, 0].astype(int) - expected)) <= 1
        # A factor rescales the decoded XYZ: the paper white maps below white.
        dimmer = lm.media_relative_lab2000hl_bytes(np.array([[[255, 128, 128]]], np.uint8),
                                                   np.full((1, 3), 0.5, np.float32))
        assert dimmer[0, 0, 0] < 255


class TestLab2000hl:
    def test_published_values(self):
        out = kelma.lab_to_lab2000hl([[100, 0, 0], [0, 0, 0], [50, 10, 0], [50, 0, 10], [50, -128, -128]])
        np.testing.assert_allclose(out[0], [75.1531864183417, 0, 0], rtol=0, atol=1e-12)
        np.testing.assert_allclose(out[1], [0, 0, 0], atol=1e-12)
        np.testing.assert_allclose(out[2], [37.5765932090684, 10.2841132430096, 0.0570774145422605],
                                   rtol=1e-13)
        np.testing.assert_allclose(out[3, 2], 8.59897781399109, rtol=1e-13)
        np.testing.assert_allclose(out[4, 1:], [-40.6151287290575, -36.3431248062011], rtol=1e-13)
        np.testing.assert_array_equal(kelma.lab2000hl_to_bytes(out[:2]), [[255, 128, 128], [0, 128, 128]])

    def test_against_the_tables(self, rng):
        lab = np.column_stack([rng.uniform(-5, 105, 20000), rng.uniform(-140, 140, 20000),
                               rng.uniform(-140, 140, 20000)])
        got = kelma.lab_to_lab2000hl(lab.reshape(100, 200, 3))
        assert got.shape == (100, 200, 3) and got.dtype == np.float64
        np.testing.assert_allclose(got.reshape(-1, 3), ref.lab2000hl(lab), rtol=1e-12, atol=1e-12)
        # Clamping: out-of-range inputs equal their clamped values.
        np.testing.assert_array_equal(kelma.lab_to_lab2000hl([150, -300, 200]),
                                      kelma.lab_to_lab2000hl([100, -128, 128]))
        kelma.set_cpu_count_override(1)
        np.testing.assert_array_equal(kelma.lab_to_lab2000hl(lab), got.reshape(-1, 3))

    def test_byte_encodings(self, rng):
        lhl = np.column_stack([rng.uniform(0, 75, 5000), rng.uniform(-45, 45, 5000), rng.uniform(-45, 45, 5000)])
        np.testing.assert_array_equal(kelma.lab2000hl_to_bytes(lhl), ref.lab2000hl_bytes(lhl))
        truncated = np.stack([3.3931 * lhl[:, 0], 2.6771 * lhl[:, 1] + 128, 2.6771 * lhl[:, 2] + 128], axis=1)
        np.testing.assert_array_equal(kelma.lab2000hl_to_bytes(lhl, clamp=False),
                                      np.trunc(truncated).astype(np.int64).astype(np.uint8))
        # L = 80 is past the encodable top: 255 clamped, 271 wrapped to 15.
        assert kelma.lab2000hl_to_bytes([80.0, 0, 0])[0] == 255
        assert kelma.lab2000hl_to_bytes([80.0, 0, 0], clamp=False)[0] == 15

    def test_gil_is_released(self, rng):
        lab = rng.uniform(0, 100, (3000000, 3))
        assert_runs_without_gil(lambda: kelma.lab_to_lab2000hl(lab))
