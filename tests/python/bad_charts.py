"""Bad measurement files shared by the tests of every front end that reads
charts: the table tests/measurement/data/bad_files.tsv (one fault per file and
the words the reader must say) and files that are not files (made on the spot)."""
import os
from collections import namedtuple

from reference import REPO

DATA = os.path.join(REPO, "tests", "measurement", "data")

BadFile = namedtuple("BadFile", "name path stage same_with_device problem")


def bad_files():
    rows = []
    with open(os.path.join(DATA, "bad_files.tsv"), encoding="utf-8") as f:
        for line in f:
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            name, stage, device, problem = line.split("\t")
            rows.append(BadFile(name, os.path.join(DATA, name), stage, device == "y", problem))
    return rows


def special_files(tmp_path):
    """(label, path, problem) for paths that are no regular file of a sane size."""
    fifo = tmp_path / "chart.fifo"
    os.mkfifo(fifo)
    big = tmp_path / "big.txt"
    with open(big, "wb") as f:
        f.write(b"CGATS.17\n")
        f.truncate((64 << 20) + 1)
    return [
        ("directory", tmp_path, "is a directory, not a measurement file"),
        ("/dev/zero", "/dev/zero", "is not a regular file (a device, FIFO or socket)"),
        ("fifo", fifo, "is not a regular file (a device, FIFO or socket)"),
        ("over 64 MiB", big, "larger than the 64 MiB a measurement file may have"),
    ]


SPECIAL_LABELS = ["directory", "/dev/zero", "fifo", "over 64 MiB"]
