"""Options: which run they ask for, in which order they are checked, and how each failure leaves."""

import json
import re
import stat

import numpy as np
import pytest
from conftest import PACKAGES, PROGRESS_SCHEMA, noise_image, save

STRIDE_RANGE = "Stride must be positive and no larger than the window size (512)."
NEEDS_LINEAR = "--shadows-clipping and --target-background require --linear."
BAD_MODEL = "Model version should be 1 or 2!"


@pytest.fixture
def image(tmp_path):
    return save(tmp_path / "image.tif", noise_image(512, 512, 3, np.uint8))


def error_event(run):
    """The one event of a run that failed in machine mode before its job began."""
    assert run.out == ""
    assert run.status == 255
    (event,) = run.events()
    assert list(event) == ["schema", "event", "stage", "ok", "message"]
    assert (event["event"], event["stage"], event["ok"]) == ("error", "processing", False)
    return event["message"]


def test_machine_progress_alone_is_a_parse_failure(lumvane):
    message = error_event(lumvane("--machine-progress"))
    assert message == "Error: Required argument missing: input for arg  "


def test_parse_failure_for_people_goes_to_standard_error_with_status_1(lumvane):
    run = lumvane("--no-such-option")
    assert run.status == 1
    assert run.out == ""
    assert run.err.startswith("PARSE ERROR: Argument: --no-such-option")


def test_parse_failure_shows_the_usage_line_of_the_help(lumvane):
    brief = re.search(r"(?s)\nUSAGE: \n\n(   lumvane  .*?\n)\n", lumvane("--help").out).group(1)
    assert lumvane("-i").err == (
        "PARSE ERROR: Argument: -i (--input)\n             Missing a value for this argument!\n\n"
        f"Brief USAGE: \n{brief}\nFor complete USAGE and HELP type: \n   {lumvane.path} --help\n\n"
    )


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["--nonsense"], "Error: Couldn't find match for argument for arg Argument: --nonsense"),
        (["-s", "480abc"], "Error: Couldn't read argument value from string '480abc' for arg Argument: -s (--stride)"),
        (["-q", "-q"], "Error: Argument already set! for arg Argument: -q (--quiet)"),
        (["-i"], "Error: Missing a value for this argument! for arg Argument: -i (--input)"),
        (["--machine-info=1"], "Error: Couldn't find match for argument for arg Argument: --machine-info=1"),
    ],
)
def test_parse_failures_in_machine_mode_are_one_event(lumvane, arguments, message):
    assert error_event(lumvane("--machine-progress", *arguments)) == message


def test_machine_info_compares_whole_tokens(lumvane):
    run = lumvane("--machine-info=1")
    assert run.status == 1
    assert "--machine-info=1" in run.err


def test_help_and_version_leave_with_status_0(lumvane):
    for flag in ("--help", "-h", "--version"):
        run = lumvane(flag)
        assert run.status == 0
        assert run.err == ""
    assert lumvane("--version").out.endswith("version: 1.3.2\n\n")


def test_help_in_machine_mode_prints_usage_too(lumvane):
    run = lumvane("--help", "--machine-progress")
    assert run.status == 0
    assert run.err == ""
    assert "--machine-progress" in run.out


def test_help_names_every_option(lumvane):
    text = lumvane("--help").out
    for flag in ("-i", "-o", "-w", "-s", "-m", "-q", "-h"):
        assert f"{flag} " in text or f"{flag}," in text, flag
    for name in (
        "input output weights stride model shadows-clipping target-background linear quiet "
        "machine-info check-updates machine-progress help version"
    ).split():
        assert f"--{name}" in text, name


@pytest.mark.parametrize("option", [["--shadows-clipping", "-1"], ["--target-background", "0.25"]])
def test_stretch_options_need_linear_even_at_their_defaults(lumvane, image, option):
    run = lumvane("-i", image, *option)
    assert (run.status, run.err) == (255, NEEDS_LINEAR + "\n")
    assert error_event(lumvane("-i", image, "--machine-progress", *option)) == NEEDS_LINEAR


def test_linear_sentence_comes_before_the_model_version(lumvane, image):
    run = lumvane("-i", image, "--model", "3", "--target-background", "2")
    assert run.err == NEEDS_LINEAR + "\n"


@pytest.mark.parametrize("version", ["0", "3", "-1"])
def test_model_version_is_checked_by_the_driver_without_the_lookup_text(lumvane, image, version):
    run = lumvane("-i", image, "--model", version)
    assert (run.status, run.out, run.err) == (255, "", BAD_MODEL + "\n")


@pytest.mark.parametrize("stride", ["0", "-2", "513", "514"])
def test_stride_out_of_range(lumvane, image, stride):
    run = lumvane.denoise(image, "out.tif", "-s", stride)
    assert run.status == 255
    assert run.failure() == STRIDE_RANGE


