#!/usr/bin/env python3
"""Renders the example picture: an emission nebula with dust, a cluster, galaxies and the noise of a short exposure.

Everything follows from one seed, which no training or evaluation set uses. The file is a 16-bit RGB TIFF, already
stretched, as somebody would save it from an image processor.
"""

from __future__ import annotations

import argparse
from pathlib import Path

import numpy as np
import tifffile

from lumvane_training import config, extended, noise, psf, scenes, stars, stretch
from lumvane_training.fields import Array, gaussian_field, ridges, warped_field

SEED = 90_417
CANVAS = 1536
WIDTH, HEIGHT = 1500, 1000
BACKGROUND = 0.13
SKY_LEVEL = 0.012
NOISE_AFTER_STRETCH = 0.05
SPIRAL, EDGE_ON = 14, 37
"""Seeds that were picked, by eye, for a face-on spiral and an edge-on disk."""


def blob(row: float, column: float, reach: float, rng: np.random.Generator, raggedness: float = 0.6) -> Array:
    """A soft, ragged patch of light around a place (pixels), about 1 at its centre, [n, n]."""
    rows, columns = np.indices((CANVAS, CANVAS), dtype=np.float32)
    distance = np.hypot(rows - row, (columns - column) * 0.8) / reach
    return 1.0 / (1.0 + np.exp(4.0 * (distance - 1.0 + raggedness * gaussian_field(rng, CANVAS, 3.2))))


def scaled(layer: Array) -> Array:
    """The layer with its 99.5th percentile at 1."""
    return layer / np.percentile(layer, 99.5)


def nebula(rng: np.random.Generator) -> Array:
    """Hydrogen with bright rims, oxygen inside, sulphur at the edges, a blue reflection patch; [3, n, n] in sky units."""
    colours = {name: np.array(c, np.float32)[:, None, None] for name, c in extended.EMISSION_COLOURS.items()}
    body = blob(470, 860, 430, rng)
    clouds = np.exp(0.75 * warped_field(rng, CANVAS, 2.75, 45.0))
    rims = ridges(1.6 * warped_field(rng, CANVAS, 3.1, 60.0))
    light = 5.0 * colours["hydrogen"] * scaled(body * clouds * (0.5 + 1.3 * rims))
    light += 1.0 * colours["hydrogen"] * scaled(blob(600, 500, 700, rng, 1.0) * clouds)
    inner = blob(450, 880, 230, rng, 0.4) * np.exp(0.6 * warped_field(rng, CANVAS, 3.0, 40.0))
    light += 3.2 * colours["oxygen"] * scaled(inner)
    edge = body * (1.0 - body) * np.exp(1.0 * warped_field(rng, CANVAS, 2.8, 30.0))
    light += 1.5 * colours["sulphur"] * scaled(edge)
    patch = blob(760, 250, 150, rng, 0.5) * np.exp(0.6 * warped_field(rng, CANVAS, 2.9, 25.0))
    return light + 1.6 * colours["reflection"] * scaled(patch)


def dust(rng: np.random.Generator) -> Array:
    """Lanes across the nebula, exp(-tau f), [3, n, n]."""
    depth = np.exp(1.2 * warped_field(rng, CANVAS, 3.0, 50.0)) * ridges(0.8 * warped_field(rng, CANVAS, 3.3, 60.0))
    depth = 1.5 * depth / np.percentile(depth, 97)
    return np.exp(-depth[None] * np.array(extended.EXTINCTION_LAW, np.float32)[:, None, None])


def star_list(rng: np.random.Generator) -> stars.StarList:
    """A rich field, an open cluster and eight bright stars."""
    count = 7000
    field = stars.StarList(rng.random(count) * CANVAS, rng.random(count) * CANVAS,
                           np.minimum(stars.power_law_flux(rng, count, 0.6, 0.95), 3000.0), stars.star_colours(rng, count, 0.5))
    members = 260
    radius = 42.0 * np.sqrt(1.0 / (1.0 - np.clip(rng.random(members), 0, 0.93)) - 1.0)
    angle = rng.uniform(0, 2 * np.pi, members)
    cluster = stars.StarList((215 + radius * np.sin(angle)) % CANVAS, (300 + radius * np.cos(angle)) % CANVAS,
                             np.minimum(stars.power_law_flux(rng, members, 12.0, 0.9), 4000.0),
                             stars.star_colours(rng, members, 0.4))
    bright = stars.StarList(np.array([455, 757, 140, 880, 330, 620, 930, 60.0]),
                            np.array([890, 252, 1180, 1050, 560, 1390, 480, 760.0]),
                            np.array([16000, 20000, 9000, 7000, 6000, 12000, 5000, 8000.0]),
                            np.exp(np.outer([-0.5, -0.7, 0.6, -0.2, 0.4, 0.1, 0.7, -0.4], [0.55, 0.0, -0.6])).astype(np.float32))
    return stars.StarList.joined([field, cluster, bright])


