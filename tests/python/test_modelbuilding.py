"""Model building from charts and the embedded default press model."""
import itertools
import os

import numpy as np
import pytest

import kelma
import reference as ref
from reference import BeerLambertModel

CHART = os.path.join(ref.DATA, "aptec_pc10")


def digital(percent):
    """Round half up of 2.55 p, computed exactly (2.55 * 50 is 127.4999... in binary)."""
    return np.floor(255.0 * np.asarray(percent) / 100.0 + 0.5).astype(np.uint8)


@pytest.fixture(scope="module")
def synthetic_chart():
    """A chart printed by a known cellular model on the grid {0, 50, 100} %:
    every node, single-ink ramps and mixed patches at sampled levels."""
    truth = BeerLambertModel(4, 3, 2.0, seed=5)
    truth.grid = np.tile([0.0, 128.0, 255.0], (4, 1))
    truth.scheme = truth._scheme()
    grid = [0.0, 50.0, 100.0]
    nodes = np.array(list(itertools.product(grid, repeat=4)))
    singles = [np.eye(4)[k] * p for k in range(4) for p in (5, 10, 20, 30, 40, 60, 70, 80, 90, 95)]
    mixed = np.random.default_rng(0).choice([0, 10, 30, 50, 70, 90, 100], size=(60, 4)).astype(float)
    device = np.vstack([nodes, singles, mixed])
    return truth, grid, device, truth.predict(digital(device))


class TestBuildModel:
    def test_classic_fit_recovers_the_printing_model(self, synthetic_chart):
        truth, grid, device, spectra = synthetic_chart
        built = kelma.build_model((device, spectra), grid, method="classic", fixed_n=2.0, fit_n=False)
        assert built.method == "classic" and built.n == 2.0
        assert built.fit_error["count"] == len(device) and built.fit_error["max"] < 1e-3
        np.testing.assert_array_equal(built.arrays["grid"], truth.grid)
        np.testing.assert_allclose(built.arrays["scheme"], truth.scheme, rtol=0, atol=1e-9)
        model = built.model()
        assert model.inks == 4 and model.ink_set == 127
        np.testing.assert_allclose(kelma.predict_spectra(model, digital(device)), spectra, rtol=2e-6)
        np.testing.assert_allclose(built.training_delta_e, np.zeros(len(device)), atol=1e-3)

    def test_refined_fit_finds_n(self, synthetic_chart):
        _, grid, device, spectra = synthetic_chart
        built = kelma.build_model((device, spectra), grid, fixed_n=1.5, max_iterations=50)
        assert built.method == "refined"
        assert built.fit_error["mean"] < 0.02
        assert built.n == pytest.approx(2.0, abs=0.1)

    def test_training_subset(self, synthetic_chart):
        _, grid, device, spectra = synthetic_chart
        training = list(range(81 + 40))  # nodes and single-ink ramps
        built = kelma.build_model((device, spectra), grid, method="classic", fixed_n=2.0, fit_n=False,
                                  training_patches=training)
        assert built.training_patches == training and len(built.training_delta_e) == len(training)

    def test_the_aptec_chart(self):
        f = kelma.MeasurementFile(os.path.join(CHART, "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"),
                                  required=["spectra", "device"])
        built = kelma.build_model(f, [0, 40, 100], method="classic")
        assert built.fit_error["count"] == 1617
        assert built.fit_error["mean"] < 1.0 and 1.0 < built.n < 10.0
        np.testing.assert_array_equal(built.arrays["grid"], np.tile([0, 102, 255], (4, 1)))

    def test_errors(self, synthetic_chart):
        _, grid, device, spectra = synthetic_chart
        with pytest.raises(kelma.ModelBuildingError, match="missing|not measured|no patch|node"):
            kelma.build_model((device, spectra), [0, 25, 100], method="classic")
        bad = device.copy()
        bad[0, 0] = 120.0
        with pytest.raises(kelma.ModelBuildingError, match="120"):
            kelma.build_model((bad, spectra), grid)
        with pytest.raises(kelma.ModelBuildingError, match="4, 6 or 7 inks"):
            kelma.build_model((device[:, :3], spectra), grid)
        with pytest.raises(ValueError, match=r"spectra must be \(181, 31\)"):
            kelma.build_model((device, spectra[:, :30]), grid)
        with pytest.raises(ValueError, match="'refined' or 'classic'"):
            kelma.build_model((device, spectra), grid, method="best")
        with pytest.raises(ValueError, match="finite"):
            kelma.build_model((device, spectra), grid, fixed_n=float("nan"))
        with pytest.raises(kelma.ModelBuildingError, match="outside the chart"):
            kelma.build_model((device, spectra), grid, training_patches=[100000])
        with pytest.raises(TypeError, match="MeasurementFile or a tuple"):
            kelma.build_model([device, spectra], grid)
        assert issubclass(kelma.ModelBuildingError, ValueError)


