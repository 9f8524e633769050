"""Extended light: nebulae, dust lanes, galaxies, shells and filaments. Surface brightness in sky units."""

from __future__ import annotations

import numpy as np
from scipy import ndimage

from .fields import Array, gaussian_field, log_uniform, ridges, warped_field

EMISSION_COLOURS = {
    "hydrogen": (1.0, 0.16, 0.26),
    "oxygen": (0.10, 0.90, 0.85),
    "reflection": (0.30, 0.55, 1.0),
    "sulphur": (1.0, 0.45, 0.10),
}
EXTINCTION_LAW = (0.7, 1.0, 1.25)
"""Relative optical depth of dust in R, G, B: dust reddens."""


def emission_colour(rng: np.random.Generator) -> Array:
    """A layer's colour: one of the named emissions, slightly varied, or (one in five) anything."""
    if rng.random() < 0.2:
        colour = rng.uniform(0.1, 1.0, 3)
    else:
        colour = np.array(EMISSION_COLOURS[str(rng.choice(list(EMISSION_COLOURS)))]) * np.exp(rng.normal(0, 0.2, 3))
    return (colour / colour.max()).astype(np.float32)


def nebula_layer(rng: np.random.Generator, size: int, slope: tuple[float, float]) -> Array:
    """One layer [size, size]: a stirred field, exponentiated, sometimes with ridges; 99.5th percentile 1."""
    field = warped_field(rng, size, rng.uniform(*slope), rng.uniform(5.0, 40.0))
    layer = np.exp(rng.uniform(0.4, 1.3) * field)
    if rng.random() < 0.5:
        sheets = ridges(warped_field(rng, size, rng.uniform(2.6, 3.6), rng.uniform(5.0, 30.0)))
        layer = layer * (1.0 + rng.uniform(0.3, 2.0) * sheets)
    if rng.random() < 0.5:
        # A broad mask leaves part of the frame empty, as most real frames are.
        layer = layer / (1.0 + np.exp(-4.0 * (gaussian_field(rng, size, 3.6) - rng.uniform(-0.5, 1.0))))
    return layer / np.percentile(layer, 99.5)


def nebula(rng: np.random.Generator, size: int, slope: tuple[float, float]) -> Array:
    """One to three coloured layers, [3, size, size], each 0.05 to 8 times the sky at its bright end."""
    light = np.zeros((3, size, size), np.float32)
    for _ in range(rng.integers(1, 4)):
        light += emission_colour(rng)[:, None, None] * (log_uniform(rng, 0.05, 8.0) * nebula_layer(rng, size, slope))
    return light


def faint_clouds(rng: np.random.Generator, channels: int, size: int) -> Array:
    """Clouds far below the noise of a pixel, [channels, size, size], between about -1 and 1: cirrus or a few soft spots.

    A network that never meets light which only means over hundreds of pixels can show learns to take it for noise.
    """
    if rng.random() < 0.5:
        light = 0.4 * warped_field(rng, size, rng.uniform(2.6, 4.2), rng.uniform(0.0, 20.0))
    else:
        rows, columns = np.ogrid[0:size, 0:size]
        light = np.zeros((size, size), np.float32)
        for _ in range(1 + rng.poisson(8)):
            radius, softness = log_uniform(rng, 5.0, 60.0), rng.uniform(0.5, 6.0)
            row, column = rng.uniform(0, size, 2)
            flat = float(rng.uniform(0.4, 1.0))
            distance = np.hypot(rows - row, (columns - column) * flat)
            light += rng.uniform(0.3, 1.0) / (1.0 + np.exp(np.clip((distance - radius) / softness, -30, 30)))
    tints = rng.uniform(0.2, 1.0, channels) if channels > 1 and rng.random() < 0.7 else np.ones(channels)
    return (light * tints[:, None, None]).astype(np.float32)


def dust_transmission(rng: np.random.Generator, size: int) -> Array:
    """exp(-tau f_c) [3, size, size] with a log-normal optical depth whose 98th percentile is 0.5 to 3."""
    depth = np.exp(rng.uniform(0.8, 1.4) * warped_field(rng, size, rng.uniform(2.6, 3.4), rng.uniform(5.0, 30.0)))
    depth *= rng.uniform(0.5, 3.0) / np.percentile(depth, 98)
    return np.exp(-depth[None] * np.array(EXTINCTION_LAW, np.float32)[:, None, None]).astype(np.float32)


def sersic(radius: Array, effective_radius: float, index: float) -> Array:
    """Sersic profile exp(-b ((r/Re)^(1/n) - 1)), 1 at Re; b = 2n - 1/3 + 0.009876/n (Prugniel and Simien 1997)."""
    b = 2.0 * index - 1.0 / 3.0 + 0.009876 / index
    return np.exp(-b * (np.power(np.maximum(radius, 0.05 * effective_radius) / effective_radius, 1.0 / index) - 1.0))


