"""Independent numpy implementations the module is checked against.

Nothing here calls kelma: the printer model is a Beer-Lambert ink mixture whose
cell coefficients come from a Moebius inversion written here, predictions use
Demichel weights on the node spectra (not the coefficients), colorimetry uses
the published CIE tables below, LAB2000HL reads the published tables from
data/lab2000hl, and the CLUT interpolation is re-derived in integer numpy.
"""
import os

import numpy as np

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
DATA = os.path.join(REPO, "data")

WAVELENGTHS = np.arange(400.0, 701.0, 10.0)

# CIE 1931 2 degree and CIE 1964 10 degree colour-matching functions at
# 400-700 nm / 10 nm, rounded to two decimals.
CIE2 = np.array([
    [0.01, 0.04, 0.13, 0.28, 0.35, 0.34, 0.29, 0.2, 0.1, 0.03, 0, 0.01, 0.06, 0.17, 0.29, 0.43, 0.59, 0.76,
     0.92, 1.03, 1.06, 1, 0.85, 0.64, 0.45, 0.28, 0.16, 0.09, 0.05, 0.02, 0.01],
    [0, 0, 0, 0.01, 0.02, 0.04, 0.06, 0.09, 0.14, 0.21, 0.32, 0.5, 0.71, 0.86, 0.95, 0.99, 1, 0.95, 0.87,
     0.76, 0.63, 0.5, 0.38, 0.27, 0.18, 0.11, 0.06, 0.03, 0.02, 0.01, 0],
    [0.07, 0.21, 0.65, 1.39, 1.75, 1.77, 1.67, 1.29, 0.81, 0.47, 0.27, 0.16, 0.08, 0.04, 0.02, 0.01, 0, 0, 0,
     0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0]])
CIE10 = np.array([
    [0.02, 0.08, 0.2, 0.31, 0.38, 0.37, 0.3, 0.2, 0.08, 0.02, 0, 0.04, 0.12, 0.24, 0.38, 0.53, 0.71, 0.88,
     1.01, 1.12, 1.12, 1.03, 0.86, 0.65, 0.43, 0.27, 0.15, 0.08, 0.04, 0.02, 0.01],
    [0, 0.01, 0.02, 0.04, 0.06, 0.09, 0.13, 0.19, 0.25, 0.34, 0.46, 0.61, 0.76, 0.88, 0.96, 0.99, 1, 0.96,
     0.87, 0.78, 0.66, 0.53, 0.4, 0.28, 0.18, 0.11, 0.06, 0.03, 0.02, 0.01, 0],
    [0.09, 0.39, 0.97, 1.55, 1.97, 1.99, 1.75, 1.32, 0.77, 0.42, 0.22, 0.11, 0.06, 0.03, 0.01, 0, 0, 0, 0, 0,
     0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0]])

