"""Random fields on a periodic square grid, the raw material of nebulae, dust and textures."""

from __future__ import annotations

import functools

import numpy as np
import scipy.fft
from scipy import ndimage

Array = np.ndarray


@functools.lru_cache(maxsize=8)
def _wavenumbers(size: int) -> Array:
    """|k| of the half-complex spectrum of a size x size grid, in cycles per grid width; k = 0 reads 1."""
    rows = np.fft.fftfreq(size, 1.0 / size).astype(np.float32)
    columns = np.fft.rfftfreq(size, 1.0 / size).astype(np.float32)
    k = np.hypot(rows[:, None], columns[None, :])
    k[0, 0] = 1.0
    return k


def gaussian_field(rng: np.random.Generator, size: int, slope: float) -> Array:
    """Gaussian field of zero mean and unit variance with power spectrum k^-slope; float32 [size, size], periodic."""
    spectrum = scipy.fft.rfft2(rng.standard_normal((size, size), dtype=np.float32))
    spectrum *= _wavenumbers(size) ** np.float32(-0.5 * slope)
    spectrum[0, 0] = 0.0
    field = scipy.fft.irfft2(spectrum, s=(size, size))
    return field / max(float(field.std()), 1e-12)


def warp(field: Array, shift_rows: Array, shift_columns: Array) -> Array:
    """The field read at positions displaced by the two shift maps (pixels), bilinear and periodic."""
    rows, columns = np.indices(field.shape, dtype=np.float32)
    return ndimage.map_coordinates(field, (rows + shift_rows, columns + shift_columns), order=1, mode="grid-wrap")


def warped_field(rng: np.random.Generator, size: int, slope: float, reach: float) -> Array:
    """A Gaussian field stirred by two smooth displacement fields of `reach` pixels rms: filaments and swirls."""
    field = gaussian_field(rng, size, slope)
    if reach <= 0:
        return field
    return warp(field, reach * gaussian_field(rng, size, 3.5), reach * gaussian_field(rng, size, 3.5))


def ridges(field: Array) -> Array:
    """Thin bright sheets where the field crosses zero: 1 - |g|, clipped at 0 and squared to sharpen."""
    return np.clip(1.0 - np.abs(field), 0.0, None) ** 2


def log_uniform(rng: np.random.Generator, low: float, high: float) -> float:
    """One value, uniform in the logarithm between low and high."""
    return float(np.exp(rng.uniform(np.log(low), np.log(high))))
