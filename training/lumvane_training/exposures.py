"""The noise-free linear frame of a scene: sky with gradient and tint, vignetting, level of full range, saturation."""

from __future__ import annotations

import numpy as np

from .fields import Array


def sky_map(rng: np.random.Generator, height: int, width: int, channels: int) -> Array:
    """The sky with a linear and quadratic gradient of up to 60 %, tinted per channel; mean near 1, [c, h, w]."""
    rows = np.linspace(-0.5, 0.5, height, dtype=np.float32)[:, None]
    columns = np.linspace(-0.5, 0.5, width, dtype=np.float32)[None, :]
    angle, size = rng.uniform(0, 2 * np.pi), rng.uniform(0.0, 0.6) ** 2 / 0.6
    tilt = size * (np.cos(angle) * columns + np.sin(angle) * rows)
    bowl = rng.uniform(-0.5, 0.5) * size * (columns**2 + rows**2)
    tints = rng.uniform(0.6, 1.4, channels) if channels > 1 else np.ones(1)
    different = 1.0 + rng.normal(0, 0.2, channels)
    return np.stack([t * (1.0 + d * (tilt + bowl)) for t, d in zip(tints, different)]).astype(np.float32)


def vignetting(rng: np.random.Generator, height: int, width: int) -> Array:
    """1 - v r^2 about a point near the centre, r = 1 in the corners, v up to 0.35; flat in half of the frames."""
    strength = rng.uniform(0.0, 0.35) if rng.random() < 0.5 else 0.0
    rows = np.linspace(-1, 1, height, dtype=np.float32)[:, None] - rng.normal(0, 0.1)
    columns = np.linspace(-1, 1, width, dtype=np.float32)[None, :] - rng.normal(0, 0.1)
    return 1.0 - strength * np.clip(0.5 * (rows**2 + columns**2), 0.0, 1.5)


def exposure(rng: np.random.Generator, light: Array, mono: bool) -> Array:
    """The noise-free linear frame: scene light and sky at a random level of full range, saturated at 1; [1 or 3, h, w]."""
    if mono:
        weights = rng.dirichlet((0.5, 0.5, 0.5)).astype(np.float32)
        light = np.tensordot(weights, light, axes=(0, 0))[None]
    elif rng.random() < 0.5:
        light = light[rng.permutation(3)]
    channels, height, width = light.shape
    brightness = 10 ** rng.uniform(-0.4, 0.2)
    level = 10 ** rng.uniform(-3.0, -0.9)
    frame = brightness * light + sky_map(rng, height, width, channels)
    # Nobody keeps a frame that is saturated over half of its area, and no stretch is defined for it.
    level = min(level, 0.5 / float(medians(frame).max()))
    return np.clip(level * frame * vignetting(rng, height, width), 0.0, 1.0).astype(np.float32)


def medians(frame: Array) -> Array:
    """Median of each plane, from every third pixel: exact statistics only matter in `linear_mode`."""
    return np.median(frame[:, ::3, 1::3].reshape(frame.shape[0], -1), axis=1)
