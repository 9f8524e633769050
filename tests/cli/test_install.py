"""An installation runs from its own prefix, with the packages, the manual page and the completions in place."""

import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from conftest import PROGRAM, Program, load, noise_image, save

# The tool shows what the portable engine makes of a package, which macOS does without.
HAS_TOOL = sys.platform != "darwin"
BUILD = Path(os.environ.get("LUMVANE_BUILD", PROGRAM.parent))


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    folder = tmp_path_factory.mktemp("prefix")
    subprocess.run(["cmake", "--install", str(BUILD), "--prefix", str(folder)], check=True, capture_output=True)
    return folder


@pytest.mark.parametrize("version", ["1", "2"])
def test_the_installed_program_finds_its_packages(prefix, tmp_path, version):
    pixels = noise_image(512, 512, 3, np.uint16) // 16 + 8000
    save(tmp_path / "in.png", pixels)
    run = Program(tmp_path, prefix / "bin" / "lumvane")("-i", "in.png", "-o", "out.png", "-m", version)
    assert run.status == 0, run.err
    package = prefix / "lib" / "lumvane" / f"Lumvane_weights_v{version}.mlpackage"
    assert f"Loading CoreML model package: {package}\n" in run.out
    # White noise of this strength loses most of itself, whatever network it is.
    assert load(tmp_path / "out.png").std() < 0.7 * pixels.std()


@pytest.mark.parametrize(
    "name",
    [
        "share/man/man1/lumvane.1",
        pytest.param("share/man/man1/lumvane-model.1", marks=pytest.mark.skipif(not HAS_TOOL, reason="no tool here")),
        "share/bash-completion/completions/lumvane",
        "share/zsh/site-functions/_lumvane",
        "share/fish/vendor_completions.d/lumvane.fish",
        "share/doc/lumvane/README.md",
        "share/doc/lumvane/LICENSE",
        "share/doc/lumvane/machine-interface.md",
        "share/doc/lumvane/schemas/model-check.schema.json",
        "share/doc/lumvane/schemas/model-report.schema.json",
        "share/doc/lumvane/schemas/progress.schema.json",
    ],
)
def test_what_comes_with_the_program(prefix, name):
    assert (prefix / name).is_file()


def test_nothing_but_ours_is_installed(prefix):
    top = {path.relative_to(prefix).parts[:2] for path in prefix.rglob("*") if path.is_file()}
    tool = {("bin", "lumvane-model")} if HAS_TOOL else set()
    assert top == tool | {
        ("bin", "lumvane"),
        ("lib", "lumvane"),
        ("share", "man"),
        ("share", "bash-completion"),
        ("share", "zsh"),
        ("share", "fish"),
        ("share", "doc"),
    }
