"""Point spread functions: Moffat core, aureole, obstructed aperture, diffraction spikes.

All functions work on a periodic grid whose origin is the corner [0, 0], so that a kernel can go straight into an FFT.
Lengths are in grid samples; `build` takes them in image pixels and a number of samples per pixel.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import scipy.fft
from scipy import special

from .fields import log_uniform

Array = np.ndarray


@dataclass
class PsfShape:
    """One optical system on one night. Lengths in image pixels, angles in radians, shares as parts of the flux."""

    fwhm: float
    beta: float
    ellipticity: float = 0.0
    angle: float = 0.0
    channel_ratio: tuple[float, float, float] = (1.0, 1.0, 1.0)
    coma: tuple[float, float] = (0.0, 0.0)
    aureole_share: float = 0.0
    aureole_width: float = 8.0
    airy_obstruction: float | None = None
    spike_count: int = 0
    spike_share: float = 0.0
    spike_length: float = 20.0
    spike_angle: float = 0.0


def draw_shape(rng: np.random.Generator, fwhm_range: tuple[float, float], beta_range: tuple[float, float]) -> PsfShape:
    """A random optical system; one in ten is undersampled (FWHM 1.1 to 1.6 px)."""
    fwhm = rng.uniform(1.1, 1.6) if rng.random() < 0.1 else log_uniform(rng, *fwhm_range)
    shape = PsfShape(fwhm=fwhm, beta=rng.uniform(*beta_range))
    shape.ellipticity = min(abs(rng.normal(0.0, 0.04)), 0.3)
    shape.angle = rng.uniform(0.0, np.pi)
    shape.channel_ratio = (rng.uniform(0.92, 1.10), 1.0, rng.uniform(0.92, 1.10))
    if rng.random() < 0.3:
        shape.coma = (rng.uniform(-1, 1), rng.uniform(-1, 1))
    shape.aureole_share = log_uniform(rng, 0.005, 0.12)
    shape.aureole_width = rng.uniform(4.0, 14.0)
    if rng.random() < 0.15:
        shape.airy_obstruction = rng.uniform(0.0, 0.4)
    if rng.random() < 0.45:
        shape.spike_count = int(rng.choice([4, 6]))
        shape.spike_share = log_uniform(rng, 0.006, 0.10)
        shape.spike_length = log_uniform(rng, 8.0, 45.0)
        shape.spike_angle = rng.uniform(0.0, np.pi)
    return shape


def grid_offsets(size: int) -> tuple[Array, Array]:
    """Signed row and column distance of every sample from the corner origin on a periodic grid."""
    axis = np.fft.fftfreq(size, 1.0 / size).astype(np.float32)
    return axis[:, None], axis[None, :]


def moffat(rows: Array, columns: Array, fwhm: float, beta: float, ellipticity: float = 0.0, angle: float = 0.0) -> Array:
    """Moffat profile (1 + (r/a)^2)^-beta with a = fwhm / (2 sqrt(2^(1/beta) - 1)), normalised to unit sum.

    The ellipticity stretches one axis and shrinks the other by the same factor, so that the area stays.
    """
    scale = fwhm / (2.0 * np.sqrt(2.0 ** (1.0 / beta) - 1.0))
    cosine, sine = np.cos(angle), np.sin(angle)
    stretch = np.sqrt(1.0 - ellipticity)
    u = (columns * cosine + rows * sine) * stretch
    v = (rows * cosine - columns * sine) / stretch
    profile = (1.0 + (u * u + v * v) / np.float32(scale * scale)) ** np.float32(-beta)
    return profile / profile.sum()


def airy(rows: Array, columns: Array, fwhm: float, obstruction: float) -> Array:
    """Diffraction pattern of an annular aperture, |2 J1(u)/u - e^2 2 J1(eu)/(eu)|^2, normalised to unit sum.

    u = 3.233 r / fwhm makes the unobstructed pattern's full width at half maximum the given one.
    """
    u = np.maximum(np.hypot(rows, columns) * (3.233 / fwhm), 1e-4)
    amplitude = 2.0 * special.j1(u) / u
    if obstruction > 0:
        v = u * obstruction
        amplitude = amplitude - obstruction**2 * 2.0 * special.j1(v) / v
    pattern = (amplitude * amplitude).astype(np.float32)
    return pattern / pattern.sum()


def spikes(rows: Array, columns: Array, fwhm: float, count: int, length: float, angle: float) -> Array:
    """`count` rays: Gaussian across (0.45 fwhm), exp(-l/length) / (1 + l/fwhm) along; unit sum."""
    total = np.zeros(np.broadcast_shapes(rows.shape, columns.shape), np.float32)
    for ray in range(count // 2):
        direction = angle + np.pi * ray / (count // 2)
        along = np.abs(columns * np.cos(direction) + rows * np.sin(direction))
        across = rows * np.cos(direction) - columns * np.sin(direction)
        total += np.exp(-((across / (0.45 * fwhm)) ** 2) - along / length) / (1.0 + along / fwhm)
    return total / total.sum()


def _channel_kernel(shape: PsfShape, rows: Array, columns: Array, ratio: float, samples: int) -> Array:
    """One channel's kernel in grid samples, unit sum."""
    fwhm = max(shape.fwhm * ratio * samples, 1.2)
    core = moffat(rows, columns, fwhm, shape.beta, shape.ellipticity, shape.angle)
    if shape.coma != (0.0, 0.0):
        shift_rows, shift_columns = (c * samples for c in shape.coma)
        tail = moffat(rows - shift_rows, columns - shift_columns, 1.15 * fwhm, shape.beta)
        core = 0.7 * core + 0.3 * tail
    kernel = core * (1.0 - shape.aureole_share - shape.spike_share)
    kernel += shape.aureole_share * moffat(rows, columns, shape.aureole_width * fwhm, 1.6)
    if shape.spike_share > 0:
        length = shape.spike_length * samples
        kernel += shape.spike_share * spikes(rows, columns, fwhm, shape.spike_count, length, shape.spike_angle)
    return kernel.astype(np.float32)


def transfer_functions(shape: PsfShape, size: int, samples: int) -> list[Array]:
    """Fourier transforms of the three channels' kernels on a periodic size x size grid of `samples` per pixel."""
    rows, columns = grid_offsets(size)
    blur = None
    if shape.airy_obstruction is not None:
        blur = scipy.fft.rfft2(airy(rows, columns, shape.fwhm * samples, shape.airy_obstruction))
    result = []
    for ratio in shape.channel_ratio:
        transfer = scipy.fft.rfft2(_channel_kernel(shape, rows, columns, ratio, samples))
        result.append(transfer if blur is None else transfer * blur)
    return result
