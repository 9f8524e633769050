"""From a stored scene to a training pair: sky, exposure, noise, stretch, quantisation.

Statistics belong to the whole frame, so everything here happens before crops are taken.
"""

from __future__ import annotations

from dataclasses import dataclass, fields

import numpy as np

from . import noise, stretch
from .exposures import exposure, medians
from .extended import faint_clouds
from .fields import Array, log_uniform


MODES = ("linear", "other", "subtracted", "unstretched", "symmetric")
"""Linear mode, other stretches, subtracted sky, unstretched, and noise that is symmetric after the stretch.

A stretch is concave at the sky: noise that was symmetric before it is skewed afterwards, its mean too dark and its median
right. Were all frames of that kind, a network would learn to brighten every sky, also one whose noise is not skewed.
"""
NO_LIMIT = 3.0e4
"""Largest noise of the linear frame, in units of the background's, that is handed to the loss."""


@dataclass(frozen=True)
class FrameLaws:
    """Ranges and shares of exposures. `modes` are the shares of MODES."""

    modes: tuple[float, ...] = (0.30, 0.20, 0.05, 0.05, 0.40)
    mono_share: float = 0.30
    sigma_usual: tuple[float, float] = (0.002, 0.08)
    sigma_strong: tuple[float, float] = (0.08, 0.20)
    sigma_faint: tuple[float, float] = (0.0002, 0.002)
    strong_share: float = 0.10
    faint_share: float = 0.10
    blank_share: float = 0.04
    """Frames of nothing but sky."""
    sigma_symmetric: tuple[float, float] = (0.02, 0.08)
    """Every second symmetric frame has its noise from here: where stretched ones crowd, there have to be others."""
    perfect_share: float = 0.02
    """Frames without any noise: what is clean has to stay as it is."""
    zero_channel_share: float = 0.02
    outlier_share: float = 0.06
    """Frames whose noise has long tails."""
    clouds_share: float = 0.25
    clouds_height: tuple[float, float] = (0.05, 0.8)
    """Frames with clouds whose height is this many deviations of the background's noise."""
    black_point_share: float = 0.06
    """Frames stretched by hand whose black point cuts the sky's noise, in some channels or in all."""

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
    spread: Array
    """Standard deviation that the noise has in `noisy`, per pixel, [3, h, w]."""
    linear_spread: Array
    """The same before the stretch, in units of the background's noise."""
    channels: list[stretch.LinearModeChannel] | None
    """Parameters of the linear mode, where that was the stretch."""


def draw_sigma(rng: np.random.Generator, laws: FrameLaws, mode: str) -> float:
    """Wanted noise at the background after the stretch."""
    if mode == "symmetric" and rng.random() < 0.5:
        return float(rng.uniform(*laws.sigma_symmetric))
    choice = rng.random()
    if choice < laws.strong_share:
        return log_uniform(rng, *laws.sigma_strong)
    if choice < laws.strong_share + laws.faint_share:
        return log_uniform(rng, *laws.sigma_faint)
    return log_uniform(rng, *laws.sigma_usual)


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


def _happens(rng: np.random.Generator, share: float) -> bool:
    """True in that share of cases. A share of zero draws nothing, so that what is left out changes no other number."""
    return share > 0.0 and bool(rng.random() < share)


def _noisy(rng: np.random.Generator, frame: Array, level: Array, sigma: float, mono: bool, laws: FrameLaws,
           may_count: bool = True) -> tuple[Array, Array, Array]:
    """The frame with noise of about `sigma` at the background, the per-channel sigma and the per-pixel one."""
    channels = frame.shape[0]
    per_channel = sigma * np.exp(rng.normal(0.0, 0.15, channels)) if channels > 1 else np.array([sigma])
    recipe = noise.draw_recipe(rng, mono)
    recipe.true_poisson = bool(may_count and sigma > 0.3 * level.mean())
    if _happens(rng, laws.outlier_share):
        recipe.outlier_density, recipe.outlier_bright = 10 ** rng.uniform(-2.7, -1.2), rng.uniform(0.0, 1.0)
    noisy = noise.add_noise(rng, frame, level, per_channel, recipe)
    return noisy, per_channel, noise.spread(frame, level, per_channel, recipe.photon_share)