def galaxy_stamp(rng: np.random.Generator, effective_radius: float) -> Array:
    """A galaxy [3, n, n] around the centre of the stamp; brightness 1 at the effective radius.

    Large ones get logarithmic spiral arms, clumps in blue and red, and a dust-reddened bulge.
    """
    half = int(np.clip(5.0 * effective_radius, 8, 250))
    rows, columns = np.mgrid[-half:half + 1, -half:half + 1].astype(np.float32)
    angle, axis_ratio, index = rng.uniform(0, np.pi), rng.uniform(0.2, 1.0), rng.uniform(0.5, 4.0)
    u = columns * np.cos(angle) + rows * np.sin(angle)
    v = (rows * np.cos(angle) - columns * np.sin(angle)) / axis_ratio
    radius = np.hypot(u, v)
    # The stamp is a square; fading before its border avoids a visible box around steep profiles.
    fade = np.clip((half - np.hypot(rows, columns)) / (0.25 * half), 0.0, 1.0)
    smooth = sersic(radius, effective_radius, index) * fade
    warm = np.array([1.15, 1.0, 0.75], np.float32)[:, None, None]
    light = warm * smooth
    if effective_radius > 6.0 and rng.random() < 0.8:
        winding = rng.uniform(1.5, 4.0) * rng.choice([-1, 1])
        phase = int(rng.choice([2, 2, 3, 4])) * (np.arctan2(v, u) - winding * np.log(np.maximum(radius, 1.0) / effective_radius))
        clumps = np.exp(0.9 * ndimage.gaussian_filter(rng.standard_normal(radius.shape), 1.5) * 3.0)
        arms = np.clip(0.5 + 0.5 * np.cos(phase), 0, 1) ** rng.uniform(1.0, 3.0) * clumps
        disk = np.exp(-radius / (0.8 * effective_radius)) * (radius > 0.25 * effective_radius) * fade
        cool = np.array([0.75, 0.85, 1.15], np.float32)[:, None, None]
        light = light + rng.uniform(1.0, 4.0) * cool * (arms * disk)
    return light.astype(np.float32)


def add_periodic(canvas: Array, stamp: Array, row: int, column: int) -> None:
    """Adds a stamp [3, h, w] to a periodic canvas [3, n, n] with its top left corner at (row, column)."""
    size = canvas.shape[1]
    rows = (row + np.arange(stamp.shape[1])) % size
    columns = (column + np.arange(stamp.shape[2])) % size
    np.add.at(canvas, (slice(None), rows[:, None], columns[None, :]), stamp)


def add_galaxies(rng: np.random.Generator, light: Array) -> None:
    """Adds Poisson(0.5), rarely Poisson(3) or Poisson(25), galaxies of effective radius 1.5 to 30 px to [3, n, n]."""
    size = light.shape[1]
    mean = float(rng.choice([0.5, 3.0, 25.0], p=[0.70, 0.22, 0.08]))
    for _ in range(rng.poisson(mean)):
        effective_radius = log_uniform(rng, 1.5, 30.0 if mean < 10 else 6.0)
        stamp = galaxy_stamp(rng, effective_radius) * log_uniform(rng, 0.06, 6.0)
        add_periodic(light, stamp, int(rng.integers(size)), int(rng.integers(size)))


def add_shapes(rng: np.random.Generator, light: Array) -> None:
    """Adds sharp things that must not melt: a planetary ring, hard knots, a comet tail or a one-pixel filament."""
    size = light.shape[1]
    rows, columns = np.indices((size, size), dtype=np.float32)
    row, column = rng.uniform(0.15 * size, 0.85 * size, 2)
    radius = np.hypot(rows - row, columns - column)
    kind = rng.choice(["ring", "knots", "tail", "filament"])
    if kind == "ring":
        outer, width = log_uniform(rng, 6.0, 80.0), rng.uniform(0.08, 0.4)
        shape = np.exp(-(((radius / outer - 1.0) / width) ** 2)) + 0.4 * (radius < outer)
    elif kind == "knots":
        shape = (gaussian_field(rng, size, rng.uniform(2.0, 3.0)) > rng.uniform(1.2, 2.2)).astype(np.float32)
    elif kind == "tail":
        direction = rng.uniform(0, 2 * np.pi)
        along = (rows - row) * np.sin(direction) + (columns - column) * np.cos(direction)
        across = (columns - column) * np.sin(direction) - (rows - row) * np.cos(direction)
        width = 3.0 + 0.15 * np.maximum(along, 0.0)
        shape = np.exp(-((across / width) ** 2) - np.maximum(along, 0.0) / 150.0) * (along > -3.0) * 3.0 / width
    else:
        shape = (np.abs(warped_field(rng, size, 3.2, 15.0)) < 0.01).astype(np.float32)
    light += emission_colour(rng)[:, None, None] * (log_uniform(rng, 0.1, 10.0) * shape)
