"""The tile loop as users meet it: every stride gives the image back, and constant tiles never reach the network."""

import numpy as np
import pytest
from conftest import PACKAGES, load, noise_image, save


@pytest.mark.parametrize(
    ("height", "width", "stride", "tiles"),
    [
        (512, 512, 480, 4),
        (513, 513, 480, 4),
        (480 * 2, 512, 480, 4),
        (512, 512, 512, 1),
        (1024, 512, 512, 2),
        (600, 700, 256, 9),
        (520, 516, 128, 25),
        (512, 960, 480, 4),
        (700, 1000, 480, 6),
    ],
)
def test_identity_network_gives_the_image_back(lumvane, tmp_path, height, width, stride, tiles):
    pixels = noise_image(height, width, 3, np.uint16)
    save(tmp_path / "image.png", pixels)
    run = lumvane.denoise("image.png", "out.png", "-s", stride, "--machine-progress")
    assert run.status == 0, run.err
    assert run.progress()[-1]["total"] == tiles
    assert np.array_equal(load(tmp_path / "out.png"), pixels)


def test_a_constant_image_passes_a_network_that_would_spoil_it(lumvane, tmp_path):
    pixels = np.empty((600, 600, 3), np.uint16)
    pixels[:] = (1000, 30000, 65535)
    save(tmp_path / "flat.png", pixels)
    run = lumvane.denoise("flat.png", "out.png", "--machine-progress", weights=PACKAGES / "nan-output.mlpackage")
    assert run.status == 0, run.err
    assert [event["current"] for event in run.progress()] == [0, 1, 2, 3, 4, 4]
    assert np.abs(load(tmp_path / "out.png").astype(int) - pixels).max() <= 1


def test_one_odd_sample_sends_its_tiles_to_the_network(lumvane, tmp_path):
    pixels = np.full((1024, 512, 3), 20000, np.uint16)
    pixels[5, 5, 0] += 1
    save(tmp_path / "nearly.png", pixels)
    weights = PACKAGES / "gain-half.mlpackage"
    assert lumvane.denoise("nearly.png", "out.png", "-s", "512", weights=weights).status == 0
    written = load(tmp_path / "out.png")
    assert np.all(written[:512, :, 1] == 10000)
    assert np.all(written[512:, :, 1] == 20000)


def test_channels_reach_the_network_in_order(lumvane, tmp_path):
    """A network that scales R, G and B by 1, 1/2 and 1/4 tells planes apart."""
    pixels = noise_image(512, 512, 3, np.uint16)
    save(tmp_path / "image.png", pixels)
    run = lumvane.denoise("image.png", "out.png", weights=PACKAGES / "channel-gains.mlpackage")
    assert run.status == 0, run.err
    expected = pixels * np.array([1.0, 0.5, 0.25])
    assert np.abs(load(tmp_path / "out.png") - expected).max() <= 0.51
