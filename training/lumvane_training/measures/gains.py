"""PSNR and SSIM at given noise levels, against established methods that are tuned on the very same frames."""

from __future__ import annotations

import numpy as np
from skimage.metrics import structural_similarity

from .. import baselines, exposures, noise, photometry, scenes, stretch
from .program import Program, as_stored
from .report import Section, table

Array = np.ndarray
LEVELS = (0.005, 0.01, 0.02, 0.05, 0.1, 0.2)
STRONG = 0.05
OTHER_LAWS = scenes.SceneLaws(fwhm=(1.4, 8.0), beta=(1.8, 6.5), star_density=(1e-4, 2.5e-2), star_slope=(0.5, 1.5),
                              nebula_slope=(2.0, 4.2), leaves_share=0.05, dust_share=0.5, shapes_share=0.3)
"""Scenes from beyond the training ranges: an unknown camera under an unknown sky."""


def stretched_frame(seed: int, index: int, size: int, mono: bool, laws: scenes.SceneLaws = OTHER_LAWS) -> Array:
    """A noise-free stretched frame [1 or 3, size, size]."""
    scene = scenes.render_scene(seed, index, size, laws)
    rng = np.random.default_rng([seed, index, 11])
    frame = exposures.exposure(rng, scene.light, mono)
    level = float(exposures.medians(frame).mean())
    return np.clip(stretch.other_curve(rng, level, rng.uniform(0.1, 0.3))(frame), 0.0, 1.0).astype(np.float32)


def noise_field(rng: np.random.Generator, shape: tuple[int, ...], white: bool) -> Array:
    """Unit deviates: white and independent, or after a random camera's debayering, registration and resampling."""
    raw = rng.standard_normal(shape, dtype=np.float32)
    if white:
        return raw
    recipe = noise.draw_recipe(rng, shape[0] == 1)
    recipe.reduced = 0.0
    return noise.correlated(raw, recipe)


def similarity(image: Array, truth: Array) -> float:
    """Structural similarity, Gaussian window of 1.5 px (Wang et al. 2004)."""
    return float(structural_similarity(truth, image, data_range=1.0, channel_axis=0, gaussian_weights=True, sigma=1.5,
                                       use_sample_covariance=False))


def _cut(image: Array, side: int) -> Array:
    start = (image.shape[-1] - side) // 2
    return np.ascontiguousarray(image[:, start:start + side, start:start + side])


def tuned(method: baselines.Method, strengths: tuple[float, ...], frames: list[tuple[Array, Array]],
          sigma: float) -> tuple[float, float, float]:
    """Mean PSNR, mean SSIM and the strength whose mean PSNR over the frames (noisy, clean) is best."""
    best = (-np.inf, 0.0, 0.0)
    for strength in strengths:
        results = [(np.clip(method(noisy, sigma, strength), 0, 1), clean) for noisy, clean in frames]
        mean = float(np.mean([photometry.psnr(*r) for r in results]))
        if mean > best[0]:
            best = (mean, float(np.mean([similarity(*r) for r in results])), strength)
    return best


def measure(program: Program, seed: int, count: int, size: int, side: int, methods=baselines.METHODS) -> Section:
    """`count` frames of size x size per level and kind; all methods are compared on their central `side` pixels."""
    section = Section("Noise removed")
    section.lines = [
        f"{count} frames per row, scenes from beyond the training ranges, every second one with white noise, the others with "
        "noise as a camera and its processing correlate it, added after the stretch. PSNR in dB, SSIM in brackets. The other "
        f"methods know the noise level and have the best of several strengths for each row; all are compared on the central "
        f"{side} pixels. `worst` is the smallest gain of the network on a whole frame.", ""]
    rows = []
    for mono in (False, True) if program.model == 2 else (False,):
        for level in LEVELS:
            frames, gains, outputs = [], [], []
            for index in range(count):
                number = 1000 * LEVELS.index(level) + 10 * index + mono
                clean = stretched_frame(seed, number, size, mono)
                rng = np.random.default_rng([seed, number, 12])
                noisy = as_stored(clean + level * noise_field(rng, clean.shape, index % 2 == 0))
                output = program.tiff(noisy)
                gains.append(photometry.psnr(output, clean) - photometry.psnr(noisy, clean))
                frames.append((_cut(noisy, side), _cut(clean, side)))
                outputs.append(_cut(output, side))
            own = (float(np.mean([photometry.psnr(o, c) for o, (_, c) in zip(outputs, frames)])),
                   float(np.mean([similarity(o, c) for o, (_, c) in zip(outputs, frames)])))
            before = float(np.mean([photometry.psnr(n, c) for n, c in frames]))
            others = {name: tuned(method, strengths, frames, level) for name, (method, strengths) in methods.items()}
            rows.append({"mono": mono, "level": level, "before": before, "network": own, "worst": min(gains), "others": others})
    section.figures = {"rows": rows}
    section.lines += table(
        ["frames", "noise", "input", "network", *methods, "worst"],
        [["gray" if r["mono"] else "colour", f"{r['level']:.1%}", f"{r['before']:.1f}",
          f"**{r['network'][0]:.1f}** ({r['network'][1]:.3f})",
          *(f"{v[0]:.1f} ({v[1]:.3f})" for v in r["others"].values()), f"{r['worst']:+.1f}"] for r in rows])
    lead = [(r["network"][0] - max([v[0] for v in r["others"].values()], default=r["before"]), r["level"]) for r in rows]
    section.at_least("lead over the best other method, noise of 5 % and more, worst row",
                     min(v for v, level in lead if level >= STRONG), 2.0, unit=" dB")
    section.at_least("the same, weaker noise, worst row", min(v for v, level in lead if level < STRONG), 0.0, unit=" dB")
    section.at_least("SSIM lead, worst row", min(r["network"][1] - max([v[1] for v in r["others"].values()], default=0.0)
                                                 for r in rows), 0.0, "{:+.3f}")
    section.at_least("gain of the worst single frame", min(r["worst"] for r in rows), 0.0, unit=" dB")
    return section
