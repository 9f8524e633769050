"""Model packages that do not fit or are damaged: one clear error, never a crash or a spoiled output."""

import json
import random
import shutil
import subprocess

import numpy as np
import pytest
from conftest import PACKAGES, PROGRAM, load, noise_image, save

COMPILE = "Unable to compile CoreML model: "
LOAD = "Unable to load CoreML model: "


@pytest.fixture
def image(tmp_path):
    return save(tmp_path / "image.png", noise_image(512, 512, 3, np.uint8))


@pytest.fixture
def package(tmp_path):
    """A copy of a package with weights in a file, to be damaged."""
    return shutil.copytree(PACKAGES / "unet-flexible-float16.mlpackage", tmp_path / "damaged.mlpackage")


def model_file(package):
    return package / "Data" / "com.apple.CoreML" / "model.mlmodel"


def weight_file(package):
    return package / "Data" / "com.apple.CoreML" / "weights" / "weight.bin"


def refusal(run):
    """First line of a refusal at opening; the context stands behind it, then the lookup text."""
    assert run.status == 255, run.err
    lines = run.failure().split("\n")
    assert len(lines) == 2, run.err
    assert lines[1].startswith(
        "Model context: backend=CoreML; expected=.mlpackage or .mlmodelc directory bundle; source=backend caller; "
    )
    assert "; lookup candidates" not in lines[1]
    return lines[0]


def test_a_good_package_runs(lumvane, image, tmp_path):
    run = lumvane.denoise(image, "out.png", weights=PACKAGES / "unet-flexible-float16.mlpackage")
    assert run.status == 0, run.err
    assert load(tmp_path / "out.png").shape == (512, 512, 3)


@pytest.mark.parametrize("slashes", ["", "/", "//"])
def test_a_compiled_model_runs(lumvane, image, tmp_path, slashes):
    bundle = f"{PACKAGES / 'unet-flexible-float16.mlmodelc'}{slashes}"
    run = lumvane.denoise(image, "out.png", weights=bundle)
    assert run.status == 0, run.err
    package = lumvane.denoise(image, "package.png", weights=PACKAGES / "unet-flexible-float16.mlpackage")
    assert package.status == 0, package.err
    assert np.array_equal(load(tmp_path / "out.png"), load(tmp_path / "package.png"))


def test_a_damaged_compiled_model_cannot_be_loaded(lumvane, image, tmp_path):
    bundle = shutil.copytree(PACKAGES / "unet-flexible-float16.mlmodelc", tmp_path / "damaged.mlmodelc")
    (bundle / "model.mil").write_text("program(1.3) {")
    text = refusal(lumvane.denoise(image, "out.png", weights=f"{bundle}/"))
    assert text.startswith(LOAD)
    assert text.endswith("model.mil': line 1, column 15: expected 'func', found the end of the text")


def test_the_ending_of_a_compiled_model_is_exact(lumvane, image, tmp_path):
    bundle = shutil.copytree(PACKAGES / "unet-flexible-float16.mlmodelc", tmp_path / "network.MLMODELC")
    text = refusal(lumvane.denoise(image, "out.png", weights=bundle))
    assert text == f"{COMPILE}'{bundle}' is a compiled model, expected the ending .mlmodelc"


def test_a_network_of_layers_in_a_single_file_denoises_like_the_program_made_of_the_same_module(
    lumvane, image, tmp_path
):
    single = lumvane.denoise(image, "single.png", weights=PACKAGES / "layers-unet-flexible.mlmodel")
    assert single.status == 0, single.err
    program = lumvane.denoise(image, "program.png", weights=PACKAGES / "unet-flexible-float16.mlpackage")
    assert program.status == 0, program.err
    found = load(tmp_path / "single.png").astype(int)
    assert found.shape == (512, 512, 3)
    assert np.abs(found - load(tmp_path / "program.png")).max() <= 1
    assert np.abs(found - load(image)).max() > 1


def test_a_single_file_of_noise_is_refused(lumvane, image, tmp_path):
    (tmp_path / "noise.mlmodel").write_bytes(random.Random(5).randbytes(300))
    assert refusal(lumvane.denoise(image, "out.png", weights="noise.mlmodel")).startswith(COMPILE)


def test_a_network_of_layers_for_another_size_fails_as_a_prediction(lumvane, image):
    run = lumvane.denoise(image, "out.png", weights=PACKAGES / "layers-dncnn-version1.mlmodel")
    assert run.failure().startswith("CoreML prediction failed: ")
    assert "expected [1, 3, 32, 40]" in run.failure()


def test_two_outputs_are_refused_at_opening(lumvane, image):
    run = lumvane.denoise(image, "out.png", weights=PACKAGES / "two-outputs.mlpackage")
    assert refusal(run) == "CoreML model must expose exactly one input and one output."
    assert "Working" not in run.out


