"""Star fields and clusters, as points on an oversampled canvas. Fluxes are in sky units: 1 = the sky in one pixel."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from .fields import log_uniform

Array = np.ndarray
FLUX_CEILING = 4e5
"""Brightest star in sky units: a thousand times saturation for a mean sky."""


@dataclass
class StarList:
    """Positions in pixels (row, column), fluxes in sky units, colour factors [n, 3]."""

    rows: Array
    columns: Array
    flux: Array
    colour: Array

    @staticmethod
    def joined(lists: list["StarList"]) -> "StarList":
        """All lists as one."""
        return StarList(*(np.concatenate([getattr(s, name) for s in lists]) for name in ("rows", "columns", "flux", "colour")))


def star_colours(rng: np.random.Generator, count: int, spread: float = 0.35) -> Array:
    """RGB factors e^(0.55 T), 1, e^(-0.6 T) with T ~ N(0, spread): a one-parameter temperature law."""
    temperature = rng.normal(0.0, spread, count)
    return np.stack([np.exp(0.55 * temperature), np.ones(count), np.exp(-0.6 * temperature)], axis=1).astype(np.float32)


def power_law_flux(rng: np.random.Generator, count: int, faintest: float, alpha: float) -> Array:
    """Fluxes with cumulative counts N(>F) ~ F^-alpha above the faintest (Euclidean limit: alpha = 1.5)."""
    uniform = np.maximum(rng.random(count), 1e-9)
    return np.minimum(faintest * uniform ** (-1.0 / alpha), FLUX_CEILING).astype(np.float32)


def field_stars(rng: np.random.Generator, size: int, density: tuple[float, float], alpha: tuple[float, float]) -> StarList:
    """Uniformly scattered stars; `density` in stars per pixel."""
    count = rng.poisson(log_uniform(rng, *density) * size * size)
    flux = power_law_flux(rng, count, 10 ** rng.uniform(-1.0, 0.8), rng.uniform(*alpha))
    return StarList(rng.random(count) * size, rng.random(count) * size, flux, star_colours(rng, count))


def cluster_stars(rng: np.random.Generator, size: int) -> StarList:
    """A cluster: radii of a Plummer sphere in projection, or a steeper cloud; 200 to 3000 stars."""
    count = int(log_uniform(rng, 200, 3000))
    core = log_uniform(rng, 8.0, 60.0)
    uniform = np.clip(rng.random(count), 1e-6, 0.98)
    radius = core * np.sqrt(uniform / (1.0 - uniform)) if rng.random() < 0.5 else core * (1.0 / np.sqrt(1.0 - uniform) - 1.0)
    angle = rng.uniform(0.0, 2.0 * np.pi, count)
    centre = rng.uniform(0.1 * size, 0.9 * size, 2)
    flux = power_law_flux(rng, count, 10 ** rng.uniform(-0.3, 1.2), rng.uniform(0.8, 1.4))
    return StarList((centre[0] + radius * np.sin(angle)) % size, (centre[1] + radius * np.cos(angle)) % size, flux,
                    star_colours(rng, count))


def splat(canvas: Array, stars: StarList, samples: int) -> None:
    """Adds the stars to a periodic canvas [3, n, n] of `samples` per pixel, bilinearly: total flux is kept.

    A pixel spans `samples` grid points whose mean position is its centre, hence the half-sample offset.
    """
    size = canvas.shape[1]
    rows = stars.rows * samples - 0.5
    columns = stars.columns * samples - 0.5
    base_rows, base_columns = np.floor(rows).astype(int), np.floor(columns).astype(int)
    part_rows, part_columns = rows - base_rows, columns - base_columns
    for step_row, weight_row in ((0, 1 - part_rows), (1, part_rows)):
        for step_column, weight_column in ((0, 1 - part_columns), (1, part_columns)):
            index = ((base_rows + step_row) % size) * size + (base_columns + step_column) % size
            for channel in range(3):
                weight = stars.flux * stars.colour[:, channel] * weight_row * weight_column
                canvas[channel] += np.bincount(index, weight, size * size).reshape(size, size).astype(np.float32)
