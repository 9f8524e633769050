"""The built program as a function from image to image, so that the figures are what users get."""

from __future__ import annotations

import subprocess
import tempfile
import time
from pathlib import Path

import numpy as np
import tifffile

from .. import fitsfile

Array = np.ndarray


class Program:
    """The built program with one package."""

    def __init__(self, path: Path, package: Path, model: int):
        self.path, self.package, self.model = path, package, model
        self.runs, self.seconds = 0, 0.0

    def run(self, source: Path, target: Path, *options: str) -> None:
        """One run; the program's own words where it fails."""
        start = time.monotonic()
        command = [str(self.path), "--quiet", "--input", str(source), "--output", str(target),
                   "--weights", str(self.package), "--model", str(self.model), *options]
        result = subprocess.run(command, capture_output=True, text=True)
        if result.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {result.stderr.strip()}")
        self.runs, self.seconds = self.runs + 1, self.seconds + time.monotonic() - start

    def tiff(self, image: Array, *options: str) -> Array:
        """[3, h, w] or [1, h, w] in [0, 1] through a 16-bit TIFF; the result has the input's planes."""
        with tempfile.TemporaryDirectory() as folder:
            source, target = Path(folder) / "in.tif", Path(folder) / "out.tif"
            samples = sixteen_bits(image).transpose(1, 2, 0)
            kind = "rgb" if image.shape[0] == 3 else "minisblack"
            tifffile.imwrite(source, samples if kind == "rgb" else samples[..., 0], photometric=kind, metadata=None)
            self.run(source, target, *options)
            result = tifffile.imread(target).astype(np.float32) / 65535.0
        planes = result[None] if result.ndim == 2 else result.transpose(2, 0, 1)
        return np.repeat(planes, 3, axis=0) if len(planes) < len(image) else np.ascontiguousarray(planes)

    def linear(self, image: Array, *options: str) -> Array:
        """[3, h, w] or [1, h, w] of linear light in [0, 1] through a floating-point FITS file in the linear mode."""
        with tempfile.TemporaryDirectory() as folder:
            source, target = Path(folder) / "in.fits", Path(folder) / "out.fits"
            fitsfile.write(source, image if len(image) == 3 else image[0])
            self.run(source, target, "--linear", *options)
            result = fitsfile.read(target).astype(np.float32)
        return result[None] if result.ndim == 2 else result


def sixteen_bits(image: Array) -> Array:
    """Samples of a 16-bit file."""
    return np.round(np.clip(image, 0.0, 1.0) * 65535.0).astype(np.uint16)


def as_stored(image: Array) -> Array:
    """The image as a 16-bit file keeps it."""
    return sixteen_bits(image).astype(np.float32) / 65535.0
