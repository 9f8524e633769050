"""FITS in and out: what is read, refused, reported, and reproduced. Files are made and read by astropy."""

import gzip
import re
import shutil
import subprocess

import cv2
import numpy as np
import pytest
from astropy.io import fits
from conftest import PACKAGES, SOURCE, load, noise_image, save

SKY = SOURCE.parent / "shared" / "data"


def write(path, data, cards=(), **options):
    """A FITS file whose primary HDU holds exactly this array and these cards."""
    hdu = fits.PrimaryHDU(data, **options)
    for card in cards:
        hdu.header.append(card)
    hdu.writeto(path, overwrite=True)
    return path


def write_scaled(path, stored, bscale=None, bzero=None, cards=()):
    """A FITS file with these storage values, scaling cards as given and nothing converted."""
    hdu = fits.PrimaryHDU(stored)
    if bscale is not None:
        hdu.header["BSCALE"] = bscale
    if bzero is not None:
        hdu.header["BZERO"] = bzero
    for card in cards:
        hdu.header.append(card)
    # astropy would scale on reading; on writing a raw array with such cards it leaves the values alone.
    hdu.writeto(path, overwrite=True)
    return path


def read(path, foreign=False):
    """Header and physical samples of a written file, its checksums verified by two independent readers.

    `foreign` leaves out the second one, which complains about cards of tables that came along from the source.
    """
    with fits.open(path, checksum=True, memmap=False) as hdus:
        assert len(hdus) == 1
        assert "CHECKSUM" in hdus[0].header and "DATASUM" in hdus[0].header
    with fits.open(path, do_not_scale_image_data=True, memmap=False) as hdus:
        header = hdus[0].header.copy()
        data = hdus[0].data * float(header.get("BSCALE", 1)) + float(header.get("BZERO", 0))
    if not foreign and shutil.which("fitsverify"):
        # A plain name: the verifier would take brackets for its own syntax.
        plain = shutil.copy(path, path.with_name("verified.fits"))
        done = subprocess.run(["fitsverify", "-q", str(plain)], capture_output=True, text=True, check=False)
        assert "verification OK" in done.stdout or " and 0 errors" in done.stdout, done.stdout
    return header, data


def unsigned16(height=512, width=520, seed=3):
    return noise_image(height, width, 1, np.uint16, seed)


def test_unsigned_16_bit_is_reported_and_comes_back_as_it_was(lumvane, tmp_path):
    pixels = unsigned16()
    pixels[0, 0], pixels[0, 1] = 65535, 0
    write(tmp_path / "in.fits", pixels, [("OBJECT", "M 13"), ("EXPTIME", 30.5, "seconds")])
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    assert run.info("input_format") == [
        "format=FITS stored=int16 BITPIX=16 equivalent=uint16 equivalent_type=20 NAXIS=2 axes=520,512 "
        "interpretation=mono"
    ]
    lines = run.info("fits_header")
    assert len(lines) == 11
    assert lines[0].startswith("BITPIX  =                   16")
    assert lines[4] == "naxis3=missing/not applicable"
    assert lines[5].startswith("BSCALE") and lines[6].startswith("BZERO")
    assert lines[7:] == [
        f"{name}=missing/not applicable" for name in ("datamin", "datamax", "bunit", "blank")
    ]
    assert run.info("input_range")[0].endswith(" undefined=0")
    assert "physical_range=[0,65535] type_normalized_range=[0,1]" in run.info("input_range")[0]
    assert run.info("header_extrema") == ["DATAMIN/DATAMAX do not determine scale; comparison=not supplied"]
    assert run.info("input_conversion") == [
        "physical=x/K; fixed divisor K=65535; offset=0; BSCALE/BZERO applied once by CFITSIO; "
        "no observed-range rescaling; linear=0; physical_read=float64; inference=float32 (no MTF)"
    ]
    assert run.info("input_geometry") == ["width=520 height=512 interpretation=grayscale"]
    assert run.info("output_conversion") == [
        "format=FITS BITPIX=16 role=main fixed_white=65535 BSCALE=1 BZERO=32768 encoding_input=float64; "
        "source physical units; source storage quantization applies"
    ]
    assert run.info("output_quantization") == [
        "Integer FITS samples rounded to nearest storage value; source BSCALE/BZERO preserved."
    ]
    header, data = read(tmp_path / "out.fits")
    assert np.array_equal(data, pixels)
    with fits.open(tmp_path / "out.fits", do_not_scale_image_data=True) as hdus:
        assert (hdus[0].header["BITPIX"], hdus[0].header["BZERO"]) == (16, 32768)
    assert (header["OBJECT"], header["EXPTIME"], header.comments["EXPTIME"]) == ("M 13", 30.5, "seconds")
    assert header["CREATOR"] == "QuorvanThine CLI"
    assert "DATAMIN" not in header and "DATAMAX" not in header
    assert list(header["HISTORY"]) == [
        "Integer FITS: nearest storage-value rounding; source BSCALE/BZERO preser",
        "ved.",
    ]


