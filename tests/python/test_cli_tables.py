"""kelma predict and kelma resample as files other tools read: CGATS by
default (read back by the library's reader to the same numbers), CSV with a
header row and quoted fields, standard input and output, CGATS input, what
resample writes read by fit; every output written atomically; bad input one
clear line."""
import csv
import os
import resource
import subprocess
import sys

import numpy as np
import pytest

import kelma
from test_cli import CHART, CLI, ROOT, cli_error, cli_main, failed_cleanly, run

WAVELENGTHS = np.arange(400, 701, 10)


def run_input(args, stdin, **kwargs):
    return subprocess.run([sys.executable, str(CLI), *map(str, args)], input=stdin, capture_output=True,
                          env=dict(os.environ), timeout=300, **kwargs)


def test_predict_writes_cgats_that_reads_back_to_the_library_predictions(tmp_path):
    out = tmp_path / "pred.txt"
    r = run("predict", CHART, "--out", out, "--illuminant", "D65", "--observer", "10")
    assert r.returncode == 0, r.stderr
    chart = kelma.MeasurementFile(CHART, ["spectra", "device"])
    back = kelma.MeasurementFile(out, ["spectra", "lab", "device"])
    model = kelma.default_press_model("D65", 10)
    levels = kelma.digital_levels(chart.device_values)
    assert back.sample_ids == chart.sample_ids and back.channel_names == chart.channel_names
    np.testing.assert_array_equal(back.device_values, chart.device_values)
    np.testing.assert_array_equal(back.spectra, kelma.predict_spectra(model, levels))
    np.testing.assert_array_equal(back.xyz, 100 * kelma.predict_xyz(model, levels))
    np.testing.assert_array_equal(back.lab, kelma.predict_lab(model, levels))
    np.testing.assert_array_equal(back.wavelengths, WAVELENGTHS)
    assert back.property("ILLUMINATION_NAME") == "D65" and back.property("OBSERVER_ANGLE") == "10"
    assert back.property("ORIGINATOR") == "kelma " + kelma.__version__
    assert [v for k, v in back.properties if k == "WEIGHTING_FUNCTION"] == ["ILLUMINANT, D65", "OBSERVER, 10 degree"]
    # The file Little CMS's own parser reads: the first line names the format.
    assert out.read_text().startswith("CGATS.17\n")
    # Paper-relative colorimetry is said in the header, and is what the model gives.
    rel = run("predict", CHART, "--relative", "paper", "--output", "lab")
    back = kelma.MeasurementFile.from_text(rel.stdout, "rel", "lab")
    assert "relative to the paper" in back.property("DESCRIPTOR") and back.spectra.size == 0
    np.testing.assert_array_equal(back.lab, kelma.predict_lab(kelma.default_press_model(), levels,
                                                              media_relative=True))


def test_cgats_csv_and_standard_input_give_the_same_predictions(tmp_path):
    csv_in = "0,0,0,0\n100,0,0,0\n20,40,60,10\n"
    a = run_input(["predict", "-"], csv_in.encode())
    (tmp_path / "inks.csv").write_text(csv_in)
    b = run("predict", tmp_path / "inks.csv")
    assert a.returncode == 0 and b.returncode == 0, a.stderr + b.stderr.encode()
    first = kelma.MeasurementFile.from_text(a.stdout, "a", "any")
    assert first.sample_ids == ["1", "2", "3"] and "inks from <stdin>" in first.property("DESCRIPTOR")
    np.testing.assert_array_equal(first.spectra, kelma.MeasurementFile.from_text(b.stdout, "b", "any").spectra)
    # Its own output as input (a CGATS file, from standard input): the same again.
    c = run_input(["predict", "-", "--format", "csv", "--output", "lab"], a.stdout)
    assert c.returncode == 0, c.stderr
    rows = list(csv.reader(c.stdout.decode().splitlines()))
    assert rows[0] == ["SAMPLE_ID", "CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K", "LAB_L", "LAB_A", "LAB_B"]
    np.testing.assert_allclose(np.array(rows[1:], float)[:, 5:], first.lab, atol=5e-5)


