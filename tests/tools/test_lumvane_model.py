"""lumvane-model as its users see it: what it shows, what it checks, and how it ends."""

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import jsonschema
import numpy as np
import pytest

SOURCE = Path(__file__).resolve().parents[2]
PACKAGES = SOURCE / "tests" / "fixtures" / "packages"
PROGRAM = Path(os.environ.get("LUMVANE_MODEL_PROGRAM", SOURCE / "build" / "release" / "lumvane-model"))


def run(*arguments, status=0):
    words = [str(argument) for argument in arguments]
    done = subprocess.run([str(PROGRAM), *words], capture_output=True, text=True, timeout=300, check=False)
    assert done.returncode == status, done.stdout + done.stderr
    return done.stdout if status < 2 else done.stderr


def check(name, ending=".mlpackage", *more, output=None, status=0):
    output = output or PACKAGES / f"{name}.f32"
    return run(PACKAGES / f"{name}{ending}", "--check", PACKAGES / "recorded-input.f32", output, *more, status=status)


def document(schema, *arguments, status=0):
    """The document that the program writes, which must follow its schema."""
    text = run(*arguments, "--json", status=status)
    assert text.endswith("}\n") and text.count("\n") == 1
    read = json.loads(text)
    rules = json.loads((SOURCE / "docs" / "schemas" / f"{schema}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(rules)
    jsonschema.Draft202012Validator(rules).validate(read)
    return read


def test_a_package_is_shown():
    text = run(PACKAGES / "unet-ios15-float16.mlpackage")
    assert "Kind: ML program in a package (.mlpackage)\n" in text
    assert "Version: specification 6, operation set CoreML5\n" in text
    assert "Inputs\n  image  float32 [1, 3, 32, 40]\n" in text
    assert "Outputs\n  denoised  float32" in text
    assert re.search(r"^ +\d+  conv$", text, re.MULTILINE)
    assert re.search(r"^Weights: [\d,]+ elements in [\d,]+ bytes\n  float16 ", text, re.MULTILINE)
    assert "Portable engine: runs it\n" in text
    assert re.search(r"^Multiply-adds: \d+\.\d{3} G for an input of \[1, 3, 32, 40\]$", text, re.MULTILINE)


def test_a_flexible_network_is_counted_for_a_whole_tile():
    text = run(PACKAGES / "unet-flexible-float16.mlpackage")
    assert "for an input of [1, 3, 512, 512]\n" in text
    count = float(re.search(r"Multiply-adds: (\S+) G", text)[1])
    quarter = run(PACKAGES / "unet-flexible-float16.mlpackage", "--shape", "1,3,256,256")
    assert float(re.search(r"Multiply-adds: (\S+) G", quarter)[1]) == pytest.approx(count / 4, abs=1e-3)


def test_multiply_adds_are_those_of_the_definition():
    # Convolutions of 3 to 16, 16 to 16 and 16 to 3 channels, 3 by 3, over 32 by 40 pixels.
    text = run(PACKAGES / "quantized-ios18-float16.mlpackage")
    assert float(re.search(r"Multiply-adds: (\S+) G", text)[1]) == pytest.approx(
        9 * 32 * 40 * (3 * 16 + 16 * 16 + 16 * 3) / 1e9, abs=6e-4
    )


@pytest.mark.parametrize(
    ("name", "form"),
    [
        ("palettized-ios16-float16", "palettized (uint8)"),
        ("palettized-ios18-float16", "palettized (uint4)"),
        ("quantized-ios16-float16", "quantized (int8)"),
        ("quantized-ios18-float16", "quantized in blocks (int8)"),
        ("pruned-ios18-float16", "sparse (float16)"),
    ],
)
def test_compressed_weights_are_told(name, form):
    text = run(PACKAGES / f"{name}.mlpackage")
    # 9 * (3 * 16 + 16 * 16 + 16 * 3) weights stand for three tensors.
    assert re.search(rf"^  {re.escape(form)} +3 tensors +3,168 elements", text, re.MULTILINE), text


@pytest.mark.parametrize(
    ("name", "form"),
    [
        # 9 * (3 * 16 + 16 * 16 + 16 * 3) weights of three layers, and 16 + 16 + 3 biases. Of each of the six, a byte
        # per element and two float32 numbers per channel, or one of each; or half a byte and a table of 16.
        ("layers-linear8", ("quantized (uint8)", 6, 3203, 3203 + 8 * (16 + 16 + 3 + 3))),
        ("layers-table4", ("palettized (uint4)", 6, 3203, 1602 + 6 * 16 * 4)),
        ("layers-unet-float16", ("float16", 15, 7867, 15734)),
    ],
)
def test_weights_of_layers_are_counted_by_their_form(name, form):
    report = document("model-report", PACKAGES / f"{name}.mlmodel")
    assert (report["type"], report["bundle"]) == ("neural network", "single file (.mlmodel)")
    assert [tuple(each.values()) for each in report["weights"]] == [form]


def test_a_report_for_programs():
    report = document("model-report", PACKAGES / "unet-flexible-float16.mlpackage", "--shape", "1,3,32,40", "--time")
    (image,) = report["inputs"]
    assert image["shape"] == [1, 3, 64, 64]
    assert image["ranges"] == [[1, 1], [3, 3], [8, 512], [8, 512]]
    assert report["engine"] == {"runs": True}
    assert report["operation_set"] == "CoreML6"
    assert report["operations"]["conv"] >= 8
    assert report["cost"]["input_shape"] == report["times"]["input_shape"] == [1, 3, 32, 40]
    shown = run(PACKAGES / "unet-flexible-float16.mlpackage", "--shape", "1,3,32,40")
    assert f"{report['cost']['multiply_adds'] / 1e9:.3f} G" in shown
    assert {each["name"].split(" ")[0] for each in report["times"]["layers"]} == {
        each["name"] for each in report["times"]["kinds"]
    }


def test_a_report_of_what_is_not_run():
    report = document("model-report", PACKAGES / "two-outputs.mlmodelc")
    assert report["engine"] == {"runs": False, "reason": "it has 2 outputs, expected 1"}
    assert "cost" not in report
    listed = document("model-report", PACKAGES / "restormer-enumerated-ios16-float16.mlmodelc")
    assert listed["inputs"][0]["shapes"] == [[1, 3, 64, 64], [1, 3, 32, 40], [1, 3, 96, 48]]


def test_a_failure_leaves_no_half_document(tmp_path):
    for arguments in (["--time", "--shape", "1,4,8,8"], ["--check", tmp_path / "gone", tmp_path / "gone"]):
        words = [str(each) for each in [PROGRAM, PACKAGES / "identity.mlpackage", "--json", *arguments]]
        done = subprocess.run(words, capture_output=True, text=True, timeout=300, check=False)
        assert (done.returncode, done.stdout) == (2, "")
        assert done.stderr.startswith("lumvane-model: ")


def test_a_check_for_programs(tmp_path):
    model = PACKAGES / "unet-ios15-float32.mlpackage"
    files = ["--check", PACKAGES / "recorded-input.f32", PACKAGES / "unet-ios15-float32.f32"]
    passed = document("model-check", model, *files)
    assert passed["passed"] and passed["share"] < passed["tolerance"] == 1e-4
    assert passed["input_shape"] == passed["output_shape"] == [1, 3, 32, 40]
    recorded = np.fromfile(files[2], "<f4")
    recorded[77] = np.nan
    recorded.tofile(tmp_path / "off.f32")
    missed = document("model-check", model, *files[:2], tmp_path / "off.f32", status=1)
    assert (missed["passed"], missed["largest_difference"], missed["at_element"]) == (False, None, 77)


def test_a_compiled_model_is_shown():
    text = run(PACKAGES / "attention-ios18-float16.mlmodelc")
    assert "Kind: ML program in a compiled model (.mlmodelc)\n" in text
    assert "Version: specification 9, operation set CoreML8\n" in text
    assert "Portable engine: runs it\n" in text


@pytest.mark.parametrize(
    ("name", "reason"),
    [
        ("unknown-operation", "frobnicate 'op_3': unknown operation"),
        ("two-outputs", "it has 2 outputs, expected 1"),
    ],
)
def test_what_the_engine_does_not_run_is_shown_with_the_reason(name, reason):
    text = run(PACKAGES / f"{name}.mlpackage")
    assert f"Portable engine: does not run it: {reason}\n" in text
    assert "Multiply-adds" not in text
    assert reason in run(PACKAGES / f"{name}.mlpackage", "--time", status=2)


def test_times_by_layer():
    text = run(PACKAGES / "unet-ios15-float16.mlpackage", "--time")
    assert re.search(r"^Preparation and first run: \d+\.\d ms for an input of \[1, 3, 32, 40\]$", text, re.MULTILINE)
    layers = text.split("Time by layer: ")[1].split("Time by kind: ")[0]
    assert re.search(r"^ +\d+\.\d{3} ms +\d+\.\d %  conv '", layers, re.MULTILINE)
    shares = [float(share) for share in re.findall(r"([\d.]+) %", layers)]
    assert sum(shares) == pytest.approx(100, abs=0.1 * len(shares))


@pytest.mark.parametrize(
    ("name", "ending"),
    [
        ("unet-ios15-float32", ".mlpackage"),
        ("unet-ios15-float32", ".mlmodelc"),
        ("palettized-ios18-float16", ".mlmodelc"),
    ],
)
def test_a_check_that_passes(name, ending):
    text = check(name, ending, "--tolerance", "2e-4")
    assert "Input: [1, 3, 32, 40]\n" in text
    assert re.search(r"^Largest difference: \S+ at element \d+, \S+ of the range\nPassed: tolerance 0.0002$", text, re.M)


def test_a_check_that_misses(tmp_path):
    recorded = np.fromfile(PACKAGES / "unet-ios15-float32.f32", "<f4")
    recorded[1234] += 0.01 * np.ptp(recorded)
    recorded.tofile(tmp_path / "off.f32")
    text = check("unet-ios15-float32", output=tmp_path / "off.f32", status=1)
    assert "at element 1234, 0.01 of the range\nMissed: tolerance 0.0001\n" in text
    check("unet-ios15-float32", ".mlpackage", "--tolerance", "0.02", output=tmp_path / "off.f32")


def test_a_flexible_network_takes_the_shape_that_is_asked_for():
    check("unet-flexible-float16", ".mlpackage", "--shape", "1,3,32,40")
    assert "expected 3072 for [1, 3, 32, 32]" in check(
        "unet-flexible-float16", ".mlpackage", "--shape", "1,3,32,32", status=2
    )
    assert "nor a square; give its shape with --shape" in check("unet-flexible-float16", status=2)


def test_a_square_needs_no_shape(tmp_path):
    values = np.arange(3 * 16 * 16, dtype="<f4")
    values.tofile(tmp_path / "in.f32")
    (values / 2).tofile(tmp_path / "out.f32")
    text = run(PACKAGES / "gain-half.mlpackage", "--check", tmp_path / "in.f32", tmp_path / "out.f32", "--tolerance", 0)
    assert "Input: [1, 3, 16, 16]\n" in text


def test_recorded_files_that_do_not_fit(tmp_path):
    np.zeros(5, "<f4").tofile(tmp_path / "short.f32")
    assert "the recorded output has 5 values" in check("unet-ios15-float32", output=tmp_path / "short.f32", status=2)
    (tmp_path / "odd.f32").write_bytes(b"12345")
    assert "odd.f32' holds no whole number" in check("unet-ios15-float32", output=tmp_path / "odd.f32", status=2)
    assert "cannot open" in check("unet-ios15-float32", output=tmp_path / "gone.f32", status=2)


def test_what_cannot_be_read(tmp_path):
    assert "there is no file or directory" in run(tmp_path / "gone.mlpackage", status=2)
    assert "is a package under the name of a compiled model" in run(shutil.copytree(PACKAGES / "identity.mlpackage", tmp_path / "x.mlmodelc"), status=2)


def test_usage():
    assert "lumvane-model MODEL" in run("--help")
    assert re.fullmatch(r"lumvane-model \d+\.\d+\.\d+\n", run("--version"))
    assert "no model is given; --help tells more" in run(status=2)
    assert "unknown option '--frob'" in run("x", "--frob", status=2)


@pytest.mark.skipif(not shutil.which("mandoc"), reason="mandoc is not installed")
def test_the_manual_page():
    page = SOURCE / "docs" / "lumvane-model.1"
    done = subprocess.run(["mandoc", "-T", "lint", str(page)], capture_output=True, text=True, check=False)
    assert done.stdout + done.stderr == ""
    for option in re.findall(r"--[a-z]+", run("--help")):
        assert f"Fl -{option[2:]}" in page.read_text() or f", -{option[2:]}" in page.read_text(), option
