"""Dead leaves: overlapping disks and polygons with fractal textures, insurance against content that no sky model has.

Occlusion with a size law r^-3 gives the scale invariance of photographs (Achddou et al., "Synthetic images as a
regularity prior for image restoration neural networks").
"""

from __future__ import annotations

import numpy as np
from PIL import Image, ImageDraw

from .fields import Array, gaussian_field, log_uniform


def _radius(rng: np.random.Generator, smallest: float, largest: float) -> float:
    """A radius from the density r^-3 between the two limits, by inversion."""
    low, high = smallest**-2, largest**-2
    return float((high + (low - high) * rng.random()) ** -0.5)


def _label_map(rng: np.random.Generator, size: int, count: int) -> Array:
    """Labels 1..count painted one over the other, [size, size] integers; 0 = never covered."""
    image = Image.new("I", (size, size), 0)
    draw = ImageDraw.Draw(image)
    for label in range(1, count + 1):
        radius = _radius(rng, 4.0, 0.4 * size)
        row, column = rng.uniform(0, size, 2)
        if rng.random() < 0.6:
            draw.ellipse((column - radius, row - radius, column + radius, row + radius), fill=label)
        else:
            angles = np.sort(rng.uniform(0, 2 * np.pi, rng.integers(3, 7)))
            draw.polygon([(column + radius * np.cos(a), row + radius * np.sin(a)) for a in angles], fill=label)
    return np.asarray(image)


def dead_leaves(rng: np.random.Generator, size: int) -> Array:
    """A scene of leaves [3, size, size] in sky units (0 to about 40); hard edges, textures on every second leaf."""
    count = int(log_uniform(rng, 100, 2500))
    labels = _label_map(rng, size, count)
    colours = rng.uniform(0.05, 1.0, (count + 1, 3)) * rng.beta(1.0, 2.0, (count + 1, 1))
    grey = rng.random() < 0.3
    if grey:
        colours[:] = colours.mean(axis=1, keepdims=True)
    light = colours.astype(np.float32)[labels].transpose(2, 0, 1)
    textured = (rng.random(count + 1) < 0.5).astype(np.float32)[labels]
    texture = np.exp(rng.uniform(0.1, 0.6) * gaussian_field(rng, size, rng.uniform(1.2, 3.0)))
    light = light * (1.0 + textured * (texture - 1.0))
    if rng.random() < 0.3:
        light = light * np.exp(0.5 * gaussian_field(rng, size, 3.8))
    return (light * log_uniform(rng, 1.0, 40.0)).astype(np.float32)