def _with_clouds(rng: np.random.Generator, frame: Array, sigma: float, laws: FrameLaws) -> Array:
    """The linear frame, in some cases with clouds of a height that is small against the noise."""
    if not _happens(rng, laws.clouds_share):
        return frame
    clouds = faint_clouds(rng, frame.shape[0], max(frame.shape[1:]))[:, :frame.shape[1], :frame.shape[2]]
    return np.clip(frame + sigma * log_uniform(rng, *laws.clouds_height) * clouds, 0.0, 1.0).astype(np.float32)


def _with_black_point(rng: np.random.Generator, images: list[Array], level: Array) -> list[Array]:
    """Stretched noisy and clean frame less a black point near the sky's level, in one channel or more."""
    channels = rng.random(len(level)) < 0.5
    channels[rng.integers(len(level))] = True
    black = (channels * level * rng.uniform(0.7, 1.1, len(level)))[:, None, None]
    return [np.maximum(image - black, 0.0).astype(np.float32) for image in images]


def _linear_mode(noisy: Array, multiplier: float, background: float) -> list[stretch.LinearModeChannel] | None:
    """The linear mode's parameters, always those of the noisy frame; None if a plane has no spread."""
    channels = [stretch.linear_mode_channel(plane, multiplier, background) for plane in noisy]
    return channels if all(0.0 < c.midtones < 1.0 for c in channels) else None


def _through(curve: stretch.Curve, frame: Array, spread: Array) -> Array:
    """Spread after a curve: half the difference of the curve one standard deviation up and down."""
    return 0.5 * np.abs(curve(np.clip(frame + spread, 0.0, 1.0)) - curve(np.clip(frame - spread, 0.0, 1.0)))


def _quantised(rng: np.random.Generator, image: Array) -> Array:
    """16 bits in three of ten cases, 8 bits in one of twenty."""
    choice = rng.random()
    steps = 65535.0 if choice < 0.30 else 255.0 if choice < 0.35 else 0.0
    return np.round(image * steps) / steps if steps else image


def _finish(rng: np.random.Generator, laws: FrameLaws, noisy: Array, clean: Array, spread: Array, linear_spread: Array,
            mono: bool) -> tuple[Array, Array, Array, Array]:
    """Quantised, perhaps with dark channels, three planes of float32 each."""
    perfect = rng.random() < laws.perfect_share
    noisy = np.clip(clean if perfect else noisy, 0.0, 1.0)
    planes = [_quantised(rng, noisy), np.clip(clean, 0.0, 1.0), np.zeros_like(spread) if perfect else spread,
              np.clip(linear_spread, 0.0, NO_LIMIT)]
    if mono:
        return tuple(np.repeat(p.astype(np.float32), 3, axis=0) for p in planes)
    planes = [np.array(p, np.float32) for p in planes]
    if rng.random() < laws.zero_channel_share:
        dark = rng.permutation(3)[: rng.integers(1, 3)]
        for plane in planes[:3]:
            plane[dark] = 0.0
    return tuple(planes)


