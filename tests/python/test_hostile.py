"""Arguments a hostile user would pass: every call raises TypeError,
ValueError or MemoryError with a sentence, never pybind11's "Unable to cast",
never a bare library tag, never a crash (each case runs in this process, so
a crash fails the whole suite)."""
import re

import numpy as np
import pytest

import kelma

TAGS = ("DefaultCase", "Invalid IlluminantIndex", "Wavelength-list has less than 2 elements",
        "Invalid wavelength range")


@pytest.fixture(scope="module")
def press():
    return kelma.default_press_model()


@pytest.fixture(scope="module")
def clut(press):
    return kelma.Clut.from_model(press, 5)


def huge(shape_tail, dtype=np.uint8):
    """A broadcast array far larger than any machine's memory once copied."""
    return np.broadcast_to(np.zeros(shape_tail, dtype), (2 ** 38,) + tuple(shape_tail))


CASES = [
    # Batches too large to copy: MemoryError, not a crash.
    ("predict_spectra huge", lambda m, c: kelma.predict_spectra(m, huge((4,))), MemoryError, "allocate"),
    ("predict_colors huge", lambda m, c: kelma.predict_colors(m, huge((4,))), MemoryError, "allocate"),
    ("predict_lab huge", lambda m, c: kelma.predict_lab(m, huge((4,))), MemoryError, "allocate"),
    ("Clut.apply huge", lambda m, c: c.apply(huge((4,))), MemoryError, "allocate"),
    ("dispatcher apply huge", lambda m, c: kelma.SubModelDispatcher(m, [0xF], 5).apply(huge((4,))), MemoryError,
     "allocate"),
    ("lab2000hl bytes huge", lambda m, c: kelma.LightingMatrix("D50", 2).media_relative_lab2000hl_bytes(
        huge((3,))), MemoryError, "allocate"),
    ("xyz of spectra huge", lambda m, c: kelma.LightingMatrix("D50", 2).xyz(huge((31,), np.float32)), MemoryError,
     "allocate"),
    ("resample huge", lambda m, c: kelma.resample(huge((3,), np.float32), [400.0, 550.0, 700.0]), MemoryError,
     "allocate"),
    ("delta_e_2000 huge", lambda m, c: kelma.delta_e_2000(huge((3,), np.float64), np.zeros(3)), MemoryError,
     "allocate"),
    ("digital_levels huge", lambda m, c: kelma.digital_levels(huge((1,), np.float64)), MemoryError, "allocate"),
    # Integers beyond every C type: ValueError naming the value.
    ("observer 2**70", lambda m, c: kelma.default_press_model("D50", 2 ** 70), ValueError, "observer must be 2"),
    ("observer -1", lambda m, c: kelma.LightingMatrix("D50", -1), ValueError, "got -1"),
    ("sub_model 2**80", lambda m, c: m.sub_model(2 ** 80), ValueError, "ink-subset code must be a 32-bit mask"),
    ("dispatcher codes [2**80]", lambda m, c: kelma.SubModelDispatcher(m, [2 ** 80], 5), ValueError, "32-bit mask"),
    ("illuminant 2**70", lambda m, c: kelma.predict_colors(m, np.zeros((1, 4), np.uint8), illuminant=2 ** 70),
     ValueError, "illuminant index must be in 0..0"),
    ("ink_set 2**40", lambda m, c: kelma.default_press_model(ink_set=2 ** 40), ValueError, "ink_set must be"),
    ("threads 2**80", lambda m, c: kelma.set_cpu_count_override(2 ** 80), ValueError, "override must be"),
    ("max_iterations 0", lambda m, c: kelma.build_model((np.zeros((1, 4)), np.full((1, 31), 0.5)), [0, 100],
                                                         max_iterations=0), ValueError, "max_iterations must be"),
    # Wrong types: TypeError naming the argument.
    ("media_relative 'yes'", lambda m, c: kelma.predict_colors(m, np.zeros((1, 4), np.uint8), media_relative="yes"),
     TypeError, "media_relative must be True or False"),
    ("observer 2.5", lambda m, c: kelma.default_press_model("D50", 2.5), TypeError, "observer must be an integer"),
    ("illuminant True", lambda m, c: kelma.predict_lab(m, np.zeros((1, 4), np.uint8), illuminant=True), TypeError,
     "illuminant"),
    ("threads '4'", lambda m, c: kelma.set_cpu_count_override("4"), TypeError, "must be an integer"),
    ("inks float", lambda m, c: kelma.predict_spectra(m, np.full((2, 4), 50.0)), TypeError,
     "digital levels 0..255 .*kelma.digital_levels"),
    ("inks ragged", lambda m, c: kelma.predict_spectra(m, [[1, 2, 3, 4], [1]]), TypeError, "must be an array"),
    ("inks None", lambda m, c: kelma.predict_spectra(m, None), TypeError, "got None"),
    ("inks object", lambda m, c: kelma.predict_spectra(m, np.array([object()] * 4)), TypeError, "uint8"),
    ("clut pixels float", lambda m, c: c.apply(np.zeros((2, 4))), TypeError, "uint8"),
    ("resample method 3", lambda m, c: kelma.resample(np.zeros((1, 3)), [400.0, 550.0, 700.0], 3), TypeError,
     "method"),
    ("resample wavelengths in micrometres", lambda m, c: kelma.resample(np.zeros((1, 3)), [0.4, 0.55, 0.7]),
     ValueError, "micrometres"),
    ("clut from_model grid 2**70", lambda m, c: kelma.Clut.from_model(m, 2 ** 70), ValueError,
     "grid_points must be 2..256 .*, got 1180591620717411303424"),
    ("clut from_model grid 17.0", lambda m, c: kelma.Clut.from_model(m, 17.0), TypeError, "grid_points must be an int"),
    ("dispatcher illuminant 2**70", lambda m, c: kelma.SubModelDispatcher(m, [0xF], 5).set_illuminant(2 ** 70),
     ValueError, "illuminant index must be in 0..0"),
    # Library failures explained, with their tag only as a reference.
    ("sub_model of 3 inks", lambda m, c: m.sub_model(0x7), ValueError, "selects 3 of the model's 4 inks"),
    ("clut 4 in 4 out", lambda m, c: kelma.Clut.from_nodes(np.zeros((3, 3, 3, 3, 4), np.uint8)), ValueError,
     "4"),
]


@pytest.mark.parametrize("name, call, error, match", CASES, ids=[c[0] for c in CASES])
def test_bad_arguments_raise_python_errors_with_a_sentence(press, clut, name, call, error, match):
    with pytest.raises(error) as info:
        call(press, clut)
    message = str(info.value)
    assert re.search(match, message), message
    assert "Unable to cast" not in message
    for tag in TAGS:
        assert not message.startswith(tag), message
        if tag in message:
            assert '(library error "%s")' % tag in message, message


def test_strided_and_fortran_inputs_predict_what_contiguous_ones_do(press):
    inks = np.random.default_rng(3).integers(0, 256, (40, 8), dtype=np.uint8)
    strided = inks[:, ::2]
    expected = kelma.predict_spectra(press, np.ascontiguousarray(strided))
    np.testing.assert_array_equal(kelma.predict_spectra(press, strided), expected)
    np.testing.assert_array_equal(kelma.predict_spectra(press, np.asfortranarray(strided)), expected)
    np.testing.assert_array_equal(kelma.predict_spectra(press, strided[::-1])[::-1], expected)
