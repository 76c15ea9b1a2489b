"""kelma proof through Little CMS: the model's ICC profile to sRGB, checked
against Little CMS's own TIFF tool (tificc, no Python on its path) on the
profile file for each intent; PNG and TIFF with the sRGB profile embedded; an
input's profile reported when it is not the model's; several illuminants side
by side; bad arguments refused as usage errors (status 2) and bad files in one
line (status 1), the output untouched either way."""
import io
import shutil
import subprocess
import sys

import numpy as np
import pytest

import kelma
from test_cli import ROOT, cli_error, cli_main, run

sys.path.insert(0, str(ROOT / "cli"))
from kelma_cli.demo import METAMER_GREYS, cmyk_test_form  # noqa: E402

Image = pytest.importorskip("PIL.Image")
ImageCms = pytest.importorskip("PIL.ImageCms")


@pytest.fixture(scope="module")
def form():
    # The main job's test form at a quarter of its size: ramps, overprints and metamer pairs.
    return cmyk_test_form(kelma.default_press_model(), height=120, width=192)


def save_cmyk_tiff(path, cmyk, icc=None):
    options = {"icc_profile": icc} if icc is not None else {}
    Image.fromarray(cmyk, "CMYK").save(path, format="TIFF", **options)


def read_rgb(path):
    with Image.open(path) as im:
        return np.asarray(im.convert("RGB")), im.info.get("icc_profile"), im.format


def model_profile(illuminant="D50"):
    return kelma.icc_proof_profile(kelma.default_press_model(illuminant), grid_points=33)


@pytest.fixture(scope="module")
def written_profile(tmp_path_factory):
    """The complete output profile as kelma.write_icc_profile writes it (33 points, default limits)."""
    path = tmp_path_factory.mktemp("profile") / "press.icc"
    kelma.write_icc_profile(kelma.default_press_model(), path)
    return path


@pytest.mark.parametrize("intent, flags", [
    ("relative", []), ("relative", ["--bpc"]), ("absolute", []),
])
def test_proof_matches_little_cms_tificc_for_each_intent(tmp_path, form, written_profile, intent, flags):
    tificc = shutil.which("tificc")
    if tificc is None:
        pytest.skip("tificc (Debian's liblcms2-utils, installed by scripts/install-deps.sh) is not installed")
    source = tmp_path / "form.tif"
    save_cmyk_tiff(source, form)
    r = run("proof", source, tmp_path / "proof.tif", "--intent", intent, *flags)
    assert r.returncode == 0, r.stderr
    mine, _, fmt = read_rgb(tmp_path / "proof.tif")
    assert fmt == "TIFF" and mine.shape == form.shape[:2] + (3,)

    # The profile file a user would give tificc: the complete output profile.
    reference = tmp_path / "tificc.tif"
    args = [tificc, "-i%s" % written_profile, "-o*sRGB", "-t%d" % (1 if intent == "relative" else 3)]
    subprocess.run(args + (["-b"] if flags else []) + [str(source), str(reference)], check=True,
                   capture_output=True, timeout=120)
    theirs, _, _ = read_rgb(reference)
    # The same engine on the same profiles: at most one step of 255 apart.
    assert np.abs(mine.astype(int) - theirs.astype(int)).max() <= 1