class TestFineGridFit:
    def test_a_finer_grid_fitted_toward_the_3_level_model(self, synthetic_chart):
        truth, grid, device, spectra = synthetic_chart
        fine = [0.0, 30.0, 50.0, 100.0]
        # Without the fine-grid fit the 30 % nodes are missing.
        with pytest.raises(kelma.ModelBuildingError, match="lacks"):
            kelma.build_model((device, spectra), fine)
        base = kelma.build_model((device, spectra), grid)
        auto = kelma.build_model((device, spectra), fine, fine_base_grid_percent=grid)
        assert auto.arrays["grid"].shape == (4, 4) and auto.arrays["scheme"].shape == (81, 31, 16)
        assert auto.fine_prior in [2.0 ** e for e in range(-6, 5)]
        assert auto.n == base.n
        np.testing.assert_array_equal(auto.arrays["ramps"], base.arrays["ramps"])
        printed = {tuple(r) for r in device.tolist()}
        unprinted = sum(1 for node in itertools.product(fine, repeat=4) if node not in printed)
        assert len(auto.estimated_nodes) == unprinted > 81
        assert base.fine_prior == 0.0
        # A prior of a billion patches per node keeps the base model's predictions.
        heavy = kelma.build_model((device, spectra), fine, fine_base_grid_percent=grid, fine_prior=1e9)
        assert heavy.fine_prior == 1e9
        inks = np.random.default_rng(1).integers(0, 256, (500, 4), dtype=np.uint8)
        np.testing.assert_allclose(kelma.predict_spectra(heavy.model(), inks),
                                   kelma.predict_spectra(base.model(), inks), rtol=1e-4, atol=1e-6)

    def test_estimated_nodes_and_errors(self, synthetic_chart):
        _, grid, device, spectra = synthetic_chart
        est = kelma.build_model((device, spectra), [0, 30, 50, 100], method="classic", estimate_missing_nodes=True,
                                coarse_grid_percent=grid)
        assert len(est.estimated_nodes) > 81 and est.fine_prior == 0.0
        with pytest.raises(ValueError, match="fine_prior must be 'auto' or a positive number"):
            kelma.build_model((device, spectra), grid, fine_base_grid_percent=[0, 100], fine_prior="best")
        with pytest.raises(ValueError, match="fine_prior must be 'auto' or a positive number"):
            kelma.build_model((device, spectra), grid, fine_base_grid_percent=[0, 100], fine_prior=-1.0)
        with pytest.raises(TypeError, match="fine_prior"):
            kelma.build_model((device, spectra), grid, fine_base_grid_percent=[0, 100], fine_prior=[1.0])
        with pytest.raises(ValueError, match="fine_prior needs fine_base_grid_percent"):
            kelma.build_model((device, spectra), grid, fine_prior=2.0)
        with pytest.raises(ValueError, match=r"fine_base_grid_percent must be \(G,\)"):
            kelma.build_model((device, spectra), grid, fine_base_grid_percent=[[0, 100]] * 4)
        with pytest.raises(kelma.ModelBuildingError, match="base grid of ink 1 must start at 0"):
            kelma.build_model((device, spectra), [0, 30, 50, 100], fine_base_grid_percent=[10, 100])


class TestDefaultPressModel:
    def test_predicts_the_chart_it_was_fitted_to(self):
        model = kelma.default_press_model()
        assert (model.inks, model.grid_points, model.ink_set) == (4, 3, 15)
        lab = kelma.MeasurementFile(os.path.join(CHART, "APTEC_PC10_CardBoard_2023_v1.txt"), required=["lab"])
        spectra = kelma.predict_spectra(model, digital(lab.device_values))
        w = ref.lighting_weights(2, ref.ILLUMINANTS["D50"])
        de = np.linalg.norm(ref.cielab(ref.xyz(spectra, w), w.sum(axis=1)) - lab.lab, axis=1)
        assert de.mean() < 0.5 and np.percentile(de, 95) < 1.0

    def test_arrays_build_the_same_model(self, rng):
        arrays = kelma.default_press_model_arrays()
        model = kelma.Model(arrays["grid"], arrays["ramps"], arrays["scheme"].astype(np.float32), arrays["n"])
        inks = rng.integers(0, 256, (1000, 4), dtype=np.uint8)
        np.testing.assert_array_equal(kelma.predict_spectra(model, inks),
                                      kelma.predict_spectra(kelma.default_press_model(), inks))
        several = kelma.default_press_model(["D50", "A"], media_relative=True)
        assert several.illuminant_count == 2 and several.media_relative
        np.testing.assert_array_equal(kelma.predict_colors(several, inks, illuminant=0),
                                      kelma.predict_colors(model, inks, illuminant=0, media_relative=True))
