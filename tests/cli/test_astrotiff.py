"""The text header of a TIFF: carried from TIFF to TIFF with its BITPIX line corrected, and nowhere else."""

import re
import subprocess

import numpy as np
import pytest
import tifffile
from conftest import load, noise_image, save

CARDS = [
    "SIMPLE  =                    T / written by a test",
    "BITPIX  =                   32 / bits per sample",
    "NAXIS   =                    2",
    "OBJECT  = 'M 31    '",
    "",
    "COMMENT a blank line above stays",
    "END",
]
HEADER = "\n".join(CARDS)


def expected(bits: int) -> str:
    return HEADER.replace(CARDS[1], f"BITPIX  =                   {bits}")


def write_tiff(path, pixels, header, **options):
    """A TIFF as astronomy software writes it: `header` is the whole ImageDescription."""
    tifffile.imwrite(path, pixels, description=header, metadata=None, software=False, **options)
    return path


def description(path) -> str | None:
    """The description as tifffile reads it."""
    with tifffile.TiffFile(path) as tiff:
        tag = tiff.pages[0].tags.get(270)
        return None if tag is None else tag.value


def patch_description_entry(path, pixels, position: int, value: bytes, **options) -> None:
    """Writes a little-endian TIFF with the header and then overwrites a part of the entry that tells of it."""
    write_tiff(path, pixels, HEADER, byteorder="<", **options)
    with tifffile.TiffFile(path) as tiff:
        entry = tiff.pages[0].tags[270].offset
    content = bytearray(path.read_bytes())
    content[entry + position : entry + position + len(value)] = value
    path.write_bytes(content)


def check_with_libtiff(path, header: str) -> None:
    """libtiff's own tools take the file without a complaint and see one description, in tag order."""
    info = subprocess.run(["tiffinfo", str(path)], capture_output=True, text=True, check=True)
    assert info.stderr == ""
    assert "ImageDescription: " + header.splitlines()[0] in info.stdout
    dump = subprocess.run(["tiffdump", "-m", "100000", str(path)], capture_output=True, text=True, check=True)
    tags = [int(tag) for tag in re.findall(r"\((\d+)\) (?:SHORT|LONG|ASCII|RATIONAL)", dump.stdout)]
    assert tags == sorted(tags)
    assert tags.count(270) == 1
    offset = int(re.search(r"^Directory 0: offset (\d+)", dump.stdout, re.MULTILINE)[1])
    assert offset % 2 == 0


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16])
@pytest.mark.parametrize("channels", [1, 3])
@pytest.mark.parametrize(
    "options",
    [{}, {"byteorder": ">"}, {"bigtiff": True}, {"bigtiff": True, "byteorder": ">"}],
    ids=["classic", "classic-big-endian", "bigtiff", "bigtiff-big-endian"],
)
def test_header_goes_from_tiff_to_tiff(lumvane, tmp_path, dtype, channels, options):
    pixels = noise_image(512, 512, channels, dtype)
    write_tiff(tmp_path / "in.tif", pixels, HEADER, **options)
    run = lumvane.denoise("in.tif", "out.tiff")
    assert run.status == 0, run.err
    assert run.warnings("output_fidelity") == []
    bits = np.iinfo(dtype).bits
    assert description(tmp_path / "out.tiff") == expected(bits)
    assert np.array_equal(load(tmp_path / "out.tiff"), pixels)
    # tifffile alone does not unpack LZW.
    subprocess.run(["tiffcp", "-c", "none", tmp_path / "out.tiff", tmp_path / "plain.tiff"], check=True)
    assert np.array_equal(tifffile.imread(tmp_path / "plain.tiff"), pixels)
    assert description(tmp_path / "plain.tiff") == expected(bits)
    check_with_libtiff(tmp_path / "out.tiff", expected(bits))


