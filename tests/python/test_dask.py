"""kelma.dask: prediction and CLUTs over dask arrays give the in-process bits,
on local schedulers and on a two-process distributed cluster, also when a
worker dies in the middle of the computation."""
import os
import signal
import time

import numpy as np
import pytest

import kelma

da = pytest.importorskip("dask.array", reason="python3-dask is not installed")
distributed = pytest.importorskip("distributed", reason="python3-distributed is not installed")
import kelma.dask  # noqa: E402  (needs dask)

from conftest import build  # noqa: E402


def same_bits(a, b):
    a, b = np.asarray(a), np.asarray(b)
    return a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes()


@pytest.fixture(scope="module")
def model():
    return kelma.default_press_model(illuminants=["D50", "D65"])


@pytest.fixture(scope="module")
def image():
    return np.random.default_rng(3).integers(0, 256, (70, 90, 4), dtype=np.uint8)


class TestLocal:
    def test_spectra_colors_and_cluts_are_the_in_process_bits(self, model, image):
        inks = da.from_array(image, chunks=(17, (20, 50, 20), 4))   # irregular chunks
        for scheduler in ("sync", "threads"):
            got = kelma.dask.predict_spectra(model, inks).compute(scheduler=scheduler)
            assert same_bits(got, kelma.predict_spectra(model, image))
            padded = kelma.dask.predict_spectra(model, inks, padded=True).compute(scheduler=scheduler)
            assert same_bits(padded, kelma.predict_spectra(model, image, padded=True))
        both = kelma.dask.predict_colors(model, inks, encoding="cielab")
        assert both.shape == (70, 90, 2, 3)
        assert same_bits(both.compute(), kelma.predict_colors(model, image, encoding="cielab"))
        one = kelma.dask.predict_colors(model, inks, illuminant=1, media_relative=True)
        assert same_bits(one.compute(), kelma.predict_colors(model, image, illuminant=1, media_relative=True))
        clut = kelma.Clut.from_model(model, 9, illuminant=0)
        assert same_bits(kelma.dask.apply_clut(clut, inks).compute(), clut.apply(image))

    def test_the_channel_axis_may_be_chunked_and_numpy_input_is_taken(self, model, image):
        split = da.from_array(image, chunks=(35, 45, 2))
        assert same_bits(kelma.dask.predict_spectra(model, split).compute(), kelma.predict_spectra(model, image))
        assert same_bits(kelma.dask.predict_spectra(model, image).compute(), kelma.predict_spectra(model, image))

    def test_the_model_is_one_node_of_the_graph(self, model, image):
        spectra = kelma.dask.predict_spectra(model, da.from_array(image, chunks=(10, 10, 4)))
        graph = dict(spectra.__dask_graph__())
        holders = [key for key, value in graph.items() if isinstance(value, kelma.Model)]
        assert len(holders) == 1 and spectra.npartitions == 63
        # Equal models share the node, so one computation of both ships one model.
        again = kelma.dask.predict_colors(pickle_copy(model), da.from_array(image, chunks=(10, 10, 4)))
        assert holders[0] in dict(again.__dask_graph__())

    def test_arguments_are_checked_before_anything_runs(self, model, image):
        with pytest.raises(TypeError, match="uint8"):
            kelma.dask.predict_spectra(model, da.from_array(image.astype(np.int16)))
        with pytest.raises(ValueError, match="4 values"):
            kelma.dask.predict_spectra(model, da.from_array(image[..., :3]))
        with pytest.raises(ValueError, match="empty batch"):
            kelma.dask.predict_spectra(model, da.zeros((0, 4), dtype=np.uint8))
        with pytest.raises(ValueError, match="illuminant"):
            kelma.dask.predict_colors(model, image, illuminant=5)
        with pytest.raises(TypeError, match="kelma.Model"):
            kelma.dask.predict_spectra("model", image)


def pickle_copy(obj):
    import pickle
    return pickle.loads(pickle.dumps(obj))


@pytest.fixture(scope="module")
def client(tmp_path_factory):
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                       local_directory=str(tmp_path_factory.mktemp("dask")),
                                       silence_logs=40)
    c = distributed.Client(cluster)
    yield c
    c.close()
    cluster.close()


class TestDistributed:
    def test_two_worker_processes_give_the_in_process_bits(self, client, model, image):
        assert len(client.scheduler_info()["workers"]) == 2
        inks = da.from_array(image, chunks=(10, 30, 4))
        assert same_bits(kelma.dask.predict_spectra(model, inks).compute(), kelma.predict_spectra(model, image))
        assert same_bits(kelma.dask.predict_colors(model, inks).compute(), kelma.predict_colors(model, image))
        clut = kelma.Clut.from_model(model, 9, illuminant=1)
        assert same_bits(kelma.dask.apply_clut(clut, inks).compute(), clut.apply(image))
        # Each worker process ran chunks and received the model by pickling.
        ran_on = client.run(lambda: os.getpid())
        assert len(set(ran_on.values())) == 2 and os.getpid() not in ran_on.values()

    def test_a_worker_killed_mid_computation_costs_no_chunk(self, client):
        # A 7-ink model in byte mode: chunks slow enough to kill a worker between them.
        from reference import BeerLambertModel
        seven = build(BeerLambertModel(7, 3, 2.0, seed=3), illuminants=["D50", "A"])
        inks = da.random.RandomState(11).randint(0, 256, size=(1_600_000, 7), chunks=(40_000, 7), dtype=np.uint8)
        expected = kelma.predict_colors(seven, inks.compute())
        colors = kelma.dask.predict_colors(seven, inks).persist()
        futures = distributed.futures_of(colors)
        assert len(futures) == 40
        deadline = time.monotonic() + 60
        while sum(f.done() for f in futures) < 3:
            assert time.monotonic() < deadline, "no chunk finished in 60 s"
            time.sleep(0.005)
        # Kill the worker holding most finished chunks: they are lost and must be made again.
        holders = client.who_has(futures)
        counts = {}
        for addresses in holders.values():
            for address in addresses:
                counts[address] = counts.get(address, 0) + 1
        victim = max(counts, key=counts.get)
        pid = client.run(os.getpid, workers=[victim])[victim]
        pending = sum(not f.done() for f in futures)
        os.kill(pid, signal.SIGKILL)
        assert pending > 0, "every chunk had finished before the worker was killed"
        got = colors.compute()
        assert same_bits(got, expected)
        # The nanny restarts the dead worker: two worker processes again, one new.
        deadline = time.monotonic() + 30
        while True:
            pids = client.run(os.getpid)
            if len(pids) == 2 and pid not in pids.values():
                break
            assert time.monotonic() < deadline, "the killed worker was not replaced"
            time.sleep(0.1)
