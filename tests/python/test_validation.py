"""Every bad argument is a TypeError or ValueError saying what was expected."""
import numpy as np
import pytest

import kelma
from conftest import build
from reference import BeerLambertModel


def model_args(ref, **changes):
    args = dict(grid=ref.grid.copy(), ramps=ref.ramps.copy(), scheme=ref.scheme.astype(np.float32), n=ref.n)
    args.update(changes)
    return args


def make(args):
    return kelma.Model(args.pop("grid"), args.pop("ramps"), args.pop("scheme"), args.pop("n"), **args)


def cancelling_weights():
    """D50 weights whose Y row carries +-0.5 on neighbouring bands: the same
    white, but magnitudes summing to about 16 times it."""
    w = kelma.LightingMatrix("D50", 2).weights.copy()
    w[0, 1, :30] += np.where(np.arange(30) % 2, -0.5, 0.5).astype(np.float32)
    return kelma.LightingMatrix.from_weights(w)


def flat_model_args(paper):
    """4 inks on 2 levels: the paper reflects `paper` everywhere, ink 1 0.81."""
    scheme = np.zeros((1, 31, 16), np.float32)
    scheme[0, :, 0] = np.sqrt(paper)
    scheme[0, :, 1] = 0.9 - np.sqrt(paper)
    return dict(grid=np.array([[0.0, 255.0]] * 4), ramps=np.tile(np.linspace(0, 1, 256), (4, 1)), scheme=scheme, n=2.0)


def edited_grid(ref, ink, point, value):
    g = ref.grid.copy()
    g[ink, point] = value
    return g


