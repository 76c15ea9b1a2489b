"""Models from arrays, spectral and colorimetric prediction, sub-models."""
import itertools
import os
import subprocess
import sys

import numpy as np
import pytest

import kelma
import reference as ref_impl
from conftest import assert_runs_without_gil, build
from reference import BeerLambertModel


def all_nodes(ref):
    return np.array(list(itertools.product(range(ref.G), repeat=ref.inks)))


class TestModelArrays:
    def test_round_trip_of_the_arrays(self, ref4, model4):
        assert (model4.inks, model4.grid_points) == (4, 5)
        assert model4.n == pytest.approx(2.2, rel=1e-7)
        np.testing.assert_array_equal(model4.grid, ref4.grid.astype(np.float32))
        np.testing.assert_array_equal(model4.ramps, ref4.ramps.astype(np.float32))
        np.testing.assert_array_equal(model4.scheme, ref4.scheme.astype(np.float32))
        assert model4.scheme.shape == (4 ** 4, 31, 16)
        assert model4.illuminant_count == 1 and not model4.media_relative
        assert model4.ink_set == 127

    def test_flat_and_shaped_scheme_give_the_same_model(self, ref4, model4, rng):
        flat = kelma.Model(ref4.grid, ref4.ramps, ref4.scheme.astype(np.float32).ravel(), ref4.n)
        inks = rng.integers(0, 256, (500, 4), dtype=np.uint8)
        np.testing.assert_array_equal(kelma.predict_spectra(flat, inks), kelma.predict_spectra(model4, inks))

    def test_ramp_lookup_table(self, ref4, model4):
        offsets, weights = model4.ramp_lut
        for k in range(4):
            g = ref4.grid[k].astype(int)
            t = np.arange(256)
            cell = np.clip(np.searchsorted(g, t, side="right") - 1, 0, ref4.G - 2)
            np.testing.assert_array_equal(offsets[k], cell * (ref4.G - 1) ** k)
            # The float model builds its table from the float32 ramps.
            r = ref4.ramps[k].astype(np.float32).astype(np.float64)
            expected = (r[t] - r[g[cell]]) / (r[g[cell + 1]] - r[g[cell]])
            np.testing.assert_allclose(weights[k], expected, rtol=0, atol=6e-8)
            # At an inner grid level the sample sits at the start of the upper cell.
            for level in g[1:-1]:
                assert weights[k, level] == 0.0
            assert weights[k, 255] == 1.0

    def test_double_path_matches_float_path(self, ref4, model4, rng):
        m64 = build(ref4, dtype=np.float64)
        inks = rng.integers(0, 256, (2000, 4), dtype=np.uint8)
        np.testing.assert_allclose(kelma.predict_spectra(m64, inks), kelma.predict_spectra(model4, inks),
                                   rtol=2e-6)


