"""Argument parsing and error reporting of the kelma command."""
import argparse
import sys

from . import demo, evaluate, fit, predict, profile, proof, resample, separate
from .common import UserError

SUBCOMMANDS = (demo, predict, evaluate, fit, proof, resample, separate, profile)


def _version():
    import kelma
    return kelma.__version__


def main(argv=None):
    parser = argparse.ArgumentParser(prog="kelma", description="Predict how a halftone print will look.")
    parser.add_argument("--version", action="version", version="kelma %s" % _version())
    sub = parser.add_subparsers(dest="command", required=True)
    for module in SUBCOMMANDS:
        module.register(sub)
    args = parser.parse_args(argv)
    try:
        args.run(args)
    except (UserError, ValueError, TypeError, RuntimeError, OSError) as exc:
        sys.stderr.write("kelma: error: %s\n" % exc)
        return 1
    except KeyboardInterrupt:
        sys.stderr.write("kelma: interrupted\n")
        return 130
    return 0
