"""kelma: spectral printer-model library on numpy arrays.

Cellular Yule-Nielsen modified spectral Neugebauer prediction of halftone
prints (4, 6 or 7 inks), colorimetry (CIE XYZ, CIELAB, LAB2000HL), spectral
resampling, CGATS measurement files, model building, model files and 8-bit
colour look-up tables. The computations live in the compiled extension
``kelma._kelma``; this package re-exports them. ``kelma.dask`` runs
prediction and CLUTs over dask arrays, chunk by chunk.
"""
import copyreg as _copyreg

from . import _kelma
from ._kelma import *  # noqa: F401,F403
from ._kelma import __doc__ as _extension_doc
from ._kelma import __version__

__doc__ = (__doc__ or "") + "\n" + (_extension_doc or "")


def _reduce_ex(self, protocol):
    """Pickles through cls.__new__ and __setstate__ at every protocol.

    An extension instance can only be rebuilt that way; pickle's own recipe
    for protocols 0 and 1 allocates it as a plain object, which ends the
    interpreter. Classes without __setstate__ do not pickle."""
    cls = type(self)
    if getattr(cls, "__setstate__", None) is None:
        raise TypeError("cannot pickle %r object" % cls.__name__)
    return (_copyreg.__newobj__, (cls,), self.__getstate__())


for _obj in list(vars(_kelma).values()):
    if isinstance(_obj, type) and type(_obj).__name__ == "pybind11_type":
        _obj.__reduce_ex__ = _reduce_ex
del _obj