class TestSpectra:
    @pytest.mark.parametrize("fixture", ["ref4", "ref6", "ref7"])
    def test_grid_nodes_reproduce_their_spectra(self, fixture, request):
        ref = request.getfixturevalue(fixture)
        model = build(ref)
        nodes = all_nodes(ref)
        predicted = kelma.predict_spectra(model, ref.node_bytes(nodes))
        np.testing.assert_allclose(predicted, ref.node_spectra(nodes), rtol=1e-5)

    @pytest.mark.parametrize("fixture", ["ref4", "ref6", "ref7"])
    def test_inside_cells_matches_demichel_interpolation(self, fixture, request, rng):
        ref = request.getfixturevalue(fixture)
        model = build(ref)
        inks = rng.integers(0, 256, (3000, ref.inks), dtype=np.uint8)
        np.testing.assert_allclose(kelma.predict_spectra(model, inks), ref.predict(inks), rtol=1e-5)

    def test_padded_records_and_out(self, model4, rng):
        inks = rng.integers(0, 256, (1000, 4), dtype=np.uint8)
        plain = kelma.predict_spectra(model4, inks)
        padded = kelma.predict_spectra(model4, inks, padded=True)
        assert plain.shape == (1000, 31) and padded.shape == (1000, 32)
        assert plain.dtype == padded.dtype == np.float32 and plain.flags.c_contiguous
        np.testing.assert_array_equal(padded[:, :31], plain)
        assert np.all(padded[:, 31] == 0.0)
        out = np.full((1000, 31), np.nan, np.float32)
        assert kelma.predict_spectra(model4, inks, out=out) is out
        np.testing.assert_array_equal(out, plain)

    def test_any_leading_shape_and_non_contiguous_input(self, model4, rng):
        inks = rng.integers(0, 256, (6, 7, 4), dtype=np.uint8)
        flat = kelma.predict_spectra(model4, inks.reshape(-1, 4))
        np.testing.assert_array_equal(kelma.predict_spectra(model4, inks), flat.reshape(6, 7, 31))
        np.testing.assert_array_equal(kelma.predict_spectra(model4, inks[0, 0]), flat[0])
        wide = rng.integers(0, 256, (50, 8), dtype=np.uint8)
        view = wide[:, ::2]
        assert not view.flags.c_contiguous
        np.testing.assert_array_equal(kelma.predict_spectra(model4, view),
                                      kelma.predict_spectra(model4, np.ascontiguousarray(view)))

    def test_batches_larger_than_one_driver_run(self, model4, rng):
        # More samples than one compaction chunk (65536), with a remainder.
        inks = rng.integers(0, 256, (70001, 4), dtype=np.uint8)
        whole = kelma.predict_spectra(model4, inks)
        np.testing.assert_array_equal(whole[-3:], kelma.predict_spectra(model4, inks[-3:]))
        np.testing.assert_array_equal(whole[65530:65540], kelma.predict_spectra(model4, inks[65530:65540]))

    @pytest.mark.parametrize("fixture", ["ref4", "ref7"])
    def test_results_do_not_depend_on_the_thread_count(self, fixture, request, rng):
        model = build(request.getfixturevalue(fixture))
        inks = rng.integers(0, 256, (1001, model.inks), dtype=np.uint8)
        results = []
        for threads in (1, 2, 3, 7):
            kelma.set_cpu_count_override(threads)
            assert kelma.cpu_count() == threads
            results.append((kelma.predict_spectra(model, inks), kelma.predict_colors(model, inks),
                            kelma.predict_colors(model, inks, encoding="cielab")))
        for r in results[1:]:
            for a, b in zip(results[0], r):
                np.testing.assert_array_equal(a, b)

    @pytest.mark.parametrize("fixture", ["ref4", "ref6", "ref7"])
    def test_small_batches_on_the_calling_thread_equal_the_threaded_driver(self, fixture, request, rng):
        # 3000 samples go to the threaded driver, one to a few hundred run on
        # the calling thread with the caller's model: the same bytes.
        model = build(request.getfixturevalue(fixture), illuminants=["D50", "F11"])
        inks = rng.integers(0, 256, (3000, model.inks), dtype=np.uint8)
        kelma.set_cpu_count_override(3)
        whole = [kelma.predict_spectra(model, inks), kelma.predict_spectra(model, inks, padded=True),
                 kelma.predict_colors(model, inks), kelma.predict_colors(model, inks, encoding="cielab")]
        for start, stop in ((0, 1), (17, 18), (5, 260), (2999, 3000)):
            part = inks[start:stop]
            small = [kelma.predict_spectra(model, part), kelma.predict_spectra(model, part, padded=True),
                     kelma.predict_colors(model, part), kelma.predict_colors(model, part, encoding="cielab")]
            for a, b in zip(whole, small):
                np.testing.assert_array_equal(a[start:stop], b)


def _run_with_kernels(name, code):
    env = dict(os.environ, KELMA_KERNELS=name)
    return subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True, timeout=120)


