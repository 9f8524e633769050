"""What goes in: formats, depths and layouts that are read, refused, and reported."""

import os

import cv2
import numpy as np
import pytest
import tifffile
from conftest import load, noise_image, save

CHANNELS = "Unsupported number of image channels: {}"
DEPTH = "Unsupported image bit depth. Only 8-bit and 16-bit integer inputs are supported."
UNREADABLE = (
    "Unable to read input image: {}. Check that the file is a readable TIFF/TIF, PNG, or supported FITS image."
)


def number(value: float) -> str:
    """A double as a C++ stream prints it with 17 significant digits."""
    return f"{value:.17g}"


def description(samples: np.ndarray, divisor: float) -> str:
    low, high = float(samples.min()), float(samples.max())
    return (
        f"scalar_samples={samples.size} finite={samples.size} nonfinite=0 "
        f"physical_range=[{number(low)},{number(high)}] "
        f"type_normalized_range=[{number(low / divisor)},{number(high / divisor)}] "
        "below_zero=0 (0%) above_one=0 (0%)"
    )


@pytest.mark.parametrize(("dtype", "stored", "divisor"), [(np.uint8, "uint8", 255), (np.uint16, "uint16", 65535)])
@pytest.mark.parametrize(("ending", "name"), [("tif", "TIFF"), ("png", "PNG"), ("tiff", "TIFF")])
@pytest.mark.parametrize("channels", [1, 3])
def test_supported_images_and_their_report(lumvane, tmp_path, dtype, stored, divisor, ending, name, channels):
    pixels = noise_image(512, 640, channels, dtype)
    pixels = (pixels // 3 + 5).astype(dtype)
    path = save(tmp_path / f"image.{ending}", pixels)
    run = lumvane.denoise(path, "out.tif")
    assert run.status == 0, run.err
    assert run.info("input_format") == [f"format={name} stored={stored} width=640 height=512 channels={channels}"]
    assert run.info("input_range") == [description(pixels, divisor)]
    planes = [pixels] if channels == 1 else [pixels[:, :, c] for c in range(3)]
    expected = [f"channel={c + 1} {description(plane, divisor)}" for c, plane in enumerate(planes)]
    assert run.info("channel_range") == expected
    assert run.info("input_conversion") == [
        f"fixed divisor K={divisor}; offset=0; linear=0; no observed-range rescaling; inference=float32 (no MTF)"
    ]
    interpretation = "grayscale" if channels == 1 else "RGB"
    assert run.info("input_geometry") == [f"width=640 height=512 interpretation={interpretation}"]
    assert np.array_equal(load(tmp_path / "out.tif"), pixels)


def test_alpha_is_reported_with_four_ranges_then_refused(lumvane, tmp_path):
    path = save(tmp_path / "alpha.png", noise_image(512, 512, 4, np.uint8))
    run = lumvane.denoise(path, "out.png")
    assert run.info("input_format") == ["format=PNG stored=uint8 width=512 height=512 channels=4"]
    assert [line[:10] for line in run.info("channel_range")] == [f"channel={n} " for n in range(1, 5)]
    assert run.failure() == CHANNELS.format(4)
    assert run.status == 255


@pytest.mark.parametrize(("channels", "failure"), [(1, DEPTH), (3, DEPTH), (4, CHANNELS.format(4))])
def test_float_tiffs_are_reported_then_refused(lumvane, tmp_path, channels, failure):
    shape = (512, 512) if channels == 1 else (512, 512, channels)
    path = tmp_path / "float.tif"
    photometric = "minisblack" if channels == 1 else "rgb"
    tifffile.imwrite(path, np.random.default_rng(0).random(shape, dtype=np.float32) * 2 - 0.5, photometric=photometric)
    run = lumvane.denoise(path, "out.tif")
    assert f"stored=float32 width=512 height=512 channels={channels}" in run.info("input_format")[0]
    assert run.info("input_conversion")[0].startswith("fixed divisor K=1; ")
    assert "below_zero=0 (" not in run.info("input_range")[0]
    assert run.failure() == failure


def test_nonfinite_float_samples_are_counted(lumvane, tmp_path):
    pixels = np.full((512, 512), 0.5, np.float32)
    pixels[0, :4] = [np.nan, np.inf, -np.inf, 2.0]
    path = tmp_path / "nan.tif"
    tifffile.imwrite(path, pixels, photometric="minisblack")
    (line,) = lumvane.denoise(path, "out.tif").info("input_range")
    assert line == (
        "scalar_samples=262144 finite=262141 nonfinite=3 physical_range=[0.5,2] type_normalized_range=[0.5,2] "
        "below_zero=0 (0%) above_one=1 (0.0003814697265625%)"
    )


def test_signed_16_bit_is_refused_by_depth(lumvane, tmp_path):
    path = tmp_path / "signed.tif"
    tifffile.imwrite(path, noise_image(512, 512, 1, np.uint16).astype(np.int16), photometric="minisblack")
    run = lumvane.denoise(path, "out.tif")
    assert "stored=int16" in run.info("input_format")[0]
    assert run.failure() == DEPTH


def test_path_that_is_a_directory(lumvane, tmp_path):
    (tmp_path / "image.tif").mkdir()
    assert lumvane.denoise("image.tif", "out.tif").failure() == "Input path is not a regular file: image.tif"


def test_path_that_is_a_pipe(lumvane, tmp_path):
    os.mkfifo(tmp_path / "pipe.png")
    assert lumvane.denoise("pipe.png", "out.tif").failure() == "Input path is not a regular file: pipe.png"


def test_path_whose_status_cannot_be_read_counts_as_absent(lumvane):
    name = "x" * 300 + ".tif"
    assert lumvane.denoise(name, "out.tif").failure() == f"Input image does not exist: {name}"


@pytest.mark.parametrize("content", [b"", b"II", b"not an image at all, only text" * 9])
def test_files_that_are_no_images(lumvane, tmp_path, content):
    (tmp_path / "text.tif").write_bytes(content)
    run = lumvane.denoise("text.tif", "out.tif")
    assert run.failure() == UNREADABLE.format("text.tif")
    assert run.info("input_format") == []


def test_png_content_under_a_tif_name_is_read_by_content(lumvane, tmp_path):
    pixels = noise_image(512, 512, 3, np.uint16)
    save(tmp_path / "image.png", pixels).rename(tmp_path / "image.tif")
    run = lumvane.denoise("image.tif", "out.png")
    assert run.status == 0, run.err
    assert run.info("input_format")[0].startswith("format=PNG ")
    assert np.array_equal(load(tmp_path / "out.png"), pixels)


@pytest.mark.parametrize(("ending", "name"), [("jpg", "JPEG"), ("bmp", "BMP")])
def test_formats_that_only_pass_through(lumvane, tmp_path, ending, name):
    smooth = cv2.GaussianBlur(noise_image(512, 512, 3, np.uint8), (0, 0), 8)
    path = save(tmp_path / f"image.{ending}", smooth)
    run = lumvane.denoise(path, "out.png")
    assert run.status == 0
    assert run.info("input_format")[0] == f"format={name} stored=uint8 width=512 height=512 channels=3"
    assert np.array_equal(load(tmp_path / "out.png"), load(path))


def test_another_decodable_format_is_unclassified(lumvane, tmp_path):
    path = save(tmp_path / "image.ppm", noise_image(512, 512, 3, np.uint8))
    assert lumvane.denoise(path, "out.png").info("input_format")[0].startswith("format=OpenCV (format unclassified) ")


def test_equal_planes_count_as_grayscale_and_one_sample_makes_rgb(lumvane, tmp_path):
    plane = noise_image(512, 512, 1, np.uint8) // 2
    pixels = np.stack([plane] * 3, axis=2)
    save(tmp_path / "equal.png", pixels)
    run = lumvane.denoise("equal.png", "out.png")
    assert run.info("input_geometry") == ["width=512 height=512 interpretation=grayscale"]
    assert np.array_equal(load(tmp_path / "out.png"), plane)
    pixels[511, 511, 1] += 1
    save(tmp_path / "nearly.png", pixels)
    run = lumvane.denoise("nearly.png", "out.png")
    assert run.info("input_geometry") == ["width=512 height=512 interpretation=RGB"]
    assert np.array_equal(load(tmp_path / "out.png"), pixels)


@pytest.mark.parametrize("channels", [1, 3])
def test_version_1_refuses_grayscale_before_any_package_is_opened(lumvane, tmp_path, channels):
    plane = noise_image(512, 512, 1, np.uint8)
    save(tmp_path / "mono.png", plane if channels == 1 else np.stack([plane] * 3, axis=2))
    run = lumvane.denoise("mono.png", "out.png", "--model", "1", weights="nothing.mlpackage")
    assert run.failure() == "Model version 1 cannot be used with grayscale input. Use model version 2 for grayscale."


@pytest.mark.parametrize(("height", "width"), [(511, 600), (600, 511), (1, 1)])
def test_images_below_the_window_are_refused(lumvane, tmp_path, height, width):
    save(tmp_path / "small.png", noise_image(height, width, 3, np.uint8))
    run = lumvane.denoise("small.png", "out.png", weights="nothing.mlpackage")
    assert run.failure() == "Image size is too small for the window!"


def test_version_conflict_comes_before_the_size(lumvane, tmp_path):
    save(tmp_path / "small.png", noise_image(16, 16, 1, np.uint8))
    run = lumvane.denoise("small.png", "out.png", "--model", "1")
    assert run.failure().startswith("Model version 1 cannot be used with grayscale input.")


# What the decoder would read wrongly without saying so.


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16])
@pytest.mark.parametrize("compression", [None, "zlib"])
@pytest.mark.parametrize("byteorder", ["<", ">"])
def test_separate_planes_are_read_rightly(lumvane, tmp_path, dtype, compression, byteorder):
    pixels = noise_image(512, 530, 3, dtype)
    tifffile.imwrite(
        tmp_path / "planar.tif",
        np.moveaxis(pixels, 2, 0),
        photometric="rgb",
        planarconfig="separate",
        compression=compression,
        byteorder=byteorder,
        rowsperstrip=100,
    )
    run = lumvane.denoise("planar.tif", "out.tif")
    assert run.status == 0, run.err
    assert np.array_equal(load(tmp_path / "out.tif"), pixels)