def test_csv_header_id_column_quoting_and_encodings(tmp_path):
    # A header in another order, an ID column with commas and quotes, Latin-1 text.
    (tmp_path / "inks.csv").write_bytes('ID,K,C,M,Y\n"paper, white",0,0,0,0\n"say ""cyan""",0,100,0,0\n'
                                        'Caf\xe9,50,0,0,0\n'.encode("latin-1"))
    r = run("predict", tmp_path / "inks.csv", "--out", tmp_path / "o.csv", "--output", "lab,xyz")
    assert r.returncode == 0, r.stderr
    text = (tmp_path / "o.csv").read_text(encoding="utf-8")
    assert text.splitlines()[0] == ('"SAMPLE_ID","CMYK_C","CMYK_M","CMYK_Y","CMYK_K","LAB_L","LAB_A","LAB_B",'
                                    '"XYZ_X","XYZ_Y","XYZ_Z"')
    assert text.splitlines()[2].startswith('"say ""cyan""",100,0,0,0,')
    rows = list(csv.reader(text.splitlines()))
    assert [row[0] for row in rows[1:]] == ["paper, white", 'say "cyan"', "Caf\u00e9"]
    # Columns in ink order: K = 50 % is ink 4.
    assert rows[3][1:5] == ["0", "0", "0", "50"]
    lab = kelma.predict_lab(kelma.default_press_model(), kelma.digital_levels([[0, 0, 0, 0], [100, 0, 0, 0],
                                                                              [0, 0, 0, 50]]))
    np.testing.assert_allclose(np.array([row[5:8] for row in rows[1:]], float), lab, atol=5e-5)
    # No header, IDs in the first column; white space; digital levels.
    (tmp_path / "ids.txt").write_text("# a comment\nA1 0 0 0 0\nB2 255 0 0 0\n")
    r = run("predict", tmp_path / "ids.txt", "--whitespace", "--digital", "--format", "csv")
    assert r.returncode == 0, r.stderr
    rows = list(csv.reader(r.stdout.splitlines()))
    assert [row[0] for row in rows[1:]] == ["A1", "B2"] and rows[2][1] == "100"


@pytest.mark.parametrize("text, args, words", [
    ("0,0,0,0\n10,20,30\n", [], ["line 2 has 3 fields, expected 4"]),
    ("C,M,Y,K\n0,0,0,0\n10,x,0,0\n", [], ["line 3, M: 'x' is not a number"]),
    ("C,M,Y,K\n0,0,0,0\n10,0,0,120\n", [], ["line 3, K holds 120", "percent 0-100", "--digital"]),
    ("0,0,0,0\n0,0,300,0\n", ["--digital"], ["line 2, column 3 holds 300", "whole levels 0-255"]),
    ("A,B,C\n1,2,3\n", [], ["header names 3 value columns (A, B, C)", "4 inks"]),
    ("SAMPLE_ID,C,M,Y,K\n", [], ["a header row but no samples"]),
    ("\n# only a comment\n", [], ["holds no samples"]),
    ("0,0,0,0\n", ["--output", "lab,rgb"], ["--output", "'rgb'"]),
    ("0,0,0,0\n", ["--output", "lab2000hl"], ["no CGATS field", "--format csv"]),
    ("0,0,0,0\n", ["--output", "lab,lab", "--format", "csv"], ["names a column twice"]),
])
def test_bad_ink_tables_give_one_line_naming_line_and_column(tmp_path, text, args, words):
    path = tmp_path / "inks.csv"
    path.write_text(text)
    failed_cleanly(run("predict", path, *args), str(path) if "--output" not in args else "", *words)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["inks.csv"]


