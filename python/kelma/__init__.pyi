# Type stubs of the kelma package: the extension's names, re-exported.
from ._kelma import *
from ._kelma import __version__ as __version__