def test_float_separate_planes_are_refused_without_made_up_numbers(lumvane, tmp_path):
    pixels = np.random.default_rng(5).random((3, 512, 512), dtype=np.float32)
    tifffile.imwrite(tmp_path / "planar.tif", pixels, photometric="rgb", planarconfig="separate")
    run = lumvane.denoise("planar.tif", "out.tif")
    assert run.status == 255
    assert run.failure() in (DEPTH, UNREADABLE.format("planar.tif"))
    for line in run.info("input_range"):
        assert f"physical_range=[{number(float(pixels.min()))},{number(float(pixels.max()))}]" in line


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16])
def test_gray_with_alpha_is_refused_as_two_channels(lumvane, tmp_path, dtype):
    pixels = noise_image(512, 512, 2, dtype)
    tifffile.imwrite(tmp_path / "la.tif", pixels, photometric="minisblack", planarconfig="contig", extrasamples=[2])
    run = lumvane.denoise("la.tif", "out.tif")
    assert run.failure() == CHANNELS.format(2)
    assert all("channels=2" in line for line in run.info("input_format"))


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16])
def test_white_is_zero_is_inverted(lumvane, tmp_path, dtype):
    pixels = noise_image(512, 512, 1, dtype)
    tifffile.imwrite(tmp_path / "miniswhite.tif", pixels, photometric="miniswhite")
    run = lumvane.denoise("miniswhite.tif", "out.tif")
    assert run.status == 0, run.err
    assert np.array_equal(load(tmp_path / "out.tif"), np.iinfo(dtype).max - pixels)