def test_bad_inputs_and_outputs_of_predict(tmp_path, capsys):
    cgats = tmp_path / "in.txt"
    cgats.write_text("CGATS.17\nNUMBER_OF_FIELDS 4\nBEGIN_DATA_FORMAT\nSAMPLE_ID CMY_C CMY_M CMY_Y\n"
                     "END_DATA_FORMAT\nNUMBER_OF_SETS 1\nBEGIN_DATA\n1 0 0 0\nEND_DATA\n")
    assert "has 3 device channels (CMY_C, CMY_M, CMY_Y); the model has 4 inks" in cli_error(
        capsys, ["predict", cgats])
    assert "--digital applies to CSV input" in cli_error(capsys, ["predict", cgats, "--digital"])
    cgats.write_text("CGATS.17\nNUMBER_OF_FIELDS 5\nBEGIN_DATA_FORMAT\nSAMPLE_ID CMYK_C CMYK_M CMYK_Y CMYK_K\n"
                     "END_DATA_FORMAT\nNUMBER_OF_SETS 1\nBEGIN_DATA\nP7 0 0 0 101\nEND_DATA\n")
    assert "sample P7, field CMYK_K holds 101" in cli_error(capsys, ["predict", cgats])
    assert "is a directory, not a file of ink values" in cli_error(capsys, ["predict", tmp_path])
    assert "/dev/zero is not a regular file" in cli_error(capsys, ["predict", "/dev/zero"])
    ok = tmp_path / "ok.csv"
    ok.write_text("0,0,0,0\n")
    assert "is a directory; give a file name" in cli_error(capsys, ["predict", ok, "--out", tmp_path])
    assert "the folder" in cli_error(capsys, ["predict", ok, "--out", tmp_path / "no" / "p.txt"])
    many = tmp_path / "many.csv"
    many.write_text("0,0,0,0\n" * (kelma.CGATS_MAX_PATCHES + 1))
    assert "at most 32766 (a limit of Little CMS): use --format csv" in cli_error(capsys, ["predict", many])
    assert cli_main(["predict", str(many), "--format", "csv", "--out", str(tmp_path / "many_out.csv")]) == 0
    assert len((tmp_path / "many_out.csv").read_text().splitlines()) == kelma.CGATS_MAX_PATCHES + 2


def test_a_closed_pipe_ends_quietly():
    inks = "\n".join("%d,%d,0,0" % (i % 101, (7 * i) % 101) for i in range(20000)) + "\n"
    p = subprocess.Popen([sys.executable, str(CLI), "predict", "-", "--format", "csv", "--output", "spectra"],
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=dict(os.environ))
    p.stdin.write(inks.encode())
    p.stdin.close()
    assert p.stdout.read(100).startswith(b'"SAMPLE_ID"')
    p.stdout.close()  # the reader goes away, as head does
    assert p.wait(timeout=120) == 141  # 128 + SIGPIPE, as a tool ended by the signal
    assert p.stderr.read() == b""


def test_outputs_are_written_whole_or_not_at_all(tmp_path):
    out = tmp_path / "pred.txt"
    out.write_text("earlier\n")
    # A refused input leaves the earlier file.
    (tmp_path / "bad.csv").write_text("0,0,0,x\n")
    failed_cleanly(run("predict", tmp_path / "bad.csv", "--out", out), "'x' is not a number")
    assert out.read_text() == "earlier\n"

    # A disk that fills up (a file-size limit): one line naming the file, the
    # earlier file intact, nothing left beside it.
    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000))

    for args in (["predict", CHART, "--out", out], ["resample", CHART, out]):
        r = subprocess.run([sys.executable, str(CLI), *map(str, args)], capture_output=True, text=True,
                           env=dict(os.environ), preexec_fn=limit, timeout=300)
        failed_cleanly(r, "cannot write %s" % out)
        assert r.stderr.count("\n") == 1
        assert out.read_text() == "earlier\n"
        assert sorted(p.name for p in tmp_path.iterdir()) == ["bad.csv", "pred.txt"]


