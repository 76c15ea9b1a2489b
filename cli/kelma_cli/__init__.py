"""The ``kelma`` command-line tool: one module per subcommand.

Every subcommand orchestrates the kelma Python module and validates its
input; the computations are the library's. Errors are reported as one line
``kelma: error: ...`` on stderr with exit status 1, never a traceback.
"""
import sys

try:
    import kelma  # noqa: F401  (every subcommand needs it)
except ImportError as _exc:  # one line for the user, not a traceback
    if isinstance(_exc, ModuleNotFoundError) and _exc.name in ("kelma", "kelma._kelma"):
        _why = "cannot find the kelma Python module (%s); install kelma, or run the tool from a built " \
               "checkout" % _exc
    else:  # found but refused to load, e.g. KELMA_KERNELS names no kernel variant
        _why = "cannot load the kelma Python module: %s" % _exc
    sys.stderr.write("kelma: error: %s\n" % _why)
    sys.exit(1)