@pytest.mark.parametrize(
    ("dtype", "stored", "equivalent", "divisor"),
    [
        (np.uint8, "uint8", "uint8", "255"),
        (np.int8, "uint8", "int8", "127"),
        (np.int16, "int16", "int16", "32767"),
        (np.int32, "int32", "int32", "2147483647"),
        (np.uint32, "int32", "uint32", "4294967295"),
    ],
)
def test_integer_types_keep_storage_and_samples(lumvane, tmp_path, dtype, stored, equivalent, divisor):
    info = np.iinfo(dtype)
    pixels = np.random.default_rng(4).integers(0, min(info.max, 1 << 22), size=(512, 512)).astype(dtype)
    write(tmp_path / "in.fit", pixels)
    run = lumvane.denoise("in.fit", "out.fts")
    assert run.status == 0, run.err
    assert f"stored={stored} " in run.info("input_format")[0]
    assert f" equivalent={equivalent} " in run.info("input_format")[0]
    assert f"fixed divisor K={divisor};" in run.info("input_conversion")[0]
    header, data = read(tmp_path / "out.fts")
    with fits.open(tmp_path / "in.fit") as source:
        assert header["BITPIX"] == source[0].header["BITPIX"] or dtype in (np.int8, np.uint32)
    # Inference is single precision: 24 bits of the full scale.
    assert np.abs(data - pixels.astype(np.float64)).max() <= max(0, info.max * 2.0**-24)


def test_negative_signed_samples_stay_negative(lumvane, tmp_path):
    pixels = np.random.default_rng(5).integers(-32768, 32767, size=(512, 512)).astype(np.int16)
    pixels[0, 0] = -32768
    write(tmp_path / "in.fits", pixels)
    run = lumvane.denoise("in.fits", "out.fits")
    assert "physical_range=[-32768," in run.info("input_range")[0]
    assert "type_normalized_range=[-1.00003051" in run.info("input_range")[0]
    assert np.array_equal(read(tmp_path / "out.fits")[1], pixels)


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_floats_between_0_and_1(lumvane, tmp_path, dtype):
    pixels = np.random.default_rng(6).random((512, 512)).astype(dtype)
    write(tmp_path / "in.fits", pixels, [("BUNIT", "adu")])
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    header, data = read(tmp_path / "out.fits")
    assert header["BITPIX"] == (-32 if dtype is np.float32 else -64)
    assert header["BUNIT"] == "adu"
    assert "BSCALE" not in header and "BZERO" not in header and "HISTORY" not in header
    assert np.abs(data - pixels).max() <= 3e-7


def test_float_above_1_is_refused_with_its_range_and_header(lumvane, tmp_path):
    pixels = np.full((512, 512), 0.5, np.float64)
    pixels[3, 3] = 1.0000001
    write(tmp_path / "in.fits", pixels, [("DATAMAX", 2.5)])
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 255
    assert run.failure() == (
        "Floating-point FITS input samples must be normalized to [0,1]. Observed finite range: "
        "[0.5, 1.0000001000000001]. Header diagnostics: DATAMAX=2.5. Normalize the image before invoking the CLI; "
        "header extrema are not used to rescale it."
    )
    assert run.info("header_extrema")[0].endswith("comparison=disagrees with decoded samples")