def test_kelma_kernels_selects_the_kernels_and_results_do_not_change(model4, rng):
    # Every variant this processor runs gives the default variant's bytes.
    code = ("import sys, numpy as np, kelma\n"
            f"sys.path.insert(0, {os.path.dirname(os.path.abspath(__file__))!r})\n"
            "from reference import BeerLambertModel\n"
            "ref = BeerLambertModel(4, 5, 2.2, seed=42)\n"
            "model = kelma.Model(ref.grid, ref.ramps.astype(np.float32), ref.scheme.astype(np.float32), ref.n)\n"
            "inks = np.random.default_rng(3).integers(0, 256, (5000, 4), dtype=np.uint8)\n"
            "kelma.set_cpu_count_override(2)\n"
            "sys.stdout.buffer.write(kelma.predict_spectra(model, inks).tobytes())\n"
            "sys.stdout.buffer.write(kelma.predict_colors(model, inks).tobytes())\n"
            "sys.stderr.write(kelma.kernel_variant())\n")
    results = {}
    for name in ("reference", "sse2", "ssse3", "avx2", "avx512"):
        env = dict(os.environ, KELMA_KERNELS=name)
        run = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, timeout=120)
        assert run.returncode == 0, run.stderr.decode()
        results[run.stderr.decode()] = run.stdout
    # The cap lowers the variant to at most the named one.
    assert "reference" in results and "sse2" in results
    first = next(iter(results.values()))
    for name, out in results.items():
        assert out == first, name


def test_an_unknown_kelma_kernels_name_fails_the_import():
    run = _run_with_kernels("AVX512", "import kelma")
    assert run.returncode != 0
    assert "KELMA_KERNELS is 'AVX512', not one of reference, sse2, ssse3, avx2, avx512" in run.stderr


class TestColors:
    def test_lab2000hl_and_cielab_bytes_follow_the_spectra(self, model4, rng):
        inks = rng.integers(0, 256, (4000, 4), dtype=np.uint8)
        spectra = kelma.predict_spectra(model4, inks)
        lm = model4.lighting_matrix
        xyz = lm.xyz(spectra)
        # The same library path, composed from its pieces.
        np.testing.assert_array_equal(kelma.predict_colors(model4, inks), lm.lab2000hl_bytes(xyz))
        np.testing.assert_array_equal(kelma.predict_colors(model4, inks, encoding="CIELab", illuminant=0),
                                      lm.cielab_bytes(xyz)[:, 0])
        # And an independent numpy computation from the published tables.
        w = ref_impl.lighting_weights(2, ref_impl.ILLUMINANTS["D50"])
        lab = ref_impl.cielab(ref_impl.xyz(spectra, w), w.sum(axis=1))
        expected_cielab = ref_impl.cielab_bytes(lab)
        got = kelma.predict_colors(model4, inks, encoding="cielab", illuminant=0).astype(int)
        assert np.max(np.abs(got - expected_cielab)) <= 1
        assert np.mean(got == expected_cielab) > 0.99
        expected_hl = ref_impl.lab2000hl_bytes(ref_impl.lab2000hl(lab))
        got = kelma.predict_colors(model4, inks, illuminant=0).astype(int)
        assert np.max(np.abs(got - expected_hl)) <= 1
        assert np.mean(got == expected_hl) > 0.99

    def test_several_illuminants_and_selection(self, ref4, rng):
        model = build(ref4, illuminants=["D50", "A", "F11"], observer=10)
        assert model.illuminant_count == 3
        inks = rng.integers(0, 256, (300, 4), dtype=np.uint8)
        everything = kelma.predict_colors(model, inks)
        assert everything.shape == (300, 3, 3)
        for k in range(3):
            one = kelma.predict_colors(model, inks, illuminant=k)
            np.testing.assert_array_equal(one, everything[:, k])
            single = build(ref4, illuminants=["D50", "A", "F11"][k], observer=10)
            np.testing.assert_array_equal(kelma.predict_colors(single, inks), everything[:, k:k + 1])
        assert not np.array_equal(everything[:, 0], everything[:, 1])

    def test_media_white_point_is_the_paper_under_each_illuminant(self, ref4):
        model = build(ref4, illuminants=["D65", "A"])
        paper = ref_impl.xyz(ref4.node_spectra(np.zeros(4, int)), np.stack(
            [ref_impl.lighting_weights(2, ref_impl.ILLUMINANTS[k]) for k in ("D65", "A")]))
        np.testing.assert_allclose(model.media_white_point, paper, rtol=2e-6)
        np.testing.assert_allclose(model.single_illuminant(1).media_white_point, paper[1:], rtol=2e-6)

    def test_media_relative_colours(self, ref4, model4, rng):
        inks = rng.integers(0, 256, (2000, 4), dtype=np.uint8)
        inks[0] = 0
        relative = kelma.predict_colors(model4, inks, media_relative=True)
        assert np.array_equal(relative, kelma.predict_colors(model4.with_media_relative(True), inks))
        # The paper itself becomes white.
        np.testing.assert_array_equal(relative[0, 0], [255, 128, 128])
        assert kelma.predict_colors(model4, inks[:1])[0, 0, 0] < 255
        lm = model4.lighting_matrix
        factor = lm.media_relative_factor(model4.media_white_point)
        xyz = lm.xyz(kelma.predict_spectra(model4, inks), factor)
        np.testing.assert_array_equal(relative, lm.lab2000hl_bytes(xyz))
        np.testing.assert_array_equal(kelma.predict_colors(model4, inks, media_relative=True, encoding="cielab"),
                                      lm.cielab_bytes(xyz))
        np.testing.assert_allclose(factor, lm.white_point / model4.media_white_point, rtol=1e-6)

    def test_cielab_over_several_driver_runs(self, model4, rng):
        inks = rng.integers(0, 256, ((1 << 20) + 5, 4), dtype=np.uint8)
        whole = kelma.predict_colors(model4, inks, encoding="cielab", illuminant=0)
        for part in (slice(0, 7), slice((1 << 20) - 3, (1 << 20) + 5)):
            np.testing.assert_array_equal(whole[part],
                                          kelma.predict_colors(model4, inks[part], encoding="cielab", illuminant=0))


