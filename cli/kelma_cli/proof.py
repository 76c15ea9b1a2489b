"""kelma proof: soft proof of a CMYK image as the press prints it, through
Little CMS: the model's ICC profile (built by the library) to sRGB, under one
or several illuminants side by side."""
import argparse
import io
import sys
import zipfile
from pathlib import Path

import numpy as np

import kelma

from .common import UserError, check_separation_limits, load_model
from .tables import check_output_path

# Output formats by file extension (Pillow's names).
FORMATS = {".png": "PNG", ".tif": "TIFF", ".tiff": "TIFF"}
INTENTS = ("relative", "absolute")
# An input's embedded profile is the model's when its colours agree with the
# model's profile: mean CIEDE2000 over the probe colours (5 levels per ink,
# 625 colours) at most this. Two profiles of one model agree to about 0.2
# (the 8-bit CIELAB of the comparison and the tables' grids); the same press
# under another illuminant, or another fit of its chart, differs by 1 or more.
SAME_PROFILE_MEAN_DE = 0.5
PROBE_LEVELS = (0, 64, 128, 191, 255)
LABEL_HEIGHT = 18
# The library holds a device-to-PCS table to 2^22 nodes: 45 per ink for CMYK.
MAX_GRID_POINTS = 45


def register(sub):
    p = sub.add_parser("proof", help="soft-proof a CMYK image (TIFF/JPEG or .npy) into sRGB (PNG or TIFF)",
                       description="Soft-proofs a CMYK image: the model's ICC profile (device to CIELAB) and "
                                   "sRGB, applied by Little CMS. The output (PNG or TIFF, chosen by the "
                                   "extension) carries the sRGB profile. Several illuminants give one labelled "
                                   "panel each, side by side: the print's metamerism made visible.")
    p.add_argument("image", help="CMYK image: TIFF or JPEG (Pillow), or .npy (height x width x 4, uint8)")
    p.add_argument("out", type=output_path,
                   help="proof to write: .png, .tif or .tiff (exactly this name, written atomically)")
    p.add_argument("--model", help="model file from 'kelma fit' (default: the embedded press model)")
    p.add_argument("--intent", choices=INTENTS, default="relative",
                   help="relative colorimetric (the paper shown as the display's white; default) or absolute "
                        "colorimetric (the paper's tint shown)")
    p.add_argument("--bpc", action="store_true",
                   help="black-point compensation (relative intent): the print's black, the darkest neutral "
                        "within the ink limits (--tac, --max-black), mapped to the display's")
    p.add_argument("--tac", type=int,
                   help="with --bpc: total ink coverage limit in percent that bounds the print's black "
                        "(default 300, as kelma profile)")
    p.add_argument("--max-black", type=int,
                   help="with --bpc: black limit in percent (default 95, as kelma profile)")
    p.add_argument("--illuminants", type=illuminant_list, default=["D50"],
                   help="comma-separated illuminants, one labelled panel each, e.g. D50,A,F11 (default D50); "
                        "from %s" % ", ".join(kelma.ILLUMINANTS))
    p.add_argument("--observer", type=int, choices=(2, 10), default=2,
                   help="CIE 1931 2 degree or CIE 1964 10 degree observer (default 2)")
    p.add_argument("--grid-points", type=grid_points, default=33,
                   help="nodes per axis of the profile's tables, 2-%d (default 33)" % MAX_GRID_POINTS)
    p.set_defaults(run=run, parser=p)


# Argument types: what they refuse is a bad command line (one line naming the argument, status 1).

def output_path(text):
    suffix = Path(text).suffix.lower()
    if suffix not in FORMATS:
        raise argparse.ArgumentTypeError(
            "cannot write %s: unknown image format %r; give a name ending in .png, .tif or .tiff"
            % (text, suffix or "(no extension)"))
    return text


def illuminant_list(text):
    names = [n.strip().upper() for n in text.split(",")]
    if not any(names):
        raise argparse.ArgumentTypeError("needs at least one illuminant, e.g. D50,A,F11")
    if not all(names):
        raise argparse.ArgumentTypeError("%r names an empty illuminant; separate names by single commas, e.g. "
                                         "D50,A,F11" % text)
    for n in names:
        if n not in kelma.ILLUMINANTS:
            raise argparse.ArgumentTypeError("%r is not a standard illuminant (%s)"
                                             % (n, ", ".join(kelma.ILLUMINANTS)))
    if len(set(names)) != len(names):
        raise argparse.ArgumentTypeError("%r names an illuminant twice" % text)
    return names


