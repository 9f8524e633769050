"""Simple denoisers to compare with: Gaussian, median, starlet thresholding. Images [3, h, w] in [0, 1]."""

from __future__ import annotations

import numpy as np
from scipy import ndimage

Array = np.ndarray
SPLINE = np.array([1, 4, 6, 4, 1], np.float32) / 16.0


def gaussian(image: Array) -> Array:
    """Gaussian of one pixel."""
    return ndimage.gaussian_filter(image, (0, 1, 1), mode="reflect")


def median(image: Array) -> Array:
    """3 x 3 median."""
    return ndimage.median_filter(image, size=(1, 3, 3), mode="reflect")


def _smooth(plane: Array, scale: int) -> Array:
    """B3 spline smoothing with holes of 2^scale."""
    kernel = np.zeros(4 * 2**scale + 1, np.float32)
    kernel[:: 2**scale] = SPLINE
    return ndimage.correlate1d(ndimage.correlate1d(plane, kernel, axis=0, mode="reflect"), kernel, axis=1, mode="reflect")


def starlet(image: Array, scales: int = 5, threshold: float = 3.0) -> Array:
    """Starlet (isotropic undecimated wavelet) with hard thresholds of 3 sigma; sigma of each scale from its own MAD."""
    result = np.empty_like(image)
    for channel, plane in enumerate(image):
        smooth, kept = plane, np.zeros_like(plane)
        for scale in range(scales):
            smoother = _smooth(smooth, scale)
            detail = smooth - smoother
            sigma = 1.4826 * np.median(np.abs(detail))
            kept += np.where(np.abs(detail) > threshold * sigma, detail, 0.0)
            smooth = smoother
        result[channel] = smooth + kept
    return np.clip(result, 0.0, 1.0)


ALL = {"gaussian 1 px": gaussian, "median 3x3": median, "starlet 3 sigma": starlet}
