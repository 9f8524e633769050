"""Real frames, where there is no truth: background noise, and two exposures of one field against each other."""

from __future__ import annotations

import tempfile
from pathlib import Path

import numpy as np
from scipy import ndimage

from .. import fitsfile
from .program import Program
from .report import Section, table
from .stars import spread

Array = np.ndarray
SINGLE = ("HorseHead.fits",)
TWINS = ("M13_blue_0001.fits", "M13_blue_0002.fits")


def denoised(program: Program, path: Path, *options: str) -> Array:
    """A FITS file through the program, as physical values."""
    with tempfile.TemporaryDirectory() as folder:
        target = Path(folder) / "out.fits"
        program.run(path, target, *options)
        return fitsfile.read(target)


def background(image: Array) -> Array:
    """Mask of the sky: the darker half, away from stars."""
    smooth = ndimage.gaussian_filter(image, 3.0)
    sky = smooth < np.percentile(smooth, 60)
    return ndimage.binary_erosion(sky, iterations=2)


def noise_of(image: Array, sky: Array) -> float:
    """Deviation of the sky from its own broad mean."""
    return spread((image - ndimage.gaussian_filter(image, 12.0))[sky])


def shift_between(first: Array, second: Array) -> tuple[int, int]:
    """Whole-pixel offset of the second frame against the first, by correlation of their bright parts."""
    parts = [np.clip(i - np.percentile(i, 90), 0, np.percentile(i, 99.9) - np.percentile(i, 90)) for i in (first, second)]
    correlation = np.fft.irfft2(np.fft.rfft2(parts[0]) * np.conj(np.fft.rfft2(parts[1])), s=first.shape)
    place = np.unravel_index(int(np.argmax(correlation)), correlation.shape)
    return tuple(int(p) if p < n // 2 else int(p) - n for p, n in zip(place, first.shape))


def apart(first: Array, second: Array, offset: tuple[int, int]) -> float:
    """Robust deviation of first - second after aligning. No scale is fitted: noise in one of them would dilute it."""
    difference = first - np.roll(second, offset, (0, 1))
    return spread(difference[16:-16, 16:-16].ravel())


def measure(program: Program, folder: Path) -> tuple[Section, dict[str, Array]]:
    """The section and pictures (before and after side by side) by name; needs version 2, since real frames are gray."""
    section, pictures = Section("Real frames"), {}
    names = [n for n in (*SINGLE, *TWINS) if (folder / n).exists()]
    if program.model != 2 or not names:
        section.lines = ["Not measured: the frames are grayscale." if names else f"No frames in {folder}."]
        return section, pictures
    rows, ratios, frames = [], [], {}
    for name in names:
        raw = fitsfile.read(folder / name)
        result = denoised(program, folder / name, "--linear")
        sky = background(raw)
        before, after = noise_of(raw, sky), noise_of(result, sky)
        ratios.append(before / max(after, 1e-12))
        shift = float(np.mean((result - raw)[sky])) / before
        rows.append([name, f"{before:.1f}", f"{after:.1f}", f"{ratios[-1]:.1f}", f"{shift:+.3f}"])
        frames[name] = raw, result
        middle = np.s_[raw.shape[0] // 2 - 128:raw.shape[0] // 2 + 128, raw.shape[1] // 2 - 128:raw.shape[1] // 2 + 128]
        low, high = np.percentile(raw[middle], (1, 99.7))
        pictures[name.split(".")[0]] = np.hstack([
            np.round(255 * np.clip((i[middle] - low) / (high - low), 0, 1) ** 0.5).astype(np.uint8) for i in (raw, result)])
    section.lines = ["Noise of the sky (darker 60 %, broad structure taken off) in data numbers; the shift of its mean in "
                     "deviations.", ""]
    section.lines += table(["frame, `--linear`", "before", "after", "times weaker", "shift"], rows)
    section.at_least("noise of the sky, times weaker, worst frame", min(ratios), 4.0, "{:.1f}")
    if all(n in frames for n in TWINS):
        (raw_a, out_a), (raw_b, out_b) = (frames[n] for n in TWINS)
        offset = shift_between(raw_a, raw_b)
        both = [apart(*pair, offset) for pair in ((raw_a, raw_b), (out_a, raw_b), (out_a, out_b))]
        section.lines += ["", f"Two exposures of M13 apart by {offset} px: raw against raw differ by {both[0]:.1f}, one denoised "
                          f"against the other raw by {both[1]:.1f}, both denoised by {both[2]:.1f} data numbers."]
        section.gate("one exposure denoised against the other raw, over raw against raw", both[1] / both[0], 1.0, "{:.3f}")
        section.gate("both denoised, over raw against raw", both[2] / both[0], 1.0, "{:.3f}")
    return section, pictures
