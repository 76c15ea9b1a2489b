"""The command line as a busy print shop misuses it: an output named like its
input, a chart with device values that are not percentages, a CSV header
that repeats or misnames an ink, numbers beyond single precision, argument
bytes that are not UTF-8, the smallest documented table size, and a job
stopped by SIGTERM in the middle of a write. Each gives one clear line (or
does what it says) and leaves the user's files as they were."""
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[2]
CLI = ROOT / "cli" / "kelma"
CHART = ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"
MODEL = ROOT / "data" / "models" / "aptec_pc10_cmyk.kelma"


def run(*args, cwd=None):
    return subprocess.run([sys.executable, str(CLI), *map(os.fsencode, map(str, args))], capture_output=True,
                          cwd=cwd, env=dict(os.environ), timeout=300)


def failed_cleanly(result, *words):
    err = result.stderr.decode(errors="replace")
    assert result.returncode == 1, (result.returncode, err)
    assert "Traceback" not in err and "Warning" not in err, err
    assert err.startswith("kelma: error:") and err.count("\n") == 1, err
    for w in words:
        assert w in err, err
    return err


def chart_with_device_value(tmp_path, sample_id, column, value):
    """The real chart with one device value replaced (columns: SAMPLE_ID, C, M, Y, K, spectra)."""
    lines = CHART.read_text().split("\n")
    for i, line in enumerate(lines):
        fields = line.split("\t")
        if fields[0] == str(sample_id) and len(fields) > 5:
            fields[column] = value
            lines[i] = "\t".join(fields)
            break
    else:
        raise AssertionError("sample %s not in the chart" % sample_id)
    path = tmp_path / "chart.txt"
    path.write_text("\n".join(lines))
    return path


def cmyk_tiff(path):
    from PIL import Image
    pixels = np.random.default_rng(4).integers(0, 256, (8, 12, 4), dtype=np.uint8)
    Image.fromarray(pixels, "CMYK").save(path)


# Output and input the same file: the command must not replace the measured
# chart (or the CMYK job, or the colour list) by what it computed from it.
SAME_FILE = {
    "fit": lambda p: ["fit", p, "--grid", "0,40,100", "--method", "classic", "--out", p],
    "profile": lambda p: ["profile", p, "--grid", "0,40,100", "--method", "classic", "--grid-points", "3",
                          "--out", p],
    "resample": lambda p: ["resample", p, p],
    "proof": lambda p: ["proof", p, p],
    "separate": lambda p: ["separate", p, "--out", p],
}


@pytest.mark.parametrize("command", sorted(SAME_FILE))
def test_an_output_that_is_the_input_file_is_refused_and_the_input_kept(tmp_path, command):
    if command == "proof":
        source = tmp_path / "job.tif"
        cmyk_tiff(source)
    elif command == "separate":
        source = tmp_path / "colours.csv"
        source.write_text("L,a,b\n50,0,0\n70,10,-20\n")
    else:
        source = tmp_path / "chart.txt"
        source.write_bytes(CHART.read_bytes())
    before = source.read_bytes()
    r = run(*SAME_FILE[command](source), cwd=tmp_path)
    assert source.read_bytes() == before, "%s replaced its own input %s" % (command, source.name)
    failed_cleanly(r, source.name)
    assert [p.name for p in tmp_path.iterdir()] == [source.name]


def test_device_values_outside_0_to_100_percent_are_refused_by_evaluate_as_by_predict_and_fit(tmp_path):
    # Sample 6 is (0, 30, 20, 0) %; 150 % cyan is no ink amount. predict and
    # fit refuse it; evaluate must not compare its spectrum with a prediction
    # of some other ink amount and report a CIEDE2000 of 57.
    chart = chart_with_device_value(tmp_path, 6, 1, "150")
    failed_cleanly(run("predict", chart, "--out", tmp_path / "p.txt"), "chart.txt", "CMYK_C", "150")
    failed_cleanly(run("evaluate", "default", chart), "chart.txt", "CMYK_C", "150")
    # fit refuses it too, and says in which file.
    failed_cleanly(run("fit", chart, "--grid", "0,40,100", "--out", tmp_path / "m.kelma"), "chart.txt", "150")
    negative = chart_with_device_value(tmp_path, 6, 1, "-5")
    failed_cleanly(run("evaluate", "default", negative), "chart.txt", "CMYK_C", "-5")
    # Just beyond 100 %: the message shows the value, not the limit.
    beyond = chart_with_device_value(tmp_path, 6, 1, "100.0000001")
    failed_cleanly(run("evaluate", "default", beyond), "chart.txt", "CMYK_C", "holds 100.0000001;")


