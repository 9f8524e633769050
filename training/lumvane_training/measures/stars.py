"""Stars and sky of linear frames through the program's linear mode: flux, width, detections, background."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from scipy import ndimage

from .. import frames, photometry, scenes, stretch
from .program import Program
from .report import Section, table

Array = np.ndarray
SNR_BINS = ((5, 10), (10, 30), (30, 100), (100, np.inf))
FIELD_LAWS = scenes.SceneLaws(fwhm=(1.8, 5.0), beta=(2.0, 5.5), star_density=(2e-4, 4e-3), leaves_share=0.0,
                              starless_share=0.0, cluster_share=0.0, shapes_share=0.0)
PURITY = 0.95


@dataclass
class Field:
    """One linear frame: truth, noisy, denoised [3, h, w], its noise per channel, its scene."""

    scene: scenes.Scene
    sigma: Array
    images: tuple[Array, Array, Array]


def fields(program: Program, seed: int, count: int, size: int) -> list[Field]:
    """`count` star fields with their own skies, exposures and noise, denoised in the linear mode."""
    laws = frames.FrameLaws(zero_channel_share=0.0, blank_share=0.0, perfect_share=0.0, outlier_share=0.0,
                            clouds_share=0.0, black_point_share=0.0)
    found, index = [], 0
    while len(found) < count:
        scene = scenes.render_scene(seed, index, size, FIELD_LAWS)
        rng = np.random.default_rng([seed, index, 21])
        pair = frames.make_pair(rng, scene.light, laws, 0.05, "linear", program.model == 2 and index % 4 == 3)
        index += 1
        if pair.channels is None:
            continue
        found.append(Field(scene, pair.sigma, (pair.linear_clean, pair.linear_noisy, program.linear(pair.linear_noisy))))
    return found


def width(plane: Array, row: float, column: float, fwhm: float) -> float:
    """Root mean square radius under a Gaussian window of the star's own width, background ring taken off."""
    reach = int(np.ceil(3 * fwhm)) + 1
    top, left = int(row) - reach, int(column) - reach
    cut = plane[top:top + 2 * reach + 1, left:left + 2 * reach + 1]
    rows, columns = np.indices(cut.shape)
    distance = np.hypot(rows + top + 0.5 - row, columns + left + 0.5 - column)
    light = cut - np.median(cut[distance > 2.2 * fwhm])
    weight = light * np.exp(-0.5 * (distance / (0.6 * fwhm)) ** 2)
    return float(np.sqrt(max(np.sum(weight * distance**2) / np.sum(weight), 1e-6)))


def catalogue(field: Field) -> list[dict]:
    """Isolated, unsaturated stars: SNR in an aperture of 1.5 FWHM, flux and width relative to the truth."""
    stars, size, fwhm = field.scene.stars, field.images[0].shape[-1], field.scene.shape.fwhm
    sums = [image.sum(axis=0, dtype=np.float64) for image in field.images]
    radius = 1.5 * fwhm
    bright = np.argsort(-stars.flux)[:900]
    rows, columns, flux = stars.rows[bright], stars.columns[bright], stars.flux[bright]
    margin = 3 * radius + 3
    good = photometry.isolated(rows, columns, flux, 3 * radius)
    good &= (np.minimum(rows, columns) > margin) & (np.maximum(rows, columns) < size - margin)
    area_noise = float(np.sqrt(np.sum(field.sigma**2) * np.pi) * radius)
    result = []
    for row, column in zip(rows[good], columns[good]):
        near = np.s_[:, max(int(row) - 3, 0):int(row) + 4, max(int(column) - 3, 0):int(column) + 4]
        truth, before, after = map(photometry.Aperture(sums[0], row, column, radius).flux, sums)
        if field.images[0][near].max() > 0.9 or truth < 5 * area_noise:
            continue
        entry = {"snr": truth / area_noise, "before": before / truth - 1, "after": after / truth - 1}
        if entry["snr"] > 30:
            true, *others = (width(i, row, column, fwhm) for i in sums)
            entry["width before"], entry["width after"] = (w / true - 1 for w in others)
        result.append(entry)
    return result


def spread(values: Array) -> float:
    """Standard deviation from the median absolute deviation."""
    return float(stretch.MAD_TO_SIGMA * np.median(np.abs(values - np.median(values)))) if len(values) else 0.0


def peaks(plane: Array, fwhm: float) -> tuple[Array, Array, Array]:
    """Rows, columns and heights of the local maxima of a plane smoothed by a star's width, its broad background off."""
    smooth = ndimage.gaussian_filter(plane, fwhm / 2.355) - ndimage.gaussian_filter(plane, 4 * fwhm)
    top = (smooth == ndimage.maximum_filter(smooth, size=2 * max(1, int(fwhm)) + 1)) & (smooth > 0)
    rows, columns = np.nonzero(top)
    return rows + 0.5, columns + 0.5, smooth[top]


