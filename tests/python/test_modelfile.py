"""Model files from Python (save, load_model, ModelFile), and models and CLUTs
as values: pickling, copying and comparison by content."""
import copy
import os
import pickle
from pathlib import Path

import numpy as np
import pytest

import kelma
from conftest import build

ROOT = Path(__file__).resolve().parents[2]
SHIPPED = ROOT / "data" / "models" / "aptec_pc10_cmyk.kelma"


@pytest.fixture
def inks4(rng):
    return rng.integers(0, 256, (3000, 4), dtype=np.uint8)


def same_bits(a, b):
    return a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes()


class TestSaveAndLoad:
    def test_the_shipped_file_is_the_embedded_model(self):
        f = kelma.ModelFile.read(SHIPPED)
        assert f.model() == kelma.default_press_model()
        assert f.ink_names == ["CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"]
        assert (f.precision, f.observer, f.illuminants, f.fit_method) == ("float64", 2, ["D50"], "refined")
        assert f.chart == "APTEC_PC10_CardBoard_2023_v1_Spectral.txt" and f.fit_patches == 1617
        assert 0.2 < f.fit_error["mean"] < 0.25
        # The stored float64 values are the fitted ones, exactly.
        arrays = kelma.default_press_model_arrays()
        assert same_bits(f.scheme.ravel(), arrays["scheme"].ravel()) and f.n == arrays["n"]

    @pytest.mark.parametrize("fixture", ["ref4", "ref6", "ref7"])
    def test_round_trip_keeps_content_and_predictions(self, fixture, request, tmp_path, rng):
        ref = request.getfixturevalue(fixture)
        model = build(ref, illuminants=["D65", "A", "F2"], observer=10, media_relative=True, ink_set=99)
        path = tmp_path / "m.kelma"
        model.save(path, ink_names=["ink%d" % i for i in range(ref.inks)], chart="chart.txt", fit_method="mine")
        back = kelma.load_model(path)
        assert back == model and hash(back) == hash(model)
        inks = rng.integers(0, 256, (2000, ref.inks), dtype=np.uint8)
        assert same_bits(kelma.predict_spectra(back, inks), kelma.predict_spectra(model, inks))
        assert same_bits(kelma.predict_colors(back, inks), kelma.predict_colors(model, inks))
        f = kelma.ModelFile.read(path)
        assert (f.observer, f.illuminants, f.ink_set, f.media_relative) == (10, ["D65", "A", "F2"], 99, True)
        assert (f.chart, f.fit_method, f.precision) == ("chart.txt", "mine", "float32")

    def test_a_model_built_from_float64_arrays_keeps_its_lookup_table(self, ref4, tmp_path, inks4):
        m64 = build(ref4, dtype=np.float64)
        assert m64 != build(ref4)   # the float64 ramps give another table
        m64.save(tmp_path / "m64")
        assert kelma.ModelFile.read(tmp_path / "m64").ramp_weights is not None
        back = kelma.load_model(tmp_path / "m64")
        assert back == m64
        assert same_bits(kelma.predict_spectra(back, inks4), kelma.predict_spectra(m64, inks4))

    def test_a_measured_illuminant_is_kept_as_weights(self, ref4, tmp_path):
        spd = np.linspace(0.5, 1.5, 31)
        model = build(ref4, illuminants=[spd, "D50"], observer=2)
        f = kelma.ModelFile(model)
        kind, weights = f.illuminants[0]
        assert kind == "weights" and weights.shape == (3, 31) and f.illuminants[1] == "D50"
        assert same_bits(weights, model.lighting_matrix.weights[0])
        assert kelma.ModelFile.parse(f.text()).model() == model

    def test_writes_exactly_the_path_given_and_nothing_else(self, tmp_path):
        model = kelma.default_press_model()
        model.save(str(tmp_path / "press"))       # no extension is added
        model.save(tmp_path / "press.model")      # os.PathLike
        assert sorted(p.name for p in tmp_path.iterdir()) == ["press", "press.model"]
        assert (tmp_path / "press").read_text() == kelma.ModelFile(model).text()

    def test_errors_name_the_file_and_the_problem(self, tmp_path):
        text = kelma.ModelFile(kelma.default_press_model()).text()
        damaged = tmp_path / "damaged.kelma"
        damaged.write_text(text.replace("\nn ", "\nn 1", 1))
        with pytest.raises(kelma.ModelFileError, match=r"damaged\.kelma: checksum mismatch"):
            kelma.load_model(damaged)
        truncated = tmp_path / "cut.kelma"
        truncated.write_text(text[: len(text) // 2])
        with pytest.raises(ValueError, match=r"cut\.kelma: .*truncated"):
            kelma.load_model(truncated)
        npz = tmp_path / "old.npz"
        np.savez(npz, grid=np.zeros(3))
        with pytest.raises(kelma.ModelFileError, match=r"old\.npz: this is a zip archive"):
            kelma.load_model(npz)
        with pytest.raises(kelma.ModelFileError, match=r"nothere\.kelma: cannot open"):
            kelma.load_model(tmp_path / "nothere.kelma")
        with pytest.raises(kelma.ModelFileError, match=r"cannot write .*missing/m\.kelma"):
            kelma.default_press_model().save(tmp_path / "missing" / "m.kelma")
        assert not (tmp_path / "missing").exists()
        with pytest.raises(TypeError, match="path"):
            kelma.load_model(3)

    def test_bad_descriptions_are_refused_before_writing(self, tmp_path):
        model = kelma.default_press_model()
        with pytest.raises(ValueError, match="ink_names must name each of the 4 inks"):
            model.save(tmp_path / "m", ink_names=["C", "M"])
        with pytest.raises(kelma.ModelFileError, match="ink names 1 and 2 are both 'C'"):
            model.save(tmp_path / "m", ink_names=["C", "C", "Y", "K"])
        with pytest.raises(kelma.ModelFileError, match="chart"):
            model.save(tmp_path / "m", chart="a\nb")
        assert list(tmp_path.iterdir()) == []


class TestFittedModels:
    def test_a_fit_saves_its_provenance(self, tmp_path):
        chart = kelma.MeasurementFile(ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt",
                                      required=["spectra", "device"])
        built = kelma.build_model(chart, [0, 100], method="classic")
        assert built.chart == "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"
        built.save(tmp_path / "fit.kelma")
        f = kelma.ModelFile.read(tmp_path / "fit.kelma")
        assert f.ink_names == ["CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"]
        assert (f.fit_method, f.fit_patches, f.precision) == ("classic", built.fit_error["count"], "float64")
        assert f.fit_error == {k: built.fit_error[k] for k in ("mean", "p95", "max")}
        assert same_bits(f.scheme, built.arrays["scheme"]) and f.n == built.n
        assert f.model() == built.model(ink_set=15)


class TestModelsAsValues:
    def test_models_compare_by_content(self, ref4):
        a, b = build(ref4), build(ref4)
        assert a is not b and a == b and hash(a) == hash(b)
        assert a != a.with_media_relative(True)
        assert a != build(ref4, illuminants="D65")
        assert a != "a model" and len({a, b}) == 1

    def test_pickle_and_copies_are_exact(self, ref4, inks4):
        for model in (build(ref4, illuminants=["D50", "A"]), build(ref4, dtype=np.float64),
                      kelma.default_press_model(media_relative=True)):
            for other in (pickle.loads(pickle.dumps(model)), copy.copy(model), copy.deepcopy(model)):
                assert other == model and other is not model
                assert same_bits(kelma.predict_spectra(other, inks4), kelma.predict_spectra(model, inks4))

    def test_other_illuminants_keep_the_arrays_and_the_table(self, ref4, inks4):
        m64 = build(ref4, dtype=np.float64)
        d65 = m64.with_illuminants(["D65", "A"], 10)
        assert d65.illuminant_count == 2 and d65 != m64
        assert same_bits(d65.lighting_matrix.weights, kelma.LightingMatrix(["D65", "A"], 10).weights)
        assert same_bits(d65.ramp_lut[1], m64.ramp_lut[1])        # the float64 table, kept
        assert same_bits(kelma.predict_spectra(d65, inks4), kelma.predict_spectra(m64, inks4))
        assert d65.with_illuminants("D50", 2) == m64

    def test_model_files_pickle_and_compare(self):
        f = kelma.ModelFile.read(SHIPPED)
        g = pickle.loads(pickle.dumps(f))
        assert g == f and g.text() == f.text() and copy.deepcopy(f) == f
        assert f.with_description(chart="other.txt") != f

    def test_cluts_pickle_and_copy_to_the_same_table(self, rng):
        model = kelma.default_press_model(illuminants=["D50", "D65"])
        px4 = rng.integers(0, 256, (5000, 4), dtype=np.uint8)
        px3 = rng.integers(0, 256, (5000, 3), dtype=np.uint8)
        nodes = rng.integers(0, 256, (9, 9, 9, 4), dtype=np.uint8)
        for clut, px in ((kelma.Clut.from_model(model, 9, illuminant=1), px4),
                         (kelma.Clut.from_nodes(nodes, in_lab=True), px3)):
            expected = clut.apply(px)
            for other in (pickle.loads(pickle.dumps(clut)), copy.copy(clut), copy.deepcopy(clut)):
                assert other is not clut and repr(other) == repr(clut)
                assert same_bits(other.apply(px), expected)

    def test_arrays_restored_by_pickle_are_accepted(self, rng):
        # Unpickled arrays carry new dtype objects (as dask hands chunks to workers).
        inks = pickle.loads(pickle.dumps(rng.integers(0, 256, (10, 4), dtype=np.uint8)))
        model = kelma.default_press_model()
        assert kelma.predict_spectra(model, inks).shape == (10, 31)
        nodes = pickle.loads(pickle.dumps(rng.integers(0, 256, (3, 3, 3, 3), dtype=np.uint8)))
        assert kelma.Clut.from_nodes(nodes).apply(nodes.reshape(-1, 3)).shape == (27, 3)


def test_paths_may_be_bytes_or_pathlike(tmp_path):
    kelma.default_press_model().save(os.fsencode(tmp_path / "b.kelma"))
    assert kelma.load_model(tmp_path / "b.kelma") == kelma.default_press_model()
