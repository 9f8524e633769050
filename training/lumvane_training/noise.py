"""Sensor noise in the linear domain, with the correlations that debayering, registration and resampling leave.

n(x) = z sqrt(v0 + v1 x): z is a field of zero mean and unit variance, v1 x the photon part, v0 the read-out part. The
standard deviation is asked for at one level, the background's, because that is what the eye and the stretch see.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import scipy.fft
from scipy import ndimage

Array = np.ndarray

BILINEAR_GREEN = np.array([[0, 1, 0], [1, 4, 1], [0, 1, 0]], np.float32) / 4
BILINEAR_RED_BLUE = np.array([[1, 2, 1], [2, 4, 2], [1, 2, 1]], np.float32) / 4

# Gradient-corrected 5x5 interpolation (Malvar, He and Cutler 2004); each row sums to 1 on a grey mosaic.
_GREEN_AT_OTHER = np.array(
    [[0, 0, -1, 0, 0], [0, 0, 2, 0, 0], [-1, 2, 4, 2, -1], [0, 0, 2, 0, 0], [0, 0, -1, 0, 0]], np.float32) / 8
_COLOUR_IN_ROW = np.array(
    [[0, 0, 0.5, 0, 0], [0, -1, 0, -1, 0], [-1, 4, 5, 4, -1], [0, -1, 0, -1, 0], [0, 0, 0.5, 0, 0]], np.float32) / 8
_COLOUR_IN_COLUMN = _COLOUR_IN_ROW.T.copy()
_COLOUR_DIAGONAL = np.array(
    [[0, 0, -1.5, 0, 0], [0, 2, 0, 2, 0], [-1.5, 0, 6, 0, -1.5], [0, 2, 0, 2, 0], [0, 0, -1.5, 0, 0]], np.float32) / 8


@dataclass
class NoiseRecipe:
    """What happened to the noise of one exposure. Amplitudes are in units of the background's standard deviation."""

    photon_share: float = 0.7
    mosaic: str = "none"
    """none, bilinear or gradient: how a colour filter array was interpolated."""
    registration: float = 0.0
    """f of the separable kernel (f/2, 1 - f, f/2)."""
    resampling: float = 0.0
    """Standard deviation in pixels of a Gaussian, for drizzled or resampled frames."""
    reduced: float = 0.0
    """Share of a 3x3 median blended in: noise that somebody already reduced once."""
    banding: float = 0.0
    banding_axis: int = 1
    walking: float = 0.0
    walking_length: float = 16.0
    walking_angle: float = 0.0
    gain_pattern: float = 0.0
    """Pixel response non-uniformity, relative to the signal."""
    hot_density: float = 0.0
    outlier_density: float = 0.0
    """Share of pixels whose noise has long tails, as raw frames of simple sensors have them."""
    outlier_bright: float = 0.5
    """Share of these that are too bright; the others are too dark."""
    true_poisson: bool = False


def draw_recipe(rng: np.random.Generator, mono: bool) -> NoiseRecipe:
    """Random processing history with the shares that the data section of the model card lists."""
    recipe = NoiseRecipe(photon_share=rng.uniform(0.3, 1.0))
    if not mono and rng.random() < 0.4:
        recipe.mosaic = str(rng.choice(["bilinear", "gradient"]))
    if rng.random() < 0.6:
        recipe.registration = rng.uniform(0.0, 0.5)
    if rng.random() < 0.12:
        recipe.resampling = rng.uniform(0.4, 0.9)
    if rng.random() < 0.08:
        recipe.reduced = rng.uniform(0.2, 0.5)
    if rng.random() < 0.15:
        recipe.banding, recipe.banding_axis = rng.uniform(0.05, 0.3), int(rng.integers(2))
    if rng.random() < 0.12:
        recipe.walking, recipe.walking_length = rng.uniform(0.1, 0.5), rng.uniform(8.0, 40.0)
        recipe.walking_angle = rng.uniform(0.0, np.pi)
    if rng.random() < 0.2:
        recipe.gain_pattern = 10 ** rng.uniform(-3.0, -2.0)
    if rng.random() < 0.3:
        recipe.hot_density = 10 ** rng.uniform(-5.0, -3.2)
    return recipe


def _mosaic_masks(height: int, width: int) -> dict[str, Array]:
    """RGGB masks: red, green in red rows, green in blue rows, blue."""
    rows, columns = np.indices((height, width)) % 2
    return {"r": (rows == 0) & (columns == 0), "gr": (rows == 0) & (columns == 1),
            "gb": (rows == 1) & (columns == 0), "b": (rows == 1) & (columns == 1)}


def _correlate(plane: Array, kernel: Array) -> Array:
    return ndimage.correlate(plane, kernel, mode="wrap")


def demosaic(mosaic: Array, method: str) -> Array:
    """An RGGB mosaic [h, w] as three full planes, bilinear or gradient-corrected; linear, so it acts on noise alone."""
    masks = _mosaic_masks(*mosaic.shape)
    green = masks["gr"] | masks["gb"]
    if method == "bilinear":
        return np.stack([_correlate(mosaic * masks["r"], BILINEAR_RED_BLUE), _correlate(mosaic * green, BILINEAR_GREEN),
                         _correlate(mosaic * masks["b"], BILINEAR_RED_BLUE)])
    in_row, in_column = _correlate(mosaic, _COLOUR_IN_ROW), _correlate(mosaic, _COLOUR_IN_COLUMN)
    diagonal = _correlate(mosaic, _COLOUR_DIAGONAL)
    red = np.select([masks["r"], masks["gr"], masks["gb"]], [mosaic, in_row, in_column], diagonal)
    blue = np.select([masks["b"], masks["gb"], masks["gr"]], [mosaic, in_row, in_column], diagonal)
    return np.stack([red, np.where(green, mosaic, _correlate(mosaic, _GREEN_AT_OTHER)), blue])