def make_pair(rng: np.random.Generator, light: Array, laws: FrameLaws = FrameLaws(), wanted: float | None = None,
              mode: str | None = None, mono: bool | None = None) -> Pair:
    """A noisy and a clean stretched frame of a scene's light [3, h, w]; what is not given is drawn from the laws."""
    mono = bool(rng.random() < laws.mono_share) if mono is None else mono
    mode = str(rng.choice(MODES, p=laws.modes)) if mode is None else mode
    wanted = draw_sigma(rng, laws, mode) if wanted is None else wanted
    frame = exposure(rng, np.zeros_like(light) if rng.random() < laws.blank_share else light, mono)
    level = np.maximum(medians(frame), 1e-7)
    if mode in ("other", "symmetric"):
        return _other_stretch(rng, frame, level, wanted, laws, mode, mono)
    background = 0.25 if rng.random() < 0.7 else rng.uniform(0.1, 0.35)
    multiplier = -2.8 if rng.random() < 0.7 else rng.uniform(-4.0, -1.5)
    if mode == "linear":
        sigma = _sigma_for_linear_mode(rng, frame, level, wanted, multiplier, background)
    elif mode == "subtracted":
        sigma = float(level.mean()) * log_uniform(rng, 0.005, 0.4)
    else:
        sigma = min(wanted, 0.3 * float(level.mean()))
    frame = _with_clouds(rng, frame, sigma, laws)
    noisy, per_channel, spread = _noisy(rng, frame, level, sigma, mono, laws)
    if mode == "subtracted":
        pedestal = (level - rng.uniform(0.9, 2.8) * per_channel)[:, None, None].astype(np.float32)
        noisy, frame = noisy - pedestal, np.maximum(frame - pedestal, 0.0)
    noisy = np.clip(noisy, 0.0, 1.0)
    channels = _linear_mode(noisy, multiplier, background) if mode != "unstretched" else None
    seen = noisy, frame, spread
    if channels:
        curve = lambda image: np.stack([stretch.apply_linear_mode(p, c) for p, c in zip(image, channels)])  # noqa: E731
        seen = curve(noisy), curve(frame), _through(curve, frame, spread)
    seen = _finish(rng, laws, *seen, spread / per_channel[:, None, None], mono)
    return Pair(seen[0], seen[1], mode, mono, noisy, frame, per_channel, seen[2], seen[3], channels)


def _other_stretch(rng: np.random.Generator, frame: Array, level: Array, wanted: float, laws: FrameLaws, mode: str,
                   mono: bool) -> Pair:
    """A frame that somebody stretched by hand: the noise is solved from the curve's slope at the background.

    In the mode "symmetric" the noise comes after the stretch, small enough that hardly a sample is clipped.
    """
    target = rng.uniform(0.06, 0.32)
    wanted = min(wanted, 0.6 * target)
    mean_level = float(level.mean())
    curve = stretch.other_curve(rng, mean_level, target)
    if mode == "symmetric":
        frame = np.clip(curve(frame), 0.0, 1.0).astype(np.float32)
        level = np.maximum(medians(frame), 1e-3)
        curve = lambda image: image  # noqa: E731
        sigma = min(wanted, 0.35 * float(level.min()))
    else:
        step = 0.02 * mean_level
        slope = float(curve(np.float64(mean_level + step)) - curve(np.float64(mean_level - step))) / (2 * step)
        sigma = min(wanted / max(slope, 1e-3), 1.0 * mean_level)
    frame = _with_clouds(rng, frame, sigma, laws)
    noisy, per_channel, spread = _noisy(rng, frame, level, sigma, mono, laws, may_count=mode == "other")
    noisy = np.clip(noisy, 0.0, 1.0)
    seen = [curve(noisy), curve(frame), _through(curve, frame, spread)]
    if _happens(rng, laws.black_point_share):
        seen[:2] = _with_black_point(rng, seen[:2], medians(seen[1]))
    if not mono and mode == "other" and rng.random() < 0.4:
        amount = rng.uniform(0.7, 1.6)
        seen = [stretch.saturation(seen[0], amount), stretch.saturation(seen[1], amount),
                stretch.saturated_spread(seen[2], amount)]
    seen = _finish(rng, laws, *seen, spread / per_channel[:, None, None], mono)
    return Pair(seen[0], seen[1], mode, mono, noisy, frame, per_channel, seen[2], seen[3], None)