class TestModelArguments:
    @pytest.mark.parametrize("change,error,match", [
        (lambda r: dict(grid=r.grid.astype(complex)), TypeError, "grid must be a real"),
        (lambda r: dict(grid=r.grid.astype(str)), TypeError, "grid must be a real"),
        (lambda r: dict(grid=r.grid[0]), ValueError, "grid must be 2-D"),
        (lambda r: dict(grid=np.vstack([r.grid, r.grid[:1]])), ValueError, "4, 6 or 7 inks, got 5"),
        (lambda r: dict(grid=r.grid[:3]), ValueError, "4, 6 or 7 inks, got 3"),
        (lambda r: dict(grid=r.grid.T), ValueError, "4, 6 or 7 inks, got 5"),
        (lambda r: dict(grid=r.grid[:, :1]), ValueError, "at least 2 levels"),
        (lambda r: dict(grid=edited_grid(r, 1, 2, 100.5)), ValueError, "whole numbers"),
        (lambda r: dict(grid=edited_grid(r, 1, 2, np.nan)), ValueError, "whole numbers"),
        (lambda r: dict(grid=edited_grid(r, 2, 0, 1)), ValueError, "start at 0 and end at 255"),
        (lambda r: dict(grid=edited_grid(r, 3, 4, 254)), ValueError, "start at 0 and end at 255"),
        (lambda r: dict(grid=edited_grid(r, 0, 2, r.grid[0, 1])), ValueError, "strictly ascending"),
        (lambda r: dict(ramps=r.ramps.T), ValueError, r"pass ramps\.T"),
        (lambda r: dict(ramps=r.ramps[:, :255]), ValueError, r"ramps must have shape \(4, 256\)"),
        (lambda r: dict(ramps=np.where(np.arange(256) == 9, np.nan, r.ramps)), ValueError, "ramp of ink 1 is not finite at level 9"),
        (lambda r: dict(ramps=r.ramps.astype(bool)), TypeError, "ramps must be a real"),
        (lambda r: dict(scheme=r.scheme[:-1]), ValueError, "31 x \\(G-1\\)\\^N x 2\\^N = 126976"),
        (lambda r: dict(scheme=r.scheme.reshape(-1, 16)), ValueError, "scheme must hold"),
        (lambda r: dict(scheme=r.scheme.astype(np.int32)), TypeError, "scheme must be a floating-point"),
        (lambda r: dict(scheme=np.where(r.scheme > 0.5, np.inf, r.scheme)), ValueError, "scheme coefficient [0-9]+ is not finite"),
        (lambda r: dict(n=-1.0), ValueError, "finite and positive"),
        (lambda r: dict(n=0.0), ValueError, "finite and positive"),
        (lambda r: dict(n=float("nan")), ValueError, "finite and positive"),
        (lambda r: dict(n=1e300), ValueError, "does not fit in float32"),
        (lambda r: dict(n="2"), TypeError, ""),
        (lambda r: dict(illuminants="D55"), ValueError, "unknown illuminant 'D55'"),
        (lambda r: dict(illuminants=np.ones(30)), ValueError, "31 relative spectral power"),
        (lambda r: dict(illuminants=-np.ones(31)), ValueError, "non-negative"),
        (lambda r: dict(illuminants=np.zeros(31)), ValueError, "no luminance"),
        # Red light only: the CIE 1931 zbar is 0 from 660 nm, so the white has no Z.
        (lambda r: dict(illuminants=np.r_[np.zeros(28), np.ones(3)]), ValueError,
         r"illuminant 1: its white's Z \(the sum of the Z weights\) is 0"),
        (lambda r: dict(illuminants=cancelling_weights()), ValueError, "the Y weights nearly cancel"),
        (lambda r: dict(illuminants=np.full(31, np.nan)), ValueError, "must be finite"),
        (lambda r: dict(illuminants=[]), ValueError, "illuminants is empty"),
        (lambda r: dict(illuminants=["D50", "nope"]), ValueError, "unknown illuminant"),
        (lambda r: dict(illuminants=None), TypeError, "illuminants must be an array"),
        (lambda r: dict(observer=5), ValueError, r"observer must be 2 .* or 10 .*, got 5"),
        (lambda r: dict(observer=-2), ValueError, "observer must be 2"),
        (lambda r: dict(observer="2"), TypeError, "observer must be an integer"),
        (lambda r: dict(illuminants=kelma.LightingMatrix("A"), observer=2), ValueError, "already folds"),
    ])
    def test_bad_model_arguments(self, ref4, change, error, match):
        with pytest.raises(error, match=match):
            make(model_args(ref4, **change(ref4)))

    def test_a_paper_that_reflects_nothing_is_refused(self):
        # 3 % is a black paper; 1e-30 would make paper-relative colours overflow
        # (the model predicted inf and NaN for them before it was refused).
        dark = make(flat_model_args(0.03))
        assert np.isfinite(kelma.predict_lab(dark, np.zeros((2, 4), np.uint8), media_relative=True)).all()
        with pytest.raises(ValueError, match=r"illuminant 1: the paper's X is [0-9.e+-]+, below 0.001 of the white's"):
            make(flat_model_args(1e-30))

    def test_too_many_coefficients_is_refused_before_allocating(self):
        grid = np.tile(np.arange(256.0), (7, 1))
        with pytest.raises(ValueError, match="more than the 2\\^32 - 1"):
            kelma.Model(grid, np.zeros((7, 256)), np.zeros(31, np.float32), 2.0)

    @pytest.mark.parametrize("code,match", [(0x07, "selects 3 of the model's 4"), (0, "selects 0"),
                                            (0x1F, "selects 4 of the model's 4"), (-1, "0..0xFFFFFFFF"),
                                            (1 << 32, "0..0xFFFFFFFF")])
    def test_bad_sub_model_codes(self, ref4, model4, code, match):
        if code == 0x1F:
            # Bits above the ink count are ignored: this one is valid.
            assert model4.sub_model(code).inks == 4
            return
        with pytest.raises(ValueError, match=match):
            model4.sub_model(code)

    def test_sub_model_of_five_inks_is_refused(self, ref7):
        with pytest.raises(ValueError, match="selects 5 of the model's 7 inks; 4, 6 or 7"):
            build(ref7).sub_model(0x1F)
        with pytest.raises(TypeError, match="an ink-subset code must be an integer"):
            build(ref7).sub_model("0x0F")

    def test_bad_illuminant_index(self, model4):
        with pytest.raises(ValueError, match="illuminant index must be in 0..0, got 1"):
            model4.single_illuminant(1)
        with pytest.raises(ValueError, match="illuminant index must be in 0..0, got -1"):
            model4.single_illuminant(-1)
        with pytest.raises(ValueError, match="got 1180591620717411303424"):
            model4.single_illuminant(2 ** 70)
        with pytest.raises(TypeError, match="illuminant index must be an integer"):
            model4.single_illuminant(True)


