"""kelma profile: ICC output profiles from a chart or a model file, the
measurement data they carry, and one clear line for every bad argument."""
import io
import shutil
import subprocess

import numpy as np
import pytest
from PIL import ImageCms

import kelma
from test_cli import CHART, failed_cleanly, run


def tags(icc):
    """Tag signatures of an ICC file (its tag table), in order."""
    count = int.from_bytes(icc[128:132], "big")
    return [icc[132 + 12 * k:136 + 12 * k].decode("ascii") for k in range(count)]


def test_profile_from_a_chart_fits_the_model_and_embeds_the_chart(tmp_path):
    out = tmp_path / "press.icc"
    r = run("profile", CHART, "--grid", "0,40,100", "--out", out, "--grid-points", "17")
    assert r.returncode == 0, r.stderr
    assert "wrote %s: ICC v4 output profile, CMYK to CIELAB D50, 17-point tables" % out in r.stdout
    icc = out.read_bytes()
    assert icc[36:40] == b"acsp" and icc[12:16] == b"prtr" and icc[16:20] == b"CMYK" and icc[20:24] == b"Lab "
    for tag in ("desc", "cprt", "wtpt", "chad", "A2B0", "A2B1", "A2B2", "B2A0", "B2A1", "B2A2", "gamt", "targ", "clrt"):
        assert tag in tags(icc), tag
    # The chart's measurement data, as text.
    assert b"TARGET_TYPE\tISO12642-2" in icc and b"BEGIN_DATA_FORMAT" in icc and b"SPECTRAL_NM400" in icc
    description = ImageCms.getProfileDescription(ImageCms.ImageCmsProfile(io.BytesIO(icc)))
    assert "APTEC_PC10_CardBoard_2023_v1_Spectral.txt, D50 2 deg, TAC 300%, max black 95%, GCR 50" in description


def test_profile_from_a_model_file_finds_its_chart_beside_it(tmp_path):
    assert run("fit", CHART, "--grid", "0,40,100", "--out", tmp_path / "m.kelma").returncode == 0
    r = run("profile", "--model", tmp_path / "m.kelma", "--out", tmp_path / "m.icc", "--grid-points", "9",
            "--icc-version", "2", "--illuminant", "d65", "--tac", "280", "--gcr", "0")
    assert r.returncode == 0, r.stderr
    assert "is not beside it" in r.stdout
    icc = (tmp_path / "m.icc").read_bytes()
    assert icc[8] == 2 and "targ" not in tags(icc) and "chad" not in tags(icc)
    assert "B2A1" in tags(icc) and "gamt" in tags(icc)
    shutil.copy(CHART, tmp_path / CHART.name)
    r = run("profile", "--model", tmp_path / "m.kelma", "--out", tmp_path / "m.icc", "--grid-points", "9")
    assert r.returncode == 0, r.stderr
    assert "targ" in tags((tmp_path / "m.icc").read_bytes())


@pytest.mark.skipif(not shutil.which("transicc"), reason="transicc missing: install liblcms2-utils")
def test_the_written_profile_separates_as_the_library_does(tmp_path):
    assert run("profile", CHART, "--grid", "0,40,100", "--out", tmp_path / "p.icc", "--grid-points", "17",
               "--tac", "260", "--max-black", "90").returncode == 0
    text = "\n".join("%g %g %g" % (L, a, b) for L in (20, 50, 80) for a in (-40, 0, 40) for b in (-40, 0, 40))
    r = subprocess.run(["transicc", "-i*Lab4", "-o" + str(tmp_path / "p.icc"), "-t1", "-c0", "-n"],
                       input=text + "\n", capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    percent = np.array([[float(v) for v in line.split()] for line in r.stdout.splitlines() if line.strip()])
    assert percent.shape == (27, 4)
    # Within the limits (transicc prints 16-bit values as percent).
    assert (percent.sum(axis=1) <= 260.1).all() and (percent[:, 3] <= 90.1).all()


@pytest.mark.parametrize("args, words", [
    ([], "give a chart to fit or --model"),
    ([str(CHART), "--model", "m.kelma"], "one of them"),
    ([str(CHART)], "a chart needs --grid"),
    (["--model", "missing.kelma"], "model file missing.kelma does not exist"),
    ([str(CHART), "--grid", "0,40,100", "--tac", "0"], "--tac 0"),
    ([str(CHART), "--grid", "0,40,100", "--max-black", "101"], "--max-black 101"),
    ([str(CHART), "--grid", "0,40,100", "--gcr", "120"], "--gcr 120"),
    ([str(CHART), "--grid", "0,40,100", "--grid-points", "1"], "--grid-points 1"),
    ([str(CHART), "--grid", "0,40,100", "--icc-version", "3"], "invalid choice"),
    ([str(CHART), "--grid", "0,40,100", "--target", "nothing.txt"], "chart nothing.txt does not exist"),
])
def test_bad_arguments_give_one_line(tmp_path, args, words):
    r = run("profile", *args, "--out", tmp_path / "x.icc", cwd=tmp_path)
    failed_cleanly(r, words)
    assert not (tmp_path / "x.icc").exists()


def test_a_model_file_refuses_grid(tmp_path):
    assert run("fit", CHART, "--grid", "0,100", "--out", tmp_path / "m.kelma").returncode == 0
    failed_cleanly(run("profile", "--model", tmp_path / "m.kelma", "--grid", "0,100", "--out", tmp_path / "x.icc"),
                   "--grid fits a chart")
