"""CGATS files written by the library (kelma.measurement_file_text,
write_measurement_file) and read back by its reader, atomic writes, the
reader's new views (from_text, properties, xyz) and tone values (ISO 20654
SCTV against a numpy twin, colorimetric Murray-Davies)."""
import os
from pathlib import Path

import numpy as np
import pytest

import kelma

ROOT = Path(__file__).resolve().parents[2]
CHART = ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"
WAVELENGTHS = np.arange(400, 701, 10)


def test_predictions_written_and_read_back_are_the_same_numbers():
    chart = kelma.MeasurementFile(CHART, ["spectra", "device"])
    model = kelma.default_press_model()
    levels = kelma.digital_levels(chart.device_values)
    xyz = 100.0 * kelma.predict_xyz(model, levels)
    lab = kelma.predict_lab(model, levels)
    spectra = kelma.predict_spectra(model, levels)
    text = kelma.measurement_file_text(
        chart.sample_ids, channel_names=chart.channel_names, device_values=chart.device_values, xyz=xyz, lab=lab,
        wavelengths=WAVELENGTHS, spectra=spectra,
        keywords={"ORIGINATOR": "kelma tests", "ILLUMINATION_NAME": "D50", "OBSERVER_ANGLE": 2})
    back = kelma.MeasurementFile.from_text(text, "predictions", ["spectra", "lab", "device"])
    assert back.sample_ids == chart.sample_ids
    assert back.channel_names == chart.channel_names
    # Bit for bit: every value is written with the digits that read back to it.
    np.testing.assert_array_equal(back.device_values, chart.device_values)
    np.testing.assert_array_equal(back.xyz, xyz)
    np.testing.assert_array_equal(back.lab, lab)
    np.testing.assert_array_equal(back.spectra, spectra)
    np.testing.assert_array_equal(back.wavelengths, WAVELENGTHS)
    assert back.property("OBSERVER_ANGLE") == "2"
    assert [k for k, _ in back.properties][:3] == ["ORIGINATOR", "ILLUMINATION_NAME", "OBSERVER_ANGLE"]
    # Read back, predicted again: the same prediction.
    np.testing.assert_array_equal(kelma.predict_spectra(model, kelma.digital_levels(back.device_values)), spectra)


def test_chart_header_and_columns_survive_a_file_round_trip(tmp_path):
    chart = kelma.MeasurementFile(CHART, "any")
    out = tmp_path / "copy.txt"
    kelma.write_measurement_file(out, chart.sample_ids, channel_names=chart.channel_names,
                                 device_values=chart.device_values, wavelengths=chart.wavelengths,
                                 spectra=chart.spectra, keywords=chart.properties)
    back = kelma.MeasurementFile(out, "any")
    np.testing.assert_array_equal(back.spectra, chart.spectra)
    np.testing.assert_array_equal(back.wavelengths, np.arange(380, 731, 10))
    own = ("NUMBER_OF_FIELDS", "NUMBER_OF_SETS", "SPECTRAL_BANDS", "SPECTRAL_START_NM", "SPECTRAL_END_NM")
    assert [p for p in back.properties if p[0] not in own] == [p for p in chart.properties if p[0] not in own]
    assert back.property("WEIGHTING_FUNCTION") == "ILLUMINANT,\tD50"
    assert [p for p in chart.properties if p[0] == "WEIGHTING_FUNCTION"][1] == ("WEIGHTING_FUNCTION",
                                                                               "OBSERVER,\t2 degree")
    assert [p.name for p in tmp_path.iterdir()] == ["copy.txt"]


def test_file_writes_are_atomic_and_failures_name_the_file(tmp_path):
    target = tmp_path / "out.bin"
    kelma.write_file_atomically(target, b"\x00\x01binary")
    assert target.read_bytes() == b"\x00\x01binary"
    kelma.write_file_atomically(str(target), "caf\u00e9\n")
    assert target.read_bytes() == "caf\u00e9\n".encode("utf-8")
    with pytest.raises(kelma.FileWriteError) as err:
        kelma.write_file_atomically(tmp_path / "missing" / "x", "x")
    assert isinstance(err.value, OSError) and "missing/x" in str(err.value)
    with pytest.raises(OSError):
        kelma.write_measurement_file(tmp_path / "missing" / "x.txt", ["1"], lab=[[50, 0, 0]])
    # A table the writer refuses leaves the earlier file as it was.
    kelma.write_measurement_file(target, ["1"], lab=[[50, 0, 0]])
    before = target.read_bytes()
    with pytest.raises(kelma.MeasurementError, match="sample 1: the ID holds a double quote"):
        kelma.write_measurement_file(target, ['say "hi"'], lab=[[50, 0, 0]])
    assert target.read_bytes() == before
    assert sorted(p.name for p in tmp_path.iterdir()) == ["out.bin"]
    with pytest.raises(TypeError, match="str .* or bytes"):
        kelma.write_file_atomically(target, 42)


