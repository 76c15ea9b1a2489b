"""The command-line tool: the main job and the subcommands on real files,
and clear one-line errors (never a traceback) for bad input."""
import csv
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import kelma

ROOT = Path(__file__).resolve().parents[2]
CLI = ROOT / "cli" / "kelma"
CHART = ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"
LAB_CHART = ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1.txt"


def run(*args, cwd=None):
    return subprocess.run([sys.executable, str(CLI), *map(str, args)], capture_output=True, text=True,
                          cwd=cwd, env=dict(os.environ), timeout=300)


def failed_cleanly(result, *words):
    assert result.returncode != 0
    assert "Traceback" not in result.stderr
    assert result.stderr.startswith("kelma: error:") and result.stderr.count("\n") == 1, result.stderr
    for w in words:
        assert w in result.stderr, result.stderr


def predicted(stdout, column="lab"):
    """A column group of the CGATS text kelma predict writes, read by the library's reader."""
    f = kelma.MeasurementFile.from_text(stdout, "predict", "any")
    return {"lab": f.lab, "xyz": f.xyz, "spectra": f.spectra, "device": f.device_values}[column]


def is_png(path):
    data = Path(path).read_bytes()
    return data[:8] == b"\x89PNG\r\n\x1a\n" and len(data) > 2000


def test_demo_prints_the_accuracy_table_and_writes_both_pngs(tmp_path):
    r = run("demo", "--out", tmp_path)
    assert r.returncode == 0, r.stderr
    pictures = ["accuracy.png", "gamut.png", "proof.png", "proof_illuminants.png", "spectra.png", "tone_values.png"]
    assert sorted(p.name for p in tmp_path.iterdir()) == pictures
    assert all(is_png(tmp_path / name) for name in pictures)
    rows = {line[:34].strip(): line[34:].split() for line in r.stdout.splitlines() if line[34:].strip()}
    count, mean, median, p95, worst = rows["held out (two folds), all"]
    assert int(count) > 1400 and float(mean) <= 0.25 and float(p95) <= 0.55
    assert float(rows["embedded model, all patches"][1]) <= 0.25
    assert "Timings" in r.stdout


def test_predict_lab_of_paper_and_solids_matches_the_measured_chart(tmp_path):
    inks = tmp_path / "inks.csv"
    inks.write_text("0,0,0,0\n100,0,0,0\n0,0,0,100\n")
    r = run("predict", inks)
    assert r.returncode == 0, r.stderr
    lab = predicted(r.stdout)
    assert lab.shape == (3, 3)
    assert abs(lab[0, 0] - 95.08) < 1.0          # the chart's paper white L*
    assert lab[1, 1] < -20 and lab[1, 2] < -30   # cyan: negative a*, b*
    assert lab[2, 0] < 25                        # solid black


def test_predict_outputs_and_digital_input_agree(tmp_path):
    pct, dig = tmp_path / "p.csv", tmp_path / "d.csv"
    pct.write_text("40 40 40 0\n")
    dig.write_text("102 102 102 0\n")   # 2.55 x 40 = 102
    a = run("predict", pct, "--whitespace", "--output", "spectra")
    b = run("predict", dig, "--whitespace", "--digital", "--output", "spectra")
    assert a.returncode == 0 and b.returncode == 0, a.stderr + b.stderr
    np.testing.assert_array_equal(predicted(a.stdout, "spectra"), predicted(b.stdout, "spectra"))
    np.testing.assert_array_equal(predicted(b.stdout, "device"), [[40, 40, 40, 0]])
    assert predicted(a.stdout, "spectra").shape == (1, 31)
    c = run("predict", pct, "--whitespace", "--output", "lab2000hl", "--format", "csv")
    header, row = c.stdout.splitlines()
    assert header.endswith('"LAB2000HL_L","LAB2000HL_A","LAB2000HL_B"')
    assert int(row.split(",")[-3]) < 255


def test_fit_writes_a_model_that_predicts_like_the_embedded_one(tmp_path):
    model = tmp_path / "press"
    r = run("fit", CHART, "--grid", "0,40,100", "--out", model)
    assert r.returncode == 0, r.stderr
    # Exactly the name given, nothing left beside it; the library's format.
    assert [p.name for p in tmp_path.iterdir()] == ["press"]
    assert model.read_text().startswith("kelma-model 1\n")
    inks = tmp_path / "inks.csv"
    inks.write_text("0,0,0,0\n70,40,0,0\n20,20,20,60\n")
    mine = predicted(run("predict", inks, "--model", model).stdout)
    embedded = predicted(run("predict", inks).stdout)
    assert np.abs(mine - embedded).max() < 0.05


def test_version_and_the_shipped_model_file(tmp_path):
    import kelma
    r = run("--version")
    assert r.returncode == 0 and r.stdout.strip() == "kelma " + kelma.__version__
    inks = tmp_path / "inks.csv"
    inks.write_text("0,0,0,0\n20,40,60,10\n")
    shipped = run("predict", inks, "--model", ROOT / "data" / "models" / "aptec_pc10_cmyk.kelma", "--output", "spectra")
    assert shipped.returncode == 0, shipped.stderr
    np.testing.assert_array_equal(predicted(shipped.stdout, "spectra"),
                                  predicted(run("predict", inks, "--output", "spectra").stdout, "spectra"))


