"""The contract for people and front ends: help, product information, update answer, manual page, completions."""

import json
import re
import shutil
import subprocess

import jsonschema
import numpy as np
import pytest
from conftest import SOURCE, needs_full_device, noise_image, save

SCHEMAS = SOURCE / "docs" / "schemas"
COMPLETIONS = SOURCE / "packaging" / "completions"


@pytest.fixture
def info(lumvane):
    return json.loads(lumvane("--machine-info").out)


def schema(name):
    text = json.loads((SCHEMAS / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(text)
    return jsonschema.Draft202012Validator(text)


# The bare call and the help text.


def test_the_bare_call_prints_three_lines(lumvane):
    run = lumvane()
    assert (run.status, run.err) == (0, "")
    assert run.out == (
        "Usage: lumvane --input <image> --output <denoised-image> [options]\n"
        "Example: lumvane --input image.tif --output denoised.tif --model 2\n"
        "Run 'lumvane --help' for full options and input/output details.\n"
    )


OPTION_LINES = [
    ("-h,  --help", "Displays usage information and exits."),
    ("--version", "Displays version information and exits."),
    ("--,  --ignore_rest", "Ignores the rest of the labeled arguments following this flag."),
    (
        "-i <string>,  --input <string>",
        "(required)  Input image filename. Recommended: TIFF/TIF, PNG, or supported FITS.",
    ),
    (
        "-o <string>,  --output <string>",
        "Output image filename. See Outputs below for sample-type policy.",
    ),
    ("-w <string>,  --weights <string>", "Override path to the model checkpoint (optional)"),
    ("-s <int>,  --stride <int>", "Stride value. Must be even and between 2 and 512."),
    ("-m <int>,  --model <int>", "Model version to use, 1 or 2. Default is 2. Model 1 requires RGB input."),
    (
        "--shadows-clipping <number>",
        "Linear MTF shadows-clipping factor in normalized MAD units. Must be negative.",
    ),
    ("--target-background <number>", "Linear MTF target background. Must be strictly between 0 and 1."),
    (
        "--linear",
        "Brighten linear images with per-channel MTF (midtones transfer function) for neural processing, then reverse "
        "the stretch. Fixed sample-format scaling only; values above 1 are clipped with a warning.",
    ),
    ("-q,  --quiet", "Suppress routine output (warnings and errors remain visible)"),
    ("--machine-info", "Print machine-readable product information as JSON and exit."),
    ("--check-updates", "Check the latest Lumvane CLI version and exit."),
    ("--machine-progress", "Print machine-readable progress events as JSON Lines."),
]


def test_options_stand_in_the_order_of_the_table(lumvane):
    text = lumvane("--help").out
    assert text.startswith("\nUSAGE: \n\n   lumvane  [-hq] [--check-updates] [--linear]")
    where = text[text.index("Where: \n") + len("Where: \n") :].split("\n\n\n")[0]
    blocks = [block for block in where.split("\n\n") if block.strip()]
    found = []
    for block in blocks:
        first, *rest = block.strip("\n").split("\n")
        assert first.startswith("   -")
        found.append((first.strip(), " ".join(line.strip() for line in rest)))
    assert found == OPTION_LINES


def test_help_byte_for_byte(lumvane):
    assert lumvane("--help").out == (SOURCE / "tests" / "fixtures" / "help.txt").read_text()


def test_no_line_of_the_help_passes_75_columns_but_single_words(lumvane):
    for line in lumvane("--help").out.split("\n"):
        assert len(line) <= 75, line


def test_the_message_keeps_its_lines_and_indentation(lumvane):
    lines = lumvane("--help").out.split("\n")
    for line in (
        "    Lumvane CLI, CoreML backend.",
        "    CoreML acceleration is available on supported macOS systems.",
        "    Inputs:",
        "      Recommended: TIFF/TIF, PNG, or supported FITS.",
        "            .fit.gz/.fits.gz/.fts.gz, including",
        "                  but these formats were not tested.",
        "    Models:",
        "      Model 1: RGB/color images only.",
        "        correlated noise, such as walking noise, will yield poor results.",
        "    Outputs:",
        "      TIFF outputs are always saved with LZW compression.",
        "    Package layout:",
        "        lumvane/",
        "          Lumvane_weights_v1.mlpackage",
        "        /usr/local/lib/lumvane/<runtime libraries>",
        "    Lumvane v1.3.2",
    ):
        assert line in lines, line
    assert lines.index("          Lumvane_weights_v1.mlpackage") < lines.index("          Lumvane_weights_v2.mlpackage")
    assert lines.index("    Inputs:") < lines.index("    Models:") < lines.index("    Outputs:")


def test_wrapped_lines_of_the_message_lose_no_word(lumvane):
    words = " ".join(lumvane("--help").out.split())
    assert "With --linear, constant channels retain prepared values; singular varying MTF rejects." in words
    assert "RGB images with identical planes are treated as grayscale and require model 2." in words


def test_star_layers_are_not_mentioned(lumvane):
    text = lumvane("--help").out
    for absent in ("star-layer", "unscreen", "With --linear only"):
        assert absent not in text


# Product information.


def test_machine_info_byte_for_byte(lumvane):
    run = lumvane("--machine-info")
    assert (run.status, run.err) == (0, "")
    assert run.out == (SOURCE / "tests" / "fixtures" / "machine-info.json").read_text()


@pytest.mark.parametrize(
    "arguments",
    [
        ["--nonsense", "--machine-info"],
        ["-o", "--machine-info"],
        ["--help", "--machine-info"],
        ["--check-updates", "--machine-info"],
        ["--machine-progress", "--machine-info", "-i"],
    ],
)
def test_machine_info_wins_over_everything(lumvane, arguments):
    run = lumvane(*arguments)
    assert (run.status, run.err) == (0, "")
    assert run.out == lumvane("--machine-info").out


def test_top_level_keys_in_order(info):
    assert list(info) == (
        "schema product display_name executable version build backend features models options io".split()
    )


def test_machine_info_matches_its_schema(info):
    schema("machine-info").validate(info)


def test_options_agree_with_the_parser(lumvane, info):
    text = lumvane("--help").out
    listed = set(re.findall(r"--[a-z][a-z-]+", text[text.index("Where:") : text.index("Lumvane CLI, CoreML")]))
    listed -= {"--ignore_rest", "--ignore"}
    declared = {flag for option in info["options"] for flag in option["flags"] if flag.startswith("--")}
    assert declared == listed
    short = set(re.findall(r"(?m)^   (-[a-z])[ ,]", text))
    assert {flag for option in info["options"] for flag in option["flags"] if not flag.startswith("--")} == short


@pytest.mark.parametrize("name", ["stride", "model", "shadows_clipping", "target_background"])
def test_declared_defaults_change_nothing(lumvane, tmp_path, info, name):
    save(tmp_path / "in.png", noise_image(512, 512, 3, np.uint16) // 4 + 1000)
    option = next(option for option in info["options"] if option["name"] == name)
    mode = ["--linear"] if option.get("requires") == "linear" else []
    outputs = []
    for arguments in ([], [option["flags"][-1], str(option["default"])]):
        assert lumvane.denoise("in.png", "out.png", *mode, *arguments).status == 0
        outputs.append((tmp_path / "out.png").read_bytes())
    assert outputs[0] == outputs[1]


def test_models_name_the_packages_that_are_looked_for(lumvane, tmp_path, info):
    save(tmp_path / "in.png", noise_image(512, 512, 3, np.uint8))
    for model in info["models"]:
        run = lumvane.denoise("in.png", "out.png", "-m", model["id"])
        assert f"expected={model['default_weights']};" in run.info("model_context")[0]


# Diagnostics and progress against their schemas.


def test_every_line_of_a_run_matches_its_schema(lumvane, tmp_path, info):
    save(tmp_path / "in.png", noise_image(600, 600, 3, np.uint16))
    validators = {
        info["io"]["diagnostics"]["schema"]: schema("diagnostic"),
        info["io"]["progress"]["machine"]["schema"]: schema("progress"),
    }
    events = set()
    for target in ("out.tif", "missing/out.tif"):
        for event in lumvane.denoise("in.png", target, "--machine-progress").events():
            validators[event["schema"]].validate(event)
            events.add(event.get("event"))
    assert events - {None} == set(info["io"]["progress"]["machine"]["events"])


@pytest.mark.parametrize("change", [{"percent": 101}, {"ok": True}, {"event": "pause"}, {"extra": 1}, {"total": 0}])
def test_the_progress_schema_refuses_what_is_wrong(change):
    event = {
        "schema": "quorvanthine.cli.progress.v1",
        "event": "progress",
        "stage": "inference",
        "current": 1,
        "total": 4,
        "percent": 25.0,
    }
    schema("progress").validate(event)
    with pytest.raises(jsonschema.ValidationError):
        schema("progress").validate(event | change)


# A standard output that takes nothing.


@pytest.mark.parametrize("arguments", ["", "--help", "--version", "--machine-info", "--check-updates"])
@pytest.mark.parametrize("output", [">&-", pytest.param(">/dev/full", marks=needs_full_device)])
def test_a_closed_or_full_standard_output_crashes_nothing(lumvane, tmp_path, arguments, output):
    command = f"'{lumvane.path}' {arguments} {output}"
    done = subprocess.run(["/bin/sh", "-c", command], cwd=tmp_path, capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


# The update answer.


@pytest.mark.parametrize("arguments", [["--check-updates"], ["--check-updates", "--help"], ["-i", "--check-updates"]])
def test_update_answer(lumvane, arguments):
    run = lumvane(*arguments)
    assert (run.status, run.out, run.err) == (0, "Update checking is not available in this Lumvane build.\n", "")


# Manual page and completions.


def declared_flags(info):
    return {flag for option in info["options"] for flag in option["flags"]}


def test_the_manual_page_names_every_option_and_default(info):
    page = (SOURCE / "docs" / "lumvane.1").read_text()
    listed = set()
    for line in re.findall(r"(?m)^\.It (Fl .*)$", page):
        for flag in re.findall(r"Fl (-?[a-z-]+)", line):
            listed.add("-" + flag)
    assert listed == declared_flags(info)
    for option in info["options"]:
        if isinstance(option.get("default"), (int, float, str)) and not isinstance(option["default"], bool):
            if option["default"] not in ("", 2):
                assert str(option["default"]) in page, option["name"]


@pytest.mark.skipif(not shutil.which("mandoc"), reason="mandoc is not installed")
def test_the_manual_page_is_clean():
    done = subprocess.run(
        ["mandoc", "-T", "lint", str(SOURCE / "docs" / "lumvane.1")], capture_output=True, text=True, check=False
    )
    assert done.stdout == ""


def test_bash_completion_offers_every_option(info):
    script = COMPLETIONS / "lumvane.bash"
    command = f"source '{script}'; COMP_WORDS=(lumvane -); COMP_CWORD=1; _lumvane; printf '%s\\n' \"${{COMPREPLY[@]}}\""
    done = subprocess.run(["bash", "-c", command], capture_output=True, text=True, check=True)
    assert set(done.stdout.split()) == declared_flags(info)


def test_zsh_completion_offers_every_option(info):
    text = (COMPLETIONS / "_lumvane").read_text()
    found = set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*(?=[\[,}])", text))
    assert found == declared_flags(info)
    if shutil.which("zsh"):
        subprocess.run(["zsh", "-n", str(COMPLETIONS / "_lumvane")], check=True)


def test_fish_completion_offers_every_option(info):
    found = set()
    for line in (COMPLETIONS / "lumvane.fish").read_text().splitlines():
        found |= {f"--{name}" for name in re.findall(r" -l ([a-z-]+)", line)}
        found |= {f"-{letter}" for letter in re.findall(r" -s ([a-z])", line)}
    assert found == declared_flags(info)
    if shutil.which("fish"):
        subprocess.run(["fish", "-n", str(COMPLETIONS / "lumvane.fish")], check=True)
