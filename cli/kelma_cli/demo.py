"""kelma demo: the main job on the embedded press model."""
from pathlib import Path

import numpy as np

import kelma

from .common import ROOT, Step, read_chart
from .proof import proof_clut, save_png


def register(sub):
    p = sub.add_parser("demo", help="the main job on the embedded press model")
    p.add_argument("--out", default="out", help="folder for the PNG files (default: out)")
    p.set_defaults(run=run)


def test_image(height=480, width=768):
    """A CMYK test form: single-ink and overprint ramps, a grey balance strip, a K ramp."""
    x = np.linspace(0, 255, width)
    image = np.zeros((height, width, 4), np.uint8)
    bands = [(1, 0, 0, 0), (0, 1, 0, 0), (0, 0, 1, 0), (0, 0, 0, 1), (1, 1, 0, 0), (0, 1, 1, 0),
             (1, 0, 1, 0), (1, 1, 1, 0), (0.75, 0.62, 0.62, 0), (1, 1, 1, 1)]
    rows = height // len(bands)
    for i, band in enumerate(bands):
        for c in range(4):
            image[i * rows:(i + 1) * rows, :, c] = np.floor(x * band[c] + 0.5).astype(np.uint8)
    return image


def run(args):
    out = Path(args.out)
    out.mkdir(parents=True, exist_ok=True)
    chart_path = ROOT / "data" / "aptec_pc10" / "APTEC_PC10_CardBoard_2023_v1_Spectral.txt"

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
        fig.savefig(out / "spectra.png")
        plt.close(fig)
        print("   wrote %s" % (out / "spectra.png"))

    with Step("building a 17-point CMYK -> sRGB CLUT from the model"):
        clut = proof_clut(model, 17)

    with Step("soft-proofing a generated CMYK test form"):
        image = test_image()
        save_png(out / "proof.png", clut.apply(image))
        print("   wrote %s (%dx%d)" % (out / "proof.png", image.shape[1], image.shape[0]))

    print("\nTimings")
    for title, elapsed in Step.timings:
        print("  %7.2f s  %s" % (elapsed, title))
