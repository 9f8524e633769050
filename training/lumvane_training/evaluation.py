"""What the evaluation measures. Every function takes a denoiser (image [3, h, w] -> image) and returns plain numbers."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from . import baselines, frames, photometry, scenes, stretch
from .tiles import Denoise

Array = np.ndarray
HELD_OUT_SEED = 700_000
SIGMA_BINS = ((0.0, 0.01), (0.01, 0.03), (0.03, 0.07), (0.07, 1.0))
SNR_BINS = ((5, 10), (10, 30), (30, 100), (100, np.inf))
OTHER_LAWS = scenes.SceneLaws(fwhm=(1.4, 8.0), beta=(1.8, 6.5), star_density=(1e-4, 2.5e-2), star_slope=(0.5, 1.5),
                              nebula_slope=(2.0, 4.2), leaves_share=0.05, dust_share=0.5, shapes_share=0.3)
"""Scenes from beyond the training ranges: an unknown camera under an unknown sky."""


@dataclass
class Case:
    """One held-out pair with its scene."""

    pair: frames.Pair
    scene: scenes.Scene
    sigma: float
    """Measured noise: standard deviation of noisy - clean from its MAD, mean over channels."""


def measured_sigma(pair: frames.Pair) -> float:
    """Noise of the stretched frame at its typical brightness, robust against stars."""
    error = (pair.noisy - pair.clean).reshape(3, -1)
    return float(np.mean(stretch.MAD_TO_SIGMA * np.median(np.abs(error - np.median(error, axis=1, keepdims=True)), axis=1)))


def held_out(seed: int, count: int, size: int, laws: scenes.SceneLaws, mono: str):
    """`count` cases; noise runs through the bins, stretches alternate. `mono` is "none" or "some" (three of ten)."""
    levels = (0.004, 0.008, 0.016, 0.026, 0.04, 0.06, 0.09, 0.15)
    for index in range(count):
        scene = scenes.render_scene(seed, index, size, laws)
        rng = np.random.default_rng([seed, index, 1])
        wanted = levels[index % len(levels)] * rng.uniform(0.85, 1.15)
        mode = "subtracted" if wanted > 0.07 and index % 3 == 0 else "other" if index % 2 or wanted > 0.07 else "linear"
        pair = frames.make_pair(rng, scene.light, frames.FrameLaws(zero_channel_share=0.0), wanted, mode,
                                mono == "some" and index % 10 in (1, 4, 7))
        yield Case(pair, scene, measured_sigma(pair))


def gains(cases: list[Case], denoise: Denoise) -> list[dict]:
    """Per case: noise bin, colour or mono, PSNR of the input and gain of the network and the baselines."""
    rows = []
    for case in cases:
        pair = case.pair
        before = photometry.psnr(pair.noisy, pair.clean)
        row = {"sigma": case.sigma, "mono": pair.mono, "mode": pair.mode, "input": before}
        for name, method in {"network": denoise, **baselines.ALL}.items():
            row[name] = photometry.psnr(np.clip(method(pair.noisy), 0, 1), pair.clean) - before
        rows.append(row)
    return rows


def gain_table(rows: list[dict]) -> list[dict]:
    """Means of the gains by noise bin and kind, with the worst case of the network."""
    table = []
    for mono in (False, True):
        for low, high in SIGMA_BINS:
            chosen = [r for r in rows if r["mono"] == mono and low <= r["sigma"] < high]
            if chosen:
                means = {k: float(np.mean([r[k] for r in chosen])) for k in ("input", "network", *baselines.ALL)}
                table.append({"kind": "mono" if mono else "colour", "bin": (low, high), "count": len(chosen), **means,
                              "worst": min(r["network"] for r in chosen)})
    return table


def no_harm(cases: list[Case], denoise: Denoise) -> dict:
    """Change of noise-free frames, rms; 0.002 is the aim."""
    changes = [float(np.sqrt(np.mean((denoise(c.pair.clean) - c.pair.clean) ** 2))) for c in cases]
    return {"median": float(np.median(changes)), "worst": max(changes), "count": len(changes)}


def second_pass(cases: list[Case], denoise: Denoise) -> float:
    """Median over cases of rms(second change) / rms(first change)."""
    ratios = []
    for case in cases:
        once = np.clip(denoise(case.pair.noisy), 0, 1)
        first, second = once - case.pair.noisy, denoise(once) - once
        ratios.append(float(np.sqrt(np.mean(second**2) / np.mean(first**2))))
    return float(np.median(ratios))


def colour_shift(cases: list[Case], denoise: Denoise) -> dict:
    """Mean of out - in and of out - truth per channel. Frames with clipped noise are left out.

    A stretch is concave at the sky, so that noisy frames are a little too dark on average; a good denoiser puts that
    back, equally in all channels. The cast is the part of the shift that differs between channels.
    """
    shifts, biases, relative = [], [], []
    for case in cases:
        pair = case.pair
        if pair.mono or np.mean(pair.noisy <= 0) > 0.002:
            continue
        out = denoise(pair.noisy)
        shift = (out - pair.noisy).mean(axis=(1, 2))
        shifts.append(shift)
        biases.append((out - pair.clean).mean(axis=(1, 2)))
        relative.append(np.abs(shift - shift.mean()).max() / max(case.sigma, 1e-6))
    shifts = np.array(shifts)
    return {"mean": shifts.mean(axis=0).tolist(), "bias": np.mean(biases, axis=0).tolist(),
            "worst": float(np.abs(shifts).max()), "count": len(shifts),
            "cast_in_sigma_median": float(np.median(relative)), "cast_in_sigma_worst": float(np.max(relative))}


def _to_linear(image: Array, pair: frames.Pair) -> Array:
    """Sum over channels of the stretched image after the inverse stretch, [h, w]."""
    planes = image[:1] if pair.mono else image
    return np.sum([stretch.undo_linear_mode(p.astype(np.float64), c) for p, c in zip(planes, pair.channels)], axis=0)


def star_errors(seed: int, count: int, size: int, denoise: Denoise, laws: scenes.SceneLaws) -> list[dict]:
    """Per isolated, unsaturated star of linear-mode frames: SNR and flux relative to the truth, before and after."""
    rows = []
    for index in range(count):
        scene = scenes.render_scene(seed, index, size, laws)
        if scene.stars is None or scene.stars.flux.max() == 0 or scene.shape.fwhm > 5:
            continue
        rng = np.random.default_rng([seed, index, 2])
        pair = frames.make_pair(rng, scene.light, frames.FrameLaws(zero_channel_share=0.0), 0.05, "linear", False)
        if pair.channels is None:
            continue
        images = [_to_linear(i, pair) for i in (pair.clean, pair.noisy, np.clip(denoise(pair.noisy), 0, 1))]
        rows.extend(_frame_stars(scene, pair, images))
    return rows


def _frame_stars(scene: scenes.Scene, pair: frames.Pair, images: list[Array]) -> list[dict]:
    stars, size = scene.stars, images[0].shape[0]
    radius = 1.5 * scene.shape.fwhm
    bright = np.argsort(-stars.flux)[:600]
    rows, columns, flux = stars.rows[bright], stars.columns[bright], stars.flux[bright]
    margin = 3 * radius + 2
    good = photometry.isolated(rows, columns, flux, 3 * radius)
    good &= (np.minimum(rows, columns) > margin) & (np.maximum(rows, columns) < size - margin)
    area_noise = float(np.sqrt(np.sum(pair.sigma**2) * np.pi) * radius)
    result = []
    for row, column in zip(rows[good], columns[good]):
        if pair.linear_clean[:, int(row), int(column)].max() > 0.9:
            continue
        truth, before, after = (photometry.aperture_flux(i, row, column, radius) for i in images)
        if truth > 5 * area_noise:
            result.append({"snr": truth / area_noise, "before": before / truth - 1, "after": after / truth - 1})
    return result


def star_table(rows: list[dict]) -> list[dict]:
    """Median error and scatter (1.4826 MAD) by SNR bin, before and after."""
    table = []
    for low, high in SNR_BINS:
        chosen = [r for r in rows if low <= r["snr"] < high]
        if chosen:
            entry = {"bin": (low, high), "count": len(chosen)}
            for name in ("before", "after"):
                values = np.array([r[name] for r in chosen])
                entry[name] = float(np.median(values))
                entry[name + "_scatter"] = float(stretch.MAD_TO_SIGMA * np.median(np.abs(values - np.median(values))))
            table.append(entry)
    return table


def pure_noise(seed: int, count: int, size: int, denoise: Denoise) -> dict:
    """Flat sky with noise: what is left, the background's shift, the highest peaks, the lattice; in input sigmas."""
    left, peaks, input_peaks, shifts, lattices = [], [], [], [], []
    dark = np.zeros((3, size, size), np.float32)
    for index in range(count):
        rng = np.random.default_rng([seed, index, 3])
        clean = np.full((3, size, size), rng.uniform(0.1, 0.3), np.float32) + dark
        sigma = float(rng.uniform(0.02, 0.06))
        noisy = clean + sigma * rng.standard_normal(clean.shape, dtype=np.float32)
        error = (denoise(noisy) - clean) / sigma
        inner = error[:, 16:-16, 16:-16]
        left.append(float(inner.std()))
        peaks.append(float(inner.max()))
        input_peaks.append(float(((noisy - clean) / sigma).max()))
        shifts.append(float(np.abs(inner.mean(axis=(1, 2))).max()))
        lattices.append(max(photometry.lattice(plane) for plane in inner))
    return {"left": float(np.mean(left)), "highest_peak": max(peaks), "input_peak": max(input_peaks),
            "shift": max(shifts), "lattice": max(lattices), "count": count}


def mono_planes(cases: list[Case], denoise: Denoise) -> float:
    """Largest difference between the three output planes for three equal input planes."""
    worst = 0.0
    for case in cases:
        if case.pair.mono:
            out = denoise(case.pair.noisy)
            worst = max(worst, float(np.abs(out - out.mean(axis=0)).max()))
    return worst