def line_blur(field: Array, length: float, angle: float) -> Array:
    """Each plane averaged along a line of `length` pixels, by its transfer function sinc(length k.direction)."""
    height, width = field.shape[-2:]
    rows, columns = np.fft.fftfreq(height)[:, None], np.fft.rfftfreq(width)[None, :]
    transfer = np.sinc(length * (rows * np.sin(angle) + columns * np.cos(angle))).astype(np.float32)
    return scipy.fft.irfft2(scipy.fft.rfft2(field) * transfer, s=(height, width))


def unit_variance(field: Array) -> Array:
    """Each plane scaled to unit standard deviation."""
    return field / np.maximum(field.std(axis=(-2, -1), keepdims=True), 1e-12)


def correlated(raw: Array, recipe: NoiseRecipe) -> Array:
    """Independent deviates [c, h, w] after the recipe's interpolations, renormalised to unit variance per channel."""
    field = raw
    if recipe.mosaic != "none" and raw.shape[0] == 3:
        masks = _mosaic_masks(*raw.shape[1:])
        mosaic = np.select([masks["r"], masks["b"]], [raw[0], raw[2]], raw[1])
        field = demosaic(mosaic, recipe.mosaic)
    if recipe.registration > 0:
        f = recipe.registration
        kernel = np.array([f / 2, 1 - f, f / 2], np.float32)
        field = ndimage.correlate1d(ndimage.correlate1d(field, kernel, axis=1, mode="wrap"), kernel, axis=2, mode="wrap")
    if recipe.resampling > 0:
        field = ndimage.gaussian_filter(field, (0, recipe.resampling, recipe.resampling), mode="wrap", truncate=3.5)
    if recipe.reduced > 0:
        smooth = ndimage.median_filter(field, size=(1, 3, 3), mode="wrap")
        field = (1 - recipe.reduced) * field + recipe.reduced * smooth
    return unit_variance(field)


def _deviates(rng: np.random.Generator, clean: Array, gain: Array, true_poisson: bool) -> Array:
    """Independent unit-variance deviates; those of a Poisson count of clean/gain electrons when asked."""
    if not true_poisson:
        return rng.standard_normal(clean.shape, dtype=np.float32)
    mean = np.maximum(clean / np.maximum(gain, 1e-12), 1e-3)
    # Far above a thousand electrons the Gaussian is exact enough and the generator would only be slow.
    counts = rng.poisson(np.minimum(mean, 1e3))
    skewed = ((counts - mean) / np.sqrt(mean)).astype(np.float32)
    return np.where(mean < 1e3, skewed, rng.standard_normal(clean.shape, dtype=np.float32))


def _residue(rng: np.random.Generator, clean: Array, sigma: Array, recipe: NoiseRecipe) -> Array | float:
    """What calibration leaves behind: banding, walking noise, gain pattern and hot pixels, [c, h, w]."""
    total: Array | float = 0.0
    channels, height, width = clean.shape
    if recipe.banding > 0:
        lines = (channels, height, 1) if recipe.banding_axis == 0 else (channels, 1, width)
        total = total + recipe.banding * sigma * rng.standard_normal(lines, dtype=np.float32)
    if recipe.walking > 0:
        white = rng.standard_normal(clean.shape, dtype=np.float32)
        total = total + recipe.walking * sigma * unit_variance(line_blur(white, recipe.walking_length, recipe.walking_angle))
    if recipe.gain_pattern > 0:
        total = total + recipe.gain_pattern * clean * rng.standard_normal(clean.shape, dtype=np.float32)
    if recipe.hot_density > 0:
        hot = np.zeros(clean.shape, np.float32)
        count = rng.poisson(recipe.hot_density * height * width)
        size = rng.uniform(4.0, 60.0, count) * np.where(rng.random(count) < 0.85, 1.0, -1.0)
        hot[rng.integers(channels, size=count), rng.integers(height, size=count), rng.integers(width, size=count)] = size
        total = total + hot * sigma
    if recipe.outlier_density > 0:
        sign = np.where(rng.random(clean.shape, dtype=np.float32) < recipe.outlier_bright, 1.0, -1.0)
        size = 2.0 + rng.exponential(2.0, clean.shape)
        total = total + (sigma * sign * size * (rng.random(clean.shape) < recipe.outlier_density)).astype(np.float32)
    return total


def spread(clean: Array, level: Array, sigma: Array, photon_share: float) -> Array:
    """Standard deviation of the noise of every pixel of [c, h, w]: sqrt(v0 + v1 x), sigma[c] at signal level[c].

    v1 = share sigma^2 / level and v0 = (1 - share) sigma^2, so that v0 + v1 level = sigma^2.
    """
    variance = np.square(np.asarray(sigma, np.float32))[:, None, None]
    level = np.maximum(np.asarray(level, np.float32), 1e-9)[:, None, None]
    return np.sqrt((1.0 - photon_share) * variance + photon_share * variance / level * np.maximum(clean, 0.0))


def add_noise(rng: np.random.Generator, clean: Array, level: Array, sigma: Array, recipe: NoiseRecipe) -> Array:
    """The clean frame [c, h, w] with noise of standard deviation sigma[c] at signal level[c]; not clipped."""
    deviation = spread(clean, level, sigma, recipe.photon_share)
    sigma = np.asarray(sigma, np.float32)[:, None, None]
    level = np.maximum(np.asarray(level, np.float32), 1e-9)[:, None, None]
    photon = recipe.photon_share * sigma**2 / level
    field = correlated(_deviates(rng, clean, photon, recipe.true_poisson), recipe)
    return (clean + deviation * field + _residue(rng, clean, sigma, recipe)).astype(np.float32)