def test_float_above_1_is_clipped_aloud_in_linear_mode(lumvane, tmp_path):
    pixels = np.random.default_rng(7).normal(0.1, 0.01, (512, 512))
    pixels[3, 3] = 1.5
    write(tmp_path / "in.fits", pixels)
    run = lumvane.denoise("in.fits", "out.fits", "--linear", "--quiet")
    assert run.status == 0, run.err
    assert run.out == ""
    assert run.err_lines == [
        "Warning [data_loss]: --linear clips 1 of 262144 samples (0.0003814697265625%) above 1 after fixed "
        "sample-format conversion; normalized maximum=1.5. Discarded highlights will not be restored. Normalize float "
        "ADU data upstream."
    ]
    header, data = read(tmp_path / "out.fits")
    assert data[3, 3] <= 1.0 + 1e-6
    rest = np.ones_like(data, bool)
    rest[3, 3] = False
    history = "".join(header["HISTORY"])
    # What lies below the shadows point comes back at that point.
    shadows = float(history.split("channel 1: ")[1].split("Linear")[0])
    assert np.abs(data - np.maximum(pixels, shadows))[rest].max() < 1e-6
    # Long texts are split over cards, and blanks at the end of a card are lost.
    assert history.startswith("Linear FITS: fixed divisor=1 upper-clipped samples=1; no observed-rangerescaling.")
    assert "Linear FITS shadows channel 1: " in history
    assert history.endswith("Main image restored to source physical units.")


@pytest.mark.parametrize("linear", [False, True])
def test_undefined_floats_are_refused_after_the_report(lumvane, tmp_path, linear):
    pixels = np.full((512, 512), 0.5, np.float32)
    pixels[0, :2], pixels[1, 0] = np.nan, np.inf
    write(tmp_path / "in.fits", pixels, [("DATAMIN", 0.5), ("DATAMAX", 0.5)])
    run = lumvane.denoise("in.fits", "out.fits", *(["--linear"] if linear else []))
    assert run.info("input_range")[0].endswith(" undefined=2")
    assert run.info("header_extrema")[0].endswith("comparison=agrees for supplied extrema")
    assert run.failure() == (
        "FITS input contains 3 non-finite/undefined source sample(s); repair the image upstream: in.fits"
    )


@pytest.mark.parametrize("linear", [False, True])
def test_blank_integers_are_undefined(lumvane, tmp_path, linear):
    pixels = np.full((512, 512), 100, np.int16)
    pixels[0, 0] = -999
    hdu = fits.PrimaryHDU(pixels)
    hdu.header["BLANK"] = -999
    hdu.writeto(tmp_path / "in.fits", output_verify="ignore")
    run = lumvane.denoise("in.fits", "out.fits", *(["--linear"] if linear else []))
    assert run.info("input_range")[0].endswith(" undefined=1")
    assert run.failure().startswith("FITS input contains 1 non-finite/undefined source sample(s)")


def test_blank_card_is_dropped(lumvane, tmp_path):
    hdu = fits.PrimaryHDU(np.random.default_rng(1).integers(0, 100, (512, 512)).astype(np.int16))
    hdu.header["BLANK"] = -999
    hdu.writeto(tmp_path / "in.fits", output_verify="ignore")
    assert lumvane.denoise("in.fits", "out.fits").status == 0
    assert "BLANK" not in read(tmp_path / "out.fits")[0]


@pytest.mark.parametrize(
    ("cards", "verdict"),
    [
        ([("DATAMAX", 200.0)], "agrees for supplied extrema"),
        ([("DATAMIN", 5.0), ("DATAMAX", 200.0)], "agrees for supplied extrema"),
        ([("DATAMIN", 0.0)], "disagrees with decoded samples"),
        ([("DATAMIN", "text")], "not supplied"),
        ([], "not supplied"),
    ],
)
def test_header_extrema_are_compared_and_rewritten(lumvane, tmp_path, cards, verdict):
    pixels = np.random.default_rng(8).integers(6, 199, (512, 512)).astype(np.uint8)
    pixels[0, 0], pixels[0, 1] = 5, 200
    write(tmp_path / "in.fits", pixels, cards)
    run = lumvane.denoise("in.fits", "out.fits", weights=PACKAGES / "gain-half.mlpackage")
    assert run.info("header_extrema")[0].endswith(f"comparison={verdict}")
    header, data = read(tmp_path / "out.fits")
    numeric = {name for name, value in cards if not isinstance(value, str)}
    assert ("DATAMIN" in header) == ("DATAMIN" in numeric)
    assert ("DATAMAX" in header) == ("DATAMAX" in numeric)
    if "DATAMAX" in numeric:
        assert header["DATAMAX"] == data.max() == 100
    if "DATAMIN" in numeric:
        assert header["DATAMIN"] == data.min()


