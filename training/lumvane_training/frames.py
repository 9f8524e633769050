"""From a stored scene to a training pair: sky, exposure, noise, stretch, quantisation.

Statistics belong to the whole frame, so everything here happens before crops are taken.
"""

from __future__ import annotations

from dataclasses import dataclass, fields

import numpy as np

from . import noise, stretch
from .fields import Array, log_uniform


@dataclass(frozen=True)
class FrameLaws:
    """Ranges and shares of exposures. Shares of `modes` are linear mode, other stretches, subtracted sky, unstretched."""

    modes: tuple[float, float, float, float] = (0.55, 0.33, 0.07, 0.05)
    mono_share: float = 0.30
    sigma_usual: tuple[float, float] = (0.002, 0.08)
    sigma_strong: tuple[float, float] = (0.08, 0.20)
    sigma_faint: tuple[float, float] = (0.0002, 0.002)
    strong_share: float = 0.10
    faint_share: float = 0.06
    zero_channel_share: float = 0.02

    @staticmethod
    def from_table(table: dict) -> "FrameLaws":
        """Laws from a configuration table; names that are missing keep their defaults."""
        unknown = set(table) - {f.name for f in fields(FrameLaws)}
        if unknown:
            raise ValueError(f"unknown frame laws: {', '.join(sorted(unknown))}")
        return FrameLaws(**{k: tuple(v) if isinstance(v, list) else v for k, v in table.items()})


@dataclass
class Pair:
    """A stretched pair [3, h, w] in [0, 1], and what is needed to go back to linear light."""

    noisy: Array
    clean: Array
    mode: str
    mono: bool
    linear_noisy: Array
    linear_clean: Array
    sigma: Array
    """Linear noise at the background, per channel."""
    channels: list[stretch.LinearModeChannel] | None
    """Parameters of the linear mode, where that was the stretch."""


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


def draw_sigma(rng: np.random.Generator, laws: FrameLaws) -> float:
    """Wanted noise at the background after the stretch."""
    choice = rng.random()
    if choice < laws.strong_share:
        return log_uniform(rng, *laws.sigma_strong)
    if choice < laws.strong_share + laws.faint_share:
        return log_uniform(rng, *laws.sigma_faint)
    return log_uniform(rng, *laws.sigma_usual)


def medians(frame: Array) -> Array:
    """Median of each plane, from every third pixel: exact statistics only matter in `linear_mode`."""
    return np.median(frame[:, ::3, 1::3].reshape(frame.shape[0], -1), axis=1)


def _sigma_for_linear_mode(rng: np.random.Generator, frame: Array, level: Array, wanted: float, multiplier: float,
                           background: float) -> float:
    """Linear noise that gives `wanted` after the linear mode, as far as the frame's own structure lets it.

    sigma_y = (sigma / sigma_MAD) B (1 - B) / |S| with sigma_MAD^2 = MAD_clean^2 + sigma^2: a frame of pure sky has one
    value whatever its noise, and only structure lowers it. Beyond reach the noise is drawn relative to the sky.
    """
    ratio = wanted * abs(multiplier) / (background * (1.0 - background))
    structure = stretch.MAD_TO_SIGMA * float(np.median(np.abs(frame - level[:, None, None])[:, ::3, 1::3]))
    mean_level = float(level.mean())
    if ratio < 0.97:
        return float(np.clip(structure * ratio / np.sqrt(1.0 - ratio**2), 3e-4 * mean_level, 1.0 * mean_level))
    return mean_level * log_uniform(rng, 0.005, 0.7)


def _noisy(rng: np.random.Generator, frame: Array, level: Array, sigma: float, mono: bool) -> tuple[Array, Array]:
    """The frame with noise of about `sigma` at the background, and the per-channel sigma."""
    channels = frame.shape[0]
    per_channel = sigma * np.exp(rng.normal(0.0, 0.15, channels)) if channels > 1 else np.array([sigma])
    recipe = noise.draw_recipe(rng, mono)
    recipe.true_poisson = bool(sigma > 0.3 * level.mean())
    return noise.add_noise(rng, frame, level, per_channel, recipe), per_channel


def _linear_mode(noisy: Array, clean: Array, multiplier: float, background: float):
    """Both frames through the linear mode with the noisy frame's own parameters; None if a plane has no spread."""
    channels = [stretch.linear_mode_channel(plane, multiplier, background) for plane in noisy]
    if any(not 0.0 < c.midtones < 1.0 for c in channels):
        return None
    seen = [np.stack([stretch.apply_linear_mode(p, c) for p, c in zip(image, channels)]) for image in (noisy, clean)]
    return seen[0], seen[1], channels


