"""Stretches that images have seen before the network sees them.

The midtones transfer function is M(m, x) = (m - 1) x / ((2m - 1) x - m), a shift of the logit; the program's linear mode
applies it per channel after subtracting the shadows point. Everything here works in the value range 0 to 1.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable

import numpy as np

Array = np.ndarray
Curve = Callable[[Array], Array]
MAD_TO_SIGMA = 1.4826


def midtones(balance: float, samples: Array) -> Array:
    """Midtones transfer: 0 at or below 0, 1 at or above 1, M(m, x) between; M(m, m) = 0.5."""
    x = np.clip(samples, 0.0, 1.0)
    return ((balance - 1.0) * x) / ((balance + (balance - 1.0)) * x - balance)


def inverse_midtones(balance: float, stretched: Array) -> Array:
    """Inverse of `midtones` on (0, 1): m y / (m y + (1 - m)(1 - y))."""
    y = np.clip(stretched, 0.0, 1.0)
    return balance * y / (balance * y + (1.0 - balance) * (1.0 - y))


@dataclass(frozen=True)
class LinearModeChannel:
    """One channel's parameters of the linear mode."""

    median: float
    normalized_mad: float
    shadows: float
    midtones: float


def linear_mode_channel(plane: Array, multiplier: float, background: float) -> LinearModeChannel:
    """Parameters from a whole plane: shadows = median + multiplier x 1.4826 MAD in [0, 1]; median lands on background."""
    median = float(np.median(plane))
    mad = MAD_TO_SIGMA * float(np.median(np.abs(plane - median)))
    shadows = min(max(median + multiplier * mad, 0.0), 1.0) if mad > 0 else 0.0
    balance = float(midtones(background, np.float64(median - shadows)))
    return LinearModeChannel(median, mad, shadows, balance)


def apply_linear_mode(plane: Array, channel: LinearModeChannel) -> Array:
    """The plane as the network sees it in linear mode."""
    return midtones(channel.midtones, plane - channel.shadows)


def undo_linear_mode(plane: Array, channel: LinearModeChannel) -> Array:
    """Back to linear values; samples at or below 0 become the shadows point."""
    return inverse_midtones(channel.midtones, plane) + channel.shadows


def saturation(image: Array, amount: float) -> Array:
    """Scales the difference of [3, h, w] to its mean channel by `amount`."""
    grey = image.mean(axis=0, keepdims=True)
    return grey + amount * (image - grey)


def saturated_spread(spread: Array, amount: float) -> Array:
    """Standard deviations of independent channels [3, h, w] after `saturation` by `amount`."""
    own, other = (1.0 + 2.0 * amount) / 3.0, (1.0 - amount) / 3.0
    variance = spread**2
    return np.sqrt((own**2 - other**2) * variance + other**2 * variance.sum(axis=0, keepdims=True))


def s_curve(image: Array, amount: float) -> Array:
    """Contrast curve y - a sin(2 pi y) / (2 pi), monotonic for |a| <= 1; fixes 0, 1/2 and 1."""
    return image - amount * np.sin(2.0 * np.pi * image) / (2.0 * np.pi)


def _solve_power(level: float, target: float) -> float:
    return float(np.log(target) / np.log(min(max(level, 1e-5), 0.95)))


def _solve_asinh(level: float, target: float) -> float:
    """Strength a with asinh(a level) / asinh(a) = target, by bisection in log a; level < target assumed."""
    low, high = np.log(1e-2), np.log(1e7)
    for _ in range(50):
        a = np.exp(0.5 * (low + high))
        low, high = (0.5 * (low + high), high) if np.arcsinh(a * level) / np.arcsinh(a) < target else (low, 0.5 * (low + high))
    return float(np.exp(0.5 * (low + high)))


def other_curve(rng: np.random.Generator, level: float, target: float) -> Curve:
    """A random monotonic curve, the same for all channels, that sends the background `level` near `target`.

    Families: midtones, asinh, power law, two midtones steps; now and then followed by a contrast curve.
    """
    black = level * rng.uniform(0.0, 0.95)
    rest = (level - black) / (1.0 - black)
    kind = rng.choice(["midtones", "asinh", "power", "two-step"])
    target = max(target, 1.02 * rest)
    if kind == "midtones":
        balance = float(midtones(target, np.float64(rest)))
        curve: Curve = lambda x: midtones(balance, x)
    elif kind == "asinh":
        strength = _solve_asinh(rest, target)
        curve = lambda x: np.arcsinh(strength * x) / np.arcsinh(strength)
    elif kind == "power":
        exponent = _solve_power(rest, target)
        curve = lambda x: np.power(x, exponent)
    else:
        first = float(midtones(0.6 * target, np.float64(rest)))
        second = float(midtones(target, np.float64(0.6 * target)))
        curve = lambda x: midtones(second, midtones(first, x))
    contrast = rng.uniform(0.0, 0.5) if rng.random() < 0.35 else 0.0

    def whole(x: Array) -> Array:
        y = curve(np.clip((x - black) / (1.0 - black), 0.0, 1.0))
        return s_curve(y, contrast) if contrast > 0 else y

    return whole