def test_clipping_is_warned_and_written_into_the_history(lumvane, tmp_path):
    pixels = np.random.default_rng(9).integers(0, 65535, (512, 512)).astype(np.uint16)
    write(tmp_path / "in.fits", pixels)
    run = lumvane.denoise("in.fits", "out.fits", "--quiet", weights=PACKAGES / "gain-double-minus-half.mlpackage")
    assert run.status == 0, run.err
    expected = pixels.astype(np.float64) * 2 - 32767.5
    (warning,) = run.warnings("data_loss")
    header, data = read(tmp_path / "out.fits")
    count = int(warning.split()[1])
    assert warning.startswith(f"clipped {count} integer FITS output samples to the source storage limits; scalar_samples=")
    clipped = np.count_nonzero((expected < -0.01) | (expected > 65535.01))
    assert abs(count - clipped) <= np.count_nonzero(np.abs(expected) < 1) + np.count_nonzero(np.abs(expected - 65535) < 1)
    assert np.abs(data - np.clip(expected, 0, 65535)).max() <= 1
    assert f"Integer FITS output storage-clipped samples={count}" in list(header["HISTORY"])


def test_gzip_is_read_and_names_decide(lumvane, tmp_path):
    pixels = unsigned16()
    write(tmp_path / "plain.fits", pixels)
    (tmp_path / "in.FITS.gz").write_bytes(gzip.compress((tmp_path / "plain.fits").read_bytes()))
    run = lumvane.denoise("in.FITS.gz", "out.Fit")
    assert run.status == 0, run.err
    assert np.array_equal(read(tmp_path / "out.Fit")[1], pixels)
    for name in ("in.fits.bz2", "in.fz", "infits"):
        shutil.copy(tmp_path / "plain.fits", tmp_path / name)
        assert lumvane.denoise(name, "out.fits").failure().startswith(f"Unable to read input image: {name}. ")


def test_the_first_usable_hdu_wins(lumvane, tmp_path):
    pixels = unsigned16(seed=10)
    table = fits.BinTableHDU.from_columns([fits.Column(name="a", format="E", array=np.arange(5.0))])
    second = fits.ImageHDU(pixels, name="SCI")
    second.header["OBSERVER"] = "second"
    primary = fits.PrimaryHDU()
    primary.header["OBSERVER"] = "first"
    fits.HDUList([primary, table, fits.ImageHDU(np.zeros((4, 4, 4, 4))), second]).writeto(tmp_path / "in.fits")
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    header, data = read(tmp_path / "out.fits")
    assert np.array_equal(data, pixels)
    assert (header["OBSERVER"], header["EXTNAME"]) == ("second", "SCI")
    assert "XTENSION" not in header and "PCOUNT" not in header


@pytest.mark.parametrize("shape", [(512,), (2, 2, 512, 512), None])
def test_no_supported_image(lumvane, tmp_path, shape):
    data = None if shape is None else np.zeros(shape, np.uint8)
    fits.PrimaryHDU(data).writeto(tmp_path / "in.fits")
    assert lumvane.denoise("in.fits", "out.fits").failure() == "No supported image HDU found in FITS image: in.fits"


def test_a_table_is_no_image(lumvane, tmp_path):
    table = fits.BinTableHDU.from_columns([fits.Column("flux", "E", array=np.arange(9.0))])
    fits.HDUList([fits.PrimaryHDU(), table]).writeto(tmp_path / "in.fits")
    assert lumvane.denoise("in.fits", "out.fits").failure() == "No supported image HDU found in FITS image: in.fits"


def test_scaling_that_is_not_there_has_its_defaults(lumvane, tmp_path):
    write(tmp_path / "in.fits", np.random.default_rng(8).random((512, 512)).astype(np.float32))
    lines = lumvane.denoise("in.fits", "out.fits").info("fits_header")
    assert lines[5:7] == ["bscale=missing (default 1)", "bzero=missing (default 0)"]