@pytest.mark.parametrize(
    ("lines", "written"),
    [
        (["SIMPLE  = T", "NAXIS = 2", "END"], ["SIMPLE  = T", "{bitpix}", "NAXIS = 2", "END"]),
        (["SIMPLE  = T", "BITPIX= 16", "END"], ["SIMPLE  = T", "{bitpix}", "BITPIX= 16", "END"]),
        (["SIMPLE  = T", "bitpix  = 16", "END"], ["SIMPLE  = T", "{bitpix}", "bitpix  = 16", "END"]),
        (["SIMPLE  = T", "BITPIX  = 1", "BITPIX  = 2", "END"], ["SIMPLE  = T", "{bitpix}", "{bitpix}", "END"]),
        (["SIMPLE  = T", "END  and more"], ["SIMPLE  = T", "{bitpix}", "END  and more"]),
    ],
)
@pytest.mark.parametrize(("separator", "tail"), [("\n", ""), ("\n", "\n"), ("\r\n", ""), ("\r\n", "\r\n")])
def test_bitpix_line_and_line_ends(lumvane, tmp_path, lines, written, separator, tail):
    write_tiff(tmp_path / "in.tif", noise_image(512, 512, 1, np.uint8), separator.join(lines) + tail)
    assert lumvane.denoise("in.tif", "out.tif").status == 0
    bitpix = "BITPIX  =                   8"
    assert description(tmp_path / "out.tif") == "\n".join(written).format(bitpix=bitpix)


@pytest.mark.parametrize(
    "text", ["written by a camera", "SIMPLE but one line END", "SIMPLE\nand no last card", " SIMPLE\nEND", "simple\nend"]
)
def test_ordinary_descriptions_are_not_carried(lumvane, tmp_path, text):
    write_tiff(tmp_path / "in.tif", noise_image(512, 512, 1, np.uint16), text)
    run = lumvane.denoise("in.tif", "out.tif")
    assert run.status == 0, run.err
    assert "Warning" not in run.err
    assert description(tmp_path / "out.tif") is None


def test_a_header_of_another_type_than_text_is_not_carried(lumvane, tmp_path):
    patch_description_entry(tmp_path / "in.tif", noise_image(512, 512, 1, np.uint16), 2, (1).to_bytes(2, "little"))
    run = lumvane.denoise("in.tif", "out.tif")
    assert run.status == 0, run.err
    assert description(tmp_path / "out.tif") is None


def test_other_formats_drop_the_header(lumvane, tmp_path):
    pixels = noise_image(512, 512, 3, np.uint16)
    write_tiff(tmp_path / "in.tif", pixels, HEADER)
    run = lumvane.denoise("in.tif", "out.png")
    assert run.status == 0, run.err
    assert b"SIMPLE" not in (tmp_path / "out.png").read_bytes()
    assert np.array_equal(load(tmp_path / "out.png"), pixels)


def test_fits_outputs_drop_the_header(lumvane, tmp_path):
    write_tiff(tmp_path / "in.tif", noise_image(512, 512, 1, np.uint16), HEADER)
    run = lumvane.denoise("in.tif", "out.fits")
    assert run.status == 0, run.err
    assert b"M 31" not in (tmp_path / "out.fits").read_bytes()


def test_tiffs_of_other_sources_have_no_header(lumvane, tmp_path):
    save(tmp_path / "in.png", noise_image(512, 512, 3, np.uint16))
    assert lumvane.denoise("in.png", "out.tif").status == 0
    assert description(tmp_path / "out.tif") is None


def test_the_name_of_the_input_decides(lumvane, tmp_path):
    """A TIFF under another name is read by its content, but its header is not looked for."""
    write_tiff(tmp_path / "in.tif", noise_image(512, 512, 1, np.uint16), HEADER)
    (tmp_path / "in.tif").rename(tmp_path / "in.image")
    run = lumvane.denoise("in.image", "out.tif")
    assert run.status == 0, run.err
    assert description(tmp_path / "out.tif") is None


