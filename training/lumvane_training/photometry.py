"""Measures of quality: PSNR, aperture photometry of stars, patterns of the half-resolution trunk."""

from __future__ import annotations

import numpy as np

Array = np.ndarray


def psnr(image: Array, truth: Array) -> float:
    """Peak signal to noise ratio in dB for full range 1."""
    return float(-10.0 * np.log10(max(float(np.mean((image.astype(np.float64) - truth) ** 2)), 1e-14)))


class Aperture:
    """A round aperture at a place (pixel centres at half integers) and the sky pixels in the ring of 2 to 3 radii.

    Both are fixed by the noise-free frame, the sky being the fainter half of the ring there: so flux is linear in the
    image, and noise alone has no bias. A median over the ring of a noisy frame would have one, because noise lifts the
    median of a ring with faint stars towards its mean, and what takes the noise away would seem to add flux.
    """

    def __init__(self, truth: Array, row: float, column: float, radius: float):
        reach = int(np.ceil(3 * radius)) + 1
        self.cut = np.s_[max(int(row) - reach, 0):int(row) + reach + 1, max(int(column) - reach, 0):int(column) + reach + 1]
        cut = truth[self.cut]
        rows, columns = np.indices(cut.shape)
        distance = np.hypot(rows + self.cut[0].start + 0.5 - row, columns + self.cut[1].start + 0.5 - column)
        self.inside, ring = distance <= radius, (distance > 2 * radius) & (distance <= 3 * radius)
        self.sky = ring & (cut <= np.median(cut[ring]))

    def flux(self, plane: Array) -> float:
        """Light inside the aperture above the mean of the sky pixels."""
        cut = plane[self.cut]
        return float(cut[self.inside].sum() - self.inside.sum() * cut[self.sky].mean())


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