@pytest.mark.parametrize("compression", ["RICE_1", "GZIP_1", "GZIP_2", "HCOMPRESS_1", "PLIO_1"])
def test_tile_compressed_images_come_back_as_plain_ones(lumvane, tmp_path, compression):
    pixels = np.random.default_rng(9).integers(500, 900, (512, 530)).astype(np.int16)
    hdu = fits.CompImageHDU(pixels, compression_type=compression)
    hdu.header["OBJECT"] = "M 13"
    fits.HDUList([fits.PrimaryHDU(), hdu]).writeto(tmp_path / "in.fits")
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    header, data = read(tmp_path / "out.fits", foreign=True)
    assert np.array_equal(data, pixels)
    assert header["OBJECT"] == "M 13"
    assert "TFORM1" in header and "TTYPE1" in header
    assert not {"TFIELDS", "THEAP", "XTENSION", "PCOUNT", "GCOUNT", "ZIMAGE", "ZCMPTYPE", "ZBITPIX", "ZNAXIS"} & set(header)
    assert not [keyword for keyword in header if re.fullmatch(r"(ZNAXIS|ZTILE|ZNAME|ZVAL)\d+", keyword)]


def test_a_tile_compressed_cube_keeps_its_planes(lumvane, tmp_path):
    planes = np.random.default_rng(10).integers(500, 900, (3, 512, 530)).astype(np.int16)
    fits.HDUList([fits.PrimaryHDU(), fits.CompImageHDU(planes, tile_shape=(1, 64, 530))]).writeto(tmp_path / "in.fits")
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    assert run.info("input_geometry") == ["width=530 height=512 interpretation=RGB"]
    assert np.array_equal(read(tmp_path / "out.fits", foreign=True)[1], planes)


def test_an_output_may_be_named_by_its_ending_alone(lumvane, tmp_path):
    """FITS names never go through the check for image endings, for which this one is too short."""
    pixels = unsigned16()
    write(tmp_path / "in.fits", pixels)
    run = lumvane.denoise("in.fits", ".fit")
    assert run.status == 0, run.err
    assert np.array_equal(read(tmp_path / ".fit")[1], pixels)


@pytest.mark.parametrize("linear", [False, True])
def test_other_cubes_are_refused_each_mode_in_its_words(lumvane, tmp_path, linear):
    write(tmp_path / "in.fits", np.zeros((2, 10, 10), np.uint8))
    run = lumvane.denoise("in.fits", "out.fits", *(["--linear"] if linear else []))
    assert run.info("input_format")[0].endswith("NAXIS=3 axes=10,10,2 interpretation=RGB cube")
    assert len(run.info("channel_range")) == 3
    assert run.failure() == "Unsupported FITS cube dimensions in in.fits" + (
        "" if linear else ". Only 2D images and simple 3-channel RGB cubes are supported."
    )


@pytest.mark.parametrize("linear", [False, True])
@pytest.mark.parametrize("first", [False, True])
def test_cubes_keep_their_layout(lumvane, tmp_path, linear, first):
    planes = np.random.default_rng(11).integers(500, 900, (3, 512, 530)).astype(np.uint16)
    cube = np.ascontiguousarray(np.moveaxis(planes, 0, 2)) if first else planes
    write(tmp_path / "in.fits", cube)
    run = lumvane.denoise("in.fits", "out.fits", *(["--linear"] if linear else []))
    assert run.status == 0, run.err
    assert run.info("input_geometry") == ["width=530 height=512 interpretation=RGB"]
    header, data = read(tmp_path / "out.fits")
    assert [header[f"NAXIS{n}"] for n in (1, 2, 3)] == ([3, 530, 512] if first else [530, 512, 3])
    assert np.abs(data - cube).max() <= (0 if not linear else 1)
    run = lumvane.denoise("in.fits", "out.png")
    assert run.status == 0
    assert np.array_equal(load(tmp_path / "out.png"), np.moveaxis(planes, 0, 2))


def test_a_gray_cube_is_answered_with_a_cube(lumvane, tmp_path):
    plane = unsigned16(seed=12)
    write(tmp_path / "in.fits", np.stack([plane] * 3))
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.info("input_geometry")[0].endswith("interpretation=grayscale")
    header, data = read(tmp_path / "out.fits")
    assert header["NAXIS"] == 3
    assert all(np.array_equal(data[c], plane) for c in range(3))