def grid_points(text):
    try:
        points = int(text)
    except ValueError:
        points = None
    if points is None or not 2 <= points <= MAX_GRID_POINTS:
        raise argparse.ArgumentTypeError("%r: the profile's tables take 2-%d nodes per axis"
                                         % (text, MAX_GRID_POINTS))
    return points


def read_cmyk_image(path):
    """The image as uint8 (height, width, 4) and its embedded ICC profile (or None)."""
    p = Path(path)
    if not p.exists():
        raise UserError("image %s does not exist" % p)
    if p.is_dir():
        raise UserError("image %s is a directory" % p)
    if p.suffix.lower() == ".npy":
        try:
            image = np.load(p, allow_pickle=False)
        except (ValueError, OSError, EOFError, zipfile.BadZipFile) as exc:
            raise UserError("cannot read %s as a .npy array: %s" % (p, exc))
        if not isinstance(image, np.ndarray):
            image.close()
            raise UserError("cannot read %s as a .npy array: it is an archive of arrays (.npz)" % p)
        embedded = None
    else:
        from PIL import Image, UnidentifiedImageError
        try:
            with Image.open(p) as im:
                if im.mode != "CMYK":
                    raise UserError("%s is a %s image; a CMYK image (8 bits per channel) is needed" % (p, im.mode))
                image = np.asarray(im)
                embedded = im.info.get("icc_profile")
        except UserError:
            raise
        except (UnidentifiedImageError, OSError, ValueError, SyntaxError) as exc:
            raise UserError("cannot read %s as an image: %s" % (p, exc))
    if image.dtype != np.uint8 or image.ndim != 3 or image.shape[2] != 4 or 0 in image.shape:
        raise UserError("%s must hold uint8 pixels of 4 channels (height x width x CMYK), got %s %s"
                        % (p, image.dtype, image.shape))
    return np.ascontiguousarray(image), embedded


def _intent(intent):
    from PIL import ImageCms
    return ImageCms.Intent.RELATIVE_COLORIMETRIC if intent == "relative" else ImageCms.Intent.ABSOLUTE_COLORIMETRIC


def _open_profile(data):
    from PIL import ImageCms
    return ImageCms.ImageCmsProfile(io.BytesIO(data))


def probe_lab(profile):
    """PCS CIELAB (D50, relative colorimetric) of the probe colours through
    `profile` (ICC bytes), by Little CMS; Pillow's 8-bit CIELAB decoded:
    L* = 100 v / 255, a* and b* signed bytes."""
    from PIL import Image, ImageCms
    levels = np.array(PROBE_LEVELS, np.uint8)
    probe = np.stack(np.meshgrid(levels, levels, levels, levels, indexing="ij"), axis=-1)
    probe = probe.reshape(len(levels) ** 2, len(levels) ** 2, 4)
    transform = ImageCms.buildTransform(_open_profile(profile), ImageCms.createProfile("LAB"), "CMYK", "LAB",
                                        renderingIntent=_intent("relative"))
    v = np.asarray(ImageCms.applyTransform(Image.fromarray(probe, "CMYK"), transform)).reshape(-1, 3)
    return np.column_stack([v[:, 0] * (100.0 / 255.0), v[:, 1].view(np.int8), v[:, 2].view(np.int8)])


def profile_difference(embedded, own):
    """Mean CIEDE2000 between the colours of an image's embedded profile and
    the model's over the probe colours; None when the embedded one is not a
    CMYK profile Little CMS can use as a source."""
    from PIL import ImageCms
    try:
        theirs = probe_lab(embedded)
    except (ImageCms.PyCMSError, OSError, ValueError):
        return None
    return float(np.mean(kelma.delta_e_2000(theirs, probe_lab(own))))


def profile_description(data):
    from PIL import ImageCms
    try:
        return ImageCms.getProfileDescription(_open_profile(data)).strip() or "(no description)"
    except (ImageCms.PyCMSError, OSError, ValueError):
        return "(unreadable)"


def report_embedded_profile(image_path, embedded, profiles, illuminants):
    """One line on stderr when the image's profile is not the model's under
    any of the proof's illuminants; the pixels are proofed as the model
    prints them either way."""
    differences = [profile_difference(embedded, own) for own in profiles]
    if any(d is not None and d <= SAME_PROFILE_MEAN_DE for d in differences):
        return
    known = [d for d in differences if d is not None]
    how = ("mean CIEDE2000 %.1f from the model's profile under %s" % (known[0], illuminants[0]) if known
           else "not a CMYK profile Little CMS can apply")
    sys.stderr.write("kelma: note: %s carries the profile '%s' (%s); its CMYK values are proofed as the model "
                     "prints them\n" % (image_path, profile_description(embedded), how))


