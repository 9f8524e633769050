"""The tile loop against an implementation of its own in numpy, written from the definition: equal to the last bit."""

import math
import os
import subprocess

import numpy as np
import pytest

DRIVER = os.environ["LUMVANE_TILE_LOOP_DRIVER"]


def ramp(window, stride, first, last):
    """Weights along one axis of a tile that is or is not the first and the last of its line."""
    if window == stride:
        return np.ones(window)
    position = np.arange(window)
    edge = np.minimum(position, window - position)
    if stride >= window // 2:
        overlap = 2 * ((window - stride) // 2)
        weight = np.where(edge >= overlap, 1.0, edge / overlap)
        outer_start, outer_end = position <= window - position, position > window - position
    else:
        weight = (edge + stride - window // 2) / stride
        outer_start, outer_end = position < window // 2, position >= window // 2
    if first:
        weight = np.where(outer_start, 1.0, weight)
    if last:
        weight = np.where(outer_end, 1.0, weight)
    return weight


def mirror_and_scale(tile):
    return np.float32(0.75) * tile[:, ::-1] + np.float32(0.125)


def tile_loop(image, window, stride):
    height, width, _ = image.shape
    half_overlap = (window - stride) // 2
    padded_height = math.ceil(height / stride) * stride + window - stride
    padded_width = math.ceil(width / stride) * stride + window - stride
    padded = np.pad(
        image,
        (
            (half_overlap, padded_height - height - half_overlap),
            (half_overlap, padded_width - width - half_overlap),
            (0, 0),
        ),
        mode="reflect",
    )
    keep_offset = max(0, half_overlap - stride // 2)
    keep = min(window, window - 2 * (half_overlap - stride // 2))
    kept = slice(keep_offset, keep_offset + keep)
    total = np.zeros_like(padded)
    last_x, last_y = padded_width - window, padded_height - window
    for x in range(0, last_x + 1, stride):
        for y in range(0, last_y + 1, stride):
            tile = padded[y : y + window, x : x + window]
            out = tile if (tile == tile[0, 0]).all() else mirror_and_scale(tile)
            weight = np.outer(ramp(window, stride, y == 0, y == last_y), ramp(window, stride, x == 0, x == last_x))
            out = out * weight.astype(np.float32)[:, :, None]
            total[y : y + window, x : x + window][kept, kept] += out[kept, kept]
    return total[half_overlap : half_overlap + height, half_overlap : half_overlap + width]


def run_driver(folder, image, window, stride):
    height, width, _ = image.shape
    image.tofile(folder / "in.raw")
    arguments = [width, height, window, stride, folder / "in.raw", folder / "out.raw"]
    subprocess.run([DRIVER, *map(str, arguments)], check=True)
    return np.fromfile(folder / "out.raw", np.float32).reshape(image.shape)


@pytest.mark.parametrize(
    "width, height, window, stride",
    [
        (1000, 700, 512, 480),
        (512, 512, 512, 480),
        (513, 640, 512, 256),
        (600, 520, 512, 128),
        (1024, 512, 512, 512),
        (100, 90, 64, 60),
        (100, 90, 64, 2),
        (61, 47, 9, 3),
        (61, 47, 7, 3),
        (61, 47, 7, 5),
        (20, 30, 1, 1),
    ],
)
def test_equals_numpy(tmp_path, width, height, window, stride):
    seed = int.from_bytes(os.urandom(4), "little")
    print(f"random seed {seed}")
    image = np.random.default_rng(seed).uniform(-0.25, 1.25, (height, width, 3)).astype(np.float32)
    image[: height // 2, : width // 2] = 0.5  # so that some tiles are constant where tiles are small
    expected = tile_loop(image, window, stride)
    actual = run_driver(tmp_path, image, window, stride)
    assert expected.dtype == np.float32
    assert np.array_equal(actual.view(np.uint32), expected.view(np.uint32))


def test_constant_tiles_are_left_alone(tmp_path):
    image = np.full((40, 40, 3), 0.3, np.float32)
    assert np.allclose(run_driver(tmp_path, image, 16, 12), image, atol=1e-6)