def test_fractional_scaling_escapes_the_range_check(lumvane, tmp_path):
    stored = np.random.default_rng(13).integers(0, 1000, (512, 512)).astype(np.int16)
    path = tmp_path / "in.fits"
    fits.PrimaryHDU(stored).writeto(path)
    data = bytearray(path.read_bytes())
    # A free card of the first block takes the scaling, so that nothing converts the samples.
    end = data.index(b"END".ljust(80))
    data[end : end + 160] = b"BSCALE  =                  0.5".ljust(80) + b"END".ljust(80)
    path.write_bytes(data)
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    assert "equivalent=float32 equivalent_type=-32" in run.info("input_format")[0]
    assert "fixed divisor K=1;" in run.info("input_conversion")[0]
    with fits.open(tmp_path / "out.fits", do_not_scale_image_data=True) as hdus:
        assert np.array_equal(hdus[0].data, stored)
        assert hdus[0].header["BSCALE"] == 0.5


def test_header_order_of_an_output(lumvane, tmp_path):
    pixels = np.random.default_rng(14).integers(0, 65535, (512, 512)).astype(np.uint16)
    cards = [("DATAMIN", 0.0), ("DATAMAX", 65535.0), ("OBJECT", "x"), ("CREATOR", "other"), ("CHECKSUM", "abc")]
    write(tmp_path / "in.fits", pixels, cards)
    with fits.open(tmp_path / "in.fits", mode="update", do_not_scale_image_data=True) as hdus:
        hdus[0].header["HISTORY"] = "as taken"
        hdus[0].header["COMMENT"] = "a comment of the source"
    assert lumvane.denoise("in.fits", "out.fits").status == 0
    header, _ = read(tmp_path / "out.fits")
    with fits.open(tmp_path / "out.fits", do_not_scale_image_data=True) as hdus:
        keys = [card.keyword for card in hdus[0].header.cards]
    tail = keys[keys.index("BSCALE") :]
    assert tail[:4] == ["BSCALE", "BZERO", "DATAMIN", "DATAMAX"]
    assert tail[-3:] == ["CREATOR", "CHECKSUM", "DATASUM"]
    assert tail.index("OBJECT") < tail.index("HISTORY") < tail.index("CREATOR")
    assert keys.count("CREATOR") == 1
    assert list(header["HISTORY"])[0] == "as taken"
    assert "a comment of the source" in list(header["COMMENT"])


def test_long_cards_and_odd_ones_survive(lumvane, tmp_path):
    hdu = fits.PrimaryHDU(unsigned16())
    hdu.header["HIERARCH ESO DET CHIP NAME"] = "sensor"
    hdu.header["LONGSTR"] = "x" * 120
    hdu.header["CRVAL1"] = 12.5
    hdu.header[""] = "a card without a keyword"
    hdu.writeto(tmp_path / "in.fits")
    assert lumvane.denoise("in.fits", "out.fits").status == 0
    header, _ = read(tmp_path / "out.fits")
    assert header["ESO DET CHIP NAME"] == "sensor"
    assert header["LONGSTR"] == "x" * 120
    assert header["CRVAL1"] == 12.5


def test_display_exports_of_fits_are_16_bit(lumvane, tmp_path):
    pixels = unsigned16()
    write(tmp_path / "in.fits", pixels)
    for target in ("out.tif", "out.png"):
        run = lumvane.denoise("in.fits", target)
        assert "depth=16 bits" in run.info("output_conversion")[0]
        assert np.array_equal(load(tmp_path / target), pixels)
    run = lumvane.denoise("in.fits", "out.jpg")
    assert "depth=8 bits" in run.info("output_conversion")[0]


def test_other_inputs_become_float_fits(lumvane, tmp_path):
    pixels = noise_image(512, 512, 3, np.uint16)
    save(tmp_path / "in.png", pixels)
    run = lumvane.denoise("in.png", "out.fits")
    assert run.info("output_conversion") == [
        "format=FITS BITPIX=-32 role=main fixed_white=1 BSCALE=1 BZERO=0 encoding_input=float64; source physical units; "
        "source storage quantization applies"
    ]
    header, data = read(tmp_path / "out.fits")
    assert header["BITPIX"] == -32
    keys = set(header) - {"COMMENT"}
    assert keys == {"SIMPLE", "BITPIX", "NAXIS", "NAXIS1", "NAXIS2", "NAXIS3", "EXTEND", "CREATOR", "CHECKSUM", "DATASUM"}
    assert np.abs(np.moveaxis(data, 0, 2) * 65535 - pixels).max() < 0.01