def _quantised(rng: np.random.Generator, image: Array) -> Array:
    """16 bits in three of ten cases, 8 bits in one of twenty."""
    choice = rng.random()
    steps = 65535.0 if choice < 0.30 else 255.0 if choice < 0.35 else 0.0
    return np.round(image * steps) / steps if steps else image


def _finish(rng: np.random.Generator, laws: FrameLaws, noisy: Array, clean: Array, mono: bool) -> tuple[Array, Array]:
    noisy = _quantised(rng, np.clip(noisy, 0.0, 1.0)).astype(np.float32)
    clean = np.clip(clean, 0.0, 1.0).astype(np.float32)
    if mono:
        return np.repeat(noisy, 3, axis=0), np.repeat(clean, 3, axis=0)
    if rng.random() < laws.zero_channel_share:
        dark = rng.permutation(3)[: rng.integers(1, 3)]
        noisy[dark] = 0.0
        clean[dark] = 0.0
    return noisy, clean


def make_pair(rng: np.random.Generator, light: Array, laws: FrameLaws = FrameLaws(), wanted: float | None = None,
              mode: str | None = None, mono: bool | None = None) -> Pair:
    """A noisy and a clean stretched frame of a scene's light [3, h, w]; what is not given is drawn from the laws."""
    mono = bool(rng.random() < laws.mono_share) if mono is None else mono
    mode = str(rng.choice(["linear", "other", "subtracted", "unstretched"], p=laws.modes)) if mode is None else mode
    wanted = draw_sigma(rng, laws) if wanted is None else wanted
    frame = exposure(rng, light, mono)
    level = np.maximum(medians(frame), 1e-7)
    background = 0.25 if rng.random() < 0.7 else rng.uniform(0.1, 0.35)
    multiplier = -2.8 if rng.random() < 0.7 else rng.uniform(-4.0, -1.5)

    if mode == "linear":
        sigma = _sigma_for_linear_mode(rng, frame, level, wanted, multiplier, background)
        noisy, per_channel = _noisy(rng, frame, level, sigma, mono)
    elif mode == "subtracted":
        noisy, per_channel = _noisy(rng, frame, level, float(level.mean()) * log_uniform(rng, 0.005, 0.4), mono)
        pedestal = (level - rng.uniform(0.9, 2.8) * per_channel)[:, None, None].astype(np.float32)
        noisy, frame = noisy - pedestal, np.maximum(frame - pedestal, 0.0)
    elif mode == "unstretched":
        sigma = min(wanted, 0.3 * float(level.mean()))
        noisy, per_channel = _noisy(rng, frame, level, sigma, mono)
    else:
        return _other_stretch(rng, frame, level, wanted, laws, mono)
    noisy = np.clip(noisy, 0.0, 1.0)
    channels = None
    seen_noisy, seen_clean = noisy, frame
    if mode != "unstretched":
        stretched = _linear_mode(noisy, frame, multiplier, background)
        if stretched is not None:
            seen_noisy, seen_clean, channels = stretched
    seen_noisy, seen_clean = _finish(rng, laws, seen_noisy, seen_clean, mono)
    return Pair(seen_noisy, seen_clean, mode, mono, noisy, frame, per_channel, channels)


def _other_stretch(rng: np.random.Generator, frame: Array, level: Array, wanted: float, laws: FrameLaws,
                   mono: bool) -> Pair:
    """A frame that somebody stretched by hand: the noise is solved from the curve's slope at the background."""
    target = rng.uniform(0.06, 0.32)
    wanted = min(wanted, 0.6 * target)
    mean_level = float(level.mean())
    curve = stretch.other_curve(rng, mean_level, target)
    step = 0.02 * mean_level
    slope = float(curve(np.float64(mean_level + step)) - curve(np.float64(mean_level - step))) / (2 * step)
    sigma = min(wanted / max(slope, 1e-3), 1.0 * mean_level)
    noisy, per_channel = _noisy(rng, frame, level, sigma, mono)
    noisy = np.clip(noisy, 0.0, 1.0)
    seen_noisy, seen_clean = curve(noisy), curve(frame)
    if not mono and rng.random() < 0.4:
        amount = rng.uniform(0.7, 1.6)
        seen_noisy, seen_clean = stretch.saturation(seen_noisy, amount), stretch.saturation(seen_clean, amount)
    seen_noisy, seen_clean = _finish(rng, laws, seen_noisy, seen_clean, mono)
    return Pair(seen_noisy, seen_clean, "other", mono, noisy, frame, per_channel, None)