def completeness(field: Field, plane: Array) -> tuple[Array, int]:
    """For each detection, falling by height, whether it is a true star of flux above 3 deviations; and their number."""
    stars, fwhm = field.scene.stars, field.scene.shape.fwhm
    truth = field.images[0].sum(axis=0, dtype=np.float64)
    noise = float(np.sqrt(np.sum(field.sigma**2)))
    rows, columns, _ = peaks(truth, fwhm)
    smooth = ndimage.gaussian_filter(truth, fwhm / 2.355) - ndimage.gaussian_filter(truth, 4 * fwhm)
    # A white deviate smoothed by a Gaussian of s pixels keeps 1 / (2 s sqrt(pi)) of its deviation.
    floor = noise / (2 * fwhm / 2.355 * np.sqrt(np.pi))
    listed = smooth[rows.astype(int), columns.astype(int)] > 3 * floor
    rows, columns = rows[listed], columns[listed]
    real = smooth > 0.3 * floor
    found_rows, found_columns, heights = peaks(plane, fwhm)
    order = np.argsort(-heights)[: 3 * max(len(rows), 10)]
    taken, verdicts = np.zeros(len(rows), bool), []
    for row, column in zip(found_rows[order], found_columns[order]):
        distance = np.hypot(rows - row, columns - column)
        nearest = int(np.argmin(distance)) if len(rows) else -1
        if nearest >= 0 and distance[nearest] < max(1.5, 0.75 * fwhm) and not taken[nearest]:
            taken[nearest] = True
            verdicts.append(1)
        else:
            # Fainter true light than the list holds, or a second peak on the same star, is no invention.
            verdicts.append(-1 if real[int(row), int(column)] else 0)
    del stars
    return np.array(verdicts), len(rows)


def at_purity(results: list[tuple[Array, int]]) -> float:
    """Share of the listed stars found at the lowest threshold per frame that keeps PURITY of the detections true."""
    found = total = 0
    for verdicts, listed in results:
        true, false = np.cumsum(verdicts == 1), np.cumsum(verdicts == 0)
        good = true >= PURITY * (true + false)
        found += int(true[good].max(initial=0))
        total += listed
    return found / max(total, 1)


def sky_shift(field: Field) -> Array:
    """Mean of output - truth on the star-free half of the frame, per channel, in deviations of the noise."""
    shifts = []
    for truth, output, sigma in zip(field.images[0], field.images[2], field.sigma):
        rough = np.abs(ndimage.gaussian_gradient_magnitude(truth, 1.5))
        calm = rough <= np.median(rough)
        shifts.append(float((output - truth)[calm].mean()) / sigma)
    return np.array(shifts)


def measure(program: Program, seed: int, count: int, size: int) -> Section:
    """The whole section."""
    found = fields(program, seed, count, size)
    rows = [entry for field in found for entry in catalogue(field)]
    section = Section("Stars and sky in linear light")
    section.lines = [f"{count} linear frames of {size} x {size} pixels as floating-point FITS through `--linear`. Flux in an "
                     "aperture of 1.5 FWHM above the sky (mean of those pixels of a ring that are sky in the noise-free frame), "
                     "relative to the noise-free frame; `bias` is the median after less the median before, scatters are from "
                     "the median absolute deviation.", ""]
    entries = []
    for low, high in SNR_BINS:
        chosen = [r for r in rows if low <= r["snr"] < high]
        before, after = (np.array([r[k] for r in chosen]) for k in ("before", "after"))
        if len(chosen):
            entries.append({"bin": (low, high), "count": len(chosen), "before": float(np.median(before)),
                            "after": float(np.median(after)), "before_scatter": spread(before), "after_scatter": spread(after)})
    section.lines += table(["SNR", "stars", "noisy", "scatter", "denoised", "scatter", "bias"], [
        [f"{e['bin'][0]} to {e['bin'][1]}" if np.isfinite(e["bin"][1]) else f"above {e['bin'][0]}", str(e["count"]),
         f"{e['before']:+.1%}", f"{e['before_scatter']:.1%}", f"{e['after']:+.1%}", f"{e['after_scatter']:.1%}",
         f"**{e['after'] - e['before']:+.1%}**"] for e in entries])
    section.figures = {"stars": entries}
    for entry in entries:
        low, high = entry["bin"]
        if low >= 10:
            name = f"flux bias, SNR {low} to {high}" if np.isfinite(high) else f"flux bias, SNR above {low}"
            section.gate(name, 100 * (entry["after"] - entry["before"]), 2.0 if low == 10 else 0.5, "{:+.2f}", " %")
            section.gate(f"flux scatter over the noisy frame's, SNR from {low}",
                         entry["after_scatter"] / max(entry["before_scatter"], 1e-9), 1.0, "{:.2f}")
    widths = [np.median([r[k] for r in rows if k in r]) for k in ("width before", "width after")]
    section.gate("width of stars above SNR 30, after less before", 100 * float(widths[1] - widths[0]), 2.0, "{:+.2f}", " %")
    shares = [at_purity([completeness(f, f.images[k].sum(axis=0, dtype=np.float64)) for f in found]) for k in (1, 2)]
    section.figures["completeness"] = shares
    section.at_least(f"completeness at {PURITY:.0%} purity, above the noisy frame's ({shares[0]:.1%})",
                     100 * (shares[1] - shares[0]), 0.0, "{:+.1f}", " %")
    shifts = np.array([sky_shift(f).mean() for f in found])
    section.figures["sky"] = shifts.tolist()
    section.gate("shift of the linear sky, mean over frames, in deviations of the noise", float(shifts.mean()), 0.02, "{:+.3f}")
    return section