@pytest.mark.parametrize(
    ("name", "text"),
    [
        ("float16-output", "CoreML output tensor must be Float32."),
        ("half-size-output", "CoreML returned an unexpected output shape."),
        ("rank-3-output", "CoreML returned an unexpected output shape."),
    ],
)
def test_wrong_outputs_fail_on_the_first_tile_without_the_context(lumvane, image, tmp_path, name, text):
    run = lumvane.denoise(image, "out.png", weights=PACKAGES / f"{name}.mlpackage")
    assert run.status == 255
    assert run.failure() == text
    assert "Working: 25.0%" in run.out
    assert not (tmp_path / "out.png").exists()


def test_a_network_of_another_fixed_size_fails_as_a_prediction(lumvane, image):
    run = lumvane.denoise(image, "out.png", weights=PACKAGES / "unet-ios15-float32.mlpackage")
    assert run.failure().startswith("CoreML prediction failed: ")


def test_an_unknown_operation_is_refused_by_name(lumvane, image):
    text = refusal(lumvane.denoise(image, "out.png", weights=PACKAGES / "unknown-operation.mlpackage"))
    assert text.startswith(COMPILE)
    assert "frobnicate" in text


def test_a_file_instead_of_a_package(lumvane, image, tmp_path):
    (tmp_path / "file.mlpackage").write_bytes(b"x")
    assert refusal(lumvane.denoise(image, "out.png", weights="file.mlpackage")).startswith(COMPILE)


def test_an_empty_directory(lumvane, image, tmp_path):
    (tmp_path / "empty.mlpackage").mkdir()
    assert refusal(lumvane.denoise(image, "out.png", weights="empty.mlpackage")).startswith(COMPILE)


@pytest.mark.parametrize("change", ["root", "items", "escape", "absolute", "version", "syntax", "deep"])
def test_damaged_manifests(lumvane, image, package, change):
    path = package / "Manifest.json"
    manifest = json.loads(path.read_text())
    root = manifest["rootModelIdentifier"]
    if change == "root":
        del manifest["rootModelIdentifier"]
    elif change == "items":
        del manifest["itemInfoEntries"][root]
    elif change == "escape":
        manifest["itemInfoEntries"][root]["path"] = "../../secret"
    elif change == "absolute":
        manifest["itemInfoEntries"][root]["path"] = "/etc/passwd"
    elif change == "version":
        manifest["fileFormatVersion"] = "2.0.0"
    path.write_text(json.dumps(manifest))
    if change == "syntax":
        path.write_text("{")
    if change == "deep":
        path.write_text("[" * 100000)
    assert refusal(lumvane.denoise(image, "out.png", weights=package)).startswith(COMPILE)


def test_missing_model_message(lumvane, image, package):
    model_file(package).unlink()
    assert refusal(lumvane.denoise(image, "out.png", weights=package)).startswith(COMPILE)


@pytest.mark.parametrize("share", [0.0, 0.1, 0.5, 0.99])
def test_truncated_model_message(lumvane, image, package, share):
    data = model_file(package).read_bytes()
    model_file(package).write_bytes(data[: int(len(data) * share)])
    assert refusal(lumvane.denoise(image, "out.png", weights=package)).startswith((COMPILE, LOAD))


def test_missing_weight_file(lumvane, image, package):
    weight_file(package).unlink()
    assert refusal(lumvane.denoise(image, "out.png", weights=package)).startswith(LOAD)


@pytest.mark.parametrize("share", [0.0, 0.3, 0.9])
def test_truncated_weight_file(lumvane, image, package, share):
    data = weight_file(package).read_bytes()
    weight_file(package).write_bytes(data[: int(len(data) * share)])
    assert refusal(lumvane.denoise(image, "out.png", weights=package)).startswith(LOAD)


def test_weight_records_that_point_outside(lumvane, image, package):
    data = bytearray(weight_file(package).read_bytes())
    data[64 + 16 : 64 + 24] = (1 << 62).to_bytes(8, "little")
    weight_file(package).write_bytes(data)
    assert refusal(lumvane.denoise(image, "out.png", weights=package)).startswith(LOAD)


def test_flipped_bytes_never_crash(image, package, tmp_path):
    """Whatever a damaged message does to the network, the program ends by itself, with one of its statuses."""
    original = model_file(package).read_bytes()
    generator = random.Random(20)
    for _ in range(25):
        data = bytearray(original)
        for _ in range(generator.randint(1, 4)):
            data[generator.randrange(len(data))] = generator.randrange(256)
        model_file(package).write_bytes(data)
        done = subprocess.run(
            [str(PROGRAM), "-i", str(image), "-o", "out.png", "-w", str(package), "-s", "512", "--machine-progress"],
            cwd=tmp_path,
            capture_output=True,
            timeout=120,
            check=False,
        )
        assert done.returncode in (0, 255), done.stderr
        for line in done.stderr.splitlines():
            json.loads(line)