class TestPredictionArguments:
    @pytest.mark.parametrize("inks,error,match", [
        (np.zeros((5, 4), np.int64), TypeError, "inks must be a uint8 array of digital levels 0..255 .*kelma.digital_levels.*got dtype int64"),
        (np.zeros((5, 4), np.float32), TypeError, "uint8"),
        ([[0, 0, 0, 0]], TypeError, "uint8"),
        (np.zeros((5, 3), np.uint8), ValueError, r"4 values \(one byte 0..255 per ink\).*got shape \(5, 3\)"),
        (np.zeros((0, 4), np.uint8), ValueError, "empty batch"),
        (np.zeros((3, 0, 4), np.uint8), ValueError, "empty batch"),
        (np.uint8(3), ValueError, "last axis"),
        (None, TypeError, "got None"),
    ])
    def test_bad_inks(self, model4, inks, error, match):
        with pytest.raises(error, match=match):
            kelma.predict_spectra(model4, inks)
        with pytest.raises(error, match=match):
            kelma.predict_colors(model4, inks)

    def test_bad_out(self, model4):
        inks = np.zeros((5, 4), np.uint8)
        with pytest.raises(ValueError, match=r"out must have shape \(5, 31\), got \(5, 32\)"):
            kelma.predict_spectra(model4, inks, out=np.zeros((5, 32), np.float32))
        with pytest.raises(TypeError, match="out must be a float32"):
            kelma.predict_spectra(model4, inks, out=np.zeros((5, 31)))
        with pytest.raises(ValueError, match="C-contiguous"):
            kelma.predict_spectra(model4, inks, out=np.zeros((31, 5), np.float32).T)
        readonly = np.zeros((5, 31), np.float32)
        readonly.flags.writeable = False
        with pytest.raises(ValueError, match="writeable"):
            kelma.predict_spectra(model4, inks, out=readonly)
        with pytest.raises(TypeError, match="numpy array"):
            kelma.predict_spectra(model4, inks, out=[0.0])

    def test_bad_colour_options(self, model4):
        inks = np.zeros((2, 4), np.uint8)
        with pytest.raises(ValueError, match="'lab2000hl' or 'cielab', got 'xyz'"):
            kelma.predict_colors(model4, inks, encoding="xyz")
        with pytest.raises(ValueError, match="illuminant index must be in 0..0, got 2"):
            kelma.predict_colors(model4, inks, illuminant=2)
        with pytest.raises(TypeError, match="illuminant index must be an integer"):
            kelma.predict_colors(model4, inks, illuminant="0")
        with pytest.raises(TypeError):
            kelma.predict_spectra("model", inks)


class TestColorimetryArguments:
    def test_bad_xyz_inputs(self):
        lm = kelma.LightingMatrix(["D50", "A"])
        with pytest.raises(ValueError, match=r"spectra must have 31 values .* got shape \(3, 30\)"):
            lm.xyz(np.zeros((3, 30)))
        with pytest.raises(ValueError, match="spectra must be finite"):
            lm.xyz(np.full((2, 31), np.nan))
        with pytest.raises(TypeError, match="spectra must be a floating-point array"):
            lm.xyz(np.zeros((2, 31), np.int32))
        with pytest.raises(ValueError, match="empty batch"):
            lm.xyz(np.zeros((0, 31)))
        with pytest.raises(ValueError, match=r"factor must have shape \(2, 3\)"):
            lm.xyz(np.zeros((1, 31)), factor=np.ones(3))
        with pytest.raises(ValueError, match=r"xyz must have shape \(\.\.\., 2, 3\)"):
            lm.cielab_bytes(np.zeros((4, 1, 3)))
        with pytest.raises(ValueError, match="xyz contains NaN"):
            lm.lab2000hl_bytes(np.full((4, 2, 3), np.nan))
        with pytest.raises(ValueError, match="media_white must be positive"):
            lm.media_relative_factor(np.zeros((2, 3)))
        with pytest.raises(TypeError, match="uint8 or uint16"):
            lm.media_relative_lab2000hl_bytes(np.zeros((1, 2, 3)))
        with pytest.raises(ValueError, match="illuminant index must be in 0..1, got 2"):
            lm.illuminant(2)
        with pytest.raises(ValueError, match=r"weights must have shape \(illuminants, 3, 31\)"):
            kelma.LightingMatrix.from_weights(np.zeros((3, 31)))
        with pytest.raises(ValueError, match="weights must be finite"):
            kelma.LightingMatrix.from_weights(np.full((1, 3, 31), np.inf))
        with pytest.raises(ValueError, match="unknown illuminant"):
            kelma.illuminant("D75")
        with pytest.raises(ValueError, match="observer must be 2 .* or 10 .*, got 4"):
            kelma.observer(4)

    def test_bad_lab_inputs(self):
        with pytest.raises(ValueError, match=r"lab must have 3 values"):
            kelma.lab_to_lab2000hl(np.zeros((4, 2)))
        with pytest.raises(ValueError, match="lab contains NaN"):
            kelma.lab_to_lab2000hl([np.nan, 0, 0])
        with pytest.raises(ValueError, match="empty batch"):
            kelma.lab_to_lab2000hl(np.zeros((0, 3)))
        with pytest.raises(ValueError, match="must be finite"):
            kelma.lab2000hl_to_bytes([np.inf, 0, 0], clamp=False)
        with pytest.raises(ValueError, match="within \\+-1e8"):
            kelma.lab2000hl_to_bytes([1e12, 0, 0], clamp=False)
        with pytest.raises(ValueError, match="contains NaN"):
            kelma.lab2000hl_to_bytes([np.nan, 0, 0])