# CIE relative spectral power distributions / 100 at 400-700 nm / 10 nm.
ILLUMINANTS = {
    "A": [0.14708, 0.176753, 0.20995, 0.246709, 0.287027, 0.330859, 0.378121, 0.428693, 0.482423, 0.539132,
          0.598611, 0.660635, 0.724959, 0.791326, 0.85947, 0.92912, 1, 1.07184, 1.14436, 1.21731, 1.29043,
          1.36346, 1.43618, 1.50836, 1.57979, 1.65028, 1.71963, 1.78769, 1.85429, 1.91931, 1.98261],
    "D50": [0.4931, 0.5651, 0.6003, 0.5782, 0.7482, 0.8725, 0.9061, 0.9137, 0.9511, 0.9196, 0.9572, 0.9661,
            0.9713, 1.021, 1.0075, 1.0232, 1, 0.9774, 0.9892, 0.935, 0.9769, 0.9927, 0.9904, 0.9572, 0.9886,
            0.9567, 0.9819, 1.03, 0.9913, 0.8738, 0.916],
    "D65": [0.827549, 0.91486, 0.934318, 0.866823, 1.04865, 1.17008, 1.17812, 1.14861, 1.15923, 1.08811,
            1.09354, 1.07802, 1.0479, 1.07689, 1.04405, 1.04046, 1, 0.963342, 0.95788, 0.886856, 0.900062,
            0.895991, 0.876987, 0.832886, 0.836992, 0.800268, 0.802146, 0.822778, 0.782842, 0.697213, 0.716091],
    "E": [1.0] * 31,
    "F1": [0.0517, 0.0613, 0.0701, 0.0856, 0.1694, 0.1135, 0.1237, 0.13, 0.1323, 0.1313, 0.1252, 0.1183,
           0.1122, 0.1103, 0.1153, 0.1705, 0.1433, 0.1552, 0.1955, 0.1491, 0.1322, 0.1112, 0.0895, 0.0702,
           0.0542, 0.0415, 0.032, 0.0247, 0.0193, 0.0167, 0.0129],
    "F2": [0.0344, 0.0385, 0.0419, 0.0506, 0.1181, 0.0663, 0.0719, 0.0754, 0.0765, 0.0762, 0.0728, 0.0705,
           0.0716, 0.0804, 0.1001, 0.1664, 0.1616, 0.1862, 0.2279, 0.1866, 0.1654, 0.138, 0.1095, 0.084,
           0.0631, 0.0468, 0.0345, 0.0255, 0.0189, 0.0153, 0.011],
    "F11": [0.0129, 0.0159, 0.0246, 0.0449, 0.1213, 0.0719, 0.0672, 0.0546, 0.0566, 0.1496, 0.0472, 0.0147,
            0.0089, 0.0118, 0.3959, 0.3261, 0.0283, 0.0167, 0.1128, 0.1273, 0.0733, 0.5527, 0.1318, 0.1226,
            0.0207, 0.0358, 0.0248, 0.0154, 0.0146, 0.02, 0.0135],
}


# --------------------------------------------------------------------------
# Printer model