@pytest.mark.parametrize("header", [
    "CMYK_K,CMYK_C,CMYK_M,CMYK_K",   # K twice, no yellow column
    "C,C,Y,K",                       # C twice, no magenta column
    "K,C,M,X",                       # three inks named out of order and a fourth column nobody knows
])
def test_a_csv_header_that_repeats_or_misnames_an_ink_is_refused(tmp_path, header):
    inks = tmp_path / "inks.csv"
    inks.write_text(header + "\n10,20,50,0\n")
    failed_cleanly(run("predict", inks, "--format", "csv"), "inks.csv")


def test_colours_beyond_single_precision_name_the_file_and_line(tmp_path):
    colours = tmp_path / "colours.csv"
    colours.write_text("50,0,0\n1e39,0,0\n")
    failed_cleanly(run("separate", colours), "colours.csv", "line 2")


def test_a_description_that_is_not_utf8_is_written_or_refused_by_name(tmp_path):
    out = tmp_path / "p.icc"
    r = run("profile", "--model", MODEL, "--grid-points", "3", "--description", b"Pr\xfcfdruck".decode(
        sys.getfilesystemencoding(), "surrogateescape"), "--out", out)
    err = r.stderr.decode(errors="replace")
    assert "Unable to cast" not in err, err
    if r.returncode:
        failed_cleanly(r, "--description")
    else:
        assert out.read_bytes()[36:40] == b"acsp"


def test_the_smallest_table_size_the_help_offers_builds_a_profile(tmp_path):
    # --grid-points takes 2..255; 2 nodes per axis crashed the separation tables.
    out = tmp_path / "p.icc"
    r = run("profile", "--model", MODEL, "--grid-points", "2", "--out", out)
    assert r.returncode == 0, (r.returncode, r.stderr.decode(errors="replace"))
    assert out.read_bytes()[36:40] == b"acsp"