def test_intents_differ_where_they_should(tmp_path, form):
    np.save(tmp_path / "form.npy", form)
    proofs = {}
    for name, flags in (("relative", []), ("bpc", ["--bpc"]), ("absolute", ["--intent", "absolute"]),
                        ("bpc_limited", ["--bpc", "--tac", "200", "--max-black", "50"])):
        assert run("proof", tmp_path / "form.npy", tmp_path / (name + ".png"), *flags).returncode == 0
        proofs[name] = read_rgb(tmp_path / (name + ".png"))[0].astype(int)
    paper = (0, 0)  # the ramps start at 0 % ink: the paper
    # Relative: the paper is the display's white; absolute shows the paper as the print has it (darker, tinted).
    assert (proofs["relative"][paper] >= 254).all()
    assert (proofs["absolute"][paper] < 250).all()
    # Black-point compensation takes the print's black (the darkest neutral
    # within the profile's ink limits) to the display's: the 400 % patch goes
    # from about 30 to near 0, and the paper stays white.
    solid = (form.sum(axis=2) == 4 * 255)
    assert solid.any()
    assert proofs["relative"][solid].mean() >= 20
    assert proofs["bpc"][solid].mean() <= proofs["relative"][solid].mean() - 15
    assert (proofs["bpc"][paper] == proofs["relative"][paper]).all()
    # Tighter ink limits leave a lighter print black, which compensation
    # stretches further: the whole proof darkens, the paper stays.
    assert proofs["bpc_limited"].mean() <= proofs["bpc"].mean() - 1
    assert (proofs["bpc_limited"][paper] == proofs["bpc"][paper]).all()
    bad = run("proof", tmp_path / "form.npy", tmp_path / "x.png", "--bpc", "--tac", "0")
    assert bad.returncode == 1 and bad.stderr.startswith("kelma: error: --tac 0: the total coverage must be")
    assert not (tmp_path / "x.png").exists()


def test_png_and_tiff_carry_the_srgb_profile_and_hold_the_same_pixels(tmp_path, form):
    np.save(tmp_path / "form.npy", form)
    for name in ("p.png", "p.TIFF"):
        assert cli_main(["proof", str(tmp_path / "form.npy"), str(tmp_path / name)]) == 0
    png, png_icc, png_fmt = read_rgb(tmp_path / "p.png")
    tif, tif_icc, tif_fmt = read_rgb(tmp_path / "p.TIFF")
    assert (png_fmt, tif_fmt) == ("PNG", "TIFF")
    np.testing.assert_array_equal(png, tif)
    # Little CMS's sRGB, as tificc's -o*sRGB: the same bytes but for the
    # creation time (24-35) and the profile ID (84-99) that hashes it.
    srgb = ImageCms.ImageCmsProfile(ImageCms.createProfile("sRGB")).tobytes()
    assert without_time(png_icc) == without_time(srgb) and without_time(tif_icc) == without_time(srgb)
    assert "sRGB" in ImageCms.getProfileDescription(ImageCms.ImageCmsProfile(io.BytesIO(png_icc)))


def without_time(icc):
    assert icc is not None and len(icc) > 128 and icc[36:40] == b"acsp"
    return icc[:24] + icc[36:84] + icc[100:]


def test_an_embedded_profile_is_reported_when_it_is_not_the_models(tmp_path, form, capsys):
    out = tmp_path / "p.png"
    quiet = {
        "own": model_profile(),
        # The complete output profile of the same model (as kelma profile writes it), other grid.
        "written": kelma.icc_profile(kelma.default_press_model(), grid_points=17),
    }
    for name, icc in quiet.items():
        save_cmyk_tiff(tmp_path / (name + ".tif"), form, icc)
        assert cli_main(["proof", str(tmp_path / (name + ".tif")), str(out)]) == 0
        assert capsys.readouterr().err == "", name
    reference = read_rgb(out)[0]
    # Another illuminant's profile of the same press is not the D50 model's,
    # nor is a display profile; either way the pixels are the model's proof.
    srgb = ImageCms.ImageCmsProfile(ImageCms.createProfile("sRGB")).tobytes()
    for name, icc, words in (("a", model_profile("A"), "mean CIEDE2000"),
                             ("srgb", srgb, "not a CMYK profile Little CMS can apply")):
        image = tmp_path / (name + ".tif")
        save_cmyk_tiff(image, form, icc)
        assert cli_main(["proof", str(image), str(out)]) == 0
        err = capsys.readouterr().err
        assert err.startswith("kelma: note: %s carries the profile '" % image) and err.count("\n") == 1, err
        assert words in err, err
        np.testing.assert_array_equal(read_rgb(out)[0], reference)
    # Under A the A profile is the model's own.
    save_cmyk_tiff(tmp_path / "a.tif", form, model_profile("A"))
    assert cli_main(["proof", str(tmp_path / "a.tif"), str(out), "--illuminants", "A"]) == 0
    assert capsys.readouterr().err == ""