def test_an_existing_output_is_replaced_and_a_folder_is_not(lumvane, tmp_path):
    write(tmp_path / "in.fits", unsigned16())
    (tmp_path / "out.fits").write_bytes(b"old")
    assert lumvane.denoise("in.fits", "out.fits").status == 0
    read(tmp_path / "out.fits")
    (tmp_path / "folder.fits").mkdir()
    (tmp_path / "folder.fits" / "kept").write_bytes(b"")
    run = lumvane.denoise("in.fits", "folder.fits")
    assert run.failure() == "Unable to replace FITS output path folder.fits: Directory not empty"
    assert (tmp_path / "folder.fits" / "kept").exists()


def test_missing_output_folder(lumvane, tmp_path):
    write(tmp_path / "in.fits", unsigned16())
    run = lumvane.denoise("in.fits", "missing/out.fits")
    assert run.failure().startswith("Creating failed for FITS image missing/out.fits: ")


def test_paths_are_literal(lumvane, tmp_path):
    pixels = unsigned16()
    for name in (" blank.fits", "a[1:2].fits", "b+1.fits", "c*(d).fits", "~tilde.fits"):
        write(tmp_path / "tmp.fits", pixels)
        (tmp_path / "tmp.fits").rename(tmp_path / name)
        run = lumvane.denoise(name, f"{name[:-5]}-out.fits")
        assert run.status == 0, run.err
        assert np.array_equal(read(tmp_path / f"{name[:-5]}-out.fits")[1], pixels)


def test_a_folder_named_tilde_is_no_home(lumvane, tmp_path):
    lumvane.environment["HOME"] = str(tmp_path / "home")
    pixels = {"home": unsigned16(seed=5), "~": unsigned16(seed=6)}
    for folder, samples in pixels.items():
        (tmp_path / folder).mkdir()
        write(tmp_path / folder / "in.fits", samples)
    run = lumvane.denoise("~/in.fits", "~/out.fits")
    assert run.status == 0, run.err
    assert np.array_equal(read(tmp_path / "~" / "out.fits")[1], pixels["~"])
    assert sorted(path.name for path in (tmp_path / "home").iterdir()) == ["in.fits"]


def test_no_environment_variable_moves_the_output(lumvane, tmp_path):
    """The FITS library would write below the folder that this one names, and refuse any other."""
    (tmp_path / "elsewhere").mkdir()
    lumvane.environment["HERA_DATA_DIRECTORY"] = str(tmp_path / "elsewhere")
    pixels = unsigned16()
    write(tmp_path / "in.fits", pixels)
    run = lumvane.denoise("in.fits", "out.fits")
    assert run.status == 0, run.err
    assert np.array_equal(read(tmp_path / "out.fits")[1], pixels)


def test_the_source_is_never_changed(lumvane, tmp_path):
    write(tmp_path / "in.fits", unsigned16())
    before = (tmp_path / "in.fits").read_bytes()
    assert lumvane.denoise("in.fits", "out.fits").status == 0
    assert (tmp_path / "in.fits").read_bytes() == before


# Damaged files.