def proof_pixels(cmyk, profile, intent="relative", bpc=False):
    """sRGB bytes (height, width, 3) of CMYK bytes through `profile` (ICC
    bytes), transformed by Little CMS (Pillow's ImageCms)."""
    from PIL import Image, ImageCms
    flags = ImageCms.FLAGS["BLACKPOINTCOMPENSATION"] if bpc else 0
    transform = ImageCms.buildTransform(_open_profile(profile), ImageCms.createProfile("sRGB"), "CMYK", "RGB",
                                        renderingIntent=_intent(intent), flags=flags)
    return np.asarray(ImageCms.applyTransform(Image.fromarray(cmyk, "CMYK"), transform))


def srgb_profile_bytes():
    from PIL import ImageCms
    return ImageCms.ImageCmsProfile(ImageCms.createProfile("sRGB")).tobytes()


def side_by_side(panels, labels):
    """Panels (height, width, 3) next to each other, each under a white label
    row naming it: n panels of width w make an image n w wide."""
    from PIL import Image, ImageDraw
    h, w = panels[0].shape[:2]
    sheet = Image.new("RGB", (len(panels) * w, h + LABEL_HEIGHT), "white")
    draw = ImageDraw.Draw(sheet)
    for k, (panel, label) in enumerate(zip(panels, labels)):
        sheet.paste(Image.fromarray(panel, "RGB"), (k * w, LABEL_HEIGHT))
        draw.text((k * w + 4, 3), label, fill="black")
    return np.asarray(sheet)


def save_image(path, rgb, fmt):
    """RGB bytes as PNG or TIFF with the sRGB profile embedded, written atomically."""
    from PIL import Image
    buffer = io.BytesIO()
    options = {"icc_profile": srgb_profile_bytes()}
    if fmt == "TIFF":
        options["compression"] = "tiff_deflate"
    Image.fromarray(rgb, "RGB").save(buffer, format=fmt, **options)
    kelma.write_file_atomically(path, buffer.getvalue())


def model_profile(model, illuminant, observer, grid_points=33, complete=False, tac=300, max_black=95):
    """The model's profile under one illuminant (the library's, through
    Little CMS): the device-to-PCS half, or with `complete` the whole output
    profile, whose colour-to-device tables (the separation under `tac` and
    `max_black`, GCR 50) tell Little CMS where the print's black lies for
    black-point compensation. Both have the same A2B tables."""
    m = model.with_illuminants(illuminant, observer)
    if complete:
        return kelma.icc_profile(m, grid_points=grid_points, total_coverage=tac, max_black=max_black)
    return kelma.icc_proof_profile(m, grid_points=grid_points)


def proof(cmyk, model, illuminants, observer=2, intent="relative", bpc=False, grid_points=33, tac=300,
          max_black=95):
    """The proof of `cmyk` and the profiles it came from: one panel, or one
    labelled panel per illuminant."""
    profiles = [model_profile(model, name, observer, grid_points, complete=bpc, tac=tac, max_black=max_black)
                for name in illuminants]
    panels = [proof_pixels(cmyk, p, intent, bpc) for p in profiles]
    if len(panels) == 1:
        return panels[0], profiles
    return side_by_side(panels, illuminants), profiles


def run(args):
    if args.bpc and args.intent != "relative":
        args.parser.error("argument --bpc: applies to the relative colorimetric intent (absolute keeps the "
                          "print's black)")
    for option, value in (("--tac", args.tac), ("--max-black", args.max_black)):
        if value is not None and not args.bpc:
            args.parser.error("argument %s: bounds the print's black for --bpc, and this proof has no --bpc"
                              % option)
    args.tac = 300 if args.tac is None else args.tac
    args.max_black = 95 if args.max_black is None else args.max_black
    check_output_path(args.out, "output", (args.image, args.model))
    model = load_model(args.model)
    if model.inks != 4:
        raise UserError("proofing a CMYK image needs a 4-ink (CMYK) model, %s has %d inks"
                        % (args.model, model.inks))
    check_separation_limits(argparse.Namespace(tac=args.tac, max_black=args.max_black, gcr=50), model.inks)
    image, embedded = read_cmyk_image(args.image)
    rgb, profiles = proof(image, model, args.illuminants, args.observer, args.intent, args.bpc, args.grid_points,
                          args.tac, args.max_black)
    if embedded is not None:
        report_embedded_profile(args.image, embedded, profiles, args.illuminants)
    save_image(args.out, rgb, FORMATS[Path(args.out).suffix.lower()])
    print("proofed %dx%d pixels (%s, %s%s) -> %s" % (
        image.shape[1], image.shape[0], ", ".join(args.illuminants), args.intent,
        " + black-point compensation" if args.bpc else "", args.out))
