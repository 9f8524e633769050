"""Measures of quality: PSNR, aperture photometry of stars, patterns of the half-resolution trunk."""

from __future__ import annotations

import numpy as np

Array = np.ndarray


def psnr(image: Array, truth: Array) -> float:
    """Peak signal to noise ratio in dB for full range 1."""
    return float(-10.0 * np.log10(max(float(np.mean((image.astype(np.float64) - truth) ** 2)), 1e-14)))


def aperture_flux(plane: Array, row: float, column: float, radius: float) -> float:
    """Light within `radius` of a place (pixel centres at half integers) above the median of the ring 2 to 3 radii."""
    reach = int(np.ceil(3 * radius)) + 1
    top, left = max(int(row) - reach, 0), max(int(column) - reach, 0)
    cut = plane[top:int(row) + reach + 1, left:int(column) + reach + 1]
    rows, columns = np.indices(cut.shape)
    distance = np.hypot(rows + top + 0.5 - row, columns + left + 0.5 - column)
    inside, ring = distance <= radius, (distance > 2 * radius) & (distance <= 3 * radius)
    return float(cut[inside].sum() - inside.sum() * np.median(cut[ring]))


def isolated(rows: Array, columns: Array, flux: Array, reach: float, share: float = 0.2) -> Array:
    """Which stars have no neighbour within `reach` that is brighter than `share` of them; boolean [n]."""
    order = np.argsort(-flux)
    bright = order[: min(len(order), 4000)]
    result = np.ones(len(flux), bool)
    for i in range(len(flux)):
        near = np.hypot(rows[bright] - rows[i], columns[bright] - columns[i]) < reach
        result[i] = not np.any(near & (flux[bright] > share * flux[i]) & (bright != i))
    return result


def lattice(residual: Array, period: int = 2) -> float:
    """Largest deviation of the mean over a phase of the period x period lattice from the whole mean, [h, w]."""
    height, width = (side // period * period for side in residual.shape)
    blocks = residual[:height, :width].reshape(height // period, period, width // period, period)
    phases = blocks.mean(axis=(0, 2))
    return float(np.abs(phases - phases.mean()).max())