def test_sigterm_during_a_write_leaves_one_complete_output_and_no_temporary_file(tmp_path):
    rng = np.random.default_rng(8)
    inks = tmp_path / "inks.csv"
    np.savetxt(inks, rng.integers(0, 101, (400000, 4)), fmt="%d", delimiter=",", header="C,M,Y,K", comments="")
    out = tmp_path / "out.csv"
    out.write_text("earlier\n")
    p = subprocess.Popen([sys.executable, str(CLI), "predict", str(inks), "--out", str(out), "--output",
                          "lab,xyz,spectra"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    deadline = time.monotonic() + 120
    temporary = []
    while not temporary and p.poll() is None and time.monotonic() < deadline:
        temporary = [q for q in tmp_path.iterdir() if q.name not in ("inks.csv", "out.csv")]
        time.sleep(0.005)
    if not temporary:
        p.kill()
        p.communicate()
        pytest.skip("the write ended before a temporary file could be seen")
    p.send_signal(signal.SIGTERM)
    _, err = p.communicate(timeout=120)
    assert p.returncode == 128 + signal.SIGTERM, err
    assert sorted(q.name for q in tmp_path.iterdir()) == ["inks.csv", "out.csv"]
    # The write under way finishes and the command stops: out.csv is the
    # earlier file or the whole new one, never a part of it.
    text = out.read_text()
    assert text == "earlier\n" or (text.startswith('"SAMPLE_ID"') and text.count("\n") == 400001), text[-200:]


def test_demo_into_a_file_instead_of_a_folder_names_the_argument(tmp_path):
    taken = tmp_path / "out"
    taken.write_text("a file, not a folder\n")
    err = failed_cleanly(run("demo", "--out", taken), "--out", "out")
    assert "Errno" not in err, err
    assert taken.read_text() == "a file, not a folder\n"


def test_an_empty_output_name_or_an_empty_illuminant_in_a_list_is_refused(tmp_path):
    inks = tmp_path / "inks.csv"
    inks.write_text("C,M,Y,K\n10,20,30,40\n")
    failed_cleanly(run("predict", inks, "--out", ""), "--out is empty")
    job = tmp_path / "job.tif"
    cmyk_tiff(job)
    failed_cleanly(run("proof", job, tmp_path / "p.png", "--illuminants", "D50,,A"), "empty illuminant")
    assert sorted(p.name for p in tmp_path.iterdir()) == ["inks.csv", "job.tif"]


def test_csv_headers_are_read_by_ink_name_or_in_order_and_ambiguous_ones_refused():
    sys.path.insert(0, str(ROOT / "cli"))
    from kelma_cli.common import UserError
    from kelma_cli.tables import _ink_columns
    # By name (any order, colour names too, extra columns ignored) ...
    assert _ink_columns("Black,Cyan,Magenta,Yellow".split(","), 4, "h") == (None, [1, 2, 3, 0])
    assert _ink_columns("SAMPLE_ID,K,C,M,Y,NOTE".split(","), 4, "h") == (0, [2, 3, 4, 1])
    assert _ink_columns("6CLR_2,6CLR_1,6CLR_3,6CLR_4,6CLR_5,6CLR_6".split(","), 6, "h") == (None, [1, 0, 2, 3, 4, 5])
    # ... in order where no name or only names in their own columns are given ...
    assert _ink_columns("ink1,ink2,ink3,ink4".split(","), 4, "h") == (None, [0, 1, 2, 3])
    assert _ink_columns("C,M,Y,K,O,G".split(","), 6, "h") == (None, [0, 1, 2, 3, 4, 5])
    # ... and refused where a name and its column disagree.
    for header, inks in (("C,M,K,Y,O,G", 6), ("K,C,M,X", 4), ("C,C,Y,K", 4), ("CMYK_C,CMYK_M,CMYK_Y,6CLR_5", 4)):
        with pytest.raises(UserError, match="^h: the header"):
            _ink_columns(header.split(","), inks, "h")


def test_numbers_in_tables_and_options_are_plain_decimals(tmp_path):
    # float() reads "1_0" as 10 and Arabic-Indic digits as digits; no other
    # tool that reads the same CSV would, so the row is refused, not predicted.
    for text in ("1_0", "\u0661\u0660", "0x10"):
        inks = tmp_path / "inks.csv"
        inks.write_text("C,M,Y,K\n%s,20,30,40\n" % text)
        failed_cleanly(run("predict", inks, "--format", "csv"), "inks.csv")
    colours = tmp_path / "colours.csv"
    colours.write_text("50,0,0\n5_0,0,0\n")
    failed_cleanly(run("separate", colours), "colours.csv", "line 2")
    result = run("fit", CHART, "--grid", "0,4_0,100", "--out", tmp_path / "m.kelma")
    assert result.returncode == 1 and b"--grid" in result.stderr, result.stderr
    # What plain decimals look like still reads, blanks and exponents included.
    sys.path.insert(0, str(ROOT / "cli"))
    from kelma_cli.common import parse_number
    assert [parse_number(t) for t in (" 12.5 ", "-.5", "1e-3", "+7.", "40")] == [12.5, -0.5, 1e-3, 7.0, 40.0]
    assert all(parse_number(t) is None for t in ("", "e3", "1e", "+", "1.2.3", "1 2"))


def test_black_limits_without_black_point_compensation_are_refused(tmp_path):
    # --tac and --max-black only bound the black that --bpc maps; without
    # --bpc they would be ignored and the user would think the proof used them.
    job = tmp_path / "job.tif"
    cmyk_tiff(job)
    for option in (["--tac", "260"], ["--max-black", "80"]):
        failed_cleanly(run("proof", job, tmp_path / "p.png", *option), option[0], "no --bpc")
    assert sorted(p.name for p in tmp_path.iterdir()) == ["job.tif"]


def test_a_bad_kernel_variant_is_named_without_build_advice(tmp_path):
    # The module is there but refuses KELMA_KERNELS: the cause, not "build it".
    env = dict(os.environ, KELMA_KERNELS="avx1024")
    paths = [os.path.abspath(p) for p in env.get("PYTHONPATH", "").split(os.pathsep) if p]
    pythonpath = os.pathsep.join([str(ROOT / "cli")] + paths)
    for command in ([sys.executable, str(CLI), "--help"], [sys.executable, "-m", "kelma_cli", "--help"]):
        r = subprocess.run(command, capture_output=True, cwd=tmp_path, env=dict(env, PYTHONPATH=pythonpath),
                           timeout=120)
        err = failed_cleanly(r, "KELMA_KERNELS is 'avx1024'", "reference, sse2, ssse3, avx2, avx512")
        assert "build" not in err, err
