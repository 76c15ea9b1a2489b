"""Colour arithmetic of the subcommands."""
import numpy as np


def lab_from_xyz(xyz, white):
    """CIE 1976 L*a*b* of XYZ (..., 3) against `white` (3,); same 0-1 scale."""
    t = np.asarray(xyz, dtype=np.float64) / np.asarray(white, dtype=np.float64)
    eps = 216.0 / 24389.0
    f = np.where(t > eps, np.cbrt(t), (24389.0 / 27.0 * t + 16.0) / 116.0)
    return np.stack([116.0 * f[..., 1] - 16.0, 500.0 * (f[..., 0] - f[..., 1]),
                     200.0 * (f[..., 1] - f[..., 2])], axis=-1)


def delta_e_2000(lab1, lab2):
    """CIEDE2000 colour difference (kL = kC = kH = 1) of two Lab arrays (..., 3)."""
    L1, a1, b1 = np.moveaxis(np.asarray(lab1, dtype=np.float64), -1, 0)
    L2, a2, b2 = np.moveaxis(np.asarray(lab2, dtype=np.float64), -1, 0)
    C1, C2 = np.hypot(a1, b1), np.hypot(a2, b2)
    Cm = (C1 + C2) / 2.0
    G = 0.5 * (1.0 - np.sqrt(Cm ** 7 / (Cm ** 7 + 25.0 ** 7)))
    a1p, a2p = (1.0 + G) * a1, (1.0 + G) * a2
    C1p, C2p = np.hypot(a1p, b1), np.hypot(a2p, b2)
    h1p = np.degrees(np.arctan2(b1, a1p)) % 360.0
    h2p = np.degrees(np.arctan2(b2, a2p)) % 360.0
    dLp, dCp = L2 - L1, C2p - C1p
    dh = h2p - h1p
    dh = np.where(C1p * C2p == 0, 0.0, np.where(dh > 180, dh - 360, np.where(dh < -180, dh + 360, dh)))
    dHp = 2.0 * np.sqrt(C1p * C2p) * np.sin(np.radians(dh / 2.0))
    Lpm, Cpm = (L1 + L2) / 2.0, (C1p + C2p) / 2.0
    hsum = h1p + h2p
    hpm = np.where(C1p * C2p == 0, hsum,
                   np.where(np.abs(h1p - h2p) <= 180, hsum / 2.0,
                            np.where(hsum < 360, (hsum + 360) / 2.0, (hsum - 360) / 2.0)))
    T = (1 - 0.17 * np.cos(np.radians(hpm - 30)) + 0.24 * np.cos(np.radians(2 * hpm))
         + 0.32 * np.cos(np.radians(3 * hpm + 6)) - 0.20 * np.cos(np.radians(4 * hpm - 63)))
    dtheta = 30 * np.exp(-(((hpm - 275) / 25) ** 2))
    Rc = 2 * np.sqrt(Cpm ** 7 / (Cpm ** 7 + 25.0 ** 7))
    Sl = 1 + 0.015 * (Lpm - 50) ** 2 / np.sqrt(20 + (Lpm - 50) ** 2)
    Sc = 1 + 0.045 * Cpm
    Sh = 1 + 0.015 * Cpm * T
    Rt = -np.sin(np.radians(2 * dtheta)) * Rc
    return np.sqrt((dLp / Sl) ** 2 + (dCp / Sc) ** 2 + (dHp / Sh) ** 2 + Rt * (dCp / Sc) * (dHp / Sh))


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


def digital(percent):
    """Whole digital level of an ink amount in percent: round-half-up of 2.55 x percent."""
    return np.floor(np.asarray(percent, dtype=np.float64) * 2.55 + 0.5).astype(np.uint8)


def stats(values):
    v = np.asarray(values, dtype=np.float64)
    return (float(v.mean()), float(np.percentile(v, 95)), float(v.max())) if v.size else (np.nan,) * 3


def chart_split(percent):
    """Grid patches (every ink at 0, 40 or 100 %) in both halves; the others alternate by recipe."""
    on_grid = np.all(np.isin(percent, (0.0, 40.0, 100.0)), axis=1)
    recipes = {}
    for i in np.flatnonzero(~on_grid):
        recipes.setdefault(tuple(percent[i]), []).append(i)
    halves = ([], [])
    for k, key in enumerate(sorted(recipes)):
        halves[k % 2].extend(recipes[key])
    return np.flatnonzero(on_grid), [np.array(sorted(h)) for h in halves]
