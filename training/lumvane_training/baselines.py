"""Established denoisers to compare with, each with a strength to tune. Images [c, h, w] in [0, 1], c = 1 or 3."""

from __future__ import annotations

from typing import Callable

import numpy as np
from scipy import ndimage

Array = np.ndarray
Method = Callable[[Array, float, float], Array]
SPLINE = np.array([1, 4, 6, 4, 1], np.float32) / 16.0


def _smooth(plane: Array, scale: int) -> Array:
    """B3 spline smoothing with holes of 2^scale."""
    kernel = np.zeros(4 * 2**scale + 1, np.float32)
    kernel[:: 2**scale] = SPLINE
    return ndimage.correlate1d(ndimage.correlate1d(plane, kernel, axis=0, mode="reflect"), kernel, axis=1, mode="reflect")


def starlet(image: Array, sigma: float, strength: float, scales: int = 5) -> Array:
    """Starlet (isotropic undecimated wavelet), hard thresholds of 3 x strength deviations of each scale's own MAD.

    It measures the noise itself, scale by scale; `sigma` is not used.
    """
    del sigma
    result = np.empty_like(image)
    for channel, plane in enumerate(image):
        smooth, kept = plane, np.zeros_like(plane)
        for scale in range(scales):
            smoother = _smooth(smooth, scale)
            detail = smooth - smoother
            spread = 1.4826 * np.median(np.abs(detail))
            kept += np.where(np.abs(detail) > 3.0 * strength * spread, detail, 0.0)
            smooth = smoother
        result[channel] = smooth + kept
    return np.clip(result, 0.0, 1.0)


def non_local_means(image: Array, sigma: float, strength: float) -> Array:
    """Non-local means, patches of 5 px within 7 px, h = 0.8 x strength x sigma (scikit-image)."""
    from skimage.restoration import denoise_nl_means

    moved = np.ascontiguousarray(image.transpose(1, 2, 0), np.float64)
    out = denoise_nl_means(moved, patch_size=5, patch_distance=7, h=0.8 * strength * sigma, sigma=sigma, fast_mode=True,
                           channel_axis=-1)
    return out.reshape(moved.shape).transpose(2, 0, 1).astype(np.float32)


def bm3d(image: Array, sigma: float, strength: float) -> Array:
    """BM3D for a noise of strength x sigma; colour images in its opponent colour space."""
    import bm3d as library

    if len(image) == 1:
        return library.bm3d(image[0].astype(np.float64), strength * sigma)[None].astype(np.float32)
    out = library.bm3d_rgb(np.ascontiguousarray(image.transpose(1, 2, 0), np.float64), strength * sigma)
    return out.transpose(2, 0, 1).astype(np.float32)


METHODS: dict[str, tuple[Method, tuple[float, ...]]] = {
    "BM3D": (bm3d, (0.8, 1.3)),
    "non-local means": (non_local_means, (0.5, 0.75, 1.0, 1.5, 2.2)),
    "starlet": (starlet, (0.4, 0.6, 0.8, 1.0, 1.3)),
}
"""Methods and the strengths that are tried."""
