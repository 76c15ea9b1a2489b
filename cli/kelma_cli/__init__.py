"""The ``kelma`` command-line tool: one module per subcommand.

Every subcommand orchestrates the kelma Python module and validates its
input; the computations are the library's. Errors are reported as one line
``kelma: error: ...`` on stderr with exit status 1, never a traceback.
"""
