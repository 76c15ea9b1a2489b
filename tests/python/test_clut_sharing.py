"""One CLUT object used from several Python threads at once, and its copies:
apply releases the GIL, so the threads' calls overlap; each must give the
bytes a serial call gives, whatever the other threads are doing, and a copy
applies the same table as its source, also while both run at once."""
import copy
import pickle
import threading

import numpy as np
import pytest

import kelma


def _shapes(rng):
    return [("4x3", kelma.Clut.from_nodes(rng.integers(0, 256, (17, 17, 17, 17, 3), dtype=np.uint8))),
            ("3x3", kelma.Clut.from_nodes(rng.integers(0, 256, (17, 17, 17, 3), dtype=np.uint8))),
            ("3x7 lab", kelma.Clut.from_nodes(rng.integers(0, 256, (9, 9, 9, 7), dtype=np.uint8), in_lab=True)),
            ("from model", kelma.Clut.from_model(kelma.default_press_model(), 9))]


def _concurrently(jobs, rounds=20):
    """Runs every job `rounds` times on its own thread, all started together;
    returns the mismatches and exceptions."""
    problems = []
    start = threading.Barrier(len(jobs))

    def work(index, call, expected):
        try:
            start.wait()
            for r in range(rounds):
                got = call()
                if not np.array_equal(got, expected):
                    problems.append(f"job {index}, round {r}: {np.count_nonzero(got != expected)} bytes differ")
        except Exception as exc:  # reported on the test's thread
            problems.append(f"job {index}: {type(exc).__name__}: {exc}")

    threads = [threading.Thread(target=work, args=(i, call, expected)) for i, (call, expected) in enumerate(jobs)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return problems


@pytest.mark.parametrize("threads", [1, 2, 3])
def test_one_clut_applied_from_several_python_threads_gives_the_serial_bytes(threads):
    rng = np.random.default_rng(21)
    kelma.set_cpu_count_override(threads)
    for name, clut in _shapes(rng):
        d = clut.input_channels
        # Batches of different sizes (a single pixel up to one that needs
        # every worker), so the calls' slices differ.
        batches = [rng.integers(0, 256, (size, d), dtype=np.uint8) for size in (1, 17, 5003, 400000)]
        expected = [clut.apply(b) for b in batches]
        jobs = [(lambda b=b: clut.apply(b), e) for b, e in zip(batches, expected)]
        assert _concurrently(jobs) == [], name


def test_copies_apply_the_same_table_alone_and_while_the_source_runs():
    rng = np.random.default_rng(22)
    kelma.set_cpu_count_override(2)
    for name, clut in _shapes(rng):
        d = clut.input_channels
        pixels = rng.integers(0, 256, (300001, d), dtype=np.uint8)
        expected = clut.apply(pixels)
        copies = [copy.copy(clut), copy.deepcopy(clut), pickle.loads(pickle.dumps(clut))]
        for c in copies:
            assert (c.input_channels, c.output_channels, c.grid_points, c.in_lab) == \
                (clut.input_channels, clut.output_channels, clut.grid_points, clut.in_lab)
            np.testing.assert_array_equal(c.apply(pixels), expected, err_msg=name)
        jobs = [(lambda c=c: c.apply(pixels), expected) for c in [clut] + copies]
        assert _concurrently(jobs, rounds=8) == [], name
        # The source gone, its copies still hold the table.
        del clut
        np.testing.assert_array_equal(copies[0].apply(pixels[:1000]), expected[:1000], err_msg=name)


def test_out_buffers_of_concurrent_calls_are_not_mixed():
    rng = np.random.default_rng(23)
    kelma.set_cpu_count_override(2)
    clut = kelma.Clut.from_nodes(rng.integers(0, 256, (9, 9, 9, 9, 3), dtype=np.uint8))
    inputs = [rng.integers(0, 256, (200000, 4), dtype=np.uint8) for _ in range(3)]
    expected = [clut.apply(p) for p in inputs]
    outs = [np.zeros((200000, 3), np.uint8) for _ in inputs]

    def job(p, o):
        o[:] = 0
        assert clut.apply(p, out=o) is o
        return o.copy()

    jobs = [(lambda p=p, o=o: job(p, o), e) for p, o, e in zip(inputs, outs, expected)]
    assert _concurrently(jobs) == []
