"""ICC profiles of a model, applied by the tools users apply profiles with:
Little CMS's transicc and tificc (Debian's liblcms2-utils) and Pillow's
ImageCms, against kelma's own prediction; and the checks of every argument."""
import io
import shutil
import subprocess

import numpy as np
import pytest
from PIL import Image, ImageCms

import kelma

TOOLS = shutil.which("transicc") and shutil.which("tificc")
needs_tools = pytest.mark.skipif(not TOOLS, reason="transicc/tificc missing: install liblcms2-utils "
                                 "(scripts/install-deps.sh)")


@pytest.fixture(scope="module")
def press():
    return kelma.default_press_model()


@pytest.fixture(scope="module")
def proof_icc(press, tmp_path_factory):
    path = tmp_path_factory.mktemp("icc") / "press_proof.icc"
    path.write_bytes(kelma.icc_proof_profile(press, description="press proof", ink_names=["C", "M", "Y", "K"]))
    return path


@pytest.fixture(scope="module")
def output_icc(press, tmp_path_factory):
    path = tmp_path_factory.mktemp("icc") / "press.icc"
    kelma.write_icc_profile(press, path, total_coverage=300, max_black=95, gcr=50, grid_points=33)
    return path


def within_limits(inks, tac=300, max_black=95):
    levels = inks.astype(int)
    return (levels.sum(axis=-1) <= 255 * tac // 100) & (levels[..., 3] <= 255 * max_black // 100)


def device_samples(rng, count, inks=4):
    return rng.integers(0, 256, (count, inks), dtype=np.uint8)


@needs_tools
def test_transicc_applies_the_profile_as_kelma_predicts(press, proof_icc, rng):
    inks = device_samples(rng, 200)
    # transicc takes CMYK in percent.
    text = "\n".join(" ".join("%.6f" % (100.0 * v / 255) for v in row) for row in inks) + "\n"
    r = subprocess.run(["transicc", "-i" + str(proof_icc), "-o*Lab4", "-t1", "-c0", "-n"], input=text,
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    got = np.array([[float(v) for v in line.split()] for line in r.stdout.splitlines() if line.strip()])
    assert got.shape == (200, 3)
    expected = kelma.predict_lab(press, inks, media_relative=True)
    de = kelma.delta_e_2000(got, expected)
    # The table follows the model to 0.01 CIEDE2000 (transicc's percentages
    # print to 4 decimals).
    assert de.mean() < 0.02 and de.max() < 0.1, (de.mean(), de.max())
    # The paper is the PCS white in the relative intent.
    assert np.allclose(got[inks.sum(axis=1) == 0], [100, 0, 0], atol=1e-3)


@needs_tools
def test_tificc_converts_a_cmyk_tiff_as_kelma_predicts(press, proof_icc, rng, tmp_path):
    inks = device_samples(rng, 16 * 16).reshape(16, 16, 4)
    Image.fromarray(inks, "CMYK").save(tmp_path / "in.tif")
    r = subprocess.run(["tificc", "-i" + str(proof_icc), "-o*Lab4", "-t1", "-c0", "-w8",
                        str(tmp_path / "in.tif"), str(tmp_path / "out.tif")], capture_output=True, text=True,
                       timeout=60)
    assert r.returncode == 0, r.stderr
    out = np.asarray(Image.open(tmp_path / "out.tif"))
    assert out.shape == (16, 16, 3)
    # 8-bit CIELAB TIFF: L* x 2.55, a* and b* as signed bytes.
    got = np.stack([out[..., 0] / 2.55, out[..., 1].view(np.int8), out[..., 2].view(np.int8)], axis=-1)
    expected = kelma.predict_lab(press, inks, media_relative=True)
    err = np.abs(got - expected)
    # Half an 8-bit step (0.2 L*, 0.5 a*, b*) and the table's 0.01.
    assert err[..., 0].max() < 0.22 and err[..., 1:].max() < 0.53, err.reshape(-1, 3).max(axis=0)


@needs_tools
def test_tificc_round_trip_through_both_directions_of_the_output_profile(press, proof_icc, output_icc, rng, tmp_path):
    # Printable colours: CMYK within the limits, to CIELAB (A2B), back to
    # CMYK (B2A), printed (kelma's prediction): as close as 8-bit CIELAB allows.
    inks = device_samples(rng, 40 * 40)
    inks = inks[within_limits(inks)][:32 * 32].reshape(32, 32, 4)
    Image.fromarray(inks, "CMYK").save(tmp_path / "cmyk.tif")
    for args in (["-i" + str(proof_icc), "-o*Lab4", str(tmp_path / "cmyk.tif"), str(tmp_path / "lab.tif")],
                 ["-i*Lab4", "-o" + str(output_icc), str(tmp_path / "lab.tif"), str(tmp_path / "back.tif")]):
        r = subprocess.run(["tificc", "-t1", "-c0", "-w8"] + args, capture_output=True, text=True, timeout=120)
        assert r.returncode == 0, r.stderr
    lab8 = np.asarray(Image.open(tmp_path / "lab.tif"))
    target = np.stack([lab8[..., 0] / 2.55, lab8[..., 1].view(np.int8), lab8[..., 2].view(np.int8)], axis=-1)
    back = Image.open(tmp_path / "back.tif")
    assert back.mode == "CMYK"
    printed = kelma.predict_lab(press, np.asarray(back), media_relative=True)
    de = kelma.delta_e_2000(target, printed)
    assert de.mean() < 0.4 and np.percentile(de, 95) < 1.0, (de.mean(), np.percentile(de, 95), de.max())


@needs_tools
def test_transicc_separates_through_the_output_profile(press, output_icc):
    # An sRGB image's colours (mostly outside the press gamut) stay within the
    # limits but for rounding; CIELAB in gamut comes back as asked.
    lab = np.array([[50.0, 0.0, 0.0], [70.0, -20.0, -30.0], [40.0, 30.0, 10.0], [85.0, 0.0, 40.0]])
    text = "\n".join(" ".join("%.4f" % v for v in row) for row in lab) + "\n"
    r = subprocess.run(["transicc", "-i*Lab4", "-o" + str(output_icc), "-t1", "-c0", "-n"], input=text,
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    percent = np.array([[float(v) for v in line.split()] for line in r.stdout.splitlines() if line.strip()])
    assert percent.shape == (4, 4)
    inks = kelma.digital_levels(percent)
    de = kelma.delta_e_2000(lab, kelma.predict_lab(press, inks, media_relative=True))
    assert de.max() < 1.0, de
    sep = kelma.Separation(press, total_coverage=300, max_black=95)
    assert sep.in_gamut(lab).all()


def test_pillow_reads_the_profile_and_transforms_with_it(press):
    icc = kelma.icc_proof_profile(press, grid_points=17, icc_version=2, description="v2 proof")
    profile = ImageCms.ImageCmsProfile(io.BytesIO(icc))
    assert ImageCms.getProfileDescription(profile).strip() == "v2 proof"
    cmyk = Image.new("CMYK", (1, 1), (0, 0, 0, 0))
    rgb = ImageCms.profileToProfile(cmyk, profile, ImageCms.createProfile("sRGB"), renderingIntent=1,
                                    outputMode="RGB")
    # Paper white in the relative intent: white on screen.
    assert rgb.getpixel((0, 0)) == (255, 255, 255)


def test_seven_ink_profiles_use_the_n_colour_space(ref7, rng):
    model = kelma.Model(ref7.grid, ref7.ramps.astype(np.float32), ref7.scheme.astype(np.float32), ref7.n)
    icc = kelma.icc_proof_profile(model, grid_points=5)
    assert icc[16:20] == b"7CLR" and icc[20:24] == b"Lab " and icc[12:16] == b"prtr"
    assert icc[8] == 4


def test_output_profile_of_six_inks_and_its_file(ref6, tmp_path):
    model = kelma.Model(ref6.grid, ref6.ramps.astype(np.float32), ref6.scheme.astype(np.float32), ref6.n)
    path = tmp_path / "six.icc"
    kelma.write_icc_profile(model, str(path), grid_points=9, total_coverage=350, gcr=0, icc_version=2,
                            ink_names=["C", "M", "Y", "K", "O", "G"])
    icc = path.read_bytes()
    assert icc[36:40] == b"acsp" and icc[16:20] == b"6CLR" and icc[8] == 2
    assert int.from_bytes(icc[:4], "big") == len(icc)
    profile = ImageCms.ImageCmsProfile(io.BytesIO(icc))
    assert ImageCms.getProfileDescription(profile).strip() == "kelma printer model"
    assert not list(tmp_path.glob(".*")), "no temporary file left beside it"


@pytest.mark.parametrize("kwargs, error, words", [
    (dict(total_coverage=0), ValueError, "total_coverage=0 leaves no gamut"),
    (dict(total_coverage=401), ValueError, "total_coverage must be 0..400, got 401"),
    (dict(max_black=101), ValueError, "max_black must be 0..100, got 101"),
    (dict(gcr=-1), ValueError, "gcr must be 0..100, got -1"),
    (dict(black_length=5.5), TypeError, "black_length must be a whole number"),
    (dict(grid_points=300), ValueError, "grid_points must be 2..255, got 300"),
])
def test_bad_output_profile_arguments_are_named(press, kwargs, error, words):
    with pytest.raises(error, match=words):
        kelma.icc_profile(press, **kwargs)


@pytest.mark.parametrize("kwargs, error, words", [
    (dict(grid_points=1), ValueError, "grid_points must be 2..255, got 1"),
    (dict(grid_points=2.5), TypeError, "grid_points must be a whole number"),
    (dict(icc_version=3), ValueError, "icc_version must be 4 or 2"),
    (dict(icc_version=True), TypeError, "icc_version"),
    (dict(illuminant="D65"), ValueError, "the model has no D65 illuminant"),
    (dict(illuminant=3), ValueError, "illuminant index must be in 0..0"),
    (dict(description=5), TypeError, "description must be a string"),
    (dict(ink_names=["C", "M"]), ValueError, "ink_names must name each of the 4 inks, got 2"),
    (dict(ink_names="CMYK"), TypeError, "ink_names must be a sequence"),
])
def test_bad_arguments_are_named(press, kwargs, error, words):
    with pytest.raises(error, match=words):
        kelma.icc_proof_profile(press, **kwargs)