class TestResampleArguments:
    @pytest.mark.parametrize("spectra,wavelengths,method,match", [
        (np.zeros((2, 1)), [500.0], "linear", "at least 2.*Wavelength-list has less than 2 elements"),
        (np.zeros((2, 3)), [410.0, 500.0, 690.0], "linear",
         "at or below 400 nm or end at or above 700 nm, got 410..690 nm.*Invalid wavelength range"),
        (np.zeros((2, 3)), [400.0, 600.0, 500.0], "linear", "strictly ascending, got 600 then 500"),
        (np.zeros((2, 3)), [400.0, 400.0, 700.0], "spline", "strictly ascending"),
        (np.zeros((2, 3)), [400.0, np.nan, 700.0], "linear", "wavelengths must be finite"),
        (np.zeros((2, 3)), [[400.0, 500.0, 700.0]], "linear", "wavelengths must be 1-D"),
        (np.zeros((2, 4)), [400.0, 500.0, 700.0], "linear", r"spectra must have 3 values"),
        (np.full((2, 3), np.nan), [400.0, 500.0, 700.0], "linear", "spectra must be finite"),
        (np.zeros((0, 3)), [400.0, 500.0, 700.0], "linear", "empty batch"),
        (np.zeros((2, 3)), [400.0, 500.0, 700.0], "cubic", "'linear' or 'spline'"),
    ])
    def test_bad_resampling(self, spectra, wavelengths, method, match):
        with pytest.raises(ValueError, match=match):
            kelma.resample(spectra, wavelengths, method)

    def test_a_list_short_of_both_ends_is_refused_even_when_extrapolating(self):
        # Within 10 nm of both ends passes the coverage rule, not the library's range rule.
        w = np.arange(405.0, 696.0, 5.0)
        for count in (1, 5000):  # on the calling thread and through the driver
            for extrapolate in (False, True):
                with pytest.raises(ValueError, match="got 405..695 nm.*Invalid wavelength range"):
                    kelma.resample(np.full((count, len(w)), 0.5), w, "spline", extrapolate=extrapolate)

    def test_lenient_range_is_kept(self):
        # A list may end below 700 nm when it starts at or below 400 nm.
        out = kelma.resample(np.array([[0.0, 1.0, 2.0]]), [380.0, 500.0, 690.0])
        assert np.isfinite(out).all()