def test_resample_keeps_ids_devices_and_header_and_fit_reads_it(tmp_path):
    out = tmp_path / "resampled.txt"
    r = run("resample", CHART, out, "--method", "spline")
    assert r.returncode == 0, r.stderr
    chart = kelma.MeasurementFile(CHART, ["spectra", "device"])
    back = kelma.MeasurementFile(out, ["spectra", "device"])
    assert back.sample_ids == chart.sample_ids and back.channel_names == chart.channel_names
    np.testing.assert_array_equal(back.device_values, chart.device_values)
    np.testing.assert_array_equal(back.wavelengths, WAVELENGTHS)
    np.testing.assert_array_equal(back.spectra, chart.resample("spline"))
    for keyword in ("DESCRIPTOR", "ORIGINATOR", "CREATED", "INSTRUMENTATION", "MEASUREMENT_SOURCE",
                    "ILLUMINATION_NAME", "OBSERVER_ANGLE", "TRACEABILITY"):
        assert back.property(keyword) == chart.property(keyword), keyword
    assert back.property("SPECTRAL_BANDS") == "31" and back.property("NUMBER_OF_FIELDS") == "36"

    # kelma fit reads it: the linear resampling written out fits the same model as the chart.
    linear = tmp_path / "linear.txt"
    assert run("resample", CHART, linear).returncode == 0
    for source, name in ((CHART, "chart.kelma"), (linear, "linear.kelma")):
        r = run("fit", source, "--grid", "0,40,100", "--method", "classic", "--out", tmp_path / name)
        assert r.returncode == 0, r.stderr
    a, b = kelma.ModelFile.read(tmp_path / "chart.kelma"), kelma.ModelFile.read(tmp_path / "linear.kelma")
    np.testing.assert_array_equal(a.scheme, b.scheme)
    np.testing.assert_array_equal(a.ramps, b.ramps)
    assert a.n == b.n

    # Standard input and output; a chart with CIELAB keeps it.
    lab_chart = ROOT / "tests" / "measurement" / "data" / "pc10_excerpt_lab.txt"
    spectral = ROOT / "tests" / "measurement" / "data" / "pc10_excerpt_spectral.txt"
    r = run_input(["resample", "-", "-"], spectral.read_bytes())
    assert r.returncode == 0, r.stderr
    piped = kelma.MeasurementFile.from_text(r.stdout, "piped", ["spectra", "device"])
    np.testing.assert_array_equal(piped.spectra, kelma.MeasurementFile(spectral).resample("linear"))
    assert kelma.MeasurementFile(lab_chart, "lab").lab is not None


def test_resample_of_a_chart_with_colorimetry_keeps_it(tmp_path):
    src = tmp_path / "src.txt"
    src.write_text("CGATS.17\nORIGINATOR \"lab\"\nNUMBER_OF_FIELDS 9\nBEGIN_DATA_FORMAT\n"
                   "SAMPLE_ID XYZ_X XYZ_Y XYZ_Z LAB_L LAB_A LAB_B nm400 nm700\nEND_DATA_FORMAT\n"
                   "NUMBER_OF_SETS 2\nBEGIN_DATA\n"
                   "A 80.1 82.2 70.3 92.6 0.51 -2.25 0.8 0.9\nB 10 11 12 40 1 2 0.1 0.2\nEND_DATA\n")
    out = tmp_path / "out.txt"
    assert cli_main(["resample", str(src), str(out)]) == 0
    back = kelma.MeasurementFile(out, ["spectra", "lab"])
    np.testing.assert_array_equal(back.xyz, [[80.1, 82.2, 70.3], [10, 11, 12]])
    np.testing.assert_array_equal(back.lab, [[92.6, 0.51, -2.25], [40, 1, 2]])
    np.testing.assert_allclose(back.spectra[0, [0, 15, 30]], [0.8, 0.85, 0.9], atol=1e-7)
    assert back.property("ORIGINATOR") == "lab" and back.channel_names == []
