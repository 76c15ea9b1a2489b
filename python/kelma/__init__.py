"""kelma: spectral printer-model library on numpy arrays.

Cellular Yule-Nielsen modified spectral Neugebauer prediction of halftone
prints (4, 6 or 7 inks), colorimetry (CIE XYZ, CIELAB, LAB2000HL), spectral
resampling, CGATS measurement files, model building and 8-bit colour look-up
tables. The computations live in the compiled extension ``kelma._kelma``; this
package re-exports them.
"""
from ._kelma import *  # noqa: F401,F403
from ._kelma import __doc__ as _extension_doc

__doc__ = (__doc__ or "") + "\n" + (_extension_doc or "")