class TestClutArguments:
    @pytest.mark.parametrize("nodes,kwargs,error,match", [
        (np.zeros((5, 5, 5, 5, 4), np.uint8), {}, ValueError, r"nodes must have shape .*got \(5, 5, 5, 5, 4\)"),
        (np.zeros((5, 5, 4, 3), np.uint8), {}, ValueError, "nodes must have shape"),
        (np.zeros((5, 5, 3), np.uint8), {}, ValueError, "nodes must have shape"),
        (np.zeros((1, 1, 1, 3), np.uint8), {}, ValueError, "grid_points must be 2..256"),
        (np.zeros((3, 3, 3, 3), np.float32), {}, TypeError, "nodes must be a uint8"),
        (np.zeros((3, 3, 3, 3, 3), np.uint8), {"in_lab": True}, ValueError, "3-input"),
    ])
    def test_bad_node_tables(self, nodes, kwargs, error, match):
        with pytest.raises(error, match=match):
            kelma.Clut.from_nodes(nodes, **kwargs)

    def test_bad_model_tables(self, model4):
        with pytest.raises(ValueError, match="grid_points must be 2..256"):
            kelma.Clut.from_model(model4, 1)
        with pytest.raises(ValueError, match="grid_points must be 2..256"):
            kelma.Clut.from_model(model4, 257)
        with pytest.raises(MemoryError, match="use fewer grid points"):
            kelma.Clut.from_model(model4, 250)
        with pytest.raises(ValueError, match="illuminant index must be in 0..0, got 1"):
            kelma.Clut.from_model(model4, 3, illuminant=1)

    def test_bad_pixels(self):
        clut = kelma.Clut.from_nodes(np.zeros((3, 3, 3, 3, 3), np.uint8))
        with pytest.raises(ValueError, match=r"pixels must have 4 values .*got shape \(10, 3\)"):
            clut.apply(np.zeros((10, 3), np.uint8))
        with pytest.raises(ValueError, match="empty batch"):
            clut.apply(np.zeros((0, 4), np.uint8))
        with pytest.raises(TypeError, match="pixels must be a uint8"):
            clut.apply(np.zeros((10, 4), np.uint16))
        buffer = np.zeros(40, np.uint8)
        with pytest.raises(ValueError, match="share memory"):
            clut.apply(buffer.reshape(10, 4), out=buffer[10:].reshape(10, 3))

    def test_bad_dispatcher_arguments(self, ref7):
        model = build(ref7)
        with pytest.raises(ValueError, match="selects 3 of the model's 7 inks; exactly 4"):
            kelma.SubModelDispatcher(model, [0x0F, 0x07], 3)
        with pytest.raises(ValueError, match="selects 5"):
            kelma.SubModelDispatcher(model, [0x1F], 3)
        with pytest.raises(ValueError, match="codes is empty"):
            kelma.SubModelDispatcher(model, [], 3)
        with pytest.raises(TypeError, match="sequence of ink-subset codes"):
            kelma.SubModelDispatcher(model, "0x0F", 3)
        with pytest.raises(ValueError, match="grid_points must be 2..256"):
            kelma.SubModelDispatcher(model, [0x0F], 0)
        d = kelma.SubModelDispatcher(model, [0x0F], 2)
        with pytest.raises(ValueError, match=r"illuminant index must be in 0\.\.0, got"):
            d.set_illuminant(-1)


def test_thread_count_override_range():
    for bad in (-1, 1025):
        with pytest.raises(ValueError, match="0 \\(use the processor count\\) .. 1024"):
            kelma.set_cpu_count_override(bad)


GARBAGE = [None, "x", 1.5, [], (), {}, object(), np.array([]), np.array([[np.nan]]), np.zeros((2, 2, 2, 2, 2, 5)),
           np.array(["a", "b"]), np.array([1 + 2j])]


@pytest.mark.parametrize("value", GARBAGE, ids=[type(v).__name__ + str(i) for i, v in enumerate(GARBAGE)])
def test_garbage_is_rejected_everywhere(value, model4):
    lm = kelma.LightingMatrix()
    clut = kelma.Clut.from_nodes(np.zeros((2, 2, 2, 3), np.uint8))
    calls = [
        lambda v: kelma.predict_spectra(model4, v),
        lambda v: kelma.predict_colors(model4, v),
        lambda v: lm.xyz(v),
        lambda v: lm.cielab_bytes(v),
        lambda v: lm.media_relative_lab2000hl_bytes(v),
        lambda v: lm.media_relative_factor(v),
        lambda v: kelma.LightingMatrix(v),
        lambda v: kelma.LightingMatrix.from_weights(v),
        lambda v: kelma.lab_to_lab2000hl(v),
        lambda v: kelma.lab2000hl_to_bytes(v),
        lambda v: kelma.resample(v, [400.0, 700.0]),
        lambda v: kelma.resample(np.zeros((1, 2)), v),
        lambda v: kelma.Clut.from_nodes(v),
        lambda v: clut.apply(v),
        lambda v: model4.sub_model(v),
        lambda v: kelma.Model(v, np.zeros((4, 256)), np.zeros(10), 2.0),
        lambda v: kelma.SubModelDispatcher(model4, v),
    ]
    for call in calls:
        with pytest.raises((TypeError, ValueError)):
            call(value)