def add_galaxies(rng: np.random.Generator, light: Array) -> None:
    """One large spiral, one edge-on disk and a dozen small ones."""
    for row, column, radius, brightness, own in ((800, 1200, 46.0, 0.8, SPIRAL), (120, 75, 18.0, 2.0, EDGE_ON)):
        stamp = extended.galaxy_stamp(np.random.default_rng([SEED, own]), radius) * brightness
        extended.add_periodic(light, stamp, row - stamp.shape[1] // 2, column - stamp.shape[2] // 2)
    for _ in range(14):
        stamp = extended.galaxy_stamp(rng, float(np.exp(rng.uniform(0.4, 1.6)))) * float(np.exp(rng.uniform(-1.5, 0.7)))
        extended.add_periodic(light, stamp, int(rng.integers(CANVAS)), int(rng.integers(CANVAS)))


def clean_frame() -> Array:
    """The noise-free linear frame [3, HEIGHT, WIDTH], full range 1."""
    rng = np.random.default_rng(SEED)
    light = nebula(rng) * dust(rng)
    add_galaxies(rng, light)
    shape = psf.PsfShape(fwhm=2.7, beta=3.2, ellipticity=0.03, angle=0.4, channel_ratio=(1.04, 1.0, 0.97), aureole_share=0.03,
                         aureole_width=9.0, spike_count=4, spike_share=0.03, spike_length=28.0, spike_angle=0.35)
    rendered = scenes.render_points(light, star_list(rng), shape)[:, :HEIGHT, :WIDTH]
    sky = 1.0 + 0.12 * (np.linspace(-0.5, 0.5, WIDTH)[None, :] - np.linspace(-0.5, 0.5, HEIGHT)[:, None])
    return np.clip(SKY_LEVEL * (rendered + sky[None]), 0.0, 1.0).astype(np.float32)


def stretched(frame: Array, balance: float, black: float) -> Array:
    """One midtones curve for all channels above a black point, and a little more colour."""
    return np.clip(stretch.saturation(stretch.midtones(balance, (frame - black) / (1.0 - black)), 1.25), 0.0, 1.0)


def picture() -> tuple[Array, Array]:
    """The stretched noisy picture and its noise-free truth, [3, HEIGHT, WIDTH]."""
    rng = np.random.default_rng([SEED, 1])
    clean = clean_frame()
    black = 0.55 * SKY_LEVEL
    level = (SKY_LEVEL - black) / (1.0 - black)
    balance = float(stretch.midtones(BACKGROUND, np.float64(level)))
    slope = float(stretch.midtones(balance, level * 1.01) - stretch.midtones(balance, level * 0.99)) / (0.02 * level)
    sigma = NOISE_AFTER_STRETCH / slope
    recipe = noise.NoiseRecipe(photon_share=0.8, mosaic="gradient", registration=0.25, hot_density=2e-5)
    noisy = noise.add_noise(rng, clean, np.full(3, SKY_LEVEL), np.full(3, sigma), recipe)
    return stretched(np.clip(noisy, 0.0, 1.0), balance, black), stretched(clean, balance, black)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=Path, default=config.TRAINING_ROOT.parent / "examples/nebula.tif")
    parser.add_argument("--truth", type=Path, help="also write the noise-free picture here")
    options = parser.parse_args()
    noisy, clean = picture()
    for path, image in ((options.output, noisy), (options.truth, clean)):
        if path:
            path.parent.mkdir(parents=True, exist_ok=True)
            samples = np.round(image.transpose(1, 2, 0) * 65535.0).astype(np.uint16)
            tifffile.imwrite(path, samples, photometric="rgb", metadata=None, software="render_example.py")


if __name__ == "__main__":
    main()