def test_proof_and_resample(tmp_path):
    image = np.zeros((8, 12, 4), np.uint8)
    image[:, :, 3] = np.arange(12) * 20
    np.save(tmp_path / "form.npy", image)
    r = run("proof", tmp_path / "form.npy", tmp_path / "form.png", "--grid-points", "9")
    assert r.returncode == 0, r.stderr
    import matplotlib.pyplot as plt
    rgb = plt.imread(tmp_path / "form.png")
    assert rgb.shape[:2] == (8, 12)
    assert rgb[0, 0, 0] > rgb[0, -1, 0]           # the K ramp darkens

    out = tmp_path / "spectra.csv"
    r = run("resample", CHART, out, "--method", "spline")
    assert r.returncode == 0, r.stderr
    lines = out.read_text().splitlines()
    assert lines[0].startswith('"SAMPLE_ID","CMYK_C","CMYK_M","CMYK_Y","CMYK_K","SPECTRAL_NM400"')
    assert len(lines) == 1618


@pytest.mark.parametrize("args, words", [
    (["predict", "missing.csv"], ["missing.csv"]),
    (["predict", "{bad_cols}"], ["columns", "4 inks"]),
    (["predict", "{out_of_range}"], ["0-100"]),
    (["predict", "{ok}", "--model", "{not_a_model}"], ["m.npz", "not a kelma model"]),
    (["predict", "{ok}", "--model", "{truncated_model}"], ["cut.kelma", "truncated"]),
    (["predict", "{ok}", "--model", "missing.kelma"], ["missing.kelma", "does not exist"]),
    (["fit", CHART, "--grid", "0,50,100", "--out", "{model}"], ["lacks", "(50, 50, 0, 0)"]),
    (["fit", CHART, "--grid", "zero,100", "--out", "{model}"], ["--grid"]),
    (["fit", "{ok}", "--grid", "0,100", "--out", "{model}"], []),
    (["proof", "{rgb}", "{png}"], ["4 channels"]),
    (["proof", "missing.tif", "{png}"], ["does not exist"]),
    (["resample", "missing.txt", "{csv}"], ["does not exist"]),
    (["frobnicate"], ["invalid choice"]),
])
def test_bad_input_gives_one_clear_error(tmp_path, args, words):
    files = {
        "bad_cols": ("p.csv", "1,2,3\n"),
        "out_of_range": ("r.csv", "0,0,0,120\n"),
        "ok": ("ok.csv", "0,0,0,0\n"),
        "not_a_model": ("m.npz", "not a zip"),
        "truncated_model": ("cut.kelma", (ROOT / "data" / "models" / "aptec_pc10_cmyk.kelma").read_text()[:9000]),
    }
    subst = {}
    for key, (name, text) in files.items():
        (tmp_path / name).write_text(text)
        subst[key] = tmp_path / name
    np.save(tmp_path / "rgb.npy", np.zeros((4, 4, 3), np.uint8))
    subst.update(rgb=tmp_path / "rgb.npy", png=tmp_path / "o.png", csv=tmp_path / "o.csv", model=tmp_path / "o.kelma")
    argv = [str(a).format(**subst) if isinstance(a, str) else a for a in args]
    failed_cleanly(run(*argv, cwd=tmp_path), *words)


# Every bad chart through every subcommand that reads one, in this process
# (the subprocess tests above cover the process itself): exit status 1, one
# line "kelma: error: <file>: <problem>", no output written.
sys.path.insert(0, str(ROOT / "cli"))
from kelma_cli.main import main as cli_main  # noqa: E402
from bad_charts import SPECIAL_LABELS, bad_files, special_files  # noqa: E402

BAD_FILES = bad_files()
CHART_READERS = {
    "resample": lambda chart, tmp: ["resample", chart, tmp / "out.csv"],
    "fit": lambda chart, tmp: ["fit", chart, "--grid", "0,100", "--out", tmp / "out.kelma"],
    "evaluate": lambda chart, tmp: ["evaluate", "default", chart],
}


def cli_error(capsys, argv):
    status = cli_main([str(a) for a in argv])
    err = capsys.readouterr().err
    assert status == 1, err
    assert err.startswith("kelma: error: ") and err.count("\n") == 1, err
    return err


@pytest.mark.parametrize("command", sorted(CHART_READERS))
@pytest.mark.parametrize("bad", BAD_FILES, ids=[b.name for b in BAD_FILES])
def test_bad_chart_gives_one_line_naming_file_and_problem(tmp_path, capsys, command, bad):
    err = cli_error(capsys, CHART_READERS[command](bad.path, tmp_path))
    assert bad.path in err
    if command == "resample" or bad.same_with_device:
        assert bad.problem in err
    assert not any(tmp_path.iterdir())