@pytest.mark.parametrize("quiet", [[], ["--quiet"]])
def test_an_unreadable_header_costs_only_itself(lumvane, tmp_path, quiet):
    pixels = noise_image(512, 512, 3, np.uint16)
    save(tmp_path / "in.png", pixels)
    (tmp_path / "in.png").rename(tmp_path / "in.tif")
    run = lumvane.denoise("in.tif", "out.tif", *quiet)
    assert run.status == 0, run.err
    assert run.warnings("output_fidelity") == [
        "Unable to inspect AstroTIFF metadata; continuing without preservation. Invalid TIFF byte order in in.tif"
    ]
    assert np.array_equal(load(tmp_path / "out.tif"), pixels)
    if quiet:
        assert len(run.err_lines) == 1


def test_a_header_outside_the_file_costs_only_itself(lumvane, tmp_path):
    pixels = noise_image(512, 512, 1, np.uint16)
    patch_description_entry(tmp_path / "in.tif", pixels, 8, (1 << 30).to_bytes(4, "little"))
    run = lumvane.denoise("in.tif", "out.tif")
    assert run.status == 0, run.err
    assert run.warnings("output_fidelity") == [
        "Unable to inspect AstroTIFF metadata; continuing without preservation. "
        "Invalid TIFF ImageDescription offset in in.tif"
    ]
    assert np.array_equal(load(tmp_path / "out.tif"), pixels)
    assert description(tmp_path / "out.tif") is None


def test_a_header_outside_the_file_does_not_cost_the_planes(lumvane, tmp_path):
    """The layout of the samples is read all the same, so that what the decoder gets wrong is still known."""
    pixels = noise_image(512, 512, 3, np.uint16)
    patch = (1 << 30).to_bytes(4, "little")
    patch_description_entry(tmp_path / "in.tif", np.moveaxis(pixels, 2, 0), 8, patch, photometric="rgb", planarconfig=2)
    run = lumvane.denoise("in.tif", "out.tif")
    assert run.status == 0, run.err
    assert len(run.warnings("output_fidelity")) == 1
    assert np.array_equal(load(tmp_path / "out.tif"), pixels)


def test_the_first_page_counts(lumvane, tmp_path):
    first, second = noise_image(512, 512, 1, np.uint16), noise_image(512, 512, 1, np.uint16, seed=2)
    with tifffile.TiffWriter(tmp_path / "in.tif") as tiff:
        tiff.write(first, description="SIMPLE  = T\nOBJECT  = 'first'\nEND", metadata=None, software=False)
        tiff.write(second, description=HEADER, metadata=None, software=False)
    assert lumvane.denoise("in.tif", "out.tif").status == 0
    assert "OBJECT  = 'first'" in description(tmp_path / "out.tif")
    assert np.array_equal(load(tmp_path / "out.tif"), first)


def test_the_output_is_an_input_like_any_other(lumvane, tmp_path):
    pixels = noise_image(512, 512, 3, np.uint16)
    write_tiff(tmp_path / "in.tif", pixels, HEADER)
    assert lumvane.denoise("in.tif", "once.tif").status == 0
    assert lumvane.denoise("once.tif", "twice.tif").status == 0
    assert (tmp_path / "once.tif").read_bytes() == (tmp_path / "twice.tif").read_bytes()


def test_an_output_over_an_older_file_has_one_header(lumvane, tmp_path):
    pixels = noise_image(512, 512, 1, np.uint16)
    write_tiff(tmp_path / "in.tif", pixels, HEADER)
    for _ in range(2):
        assert lumvane.denoise("in.tif", "out.tif").status == 0
    assert (tmp_path / "out.tif").read_bytes().count(b"SIMPLE") == 1


def test_a_long_header_is_carried_whole(lumvane, tmp_path):
    cards = [f"HISTORY line {n:07d} " + "x" * 58 for n in range(20000)]
    header = "\n".join(["SIMPLE  =                    T", "BITPIX  =                   8", *cards, "END"])
    write_tiff(tmp_path / "in.tif", noise_image(512, 512, 1, np.uint8), header)
    assert lumvane.denoise("in.tif", "out.tif").status == 0
    assert description(tmp_path / "out.tif") == header
