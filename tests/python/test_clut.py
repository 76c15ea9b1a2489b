"""CLUTs from node tables and from models, and the sub-model dispatcher."""
import threading

import numpy as np
import pytest

import kelma
import reference as ref
from conftest import assert_runs_without_gil, build


def smooth_nodes(n, d, m, rng):
    """A smooth table with some noise, so that neighbouring nodes differ."""
    axes = np.meshgrid(*([np.linspace(0, 1, n)] * d), indexing="ij")
    out = []
    for j in range(m):
        v = sum((0.3 + 0.1 * j) * a ** (1 + 0.2 * (i + j)) for i, a in enumerate(axes)) / d
        out.append(np.clip(255 * v + rng.integers(-8, 9, v.shape), 0, 255))
    return np.stack(out, axis=-1).astype(np.uint8)


class TestFromNodes:
    @pytest.mark.parametrize("d,m,n,in_lab", [(3, 3, 17, False), (3, 4, 9, False), (3, 7, 5, False),
                                              (4, 3, 9, False), (3, 3, 17, True), (3, 4, 17, True),
                                              (3, 7, 9, True), (3, 3, 2, False), (4, 3, 2, False)])
    def test_matches_fixed_point_interpolation(self, d, m, n, in_lab, rng):
        nodes = smooth_nodes(n, d, m, rng)
        clut = kelma.Clut.from_nodes(nodes, in_lab=in_lab)
        assert (clut.input_channels, clut.output_channels, clut.grid_points, clut.in_lab) == (d, m, n, in_lab)
        pixels = rng.integers(0, 256, (20000, d), dtype=np.uint8)
        pixels[:4] = [[0] * d, [255] * d, [128] * d, [254] * d]
        np.testing.assert_array_equal(clut.apply(pixels), ref.clut_apply(nodes, pixels, in_lab))

    def test_extreme_inputs_return_the_corner_nodes(self, rng):
        nodes = smooth_nodes(5, 4, 3, rng)
        clut = kelma.Clut.from_nodes(nodes)
        corners = ((np.arange(16)[:, None] >> np.arange(4)) & 1).astype(np.uint8)
        np.testing.assert_array_equal(clut.apply(corners * 255), nodes[tuple((corners * 4).T)])

    def test_constant_table(self, rng):
        clut = kelma.Clut.from_nodes(np.full((9, 9, 9, 7), 77, np.uint8))
        assert np.all(clut.apply(rng.integers(0, 256, (1000, 3), dtype=np.uint8)) == 77)

    def test_any_shape_equals_the_flat_application(self, rng):
        clut = kelma.Clut.from_nodes(smooth_nodes(17, 4, 3, rng))
        image = rng.integers(0, 256, (31, 17, 4), dtype=np.uint8)
        flat = clut.apply(image.reshape(-1, 4))
        np.testing.assert_array_equal(clut.apply(image), flat.reshape(31, 17, 3))
        np.testing.assert_array_equal(clut.apply(image[3, 4]), flat[3 * 17 + 4])
        batch = rng.integers(0, 256, (2, 3, 4, 5, 4), dtype=np.uint8)
        np.testing.assert_array_equal(clut.apply(batch), clut.apply(batch.reshape(-1, 4)).reshape(2, 3, 4, 5, 3))
        # Non-contiguous views are copied, not misread.
        view = image[:, ::2]
        np.testing.assert_array_equal(clut.apply(view), clut.apply(np.ascontiguousarray(view)))
        out = np.zeros((31, 17, 3), np.uint8)
        assert clut.apply(image, out=out) is out
        np.testing.assert_array_equal(out, flat.reshape(31, 17, 3))

    def test_thread_count_does_not_change_results(self, rng):
        nodes = smooth_nodes(9, 3, 4, rng)
        pixels = rng.integers(0, 256, (10007, 3), dtype=np.uint8)
        kelma.set_cpu_count_override(1)
        one = kelma.Clut.from_nodes(nodes).apply(pixels)
        kelma.set_cpu_count_override(5)
        np.testing.assert_array_equal(kelma.Clut.from_nodes(nodes).apply(pixels), one)

    def test_python_threads_build_and_apply_cluts_at_once(self, rng):
        # Builds release the GIL, so the threads' CLUTs are created and freed
        # concurrently; every result must equal the one made alone.
        tables = [smooth_nodes(5, 4, 3, rng), smooth_nodes(9, 3, 3, rng), smooth_nodes(3, 4, 3, rng),
                  smooth_nodes(5, 3, 7, rng)]
        pixels = {d: rng.integers(0, 256, (2000, d), dtype=np.uint8) for d in (3, 4)}
        expected = [kelma.Clut.from_nodes(t).apply(pixels[t.ndim - 1]) for t in tables]
        failures = []

        def work(first):
            try:
                for i in range(40):
                    k = (first + i) % len(tables)
                    got = kelma.Clut.from_nodes(tables[k]).apply(pixels[tables[k].ndim - 1])
                    if not np.array_equal(got, expected[k]):
                        failures.append(k)
            except Exception as e:  # reported below, on the test's thread
                failures.append(e)

        threads = [threading.Thread(target=work, args=(i,)) for i in range(3)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        assert failures == []

    def test_gil_is_released(self, rng):
        clut = kelma.Clut.from_nodes(smooth_nodes(17, 4, 3, rng))
        pixels = rng.integers(0, 256, (3000000, 4), dtype=np.uint8)
        assert_runs_without_gil(lambda: clut.apply(pixels))


class TestFromModel:
    @pytest.mark.parametrize("n", [2, 5, 9])
    def test_nodes_are_the_predicted_colours(self, ref4, model4, n, rng):
        clut = kelma.Clut.from_model(model4, n)
        assert (clut.input_channels, clut.output_channels, clut.grid_points) == (4, 3, n)
        node_inputs = ref.clut_node_inputs(n, 4)
        nodes = kelma.predict_colors(model4, node_inputs, illuminant=0).reshape((n,) * 4 + (3,))
        pixels = rng.integers(0, 256, (5000, 4), dtype=np.uint8)
        np.testing.assert_array_equal(clut.apply(pixels), ref.clut_apply(nodes, pixels))
        np.testing.assert_array_equal(clut.apply(pixels), kelma.Clut.from_nodes(nodes).apply(pixels))

    def test_illuminant_and_media_relative_choice(self, ref4, rng):
        model = build(ref4, illuminants=["D50", "A"], media_relative=True)
        pixels = rng.integers(0, 256, (2000, 4), dtype=np.uint8)
        for k in range(2):
            clut = kelma.Clut.from_model(model, 5, illuminant=k)
            nodes = kelma.predict_colors(model, ref.clut_node_inputs(5, 4), illuminant=k).reshape((5,) * 4 + (3,))
            np.testing.assert_array_equal(clut.apply(pixels), ref.clut_apply(nodes, pixels))
        with pytest.raises(ValueError, match="2 illuminants"):
            kelma.Clut.from_model(model, 5)

    def test_seven_ink_model_through_a_sub_model(self, ref7):
        model = build(ref7)
        with pytest.raises(ValueError, match="4 inks"):
            kelma.Clut.from_model(model, 5)
        clut = kelma.Clut.from_model(model.sub_model(0x0F), 3)
        wide = np.zeros((81, 7), np.uint8)
        wide[:, :4] = ref.clut_node_inputs(3, 4)
        np.testing.assert_array_equal(clut.apply(wide[:, :4]), kelma.predict_colors(model, wide, illuminant=0))


class TestDispatcher:
    def test_walks_the_codes_and_builds_each_sub_model_clut(self, ref7, rng):
        model = build(ref7, illuminants=["D50", "D65"])
        codes = [0x0F, 0x55, 0x78]
        d = kelma.SubModelDispatcher(model, codes, 5)
        pixels = rng.integers(0, 256, (3000, 4), dtype=np.uint8)

        def expected(code, k):
            return kelma.Clut.from_model(model.sub_model(code), 5, illuminant=k).apply(pixels)

        assert (d.code, d.index, d.illuminant, d.is_last) == (0x0F, 0, 0, False)
        np.testing.assert_array_equal(d.apply(pixels), expected(0x0F, 0))
        d.set_illuminant(1)
        assert d.illuminant == 1 and d.code == 0x0F
        np.testing.assert_array_equal(d.apply(pixels), expected(0x0F, 1))
        d.next()
        assert (d.code, d.illuminant) == (0x55, 0)
        np.testing.assert_array_equal(d.apply(pixels), expected(0x55, 0))
        d.next()
        assert d.code == 0x78 and d.is_last
        d.next()
        assert d.code == 0x0F and d.index == 0
        d.previous()
        assert d.code == 0x78
        np.testing.assert_array_equal(d.apply(pixels.reshape(30, 100, 4)), expected(0x78, 0).reshape(30, 100, 3))
        d.set_codes([0x33])
        assert d.code == 0x33 and d.is_last
        d.next()
        assert d.code == 0x33
        d.first()
        assert d.illuminant_count == 2 and d.ink_set == 127

    def test_failed_moves_leave_the_dispatcher_usable(self, ref7, rng):
        d = kelma.SubModelDispatcher(build(ref7), [0x0F], 3)
        pixels = rng.integers(0, 256, (100, 4), dtype=np.uint8)
        before = d.apply(pixels)
        with pytest.raises(ValueError, match=r"illuminant index must be in 0\.\.0, got"):
            d.set_illuminant(1)
        with pytest.raises(ValueError, match="selects 3"):
            d.set_codes([0x07])
        with pytest.raises(ValueError, match="empty"):
            d.set_codes([])
        np.testing.assert_array_equal(d.apply(pixels), before)
