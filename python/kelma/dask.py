"""Prediction and CLUT application over dask arrays, chunk by chunk.

For work larger than one machine holds (a press's whole colour archive, every
frame of a print run): the same computations as ``kelma.predict_spectra``,
``kelma.predict_colors`` and ``Clut.apply``, as lazy dask arrays whose chunks
run wherever dask runs them (threads, processes, a ``distributed`` cluster)::

    import dask.array as da
    import kelma
    import kelma.dask

    inks = da.from_array(archive, chunks=(1_000_000, 4))     # uint8 (..., 4)
    spectra = kelma.dask.predict_spectra(model, inks)        # lazy float32 (..., 31)
    spectra.to_zarr("spectra.zarr")                          # or .compute(), ...

The model (or CLUT) is one node of the task graph (a ``dask.delayed`` value)
that every chunk task depends on, so it is pickled into the graph once and a
distributed scheduler copies it to each worker once, not once per chunk.
Models and CLUTs pickle exactly, and every chunk is predicted by the library
itself, so each output chunk holds the bits the in-process call gives for
those samples: results do not depend on the chunking, the workers or a worker
that died and whose tasks were run again.

Chunks along the channel (last) axis are merged into one first; every other
axis may be chunked freely. Arguments are checked here, before anything is
computed, with the in-process functions' errors.
"""
from __future__ import annotations

import hashlib
import pickle
from typing import Any, Optional, Tuple

import numpy as np
import numpy.typing as npt

import dask
import dask.array as da
from dask.delayed import Delayed

from . import _kelma

__all__ = ["predict_spectra", "predict_colors", "apply_clut", "shipped"]


def shipped(obj: Any) -> Delayed:
    """``obj`` (a Model or Clut) as one node of a task graph, named after its
    pickled content: graphs built from equal models share that node."""
    digest = hashlib.sha1(pickle.dumps(obj, protocol=pickle.HIGHEST_PROTOCOL)).hexdigest()
    return dask.delayed(obj, name="kelma-%s-%s" % (type(obj).__name__.lower(), digest), traverse=False)


def _as_records(array: Any, name: str, channels: int, what: str) -> da.Array:
    """A dask array of uint8 records with `channels` values on its last axis,
    that axis in one chunk."""
    a = array if isinstance(array, da.Array) else da.asarray(np.asarray(array))
    if a.dtype != np.uint8:
        raise TypeError("%s must be a uint8 array, got dtype %s (convert with np.asarray(x, dtype=np.uint8) after "
                        "checking the range)" % (name, a.dtype))
    if a.ndim < 1 or a.shape[-1] != channels:
        raise ValueError("%s must have %d values (%s) on its last axis, got shape %s"
                         % (name, channels, what, a.shape))
    if any(s == 0 for s in a.shape[:-1]):
        raise ValueError("%s holds no record (shape %s): empty batch" % (name, a.shape))
    if a.numblocks[-1] != 1:
        a = a.rechunk({a.ndim - 1: channels})
    return a


def _map(block_function, records: da.Array, thing: Delayed, trailing: Tuple[int, ...], dtype, **kwargs) -> da.Array:
    """Maps each chunk (..., channels) to (..., *trailing)."""
    lead = records.ndim - 1
    chunks = records.chunks[:-1] + tuple((n,) for n in trailing)
    new_axes = list(range(records.ndim, lead + len(trailing))) if len(trailing) > 1 else None
    return da.map_blocks(block_function, records, thing, trailing=trailing, dtype=dtype, chunks=chunks,
                         new_axis=new_axes, meta=np.empty((0,) * (lead + len(trailing)), dtype), **kwargs)


def _empty(block: np.ndarray, trailing: Tuple[int, ...], dtype) -> Optional[np.ndarray]:
    # dask may hand a function empty chunks; the library refuses empty batches.
    return np.empty(block.shape[:-1] + trailing, dtype) if block.size == 0 else None


def _spectra_block(block, model, trailing, padded):
    empty = _empty(block, trailing, np.float32)
    return empty if empty is not None else _kelma.predict_spectra(model, block, padded=padded)


def _colors_block(block, model, trailing, encoding, illuminant, media_relative):
    empty = _empty(block, trailing, np.uint8)
    if empty is not None:
        return empty
    return _kelma.predict_colors(model, block, encoding=encoding, illuminant=illuminant,
                                 media_relative=media_relative)


def _clut_block(block, clut, trailing):
    empty = _empty(block, trailing, np.uint8)
    return empty if empty is not None else clut.apply(block)


def predict_spectra(model: _kelma.Model, inks: npt.ArrayLike, *, padded: bool = False) -> da.Array:
    """Spectral reflectance of ink combinations, chunk by chunk.

    model: a kelma.Model. inks: uint8 (..., N) dask array (or array-like).
    Returns a lazy float32 (..., 31) dask array ((..., 32) with padded=True),
    chunked as inks along the leading axes: kelma.predict_spectra per chunk.
    """
    if not isinstance(model, _kelma.Model):
        raise TypeError("model must be a kelma.Model, got %s" % type(model).__name__)
    records = _as_records(inks, "inks", model.inks, "one byte per ink")
    trailing = (32 if padded else 31,)
    return _map(_spectra_block, records, shipped(model), trailing, np.float32, padded=padded)


def predict_colors(model: _kelma.Model, inks: npt.ArrayLike, *, encoding: str = "lab2000hl",
                   illuminant: Optional[int] = None, media_relative: Optional[bool] = None) -> da.Array:
    """Colour bytes of ink combinations, chunk by chunk: kelma.predict_colors
    (same arguments, same output shape) per chunk of a lazy uint8 dask array."""
    if not isinstance(model, _kelma.Model):
        raise TypeError("model must be a kelma.Model, got %s" % type(model).__name__)
    records = _as_records(inks, "inks", model.inks, "one byte per ink")
    # The in-process call on one sample checks the arguments and gives the
    # output's trailing shape ((L, 3) or (3,)).
    probe = _kelma.predict_colors(model, np.zeros((1, model.inks), np.uint8), encoding=encoding,
                                  illuminant=illuminant, media_relative=media_relative)
    return _map(_colors_block, records, shipped(model), probe.shape[1:], np.uint8, encoding=encoding,
                illuminant=illuminant, media_relative=media_relative)


def apply_clut(clut: _kelma.Clut, pixels: npt.ArrayLike) -> da.Array:
    """A CLUT applied to pixels, chunk by chunk: uint8 (..., clut.input_channels)
    to a lazy uint8 (..., clut.output_channels) dask array, Clut.apply per chunk."""
    if not isinstance(clut, _kelma.Clut):
        raise TypeError("clut must be a kelma.Clut, got %s" % type(clut).__name__)
    records = _as_records(pixels, "pixels", clut.input_channels, "one byte per input channel")
    return _map(_clut_block, records, shipped(clut), (clut.output_channels,), np.uint8)