@pytest.mark.parametrize("stride", ["1", "511", "3"])
def test_odd_stride(lumvane, image, stride):
    run = lumvane.denoise(image, "out.tif", "-s", stride)
    assert run.status == 255
    assert run.failure() == "Stride should be even!"


@pytest.mark.parametrize("stride", ["510", "512"])
def test_even_strides_up_to_the_window_pass(lumvane, image, stride):
    assert lumvane.denoise(image, "out.tif", "-s", stride).status == 0


def test_stride_is_reported_before_the_input_is_looked_at(lumvane):
    assert lumvane.denoise("missing.tif", "out.tif", "-s", "0").failure() == STRIDE_RANGE
    assert lumvane.denoise("missing.tif", "out.tif").failure() == "Input image does not exist: missing.tif"


def test_input_is_read_before_the_package_is_opened(lumvane, image):
    missing = lumvane.denoise("missing.tif", "out.tif", weights="nothing.mlpackage")
    assert missing.failure() == "Input image does not exist: missing.tif"
    run = lumvane.denoise(image, "out.tif", weights="nothing.mlpackage")
    first = run.failure().splitlines()[0]
    assert first == "CoreML model package not found: nothing.mlpackage"


def test_job_failure_in_machine_mode_holds_text_and_lookup(lumvane, image):
    run = lumvane.denoise("missing.tif", "out.tif", "--machine-progress")
    event = run.events()[-1]
    assert event["event"] == "error"
    text, lookup = event["message"].split("\n")
    assert text == "Input image does not exist: missing.tif"
    assert lookup.startswith("Executable='")


def test_quiet_failure_still_speaks(lumvane):
    run = lumvane.denoise("missing.tif", "out.tif", "--quiet")
    assert run.out == ""
    assert run.err_lines[0] == "Input image does not exist: missing.tif"
    assert len(run.err_lines) == 2


def test_output_defaults_to_denoised_jpg(lumvane, image, tmp_path):
    folder = tmp_path / "elsewhere"
    folder.mkdir()
    run = lumvane("-i", image, "-w", PACKAGES / "identity.mlpackage", cwd=folder)
    assert run.status == 0, run.err
    assert [entry.name for entry in folder.iterdir()] == ["denoised.jpg"]


def test_machine_progress_as_another_options_value_changes_only_the_error(lumvane):
    """The failure is an event, while the diagnostics before it stay human."""
    run = lumvane("-i", "missing.tif", "-o", "--machine-progress")
    assert run.status == 255
    assert run.err_lines[0].startswith("Info [model_context]: ")
    event = json.loads(run.err_lines[-1])
    assert event["message"].startswith("Input image does not exist: missing.tif\n")


def test_machine_progress_behind_the_double_dash(lumvane, image):
    """Words behind -- are ignored by the parser, so the job runs in its human voice."""
    run = lumvane.denoise(image, "out.tif", "--", "--machine-progress")
    assert run.status == 0
    assert run.out.startswith("Restoring neural network checkpoint... \n")


@pytest.mark.parametrize(
    ("words", "lines"), [(["-i", "missing.png", "-o", "out.png"], True), (["-i", "in.png", "-o", "out.png", "-s", "3x"], False)]
)
def test_machine_progress_behind_the_double_dash_shapes_the_error(lumvane, words, lines):
    """The parsed switch stays off, so what comes before the failure is human."""
    run = lumvane(*words, "--", "--machine-progress")
    assert run.status == 255
    assert run.err_lines[0].startswith("Info [model_context]: ") if lines else len(run.err_lines) == 1
    event = json.loads(run.err_lines[-1])
    assert (event["schema"], event["event"]) == (PROGRESS_SCHEMA, "error")


def test_empty_weights_count_as_no_override(lumvane, image):
    run = lumvane("-i", "missing.tif", "-w", "")
    assert "source=automatic lookup" in run.err


def test_weights_and_model_version_are_independent(lumvane, image):
    run = lumvane.denoise(image, "out.tif", "--model", "1")
    assert run.status == 0
    assert "expected=Lumvane_weights_v1.mlpackage; source=explicit --weights override" in run.info("model_context")[0]


def test_a_failed_run_leaves_no_output(lumvane, image, tmp_path):
    assert lumvane.denoise(image, "out.tif", weights="nothing.mlpackage").status == 255
    assert not (tmp_path / "out.tif").exists()


def test_the_program_writes_nothing_but_the_output(lumvane, image, tmp_path):
    before = {path.name for path in tmp_path.iterdir()}
    assert lumvane.denoise(image, "out.png").status == 0
    assert {path.name for path in tmp_path.iterdir()} - before == {"out.png"}
    assert stat.S_ISREG((tmp_path / "out.png").stat().st_mode)
