"""Flat and sloped skies and faint disks: shifts, lattices, false detections, contrast of faint light."""

from __future__ import annotations

import numpy as np
from scipy import ndimage

from .. import photometry
from .program import Program, as_stored
from .report import Section, table
from .stars import peaks, spread

Array = np.ndarray
CONTRASTS = (0.1, 0.2, 0.5, 1.0)
DIAMETERS = (20, 40, 80)
DETECTION_FWHM = 3.0


def noise_frames(seed: int, count: int, size: int):
    """`count` pairs (clean, noisy, sigma): skies of 0.1 to 0.3, flat or sloped by up to a half, white noise of 2 to 6 %."""
    for index in range(count):
        rng = np.random.default_rng([seed, index, 31])
        slope = 0.5 * (index % 2) * np.linspace(-0.5, 0.5, size)
        levels = rng.uniform(0.1, 0.3) * np.array([1.0, rng.uniform(0.8, 1.2), rng.uniform(0.8, 1.2)])
        clean = levels[:, None, None] * (1.0 + slope[None, :, None]) * np.ones((3, size, size))
        sigma = rng.uniform(0.02, 0.06) * min(1.0, 3.0 * float(levels.min()))
        yield clean.astype(np.float32), as_stored(clean + sigma * rng.standard_normal(clean.shape)), sigma


def heights_inside(plane: Array, margin: int = 16) -> Array:
    """Heights of the peaks away from the frame's border, where a slope would look like one."""
    rows, columns, heights = peaks(plane, DETECTION_FWHM)
    inside = (np.minimum(rows, columns) > margin) & (rows < plane.shape[0] - margin) & (columns < plane.shape[1] - margin)
    return heights[inside]


def false_sources(noisy: Array, output: Array) -> tuple[int, int, float]:
    """Detections in the denoised frame above 5 deviations of the smoothed noisy one, in the noisy one, and the highest."""
    noisy, output = (image.mean(axis=0, dtype=np.float64) for image in (noisy, output))
    smooth = ndimage.gaussian_filter(noisy, DETECTION_FWHM / 2.355) - ndimage.gaussian_filter(noisy, 4 * DETECTION_FWHM)
    limit = 5.0 * spread(smooth[16:-16, 16:-16].ravel())
    heights = heights_inside(output)
    return int(np.sum(heights > limit)), int(np.sum(heights_inside(noisy) > limit)), float(heights.max() * 5 / limit)


def measure_noise(program: Program, seed: int, count: int, size: int) -> Section:
    """Pure noise over flat and sloped skies, stretched, 16 bits."""
    section = Section("Pure noise")
    left, shifts, means, lattices, sources, highest = [], [], [], [], np.zeros(2, int), []
    for clean, noisy, sigma in noise_frames(seed, count, size):
        output = program.tiff(noisy)
        error = ((output - clean) / sigma)[:, 16:-16, 16:-16]
        left.append(float(error.std()))
        shifts.append(np.abs(error.mean(axis=(1, 2))).max())
        means.append(np.abs((output - noisy).mean(axis=(1, 2))).max())
        lattices.append(max(photometry.lattice(plane) for plane in error))
        found = false_sources(noisy, output)
        sources += found[:2]
        highest.append(found[2])
    section.lines = [f"{count} frames of {size} x {size} pixels, every second one sloped, symmetric white noise after the "
                     f"stretch. Noise left: {np.mean(left):.3f} of the noise before, so it is {1 / np.mean(left):.0f} times "
                     f"weaker. Highest peak in a denoised frame: {max(highest):.2f} deviations of the noisy frame smoothed by "
                     f"{DETECTION_FWHM:g} px, where a detection would begin at 5; detections in the noisy frames: {sources[1]}."]
    section.gate("false detections", int(sources[0]), 0, "{:d}")
    section.gate("shift of the sky, worst channel and frame, in deviations", float(max(shifts)), 0.02)
    section.gate("shift of a channel's mean, worst", float(max(means)), 1e-3, "{:.5f}")
    section.gate("2 px lattice, worst, in deviations", float(max(lattices)), 0.01, "{:.4f}")
    section.figures = {"left": float(np.mean(left)), "shift": float(max(shifts)), "lattice": float(max(lattices))}
    return section


def disks(size: int, diameter: int) -> tuple[Array, list[tuple[int, int]]]:
    """A mask of soft-edged disks on a grid three diameters apart, and their centres."""
    step = 3 * diameter
    centres = [(r, c) for r in range(step // 2 + 8, size - step // 2, step) for c in range(step // 2 + 8, size - step // 2, step)]
    rows, columns = np.indices((size, size), dtype=np.float32)
    mask = np.zeros((size, size), np.float32)
    for row, column in centres:
        mask += np.clip(0.5 * diameter - np.hypot(rows - row, columns - column) + 0.5, 0.0, 1.0)
    return ndimage.gaussian_filter(mask, 1.5), centres


def contrast(plane: Array, centres: list[tuple[int, int]], diameter: int) -> float:
    """Mean over the disks of their inner light less that of the ring around."""
    rows, columns = np.indices(plane.shape, dtype=np.float32)
    values = []
    for row, column in centres:
        distance = np.hypot(rows - row, columns - column)
        ring = (distance > 0.75 * diameter) & (distance < 1.3 * diameter)
        values.append(float(plane[distance < 0.35 * diameter].mean() - plane[ring].mean()))
    return float(np.mean(values))


def measure_faint(program: Program, seed: int, size: int) -> Section:
    """Disks of 0.1 to 1 deviation per pixel on a flat linear sky through the linear mode."""
    section = Section("Faint extended light")
    rows, worst, errors = [], [], []
    for number, value in enumerate(CONTRASTS):
        cells = []
        for diameter in DIAMETERS:
            rng = np.random.default_rng([seed, number, diameter, 41])
            sigma, sky = 4e-4, 0.02
            mask, centres = disks(size, diameter)
            clean = np.repeat((sky + value * sigma * mask)[None], 3, axis=0).astype(np.float32)
            noisy = (clean + sigma * rng.standard_normal(clean.shape)).astype(np.float32)
            images = clean, noisy, program.linear(noisy)
            true, before, after = (contrast(i.mean(axis=0, dtype=np.float64), centres, diameter) / sigma for i in images)
            cells.append(f"{before / true:.3f} / {after / true:.3f}")
            worst.append(after / true - 1)
            errors.append(after - before)
        rows.append([f"{value:g}", *cells])
    section.lines = ["Soft-edged disks on a flat linear sky, white noise, `--linear`. Recovered share of the contrast in the noisy "
                     "frame / in the denoised one.", ""]
    section.lines += table(["deviations per pixel", *(f"{d} px wide" for d in DIAMETERS)], rows)
    section.gate("change of a disk's mean against the noisy frame, worst, in deviations", float(max(np.abs(errors))), 0.01)
    section.gate("contrast lost or gained, worst", float(100 * max(np.abs(worst))), 5.0, "{:.1f}", " %")
    section.figures = {"errors": errors}
    return section