def test_illuminants_side_by_side_show_the_metamer_pairs_part(tmp_path, form):
    np.save(tmp_path / "form.npy", form)
    assert cli_main(["proof", str(tmp_path / "form.npy"), str(tmp_path / "one.png")]) == 0
    assert cli_main(["proof", str(tmp_path / "form.npy"), str(tmp_path / "three.png"),
                     "--illuminants", "d50,A, F11"]) == 0
    one = read_rgb(tmp_path / "one.png")[0].astype(int)
    three = read_rgb(tmp_path / "three.png")[0].astype(int)
    h, w = form.shape[:2]
    label = 18
    assert three.shape == (h + label, 3 * w, 3)
    panels = [three[label:, k * w:(k + 1) * w] for k in range(3)]
    np.testing.assert_array_equal(panels[0], one)  # the D50 panel is the plain proof
    for k in range(3):                               # each panel's label is drawn over white
        assert (three[:label, k * w:(k + 1) * w] < 128).any() and (three[:label, k * w:(k + 1) * w] == 255).any()
    # Metamer pairs (last rows): C+M+Y grey left, black grey right of each
    # pair. Under D50 they match; under A and F11 they part.
    rows = slice(h - 2, h)
    pair = w // len(METAMER_GREYS)

    def pair_difference(panel):
        return max(np.abs(panel[rows, k * pair + pair // 4].mean(axis=0)
                          - panel[rows, k * pair + 3 * pair // 4].mean(axis=0)).max()
                   for k in range(len(METAMER_GREYS)))

    assert pair_difference(panels[0]) <= 3
    assert pair_difference(panels[1]) >= 6 and pair_difference(panels[2]) >= 6


def usage_error(capsys, argv):
    """The command line's refusal of a bad argument: status 1 and one line naming it."""
    with pytest.raises(SystemExit) as exit_:
        cli_main([str(a) for a in argv])
    err = capsys.readouterr().err
    assert exit_.value.code == 1, err
    lines = err.splitlines()
    assert len(lines) == 1 and lines[0].startswith("kelma: error: proof: argument "), err
    assert lines[0].endswith(" (see kelma proof --help)")
    return lines[0]


def make_bad_inputs(tmp_path):
    np.save(tmp_path / "form.npy", np.zeros((4, 4, 4), np.uint8))
    np.save(tmp_path / "three.npy", np.zeros((4, 4, 3), np.uint8))
    (tmp_path / "bad.npy").write_bytes(b"PK\x03\x04 not an array")
    with open(tmp_path / "arrays.npy", "wb") as f:  # an .npz under another name
        np.savez(f, a=np.zeros(3))
    Image.fromarray(np.zeros((4, 4, 3), np.uint8), "RGB").save(tmp_path / "rgb.tif")
    (tmp_path / "p.png").write_bytes(b"earlier")
    return dict(npy=tmp_path / "form.npy", three=tmp_path / "three.npy", bad_npy=tmp_path / "bad.npy",
                npz=tmp_path / "arrays.npy",
                rgb=tmp_path / "rgb.tif", dir=tmp_path)


def nothing_written(tmp_path):
    assert (tmp_path / "p.png").read_bytes() == b"earlier"
    assert sorted(p.name for p in tmp_path.iterdir()) == ["arrays.npy", "bad.npy", "form.npy", "p.png", "rgb.tif",
                                                              "three.npy"]


@pytest.mark.parametrize("args, words", [
    (["{npy}", "{dir}/out.jpg"], ["argument out: cannot write", "out.jpg", "unknown image format '.jpg'",
                                  ".png, .tif or .tiff"]),
    (["{npy}", "{dir}/out"], ["unknown image format '(no extension)'"]),
    (["{npy}", "{dir}"], ["unknown image format"]),
    (["{npy}", "{dir}/p.png", "--intent", "absolute", "--bpc"], ["argument --bpc: applies to the relative"]),
    (["{npy}", "{dir}/p.png", "--illuminants", "D50,X"], ["argument --illuminants: 'X' is not a standard"]),
    (["{npy}", "{dir}/p.png", "--illuminants", "A,a"], ["argument --illuminants: 'A,a' names an illuminant twice"]),
    (["{npy}", "{dir}/p.png", "--illuminants", " , "], ["argument --illuminants: needs at least one"]),
    (["{npy}", "{dir}/p.png", "--grid-points", "1"], ["argument --grid-points: '1'", "2-45"]),
    (["{npy}", "{dir}/p.png", "--grid-points", "46"], ["argument --grid-points: '46'", "2-45"]),
    (["{npy}", "{dir}/p.png", "--grid-points", "many"], ["argument --grid-points: 'many'"]),
    (["{npy}", "{dir}/p.png", "--intent", "perceptual"], ["argument --intent: invalid choice"]),
])
def test_bad_arguments_are_usage_errors_naming_the_argument(tmp_path, capsys, args, words):
    subst = make_bad_inputs(tmp_path)
    err = usage_error(capsys, ["proof"] + [a.format(**subst) for a in args])
    for w in words:
        assert w in err, err
    nothing_written(tmp_path)


@pytest.mark.parametrize("args, words", [
    (["{rgb}", "{dir}/p.png"], ["rgb.tif is a RGB image; a CMYK image"]),
    (["{bad_npy}", "{dir}/p.png"], ["cannot read", "bad.npy"]),
    (["{npz}", "{dir}/p.png"], ["cannot read", "arrays.npy", "archive"]),
    (["{three}", "{dir}/p.png"], ["three.npy", "4 channels"]),
    (["{dir}/missing.tif", "{dir}/p.png"], ["missing.tif does not exist"]),
    (["{dir}", "{dir}/p.png"], ["is a directory"]),
    (["{npy}", "{dir}/no/p.png"], ["no/p.png", "folder", "does not exist"]),
    (["{npy}", "{dir}/p.png", "--model", "{dir}/none.kelma"], ["none.kelma does not exist"]),
    (["{npy}", "{dir}/p.png", "--model", "{three}"], ["three.npy"]),
])
def test_bad_files_give_one_line_and_leave_the_output_alone(tmp_path, capsys, args, words):
    subst = make_bad_inputs(tmp_path)
    err = cli_error(capsys, ["proof"] + [a.format(**subst) for a in args])
    for w in words:
        assert w in err, err
    nothing_written(tmp_path)


def test_proof_runs_as_a_command_and_replaces_its_output_whole(tmp_path, form):
    np.save(tmp_path / "form.npy", form)
    (tmp_path / "x.tif").write_bytes(b"earlier")
    r = run("proof", tmp_path / "form.npy", tmp_path / "x.tif", "--illuminants", "D65")
    assert r.returncode == 0 and "(D65, relative) ->" in r.stdout, r.stderr
    assert read_rgb(tmp_path / "x.tif")[0].shape == form.shape[:2] + (3,)
    bad = run("proof", tmp_path / "form.npy", tmp_path / "x.gif")
    assert bad.returncode == 1 and "Traceback" not in bad.stderr
    assert bad.stderr == ("kelma: error: proof: argument out: cannot write %s: unknown image format '.gif'; give a "
                          "name ending in .png, .tif or .tiff (see kelma proof --help)\n" % (tmp_path / "x.gif"))
    assert sorted(p.name for p in tmp_path.iterdir()) == ["form.npy", "x.tif"]
