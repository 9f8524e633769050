"""Commands and transcripts in the documents are run and compared, so that no document tells what is not so.

A block of language `console` holds commands behind "$ " and below each what it prints, standard error after standard
output. It is run in a folder with the images that the documents speak of. An ellipsis stands for any text within a line;
a line that is an ellipsis stands for any lines. Blanks at the end of a line are not shown.
"""

import re
import subprocess

import numpy as np
import pytest
from astropy.io import fits
from conftest import PROGRAM, SOURCE, save

DOCUMENTS = ["README.md", "docs/machine-interface.md"]
ELLIPSIS = "..."


def blocks(document, language):
    text = (SOURCE / document).read_text(encoding="utf-8")
    return re.findall(rf"(?ms)^```{language}\n(.*?)^```$", text)


def transcripts():
    for document in DOCUMENTS:
        for number, block in enumerate(blocks(document, "console")):
            yield pytest.param(block, id=f"{document}-{number}")


def commands_of(block):
    """Pairs of a command and the lines that it is said to print."""
    found = []
    for line in block.splitlines():
        if line.startswith("$ "):
            found.append((line[2:], []))
        else:
            found[-1][1].append(line)
    return found


@pytest.fixture
def sky(tmp_path):
    """The images that the documents name: a dim sky with noise and some stars."""
    random = np.random.default_rng(3)
    planes = random.normal(0.1, 0.01, (600, 700, 3))
    planes[random.integers(0, 600, 200), random.integers(0, 700, 200)] += 0.5
    pixels = np.clip(np.rint(planes * 65535), 0, 65535).astype(np.uint16)
    save(tmp_path / "nebula.tif", pixels)
    save(tmp_path / "nebula.png", pixels)
    save(tmp_path / "small.png", pixels[:100, :100])
    fits.PrimaryHDU(pixels[:, :, 0]).writeto(tmp_path / "light.fits")
    return tmp_path


def run(command, folder):
    """Standard output, then standard error, of a command line with `lumvane` standing for the program under test."""
    script = f"lumvane() {{ '{PROGRAM}' \"$@\"; }}\n{command}"
    done = subprocess.run(["bash", "-c", script], cwd=folder, capture_output=True, check=False)
    text = (done.stdout + done.stderr).decode()
    # The percent lines overwrite one another in a terminal.
    text = re.sub(r"(?m)^.*\r", "", text)
    return text.replace(str(PROGRAM), "/opt/lumvane/lumvane").replace(str(PROGRAM.parent), "/opt/lumvane").splitlines()


def pattern(lines):
    parts = []
    for line in lines:
        if line == ELLIPSIS:
            parts.append(r"(?:.*\n)*?")
        else:
            parts.append(".*".join(re.escape(piece) for piece in line.split(ELLIPSIS)) + r" *\n")
    return "".join(parts)


@pytest.mark.parametrize("block", transcripts())
def test_transcript(block, sky):
    for command, expected in commands_of(block):
        printed = run(command, sky)
        text = "".join(f"{line}\n" for line in printed)
        assert re.fullmatch(pattern(expected), text), f"$ {command}\n{text}"


def test_the_documents_have_transcripts():
    assert all(blocks(document, "console") for document in DOCUMENTS)


def test_commands_of_the_readme_run(sky):
    """The examples without their output: each must succeed on the images that it names."""
    found = [line for block in blocks("README.md", "sh") for line in block.splitlines() if line.startswith("lumvane ")]
    assert len(found) >= 5
    for line in found:
        done = subprocess.run(
            ["bash", "-c", f"lumvane() {{ '{PROGRAM}' \"$@\"; }}\n{line}"],
            cwd=sky,
            capture_output=True,
            text=True,
            check=False,
        )
        assert done.returncode == 0, f"{line}\n{done.stderr}"