@pytest.mark.parametrize("command", sorted(CHART_READERS))
@pytest.mark.parametrize("label", SPECIAL_LABELS)
def test_what_is_not_a_chart_file_says_so(tmp_path, capsys, command, label):
    special = tmp_path / "special"
    special.mkdir()
    _, path, problem = next(c for c in special_files(special) if c[0] == label)
    err = cli_error(capsys, CHART_READERS[command](path, tmp_path))
    assert problem in err and str(path) in err


def test_extrapolate_option_of_every_chart_reader(tmp_path, capsys):
    gap = ROOT / "tests" / "measurement" / "data" / "bad_gap_blue.txt"
    out = tmp_path / "spectra.csv"
    assert "would be extrapolated" in cli_error(capsys, ["resample", gap, out])
    assert cli_main(["resample", str(gap), str(out), "--extrapolate"]) == 0
    rows = list(csv.reader(out.read_text().splitlines()))
    assert rows[0][5] == "SPECTRAL_NM400" and len(rows) == 3
    assert float(rows[1][5]) == pytest.approx(0.85)  # a flat spectrum stays flat
    assert cli_main(["evaluate", "default", str(gap), "--extrapolate"]) == 0
    assert "all patches" in capsys.readouterr().out
    # The two-patch chart is read; what stops the fit is the chart itself.
    err = cli_error(capsys, ["fit", gap, "--grid", "0,100", "--out", tmp_path / "m.npz", "--extrapolate"])
    assert "grid nodes" in err and "extrapolated" not in err


def test_every_option_of_every_subcommand_has_help():
    import argparse
    from kelma_cli.main import build_parser
    subparsers = next(a for a in build_parser()._actions if isinstance(a, argparse._SubParsersAction))
    missing = [(name, action.option_strings or action.dest)
               for name, sub in subparsers.choices.items() for action in sub._actions
               if not action.help or action.help == argparse.SUPPRESS]
    assert missing == []
    assert set(subparsers.choices) >= {"demo", "predict", "evaluate", "fit", "proof", "resample", "separate",
                                       "profile"}


def test_a_full_disk_leaves_every_earlier_output_intact(tmp_path):
    """A file-size limit stands in for a full disk: the write fails part way
    through, the command says so in one line naming the file, and the file
    it would have replaced (a model, a profile) is untouched, with nothing
    left beside it."""
    import resource

    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))

    model = tmp_path / "press.kelma"
    model.write_bytes((ROOT / "data" / "models" / "aptec_pc10_cmyk.kelma").read_bytes()[:50000])  # an earlier one
    earlier_model = model.read_bytes()
    profile = tmp_path / "press.icc"
    profile.write_bytes(b"earlier profile")
    for args, target in ((["fit", CHART, "--grid", "0,40,100", "--method", "classic", "--out", model], model),
                         (["profile", "--model", ROOT / "data" / "models" / "aptec_pc10_cmyk.kelma",
                           "--grid-points", "17", "--out", profile], profile)):
        r = subprocess.run([sys.executable, str(CLI), *map(str, args)], capture_output=True, text=True,
                           env=dict(os.environ), preexec_fn=limit, timeout=300)
        failed_cleanly(r, str(target))
        assert r.stderr.count("\n") == 1, r.stderr
        assert sorted(p.name for p in tmp_path.iterdir()) == ["press.icc", "press.kelma"]
    assert model.read_bytes() == earlier_model
    assert profile.read_bytes() == b"earlier profile"


def test_separate_writes_exactly_the_file_named_or_standard_output(tmp_path):
    colours = tmp_path / "colours.csv"
    colours.write_text("L,a,b\n50,0,0\n70,10,-20\n")
    out = tmp_path / "inks.csv"
    r = run("separate", colours, "--out", out)
    assert r.returncode == 0, r.stderr
    shown = run("separate", colours)
    assert shown.returncode == 0 and shown.stdout == out.read_text()
    rows = [list(map(float, line.split(","))) for line in shown.stdout.splitlines()]
    assert len(rows) == 2 and all(len(r) == 4 and 0 <= min(r) and max(r) <= 100 for r in rows)
    piped = subprocess.run([sys.executable, str(CLI), "separate", "-"], input=colours.read_text(),
                           capture_output=True, text=True, timeout=300)
    assert piped.returncode == 0 and piped.stdout == shown.stdout, piped.stderr
    with open("/dev/full", "w") as full:
        r = subprocess.run([sys.executable, str(CLI), "separate", str(colours)], stdout=full,
                           stderr=subprocess.PIPE, text=True, timeout=300)
    failed_cleanly(r, "cannot write standard output: No space left on device")
    failed_cleanly(run("separate", colours, "--out", tmp_path), "is a directory")
    failed_cleanly(run("separate", tmp_path), "is a directory")
    failed_cleanly(run("separate", colours, "--out", tmp_path / "no" / "inks.csv"), "does not exist")
    assert sorted(p.name for p in tmp_path.iterdir()) == ["colours.csv", "inks.csv"]
