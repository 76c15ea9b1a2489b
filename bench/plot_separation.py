#!/usr/bin/python3
"""Pictures of the separation from the curves bench_separation writes:

    build/bench/bench_separation --csv /tmp/sep
    /usr/bin/python3 bench/plot_separation.py /tmp/sep docs

docs/separation_neutral.png: ink amounts along the neutral axis (a* = b* = 0,
relative to the paper) at GCR 50, with black for GCR 0, 25, 75 and 100, for
the 4-ink press model and the 7-ink press-like model.
docs/separation_hue.png: ink amounts around a hue circle of L* 60, C* 60;
hues the limits cannot reach (mapped to the gamut boundary) are shaded.
"""
import csv
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

NAMES = ["cyan", "magenta", "yellow", "black", "orange", "green", "violet"]
COLOURS = ["#00a0e0", "#e0007a", "#e8c800", "#202020", "#f07800", "#00a050", "#7030a0"]


def read(path):
    with open(path) as f:
        return list(csv.DictReader(f))


def neutral(ax, rows, inks, title):
    gcr50 = [r for r in rows if r["gcr"] == "50"]
    L = [float(r["L"]) for r in gcr50]
    for k in range(inks):
        ax.plot(L, [float(r["ink%d" % k]) for r in gcr50], color=COLOURS[k], label=NAMES[k], lw=2)
    for g, style in (("0", ":"), ("25", "--"), ("75", "-."), ("100", (0, (1, 3)))):
        sub = [r for r in rows if r["gcr"] == g]
        ax.plot([float(r["L"]) for r in sub], [float(r["ink3"]) for r in sub], color="#808080", ls=style, lw=1,
                label="black, GCR %s" % g)
    ax.set_xlabel("L* (neutral, a* = b* = 0)")
    ax.set_ylabel("ink (%)")
    ax.set_xlim(max(L), min(L))
    ax.set_ylim(-2, 102)
    ax.set_title(title)
    ax.grid(alpha=0.3)


def hue(ax, rows, inks, title):
    h = [float(r["hue"]) for r in rows]
    for k in range(inks):
        ax.plot(h, [float(r["ink%d" % k]) for r in rows], color=COLOURS[k], label=NAMES[k], lw=2)
    out = [float(r["hue"]) for r in rows if r["in_gamut"] == "0"]
    for x in out:
        ax.axvspan(x - 0.5, x + 0.5, color="#d0d0d0", lw=0)
    ax.set_xlabel("hue angle (degrees) at L* 60, C* 60; shaded: out of gamut (mapped)")
    ax.set_ylabel("ink (%)")
    ax.set_xlim(0, 359)
    ax.set_ylim(-2, 102)
    ax.set_title(title)
    ax.grid(alpha=0.3)


def main(src, dst):
    src, dst = Path(src), Path(dst)
    dst.mkdir(parents=True, exist_ok=True)
    fig, axes = plt.subplots(1, 2, figsize=(13, 4.8))
    neutral(axes[0], read(src / "separation_neutral_4.csv"), 4, "4 inks: embedded press model, TAC 300 %")
    neutral(axes[1], read(src / "separation_neutral_7.csv"), 7, "7 inks: press-like model, TAC 300 %")
    axes[1].legend(fontsize=8, loc="upper left", ncol=2)
    fig.tight_layout()
    fig.savefig(dst / "separation_neutral.png", dpi=110)
    fig, axes = plt.subplots(1, 2, figsize=(13, 4.8))
    hue(axes[0], read(src / "separation_hue_4.csv"), 4, "4 inks: GCR 50")
    hue(axes[1], read(src / "separation_hue_7.csv"), 7, "7 inks: GCR 50 (extra inks beyond CMYK's reach)")
    axes[1].legend(fontsize=8, loc="upper right", ncol=2)
    fig.tight_layout()
    fig.savefig(dst / "separation_hue.png", dpi=110)


if __name__ == "__main__":
    main(*(sys.argv[1:3] if len(sys.argv) >= 3 else ("/tmp/sep", "docs")))
