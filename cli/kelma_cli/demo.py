"""kelma demo: the main job on the embedded press model."""
from pathlib import Path

import numpy as np

import kelma

from .common import ROOT, Step, UserError, read_chart, save_figure
from .proof import proof, save_image

INKS = ("cyan", "magenta", "yellow", "black")
PROOF_ILLUMINANTS = ["D50", "A", "F11"]
METAMER_GREYS = (85, 70, 55, 40)
INK_COLOURS = ("#00a0e0", "#e0007a", "#e8c000", "#202020")


CHART_NAME = "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"


def register(sub):
    p = sub.add_parser("demo", help="the main job on the embedded press model")
    p.add_argument("--out", default="out", help="folder for the PNG files (default: out)")
    p.add_argument("--chart", help="the APTEC PC10 spectral chart (default: data/aptec_pc10 of the checkout)")
    p.set_defaults(run=run)


def cmyk_test_form(model, height=480, width=768):
    """A CMYK test form: single-ink and overprint ramps, a grey balance strip,
    a K ramp, and metamer pairs: greys of L* 85, 70, 55 and 40 separated by
    the library twice, from C, M and Y only (left of each pair) and from
    black (right), equal under D50 and apart under other light."""
    x = np.linspace(0, 255, width)
    bands = [(1, 0, 0, 0), (0, 1, 0, 0), (0, 0, 1, 0), (0, 0, 0, 1), (1, 1, 0, 0), (0, 1, 1, 0),
             (1, 0, 1, 0), (1, 1, 1, 0), (0.75, 0.62, 0.62, 0), (1, 1, 1, 1)]
    rows = height // (len(bands) + 2)
    image = np.zeros((rows * (len(bands) + 2), width, 4), np.uint8)
    for i, band in enumerate(bands):
        for c in range(4):
            image[i * rows:(i + 1) * rows, :, c] = np.floor(x * band[c] + 0.5).astype(np.uint8)
    greys = np.array([[lightness, 0.0, 0.0] for lightness in METAMER_GREYS])
    cmy = kelma.Separation(model, gcr=0).inks(greys)
    black = kelma.Separation(model, gcr=100).inks(greys)
    pair = width // len(METAMER_GREYS)
    top = len(bands) * rows
    for k in range(len(METAMER_GREYS)):
        image[top:, k * pair:k * pair + pair // 2] = cmy[k]
        image[top:, k * pair + pair // 2:(k + 1) * pair] = black[k]
    return image


def plot_accuracy(out, plt, held_out, total_ink, k_zero):
    """Held-out CIEDE2000: its distribution, and against total ink."""
    tested = ~np.isnan(held_out)
    s = kelma.statistics(held_out[tested])
    fig, (left, right) = plt.subplots(1, 2, figsize=(11, 4.4), dpi=110)
    left.hist(held_out[tested], bins=np.arange(0, max(4.0, s["max"]) + 0.1, 0.1), color="#4a7ab0")
    for value, label, style in ((s["mean"], "mean %.2f", "-"), (s["p95"], "95th percentile %.2f", "--")):
        left.axvline(value, color="k", ls=style, lw=1, label=label % value)
    left.set_xlabel("CIEDE2000 (D50 / 2\u00b0)")
    left.set_ylabel("patches")
    left.set_title("held-out patches (two folds, %d patches)" % s["count"])
    left.legend()
    for mask, label, colour in ((tested & k_zero, "K = 0", "#4a7ab0"), (tested & ~k_zero, "K > 0", "#c05030")):
        right.scatter(total_ink[mask], held_out[mask], s=6, alpha=0.6, color=colour, label=label)
    right.set_xlabel("total ink C + M + Y + K (%)")
    right.set_ylabel("CIEDE2000 (D50 / 2\u00b0)")
    right.set_title("held-out error against total ink")
    right.legend()
    fig.tight_layout()
    save_figure(fig, out / "accuracy.png")
    plt.close(fig)


def plot_gamut(out, plt, model, measured_lab, slices=(30, 50, 70), half_width=3.0):
    """The model's gamut (every ink combination of a 16-level grid) against
    the measured patches, in a*b* at a few L* slices."""
    axis = np.linspace(0, 255, 16).round().astype(np.uint8)
    grid = np.stack(np.meshgrid(axis, axis, axis, axis, indexing="ij"), axis=-1).reshape(-1, 4)
    model_lab = kelma.predict_lab(model, grid)
    fig, axes = plt.subplots(1, len(slices), figsize=(4.2 * len(slices), 4.6), dpi=110, sharex=True, sharey=True)
    for ax, lightness in zip(axes, slices):
        in_model = np.abs(model_lab[:, 0] - lightness) <= half_width
        in_chart = np.abs(measured_lab[:, 0] - lightness) <= half_width
        ax.scatter(model_lab[in_model, 1], model_lab[in_model, 2], s=3, color="#b8b8b8",
                   label="model (%d combinations)" % in_model.sum())
        ax.scatter(measured_lab[in_chart, 1], measured_lab[in_chart, 2], s=9, color="#c03030",
                   label="measured (%d patches)" % in_chart.sum())
        ax.set_title("L* %g \u00b1 %g" % (lightness, half_width))
        ax.set_xlabel("a*")
        ax.axhline(0, color="k", lw=0.5)
        ax.axvline(0, color="k", lw=0.5)
        ax.set_aspect("equal")
        ax.legend(fontsize=7, loc="lower left")
    axes[0].set_ylabel("b*")
    fig.suptitle("gamut of the model and the measured APTEC PC10 patches (CIELAB, D50 / 2\u00b0)")
    fig.tight_layout()
    save_figure(fig, out / "gamut.png")
    plt.close(fig)


def plot_tone_values(out, plt, model, chart, measured_xyz, white):
    """Tone value increase of each ink alone, measured against the model:
    colorimetric Murray-Davies (the press standards' dot gain) and ISO 20654
    SCTV, both from the library."""
    device = chart.device_values
    levels = np.arange(256)
    fig, axes = plt.subplots(1, 4, figsize=(15, 4.2), dpi=110, sharey=True)
    for ink, ax in enumerate(axes):
        others = np.delete(np.arange(4), ink)
        alone = (device[:, others] == 0).all(axis=1)
        paper = measured_xyz[alone & (device[:, ink] == 0)].mean(axis=0)
        solid = measured_xyz[alone & (device[:, ink] == 100)].mean(axis=0)
        ramp = alone & (device[:, ink] > 0) & (device[:, ink] < 100)
        nominal = device[ramp, ink]
        inks = np.zeros((256, 4), np.uint8)
        inks[:, ink] = levels
        model_xyz = kelma.predict_xyz(model, inks)
        model_nominal = kelma.ink_percent(levels)
        colour = INK_COLOURS[ink]
        md = kelma.murray_davies_tone_value(measured_xyz[ramp], paper, solid) - nominal
        md_model = kelma.murray_davies_tone_value(model_xyz, model_xyz[0], model_xyz[-1]) - model_nominal
        sctv = kelma.tone_value(measured_xyz[ramp], paper, solid, white) - nominal
        sctv_model = kelma.tone_value(model_xyz, model_xyz[0], model_xyz[-1], white) - model_nominal
        ax.plot(model_nominal, md_model, color=colour, lw=1.5, label="Murray-Davies: model")
        ax.plot(nominal, md, "o", color=colour, ms=4, label="Murray-Davies: measured")
        ax.plot(model_nominal, sctv_model, color=colour, lw=1, ls="--", label="SCTV: model")
        ax.plot(nominal, sctv, "x", color=colour, ms=4, label="SCTV: measured")
        ax.axhline(0, color="k", lw=0.5)
        ax.set_xlim(0, 100)
        ax.set_title(INKS[ink])
        ax.set_xlabel("nominal tone value (%)")
    axes[0].set_ylabel("tone value increase (%)")
    axes[0].legend(fontsize=7, loc="upper left")
    fig.suptitle("tone value increase of each ink alone: colorimetric Murray-Davies and ISO 20654 SCTV (D50 / 2\u00b0)")
    fig.tight_layout()
    save_figure(fig, out / "tone_values.png")
    plt.close(fig)


def run(args):
    out = Path(args.out)
    if out.exists() and not out.is_dir():
        raise UserError("--out %s is a file; the demo writes its pictures into a folder" % out)
    try:
        out.mkdir(parents=True, exist_ok=True)
    except OSError as exc:
        raise UserError("--out %s: cannot make the folder (%s)" % (out, exc.strerror or exc))
    chart_path = Path(args.chart) if args.chart else ROOT / "data" / "aptec_pc10" / CHART_NAME
    if not args.chart and not chart_path.is_file():
        raise UserError("the demo needs the APTEC PC10 chart (%s of a kelma checkout): pass --chart" % CHART_NAME)

    with Step("loading the embedded press model and the APTEC PC10 chart"):
        model = kelma.default_press_model()
        chart = read_chart(chart_path, required=["spectra", "device"])
        levels = kelma.digital_levels(chart.device_values)
        measured = chart.resample("linear")
        print("   model: %d inks, %d grid points per ink, n = %.3f; chart: %d patches"
              % (model.inks, model.grid.shape[1], model.n, chart.patch_count))

    with Step("predicting the chart's %d patches" % chart.patch_count):
        predicted = kelma.predict_spectra(model, levels)
        embedded = kelma.evaluate_model(model, chart)
        de_all = embedded["delta_e"]

    with Step("honest two-fold check: refitting on grid patches + half, testing the other half"):
        grid_patches, half0, half1 = kelma.validation_split(chart, [0, 40, 100])
        held_out = np.full(chart.patch_count, np.nan)
        for train, test in ((half0, half1), (half1, half0)):
            built = kelma.build_model(chart, [0, 40, 100], training_patches=np.concatenate([grid_patches, train]))
            held_out[test] = kelma.evaluate_model(built.model(), chart, patches=test)["delta_e"]

    tested = ~np.isnan(held_out)
    k_zero = levels[:, 3] == 0
    print("\nCIEDE2000 (D50 / 2 deg), measured against predicted spectra")
    print("%-34s %6s %7s %7s %7s %7s" % ("", "count", "mean", "median", "p95", "max"))
    for label, values in [("embedded model, all patches", de_all),
                          ("  K = 0", de_all[k_zero]), ("  K > 0", de_all[~k_zero]),
                          ("held out (two folds), all", held_out[tested]),
                          ("  K = 0", held_out[tested & k_zero]),
                          ("  K > 0", held_out[tested & ~k_zero])]:
        s = kelma.statistics(values)
        print("%-34s %6d %7.3f %7.3f %7.3f %7.3f" % (label, s["count"], s["mean"], s["median"], s["p95"], s["max"]))
    print()

    with Step("plotting measured against predicted spectra"):
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
        wanted = [(0, 0, 0, 0), (100, 0, 0, 0), (0, 100, 0, 0), (0, 0, 100, 0), (0, 0, 0, 100),
                  (40, 40, 40, 0), (70, 40, 0, 0), (0, 70, 70, 20)]
        fig, ax = plt.subplots(figsize=(9, 5.5), dpi=110)
        nm = np.arange(400, 701, 10)
        for j, recipe in enumerate(wanted):
            hits = np.flatnonzero(np.all(chart.device_values == recipe, axis=1))
            if hits.size == 0:
                continue
            i = hits[0]
            colour = "C%d" % j
            ax.plot(nm, measured[i], color=colour, lw=2, label="C%g M%g Y%g K%g (dE00 %.2f)" % (*recipe, de_all[i]))
            ax.plot(nm, predicted[i], color=colour, lw=1, ls="--")
        ax.set_xlabel("wavelength (nm)")
        ax.set_ylabel("reflectance factor")
        ax.set_title("APTEC PC10 offset: measured (solid) and predicted (dashed)")
        fig.legend(fontsize=8, ncol=4, loc="lower center")
        fig.tight_layout(rect=(0, 0.1, 1, 1))
        save_figure(fig, out / "spectra.png")
        plt.close(fig)
        print("   wrote %s" % (out / "spectra.png"))

    with Step("plotting accuracy, gamut and tone values"):
        total_ink = kelma.ink_percent(levels).sum(axis=1)
        plot_accuracy(out, plt, held_out, total_ink, k_zero)
        matrix = kelma.LightingMatrix("D50", 2)
        measured_xyz = matrix.xyz(measured)[:, 0, :].astype(np.float64)
        white = matrix.white_point[0].astype(np.float64)
        plot_gamut(out, plt, model, kelma.xyz_to_lab(measured_xyz, white))
        plot_tone_values(out, plt, model, chart, measured_xyz, white)
        print("   wrote %s" % ", ".join(str(out / n) for n in ("accuracy.png", "gamut.png", "tone_values.png")))

    with Step("soft-proofing a generated CMYK test form through the model's ICC profile (Little CMS)"):
        image = cmyk_test_form(model)
        rgb, _ = proof(image, model, ["D50"])
        save_image(out / "proof.png", rgb, "PNG")
        print("   wrote %s (%dx%d, D50, relative colorimetric, sRGB)" % (out / "proof.png", image.shape[1],
                                                                         image.shape[0]))

    with Step("the same form under D50, A and F11 side by side"):
        rgb, _ = proof(image[::2, ::2], model, PROOF_ILLUMINANTS)
        save_image(out / "proof_illuminants.png", rgb, "PNG")
        print("   wrote %s" % (out / "proof_illuminants.png"))

    print("\nTimings")
    for title, elapsed in Step.timings:
        print("  %7.2f s  %s" % (elapsed, title))
