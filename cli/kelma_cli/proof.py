"""kelma proof: soft proof of a CMYK image as the press prints it."""
from pathlib import Path

import numpy as np

import kelma

from .common import UserError, load_model


# The display side of the proof (sRGB, D65, Bradford adaptation).
_BRADFORD = np.array([[0.8951, 0.2664, -0.1614], [-0.7502, 1.7135, 0.0367], [0.0389, -0.0685, 1.0296]])
_D65 = np.array([0.95047, 1.0, 1.08883])
_XYZ_TO_SRGB = np.array([[3.2404542, -1.5371385, -0.4985314], [-0.9692660, 1.8760108, 0.0415560],
                         [0.0556434, -0.2040259, 1.0572252]])


def srgb_bytes(xyz, white):
    """sRGB bytes of XYZ seen under `white`, adapted to D65 (Bradford), clipped."""
    src, dst = _BRADFORD @ np.asarray(white, dtype=np.float64), _BRADFORD @ _D65
    adapt = np.linalg.inv(_BRADFORD) @ np.diag(dst / src) @ _BRADFORD
    rgb = np.clip(np.asarray(xyz, dtype=np.float64) @ (_XYZ_TO_SRGB @ adapt).T, 0.0, 1.0)
    rgb = np.where(rgb <= 0.0031308, 12.92 * rgb, 1.055 * rgb ** (1 / 2.4) - 0.055)
    return np.floor(rgb * 255.0 + 0.5).astype(np.uint8)


def register(sub):
    p = sub.add_parser("proof", help="soft-proof a CMYK image (TIFF/JPEG or .npy) into an sRGB PNG")
    p.add_argument("image", help="CMYK image: TIFF, JPEG or a .npy array (rows, columns, 4) of bytes")
    p.add_argument("out", help="sRGB PNG to write")
    p.add_argument("--model", help="model file from 'kelma fit' (default: the embedded press model)")
    p.add_argument("--grid-points", type=int, default=17, help="points per axis of the CMYK table (default 17)")
    p.set_defaults(run=run)


def proof_clut(model, points):
    """A CMYK -> sRGB CLUT from the model: every node predicted, seen under D50, shown on sRGB."""
    axis = np.floor(np.arange(points) * 255.0 / (points - 1) + 0.5).astype(np.uint8)
    grid = np.stack(np.meshgrid(axis, axis, axis, axis, indexing="ij"), axis=-1).reshape(-1, 4)
    matrix = kelma.LightingMatrix("D50", 2)
    xyz = matrix.xyz(kelma.predict_spectra(model, grid))[:, 0, :]
    nodes = srgb_bytes(xyz, matrix.white_point[0]).reshape(points, points, points, points, 3)
    return kelma.Clut.from_nodes(nodes)


def read_cmyk_image(path):
    p = Path(path)
    if not p.is_file():
        raise UserError("image %s does not exist" % p)
    if p.suffix.lower() == ".npy":
        try:
            image = np.load(p)
        except ValueError as exc:
            raise UserError("cannot read %s: %s" % (p, exc))
    else:
        try:
            from PIL import Image
            with Image.open(p) as im:
                if im.mode != "CMYK":
                    raise UserError("%s is a %s image; a CMYK image is needed" % (p, im.mode))
                image = np.asarray(im)
        except UserError:
            raise
        except Exception as exc:
            raise UserError("cannot read %s as an image: %s" % (p, exc))
    if image.dtype != np.uint8 or image.ndim != 3 or image.shape[2] != 4:
        raise UserError("%s must hold uint8 pixels of 4 channels (height x width x CMYK), got %s %s"
                        % (p, image.dtype, image.shape))
    return image


def save_png(path, rgb):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    plt.imsave(str(path), rgb)


def run(args):
    model = load_model(args.model)
    if model.inks != 4:
        raise UserError("proofing needs a 4-ink (CMYK) model, got %d inks" % model.inks)
    if not 2 <= args.grid_points <= 65:
        raise UserError("--grid-points must be 2-65")
    image = read_cmyk_image(args.image)
    clut = proof_clut(model, args.grid_points)
    save_png(args.out, clut.apply(image))
    print("proofed %dx%d pixels -> %s" % (image.shape[1], image.shape[0], args.out))
