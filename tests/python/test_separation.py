"""kelma.Separation and 'kelma separate': names, shapes, round trips checked
with an independent numpy colorimetry, the CLUT, and one clear error for every
bad argument."""

import numpy as np
import pytest

import kelma
from conftest import build
from reference import cielab
from test_cli import failed_cleanly
from test_cli import run as cli_run


@pytest.fixture(scope="module")
def press():
    return kelma.default_press_model()


@pytest.fixture(scope="module")
def sep(press):
    return kelma.Separation(press)


def lab_of(model, inks):
    """Media-relative CIELAB (D50 model) of uint8 inks (n, N), independently of the separation."""
    spectra = kelma.predict_spectra(model, inks)
    lm = model.lighting_matrix
    xyz = lm.xyz(spectra).astype(np.float64)[:, 0, :]
    factor = lm.media_relative_factor(model.media_white_point).astype(np.float64)[0]
    white = lm.white_point.astype(np.float64)[0]
    # The exact CIE constants (reference.cielab keeps the byte encodings' ones).
    t = xyz * factor / white
    eps = 216.0 / 24389.0
    f = np.where(t > eps, np.cbrt(t), (24389.0 / 27.0 * t + 16.0) / 116.0)
    return np.stack([116 * f[:, 1] - 16, 500 * (f[:, 0] - f[:, 1]), 200 * (f[:, 1] - f[:, 2])], axis=-1)


def device_grid(inks, levels, tac_bytes):
    axes = np.meshgrid(*[np.floor(np.linspace(0, 255, levels) + 0.5)] * inks, indexing="ij")
    grid = np.stack([a.ravel() for a in axes], axis=-1).astype(np.uint8)
    return grid[grid.astype(int).sum(axis=1) <= tac_bytes]


def test_names_defaults_and_properties(sep, press):
    assert (sep.total_coverage, sep.max_black, sep.gcr, sep.illuminant) == (300, 100, 50, 0)
    assert sep.media_relative and sep.black_length is None and sep.black_width is None
    assert sep.ink_count == 4 and sep.model is press
    assert (sep.total_limit, sep.black_limit) == (765, 255)
    assert np.allclose(sep.paper_lab, [100, 0, 0], atol=1e-3)
    assert sep.darkest_lab[0] < 15
    assert sep.subsets == [0xFFFFFFFF]
    with pytest.raises(TypeError):
        kelma.Separation(press, 300)          # the settings are keywords
    s = kelma.Separation(press, total_coverage=250, max_black=90, gcr=0, black_width=30, illuminant=0,
                         media_relative=False)
    assert (s.total_limit, s.black_limit, s.black_length, s.black_width) == (637, 229, None, 30)
    assert "black length 0 width 30" in repr(s)


def test_shapes_and_dtypes(sep):
    one = sep.inks([50.0, 0.0, 0.0])
    assert one.shape == (4,) and one.dtype == np.uint8
    many = sep.inks(np.zeros((2, 5, 3)) + [50, 10, -10])
    assert many.shape == (2, 5, 4)
    assert np.array_equal(sep.inks(np.array([[50, 10, -10]], dtype=np.int32)), many[0, :1])
    g = sep.in_gamut([[50, 0, 0], [50, 120, 0]])
    assert g.dtype == np.bool_ and g.tolist() == [True, False]
    m = sep.gamut_map(np.array([[50, 0, 0], [50, 120, 0]], dtype=np.float32))
    assert m.dtype == np.float64 and m.shape == (2, 3)
    assert np.array_equal(m[0], [50, 0, 0]) and m[1, 0] == 50 and m[1, 1] < 100


def test_round_trip_within_the_limits(press, sep):
    inks = device_grid(4, 4, sep.total_limit)
    target = lab_of(press, inks)
    got = sep.inks(target)
    assert np.all(got.astype(int).sum(axis=1) <= sep.total_limit)
    assert np.all(got[:, 3] <= sep.black_limit)
    err = np.linalg.norm(lab_of(press, got) - target, axis=1)   # Delta E*ab
    assert err.mean() < 0.15 and err.max() < 0.8
    assert np.all(sep.in_gamut(target))
    assert np.array_equal(sep.gamut_map(target), target)


