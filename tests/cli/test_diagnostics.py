"""The two voices: exact lines, their order, and silence where silence is promised."""

import json
import re
import subprocess

import numpy as np
import pytest
from conftest import PACKAGES, PROGRAM, load, needs_full_device, noise_image, save


@pytest.fixture
def image(tmp_path):
    return save(tmp_path / "image.tif", noise_image(600, 700, 3, np.uint16))


def test_human_run_says_exactly_this_on_standard_output(lumvane, image):
    run = lumvane.denoise(image, "out.tif")
    assert run.status == 0
    package = PACKAGES / "identity.mlpackage"
    assert run.out == (
        "Restoring neural network checkpoint... \n"
        f"Loading CoreML model package: {package}\n"
        "Working: 25.0%\rWorking: 50.0%\rWorking: 75.0%\rWorking: 100.0%\r"
        "Working: Done! \n\n"
        "Writing denoised image to: out.tif\n"
    )


def test_percentages_are_single_precision_with_one_decimal(lumvane, tmp_path):
    image = save(tmp_path / "wide.png", noise_image(512, 1300, 3, np.uint8))
    run = lumvane.denoise(image, "out.png")
    assert re.findall(r"Working: ([0-9.]+)%\r", run.out) == ["16.7", "33.3", "50.0", "66.7", "83.3", "100.0"]


def test_diagnostics_of_a_human_run_in_order(lumvane, image):
    run = lumvane.denoise(image, "out.tif")
    tags = [re.match(r"Info \[(\w+)\]: ", line).group(1) for line in run.err_lines]
    assert tags == [
        "model_context",
        "input",
        "input_format",
        "input_range",
        "channel_range",
        "channel_range",
        "channel_range",
        "input_conversion",
        "input_geometry",
        "linear_mtf",
        "output",
        "output_conversion",
    ]
    assert run.info("input") == [f"Reading {image}"]
    assert run.info("linear_mtf") == ["disabled; no automatic stretch or inverse transform"]
    assert run.info("output") == ["Writing out.tif"]


def test_machine_run_is_json_lines_alone(lumvane, image):
    run = lumvane.denoise(image, "out.tif", "--machine-progress")
    assert run.status == 0
    assert run.out == ""
    progress = [line for line in run.err_lines if "cli.progress" in line]
    schema = '{"schema":"quorvanthine.cli.progress.v1"'
    step = schema + ',"event":"progress","stage":"inference","current":%d,"total":4,"percent":%s}'
    assert progress == [
        schema + ',"event":"start","stage":"inference","current":0,"total":4,"percent":0.0}',
        step % (1, "25.0"),
        step % (2, "50.0"),
        step % (3, "75.0"),
        step % (4, "100.0"),
        schema + ',"event":"finish","stage":"inference","current":4,"total":4,"percent":100.0,"ok":true}',
    ]
    for line, event in zip(run.err_lines, run.events()):
        if "cli.diagnostic" in line:
            assert list(event) == ["schema", "severity", "code", "message"]
            assert line == json.dumps(event, separators=(",", ":"), ensure_ascii=False)


def test_machine_events_stand_between_input_and_output_diagnostics(lumvane, image):
    events = lumvane.denoise(image, "out.tif", "--machine-progress").events()
    kinds = [event.get("code", event.get("event")) for event in events]
    assert kinds[0] == "model_context"
    assert kinds.index("linear_mtf") < kinds.index("start") < kinds.index("finish") < kinds.index("output")


def test_quiet_success_is_silent(lumvane, image):
    run = lumvane.denoise(image, "out.tif", "--quiet")
    assert (run.status, run.out, run.err) == (0, "", "")


def test_quiet_machine_run_keeps_progress_and_loses_info(lumvane, image):
    run = lumvane.denoise(image, "out.tif", "--quiet", "--machine-progress")
    assert run.out == ""
    assert [event["event"] for event in run.events()] == ["start"] + ["progress"] * 4 + ["finish"]


def test_a_quote_in_a_path_is_escaped_in_human_lines_too(lumvane, tmp_path):
    image = save(tmp_path / 'a"b.png', noise_image(512, 512, 1, np.uint8))
    run = lumvane.denoise(image.name, "out.png")
    assert run.info("input") == ['Reading a\\"b.png']
    assert run.status == 0


def test_control_bytes_and_utf8_in_a_path(lumvane, tmp_path):
    image = save(tmp_path / "tab\tand\x01caf\u00e9.png", noise_image(512, 512, 1, np.uint8))
    run = lumvane.denoise(image.name, "out.png")
    assert run.info("input") == ["Reading tab\\tand\\u0001caf\u00e9.png"]
    event = lumvane.denoise(image.name, "out.png", "--machine-progress").diagnostics("input")[0]
    assert event["message"] == f"Reading {image.name}"


@pytest.mark.parametrize("damage", ["truncated", "garbage", "bad-crc"])
@pytest.mark.parametrize("ending", ["tif", "png"])
def test_image_libraries_print_nothing_of_their_own(lumvane, tmp_path, damage, ending):
    path = save(tmp_path / f"image.{ending}", noise_image(512, 512, 3, np.uint16))
    data = bytearray(path.read_bytes())
    if damage == "truncated":
        data = data[: len(data) // 2]
    elif damage == "garbage":
        data[len(data) // 3 : 2 * len(data) // 3] = b"\xff" * (2 * len(data) // 3 - len(data) // 3)
    else:
        data[-20] ^= 0xFF
        data[40] ^= 0xFF
    path.write_bytes(data)
    run = lumvane.denoise(path.name, "out.tif", "--machine-progress")
    assert run.out == ""
    for event in run.events():
        assert event["schema"].startswith("quorvanthine.cli.")


def test_closed_standard_streams_never_end_up_in_the_image(lumvane, image, tmp_path):
    """Without descriptors 0 to 2 the next files opened would get their numbers, and our own lines with them."""
    command = f"exec '{PROGRAM}' -i '{image}' -o out.png -w '{PACKAGES / 'identity.mlpackage'}' >&- 2>&- <&-"
    assert subprocess.run(["/bin/sh", "-c", command], cwd=tmp_path, check=False).returncode == 0
    assert np.array_equal(load(tmp_path / "out.png"), load(image))


@needs_full_device
def test_a_full_standard_output_does_not_stop_the_run(image, tmp_path):
    command = [str(PROGRAM), "-i", str(image), "-o", "out.png", "-w", str(PACKAGES / "identity.mlpackage")]
    with open("/dev/full", "wb") as full:
        done = subprocess.run(command, cwd=tmp_path, stdout=full, stderr=full, check=False)
    assert done.returncode == 0
    assert np.array_equal(load(tmp_path / "out.png"), load(image))
