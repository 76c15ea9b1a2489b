"""Sample tables in and out: ink values from CSV or CGATS (a file or standard
input), results as CGATS (built by the library through Little CMS) or CSV,
written to standard output or atomically to a file."""
import csv
import io
import os
import re
import stat
import sys
from pathlib import Path

import numpy as np

import kelma

from .common import UserError, check_ink_amounts, parse_number

STDIO = "-"
FORMATS = ("cgats", "csv")

# CSV header names of the sample ID column (any case).
ID_NAMES = ("SAMPLE_ID", "SAMPLE_NAME", "ID", "NAME", "SAMPLE")
# Device channel names: CGATS families, the bare letters C, M, Y, K or the
# colour names Cyan, Magenta, Yellow, Black (any case).
_DEVICE = re.compile(r"^(CMYK|CMY|[2-9A-F]CLR)_(\w+)$", re.IGNORECASE)
_CMYK = "CMYK"
_COLOUR_NAMES = {"CYAN": "C", "MAGENTA": "M", "YELLOW": "Y", "BLACK": "K"}


def standard_channel_names(inks):
    """CGATS device fields of an N-ink model: CMYK_C..CMYK_K, or nCLR_1..nCLR_n."""
    if inks == 4:
        return ["CMYK_%s" % c for c in _CMYK]
    return ["%XCLR_%d" % (inks, k + 1) for k in range(inks)]


def input_name(path):
    return "<stdin>" if path == STDIO else str(path)


def read_bytes(path, what="an input file"):
    """The whole input: standard input for '-', else a file (regular file or
    pipe; a directory or a device is refused before reading)."""
    if path == STDIO:
        return sys.stdin.buffer.read()
    p = Path(path)
    try:
        mode = p.stat().st_mode
    except FileNotFoundError:
        raise UserError("%s does not exist" % path)
    except OSError as exc:
        raise UserError("cannot open %s: %s" % (path, exc.strerror))
    if stat.S_ISDIR(mode):
        raise UserError("%s is a directory, not %s" % (path, what))
    if not (stat.S_ISREG(mode) or stat.S_ISFIFO(mode)):
        raise UserError("%s is not a regular file (a device or socket); give a file, or - for standard input" % path)
    try:
        return p.read_bytes()
    except OSError as exc:
        raise UserError("cannot read %s: %s" % (path, exc.strerror))


def decode(data):
    """Text of a file in the encodings the measurement reader takes: a UTF-8
    or UTF-16 byte order mark, UTF-8, else Windows-1252 (Latin-1)."""
    if data[:2] in (b"\xff\xfe", b"\xfe\xff"):
        try:
            return data.decode("utf-16")
        except UnicodeDecodeError:
            pass
    try:
        return data.decode("utf-8-sig")
    except UnicodeDecodeError:
        pass
    try:
        return data.decode("cp1252")
    except UnicodeDecodeError:
        return data.decode("latin-1")


def is_cgats(text):
    return re.search(r"^[ \t]*BEGIN_DATA_FORMAT\b", text, re.MULTILINE) is not None


class InkTable:
    """Samples to predict: IDs, device channel names, digital levels (uint8,
    samples x inks) and the ink amounts in percent as the output writes them."""

    def __init__(self, ids, channel_names, levels, percent):
        self.ids = ids
        self.channel_names = channel_names
        self.levels = levels
        self.percent = percent


def _rows(text, name, whitespace):
    """(line number, fields) of the non-empty, non-comment lines."""
    if whitespace:
        for number, line in enumerate(text.splitlines(), 1):
            fields = line.split()
            if fields and not fields[0].startswith("#"):
                yield number, fields
        return
    reader = csv.reader(io.StringIO(text, newline=""), skipinitialspace=True)
    try:
        for fields in reader:
            fields = [f.strip() for f in fields]
            if any(fields) and not fields[0].startswith("#"):
                yield reader.line_num, fields
    except csv.Error as exc:
        raise UserError("%s line %d: %s" % (name, reader.line_num, exc))