def test_limits_on_colours_out_of_gamut(press):
    s = kelma.Separation(press, total_coverage=220, max_black=60)
    L, a, b = np.meshgrid(np.linspace(0, 100, 6), np.linspace(-128, 127, 9), np.linspace(-128, 127, 9))
    lab = np.stack([L, a, b], axis=-1)
    got = s.inks(lab).reshape(-1, 4).astype(int)
    assert np.all(got.sum(axis=1) <= s.total_limit) and np.all(got[:, 3] <= s.black_limit)
    mapped = s.gamut_map(lab.reshape(-1, 3))
    assert np.all(s.in_gamut(mapped))


def test_black_generation_modes(press):
    grey = [[30.0, 0.0, 0.0]]
    k = [kelma.Separation(press, gcr=g).inks(grey)[0, 3] for g in (0, 50, 100)]
    assert k[0] < k[1] < k[2]
    late = kelma.Separation(press, black_length=90).inks(grey)[0, 3]     # black starts beyond this grey
    early = kelma.Separation(press, black_length=0, black_width=0).inks(grey)[0, 3]
    assert late == k[0] and abs(int(early) - int(k[2])) <= 1


def test_clut_and_node_table(sep, press):
    nodes = sep.node_table(9)
    assert nodes.shape == (9, 9, 9, 4) and nodes.dtype == np.uint8
    clut = sep.clut(9)
    assert isinstance(clut, kelma.Clut)
    assert (clut.input_channels, clut.output_channels, clut.grid_points, clut.in_lab) == (3, 4, 9, True)
    # Inputs on nodes: L bytes 0 and 255, a and b bytes 32 g (g <= 4) and 254.
    ab = {0: 0, 32: 1, 64: 2, 96: 3, 128: 4, 254: 8}
    px = np.array([(L, a, b) for L in (0, 255) for a in ab for b in ab], dtype=np.uint8)
    expect = np.array([nodes[0 if L == 0 else 8, ab[a], ab[b]] for L, a, b in px])
    assert np.array_equal(clut.apply(px), expect)
    # Colours inside the gamut through the table (17 points) come back close.
    levels = (64, 128, 191)
    inks = np.array([(c, m, y, k) for c in levels for m in levels for y in levels for k in (0, 64, 128)
                     if c + m + y + k <= sep.total_limit], dtype=np.uint8)
    target = lab_of(press, inks)
    px = np.floor(np.stack([2.55 * target[:, 0], target[:, 1] + 128, target[:, 2] + 128], axis=-1) + 0.5)
    out = sep.clut(17).apply(px.astype(np.uint8))
    err = np.linalg.norm(lab_of(press, out) - target, axis=1)
    assert np.median(err) < 1.5


def test_seven_and_six_inks(ref7, ref6):
    s7 = kelma.Separation(build(ref7))
    assert s7.ink_count == 7 and len(s7.subsets) == 20
    inks = s7.inks([[60, 10, 10], [50, 80, 0]])
    assert inks.shape == (2, 7)
    assert np.all(inks.astype(int).sum(axis=1) <= s7.total_limit)
    assert np.count_nonzero(inks, axis=1).max() <= 4
    assert s7.clut(5).output_channels == 7
    s6 = kelma.Separation(build(ref6))
    assert len(s6.subsets) == 10
    with pytest.raises(ValueError, match="4 or 7 outputs"):
        s6.clut(9)
    assert s6.node_table(3).shape == (3, 3, 3, 6)


@pytest.mark.parametrize("kwargs, error, words", [
    ({"total_coverage": 0}, ValueError, "no gamut"),
    ({"total_coverage": -5}, ValueError, "total_coverage"),
    ({"total_coverage": 401}, ValueError, "total_coverage"),
    ({"total_coverage": 300.0}, TypeError, "total_coverage"),
    ({"total_coverage": True}, TypeError, "total_coverage"),
    ({"max_black": 101}, ValueError, "max_black"),
    ({"gcr": -1}, ValueError, "gcr"),
    ({"black_length": 120}, ValueError, "black_length"),
    ({"black_width": "wide"}, TypeError, "black_width"),
    ({"illuminant": 1}, ValueError, "illuminant"),
])
def test_bad_settings(press, kwargs, error, words):
    with pytest.raises(error, match=words):
        kelma.Separation(press, **kwargs)