class BeerLambertModel:
    """A Beer-Lambert printer: R = paper * exp(-sum_k a_k(lambda) level_k / 255)
    at the grid nodes, dot-gain ramps, and the cell coefficients of the
    cellular Yule-Nielsen model (r = R^(1/n), Moebius-inverted per cell)."""

    def __init__(self, inks, grid_points, n, seed):
        rng = np.random.default_rng(seed)
        self.inks, self.G, self.n = inks, grid_points, n
        levels = np.round(255.0 * np.arange(grid_points) / (grid_points - 1))
        grid = np.tile(levels, (inks, 1))
        if grid_points > 2:
            grid[:, 1:-1] += np.round((rng.random((inks, grid_points - 2)) - 0.5) * 10.0)
        self.grid = grid
        gain = 0.1 + 0.3 * rng.random(inks)
        x = np.arange(256) / 255.0
        self.ramps = x[None, :] + gain[:, None] * x * (1.0 - x)
        self.paper = 0.84 + 0.06 * rng.random(31) + 0.02 * (np.arange(31) < 5)
        centre = 400.0 + 300.0 * (np.arange(inks) + 0.5) / inks + 20.0 * (rng.random(inks) - 0.5)
        width = 40.0 + 40.0 * rng.random(inks)
        strength = 1.5 + 1.5 * rng.random(inks)
        self.absorption = 0.05 + strength[:, None] * np.exp(
            -(((WAVELENGTHS[None, :] - centre[:, None]) / width[:, None]) ** 2))
        self.scheme = self._scheme()

    def node_spectra(self, nodes):
        """Spectra (..., 31) of nodes given as per-ink grid indices (..., inks)."""
        nodes = np.asarray(nodes)
        levels = self.grid[np.arange(self.inks), nodes]           # (..., inks)
        optical = np.tensordot(levels / 255.0, self.absorption, axes=([-1], [0]))
        return self.paper * np.exp(-optical)

    def _cells(self):
        cells = (self.G - 1) ** self.inks
        q = np.arange(cells)
        return np.stack([(q // (self.G - 1) ** i) % (self.G - 1) for i in range(self.inks)], axis=1)

    def _scheme(self):
        corners = 1 << self.inks
        bits = (np.arange(corners)[:, None] >> np.arange(self.inks)) & 1        # (corners, inks)
        nodes = self._cells()[:, None, :] + bits[None, :, :]                   # (cells, corners, inks)
        c = self.node_spectra(nodes) ** (1.0 / self.n)                         # (cells, corners, 31)
        # Moebius inversion over the subset lattice, one ink at a time.
        for b in range(self.inks):
            upper = (np.arange(corners) >> b) & 1 == 1
            c[:, upper, :] -= c[:, np.arange(corners)[upper] & ~(1 << b), :]
        return np.ascontiguousarray(np.transpose(c, (0, 2, 1)))              # (cells, 31, corners)

    def node_bytes(self, nodes):
        """Ink bytes (..., inks) of nodes given as grid indices."""
        return self.grid[np.arange(self.inks), np.asarray(nodes)].astype(np.uint8)

    def predict(self, samples):
        """Reference spectra (count, 31) of uint8 samples (count, inks): each
        ink's cell by search, its local coordinate from the ramp, Demichel
        interpolation of the corner values R^(1/n), raised to n."""
        samples = np.asarray(samples, dtype=np.int64)
        count = samples.shape[0]
        cell = np.empty_like(samples)
        x = np.empty(samples.shape)
        for k in range(self.inks):
            g = self.grid[k]
            c = np.clip(np.searchsorted(g, samples[:, k], side="right") - 1, 0, self.G - 2)
            lo = self.ramps[k, g[c].astype(int)]
            hi = self.ramps[k, g[c + 1].astype(int)]
            x[:, k] = (self.ramps[k, samples[:, k]] - lo) / (hi - lo)
            cell[:, k] = c
        total = np.zeros((count, 31))
        for corner in range(1 << self.inks):
            bits = (corner >> np.arange(self.inks)) & 1
            weight = np.prod(np.where(bits, x, 1.0 - x), axis=1)
            total += weight[:, None] * self.node_spectra(cell + bits) ** (1.0 / self.n)
        return total ** self.n


# --------------------------------------------------------------------------
# Colorimetry

def lighting_weights(observer, spd):
    """(3, 31) weights cmf * S / sum(ybar S)."""
    cmf = CIE2 if observer == 2 else CIE10
    spd = np.asarray(spd, dtype=float)
    return cmf * spd / np.sum(cmf[1] * spd)


def xyz(spectra, weights):
    """XYZ (..., [L,] 3) of spectra (..., 31) with weights ([L,] 3, 31)."""
    return np.tensordot(np.asarray(spectra, dtype=float)[..., :31], np.asarray(weights, dtype=float),
                        axes=([-1], [-1]))


def cielab(xyz_values, white):
    t = np.asarray(xyz_values, dtype=float) / np.asarray(white, dtype=float)
    f = np.where(t > 0.008856, np.cbrt(np.maximum(t, 0.0)), 7.787 * t + 16.0 / 116.0)
    ty = t[..., 1]
    L = np.where(ty > 0.008856, 116.0 * f[..., 1] - 16.0, 903.3 * ty)
    return np.stack([L, 500.0 * (f[..., 0] - f[..., 1]), 200.0 * (f[..., 1] - f[..., 2])], axis=-1)


def cielab_exact(xyz_values, white):
    """CIE 15 CIELAB with the exact constants 216/24389 and 24389/27."""
    t = np.asarray(xyz_values, dtype=float) / np.asarray(white, dtype=float)
    f = np.where(t > 216.0 / 24389.0, np.cbrt(t), (24389.0 / 27.0 * t + 16.0) / 116.0)
    return np.stack([116.0 * f[..., 1] - 16.0, 500.0 * (f[..., 0] - f[..., 1]), 200.0 * (f[..., 1] - f[..., 2])],
                    axis=-1)


def encode(values):
    """Clamp to 0..255, round half up."""
    v = np.asarray(values, dtype=float)
    return np.floor(np.clip(np.nan_to_num(v, nan=0.0), 0.0, 255.0) + 0.5).astype(np.uint8)


def cielab_bytes(lab):
    return encode(np.stack([2.55 * lab[..., 0], lab[..., 1] + 128.0, lab[..., 2] + 128.0], axis=-1))


def _table(name):
    return np.fromfile(os.path.join(DATA, "lab2000hl", name), dtype="<f8")


_LUTS = {}


def lab2000hl(lab):
    """CIELAB -> LAB2000HL by the published tables: linear in L*, bilinear in
    (a*, b*) on the 257 x 257 grid, inputs clamped to the tables' range."""
    if not _LUTS:
        _LUTS["L"] = np.append(_table("LUT_L.f64"), 0.0)
        _LUTS["A"] = np.append(_table("LUT_A.f64"), np.zeros(258))
        _LUTS["B"] = np.append(_table("LUT_B.f64"), np.zeros(258))
    lab = np.asarray(lab, dtype=float)
    L = np.clip(lab[..., 0], 0.0, 100.0)
    a = np.clip(lab[..., 1], -128.0, 128.0)
    b = np.clip(lab[..., 2], -128.0, 128.0)
    u = L / 100.0 * 10000.0
    i = np.trunc(u).astype(np.int64)
    f = u - i
    lhl = (1.0 - f) * _LUTS["L"][i] + f * _LUTS["L"][i + 1]
    p, q = a + 128.0, b + 128.0
    ia, ib = np.trunc(p).astype(np.int64), np.trunc(q).astype(np.int64)
    fa, fb = p - ia, q - ib
    k = ia + 257 * ib
    w = [(1 - fa) * (1 - fb), fa * (1 - fb), (1 - fa) * fb, fa * fb]
    out = [lhl]
    for t in (_LUTS["A"], _LUTS["B"]):
        out.append(w[0] * t[k] + w[1] * t[k + 1] + w[2] * t[k + 257] + w[3] * t[k + 258])
    return np.stack(out, axis=-1)


def lab2000hl_bytes(lhl):
    return encode(np.stack([3.3931 * lhl[..., 0], 2.6771 * lhl[..., 1] + 128.0,
                            2.6771 * lhl[..., 2] + 128.0], axis=-1))


# --------------------------------------------------------------------------
# Resampling

def resample_linear(spectra, wavelengths):
    """Piecewise linear on the list, extrapolating from the end intervals."""
    w = np.asarray(wavelengths, dtype=float)
    lo = np.clip(np.searchsorted(w, WAVELENGTHS, side="right") - 1, 0, len(w) - 2)
    hi = lo + 1
    y = np.asarray(spectra, dtype=float)
    t = (WAVELENGTHS - w[lo]) / (w[hi] - w[lo])
    return y[..., lo] + t * (y[..., hi] - y[..., lo])


# --------------------------------------------------------------------------
# CLUT interpolation in fixed point

def standard_map(n):
    s = 16777216.0 * (n - 1) / 255.0
    return (np.floor(np.arange(256) * s + 0.5).astype(np.int64) >> 19)


def lab_chroma_map(n):
    i = np.arange(256)
    s = np.where(i <= 128, 16777216.0 * (n - 1) / 256.0, 16777216.0 * (n - 1) / 254.0)
    return (np.floor(i * s + 0.5).astype(np.int64) >> 19)


def clut_apply(nodes, pixels, in_lab=False):
    """Multilinear interpolation of uint8 node tables (n,)*d + (m,) with 1/32
    cell positions, integer weights and a final shift, reading corners past
    the grid from a zero-padded flat node array."""
    nodes = np.asarray(nodes)
    d, m, n = nodes.ndim - 1, nodes.shape[-1], nodes.shape[0]
    flat = np.concatenate([nodes.reshape(-1, m), np.zeros((sum(n ** i for i in range(d)) + 1, m), np.uint8)])
    px = np.asarray(pixels).reshape(-1, d).astype(np.int64)
    maps = [standard_map(n)] * d
    if in_lab:
        maps = [standard_map(n), lab_chroma_map(n), lab_chroma_map(n)]
    e = np.stack([maps[a][px[:, a]] for a in range(d)], axis=1)
    g, f = e >> 5, e & 31
    strides = n ** np.arange(d - 1, -1, -1)
    base = (g * strides).sum(axis=1)
    acc = np.zeros((px.shape[0], m), dtype=np.int64)
    for k in range(1 << d):
        bits = (k >> np.arange(d)) & 1
        w = np.prod(np.where(bits, f, 32 - f), axis=1)
        acc += w[:, None] * flat[base + (bits * strides).sum()].astype(np.int64)
    out = acc >> (5 * d)
    return np.minimum(out, 255).astype(np.uint8).reshape(np.asarray(pixels).shape[:-1] + (m,))


def clut_node_inputs(n, d):
    """Node input bytes (n^d, d) in node order (axis 0 outermost)."""
    levels = np.floor(np.arange(n) * 255.0 / (n - 1) + 0.5).astype(np.uint8)
    grids = np.meshgrid(*([levels] * d), indexing="ij")
    return np.stack([g.ravel() for g in grids], axis=1)