def _ink_of(header_name):
    """The ink (0-based) a header name stands for: CMYK_C..CMYK_K, C..K, Cyan..Black (any case) or nCLR_k;
    None for any other name."""
    h = header_name.upper()
    m = _DEVICE.match(h)
    member = m.group(2) if m else _COLOUR_NAMES.get(h, h)
    if member in tuple(_CMYK):
        return _CMYK.index(member)
    if m and member.isdigit() and int(member) >= 1:
        return int(member) - 1
    return None


def _ink_columns(header, inks, name):
    """Indices of the ID column (or None) and of the ink columns of a header
    row, in ink order. Columns named after inks are taken by name, and then
    every ink must be named exactly once (other columns are ignored); a
    header with one column per ink that names no ink, or names some inks each
    in its own column, gives the columns in order."""
    upper = [h.upper() for h in header]
    id_col = next((i for i, h in enumerate(upper) if h in ID_NAMES), None)
    others = [i for i in range(len(header)) if i != id_col]
    ink = {i: _ink_of(header[i]) for i in others}
    named = [i for i in others if ink[i] is not None]
    if not named or len(others) < inks:
        if len(others) != inks:
            raise UserError("%s: the header names %d value columns (%s); the model has %d inks: give one column "
                            "per ink (e.g. %s), optionally a SAMPLE_ID column"
                            % (name, len(others), ", ".join(header[i] for i in others), inks,
                               ",".join(standard_channel_names(inks))))
        return id_col, others
    by_ink = {}
    for i in named:
        if ink[i] >= inks:
            raise UserError("%s: the header names the ink %s, but the model has %d inks (%s)"
                            % (name, header[i], inks, ",".join(standard_channel_names(inks))))
        if ink[i] in by_ink:
            raise UserError("%s: the header names one ink twice (%s and %s)" % (name, header[by_ink[ink[i]]], header[i]))
        by_ink[ink[i]] = i
    if len(by_ink) != inks and len(others) == inks and all(
            ink[i] is None or ink[i] == k for k, i in enumerate(others)):
        # Some inks named, each in its own column (C,M,Y,K,O,G for six inks):
        # the columns in order.
        return id_col, others
    if len(by_ink) != inks:
        missing = [standard_channel_names(inks)[k] for k in range(inks) if k not in by_ink]
        unknown = [header[i] for i in others if ink[i] is None]
        raise UserError("%s: the header names %d of the model's %d inks (%s) and lacks %s%s; name every ink "
                        "column (e.g. %s) or none"
                        % (name, len(by_ink), inks, ", ".join(header[i] for i in named), ", ".join(missing),
                           "; %s %s no ink name%s" % (", ".join(unknown), "are" if len(unknown) > 1 else "is",
                                                       "s" if len(unknown) > 1 else "") if unknown else "",
                           ",".join(standard_channel_names(inks))))
    return id_col, [by_ink[k] for k in range(inks)]


