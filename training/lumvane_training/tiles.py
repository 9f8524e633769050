"""A network over whole images: all at once, in the program's tiles, or through the built program itself."""

from __future__ import annotations

import subprocess
import tempfile
from pathlib import Path
from typing import Callable

import numpy as np
import tifffile
import torch

from .network import Denoiser

Array = np.ndarray
Denoise = Callable[[Array], Array]
WINDOW, STRIDE = 512, 480


@torch.no_grad()
def run(network: Denoiser, image: Array) -> Array:
    """The network on [3, h, w] in one piece; sides that are not multiples of 8 are extended by reflection."""
    height, width = image.shape[1:]
    padded = np.pad(image, ((0, 0), (0, -height % 8), (0, -width % 8)), mode="symmetric")
    return network(torch.from_numpy(padded)[None])[0, :, :height, :width].numpy()


def ramp(position: int, length: int) -> Array:
    """Weights of a window at `position` along an axis: rising over the overlap except at the image's ends."""
    overlap = WINDOW - STRIDE
    weight = np.ones(WINDOW)
    if position > 0:
        weight[:overlap] = np.arange(overlap) / overlap
    if position + WINDOW < length:
        weight[-overlap:] = 1.0 - np.arange(overlap) / overlap
    return weight


def run_tiled(network: Denoiser, image: Array) -> Array:
    """The network in windows of 512 at stride 480, blended linearly; sides must be 512 + a multiple of 480."""
    _, height, width = image.shape
    if (height - WINDOW) % STRIDE or (width - WINDOW) % STRIDE:
        raise ValueError("sides must be 512 plus a multiple of 480")
    total = np.zeros(image.shape)
    for row in range(0, height - WINDOW + 1, STRIDE):
        for column in range(0, width - WINDOW + 1, STRIDE):
            window = (slice(None), slice(row, row + WINDOW), slice(column, column + WINDOW))
            weight = ramp(row, height)[:, None] * ramp(column, width)[None, :]
            total[window] += weight * run(network, np.ascontiguousarray(image[window]))
    return total.astype(np.float32)


def through_program(program: Path, weights: Path, model: int) -> Denoise:
    """A denoiser that writes a 16-bit TIFF, runs the built program on it and reads the result."""

    def denoise(image: Array) -> Array:
        with tempfile.TemporaryDirectory() as folder:
            source, target = Path(folder) / "noisy.tif", Path(folder) / "denoised.tif"
            samples = np.round(np.clip(image, 0, 1).transpose(1, 2, 0) * 65535.0).astype(np.uint16)
            tifffile.imwrite(source, samples, photometric="rgb", metadata=None)
            subprocess.run([program, "--quiet", "--input", source, "--output", target, "--weights", weights,
                            "--model", str(model)], check=True, stdout=subprocess.DEVNULL)
            result = tifffile.imread(target)
        if result.ndim == 2:
            # Three equal planes count as grayscale and come back as one.
            result = np.repeat(result[:, :, None], 3, axis=2)
        return np.ascontiguousarray(result.transpose(2, 0, 1).astype(np.float32) / 65535.0)

    return denoise
