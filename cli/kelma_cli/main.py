"""Argument parsing and error reporting of the kelma command."""
import argparse
import os
import signal
import sys

from . import demo, evaluate, fit, predict, profile, proof, resample, separate
from .common import UserError

SUBCOMMANDS = (demo, predict, evaluate, fit, proof, resample, separate, profile)


def _version():
    import kelma
    return kelma.__version__


class _Parser(argparse.ArgumentParser):
    """argparse with kelma's failure convention: one line `kelma: error: ...`
    and exit status 1 for a bad command line too (the usage is one --help away)."""

    def error(self, message):
        command = self.prog[len("kelma"):].strip()
        where = ("%s: " % command) if command else ""
        hint = "kelma %s --help" % command if command else "kelma --help"
        self.exit(1, "kelma: error: %s%s (see %s)\n" % (where, message, hint))


def build_parser():
    """The parser of the whole command: one subparser per subcommand module."""
    parser = _Parser(prog="kelma", description="Predict how a halftone print will look.")
    parser.add_argument("--version", action="version", version="kelma %s" % _version())
    sub = parser.add_subparsers(dest="command", required=True)
    for module in SUBCOMMANDS:
        module.register(sub)
    return parser


class _Stopped(BaseException):
    """SIGTERM or SIGHUP: unwinds like Ctrl-C, so no temporary file is left."""

    def __init__(self, signum):
        super().__init__(signum)
        self.signum = signum


def _stop(signum, frame):
    raise _Stopped(signum)


def main(argv=None):
    args = build_parser().parse_args(argv)
    # A write in progress finishes (the library writes a temporary file and
    # renames it when complete), then the command ends: the output is the
    # earlier file or the complete new one, never a temporary file.
    for name in ("SIGTERM", "SIGHUP"):
        if hasattr(signal, name):
            signal.signal(getattr(signal, name), _stop)
    try:
        args.run(args)
    except BrokenPipeError:
        # The reader of standard output went away (kelma predict ... | head):
        # end quietly, with the status of a process ended by SIGPIPE, and keep
        # Python from reporting the failed flush at exit.
        try:
            devnull = os.open(os.devnull, os.O_WRONLY)
            os.dup2(devnull, sys.stdout.fileno())
        except (OSError, ValueError):
            pass
        return 128 + signal.SIGPIPE
    except (UserError, ValueError, TypeError, RuntimeError, OSError) as exc:
        sys.stderr.write("kelma: error: %s\n" % exc)
        return 1
    except MemoryError:
        sys.stderr.write("kelma: error: out of memory\n")
        return 1
    except KeyboardInterrupt:
        sys.stderr.write("kelma: interrupted\n")
        return 130
    except _Stopped as stop:
        sys.stderr.write("kelma: stopped by %s\n" % signal.Signals(stop.signum).name)
        return 128 + stop.signum
    except Exception as exc:  # a fault of kelma itself: still one line, never a traceback
        sys.stderr.write("kelma: error: internal error (%s: %s); please report it\n" % (type(exc).__name__, exc))
        return 1
    return 0