def read_ink_table(path, inks, digital=False, whitespace=False):
    """Ink values of `inks` channels from a CSV or CGATS file, or standard input."""
    name = input_name(path)
    data = read_bytes(path, "a file of ink values")
    text = decode(data)
    if is_cgats(text):
        if digital:
            raise UserError("%s is a CGATS file, whose device values are percent; --digital applies to CSV input"
                            % name)
        chart = kelma.MeasurementFile.from_text(data, name, "device")
        if len(chart.channel_names) != inks:
            raise UserError("%s has %d device channels (%s); the model has %d inks"
                            % (name, len(chart.channel_names), ", ".join(chart.channel_names), inks))
        values = chart.device_values
        ids = chart.sample_ids
        check_ink_amounts(values, False, lambda r, c: "%s: sample %s, field %s" % (name, ids[r], chart.channel_names[c]))
        return InkTable(ids, list(chart.channel_names), kelma.digital_levels(values), values)

    rows = list(_rows(text, name, whitespace))
    if not rows:
        raise UserError("%s holds no samples" % name)
    first = rows[0][1]
    header = None
    if all(parse_number(f) is None for f in first):
        header, rows = first, rows[1:]
        if not rows:
            raise UserError("%s holds a header row but no samples" % name)
        id_col, columns = _ink_columns(header, inks, name)
        width = len(header)
    else:
        width = len(first)
        if width == inks:
            id_col, columns = None, list(range(inks))
        elif width == inks + 1:
            id_col, columns = 0, list(range(1, inks + 1))
        else:
            raise UserError("%s has %d columns; the model has %d inks (one column per ink, optionally a sample "
                            "ID first)" % (name, width, inks))

    def column_name(c):
        return header[c] if header else "column %d" % (c + 1)

    ids, values, lines = [], np.empty((len(rows), inks)), []
    for r, (line, fields) in enumerate(rows):
        if len(fields) != width:
            raise UserError("%s line %d has %d fields, expected %d" % (name, line, len(fields), width))
        for k, c in enumerate(columns):
            v = parse_number(fields[c])
            if v is None:
                raise UserError("%s line %d, %s: %r is not a number" % (name, line, column_name(c), fields[c]))
            values[r, k] = v
        ids.append(fields[id_col] if id_col is not None else str(r + 1))
        lines.append(line)
    check_ink_amounts(values, digital,
                      lambda r, k: "%s line %d, %s" % (name, lines[r], column_name(columns[k])))
    if digital:
        levels = values.astype(np.uint8)
        return InkTable(ids, standard_channel_names(inks), levels, kelma.ink_percent(levels))
    return InkTable(ids, standard_channel_names(inks), kelma.digital_levels(values), values)


def output_format(requested, out):
    """The output format: as asked, else CSV for a .csv file, else CGATS."""
    if requested:
        return requested
    return "csv" if out != STDIO and Path(out).suffix.lower() == ".csv" else "cgats"


def _csv_field(value):
    return '"' + str(value).replace('"', '""') + '"'


def csv_text(ids, channel_names, device, groups):
    """CSV with a header row; IDs and names quoted, numbers not. groups:
    (field names, values (samples x fields), printf format) in order."""
    names = ["SAMPLE_ID"] + list(channel_names) + [n for g in groups for n in g[0]]
    lines = [",".join(_csv_field(n) for n in names)]
    formats = ["%.10g"] * len(channel_names) + [g[2] for g in groups for _ in g[0]]
    blocks = ([np.asarray(device, dtype=np.float64)] if len(channel_names) else []) + [np.asarray(g[1]) for g in groups]
    for i, sid in enumerate(ids):
        values = [v for b in blocks for v in b[i].tolist()]
        lines.append(",".join([_csv_field(sid)] + [f % v for f, v in zip(formats, values)]))
    return "\n".join(lines) + "\n"


def emit(out, text, what):
    """Writes text to standard output ('-') or atomically to exactly `out`."""
    if out == STDIO:
        # os.write reports a closed pipe (BrokenPipeError) where a large
        # sys.stdout.write after a partial write may not.
        sys.stdout.flush()
        data = memoryview(text.encode("utf-8"))
        try:
            while data:
                data = data[os.write(sys.stdout.fileno(), data):]
        except BrokenPipeError:
            raise
        except OSError as exc:
            raise UserError("cannot write standard output: %s" % (exc.strerror or exc))
        return
    if Path(out).is_dir():
        raise UserError("%s %s is a directory; give a file name" % (what, out))
    kelma.write_file_atomically(out, text)


def check_output_path(out, what, inputs=()):
    """Refuses an output that cannot be written, or that is one of the
    command's input files (writing it would replace what was read), before
    any work is done."""
    if out == STDIO:
        return
    if not str(out):
        raise UserError("%s is empty; give a file name" % what)
    p = Path(out)
    if p.is_dir():
        raise UserError("%s %s is a directory; give a file name" % (what, out))
    if not p.parent.is_dir():
        raise UserError("%s %s: the folder %s does not exist" % (what, out, p.parent))
    for source in inputs:
        if source is None or str(source) == STDIO:
            continue
        try:
            same = os.path.samefile(p, source)
        except OSError:  # either one does not exist yet: not the same file
            same = False
        if same:
            raise UserError("%s %s is the input file %s; give the output another name (it would replace the input)"
                            % (what, out, source))