class TestSubModels:
    @pytest.mark.parametrize("code,kept", [(0x0F, [0, 1, 2, 3]), (0x5A, [1, 3, 4, 6]), (0x3F, [0, 1, 2, 3, 4, 5])])
    def test_sub_model_is_the_full_model_with_dropped_inks_at_zero(self, ref7, code, kept, rng):
        full = build(ref7)
        sub = full.sub_model(code)
        assert sub.inks == len(kept)
        np.testing.assert_array_equal(sub.grid, full.grid[kept])
        inks = rng.integers(0, 256, (500, len(kept)), dtype=np.uint8)
        wide = np.zeros((500, 7), np.uint8)
        wide[:, kept] = inks
        np.testing.assert_allclose(kelma.predict_spectra(sub, inks), kelma.predict_spectra(full, wide),
                                   rtol=1e-6, atol=1e-7)
        np.testing.assert_allclose(sub.media_white_point, full.media_white_point, rtol=1e-6)

    def test_all_bits_code_is_a_copy(self, model4, rng):
        inks = rng.integers(0, 256, (200, 4), dtype=np.uint8)
        np.testing.assert_array_equal(kelma.predict_spectra(model4.sub_model(0xFFFFFFFF), inks),
                                      kelma.predict_spectra(model4, inks))

    def test_media_white_of_a_seven_ink_model_comes_from_its_paper(self, ref7):
        model = build(ref7)
        paper = ref_impl.xyz(ref7.node_spectra(np.zeros(7, int)),
                             ref_impl.lighting_weights(2, ref_impl.ILLUMINANTS["D50"]))
        np.testing.assert_allclose(model.media_white_point[0], paper, rtol=2e-6)


def test_models_from_measured_illuminants(ref4, rng):
    spd = np.array(ref_impl.ILLUMINANTS["D65"]) * 3.0   # scale does not matter
    named = build(ref4, illuminants="D65")
    measured = build(ref4, illuminants=spd)
    inks = rng.integers(0, 256, (200, 4), dtype=np.uint8)
    np.testing.assert_array_equal(kelma.predict_colors(named, inks), kelma.predict_colors(measured, inks))
    lm = kelma.LightingMatrix(["D50", "A"], observer=10)
    np.testing.assert_array_equal(build(ref4, illuminants=lm).lighting_matrix.weights, lm.weights)


def test_gil_is_released_during_prediction(model4, rng):
    inks = rng.integers(0, 256, (400000, 4), dtype=np.uint8)
    assert_runs_without_gil(lambda: kelma.predict_spectra(model4, inks))
    assert_runs_without_gil(lambda: kelma.predict_colors(model4, inks, encoding="cielab"))