def test_bad_colours(sep):
    for bad in (np.nan, np.inf, -np.inf):
        for call in (sep.inks, sep.in_gamut, sep.gamut_map):
            with pytest.raises(ValueError, match="lab must be finite"):
                call([[50, 0, 0], [50, bad, 0]])
    with pytest.raises(ValueError, match="3 values"):
        sep.inks([[50, 0]])
    with pytest.raises(ValueError, match="no record"):
        sep.inks(np.zeros((0, 3)))
    with pytest.raises(TypeError):
        sep.inks([["a", "b", "c"]])
    with pytest.raises(ValueError, match="grid_points"):
        sep.clut(1)


def test_a_five_ink_model_is_refused_before_separation(ref4):
    grid = np.vstack([ref4.grid, ref4.grid[:1]])
    ramps = np.vstack([ref4.ramps, ref4.ramps[:1]])
    with pytest.raises(ValueError, match="4, 6 or 7 inks"):
        kelma.Model(grid, ramps, np.zeros(31 * (ref4.G - 1) ** 5 * 32, dtype=np.float32), ref4.n)


# --------------------------------------------------------------------------
# The command line

def run(*args):
    return cli_run("separate", *args)


def test_cli_writes_ink_percent(tmp_path, press):
    colours = tmp_path / "colours.csv"
    colours.write_text("L,a,b\n50,0,0\n# a comment\n60, 70, 40\n20 0 0\n")
    r = run(colours)
    assert r.returncode == 0, r.stderr
    percent = np.loadtxt(r.stdout.splitlines(), delimiter=",")
    assert percent.shape == (3, 4)
    expect = kelma.Separation(press).inks([[50, 0, 0], [60, 70, 40], [20, 0, 0]]) * (100 / 255)
    assert np.allclose(percent, expect, atol=0.005)
    # Relative to the illuminant's white when asked: the paper is no longer white.
    r = run(colours, "--relative", "illuminant")
    assert r.returncode == 0, r.stderr
    expect = kelma.Separation(press, media_relative=False).inks([[50, 0, 0], [60, 70, 40], [20, 0, 0]]) * (100 / 255)
    assert np.allclose(np.loadtxt(r.stdout.splitlines(), delimiter=","), expect, atol=0.005)
    # Limits and black generation from the options.
    r = run(colours, "--tac", 200, "--max-black", 40, "--gcr", 100)
    assert r.returncode == 0, r.stderr
    percent = np.loadtxt(r.stdout.splitlines(), delimiter=",")
    assert np.all(percent.sum(axis=1) <= 200.001) and np.all(percent[:, 3] <= 40.001)


def reseal(content):
    """The model file's FNV-1a checksum recomputed for altered content."""
    at = content.rindex(b"checksum fnv1a64 ")
    h = 14695981039346656037
    for byte in content[:at]:
        h = ((h ^ byte) * 1099511628211) & 0xFFFFFFFFFFFFFFFF
    end = content.index(b"\n", at)
    return content[:at] + b"checksum fnv1a64 %016x" % h + content[end:]


def test_cli_errors(tmp_path):
    good = tmp_path / "good.csv"
    good.write_text("50,0,0\n")
    failed_cleanly(run(good, "--tac", 0), "--tac 0", "paper")
    failed_cleanly(run(good, "--max-black", 120), "--max-black")
    failed_cleanly(run(good, "--gcr", -3), "--gcr")
    bad = tmp_path / "bad.csv"
    bad.write_text("50,0,0\n50,nan,0\n")
    failed_cleanly(run(bad), "line 2", "finite")
    short = tmp_path / "short.csv"
    short.write_text("50,0\n")
    failed_cleanly(run(short), "line 1", "three")
    failed_cleanly(run(tmp_path / "missing.csv"), "does not exist")
    # A model file of 5 inks: the reader refuses it with the line.
    press = tmp_path / "press.kelma"
    kelma.default_press_model().save(str(press))
    five = tmp_path / "five.kelma"
    five.write_bytes(reseal(press.read_bytes().replace(b"\ninks 4\n", b"\ninks 5\n")))
    failed_cleanly(run(good, "--model", five), "4, 6 or 7")
