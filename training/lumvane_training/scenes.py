"""Noise-free scenes: the light above the sky, in sky units, linear, before vignetting and saturation.

A scene is float32 [3, size, size] with 1.0 = the sky's own brightness in one pixel. The sky itself, its gradient, the
scale to full range and clipping are added by `frames`, so that one stored scene serves many exposures.
"""

from __future__ import annotations

from dataclasses import asdict, dataclass, fields

import numpy as np
import scipy.fft

from . import extended, psf, stars
from .fields import Array
from .leaves import dead_leaves

OVERSAMPLING = 2


@dataclass(frozen=True)
class SceneLaws:
    """Ranges and shares that scenes are drawn from. Evaluation sets use other ranges than training."""

    fwhm: tuple[float, float] = (1.6, 6.0)
    beta: tuple[float, float] = (2.2, 5.0)
    star_density: tuple[float, float] = (6e-5, 1.3e-2)
    star_slope: tuple[float, float] = (0.65, 1.25)
    nebula_slope: tuple[float, float] = (2.4, 3.8)
    leaves_share: float = 0.12
    starless_share: float = 0.15
    nebula_share: float = 0.75
    cluster_share: float = 0.12
    dust_share: float = 0.35
    shapes_share: float = 0.10

    @staticmethod
    def from_table(table: dict) -> "SceneLaws":
        """Laws from a configuration table; names that are missing keep their defaults."""
        known = {f.name for f in fields(SceneLaws)}
        unknown = set(table) - known
        if unknown:
            raise ValueError(f"unknown scene laws: {', '.join(sorted(unknown))}")
        return SceneLaws(**{k: tuple(v) if isinstance(v, list) else v for k, v in table.items()})

    def table(self) -> dict:
        """The laws as a plain table, for records."""
        return asdict(self)


@dataclass
class Scene:
    """The rendered light and the true list of its stars (empty for leaves)."""

    light: Array
    stars: stars.StarList | None
    shape: psf.PsfShape | None


def bin_down(canvas: Array, factor: int) -> Array:
    """Sums factor x factor blocks of [3, n, n]: flux per sample becomes flux per pixel."""
    channels, size, _ = canvas.shape
    return canvas.reshape(channels, size // factor, factor, size // factor, factor).sum(axis=(2, 4))


def convolve(canvas: Array, transfers: list[Array]) -> Array:
    """The canvas [3, n, n] convolved with one kernel per channel, periodically."""
    shape = canvas.shape[1:]
    blurred = [scipy.fft.irfft2(scipy.fft.rfft2(plane) * transfer, s=shape) for plane, transfer in zip(canvas, transfers)]
    return np.maximum(np.stack(blurred), 0.0).astype(np.float32)


def render_points(light: Array, star_list: stars.StarList, shape: psf.PsfShape) -> Array:
    """Extended light [3, n, n] (sky units) and stars through one optical system, [3, n, n]."""
    size = light.shape[1]
    canvas = np.repeat(np.repeat(light, OVERSAMPLING, axis=1), OVERSAMPLING, axis=2) / OVERSAMPLING**2
    stars.splat(canvas, star_list, OVERSAMPLING)
    return bin_down(convolve(canvas, psf.transfer_functions(shape, size * OVERSAMPLING, OVERSAMPLING)), OVERSAMPLING)


def _star_list(rng: np.random.Generator, size: int, laws: SceneLaws) -> stars.StarList:
    lists = [stars.field_stars(rng, size, laws.star_density, laws.star_slope)]
    if rng.random() < laws.cluster_share:
        lists.append(stars.cluster_stars(rng, size))
    joined = stars.StarList.joined(lists)
    if rng.random() < laws.starless_share:
        joined.flux = np.zeros_like(joined.flux)
    return joined


def sky_scene(rng: np.random.Generator, size: int, laws: SceneLaws) -> Scene:
    """Stars, nebulae, galaxies, dust and shapes through a random optical system."""
    light = np.zeros((3, size, size), np.float32)
    if rng.random() < laws.nebula_share:
        light += extended.nebula(rng, size, laws.nebula_slope)
        if rng.random() < laws.dust_share:
            light *= extended.dust_transmission(rng, size)
    extended.add_galaxies(rng, light)
    if rng.random() < laws.shapes_share:
        extended.add_shapes(rng, light)
    star_list = _star_list(rng, size, laws)
    shape = psf.draw_shape(rng, laws.fwhm, laws.beta)
    return Scene(render_points(light, star_list, shape), star_list, shape)


def render_scene(seed: int, index: int, size: int, laws: SceneLaws = SceneLaws()) -> Scene:
    """Scene number `index` of the family `seed`: the same two numbers give the same pixels."""
    rng = np.random.default_rng([seed, index])
    if rng.random() < laws.leaves_share:
        return Scene(dead_leaves(rng, size), None, None)
    return sky_scene(rng, size, laws)