def test_orientation_is_applied(lumvane, tmp_path):
    pixels = noise_image(520, 600, 3, np.uint8)
    tifffile.imwrite(tmp_path / "turned.tif", pixels, photometric="rgb", extratags=[(274, "H", 1, 6, True)])
    run = lumvane.denoise("turned.tif", "out.tif")
    assert run.info("input_geometry") == ["width=520 height=600 interpretation=RGB"]
    assert np.array_equal(load(tmp_path / "out.tif"), np.rot90(pixels, -1))


@pytest.mark.parametrize("options", [{"bigtiff": True}, {"tile": (64, 64)}, {"compression": "lzw", "predictor": True}])
def test_tiff_flavours(lumvane, tmp_path, options):
    if options.get("compression") == "lzw":
        pytest.importorskip("imagecodecs")
    pixels = noise_image(512, 513, 3, np.uint16)
    tifffile.imwrite(tmp_path / "image.tif", pixels, photometric="rgb", **options)
    run = lumvane.denoise("image.tif", "out.tif")
    assert run.status == 0, run.err
    assert np.array_equal(load(tmp_path / "out.tif"), pixels)


def test_first_page_alone_counts(lumvane, tmp_path):
    pages = [noise_image(512, 512, 1, np.uint16, seed) for seed in (1, 2)]
    with tifffile.TiffWriter(tmp_path / "pages.tif") as writer:
        for page in pages:
            writer.write(page, photometric="minisblack")
    assert lumvane.denoise("pages.tif", "out.tif").status == 0
    assert np.array_equal(load(tmp_path / "out.tif"), pages[0])


def test_absurd_dimensions_are_one_clear_line(lumvane, tmp_path):
    """A PNG header that claims 2^21 columns: beyond what the decoder takes, and no memory is spent on it."""
    import struct
    import zlib

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", 1 << 21, 1 << 21, 16, 2, 0, 0, 0)
    data = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(b"\0" * 64)) + chunk(b"IEND", b"")
    (tmp_path / "bomb.png").write_bytes(data)
    run = lumvane.denoise("bomb.png", "out.tif", "--machine-progress")
    assert run.status == 255
    message = run.events()[-1]["message"].split("\n")
    assert len(message) == 2
    assert "bomb.png" in message[0]
