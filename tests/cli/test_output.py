"""What comes out: sample depth by format, clipping, layout, compression, and failures to write."""

import numpy as np
import pytest
import tifffile
from conftest import PACKAGES, load, needs_full_device, noise_image, save

SIXTEEN = "display-format export; depth=16 bits; normalized display values, not physical FITS units"
EIGHT = SIXTEEN.replace("16", "8")


@pytest.mark.parametrize(
    ("dtype", "target", "stored"),
    [
        (np.uint16, "out.tif", np.uint16),
        (np.uint16, "out.TIF", np.uint16),
        (np.uint16, "out.Tiff", np.uint16),
        (np.uint16, "out.png", np.uint16),
        (np.uint16, "out.jpg", np.uint8),
        (np.uint16, "out.bmp", np.uint8),
        (np.uint8, "out.tif", np.uint8),
        (np.uint8, "out.tiff", np.uint8),
        (np.uint8, "out.PNG", np.uint8),
        (np.uint8, "out.jpeg", np.uint8),
    ],
)
@pytest.mark.parametrize("channels", [1, 3])
def test_depth_follows_input_and_format(lumvane, tmp_path, dtype, target, stored, channels):
    pixels = noise_image(512, 512, channels, dtype)
    save(tmp_path / "image.png", pixels)
    run = lumvane.denoise("image.png", target)
    assert run.status == 0, run.err
    assert run.info("output_conversion") == [SIXTEEN if stored is np.uint16 else EIGHT]
    written = load(tmp_path / target)
    assert written.dtype == stored
    assert written.ndim == (2 if channels == 1 else 3)
    if stored is dtype and target[-3:].lower() != "peg":
        assert np.array_equal(written, pixels)


@pytest.mark.parametrize("target", ["out.tif", "out.TIFF"])
def test_tiff_output_is_lzw(lumvane, tmp_path, target):
    pixels = noise_image(512, 512, 3, np.uint16) // 256 * 256
    save(tmp_path / "image.png", pixels)
    assert lumvane.denoise("image.png", target).status == 0
    with tifffile.TiffFile(tmp_path / target) as tiff:
        page = tiff.pages[0]
        assert page.compression.name == "LZW"
        assert (page.bitspersample, page.samplesperpixel, page.photometric.name) == (16, 3, "RGB")


def test_red_stays_red(lumvane, tmp_path):
    pixels = np.zeros((512, 512, 3), np.uint16)
    pixels[:, :, 0] = np.arange(512, dtype=np.uint16)[None, :] * 100
    pixels[:, :, 1] = 7
    save(tmp_path / "red.tif", pixels)
    for target in ("out.tif", "out.png"):
        assert lumvane.denoise("red.tif", target).status == 0
        assert np.array_equal(load(tmp_path / target), pixels)


def test_samples_beyond_the_range_clip(lumvane, tmp_path):
    """A network that doubles and shifts: what leaves [0, 1] is cut off at black and white, not wrapped."""
    pixels = noise_image(512, 512, 3, np.uint16)
    save(tmp_path / "image.png", pixels)
    run = lumvane.denoise("image.png", "out.png", weights=PACKAGES / "gain-double-minus-half.mlpackage")
    assert run.status == 0, run.err
    expected = np.clip(np.rint(pixels.astype(np.float64) * 2 - 65535 * 0.5), 0, 65535)
    assert np.abs(load(tmp_path / "out.png") - expected).max() <= 1


def test_halved_samples_are_rounded(lumvane, tmp_path):
    pixels = noise_image(512, 512, 1, np.uint8)
    save(tmp_path / "image.png", pixels)
    assert lumvane.denoise("image.png", "out.png", weights=PACKAGES / "gain-half.mlpackage").status == 0
    assert np.abs(load(tmp_path / "out.png") - pixels / 2.0).max() <= 0.5


@pytest.mark.parametrize("target", ["a.jp", "a.pn", "abcd"])
def test_a_four_character_name_fails_in_the_ending_test(lumvane, tmp_path, target):
    save(tmp_path / "image.png", noise_image(512, 512, 1, np.uint8))
    run = lumvane.denoise("image.png", target)
    assert run.status == 255
    assert "basic_string::substr" in run.failure()
    assert not (tmp_path / target).exists()


def test_a_name_of_just_tif_passes_the_first_test(lumvane, tmp_path):
    """Four characters are too few for the second test, which the first one spares it."""
    save(tmp_path / "image.png", noise_image(512, 512, 1, np.uint8))
    run = lumvane.denoise("image.png", ".tif")
    assert "substr" not in run.err
    assert run.info("output_conversion") == [EIGHT]


@pytest.mark.parametrize("target", ["image.unknown", "noending"])
def test_unknown_ending_is_the_encoders_own_refusal(lumvane, tmp_path, target):
    save(tmp_path / "image.png", noise_image(512, 512, 1, np.uint8))
    run = lumvane.denoise("image.png", target, "--machine-progress")
    assert run.status == 255
    message = run.events()[-1]["message"]
    assert "could not find a writer for the specified extension" in message
    assert message.split("\n")[-1].startswith("Executable='")


@pytest.mark.parametrize("target", ["missing/out.tif", "missing/out.png", "missing/out.bmp"])
def test_missing_folder(lumvane, tmp_path, target):
    save(tmp_path / "image.png", noise_image(512, 512, 1, np.uint8))
    run = lumvane.denoise("image.png", target, "--machine-progress")
    assert run.events()[-1]["message"].startswith(f"Unable to write output image: {target}\n")


@needs_full_device
@pytest.mark.parametrize("ending", ["tif", "png", "jpg", "bmp"])
def test_full_disk_is_never_a_success(lumvane, tmp_path, ending):
    save(tmp_path / "image.png", noise_image(512, 512, 3, np.uint8))
    (tmp_path / f"full.{ending}").symlink_to("/dev/full")
    run = lumvane.denoise("image.png", f"full.{ending}", "--machine-progress")
    assert run.status == 255
    assert run.events()[-1]["message"].startswith(f"Unable to write output image: full.{ending}\n")


def test_an_existing_output_is_replaced(lumvane, tmp_path):
    pixels = noise_image(512, 512, 3, np.uint8)
    save(tmp_path / "image.png", pixels)
    save(tmp_path / "out.png", noise_image(700, 700, 1, np.uint16))
    assert lumvane.denoise("image.png", "out.png").status == 0
    assert np.array_equal(load(tmp_path / "out.png"), pixels)


def test_output_over_the_input(lumvane, tmp_path):
    pixels = noise_image(512, 512, 3, np.uint16)
    save(tmp_path / "image.tif", pixels)
    assert lumvane.denoise("image.tif", "image.tif").status == 0
    assert np.array_equal(load(tmp_path / "image.tif"), pixels)
