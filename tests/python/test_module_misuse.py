"""The Python module as its users misuse it: older pickle protocols, device
values that are not percentages, text that is not valid Unicode, and
numbers beyond single precision. Every call pickles or raises a Python error
with a sentence; none ends the interpreter. Calls that could end it run in
a child interpreter."""
import subprocess
import sys
import textwrap
import warnings

import numpy as np
import pytest

import kelma


def in_child(code):
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True, text=True,
                          timeout=300)


@pytest.mark.parametrize("protocol", [0, 1])
def test_models_and_cluts_pickle_with_every_protocol(protocol):
    r = in_child(f"""
        import pickle
        import numpy as np
        import kelma
        model = kelma.default_press_model()
        assert pickle.loads(pickle.dumps(model, {protocol})) == model
        clut = kelma.Clut.from_model(model, 5)
        inks = np.random.default_rng(1).integers(0, 256, (64, 4), dtype=np.uint8)
        assert np.array_equal(pickle.loads(pickle.dumps(clut, {protocol})).apply(inks), clut.apply(inks))
        """)
    assert r.returncode == 0, (r.returncode, r.stderr[-2000:])


@pytest.mark.parametrize("protocol", [0, 1])
def test_classes_without_pickling_refuse_every_protocol_with_a_type_error(protocol):
    r = in_child(f"""
        import pickle
        import kelma
        for obj in (kelma.LightingMatrix("D65"), kelma.Separation(kelma.default_press_model())):
            try:
                pickle.dumps(obj, {protocol})
            except TypeError:
                continue
            raise SystemExit("%s pickled" % type(obj).__name__)
        """)
    assert r.returncode == 0, (r.returncode, r.stderr[-2000:])


def test_evaluate_model_refuses_device_values_that_are_not_percentages():
    chart = kelma.MeasurementFile.from_text(
        "CGATS.17\nNUMBER_OF_FIELDS 36\nBEGIN_DATA_FORMAT\nSAMPLE_ID CMYK_C CMYK_M CMYK_Y CMYK_K "
        + " ".join("SPECTRAL_NM%d" % w for w in range(400, 701, 10))
        + "\nEND_DATA_FORMAT\nNUMBER_OF_SETS 2\nBEGIN_DATA\n"
        + "1 0 0 0 0 " + " ".join(["0.8"] * 31) + "\n"
        + "2 150 0 0 0 " + " ".join(["0.3"] * 31) + "\nEND_DATA\n", "percent.txt")
    model = kelma.default_press_model()
    with pytest.raises(ValueError, match="150"):
        kelma.evaluate_model(model, chart)
    spectra = chart.resample()
    for bad in (150.0, -5.0, 1e6):
        device = chart.device_values.copy()
        device[1, 0] = bad
        with pytest.raises(ValueError, match="device_values"):
            kelma.evaluate_model(model, (device, spectra))


@pytest.mark.parametrize("keyword", ["description", "copyright", "ink_names"])
def test_profile_texts_that_are_not_valid_unicode_raise_a_sentence(keyword):
    value = "Pr\udcfcfdruck"   # a Latin-1 byte decoded with surrogateescape, as sys.argv holds it
    if keyword == "ink_names":
        value = [value, "M", "Y", "K"]
    model = kelma.default_press_model()
    with pytest.raises((ValueError, TypeError)) as info:
        kelma.icc_profile(model, grid_points=3, **{keyword: value})
    assert "Unable to cast" not in str(info.value)
    assert keyword in str(info.value)


@pytest.mark.parametrize("call", [
    lambda: kelma.Separation(kelma.default_press_model()).inks([[1e39, 0.0, 0.0]]),
    lambda: kelma.LightingMatrix("D50").xyz(np.full((1, 31), 1e39)),
], ids=["Separation.inks", "LightingMatrix.xyz"])
def test_values_beyond_single_precision_are_named_without_a_numpy_warning(call):
    # resample says "1e+39 is outside the range of a 32-bit float"; these
    # said "must be finite, found inf" after numpy warned about the cast.
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(ValueError) as info:
            call()
    assert "1e+39" in str(info.value), str(info.value)