@pytest.mark.parametrize("kwargs, error, words", [
    (dict(sample_ids="12"), TypeError, "sequence of str, got a single string"),
    (dict(sample_ids=[]), ValueError, "holds no sample"),
    (dict(channel_names=["CMYK_C"]), ValueError, "channel_names and device_values go together"),
    (dict(channel_names=["A", "B"], device_values=[[1, 2, 3], [4, 5, 6]]), ValueError, "must be (2, 2)"),
    (dict(lab=[[50, 0, 0]]), ValueError, "lab must be (2, 3)"),
    (dict(xyz=[[1, 2, np.nan], [1, 2, 3]]), ValueError, "xyz"),
    (dict(wavelengths=[400, 700]), ValueError, "wavelengths and spectra go together"),
    (dict(wavelengths=[400, 700], spectra=[[0.5, 0.5], [0.5, 1e300]]), ValueError, "32-bit float"),
    (dict(wavelengths=[400, 400.5], spectra=[[0.5, 0.5], [0.5, 0.5]]), kelma.MeasurementError,
     "not a whole number of nanometres"),
    (dict(lab=[[1, 2, 3]] * 2, keywords={"BAD KEY": "x"}), kelma.MeasurementError, "is not a name"),
    (dict(lab=[[1, 2, 3]] * 2, keywords=[("K",)]), TypeError, "(keyword, value) pairs"),
    (dict(lab=[[1, 2, 3]] * 2, keywords={"K": None}), TypeError, "(keyword, value) pairs"),
])
def test_bad_tables_are_refused_naming_the_argument(kwargs, error, words):
    args = dict(sample_ids=["a", "b"])
    args.update(kwargs)
    ids = args.pop("sample_ids")
    with pytest.raises(error) as err:
        kelma.measurement_file_text(ids, **args)
    assert words in str(err.value)


def test_from_text_names_the_source_and_takes_bytes_in_other_encodings():
    latin1 = ("CGATS.17\nORIGINATOR \"M\xfcller\"\nNUMBER_OF_FIELDS 2\nBEGIN_DATA_FORMAT\nSAMPLE_ID SPECTRAL_NM400\n"
              "END_DATA_FORMAT\nNUMBER_OF_SETS 1\nBEGIN_DATA\nR\xe9f 0.5\nEND_DATA\n").encode("latin-1")
    f = kelma.MeasurementFile.from_text(latin1, "<stdin>")
    assert f.sample_ids == ["R\u00e9f"] and f.property("ORIGINATOR") == "M\u00fcller"
    assert f.path == "<stdin>" and f.xyz is None
    with pytest.raises(kelma.MeasurementError, match="^<stdin>: no data format"):
        kelma.MeasurementFile.from_text("just text", "<stdin>")
    with pytest.raises(TypeError):
        kelma.MeasurementFile.from_text(12)


def _tone_value_numpy(xyz, paper, solid, white):
    """ISO 20654 written out in numpy, as an independent twin."""
    def v(c):
        t = np.asarray(c, float) / white
        f = np.where(t > (6 / 29) ** 3, np.cbrt(t), t * (29 / 6) ** 2 / 3 + 4 / 29)
        return 116 * f - 16
    return 100 * np.linalg.norm(v(xyz) - v(paper), axis=-1) / np.linalg.norm(v(solid) - v(paper))


def test_tone_values_of_the_measured_cyan_ramp():
    chart = kelma.MeasurementFile(CHART, ["spectra", "device"])
    matrix = kelma.LightingMatrix("D50", 2)
    xyz = matrix.xyz(chart.resample("linear"))[:, 0, :].astype(np.float64)
    white = matrix.white_point[0].astype(np.float64)
    d = chart.device_values
    others_zero = (d[:, 1:] == 0).all(axis=1)
    paper = xyz[others_zero & (d[:, 0] == 0)].mean(axis=0)
    solid = xyz[others_zero & (d[:, 0] == 100)].mean(axis=0)
    ramp = others_zero & (d[:, 0] > 0) & (d[:, 0] < 100)
    tv = kelma.tone_value(xyz[ramp], paper, solid, white)
    assert tv.shape == (ramp.sum(),)
    np.testing.assert_allclose(tv, _tone_value_numpy(xyz[ramp], paper, solid, white), rtol=0, atol=1e-10)
    # This press was calibrated to SCTV: the measured tone values are the nominal ones.
    np.testing.assert_allclose(tv, d[ramp, 0], atol=0.1)
    # Murray-Davies on X (the cyan's band): the dot gain an offset press shows,
    # every tint darker than nominal; (1 - T/P) / (1 - S/P) on X, as written.
    md = kelma.murray_davies_tone_value(xyz[ramp], paper, solid)
    np.testing.assert_allclose(md, 100 * (1 - xyz[ramp, 0] / paper[0]) / (1 - solid[0] / paper[0]), rtol=1e-14)
    gain = md - d[ramp, 0]
    assert (gain > 0).all() and (gain < 30).all() and gain.max() > 10
    assert kelma.tone_value(paper, paper, solid, white) == 0
    assert kelma.tone_value(solid, paper, solid, white) == pytest.approx(100, abs=1e-12)
    with pytest.raises(ValueError, match="paper and solid are the same colour"):
        kelma.tone_value(xyz[ramp], paper, paper, white)
    with pytest.raises(ValueError, match="paper must be one colour"):
        kelma.tone_value(xyz[ramp], xyz[:2], solid, white)
    with pytest.raises(ValueError, match="not darker than the paper"):
        kelma.murray_davies_tone_value(xyz[ramp], solid, paper)