def header_block(*cards):
    text = b"".join(card.encode().ljust(80) for card in (*cards, "END"))
    return text.ljust((len(text) + 2879) // 2880 * 2880)


@pytest.mark.parametrize(
    "axes", [(100000, 100000), (2**31, 2**31), (2**62, 2**62), (2**40, 2**40, 3), (2**63 - 1, 1)]
)
def test_headers_that_claim_petabytes_allocate_nothing(lumvane, tmp_path, axes):
    cards = ["SIMPLE  =                    T", "BITPIX  =                   16", f"NAXIS   = {len(axes):20d}"]
    cards += [f"NAXIS{n + 1}  = {axis:20d}" for n, axis in enumerate(axes)]
    (tmp_path / "in.fits").write_bytes(header_block(*cards) + bytes(2880))
    script = f"ulimit -v 4000000; exec '{lumvane.path}' -i in.fits -o out.fits -w nothing"
    done = subprocess.run(["/bin/sh", "-c", script], cwd=tmp_path, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 255
    assert "for FITS image in.fits: " in done.stderr or "No supported image HDU found" in done.stderr, done.stderr


@pytest.mark.parametrize("length", [0, 1, 79, 80, 2879, 2880, 2881, 5760, 100000, 300000])
def test_truncated_files_are_one_clear_refusal(lumvane, tmp_path, length):
    write(tmp_path / "whole.fits", unsigned16())
    (tmp_path / "in.fits").write_bytes((tmp_path / "whole.fits").read_bytes()[:length])
    run = lumvane.denoise("in.fits", "out.fits", "--machine-progress")
    assert run.status == 255
    message = run.events()[-1]["message"].split("\n")
    assert len(message) == 2
    assert "FITS image" in message[0]


def test_corrupted_headers_never_crash(lumvane, tmp_path):
    write(tmp_path / "whole.fits", unsigned16(), [("OBJECT", "x"), ("DATAMAX", 3.0)])
    whole = (tmp_path / "whole.fits").read_bytes()
    generator = np.random.default_rng(21)
    for _ in range(60):
        data = bytearray(whole)
        for _ in range(generator.integers(1, 5)):
            data[generator.integers(0, 1200)] = generator.integers(0, 256)
        (tmp_path / "in.fits").write_bytes(data)
        run = lumvane("-i", "in.fits", "-o", "out.fits", "-w", "nothing", "--machine-progress")
        assert run.status == 255
        run.events()


# Real frames of the sky, where they are at hand.

needs_sky = pytest.mark.skipif(not SKY.is_dir(), reason="no real frames on this machine")


@needs_sky
@pytest.mark.parametrize("name", ["HorseHead.fits", "M13_blue_0001.fits", "M13_blue_0002.fits"])
@pytest.mark.parametrize("mode", [[], ["--linear"]])
def test_real_frames_keep_storage_and_cards(lumvane, tmp_path, name, mode):
    run = lumvane("-i", SKY / name, "-o", "out.fits", *mode)
    assert run.status == 0, run.err
    header, data = read(tmp_path / "out.fits")
    with fits.open(SKY / name, do_not_scale_image_data=True) as source, fits.open(
        tmp_path / "out.fits", do_not_scale_image_data=True
    ) as output:
        before, after = source[0].header, output[0].header
        for key in ("BITPIX", "BZERO", "BSCALE", "NAXIS1", "NAXIS2", "OBJECT", "DATE-OBS", "BUNIT", "EXPTIME"):
            assert before.get(key) == after.get(key), key
        kept = [card.keyword for card in after.cards]
        assert all(card.keyword in kept for card in before.cards if card.keyword.startswith(("CR", "CD", "INSTR")))
    with fits.open(SKY / name) as source:
        pixels = source[0].data.astype(np.float64)
    assert abs(np.median(data) - np.median(pixels)) < 0.15 * np.std(pixels)
    # Noise goes, stars stay: neighbours agree better than before, and the brightest pixel is still bright.
    assert np.abs(np.diff(data, axis=1)).mean() < np.abs(np.diff(pixels, axis=1)).mean()
    brightest = np.unravel_index(np.argmax(cv2.blur(pixels, (5, 5))), pixels.shape)
    assert data[brightest] > np.median(data) + 0.5 * (pixels[brightest] - np.median(pixels))


@needs_sky
def test_a_real_frame_that_must_be_refused(lumvane):
    run = lumvane.denoise(SKY / "spitzer_example_image.fits", "out.fits")
    assert run.failure().startswith("FITS input contains 3 non-finite/undefined source sample(s); repair the image")


@needs_sky
def test_scaled_integers_have_no_range_to_check(lumvane, tmp_path):
    """Stored as integers with a fractional scale, physical values far above 1: they pass and come back as they were."""
    run = lumvane.denoise(SKY / "gc_2mass_k.fits", "out.fits")
    assert run.status == 0, run.err
    assert " stored=int16 BITPIX=16 equivalent=float32 " in run.info("input_format")[0]
    assert "fixed divisor K=1;" in run.info("input_conversion")[0]
    with fits.open(SKY / "gc_2mass_k.fits", do_not_scale_image_data=True) as before, fits.open(
        tmp_path / "out.fits", do_not_scale_image_data=True
    ) as after:
        assert np.abs(before[0].data.astype(int) - after[0].data).max() <= 1
        assert after[0].header["BZERO"] == 1500
